#pragma once
// Rigid poses as 4x4 Eigen matrices for the solvers of several views: to and from the
// model's transforms, their inverse, and the pose of a small turn (rotation vector) and
// shift.

#include <Eigen/Dense>

#include "zor/model/transform.h"

namespace ZorStlRegistration::detail {

using Pose = Eigen::Matrix4d;
using Vector6 = Eigen::Matrix<double, 6, 1>;

inline Pose ToPose(const MMTransformMatrix& t) {
  Pose p;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) p(r, c) = t.m[r][c];
  return p;
}

inline MMTransformMatrix FromPose(const Pose& p) {
  double values[16];
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) values[4 * r + c] = p(r, c);
  MMTransformMatrix t;
  t.MakeFromDouble16(values);
  return t;
}

inline Pose Inverse(const Pose& p) {
  Pose q = Pose::Identity();
  q.topLeftCorner<3, 3>() = p.topLeftCorner<3, 3>().transpose();
  q.topRightCorner<3, 1>() = -q.topLeftCorner<3, 3>() * p.topRightCorner<3, 1>();
  return q;
}

inline Pose Exp(const Vector6& d) {
  Pose p = Pose::Identity();
  const Eigen::Vector3d w = d.head<3>();
  const double angle = w.norm();
  if (angle > 0.0) p.topLeftCorner<3, 3>() = Eigen::AngleAxisd(angle, w / angle).toRotationMatrix();
  p.topRightCorner<3, 1>() = d.tail<3>();
  return p;
}

// A pose's shift scaled (between internal units and millimetres).
inline Pose Scaled(Pose p, double factor) {
  p.topRightCorner<3, 1>() *= factor;
  return p;
}

}  // namespace ZorStlRegistration::detail
