#pragma once
// The nearest object of an M3DObjectTree to a point, within an optional radius: a
// depth-first descent, nearest child box first, pruned with squared distances. The
// descent is written once; an object-distance policy (by object index) makes the
// variants: sample points, mesh points, triangles, and triangles filtered by normal.
//
// Order of the search, which decides ties: children are visited by ascending box
// distance (equal distances: the later child of a pair goes first, see ChildOrder);
// a child is skipped, with all later ones, unless the best squared distance so far is
// strictly greater than its box distance; a leaf is scanned in object order and only a
// strictly smaller distance replaces the best. So of two objects at the same distance
// the first met wins, and an object exactly at the radius is not found.
//
// Threading: a search keeps its state on the caller's stack and only reads the tree;
// any number of searches may run on one tree at once.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "zor/spatial/m3d_object_tree.h"
#include "zor/spatial/point_triangle_distance.h"

namespace MeshQueries {

inline constexpr std::uint32_t kNoObject = 0xFFFFFFFFu;

// Coordinate k of a point object, as a double (found by argument-dependent lookup for
// other point object types).
inline double PointCoordinate(const MeshVertex& v, int k) { return static_cast<double>(v.coords[k]); }

namespace detail {

// Per axis only one of (query - maximum) and (minimum - query) can be positive in a
// non-empty box, so the sum of the six clamped squares is the sum over the axes of
// max(0, query - maximum, minimum - query) squared. A NaN query gives NaN, which
// prunes every child.
template <typename Box>
inline double BoxDistance2(const Box& box, const double* q) {
#if defined(__SSE2__)
  if constexpr (std::is_same_v<std::decay_t<decltype(box.minCorner[0])>, std::int32_t>) {
    // x and y in one register; integer bounds widen exactly to double.
    std::int64_t minXY, maxXY;
    std::memcpy(&minXY, &box.minCorner[0], 8);
    std::memcpy(&maxXY, &box.maxCorner[0], 8);
    const __m128d lo = _mm_cvtepi32_pd(_mm_cvtsi64_si128(minXY));
    const __m128d hi = _mm_cvtepi32_pd(_mm_cvtsi64_si128(maxXY));
    const __m128d p = _mm_loadu_pd(q);
    // _mm_max_pd returns its second operand when either is NaN: keep NaN second.
    __m128d t = _mm_max_pd(_mm_sub_pd(lo, p), _mm_sub_pd(p, hi));
    t = _mm_max_pd(_mm_setzero_pd(), t);
    t = _mm_mul_pd(t, t);
    double tz = std::max(static_cast<double>(box.minCorner[2]) - q[2], q[2] - static_cast<double>(box.maxCorner[2]));
    tz = tz < 0.0 ? 0.0 : tz;
    return (_mm_cvtsd_f64(t) + _mm_cvtsd_f64(_mm_unpackhi_pd(t, t))) + tz * tz;
  }
  if constexpr (std::is_same_v<std::decay_t<decltype(box.minCorner[0])>, double>) {
    // The same operations on x and y at once, in the order of the loop below.
    const __m128d lo = _mm_loadu_pd(&box.minCorner[0]);
    const __m128d hi = _mm_loadu_pd(&box.maxCorner[0]);
    const __m128d p = _mm_loadu_pd(q);
    __m128d t = _mm_max_pd(_mm_sub_pd(lo, p), _mm_sub_pd(p, hi));
    t = _mm_max_pd(_mm_setzero_pd(), t);
    t = _mm_mul_pd(t, t);
    double tz = std::max(box.minCorner[2] - q[2], q[2] - box.maxCorner[2]);
    tz = tz < 0.0 ? 0.0 : tz;
    return (_mm_cvtsd_f64(t) + _mm_cvtsd_f64(_mm_unpackhi_pd(t, t))) + tz * tz;
  }
#endif
  double sum = 0.0;
  for (int k = 0; k < 3; ++k) {
    double t = std::max(static_cast<double>(box.minCorner[k]) - q[k], q[k] - static_cast<double>(box.maxCorner[k]));
    t = t < 0.0 ? 0.0 : t;
    sum += t * t;
  }
  return sum;
}

// Visit order of a child group: ascending box distance; of two equal distances the
// later child goes first, except that child 0 goes before an equal child 2 when child
// 1 is farther than both. Branch-free: five comparisons index a table.
inline const std::uint8_t* ChildOrder(std::uint32_t count, const double* d) {
  static constexpr std::uint8_t kTwo[2][3] = {{0, 1, 2}, {1, 0, 2}};
  // Index bits: 16 d1 <= d0, 8 d1 <= d2, 4 d2 <= d0, 2 d2 <= d1, 1 d2 < d0.
  static constexpr std::uint8_t kThree[32][3] = {
      {0, 1, 2}, {0, 1, 2}, {0, 2, 1}, {2, 0, 1}, {0, 1, 2}, {0, 1, 2}, {0, 2, 1}, {2, 0, 1},
      {0, 1, 2}, {0, 1, 2}, {0, 2, 1}, {2, 0, 1}, {0, 1, 2}, {0, 1, 2}, {0, 2, 1}, {2, 0, 1},
      {2, 1, 0}, {2, 1, 0}, {2, 1, 0}, {2, 1, 0}, {2, 1, 0}, {2, 1, 0}, {2, 1, 0}, {2, 1, 0},
      {1, 0, 2}, {1, 0, 2}, {1, 0, 2}, {1, 0, 2}, {1, 2, 0}, {1, 2, 0}, {1, 2, 0}, {1, 2, 0}};
  if (count == 2) return kTwo[d[1] <= d[0]];
  const unsigned index = (unsigned(d[1] <= d[0]) << 4) | (unsigned(d[1] <= d[2]) << 3) | (unsigned(d[2] <= d[0]) << 2) |
                         (unsigned(d[2] <= d[1]) << 1) | unsigned(d[2] < d[0]);
  return kThree[index];
}

// Whether a search prefetches the nodes and leaves it is about to visit: yes, unless
// the distance policy says its tree sits in the cache (kTreeInCache true).
template <typename ObjectDistance, typename = void>
struct TreeInCache : std::false_type {};
template <typename ObjectDistance>
struct TreeInCache<ObjectDistance, std::void_t<decltype(ObjectDistance::kTreeInCache)>>
    : std::bool_constant<ObjectDistance::kTreeInCache> {};
template <typename ObjectDistance>
constexpr bool PrefetchesTree() {
  return !TreeInCache<ObjectDistance>::value;
}

// Whether a distance policy computes four consecutive distances at once (Four(i, d)).
template <typename ObjectDistance, typename = void>
struct ComputesFour : std::false_type {};
template <typename ObjectDistance>
struct ComputesFour<ObjectDistance, std::void_t<decltype(std::declval<const ObjectDistance&>().Four(
                                        std::uint32_t{}, static_cast<double*>(nullptr)))>> : std::true_type {};

// The state of one search: the bound to beat and the best object so far.
template <typename ObjectDistance>
struct NearestQuery {
  const ObjectDistance* distance;  // object distance by index, and the query point
  const double* query;             // three doubles
  double bestDistance2;
  std::uint32_t best = kNoObject;

  void ScanLeaf(std::uint32_t begin, std::uint32_t end) {
    // Four distances at a time for instruction-level parallelism; the comparisons run
    // in object order as in the plain loop, and select without a branch: which object
    // of a leaf is nearest is unpredictable, and a mispredicted branch per better object
    // would cost more than the distances. The bound lives in registers for the scan:
    // the objects are doubles too, and the compiler would otherwise reload it after
    // every object read.
    double bound2 = bestDistance2;
    std::uint32_t nearest = best;
    const auto take = [&](double d, std::uint32_t i) {
      const std::uint32_t nearer = bound2 > d ? ~std::uint32_t{0} : 0u;
      nearest = (nearest & ~nearer) | (i & nearer);
      bound2 = d < bound2 ? d : bound2;  // a NaN distance never replaces the bound
    };
    std::uint32_t i = begin;
    for (; i + 4 <= end; i += 4) {
      double d[4];
      if constexpr (ComputesFour<ObjectDistance>::value) {
        distance->Four(i, d);
      } else {
        d[0] = (*distance)(i), d[1] = (*distance)(i + 1), d[2] = (*distance)(i + 2), d[3] = (*distance)(i + 3);
      }
      take(d[0], i);
      take(d[1], i + 1);
      take(d[2], i + 2);
      take(d[3], i + 3);
    }
    for (; i < end; ++i) take((*distance)(i), i);
    bestDistance2 = bound2;
    best = nearest;
  }

  // Searches the group `children` of a node holding [begin, end); recursion for every
  // child but the last, which continues in the loop.
  template <typename Node>
  void Descend(const Node* children, std::uint32_t begin, std::uint32_t end) {
    for (;;) {
      if (children == nullptr) {
        ScanLeaf(begin, end);
        return;
      }
      const std::uint32_t count = children[0].firstObject;
      double d[3] = {0.0, 0.0, 0.0};
      std::uint32_t starts[4];
      d[0] = BoxDistance2(children[0].box, query);
      d[1] = BoxDistance2(children[1].box, query);
      starts[0] = begin;
      starts[1] = children[1].firstObject;
      if (count == 3) {
        d[2] = BoxDistance2(children[2].box, query);
        starts[2] = children[2].firstObject;
        starts[3] = end;
      } else {
        starts[2] = end;
      }
      // Fetch what the children lead to while the order is settled: a search on a large
      // tree is bound by cache misses, one per level without this.
      if constexpr (PrefetchesTree<ObjectDistance>())
        for (std::uint32_t k = 0; k < count; ++k) {
          if (!(bestDistance2 > d[k])) continue;
          if (const Node* grandChildren = children[k].children) {
            __builtin_prefetch(grandChildren);
            __builtin_prefetch(reinterpret_cast<const char*>(grandChildren) + 64);
          } else {
            distance->Prefetch(starts[k], starts[k + 1]);
          }
        }
      const std::uint8_t* order = ChildOrder(count, d);
      const Node* next = nullptr;
      for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t k = order[i];
        if (!(bestDistance2 > d[k])) return;
        if (i + 1 < count) {
          Descend(children[k].children, starts[k], starts[k + 1]);
        } else {
          next = children[k].children;
          begin = starts[k];
          end = starts[k + 1];
        }
      }
      children = next;
    }
  }
};

}  // namespace detail

// Index of the nearest object of `tree` by `distance` (see the policies below) within
// the squared bound `bestDistance2`, or kNoObject. On success the bound becomes the
// object's squared distance.
template <typename Tree, typename ObjectDistance>
std::uint32_t NearestObjectIndex(const Tree& tree, const ObjectDistance& distance, double& bestDistance2) {
  detail::NearestQuery<ObjectDistance> search{&distance, distance.Query(), bestDistance2};
  const auto& root = tree.GetRoot();
  search.Descend(root.children, 0, static_cast<std::uint32_t>(tree.GetObjects().size()));
  bestDistance2 = search.bestDistance2;
  return search.best;
}

// Squared bound of a search radius: +infinity stays, a radius of 0 finds nothing, and
// so does a negative or NaN radius.
inline double SquaredSearchBound(double radius) { return radius > 0.0 ? radius * radius : 0.0; }

// The nearest object within `radius` (+infinity: unbounded), or null. On success
// `radius` becomes the object's distance; otherwise it is left as it was.
template <typename Tree, typename ObjectDistance>
const typename Tree::object_type* Nearest(const Tree& tree, const ObjectDistance& distance, double& radius) {
  double bound2 = SquaredSearchBound(radius);
  const std::uint32_t index = NearestObjectIndex(tree, distance, bound2);
  if (index == kNoObject) return nullptr;
  radius = std::sqrt(bound2);
  return &tree.GetObjects()[index];
}

// Distance policies: Query() gives the point, operator()(i) the squared distance of
// object i of the tree, Prefetch(begin, end) starts loading the data of a leaf.

inline void PrefetchBytes(const void* first, std::size_t bytes) {
  const char* p = static_cast<const char*>(first);
  for (std::size_t offset = 0; offset < bytes; offset += 64) __builtin_prefetch(p + offset);
}

// Point objects (mesh points, sample points): the squared distance to the point.
template <typename Container>
class PointObjectDistance {
public:
  PointObjectDistance(const Container& objs, const double* q) : objects(objs.data()), query{q[0], q[1], q[2]} {}
  const double* Query() const { return query; }
  double operator()(std::uint32_t i) const {
    const double dx = PointCoordinate(objects[i], 0) - query[0];
    const double dy = PointCoordinate(objects[i], 1) - query[1];
    const double dz = PointCoordinate(objects[i], 2) - query[2];
    return dx * dx + dy * dy + dz * dz;
  }
  void Prefetch(std::uint32_t begin, std::uint32_t end) const {
    PrefetchBytes(objects + begin, (end - begin) * sizeof(*objects));
  }

private:
  const typename Container::value_type* objects;
  double query[3];
};

// Corner coordinates of a triangle tree's objects, in the tree's object order, so that
// a leaf scan reads them from one contiguous run instead of through the mesh.
struct TriangleCorners {
  std::int32_t xyz[9];  // corner 0, 1, 2
};

// Triangles: the point-triangle distance.
class TriangleObjectDistance {
public:
  TriangleObjectDistance(const TriangleCorners* c, const double* q) : corners(c), query{q[0], q[1], q[2]} {}
  const double* Query() const { return query; }
  double operator()(std::uint32_t i) const {
    const std::int32_t* v = corners[i].xyz;
    const double a[3] = {double(v[0]), double(v[1]), double(v[2])};
    const double b[3] = {double(v[3]), double(v[4]), double(v[5])};
    const double c[3] = {double(v[6]), double(v[7]), double(v[8])};
    return PointTriangleDistance2(query, a, b, c, nullptr);
  }
  void Prefetch(std::uint32_t begin, std::uint32_t end) const {
    PrefetchBytes(corners + begin, (end - begin) * sizeof(TriangleCorners));
  }

private:
  const TriangleCorners* corners;
  double query[3];
};

// Where a filtered search reads the unit normals of the tree's objects: from the
// triangles themselves (computed at each read), or from an array in tree order that
// holds what MStlTriangle::GetNormal gave for the same coordinates.
class NormalsOfTriangles {
public:
  explicit NormalsOfTriangles(const std::vector<ZorMesh::StlBase::Handle::Triangle>& tris) : triangles(tris.data()) {}
  MMVector3d operator()(std::uint32_t i) const { return triangles[i]->GetNormal(); }
  void Prefetch(std::uint32_t begin, std::uint32_t end) const {
    PrefetchBytes(triangles + begin, (end - begin) * sizeof(*triangles));
  }

private:
  const ZorMesh::StlBase::Handle::Triangle* triangles;
};

class StoredNormals {
public:
  explicit StoredNormals(const MMVector3d* n) : normals(n) {}
  const MMVector3d& operator()(std::uint32_t i) const { return normals[i]; }
  void Prefetch(std::uint32_t begin, std::uint32_t end) const {
    PrefetchBytes(normals + begin, (end - begin) * sizeof(*normals));
  }

private:
  const MMVector3d* normals;
};

// Triangles whose normal lies within the cone of `normal` (unit): a triangle whose
// normal has a dot product with it below `minCosine` counts as being at the largest
// double, so a finite bound never finds it, and an unbounded search still does when
// no triangle is compatible.
template <typename Normals>
class OrientedTriangleDistance {
public:
  OrientedTriangleDistance(Normals n, const TriangleCorners* c, const double* q, const double* normal, double minCos)
      : normals(n), plain(c, q), queryNormal{normal[0], normal[1], normal[2]}, minCosine(minCos) {}
  const double* Query() const { return plain.Query(); }
  double operator()(std::uint32_t i) const {
    const MMVector3d& n = normals(i);
    const double cosine = n[0] * queryNormal[0] + n[1] * queryNormal[1] + n[2] * queryNormal[2];
    if (minCosine > cosine) return std::numeric_limits<double>::max();
    return plain(i);
  }
  void Prefetch(std::uint32_t begin, std::uint32_t end) const {
    plain.Prefetch(begin, end);
    normals.Prefetch(begin, end);
  }

private:
  Normals normals;
  TriangleObjectDistance plain;
  double queryNormal[3];
  double minCosine;
};

}  // namespace MeshQueries
