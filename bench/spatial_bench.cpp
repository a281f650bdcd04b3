// Tree builds and nearest queries on a scan-like surface, on 1 and 2 threads, with the
// bytes each tree holds per object.
// Run: build/release/bench/bench_spatial [--benchmark_filter=...]
#include <map>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "generators/bodies.h"
#include "zor/model/stl.h"
#include "zor/spatial/object_tree.h"

namespace {

using MeshQueries::MeshVertex;

constexpr std::size_t kQueries = 1000000;

struct TriangleData {
  std::unique_ptr<MStlBase> mesh;
  std::vector<double> queries;
};

const TriangleData& Triangles(std::int64_t count) {
  static std::map<std::int64_t, TriangleData> cache;
  TriangleData& d = cache[count];
  if (!d.mesh) {
    const zorgen::MeshArrays arrays = zorgen::MakeScanLikeMesh(count);
    d.mesh = BuildStl(arrays.xyz.data(), arrays.xyz.size() / 3, arrays.indices.data(), arrays.indices.size() / 3);
    d.queries = zorgen::MakeQueriesAroundSurface(arrays, kQueries);
  }
  return d;
}

struct PointData {
  std::vector<MeshVertex> vertices;
  std::vector<double> queries;
};

// About `count` mesh points (a scan-like mesh has half as many points as triangles).
const PointData& Points(std::int64_t count) {
  static std::map<std::int64_t, PointData> cache;
  PointData& d = cache[count];
  if (d.vertices.empty()) {
    const zorgen::MeshArrays arrays = zorgen::MakeScanLikeMesh(2 * count);
    for (std::size_t i = 0; i < arrays.xyz.size(); i += 3)
      d.vertices.push_back(
          MeshVertex{{static_cast<std::int32_t>(arrays.xyz[i]), static_cast<std::int32_t>(arrays.xyz[i + 1]),
                      static_cast<std::int32_t>(arrays.xyz[i + 2])},
                     nullptr});
    d.queries = zorgen::MakeQueriesAroundSurface(arrays, kQueries);
  }
  return d;
}

// Times all queries in `arena`, once untimed first to warm caches and pages.
template <typename Body>
void TimeQueries(benchmark::State& state, tbb::task_arena& arena, const Body& queryRange,
                 std::vector<double>& distances) {
  const auto runAll = [&] {
    arena.execute([&] { tbb::parallel_for(tbb::blocked_range<std::size_t>(0, kQueries, 1024), queryRange); });
  };
  runAll();
  for (auto _ : state) {
    runAll();
    benchmark::DoNotOptimize(distances.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kQueries));
}

void BM_TriangleTreeBuild(benchmark::State& state) {
  const TriangleData& d = Triangles(state.range(0));
  tbb::task_arena arena(static_cast<int>(state.range(1)));
  MeshQueries::TriangleTreeHolder holder{MeshQueries::MeshHandle(d.mesh.get())};
  for (auto _ : state) arena.execute([&] { holder.Build(); });
  state.counters["bytes/tri"] =
      static_cast<double>(holder.GetMemoryUsage()) / static_cast<double>(d.mesh->GetNumberOfTriangles());
  state.counters["depth"] = static_cast<double>(holder.GetTree().GetDepth());
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(d.mesh->GetNumberOfTriangles()));
}

void BM_NearestTriangle(benchmark::State& state) {
  const TriangleData& d = Triangles(state.range(0));
  tbb::task_arena arena(static_cast<int>(state.range(1)));
  MeshQueries::TriangleTreeHolder holder{MeshQueries::MeshHandle(d.mesh.get())};
  holder.Build();
  std::vector<double> distances(kQueries);
  const auto queryRange = [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      const MMVector3d q(d.queries[3 * i], d.queries[3 * i + 1], d.queries[3 * i + 2]);
      distances[i] = MeshQueries::FindNearestTriangle(holder, q, std::numeric_limits<double>::infinity()).second;
    }
  };
  TimeQueries(state, arena, queryRange, distances);
}

void BM_PointTreeBuild(benchmark::State& state) {
  const PointData& d = Points(state.range(0));
  tbb::task_arena arena(static_cast<int>(state.range(1)));
  MeshQueries::PointTree tree;
  for (auto _ : state) {
    std::vector<MeshVertex> copy = d.vertices;
    arena.execute([&] { tree.Build(MeshQueries::detail::TreeParams{30}, std::move(copy)); });
  }
  state.counters["bytes/point"] = static_cast<double>(tree.GetMemoryUsage()) / static_cast<double>(d.vertices.size());
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(d.vertices.size()));
}

void BM_NearestPoint(benchmark::State& state) {
  const PointData& d = Points(state.range(0));
  tbb::task_arena arena(static_cast<int>(state.range(1)));
  MeshQueries::PointTree tree;
  std::vector<MeshVertex> copy = d.vertices;
  tree.Build(MeshQueries::detail::TreeParams{30}, std::move(copy));
  std::vector<double> distances(kQueries);
  const auto queryRange = [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      const MeshQueries::PointObjectDistance<std::vector<MeshVertex>> distance(tree.GetObjects(), &d.queries[3 * i]);
      double radius = std::numeric_limits<double>::infinity();
      MeshQueries::Nearest(tree, distance, radius);
      distances[i] = radius;
    }
  };
  TimeQueries(state, arena, queryRange, distances);
}

}  // namespace

BENCHMARK(BM_TriangleTreeBuild)
    ->ArgsProduct({{50000, 250000, 1000000}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_NearestTriangle)
    ->ArgsProduct({{50000, 250000, 1000000}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_PointTreeBuild)->ArgsProduct({{100000, 1000000}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NearestPoint)->ArgsProduct({{100000, 1000000}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
