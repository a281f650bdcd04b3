#include "zor/icp/iso_sphere.h"

#include <cstdint>
#include <limits>
#include <random>

namespace ZorStlRegistration::IsoSphere {
namespace {

struct IsoSpherePoint {
  MMVector<double, 3> position;
  MMVector<double, 3> force;
  double displacement = std::numeric_limits<double>::infinity();
};

// An integer in [-500, 499] from the generator: values of 4294967000 and above are
// drawn again so that each of the 1000 outcomes is equally likely.
double DrawGridCoordinate(std::mt19937& generator) {
  for (;;) {
    const std::uint32_t v = static_cast<std::uint32_t>(generator());
    if (v >= 4294967000u) continue;
    return static_cast<double>(static_cast<std::int32_t>(v / 4294967u) - 500);
  }
}

// Position divided by its scale-safe length. The zero vector (one draw in 10^9) gives
// NaN coordinates; it is kept as such so that a count always yields the same output.
MMVector<double, 3> DivideByLength(const MMVector<double, 3>& v) {
  const double length = Length(v);
  return MMVector<double, 3>(v[0] / length, v[1] / length, v[2] / length);
}

constexpr double kTolerance = 0.01;
constexpr int kMaxPasses = 10000;

void Relax(std::vector<IsoSpherePoint>& points) {
  const std::size_t n = points.size();
  for (int pass = 1; pass <= kMaxPasses; ++pass) {
    // All forces of a pass read the positions at its start; point 0 stays fixed.
    for (std::size_t i = 1; i < n; ++i) {
      MMVector<double, 3> force;
      const MMVector<double, 3> pi = points[i].position;
      for (std::size_t j = 0; j < n; ++j) {
        if (j == i) continue;
        const MMVector<double, 3> d = points[j].position - pi;
        force += d / Dot(d, d);
      }
      points[i].force = force;
    }
    double largestMove = 0.0;
    for (std::size_t i = 1; i < n; ++i) {
      IsoSpherePoint& p = points[i];
      const MMVector<double, 3> moved = DivideByLength(p.position - p.force);
      p.displacement = Length(p.position - moved);
      p.position = moved;
      if (p.displacement > largestMove) largestMove = p.displacement;
    }
    if (kTolerance >= largestMove) return;
  }
}

}  // namespace

std::vector<MMVector<double, 3>> Generate(std::size_t count) {
  if (count == 0) return {};
  if (count == 1) return {MMVector<double, 3>(1.0, 0.0, 0.0)};

  std::mt19937 generator;  // default seed 5489
  std::vector<IsoSpherePoint> points;
  points.reserve(count);
  points.push_back({MMVector<double, 3>(1.0, 0.0, 0.0), {}, std::numeric_limits<double>::infinity()});
  while (points.size() < count) {
    const double x = DrawGridCoordinate(generator);
    const double y = DrawGridCoordinate(generator);
    const double z = DrawGridCoordinate(generator);
    const MMVector<double, 3> candidate = DivideByLength(MMVector<double, 3>(x, y, z));
    bool duplicate = false;
    for (const IsoSpherePoint& p : points)
      if (p.position == candidate) {
        duplicate = true;
        break;
      }
    if (!duplicate) points.push_back({candidate, {}, std::numeric_limits<double>::infinity()});
  }
  Relax(points);

  std::vector<MMVector<double, 3>> result;
  result.reserve(count);
  for (const IsoSpherePoint& p : points) result.push_back(p.position);
  return result;
}

}  // namespace ZorStlRegistration::IsoSphere
