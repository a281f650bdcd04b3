#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

#include <meshoptimizer.h>
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/enumerable_thread_specific.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/parallel_invoke.h>

#include "zor/model/stl_guards.h"
#include "zor/services/detail/reduce_parts.h"
#include "zor/spatial/point_triangle_distance.h"
#include "zor/spatial/tree_property.h"

namespace ReduceDetail {

namespace {

// Twice the area over the longest edge; 0 for a degenerate triangle.
double SmallestAltitude(const MMVector3d& a, const MMVector3d& b, const MMVector3d& c) {
  const double longest = std::sqrt(std::max({Length2(b - a), Length2(c - b), Length2(a - c)}));
  return longest > 0.0 ? Length(Cross(b - a, c - a)) / longest : 0.0;
}

double LongestEdge(const MMVector3d& a, const MMVector3d& b, const MMVector3d& c) {
  return std::sqrt(std::max({Length2(b - a), Length2(c - b), Length2(a - c)}));
}

}  // namespace

// Simplifies `indices` (local vertices) with the engine target `target` (internal
// units) and border vertices locked, except the triangles flagged in `keep`, which stay
// as they are; their corners are a border to the engine, so the rest fits them.
// Returns the result in mesh-wide points.
std::vector<std::uint32_t> Simplify(const std::vector<std::uint32_t>& indices, const std::vector<std::uint8_t>& keep,
                                    const std::vector<std::uint32_t>& globalOf, const std::vector<float>& positions,
                                    float scale, double target) {
  std::vector<std::uint32_t> active, kept;
  const bool anyKept = std::find(keep.begin(), keep.end(), std::uint8_t{1}) != keep.end();
  if (anyKept) {
    for (std::size_t t = 0; t < keep.size(); ++t) {
      std::vector<std::uint32_t>& into = keep[t] != 0 ? kept : active;
      into.insert(into.end(), indices.begin() + 3 * t, indices.begin() + 3 * t + 3);
    }
  }
  const std::vector<std::uint32_t>& input = anyKept ? active : indices;
  std::vector<std::uint32_t> result(input.size());
  std::size_t count = input.size();
  if (scale > 0.0f && !input.empty()) {
    count = meshopt_simplify(result.data(), input.data(), input.size(), positions.data(), globalOf.size(),
                             3 * sizeof(float), 0, float(target / scale), meshopt_SimplifyLockBorder, nullptr);
  } else {
    std::copy(input.begin(), input.end(), result.begin());
  }
  result.resize(count);
  result.insert(result.end(), kept.begin(), kept.end());
  for (std::uint32_t& v : result) v = globalOf[v];
  return result;
}

// Measures a candidate (three mesh-wide points per triangle) against the original
// points in `measure`: the distance of every one that it dropped, and the orientation
// of each new triangle (`untouched` false) against the original surface that it stands
// for (the area-weighted normals at its corners and at the dropped points nearest to
// it). A single corner's normal would not do: on noisy scans the original triangles at
// a point may themselves fold. A new triangle folds when it faces away from that
// surface and is wider than the distance bound; a narrower one (a sliver between points
// of a noisy patch) lies within the bound of the surface whichever way it faces.
// `nearest` receives, per entry of `measure`, the nearest candidate triangle, or kNone
// for a point that the candidate keeps.
Check Verify(const FlatMesh& flat, const std::vector<std::uint32_t>& candidateCorners,
             const std::vector<std::uint8_t>& untouched, const std::vector<std::uint32_t>& measure, double distance,
             std::vector<std::uint32_t>& nearest) {
  Check check;
  nearest.assign(measure.size(), kNone);
  std::vector<std::uint32_t> used(candidateCorners);
  std::sort(used.begin(), used.end());
  used.erase(std::unique(used.begin(), used.end()), used.end());
  const auto onCandidate = [&](std::uint32_t g) { return std::binary_search(used.begin(), used.end(), g); };
  if (candidateCorners.empty()) {
    for (std::uint32_t g : measure)
      if (!onCandidate(g)) ++check.violations;
    check.worstDistance = check.violations > 0 ? std::numeric_limits<double>::max() : 0.0;
    return check;
  }
  // The candidate as a mesh of its own (same integer coordinates), for its triangle tree.
  MStlBase candidate;
  std::vector<std::uint32_t> triangleOfMask;
  {
    std::vector<MStlPoint*> point(used.size(), nullptr);
    MStlTempPointSortingDisabler batch(&candidate, true);
    for (std::size_t i = 0; i < used.size(); ++i) point[i] = candidate.AddPoint(flat.points[used[i]]->GetInt(), true);
    const auto pointOf = [&](std::uint32_t g) {
      return point[std::lower_bound(used.begin(), used.end(), g) - used.begin()];
    };
    for (std::size_t t = 0; t < candidateCorners.size(); t += 3) {
      const std::size_t mask = candidate
                                   .AddTriangle(pointOf(candidateCorners[t]), pointOf(candidateCorners[t + 1]),
                                                pointOf(candidateCorners[t + 2]), nullptr)
                                   ->data.GetMaskIndex();
      if (triangleOfMask.size() <= mask) triangleOfMask.resize(mask + 1, kNone);
      triangleOfMask[mask] = static_cast<std::uint32_t>(t / 3);
    }
  }
  const MeshQueries::TriangleTreeHolder* holder = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&candidate));

  // Points that the candidate keeps lie on it. For the others a triangle within the
  // bound is enough: the triangle found for the point before (points come in mesh
  // order, so neighbours mostly share one) is tried first, then the tree within the
  // bound, and only a point outside it is measured without one. Chunks are fixed, so
  // which triangle a point gets does not depend on the threads.
  const double radius = std::max(std::nextafter(distance, HUGE_VAL), 1e-150);
  const double radius2 = radius * radius;
  const auto corner = [&](std::uint32_t t, int k) { return flat.position[candidateCorners[3 * t + k]].Data(); };
  std::vector<double> deviation(measure.size(), 0.0);
  constexpr std::size_t kChunk = 1024;
  oneapi::tbb::parallel_for(std::size_t(0), (measure.size() + kChunk - 1) / kChunk, [&](std::size_t chunk) {
    std::uint32_t hint = kNone;
    for (std::size_t i = chunk * kChunk; i < std::min(measure.size(), (chunk + 1) * kChunk); ++i) {
      if (onCandidate(measure[i])) continue;
      const double* q = flat.position[measure[i]].Data();
      if (hint != kNone) {
        const double d2 =
            MeshQueries::PointTriangleDistance2(q, corner(hint, 0), corner(hint, 1), corner(hint, 2), nullptr);
        if (d2 <= radius2) {
          deviation[i] = std::sqrt(d2);
          nearest[i] = hint;
          continue;
        }
      }
      const MMVector3d p = flat.points[measure[i]]->GetDouble();
      auto found = MeshQueries::FindNearestTriangle(*holder, p, radius);
      if (found.first.GetTriangle() == nullptr) found = MeshQueries::FindNearestTriangle(*holder, p, HUGE_VAL);
      deviation[i] = found.second;
      nearest[i] = hint = triangleOfMask[found.first.GetMaskIndex()];
    }
  });

  const std::size_t triangles = candidateCorners.size() / 3;
  const auto cornerAt = [&](std::size_t t, int k) { return flat.position[candidateCorners[3 * t + k]]; };
  const auto addSpot = [&](const MMVector3d& centre, double reach) {
    if (check.spots.size() <= kMaxSpots) check.spots.push_back(Spot{centre, reach});
  };
  std::vector<MMVector3d> region(triangles);
  for (std::size_t i = 0; i < measure.size(); ++i) {
    if (deviation[i] > distance) {
      ++check.violations;
      check.far.push_back(static_cast<std::uint32_t>(i));
      const double edge = nearest[i] != kNone
                              ? LongestEdge(cornerAt(nearest[i], 0), cornerAt(nearest[i], 1), cornerAt(nearest[i], 2))
                              : 0.0;
      addSpot(flat.position[measure[i]], std::max(kSpotEdges * edge, 2.0 * deviation[i]));
    }
    check.worstDistance = std::max(check.worstDistance, deviation[i]);
    if (nearest[i] != kNone) region[nearest[i]] += flat.normals[measure[i]];
  }
  for (std::size_t t = 0; t < triangles; ++t) {
    if (untouched[t] != 0) continue;
    const MMVector3d a = cornerAt(t, 0), b = cornerAt(t, 1), c = cornerAt(t, 2);
    const MMVector3d n = Cross(b - a, c - a);
    const MMVector3d around = region[t] + flat.normals[candidateCorners[3 * t]] +
                              flat.normals[candidateCorners[3 * t + 1]] + flat.normals[candidateCorners[3 * t + 2]];
    if (!(Dot(n, around) > 0.0) && SmallestAltitude(a, b, c) > distance) {
      ++check.violations;
      const Spot spot{(a + b + c) * (1.0 / 3.0), kSpotEdges * LongestEdge(a, b, c)};
      addSpot(spot.centre, spot.radius);
      if (check.foldSpots.size() <= kMaxSpots) {
        check.foldSpots.push_back(spot);
        check.foldCorners.insert(check.foldCorners.end(), &candidateCorners[3 * t], &candidateCorners[3 * t] + 3);
      }
    }
  }
  return check;
}

// Flags every triangle (three local vertices each) whose centroid lies in one of `spots`.
void KeepAround(const std::vector<std::uint32_t>& indices, const std::vector<std::uint32_t>& globalOf,
                const FlatMesh& flat, const std::vector<Spot>& spots, std::vector<std::uint8_t>& keep) {
  const std::size_t triangles = indices.size() / 3;
  keep.resize(triangles, 0);
  for (std::size_t t = 0; t < triangles; ++t) {
    if (keep[t] != 0) continue;
    const MMVector3d centroid = (flat.position[globalOf[indices[3 * t]]] + flat.position[globalOf[indices[3 * t + 1]]] +
                                 flat.position[globalOf[indices[3 * t + 2]]]) *
                                (1.0 / 3.0);
    for (const Spot& spot : spots)
      if (Length2(centroid - spot.centre) <= spot.radius * spot.radius) {
        keep[t] = 1;
        break;
      }
  }
}

// Flags the original triangles around each local point in `points`, so that the next
// pass keeps those points.
void KeepRings(Block& block, const std::vector<std::uint32_t>& points) {
  block.keep.resize(block.indices.size() / 3, 0);
  if (block.ringStart.empty()) {
    block.ringStart.assign(block.globalOf.size() + 1, 0);
    for (std::uint32_t v : block.indices) ++block.ringStart[v + 1];
    for (std::size_t v = 0; v < block.globalOf.size(); ++v) block.ringStart[v + 1] += block.ringStart[v];
    block.ringTriangles.resize(block.indices.size());
    std::vector<std::uint32_t> fill(block.ringStart.begin(), block.ringStart.end() - 1);
    for (std::size_t i = 0; i < block.indices.size(); ++i)
      block.ringTriangles[fill[block.indices[i]]++] = static_cast<std::uint32_t>(i / 3);
  }
  for (std::uint32_t v : points)
    for (std::uint32_t r = block.ringStart[v]; r < block.ringStart[v + 1]; ++r) block.keep[block.ringTriangles[r]] = 1;
}

}  // namespace ReduceDetail
