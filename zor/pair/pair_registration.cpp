#include "zor/pair/pair_registration.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include <Eigen/Dense>
#include <tbb/parallel_for.h>

#include "zor/alignment/feature_poses.h"
#include "zor/model/distance_statistics.h"
#include "zor/model/stopwatch.h"
#include "zor/model/unit.h"
#include "zor/pair/detail/search_copy.h"
#include "zor/services/registration_icp.h"
#include "zor/spatial/surface_query.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {
namespace {

using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;

using Registration = MUserOperatorStlRegistration;

constexpr const char* kStrategyNames[] = {"none", "auto", "axes", "rod", "disc", "ball", "features"};

// The finish's distance, in reduction bounds: the surfaces of two scans of one place
// lie closer than this where they overlap; its rounds pair points within 4, 2 and 1
// times it (or the verdict's distance when the scans are noisier).
constexpr double kVerdictBounds = 3.0;
// The verdict measures within at least this share of the finish's distance.
constexpr double kLeastVerdictShare = 0.1;
// A result whose overlap, either way, falls short of this (or that contradicts the
// fixed surface anywhere) is set against its twins:
// the poses a half turn about the principal axes of either mesh away. A body nearly
// symmetric under a half turn lays most of itself on the other in a wrong twin too, and
// the search's trimmed score cannot tell the two apart.
constexpr double kFullOverlap = 0.99;
// A twin is tried by a short ICP of the search meshes on this many samples, then its
// support (verdict.h) on this many points; the best is finished and judged in full when
// it beats the result's support by this much.
constexpr std::size_t kTwinSamples = 2000;
// Points of each mesh a verdict on a finished pose measures.
constexpr std::size_t kVerdictSamples = 20000;
constexpr std::size_t kTwinIterations = 30;
constexpr double kTwinGain = 0.02;
// A first result that lays less than this support either way is no start for the
// finish or for twins (a pose among clutter or turned far off): with both ways only the
// feature strategy's poses are set against it.
constexpr double kHopelessSupport = 0.1;
// A sound finished result with this much support is not searched for by features as
// well: what could rival it is a twin. (The support, not the overlap: the wrong half
// turn of a near-symmetric cut can lay 95% of one mesh on the other, and only the
// points that contradict tell it; two real views that disagree by their calibration
// fall below it and pay for the feature poses.)
constexpr double kSureSupport = 0.9;
// Two poses whose rotations differ by less than this are one answer.
constexpr double kDistinctDegrees = 10.0;
// Another pose is a rival of the result when it passes the verdict with this share of
// the result's support: the wrong twin of a near-symmetric body cut in two lays more on
// the other cut than the right pose does.
constexpr double kRivalShare = 0.6;
// and contradicts the fixed mesh hardly more (share of the moving points): a pose that
// contradicts it where the result does not is no rival.
constexpr double kRivalContradiction = 0.02;
// A motion that lays this share of the fixed mesh on itself is a symmetry of it.
constexpr double kSymmetricOverlap = 0.9;
// Steps of the finish's progress report (its rounds and the verdict).
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

double PairVerdictDistance() { return kVerdictBounds * PairDefaults().reduceTolerance * MUnit::GetIE(); }

namespace {

// The half turns about the principal axes (of their covariance) of the points of the
// meshes in `meshes`, each placed by its transform: every k-th point, for at most
// kTwinSamples a mesh.
std::vector<MMTransformMatrix> HalfTurns(const std::vector<std::pair<const MStlBase*, MMTransformMatrix>>& meshes) {
  std::vector<MMVector3d> points;
  for (const auto& [mesh, placement] : meshes) {
    const std::size_t every = std::max<std::size_t>(1, (mesh->NumberOfPoints() + kTwinSamples - 1) / kTwinSamples);
    std::size_t i = 0;
    for (const MStlPoint* p = mesh->GetFirstPoint(); p != nullptr; p = p->GetNext(), ++i)
      if (i % every == 0) {
        MMVector3d q = p->GetDouble();
        placement.Transform(q, false);
        points.push_back(q);
      }
  }
  std::vector<MMTransformMatrix> turns;
  if (points.size() < 3) return turns;
  MMVector3d centre;
  for (const MMVector3d& p : points) centre += p;
  centre = centre * (1.0 / static_cast<double>(points.size()));
  Eigen::Matrix3d covariance = Eigen::Matrix3d::Zero();
  for (const MMVector3d& p : points) {
    const Eigen::Vector3d d(p[0] - centre[0], p[1] - centre[1], p[2] - centre[2]);
    covariance += d * d.transpose();
  }
  const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> axes(covariance);
  for (int k = 0; k < 3; ++k) {
    const Eigen::Vector3d a = axes.eigenvectors().col(k);
    MMTransformMatrix turn;
    turn.MakeRotation(centre, MMVector3d(a[0], a[1], a[2]), 3.141592653589793);
    turns.push_back(turn);
  }
  return turns;
}

// `pose` after a short point-to-plane ICP of the search meshes, pairing points within
// four times `reach`, then within `reach`: a twin is a half turn about axes that only
// approach the body's symmetry, and starts a little off.
MMTransformMatrix Settled(const MStlBase& moving, const MStlBase& fixed, const MMTransformMatrix& pose, double reach) {
  MMTransformMatrix settled = pose;
  for (const double share : {4.0, 1.0}) {
    MStlBaseOperatorRegistrationICP::MParameters p;
    p.SetMoving(&moving, &settled);
    p.SetReference(&fixed, nullptr);
    p.SetThresholdMethod(eRegistrationThresholdAbsolute);
    p.SetDistanceThreshold(share * reach);
    p.SetNumberOfIterations(kTwinIterations);
    p.SetSubSampleRatio(std::max<std::size_t>(1, (moving.NumberOfPoints() + kTwinSamples - 1) / kTwinSamples));
    MStlBaseOperatorRegistrationICP icp;
    icp.SetParameters(p);
    if (!icp.Operate()) break;
    settled.PostMultiply(icp.GetTransformToBeAppliedToMoving());
  }
  return settled;
}

// The angle (degrees) between the rotations of two poses.
double TurnDegrees(const MMTransformMatrix& a, const MMTransformMatrix& b) {
  const MMTransformMatrix relative = a * b.Inverted();
  const double cosine = 0.5 * (relative.GetElement(0, 0) + relative.GetElement(1, 1) + relative.GetElement(2, 2) - 1.0);
  return std::acos(std::clamp(cosine, -1.0, 1.0)) * 57.29577951308232;
}

// The share of `mesh`'s points (every k-th, at most kTwinSamples) that `motion` lays
// within `distance` of the mesh itself: near 1 when the mesh is symmetric under it.
double SelfOverlap(const MStlBase& mesh, const MMTransformMatrix& motion, double distance) {
  const MeshQueries::TriangleTreeHolder* tree = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&mesh));
  if (tree == nullptr || tree->GetTree().GetObjects().empty()) return 0.0;
  const std::size_t every = std::max<std::size_t>(1, (mesh.NumberOfPoints() + kTwinSamples - 1) / kTwinSamples);
  std::size_t i = 0, all = 0, on = 0;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext(), ++i) {
    if (i % every != 0) continue;
    MMVector3d q = p->GetDouble();
    motion.Transform(q, false);
    MeshQueries::SurfacePlace place;
    on += MeshQueries::NearestSurfacePlace(*tree, q, distance, place) ? 1 : 0;
    ++all;
  }
  return all > 0 ? static_cast<double>(on) / static_cast<double>(all) : 0.0;
}

}  // namespace

namespace {

// Where a pair call's time went besides the search and the finish.
struct CallClocks {
  double surfaces = 0.0;  // studying both meshes and building their trees
  double verdicts = 0.0;  // judging poses
};

PairResult Align(MStlBase& moving, MStlBase& fixed, const PairOptions& options,
                 std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress, CallClocks& clocks) {
  // Both meshes without their loose pieces, which take no part in the search, the finish
  // or the verdict, and studied for the distance the verdict measures within.
  const auto studied = std::chrono::steady_clock::now();
  const PairSurfaces pair(moving, fixed);
  clocks.surfaces = SecondsSince(studied);
  MStlBase& bodyMoving = pair.Moving();
  MStlBase& bodyFixed = pair.Fixed();
  const double finishDistance = kVerdictBounds * options.params.reduceTolerance * MUnit::GetIE();
  const double distance = pair.VerdictDistance(kLeastVerdictShare * finishDistance);
  const double reach = std::max(finishDistance, distance);
  const auto judge = [&](const MMTransformMatrix& pose, std::size_t samples) {
    const auto start = std::chrono::steady_clock::now();
    Verdict v = JudgePose(pair, pose, distance, samples);
    clocks.verdicts += SecondsSince(start);
    return v;
  };
  const auto judged = [&](const Run& run) {
    PairResult r;
    r.transform = run.transform;
    r.error = run.error;
    r.inliers = run.inliers;
    r.used = run.used;
    r.times = run.times;
    r.verdict = judge(r.transform, kVerdictSamples);
    return r;
  };
  // The finish, then the verdict on the finished pose; a pose finished once is left.
  // A mesh searched on a clustered copy opens the finish on it: the wide rounds only pull
  // the start in, which the copy's coarse facets do as well, and on a fine noisy mesh
  // far faster (its facets' normals are mostly noise, and each step creeps). The last
  // round, on the meshes themselves, then starts nearer and settles sooner.
  const MStlBase* wideMoving = &bodyMoving;
  const MStlBase* wideFixed = &bodyFixed;
  const auto finish = [&](PairResult& r) {
    if (!options.polish || r.polished) return;
    const auto start = std::chrono::steady_clock::now();
    ZorSDK::Common::IncrementalProgressReporter reporter(progress, "Finish", kFinishSteps, true);
    r.polished = FinishPose(bodyMoving, bodyFixed, *wideMoving, *wideFixed, reach, r.transform, &reporter);
    r.polishSeconds = SecondsSince(start);
    r.verdict = judge(r.transform, kVerdictSamples);
    while (reporter.GetDone() < kFinishSteps) ++reporter;
  };

  // Both runs search on the same reduced meshes, so they are reduced once here; the
  // finish and the verdict use the full meshes.
  Registration::MParams params = options.params;
  MStlBase* searchMoving = &bodyMoving;
  MStlBase* searchFixed = &bodyFixed;
  std::unique_ptr<MStlBase> reducedMoving, reducedFixed;
  double reduction = 0.0;
  if (params.reduceMeshes) {
    const auto start = std::chrono::steady_clock::now();
    // Once for every run; a mesh the reduction leaves whole is searched on a copy all
    // the same, since the operator places the meshes it is given by writing their
    // coordinates and the caller's may be read meanwhile.
    std::tie(reducedMoving, reducedFixed) = detail::SearchCopies(
        bodyMoving, bodyFixed, params.reduceTolerance * MUnit::GetIE(), options.searchTriangles, progress);
    searchMoving = reducedMoving.get();
    searchFixed = reducedFixed.get();
    if (detail::ClustersMesh(bodyMoving, options.searchTriangles)) wideMoving = searchMoving;
    if (detail::ClustersMesh(bodyFixed, options.searchTriangles)) wideFixed = searchFixed;
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

  // A candidate pose, settled by a short ICP of the search meshes and measured on a
  // sample of the full meshes, and the strategy it came from.
  struct Candidate {
    MMTransformMatrix pose;
    Verdict verdict;
    Registration::MInitialAlignment from;
  };
  const auto settled = [&](const MMTransformMatrix& pose, Registration::MInitialAlignment from) {
    const MMTransformMatrix at = Settled(*searchMoving, *searchFixed, pose, reach);
    return Candidate{at, judge(at, kTwinSamples), from};
  };
  // The twins of a pose: the half turns about the principal axes of either mesh, and of
  // both together as the pose lays them (where each is a part of a near-symmetric body,
  // only both together show the body's axes).
  const auto twinsOf = [&](const MMTransformMatrix& pose) {
    std::vector<MMTransformMatrix> twins;
    const MMTransformMatrix identity;
    for (const auto& meshes : {std::vector<std::pair<const MStlBase*, MMTransformMatrix>>{{searchMoving, pose}},
                               {{searchFixed, identity}},
                               {{searchMoving, pose}, {searchFixed, identity}}})
      for (const MMTransformMatrix& turn : HalfTurns(meshes)) twins.push_back(turn * pose);
    return twins;
  };

  const bool twoWays = options.withFeatures && params.initialAlignment == Registration::AlignAutomatic;
  if (!options.polish) {
    // Without the finish there is nothing to settle candidates by: the feature strategy
    // runs as the operator runs it when the first result is doubtful, and the better is
    // kept.
    PairResult result = search(params.initialAlignment);
    if (twoWays && result.verdict.doubtful) {
      PairResult features = search(Registration::AlignFeatures);
      const double seconds = result.times.total;
      if (Better(features.verdict, result.verdict)) {
        features.times.total += seconds;
        result = features;
      } else {
        result.times.total += features.times.total;
      }
      result.triedFeatures = true;
    }
    return result;
  }

  // A scene of several bodies facing a part alone (or the other way about): the
  // automatic strategy's axes and moments are the scene's, not the part's, so the
  // feature strategy's poses go first and the automatic search only follows when none of
  // them is sound.
  const bool scene = twoWays && pair.MovingBodies() != pair.FixedBodies();
  std::vector<Candidate> tried;
  const auto tryFeatures = [&](PairResult& r) {
    const auto start = std::chrono::steady_clock::now();
    for (const FeaturePose& pose : FeaturePoses(*searchMoving, *searchFixed))
      tried.push_back(settled(pose.pose, Registration::AlignFeatures));
    r.triedFeatures = true;
    const double seconds = SecondsSince(start) + reduction;
    r.times.reduction += reduction;
    reduction = 0.0;  // counted once
    r.times.alignment += seconds;
    r.times.total += seconds;
  };
  // The best of the candidates from `first` on, when one beats `bar` (a support).
  const auto bestOf = [&](std::size_t first, double bar) {
    std::size_t best = tried.size();
    for (std::size_t k = first; k < tried.size(); ++k)
      if (Support(tried[k].verdict) > (best < tried.size() ? Support(tried[best].verdict) : bar)) best = k;
    return best;
  };
  // `r` moved to candidate `k` and finished, kept when its verdict is better than the
  // finished `r`'s (or `r` was never finished).
  const auto takeIfBetter = [&](PairResult& r, std::size_t k) {
    PairResult other = r;
    other.transform = tried[k].pose;
    other.used = tried[k].from;
    other.error = tried[k].verdict.rms;  // the settled candidate's, on its sample
    other.inliers = 0;
    other.polished = false;
    finish(other);
    other.polishSeconds += r.polishSeconds;
    if (!r.polished || Better(other.verdict, r.verdict))
      r = other;
    else
      r.polishSeconds = other.polishSeconds;
  };

  PairResult result;
  if (scene) {
    tryFeatures(result);
    const std::size_t best = bestOf(0, -std::numeric_limits<double>::infinity());
    if (best < tried.size()) takeIfBetter(result, best);
    if (!result.polished || result.verdict.doubtful) {
      PairResult automatic = search(params.initialAlignment);
      finish(automatic);
      tried.push_back({automatic.transform, judge(automatic.transform, kTwinSamples), automatic.used});
      // The time of both goes to the one kept.
      PairResult& kept = !result.polished || Better(automatic.verdict, result.verdict) ? automatic : result;
      const PairResult& other = &kept == &automatic ? result : automatic;
      kept.times.reduction += other.times.reduction;
      kept.times.alignment += other.times.alignment;
      kept.times.total += other.times.total;
      kept.polishSeconds += other.polishSeconds;
      kept.triedFeatures = true;
      if (&kept == &automatic) result = automatic;
    }
  } else {
    // A result that lays the two meshes fully on each other, finished, is the answer;
    // one hopeless from the start is not finished unless nothing beats it.
    result = search(params.initialAlignment);
    const bool hopeless = twoWays && Support(result.verdict) < kHopelessSupport;
    if (!hopeless) {
      finish(result);
      if (Support(result.verdict) >= kFullOverlap) return result;
    }
    // Otherwise it is set against other candidates: its twins, and with both ways the
    // feature strategy's poses unless the result is sound and nearly full; each settled
    // and measured on a sample, the best finished and judged in full, and kept when its
    // verdict is better.
    const auto start = std::chrono::steady_clock::now();
    tried.push_back({result.transform, judge(result.transform, kTwinSamples), result.used});
    if (!hopeless)
      for (const MMTransformMatrix& twin : twinsOf(result.transform)) tried.push_back(settled(twin, result.used));
    const double seconds = SecondsSince(start);
    result.times.alignment += seconds;
    result.times.total += seconds;
    if (twoWays && (result.verdict.doubtful || Support(result.verdict) < kSureSupport)) tryFeatures(result);
    const std::size_t best = bestOf(1, Support(tried[0].verdict) + kTwinGain);
    if (best < tried.size()) takeIfBetter(result, best);
    if (!result.polished) {
      const double first = result.polishSeconds;
      finish(result);
      result.polishSeconds += first;
    }
  }
  // The answer is not unique when another pose, distinct from it, would pass as well
  // with nearly as much support, unless the two are one under a symmetry of the fixed
  // mesh (a symmetric body has several right answers).
  if (!result.verdict.doubtful)
    for (const Candidate& other : tried) {
      const double degrees = TurnDegrees(other.pose, result.transform);
      if (other.verdict.doubtful || degrees < kDistinctDegrees ||
          Support(other.verdict) < kRivalShare * Support(result.verdict) ||
          other.verdict.inconsistent > result.verdict.inconsistent + kRivalContradiction)
        continue;
      if (SelfOverlap(bodyFixed, other.pose * result.transform.Inverted(), distance) >= kSymmetricOverlap) continue;
      result.verdict.doubtful = true;
      char text[200];
      std::snprintf(text, sizeof text,
                    "not unique: a pose turned %.0f degrees from it lays %.0f%% of the moving mesh on the fixed "
                    "mesh (and %.0f%% of the fixed on the moving) as well",
                    degrees, 100.0 * other.verdict.overlap, 100.0 * other.verdict.fixedOverlap);
      result.verdict.reason = text;
      break;
    }
  return result;
}

}  // namespace

PairResult AlignPair(MStlBase& moving, MStlBase& fixed, const PairOptions& options,
                     std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) {
  const auto start = std::chrono::steady_clock::now();
  CallClocks clocks;
  PairResult result = Align(moving, fixed, options, std::move(progress), clocks);
  result.surfaceSeconds = clocks.surfaces;
  result.verdictSeconds = clocks.verdicts;
  result.seconds = SecondsSince(start);
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
