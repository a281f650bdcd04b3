// Building a mesh from vertex and index arrays (the path a file reader or host takes),
// with the bytes the mesh holds per triangle. Run: build/release/bench/bench_mesh_build
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <vector>

#include <benchmark/benchmark.h>
#include <tbb/task_arena.h>

#include "generators/bodies.h"
#include "zor/model/stl.h"

// Live heap bytes, counted by replacing the global allocation functions.
namespace {
std::atomic<long long> liveBytes{0};
}

void* operator new(std::size_t n) {
  void* p = std::malloc(n + 16);
  if (p == nullptr) throw std::bad_alloc();
  *static_cast<std::size_t*>(p) = n;
  liveBytes += static_cast<long long>(n);
  return static_cast<char*>(p) + 16;
}
void operator delete(void* p) noexcept {
  if (p == nullptr) return;
  char* base = static_cast<char*>(p) - 16;
  liveBytes -= static_cast<long long>(*reinterpret_cast<std::size_t*>(base));
  std::free(base);
}
void* operator new[](std::size_t n) { return operator new(n); }
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { operator delete(p); }

namespace {

void BM_BuildFromArrays(benchmark::State& state) {
  const zorgen::MeshArrays arrays = zorgen::MakeBumpyHeightField(state.range(0));
  const std::size_t triangles = arrays.indices.size() / 3;
  tbb::task_arena one(1);
  double bytesPerTriangle = 0.0;
  for (auto _ : state) {
    one.execute([&] {
      const long long before = liveBytes.load();
      auto mesh = BuildStl(arrays.xyz.data(), arrays.xyz.size() / 3, arrays.indices.data(), triangles);
      bytesPerTriangle = static_cast<double>(liveBytes.load() - before) / triangles;
      benchmark::DoNotOptimize(mesh.get());
      state.PauseTiming();
      mesh.reset();
      state.ResumeTiming();
    });
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(triangles));
  state.counters["triangles"] = static_cast<double>(triangles);
  state.counters["bytes_per_triangle"] = bytesPerTriangle;
}
BENCHMARK(BM_BuildFromArrays)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Adding triangles by coordinates (every corner through the merge index), as a copy of
// a selection does.
void BM_CopyWholeMesh(benchmark::State& state) {
  const zorgen::MeshArrays arrays = zorgen::MakeBumpyHeightField(state.range(0));
  auto source = BuildStl(arrays.xyz.data(), arrays.xyz.size() / 3, arrays.indices.data(), arrays.indices.size() / 3);
  for (auto _ : state) {
    auto copy = CopySelectionToNewMesh(MStlItem(source.get()));
    benchmark::DoNotOptimize(copy.get());
    state.PauseTiming();
    copy.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(source->GetNumberOfTriangles()));
}
BENCHMARK(BM_CopyWholeMesh)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DeepCopy(benchmark::State& state) {
  const zorgen::MeshArrays arrays = zorgen::MakeBumpyHeightField(state.range(0));
  auto source = BuildStl(arrays.xyz.data(), arrays.xyz.size() / 3, arrays.indices.data(), arrays.indices.size() / 3);
  for (auto _ : state) {
    MStlBase copy(*source);
    benchmark::DoNotOptimize(&copy);
    state.PauseTiming();
    // destruction is timed out of the loop by the pause around the scope end
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(source->GetNumberOfTriangles()));
}
BENCHMARK(BM_DeepCopy)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
