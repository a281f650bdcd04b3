// The ring walk, the morphing step, the smoothing passes and the step schedule.
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "generators/small_meshes.h"
#include "zor/model/stl.h"
#include "zor/morph/detail/morph_step.h"
#include "zor/morph/vertex_ring_iterator.h"

namespace {

using ZorStlRegistration::VertexRingIterator;
namespace detail = ZorStlRegistration::detail;

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();

std::vector<MStlPoint*> Points(const MStlBase& mesh) {
  std::vector<MStlPoint*> points;
  for (MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) points.push_back(p);
  return points;
}

std::vector<const MStlPoint*> Ring(const MStlBase& mesh, const MStlPoint* centre) {
  std::vector<const MStlPoint*> ring;
  for (auto it = VertexRingIterator::Begin(&mesh, centre); it != VertexRingIterator::End(&mesh, centre); ++it)
    ring.push_back(*it);
  return ring;
}

// The vertices that share a triangle with `centre`, found from the triangles.
std::set<const MStlPoint*> Adjacent(const MStlPoint* centre) {
  std::set<const MStlPoint*> adjacent;
  for (std::uint16_t t = 0; t < centre->GetNumberOfNeighbourTriangles(); ++t)
    for (std::size_t k = 0; k < 3; ++k) {
      const MStlPoint* p = centre->GetNeighbourTriangle(t)->data.GetPoint(k);
      if (p != centre) adjacent.insert(p);
    }
  return adjacent;
}

// Every vertex of the mesh: each neighbour once, all of them, and as many as the
// triangles around it, plus one at a border.
void ExpectRingsWalkEveryNeighbourOnce(const MStlBase& mesh, bool closed) {
  for (const MStlPoint* p : Points(mesh)) {
    const std::vector<const MStlPoint*> ring = Ring(mesh, p);
    const std::set<const MStlPoint*> unique(ring.begin(), ring.end());
    EXPECT_EQ(unique.size(), ring.size()) << "a neighbour came twice";
    EXPECT_EQ(unique, Adjacent(p));
    if (closed) {
      EXPECT_EQ(ring.size(), p->GetNumberOfNeighbourTriangles());
    }
  }
}

TEST(VertexRingIterator, ClosedMeshYieldsOneNeighbourPerTriangle) {
  ExpectRingsWalkEveryNeighbourOnce(*zorgen::MakeTetrahedron(), true);
  ExpectRingsWalkEveryNeighbourOnce(*zorgen::MakeBox(30, 20, 10, 3), true);
}

TEST(VertexRingIterator, InnerAndBorderVerticesOfAGrid) {
  const auto grid = zorgen::MakeGrid(4, 10);
  ExpectRingsWalkEveryNeighbourOnce(*grid, false);
  const std::vector<MStlPoint*> points = Points(*grid);
  // Point (i, j) is j * 5 + i. Inner (2, 2): six triangles, six neighbours. Border
  // (2, 0): three triangles, four neighbours. Corner (0, 0): two triangles, three.
  EXPECT_EQ(Ring(*grid, points[12]).size(), 6u);
  EXPECT_EQ(points[2]->GetNumberOfNeighbourTriangles(), 3u);
  EXPECT_EQ(Ring(*grid, points[2]).size(), 4u);
  EXPECT_EQ(Ring(*grid, points[0]).size(), 3u);
}

TEST(VertexRingIterator, FollowsTheNeighbourTrianglesInWindingOrder) {
  MStlBase mesh;
  MStlPoint* a = mesh.AddPoint(0, 0, 0, false);
  MStlPoint* b = mesh.AddPoint(10, 0, 0, false);
  MStlPoint* c = mesh.AddPoint(0, 10, 0, false);
  mesh.AddTriangle(a, b, c, nullptr);
  // A lone triangle: the two corners that follow the centre in the winding.
  EXPECT_EQ(Ring(mesh, a), (std::vector<const MStlPoint*>{b, c}));
  EXPECT_EQ(Ring(mesh, b), (std::vector<const MStlPoint*>{c, a}));
  MStlPoint* d = mesh.AddPoint(-10, 0, 0, false);
  mesh.AddTriangle(a, c, d, nullptr);
  // The second triangle offers c again (passed over) and then d.
  EXPECT_EQ(Ring(mesh, a), (std::vector<const MStlPoint*>{b, c, d}));
  // A point without triangles: begin is end.
  MStlPoint* lone = mesh.AddPoint(50, 50, 50, false);
  EXPECT_TRUE(VertexRingIterator::Begin(&mesh, lone) == VertexRingIterator::End(&mesh, lone));
}

TEST(MeshRings, HoldTheWalksInTheirOrder) {
  const auto box = zorgen::MakeBox(30, 20, 10, 3);
  detail::MeshRings rings;
  rings.Build(*box);
  const std::vector<MStlPoint*>& points = rings.GetPoints();
  ASSERT_EQ(points, Points(*box));
  for (std::size_t i = 0; i < points.size(); ++i) {
    std::vector<const MStlPoint*> table;
    for (std::size_t k = rings.GetRingBegin(i); k != rings.GetRingEnd(i); ++k)
      table.push_back(points[rings.GetNeighbour(k)]);
    EXPECT_EQ(table, Ring(*box, points[i]));
  }
}

TEST(TruncateToInt32, TowardZeroAndTheLowestValueForWhatDoesNotFit) {
  EXPECT_EQ(detail::TruncateToInt32(10.9), 10);
  EXPECT_EQ(detail::TruncateToInt32(-10.9), -10);
  EXPECT_EQ(detail::TruncateToInt32(-0.99), 0);
  EXPECT_EQ(detail::TruncateToInt32(2147483647.9), 2147483647);
  EXPECT_EQ(detail::TruncateToInt32(-2147483648.9), kLowest);
  EXPECT_EQ(detail::TruncateToInt32(2147483648.0), kLowest);
  EXPECT_EQ(detail::TruncateToInt32(-2147483649.0), kLowest);
  EXPECT_EQ(detail::TruncateToInt32(std::numeric_limits<double>::quiet_NaN()), kLowest);
  EXPECT_EQ(detail::TruncateToInt32(std::numeric_limits<double>::infinity()), kLowest);
}

TEST(MorphingStep, MovesByTheStepShareTruncatedTowardZero) {
  MStlBase mesh;
  MStlPoint* a = mesh.AddPoint(0, 0, 5, false);
  MStlPoint* b = mesh.AddPoint(100, -100, 0, false);
  MStlPoint* c = mesh.AddPoint(0, 100, 0, false);
  mesh.AddTriangle(a, b, c, nullptr);
  MDataMask<MStlPoint, MMVector3f> displacements(mesh.GetMasks());
  displacements.SetInfo(*a, MMVector3f(21.8f, -21.8f, 1.0f));  // half: 10.9, -10.9, 0.5
  displacements.SetInfo(*b, MMVector3f(-201.0f, 201.0f, 0.0f));
  detail::MeshRings rings;
  rings.Build(mesh);
  detail::MorphingStep(rings, displacements, 0.5);
  EXPECT_EQ(a->GetInt(), MMVector3i(10, -10, 5));
  // 100 - 100.5 = -0.5 and -100 + 100.5 = 0.5: both truncate to 0.
  EXPECT_EQ(b->GetInt(), MMVector3i(0, 0, 0));
  EXPECT_EQ(c->GetInt(), MMVector3i(0, 100, 0));  // zero displacement stays
}

TEST(SmoothStl, EachPassReadsOnlyTheCoordinatesBeforeIt) {
  const auto grid = zorgen::MakeGrid(3, 100);
  const std::vector<MStlPoint*> points = Points(*grid);
  points[5]->Set(MMVector3i(100, 100, 90));  // a bump at an inner point
  points[6]->Set(MMVector3i(200, 100, -31));
  detail::MeshRings rings;
  rings.Build(*grid);
  MDataMask<MStlPoint, MMVector3d> scratch(grid->GetMasks());
  for (int pass = 0; pass < 2; ++pass) {
    // The mean of the ring on a copy of the coordinates, truncated.
    std::map<const MStlPoint*, MMVector3d> before;
    for (const MStlPoint* p : points) before[p] = p->GetDouble();
    std::map<const MStlPoint*, MMVector3i> expected;
    for (const MStlPoint* p : points) {
      MMVector3d sum;
      const std::vector<const MStlPoint*> ring = Ring(*grid, p);
      for (const MStlPoint* q : ring) sum += before[q];
      sum /= static_cast<double>(ring.size());
      expected[p] = MMVector3i(static_cast<std::int32_t>(sum[0]), static_cast<std::int32_t>(sum[1]),
                               static_cast<std::int32_t>(sum[2]));
    }
    detail::SmoothStl(rings, scratch, 1);
    for (const MStlPoint* p : points) EXPECT_EQ(p->GetInt(), expected[p]) << "pass " << pass;
  }
  // Zero passes change nothing.
  const MMVector3i kept = points[5]->GetInt();
  detail::SmoothStl(rings, scratch, 0);
  EXPECT_EQ(points[5]->GetInt(), kept);
}

TEST(SmoothStl, AnIsolatedPointLandsOnTheLowestCoordinate) {
  auto grid = zorgen::MakeGrid(2, 100);
  MStlPoint* lone = grid->AddPoint(500, 500, 500, true);
  detail::MeshRings rings;
  rings.Build(*grid);
  MDataMask<MStlPoint, MMVector3d> scratch(grid->GetMasks());
  detail::SmoothStl(rings, scratch, 1);
  EXPECT_EQ(lone->GetInt(), MMVector3i(kLowest, kLowest, kLowest));
  EXPECT_TRUE(std::isnan(scratch.GetInfo(*lone)[0]));
  for (MStlPoint* p = grid->GetFirstPoint(); p != lone; p = p->GetNext()) EXPECT_GE(p->GetX(), 0);
}

TEST(StepSchedule, RisesTowardAWholeStep) {
  const double expected[] = {0.05, 0.145, 0.2305, 0.30745, 0.376705, 0.4390345, 0.49513105};
  double step = 0.05;
  for (double e : expected) {
    EXPECT_NEAR(step, e, 1e-15);
    step = detail::NextStep(step, 0.9);
  }
  EXPECT_EQ(detail::NextStep(0.05, 0.0), 1.0);
}

TEST(ReducesSmoothing, OnlyFromTheFifthTurnAndOnlyWhenBothMeasuresRise) {
  EXPECT_FALSE(detail::ReducesSmoothing(2, 1, 2, 1, 4, 5));
  EXPECT_TRUE(detail::ReducesSmoothing(2, 1, 2, 1, 5, 5));
  EXPECT_FALSE(detail::ReducesSmoothing(1, 1, 2, 1, 5, 5));  // an equal mean is no rise
  EXPECT_FALSE(detail::ReducesSmoothing(2, 1, 1, 1, 5, 5));  // nor an equal maximum
  EXPECT_FALSE(detail::ReducesSmoothing(2, 1, 2, 1, 9, 0));  // no pass left to drop
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(detail::ReducesSmoothing(nan, 1, 2, 1, 9, 5));
}

}  // namespace
