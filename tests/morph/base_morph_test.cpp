// The morph loop as a caller sees it: what moves, when it stops, what it leaves behind.
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <oneapi/tbb/global_control.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "support/mesh_checks.h"
#include "zor/model/stl.h"
#include "zor/morph/wrapper_operator_morph.h"
#include "zor/spatial/tree_property.h"

namespace {

using ZorStlRegistration::MWrapperOperatorBaseMorph;
using Handle = MWrapperOperatorBaseMorph::StlImpl;

std::vector<MMVector3i> Coordinates(const MStlBase& mesh) {
  std::vector<MMVector3i> coordinates;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) coordinates.push_back(p->GetInt());
  return coordinates;
}

using zortest::Corners;

// A sphere of 20 mm and a target sphere with a relief of 0.8 mm, laid on other rows.
struct SpherePair {
  std::unique_ptr<MStlBase> moving = zorgen::MakeSphere(20000.0, 24, 48);
  std::unique_ptr<MStlBase> target = zorgen::MakeSphere(20000.0, 31, 57, 800.0);
};

TEST(BaseMorph, ADeformedSphereEndsOnItsTargetWithItsTopology) {
  SpherePair pair;
  const std::vector<Corners> topology = zortest::Windings(*pair.moving);
  const std::size_t points = pair.moving->NumberOfPoints();
  MWrapperOperatorBaseMorph morph(Handle(pair.moving.get()), Handle(pair.target.get()));
  morph.Operate(nullptr);

  const MWrapperOperatorBaseMorph::SParams& params = morph.GetParams();
  EXPECT_TRUE(morph.GetFractionWithin() >= params.targetFraction || morph.GetMaxDistance() <= 50.0);
  EXPECT_GT(morph.GetStageTimes().iterations, 3u);
  EXPECT_GT(params.initialStep, 0.05);  // the step it reached stays for the next run
  EXPECT_EQ(pair.moving->NumberOfPoints(), points);
  EXPECT_EQ(zortest::Windings(*pair.moving), topology);

  double sum = 0.0, largest = 0.0;
  for (const MStlPoint* p = pair.moving->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    MMVector3d closest;
    ASSERT_TRUE(MeshQueries::GetClosestPoint(MeshQueries::MeshHandle(pair.target.get()), p->GetDouble(), closest));
    const double d = Length(closest - p->GetDouble());
    sum += d;
    largest = std::max(largest, d);
  }
  EXPECT_LT(sum / static_cast<double>(points), 25.0);
  EXPECT_LT(largest, 150.0);
}

TEST(BaseMorph, IsBitIdenticalAtOneAndTwoThreads) {
  std::vector<MMVector3i> results[2];
  for (int threads : {1, 2}) {
    const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
    SpherePair pair;
    MWrapperOperatorBaseMorph morph(Handle(pair.moving.get()), Handle(pair.target.get()));
    morph.Operate(nullptr);
    results[threads - 1] = Coordinates(*pair.moving);
  }
  EXPECT_EQ(results[0], results[1]);
}

TEST(BaseMorph, MeshesThatAgreeStayAsTheyAre) {
  auto moving = zorgen::MakeSphere(20000.0, 24, 48), target = zorgen::MakeSphere(20000.0, 24, 48);
  const std::vector<MMVector3i> before = Coordinates(*moving);
  MWrapperOperatorBaseMorph morph(Handle(moving.get()), Handle(target.get()));
  EXPECT_EQ(morph.GetMaxDistance(), 0.0);
  morph.Operate(nullptr);
  EXPECT_EQ(morph.GetStageTimes().iterations, 0u);
  EXPECT_EQ(morph.GetFractionWithin(), 1.0);
  EXPECT_LT(morph.GetMaxDistance(), 1e-9);  // closest points are weighted sums of corners
  EXPECT_EQ(Coordinates(*moving), before);
}

TEST(BaseMorph, DisplacementsExactlyAtTheToleranceHaveNotArrivedYetEndTheLoop) {
  auto moving = zorgen::MakeGrid(8, 100), target = zorgen::MakeGrid(8, 100);
  target->Translate(0, 0, 50);
  const std::vector<MMVector3i> before = Coordinates(*moving);
  MWrapperOperatorBaseMorph morph(Handle(moving.get()), Handle(target.get()));
  morph.Operate(nullptr);
  EXPECT_EQ(morph.GetFractionWithin(), 0.0);
  EXPECT_EQ(morph.GetMaxDistance(), 50.0);
  EXPECT_EQ(morph.GetStageTimes().iterations, 0u);
  EXPECT_EQ(Coordinates(*moving), before);
}

TEST(BaseMorph, AMeshWithoutPointsRunsNoLoop) {
  MStlBase empty;
  auto target = zorgen::MakeGrid(2, 100);
  MWrapperOperatorBaseMorph morph(Handle(&empty), Handle(target.get()));
  morph.Operate(nullptr);
  EXPECT_EQ(morph.GetMaxDistance(), 0.0);
  EXPECT_TRUE(std::isnan(morph.GetFractionWithin()));
  EXPECT_EQ(morph.GetStageTimes().iterations, 0u);
}

TEST(BaseMorph, AnIsolatedPointIsThrownToTheLowestCoordinate) {
  auto moving = zorgen::MakeGrid(8, 100), target = zorgen::MakeGrid(8, 100);
  target->Translate(0, 0, 300);
  MStlPoint* lone = moving->AddPoint(400, 400, 1000, true);
  MWrapperOperatorBaseMorph morph(Handle(moving.get()), Handle(target.get()));
  morph.Operate(nullptr);
  const std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
  EXPECT_EQ(lone->GetInt(), MMVector3i(lowest, lowest, lowest));
  EXPECT_GT(morph.GetStageTimes().iterations, 0u);
}

TEST(BaseMorph, CopiesOwnTheirScratchAndLeaveTheSourceUsable) {
  SpherePair pair;
  const MStlBaseMasks& masks = pair.moving->GetMasks();
  MWrapperOperatorBaseMorph original(Handle(pair.moving.get()), Handle(pair.target.get()));
  const std::size_t maskCount = masks.GetNumberOfPointMasks();
  MWrapperOperatorBaseMorph::SParams params;
  params.smoothingPasses = 2;
  original.SetParams(params);
  {
    MWrapperOperatorBaseMorph copy(original);
    EXPECT_EQ(masks.GetNumberOfPointMasks(), maskCount + 1);
    MWrapperOperatorBaseMorph moved(std::move(copy));
    copy.Operate(nullptr);  // NOLINT(bugprone-use-after-move): a moved-from morph stays usable
    EXPECT_GT(copy.GetStageTimes().iterations, 0u);
    moved = copy;
    EXPECT_EQ(moved.GetMaxDistance(), copy.GetMaxDistance());
    EXPECT_EQ(moved.GetParams().initialStep, copy.GetParams().initialStep);
    EXPECT_EQ(original.GetParams().initialStep, 0.05);
  }
  // The copies' scratch is gone; the displacement mask of the run stays with the mesh.
  EXPECT_EQ(masks.GetNumberOfPointMasks(), maskCount + 1);
  original.Operate(nullptr);
  EXPECT_LE(original.GetMaxDistance(), 50.0);
}

TEST(BaseMorph, RefusesANullMesh) {
  auto grid = zorgen::MakeGrid(2, 100);
  EXPECT_THROW(MWrapperOperatorBaseMorph(Handle(grid.get()), Handle()), std::invalid_argument);
  EXPECT_THROW(MWrapperOperatorBaseMorph(Handle(), Handle(grid.get())), std::invalid_argument);
}

}  // namespace
