#include <limits>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "zor/model/stl.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace {

using Op = MUserOperatorStlRegistration;

const double kShift[16] = {1, 0, 0, 5, 0, 1, 0, 6, 0, 0, 1, 7, 0, 0, 0, 1};

TEST(RegistrationInterface, EachSetterReplacesItsSidesPlacement) {
  auto fixed = zorgen::MakeTetrahedron();
  auto moving = zorgen::MakeTetrahedron();
  Op op;
  op.SetFixedStl(nullptr, kShift);  // a matrix with no mesh: stored, mesh cleared
  EXPECT_EQ(op.GetFixedStl(), nullptr);
  ASSERT_NE(op.GetFixedTransform(), nullptr);
  EXPECT_EQ(op.GetFixedTransform()->GetTranslation(), MMVector3d(5, 6, 7));
  EXPECT_EQ(op.GetMovingTransform(), nullptr);  // the other side untouched

  op.SetFixedStl(fixed.get(), nullptr);  // null clears the earlier matrix
  EXPECT_EQ(op.GetFixedStl(), fixed.get());
  EXPECT_EQ(op.GetFixedTransform(), nullptr);

  op.SetMovingStl(moving.get(), kShift);
  op.SetMovingItem(MStlItem(moving.get()), nullptr);  // an item setter also overrides the matrix
  EXPECT_EQ(op.GetMovingTransform(), nullptr);
  EXPECT_EQ(op.GetMovingStl(), moving.get());  // and leaves the direct mesh in place
  EXPECT_EQ(op.GetMovingItem().GetType(), MStlItemStl);

  op.SetFixedItem(MStlItem::MarkedTriangles(fixed.get()), kShift);
  EXPECT_EQ(op.GetFixedItem().GetType(), MStlItemMarkedTriangles);
  ASSERT_NE(op.GetFixedTransform(), nullptr);

  double bad[16];
  std::copy(kShift, kShift + 16, bad);
  bad[3] = std::numeric_limits<double>::infinity();
  op.SetFixedStl(fixed.get(), bad);
  EXPECT_EQ(op.GetFixedTransform(), nullptr);
}

}  // namespace
