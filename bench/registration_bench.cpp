// Accuracy and speed of the rigid registration from a nearby start (no initial
// alignment): for each generated body and size, moving copies under seeded poses within
// 15 degrees and 5% of the diagonal, full and 70% partial, registered back. Prints the
// worst rotation and displacement error against the truth, and the median time of
// Operate by stage, for each thread count. Then the cost of one refinement iteration.
//
//   bench_registration [--sizes 10000,100000,1000000] [--threads 1,2] [--poses 5]
//                      [--tolerance 0.1] [--iterations 100] [--samples 500] [--reduce 1]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <tbb/task_arena.h>

#include "bench/bench_args.h"
#include "generators/bodies.h"
#include "generators/poses.h"
#include "zor/alignment/surface_sampling.h"
#include "zor/model/stopwatch.h"
#include "zor/model/unit.h"
#include "zor/registration/detail/registration_solver.h"
#include "zor/registration/user_operator_stl_registration.h"
#include "zor/services/reduce.h"

namespace {

using namespace zorgen;

// Parameters of the runs: the defaults of the operator unless given.
struct Options {
  double errorTolerance = MUserOperatorStlRegistration::MParams().errorTolerance;
  std::uint64_t iterations = MUserOperatorStlRegistration::MParams().iterationCount;
  std::uint64_t samples = MUserOperatorStlRegistration::MParams().sampleCount;
  bool reduce = true;
} options;

using zorbench::ParseList;

// A pose with a rotation of up to `maxDegrees` about a random axis through the body's
// middle and a translation of up to `maxShift`.
MMTransformMatrix RandomPose(std::mt19937& rng, double maxDegrees, double maxShift) {
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  MMVector3d axis(gauss(rng), gauss(rng), gauss(rng));
  MMVector3d shift(gauss(rng), gauss(rng), gauss(rng));
  shift *= maxShift * unit(rng) / Length(shift);
  MMTransformMatrix pose;
  pose.MakeRotation(MMVector3d(), axis, maxDegrees * unit(rng) * 3.141592653589793 / 180.0);
  MMTransformMatrix move;
  move.MakeTranslation(shift);
  pose.PreMultiply(move);
  return pose;
}

struct Accuracy {
  double degrees = 0.0;
  double displacement = 0.0;  // largest over the box corners, fraction of the diagonal
};

// How far `found` * `pose` is from the identity.
Accuracy Residual(const MMTransformMatrix& found, const MMTransformMatrix& pose, const MeshArrays& m) {
  const MMTransformMatrix d = found * pose;
  Accuracy a;
  a.degrees = RotationDegrees(d);
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
  for (std::size_t i = 0; i < m.xyz.size(); ++i) {
    lo[i % 3] = std::min(lo[i % 3], m.xyz[i]);
    hi[i % 3] = std::max(hi[i % 3], m.xyz[i]);
  }
  for (int corner = 0; corner < 8; ++corner) {
    const MMVector3d p(corner & 1 ? hi[0] : lo[0], corner & 2 ? hi[1] : lo[1], corner & 4 ? hi[2] : lo[2]);
    MMVector3d q = p;
    d.Transform(q, false);
    a.displacement = std::max(a.displacement, Length(q - p) / m.diagonal);
  }
  return a;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

void RunCase(Shape shape, long size, bool partial, const std::vector<long>& threads, int poses) {
  const MeshArrays m = MakeShape(shape, size);
  const std::unique_ptr<MStlBase> fixed = MakeMesh(m);
  std::mt19937 rng(1234 + static_cast<unsigned>(size));
  std::vector<MMTransformMatrix> truths;
  std::vector<std::unique_ptr<MStlBase>> moving;
  for (int k = 0; k < poses; ++k) {
    truths.push_back(RandomPose(rng, 15.0, 0.05 * m.diagonal));
    moving.push_back(MakeMovedCopy(m, truths.back(), partial ? 0.7 : 1.0));
  }
  for (long t : threads) {
    tbb::task_arena arena(static_cast<int>(t));
    Accuracy worst;
    std::vector<double> total, reduction, sampling, index, refinement, iterations;
    for (int k = 0; k < poses; ++k) {
      MUserOperatorStlRegistration registration;
      MUserOperatorStlRegistration::MParams params;
      params.initialAlignment = MUserOperatorStlRegistration::AlignNone;
      if (partial) params.overlapFraction = 0.7;
      params.errorTolerance = options.errorTolerance;
      params.iterationCount = options.iterations;
      params.sampleCount = options.samples;
      params.reduceMeshes = options.reduce;
      registration.SetAllParams(params);
      registration.SetFixedStl(fixed.get(), nullptr);
      registration.SetMovingStl(moving[k].get(), nullptr);
      arena.execute([&] { registration.Operate(); });
      MMTransformMatrix found;
      registration.GetTransformation(found);
      const Accuracy a = Residual(found, truths[k], m);
      worst.degrees = std::max(worst.degrees, a.degrees);
      worst.displacement = std::max(worst.displacement, a.displacement);
      const auto& s = registration.GetStageTimes();
      total.push_back(s.total);
      reduction.push_back(s.reduction);
      sampling.push_back(s.sampling);
      index.push_back(s.index + s.alignment);
      refinement.push_back(s.refinement);
      iterations.push_back(static_cast<double>(s.iterations));
    }
    std::printf("%-9s %8ld %-8s %2ld | %9.4f %9.4f%% | %8.1f %8.1f %8.1f %8.1f %8.1f | %5.0f\n", ShapeName(shape),
                static_cast<long>(fixed->GetNumberOfTriangles()), partial ? "70%" : "full", t, worst.degrees,
                100.0 * worst.displacement, 1e3 * Median(total), 1e3 * Median(reduction), 1e3 * Median(sampling),
                1e3 * Median(index), 1e3 * Median(refinement), Median(iterations));
    std::fflush(stdout);
  }
}

// One refinement iteration (match, trim, step, move, measure) on `samples` samples of a
// reduced 100k-triangle body, 1 thread, averaged over many iterations that start from
// a pose 2 degrees off.
void IterationCost(long samples) {
  const MeshArrays m = MakeShape(Shape::Bumpy, 100000);
  const std::unique_ptr<MStlBase> fixed = MakeMesh(m);
  MStlBaseOperatorReduceExBase::MParams reduction;
  reduction.distance = 0.3 * MUnit::GetIE();
  MStlBaseOperatorReduceEx<MStlBaseContainer>(MStlBaseContainer(fixed.get()), reduction).Operate();
  std::vector<MMVector3d> points;
  ZorStlRegistration::SampleSurface(fixed.get(), static_cast<std::uint64_t>(samples), 0.0, false, points, nullptr);
  ZorStlRegistration::NormalOrientationIndex index;
  index.SetMesh(fixed.get());
  MMTransformMatrix off;
  off.MakeRotation(MMVector3d(1000, 0, 0), MMVector3d(1, 1, 0), 2.0 * 3.141592653589793 / 180.0);
  tbb::task_arena arena(1);
  const int rounds = 200, perRound = 10;
  double seconds = 0.0;
  arena.execute([&] {
    for (int r = 0; r < rounds; ++r) {
      ZorStlRegistration::detail::RegistrationSolver solver(&index, MUnit::GetIE());
      solver.SetSamples(points, nullptr);
      solver.activeCount = static_cast<std::uint64_t>(0.8 * static_cast<double>(points.size()));
      solver.MoveRecords(off);
      solver.MatchSamples();
      const auto start = std::chrono::steady_clock::now();
      for (int i = 0; i < perRound; ++i) {
        MMTransformMatrix step;
        solver.MatchSamples();
        solver.TrimSamples();
        solver.ComputeStep(step);
        solver.MoveRecords(step);
        solver.MeanError();
      }
      seconds += ZorSDK::Common::SecondsSince(start);
    }
  });
  std::printf("one refinement iteration, %zu samples on %zu triangles, 1 thread: %.3f ms\n", points.size(),
              fixed->GetNumberOfTriangles(), 1e3 * seconds / (rounds * perRound));
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<long> sizes = {10000, 100000, 1000000};
  std::vector<long> threads = {1, 2};
  int poses = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--sizes") == 0)
      sizes = ParseList(argv[i + 1]);
    else if (std::strcmp(argv[i], "--threads") == 0)
      threads = ParseList(argv[i + 1]);
    else if (std::strcmp(argv[i], "--poses") == 0)
      poses = std::atoi(argv[i + 1]);
    else if (std::strcmp(argv[i], "--tolerance") == 0)
      options.errorTolerance = std::atof(argv[i + 1]);
    else if (std::strcmp(argv[i], "--iterations") == 0)
      options.iterations = std::strtoull(argv[i + 1], nullptr, 10);
    else if (std::strcmp(argv[i], "--samples") == 0)
      options.samples = std::strtoull(argv[i + 1], nullptr, 10);
    else if (std::strcmp(argv[i], "--reduce") == 0)
      options.reduce = std::atoi(argv[i + 1]) != 0;
  }
  std::printf("errorTolerance %g, iterationCount %llu, sampleCount %llu, reduceMeshes %d\n", options.errorTolerance,
              static_cast<unsigned long long>(options.iterations), static_cast<unsigned long long>(options.samples),
              options.reduce ? 1 : 0);
  std::printf("start within 15 deg and 5%% of the diagonal, initialAlignment 0; worst of %d poses; times are medians\n",
              poses);
  std::printf("%-9s %8s %-8s %2s | %9s %10s | %8s %8s %8s %8s %8s | %5s\n", "shape", "tris", "copy", "th", "rot deg",
              "shift/diag", "total ms", "reduce", "sample", "index", "refine", "iters");
  for (long size : sizes)
    for (Shape shape : {Shape::Smooth, Shape::Bumpy, Shape::Featured})
      for (bool partial : {false, true}) RunCase(shape, size, partial, threads, poses);
  IterationCost(500);
  return 0;
}
