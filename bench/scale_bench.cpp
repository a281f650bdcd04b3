// Registration at scale: a generated body (the featured block) and a scan-like sphere,
// clean and with Gaussian noise, registered from a copy under a seeded pose with the
// default parameters and automatic alignment. Prints per case the time of every stage
// of Operate, the strategy taken, the error against the true pose, and the peak
// resident memory of the case. Each case runs in a child process of its own, so that
// the peak is that case's (meshes made, registration run), not the largest so far.
//
//   bench_scale [--sizes 100000] [--threads 1,2] [--noise 0,200] [--bodies featured,scan]
//
// --sizes 100000,1000000,4000000 gives the large cases; noise is in micrometres.
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <tbb/task_arena.h>

#include "bench/bench_args.h"
#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/poses.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace {

using zorbench::ParseList;
using zorbench::ParseNames;

constexpr const char* kStrategyNames[] = {"none", "auto", "axes", "rod", "disc", "ball"};
using zorgen::MeshArrays;

// Peak resident memory of this process so far, in bytes (VmHWM).
double PeakBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0) return 1024.0 * std::strtod(line.c_str() + 6, nullptr);
  return 0.0;
}

MeshArrays MakeBody(const std::string& body, long size, double noise) {
  if (body == "featured") return zorgen::MakeShape(zorgen::Shape::Featured, size, noise);
  MeshArrays m = zorgen::MakeScanLikeMesh(size);
  if (noise > 0.0) {
    // Noise along each axis, so that its length is about `noise`; whole micrometres.
    std::mt19937_64 rng(99);
    std::normal_distribution<double> gauss(0.0, noise / std::sqrt(3.0));
    for (double& v : m.xyz) v = std::round(v + gauss(rng));
  }
  return m;
}

// Rotation angle (degrees) and shift of the body's centre (mm) of `found * pose`,
// which is the identity for a perfect result.
void Residual(const MMTransformMatrix& found, const MMTransformMatrix& pose, const MeshArrays& m, double& degrees,
              double& millimetres) {
  const MMTransformMatrix r = found * pose;
  degrees = RotationDegrees(r);
  MMVector3d centre;
  const std::size_t points = m.xyz.size() / 3;
  for (std::size_t i = 0; i < points; ++i) centre += MMVector3d(m.xyz[3 * i], m.xyz[3 * i + 1], m.xyz[3 * i + 2]);
  centre = centre * (1.0 / static_cast<double>(points));
  millimetres = Length(r(centre, false) - centre) / 1000.0;
}

// One case, in the calling (child) process; prints its row.
void RunCase(const std::string& body, long size, double noise, int threads) {
  const MeshArrays m = MakeBody(body, size, noise);
  const std::unique_ptr<MStlBase> fixed = zorgen::MakeMesh(m);
  const MMTransformMatrix pose = zorgen::DrawPose(static_cast<std::uint64_t>(size) + 7, 0.5 * m.diagonal);
  const std::unique_ptr<MStlBase> moving = zorgen::MakeMovedCopy(m, pose);
  MUserOperatorStlRegistration registration;
  MUserOperatorStlRegistration::MParams params;
  params.initialAlignment = MUserOperatorStlRegistration::AlignAutomatic;
  registration.SetAllParams(params);
  registration.SetFixedStl(fixed.get(), nullptr);
  registration.SetMovingStl(moving.get(), nullptr);
  tbb::task_arena arena(threads);
  arena.execute([&] { registration.Operate(); });
  MMTransformMatrix found;
  registration.GetTransformation(found);
  double degrees = 0.0, millimetres = 0.0;
  Residual(found, pose, m, degrees, millimetres);
  const auto& s = registration.GetStageTimes();
  const double inputTriangles = static_cast<double>(fixed->GetNumberOfTriangles() + moving->GetNumberOfTriangles());
  const double peak = PeakBytes();
  std::printf(
      "| %-8s | %5.0f | %8zu | %d | %7.1f | %6.1f | %5.1f | %6.1f | %6.1f | %7.1f | %-5s | %7.3f | %7.3f | %6.0f | "
      "%5.0f |\n",
      body.c_str(), noise, fixed->GetNumberOfTriangles(), threads, 1e3 * s.reduction, 1e3 * s.sampling, 1e3 * s.index,
      1e3 * s.alignment, 1e3 * s.refinement, 1e3 * s.total,
      kStrategyNames[static_cast<int>(registration.GetAlignmentUsed())], degrees, millimetres, peak / 1048576.0,
      peak / inputTriangles);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<long> sizes = {100000}, threads = {1, 2}, noises = {0, 200};
  std::vector<std::string> bodies = {"featured", "scan"};
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--sizes") == 0) {
      sizes = ParseList(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--threads") == 0) {
      threads = ParseList(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--noise") == 0) {
      noises = ParseList(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--bodies") == 0) {
      bodies = ParseNames(argv[i + 1]);
    } else {
      std::fprintf(stderr,
                   "usage: bench_scale [--sizes 100000] [--threads 1,2] [--noise 0,200] "
                   "[--bodies featured,scan]\n");
      return 2;
    }
  }
  std::printf(
      "default parameters, automatic alignment; times in ms; error of the result against the true pose;\n"
      "peak: resident memory of the whole case (both meshes made, then Operate), and per input triangle\n\n");
  std::printf(
      "| body | noise um | triangles | threads | reduction | sampling | index | alignment | refinement | "
      "Operate | took | deg | mm | peak MB | B/tri |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  std::fflush(stdout);
  for (const std::string& body : bodies)
    for (long noise : noises)
      for (long size : sizes)
        for (long t : threads) {
          const pid_t child = fork();
          if (child == 0) {
            RunCase(body, size, static_cast<double>(noise), static_cast<int>(t));
            std::_Exit(0);
          }
          int status = 0;
          if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            std::fprintf(stderr, "bench_scale: the case %s %ld %ld failed\n", body.c_str(), size, t);
            return 1;
          }
        }
  return 0;
}
