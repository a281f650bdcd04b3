#include "tools/zor-register/pair_alignment.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <vector>

#include <tbb/parallel_for.h>

#include "zor/model/unit.h"
#include "zor/services/registration_icp.h"
#include "zor/spatial/tree_property.h"

namespace zortool {
namespace {

using Registration = MUserOperatorStlRegistration;

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
// The finish: samples of the moving mesh (every k-th point, at most this many) and
// iterations of point-to-plane ICP.
constexpr std::size_t kPolishSamples = 40000;
constexpr std::size_t kPolishIterations = 50;

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

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

// Point-to-plane ICP of the full moving mesh onto the full fixed mesh from `pose`,
// pairing only points within `distance`. False, leaving `pose`, when it cannot run.
bool Polish(const MStlBase& moving, const MStlBase& fixed, double distance, MMTransformMatrix& pose) {
  MStlBaseOperatorRegistrationICP::MParameters p;
  p.SetMoving(&moving, &pose);
  p.SetReference(&fixed, nullptr);
  p.SetThresholdMethod(eRegistrationThresholdAbsolute);
  p.SetDistanceThreshold(distance);
  p.SetNumberOfIterations(kPolishIterations);
  p.SetSubSampleRatio(std::max<std::size_t>(1, (moving.NumberOfPoints() + kPolishSamples - 1) / kPolishSamples));
  MStlBaseOperatorRegistrationICP icp;
  icp.SetParameters(p);
  if (!icp.Operate()) return false;
  pose.PostMultiply(icp.GetTransformToBeAppliedToMoving());
  return true;
}

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
  // Distances within reach only; farther points count as off the fixed surface.
  std::vector<double> found(points.size(), -1.0);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, points.size(), 512),
                    [&](const tbb::blocked_range<std::size_t>& r) {
                      for (std::size_t k = r.begin(); k != r.end(); ++k) {
                        const auto nearest = MeshQueries::FindNearestTriangle(*tree, points[k], distance);
                        if (nearest.first.GetTriangle() != nullptr) found[k] = nearest.second;
                      }
                    });
  std::size_t on = 0;
  double sum2 = 0.0;
  for (double d : found)
    if (d >= 0.0 && d <= distance) {
      ++on;
      sum2 += d * d;
    }
  v.overlap = double(on) / double(points.size());
  v.rms = on > 0 ? std::sqrt(sum2 / double(on)) : 0.0;
  char text[160];
  if (v.overlap < kLeastOverlap) {
    v.doubtful = true;
    std::snprintf(text, sizeof text, "only %.0f%% of the moving mesh lies on the fixed mesh", 100.0 * v.overlap);
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
  const auto finish = [&](const Run& run) {
    PairResult r;
    r.transform = run.transform;
    r.error = run.error;
    r.inliers = run.inliers;
    r.used = run.used;
    r.times = run.times;
    if (options.polish) {
      const auto start = std::chrono::steady_clock::now();
      r.polished = Polish(moving, fixed, distance, r.transform);
      r.polishSeconds = Seconds(start);
    }
    r.verdict = JudgePose(moving, fixed, r.transform, distance);
    return r;
  };

  const bool twoWays = options.withFeatures && options.params.initialAlignment == Registration::AlignAutomatic;
  PairResult result = finish(RunOperator(moving, fixed, options.params, options.params.initialAlignment, progress));
  if (!twoWays || !result.verdict.doubtful) return result;
  PairResult features = finish(RunOperator(moving, fixed, options.params, Registration::AlignFeatures, progress));
  features.triedFeatures = true;
  const double firstSeconds = result.times.total + result.polishSeconds;
  if (Better(features.verdict, result.verdict)) {
    features.times.total += firstSeconds;
    return features;
  }
  result.triedFeatures = true;
  result.times.total += features.times.total + features.polishSeconds;
  return result;
}

}  // namespace zortool
