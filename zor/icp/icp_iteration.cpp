// One ICP run of the multi-start operator, and its pieces: the tree over the fixed
// sample, the fit, the median and the better-than rule.
#include "zor/icp/detail/icp_iteration.h"

#include <algorithm>
#include <cmath>
#include <limits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <Eigen/Dense>
#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>

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
  if (!sorted.empty() && sorted.size() <= SampleNeighbours::kMostSamples)
    neighbours = SampleNeighbours(positions, tree);
}

SampleTree::~SampleTree() = default;

SampleNeighbours::SampleNeighbours(const SamplePositions& positions, const SamplePointTree& tree) {
  const std::size_t n = positions.x.size();
  // The grid: kGrid cells a side over the samples' box (a flat box gets cells of the
  // longest side's size across its thin side).
  double low[3], high[3];
  const std::vector<double>* axes[3] = {&positions.x, &positions.y, &positions.z};
  for (int k = 0; k < 3; ++k) {
    low[k] = *std::min_element(axes[k]->begin(), axes[k]->end());
    high[k] = *std::max_element(axes[k]->begin(), axes[k]->end());
  }
  const double longest = std::max({high[0] - low[0], high[1] - low[1], high[2] - low[2]});
  for (int k = 0; k < 3; ++k) {
    gridLow[k] = low[k];
    const double side = high[k] - low[k];
    gridCell[k] = (side > 0.0 ? side : longest > 0.0 ? longest : 1.0) / double(kGrid);
  }
  guesses.assign(kGrid * kGrid * kGrid, 0);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, guesses.size(), 256),
                    [&](const tbb::blocked_range<std::size_t>& r) {
                      for (std::size_t c = r.begin(); c != r.end(); ++c) {
                        const std::size_t at[3] = {c % kGrid, (c / kGrid) % kGrid, c / (kGrid * kGrid)};
                        double centre[3];
                        for (int k = 0; k < 3; ++k) centre[k] = gridLow[k] + (double(at[k]) + 0.5) * gridCell[k];
                        const SampleDistance distance(positions, centre);
                        double bound2 = std::numeric_limits<double>::infinity();
                        guesses[c] = MeshQueries::NearestObjectIndex(tree, distance, bound2);
                      }
                    });
  // Candidates of each list: all other samples, or those in the 27 cells about it in a
  // grid of about one cell per sample over the longest side's cube; every sample outside
  // those cells lies at least a cell away.
  const bool everyPair = n <= kEveryPair;
  count = everyPair ? kCount : kGridCount;
  double cell = 0.0, cap2 = std::numeric_limits<double>::infinity();
  std::size_t dims[3] = {1, 1, 1};
  std::vector<std::uint32_t> cellStart, cellPoints;
  std::vector<std::size_t> cellOf;
  if (!everyPair) {
    cell = longest > 0.0 ? longest / std::cbrt(double(n)) : 1.0;
    cap2 = cell * cell * (1.0 - 1e-9);  // a cell, less any rounding of the cell index
    for (int k = 0; k < 3; ++k)
      dims[k] = std::max<std::size_t>(1, static_cast<std::size_t>(std::ceil((high[k] - low[k]) / cell)));
    const auto indexOn = [&](double x, int k) {
      const double u = (x - low[k]) / cell;
      return u <= 0.0 ? std::size_t{0} : u >= double(dims[k] - 1) ? dims[k] - 1 : static_cast<std::size_t>(u);
    };
    cellOf.resize(n);
    cellStart.assign(dims[0] * dims[1] * dims[2] + 1, 0);
    for (std::size_t j = 0; j < n; ++j) {
      cellOf[j] =
          (indexOn(positions.z[j], 2) * dims[1] + indexOn(positions.y[j], 1)) * dims[0] + indexOn(positions.x[j], 0);
      ++cellStart[cellOf[j] + 1];
    }
    for (std::size_t c = 1; c < cellStart.size(); ++c) cellStart[c] += cellStart[c - 1];
    cellPoints.resize(n);
    std::vector<std::uint32_t> fill(cellStart.begin(), cellStart.end() - 1);
    for (std::size_t j = 0; j < n; ++j) cellPoints[fill[cellOf[j]]++] = static_cast<std::uint32_t>(j);
  }
  index.assign(n * count, 0);
  distance2.assign(n * count, std::numeric_limits<double>::infinity());
  reach.assign(n, cap2);
  tbb::enumerable_thread_specific<std::vector<std::pair<double, std::uint32_t>>> scratch;
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, n, 16), [&](const tbb::blocked_range<std::size_t>& r) {
    std::vector<std::pair<double, std::uint32_t>>& all = scratch.local();
    for (std::size_t j = r.begin(); j != r.end(); ++j) {
      const double q[3] = {positions.x[j], positions.y[j], positions.z[j]};
      const SampleDistance distance(positions, q);
      all.clear();
      const auto take = [&](std::uint32_t k) {
        if (k != j) all.emplace_back(distance(k), k);
      };
      if (everyPair) {
        for (std::size_t k = 0; k < n; ++k) take(static_cast<std::uint32_t>(k));
      } else {
        const std::size_t at[3] = {cellOf[j] % dims[0], (cellOf[j] / dims[0]) % dims[1],
                                   cellOf[j] / (dims[0] * dims[1])};
        for (std::size_t z = at[2] > 0 ? at[2] - 1 : 0; z <= std::min(at[2] + 1, dims[2] - 1); ++z)
          for (std::size_t y = at[1] > 0 ? at[1] - 1 : 0; y <= std::min(at[1] + 1, dims[1] - 1); ++y)
            for (std::size_t x = at[0] > 0 ? at[0] - 1 : 0; x <= std::min(at[0] + 1, dims[0] - 1); ++x) {
              const std::size_t c = (z * dims[1] + y) * dims[0] + x;
              for (std::uint32_t e = cellStart[c]; e < cellStart[c + 1]; ++e) take(cellPoints[e]);
            }
      }
      // Ordered by distance, then index: the same lists on every run.
      const std::size_t kept = std::min<std::size_t>(count, all.size());
      const auto end = all.begin() + static_cast<std::ptrdiff_t>(kept);
      if (kept < all.size()) {
        std::nth_element(all.begin(), end, all.end());
        reach[j] = std::min(cap2, end->first);  // the nearest that the list leaves out
      }
      std::sort(all.begin(), end);
      for (std::size_t k = 0; k < kept; ++k) {
        index[j * count + k] = all[k].second;
        distance2[j * count + k] = all[k].first;
      }
    }
  });
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

namespace {

// One sample's normal turned by `rows` and made unit as Normalize makes it.
Point3 TurnedNormal(const SamplePoint& s, const double (&rows)[3][4]) {
  const double u = s.normal[0], v = s.normal[1], t = s.normal[2];
  MMVector3d m(rows[0][0] * u + rows[0][1] * v + rows[0][2] * t, rows[1][0] * u + rows[1][1] * v + rows[1][2] * t,
               rows[2][0] * u + rows[2][1] * v + rows[2][2] * t);
  Normalize(m);
  return Point3{{m[0], m[1], m[2]}};
}

}  // namespace

void TurnNormals(const std::vector<SamplePoint>& samples, const double (&rows)[3][4], std::vector<Point3>& out) {
  const std::size_t n = samples.size();
  std::size_t i = 0;
#if defined(__SSE2__)
  // Two samples at a time with the operations of the scalar path: the same products and
  // sums, the scale-safe length (largest magnitude m, the other two l and k, whose
  // order does not matter: m sqrt((l/m)^2 + (k/m)^2 + 1)), and a division per
  // coordinate unless the length is 0.
  const __m128d sign = _mm_set1_pd(-0.0), tiny = _mm_set1_pd(4.9406564584124654e-324), one = _mm_set1_pd(1.0);
  const __m128d zero = _mm_setzero_pd();
  const auto select = [](__m128d mask, __m128d a, __m128d b) {
    return _mm_or_pd(_mm_and_pd(mask, a), _mm_andnot_pd(mask, b));
  };
  for (; i + 2 <= n; i += 2) {
    const SamplePoint& a = samples[i];
    const SamplePoint& b = samples[i + 1];
    const __m128d u = _mm_set_pd(b.normal[0], a.normal[0]);
    const __m128d v = _mm_set_pd(b.normal[1], a.normal[1]);
    const __m128d t = _mm_set_pd(b.normal[2], a.normal[2]);
    __m128d c[3];
    for (int r = 0; r < 3; ++r)
      c[r] = _mm_add_pd(_mm_add_pd(_mm_mul_pd(_mm_set1_pd(rows[r][0]), u), _mm_mul_pd(_mm_set1_pd(rows[r][1]), v)),
                        _mm_mul_pd(_mm_set1_pd(rows[r][2]), t));
    const __m128d ax = _mm_andnot_pd(sign, c[0]), ay = _mm_andnot_pd(sign, c[1]), az = _mm_andnot_pd(sign, c[2]);
    const __m128d xBiggest = _mm_and_pd(_mm_cmpge_pd(ax, ay), _mm_cmpge_pd(ax, az));
    const __m128d yBiggest = _mm_andnot_pd(xBiggest, _mm_cmpge_pd(ay, az));
    const __m128d m = select(xBiggest, ax, select(yBiggest, ay, az));
    const __m128d l = select(xBiggest, ay, ax);
    const __m128d k = select(_mm_or_pd(xBiggest, yBiggest), az, ay);
    const __m128d g = select(_mm_cmpgt_pd(m, tiny), m, tiny);
    const __m128d lg = _mm_div_pd(l, g), kg = _mm_div_pd(k, g);
    const __m128d length =
        _mm_mul_pd(m, _mm_sqrt_pd(_mm_add_pd(_mm_add_pd(_mm_mul_pd(lg, lg), _mm_mul_pd(kg, kg)), one)));
    const __m128d positive = _mm_cmpgt_pd(length, zero);
    double x[2], y[2], z[2];
    _mm_storeu_pd(x, select(positive, _mm_div_pd(c[0], length), c[0]));
    _mm_storeu_pd(y, select(positive, _mm_div_pd(c[1], length), c[1]));
    _mm_storeu_pd(z, select(positive, _mm_div_pd(c[2], length), c[2]));
    out[i] = Point3{{x[0], y[0], z[0]}};
    out[i + 1] = Point3{{x[1], y[1], z[1]}};
  }
#endif
  for (; i < n; ++i) out[i] = TurnedNormal(samples[i], rows);
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
  const detail::SampleNeighbours& neighbours = fixedTree->Neighbours();
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
    if (params.useNormals) detail::TurnNormals(movingSample, rows, w.movedNormals);
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
      const std::uint32_t last = w.matchedIndex[i];
      std::uint32_t found = MeshQueries::kNoObject;
      // From the last match, or a guess from the grid: a neighbour list when that
      // settles it, else the tree.
      if (!neighbours.Empty()) {
        if (last != MeshQueries::kNoObject) found = neighbours.Nearest(distance, last);
        if (found == MeshQueries::kNoObject) {
          const std::uint32_t guess = neighbours.Guess(p.Data());
          if (guess != last && guess != MeshQueries::kNoObject) found = neighbours.Nearest(distance, guess);
        }
      }
      if (found == MeshQueries::kNoObject) {
        double bound2 = std::numeric_limits<double>::infinity();
        if (last != MeshQueries::kNoObject) bound2 = distance(last) * (1.0 + 1e-9) + 1e-300;
        found = MeshQueries::NearestObjectIndex(tree, distance, bound2);
        if (found == MeshQueries::kNoObject && last != MeshQueries::kNoObject) {
          bound2 = std::numeric_limits<double>::infinity();
          found = MeshQueries::NearestObjectIndex(tree, distance, bound2);
        }
      }
      w.matchedIndex[i] = found;
      Point3 q{}, qNormal{};
      if (found != MeshQueries::kNoObject)
        for (int k = 0; k < 3; ++k) q[k] = objects[found].position[k], qNormal[k] = objects[found].normal[k];
      if (params.useNormals) w.matchedNormals[i] = qNormal;
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
