// bench_register_pair MOVING FIXED [REPEATS]: the registration of one pair of mesh files
// as the command-line tool and the Python package run it (AlignPair with the tool's
// defaults), timed in memory: the files are read once, one run warms up, each repeat registers
// them and the median wall time is printed. bench/python_bench.py sets it beside zor.register on the
// same files to measure what the Python call adds.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/zor-register/commands.h"
#include "tools/zor-register/mesh_files.h"
#include "tools/zor-register/pair_alignment.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: bench_register_pair MOVING FIXED [REPEATS]\n");
    return 2;
  }
  const int repeats = argc > 3 ? std::max(1, std::atoi(argv[3])) : 9;
  try {
    const zortool::LoadedMesh moving = zortool::ReadMesh(argv[1], 1.0);
    const zortool::LoadedMesh fixed = zortool::ReadMesh(argv[2], 1.0);
    zortool::PairOptions options;
    options.params = zortool::ToolDefaults();
    zortool::AlignPair(*moving.mesh, *fixed.mesh, options);  // warm: trees, pages, the thread pool
    std::vector<double> seconds;
    for (int i = 0; i < repeats; ++i) {
      const auto start = std::chrono::steady_clock::now();
      const zortool::PairResult r = zortool::AlignPair(*moving.mesh, *fixed.mesh, options);
      seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
      if (i == 0) std::fprintf(stderr, "strategy %s, overlap %.3f\n", zortool::StrategyName(r.used), r.verdict.overlap);
    }
    std::sort(seconds.begin(), seconds.end());
    std::printf("%.6f\n", seconds[seconds.size() / 2]);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "bench_register_pair: %s\n", e.what());
    return 1;
  }
  return 0;
}
