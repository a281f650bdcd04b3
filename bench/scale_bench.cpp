// Registration at scale, as a user meets it: a pair of mesh files (the tool's demo body,
// the featured block or a scan-like sphere; clean or with Gaussian noise, each mesh its
// own) written as binary STL, then
//   copy         the time to copy both files into memory (what reading cannot beat)
//   read         the files read into meshes, one after the other (ReadMesh)
//   registration the pair call (AlignPair, the tool's default), and of it the search
//                copies (reduction), the search, the finish, and the verdicts (studying
//                both surfaces, building their trees, judging poses)
//   tool         `zor-register align MOVING FIXED` run as a user runs it: its wall time
//                and its peak resident memory, whole and per input triangle
// with the error of the result against the true pose. Each case runs in a child process
// of its own; --peer also registers the files with Open3D's recipe (the global
// registration of bench/peers/open3d_scale.py), in the same run.
//
//   bench_scale [--sizes 1000000] [--noise 0,200] [--bodies demo,featured,scan]
//               [--threads 2] [--tool PATH] [--peer] [--keep DIR]
//
// --sizes 1000000,4000000,10000000 gives the large cases; noise is in micrometres.
// --keep DIR leaves the files of each case in DIR (otherwise a folder under /tmp that is
// removed).
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <tbb/task_arena.h>

#include "bench/bench_args.h"
#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/poses.h"
#include "zor/files/mesh_files.h"
#include "zor/model/unit.h"
#include "zor/pair/pair_registration.h"

namespace {

using zorbench::ParseList;
using zorbench::ParseNames;
using zorgen::MeshArrays;
using Clock = std::chrono::steady_clock;
using ZorStlRegistration::LoadedMesh;
using ZorStlRegistration::ReadMesh;
using ZorStlRegistration::WriteMesh;

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void AddNoise(MeshArrays& m, double noise, std::uint64_t seed) {
  if (!(noise > 0.0)) return;
  // Noise along each axis, so that its length is about `noise`; whole micrometres.
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> gauss(0.0, noise / std::sqrt(3.0));
  for (double& v : m.xyz) v = std::round(v + gauss(rng));
}

MeshArrays MakeBody(const std::string& body, long size) {
  if (body == "featured") return zorgen::MakeShape(zorgen::Shape::Featured, size);
  if (body == "scan") return zorgen::MakeScanLikeMesh(size);
  // The tool's demo body at this size.
  const int n = std::max(1, static_cast<int>(std::lround(std::sqrt(static_cast<double>(size) / 12.0))));
  return zorgen::ArraysOf(*zorgen::MakeSampleBody(n));
}

// Rotation angle (degrees) and shift of the body's centre (mm) of `found * pose`,
// which is the identity for a perfect result.
void Residual(const MMTransformMatrix& found, const MMTransformMatrix& pose, const MStlBase& fixed, double& degrees,
              double& millimetres) {
  const MMTransformMatrix r = found * pose;
  degrees = RotationDegrees(r);
  const MMVector3d centre(0.5 * (double(fixed.GetXMin()) + fixed.GetXMax()),
                          0.5 * (double(fixed.GetYMin()) + fixed.GetYMax()),
                          0.5 * (double(fixed.GetZMin()) + fixed.GetZMax()));
  millimetres = Length(r(centre, false) - centre) / MUnit::GetIE();
}

// Seconds to copy the file into memory (warm: it was just written).
double CopySeconds(const std::string& path) {
  const auto start = Clock::now();
  std::ifstream in(path, std::ios::binary);
  std::vector<char> bytes(std::filesystem::file_size(path));
  in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return Since(start);
}

// Runs `argv` with stdout to `out` (may be empty: discarded); its wall seconds and peak
// resident bytes, or a negative time when it failed.
double RunChild(const std::vector<std::string>& argv, const std::string& out, double& peakBytes) {
  const auto start = Clock::now();
  const pid_t child = fork();
  if (child == 0) {
    const std::string target = out.empty() ? "/dev/null" : out;
    if (std::freopen(target.c_str(), "w", stdout) == nullptr) std::_Exit(127);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    std::_Exit(127);
  }
  int status = 0;
  rusage usage{};
  if (child < 0 || wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return -1.0;
  peakBytes = 1024.0 * static_cast<double>(usage.ru_maxrss);
  return Since(start);
}

struct Options {
  int threads = 2;
  std::string tool, keep;
  bool peer = false;
};

// One case, in the calling (child) process; prints its row.
void RunCase(const std::string& body, long size, double noise, const Options& o) {
  const std::string folder = o.keep.empty() ? "/tmp/bench_scale_" + std::to_string(getpid())
                                            : o.keep + "/" + body + "_" + std::to_string(size);
  std::filesystem::create_directories(folder);
  const std::string movingPath = folder + "/moving.stl", fixedPath = folder + "/fixed.stl";
  MMTransformMatrix pose;
  {
    MeshArrays m = MakeBody(body, size);
    MeshArrays other = m;
    AddNoise(m, noise, 1);
    AddNoise(other, noise, 2);
    pose = zorgen::DrawPose(1, 40.0 * MUnit::GetIE());
    const std::unique_ptr<MStlBase> fixed = zorgen::MakeMesh(m);
    const std::unique_ptr<MStlBase> moving = zorgen::MakeMovedCopy(other, pose);
    WriteMesh(*fixed, nullptr, 1.0, fixedPath, false);
    WriteMesh(*moving, nullptr, 1.0, movingPath, false);
  }
  const double copy = CopySeconds(movingPath) + CopySeconds(fixedPath);
  tbb::task_arena arena(o.threads);
  LoadedMesh moving, fixed;
  auto start = Clock::now();
  arena.execute([&] {
    moving = ReadMesh(movingPath, 1.0);
    fixed = ReadMesh(fixedPath, 1.0);
  });
  const double read = Since(start);
  ZorStlRegistration::PairResult result;
  arena.execute([&] { result = ZorStlRegistration::AlignPair(*moving.mesh, *fixed.mesh, {}); });
  double degrees = 0.0, millimetres = 0.0;
  Residual(result.transform, pose, *fixed.mesh, degrees, millimetres);
  const double triangles =
      static_cast<double>(moving.mesh->GetNumberOfTriangles() + fixed.mesh->GetNumberOfTriangles());
  moving = LoadedMesh();
  fixed = LoadedMesh();

  double toolPeak = 0.0, unused = 0.0;
  const double tool =
      o.tool.empty() ? -1.0
                     : RunChild({o.tool, "align", movingPath, fixedPath, "-q", "--threads", std::to_string(o.threads)},
                                "", toolPeak);
  double peer = -1.0;
  if (o.peer) {
    const std::string script = std::filesystem::path(__FILE__).parent_path().string() + "/peers/open3d_scale.py";
    if (RunChild({"/usr/bin/python3", script, movingPath, fixedPath, folder + "/open3d.txt"}, "", unused) >= 0.0) {
      std::ifstream in(folder + "/open3d.txt");
      double readPeer = 0.0;
      in >> readPeer >> peer;
    }
  }
  const double verdict = result.surfaceSeconds + result.verdictSeconds;
  const double search = result.seconds - result.times.reduction - result.polishSeconds - verdict;
  std::printf(
      "| %-8s | %5.0f | %9.0f | %6.3f | %6.3f | %6.3f | %6.3f | %6.3f | %6.3f | %6.3f | %6.3f | %6.0f | %5.0f | "
      "%6.3f | %7.4f | %7.4f |\n",
      body.c_str(), noise, triangles / 2.0, copy, read, result.seconds, result.times.reduction, search,
      result.polishSeconds, verdict, tool, toolPeak / 1048576.0, toolPeak / triangles, peer, degrees, millimetres);
  std::fflush(stdout);
  if (o.keep.empty()) std::filesystem::remove_all(folder);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<long> sizes = {1000000}, noises = {0, 200};
  std::vector<std::string> bodies = {"demo", "featured", "scan"};
  Options o;
  o.tool =
      (std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "tools/zor-register/zor-register")
          .string();
  if (!std::filesystem::exists(o.tool)) o.tool.clear();
  for (int i = 1; i < argc; ++i) {
    const bool value = i + 1 < argc;
    if (std::strcmp(argv[i], "--sizes") == 0 && value) {
      sizes = ParseList(argv[++i]);
    } else if (std::strcmp(argv[i], "--threads") == 0 && value) {
      o.threads = static_cast<int>(std::strtol(argv[++i], nullptr, 10));
    } else if (std::strcmp(argv[i], "--noise") == 0 && value) {
      noises = ParseList(argv[++i]);
    } else if (std::strcmp(argv[i], "--bodies") == 0 && value) {
      bodies = ParseNames(argv[++i]);
    } else if (std::strcmp(argv[i], "--tool") == 0 && value) {
      o.tool = argv[++i];
    } else if (std::strcmp(argv[i], "--keep") == 0 && value) {
      o.keep = argv[++i];
    } else if (std::strcmp(argv[i], "--peer") == 0) {
      o.peer = true;
    } else {
      std::fprintf(stderr,
                   "usage: bench_scale [--sizes 1000000] [--noise 0,200] [--bodies demo,featured,scan] "
                   "[--threads 2] [--tool PATH] [--peer] [--keep DIR]\n");
      return 2;
    }
  }
  std::printf(
      "%d threads; seconds; triangles of each mesh; copy: both files into memory; read: both files into meshes;\n"
      "registration: AlignPair with its defaults, and of it reduction (search copies), search, finish and verdict;\n"
      "tool: zor-register align, wall and peak memory (MB, bytes per input triangle); Open3D: its recipe's\n"
      "registration (reading excluded); error of our result against the true pose\n\n",
      o.threads);
  std::printf(
      "| body | noise um | triangles | copy | read | registration | reduction | search | finish | verdict | tool | "
      "tool MB | B/tri | Open3D | deg | mm |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  std::fflush(stdout);
  for (const std::string& body : bodies)
    for (long noise : noises)
      for (long size : sizes) {
        const pid_t child = fork();
        if (child == 0) {
          RunCase(body, size, static_cast<double>(noise), o);
          std::_Exit(0);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
          std::fprintf(stderr, "bench_scale: the case %s %ld %ld failed\n", body.c_str(), noise, size);
          return 1;
        }
      }
  return 0;
}
