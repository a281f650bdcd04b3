// Sampling a mesh on a sorted grid, and the patch that gives a normal at a point.
#include "zor/alignment/surface_sampling.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/small_meshes.h"
#include "zor/alignment/surface_patch.h"
#include "zor/model/stl.h"

namespace {

using ZorStlRegistration::GridSample;
using ZorStlRegistration::GridSampleContext;
using ZorStlRegistration::SampleSurface;
using ZorStlRegistration::SurfacePatchEvaluator;

TEST(SampleSurface, CountsLandNearTheWantedNumber) {
  std::vector<std::unique_ptr<MStlBase>> meshes;
  meshes.push_back(zorgen::MakeSphere(20000.0, 60, 120));
  meshes.push_back(zorgen::MakeSphere(15000.0, 50, 90, 2500.0, MMVector3d(-90000, 4000, 0)));
  // Lattices are turned off their axes: a grid aligned with the cells makes the count
  // jump by whole rows as the cell size changes.
  meshes.push_back(zorgen::MakeBox(30000, 20000, 10000, 30));
  meshes.push_back(zorgen::MakeGrid(120, 300));
  MMTransformMatrix turn;
  turn.MakeRotation(MMVector3d(), MMVector3d(1, 2, 3), 0.7);
  meshes[2]->Transform(turn);
  meshes[3]->Transform(turn);
  for (const auto& mesh : meshes)
    for (std::uint64_t wanted : {100u, 500u}) {
      std::vector<MMVector3d> points;
      SampleSurface(mesh.get(), wanted, 2000.0, false, points, nullptr);
      EXPECT_LE(std::llabs(static_cast<long long>(points.size()) - static_cast<long long>(wanted)), 4) << wanted;
    }
}

TEST(SampleSurface, NormalsOfAClosedSpherePointOutward) {
  auto sphere = zorgen::MakeSphere(20000.0, 60, 120, 0.0, MMVector3d(5000, -3000, 1000));
  std::vector<MMVector3d> points, normals;
  SampleSurface(sphere.get(), 300, 2000.0, false, points, &normals);
  ASSERT_EQ(normals.size(), points.size());
  for (std::size_t k = 0; k < points.size(); ++k) {
    MMVector3d radial = points[k] - MMVector3d(5000, -3000, 1000);
    EXPECT_NEAR(Normalize(radial), 20000.0, 2.0);  // moved onto a mesh vertex
    EXPECT_GT(Dot(normals[k], radial), 0.999);
  }
  std::vector<MMVector3d> flippedPoints, flipped;
  SampleSurface(sphere.get(), 300, 2000.0, true, flippedPoints, &flipped);
  ASSERT_EQ(flipped.size(), normals.size());
  for (std::size_t k = 0; k < normals.size(); ++k) EXPECT_EQ(flipped[k], -normals[k]);
}

TEST(SampleSurface, SmallMeshesFreePointsAndFlatExtents) {
  MStlBase empty;
  std::vector<MMVector3d> points, normals;
  SampleSurface(&empty, 10, 100.0, false, points, &normals);
  EXPECT_TRUE(points.empty());
  EXPECT_TRUE(normals.empty());

  // Fewer points than wanted: every point in point order; a point without triangles
  // keeps its place and a zero normal.
  auto tetra = zorgen::MakeTetrahedron();
  tetra->AddPoint(50, 50, 50, false);
  SampleSurface(tetra.get(), 10, 100.0, false, points, &normals);
  ASSERT_EQ(points.size(), 5u);
  EXPECT_EQ(points[1], MMVector3d(10, 0, 0));
  EXPECT_EQ(points[4], MMVector3d(50, 50, 50));
  EXPECT_EQ(normals[4], MMVector3d());
  EXPECT_NE(normals[0], MMVector3d());

  // A flat part at one x of 0 or more has no x extent; the search takes the largest.
  std::vector<double> xyz;
  std::vector<std::uint32_t> idx;
  for (int j = 0; j <= 100; ++j)
    for (int i = 0; i <= 100; ++i)
      xyz.insert(xyz.end(), {5000.0, i * 200.0 + (i * j * 37) % 90, j * 150.0 + (i * 53 + j * 29) % 70});
  for (std::uint32_t j = 0; j < 100; ++j)
    for (std::uint32_t i = 0; i < 100; ++i) {
      const std::uint32_t a = j * 101 + i;
      idx.insert(idx.end(), {a, a + 1, a + 102, a, a + 102, a + 101});
    }
  auto wall = BuildStl(xyz.data(), xyz.size() / 3, idx.data(), idx.size() / 3);
  std::vector<MMVector3d> wallPoints;
  SampleSurface(wall.get(), 200, 1000.0, false, wallPoints, nullptr);
  EXPECT_LE(std::llabs(static_cast<long long>(wallPoints.size()) - 200), 4);
}

TEST(GridSample, CellBoundsAndZeroCells) {
  // Cells start at the lowest value of each run; a point exactly on an upper bound
  // opens the next cell.
  const std::vector<MMVector3d> source = {{0, 0, 0}, {0, 0, 10}, {0, 0, 10.5}, {0, 0, 25}, {0, 0, 4}};
  std::vector<MMVector3d> out;
  EXPECT_EQ(GridSample(GridSampleContext{&source, 10.0, false}, out), 3u);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0], MMVector3d(0, 0, 2));
  EXPECT_EQ(out[1], MMVector3d(0, 0, 10.25));
  EXPECT_EQ(out[2], MMVector3d(0, 0, 25));
  // Points apart by more than a cell in z alone still fall into separate cells.
  const std::vector<MMVector3d> pair = {{3, 3, 0}, {3, 3, 10.01}};
  EXPECT_EQ(GridSample(GridSampleContext{&pair, 10.0, true}, out), 2u);
  // A cell size of zero: equal points share a cell, others do not.
  const std::vector<MMVector3d> twins = {{1, 2, 3}, {1, 2, 3}, {1, 2, 4}};
  EXPECT_EQ(GridSample(GridSampleContext{&twins, 0.0, true}, out), 2u);
  const std::vector<MMVector3d> none;
  EXPECT_EQ(GridSample(GridSampleContext{&none, 1.0, false}, out), 0u);
}

TEST(SurfacePatch, StopsAtCreasesAndMergesSharedCuts) {
  auto box = zorgen::MakeBox(10000, 10000, 10000, 20);
  SurfacePatchEvaluator evaluator;
  evaluator.radius = 1500.0;
  evaluator.Initialise(MStlBaseContainer(box.get()));
  // Seeded on the top face next to its edge with the x = 10000 face, the big patch
  // stays on the top face: the 90-degree edge is not crossed.
  MStlPoint* seedPoint = box->GetPoint(9500, 5000, 10000);
  ASSERT_NE(seedPoint, nullptr);
  MStlTriangle* seed = &seedPoint->GetNeighbourTriangle(0)->data;
  double bary[3] = {0, 0, 0};
  bary[static_cast<int>(seed->IndexOfPoint(seedPoint))] = 1.0;
  std::vector<MMVector3d> points;
  std::vector<double> weights;
  MMVector3d normal;
  evaluator.SurfacePatch(seed, bary, 3000.0, points, weights, normal);
  ASSERT_GT(points.size(), 20u);
  for (const MMVector3d& p : points) EXPECT_NEAR(p[2], 10000.0, 1e-9);
  EXPECT_EQ(normal, MMVector3d(0, 0, 1));
  // Each edge cut appears once: the two triangles on an edge give the same bits, so no
  // two entries are a rounding error apart. (A cut may meet a vertex exactly on the
  // sphere; that is the same point, not a near one.)
  for (std::size_t i = 0; i < points.size(); ++i)
    for (std::size_t j = i + 1; j < points.size(); ++j) {
      const double apart = Length(points[i] - points[j]);
      EXPECT_TRUE(apart == 0.0 || apart > 1e-3) << apart;
    }

  // The next call starts clean: the same patch again, entry for entry.
  std::vector<MMVector3d> again;
  std::vector<double> againWeights;
  evaluator.SurfacePatch(seed, bary, 3000.0, again, againWeights, normal);
  EXPECT_EQ(again, points);
  EXPECT_EQ(againWeights, weights);
}

TEST(SurfacePatch, EvaluateFallsBackToTheTriangleNormal) {
  // One big triangle: a radius far inside it has no corner in reach, and doubling four
  // times never reaches six entries.
  MStlBase mesh;
  mesh.AddTriangle(MMVector3i(0, 0, 0), MMVector3i(100000, 0, 0), MMVector3i(0, 0, 100000), nullptr);
  SurfacePatchEvaluator evaluator;
  evaluator.radius = 10.0;
  evaluator.Initialise(MStlBaseContainer(&mesh));
  MStlTriangle* t = &mesh.GetSurfaceList()->GetSurface(0)->GetFirstTriangle()->data;
  const double centre[3] = {1.0 / 3, 1.0 / 3, 1.0 / 3};
  const auto result = evaluator.Evaluate(t, centre, false, 0.0);
  EXPECT_EQ(result.normal, t->GetNormal());
  EXPECT_EQ(result.curvature, 0.0);
}

}  // namespace

namespace {

// The samples as the grid of the plain bisection gives them: every count by the
// sorting walk of GridSample, over the x range (from the least x to the greatest x or 0).
std::vector<MMVector3d> ReferenceSamples(const MStlBase& mesh, std::uint64_t wanted) {
  std::vector<MMVector3d> all;
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it) all.push_back(it->GetDouble());
  double xMin = all.front()[0], xMax = 0.0;
  for (const MMVector3d& p : all) xMin = std::min(xMin, p[0]), xMax = std::max(xMax, p[0]);
  double lo = 0.0, hi = xMax - xMin, cell = 0.0;
  std::vector<MMVector3d> none, out;
  while (hi > lo) {
    if (std::fabs(2.0 * cell - lo - hi) < 0.0001) break;
    cell = (hi + lo) * 0.5;
    const std::uint64_t count = GridSample(GridSampleContext{&all, cell, true}, none);
    if (std::fabs(double(count) - double(wanted)) < 5.0) break;
    (count < wanted ? hi : lo) = cell;
  }
  GridSample(GridSampleContext{&all, cell, false}, out);
  return out;
}

}  // namespace

// The bisection counts cells without sorting points; on noisy, partial and flat meshes,
// where cells split on exact bounds, it must land on the very grid the sorting count does.
TEST(SampleSurface, FastCountsPickTheSameGridAsTheSortingWalk) {
  std::vector<std::unique_ptr<MStlBase>> meshes;
  meshes.push_back(zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Featured, 20000, 150.0)));
  meshes.push_back(zorgen::MakeMesh(zorgen::MakeScanLikeMesh(20000)));
  meshes.push_back(zorgen::MakeGrid(120, 250));
  for (const auto& mesh : meshes)
    for (std::uint64_t wanted : {50u, 500u, 3000u}) {
      std::vector<MMVector3d> points;
      SampleSurface(mesh.get(), wanted, 0.0, false, points, nullptr);
      EXPECT_EQ(points, ReferenceSamples(*mesh, wanted)) << wanted;
    }
}
