#pragma once
// Generated test bodies for the registration benchmarks: closed meshes of about a given
// number of triangles, built as rows of vertices over the sphere with a radius that
// depends on direction. Everything is seeded, so every run sees the same meshes.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/support/scan_like_mesh.h"
#include "zor/model/mesh_builder.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace zorbench {

enum class Shape { Smooth, Bumpy, Featured };

inline const char* ShapeName(Shape s) {
  switch (s) {
    case Shape::Smooth: return "smooth";
    case Shape::Bumpy: return "bumpy";
    case Shape::Featured: return "featured";
  }
  return "?";
}

// Radius (micrometres) in the direction (x, y, z) of unit length.
inline double ShapeRadius(Shape s, double x, double y, double z) {
  switch (s) {
    case Shape::Smooth: {
      // An ellipsoid of semi-axes 50, 35 and 25 mm.
      const double q = x * x / (50.0 * 50.0) + y * y / (35.0 * 35.0) + z * z / (25.0 * 25.0);
      return 1000.0 / std::sqrt(q);
    }
    case Shape::Bumpy: {
      const double th = std::acos(std::max(-1.0, std::min(1.0, z))), ph = std::atan2(y, x);
      return 40000.0 + 2500.0 * std::sin(3 * th) * std::cos(5 * ph) + 800.0 * std::sin(11 * th + 2 * ph);
    }
    case Shape::Featured: {
      // A rounded block of 80 x 60 x 40 mm with sharp-ish edges, a boss on one face
      // and a groove across another.
      const double p = 10.0;
      const double q = std::pow(std::fabs(x) / 40.0, p) + std::pow(std::fabs(y) / 30.0, p) + std::pow(std::fabs(z) / 20.0, p);
      double r = 1000.0 / std::pow(q, 1.0 / p);
      const double bx = x - 0.5, by = y - 0.3, bz = z - 0.81;
      r += 6000.0 * std::exp(-(bx * bx + by * by + bz * bz) / 0.02);
      if (x < -0.2) r -= 1500.0 * std::exp(-(y * y) / 0.004);
      return r;
    }
  }
  return 0.0;
}

// About `triangles` triangles: a pole at each end and rows of `cols` points between.
// Points are rounded to whole micrometres, with `noise` micrometres of Gaussian noise.
inline MeshArrays MakeShape(Shape s, std::int64_t triangles, double noise = 0.0) {
  const int rows = std::max(4, static_cast<int>(std::sqrt(triangles / 4.0)));
  const int cols = std::max(8, static_cast<int>(triangles / (2.0 * rows)));
  std::mt19937 rng(11);
  std::normal_distribution<double> gauss(0.0, noise > 0.0 ? noise : 1.0);
  const double pi = 3.14159265358979323846;
  MeshArrays m;
  const auto push = [&](double th, double ph) {
    const double x = std::sin(th) * std::cos(ph), y = std::sin(th) * std::sin(ph), z = std::cos(th);
    const double r = ShapeRadius(s, x, y, z) + (noise > 0.0 ? gauss(rng) : 0.0);
    Push3(m.xyz, std::round(r * x), std::round(r * y), std::round(r * z));
  };
  push(0.0, 0.0);
  for (int r = 1; r < rows; ++r)
    for (int c = 0; c < cols; ++c) push(pi * r / rows, 2 * pi * (c + 0.5 * (r % 2)) / cols);
  push(pi, 0.0);
  CloseRowsOfPoints(m, rows, cols);
  return m;
}

// The mesh of `m` moved by `pose` (rounded to whole units), keeping only the triangles
// whose first corner has a coordinate along `cutAxis` below the `keep` quantile, so
// that `keep` 0.7 gives a partial copy of about 70%.
inline std::unique_ptr<MStlBase> MakeMovedCopy(const MeshArrays& m, const MMTransformMatrix& pose, double keep = 1.0,
                                               int cutAxis = 0) {
  std::vector<double> xyz(m.xyz.size());
  for (std::size_t i = 0; i < m.xyz.size(); i += 3) {
    MMVector3d p(m.xyz[i], m.xyz[i + 1], m.xyz[i + 2]);
    pose.Transform(p, false);
    for (int k = 0; k < 3; ++k) xyz[i + k] = std::round(p[k]);
  }
  std::vector<std::uint32_t> indices;
  if (keep >= 1.0) {
    indices = m.indices;
  } else {
    std::vector<double> along;
    for (std::size_t t = 0; t < m.indices.size(); t += 3) along.push_back(m.xyz[3 * m.indices[t] + cutAxis]);
    std::vector<double> sorted = along;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(keep * sorted.size()), sorted.end());
    const double cut = sorted[static_cast<std::size_t>(keep * sorted.size())];
    for (std::size_t t = 0; t < along.size(); ++t)
      if (along[t] < cut) indices.insert(indices.end(), &m.indices[3 * t], &m.indices[3 * t] + 3);
  }
  return BuildStl(xyz.data(), xyz.size() / 3, indices.data(), indices.size() / 3);
}

inline std::unique_ptr<MStlBase> MakeMesh(const MeshArrays& m) {
  return BuildStl(m.xyz.data(), m.xyz.size() / 3, m.indices.data(), m.indices.size() / 3);
}

}  // namespace zorbench
