// The rigid fit and the quadric fit.
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "zor/model/transform.h"
#include "zor/services/n_point_registration.h"
#include "zor/services/quadric_surface.h"

namespace {

using Points = std::vector<ZorSDK::Math::point<double, 3>>;

MMTransformMatrix RigidMotion(double angleDeg, MMVector3d axis, MMVector3d shift) {
  MMTransformMatrix m;
  m.MakeRotation(MMVector3d(), axis, angleDeg * 0.017453292519943295);
  m.AddTranslation(shift);
  return m;
}

Points RandomCloud(std::size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-5000.0, 5000.0);
  Points cloud(n);
  for (auto& p : cloud) p = {{u(rng), u(rng) * 0.5, u(rng) * 0.2}};
  return cloud;
}

Points Apply(const MMTransformMatrix& m, const Points& in) {
  Points out(in.size());
  for (std::size_t i = 0; i < in.size(); ++i) {
    const MMVector3d q = m(MMVector3d(in[i][0], in[i][1], in[i][2]), false);
    out[i] = {{q[0], q[1], q[2]}};
  }
  return out;
}

double Determinant3(const ZorSDK::Math::matrix4x4<double>& m) {
  return m(0, 0) * (m(1, 1) * m(2, 2) - m(1, 2) * m(2, 1)) - m(0, 1) * (m(1, 0) * m(2, 2) - m(1, 2) * m(2, 0)) +
         m(0, 2) * (m(1, 0) * m(2, 1) - m(1, 1) * m(2, 0));
}

TEST(NPointRegistration, RecoversRigidMotionsAndNeverReflects) {
  const Points a = RandomCloud(200, 3);
  for (double angle : {0.5, 37.0, 179.0}) {
    const MMTransformMatrix truth = RigidMotion(angle, MMVector3d(1, -2, 0.5), MMVector3d(1e6, -3e5, 42));
    const auto fit = ZorSDK::NPointRegistration(a, Apply(truth, a), false);
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 4; ++c) EXPECT_NEAR(fit(r, c), truth.GetElement(r, c), c == 3 ? 1e-6 : 1e-12) << angle;
  }
  // A mirror image has no rigid fit: the best rotation is returned, not the reflection.
  Points mirrored = a;
  for (auto& p : mirrored) p[2] = -p[2];
  EXPECT_NEAR(Determinant3(ZorSDK::NPointRegistration(a, mirrored, false)), 1.0, 1e-12);
}

TEST(NPointRegistration, ScaleFlagAndDegenerateInputs) {
  const Points a = RandomCloud(50, 5);
  MMTransformMatrix scaled = RigidMotion(20.0, MMVector3d(0, 0, 1), MMVector3d(10, 20, 30));
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) scaled.SetElement(r, c, 1.5 * scaled.GetElement(r, c), true);
  const auto similarity = ZorSDK::NPointRegistration(a, Apply(scaled, a), true);
  EXPECT_NEAR(Determinant3(similarity), 1.5 * 1.5 * 1.5, 1e-9);
  EXPECT_NEAR(ZorSDK::NPointRegistration(a, Apply(scaled, a), false)(2, 2), 1.0, 1e-12);

  const ZorSDK::Math::matrix4x4<double> identity;
  const auto same = [&](const ZorSDK::Math::matrix4x4<double>& m) {
    for (int i = 0; i < 16; ++i)
      if (m.values[i] != identity.values[i]) return false;
    return true;
  };
  EXPECT_TRUE(same(ZorSDK::NPointRegistration({}, {}, false)));
  EXPECT_TRUE(same(ZorSDK::NPointRegistration(a, Points(a.begin(), a.end() - 1), false)));
  // One pair: the translation that carries it.
  const auto one = ZorSDK::NPointRegistration({{{1, 2, 3}}}, {{{4, 6, 8}}}, false);
  EXPECT_EQ(one(0, 3), 3.0);
  EXPECT_EQ(one(1, 3), 4.0);
  EXPECT_EQ(one(2, 3), 5.0);
  EXPECT_EQ(one(0, 0), 1.0);
}

// Points of a sphere of radius r about the origin within `cap` of its pole (0, 0, r),
// as a patch would give them.
void SphereCap(double r, double cap, std::vector<MMVector3d>& points, std::vector<double>& weights) {
  for (int i = 0; i <= 8; ++i)
    for (int j = 0; j < 16; ++j) {
      const double th = cap / r * i / 8.0, ph = 6.283185307179586 * j / 16.0 + 0.1 * i;
      points.emplace_back(r * std::sin(th) * std::cos(ph), r * std::sin(th) * std::sin(ph), r * std::cos(th));
      weights.push_back(1.0 + 0.1 * j);
    }
}

TEST(QuadricSurface, SphereGivesNormalAndCurvatureOneOverR) {
  for (double r : {2000.0, 50000.0}) {
    std::vector<MMVector3d> points;
    std::vector<double> weights;
    SphereCap(r, 0.2 * r, points, weights);
    // A starting normal 10 degrees off: the refined fit still finds the radial one.
    MMVector3d normal(std::sin(0.1745), 0.0, std::cos(0.1745));
    MQuadricSurface fit;
    ASSERT_TRUE(fit.Fit(MMVector3d(0, 0, r), points, weights, normal, true));
    EXPECT_NEAR(normal[2], 1.0, 1e-6) << r;
    EXPECT_NEAR(fit.GetCurvatureMean() * r, 1.0, 0.01);
    EXPECT_NEAR(fit.GetCurvatureK1() * r, 1.0, 0.01);
    EXPECT_NEAR(fit.GetCurvatureK2() * r, 1.0, 0.01);
    EXPECT_NEAR(fit.GetCurvatureGaussian() * r * r, 1.0, 0.02);
    // Seen from inside, the same sphere bends towards the normal.
    MMVector3d inward(0, 0, -1);
    ASSERT_TRUE(fit.Fit(MMVector3d(0, 0, r), points, weights, inward, true));
    EXPECT_NEAR(inward[2], -1.0, 1e-9);
    EXPECT_NEAR(fit.GetCurvatureMean() * r, -1.0, 0.01);
  }
}

TEST(QuadricSurface, RefusesWhatCannotDetermineAFit) {
  std::vector<MMVector3d> line;
  std::vector<double> weights;
  for (int i = 0; i < 20; ++i) line.emplace_back(i * 10.0, i * 5.0, 0.0), weights.push_back(1.0);
  MMVector3d normal(0, 0, 1);
  MQuadricSurface fit;
  EXPECT_FALSE(fit.Fit(MMVector3d(), line, weights, normal, true));
  EXPECT_EQ(normal, MMVector3d(0, 0, 1));
  std::vector<MMVector3d> points;
  SphereCap(1000.0, 200.0, points, weights = {});
  MMVector3d zero;
  EXPECT_FALSE(fit.Fit(MMVector3d(0, 0, 1000), points, weights, zero, true));
  std::vector<double> tooFew(weights.size(), 0.0);
  for (int i = 0; i < 5; ++i) tooFew[i * 10] = 1.0;
  EXPECT_FALSE(fit.Fit(MMVector3d(0, 0, 1000), points, tooFew, normal, true));
}

}  // namespace
