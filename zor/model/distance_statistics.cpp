#include "zor/model/distance_statistics.h"

#include <algorithm>
#include <cmath>

namespace ZorStlRegistration {

double NearestRank(std::vector<double>& values, double q) {
  if (values.empty()) return 0.0;
  const double n = static_cast<double>(values.size());
  // q n carries the rounding of q (0.95 is 0.9499999999999999556): a relative margin of
  // a few units in the last place keeps a whole product whole.
  const double exact = std::min(1.0, std::max(0.0, q)) * n;
  double rank = std::ceil(exact - exact * 4.0 * 2.220446049250313e-16);
  rank = std::min(n, std::max(1.0, rank));
  const auto at = values.begin() + static_cast<std::ptrdiff_t>(rank) - 1;
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

DistanceStatistics SummariseDistances(const std::vector<double>& values, double tolerance) {
  DistanceStatistics s;
  s.tolerance = tolerance;
  std::vector<double> magnitudes;
  magnitudes.reserve(values.size());
  double sum = 0.0, within2 = 0.0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (!std::isfinite(values[i])) {
      ++s.notFinite;
      continue;
    }
    const double a = std::fabs(values[i]);
    if (magnitudes.empty() || a > s.largest) {
      s.largest = a;
      s.largestAt = i;
    }
    magnitudes.push_back(a);
    sum += a;
    if (IsWithin(a, tolerance)) {
      ++s.within;
      within2 += a * a;
    }
  }
  s.count = magnitudes.size();
  if (s.count == 0) return s;
  s.withinShare = static_cast<double>(s.within) / static_cast<double>(s.count);
  s.withinRms = s.within > 0 ? std::sqrt(within2 / static_cast<double>(s.within)) : 0.0;
  s.mean = sum / static_cast<double>(s.count);
  s.percentile95 = NearestRank(magnitudes, 0.95);
  return s;
}

}  // namespace ZorStlRegistration
