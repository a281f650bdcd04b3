#include "zor/services/reduce.h"

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
#include "zor/spatial/point_triangle_distance.h"
#include "zor/spatial/tree_property.h"

namespace {

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

TriangleKey MakeKey(std::uint32_t surface, std::uint32_t a, std::uint32_t b, std::uint32_t c) {
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

FlatMesh Flatten(MStlBase& mesh) {
  FlatMesh flat;
  flat.globalOfMask.assign(mesh.GetMasks().GetPointMaskSize(), kNone);
  std::vector<std::uint32_t>& globalOfMask = flat.globalOfMask;
  const MMVector3d centre(0.5 * (double(mesh.GetXMin()) + mesh.GetXMax()),
                          0.5 * (double(mesh.GetYMin()) + mesh.GetYMax()),
                          0.5 * (double(mesh.GetZMin()) + mesh.GetZMax()));
  const MStlFeature* list = mesh.GetSurfaceList();
  flat.cells.reserve(mesh.GetNumberOfTriangles());
  flat.corners.reserve(3 * mesh.GetNumberOfTriangles());
  flat.points.reserve(mesh.NumberOfPoints());
  flat.position.reserve(mesh.NumberOfPoints());
  flat.normals.reserve(mesh.NumberOfPoints());
  for (std::size_t s = 0; s < list->GetSurfaceCount(); ++s) {
    MStlSurface* surface = list->GetSurface(s);
    if (surface->GetFirstTriangle() == nullptr) continue;
    flat.surfaces.push_back(surface);
    flat.surfaceStart.push_back(static_cast<std::uint32_t>(flat.cells.size()));
    for (MStlTriangleCell* cell = surface->GetFirstTriangle(); cell != nullptr; cell = cell->next) {
      flat.cells.push_back(cell);
      const MMVector3d areaVector = cell->data.GetAreaVector();
      for (std::size_t k = 0; k < 3; ++k) {
        MStlPoint* p = cell->data.GetPoint(k);
        std::uint32_t& global = globalOfMask[p->GetMaskIndex()];
        if (global == kNone) {
          global = static_cast<std::uint32_t>(flat.points.size());
          flat.points.push_back(p);
          flat.position.push_back(p->GetDouble() - centre);
          flat.normals.emplace_back();
        }
        flat.normals[global] += areaVector;
        flat.corners.push_back(global);
      }
    }
  }
  flat.surfaceStart.push_back(static_cast<std::uint32_t>(flat.cells.size()));
  return flat;
}

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

// A triangle's centroid (three times it) as the split sorts it.
struct Centroid {
  float c[3];
  std::uint32_t triangle;
};

// Splits [first, last) of `items` at the median along the widest axis until each part
// has at most `limit`; parts are appended in order. Halves split in parallel.
void SplitBlocks(std::vector<Centroid>& items, std::size_t first, std::size_t last, std::size_t limit,
                 std::vector<std::pair<std::size_t, std::size_t>>& parts) {
  if (last - first <= limit) {
    parts.emplace_back(first, last);
    return;
  }
  float lo[3] = {items[first].c[0], items[first].c[1], items[first].c[2]};
  float hi[3] = {lo[0], lo[1], lo[2]};
  for (std::size_t i = first; i < last; ++i)
    for (int d = 0; d < 3; ++d) {
      lo[d] = std::min(lo[d], items[i].c[d]);
      hi[d] = std::max(hi[d], items[i].c[d]);
    }
  int axis = 0;
  for (int d = 1; d < 3; ++d)
    if (hi[d] - lo[d] > hi[axis] - lo[axis]) axis = d;
  const std::size_t middle = first + (last - first) / 2;
  // Ties go by triangle number, so the split does not depend on the order it starts from.
  std::nth_element(items.begin() + first, items.begin() + middle, items.begin() + last,
                   [axis](const Centroid& a, const Centroid& b) {
                     return a.c[axis] < b.c[axis] || (a.c[axis] == b.c[axis] && a.triangle < b.triangle);
                   });
  std::vector<std::pair<std::size_t, std::size_t>> upper;
  oneapi::tbb::parallel_invoke([&] { SplitBlocks(items, first, middle, limit, parts); },
                               [&] { SplitBlocks(items, middle, last, limit, upper); });
  parts.insert(parts.end(), upper.begin(), upper.end());
}

std::vector<Block> MakeBlocks(const FlatMesh& flat, std::size_t limit) {
  std::vector<Block> blocks;
  for (std::uint32_t s = 0; s + 1 < flat.surfaceStart.size(); ++s) {
    const std::uint32_t first = flat.surfaceStart[s], last = flat.surfaceStart[s + 1];
    std::vector<Centroid> items(last - first);
    std::vector<std::pair<std::size_t, std::size_t>> parts;
    oneapi::tbb::parallel_for(first, last, [&](std::uint32_t t) {
      const std::uint32_t* k = flat.CornersOf(t);
      const MMVector3d c = flat.position[k[0]] + flat.position[k[1]] + flat.position[k[2]];
      items[t - first] = Centroid{{float(c[0]), float(c[1]), float(c[2])}, t};
    });
    SplitBlocks(items, 0, items.size(), limit, parts);
    for (const auto& part : parts) {
      Block block;
      block.surface = s;
      block.triangles.reserve(part.second - part.first);
      for (std::size_t i = part.first; i < part.second; ++i) block.triangles.push_back(items[i].triangle);
      blocks.push_back(std::move(block));
    }
  }
  // Each block's triangles in mesh order, then its local numbering by first use, in
  // parallel: each thread keeps one mesh-wide lookup and clears what it used.
  oneapi::tbb::enumerable_thread_specific<std::vector<std::uint32_t>> lookups(
      [&] { return std::vector<std::uint32_t>(flat.points.size(), kNone); });
  oneapi::tbb::parallel_for(std::size_t(0), blocks.size(), [&](std::size_t b) {
    Block& block = blocks[b];
    std::sort(block.triangles.begin(), block.triangles.end());
    std::vector<std::uint32_t>& localOf = lookups.local();
    block.indices.reserve(3 * block.triangles.size());
    for (std::uint32_t t : block.triangles) {
      const std::uint32_t* c = flat.CornersOf(t);
      for (int k = 0; k < 3; ++k) {
        std::uint32_t& local = localOf[c[k]];
        if (local == kNone) {
          local = static_cast<std::uint32_t>(block.globalOf.size());
          block.globalOf.push_back(c[k]);
          const MMVector3d& q = flat.position[c[k]];
          block.positions.insert(block.positions.end(), {float(q[0]), float(q[1]), float(q[2])});
        }
        block.indices.push_back(local);
      }
    }
    for (std::uint32_t g : block.globalOf) localOf[g] = kNone;
    block.scale = meshopt_simplifyScale(block.positions.data(), block.globalOf.size(), 3 * sizeof(float));
  });
  return blocks;
}

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

// Twice the area over the longest edge; 0 for a degenerate triangle.
double SmallestAltitude(const MMVector3d& a, const MMVector3d& b, const MMVector3d& c) {
  const double longest = std::sqrt(std::max({Length2(b - a), Length2(c - b), Length2(a - c)}));
  return longest > 0.0 ? Length(Cross(b - a, c - a)) / longest : 0.0;
}

double LongestEdge(const MMVector3d& a, const MMVector3d& b, const MMVector3d& c) {
  return std::sqrt(std::max({Length2(b - a), Length2(c - b), Length2(a - c)}));
}

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
void ReduceBlock(const FlatMesh& flat, Block& block, double distance, std::int32_t maxPasses) {
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
  bool haveHeld = false;
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
  } else {
    keepOriginal();
    block.worst = 0.0;
    block.held = false;
  }
}

// One pass over the seams of a surface cut into blocks: the result triangles that touch
// a point shared by two blocks are simplified together (their outer outline locked),
// and checked against the original points whose nearest triangle they were, or that
// they dropped. Returns the surface's result, which is `merged` when no pass holds.
struct SeamOutcome {
  std::vector<std::uint32_t> result;
  double worst = 0.0;
  int passes = 0;
};

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

// The result (three mesh-wide points per triangle, per surface) against the mesh: the
// result's triangles in key order, which of them the mesh holds already, and which of
// the mesh's triangles (in flat order) stay.
struct Split {
  std::vector<TriangleKey> kept;
  std::vector<std::uint8_t> existing;  // per kept triangle
  std::vector<std::uint8_t> stays;     // per flat triangle
};

Split SplitResult(const FlatMesh& flat, const std::vector<std::vector<std::uint32_t>>& surfaceResults) {
  Split split;
  for (std::uint32_t s = 0; s < surfaceResults.size(); ++s) {
    const std::vector<std::uint32_t>& r = surfaceResults[s];
    for (std::size_t t = 0; t < r.size(); t += 3) split.kept.push_back(MakeKey(s, r[t], r[t + 1], r[t + 2]));
  }
  std::sort(split.kept.begin(), split.kept.end());
  split.existing.assign(split.kept.size(), 0);
  split.stays.assign(flat.cells.size(), 0);
  for (std::uint32_t s = 0; s + 1 < flat.surfaceStart.size(); ++s)
    for (std::uint32_t i = flat.surfaceStart[s]; i < flat.surfaceStart[s + 1]; ++i) {
      const std::uint32_t* c = flat.CornersOf(i);
      const TriangleKey key = MakeKey(s, c[0], c[1], c[2]);
      const auto at = std::lower_bound(split.kept.begin(), split.kept.end(), key);
      if (at != split.kept.end() && *at == key && split.existing[at - split.kept.begin()] == 0) {
        split.existing[at - split.kept.begin()] = 1;
        split.stays[i] = 1;
      }
    }
  return split;
}

// Writes the result into the mesh: new triangles first (so that the points they use
// keep a triangle throughout), then the old triangles that the result does not hold,
// with the points they leave without triangles.
void Apply(MStlBase& mesh, const FlatMesh& flat, const Split& split) {
  std::vector<MStlTriangleCell*> drop;
  for (std::size_t i = 0; i < flat.cells.size(); ++i)
    if (split.stays[i] == 0) drop.push_back(flat.cells[i]);
  MStlTempPointSortingDisabler batch(&mesh, true);
  for (std::size_t i = 0; i < split.kept.size(); ++i) {
    if (split.existing[i] != 0) continue;
    const TriangleKey& k = split.kept[i];
    mesh.AddTriangle(flat.points[k[1]], flat.points[k[2]], flat.points[k[3]], flat.surfaces[k[0]]);
  }
  mesh.RemoveTriangles(drop, MStlBase::RemoveFreePoints);
  mesh.UpdateExtremes(false);
}

// A new mesh equal to what Apply makes of a copy of `mesh`, down to the order of its
// points and triangles, built without copying what the result drops.
std::unique_ptr<MStlBase> BuildApplied(const MStlBase& mesh, const FlatMesh& flat, const Split& split) {
  std::vector<std::uint8_t> used(flat.points.size(), 0);
  std::size_t triangles = 0;
  for (std::size_t i = 0; i < split.kept.size(); ++i) {
    for (int k = 1; k < 4; ++k) used[split.kept[i][k]] = 1;
    ++triangles;
  }
  auto copy = std::make_unique<MStlBase>();
  copy->SetName(mesh.GetName());
  const std::size_t points =
      std::count(used.begin(), used.end(), std::uint8_t(1)) + (mesh.NumberOfPoints() - flat.points.size());
  copy->Reserve(points, triangles);
  {
    MStlTempPointSortingDisabler batch(copy.get(), true);
    // Points in list order: those the result uses and those no triangle used before.
    std::vector<MStlPoint*> pointOf(flat.points.size(), nullptr);
    for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
      const std::uint32_t global = flat.globalOfMask[p->GetMaskIndex()];
      if (global != kNone && used[global] == 0) continue;
      MStlPoint* added = copy->AddPoint(p->GetX(), p->GetY(), p->GetZ(), true);
      if (global != kNone) pointOf[global] = added;
    }
    const MStlFeature* list = mesh.GetSurfaceList();
    std::vector<MStlSurface*> surfaceOf(list->GetSurfaceCount());
    for (std::size_t s = 0; s < surfaceOf.size(); ++s) surfaceOf[s] = copy->AddSurface();
    // flat.surfaces skips empty surfaces; map its numbers onto the copy's.
    std::vector<MStlSurface*> flatSurface(flat.surfaces.size());
    for (std::size_t s = 0, f = 0; s < surfaceOf.size() && f < flat.surfaces.size(); ++s)
      if (list->GetSurface(s) == flat.surfaces[f]) flatSurface[f++] = surfaceOf[s];
    // The triangles that stay, in their order, then the new ones: Apply appends those
    // at the ends of their surfaces.
    for (std::uint32_t s = 0; s + 1 < flat.surfaceStart.size(); ++s)
      for (std::uint32_t i = flat.surfaceStart[s]; i < flat.surfaceStart[s + 1]; ++i) {
        if (split.stays[i] == 0) continue;
        const std::uint32_t* c = flat.CornersOf(i);
        copy->AddTriangle(pointOf[c[0]], pointOf[c[1]], pointOf[c[2]], flatSurface[s])
            ->data.SetMarked(flat.cells[i]->data.IsMarked());
      }
    for (std::size_t i = 0; i < split.kept.size(); ++i) {
      if (split.existing[i] != 0) continue;
      const TriangleKey& k = split.kept[i];
      copy->AddTriangle(pointOf[k[1]], pointOf[k[2]], pointOf[k[3]], flatSurface[k[0]]);
    }
    for (std::size_t f = 0; f < mesh.GetNumberOfFeatures(); ++f) {
      const MStlFeature* feature = mesh.GetFeature(f);
      MStlFeature* added = copy->AddFeature();
      for (std::size_t i = 0; i < feature->GetSurfaceCount(); ++i)
        for (std::size_t s = 0; s < surfaceOf.size(); ++s)
          if (list->GetSurface(s) == feature->GetSurface(i)) added->AddSurface(surfaceOf[s]);
    }
  }
  copy->UpdateExtremes(false);
  return copy;
}

}  // namespace

MStlBaseOperatorReduceEx<MStlBaseContainer>::MStlBaseOperatorReduceEx(MStlBaseContainer c, const MParams& p)
    : container(c), params(p) {}

bool MStlBaseOperatorReduceEx<MStlBaseContainer>::Operate() {
  std::unique_ptr<MStlBase> unused;
  return _Run(false, unused);
}

bool MStlBaseOperatorReduceEx<MStlBaseContainer>::OperateOnCopy(std::unique_ptr<MStlBase>& copy) {
  copy.reset();
  return _Run(true, copy);
}

bool MStlBaseOperatorReduceEx<MStlBaseContainer>::_Run(bool onCopy, std::unique_ptr<MStlBase>& copy) {
  MStlBase* mesh = container.GetStl();
  passesRun = 0;
  maxDeviation = 0.0;
  trianglesBefore = trianglesAfter = mesh != nullptr ? mesh->GetNumberOfTriangles() : 0;
  if (mesh == nullptr || !(params.distance >= 0.0) || !std::isfinite(params.distance) || params.maxPasses < 1)
    return false;
  if (trianglesBefore == 0) return true;

  const FlatMesh flat = Flatten(*mesh);
  std::vector<Block> blocks = MakeBlocks(flat, std::max<std::size_t>(params.blockTriangles, 1));
  oneapi::tbb::parallel_for(std::size_t(0), blocks.size(),
                            [&](std::size_t b) { ReduceBlock(flat, blocks[b], params.distance, params.maxPasses); });

  bool allHeld = true;
  std::size_t blockTriangles = 0, offered = 0;
  for (const Block& b : blocks) {
    allHeld = allHeld && b.held;
    blockTriangles += b.result.size() / 3;
    offered += b.offered;
    passesRun = std::max<std::int32_t>(passesRun, b.passes);
  }
  // Too little to gain even unchecked: there was nothing worth removing. Too
  // little left after the checks: the bound cost the gain, and blocks that never held
  // say so in the result.
  const double minGain = std::max(0.0, params.minGainPercent) * 0.01 * double(trianglesBefore);
  if (double(offered) < minGain) return true;
  if (double(trianglesBefore - blockTriangles) < minGain || blockTriangles == trianglesBefore) return allHeld;

  // Surfaces cut into blocks get a pass over their seams, at the tightest target any of
  // their blocks ended with; surfaces run in parallel.
  std::vector<std::vector<const Block*>> ofSurface(flat.surfaces.size());
  for (const Block& b : blocks) ofSurface[b.surface].push_back(&b);
  std::vector<SeamOutcome> seams(flat.surfaces.size());
  oneapi::tbb::parallel_for(std::size_t(0), flat.surfaces.size(), [&](std::size_t s) {
    double factor = kLargestFactor;
    for (const Block* b : ofSurface[s]) factor = std::min(factor, b->factor);
    seams[s] = ReduceSeams(flat, ofSurface[s], params.distance, factor);
  });
  for (const Block& b : blocks) maxDeviation = std::max(maxDeviation, b.worst);
  blocks.clear();
  std::vector<std::vector<std::uint32_t>> surfaceResults(flat.surfaces.size());
  for (std::size_t s = 0; s < seams.size(); ++s) {
    surfaceResults[s] = std::move(seams[s].result);
    maxDeviation = std::max(maxDeviation, seams[s].worst);
  }
  const Split split = SplitResult(flat, surfaceResults);
  if (onCopy) {
    copy = BuildApplied(*mesh, flat, split);
    trianglesAfter = copy->GetNumberOfTriangles();
  } else {
    Apply(*mesh, flat, split);
    trianglesAfter = mesh->GetNumberOfTriangles();
  }
  return allHeld;
}
