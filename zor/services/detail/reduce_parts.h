#pragma once
// The parts of the mesh reduction (MStlBaseOperatorReduceEx) that its files share: the
// flat mesh and its blocks (reduce_blocks.cpp), the engine run and the check of a
// candidate (reduce_check.cpp), a block's passes and the seams between blocks
// (reduce_passes.cpp), and the result applied to the mesh (reduce_apply.cpp).

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "zor/model/mm_vector.h"
#include "zor/model/stl_base.h"

namespace ReduceDetail {

constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
// The engine's first target, as a share of the bound. Its averaged measure runs at
// about half the worst vertex distance, so a target near half the bound would mostly
// hold; 0.15 keeps the result well inside the bound, close to the surface, which the
// shape analyses that run on reduced meshes need (between 0.25 and 0.4 their choice
// among near-symmetric poses went wrong on some featured bodies), and it is cheaper
// too: the engine stops after fewer rounds.
constexpr double kFirstFactor = 0.15;
// On a noisy surface the engine measures the noise, and a target below it removes
// little. A block's noise (see Noise) sets a floor under the target: kNoiseTargets
// times the noise, at most kLargestFactor of the bound. Outliers of the noise that then
// miss the bound keep their triangles (below). Measured on a 400k-triangle body with
// 30 and 60 um of noise: 8 times leaves 12k and 18k triangles where 4 times left 50k
// and 47k; a cap above 0.8 leaves more, since more points then miss the bound.
constexpr double kNoiseTargets = 8.0;
constexpr double kLargestFactor = 0.8;
// Blocks whose mean edge is longer than this many bounds count as smooth (see Noise):
// the spread that curvature leaves grows with the square of the edge, and at 4 bounds
// it already widened the target on clean featured bodies of 100k triangles.
constexpr double kNoiseEdges = 1.5;
// A block noisier than this share of the bound is left as it is. The measure runs at
// 0.6 of the noise's standard deviation, so this is noise of a third of the bound,
// which puts one point in a hundred beyond the bound of any smooth surface; each keeps
// its triangles, new ones miss the bound on the next pass, and the passes gain little
// (measured on a 400k-triangle body: noise of 115 um lost 62% of the triangles in
// 0.7 s, noise of 200 um 29% in 0.75 s; the registration after ran faster on the
// whole mesh).
constexpr double kHopelessNoise = 0.2;
// Points beyond the bound are repaired by keeping the original triangles around each
// (so the point stays), as long as they are at most this share of the block's points.
constexpr double kMaxFarShare = 0.1;
// Violations a pass repairs where they are (by keeping the original triangles about
// them) rather than by tightening the target of the whole block.
constexpr std::size_t kMaxSpots = 64;
// The ball kept about a violation, in longest edges of the triangle that failed there.
constexpr double kSpotEdges = 0.6;
// Rounds of the pass over the seams between blocks; when none holds, the seams keep
// the points the blocks locked.
constexpr int kSeamPasses = 3;

using TriangleKey = std::array<std::uint32_t, 4>;  // surface, then corners from the smallest, winding kept

inline TriangleKey MakeKey(std::uint32_t surface, std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  if (b < a && b < c) return {surface, b, c, a};
  if (c < a && c < b) return {surface, c, a, b};
  return {surface, a, b, c};
}

// The mesh as flat arrays: every point that a triangle uses, numbered by first use in
// surface order, and every triangle's corners in those numbers, surface by surface.
struct FlatMesh {
  // The corners of triangle `t`.
  const std::uint32_t* CornersOf(std::size_t t) const { return &corners[3 * t]; }

  std::vector<MStlPoint*> points;
  std::vector<MMVector3d> position;  // of each point, relative to the mesh centre
  std::vector<MMVector3d> normals;   // sum of the original area vectors around each point
  std::vector<MStlSurface*> surfaces;
  std::vector<std::uint32_t> surfaceStart;  // first triangle of each surface, then the count
  std::vector<MStlTriangleCell*> cells;
  std::vector<std::uint32_t> corners;       // three points per triangle
  std::vector<std::uint32_t> globalOfMask;  // point mask index -> point number; kNone for free points
};

// A spatial block of one surface, simplified on its own with its outline locked, so
// that blocks run in parallel and a block that misses the bound is redone alone.
struct Block {
  std::uint32_t surface = 0;
  std::vector<std::uint32_t> triangles;  // mesh-wide triangle numbers, ascending
  std::vector<std::uint32_t> globalOf;   // local vertex -> mesh-wide point
  std::vector<float> positions;          // local vertices
  std::vector<std::uint32_t> indices;    // three local vertices per triangle
  float scale = 0.0f;                    // the engine's measure of the block's extent
  std::vector<std::uint8_t> keep;        // per triangle: kept as it is (a repaired spot)
  std::vector<std::uint32_t> ringStart;  // per local vertex, into ringTriangles; built when first needed
  std::vector<std::uint32_t> ringTriangles;
  std::vector<std::uint32_t> result;   // three mesh-wide points per result triangle
  std::vector<std::uint32_t> nearest;  // per local vertex: nearest result triangle; kNone on the result
  double worst = 0.0;
  double factor = kFirstFactor;  // the target of the result, as a share of the bound
  std::size_t offered = 0;       // most triangles that any pass would have removed
  int passes = 0;
  bool held = true;
};

// A place where a candidate failed: a ball around it within which the original
// triangles are kept on the next pass.
struct Spot {
  MMVector3d centre;
  double radius = 0.0;
};

struct Check {
  std::size_t violations = 0;
  double worstDistance = 0.0;              // greatest vertex distance found (unbounded for violators)
  std::vector<Spot> spots;                 // up to kMaxSpots + 1 of the violations, in a fixed order
  std::vector<std::uint32_t> far;          // entries of the measured points beyond the bound
  std::vector<Spot> foldSpots;             // up to kMaxSpots + 1 of the new triangles that fold
  std::vector<std::uint32_t> foldCorners;  // their corners (mesh-wide points)
};

// One pass over the seams of a surface cut into blocks: the result triangles that touch
// a point shared by two blocks are simplified together (their outer outline locked),
// and checked against the original points whose nearest triangle they were, or that
// they dropped. Returns the surface's result, which is `merged` when no pass holds.
struct SeamOutcome {
  std::vector<std::uint32_t> result;
  double worst = 0.0;
  int passes = 0;
};

// The result (three mesh-wide points per triangle, per surface) against the mesh: the
// result's triangles in key order, which of them the mesh holds already, and which of
// the mesh's triangles (in flat order) stay.
struct Split {
  std::vector<TriangleKey> kept;
  std::vector<std::uint8_t> existing;  // per kept triangle
  std::vector<std::uint8_t> stays;     // per flat triangle
};

// Flags the candidate triangles that are source triangles as they were (same surface,
// corners and winding). Only the candidate, which is small, is sorted.
template <typename KeyOf>
std::vector<std::uint8_t> Untouched(const std::vector<std::uint32_t>& corners, std::uint32_t surface,
                                    std::size_t sourceCount, KeyOf keyOf) {
  std::vector<std::pair<TriangleKey, std::uint32_t>> keys(corners.size() / 3);
  for (std::size_t t = 0; t < keys.size(); ++t)
    keys[t] = {MakeKey(surface, corners[3 * t], corners[3 * t + 1], corners[3 * t + 2]), std::uint32_t(t)};
  std::sort(keys.begin(), keys.end());
  std::vector<std::uint8_t> untouched(keys.size(), 0);
  for (std::size_t i = 0; i < sourceCount; ++i) {
    const TriangleKey key = keyOf(i);
    auto at = std::lower_bound(keys.begin(), keys.end(), std::make_pair(key, std::uint32_t(0)));
    for (; at != keys.end() && at->first == key; ++at) untouched[at->second] = 1;
  }
  return untouched;
}

FlatMesh Flatten(MStlBase& mesh);

std::vector<Block> MakeBlocks(const FlatMesh& flat, std::size_t limit);

// Simplifies `indices` (local vertices) with the engine target `target` (internal
// units) and border vertices locked, except the triangles flagged in `keep`, which stay
// as they are; their corners are a border to the engine, so the rest fits them.
// Returns the result in mesh-wide points.
std::vector<std::uint32_t> Simplify(const std::vector<std::uint32_t>& indices, const std::vector<std::uint8_t>& keep,
                                    const std::vector<std::uint32_t>& globalOf, const std::vector<float>& positions,
                                    float scale, double target);

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
             std::vector<std::uint32_t>& nearest);

// Flags every triangle (three local vertices each) whose centroid lies in one of `spots`.
void KeepAround(const std::vector<std::uint32_t>& indices, const std::vector<std::uint32_t>& globalOf,
                const FlatMesh& flat, const std::vector<Spot>& spots, std::vector<std::uint8_t>& keep);

// Flags the original triangles around each local point in `points`, so that the next
// pass keeps those points.
void KeepRings(Block& block, const std::vector<std::uint32_t>& points);

// The noise of a block's surface: the RMS, over its points, of the spread of their
// neighbours' distances from the plane through the point across its normal. A smooth
// surface bends all neighbours the same way by about the same amount, so the spread
// keeps little of its curvature; noise moves each neighbour on its own. Blocks with
// edges longer than kNoiseEdges bounds count as smooth: there the spread is mostly
// curvature.
double Noise(const FlatMesh& flat, const Block& block, double distance);

// Reduces one block: simplify and check, repairing a few violations where they are and
// tightening the target otherwise; a block limited by noise finer than the bound gets a
// wider target. A block that never holds keeps its triangles, and so does one where a
// pass that missed the bound removed less than `minGainShare` of them (it counts as
// held: there was too little worth removing).
void ReduceBlock(const FlatMesh& flat, Block& block, double distance, std::int32_t maxPasses, double minGainShare);

SeamOutcome ReduceSeams(const FlatMesh& flat, const std::vector<const Block*>& blocks, double distance, double factor);

Split SplitResult(const FlatMesh& flat, const std::vector<std::vector<std::uint32_t>>& surfaceResults);

// Writes the result into the mesh: new triangles first (so that the points they use
// keep a triangle throughout), then the old triangles that the result does not hold,
// with the points they leave without triangles.
void Apply(MStlBase& mesh, const FlatMesh& flat, const Split& split);

// A new mesh equal to what Apply makes of a copy of `mesh`, down to the order of its
// points and triangles, built without copying what the result drops.
std::unique_ptr<MStlBase> BuildApplied(const MStlBase& mesh, const FlatMesh& flat, const Split& split);

}  // namespace ReduceDetail
