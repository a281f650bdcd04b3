// Services and sampling on scan-like meshes of about 100k and 1M triangles:
//   build/release/bench/bench_services
// The thread count is the second argument, applied through a task arena.
#include <map>
#include <memory>

#include <benchmark/benchmark.h>
#include <oneapi/tbb/task_arena.h>

#include "generators/bodies.h"
#include "zor/alignment/surface_sampling.h"
#include "zor/model/mesh_builder.h"
#include "zor/services/services.h"

namespace {

const MStlBase& ScanMesh(std::int64_t triangles) {
  static std::map<std::int64_t, std::unique_ptr<MStlBase>> cache;
  auto& mesh = cache[triangles];
  if (!mesh) {
    const auto arrays = zorgen::MakeScanLikeMesh(triangles);
    mesh = BuildStl(arrays.xyz.data(), arrays.xyz.size() / 3, arrays.indices.data(), arrays.indices.size() / 3);
  }
  return *mesh;
}

template <typename Body>
void InArena(benchmark::State& state, Body&& body) {
  oneapi::tbb::task_arena arena(static_cast<int>(state.range(1)));
  for (auto _ : state) arena.execute(body);
}

void BM_Reduce(benchmark::State& state) {
  const MStlBase& source = ScanMesh(state.range(0));
  std::size_t after = 0;
  oneapi::tbb::task_arena arena(static_cast<int>(state.range(1)));
  for (auto _ : state) {
    state.PauseTiming();
    MStlBase copy(source);
    state.ResumeTiming();
    arena.execute([&] {
      MStlBaseOperatorReduceExBase::MParams params;
      params.distance = 0.3 * 1000;  // the default tolerance at the default units
      MStlBaseOperatorReduceEx<MStlBaseContainer> op(MStlBaseContainer(&copy), params);
      op.Operate();
      after = op.GetTrianglesAfter();
    });
  }
  state.counters["triangles_after"] = double(after);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Reduce)->ArgsProduct({{100000, 1000000}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Sample500(benchmark::State& state) {
  MStlBase& mesh = const_cast<MStlBase&>(ScanMesh(state.range(0)));
  const bool withNormals = state.range(2) != 0;
  InArena(state, [&] {
    std::vector<MMVector3d> points, normals;
    ZorStlRegistration::SampleSurface(&mesh, 500, 2000.0, false, points, withNormals ? &normals : nullptr);
    benchmark::DoNotOptimize(points.data());
  });
}
BENCHMARK(BM_Sample500)->ArgsProduct({{100000, 1000000}, {1, 2}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_MassProperties(benchmark::State& state) {
  const MStlBase& mesh = ScanMesh(state.range(0));
  InArena(state, [&] {
    MStlBaseOperatorGeomProperties op;
    op.SetGravityType(GravitySolid);
    op.AddStl(mesh, MMTransformMatrix());
    benchmark::DoNotOptimize(op.Operate());
  });
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_MassProperties)->ArgsProduct({{100000, 1000000}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_NormalQueries(benchmark::State& state) {
  const MStlBase& mesh = ScanMesh(state.range(0));
  MUserOperatorNormalCalculator calculator;
  calculator.SetInputModel(&mesh);
  calculator.SetParams(MUserOperatorNormalCalculator::MParams());
  calculator.Preprocess();
  std::vector<MStlTriangle*> triangles;
  for (auto it = MStlIteratorStlTriangle::Begin(const_cast<MStlBase*>(&mesh));
       it != MStlIteratorStlTriangle::End(const_cast<MStlBase*>(&mesh)); ++it)
    triangles.push_back(&*it);
  const double bary[3] = {0.2, 0.3, 0.5};
  std::size_t i = 0;
  for (auto _ : state) {
    MMVector3d n;
    calculator.QueryResult(n, triangles[i], bary);
    benchmark::DoNotOptimize(n);
    i = (i + 7919) % triangles.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NormalQueries)->Args({100000, 1})->Args({1000000, 1});

}  // namespace

BENCHMARK_MAIN();
