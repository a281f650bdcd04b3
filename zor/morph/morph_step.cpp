#include "zor/morph/detail/morph_step.h"

#include <cmath>
#include <limits>

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>

#include "zor/model/stl_base.h"
#include "zor/morph/vertex_ring_iterator.h"

namespace ZorStlRegistration::detail {

namespace {

// Points per task of the per-point loops: each point costs tens of nanoseconds.
constexpr std::size_t kPointsPerTask = 2048;

// Runs body(place) for every place of the point list, in parallel. Each place writes
// only its own point or its own mask entry, so the result does not depend on how the
// range is split.
template <typename Body>
void ForEachPlace(std::size_t count, const Body& body) {
  const auto run = [&body](const tbb::blocked_range<std::size_t>& range) {
    for (std::size_t place = range.begin(); place != range.end(); ++place) body(place);
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count, kPointsPerTask), run);
}

}  // namespace

std::int32_t TruncateToInt32(double x) {
  // Every double in (-2^31 - 1, 2^31) truncates into the range; NaN fails both tests.
  if (x > -2147483649.0 && x < 2147483648.0) return static_cast<std::int32_t>(x);
  return std::numeric_limits<std::int32_t>::min();
}

void MeshRings::Build(const MStlBase& mesh) {
  points.clear();
  points.reserve(mesh.NumberOfPoints());
  for (MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) points.push_back(p);
  // Place of each point by its mask index (mask indices lie below the mask size).
  std::vector<std::uint32_t> placeOf(mesh.GetMasks().GetPointMaskSize());
  for (std::size_t i = 0; i < points.size(); ++i) placeOf[points[i]->GetMaskIndex()] = static_cast<std::uint32_t>(i);

  offsets.assign(points.size() + 1, 0);
  ForEachPlace(points.size(), [&](std::size_t place) {
    std::uint32_t count = 0;
    const auto end = VertexRingIterator::End(&mesh, points[place]);
    for (auto it = VertexRingIterator::Begin(&mesh, points[place]); it != end; ++it) ++count;
    offsets[place + 1] = count;
  });
  for (std::size_t i = 0; i < points.size(); ++i) offsets[i + 1] += offsets[i];
  neighbours.resize(offsets.back());
  ForEachPlace(points.size(), [&](std::size_t place) {
    std::uint32_t k = offsets[place];
    const auto end = VertexRingIterator::End(&mesh, points[place]);
    for (auto it = VertexRingIterator::Begin(&mesh, points[place]); it != end; ++it)
      neighbours[k++] = placeOf[(*it)->GetMaskIndex()];
  });
}

void MorphingStep(const MeshRings& rings, const MDataMask<MStlPoint, MMVector3f>& displacements, double step) {
  const std::vector<MStlPoint*>& points = rings.GetPoints();
  ForEachPlace(points.size(), [&](std::size_t place) {
    MStlPoint& p = *points[place];
    const MMVector3f& d = displacements.GetInfo(p.GetMaskIndex());
    MMVector3i moved;
    for (std::size_t k = 0; k < 3; ++k)
      moved[k] = TruncateToInt32(static_cast<double>(d[k]) * step + static_cast<double>(p[k]));
    p.Set(moved);
  });
}

void SmoothStl(const MeshRings& rings, MDataMask<MStlPoint, MMVector3d>& scratch, std::size_t passes) {
  const std::vector<MStlPoint*>& points = rings.GetPoints();
  for (std::size_t pass = 0; pass < passes; ++pass) {
    ForEachPlace(points.size(), [&](std::size_t place) {
      double sum[3] = {0.0, 0.0, 0.0};
      const std::size_t begin = rings.GetRingBegin(place), end = rings.GetRingEnd(place);
      for (std::size_t k = begin; k != end; ++k) {
        const MStlPoint& q = *points[rings.GetNeighbour(k)];
        sum[0] += static_cast<double>(q.GetX());
        sum[1] += static_cast<double>(q.GetY());
        sum[2] += static_cast<double>(q.GetZ());
      }
      MMVector3d mean(std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::quiet_NaN(),
                      std::numeric_limits<double>::quiet_NaN());
      if (end != begin) {
        const double count = static_cast<double>(end - begin);
        mean = MMVector3d(sum[0] / count, sum[1] / count, sum[2] / count);
      }
      scratch.SetInfo(points[place]->GetMaskIndex(), mean);
    });
    ForEachPlace(points.size(), [&](std::size_t place) {
      MStlPoint& p = *points[place];
      const MMVector3d& mean = scratch.GetInfo(p.GetMaskIndex());
      p.Set(MMVector3i(TruncateToInt32(mean[0]), TruncateToInt32(mean[1]), TruncateToInt32(mean[2])));
    });
  }
}

DisplacementSummary SummariseDisplacements(const MStlBase& mesh, const MDataMask<MStlPoint, MMVector3f>& displacements,
                                           double tolerance) {
  DisplacementSummary summary;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    const MMVector3f& d = displacements.GetInfo(p->GetMaskIndex());
    const double length = ScaleSafeLength(d[0], d[1], d[2]);
    summary.sum += length;
    if (length > summary.largest) summary.largest = length;
    if (tolerance > length) ++summary.within;
  }
  return summary;
}

}  // namespace ZorStlRegistration::detail
