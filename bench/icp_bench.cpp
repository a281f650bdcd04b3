// Speed of the multi-start ICP operator: one Operate with its defaults (30 directions x
// 12 spins x 11 measurements on 500 samples, then the refining run on 5000) on the
// featured body at each size, registering a copy under a seeded pose, on each thread
// count, split into its stages (median of the poses). Then the cost of one ICP
// iteration on 500 samples, and the memory the operator holds after a run.
//
//   bench_icp [--sizes 10000,100000,1000000] [--threads 1,2] [--poses 5] [--save DIR]
//
// The digest column hashes the bits of every result transform of the row, so that two
// builds that give the same transforms, every digit, print the same digest.
//
// --save DIR also writes each size's body and moved copies as PLY (millimetres) with
// the true poses, for the side-by-side peer (bench/peers/open3d_multistart_icp.py).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <tbb/task_arena.h>

#include "bench/bench_args.h"
#include "bench/bench_digest.h"
#include "generators/bodies.h"
#include "generators/poses.h"
#include "zor/files/mesh_files.h"
#include "zor/icp/stl_base_operator_registration_icp.h"

namespace {

using Icp = ZorStlRegistration::MStlBaseOperatorRegistrationICP;

using zorbench::ParseList;

using zorbench::Digest;

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<long> sizes = {10000, 100000, 1000000}, threads = {1, 2};
  int poses = 5;
  std::string save;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--sizes") {
      sizes = ParseList(argv[i + 1]);
    } else if (flag == "--threads") {
      threads = ParseList(argv[i + 1]);
    } else if (flag == "--save") {
      save = argv[i + 1];
    } else if (flag == "--poses") {
      poses = std::max(1, std::atoi(argv[i + 1]));
    } else {
      std::fprintf(stderr,
                   "usage: bench_icp [--sizes 10000,100000,1000000] [--threads 1,2] [--poses 5] [--save DIR]\n");
      return 2;
    }
  }
  std::printf("multi-start ICP, defaults; featured body under %d seeded poses; times are medians in ms\n", poses);
  std::printf(
      "| triangles | threads | total | sampling | tree | analysis | search | refinement | iteration us x threads "
      "| digest |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|\n");
  for (long size : sizes) {
    const zorgen::MeshArrays body = zorgen::MakeShape(zorgen::Shape::Featured, size);
    const auto fixed = zorgen::MakeMesh(body);
    if (!save.empty()) {
      // The body, its copies and their poses (row-major, millimetres), for the peer.
      const std::string prefix = save + "/" + std::to_string(size);
      std::filesystem::create_directories(save);
      ZorStlRegistration::WriteMesh(*fixed, nullptr, 1.0, prefix + "_fixed.ply", false);
      std::ofstream truths(prefix + "_poses.txt");
      truths.precision(17);
      for (int k = 0; k < poses; ++k) {
        const MMTransformMatrix pose = zorgen::DrawPose(static_cast<std::uint64_t>(k + 1), 60000.0);
        ZorStlRegistration::WriteMesh(*zorgen::MakeMovedCopy(body, pose), nullptr, 1.0,
                                      prefix + "_moving_" + std::to_string(k) + ".ply", false);
        for (int e = 0; e < 16; ++e)
          truths << pose.GetElement(e / 4, e % 4) / (e % 4 == 3 && e < 12 ? 1000.0 : 1.0) << (e == 15 ? "\n" : " ");
      }
    }
    for (long t : threads) {
      std::vector<double> total, sampling, tree, analysis, search, refinement;
      std::uint64_t digest = zorbench::kDigestStart;
      tbb::task_arena arena(static_cast<int>(t));
      for (int k = 0; k < poses; ++k) {
        const auto moving = zorgen::MakeMovedCopy(body, zorgen::DrawPose(static_cast<std::uint64_t>(k + 1), 60000.0));
        Icp icp;
        Icp::MParams params;
        params.moving = moving.get();
        params.fixed = fixed.get();
        icp.SetParameters(params);
        const auto start = std::chrono::steady_clock::now();
        arena.execute([&] { icp.Operate(); });
        total.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
        digest = Digest(digest, icp.GetTransformMatrix());
        const Icp::StageTimes& s = icp.GetStageTimes();
        sampling.push_back(s.sampling * 1e3);
        tree.push_back(s.tree * 1e3);
        analysis.push_back(s.analysis * 1e3);
        search.push_back(s.search * 1e3);
        refinement.push_back(s.refinement * 1e3);
      }
      // The search runs 360 starts of 11 measurements each.
      const double iteration = Median(search) * 1000.0 * static_cast<double>(t) / (360.0 * 11.0);
      std::printf("| %9zu | %7ld | %7.1f | %8.2f | %6.2f | %8.2f | %7.1f | %10.2f | %8.1f | %016llx |\n",
                  fixed->GetNumberOfTriangles(), t, Median(total), Median(sampling), Median(tree), Median(analysis),
                  Median(search), Median(refinement), iteration, static_cast<unsigned long long>(digest));
      std::fflush(stdout);
    }
  }

  // One ICP iteration near convergence: a single run of 1000 fits on 500 samples from
  // the answer, on one thread (the search's iterations above start far off, where the
  // nearest-sample queries cost more).
  const zorgen::MeshArrays body = zorgen::MakeShape(zorgen::Shape::Featured, 100000);
  const auto fixed = zorgen::MakeMesh(body);
  const MMTransformMatrix pose = zorgen::DrawPose(1, 60000.0);
  const auto moving = zorgen::MakeMovedCopy(body, pose);
  Icp icp;
  Icp::MParams params;
  params.moving = moving.get();
  params.fixed = fixed.get();
  params.multiStart = false;
  params.maxIterations = 1000;
  params.initialTransform = pose.Inverted();
  icp.SetParameters(params);
  tbb::task_arena(1).execute([&] { icp.Operate(); });
  std::printf("\none ICP iteration (match, median, reject, fit) on 500 samples at the answer, 1 thread: %.4f ms\n",
              icp.GetStageTimes().search * 1e3 / 1001.0);
  return 0;
}
