// Accuracy suite of the registration with no starting pose: for each generated body and
// size, moving copies under poses drawn uniformly over all rotations with a translation
// of up to half the diagonal, in four cases (full or 70% partial copy, clean or with
// Gaussian vertex noise of 0.2% of the diagonal), registered back onto the clean body,
// by the rigid registration operator (strategy auto unless --strategy), by the
// multi-start ICP operator (its defaults), by the pair call (AlignPair: auto, the
// feature strategy when that result is doubtful, the finish and the verdict; its
// strategy column reads pair-<used>, with "?" when the verdict doubts it), or by any of
// them side by side on the same copies (--operator registration,pair; both: registration
// and icp; all: the three). icp-pair runs the multi-start ICP as the tool and the
// package do (IcpPair: the search, then the finish on the full meshes and the verdict;
// its strategy column reads icp-pair, with "?" when the verdict doubts it).
//
// A pose counts as recovered when the registered moving mesh lies on the fixed one:
// the RMS distance of its vertices to the fixed surface is within the noise level plus
// 0.1% of the diagonal. It counts as found when that distance is within 1% of the
// diagonal: the right pose, less precisely refined (the multi-start ICP fits sparse
// samples to sparse samples, which leaves about a millimetre). Any pose that a symmetry
// of the body makes equivalent counts. Prints, per body, case and operator, both counts,
// the strategy the operator chose, the median time of Operate and of its search stage,
// and the RMS distances.
//
//   bench_alignment [--sizes 10000,100000] [--poses 50] [--threads 2]
//                   [--shapes featured,box,rod,disc,ball] [--strategy auto]
//                   [--tolerance 0.1] [--overlap 0.8]
//                   [--operator registration|icp|icp-pair|pair|both|all] [--failures]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "bench/bench_args.h"
#include "bench/bench_digest.h"
#include "generators/bodies.h"
#include "generators/poses.h"
#include "zor/alignment/normal_orientation_index.h"
#include "zor/icp/stl_base_operator_registration_icp.h"
#include "zor/pair/pair_operations.h"
#include "zor/pair/pair_registration.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace {

using namespace zorgen;
using Op = MUserOperatorStlRegistration;

struct Options {
  std::vector<long> sizes = {10000, 100000};
  int poses = 50;
  int threads = 2;
  std::vector<Shape> shapes = {Shape::Featured, Shape::Box, Shape::Rod, Shape::Disc, Shape::Ball};
  Op::MInitialAlignment strategy = Op::AlignAutomatic;
  double errorTolerance = Op::MParams().errorTolerance;
  double overlap = Op::MParams().overlapFraction;
  bool failures = false;
  bool registration = true;  // run the rigid registration operator
  bool icp = false;          // run the multi-start ICP operator
  bool pair = false;         // run the pair call (AlignPair): fallback, finish and verdict
  bool icpPair = false;      // run the ICP pair call (IcpPair): search, finish and verdict
};

bool ParseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--failures") {
      o.failures = true;
      continue;
    }
    if (i + 1 >= argc) return false;
    const char* value = argv[++i];
    if (flag == "--sizes") {
      o.sizes.clear();
      for (const std::string& s : zorbench::ParseNames(value)) o.sizes.push_back(std::stol(s));
    } else if (flag == "--poses") {
      o.poses = std::atoi(value);
    } else if (flag == "--threads") {
      o.threads = std::atoi(value);
    } else if (flag == "--overlap") {
      o.overlap = std::atof(value);
    } else if (flag == "--tolerance") {
      o.errorTolerance = std::atof(value);
    } else if (flag == "--shapes") {
      o.shapes.clear();
      for (const std::string& s : zorbench::ParseNames(value)) {
        bool known = false;
        for (Shape shape :
             {Shape::Featured, Shape::Box, Shape::Rod, Shape::Disc, Shape::Ball, Shape::Bumpy, Shape::Smooth})
          if (s == ShapeName(shape)) o.shapes.push_back(shape), known = true;
        if (!known) return false;
      }
    } else if (flag == "--operator") {
      const std::string v = value;
      o.registration = o.icp = o.pair = o.icpPair = false;
      for (const std::string& name : zorbench::ParseNames(value)) {
        if (name == "registration" || name == "both" || name == "all") o.registration = true;
        if (name == "icp" || name == "both" || name == "all") o.icp = true;
        if (name == "pair" || name == "all") o.pair = true;
        if (name == "icp-pair") o.icpPair = true;
        if (name != "registration" && name != "icp" && name != "pair" && name != "icp-pair" && name != "both" &&
            name != "all")
          return false;
      }
    } else if (flag == "--strategy") {
      bool known = false;
      for (Op::MInitialAlignment a :
           {Op::AlignNone, Op::AlignAutomatic, Op::AlignAxes, Op::AlignRod, Op::AlignDisc, Op::AlignBall})
        if (std::string(value) == ZorStlRegistration::StrategyName(a)) o.strategy = a, known = true;
      if (!known) return false;
    } else {
      return false;
    }
  }
  return true;
}

// RMS distance of the moving mesh's points, moved by `found`, to the fixed surface.
double RmsToSurface(const MStlBase& moving, const MMTransformMatrix& found,
                    const ZorStlRegistration::NormalOrientationIndex& fixed) {
  std::vector<MMVector3d> points;
  points.reserve(moving.NumberOfPoints());
  for (auto it = moving.BeginPoint(); it != moving.EndPoint(); ++it) points.push_back(it->GetDouble());
  std::vector<double> squared(points.size());
  const auto measureRange = [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      MMVector3d p = points[i], c;
      found.Transform(p, false);
      squared[i] = fixed.FindClosest(p, c) ? Length2(p - c) : 1e300;
    }
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, points.size(), 256), measureRange);
  double sum = 0.0;
  for (double s : squared) sum += s;
  return std::sqrt(sum / static_cast<double>(std::max<std::size_t>(1, points.size())));
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

void RunShape(const Options& o, Shape shape, long size) {
  const MeshArrays clean = MakeShape(shape, size);
  const double noiseLevel = 0.002 * clean.diagonal;
  const MeshArrays noisy = MakeShape(shape, size, noiseLevel);
  const std::unique_ptr<MStlBase> fixed = MakeMesh(clean);
  ZorStlRegistration::NormalOrientationIndex surface;
  surface.SetMesh(fixed.get());

  struct Case {
    const char* name;
    double keep;
    bool noise;
  };
  // One operator's run on one copy: the pose it found, its search time, and the
  // strategy it took.
  struct Run {
    MMTransformMatrix found;
    double searchMs = 0.0;
    std::string strategy;
    double error = 0.0;  // the operator's own error, in mm
  };
  const auto registerCopy = [&](const MStlBase& moving) {
    Op registration;
    Op::MParams params;
    params.initialAlignment = o.strategy;
    params.errorTolerance = o.errorTolerance;
    params.overlapFraction = o.overlap;
    registration.SetAllParams(params);
    registration.SetFixedStl(fixed.get(), nullptr);
    registration.SetMovingStl(const_cast<MStlBase*>(&moving), nullptr);
    registration.Operate();
    Run run;
    registration.GetTransformation(run.found);
    run.searchMs = registration.GetStageTimes().alignment * 1000.0;
    run.strategy = ZorStlRegistration::StrategyName(registration.GetAlignmentUsed());
    run.error = registration.GetError();
    return run;
  };
  const auto pairCopy = [&](const MStlBase& moving) {
    ZorStlRegistration::PairOptions options;
    options.params.initialAlignment = o.strategy;
    options.params.errorTolerance = o.errorTolerance;
    options.params.overlapFraction = o.overlap;
    options.withFeatures = o.strategy == Op::AlignAutomatic;
    const ZorStlRegistration::PairResult r =
        ZorStlRegistration::AlignPair(const_cast<MStlBase&>(moving), *fixed, options);
    Run run;
    run.found = r.transform;
    run.searchMs = r.times.alignment * 1000.0;
    run.strategy = std::string("pair-") + ZorStlRegistration::StrategyName(r.used) + (r.verdict.doubtful ? "?" : "");
    run.error = r.error / 1000.0;
    return run;
  };
  const auto icpCopy = [&](const MStlBase& moving) {
    ZorStlRegistration::MStlBaseOperatorRegistrationICP icp;
    ZorStlRegistration::MStlBaseOperatorRegistrationICP::MParams params;
    params.moving = &moving;
    params.fixed = fixed.get();
    icp.SetParameters(params);
    Run run;
    run.strategy = icp.Operate() ? "icp" : "icp-failed";
    run.found = icp.GetTransformMatrix();
    run.searchMs = icp.GetStageTimes().search * 1000.0;
    run.error = icp.GetRMSError() / 1000.0;
    return run;
  };

  const auto icpPairCopy = [&](const MStlBase& moving) {
    const ZorStlRegistration::IcpRun r =
        ZorStlRegistration::IcpPair(moving, *fixed, ZorStlRegistration::IcpOptions(), "moving", "fixed");
    Run run;
    run.found = r.transform;
    run.searchMs = r.times.search * 1000.0;
    run.strategy = std::string("icp-pair") + (r.verdict.doubtful ? "?" : "");
    run.error = r.rms / 1000.0;
    return run;
  };

  for (const Case c : {Case{"full", 1.0, false}, Case{"full+noise", 1.0, true}, Case{"partial", 0.7, false},
                       Case{"partial+noise", 0.7, true}}) {
    const double threshold = (c.noise ? noiseLevel : 0.0) + 0.001 * clean.diagonal;
    const double basin = (c.noise ? noiseLevel : 0.0) + 0.01 * clean.diagonal;
    for (int which = 0; which < 4; ++which) {
      if (!(which == 0 ? o.registration : which == 1 ? o.icp : which == 2 ? o.pair : o.icpPair)) continue;
      // The same copies for every operator.
      std::mt19937 rng(20261121u + static_cast<unsigned>(size) + 7919u * static_cast<unsigned>(shape));
      std::vector<double> times, searchTimes, rms;
      std::map<std::string, int> used;
      int recovered = 0, found = 0;
      std::uint64_t digest = zorbench::kDigestStart;
      for (int k = 0; k < o.poses; ++k) {
        const MMTransformMatrix truth = UniformPose(rng, 0.5 * clean.diagonal);
        const std::unique_ptr<MStlBase> moving = MakeMovedCopy(c.noise ? noisy : clean, truth, c.keep);
        const auto start = std::chrono::steady_clock::now();
        const Run run = which == 0   ? registerCopy(*moving)
                        : which == 1 ? icpCopy(*moving)
                        : which == 2 ? pairCopy(*moving)
                                     : icpPairCopy(*moving);
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
        searchTimes.push_back(run.searchMs);
        digest = zorbench::Digest(digest, run.found);
        digest = zorbench::DigestBytes(digest, run.strategy.data(), run.strategy.size());
        const double d = RmsToSurface(*moving, run.found, surface);
        rms.push_back(d);
        recovered += d <= threshold ? 1 : 0;
        found += d <= basin ? 1 : 0;
        ++used[run.strategy];
        if (d > basin && o.failures) {
          const MMTransformMatrix residual = run.found * truth;
          std::printf("    miss %-9s %-14s pose %2d: %s, rms %.3f mm, off by %.1f deg, error %.3f mm\n",
                      ShapeName(shape), c.name, k, run.strategy.c_str(), d / 1000.0, RotationDegrees(residual),
                      run.error);
        }
      }
      std::string strategies;
      for (const auto& [name, n] : used) strategies += (strategies.empty() ? "" : " ") + name + ":" + std::to_string(n);
      std::printf(
          "| %-8s | %7ld | %-13s | %-18s | %3d/%-3d | %3d/%-3d | %8.1f | %8.1f | %6.3f | %6.3f | %6.3f | %016llx |\n",
          ShapeName(shape), static_cast<long>(fixed->GetNumberOfTriangles()), c.name, strategies.c_str(), recovered,
          o.poses, found, o.poses, Median(times), Median(searchTimes), Median(rms) / 1000.0,
          *std::max_element(rms.begin(), rms.end()) / 1000.0, threshold / 1000.0,
          static_cast<unsigned long long>(digest));
      std::fflush(stdout);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!ParseOptions(argc, argv, o) || o.poses < 1 || o.threads < 1) {
    std::fprintf(
        stderr,
        "usage: bench_alignment [--sizes 10000,100000] [--poses 50] [--threads 2]\n"
        "                       [--shapes featured,box,rod,disc,ball] [--strategy auto|none|axes|rod|disc|ball]\n"
        "                       [--tolerance 0.1] [--overlap 0.8]\n"
        "                       [--operator registration|icp|icp-pair|pair|both|all]\n"
        "                       [--failures]\n");
    return 2;
  }
  std::printf(
      "strategy %s, %d poses, %d threads, errorTolerance %g mm, overlapFraction %g; rms in mm; times median ms\n\n",
      ZorStlRegistration::StrategyName(o.strategy), o.poses, o.threads, o.errorTolerance, o.overlap);
  std::printf(
      "| body     | triangles | case          | strategy used      | recovered | found | Operate | search | rms median "
      "| "
      "rms worst | threshold | digest |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  tbb::task_arena arena(o.threads);
  arena.execute([&] {
    for (long size : o.sizes)
      for (Shape shape : o.shapes) RunShape(o, shape, size);
  });
  return 0;
}
