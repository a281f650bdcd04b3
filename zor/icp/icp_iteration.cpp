// One ICP run of the multi-start operator, and its pieces: the tree over the fixed
// sample, the fit, the median and the better-than rule.
#include "zor/icp/detail/icp_iteration.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <Eigen/Dense>

#include "zor/spatial/detail/object_tree_build.h"
#include "zor/spatial/nearest_query.h"

namespace MeshQueries::detail {
template class M3DObjectTree<
    M3DObjectTreeParams<ZorStlRegistration::SamplePoint, double, 3, ZorStlRegistration::detail::SampleBoxAccessor,
                        std::vector<ZorStlRegistration::SamplePoint>>>;
}  // namespace MeshQueries::detail

namespace ZorStlRegistration {
namespace detail {
namespace {

constexpr std::uint64_t kSampleLeafSize = 30;
constexpr double kTieTolerance = 1.4901161193847656e-08;
// Normals of a pair must agree within 30 degrees: cos 30 degrees.
constexpr double kLikeNormals = 0.86602540378;

}  // namespace

SampleTree::SampleTree(std::vector<SamplePoint>&& points) {
  MeshQueries::detail::TreeParams treeParams;
  treeParams.leafSize = kSampleLeafSize;
  tree.Build(treeParams, std::move(points));
  const std::vector<SamplePoint>& sorted = tree.GetObjects();
  positions.x.resize(sorted.size());
  positions.y.resize(sorted.size());
  positions.z.resize(sorted.size());
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    positions.x[i] = sorted[i].position[0];
    positions.y[i] = sorted[i].position[1];
    positions.z[i] = sorted[i].position[2];
  }
}

RigidFit FitRigid(const std::vector<Point3>& moved, const std::vector<Point3>& matched, bool allowScale) {
  const std::size_t n = moved.size();
  double p0[3] = {0.0, 0.0, 0.0}, q0[3] = {0.0, 0.0, 0.0};
  for (std::size_t i = 0; i < n; ++i)
    for (int k = 0; k < 3; ++k) p0[k] += moved[i][k], q0[k] += matched[i][k];
  for (int k = 0; k < 3; ++k) p0[k] /= static_cast<double>(n), q0[k] /= static_cast<double>(n);
  // The cross-covariance of the centred pairs, H = A^T B, and |A|^2, summed pair by
  // pair: the same sums as the n x 3 matrix product, with no n x 3 storage.
  Eigen::Matrix3d h = Eigen::Matrix3d::Zero();
  double spread = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    const double a[3] = {moved[i][0] - p0[0], moved[i][1] - p0[1], moved[i][2] - p0[2]};
    const double b[3] = {matched[i][0] - q0[0], matched[i][1] - q0[1], matched[i][2] - q0[2]};
    for (int r = 0; r < 3; ++r) {
      spread += a[r] * a[r];
      for (int c = 0; c < 3; ++c) h(r, c) += a[r] * b[c];
    }
  }
  // Eigen's BDCSVD hands a matrix with fewer than 16 columns to JacobiSVD, through
  // dynamic-size temporaries; calling JacobiSVD on fixed-size storage is the same
  // factorisation without touching the heap, ten times a run.
  const Eigen::JacobiSVD<Eigen::Matrix3d> svd(h, Eigen::ComputeFullU | Eigen::ComputeFullV);
  const Eigen::Matrix3d& u = svd.matrixU();
  Eigen::Matrix3d vt = svd.matrixV().transpose();
  Eigen::Matrix3d w = u * vt;
  if (Eigen::PartialPivLU<Eigen::Matrix3d>(w).determinant() < 0.0) {
    // The best orthogonal map is a reflection: flip the smallest singular direction.
    vt.row(2) = -vt.row(2);
    w = u * vt;
  }
  RigidFit fit;
  if (allowScale) {
    const Eigen::Vector3d& s = svd.singularValues();
    fit.scale = (s[0] + s[1] + s[2]) / spread;
    w *= fit.scale;
  }
  // The map is transpose(W) followed by the translation that takes the moved centre
  // onto the matched one.
  double t[3];
  for (int i = 0; i < 3; ++i) t[i] = q0[i] - (w(0, i) * p0[0] + w(1, i) * p0[1] + w(2, i) * p0[2]);
  for (unsigned short i = 0; i < 3; ++i) {
    for (unsigned short j = 0; j < 3; ++j) fit.transform.SetElement(i, j, w(j, i), false);
    fit.transform.SetElement(i, 3, t[i], false);
  }
  fit.transform.VerifyAndSetClass();
  fit.transform.ComputeInverse();
  return fit;
}

double MedianInPlace(std::vector<double>& values) {
  const std::size_t n = values.size();
  if (n == 0) return std::numeric_limits<double>::quiet_NaN();
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(n / 2);
  std::nth_element(values.begin(), middle, values.end());
  if (n % 2 == 1) return *middle;
  // The lower middle is the largest of the front half, which the selection left there.
  const double lower = *std::max_element(values.begin(), middle);
  return (lower + *middle) / 2.0;
}

int TransformRank(const MMTransformMatrix& t) {
  if (t.IsIdentity()) return 0;
  if (t.IsTranslation()) return 1;
  return 2;
}

bool IsBetter(const MStlBaseOperatorRegistrationICP::IcpResult& x,
              const MStlBaseOperatorRegistrationICP::IcpResult& y) {
  const double p = x.sumSquared * y.scaleSquared;
  const double q = y.sumSquared * x.scaleSquared;
  if (std::fabs(p - q) >= kTieTolerance) return p < q;
  const int rankY = TransformRank(y.transform);
  if (rankY == 0) return false;
  return TransformRank(x.transform) < rankY;
}

void IcpWorkspace::Reserve(std::size_t n) {
  for (auto* v : {&moved, &matched, &movedNormals, &matchedNormals}) v->reserve(n);
  distances2.reserve(n);
  selection.reserve(n);
  rejected.reserve(n);
  matchedIndex.reserve(n);
}

}  // namespace detail

MStlBaseOperatorRegistrationICP::IcpResult MStlBaseOperatorRegistrationICP::_RunIcp(const MMTransformMatrix& start,
                                                                                    detail::IcpWorkspace& w) const {
  using detail::Point3;
  const auto& tree = fixedTree->Get();
  const std::vector<SamplePoint>& objects = tree.GetObjects();
  const std::size_t n = movingSample.size();
  w.Reserve(n);
  w.matchedIndex.assign(n, MeshQueries::kNoObject);

  MMTransformMatrix current = start;
  double scaleSquared = 1.0;
  IcpResult best;
  best.transform = start;
  // One measurement more than fits: the last one measures the last fit. All ones
  // measures nothing.
  const std::uint64_t measurements =
      params.maxIterations == std::numeric_limits<std::uint64_t>::max() ? 0 : params.maxIterations + 1;
  for (std::uint64_t iteration = 0; iteration < measurements; ++iteration) {
    w.moved.resize(n);
    w.matched.resize(n);
    w.movedNormals.resize(params.useNormals ? n : 0);
    w.matchedNormals.resize(params.useNormals ? n : 0);
    w.distances2.resize(n);
    w.rejected.clear();
    // The present transform in locals: the products and sums of MMTransformMatrix's
    // Transform, in its order, without a virtual call and a class test per sample. A
    // projective transform (never made by the fits) takes the general path.
    const bool projective = current.GetClass() == MMTransformClass::Projective;
    double rows[3][4];
    for (unsigned short r = 0; r < 3; ++r)
      for (unsigned short c = 0; c < 4; ++c) rows[r][c] = current.GetElement(r, c);
    for (std::size_t i = 0; i < n; ++i) {
      const SamplePoint& s = movingSample[i];
      MMVector3d p;
      const double x = s.position[0], y = s.position[1], z = s.position[2];
      if (projective)
        current.Transform(p, MMVector3d(x, y, z), false);
      else
        p = MMVector3d(rows[0][0] * x + rows[0][1] * y + rows[0][2] * z + rows[0][3],
                       rows[1][0] * x + rows[1][1] * y + rows[1][2] * z + rows[1][3],
                       rows[2][0] * x + rows[2][1] * y + rows[2][2] * z + rows[2][3]);
      // The nearest fixed sample. The last match lies at a known distance from the new
      // place, which bounds the search; a bound a little wider than that distance finds
      // the same nearest sample as an unbounded search, only with less of the tree.
      const detail::SampleDistance distance(fixedTree->Positions(), p.Data());
      double bound2 = std::numeric_limits<double>::infinity();
      if (w.matchedIndex[i] != MeshQueries::kNoObject) bound2 = distance(w.matchedIndex[i]) * (1.0 + 1e-9) + 1e-300;
      std::uint32_t found = MeshQueries::NearestObjectIndex(tree, distance, bound2);
      if (found == MeshQueries::kNoObject && w.matchedIndex[i] != MeshQueries::kNoObject) {
        bound2 = std::numeric_limits<double>::infinity();
        found = MeshQueries::NearestObjectIndex(tree, distance, bound2);
      }
      w.matchedIndex[i] = found;
      Point3 q{}, qNormal{};
      if (found != MeshQueries::kNoObject)
        for (int k = 0; k < 3; ++k) q[k] = objects[found].position[k], qNormal[k] = objects[found].normal[k];
      if (params.useNormals) {
        const double u = s.normal[0], v = s.normal[1], t = s.normal[2];
        MMVector3d m(rows[0][0] * u + rows[0][1] * v + rows[0][2] * t, rows[1][0] * u + rows[1][1] * v + rows[1][2] * t,
                     rows[2][0] * u + rows[2][1] * v + rows[2][2] * t);
        Normalize(m);
        w.movedNormals[i] = Point3{{m[0], m[1], m[2]}};
        w.matchedNormals[i] = qNormal;
      }
      w.moved[i] = Point3{{p[0], p[1], p[2]}};
      w.matched[i] = q;
      const double dx = p[0] - q[0], dy = p[1] - q[1], dz = p[2] - q[2];
      w.distances2[i] = dx * dx + dy * dy + dz * dz;
    }

    // In the first iteration a wrong scale makes distances meaningless: no cap then.
    double cap = std::numeric_limits<double>::max();
    if (iteration != 0 || !params.allowScale) {
      w.selection.assign(w.distances2.begin(), w.distances2.end());
      cap = params.distanceFactor * detail::MedianInPlace(w.selection);
    }
    const double limit = params.rejectByMaxDistance != 0 ? params.maxDistance * params.maxDistance : cap;
    double sumSquared = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
      bool unlike = false;
      if (params.useNormals) {
        const Point3& a = w.matchedNormals[i];
        const Point3& b = w.movedNormals[i];
        unlike = !(a[0] * b[0] + a[1] * b[1] + a[2] * b[2] >= detail::kLikeNormals);
      }
      const double d2 = w.distances2[i];
      if (d2 > limit || unlike) w.rejected.push_back(static_cast<std::uint32_t>(i));
      // A pair rejected for distance counts at its distance; an unlike pair at least at
      // the cap.
      sumSquared += unlike ? std::max(d2, cap) : d2;
    }
    IcpResult measured;
    measured.transform = current;
    measured.sumSquared = sumSquared;
    measured.scaleSquared = scaleSquared;
    if (detail::IsBetter(measured, best)) best = measured;
    if (iteration == params.maxIterations) break;

    // The pairs that remain, in their order.
    std::size_t kept = 0, next = 0;
    for (std::size_t i = 0; i < n; ++i) {
      if (next < w.rejected.size() && w.rejected[next] == i) {
        ++next;
        continue;
      }
      w.moved[kept] = w.moved[i];
      w.matched[kept] = w.matched[i];
      ++kept;
    }
    w.moved.resize(kept);
    w.matched.resize(kept);
    if (kept < 3) break;
    const detail::RigidFit fit = detail::FitRigid(w.moved, w.matched, params.allowScale);
    if (!fit.transform.IsInversible()) break;
    current.PreMultiply(fit.transform);
    scaleSquared = scaleSquared * fit.scale * fit.scale;
  }
  return best;
}

}  // namespace ZorStlRegistration
