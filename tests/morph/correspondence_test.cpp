// The displacements the correspondence writes: main pass, dual pass, the normal filter
// and the rules about which vertices keep their entry.
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "support/mesh_checks.h"
#include "zor/model/stl.h"
#include "zor/morph/morphing_correspondence.h"

namespace {

using Handle = MWrapperOperatorMorphingCorrespondence::StlImpl;
using Adapter = MWrapperOperatorMorphingCorrespondence::ResultAdapter;

constexpr double kPi = 3.141592653589793;
constexpr double kInf = std::numeric_limits<double>::infinity();
const MMVector3f kSentinel(7.0f, 7.0f, 7.0f);

// A moving grid and a target, with the displacement mask filled with a sentinel.
struct Pair {
  std::unique_ptr<MStlBase> moving, target;
  Handle movingHandle, targetHandle;
  MStlVectorMaskPoints* mask = nullptr;

  Pair(std::unique_ptr<MStlBase> m, std::unique_ptr<MStlBase> t)
      : moving(std::move(m)), target(std::move(t)), movingHandle(moving.get()), targetHandle(target.get()) {
    mask = MStlVectorMaskPoints::Create(moving.get(), L"displacements");
    for (MStlPoint* p = moving->GetFirstPoint(); p != nullptr; p = p->GetNext()) mask->SetInfo(*p, kSentinel);
  }
  void Run(double angleDegrees, double radius, bool useNormals, bool enabled = true) {
    MWrapperOperatorMorphingCorrespondence correspondence(movingHandle, targetHandle);
    Adapter adapter(mask);
    correspondence.Operate(adapter, angleDegrees * kPi / 180.0, radius, enabled, useNormals);
  }
  MStlPoint* Point(int i, int j, int n) const {  // point (i, j) of an n x n moving grid
    MStlPoint* p = moving->GetFirstPoint();
    for (int k = 0; k < j * (n + 1) + i; ++k) p = p->GetNext();
    return p;
  }
};

std::unique_ptr<MStlBase> GridAt(int z, bool flipped = false) {
  auto grid = zorgen::MakeGrid(10, 100);
  grid->Translate(0, 0, z);
  if (flipped)
    for (MStlTriangleCell* cell = grid->GetSurfaceList()->GetSurface(0)->GetFirstTriangle(); cell != nullptr;
         cell = cell->GetNext())
      cell->data.Invert(0);
  return grid;
}

TEST(MorphingCorrespondence, MeshesThatAgreeGiveZero) {
  Pair pair(GridAt(0), GridAt(0));
  pair.Run(60.0, 1e12, true);
  for (MStlPoint* p = pair.moving->GetFirstPoint(); p != nullptr; p = p->GetNext())
    EXPECT_EQ(pair.mask->GetInfo(*p), MMVector3f()) << p->GetX() << " " << p->GetY();
}

TEST(MorphingCorrespondence, EachVertexPointsToTheClosestPlaceOnTheTarget) {
  for (bool useNormals : {true, false}) {
    Pair pair(GridAt(0), GridAt(100));
    pair.Run(60.0, 1e12, useNormals);
    for (MStlPoint* p = pair.moving->GetFirstPoint(); p != nullptr; p = p->GetNext())
      EXPECT_EQ(pair.mask->GetInfo(*p), MMVector3f(0.0f, 0.0f, 100.0f));
  }
}

TEST(MorphingCorrespondence, AVertexThatFacesNothingKeepsItsEntryOnlyWithNormals) {
  // The target faces the other way: no triangle passes the normal filter.
  Pair filtered(GridAt(0), GridAt(100, true));
  filtered.Run(60.0, 1e12, true);
  for (MStlPoint* p = filtered.moving->GetFirstPoint(); p != nullptr; p = p->GetNext())
    EXPECT_EQ(filtered.mask->GetInfo(*p), kSentinel);
  // Without normals the nearest place counts, whichever way it faces.
  Pair plain(GridAt(0), GridAt(100, true));
  plain.Run(60.0, 1e12, false);
  EXPECT_EQ(plain.mask->GetInfo(*plain.Point(5, 5, 10)), MMVector3f(0.0f, 0.0f, 100.0f));
}

TEST(MorphingCorrespondence, NothingWithinTheRadiusKeepsTheEntryWithNormalsAndGivesZeroWithout) {
  // A triangle exactly at the radius is not taken.
  for (bool useNormals : {true, false}) {
    Pair pair(GridAt(0), GridAt(100));
    pair.Run(60.0, 100.0, useNormals);
    EXPECT_EQ(pair.mask->GetInfo(*pair.Point(5, 5, 10)), useNormals ? kSentinel : MMVector3f()) << useNormals;
    Pair wider(GridAt(0), GridAt(100));
    wider.Run(60.0, 100.5, useNormals);
    EXPECT_EQ(wider.mask->GetInfo(*wider.Point(5, 5, 10)), MMVector3f(0.0f, 0.0f, 100.0f)) << useNormals;
  }
}

TEST(MorphingCorrespondence, DisabledWritesNothing) {
  Pair pair(GridAt(0), GridAt(100));
  pair.Run(60.0, 1e12, true, false);
  EXPECT_EQ(pair.mask->GetInfo(*pair.Point(5, 5, 10)), kSentinel);
}

// The moving grid covers [0, 1000]^2; the target is the same grid plus one small
// triangle (edges of 100) at `offset` beyond the corner (1000, 1000).
std::unique_ptr<MStlBase> GridWithIsland(int offset) {
  auto target = GridAt(0);
  const int x = 1000 + offset;
  target->AddTriangle(MMVector3i(x, 1000, 0), MMVector3i(x + 100, 1000, 0), MMVector3i(x, 1100, 0), nullptr);
  return target;
}

TEST(MorphingCorrespondence, AFarTargetVertexPullsTheNearestMovingCorner) {
  for (bool useNormals : {true, false}) {
    // 1000 away is beyond 4.5 edges: the island's three vertices go to the moving
    // corner (1000, 1000), which moves toward the farthest of them.
    Pair far(GridAt(0), GridWithIsland(1000));
    far.Run(60.0, 1e12, useNormals);
    EXPECT_EQ(far.mask->GetInfo(*far.Point(10, 10, 10)), MMVector3f(1100.0f, 0.0f, 0.0f)) << useNormals;
    EXPECT_EQ(far.mask->GetInfo(*far.Point(9, 10, 10)), MMVector3f()) << useNormals;
    // 300 away is within 4.5 edges: no pull.
    Pair near(GridAt(0), GridWithIsland(300));
    near.Run(60.0, 1e12, useNormals);
    EXPECT_EQ(near.mask->GetInfo(*near.Point(10, 10, 10)), MMVector3f()) << useNormals;
  }
}

TEST(MorphingCorrespondence, ADualVectorMustBeClearlyLongerToReplaceTheMainOne) {
  // The moving grid lies 1000 below the target grid: every main displacement is
  // (0, 0, 1000), and the target grid's vertices are all assigned back to the moving
  // vertices below them, at the same length. An island vertex whose square distance to
  // the corner is 1.1089 times the main one replaces it; one at 1.09 times does not.
  for (const auto& [dx, replaces] : {std::pair<int, bool>{330, true}, {300, false}}) {
    auto target = GridAt(0);
    target->AddTriangle(MMVector3i(1000 + dx, 1000, 0), MMVector3i(1000 + dx, 1000, -20),
                        MMVector3i(1000 + dx, 1020, -20), nullptr);
    Pair pair(GridAt(-1000), std::move(target));
    pair.Run(60.0, 1e12, false);
    const MMVector3f d = pair.mask->GetInfo(*pair.Point(10, 10, 10));
    if (replaces)
      EXPECT_EQ(d, MMVector3f(static_cast<float>(dx), 0.0f, 1000.0f));
    else
      EXPECT_EQ(d, MMVector3f(0.0f, 0.0f, 1000.0f));
  }
}

TEST(MorphingCorrespondence, ReportsOneStepPerVertexOfBothMeshes) {
  Pair pair(GridAt(0), GridWithIsland(1000));
  pair.target->AddPoint(9000, 9000, 9000, true);  // an isolated target vertex still counts
  const auto delegate = std::make_shared<zortest::CountingDelegate>();
  MWrapperOperatorMorphingCorrespondence correspondence(pair.movingHandle, pair.targetHandle);
  correspondence.SetProgressDelegate(delegate);
  Adapter adapter(pair.mask);
  correspondence.Operate(adapter, 1.0, 1e12, true, true);
  EXPECT_EQ(delegate->label, "MWrapperOperatorMorphingCorrespondence");
  EXPECT_EQ(delegate->total, 121u + 125u);
  EXPECT_EQ(delegate->done, delegate->total);
  EXPECT_EQ(delegate->ends, 1);
}

// A correspondence that has run before starts its searches from what it found then, and
// skips dual searches that cannot end in a record; neither may change a displacement.
// A part of a sphere against the whole bumped sphere, so that the dual pass has work.
TEST(MorphingCorrespondence, APassAfterAMoveGivesWhatAFreshObjectGives) {
  for (bool useNormals : {true, false}) {
    SCOPED_TRACE(useNormals);
    const auto full = zorgen::MakeSphere(20000.0, 30, 60);
    auto moving = std::make_unique<MStlBase>();
    for (auto it = full->BeginTriangle(); it != full->EndTriangle(); ++it) {
      const MStlTriangle* t = it;
      if (t->GetVertex(0)[0] > -8000.0)
        moving->AddTriangle(t->GetPoint(0)->GetInt(), t->GetPoint(1)->GetInt(), t->GetPoint(2)->GetInt(), nullptr);
    }
    Pair pair(std::move(moving), zorgen::MakeSphere(20500.0, 34, 64, 400.0));
    Adapter adapter(pair.mask);
    MWrapperOperatorMorphingCorrespondence reused(pair.movingHandle, pair.targetHandle);
    reused.Operate(adapter, 60.0 * kPi / 180.0, 1e12, true, useNormals);
    {
      const MStlBaseOperatorHelperDirectPointChange change(pair.moving.get(), true);
      for (MStlPoint* p = pair.moving->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
        const MMVector3f d = pair.mask->GetInfo(*p);
        p->Set(MMVector3i(p->GetX() + static_cast<std::int32_t>(0.3f * d[0]),
                          p->GetY() + static_cast<std::int32_t>(0.3f * d[1]),
                          p->GetZ() + static_cast<std::int32_t>(0.3f * d[2])));
      }
    }
    reused.Operate(adapter, 60.0 * kPi / 180.0, 20000.0, true, useNormals);
    std::vector<MMVector3f> hinted;
    for (MStlPoint* p = pair.moving->GetFirstPoint(); p != nullptr; p = p->GetNext())
      hinted.push_back(pair.mask->GetInfo(*p));
    MWrapperOperatorMorphingCorrespondence fresh(pair.movingHandle, pair.targetHandle);
    fresh.Operate(adapter, 60.0 * kPi / 180.0, 20000.0, true, useNormals);
    std::size_t i = 0, pulled = 0;
    for (MStlPoint* p = pair.moving->GetFirstPoint(); p != nullptr; p = p->GetNext(), ++i) {
      EXPECT_EQ(pair.mask->GetInfo(*p), hinted[i]) << i;
      pulled += Length(MMVector3d(hinted[i])) > 5000.0 ? 1 : 0;
    }
    EXPECT_GT(pulled, 0u);  // the border was pulled toward the part it does not cover
  }
}

TEST(MorphingCorrespondence, RefusesANullMesh) {
  auto grid = GridAt(0);
  Handle mesh(grid.get()), none;
  EXPECT_THROW(MWrapperOperatorMorphingCorrespondence(mesh, none), std::invalid_argument);
  EXPECT_THROW(MWrapperOperatorMorphingCorrespondence(none, mesh), std::invalid_argument);
}

}  // namespace
