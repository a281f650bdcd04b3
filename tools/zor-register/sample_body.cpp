#include "tools/zor-register/sample_body.h"

#include <cmath>
#include <random>
#include <vector>

#include "zor/model/mesh_builder.h"
#include "zor/model/unit.h"

namespace zortool {
namespace {

constexpr double kHalf[3] = {35.0, 23.0, 15.0};  // mm: half extents of the block

// Squared distance of the unit direction `d` from the direction of `at`, over
// `width`.
double Spread(const MMVector3d& d, MMVector3d at, double width) {
  Normalize(at);
  return Length2(d - at) / width;
}

// Distance (mm) from the body's centre to its surface along the unit direction
// `d`.
double SurfaceRadius(const MMVector3d& d) {
  const double p = 6.0;  // rounds the block's edges
  double q = 0.0;
  for (int k = 0; k < 3; ++k) q += std::pow(std::fabs(d[k]) / kHalf[k], p);
  double r = 1.0 / std::pow(q, 1.0 / p);
  // A flat-topped boss on the top face, off the middle towards +x +y.
  const double boss = Spread(d, MMVector3d(0.45, 0.3, 0.84), 0.015);
  r += 7.0 * std::exp(-boss * boss);
  // A dimple in the -y flank, and a groove down the -x end, off its middle.
  r -= 4.0 * std::exp(-Spread(d, MMVector3d(-0.3, -0.9, 0.2), 0.02));
  if (d[0] < -0.5) r -= 2.5 * std::exp(-(d[1] - 0.15) * (d[1] - 0.15) / 0.003);
  return r;
}

}  // namespace

std::unique_ptr<MStlBase> MakeSampleBody(int n) {
  const double ie = MUnit::GetIE();
  // Points of the cube's surface lattice [0, n]^3, each made once so the mesh
  // is closed.
  const std::size_t side = static_cast<std::size_t>(n) + 1;
  std::vector<std::uint32_t> id(side * side * side, UINT32_MAX);
  std::vector<double> xyz;
  const auto point = [&](int i, int j, int k) {
    std::uint32_t& slot = id[(static_cast<std::size_t>(i) * side + j) * side + k];
    if (slot == UINT32_MAX) {
      slot = static_cast<std::uint32_t>(xyz.size() / 3);
      // Equal angles rather than equal steps across each face spread the points
      // evenly.
      const int lattice[3] = {i, j, k};
      MMVector3d d;
      for (int a = 0; a < 3; ++a) d[a] = std::tan((2.0 * lattice[a] / n - 1.0) * M_PI / 4.0) * kHalf[a];
      Normalize(d);
      const double r = SurfaceRadius(d) * ie;
      for (int a = 0; a < 3; ++a) xyz.push_back(std::round(d[a] * r));
    }
    return slot;
  };
  std::vector<std::uint32_t> triangles;
  for (int a = 0; a < 3; ++a)
    for (int s = 0; s <= n; s += n) {
      const int b = (a + 1) % 3, c = (a + 2) % 3;
      const auto at = [&](int u, int v) {
        int lattice[3];
        lattice[a] = s, lattice[b] = u, lattice[c] = v;
        return point(lattice[0], lattice[1], lattice[2]);
      };
      for (int u = 0; u < n; ++u)
        for (int v = 0; v < n; ++v) {
          const std::uint32_t q[4] = {at(u, v), at(u + 1, v), at(u + 1, v + 1), at(u, v + 1)};
          // Counter-clockwise seen from outside: e_b x e_c points along +a.
          if (s == n)
            triangles.insert(triangles.end(), {q[0], q[1], q[2], q[0], q[2], q[3]});
          else
            triangles.insert(triangles.end(), {q[0], q[2], q[1], q[0], q[3], q[2]});
        }
    }
  return BuildStl(xyz.data(), xyz.size() / 3, triangles.data(), triangles.size() / 3);
}

MMTransformMatrix DrawPose(std::uint64_t seed, double reach) {
  // Raw engine output only: the standard distributions differ between
  // libraries.
  std::mt19937_64 engine(seed);
  const auto uniform = [&] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
  // A uniform rotation from three uniform numbers (a unit quaternion).
  const double u1 = uniform(), u2 = uniform(), u3 = uniform();
  const double a = std::sqrt(1.0 - u1), b = std::sqrt(u1);
  const double x = a * std::sin(2 * M_PI * u2), y = a * std::cos(2 * M_PI * u2);
  const double z = b * std::sin(2 * M_PI * u3), w = b * std::cos(2 * M_PI * u3);
  double m[16] = {1 - 2 * (y * y + z * z),
                  2 * (x * y - z * w),
                  2 * (x * z + y * w),
                  0,
                  2 * (x * y + z * w),
                  1 - 2 * (x * x + z * z),
                  2 * (y * z - x * w),
                  0,
                  2 * (x * z - y * w),
                  2 * (y * z + x * w),
                  1 - 2 * (x * x + y * y),
                  0,
                  0,
                  0,
                  0,
                  1};
  for (int r = 0; r < 3; ++r) m[4 * r + 3] = (2.0 * uniform() - 1.0) * reach;
  MMTransformMatrix pose;
  pose.MakeFromDouble16(m);
  return pose;
}

}  // namespace zortool
