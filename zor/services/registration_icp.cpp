#include "zor/services/registration_icp.h"

#include <cmath>
#include <vector>

#include <Eigen/Dense>
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>

#include "zor/spatial/tree_property.h"

namespace {

// One sample's pair in an iteration.
struct Pair {
  Eigen::Vector3d position;  // the sample, moved by the current estimate
  Eigen::Vector3d closest;   // closest point on the reference surface
  Eigen::Vector3d normal;    // unit normal of the triangle holding it
  double distance = 0.0;
  bool valid = false;
};

Eigen::Isometry3d ToIsometry(const MMTransformMatrix& m) {
  Eigen::Isometry3d out = Eigen::Isometry3d::Identity();
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) out.matrix()(r, c) = m.m[r][c];
  return out;
}

MMTransformMatrix FromMatrix(const Eigen::Matrix4d& m) {
  MMTransformMatrix out;
  double values[16];
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) values[4 * r + c] = m(r, c);
  out.MakeFromDouble16(values);
  return out;
}

}  // namespace

void MStlBaseOperatorRegistrationICP::MParameters::SetReference(const MStlBase* mesh,
                                                                const MMTransformMatrix* placement) {
  reference = mesh;
  referencePlacement = placement != nullptr ? *placement : MMTransformMatrix();
}

void MStlBaseOperatorRegistrationICP::MParameters::SetMoving(const MStlBase* mesh, const MMTransformMatrix* placement) {
  moving = mesh;
  movingPlacement = placement != nullptr ? *placement : MMTransformMatrix();
}

bool MStlBaseOperatorRegistrationICP::Operate() {
  result = MMTransformMatrix();
  rmsError = 0.0;
  iterationsRun = 0;
  pairCount = 0;
  const MStlBase* reference = params.GetReference();
  const MStlBase* moving = params.GetMoving();
  if (reference == nullptr || moving == nullptr || reference->GetNumberOfTriangles() == 0 ||
      moving->NumberOfPoints() == 0)
    return false;
  if (!params.GetReferencePlacement().IsInversible() || !params.GetMovingPlacement().IsInversible()) return false;
  double radius = HUGE_VAL;
  if (params.GetThresholdMethod() == eRegistrationThresholdAbsolute) {
    radius = params.GetDistanceThreshold();
    if (!(radius > 0.0)) return false;
  }
  if (params.GetNumberOfIterations() == 0) return true;

  // Work in the reference's own coordinates: samples are carried there once.
  const Eigen::Isometry3d referencePlacement = ToIsometry(params.GetReferencePlacement());
  const Eigen::Isometry3d movingPlacement = ToIsometry(params.GetMovingPlacement());
  const Eigen::Matrix4d toReference = referencePlacement.matrix().inverse() * movingPlacement.matrix();
  const std::size_t ratio = params.GetSubSampleRatio() == 0 ? 1 : params.GetSubSampleRatio();
  std::vector<Eigen::Vector3d> samples;
  samples.reserve(moving->NumberOfPoints() / ratio + 1);
  std::size_t index = 0;
  for (auto it = moving->BeginPoint(); it != moving->EndPoint(); ++it, ++index)
    if (index % ratio == 0)
      samples.push_back((toReference * Eigen::Vector4d((*it)[0], (*it)[1], (*it)[2], 1.0)).head<3>());

  const MeshQueries::TriangleTreeHolder* holder = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(reference));
  std::vector<Pair> pairs(samples.size());
  Eigen::Matrix4d estimate = Eigen::Matrix4d::Identity();  // in reference coordinates
  Eigen::Matrix4d best = estimate;
  double bestRms = HUGE_VAL;

  const auto matchRange = [&](const oneapi::tbb::blocked_range<std::size_t>& r) {
    MeshQueries::ClosestTriangle found;
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      Pair& pair = pairs[i];
      pair.position = estimate.topLeftCorner<3, 3>() * samples[i] + estimate.topRightCorner<3, 1>();
      pair.valid = MeshQueries::FindNearestTriangle(
          *holder, MMVector3d(pair.position[0], pair.position[1], pair.position[2]), radius, found);
      if (!pair.valid) continue;
      const MMVector3d c = found.GetClosestPoint();
      const MMVector3d n = found.triangle->GetNormal();
      pair.closest = Eigen::Vector3d(c[0], c[1], c[2]);
      pair.normal = Eigen::Vector3d(n[0], n[1], n[2]);
      pair.distance = found.distance;
      // A degenerate triangle has no plane; its pair is left out.
      pair.valid = pair.normal.squaredNorm() > 0.0;
    }
  };

  for (std::size_t iteration = 0; iteration < params.GetNumberOfIterations(); ++iteration) {
    oneapi::tbb::parallel_for(oneapi::tbb::blocked_range<std::size_t>(0, pairs.size(), 256), matchRange);

    // Serial sums in sample order: the same result at any thread count.
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();
    std::size_t count = 0;
    double distance2 = 0.0;
    for (const Pair& p : pairs)
      if (p.valid) centre += p.position, distance2 += p.distance * p.distance, ++count;
    if (count < 6) {
      if (iteration == 0) return false;
      break;
    }
    // On facets of integer points the steps end in a jitter of a few thousandths of a
    // unit; a pose that does not improve on the best one ends the run at the best.
    const double rms = std::sqrt(distance2 / double(count));
    if (!(rms < bestRms * (1.0 - 1e-9))) break;
    best = estimate;
    bestRms = rms;
    iterationsRun = iteration + 1;
    pairCount = count;
    rmsError = rms;
    centre /= double(count);
    double spread2 = 0.0, maxRadius = 0.0;
    for (const Pair& p : pairs)
      if (p.valid) {
        const double r2 = (p.position - centre).squaredNorm();
        spread2 += r2;
        maxRadius = std::max(maxRadius, std::sqrt(r2));
      }
    // Lengths in units of the samples' RMS radius, so that the rotation and translation
    // unknowns are equally well scaled.
    const double scale = spread2 > 0.0 ? std::sqrt(spread2 / double(count)) : 1.0;
    Eigen::Matrix<double, 6, 6> normalMatrix = Eigen::Matrix<double, 6, 6>::Zero();
    Eigen::Matrix<double, 6, 1> rhs = Eigen::Matrix<double, 6, 1>::Zero();
    for (const Pair& p : pairs) {
      if (!p.valid) continue;
      Eigen::Matrix<double, 6, 1> row;
      row.head<3>() = ((p.position - centre) / scale).cross(p.normal);
      row.tail<3>() = p.normal;
      const double residual = (p.position - p.closest).dot(p.normal) / scale;
      normalMatrix.noalias() += row * row.transpose();
      rhs.noalias() -= row * residual;
    }
    // A little damping keeps directions that the surface does not constrain (sliding
    // along a plane or a cylinder) where they are instead of letting them drift.
    normalMatrix.diagonal().array() += 1e-9 * normalMatrix.trace() / 6.0 + 1e-300;
    const Eigen::Matrix<double, 6, 1> x = normalMatrix.ldlt().solve(rhs);
    if (!x.allFinite()) break;
    const Eigen::Vector3d omega = x.head<3>();
    const Eigen::Vector3d translation = x.tail<3>() * scale;
    const double angle = omega.norm();
    const Eigen::Matrix3d rotation =
        angle > 0.0 ? Eigen::AngleAxisd(angle, omega / angle).toRotationMatrix() : Eigen::Matrix3d::Identity();
    // The step turns about the samples' centre, then translates.
    Eigen::Matrix4d step = Eigen::Matrix4d::Identity();
    step.topLeftCorner<3, 3>() = rotation;
    step.topRightCorner<3, 1>() = centre + translation - rotation * centre;
    estimate = step * estimate;
    if (angle * maxRadius + translation.norm() < params.GetStillMotion()) {
      best = estimate;  // a still step cannot have made the pose worse
      break;
    }
  }

  // Carry the estimate back: moving coordinates -> placed -> reference frame -> placed.
  const Eigen::Matrix4d movingInverse = movingPlacement.matrix().inverse();
  if (bestRms == HUGE_VAL) best = estimate;
  result = FromMatrix(movingInverse * referencePlacement.matrix() * best * referencePlacement.matrix().inverse() *
                      movingPlacement.matrix());
  return true;
}
