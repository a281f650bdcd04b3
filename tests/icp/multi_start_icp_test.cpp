// The multi-start ICP: the fit, the median, the better-than rule, one run's stop rules,
// and the operator from any placement, repeatably.
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include "generators/bodies.h"
#include "generators/poses.h"
#include "support/registration.h"
#include "zor/icp/detail/icp_iteration.h"
#include "zor/icp/stl_base_operator_registration_icp.h"
#include "zor/model/stl_iterators.h"
#include "zor/spatial/nearest_query.h"

namespace {

using Icp = ZorStlRegistration::MStlBaseOperatorRegistrationICP;
using ZorStlRegistration::detail::FitRigid;
using ZorStlRegistration::detail::IsBetter;
using ZorStlRegistration::detail::MedianInPlace;
using ZorStlRegistration::detail::Point3;
using ZorStlRegistration::detail::SamplePositions;
using zortest::LargestGap;

std::vector<Point3> Apply(const MMTransformMatrix& t, const std::vector<Point3>& points) {
  std::vector<Point3> out;
  for (const Point3& p : points) {
    MMVector3d q;
    t.Transform(q, MMVector3d(p[0], p[1], p[2]), false);
    out.push_back(Point3{{q[0], q[1], q[2]}});
  }
  return out;
}

TEST(IcpFit, RecoversRotationTranslationAndScaleAndNeverReflects) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-5000.0, 5000.0);
  std::vector<Point3> p(40);
  for (Point3& x : p) x = Point3{{u(rng), u(rng), u(rng)}};
  MMTransformMatrix truth;
  truth.MakeRotation(MMVector3d(100, 200, 300), MMVector3d(1, -1, 2), 2.5);
  truth.AddTranslation(MMVector3d(7000, -3000, 500));
  const auto fit = FitRigid(p, Apply(truth, p), false);
  EXPECT_EQ(fit.scale, 1.0);
  for (unsigned short r = 0; r < 3; ++r)
    for (unsigned short c = 0; c < 4; ++c) EXPECT_NEAR(fit.transform.GetElement(r, c), truth.GetElement(r, c), 1e-7);
  EXPECT_TRUE(fit.transform.IsInversible());

  // A uniform scale of 1.5 on top: found with allowScale.
  MMTransformMatrix scaled = truth;
  for (unsigned short r = 0; r < 3; ++r)
    for (unsigned short c = 0; c < 4; ++c) scaled.SetElement(r, c, 1.5 * truth.GetElement(r, c), false);
  scaled.VerifyAndSetClass();
  const auto similarity = FitRigid(p, Apply(scaled, p), true);
  EXPECT_NEAR(similarity.scale, 1.5, 1e-12);
  for (unsigned short r = 0; r < 3; ++r)
    for (unsigned short c = 0; c < 4; ++c)
      EXPECT_NEAR(similarity.transform.GetElement(r, c), scaled.GetElement(r, c), 1e-7);

  // The mirror image of the points has no rotation onto it: the fit stays a rotation.
  std::vector<Point3> mirrored = p;
  for (Point3& x : mirrored) x[0] = -x[0];
  EXPECT_GT(FitRigid(p, mirrored, false).transform.Determinant(), 0.0);
}

TEST(IcpRules, MedianAndTheBetterThanRule) {
  std::vector<double> odd = {9, 1, 5}, even = {8, 2, 6, 4}, none;
  EXPECT_EQ(MedianInPlace(odd), 5.0);
  EXPECT_EQ(MedianInPlace(even), 5.0);  // the mean of the two middle values
  EXPECT_TRUE(std::isnan(MedianInPlace(none)));

  Icp::IcpResult identity, shift, general;
  shift.transform.MakeTranslation(MMVector3d(1, 0, 0));
  general.transform.MakeRotation(MMVector3d(), MMVector3d(0, 0, 1), 0.5);
  identity.sumSquared = shift.sumSquared = general.sumSquared = 100.0;
  // A tie never displaces the identity; a translation beats a general pose either way.
  EXPECT_FALSE(IsBetter(shift, identity));
  EXPECT_TRUE(IsBetter(identity, shift));
  EXPECT_TRUE(IsBetter(shift, general));
  EXPECT_FALSE(IsBetter(general, shift));
  // Errors are compared per squared scale, without dividing.
  general.sumSquared = 300.0;
  general.scaleSquared = 4.0;  // 75 per unit scale
  EXPECT_TRUE(IsBetter(general, shift));
  // Nothing measured loses to anything finite.
  EXPECT_TRUE(IsBetter(general, Icp::IcpResult()));
}

// A sphere of 20 mm with a relief of 6 mm: far from symmetric, so one pose only.
struct IcpBody : ::testing::Test {
  void SetUp() override { body = zorgen::MakeSphere(20000, 40, 80, 6000); }
  std::unique_ptr<MStlBase> Moved(const MMTransformMatrix& pose) const {
    std::unique_ptr<MStlBase> copy(body->Clone(nullptr));
    copy->Transform(pose);
    return copy;
  }
  Icp::MParams Params(const MStlBase* moving) const {
    Icp::MParams p;
    p.moving = moving;
    p.fixed = body.get();
    return p;
  }
  std::unique_ptr<MStlBase> body;
};

// The search from a known match gives the tree's answer or says it cannot: on a
// sample with equal points (ties, which the tree's order decides), from any last match
// and from the grid's guess, for a sample small enough for every pair and one searched
// through its grid.
TEST(IcpSampleSearch, TheNeighbourListsGiveWhatTheTreeGivesOrNothing) {
  using ZorStlRegistration::SamplePoint;
  using ZorStlRegistration::detail::SampleDistance;
  using ZorStlRegistration::detail::SampleTree;
  std::mt19937 generator(7);
  std::uniform_real_distribution<double> coordinate(-50.0, 50.0);
  for (const std::size_t n : {500u, 3000u}) {
    SCOPED_TRACE(n);
    std::vector<SamplePoint> points(n);
    for (SamplePoint& p : points)
      for (int k = 0; k < 3; ++k) p.position[k] = std::round(coordinate(generator) * (k == 2 ? 0.2 : 1.0));
    points[1] = points[0];  // a tie for any query
    const SampleTree tree(std::move(points));
    ASSERT_FALSE(tree.Neighbours().Empty());
    std::uniform_int_distribution<std::uint32_t> anyIndex(0, static_cast<std::uint32_t>(n - 1));
    std::size_t settled = 0, undecided = 0;
    for (int q = 0; q < 4000; ++q) {
      const double query[3] = {coordinate(generator), coordinate(generator), 0.3 * coordinate(generator)};
      const SampleDistance distance(tree.Positions(), query);
      double bound2 = std::numeric_limits<double>::infinity();
      const std::uint32_t truth = MeshQueries::NearestObjectIndex(tree.Get(), distance, bound2);
      for (const std::uint32_t from : {anyIndex(generator), truth, tree.Neighbours().Guess(query)}) {
        const std::uint32_t found = tree.Neighbours().Nearest(distance, from);
        if (found == MeshQueries::kNoObject) {
          ++undecided;
        } else {
          ++settled;
          EXPECT_EQ(found, truth);
        }
      }
    }
    EXPECT_GT(settled, 1000u);  // the lists do settle most queries from their own match
    // Equal points: a query on them is never settled by the lists.
    const SamplePositions& at = tree.Positions();
    for (std::uint32_t i = 0; i < n; ++i)
      for (std::uint32_t j = i + 1; j < n; ++j)
        if (at.x[i] == at.x[j] && at.y[i] == at.y[j] && at.z[i] == at.z[j]) {
          const double query[3] = {at.x[i] + 0.25, at.y[i], at.z[i]};
          EXPECT_EQ(tree.Neighbours().Nearest(SampleDistance(at, query), i), MeshQueries::kNoObject);
        }
    const double nowhere[3] = {std::nan(""), 0.0, 0.0};
    EXPECT_EQ(tree.Neighbours().Guess(nowhere), MeshQueries::kNoObject);
    EXPECT_EQ(tree.Neighbours().Nearest(SampleDistance(at, nowhere), 0), MeshQueries::kNoObject);
  }
}

// Normals turned two at a time are those that Normalize gives one at a time, to the
// bit: equal magnitudes, zero normals, tiny ones, signs, an odd count.
TEST(IcpSampleSearch, TurnedNormalsAreThoseOfNormalize) {
  using ZorStlRegistration::SamplePoint;
  std::mt19937 generator(11);
  std::normal_distribution<double> value(0.0, 1.0);
  std::vector<SamplePoint> samples(201);
  for (SamplePoint& s : samples)
    for (int k = 0; k < 3; ++k) s.normal[k] = value(generator);
  const double special[][3] = {{0, 0, 0}, {1, 1, 1}, {-1, 1, 0}, {0, -2, 2}, {1e-310, 0, -1e-310}, {3, -3, 1}};
  for (std::size_t i = 0; i < 6; ++i)
    for (int k = 0; k < 3; ++k) samples[2 * i + 1].normal[k] = special[i][k];
  MMTransformMatrix turn;
  turn.MakeRotation(MMVector3d(1, 2, 3), MMVector3d(0.3, -1, 0.2), 0.7);
  for (const MMTransformMatrix& t : {MMTransformMatrix(), turn}) {
    double rows[3][4];
    for (unsigned short r = 0; r < 3; ++r)
      for (unsigned short c = 0; c < 4; ++c) rows[r][c] = t.GetElement(r, c);
    std::vector<Point3> turned(samples.size());
    ZorStlRegistration::detail::TurnNormals(samples, rows, turned);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const double u = samples[i].normal[0], v = samples[i].normal[1], w = samples[i].normal[2];
      MMVector3d m(rows[0][0] * u + rows[0][1] * v + rows[0][2] * w, rows[1][0] * u + rows[1][1] * v + rows[1][2] * w,
                   rows[2][0] * u + rows[2][1] * v + rows[2][2] * w);
      Normalize(m);
      for (int k = 0; k < 3; ++k) EXPECT_EQ(std::memcmp(&turned[i][k], &m[k], sizeof(double)), 0) << i << " " << k;
    }
  }
}

TEST_F(IcpBody, RecoversLargePosesFromAnyPlacement) {
  for (std::uint64_t seed : {1, 2, 3, 4}) {
    const MMTransformMatrix pose = zorgen::DrawPose(seed, 80000.0);
    const auto moving = Moved(pose);
    Icp icp;
    icp.SetParameters(Params(moving.get()));
    ASSERT_TRUE(icp.Operate());
    // Within 3 mm anywhere on a 50 mm body, where a wrong pose is tens of millimetres
    // off: ten point-to-point fits between samples end about there.
    EXPECT_LT(LargestGap(*body, icp.GetTransformMatrix() * pose, MMTransformMatrix()), 3000.0) << seed;
    EXPECT_LT(icp.GetRMSError(), 2000.0);
  }
}

TEST_F(IcpBody, RepeatsBitForBitOnEveryCallAndThreadCount) {
  const auto moving = Moved(zorgen::DrawPose(9, 80000.0));
  Icp first, second, single;
  for (Icp* icp : {&first, &second, &single}) icp->SetParameters(Params(moving.get()));
  ASSERT_TRUE(first.Operate());
  ASSERT_TRUE(second.Operate());
  tbb::task_arena(1).execute([&] { ASSERT_TRUE(single.Operate()); });
  for (unsigned short r = 0; r < 3; ++r)
    for (unsigned short c = 0; c < 4; ++c) {
      EXPECT_EQ(first.GetTransformMatrix().GetElement(r, c), second.GetTransformMatrix().GetElement(r, c));
      EXPECT_EQ(first.GetTransformMatrix().GetElement(r, c), single.GetTransformMatrix().GetElement(r, c));
    }
  EXPECT_EQ(first.GetRMSError(), single.GetRMSError());
}

TEST_F(IcpBody, SingleRunsMeasureTheStartAndStopEarly) {
  const MMTransformMatrix pose = zorgen::DrawPose(5, 20000.0);
  const auto moving = Moved(pose);
  MMTransformMatrix start = pose.Inverted();
  start.AddTranslation(MMVector3d(1500, 0, 0));  // 1.5 mm off
  Icp::MParams p = Params(moving.get());
  p.multiStart = false;
  p.initialTransform = start;
  p.refineFactor = 0;  // ignored without the search anyway
  // No fit: the start pose, measured once.
  p.maxIterations = 0;
  Icp measureOnly;
  measureOnly.SetParameters(p);
  ASSERT_TRUE(measureOnly.Operate());
  EXPECT_EQ(LargestGap(*moving, measureOnly.GetTransformMatrix(), start), 0.0);
  EXPECT_GT(measureOnly.GetRMSError(), 1000.0);
  // Fewer than 3 pairs cannot be fitted: the run ends on its first measurement.
  p.maxIterations = 10;
  p.sampleCount = 2;
  Icp twoPoints;
  twoPoints.SetParameters(p);
  ASSERT_TRUE(twoPoints.Operate());
  EXPECT_EQ(LargestGap(*moving, twoPoints.GetTransformMatrix(), start), 0.0);
  // Fits move it onto the body; refinement is not run without the search.
  p.sampleCount = 500;
  p.refine = true;
  p.refineFactor = 10;
  Icp fitted;
  fitted.SetParameters(p);
  ASSERT_TRUE(fitted.Operate());
  EXPECT_LT(fitted.GetRMSError(), measureOnly.GetRMSError());
  EXPECT_EQ(fitted.GetStageTimes().refinement, 0.0);
}

TEST_F(IcpBody, InputsWithoutAMeshOrAreaLeaveTheResult) {
  const auto moving = Moved(zorgen::DrawPose(6, 80000.0));
  Icp icp;
  icp.SetParameters(Params(moving.get()));
  ASSERT_TRUE(icp.Operate());
  const MMTransformMatrix found = icp.GetTransformMatrix();
  const double rms = icp.GetRMSError();
  // A flat triangle fan has no area: its points lie on one line.
  MStlBase line;
  for (int i = 0; i < 5; ++i)
    line.AddTriangle(MMVector3i(i, 0, 0), MMVector3i(i + 1, 0, 0), MMVector3i(i + 2, 0, 0), nullptr);
  for (const MStlBase* mesh : {static_cast<const MStlBase*>(nullptr), static_cast<const MStlBase*>(&line)}) {
    Icp::MParams p = Params(moving.get());
    p.fixed = mesh;
    icp.SetParameters(p);
    EXPECT_FALSE(icp.Operate());
    EXPECT_EQ(LargestGap(*moving, icp.GetTransformMatrix(), found), 0.0);
    EXPECT_EQ(icp.GetRMSError(), rms);
  }
}

}  // namespace
