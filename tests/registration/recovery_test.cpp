// Poses recovered with no starting pose, the way registration suites check them: from
// several seeded poses, in both directions, with the placement on either side; the
// result must follow the meshes when both move, and must not depend on the order of
// vertices and triangles; normals and flipped normals end to end.
#include <tuple>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/poses.h"
#include "support/registration.h"
#include "zor/model/stl_iterators.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace {

using zortest::LargestGap;

using Registration = MUserOperatorStlRegistration;

// The featured block of the benchmarks (80 x 60 x 40 mm, a boss and a groove), small.
const zorgen::MeshArrays& Body() {
  static const zorgen::MeshArrays body = zorgen::MakeShape(zorgen::Shape::Featured, 6000);
  return body;
}

MMTransformMatrix Registered(MStlBase* fixed, const double* fixedPlacement, MStlBase* moving,
                             const double* movingPlacement, Registration::MParams params = Registration::MParams()) {
  params.initialAlignment = Registration::AlignAutomatic;
  params.overlapFraction = 1.0;
  params.errorTolerance = 0.005;
  Registration r;
  return zortest::Register(r, params, fixed, moving, fixedPlacement, movingPlacement);
}

// Within 40 micrometres everywhere on an 80 mm body: a fraction of a degree would
// already move its ends by more.
constexpr double kGapLimit = 40.0;

// seed x (copy onto body, or body onto copy) x (placement given on the moving side, or
// on the fixed side).
class PoseRecovery : public ::testing::TestWithParam<std::tuple<int, bool, bool>> {};

TEST_P(PoseRecovery, RecoversThePoseInBothDirectionsWithThePlacementOnEitherSide) {
  const auto [seed, copyMoves, placeMoving] = GetParam();
  const MMTransformMatrix pose = zorgen::DrawPose(static_cast<std::uint64_t>(seed), 60000.0);
  const auto body = zorgen::MakeMesh(Body());
  const auto copy = zorgen::MakeMovedCopy(Body(), pose);
  // A placement that shifts its side by (30, -20, 10) mm on top of the meshes' own places.
  MMTransformMatrix placement;
  placement.MakeRotation(MMVector3d(), MMVector3d(1, 1, 0), 0.4);
  placement.AddTranslation(MMVector3d(30000, -20000, 10000));
  double placed[16];
  placement.ConvertToDouble16(placed);

  MStlBase* moving = copyMoves ? copy.get() : body.get();
  MStlBase* fixed = copyMoves ? body.get() : copy.get();
  // The motion that lays `moving` on `fixed` as the meshes stand, then as placed.
  MMTransformMatrix truth = copyMoves ? pose.Inverted() : pose;
  truth = placeMoving ? truth * placement.Inverted() : placement * truth;
  const MMTransformMatrix found =
      Registered(fixed, placeMoving ? nullptr : placed, moving, placeMoving ? placed : nullptr);
  // Compared on the moving mesh as the operator saw it: placed, when the placement is
  // on its side.
  const MMTransformMatrix seen = placeMoving ? placement : MMTransformMatrix();
  EXPECT_LT(LargestGap(*moving, found * seen, truth * seen), kGapLimit);
}

INSTANTIATE_TEST_SUITE_P(SeedsDirectionsAndSides, PoseRecovery,
                         ::testing::Combine(::testing::Values(1, 2, 3), ::testing::Bool(), ::testing::Bool()));

TEST(PoseRecoveryInvariance, MovingBothMeshesByOneMotionMovesTheResultByIt) {
  const MMTransformMatrix pose = zorgen::DrawPose(7, 60000.0);
  const auto body = zorgen::MakeMesh(Body());
  const auto copy = zorgen::MakeMovedCopy(Body(), pose);
  const MMTransformMatrix found = Registered(body.get(), nullptr, copy.get(), nullptr);

  const MMTransformMatrix motion = zorgen::DrawPose(8, 200000.0);
  const auto movedBody = zorgen::MakeMovedCopy(Body(), motion);
  const auto movedCopy = zorgen::MakeMovedCopy(Body(), motion * pose);
  const MMTransformMatrix foundMoved = Registered(movedBody.get(), nullptr, movedCopy.get(), nullptr);
  // Both meshes went through `motion`: the result must be motion * found * motion^-1,
  // up to the whole-unit rounding of the moved points.
  EXPECT_LT(LargestGap(*movedCopy, foundMoved, motion * found * motion.Inverted()), kGapLimit);
}

TEST(PoseRecoveryInvariance, VertexAndTriangleOrderDoNotMatter) {
  const MMTransformMatrix pose = zorgen::DrawPose(11, 60000.0);
  const auto body = zorgen::MakeMesh(Body());
  const auto copy = zorgen::MakeMovedCopy(Body(), pose);
  const MMTransformMatrix found = Registered(body.get(), nullptr, copy.get(), nullptr);
  const auto otherBody = zorgen::MakeMesh(zorgen::Shuffled(Body(), 1));
  const auto otherCopy = zorgen::MakeMovedCopy(zorgen::Shuffled(Body(), 2), pose);
  const MMTransformMatrix foundShuffled = Registered(otherBody.get(), nullptr, otherCopy.get(), nullptr);
  EXPECT_LT(LargestGap(*copy, foundShuffled, found), kGapLimit);
  EXPECT_LT(LargestGap(*copy, foundShuffled, pose.Inverted()), kGapLimit);
}

// Normals end to end, from a start on the answer: the copy is placed back through the
// moving placement. (The solver moves normals as positions, so a step with any
// translation turns them; the normal path keeps a start that is already right.) A copy
// whose triangles all face inward presents normals opposite to the body's, which the
// matcher refuses; flipping the sample normals makes them agree again.
TEST(PoseRecoveryNormals, NormalsAndFlippedNormalsEndToEnd) {
  const MMTransformMatrix pose = zorgen::DrawPose(5, 60000.0);
  const auto body = zorgen::MakeMesh(Body());
  double start[16];
  pose.Inverted().ConvertToDouble16(start);
  const auto run = [&](MStlBase* moving, bool useNormals, bool flipNormals, double& gap) {
    Registration::MParams params;
    params.initialAlignment = Registration::AlignNone;
    params.useNormals = useNormals;
    params.flipNormals = flipNormals;
    params.overlapFraction = 1.0;
    Registration r;
    const MMTransformMatrix found = zortest::Register(r, params, body.get(), moving, nullptr, start);
    gap = LargestGap(*moving, found * pose.Inverted(), pose.Inverted());
    return r.GetError();
  };
  double gap = 0.0;
  const auto copy = zorgen::MakeMovedCopy(Body(), pose);
  // mm: within the reduction tolerance of the surface they lie on
  EXPECT_LT(run(copy.get(), true, false, gap), 0.3);
  EXPECT_LT(gap, kGapLimit);

  const auto inward = zorgen::MakeMovedCopy(Body(), pose);
  for (auto it = MStlIteratorStlTriangle::Begin(inward.get()); it != MStlIteratorStlTriangle::End(inward.get()); ++it)
    it->Invert(0);
  EXPECT_LT(run(inward.get(), false, true, gap), 0.3);  // flipNormals switches normals on by itself
  EXPECT_LT(gap, kGapLimit);
  EXPECT_GT(run(inward.get(), true, false, gap), 1.0);  // no surface faces the unflipped normals' way
}

}  // namespace
