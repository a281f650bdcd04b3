#include "zor/morph/wrapper_operator_field_morph.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zor/model/distance_statistics.h"
#include "zor/model/stl_base.h"
#include "zor/model/stl_guards.h"
#include "zor/model/stopwatch.h"
#include "zor/morph/detail/field_levels.h"
#include "zor/morph/detail/lay_on_target.h"
#include "zor/morph/detail/parallel_loops.h"
#include "zor/morph/detail/space_field.h"
#include "zor/morph/detail/target_surface.h"

namespace ZorStlRegistration {

namespace {

using detail::FieldLevel;
using detail::PassSummary;
using detail::PlaneTerm;
using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;
using Params = MWrapperOperatorFieldMorph::SParams;
using Report = MWrapperOperatorFieldMorph::Report;
using StopReason = MWrapperOperatorFieldMorph::StopReason;

// The constants' measurements stand in bench/README.md ("Field morph").
constexpr double kPi = 3.141592653589793;
// The first smoothing length, as a share of the moving mesh's diagonal: the first field
// is nearly a translation.
constexpr double kFirstSmoothing = 0.25;
// A level serves smoothing lengths of at least this many of its mean edges.
constexpr double kEdgesPerSmoothing = 4.0;
// The first passes' search reach, as a share of the diagonal, unless the caller sets one.
constexpr double kFirstReach = 0.1;
// Later passes search to this many times the 90th percentile of the last match distances.
constexpr double kReachOverSpread = 3.0;
// Conjugate-gradient steps per solve, and the residual drop that ends a solve early.
// The mesh itself starts from a field that its coarser levels have settled, and its
// matches move little: fewer steps do.
constexpr std::size_t kSolverSteps = 200;
constexpr std::size_t kFineSolverSteps = 40;
constexpr double kSolverTolerance = 1e-4;
// The membrane term's weight beside the bending term's, both at the same length.
constexpr double kMembraneShare = 0.01;
// The bending term's weight at a smoothing length of L mean edges is kBendingShare L^4:
// stiffer fields left points off the target at sharp features.
constexpr double kBendingShare = 0.1;
// Weight of the displacement's own size beside a point's plane term: a motion that no
// match asks for (a whole translation that a local bump would also explain) is not
// taken. Larger values also hold back true motions along the surface (a bend's ends),
// so it is stronger only on the coarse levels, where such a translation would start.
constexpr double kRidge = 0.001;
constexpr double kCoarseRidge = 0.01;
// When the distances stall at the final smoothing length, it is halved, at most until
// it is this share of the length asked for.
constexpr double kFloorShare = 0.2;
// A gain of the 95th percentile below this share counts as none.
constexpr double kStallGain = 0.01;
// The field over space: lattices of kFirstCells cells along the longest side, doubling
// up to kLastCells, each fitted in kSpacePasses passes on the finest level of at most
// kSpacePoints points. Coarser starts left the bends and twists behind; stiffer
// lattices held back the true motion.
constexpr std::size_t kFirstCells = 2;
constexpr std::size_t kLastCells = 8;
constexpr std::size_t kSpacePasses = 3;
constexpr std::size_t kSpacePoints = 5000;
constexpr std::size_t kSpaceSolverSteps = 20;
constexpr double kSpaceBending = 0.001;
constexpr double kSpaceRidge = 0.001;
// After the field over space, the surface levels start at this share of its finest
// lattice spacing: they only lay the points on the target.
constexpr double kSurfaceStartShare = 0.1;
// The weight of a target point matched back onto the moving mesh, beside a moving
// point's match: the target's points lie on the surface it stands for, where its flat
// triangles cut inside.
constexpr double kBackWeight = 8.0;

template <typename Body>
void ForEach(std::size_t count, const Body& body) {
  detail::ForEachIndex(count, 256, body);
}

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

// One Operate: the stages in order, each a member, sharing the state of the run.
class FieldMorphRun {
public:
  FieldMorphRun(MStlBase& movingMesh, MStlBase& targetOf, const Params& p, Report& r)
      : mesh(movingMesh), targetMesh(targetOf), params(p), report(r) {}

  // The moving mesh as arrays and its levels, the target's surface. False when there is
  // nothing to morph or nothing to morph onto (the report says which).
  bool Prepare();
  // The field over space, fitted on the finest level that is still small, from coarse
  // lattices to finer ones; it leaves the surface levels only what lies below its finest
  // spacing.
  void FitSpaceField(ZorSDK::Common::IncrementalProgressReporter& reporter);
  // The surface levels, coarse to fine, until the run ends by one of its stop rules.
  void FitSurfaceLevels(ZorSDK::Common::IncrementalProgressReporter& reporter);
  // Lays every point with a near match on the target itself, unless that folds.
  void LayPointsOnTarget();
  // Rounds to the grid, checked whole before any point is written, and writes.
  void WriteBack();
  // The distances of the written points to the target, the folds.
  void Measure();

private:
  void SetBase(const FieldLevel& at);
  void StepDown();
  // rest + base + field of the mesh itself, and their normals.
  void PlaceFinePoints(bool withNormals);

  MStlBase& mesh;
  MStlBase& targetMesh;
  const Params& params;
  Report& report;

  std::vector<MStlPoint*> points;        // in list order
  std::vector<std::uint32_t> triangles;  // three places in that order each
  std::vector<FieldLevel> levels;        // the mesh itself first, then coarser
  std::unique_ptr<detail::TargetSurface> surface;
  detail::SpaceField space;
  std::size_t level = 0;          // the level in use
  std::vector<MMVector3d> field;  // of the level in use, on top of `base`
  std::vector<MMVector3d> base;   // the field over space at the level's points
  std::vector<MMVector3d> positions, normals, finerField;
  std::vector<PlaneTerm> terms;
  std::vector<double> distances;
  double diagonal = 0.0, finest = 0.0, smoothing = 0.0, reach = 0.0, cosine = 0.0;
  bool everMatched = false;
  StopReason stop = StopReason::PassLimit;
};

bool FieldMorphRun::Prepare() {
  const Clock::time_point stage = Clock::now();
  points.reserve(mesh.NumberOfPoints());
  for (MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) points.push_back(p);
  std::vector<std::uint32_t> placeOf(mesh.GetMasks().GetPointMaskSize());
  for (std::size_t i = 0; i < points.size(); ++i) placeOf[points[i]->GetMaskIndex()] = static_cast<std::uint32_t>(i);
  triangles.reserve(3 * mesh.GetNumberOfTriangles());
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = static_cast<const MStlTriangle*>(it);
    for (std::size_t k = 0; k < 3; ++k) triangles.push_back(placeOf[t->GetPoint(k)->GetMaskIndex()]);
  }
  const std::size_t n = points.size();
  levels.resize(1);
  levels[0].rest.resize(n);
  for (std::size_t i = 0; i < n; ++i) levels[0].rest[i] = points[i]->GetDouble();
  detail::PointNormals(triangles, levels[0].rest, levels[0].normals);
  levels[0].graph = detail::GraphOfTriangles(n, triangles);
  detail::MeasureEdges(levels[0]);
  while (levels.back().rest.size() > params.coarsestPoints) {
    FieldLevel coarse = detail::Coarsen(levels.back());
    if (coarse.rest.size() * 10 > levels.back().rest.size() * 9) break;  // the graph no longer shrinks
    levels.push_back(std::move(coarse));
  }
  report.levels = levels.size();
  surface = std::make_unique<detail::TargetSurface>(&targetMesh);
  report.setup = SecondsSince(stage);

  level = levels.size() - 1;
  field.assign(levels[level].rest.size(), MMVector3d());
  if (n == 0 || surface->Empty() || triangles.empty()) {
    report.stop = n == 0 || triangles.empty() ? StopReason::NothingToMorph : StopReason::NoMatch;
    report.unmatched = n;
    return false;
  }
  const FieldLevel& fine = levels[0];
  MMVector3d lo = fine.rest[0], hi = fine.rest[0];
  for (const MMVector3d& p : fine.rest)
    for (std::size_t k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], p[k]);
      hi[k] = std::max(hi[k], p[k]);
    }
  diagonal = Length(hi - lo);
  finest = params.smoothing * (fine.meanEdge > 0.0 ? fine.meanEdge : diagonal);
  smoothing = std::max(kFirstSmoothing * diagonal, finest);
  reach = params.searchDistance > 0.0 ? params.searchDistance : kFirstReach * diagonal;
  cosine = std::cos(params.normalAngle / 180.0 * kPi);
  space = detail::SpaceField(lo, hi);
  return true;
}

void FieldMorphRun::FitSpaceField(ZorSDK::Common::IncrementalProgressReporter& reporter) {
  if (!params.spaceField) return;
  const double tolerance = params.distanceTolerance;
  std::size_t sample = 0;
  while (sample + 1 < levels.size() && levels[sample].rest.size() > kSpacePoints) ++sample;
  const FieldLevel& fit = levels[sample];
  const std::size_t m = fit.rest.size();
  std::vector<MMVector3d> before(m), now(m), zero(m);
  detail::SpaceFitScratch scratch;
  // The target's own points are matched back onto the moving mesh at rest as well:
  // where both meshes are coarse tessellations of one curved surface, each side's
  // chords cut inside it, and matches from both sides cancel that.
  std::vector<MMVector3d> backPlaces, backNormals, fitRest, fitBefore;
  std::vector<PlaneTerm> fitTerms, backTerms;
  std::vector<double> backDistances;
  detail::SamplePoints(targetMesh, kSpacePoints, backPlaces, backNormals);
  const detail::TargetSurface restSurface(&mesh);
  bool settled = false;
  for (std::size_t cells = kFirstCells; cells <= kLastCells && !settled && report.passes + 1 < params.maxPasses;
       cells *= 2) {
    ForEach(m, [&](std::size_t i) { before[i] = space.At(fit.rest[i]); });
    detail::SpaceLattice& lattice = space.AddLattice(cells);
    for (std::size_t pass = 0; pass < kSpacePasses && report.passes + 1 < params.maxPasses; ++pass) {
      const Clock::time_point stage = Clock::now();
      ForEach(m, [&](std::size_t i) { now[i] = space.At(fit.rest[i]); });
      const PassSummary found =
          detail::MatchLevel(*surface, fit, now, zero, fit.normals, cosine, reach, tolerance, terms, distances);
      // The fit takes the places as matched (MatchLevel took them back by the field).
      ForEach(m, [&](std::size_t i) { terms[i].place = terms[i].place + now[i]; });
      ++report.passes;
      ++reporter;
      everMatched = everMatched || found.matched > 0;
      // Already on the target within the tolerance (a mesh in place): nothing is left
      // for a field over space to see.
      settled = found.matched > 0 && found.p95 < tolerance;
      if (settled) {
        report.space += SecondsSince(stage);
        break;
      }
      // Each target point's rest place: the field is smooth, so it moves a rest place
      // near the point about as it would move the point itself.
      const std::size_t b = backPlaces.size();
      backTerms.assign(b, PlaneTerm());
      backDistances.assign(b, -1.0);
      ForEach(b, [&](std::size_t j) {
        backDistances[j] = restSurface.Match(backPlaces[j] - space.At(backPlaces[j]), backNormals[j], cosine, reach,
                                             true, backTerms[j]);
      });
      fitRest.assign(fit.rest.begin(), fit.rest.end());
      fitBefore.assign(before.begin(), before.end());
      fitTerms.assign(terms.begin(), terms.end());
      for (std::size_t j = 0; j < b; ++j) {
        if (!(backDistances[j] >= 0.0)) continue;
        fitRest.push_back(backTerms[j].place);
        fitBefore.push_back(space.At(backTerms[j].place, space.Lattices().size() - 1));
        PlaneTerm back;
        back.place = backPlaces[j];
        back.normal = backTerms[j].normal;
        back.weight = kBackWeight;
        fitTerms.push_back(back);
      }
      detail::FitLattice(lattice, fitRest, fitBefore, fitTerms, {kSpaceBending, kSpaceRidge}, kSpaceSolverSteps,
                         kSolverTolerance, scratch);
      report.space += SecondsSince(stage);
      if (found.matched > 0) reach = std::max({kReachOverSpread * found.p90, 10.0 * tolerance, 2.0 * fit.meanEdge});
    }
  }
  if (!space.Empty())
    smoothing = std::max(std::min(smoothing, kSurfaceStartShare * space.Lattices().back().spacing), finest);
}

void FieldMorphRun::SetBase(const FieldLevel& at) {
  base.resize(at.rest.size());
  ForEach(at.rest.size(), [&](std::size_t i) { base[i] = space.At(at.rest[i]); });
}

void FieldMorphRun::StepDown() {
  detail::Prolong(levels[level], field, finerField);
  field.swap(finerField);
  --level;
  SetBase(levels[level]);
}

void FieldMorphRun::PlaceFinePoints(bool withNormals) {
  const FieldLevel& fine = levels[0];
  positions.resize(fine.rest.size());
  ForEach(fine.rest.size(), [&](std::size_t i) { positions[i] = fine.rest[i] + base[i] + field[i]; });
  if (withNormals) detail::PointNormals(triangles, positions, normals);
}

void FieldMorphRun::FitSurfaceLevels(ZorSDK::Common::IncrementalProgressReporter& reporter) {
  const double tolerance = params.distanceTolerance;
  const std::size_t n = points.size();
  const FieldLevel& fine = levels[0];
  detail::FieldSolverScratch scratch;
  SetBase(levels[level]);
  double best95 = std::numeric_limits<double>::infinity();
  std::size_t sinceGain = 0;
  std::vector<MMVector3d> previous;  // the mesh's field before a solve
  for (;;) {
    // Down to the coarsest level that still resolves this smoothing length.
    while (level > 0 && kEdgesPerSmoothing * levels[level].meanEdge > smoothing) StepDown();
    const FieldLevel& current = levels[level];
    Clock::time_point stage = Clock::now();
    if (level == 0) PlaceFinePoints(true);
    const PassSummary pass = detail::MatchLevel(*surface, current, base, field, level == 0 ? normals : current.normals,
                                                cosine, reach, tolerance, terms, distances);
    report.correspondence += SecondsSince(stage);
    ++report.passes;
    ++reporter;
    if (pass.matched == 0 && !everMatched) {
      stop = StopReason::NoMatch;
      break;
    }
    everMatched = true;
    report.unmatched = level == 0 ? n - pass.matched : report.unmatched;
    const bool lastLength = level == 0 && !(smoothing > finest);
    if (lastLength) {
      if (static_cast<double>(pass.within) >= params.targetFraction * static_cast<double>(pass.matched) &&
          pass.p95 < tolerance) {
        stop = StopReason::Converged;
        break;
      }
      if (pass.p95 < best95 * (1.0 - kStallGain)) {
        best95 = pass.p95;
        sinceGain = 0;
      } else if (++sinceGain >= params.stallPasses) {
        // The field is too stiff for what is left: let it bend more, down to a floor,
        // before giving up.
        if (!(finest > kFloorShare * params.smoothing * fine.meanEdge)) {
          stop = StopReason::Stalled;
          break;
        }
        finest *= 0.5;
        smoothing = finest;
        best95 = pass.p95;
        sinceGain = 0;
      }
    }
    stage = Clock::now();
    const double ratio2 =
        current.meanEdge > 0.0 ? (smoothing / current.meanEdge) * (smoothing / current.meanEdge) : 0.0;
    const detail::FieldWeights weights{kBendingShare * ratio2 * ratio2, kMembraneShare * ratio2, 0.0,
                                       level == 0 ? kRidge : kCoarseRidge};
    if (level == 0) previous = field;
    detail::SolveField(current, terms, weights, level == 0 ? kFineSolverSteps : kSolverSteps, kSolverTolerance, field,
                       scratch);
    if (level == 0) {
      // A step that folds triangles to come closer is not taken: the run ends on the
      // field before it. (Coarse meshes laid on a coarse re-tessellation of their
      // target would otherwise crease at the target's edges.)
      const std::size_t foldedBefore = detail::FoldedTriangles(triangles, fine.rest, positions);
      PlaceFinePoints(false);
      if (detail::FoldedTriangles(triangles, fine.rest, positions) > foldedBefore) {
        field.swap(previous);
        report.solve += SecondsSince(stage);
        stop = StopReason::Stalled;
        break;
      }
    }
    report.solve += SecondsSince(stage);
    if (report.passes >= params.maxPasses) {
      stop = StopReason::PassLimit;
      break;
    }
    smoothing = std::max(0.5 * smoothing, finest);
    reach = std::max({kReachOverSpread * pass.p90, 10.0 * tolerance, 2.0 * current.meanEdge});
  }
  while (level > 0) StepDown();
  report.stop = stop;
}

void FieldMorphRun::LayPointsOnTarget() {
  if (stop == StopReason::NoMatch || !params.layOnTarget) return;
  // The field is smooth at its final length, and on a coarse mesh laid on a different
  // tessellation of its target that leaves each point up to the target's chords off
  // it. The last step lays every point with a near match on the target itself.
  const Clock::time_point stage = Clock::now();
  const FieldLevel& fine = levels[0];
  PlaceFinePoints(true);
  const PassSummary last = detail::MatchLevel(*surface, fine, base, field, normals, cosine, reach,
                                              params.distanceTolerance, terms, distances, false);
  std::vector<MMVector3d> laid;
  report.laid = detail::LayOnTarget(triangles, fine.rest, positions, terms, distances, base,
                                    std::max(kReachOverSpread * last.p90, 2.0 * params.distanceTolerance), laid);
  ForEach(fine.rest.size(), [&](std::size_t i) { field[i] = field[i] + (laid[i] - positions[i]); });
  report.correspondence += SecondsSince(stage);
}

void FieldMorphRun::WriteBack() {
  const FieldLevel& fine = levels[0];
  const std::size_t n = points.size();
  std::vector<MMVector3i> written(n);
  positions.resize(n);
  bool offGrid = false;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t k = 0; k < 3; ++k) {
      const double x =
          stop == StopReason::NoMatch ? fine.rest[i][k] : std::round(fine.rest[i][k] + base[i][k] + field[i][k]);
      if (!(x >= -2147483648.0 && x <= 2147483647.0)) {
        offGrid = true;
        continue;
      }
      written[i][k] = static_cast<std::int32_t>(x);
      positions[i][k] = x;
    }
  if (offGrid) throw std::out_of_range("MWrapperOperatorFieldMorph: a morphed point leaves the 32-bit grid");
  const MStlBaseOperatorHelperDirectPointChange directChange(&mesh, true);
  for (std::size_t i = 0; i < n; ++i) points[i]->Set(written[i]);
}

void FieldMorphRun::Measure() {
  const Clock::time_point stage = Clock::now();
  const std::size_t n = points.size();
  report.folded = detail::FoldedTriangles(triangles, levels[0].rest, positions);
  std::vector<double> final(n);
  ForEach(n, [&](std::size_t i) { final[i] = surface->Distance(positions[i]); });
  const DistanceStatistics statistics = SummariseDistances(final, params.distanceTolerance);
  report.maxDistance = statistics.largest;
  report.meanDistance = statistics.mean;
  report.fractionWithin = statistics.withinShare;
  report.p95Distance = statistics.percentile95;
  if (stop == StopReason::NoMatch) report.unmatched = n;
  report.measure = SecondsSince(stage);
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
    run.FitSpaceField(reporter);
    run.FitSurfaceLevels(reporter);
    run.LayPointsOnTarget();
    run.WriteBack();
    run.Measure();
  }
  report.total = SecondsSince(start);
}

}  // namespace ZorStlRegistration
