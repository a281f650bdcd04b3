// The registered morph: the moves between its stages, and the whole call on a body
// moved, stretched and bent away from its target.
#include "zor/morph/detail/registered_morph.h"

#include <cmath>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/poses.h"
#include "generators/small_meshes.h"
#include "support/mesh_checks.h"
#include "zor/model/stl.h"
#include "zor/morph/wrapper_operator_morph.h"
#include "zor/spatial/tree_property.h"

namespace {

using ZorStlRegistration::MWrapperOperatorMorph;
using Handle = MWrapperOperatorMorph::StlImpl;
namespace detail = ZorStlRegistration::detail;
using zortest::Corners;
using zortest::Windings;

// Six times the signed volume: positive while the triangles face outward.
double SignedVolume(const MStlBase& mesh) {
  double sum = 0.0;
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = it;
    sum += Dot(t->GetVertex(0), Cross(t->GetVertex(1), t->GetVertex(2)));
  }
  return sum;
}

TEST(ApplyTransform, AReflectionReversesEveryTriangleAndARotationNone) {
  auto box = zorgen::MakeBox(300, 200, 100, 2);
  const std::vector<Corners> before = Windings(*box);
  MMTransformMatrix rotation;
  rotation.MakeRotation(MMVector3d(), MMVector3d(1, 2, 3), 0.7);
  detail::ApplyTransform(*box, rotation);
  EXPECT_EQ(Windings(*box), before);
  const std::int32_t xMin = box->GetXMin();
  EXPECT_GT(SignedVolume(*box), 0.0);

  MMTransformMatrix mirror;
  mirror.SetElement(0, 0, -1.0, false);
  mirror.VerifyAndSetClass();
  detail::ApplyTransform(*box, mirror);
  const std::vector<Corners> after = Windings(*box);
  ASSERT_EQ(after.size(), before.size());
  for (std::size_t i = 0; i < after.size(); ++i)  // corner 0 kept, 1 and 2 swapped
    EXPECT_EQ(after[i], Corners(std::get<0>(before[i]), std::get<2>(before[i]), std::get<1>(before[i])));
  EXPECT_GT(SignedVolume(*box), 0.0);
  EXPECT_EQ(box->GetXMax(), -xMin);  // extremes follow the move
}

TEST(IcpSubSampleRatio, TenBelowTwentyThousandPointsThenAboutTwoThousandPoints) {
  EXPECT_EQ(detail::IcpSubSampleRatio(0), 10u);
  EXPECT_EQ(detail::IcpSubSampleRatio(1999), 10u);
  EXPECT_EQ(detail::IcpSubSampleRatio(19999), 10u);
  EXPECT_EQ(detail::IcpSubSampleRatio(20000), 10u);
  EXPECT_EQ(detail::IcpSubSampleRatio(50000), 25u);
  EXPECT_EQ(detail::IcpSubSampleRatio(1000000), 500u);
  EXPECT_EQ(detail::IcpSubSampleRatio((std::size_t(1) << 32) + 5), 10u);  // the low 32 bits count
}

TEST(ScalingToBox, LaysTheMovingBoxOnTheTargetsPerAxis) {
  auto moving = zorgen::MakeBox(1000, 500, 101, 2), target = zorgen::MakeBox(2000, 500, 50, 2);
  moving->Translate(-300, 40, 7);
  const detail::BoxScaling scaling = detail::ScalingToBox(*moving, *target);
  EXPECT_EQ(scaling.scale[0], 2.0f);
  EXPECT_EQ(scaling.scale[1], 1.0f);
  EXPECT_EQ(scaling.scale[2], 50.0f / 101.0f);
  EXPECT_EQ(scaling.centre, MMVector3i(200, 290, 57));  // (7 + 108) / 2 truncates
  moving->Rescale(scaling.scale[0], scaling.scale[1], scaling.scale[2], scaling.centre);
  EXPECT_EQ(moving->GetXMax() - moving->GetXMin(), 2000);
  EXPECT_EQ(moving->GetYMax() - moving->GetYMin(), 500);
  EXPECT_EQ(moving->GetZMax() - moving->GetZMin(), 50);
}

// The target: a sphere of 20 mm with a smooth asymmetric relief of 1.5 mm, bent by up
// to 1.5 mm along x.
std::unique_ptr<MStlBase> BentBody() {
  auto body = zorgen::MakeSphere(20000.0, 48, 96, 1500.0);
  {
    const MStlBaseOperatorHelperDirectPointChange change(body.get(), true);
    for (MStlPoint* p = body->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
      const double u = p->GetX() / 20000.0;
      p->Set(MMVector3i(p->GetX(), p->GetY(), p->GetZ() + static_cast<std::int32_t>(std::lround(1500.0 * u * u))));
    }
  }
  body->Update(65, true);
  return body;
}

TEST(RegisteredMorph, AMovedStretchedCopyEndsOnItsBentTarget) {
  auto target = BentBody();
  auto moving = zorgen::MakeSphere(20000.0, 44, 90, 1500.0);  // other vertices than the target's
  moving->Rescale(1.03f, 0.98f, 1.0f, MMVector3i());
  detail::ApplyTransform(*moving, zorgen::DrawPose(3, 30000.0));
  const std::vector<Corners> topology = Windings(*moving);
  const std::size_t points = moving->NumberOfPoints();

  MWrapperOperatorMorph morph(Handle(moving.get()), Handle(target.get()));
  // Each smoothing pass shrinks a surface of 1.3 mm edges by tens of micrometres: the
  // tolerance and the passes suit meshes this coarse.
  ZorStlRegistration::MWrapperOperatorBaseMorph::SParams params;
  params.distanceTolerance = 200.0;
  params.smoothingPasses = 2;
  morph.SetMorphParams(params);
  morph.Operate(nullptr);
  EXPECT_TRUE(morph.GetRegistrationSucceeded());
  EXPECT_GT(morph.GetMorph().GetStageTimes().iterations, 0u);
  EXPECT_TRUE(morph.GetMaxDistanceAfterMorphing() <= 200.0 || morph.GetMorph().GetFractionWithin() >= 0.99);
  EXPECT_EQ(moving->NumberOfPoints(), points);
  EXPECT_EQ(Windings(*moving), topology);
  double sum = 0.0;
  std::size_t within = 0;
  for (const MStlPoint* p = moving->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    MMVector3d closest;
    ASSERT_TRUE(MeshQueries::GetClosestPoint(MeshQueries::MeshHandle(target.get()), p->GetDouble(), closest));
    const double d = Length(closest - p->GetDouble());
    sum += d;
    within += d < 200.0 ? 1 : 0;
  }
  // The morph judges vertices by their displacements; on the surface a few vertices that
  // found nothing within the shrinking search radius stay farther out.
  EXPECT_LT(sum / static_cast<double>(points), 100.0);
  EXPECT_GT(static_cast<double>(within) / static_cast<double>(points), 0.95);
}

TEST(RegisteredMorph, AFlatMovingMeshCannotBeScaled) {
  auto flat = zorgen::MakeGrid(6, 1000), target = zorgen::MakeBox(6000, 6000, 3000, 3);
  MWrapperOperatorMorph morph(Handle(flat.get()), Handle(target.get()));
  EXPECT_THROW(morph.Operate(nullptr), std::out_of_range);
}

TEST(RegisteredMorph, RefusesANullMesh) {
  auto grid = zorgen::MakeGrid(2, 100);
  EXPECT_THROW(MWrapperOperatorMorph(Handle(grid.get()), Handle()), std::invalid_argument);
}

}  // namespace
