#pragma once
// The pieces of one ICP run of the multi-start operator: the tree over the fixed
// sample, the rigid (or similarity) fit of matched pairs, the median of the squared
// distances, and the rule by which one result beats another. Private to zor/icp.

#include <cstddef>
#include <cstdint>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "zor/export.h"
#include "zor/icp/stl_base_operator_registration_icp.h"
#include "zor/model/math_types.h"
#include "zor/spatial/m3d_object_tree.h"

namespace ZorStlRegistration {

using SamplePoint = MStlBaseOperatorRegistrationICP::PointWithNormal;

namespace detail {

using SampleBox = ZorSDK::Math::boundingbox<double, 3, ZorSDK::Math::point<double, 3>>;

struct SampleBoxAccessor {
  SampleBox operator()(const SamplePoint& p) const {
    SampleBox box;
    for (int k = 0; k < 3; ++k) box.minCorner[k] = box.maxCorner[k] = p.position[k];
    return box;
  }
};

using SamplePointTree = MeshQueries::detail::M3DObjectTree<
    MeshQueries::detail::M3DObjectTreeParams<SamplePoint, double, 3, SampleBoxAccessor, std::vector<SamplePoint>>>;

// The positions of the tree's sample points in tree order, one array per axis: a leaf
// scan reads only these (not the 48-byte records with their normals), two points per
// SSE2 operation.
struct SamplePositions {
  std::vector<double> x, y, z;
};

// Squared distance from a query to the sample points of the tree, for the nearest-point
// search. A sample tree of a few thousand points sits in the cache: nothing is
// prefetched. Four() gives four consecutive distances with the same operations, in the
// same order, as four calls: (dx dx + dy dy) + dz dz.
class SampleDistance {
public:
  static constexpr bool kTreeInCache = true;
  SampleDistance(const SamplePositions& positions, const double* q)
      : xs(positions.x.data()), ys(positions.y.data()), zs(positions.z.data()), query{q[0], q[1], q[2]} {}
  const double* Query() const { return query; }
  double operator()(std::uint32_t i) const {
    const double dx = xs[i] - query[0];
    const double dy = ys[i] - query[1];
    const double dz = zs[i] - query[2];
    return dx * dx + dy * dy + dz * dz;
  }
  void Four(std::uint32_t i, double* d) const {
#if defined(__SSE2__)
    const __m128d qx = _mm_set1_pd(query[0]), qy = _mm_set1_pd(query[1]), qz = _mm_set1_pd(query[2]);
    for (std::uint32_t h = 0; h < 4; h += 2) {
      const __m128d dx = _mm_sub_pd(_mm_loadu_pd(xs + i + h), qx);
      const __m128d dy = _mm_sub_pd(_mm_loadu_pd(ys + i + h), qy);
      const __m128d dz = _mm_sub_pd(_mm_loadu_pd(zs + i + h), qz);
      _mm_storeu_pd(d + h, _mm_add_pd(_mm_add_pd(_mm_mul_pd(dx, dx), _mm_mul_pd(dy, dy)), _mm_mul_pd(dz, dz)));
    }
#else
    for (std::uint32_t h = 0; h < 4; ++h) d[h] = (*this)(i + h);
#endif
  }

private:
  const double* xs;
  const double* ys;
  const double* zs;
  double query[3];
};

// The nearest other samples of each fixed sample, for the search from a known match.
// A query that lay nearest to sample j before and now lies at distance r from it has
// its nearest sample within r of itself, so within 2r of j: when j's list reaches
// beyond 2r, the list and j hold the answer, and a few distances replace a walk down
// the tree. The answer is the one the tree gives: the nearest, and when two are equally
// near (the tree's order decides those) Nearest says it cannot tell.
class ZOR_API SampleNeighbours {
public:
  // Up to kEveryPair samples, each list holds the kCount nearest of all the others (a
  // distance per pair of samples); above, the kGridCount nearest within the cells of a
  // grid about it, and reaches no farther than a cell. Above kMostSamples, no lists.
  static constexpr std::uint32_t kCount = 128;
  static constexpr std::uint32_t kGridCount = 16;
  static constexpr std::size_t kEveryPair = 2048;
  static constexpr std::size_t kMostSamples = 65536;

  SampleNeighbours() = default;
  // Over the samples in tree order (`tree` over them, for the grid's guesses).
  SampleNeighbours(const SamplePositions& positions, const SamplePointTree& tree);
  bool Empty() const { return reach.empty(); }

  // The nearest sample to the query of `distance`, which lay nearest to `last` before;
  // kNoObject when the list of `last` cannot settle it (then the tree must).
  std::uint32_t Nearest(const SampleDistance& distance, std::uint32_t last) const {
    const double last2 = distance(last);
    // (2r)^2, widened far beyond any rounding of the distances.
    const double within2 = 4.0 * last2 * (1.0 + 1e-8) + 1e-300;
    if (!(reach[last] > within2)) return 0xFFFFFFFFu;  // also for a query that is not a number
    const std::uint32_t* near = index.data() + static_cast<std::size_t>(last) * count;
    const double* near2 = distance2.data() + static_cast<std::size_t>(last) * count;
    double best = last2;
    std::uint32_t nearest = last;
    bool tie = false;
    for (std::uint32_t k = 0; k < count && near2[k] <= within2; ++k) {
      const double d = distance(near[k]);
      if (d < best) {
        best = d;
        nearest = near[k];
        tie = false;
      } else if (d == best) {
        tie = true;
      }
    }
    return tie ? 0xFFFFFFFFu : nearest;
  }

  // A sample near `q` to start from when there is no last match (or its list cannot
  // settle the query): the nearest sample to the centre of q's cell in a coarse grid
  // over the samples' box (the border cell for a place outside it); kNoObject for a
  // place that is not a number.
  std::uint32_t Guess(const double* q) const {
    std::size_t cell[3];
    for (int k = 0; k < 3; ++k) {
      const double u = (q[k] - gridLow[k]) / gridCell[k];
      if (!(u == u)) return 0xFFFFFFFFu;
      // Clamped before the conversion, which is then always defined.
      cell[k] = u <= 0.0 ? 0 : u >= double(kGrid - 1) ? kGrid - 1 : static_cast<std::size_t>(u);
    }
    return guesses[(cell[2] * kGrid + cell[1]) * kGrid + cell[0]];
  }

private:
  static constexpr std::size_t kGrid = 16;

  std::uint32_t count = 0;           // entries per list
  std::vector<std::uint32_t> index;  // `count` per sample, nearest first
  std::vector<double> distance2;     // their squared distances; +infinity past the last sample
  std::vector<double> reach;         // per sample: the squared distance no sample outside its list is nearer than
  double gridLow[3] = {0.0, 0.0, 0.0}, gridCell[3] = {1.0, 1.0, 1.0};
  std::vector<std::uint32_t> guesses;  // kGrid^3, x fastest
};

// The tree over the fixed sample; a class of its own so that the operator's header can
// hold it by a forward declaration.
class ZOR_API SampleTree {
public:
  // Builds over `points` (their order changes: the tree sorts them into its leaves).
  explicit SampleTree(std::vector<SamplePoint>&& points);
  ~SampleTree();
  SampleTree(const SampleTree&) = delete;
  SampleTree& operator=(const SampleTree&) = delete;
  const SamplePointTree& Get() const { return tree; }
  const SamplePositions& Positions() const { return positions; }
  // Empty for samples of more than SampleNeighbours::kMostSamples points.
  const SampleNeighbours& Neighbours() const { return neighbours; }

private:
  SamplePointTree tree;
  SamplePositions positions;
  SampleNeighbours neighbours;
};

using Point3 = ZorSDK::Math::point<double, 3>;

// A rigid fit, and the uniform scale it carries (1 without scale).
struct RigidFit {
  MMTransformMatrix transform;
  double scale = 1.0;
};

// The rotation (and, with `allowScale`, the uniform scale) and translation that carry
// `moved` onto `matched` in the least-squares sense (Kabsch-Umeyama): the SVD of the
// 3 x 3 cross-covariance of the centred pairs (Jacobi; no heap), with the smallest singular direction flipped
// when the best orthogonal map would be a reflection. The transform has its class and
// inverse set; a degenerate input gives whatever the SVD makes of it, possibly a
// singular map (IsInversible tells). Needs at least one pair.
ZOR_API RigidFit FitRigid(const std::vector<Point3>& moved, const std::vector<Point3>& matched, bool allowScale);

// The median of `values`, which are reordered: the middle element, the mean of the two
// middle ones for an even count, NaN for none. A selection, not a sort.
ZOR_API double MedianInPlace(std::vector<double>& values);

// Each sample's normal turned by the rotation rows of a transform (3 x 4, row-major)
// and made unit as Normalize makes it, into `out` (sized as the samples), bit for bit
// as one sample at a time would.
ZOR_API void TurnNormals(const std::vector<SamplePoint>& samples, const double (&rows)[3][4], std::vector<Point3>& out);

// How simple a pose is, for ties: 0 the identity, 1 a translation, 2 anything else.
ZOR_API int TransformRank(const MMTransformMatrix& t);

// Whether `x` is better than `y`: a lower error per squared scale, compared without
// dividing; within 1.4901161193847656e-08 a tie, which the simpler pose wins, and which
// never displaces the identity.
ZOR_API bool IsBetter(const MStlBaseOperatorRegistrationICP::IcpResult& x,
                      const MStlBaseOperatorRegistrationICP::IcpResult& y);

// The buffers of one run, sized once and reused by every run of one worker.
struct IcpWorkspace {
  std::vector<Point3> moved, matched, movedNormals, matchedNormals;
  std::vector<double> distances2, selection;
  std::vector<std::uint32_t> rejected;
  std::vector<std::uint32_t> matchedIndex;  // the tree object each sample matched last
  void Reserve(std::size_t n);
};

}  // namespace detail
}  // namespace ZorStlRegistration
