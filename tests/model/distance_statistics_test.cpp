// The one rule for summaries of distances: nearest ranks, "within" as at most the
// tolerance, values that are not numbers left out and counted.
#include "zor/model/distance_statistics.h"

#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace {

using ZorStlRegistration::DistanceStatistics;
using ZorStlRegistration::NearestRank;
using ZorStlRegistration::SummariseDistances;

TEST(DistanceStatistics, NearestRanksCountFromOneAndStayWholeWhereTheShareMakesThemWhole) {
  std::vector<double> hundred;
  for (int i = 100; i >= 1; --i) hundred.push_back(i);  // 1..100, reversed
  for (const auto& [q, expected] :
       {std::pair{0.95, 95.0}, {0.9, 90.0}, {0.5, 50.0}, {0.99, 99.0}, {1.0, 100.0}, {0.001, 1.0}, {0.0, 1.0}}) {
    std::vector<double> v = hundred;
    EXPECT_EQ(NearestRank(v, q), expected) << q;
  }
  std::vector<double> odd;
  for (int i = 1; i <= 101; ++i) odd.push_back(i);
  EXPECT_EQ(NearestRank(odd, 0.95), 96.0);  // ceil(95.95)
  std::vector<double> none;
  EXPECT_EQ(NearestRank(none, 0.95), 0.0);
}

TEST(DistanceStatistics, WithinIsAtMostTheToleranceAndNotANumberStaysOut) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double farAway = std::numeric_limits<double>::max();  // not found within a radius
  const std::vector<double> values{-2.0, 1.0, nan, 2.0, -3.0, farAway, 0.5, -3.0};
  const DistanceStatistics s = SummariseDistances(values, 2.0);
  EXPECT_EQ(s.count, 7u);
  EXPECT_EQ(s.notFinite, 1u);
  EXPECT_EQ(s.within, 4u);  // -2, 1, 2 and 0.5: exactly at the tolerance counts
  EXPECT_DOUBLE_EQ(s.withinShare, 4.0 / 7.0);
  EXPECT_DOUBLE_EQ(s.withinRms, std::sqrt((4.0 + 1.0 + 4.0 + 0.25) / 4.0));
  EXPECT_EQ(s.largest, farAway);
  EXPECT_EQ(s.largestAt, 5u);
  EXPECT_EQ(s.percentile95, farAway);  // rank 7 of 7

  const DistanceStatistics ties = SummariseDistances({1.0, -3.0, 3.0, 2.0}, 1.0);
  EXPECT_EQ(ties.largest, 3.0);
  EXPECT_EQ(ties.largestAt, 1u);  // the first of equals
  EXPECT_DOUBLE_EQ(ties.mean, 9.0 / 4.0);

  const DistanceStatistics empty = SummariseDistances({nan}, 1.0);
  EXPECT_EQ(empty.count, 0u);
  EXPECT_EQ(empty.withinShare, 0.0);
  EXPECT_EQ(empty.percentile95, 0.0);
}

}  // namespace
