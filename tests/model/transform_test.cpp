#include "zor/model/transform.h"

#include <random>

#include <gtest/gtest.h>

#include "zor/model/math_utility.h"
#include "zor/model/unit.h"

namespace {

constexpr double kPi = 3.141592653589793;

void ExpectNear(const MMVector3d& a, const MMVector3d& b, double tol = 1e-9) {
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(a[i], b[i], tol) << "component " << i;
}

MMVector3d Apply(const MMTransformMatrix& m, const MMVector3d& p, bool direction = false) {
  MMVector3d out;
  EXPECT_TRUE(m.Transform(out, p, direction));
  return out;
}

MMTransformMatrix Rotation(const MMVector3d& point, const MMVector3d& axis, double angle) {
  MMTransformMatrix r;
  r.MakeRotation(point, axis, angle);
  return r;
}

MMTransformMatrix Translation(const MMVector3d& t) {
  MMTransformMatrix m;
  m.MakeTranslation(t);
  return m;
}

TEST(TransformComposition, PreMultiplyActsAfterPostMultiplyActsBefore) {
  const MMTransformMatrix r = Rotation({0, 0, 0}, {0, 0, 1}, kPi / 2);
  const MMTransformMatrix t = Translation({10, 0, 0});
  const MMVector3d p(1, 0, 0);

  MMTransformMatrix pre = t;
  pre.PreMultiply(r);  // R T: translate, then rotate
  ExpectNear(Apply(pre, p), MMVector3d(0, 11, 0));

  MMTransformMatrix post = t;
  post.PostMultiply(r);  // T R: rotate, then translate
  ExpectNear(Apply(post, p), MMVector3d(10, 1, 0));

  ExpectNear(Apply(r * t, p), Apply(pre, p));
  ExpectNear(Apply(t * r, p), Apply(post, p));
}

TEST(TransformComposition, RotationAboutOffOriginLineKeepsTheLineFixed) {
  const MMTransformMatrix r = Rotation({10, 5, 0}, {0, 0, 2}, kPi / 2);
  ExpectNear(Apply(r, {10, 5, 7}), MMVector3d(10, 5, 7));
  ExpectNear(Apply(r, {11, 5, 0}), MMVector3d(10, 6, 0));  // counter-clockwise about +z
  // A direction ignores the translation part.
  ExpectNear(Apply(r, {1, 0, 0}, true), MMVector3d(0, 1, 0));
  EXPECT_EQ(r.GetClass(), MMTransformClass::Rigid);
  EXPECT_NEAR(r.Determinant(), 1.0, 1e-12);
}

TEST(TransformInverse, InverseUndoesGeneralAffineMaps) {
  std::mt19937 rng(42);
  std::uniform_real_distribution<double> u(-3.0, 3.0);
  for (int k = 0; k < 20; ++k) {
    MMTransformMatrix m;
    for (unsigned short r = 0; r < 3; ++r)
      for (unsigned short c = 0; c < 4; ++c) m.SetElement(r, c, u(rng) + (r == c ? 4.0 : 0.0), false);
    m.VerifyAndSetClass();
    ASSERT_TRUE(m.IsInversible());
    const MMTransformMatrix inv = m.Inverted();
    const MMVector3d p(u(rng), u(rng), u(rng));
    ExpectNear(Apply(inv, Apply(m, p)), p, 1e-9);
    MMVector3d back;
    ASSERT_TRUE(m.InverseTransform(back, Apply(m, p), false));
    ExpectNear(back, p, 1e-9);
    EXPECT_TRUE((m * inv).IsIdentity());
    MMTransformMatrix twice = m;
    ASSERT_TRUE(twice.Invert());
    ASSERT_TRUE(twice.Invert());
    ExpectNear(Apply(twice, p), Apply(m, p), 1e-9);
  }
}

TEST(TransformInverse, SingularMatrixIsRefusedAndKept) {
  MMTransformMatrix flat;
  flat.SetElement(2, 2, 0.0, true);  // projects onto z = 0
  EXPECT_FALSE(flat.IsInversible());
  EXPECT_FALSE(flat.Invert());
  EXPECT_EQ(flat.GetElement(2, 2), 0.0);
  EXPECT_EQ(flat.GetElement(0, 0), 1.0);
  EXPECT_THROW(flat.Inverted(), std::domain_error);
  MMVector3d out;
  EXPECT_FALSE(flat.InverseTransform(out, MMVector3d(1, 2, 3), false));
  // A tiny but regular scale is not mistaken for a singular one.
  MMTransformMatrix tiny;
  for (unsigned short i = 0; i < 3; ++i) tiny.SetElement(i, i, 1e-12, false);
  tiny.VerifyAndSetClass();
  EXPECT_TRUE(tiny.IsInversible());
}

TEST(TransformClassification, DirectWritesNeedVerifyAndSetClass) {
  MMTransformMatrix m;
  m.SetElement(0, 3, 5.0, false);
  EXPECT_TRUE(m.IsIdentity());  // stale until verified
  m.VerifyAndSetClass();
  EXPECT_FALSE(m.IsIdentity());
  EXPECT_TRUE(m.IsTranslation());
  m.SetElement(0, 1, 0.5, false);
  m.VerifyAndSetClass();
  EXPECT_FALSE(m.IsTranslation());
  EXPECT_EQ(m.GetClass(), MMTransformClass::Affine);
  EXPECT_THROW(m.SetElement(4, 0, 1.0, false), std::out_of_range);
  // The inverse follows a verified batch of writes.
  ExpectNear(Apply(m.Inverted(), Apply(m, {1, 2, 3})), MMVector3d(1, 2, 3));

  MMTransformMatrix rt = Rotation({0, 0, 0}, {1, 2, 3}, 0.7);
  rt.PreMultiply(Rotation({0, 0, 0}, {1, 2, 3}, -0.7));
  EXPECT_TRUE(rt.IsIdentity());  // round-off of a product does not hide the identity
  MMTransformMatrix mirror;
  mirror.SetElement(0, 0, -1.0, true);
  EXPECT_LT(mirror.Determinant(), 0.0);
  EXPECT_EQ(mirror.GetClass(), MMTransformClass::Affine);
}

TEST(TransformAngles, RotationZYXRoundTrips) {
  const double rz = 0.3, ry = -0.4, rx = 1.1;
  MMTransformMatrix m = Rotation({0, 0, 0}, {0, 0, 1}, rz);
  m.PostMultiply(Rotation({0, 0, 0}, {0, 1, 0}, ry));
  m.PostMultiply(Rotation({0, 0, 0}, {1, 0, 0}, rx));
  m.AddTranslation({5, 6, 7});
  double a = 0, b = 0, c = 0;
  ASSERT_TRUE(m.GetRotationZYX(a, b, c));
  EXPECT_NEAR(a, rz, 1e-12);
  EXPECT_NEAR(b, ry, 1e-12);
  EXPECT_NEAR(c, rx, 1e-12);
  // A pure rotation about X reads as (0, 0, angle).
  ASSERT_TRUE(Rotation({1, 2, 3}, {1, 0, 0}, 0.25).GetRotationZYX(a, b, c));
  EXPECT_NEAR(a, 0.0, 1e-15);
  EXPECT_NEAR(b, 0.0, 1e-15);
  EXPECT_NEAR(c, 0.25, 1e-15);
  MMTransformMatrix shear;
  shear.SetElement(0, 1, 0.5, true);
  EXPECT_FALSE(shear.GetRotationZYX(a, b, c));
}

TEST(TransformUtility, OzToLineTakesTheZAxisOntoTheLine) {
  for (const MMVector3d& d : {MMVector3d(1, 2, 2), MMVector3d(0, 0, 5), MMVector3d(0, 0, -3), MMVector3d(-1, 0, 0)}) {
    MMTransformMatrix m;
    ASSERT_TRUE(ZorMathUtility::GetTransformationFromOzToLine({4, 5, 6}, d, m));
    MMVector3d unit = d;
    Normalize(unit);
    ExpectNear(Apply(m, {0, 0, 0}), MMVector3d(4, 5, 6));
    ExpectNear(Apply(m, {0, 0, 2}), MMVector3d(4, 5, 6) + unit * 2.0);
    EXPECT_EQ(m.GetClass() == MMTransformClass::Rigid || m.GetClass() == MMTransformClass::Translation, true);
  }
  MMTransformMatrix m;
  EXPECT_FALSE(ZorMathUtility::GetTransformationFromOzToLine({1, 1, 1}, {0, 0, 0}, m));
  EXPECT_TRUE(m.IsIdentity());
}

TEST(MathHelpers, ScaleSafeLengthNeitherOverflowsNorUnderflows) {
  EXPECT_DOUBLE_EQ(Length(MMVector3d(3e300, 4e300, 0)), 5e300);
  EXPECT_DOUBLE_EQ(Length(MMVector3d(3e-310, 0, 4e-310)), 5e-310);
  MMVector3d zero;
  EXPECT_EQ(Normalize(zero), 0.0);
  EXPECT_EQ(zero, MMVector3d());
}

TEST(MathHelpers, QuadraticRootsAreAccurateAndOrdered) {
  MMQuadraticEquation q;
  q.Set(1, -3, 2);
  ASSERT_TRUE(q.Solve());
  ASSERT_EQ(q.GetNumRoots(), 2);
  EXPECT_DOUBLE_EQ(q.GetRoot(0), 1.0);
  EXPECT_DOUBLE_EQ(q.GetRoot(1), 2.0);
  q.Set(1, 1e8, 1);  // the naive formula loses the small root entirely
  ASSERT_TRUE(q.Solve());
  EXPECT_NEAR(q.GetRoot(1), -1e-8, 1e-22);
  q.Set(1, 0, 1);
  EXPECT_FALSE(q.Solve());
  EXPECT_EQ(q.GetNumRoots(), 0);
  EXPECT_THROW(q.GetRoot(0), std::out_of_range);
  q.Set(0, 2, -4);
  ASSERT_TRUE(q.Solve());
  EXPECT_EQ(q.GetNumRoots(), 1);
  EXPECT_DOUBLE_EQ(q.GetRoot(0), 2.0);
}

TEST(MathHelpers, PlaneProjectsAlongItsNormal) {
  const MMPlaneEq<double> plane(MMVector3d(0, 0, 5), MMVector3d(1, 0, 5), MMVector3d(0, 1, 5));
  MMVector3d out;
  EXPECT_DOUBLE_EQ(plane.Project(out, MMVector3d(3, 4, 9)), 4.0);
  ExpectNear(out, MMVector3d(3, 4, 5));
  const MMPlaneEq<double> line(MMVector3d(0, 0, 0), MMVector3d(1, 1, 1), MMVector3d(2, 2, 2));
  EXPECT_FALSE(line.IsValid());
  EXPECT_EQ(line.Project(out, MMVector3d(3, 4, 9)), 0.0);
  ExpectNear(out, MMVector3d(3, 4, 9));
}

}  // namespace
