#include "zor/icp/iso_sphere.h"

#include <cmath>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

namespace {

using ZorStlRegistration::IsoSphere::Generate;

bool BitIdentical(const std::vector<MMVector<double, 3>>& a, const std::vector<MMVector<double, 3>>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])) == 0;
}

TEST(IsoSphere, SmallCounts) {
  EXPECT_TRUE(Generate(0).empty());
  const auto one = Generate(1);
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0], MMVector3d(1, 0, 0));
  // Two points: the first never moves, the second is driven to the antipode.
  const auto two = Generate(2);
  ASSERT_EQ(two.size(), 2u);
  EXPECT_EQ(two[0], MMVector3d(1, 0, 0));
  EXPECT_LT(two[1][0], -0.999);
}

TEST(IsoSphere, RepeatableOnEveryCallAndThread) {
  const auto first = Generate(30);
  EXPECT_TRUE(BitIdentical(first, Generate(30)));
  std::vector<MMVector<double, 3>> fromThread;
  std::thread([&] { fromThread = Generate(30); }).join();
  EXPECT_TRUE(BitIdentical(first, fromThread));
  // The first drawn point is the same whatever the count: the draws are one sequence.
  EXPECT_NE(Generate(3)[1], Generate(4)[1]);  // relaxation moves it differently...
  EXPECT_EQ(Generate(3)[0], Generate(4)[0]);  // ...but point 0 stays put
}

// Points are unit vectors, spread: no two closer than a good fraction of the best
// possible spacing, and their mean near the centre.
TEST(IsoSphere, DirectionsAreUnitAndEvenlySpread) {
  for (std::size_t count : {6u, 12u, 30u, 100u}) {
    const auto dirs = Generate(count);
    ASSERT_EQ(dirs.size(), count);
    MMVector<double, 3> mean;
    double closest = 4.0;
    for (std::size_t i = 0; i < count; ++i) {
      EXPECT_NEAR(Length(dirs[i]), 1.0, 1e-12);
      mean += dirs[i] / static_cast<double>(count);
      for (std::size_t j = i + 1; j < count; ++j) closest = std::min(closest, Length(dirs[i] - dirs[j]));
    }
    // Equal-area bound for the spacing of count points: about sqrt(8 pi / (count sqrt 3)).
    const double ideal = std::sqrt(8.0 * M_PI / (count * std::sqrt(3.0)));
    EXPECT_GT(closest, 0.75 * ideal) << count;
    EXPECT_LT(Length(mean), 0.05) << count;
  }
  // Six points settle into an octahedron: every point has an antipode.
  const auto six = Generate(6);
  for (const auto& d : six) {
    double best = 1.0;
    for (const auto& e : six) best = std::min(best, Dot(d, e));
    EXPECT_LT(best, -0.98);  // the relaxation stops at moves of 0.01
  }
}

}  // namespace
