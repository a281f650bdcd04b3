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

// The noise of a block's surface: the RMS, over its points, of the spread of their
// neighbours' distances from the plane through the point across its normal. A smooth
// surface bends all neighbours the same way by about the same amount, so the spread
// keeps little of its curvature; noise moves each neighbour on its own. Blocks with
// edges longer than kNoiseEdges bounds count as smooth: there the spread is mostly
// curvature.
double Noise(const FlatMesh& flat, const Block& block, double distance) {
  const std::size_t points = block.globalOf.size();
  std::vector<double> sum(points, 0.0), sum2(points, 0.0);
  std::vector<std::uint32_t> count(points, 0);
  double edges = 0.0;
  for (std::size_t t = 0; t < block.indices.size(); t += 3) {
    const std::uint32_t* local = &block.indices[t];
    for (int k = 0; k < 3; ++k) {
      const std::uint32_t g = block.globalOf[local[k]];
      const MMVector3d& p = flat.position[g];
      edges += Length(flat.position[block.globalOf[local[(k + 1) % 3]]] - p);
      const double length = Length(flat.normals[g]);
      if (!(length > 0.0)) continue;
      for (int j = 1; j < 3; ++j) {
        const double d = Dot(flat.position[block.globalOf[local[(k + j) % 3]]] - p, flat.normals[g]) / length;
        sum[local[k]] += d;
        sum2[local[k]] += d * d;
        ++count[local[k]];
      }
    }
  }
  if (block.indices.empty() || !(edges / double(block.indices.size()) < kNoiseEdges * distance)) return 0.0;
  double variance = 0.0;
  std::size_t measured = 0;
  for (std::size_t v = 0; v < points; ++v) {
    if (count[v] < 2) continue;
    const double mean = sum[v] / count[v];
    variance += std::max(0.0, sum2[v] / count[v] - mean * mean);
    ++measured;
  }
  return measured > 0 ? std::sqrt(variance / double(measured)) : 0.0;
}

// Reduces one block: simplify and check, repairing a few violations where they are and
// tightening the target otherwise; a block limited by noise finer than the bound gets a
// wider target. A block that never holds keeps its triangles.
void ReduceBlock(const FlatMesh& flat, Block& block, double distance, std::int32_t maxPasses, double minGainShare) {
  const auto keepOriginal = [&] {
    block.result.clear();
    for (std::uint32_t t : block.triangles)
      block.result.insert(block.result.end(), flat.CornersOf(t), flat.CornersOf(t) + 3);
    block.nearest.assign(block.globalOf.size(), kNone);
  };
  const double noise = Noise(flat, block, distance);
  if (noise > kHopelessNoise * distance) {
    keepOriginal();  // nothing the bound lets go of
    block.passes = 1;
    return;
  }
  double factor =
      std::max(kFirstFactor, distance > 0.0 ? std::min(kLargestFactor, kNoiseTargets * noise / distance) : 0.0);
  bool haveHeld = false, notWorthIt = false;
  std::vector<std::uint32_t> nearest;
  for (block.passes = 1; block.passes <= maxPasses; ++block.passes) {
    std::vector<std::uint32_t> result =
        Simplify(block.indices, block.keep, block.globalOf, block.positions, block.scale, distance * factor);
    block.offered = std::max(block.offered, (block.indices.size() - result.size()) / 3);
    Check check;
    if (result.size() == block.indices.size()) {
      nearest.assign(block.globalOf.size(), kNone);  // nothing removed: the block as it was
      result.clear();
      for (std::uint32_t t : block.triangles) result.insert(result.end(), flat.CornersOf(t), flat.CornersOf(t) + 3);
    } else {
      const auto keyOf = [&](std::size_t i) {
        const std::uint32_t* c = flat.CornersOf(block.triangles[i]);
        return MakeKey(block.surface, c[0], c[1], c[2]);
      };
      check = Verify(flat, result, Untouched(result, block.surface, block.triangles.size(), keyOf), block.globalOf,
                     distance, nearest);
    }
    if (check.violations == 0) {
      block.result = std::move(result);
      block.nearest = std::move(nearest);
      block.worst = check.worstDistance;
      haveHeld = true;
      break;
    }
    // Every later pass keeps more or aims tighter, and so removes less: once a pass
    // that missed the bound removed too little to be worth a rewrite, the block keeps
    // its triangles now instead of after its last pass (a surface whose noise is as
    // large as its edges would run every pass for a percent or two).
    if (double(block.indices.size() - result.size()) < minGainShare * double(block.indices.size())) {
      notWorthIt = true;
      break;
    }
    // Violations are repaired where they are, and the block runs again at the same
    // target: points beyond the bound keep the original triangles around them, and a
    // few folds keep the original triangles in a ball about them. Too many, and the
    // target tightens in proportion to the overshoot (halves when only orientation
    // failed).
    if (double(check.far.size()) <= kMaxFarShare * double(block.globalOf.size()) &&
        check.foldSpots.size() <= kMaxSpots) {
      const auto kept = [&] { return std::count(block.keep.begin(), block.keep.end(), std::uint8_t{1}); };
      const auto keptBefore = kept();
      KeepRings(block, check.far);
      // A fold keeps the original triangles in a ball about it and around its corners:
      // the ball alone can miss every original triangle when the fold cuts a corner.
      std::vector<std::uint32_t> corners;
      for (std::uint32_t g : check.foldCorners) {
        const auto at = std::find(block.globalOf.begin(), block.globalOf.end(), g);
        if (at != block.globalOf.end()) corners.push_back(static_cast<std::uint32_t>(at - block.globalOf.begin()));
      }
      KeepRings(block, corners);
      KeepAround(block.indices, block.globalOf, flat, check.foldSpots, block.keep);
      if (kept() > keptBefore) continue;  // else nothing new to keep: tighten below
    }
    factor *= check.worstDistance > distance ? 0.9 * distance / check.worstDistance : 0.5;
  }
  block.factor = factor;
  block.passes = std::min<int>(block.passes, maxPasses);
  if (haveHeld) {
    block.held = true;
  } else if (notWorthIt) {
    keepOriginal();  // which holds the bound
    block.worst = 0.0;
    block.held = true;
  } else {
    keepOriginal();
    block.worst = 0.0;
    block.held = false;
  }
}

SeamOutcome ReduceSeams(const FlatMesh& flat, const std::vector<const Block*>& blocks, double distance, double factor) {
  SeamOutcome out;
  std::vector<std::uint32_t> merged;
  std::vector<std::uint32_t> firstTriangle;  // per block: its first triangle in `merged`
  for (const Block* b : blocks) {
    firstTriangle.push_back(static_cast<std::uint32_t>(merged.size() / 3));
    merged.insert(merged.end(), b->result.begin(), b->result.end());
  }
  out.result = merged;
  if (blocks.size() < 2) return out;

  // Per point: held by a block, held by more than one (shared), to be measured again.
  constexpr std::uint8_t kHeld = 1, kShared = 2, kMeasure = 4;
  std::vector<std::uint8_t> state(flat.points.size(), 0);
  for (const Block* b : blocks)
    for (std::uint32_t g : b->globalOf) state[g] |= (state[g] & kHeld) != 0 ? kShared : kHeld;
  const auto isShared = [&](std::uint32_t g) { return (state[g] & kShared) != 0; };
  // The seam strip: merged triangles with a shared corner.
  std::vector<std::uint8_t> inStrip(merged.size() / 3, 0);
  std::vector<std::uint32_t> stripTriangles;
  for (std::size_t t = 0; t < inStrip.size(); ++t)
    if (isShared(merged[3 * t]) || isShared(merged[3 * t + 1]) || isShared(merged[3 * t + 2])) {
      inStrip[t] = 1;
      stripTriangles.push_back(static_cast<std::uint32_t>(t));
    }
  if (stripTriangles.empty()) return out;
  std::vector<std::uint32_t> globalOf, indices;
  std::vector<float> positions;
  {
    std::vector<std::uint32_t> stripPoints;
    for (std::size_t t : stripTriangles) stripPoints.insert(stripPoints.end(), &merged[3 * t], &merged[3 * t] + 3);
    globalOf = stripPoints;
    std::sort(globalOf.begin(), globalOf.end());
    globalOf.erase(std::unique(globalOf.begin(), globalOf.end()), globalOf.end());
    for (std::uint32_t g : stripPoints)
      indices.push_back(
          static_cast<std::uint32_t>(std::lower_bound(globalOf.begin(), globalOf.end(), g) - globalOf.begin()));
    for (std::uint32_t g : globalOf)
      positions.insert(positions.end(),
                       {float(flat.position[g][0]), float(flat.position[g][1]), float(flat.position[g][2])});
  }
  const float scale = meshopt_simplifyScale(positions.data(), globalOf.size(), 3 * sizeof(float));

  // The original points to measure again: those whose nearest triangle lies in the
  // strip, and the strip's own points (which the strip may drop); in point order.
  for (std::uint32_t g : globalOf) state[g] |= kMeasure;
  for (std::size_t b = 0; b < blocks.size(); ++b) {
    const Block& block = *blocks[b];
    for (std::size_t v = 0; v < block.globalOf.size(); ++v)
      if (block.nearest[v] != kNone && inStrip[firstTriangle[b] + block.nearest[v]] != 0)
        state[block.globalOf[v]] |= kMeasure;
  }
  std::vector<std::uint32_t> measure;
  for (std::uint32_t g = 0; g < state.size(); ++g)
    if ((state[g] & kMeasure) != 0) measure.push_back(g);

  const std::uint32_t surface = blocks.front()->surface;
  const auto stripKey = [&](std::size_t i) {
    const std::uint32_t* c = &merged[3 * std::size_t(stripTriangles[i])];
    return MakeKey(surface, c[0], c[1], c[2]);
  };

  std::vector<std::uint8_t> keep;
  std::vector<std::uint32_t> nearest;
  for (out.passes = 1; out.passes <= kSeamPasses; ++out.passes) {
    const std::vector<std::uint32_t> strip = Simplify(indices, keep, globalOf, positions, scale, distance * factor);
    if (strip.size() == indices.size()) break;  // nothing to gain
    std::vector<std::uint32_t> candidate;
    for (std::size_t t = 0; t < inStrip.size(); ++t)
      if (inStrip[t] == 0) candidate.insert(candidate.end(), &merged[3 * t], &merged[3 * t] + 3);
    candidate.insert(candidate.end(), strip.begin(), strip.end());
    // Triangles outside the strip and those the strip kept were checked with their blocks.
    std::vector<std::uint8_t> untouched(candidate.size() / 3, 1);
    const std::vector<std::uint8_t> stripUntouched = Untouched(strip, surface, stripTriangles.size(), stripKey);
    std::copy(stripUntouched.begin(), stripUntouched.end(), untouched.end() - stripUntouched.size());
    const Check check = Verify(flat, candidate, untouched, measure, distance, nearest);
    if (check.violations == 0) {
      out.result = std::move(candidate);
      out.worst = check.worstDistance;
      break;
    }
    if (check.spots.size() > kMaxSpots) break;
    KeepAround(indices, globalOf, flat, check.spots, keep);
  }
  out.passes = std::min(out.passes, kSeamPasses);
  return out;
}

}  // namespace ReduceDetail
