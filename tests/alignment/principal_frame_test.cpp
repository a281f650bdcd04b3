#include "zor/alignment/principal_frame.h"

#include <cmath>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "zor/model/stl.h"
#include "zor/model/stl_guards.h"

namespace {

using namespace ZorStlRegistration;
constexpr double kPi = 3.141592653589793;

std::unique_ptr<MStlBase> Scaled(std::unique_ptr<MStlBase> mesh, double sx, double sy, double sz) {
  const double m[16] = {sx, 0, 0, 0, 0, sy, 0, 0, 0, 0, sz, 0, 0, 0, 0, 1};
  MMTransformMatrix scale;
  scale.MakeFromDouble16(m);
  mesh->Transform(scale);
  return mesh;
}

MMVector3d Column(const MMTransformMatrix& t, int c) {
  return MMVector3d(t.GetElement(0, c), t.GetElement(1, c), t.GetElement(2, c));
}

// A round body stretched along its axis (rod) or flattened across it (disc).
std::unique_ptr<MStlBase> Rod() { return Scaled(zorgen::MakeSphere(10000, 16, 32), 1, 1, 5); }
std::unique_ptr<MStlBase> Disc() { return Scaled(zorgen::MakeSphere(10000, 16, 32), 1, 1, 0.2); }

TEST(PrincipalFrame, SymmetryCodesOfTypicalBodies) {
  const auto code = [](const MStlBase& a, const MStlBase& b) {
    const AxisSymmetryResult r = ClassifyAxisSymmetry(a, b, 0.15);
    EXPECT_TRUE(r.valid);
    return r.code;
  };
  const auto cube = zorgen::MakeBox(10000, 10000, 10000, 6);
  const auto box = zorgen::MakeBox(10000, 11000, 30000, 6);
  const auto rod = Rod(), disc = Disc();
  EXPECT_EQ(code(*cube, *cube), 0x11u);
  EXPECT_EQ(code(*box, *box), 0x01u);
  EXPECT_EQ(code(*rod, *rod), 0x01u);
  EXPECT_EQ(code(*disc, *disc), 0x10u);
  // The flags of both meshes merge: a rod against a disc has no usable axis.
  EXPECT_EQ(code(*rod, *disc), 0x11u);
  const auto plain = zorgen::MakeBox(10000, 20000, 40000, 6);
  EXPECT_EQ(code(*plain, *plain), 0u);

  // The long axis of the rod is Z, with the largest spread; the disc's normal is Z,
  // with the smallest.
  const PrincipalFrame r = AnalyzePrincipalFrame(*rod, 0.15), d = AnalyzePrincipalFrame(*disc, 0.15);
  EXPECT_NEAR(std::fabs(r.axes[2].axis[2]), 1.0, 1e-9);
  EXPECT_NEAR(std::fabs(d.axes[0].axis[2]), 1.0, 1e-9);
  EXPECT_LT(r.axes[1].spread, r.axes[2].spread);
}

TEST(PrincipalFrame, PointAndEmptyMeshes) {
  MStlBase point, empty;
  point.AddPoint(5, 6, 7, false);
  const PrincipalFrame f = AnalyzePrincipalFrame(point, 0.15);
  for (const auto& a : f.axes) EXPECT_EQ(a.spread, 0.0);
  EXPECT_EQ(f.flags, 0u);
  const AxisSymmetryResult single = ClassifyAxisSymmetry(point, point, 0.15);
  EXPECT_TRUE(single.valid);
  EXPECT_EQ(single.code, 0u);
  EXPECT_FALSE(ClassifyAxisSymmetry(empty, point, 0.15).valid);
  EXPECT_FALSE(ClassifyAxisSymmetry(point, empty, 0.15).valid);
}

TEST(PrincipalFrame, AxisRotationFramesTurnAboutTheForwardAxisInBothHalves) {
  MMVector3d axis(1, 2, 2);
  Normalize(axis);
  const MMVector3d centre(100, -50, 30);
  const std::uint64_t steps = 6;
  const std::vector<MMTransformMatrix> frames = AxisRotationFrames(axis, centre, steps);
  ASSERT_EQ(frames.size(), 12u);
  for (std::uint64_t half = 0; half < 2; ++half) {
    const MMTransformMatrix& first = frames[half * steps];
    for (std::uint64_t i = 0; i < steps; ++i) {
      const MMTransformMatrix& f = frames[half * steps + i];
      EXPECT_NEAR(f.Determinant(), 1.0, 1e-12);
      EXPECT_NEAR(Length(Column(f, 2) - axis * (half == 0 ? 1.0 : -1.0)), 0.0, 1e-12);
      EXPECT_NEAR(Length(f.GetTranslation() - centre), 0.0, 1e-9);
      // Frame i is the first turned by i steps counter-clockwise about +axis.
      MMTransformMatrix turn;
      turn.MakeRotation(centre, axis, 2.0 * kPi * static_cast<double>(i) / static_cast<double>(steps));
      const MMTransformMatrix expected = turn * first;
      for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) EXPECT_NEAR(f.GetElement(r, c), expected.GetElement(r, c), 1e-9);
    }
  }
  EXPECT_TRUE(AxisRotationFrames(axis, centre, 0).empty());
}

TEST(DirectionSphere, RingsAndRotations) {
  const std::vector<MMVector3d> d = MakeDirectionSphere(4);
  ASSERT_EQ(d.size(), 66u);
  EXPECT_EQ(d[0], MMVector3d(0, 0, 1));
  EXPECT_EQ(d[1], MMVector3d(0, 0, -1));
  int equator = 0, north = 0, south = 0;
  for (const MMVector3d& v : d) {
    EXPECT_NEAR(Length(v), 1.0, 1e-15);
    (v[2] == 0.0 ? equator : v[2] > 0.0 ? north : south)++;
  }
  EXPECT_EQ(equator, 16);  // ring 0 is not mirrored
  EXPECT_EQ(north, south);
  EXPECT_EQ(MakeDirectionSphere(0).size(), 2u);

  const std::vector<MMTransformMatrix> rotations = MakeSphereRotations(d, 8);
  ASSERT_EQ(rotations.size(), 528u);
  for (std::size_t i = 0; i < rotations.size(); ++i) {
    const MMTransformMatrix& r = rotations[i];
    EXPECT_NEAR(r.Determinant(), 1.0, 1e-12);
    EXPECT_EQ(r.GetTranslation(), MMVector3d());
    EXPECT_NEAR(Length(Column(r, 2) - d[i / 8]), 0.0, 1e-12);  // Z onto its direction
  }
  // Successive spins about one direction differ by an eighth of a turn.
  const double c = Dot(Column(rotations[8], 0), Column(rotations[9], 0));
  EXPECT_NEAR(c, std::cos(kPi / 4), 1e-12);
  EXPECT_TRUE(MakeSphereRotations(d, 0).empty());
}

}  // namespace

// The extent of a mesh as a pose would place it, found without moving the mesh: the
// same values as moving it there (points rounded to the grid) and measuring, and no
// interval when the pose would carry a point off the grid.
TEST(PlacedProjectionInterval, MatchesTheMovedMeshAndRefusesPosesOffTheGrid) {
  auto mesh = zorgen::MakeSphere(20000.0, 20, 40, 1500.0);
  MMTransformMatrix pose;
  pose.MakeRotation(MMVector3d(1000, 2000, -500), MMVector3d(1, 2, 3), 0.7);
  pose.AddTranslation(MMVector3d(12345.6, -789.2, 4321.9));
  const MMVector3d axis = MMVector3d(0.3, -0.5, 0.81) * (1.0 / Length(MMVector3d(0.3, -0.5, 0.81)));
  std::pair<double, double> placed{0.0, 0.0};
  ASSERT_TRUE(ZorStlRegistration::PlacedProjectionInterval(*mesh, pose, axis, placed));
  std::pair<double, double> moved;
  {
    const MStlTempTransformation temporarily(*mesh, pose, false);
    moved = ZorStlRegistration::ProjectionInterval(*mesh, axis);
  }
  EXPECT_EQ(placed, moved);
  std::vector<MMVector3d> points;
  for (auto it = mesh->BeginPoint(); it != mesh->EndPoint(); ++it) points.push_back(it->GetDouble());
  std::pair<double, double> fromArray{0.0, 0.0};
  ASSERT_TRUE(ZorStlRegistration::PlacedProjectionInterval(points, pose, axis, fromArray));
  EXPECT_EQ(fromArray, moved);
  MMTransformMatrix far;
  far.MakeTranslation(MMVector3d(2.2e9, 0, 0));
  EXPECT_FALSE(ZorStlRegistration::PlacedProjectionInterval(*mesh, far, axis, placed));
  EXPECT_FALSE(ZorStlRegistration::PlacedProjectionInterval(points, far, axis, fromArray));
  EXPECT_EQ(placed, moved);
  EXPECT_EQ(fromArray, moved);
}
