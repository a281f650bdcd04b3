// Speed of the command-line tool's mesh files: the sample body written and read back in
// each format, reading counted from the file to the joined mesh on the grid. Prints the
// median of three runs per case. Then the deviation map of each size: the signed
// distances of a copy of the body moved by 0.1 mm to the body (tree included), and the
// map's PLY file.
//
//   bench_mesh_files [TRIANGLES ...]      (default: 100000 1000000)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "generators/bodies.h"
#include "generators/poses.h"
#include "zor/files/deviation_colour.h"
#include "zor/files/mesh_files.h"
#include "zor/model/stopwatch.h"
#include "zor/pair/deviation.h"

namespace {

template <typename Work>
double MedianSeconds(Work work) {
  std::vector<double> seconds;
  for (int run = 0; run < 3; ++run) {
    const auto start = std::chrono::steady_clock::now();
    work();
    seconds.push_back(ZorSDK::Common::SecondsSince(start));
  }
  std::sort(seconds.begin(), seconds.end());
  return seconds[1];
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<long> sizes;
  for (int i = 1; i < argc; ++i) sizes.push_back(std::atol(argv[i]));
  if (sizes.empty()) sizes = {100000, 1000000};
  const std::filesystem::path folder = std::filesystem::temp_directory_path() / "zor_bench_mesh_files";
  std::filesystem::create_directories(folder);

  std::printf("%-10s %-11s %9s %9s %9s %10s\n", "triangles", "format", "MB", "write s", "read s", "read MB/s");
  for (long size : sizes) {
    const int n = std::max(1, static_cast<int>(std::lround(std::sqrt(size / 12.0))));
    const auto body = zorgen::MakeSampleBody(n);
    const struct {
      const char* name;
      const char* file;
      bool ascii;
    } formats[] = {{"stl binary", "body.stl", false}, {"stl text", "text.stl", true}, {"ply binary", "body.ply", false},
                   {"ply text", "text.ply", true},    {"obj", "body.obj", true},      {"off", "body.off", true}};
    for (const auto& f : formats) {
      const std::string path = (folder / f.file).string();
      const double write = MedianSeconds([&] { ZorStlRegistration::WriteMesh(*body, nullptr, 1.0, path, f.ascii); });
      std::size_t triangles = 0;
      const double read =
          MedianSeconds([&] { triangles = ZorStlRegistration::ReadMesh(path, 1.0).mesh->GetNumberOfTriangles(); });
      if (triangles != body->GetNumberOfTriangles()) std::printf("  (read back %zu triangles)\n", triangles);
      const double mb = std::filesystem::file_size(path) / 1e6;
      std::printf("%-10zu %-11s %9.1f %9.3f %9.3f %10.0f\n", body->GetNumberOfTriangles(), f.name, mb, write, read,
                  mb / read);
    }
  }
  std::printf("\n%-10s %12s %10s %8s\n", "triangles", "distances s", "write s", "MB");
  for (long size : sizes) {
    const int n = std::max(1, static_cast<int>(std::lround(std::sqrt(size / 12.0))));
    const auto body = zorgen::MakeSampleBody(n);
    MMTransformMatrix shift;
    shift.MakeTranslation(MMVector3d(100.0, 0.0, 0.0));
    const std::string path = (folder / "deviation.ply").string();
    std::vector<double> distances;
    // Once: the first call pays for the triangle tree, as the tool's one call does.
    const auto start = std::chrono::steady_clock::now();
    distances = ZorStlRegistration::SignedDistances(*body, &shift, *body);
    const double measure = ZorSDK::Common::SecondsSince(start);
    const double write =
        MedianSeconds([&] { ZorStlRegistration::WriteDeviationMap(*body, &shift, 1.0, path, distances, 300.0); });
    std::printf("%-10zu %12.3f %10.3f %8.1f\n", body->GetNumberOfTriangles(), measure, write,
                std::filesystem::file_size(path) / 1e6);
  }
  std::filesystem::remove_all(folder);
  return 0;
}
