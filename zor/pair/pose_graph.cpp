#include "zor/pair/detail/pose_graph.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <queue>

#include <Eigen/Dense>

#include "zor/pair/detail/eigen_poses.h"

namespace ZorStlRegistration::detail {
namespace {

using Matrix6 = Eigen::Matrix<double, 6, 6>;

constexpr std::size_t kMaxSteps = 30;
constexpr double kSettled = 1e-10;    // the largest change of a step (radians, mm) that ends the fit
constexpr double kDifference = 1e-6;  // the step of the numeric derivatives
constexpr double kRidge = 1e-9;       // of the information's trace, so that a flat overlap stays solvable

Vector6 Log(const Pose& p) {
  const Eigen::AngleAxisd turn(Eigen::Matrix3d(p.topLeftCorner<3, 3>()));
  Vector6 d;
  d.head<3>() = turn.axis() * turn.angle();
  d.tail<3>() = p.topRightCorner<3, 1>();
  return d;
}

struct Edge {
  Pose measured, measuredInverse;
  Matrix6 information;
};

// How far the edge's relative pose under `fixed` and `moving` is from what it measured.
Vector6 Error(const Edge& e, const Pose& fixed, const Pose& moving) {
  return Log(e.measuredInverse * Inverse(fixed) * moving);
}

Matrix6 Information(const GraphEdge& e) {
  Matrix6 info = Matrix6::Zero();
  for (std::size_t i = 0; i < e.points.size(); ++i) {
    const Eigen::Vector3d p(e.points[i][0], e.points[i][1], e.points[i][2]);
    const Eigen::Vector3d n(e.normals[i][0], e.normals[i][1], e.normals[i][2]);
    Vector6 j;
    j.head<3>() = p.cross(n);
    j.tail<3>() = n;
    info += j * j.transpose();
  }
  const double sigma = std::max(e.sigma, 1e-6);
  info /= sigma * sigma;
  const double ridge = kRidge * std::max(info.trace(), 1.0);
  info += ridge * Matrix6::Identity();
  return info;
}

double Residual(const GraphEdge& source, const Edge& e, const Pose& fixed, const Pose& moving) {
  if (source.points.empty()) return 0.0;
  const Pose error = e.measuredInverse * Inverse(fixed) * moving;
  double sum = 0.0;
  for (const MMVector3d& q : source.points) {
    const Eigen::Vector3d p(q[0], q[1], q[2]);
    sum += (error.topLeftCorner<3, 3>() * p + error.topRightCorner<3, 1>() - p).squaredNorm();
  }
  return std::sqrt(sum / static_cast<double>(source.points.size()));
}

// Poses along a spanning tree of the kept edges, most weight first, grown from node 0.
// Nodes it does not reach stay unplaced.
void SpanningTree(std::size_t nodes, const std::vector<GraphEdge>& edges, const std::vector<Edge>& solved,
                  const std::vector<bool>& kept, std::vector<Pose>& poses, std::vector<bool>& placed) {
  poses.assign(nodes, Pose::Identity());
  placed.assign(nodes, false);
  if (nodes == 0) return;
  placed[0] = true;
  for (;;) {
    std::size_t best = edges.size();
    for (std::size_t k = 0; k < edges.size(); ++k) {
      if (!kept[k] || placed[edges[k].fixed] == placed[edges[k].moving]) continue;
      if (best == edges.size() || edges[k].weight > edges[best].weight) best = k;
    }
    if (best == edges.size()) return;
    const GraphEdge& e = edges[best];
    if (placed[e.fixed]) {
      poses[e.moving] = poses[e.fixed] * solved[best].measured;
      placed[e.moving] = true;
    } else {
      poses[e.fixed] = poses[e.moving] * solved[best].measuredInverse;
      placed[e.fixed] = true;
    }
  }
}

// Gauss-Newton over the placed nodes but node 0, on the kept edges between them.
std::size_t Fit(const std::vector<GraphEdge>& edges, const std::vector<Edge>& solved, const std::vector<bool>& kept,
                const std::vector<bool>& placed, std::vector<Pose>& poses) {
  std::vector<std::size_t> column(poses.size(), SIZE_MAX);
  std::size_t unknowns = 0;
  for (std::size_t n = 1; n < poses.size(); ++n)
    if (placed[n]) column[n] = 6 * unknowns++;
  std::size_t used = 0;
  for (std::size_t k = 0; k < edges.size(); ++k)
    if (kept[k] && placed[edges[k].fixed] && placed[edges[k].moving]) ++used;
  if (unknowns == 0 || used <= unknowns) return 0;  // a tree: nothing to fit

  const Eigen::Index size = static_cast<Eigen::Index>(6 * unknowns);
  std::size_t steps = 0;
  for (; steps < kMaxSteps; ++steps) {
    Eigen::MatrixXd h = Eigen::MatrixXd::Zero(size, size);
    Eigen::VectorXd g = Eigen::VectorXd::Zero(size);
    for (std::size_t k = 0; k < edges.size(); ++k) {
      const GraphEdge& e = edges[k];
      if (!kept[k] || !placed[e.fixed] || !placed[e.moving]) continue;
      const Vector6 error = Error(solved[k], poses[e.fixed], poses[e.moving]);
      // Derivatives by central differences of a small turn or shift of each end's pose.
      Eigen::Matrix<double, 6, 12> j;
      for (int d = 0; d < 6; ++d) {
        Vector6 step = Vector6::Zero();
        step[d] = kDifference;
        j.col(d) = (Error(solved[k], poses[e.fixed] * Exp(step), poses[e.moving]) -
                    Error(solved[k], poses[e.fixed] * Exp(-step), poses[e.moving])) /
                   (2.0 * kDifference);
        j.col(6 + d) = (Error(solved[k], poses[e.fixed], poses[e.moving] * Exp(step)) -
                        Error(solved[k], poses[e.fixed], poses[e.moving] * Exp(-step))) /
                       (2.0 * kDifference);
      }
      const std::size_t ends[2] = {column[e.fixed], column[e.moving]};
      for (Eigen::Index a = 0; a < 2; ++a) {
        if (ends[a] == SIZE_MAX) continue;
        const auto ja = j.middleCols<6>(6 * a);
        const Eigen::Index ra = static_cast<Eigen::Index>(ends[a]);
        g.segment<6>(ra) += ja.transpose() * solved[k].information * error;
        for (Eigen::Index b = 0; b < 2; ++b) {
          if (ends[b] == SIZE_MAX) continue;
          const auto jb = j.middleCols<6>(6 * b);
          h.block<6, 6>(ra, static_cast<Eigen::Index>(ends[b])) += ja.transpose() * solved[k].information * jb;
        }
      }
    }
    const Eigen::VectorXd delta = h.ldlt().solve(-g);
    if (!delta.allFinite()) break;
    for (std::size_t n = 1; n < poses.size(); ++n)
      if (column[n] != SIZE_MAX) poses[n] = poses[n] * Exp(delta.segment<6>(static_cast<Eigen::Index>(column[n])));
    if (delta.cwiseAbs().maxCoeff() < kSettled) {
      ++steps;
      break;
    }
  }
  return steps;
}

// Whether the kept edges other than `skip` still join its two ends.
bool Joined(std::size_t nodes, const std::vector<GraphEdge>& edges, const std::vector<bool>& kept, std::size_t skip) {
  std::vector<bool> seen(nodes, false);
  std::queue<std::size_t> next;
  next.push(edges[skip].fixed);
  seen[edges[skip].fixed] = true;
  while (!next.empty()) {
    const std::size_t n = next.front();
    next.pop();
    for (std::size_t k = 0; k < edges.size(); ++k) {
      if (k == skip || !kept[k]) continue;
      const std::size_t other = edges[k].fixed == n ? edges[k].moving : edges[k].moving == n ? edges[k].fixed : nodes;
      if (other < nodes && !seen[other]) {
        seen[other] = true;
        next.push(other);
      }
    }
  }
  return seen[edges[skip].moving];
}

}  // namespace

GraphResult SolvePoseGraph(std::size_t nodes, const std::vector<GraphEdge>& edges, double allowed) {
  std::vector<Edge> solved(edges.size());
  for (std::size_t k = 0; k < edges.size(); ++k) {
    solved[k].measured = ToPose(edges[k].transform);
    solved[k].measuredInverse = Inverse(solved[k].measured);
    solved[k].information = Information(edges[k]);
  }
  GraphResult result;
  result.kept.assign(edges.size(), true);
  std::vector<Pose> poses;
  for (;;) {
    SpanningTree(nodes, edges, solved, result.kept, poses, result.placed);
    result.iterations += Fit(edges, solved, result.kept, result.placed, poses);
    result.residuals.assign(edges.size(), 0.0);
    std::vector<std::size_t> over;  // kept edges beyond the allowed residual
    for (std::size_t k = 0; k < edges.size(); ++k) {
      const GraphEdge& e = edges[k];
      if (!result.placed[e.fixed] || !result.placed[e.moving]) continue;
      result.residuals[k] = Residual(e, solved[k], poses[e.fixed], poses[e.moving]);
      if (result.kept[k] && result.residuals[k] > allowed) over.push_back(k);
    }
    std::stable_sort(over.begin(), over.end(),
                     [&](std::size_t a, std::size_t b) { return result.residuals[a] > result.residuals[b]; });
    const auto worst =
        std::find_if(over.begin(), over.end(), [&](std::size_t k) { return Joined(nodes, edges, result.kept, k); });
    if (worst == over.end()) break;
    result.kept[*worst] = false;
  }
  result.poses.reserve(nodes);
  for (const Pose& p : poses) result.poses.push_back(FromPose(p));
  return result;
}

}  // namespace ZorStlRegistration::detail
