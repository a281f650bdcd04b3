#pragma once
// The pieces of one ICP run of the multi-start operator: the tree over the fixed
// sample, the rigid (or similarity) fit of matched pairs, the median of the squared
// distances, and the rule by which one result beats another. Private to zor/icp.

#include <cstddef>
#include <cstdint>
#include <vector>

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

// Squared distance from a query to the sample points of the tree, for the nearest-point
// search. A sample tree of a few thousand points sits in the cache: nothing is
// prefetched.
class SampleDistance {
public:
  static constexpr bool kTreeInCache = true;
  SampleDistance(const std::vector<SamplePoint>& points, const double* q)
      : objects(points.data()), query{q[0], q[1], q[2]} {}
  const double* Query() const { return query; }
  double operator()(std::uint32_t i) const {
    const double dx = objects[i].position[0] - query[0];
    const double dy = objects[i].position[1] - query[1];
    const double dz = objects[i].position[2] - query[2];
    return dx * dx + dy * dy + dz * dz;
  }

private:
  const SamplePoint* objects;
  double query[3];
};

// The tree over the fixed sample; a class of its own so that the operator's header can
// hold it by a forward declaration.
class SampleTree {
public:
  // Builds over `points` (their order changes: the tree sorts them into its leaves).
  explicit SampleTree(std::vector<SamplePoint>&& points);
  const SamplePointTree& Get() const { return tree; }

private:
  SamplePointTree tree;
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
