#include "zor/pair/pair_registration.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include <tbb/parallel_for.h>
#include <tbb/parallel_invoke.h>

#include "zor/model/distance_statistics.h"
#include "zor/model/stopwatch.h"
#include "zor/model/unit.h"
#include "zor/services/registration_icp.h"
#include "zor/spatial/surface_query.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {
namespace {

using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;

using Registration = MUserOperatorStlRegistration;

constexpr const char* kStrategyNames[] = {"none", "auto", "axes", "rod", "disc", "ball", "features"};

// Points of the moving mesh that the verdict measures: every k-th, for at most this many.
constexpr std::size_t kVerdictSamples = 20000;
// The verdict's distance, in reduction bounds: the surfaces of two scans of one place
// lie closer than this where they overlap, noise included.
constexpr double kVerdictBounds = 3.0;
// A result is doubtful when less than this share of the moving mesh lies on the fixed
// one: two neighbouring views overlap by half or more, a wrong pose leaves a few
// chance contacts.
constexpr double kLeastOverlap = 0.3;
// Or when the part that lies on the fixed surface lies this loosely (share of the
// verdict's distance): a right pose puts it at the noise of the scans.
constexpr double kMostLooseness = 0.5;
// Or when more than this share of it lies off the fixed surface where that surface is
// (see Verdict::inconsistent), or more of it than lies on it: right poses of the bunny's
// views left at most 27% so, nearly all wrong ones more (bench/README.md).
constexpr double kMostInconsistent = 0.35;
// The finish: samples of the moving mesh (every k-th point, at most this many in the
// wide rounds and in the last) and iterations of point-to-plane ICP per round.
constexpr std::size_t kWidePolishSamples = 10000;
constexpr std::size_t kPolishSamples = 40000;
constexpr std::size_t kPolishIterations = 50;
// A finish round ends once a step moves no sample by more than this (millimetres).
constexpr double kFinishStillMotion = 0.001;
// Steps of the reduction's progress report (both meshes) and of the finish's (its
// rounds and the verdict).
constexpr std::size_t kReductionSteps = 100;
constexpr std::size_t kFinishSteps = 4;

struct Run {
  MMTransformMatrix transform;
  double error = 0.0;
  std::uint64_t inliers = 0;
  Registration::MInitialAlignment used = Registration::AlignNone;
  Registration::StageTimes times;
};

Run RunOperator(MStlBase& moving, MStlBase& fixed, Registration::MParams params,
                Registration::MInitialAlignment strategy,
                const std::shared_ptr<ZorSDK::Common::IProgressDelegate>& progress) {
  params.initialAlignment = strategy;
  Registration registration;
  registration.SetAllParams(params);
  if (progress) registration.SetProgressDelegate(progress);
  registration.SetMovingStl(&moving, nullptr);
  registration.SetFixedStl(&fixed, nullptr);
  registration.Operate();
  Run run;
  registration.GetTransformation(run.transform);
  run.error = registration.GetError() * MUnit::GetIE();
  run.inliers = registration.GetInlierCount();
  run.used = registration.GetAlignmentUsed();
  run.times = registration.GetStageTimes();
  return run;
}

}  // namespace

// The wide first round pulls in a start that is a few degrees off, the last one pairs
// only the overlap.
bool FinishPose(const MStlBase& moving, const MStlBase& fixed, double distance, MMTransformMatrix& pose,
                ZorSDK::Common::IncrementalProgressReporter* progress) {
  bool ran = false;
  for (double reach : {4.0, 2.0, 1.0}) {
    MStlBaseOperatorRegistrationICP::MParameters p;
    p.SetMoving(&moving, &pose);
    p.SetReference(&fixed, nullptr);
    p.SetThresholdMethod(eRegistrationThresholdAbsolute);
    p.SetDistanceThreshold(reach * distance);
    p.SetNumberOfIterations(kPolishIterations);
    p.SetStillMotion(kFinishStillMotion * MUnit::GetIE());
    const std::size_t samples = reach > 1.0 ? kWidePolishSamples : kPolishSamples;
    p.SetSubSampleRatio(std::max<std::size_t>(1, (moving.NumberOfPoints() + samples - 1) / samples));
    MStlBaseOperatorRegistrationICP icp;
    icp.SetParameters(p);
    if (!icp.Operate()) return ran;
    pose.PostMultiply(icp.GetTransformToBeAppliedToMoving());
    ran = true;
    if (progress != nullptr) ++*progress;
  }
  return ran;
}

double PairVerdictDistance() { return kVerdictBounds * PairDefaults().reduceTolerance * MUnit::GetIE(); }

namespace {

// The better of two verdicts by the overlap found, then by its RMS.
bool Better(const Verdict& a, const Verdict& b) {
  return a.overlap > b.overlap || (a.overlap == b.overlap && a.rms < b.rms);
}

}  // namespace

Verdict JudgePose(const MStlBase& moving, const MStlBase& fixed, const MMTransformMatrix& pose, double distance) {
  Verdict v;
  v.distance = distance;
  std::vector<MMVector3d> points;
  const std::size_t step = std::max<std::size_t>(1, (moving.NumberOfPoints() + kVerdictSamples - 1) / kVerdictSamples);
  std::size_t i = 0;
  for (auto it = moving.BeginPoint(); it != moving.EndPoint(); ++it, ++i)
    if (i % step == 0) {
      MMVector3d p = it->GetDouble();
      pose.Transform(p, false);
      points.push_back(p);
    }
  const MeshQueries::TriangleTreeHolder* tree = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&fixed));
  if (points.empty() || tree == nullptr || tree->GetTree().GetObjects().empty()) {
    v.doubtful = true;
    v.reason = "a mesh has no surface to measure";
    return v;
  }
  // Distances within reach only; farther points count as off the fixed surface, and
  // of those the ones whose nearest fixed place is not on an open border contradict it.
  std::vector<double> found(points.size());
  std::vector<std::uint8_t> inside(points.size(), 0);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, points.size(), 512),
                    [&](const tbb::blocked_range<std::size_t>& r) {
                      for (std::size_t k = r.begin(); k != r.end(); ++k) {
                        MeshQueries::SurfacePlace place;
                        if (MeshQueries::NearestSurfacePlace(*tree, points[k], distance, place)) {
                          found[k] = place.distance;
                          continue;
                        }
                        found[k] = std::numeric_limits<double>::max();
                        if (MeshQueries::NearestSurfacePlace(*tree, points[k], HUGE_VAL, place))
                          inside[k] = MeshQueries::OnOpenBorder(place) ? 0 : 1;
                      }
                    });
  std::size_t insideCount = 0;
  for (std::uint8_t f : inside) insideCount += f;
  v.inconsistent = double(insideCount) / double(points.size());
  const DistanceStatistics statistics = SummariseDistances(found, distance);
  v.overlap = statistics.withinShare;
  v.rms = statistics.withinRms;
  char text[160];
  if (v.overlap < kLeastOverlap) {
    v.doubtful = true;
    std::snprintf(text, sizeof text, "only %.0f%% of the moving mesh lies on the fixed mesh", 100.0 * v.overlap);
    v.reason = text;
  } else if (v.inconsistent > kMostInconsistent || v.inconsistent > v.overlap) {
    v.doubtful = true;
    std::snprintf(text, sizeof text,
                  "%.0f%% of the moving mesh lies off the fixed surface where that surface is (%.0f%% on it)",
                  100.0 * v.inconsistent, 100.0 * v.overlap);
    v.reason = text;
  } else if (v.rms > kMostLooseness * distance) {
    v.doubtful = true;
    std::snprintf(text, sizeof text,
                  "the overlap found lies loosely (RMS %.0f%% of the distance it is measured within)",
                  100.0 * v.rms / distance);
    v.reason = text;
  }
  return v;
}

PairResult AlignPair(MStlBase& moving, MStlBase& fixed, const PairOptions& options,
                     std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) {
  const double distance = kVerdictBounds * options.params.reduceTolerance * MUnit::GetIE();
  const auto judged = [&](const Run& run) {
    PairResult r;
    r.transform = run.transform;
    r.error = run.error;
    r.inliers = run.inliers;
    r.used = run.used;
    r.times = run.times;
    r.verdict = JudgePose(moving, fixed, r.transform, distance);
    return r;
  };
  // The finish, then the verdict on the finished pose; a pose finished once is left.
  const auto finish = [&](PairResult& r) {
    if (!options.polish || r.polished) return;
    const auto start = std::chrono::steady_clock::now();
    ZorSDK::Common::IncrementalProgressReporter reporter(progress, "Finish", kFinishSteps, true);
    r.polished = FinishPose(moving, fixed, distance, r.transform, &reporter);
    r.polishSeconds = SecondsSince(start);
    r.verdict = JudgePose(moving, fixed, r.transform, distance);
    while (reporter.GetDone() < kFinishSteps) ++reporter;
  };

  // Both runs search on the same reduced meshes, so they are reduced once here; the
  // finish and the verdict use the full meshes.
  Registration::MParams params = options.params;
  MStlBase* searchMoving = &moving;
  MStlBase* searchFixed = &fixed;
  std::unique_ptr<MStlBase> reducedMoving, reducedFixed;
  double reduction = 0.0;
  if (params.reduceMeshes) {
    const auto start = std::chrono::steady_clock::now();
    const double bound = params.reduceTolerance * MUnit::GetIE();
    // The operator's own reduction, once for every run; a mesh it leaves whole is
    // searched on a copy all the same, since the operator places the meshes it is given
    // by writing their coordinates and the caller's may be read meanwhile.
    // The report moves with the blocks of both reductions, each mesh's share by its
    // triangles.
    const std::size_t movingTriangles = moving.GetNumberOfTriangles(), fixedTriangles = fixed.GetNumberOfTriangles();
    const std::size_t all = std::max<std::size_t>(1, movingTriangles + fixedTriangles);
    const std::size_t movingSteps = kReductionSteps * movingTriangles / all;
    ZorSDK::Common::IncrementalProgressReporter reporter(progress, "Reduction", kReductionSteps, false);
    ZorSDK::Common::ProgressShare movingShare(reporter, movingSteps, movingTriangles);
    ZorSDK::Common::ProgressShare fixedShare(reporter, kReductionSteps - movingSteps, fixedTriangles);
    tbb::parallel_invoke([&] { reducedMoving = ReducedSearchCopy(moving, bound, &movingShare); },
                         [&] { reducedFixed = ReducedSearchCopy(fixed, bound, &fixedShare); });
    searchMoving = reducedMoving.get();
    searchFixed = reducedFixed.get();
    params.reduceMeshes = false;
    reduction = SecondsSince(start);
  }
  const auto search = [&](Registration::MInitialAlignment strategy) {
    Run run = RunOperator(*searchMoving, *searchFixed, params, strategy, progress);
    run.times.reduction += reduction;
    run.times.total += reduction;
    reduction = 0.0;  // counted once
    return judged(run);
  };

  // With both ways, a doubtful first result that still overlaps (it lies loosely or
  // partly off the fixed surface) is finished first: a pose a few degrees off that the
  // finish pulls in is sound then, and needs no second search; one with little overlap
  // is too far off for that. A result still doubtful is set against the feature result,
  // finished too, and the better kept.
  const bool twoWays = options.withFeatures && params.initialAlignment == Registration::AlignAutomatic;
  PairResult result = search(params.initialAlignment);
  if (twoWays && result.verdict.doubtful && result.verdict.overlap >= kLeastOverlap) finish(result);
  if (twoWays && result.verdict.doubtful) {
    PairResult features = search(Registration::AlignFeatures);
    finish(features);
    const double seconds = result.times.total + result.polishSeconds;
    if (Better(features.verdict, result.verdict)) {
      features.times.total += seconds;
      result = features;
    } else {
      result.times.total += features.times.total + features.polishSeconds;
    }
    result.triedFeatures = true;
    return result;
  }
  finish(result);
  return result;
}

MUserOperatorStlRegistration::MParams PairDefaults() {
  MUserOperatorStlRegistration::MParams p;
  p.initialAlignment = MUserOperatorStlRegistration::AlignAutomatic;
  return p;
}

const char* StrategyName(MUserOperatorStlRegistration::MInitialAlignment a) {
  return a >= MUserOperatorStlRegistration::AlignNone && a <= MUserOperatorStlRegistration::AlignFeatures
             ? kStrategyNames[a]
             : "unknown";
}

std::optional<StrategyChoice> ParseStrategy(const std::string& name) {
  if (name == kDefaultStrategy) return StrategyChoice{MUserOperatorStlRegistration::AlignAutomatic, true};
  for (int i = 0; i <= MUserOperatorStlRegistration::AlignFeatures; ++i)
    if (name == kStrategyNames[i])
      return StrategyChoice{static_cast<MUserOperatorStlRegistration::MInitialAlignment>(i), false};
  return std::nullopt;
}

}  // namespace ZorStlRegistration
