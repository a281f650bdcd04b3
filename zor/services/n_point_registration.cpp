#include "zor/services/n_point_registration.h"

#include <cmath>
#include <cstddef>

#include <Eigen/Dense>

namespace ZorSDK {

Math::matrix4x4<double> NPointRegistration(const std::vector<Math::point<double, 3>>& a,
                                           const std::vector<Math::point<double, 3>>& b, bool withScale) {
  Math::matrix4x4<double> result;  // identity
  const std::size_t n = a.size();
  if (n == 0 || b.size() != n) return result;

  // Means first, then the covariance of the centred clouds: centring before the products
  // keeps the sums small for clouds far from the origin.
  Eigen::Vector3d meanA = Eigen::Vector3d::Zero(), meanB = Eigen::Vector3d::Zero();
  for (std::size_t i = 0; i < n; ++i) {
    for (int k = 0; k < 3; ++k) {
      if (!std::isfinite(a[i][k]) || !std::isfinite(b[i][k])) return result;
      meanA[k] += a[i][k];
      meanB[k] += b[i][k];
    }
  }
  meanA /= double(n);
  meanB /= double(n);
  Eigen::Matrix3d covariance = Eigen::Matrix3d::Zero();
  double spreadA = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    const Eigen::Vector3d pa(a[i][0] - meanA[0], a[i][1] - meanA[1], a[i][2] - meanA[2]);
    const Eigen::Vector3d pb(b[i][0] - meanB[0], b[i][1] - meanB[1], b[i][2] - meanB[2]);
    covariance.noalias() += pb * pa.transpose();
    spreadA += pa.squaredNorm();
  }

  Eigen::Matrix3d rotation = Eigen::Matrix3d::Identity();
  double scale = 1.0;
  if (spreadA > 0.0) {
    const Eigen::JacobiSVD<Eigen::Matrix3d> svd(covariance, Eigen::ComputeFullU | Eigen::ComputeFullV);
    // The sign correction turns the best orthogonal matrix into the best rotation.
    Eigen::Vector3d d(1.0, 1.0, 1.0);
    if ((svd.matrixU() * svd.matrixV().transpose()).determinant() < 0.0) d[2] = -1.0;
    rotation = svd.matrixU() * d.asDiagonal() * svd.matrixV().transpose();
    if (withScale) scale = svd.singularValues().dot(d) / spreadA;
  }
  const Eigen::Vector3d translation = meanB - scale * rotation * meanA;
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) result(r, c) = scale * rotation(r, c);
    result(r, 3) = translation[r];
  }
  return result;
}

}  // namespace ZorSDK
