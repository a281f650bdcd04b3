#include "zor/pair/detail/joint_icp.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <unordered_map>

#include <tbb/parallel_for.h>

#include "zor/model/unit.h"
#include "zor/pair/detail/eigen_poses.h"
#include "zor/spatial/surface_query.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration::detail {
namespace {

// Points of each view that pull it: with 0.2 mm of noise along the line of sight, 1,500
// left the noise in the poses (up to 0.14 degrees); 6,000 average it out to 0.08.
constexpr std::size_t kSamples = 6000;
constexpr double kReaches[] = {4.0, 2.0, 1.0};
// Solves per reach at most: three left the last reach short of where it settles.
constexpr std::size_t kStepsPerReach = 5;
// A pair of views takes part when at least this share of the moving view's sample finds
// the other's surface within reach (and at least kLeastPairs points do).
constexpr double kLeastShare = 0.05;
constexpr std::size_t kLeastPairs = 30;
constexpr double kSettled = 1e-9;  // the largest change of a solve (radians, mm) that ends a reach
constexpr double kRidge = 1e-9;

// Range scans curl and thin out towards their borders: points this many edge rings from
// an open border of their own view do not pull.
constexpr int kBorderRings = 4;
// A point pairs only with a place whose normal is within about 45 degrees of its own.
constexpr double kNormalAgreement = 0.7;

using Matrix12 = Eigen::Matrix<double, 12, 12>;
using Vector12 = Eigen::Matrix<double, 12, 1>;

struct Sample {
  std::vector<MMVector3d> points;   // millimetres
  std::vector<MMVector3d> normals;  // unit, area-weighted over the triangles of the point and its neighbours
};

struct PairSums {
  Matrix12 h;
  Vector12 g;
  std::size_t count = 0;
  double squares = 0.0;
};

// The point-to-plane sums of view b's sample against view a's surface, in the frame of
// node 0 and millimetres; the unknowns are small turns and shifts of b, then of a.
PairSums Sum(const Sample& sample, const MeshQueries::TriangleTreeHolder& treeA, const Pose& a, const Pose& b,
             double reachMm, double ie) {
  PairSums s;
  s.h.setZero();
  s.g.setZero();
  const Pose aInverse = Inverse(a);
  for (std::size_t i = 0; i < sample.points.size(); ++i) {
    const MMVector3d& p = sample.points[i];
    const Eigen::Vector3d w = b.topLeftCorner<3, 3>() * Eigen::Vector3d(p[0], p[1], p[2]) + b.topRightCorner<3, 1>();
    const Eigen::Vector3d inA = aInverse.topLeftCorner<3, 3>() * w + aInverse.topRightCorner<3, 1>();
    MeshQueries::SurfacePlace place;
    if (!MeshQueries::NearestSurfacePlace(treeA, MMVector3d(inA[0] * ie, inA[1] * ie, inA[2] * ie), reachMm * ie,
                                          place) ||
        MeshQueries::OnOpenBorder(place))  // beyond what view a shows: no counterpart
      continue;
    const MMVector3d pn = MeshQueries::PseudoNormal(place);
    const double length = Length(pn);
    if (!(length > 0.0)) continue;
    // The plane is the moving point's own, smoothed over its neighbours: the normal of the
    // nearest facet of a noisy fixed view leans towards the point it was chosen for, and
    // with noise along each view's own line of sight that lean pulls the views askew.
    const Eigen::Vector3d fixedNormal = a.topLeftCorner<3, 3>() * Eigen::Vector3d(pn[0], pn[1], pn[2]) / length;
    const MMVector3d& own = sample.normals[i];
    const Eigen::Vector3d n = b.topLeftCorner<3, 3>() * Eigen::Vector3d(own[0], own[1], own[2]);
    if (n.dot(fixedNormal) < kNormalAgreement) continue;  // the other side of a thin wall
    const Eigen::Vector3d v =
        a.topLeftCorner<3, 3>() * Eigen::Vector3d(place.point[0], place.point[1], place.point[2]) / ie +
        a.topRightCorner<3, 1>();
    const double r = n.dot(w - v);
    Vector12 j;
    j.segment<3>(0) = w.cross(n);
    j.segment<3>(3) = n;
    j.segment<3>(6) = -v.cross(n);
    j.segment<3>(9) = -n;
    s.h += j * j.transpose();
    s.g += j * r;
    s.squares += r * r;
    ++s.count;
  }
  return s;
}

// Every `step`-th point of `mesh` (list order) that lies more than kBorderRings edge
// rings from an open border.
Sample InnerSample(const MStlBase& mesh, std::size_t step, double ie) {
  std::vector<const MStlPoint*> points;
  points.reserve(mesh.NumberOfPoints());
  std::unordered_map<const MStlPoint*, std::uint32_t> number;
  number.reserve(mesh.NumberOfPoints());
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    number.emplace(p, static_cast<std::uint32_t>(points.size()));
    points.push_back(p);
  }
  std::vector<int> rings(points.size(), kBorderRings + 1);
  std::vector<std::uint32_t> front;
  for (std::uint32_t i = 0; i < points.size(); ++i) {
    const MStlPoint* p = points[i];
    for (std::uint16_t k = 0; k < p->GetNumberOfNeighbourTriangles() && rings[i] != 0; ++k) {
      const MStlTriangle& t = p->GetNeighbourTriangle(k)->data;
      for (std::size_t c = 0; c < 3; ++c)
        if (t.GetPoint(c) != p && MeshQueries::EdgeIsOpen(t, c)) rings[i] = 0;
    }
    if (rings[i] == 0) front.push_back(i);
  }
  for (int ring = 1; ring <= kBorderRings && !front.empty(); ++ring) {
    std::vector<std::uint32_t> next;
    for (const std::uint32_t i : front) {
      const MStlPoint* p = points[i];
      for (std::uint16_t k = 0; k < p->GetNumberOfNeighbourTriangles(); ++k) {
        const MStlTriangle& t = p->GetNeighbourTriangle(k)->data;
        for (std::size_t c = 0; c < 3; ++c) {
          const std::uint32_t j = number.at(t.GetPoint(c));
          if (rings[j] > ring) {
            rings[j] = ring;
            next.push_back(j);
          }
        }
      }
    }
    front.swap(next);
  }
  Sample sample;
  for (std::size_t i = 0; i < points.size(); i += step) {
    if (rings[i] <= kBorderRings) continue;
    MMVector3d normal;
    const MStlPoint* p = points[i];
    for (std::uint16_t k = 0; k < p->GetNumberOfNeighbourTriangles(); ++k) {
      const MStlTriangle& t = p->GetNeighbourTriangle(k)->data;
      for (std::size_t c = 0; c < 3; ++c) {
        const MStlPoint* q = t.GetPoint(c);
        for (std::uint16_t m = 0; m < q->GetNumberOfNeighbourTriangles(); ++m)
          normal = normal + q->GetNeighbourTriangle(m)->data.GetAreaVector();
      }
    }
    const double length = Length(normal);
    if (!(length > 0.0)) continue;
    sample.points.push_back(points[i]->GetDouble() / ie);
    sample.normals.push_back(normal / length);
  }
  return sample;
}

}  // namespace

JointRefinement RefineJointly(const std::vector<MStlBase*>& nodes, const std::vector<bool>& placed,
                              std::vector<MMTransformMatrix>& poses, double distance) {
  JointRefinement result;
  const double ie = MUnit::GetIE();
  const std::size_t n = nodes.size();
  std::vector<std::size_t> column(n, SIZE_MAX);
  std::size_t unknowns = 0;
  for (std::size_t k = 1; k < n; ++k)
    if (placed[k]) column[k] = 6 * unknowns++;
  if (unknowns == 0 || !placed[0]) return result;

  std::vector<Sample> samples(n);
  std::vector<const MeshQueries::TriangleTreeHolder*> trees(n, nullptr);
  std::vector<Pose> x(n, Pose::Identity());
  for (std::size_t k = 0; k < n; ++k) {
    if (!placed[k]) continue;
    const MStlBase& mesh = *nodes[k];
    const std::size_t step = std::max<std::size_t>(1, (mesh.NumberOfPoints() + kSamples - 1) / kSamples);
    samples[k] = InnerSample(mesh, step, ie);
    trees[k] = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(nodes[k]));
    x[k] = Scaled(ToPose(poses[k]), 1.0 / ie);
  }
  struct Pair {
    std::size_t a, b;
  };
  std::vector<Pair> pairs;
  for (std::size_t b = 1; b < n; ++b)
    for (std::size_t a = 0; a < b; ++a)
      if (placed[a] && placed[b] && trees[a] != nullptr && !samples[b].points.empty()) pairs.push_back({a, b});

  const Eigen::Index size = static_cast<Eigen::Index>(6 * unknowns);
  std::vector<PairSums> sums(pairs.size());
  for (const double reach : kReaches) {
    const double reachMm = reach * distance / ie;
    for (std::size_t step = 0; step < kStepsPerReach; ++step) {
      tbb::parallel_for(std::size_t(0), pairs.size(), [&](std::size_t k) {
        sums[k] = Sum(samples[pairs[k].b], *trees[pairs[k].a], x[pairs[k].a], x[pairs[k].b], reachMm, ie);
      });
      Eigen::MatrixXd h = Eigen::MatrixXd::Zero(size, size);
      Eigen::VectorXd g = Eigen::VectorXd::Zero(size);
      result.pairs = 0;
      double squares = 0.0;
      std::size_t count = 0;
      for (std::size_t k = 0; k < pairs.size(); ++k) {
        const PairSums& s = sums[k];
        if (s.count < kLeastPairs || double(s.count) < kLeastShare * double(samples[pairs[k].b].points.size()))
          continue;
        ++result.pairs;
        squares += s.squares;
        count += s.count;
        const std::size_t ends[2] = {column[pairs[k].b], column[pairs[k].a]};
        for (Eigen::Index i = 0; i < 2; ++i) {
          if (ends[i] == SIZE_MAX) continue;
          const Eigen::Index ri = static_cast<Eigen::Index>(ends[i]);
          g.segment<6>(ri) += s.g.segment<6>(6 * i);
          for (Eigen::Index j = 0; j < 2; ++j)
            if (ends[j] != SIZE_MAX)
              h.block<6, 6>(ri, static_cast<Eigen::Index>(ends[j])) += s.h.block<6, 6>(6 * i, 6 * j);
        }
      }
      result.rms = count > 0 ? std::sqrt(squares / double(count)) * ie : 0.0;
      // A view no pair holds keeps its pose (a unit diagonal leaves its step zero), and a
      // small ridge keeps a direction that no overlap pins (a turn about an axis of
      // symmetry) where it is.
      const double ridge = kRidge * std::max(h.trace() / double(size), 1.0);
      for (Eigen::Index d = 0; d < size; ++d) h(d, d) = h(d, d) == 0.0 ? 1.0 : h(d, d) + ridge;
      const Eigen::VectorXd delta = h.ldlt().solve(-g);
      if (!delta.allFinite()) return result;
      ++result.rounds;
      for (std::size_t k = 1; k < n; ++k)
        if (column[k] != SIZE_MAX) x[k] = Exp(delta.segment<6>(static_cast<Eigen::Index>(column[k]))) * x[k];
      if (delta.cwiseAbs().maxCoeff() < kSettled) break;
    }
  }
  for (std::size_t k = 1; k < n; ++k)
    if (column[k] != SIZE_MAX) poses[k] = FromPose(Scaled(x[k], ie));
  return result;
}

}  // namespace ZorStlRegistration::detail
