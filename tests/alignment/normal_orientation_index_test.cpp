#include "zor/alignment/normal_orientation_index.h"

#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "zor/model/mesh_builder.h"
#include "zor/model/stl.h"
#include "zor/model/stl_iterators.h"

namespace {

using ZorStlRegistration::NormalOrientationIndex;

NormalOrientationIndex::Parameters Matching(double maxDegrees = 25.0, double weight = 0.5) {
  NormalOrientationIndex::Parameters p;
  p.maxAngleDegrees = maxDegrees;
  p.normalWeight = weight;
  p.smoothingRadius = 2.0;
  return p;
}

// Two parallel 10 mm squares: one at z = 0 facing +z, one at z = 2 mm facing -z.
std::unique_ptr<MStlBase> FacingPlates() {
  std::vector<double> xyz = {0, 0, 0,    10000, 0, 0,    10000, 10000, 0,    0, 10000, 0,
                             0, 0, 2000, 10000, 0, 2000, 10000, 10000, 2000, 0, 10000, 2000};
  std::vector<std::uint32_t> idx = {0, 1, 2, 0, 2, 3, 4, 6, 5, 4, 7, 6};
  return BuildStl(xyz.data(), 8, idx.data(), 4);
}

TEST(NormalOrientationIndex, GridHas412CellsInRowsOfEqualWidth) {
  NormalOrientationIndex index;
  const std::vector<std::size_t> expected = {1, 6, 12, 18, 23, 28, 31, 34, 35, 36, 35, 34, 31, 28, 23, 18, 12, 6, 1};
  ASSERT_EQ(index.GetRows().size(), 19u);
  std::uint64_t next = 0;
  for (std::size_t r = 0; r < expected.size(); ++r) {
    ASSERT_EQ(index.GetRows()[r].size(), expected[r]) << "row " << r;
    for (std::uint64_t id : index.GetRows()[r]) EXPECT_EQ(id, next++);
  }
  EXPECT_EQ(index.GetCellDirections().size(), 412u);
}

TEST(NormalOrientationIndex, ConeOverAPoleWalksEveryRowAndNegativeColumnsWrapUnsigned) {
  NormalOrientationIndex index;
  index.SetParameters(Matching(22.0));
  std::vector<std::uint64_t> cells(412);
  const auto columnsInRow = [&](std::size_t count, std::size_t row) {
    std::vector<std::size_t> columns;
    for (std::size_t k = 0; k < count; ++k)
      for (std::size_t j = 0; j < index.GetRows()[row].size(); ++j)
        if (index.GetRows()[row][j] == cells[k]) columns.push_back(j);
    return columns;
  };
  // 5 degrees from +Z: the cone reaches more than half a row over the pole, so the low
  // row wraps to the last one and the polar rule opens every row.
  const double a = 5.0 * 3.141592653589793 / 180.0;
  std::size_t count = index.ConeCells(MMVector3d(std::sin(a), 0, std::cos(a)), cells.data());
  for (std::size_t row = 0; row < 19; ++row) EXPECT_FALSE(columnsInRow(count, row).empty()) << row;
  // Facing +Y, the equator row of 36 walks columns 7 to 11; the poles are out of reach.
  count = index.ConeCells(MMVector3d(0, 1, 0), cells.data());
  EXPECT_EQ(columnsInRow(count, 9), (std::vector<std::size_t>{7, 8, 9, 10, 11}));
  EXPECT_TRUE(columnsInRow(count, 0).empty());
  // Facing +X the first column is -2, which wraps through 2^64 to column 14 of 36
  // rather than to 34: the walk runs 14 .. 35, 0 .. 2.
  count = index.ConeCells(MMVector3d(1, 0, 0), cells.data());
  const std::vector<std::size_t> equator = columnsInRow(count, 9);
  ASSERT_EQ(equator.size(), 25u);
  EXPECT_EQ(equator.front(), 14u);
  EXPECT_EQ(equator.back(), 2u);
}

TEST(NormalOrientationIndex, MatchesOnlySurfacesFacingTheQueryNormal) {
  const auto plates = FacingPlates();
  NormalOrientationIndex index;
  index.SetParameters(Matching(25.0, 0.5));
  index.Build(*plates);
  MMVector3d c(7, 7, 7);
  // Closer to the upper plate (facing -z), but the normal says +z: the lower plate.
  ASSERT_TRUE(index.FindBestMatch(MMVector3d(5000, 5000, 1500), MMVector3d(0, 0, 1), c));
  EXPECT_NEAR(c[2], 0.0, 1e-9);
  ASSERT_TRUE(index.FindBestMatch(MMVector3d(5000, 5000, 500), MMVector3d(0, 0, -1), c));
  EXPECT_NEAR(c[2], 2000.0, 1e-9);
  // Facing sideways, no plate lies in the cone: nothing, and the output is untouched.
  c = MMVector3d(7, 7, 7);
  EXPECT_FALSE(index.FindBestMatch(MMVector3d(5000, 5000, 500), MMVector3d(1, 0, 0), c));
  EXPECT_FALSE(index.FindBestMatch(MMVector3d(5000, 5000, 500), MMVector3d(), c));
  EXPECT_EQ(c, MMVector3d(7, 7, 7));
  // Without the normal, the nearest surface whatever it faces.
  ASSERT_TRUE(index.FindClosest(MMVector3d(5000, 5000, 1500), c));
  EXPECT_NEAR(c[2], 2000.0, 1e-9);
}

TEST(NormalOrientationIndex, BuildBucketsEveryTriangleNearItsNormal) {
  const auto sphere = zorgen::MakeSphere(20000, 24, 48, 1500);
  for (bool fitted : {true, false}) {
    NormalOrientationIndex index;
    NormalOrientationIndex::Parameters p = Matching();
    p.fitNormals = fitted;
    index.SetParameters(p);
    index.Build(*sphere);
    std::size_t total = 0;
    for (std::uint64_t cell = 0; cell < 412; ++cell) {
      MMVector3d direction = index.GetCellDirections()[cell];
      direction /= Length(direction);
      for (MStlTriangle* t : index.GetCellTriangles(cell)) {
        ++total;
        // Bucketed by the mean of its vertex normals, to the nearest of cells 10
        // degrees wide.
        MMVector3d mean = index.GetPointNormal(*t->GetPoint(0)) + index.GetPointNormal(*t->GetPoint(1)) +
                          index.GetPointNormal(*t->GetPoint(2));
        mean /= Length(mean);
        EXPECT_GT(Dot(mean, direction), std::cos(10.0 * 3.141592653589793 / 180.0));
      }
    }
    EXPECT_EQ(total, sphere->GetNumberOfTriangles());
    // Vertex normals follow the surface about the point: near its fan's mean normal
    // (fitted ones on the slivers by the poles less closely).
    for (auto it = MStlIteratorStlPoint::Begin(sphere.get()); it != MStlIteratorStlPoint::End(sphere.get()); ++it) {
      MMVector3d fan;
      for (std::uint16_t k = 0; k < it->GetNumberOfNeighbourTriangles(); ++k)
        fan += it->GetNeighbourTriangle(k)->data.GetAreaVector();
      EXPECT_GT(Dot(index.GetPointNormal(*it), fan / Length(fan)), 0.7);
    }
    EXPECT_NEAR(index.GetMeshRadius(), 21500.0, 1500.0);
  }
}

TEST(NormalOrientationIndex, BoundedClosestAgreesWithUnbounded) {
  const auto sphere = zorgen::MakeSphere(20000, 16, 32, 2000);
  NormalOrientationIndex index;
  index.SetMesh(sphere.get());
  const auto* tree = index.GetClosestTree();
  ASSERT_NE(tree, nullptr);
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-30000, 30000);
  for (int i = 0; i < 200; ++i) {
    const MMVector3d q(u(rng), u(rng), u(rng));
    MMVector3d free, bounded;
    ASSERT_TRUE(index.FindClosest(q, free));
    // A bound just above the true distance finds the same point; one below finds none.
    ASSERT_TRUE(NormalOrientationIndex::FindClosestWithin(tree, q, Length(q - free) * 1.01 + 1.0, bounded));
    EXPECT_EQ(bounded, free);
    EXPECT_FALSE(NormalOrientationIndex::FindClosestWithin(tree, q, Length(q - free) * 0.99, bounded));
  }
}

TEST(NormalOrientationIndex, ConcurrentQueriesMatchSerialOnes) {
  const auto sphere = zorgen::MakeSphere(20000, 16, 32, 2000);
  NormalOrientationIndex index;
  index.SetParameters(Matching());
  // Built on this thread alone: the thread sanitizer cannot see the library's pool
  // synchronise, and only the queries are under test here.
  tbb::task_arena(1).execute([&] { index.Build(*sphere); });
  std::vector<MMVector3d> queries, normals;
  std::mt19937 rng(5);
  std::normal_distribution<double> g(0.0, 1.0);
  for (int i = 0; i < 400; ++i) {
    MMVector3d n(g(rng), g(rng), g(rng));
    n /= Length(n);
    normals.push_back(n);
    queries.push_back(n * (20000.0 + 3000.0 * g(rng)));
  }
  std::vector<MMVector3d> serial(queries.size()), closest(queries.size());
  for (std::size_t i = 0; i < queries.size(); ++i) index.FindBestMatch(queries[i], normals[i], serial[i]);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (std::size_t i = t; i < queries.size(); i += 4) {
        index.FindBestMatch(queries[i], normals[i], closest[i]);
        MMVector3d unused;
        index.FindClosest(queries[i], unused);
      }
    });
  for (auto& th : threads) th.join();
  for (std::size_t i = 0; i < queries.size(); ++i) EXPECT_EQ(closest[i], serial[i]);
}

}  // namespace
