#pragma once
// Test data shared by the spatial benchmarks and the comparison program: a closed,
// bumpy, slightly noisy surface like a scanned part, and query points spread around
// its surface. Everything is seeded, so every run sees the same data.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace zorbench {

template <typename T>
void Push3(std::vector<T>& v, T a, T b, T c) {
  v.push_back(a);
  v.push_back(b);
  v.push_back(c);
}

struct MeshArrays {
  std::vector<double> xyz;  // internal units (micrometres), integral values
  std::vector<std::uint32_t> indices;
  double diagonal = 0.0;
};

// The diagonal of the box of the points.
inline void SetDiagonal(MeshArrays& m) {
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
  for (std::size_t i = 0; i < m.xyz.size(); ++i) {
    lo[i % 3] = std::min(lo[i % 3], m.xyz[i]);
    hi[i % 3] = std::max(hi[i % 3], m.xyz[i]);
  }
  m.diagonal = std::sqrt((hi[0] - lo[0]) * (hi[0] - lo[0]) + (hi[1] - lo[1]) * (hi[1] - lo[1]) +
                         (hi[2] - lo[2]) * (hi[2] - lo[2]));
}

// Triangles over points laid out as a north pole, `rows` - 1 rings of `cols` points and
// a south pole, outward winding; then the diagonal of the points' box.
inline void CloseRowsOfPoints(MeshArrays& m, int rows, int cols) {
  const std::uint32_t south = static_cast<std::uint32_t>(m.xyz.size() / 3 - 1);
  const auto at = [cols](int r, int c) { return static_cast<std::uint32_t>(1 + (r - 1) * cols + (c % cols)); };
  for (int c = 0; c < cols; ++c) Push3(m.indices, 0u, at(1, c), at(1, c + 1));
  for (int r = 1; r + 1 < rows; ++r)
    for (int c = 0; c < cols; ++c) {
      Push3(m.indices, at(r, c), at(r + 1, c), at(r + 1, c + 1));
      Push3(m.indices, at(r, c), at(r + 1, c + 1), at(r, c + 1));
    }
  for (int c = 0; c < cols; ++c) Push3(m.indices, at(rows - 1, c), south, at(rows - 1, c + 1));
  SetDiagonal(m);
}

// A sphere of radius 40 mm with bumps of a few millimetres and 5 micrometres of noise,
// about `triangles` triangles, rows of vertices in scan order.
inline MeshArrays MakeScanLikeMesh(std::int64_t triangles) {
  const int rows = std::max(4, static_cast<int>(std::sqrt(triangles / 4.0)));
  const int cols = std::max(8, static_cast<int>(triangles / (2.0 * rows)));
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0.0, 5.0);
  MeshArrays m;
  const double pi = 3.14159265358979323846;
  const auto radiusAt = [](double th, double ph) {
    return 40000.0 + 2500.0 * std::sin(3 * th) * std::cos(5 * ph) + 800.0 * std::sin(11 * th + 2 * ph);
  };
  Push3(m.xyz, 0.0, 0.0, std::round(radiusAt(0, 0)));
  for (int r = 1; r < rows; ++r) {
    const double th = pi * r / rows;
    for (int c = 0; c < cols; ++c) {
      const double ph = 2 * pi * c / cols;
      const double rad = radiusAt(th, ph) + noise(rng);
      Push3(m.xyz, std::round(rad * std::sin(th) * std::cos(ph)), std::round(rad * std::sin(th) * std::sin(ph)),
            std::round(rad * std::cos(th)));
    }
  }
  Push3(m.xyz, 0.0, 0.0, std::round(-radiusAt(pi, 0)));
  CloseRowsOfPoints(m, rows, cols);
  return m;
}

// `count` points on random triangles (uniform by area), each moved in a random
// direction by up to `spread` times the diagonal. Three doubles per point.
inline std::vector<double> MakeQueriesAroundSurface(const MeshArrays& m, std::size_t count, double spread = 0.01) {
  std::vector<double> cumulative;
  cumulative.reserve(m.indices.size() / 3);
  double total = 0.0;
  for (std::size_t t = 0; t < m.indices.size(); t += 3) {
    const double* a = &m.xyz[3 * m.indices[t]];
    const double* b = &m.xyz[3 * m.indices[t + 1]];
    const double* c = &m.xyz[3 * m.indices[t + 2]];
    const double u[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]}, v[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
    const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    total += std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    cumulative.push_back(total);
  }
  std::mt19937 rng(42);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::vector<double> q;
  q.reserve(3 * count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t t =
        std::lower_bound(cumulative.begin(), cumulative.end(), unit(rng) * total) - cumulative.begin();
    const double* a = &m.xyz[3 * m.indices[3 * t]];
    const double* b = &m.xyz[3 * m.indices[3 * t + 1]];
    const double* c = &m.xyz[3 * m.indices[3 * t + 2]];
    double s = unit(rng), r = unit(rng);
    if (s + r > 1) s = 1 - s, r = 1 - r;
    double dir[3] = {gauss(rng), gauss(rng), gauss(rng)};
    const double len = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
    const double off = unit(rng) * spread * m.diagonal / len;
    for (int k = 0; k < 3; ++k) q.push_back(a[k] + s * (b[k] - a[k]) + r * (c[k] - a[k]) + dir[k] * off);
  }
  return q;
}

}  // namespace zorbench
