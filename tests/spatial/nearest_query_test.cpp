// Nearest queries: the point-triangle kernel, the child visit order, and tree answers
// against brute force on random and degenerate meshes, with the bound and tie rules.
#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "zor/model/stl.h"
#include "zor/spatial/object_tree.h"

namespace {

using MeshQueries::MeshHandle;
using MeshQueries::MeshVertex;
using MeshQueries::PointTriangleDistance2;
using MeshQueries::TriangleTreeHolder;
using ZorMesh::StlBase::Handle::Triangle;

constexpr double kInf = std::numeric_limits<double>::infinity();

double KernelDistance2(const MStlTriangle& t, const MMVector3d& q, double* weights = nullptr) {
  const MMVector3d a = t.GetVertex(0), b = t.GetVertex(1), c = t.GetVertex(2);
  return PointTriangleDistance2(q.Data(), a.Data(), b.Data(), c.Data(), weights);
}

// ---------------------------------------------------------------------------------------
// The kernel

TEST(PointTriangleKernel, AgreesWithTheProjectionOfTheMeshModel) {
  // ProjectPoint follows another method (Ericson's Voronoi regions); both must find the
  // same closest point, in every region around the triangle.
  auto mesh = zorgen::MakeRandomTriangles(300, 21, 200);
  std::mt19937 rng(2);
  std::uniform_real_distribution<double> u(-150.0, 350.0);
  for (auto it = mesh->BeginTriangle(); it != mesh->EndTriangle(); ++it) {
    const MStlTriangle& t = *it;
    for (int i = 0; i < 20; ++i) {
      const MMVector3d q(u(rng), u(rng), u(rng));
      double w[3];
      const double d2 = KernelDistance2(t, q, w);
      MMVector3d projected, weights;
      MStlTriangle::MPosition where;
      const double reference = t.ProjectPoint(projected, weights, where, q);
      ASSERT_NEAR(std::sqrt(d2), reference, 1e-9 * (1.0 + reference));
      const MMVector3d closest = t.GetVertex(0) * w[0] + t.GetVertex(1) * w[1] + t.GetVertex(2) * w[2];
      ASSERT_NEAR(Length(closest - projected), 0.0, 1e-7);
      ASSERT_NEAR(w[0] + w[1] + w[2], 1.0, 1e-12);
      for (double x : w) ASSERT_GE(x, -1e-12);
    }
  }
}

TEST(PointTriangleKernel, DegenerateTrianglesUseTheirNearestEdge) {
  // A, B, C on the x axis: A = 0, B = 10, C = 4. The nearest edge to (7, 3, 0) is
  // A-B (B-C and A-C are farther or equal), at x = 7.
  const double a[3] = {0, 0, 0}, b[3] = {10, 0, 0}, c[3] = {4, 0, 0};
  double w[3];
  const double q1[3] = {7, 3, 0};
  EXPECT_DOUBLE_EQ(PointTriangleDistance2(q1, a, b, c, w), 9.0);
  EXPECT_DOUBLE_EQ(w[0] * 0 + w[1] * 10 + w[2] * 4, 7.0);
  // Beyond A, every edge is nearest at A; the first rule that applies picks A-B.
  const double q2[3] = {-2, 0, 0};
  EXPECT_DOUBLE_EQ(PointTriangleDistance2(q2, a, b, c, w), 4.0);
  EXPECT_DOUBLE_EQ(w[0], 1.0);
  // All three corners on one point: the 0.5 rule gives weights (0, 0.5, 0.5).
  const double p[3] = {1, 2, 3}, q3[3] = {1, 2, 7};
  EXPECT_DOUBLE_EQ(PointTriangleDistance2(q3, p, p, p, w), 16.0);
  EXPECT_EQ(w[0], 0.0);
  EXPECT_EQ(w[1], 0.5);
  EXPECT_EQ(w[2], 0.5);
}

// ---------------------------------------------------------------------------------------
// Child order and box distance

// ---------------------------------------------------------------------------------------
// Tree answers against brute force

struct BruteTriangle {
  const MStlTriangle* triangle = nullptr;
  double distance2 = kInf;
};

BruteTriangle BruteNearest(const MStlBase& mesh, const MMVector3d& q) {
  BruteTriangle best;
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const double d2 = KernelDistance2(*it, q);
    if (d2 < best.distance2) best = BruteTriangle{&*it, d2};
  }
  return best;
}

void ExpectTreeMatchesBruteForce(const MStlBase& mesh, unsigned seed, int extent) {
  TriangleTreeHolder holder{MeshHandle(&mesh)};
  holder.Build();
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-0.2 * extent, 1.2 * extent);
  for (int i = 0; i < 400; ++i) {
    const MMVector3d q(u(rng), u(rng), u(rng));
    const BruteTriangle brute = BruteNearest(mesh, q);
    const auto [found, distance] = MeshQueries::FindNearestTriangle(holder, q, kInf);
    ASSERT_NE(found.GetTriangle(), nullptr);
    // The kernel's rounding can put a triangle a few ulps nearer than its own box, so
    // the pruned search may settle for a triangle a few ulps farther than brute force.
    ASSERT_NEAR(distance, std::sqrt(brute.distance2), 1e-12 * (1.0 + distance));
    ASSERT_EQ(std::sqrt(KernelDistance2(*found.GetTriangle(), q)), distance);
    // A radius just below the answer finds nothing; just above finds the same distance.
    const double below = std::sqrt(brute.distance2) * (1 - 1e-9);
    if (below > 0.0) {
      EXPECT_EQ(MeshQueries::FindNearestTriangle(holder, q, below).first.GetTriangle(), nullptr);
    }
    EXPECT_EQ(MeshQueries::FindNearestTriangle(holder, q, distance * (1 + 1e-9) + 1e-9).second, distance);
  }
}

TEST(NearestTriangle, MatchesBruteForceOnRandomMeshes) {
  for (int n : {3, 200, 3000}) {
    SCOPED_TRACE(n);
    ExpectTreeMatchesBruteForce(*zorgen::MakeRandomTriangles(n, 100 + n, 1000, true), 7, 1000);
  }
}

TEST(NearestTriangle, MatchesBruteForceOnDegenerateMeshes) {
  // Zero-area triangles (collinear and coincident corners) mixed with ordinary ones.
  ExpectTreeMatchesBruteForce(*zorgen::MakeRandomTriangles(2000, 5, 1000, false, 3), 8, 1000);
  // Everything in the plane z = 0, and a strip of triangles along a line.
  ExpectTreeMatchesBruteForce(*zorgen::MakeGrid(40, 25), 9, 1000);
  MStlBase line;
  for (int i = 0; i < 1500; ++i)
    line.AddTriangle(MMVector3i(i, 0, 0), MMVector3i(i + 1, 0, 0), MMVector3i(i + 2, 0, 0), nullptr);
  ExpectTreeMatchesBruteForce(line, 10, 1500);
}

TEST(NearestPoint, MatchesBruteForceAndTakesTheFirstOfEqualPoints) {
  std::mt19937 rng(31);
  std::uniform_int_distribution<int> c(0, 300);
  MStlBase mesh;
  for (int i = 0; i < 5000; ++i) mesh.AddPoint(c(rng), c(rng), c(rng), true);  // duplicates included
  const MeshQueries::PointTree* tree = MeshQueries::GetPointTree(MeshHandle(&mesh));
  ASSERT_NE(tree, nullptr);
  std::uniform_real_distribution<double> u(-20.0, 320.0);
  for (int i = 0; i < 500; ++i) {
    const MMVector3d q(u(rng), u(rng), u(rng));
    double best = kInf;
    for (const MeshVertex& v : tree->GetObjects()) {
      const double dx = v.coords[0] - q[0], dy = v.coords[1] - q[1], dz = v.coords[2] - q[2];
      best = std::min(best, dx * dx + dy * dy + dz * dz);
    }
    double radius = kInf;
    MStlPoint* point = nullptr;
    ASSERT_TRUE(MeshQueries::FindNearestPoint(MeshHandle(&mesh), q, radius, point));
    ASSERT_EQ(radius, std::sqrt(best));
    // Points at equal coordinates share a leaf; the first of them in tree order wins.
    const MeshVertex* first = nullptr;
    for (const MeshVertex& v : tree->GetObjects())
      if (v.coords[0] == point->GetX() && v.coords[1] == point->GetY() && v.coords[2] == point->GetZ()) {
        first = &v;
        break;
      }
    ASSERT_EQ(first->point, point);
  }
}

TEST(NearestBounds, ObjectAtTheRadiusZeroRadiusAndNaNFindNothing) {
  // One point at distance exactly 5 from the query.
  MStlBase mesh;
  mesh.AddPoint(3, 4, 0, false);
  const MMVector3d origin(0, 0, 0);
  MStlPoint* point = nullptr;
  double radius = 5.0;
  EXPECT_FALSE(MeshQueries::FindNearestPoint(MeshHandle(&mesh), origin, radius, point));
  EXPECT_EQ(radius, 5.0);
  radius = 5.000001;
  EXPECT_TRUE(MeshQueries::FindNearestPoint(MeshHandle(&mesh), origin, radius, point));
  EXPECT_EQ(radius, 5.0);
  const MMVector3d onPoint(3, 4, 0);
  for (double r : {0.0, -1.0, std::nan("")}) {
    radius = r;
    EXPECT_FALSE(MeshQueries::FindNearestPoint(MeshHandle(&mesh), onPoint, radius, point)) << r;
  }
  radius = kInf;
  EXPECT_FALSE(MeshQueries::FindNearestPoint(MeshHandle(&mesh), MMVector3d(std::nan(""), 0, 0), radius, point));
}

TEST(NearestBounds, ClosestTriangleRecordAndClosestPoint) {
  auto mesh = zorgen::MakeTetrahedron();
  const TriangleTreeHolder* holder = MeshQueries::GetTriangleTree(MeshHandle(mesh.get()));
  ASSERT_NE(holder, nullptr);
  MeshQueries::ClosestTriangle record;
  // Below the bottom face (z = 0): the closest point is straight above the query.
  ASSERT_TRUE(MeshQueries::FindNearestTriangle(*holder, MMVector3d(2, 3, -4), kInf, record));
  EXPECT_EQ(record.distance, 4.0);
  EXPECT_FALSE(record.barycentricValid);
  EXPECT_EQ(record.GetClosestPoint(), MMVector3d(2, 3, 0));
  EXPECT_TRUE(record.barycentricValid);
  EXPECT_FALSE(MeshQueries::FindNearestTriangle(*holder, MMVector3d(2, 3, -4), 3.0, record));
  EXPECT_EQ(record.triangle.GetTriangle(), nullptr);
  EXPECT_EQ(record.mesh.GetStl(), nullptr);
  EXPECT_EQ(record.distance, 3.0);
  MMVector3d closest;
  ASSERT_TRUE(MeshQueries::GetClosestPoint(MeshHandle(mesh.get()), MMVector3d(20, 0, 0), closest));
  EXPECT_EQ(closest, MMVector3d(10, 0, 0));
}

TEST(NearestBounds, OrientedSearchSkipsTrianglesFacingAway) {
  auto mesh = zorgen::MakeTetrahedron();
  const TriangleTreeHolder* holder = MeshQueries::GetTriangleTree(MeshHandle(mesh.get()));
  const MMVector3d below(2, 3, -1), down(0, 0, -1), up(0, 0, 1);
  const double cos30 = std::cos(30.0 * 3.14159265358979323846 / 180.0);
  // The bottom face faces down: found with a downward normal.
  const auto facing = MeshQueries::FindNearestOrientedTriangle(*holder, below, down, cos30, kInf);
  ASSERT_NE(facing.first.GetTriangle(), nullptr);
  EXPECT_EQ(facing.second, 1.0);
  // No face points up within 30 degrees: a finite radius finds nothing, an infinite
  // one returns some triangle at the "incompatible" distance.
  EXPECT_EQ(MeshQueries::FindNearestOrientedTriangle(*holder, below, up, cos30, 1e9).first.GetTriangle(), nullptr);
  const auto fallback = MeshQueries::FindNearestOrientedTriangle(*holder, below, up, cos30, kInf);
  ASSERT_NE(fallback.first.GetTriangle(), nullptr);
  EXPECT_EQ(fallback.second, std::sqrt(std::numeric_limits<double>::max()));
}

}  // namespace
