#pragma once
// Where a moved or morphed mesh deviates from a fixed one: the signed distance of each
// of its vertices to the fixed surface (positive outside, negative inside), a summary,
// and a map to look at: binary PLY with the distance as the per-vertex `quality`
// property and colours on a diverging scale, which common mesh viewers show as they
// open the file.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "zor/export.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration {

// The signed distance of every point of `moving` (in list order, moved by `pose` when it
// is not null) to the surface of `fixed`, in internal units. The side comes from the
// angle-weighted pseudo-normal at the closest place (the face's normal, the sum of the
// two faces' normals on an edge, the angle-weighted normal at a corner), which tells
// inside from outside exactly on a closed surface. Zero for a fixed mesh without
// triangles. Runs on all cores; the result does not depend on their number.
ZOR_API std::vector<double> SignedDistances(const MStlBase& moving, const MMTransformMatrix* pose,
                                            const MStlBase& fixed);

struct DeviationSummary {
  double range = 0.0;         // the tolerance the colours and the share refer to
  double withinShare = 0.0;   // share of points with |distance| <= range (0 without points)
  double percentile95 = 0.0;  // of |distance|, nearest rank
  double largest = 0.0;       // largest |distance|
};
ZOR_API DeviationSummary SummariseDeviation(const std::vector<double>& distances, double range);

}  // namespace ZorStlRegistration
