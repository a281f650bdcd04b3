#pragma once
// One rule for every summary of distances that a user reads: the morph's report, the
// deviation of a result, the verdict of a registration and the inspection report all
// summarise with these, so that they print the same numbers for the same mesh.
//
// - "Within the tolerance" is |d| <= tolerance.
// - Quantiles are nearest ranks: the smallest value with at least the share q of the
//   values at or below it (rank ceil(q n), counted from 1).
// - Values that are not finite (NaN, infinite) are left out of every figure and counted
//   apart. A distance that was not found within a search radius is given as the largest
//   double (the library's "no value"): it counts, and lies outside any tolerance.

#include <cstddef>
#include <vector>

#include "zor/model/export.h"

namespace ZorStlRegistration {

struct DistanceStatistics {
  std::size_t count = 0;      // finite values summarised
  std::size_t notFinite = 0;  // values left out
  double tolerance = 0.0;     // what "within" refers to, as given
  std::size_t within = 0;     // values with |d| <= tolerance
  double withinShare = 0.0;   // within / count; 0 without values
  double withinRms = 0.0;     // root mean square of |d| over those within; 0 without any
  double mean = 0.0;          // of |d|
  double percentile95 = 0.0;  // of |d|, nearest rank
  double largest = 0.0;       // largest |d|
  std::size_t largestAt = 0;  // index of its first occurrence in the input (0 without values)
};

// Whether a distance lies within a tolerance, by the one rule.
inline bool IsWithin(double distance, double tolerance) { return distance <= tolerance && -distance <= tolerance; }

// The summary of `values` (signed or not; the figures are of their magnitudes).
// Deterministic: the same values in the same order give the same figures.
ZOR_MODEL_API DistanceStatistics SummariseDistances(const std::vector<double>& values, double tolerance);

// The nearest rank of share `q` (clamped to (0, 1]) of the finite `values`, which are
// partly reordered; 0 for none. The rank is ceil(q n) computed so that a share that
// makes q n whole in decimal (0.95 of 100) is not pushed one rank up by rounding.
ZOR_MODEL_API double NearestRank(std::vector<double>& values, double q);

}  // namespace ZorStlRegistration
