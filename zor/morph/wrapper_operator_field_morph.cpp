#include "zor/morph/wrapper_operator_field_morph.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zor/model/distance_statistics.h"
#include "zor/model/stopwatch.h"
#include "zor/morph/detail/field_morph_run.h"

namespace ZorStlRegistration {

namespace {

using detail::FieldMorphRun;
using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;
using Params = MWrapperOperatorFieldMorph::SParams;
using Report = MWrapperOperatorFieldMorph::Report;
using StopReason = MWrapperOperatorFieldMorph::StopReason;

// The constants' measurements stand in bench/README.md ("Field morph").
// When at least this share of the matched points lies near the target before anything
// moves, the change is taken for a local one, which a field over space may explain by
// moving the whole body along its surface: the surface levels alone are tried first.
constexpr double kLocalShare = 0.8;
// A change that leaves fewer points near is taken for a local one too when the points
// off the target lie together: their box spans at most this share of the mesh's
// diagonal (a large dent or bump), where those of a bend, a twist or a stretch span the
// whole mesh (0.94-1 measured).
constexpr double kCompactShare = 0.7;
constexpr double kCompactSpread = 0.9;
// The deformation without it may strain the mesh this many times as much and still be
// kept when it moves the points less.
constexpr double kStrainSlack = 1.5;
// Laid on the target cleanly: no point farther than this many tolerances from it.
constexpr double kCleanTolerances = 4.0;

MWrapperOperatorFieldMorph::StlImpl CheckedHandle(MWrapperOperatorFieldMorph::StlImpl handle, const char* which) {
  if (handle.GetStl() == nullptr)
    throw std::invalid_argument(std::string("MWrapperOperatorFieldMorph: the ") + which + " mesh is null");
  return handle;
}

void CheckParams(const Params& p) {
  const auto fail = [](const char* what) {
    throw std::invalid_argument(std::string("MWrapperOperatorFieldMorph: ") + what);
  };
  if (!(p.distanceTolerance > 0.0) || !std::isfinite(p.distanceTolerance)) fail("the tolerance must be above 0");
  if (!(p.targetFraction > 0.0 && p.targetFraction <= 1.0)) fail("the target fraction must lie in (0, 1]");
  if (!(p.normalAngle > 0.0 && p.normalAngle <= 180.0)) fail("the normal angle must lie in (0, 180] degrees");
  if (!(p.searchDistance >= 0.0) || !std::isfinite(p.searchDistance)) fail("the search distance must not be negative");
  if (!(p.smoothing > 0.0) || !std::isfinite(p.smoothing)) fail("the smoothing must be above 0");
  if (p.maxPasses == 0) fail("at least one pass is needed");
}

// What a deformation the run gave leaves: how far it lies from the target, how it
// strains the mesh, what it folds.
struct Outcome {
  std::vector<MMVector3d> places;
  StopReason stop = StopReason::PassLimit;
  double p95 = 0.0, largest = 0.0, strain = 0.0, moved = 0.0;
  std::size_t folds = 0;
  bool withoutSpaceField = false;
};

Outcome OutcomeOf(const FieldMorphRun& run, double tolerance) {
  Outcome o;
  o.withoutSpaceField = run.WithoutSpaceField();
  run.Place(o.places);
  o.stop = run.Stop();
  std::vector<double> distances;
  // Judged where the target shows the surface: a point beyond its open border has no
  // place to reach, and how far its neighbours drag it tells nothing of the fit.
  run.Distances(o.places, distances, true);
  const DistanceStatistics s = SummariseDistances(distances, tolerance);
  o.p95 = s.percentile95;
  o.largest = s.largest;
  o.strain = run.Strain(o.places);
  o.moved = run.MeanMove(o.places);
  o.folds = run.Folds(o.places);
  return o;
}

// The surface levels alone have laid the mesh on the target cleanly: nothing folded,
// and no point left far off.
bool Clean(const Outcome& o, double tolerance) {
  return o.folds == 0 && o.p95 <= tolerance && o.largest <= kCleanTolerances * tolerance;
}

// Of two deformations that lay the mesh on the target as closely and fold no more, the
// one that moves the points less, unless it strains the mesh much more: a local change
// explained where it is, rather than by a motion of the whole body along its surface
// that the matches cannot see; a stretch, a bend or a twist, which the surface levels
// alone can only follow by straining the mesh, keeps the field over space.
bool Better(const Outcome& local, const Outcome& global, double tolerance) {
  return local.moved < global.moved && local.strain <= kStrainSlack * global.strain && local.folds <= global.folds &&
         local.p95 <= std::max(global.p95, tolerance) && local.largest <= global.largest + tolerance;
}

}  // namespace

const char* StopReasonName(MWrapperOperatorFieldMorph::StopReason reason) {
  using R = MWrapperOperatorFieldMorph::StopReason;
  switch (reason) {
    case R::NotRun: return "not run";
    case R::NothingToMorph: return "nothing to morph";
    case R::Converged: return "converged";
    case R::Stalled: return "stalled";
    case R::PassLimit: return "pass limit";
    case R::NoMatch: return "no match";
  }
  return "unknown";
}

MWrapperOperatorFieldMorph::MWrapperOperatorFieldMorph(StlImpl movingMesh, StlImpl targetMesh)
    : moving(CheckedHandle(movingMesh, "moving")), target(CheckedHandle(targetMesh, "target")) {}

void MWrapperOperatorFieldMorph::Operate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) {
  CheckParams(params);
  const Clock::time_point start = Clock::now();
  report = Report();
  const std::shared_ptr<ZorSDK::Common::IProgressDelegate> delegate = std::move(progress);
  FieldMorphRun run(*moving.GetStl(), *target.GetStl(), params, report);
  if (run.Prepare()) {
    ZorSDK::Common::IncrementalProgressReporter reporter(delegate, "Field morph", params.maxPasses, false);
    const double tolerance = params.distanceTolerance;
    const auto deform = [&](bool withSpaceField) {
      run.Restart(withSpaceField);
      if (withSpaceField) run.FitSpaceField(reporter);
      run.FitSurfaceLevels(reporter);
      run.LayPointsOnTarget();
      return OutcomeOf(run, tolerance);
    };
    Outcome chosen;
    const FieldMorphRun::RestMatch rest = params.spaceField ? run.MatchAtRest() : FieldMorphRun::RestMatch();
    const bool maybeLocal =
        rest.nearShare >= kLocalShare || (rest.nearShare >= kCompactShare && rest.farSpread <= kCompactSpread);
    if (params.spaceField && maybeLocal) {
      // Most of the mesh is in place already: the surface levels alone first, kept
      // when they lay it on the target cleanly; else the field over space as well, and
      // the better of the two.
      chosen = deform(false);
      if (!Clean(chosen, tolerance) && chosen.stop != StopReason::NoMatch) {
        const Report local = report;
        Outcome global = deform(true);
        if (Better(chosen, global, tolerance)) {
          const Report both = report;
          report = local;
          report.passes = both.passes;
          report.space = both.space;
          report.correspondence = both.correspondence;
          report.solve = both.solve;
        } else {
          chosen = std::move(global);
        }
      }
      report.local = chosen.withoutSpaceField;
    } else {
      chosen = deform(params.spaceField);
    }
    report.stop = chosen.stop;
    run.WriteBack(chosen.places);
    run.Measure();
  }
  report.total = SecondsSince(start);
}

}  // namespace ZorStlRegistration
