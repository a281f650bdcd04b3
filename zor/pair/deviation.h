#pragma once
// Where a moved or morphed mesh deviates from a fixed one: the signed distance of each
// of its vertices to the fixed surface (positive outside, negative inside), and its
// summary by the library's one rule for distances (zor/model/distance_statistics.h).

#include <vector>

#include "zor/model/distance_statistics.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/pair/export.h"

namespace ZorStlRegistration {

// The signed distance of every point of `moving` (in list order, moved by `pose` when it
// is not null) to the surface of `fixed`, in internal units: by the surface query's
// pseudo-normal (zor/spatial/surface_query.h), which tells inside from outside exactly
// on a closed surface. Zero for a fixed mesh without triangles. Runs on all cores; the
// result does not depend on their number.
ZOR_PAIR_API std::vector<double> SignedDistances(const MStlBase& moving, const MMTransformMatrix* pose,
                                                 const MStlBase& fixed);

// The summary of signed distances within `range` (internal units).
using DeviationSummary = DistanceStatistics;
inline DeviationSummary SummariseDeviation(const std::vector<double>& distances, double range) {
  return SummariseDistances(distances, range);
}

}  // namespace ZorStlRegistration
