#pragma once
// The parts of the morph loop that change or measure the moving mesh: the step toward
// the displacements, the smoothing passes, and the statistics of the displacements.
// The operator's private members call these; tests reach them here.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/export.h"
#include "zor/model/data_mask.h"
#include "zor/model/mm_vector.h"

class MStlBase;
class MStlPoint;

namespace ZorStlRegistration::detail {

// `x` truncated toward zero to a signed 32-bit integer. A NaN, or a value whose
// truncation falls outside the 32-bit range, gives -2147483648: the value a hardware
// conversion gives, produced here without relying on the conversion, which C++ leaves
// undefined for such values.
ZOR_API std::int32_t TruncateToInt32(double x);

// The step that follows `step`: the share of the way still missing to a whole step
// shrinks by `retention`.
inline double NextStep(double step, double retention) { return 1.0 - (1.0 - step) * retention; }

// Whether a turn of the morph loop drops a smoothing pass (and the normal filter with
// it): only from the fifth turn on, only while passes remain, and only when both the
// mean and the largest displacement grew strictly since the measurement before.
inline bool ReducesSmoothing(double mean, double previousMean, double largest, double previousLargest,
                             std::size_t iteration, std::size_t passes) {
  return mean > previousMean && largest > previousLargest && iteration > 4 && passes != 0;
}

// The points of a mesh in list order and, for each, the vertices of its ring in the order
// VertexRingIterator walks them, as places in that list. The rings of a mesh whose
// topology stands still are walked once per run instead of once per smoothing pass.
class ZOR_API MeshRings {
public:
  void Build(const MStlBase& mesh);
  const std::vector<MStlPoint*>& GetPoints() const { return points; }
  std::size_t GetRingBegin(std::size_t place) const { return offsets[place]; }
  std::size_t GetRingEnd(std::size_t place) const { return offsets[place + 1]; }
  std::uint32_t GetNeighbour(std::size_t k) const { return neighbours[k]; }
  bool IsBuilt() const { return !offsets.empty(); }

private:
  std::vector<MStlPoint*> points;
  std::vector<std::uint32_t> offsets;  // points.size() + 1 entries
  std::vector<std::uint32_t> neighbours;
};

// Moves every point by `step` times its displacement: per axis the float component
// times the step plus the coordinate, in double, truncated toward zero.
ZOR_API void MorphingStep(const MeshRings& rings, const MDataMask<MStlPoint, MMVector3f>& displacements, double step);

// `passes` times: every point is replaced by the mean of its ring, all means taken from
// the coordinates before the pass (kept in `scratch`, one entry per point). A point
// without neighbours has the mean 0 / 0, a NaN, and lands on -2147483648 on each axis.
ZOR_API void SmoothStl(const MeshRings& rings, MDataMask<MStlPoint, MMVector3d>& scratch, std::size_t passes);

// What one measurement of the displacements gives.
struct DisplacementSummary {
  double sum = 0.0;          // of the lengths, in list order
  double largest = 0.0;      // longest length
  std::uint64_t within = 0;  // lengths strictly below the tolerance
};

// Walks the points of `mesh` in list order and measures each displacement's
// scale-safe length.
ZOR_API DisplacementSummary SummariseDisplacements(const MStlBase& mesh,
                                                   const MDataMask<MStlPoint, MMVector3f>& displacements,
                                                   double tolerance);

}  // namespace ZorStlRegistration::detail
