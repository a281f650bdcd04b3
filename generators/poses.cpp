#include "generators/poses.h"

#include <cmath>

namespace zorgen {
namespace {

constexpr double kPi = 3.14159265358979323846;

// The rotation of the unit quaternion (w, x, y, z), then the shift.
MMTransformMatrix PoseFromQuaternion(double w, double x, double y, double z, const MMVector3d& shift) {
  const double rows[16] = {1 - 2 * (y * y + z * z),
                           2 * (x * y - z * w),
                           2 * (x * z + y * w),
                           shift[0],
                           2 * (x * y + z * w),
                           1 - 2 * (x * x + z * z),
                           2 * (y * z - x * w),
                           shift[1],
                           2 * (x * z - y * w),
                           2 * (y * z + x * w),
                           1 - 2 * (x * x + y * y),
                           shift[2],
                           0,
                           0,
                           0,
                           1};
  MMTransformMatrix pose;
  pose.MakeFromDouble16(rows);
  return pose;
}

}  // namespace

MMTransformMatrix DrawPose(std::uint64_t seed, double reach) {
  std::mt19937_64 engine(seed);
  const auto uniform = [&] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
  // A uniform rotation from three uniform numbers (Shoemake's unit quaternion).
  const double u1 = uniform(), u2 = uniform(), u3 = uniform();
  const double a = std::sqrt(1.0 - u1), b = std::sqrt(u1);
  const double x = a * std::sin(2 * kPi * u2), y = a * std::cos(2 * kPi * u2);
  const double z = b * std::sin(2 * kPi * u3), w = b * std::cos(2 * kPi * u3);
  MMVector3d shift;
  for (int r = 0; r < 3; ++r) shift[r] = (2.0 * uniform() - 1.0) * reach;
  return PoseFromQuaternion(w, x, y, z, shift);
}

MMTransformMatrix UniformPose(std::mt19937& rng, double maxShift) {
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  double q[4];
  double norm = 0.0;
  for (double& c : q) c = gauss(rng), norm += c * c;
  norm = std::sqrt(norm);
  for (double& c : q) c /= norm;
  MMVector3d shift(gauss(rng), gauss(rng), gauss(rng));
  shift *= maxShift * std::cbrt(unit(rng)) / Length(shift);
  return PoseFromQuaternion(q[0], q[1], q[2], q[3], shift);
}

}  // namespace zorgen
