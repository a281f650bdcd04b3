#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "support/registration.h"
#include "zor/model/stl.h"
#include "zor/registration/detail/registration_solver.h"

namespace {

using zortest::RotationDegrees;

using ZorStlRegistration::NormalOrientationIndex;
using ZorStlRegistration::detail::kUnmatched;
using ZorStlRegistration::detail::RegistrationSolver;
using ZorStlRegistration::detail::ScorePose;

constexpr double kPi = 3.141592653589793;

// Records tied in distance at the boundary of the active range: the standard heap
// selection keeps the first of the tied ones (a later record enters only when strictly
// closer than the heap's top) and sorts the heap so that tied records come out in the
// order its pops leave them. Distances 2, 2, 0 with two active records keep record 2,
// then record 0; a sift-down that takes the left child on a tie keeps record 1 instead.
// Distances 0, 2, 1, 1 with three active keep records 0, 3, 2, in that order.
TEST(TrimSamples, TiedDistancesFollowTheStandardHeapSelection) {
  const auto trimmed = [](const std::vector<double>& distances, std::uint64_t active) {
    RegistrationSolver solver(nullptr, 1000);
    for (std::size_t i = 0; i < distances.size(); ++i)
      solver.points.push_back({MMVector3d(double(i), 0, 0), distances[i], MMVector3d(), MMVector3d()});
    solver.activeCount = active;
    solver.TrimSamples();
    std::vector<int> kept;
    for (std::uint64_t i = 0; i < active; ++i) kept.push_back(static_cast<int>(solver.points[i].position[0]));
    return kept;
  };
  EXPECT_EQ(trimmed({2, 2, 0}, 2), (std::vector<int>{2, 0}));
  EXPECT_EQ(trimmed({0, 2, 1, 1}, 3), (std::vector<int>{0, 3, 2}));
  // Without ties the front is simply the smallest, ascending.
  EXPECT_EQ(trimmed({5, 3, 9, 1, 7}, 3), (std::vector<int>{3, 1, 0}));
}

// Samples 100 units above a 20 x 20 mm grid, with the last three lifted far off it.
struct PlaneWithOutliers : ::testing::Test {
  void SetUp() override {
    plane = zorgen::MakeGrid(21, 1000);
    index.SetMesh(plane.get());
    for (int i = 0; i < 40; ++i) samples.emplace_back(1000.0 + 450.0 * (i % 8), 1000.0 + 700.0 * (i / 8), 100.0);
    samples[37][2] = 5000.0;
    samples[38][2] = 9000.0;
    samples[39][2] = 7000.0;
  }
  std::unique_ptr<MStlBase> plane;
  NormalOrientationIndex index;
  std::vector<MMVector3d> samples;
};

TEST_F(PlaneWithOutliers, TrimmedErrorLeavesOutExactlyTheWorstSamples) {
  RegistrationSolver solver(&index, 1000);
  solver.SetSamples(samples, nullptr);
  solver.activeCount = 37;
  solver.MatchSamples();
  solver.TrimSamples();
  EXPECT_NEAR(solver.MeanError(), 100.0, 1e-9);
  for (std::uint64_t i = 0; i < 37; ++i) EXPECT_NEAR(solver.points[i].closest[2], 0.0, 1e-9);

  // One more active sample takes in the nearest outlier and only that one.
  solver.activeCount = 38;
  solver.TrimSamples();
  solver.errorKnown = false;
  EXPECT_NEAR(solver.MeanError(), (37 * 100.0 + 5000.0) / 38, 1e-9);

  // The stateless score agrees, for any order of the samples.
  std::vector<MMVector3d> shuffled = samples;
  std::reverse(shuffled.begin(), shuffled.end());
  const MMTransformMatrix identity;
  EXPECT_NEAR(ScorePose(index, shuffled, nullptr, identity, 37, true), 100.0, 1e-9);
  EXPECT_NEAR(ScorePose(index, samples, nullptr, identity, 40, true), (37 * 100.0 + 21000.0) / 40, 1e-9);
  EXPECT_EQ(ScorePose(index, samples, nullptr, identity, 0, true), 0.0);
}

TEST_F(PlaneWithOutliers, UnmatchedSamplesCountAsLargest) {
  MStlBase empty;
  NormalOrientationIndex nothing;
  nothing.SetMesh(&empty);
  EXPECT_EQ(ScorePose(nothing, samples, nullptr, MMTransformMatrix(), 1, true), kUnmatched);
  EXPECT_TRUE(std::isinf(ScorePose(nothing, samples, nullptr, MMTransformMatrix(), 2, true)));
}

TEST_F(PlaneWithOutliers, TooFewNormalsThrowAfterTheRecordsAreMade) {
  RegistrationSolver solver(&index, 1000);
  const std::vector<MMVector3d> normals(samples.size() - 1, MMVector3d(0, 0, 1));
  EXPECT_THROW(solver.SetSamples(samples, &normals), std::out_of_range);
  EXPECT_EQ(solver.points.size(), samples.size());
}

// A solver whose active records are given pairs: position p[i], match q[i].
RegistrationSolver PairedSolver(const std::vector<MMVector3d>& p, const std::vector<MMVector3d>& q,
                                std::int32_t unitsPerLength = 1000) {
  RegistrationSolver solver(nullptr, unitsPerLength);
  solver.SetSamples(p, nullptr);
  for (std::size_t i = 0; i < p.size(); ++i) solver.points[i].closest = q[i], solver.points[i].distance = 0.0;
  return solver;
}

TEST(RegistrationSolverStep, RecoversATranslationAndARotationOfMatchedPairs) {
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> u(-20000, 20000);
  std::vector<MMVector3d> p;
  for (int i = 0; i < 50; ++i) p.emplace_back(u(rng), u(rng), u(rng));

  MMTransformMatrix truth;
  truth.MakeTranslation(MMVector3d(1234.5, -300.0, 77.0));
  std::vector<MMVector3d> q;
  for (const auto& x : p) q.push_back(truth(x, false));
  MMTransformMatrix step;
  ASSERT_TRUE(PairedSolver(p, q).ComputeStep(step));
  EXPECT_LT(RotationDegrees(step), 1e-6);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(step.GetTranslation()[k], truth.GetTranslation()[k], 1e-6);

  truth.MakeRotation(MMVector3d(5000, -2000, 100), MMVector3d(1, 2, -1), 0.2);
  q.clear();
  for (const auto& x : p) q.push_back(truth(x, false));
  ASSERT_TRUE(PairedSolver(p, q).ComputeStep(step));
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(step.GetElement(r, c), truth.GetElement(r, c), c == 3 ? 1e-6 : 1e-12);

  // Another unit scale changes nothing but the units of the translation, which the
  // step rebuilds in internal units.
  MMTransformMatrix other;
  ASSERT_TRUE(PairedSolver(p, q, 10).ComputeStep(other));
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(other.GetElement(r, c), truth.GetElement(r, c), c == 3 ? 1e-6 : 1e-12);
}

TEST(RegistrationSolverStep, NothingActiveLeavesTheStep) {
  RegistrationSolver solver = PairedSolver({MMVector3d(1, 2, 3)}, {MMVector3d(4, 5, 6)});
  solver.activeCount = 0;
  MMTransformMatrix step;
  step.MakeTranslation(MMVector3d(9, 9, 9));
  EXPECT_FALSE(solver.ComputeStep(step));
  EXPECT_EQ(step.GetTranslation(), MMVector3d(9, 9, 9));
  // One pair: the step carries the point onto its match.
  solver.activeCount = 1;
  ASSERT_TRUE(solver.ComputeStep(step));
  const MMVector3d moved = step(MMVector3d(1, 2, 3), false);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(moved[k], 4.0 + k, 1e-9);
}

}  // namespace
