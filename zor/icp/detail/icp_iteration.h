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

// The tree over the fixed sample; a class of its own so that the operator's header can
// hold it by a forward declaration.
class SampleTree {
public:
  // Builds over `points` (their order changes: the tree sorts them into its leaves).
  explicit SampleTree(std::vector<SamplePoint>&& points);
  const SamplePointTree& Get() const { return tree; }
  const SamplePositions& Positions() const { return positions; }

private:
  SamplePointTree tree;
  SamplePositions positions;
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
