// Side-by-side comparison of nearest-triangle and nearest-point queries with other
// libraries, on the same data in one run: Embree 3 (rtcPointQuery with a closest-point
// callback), CGAL (AABB_tree with accelerated distance queries) and nanoflann (KD-tree).
// Prints one table with build times, query throughput and the ratio ours / theirs.
//
// Build with -DZOR_BUILD_COMPARISONS=ON (needs libembree-dev, libcgal-dev,
// libnanoflann-dev). Run: build/release/bench/compare_spatial [queries]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/AABB_triangle_primitive.h>
#include <CGAL/Simple_cartesian.h>
#include <embree3/rtcore.h>
#include <nanoflann.hpp>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "generators/bodies.h"
#include "zor/model/stl.h"
#include "zor/model/stopwatch.h"
#include "zor/spatial/object_tree.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(const std::function<void()>& f) {
  const auto t0 = Clock::now();
  f();
  return ZorSDK::Common::SecondsSince(t0);
}

// Best of `reps` timings (the machine is shared with nothing, but caches and pages
// settle after the first pass).
double BestSeconds(int reps, const std::function<void()>& f) {
  double best = 1e300;
  for (int i = 0; i < reps; ++i) best = std::min(best, Seconds(f));
  return best;
}

void ParallelQueries(int threads, std::size_t count, const std::function<void(std::size_t, std::size_t)>& body) {
  tbb::task_arena arena(threads);
  arena.execute([&] {
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count, 1024),
                      [&](const tbb::blocked_range<std::size_t>& r) { body(r.begin(), r.end()); });
  });
}

struct Row {
  std::string what;
  int threads;
  double oursBuildMs, theirsBuildMs, oursRate, theirsRate;  // rates in queries per second
  double maxDifference;                                     // of the found distances
};

std::vector<Row> rows;

// --- Embree --------------------------------------------------------------------------

struct EmbreeMesh {
  std::vector<float> vertices;
  std::vector<unsigned> indices;
};

struct EmbreeQueryData {
  const EmbreeMesh* mesh;
  double best2;
};

bool EmbreeClosest(RTCPointQueryFunctionArguments* args) {
  auto* data = static_cast<EmbreeQueryData*>(args->userPtr);
  const unsigned* t = &data->mesh->indices[3 * args->primID];
  double v[3][3];
  for (int k = 0; k < 3; ++k)
    for (int j = 0; j < 3; ++j) v[k][j] = data->mesh->vertices[3 * t[k] + j];
  const double q[3] = {args->query->x, args->query->y, args->query->z};
  const double d2 = MeshQueries::PointTriangleDistance2(q, v[0], v[1], v[2], nullptr);
  if (d2 < data->best2) {
    data->best2 = d2;
    args->query->radius = static_cast<float>(std::sqrt(d2));
    return true;
  }
  return false;
}

// --- CGAL ----------------------------------------------------------------------------

using K = CGAL::Simple_cartesian<double>;
using CgalTriangles = std::vector<K::Triangle_3>;
using Primitive = CGAL::AABB_triangle_primitive<K, CgalTriangles::iterator>;
using CgalTree = CGAL::AABB_tree<CGAL::AABB_traits<K, Primitive>>;

// --- nanoflann -----------------------------------------------------------------------

struct Cloud {
  std::vector<double> xyz;
  std::size_t kdtree_get_point_count() const { return xyz.size() / 3; }
  double kdtree_get_pt(std::size_t i, std::size_t k) const { return xyz[3 * i + k]; }
  template <class B>
  bool kdtree_get_bbox(B&) const {
    return false;
  }
};
using KdTree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<double, Cloud>, Cloud, 3>;

void CompareTriangles(std::int64_t triangles, std::size_t queryCount) {
  const zorgen::MeshArrays arrays = zorgen::MakeScanLikeMesh(triangles);
  const std::vector<double> queries = zorgen::MakeQueriesAroundSurface(arrays, queryCount);
  const std::unique_ptr<MStlBase> mesh =
      BuildStl(arrays.xyz.data(), arrays.xyz.size() / 3, arrays.indices.data(), arrays.indices.size() / 3);
  const std::string name = std::to_string(mesh->GetNumberOfTriangles() / 1000) + "k triangles";

  EmbreeMesh em{std::vector<float>(arrays.xyz.begin(), arrays.xyz.end()), arrays.indices};
  CgalTriangles cgalTriangles;
  for (std::size_t t = 0; t < arrays.indices.size(); t += 3) {
    const auto p = [&](std::size_t k) {
      const double* v = &arrays.xyz[3 * arrays.indices[t + k]];
      return K::Point_3(v[0], v[1], v[2]);
    };
    cgalTriangles.emplace_back(p(0), p(1), p(2));
  }

  std::vector<double> ours(queryCount), theirs(queryCount);
  const auto maxDiff = [&] {
    double m = 0.0;
    for (std::size_t i = 0; i < queryCount; ++i) m = std::max(m, std::abs(ours[i] - theirs[i]));
    return m;
  };

  for (int threads : {1, 2}) {
    tbb::task_arena arena(threads);
    MeshQueries::TriangleTreeHolder holder{MeshQueries::MeshHandle(mesh.get())};
    const double oursBuild = BestSeconds(3, [&] { arena.execute([&] { holder.Build(); }); });
    const auto oursQuery = [&](std::size_t b, std::size_t e) {
      for (std::size_t i = b; i < e; ++i)
        ours[i] =
            MeshQueries::FindNearestTriangle(holder, MMVector3d(queries[3 * i], queries[3 * i + 1], queries[3 * i + 2]),
                                             std::numeric_limits<double>::infinity())
                .second;
    };
    const double oursTime = BestSeconds(2, [&] { ParallelQueries(threads, queryCount, oursQuery); });

    // Embree, with its own thread count.
    const std::string config = "threads=" + std::to_string(threads);
    RTCDevice device = rtcNewDevice(config.c_str());
    RTCScene scene = nullptr;
    const double embreeBuild = BestSeconds(3, [&] {
      if (scene != nullptr) rtcReleaseScene(scene);
      scene = rtcNewScene(device);
      RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
      rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, em.vertices.data(), 0,
                                 3 * sizeof(float), em.vertices.size() / 3);
      rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, em.indices.data(), 0,
                                 3 * sizeof(unsigned), em.indices.size() / 3);
      rtcCommitGeometry(geometry);
      rtcAttachGeometry(scene, geometry);
      rtcReleaseGeometry(geometry);
      arena.execute([&] { rtcCommitScene(scene); });
    });
    const auto embreeQuery = [&](std::size_t b, std::size_t e) {
      for (std::size_t i = b; i < e; ++i) {
        RTCPointQuery query;
        query.x = static_cast<float>(queries[3 * i]);
        query.y = static_cast<float>(queries[3 * i + 1]);
        query.z = static_cast<float>(queries[3 * i + 2]);
        query.radius = std::numeric_limits<float>::infinity();
        query.time = 0.0f;
        RTCPointQueryContext context;
        rtcInitPointQueryContext(&context);
        EmbreeQueryData data{&em, std::numeric_limits<double>::infinity()};
        rtcPointQuery(scene, &query, &context, EmbreeClosest, &data);
        theirs[i] = std::sqrt(data.best2);
      }
    };
    const double embreeTime = BestSeconds(2, [&] { ParallelQueries(threads, queryCount, embreeQuery); });
    rows.push_back(Row{name + " vs Embree", threads, oursBuild * 1e3, embreeBuild * 1e3, queryCount / oursTime,
                       queryCount / embreeTime, maxDiff()});
    rtcReleaseScene(scene);
    rtcReleaseDevice(device);

    // CGAL (its build is serial).
    CgalTree tree;
    const double cgalBuild = BestSeconds(3, [&] {
      tree.clear();
      tree.insert(cgalTriangles.begin(), cgalTriangles.end());
      tree.build();
      tree.accelerate_distance_queries();
    });
    const auto cgalQuery = [&](std::size_t b, std::size_t e) {
      for (std::size_t i = b; i < e; ++i) {
        const K::Point_3 q(queries[3 * i], queries[3 * i + 1], queries[3 * i + 2]);
        theirs[i] = std::sqrt(tree.squared_distance(q));
      }
    };
    const double cgalTime = BestSeconds(2, [&] { ParallelQueries(threads, queryCount, cgalQuery); });
    rows.push_back(Row{name + " vs CGAL", threads, oursBuild * 1e3, cgalBuild * 1e3, queryCount / oursTime,
                       queryCount / cgalTime, maxDiff()});
    if (threads == 1)
      std::printf("# %s: our tree holds %.1f bytes per triangle (tree, objects and corner copy)\n", name.c_str(),
                  static_cast<double>(holder.GetMemoryUsage()) / mesh->GetNumberOfTriangles());
  }
}

void ComparePoints(std::int64_t points, std::size_t queryCount) {
  const zorgen::MeshArrays arrays = zorgen::MakeScanLikeMesh(2 * points);
  const std::vector<double> queries = zorgen::MakeQueriesAroundSurface(arrays, queryCount);
  std::vector<MeshQueries::MeshVertex> vertices;
  Cloud cloud;
  for (std::size_t i = 0; i < arrays.xyz.size(); i += 3) {
    vertices.push_back(
        MeshQueries::MeshVertex{{static_cast<std::int32_t>(arrays.xyz[i]), static_cast<std::int32_t>(arrays.xyz[i + 1]),
                                 static_cast<std::int32_t>(arrays.xyz[i + 2])},
                                nullptr});
    zorgen::Push3(cloud.xyz, arrays.xyz[i], arrays.xyz[i + 1], arrays.xyz[i + 2]);
  }
  const std::string name = std::to_string(vertices.size() / 1000) + "k points";
  std::vector<double> ours(queryCount), theirs(queryCount);
  for (int threads : {1, 2}) {
    tbb::task_arena arena(threads);
    MeshQueries::PointTree tree;
    const double oursBuild = BestSeconds(3, [&] {
      std::vector<MeshQueries::MeshVertex> copy = vertices;
      arena.execute([&] { tree.Build(MeshQueries::detail::TreeParams{30}, std::move(copy)); });
    });
    const auto oursQuery = [&](std::size_t b, std::size_t e) {
      for (std::size_t i = b; i < e; ++i) {
        const MeshQueries::PointObjectDistance<std::vector<MeshQueries::MeshVertex>> distance(tree.GetObjects(),
                                                                                              &queries[3 * i]);
        double radius = std::numeric_limits<double>::infinity();
        MeshQueries::Nearest(tree, distance, radius);
        ours[i] = radius;
      }
    };
    const double oursTime = BestSeconds(2, [&] { ParallelQueries(threads, queryCount, oursQuery); });

    std::unique_ptr<KdTree> kd;
    const double kdBuild = BestSeconds(3, [&] {
      kd = std::make_unique<KdTree>(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
      kd->buildIndex();
    });
    const auto kdQuery = [&](std::size_t b, std::size_t e) {
      for (std::size_t i = b; i < e; ++i) {
        unsigned index = 0;
        double dist2 = 0.0;
        kd->knnSearch(&queries[3 * i], 1, &index, &dist2);
        theirs[i] = std::sqrt(dist2);
      }
    };
    const double kdTime = BestSeconds(2, [&] { ParallelQueries(threads, queryCount, kdQuery); });
    double diff = 0.0;
    for (std::size_t i = 0; i < queryCount; ++i) diff = std::max(diff, std::abs(ours[i] - theirs[i]));
    rows.push_back(Row{name + " vs nanoflann", threads, oursBuild * 1e3, kdBuild * 1e3, queryCount / oursTime,
                       queryCount / kdTime, diff});
    if (threads == 1)
      std::printf("# %s: our tree holds %.1f bytes per point (tree and objects)\n", name.c_str(),
                  static_cast<double>(tree.GetMemoryUsage()) / vertices.size());
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t queryCount = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
  std::printf("# %zu queries within 1%% of the diagonal around a scan-like surface; rates in M queries/s\n",
              queryCount);
  for (std::int64_t n : {50000, 250000, 1000000}) CompareTriangles(n, queryCount);
  for (std::int64_t n : {100000, 1000000}) ComparePoints(n, queryCount);

  std::printf(
      "\n| case | threads | build ms ours | build ms theirs | build ratio | Mq/s ours | Mq/s theirs | "
      "query ratio | max distance difference |\n|---|---|---|---|---|---|---|---|---|\n");
  for (const Row& r : rows)
    std::printf("| %s | %d | %.1f | %.1f | %.2f | %.3f | %.3f | %.2f | %.3g |\n", r.what.c_str(), r.threads,
                r.oursBuildMs, r.theirsBuildMs, r.theirsBuildMs / r.oursBuildMs, r.oursRate / 1e6, r.theirsRate / 1e6,
                r.oursRate / r.theirsRate, r.maxDifference);
  std::printf(
      "\nbuild ratio = theirs / ours (above 1: ours builds faster); "
      "query ratio = ours / theirs (above 1: ours answers faster).\n"
      "Distance differences come from Embree's float vertices; CGAL and nanoflann compute in double.\n");
  return 0;
}
