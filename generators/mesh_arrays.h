#pragma once
// Meshes as flat arrays, the point lattices the generators lay them on, and what the
// benchmarks derive from them. Everything is deterministic: the same call gives the
// same arrays on every run.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "zor/model/mm_vector.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace zorgen {

template <typename T>
void Push3(std::vector<T>& v, T a, T b, T c) {
  v.push_back(a);
  v.push_back(b);
  v.push_back(c);
}

struct MeshArrays {
  std::vector<double> xyz;  // internal units (micrometres), integral values
  std::vector<std::uint32_t> indices;
  double diagonal = 0.0;  // of the points' box
};

// Sets the diagonal of the box of the points.
void SetDiagonal(MeshArrays& m);

// The mesh of the arrays, coincident points joined.
std::unique_ptr<MStlBase> MakeMesh(const MeshArrays& m);

// The arrays of a mesh: points in list order, triangles in list order.
MeshArrays ArraysOf(const MStlBase& mesh);

// A grid of (n + 1)^2 points `step` apart in x and y, point (i, j) at the height
// height(i, j), row j after row j; two triangles a square, counter-clockwise seen from
// +z. Coordinates are taken as given (not rounded).
template <typename Height>
MeshArrays HeightField(int n, double step, Height&& height) {
  MeshArrays m;
  m.xyz.reserve(3 * static_cast<std::size_t>(n + 1) * static_cast<std::size_t>(n + 1));
  for (int j = 0; j <= n; ++j)
    for (int i = 0; i <= n; ++i) Push3(m.xyz, i * step, j * step, static_cast<double>(height(i, j)));
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) {
      const std::uint32_t a = static_cast<std::uint32_t>(j * (n + 1) + i), b = a + 1,
                          c = a + static_cast<std::uint32_t>(n) + 2, d = a + static_cast<std::uint32_t>(n) + 1;
      Push3(m.indices, a, b, c);
      Push3(m.indices, a, c, d);
    }
  SetDiagonal(m);
  return m;
}

// A closed surface over the sphere's rows: a north pole, `rows` - 1 rings of `cols`
// points and a south pole, outward winding. Point (theta, phi), theta = pi r / rows from
// +z and phi = 2 pi c / cols, lies at at(theta, phi, isPole), rounded to whole units;
// `at` is called once a point, poles first and last, rings in order.
template <typename At>
MeshArrays RowsOfPoints(int rows, int cols, At&& at) {
  constexpr double kPi = 3.14159265358979323846;
  MeshArrays m;
  const auto push = [&](const MMVector3d& p) { Push3(m.xyz, std::round(p[0]), std::round(p[1]), std::round(p[2])); };
  push(at(0.0, 0.0, true));
  for (int r = 1; r < rows; ++r)
    for (int c = 0; c < cols; ++c) push(at(kPi * r / rows, 2 * kPi * c / cols, false));
  push(at(kPi, 0.0, true));
  const std::uint32_t south = static_cast<std::uint32_t>(m.xyz.size() / 3 - 1);
  const auto id = [cols](int r, int c) { return static_cast<std::uint32_t>(1 + (r - 1) * cols + (c % cols)); };
  for (int c = 0; c < cols; ++c) Push3(m.indices, 0u, id(1, c), id(1, c + 1));
  for (int r = 1; r + 1 < rows; ++r)
    for (int c = 0; c < cols; ++c) {
      Push3(m.indices, id(r, c), id(r + 1, c), id(r + 1, c + 1));
      Push3(m.indices, id(r, c), id(r + 1, c + 1), id(r, c + 1));
    }
  for (int c = 0; c < cols; ++c) Push3(m.indices, id(rows - 1, c), south, id(rows - 1, c + 1));
  SetDiagonal(m);
  return m;
}

// The mesh of `m` moved by `pose` (rounded to whole units), keeping only the triangles
// whose first corner has a coordinate along `cutAxis` below the `keep` quantile, so
// that `keep` 0.7 gives a partial copy of about 70%; only the points that the kept
// triangles use stay.
std::unique_ptr<MStlBase> MakeMovedCopy(const MeshArrays& m, const MMTransformMatrix& pose, double keep = 1.0,
                                        int cutAxis = 0);

// The same surface with the points renumbered, and the triangles reordered and each
// turned to start at another corner, all drawn from `seed`.
MeshArrays Shuffled(const MeshArrays& m, unsigned seed);

// `count` points on random triangles (uniform by area, seeded), each moved in a random
// direction by up to `spread` times the diagonal. Three doubles a point.
std::vector<double> MakeQueriesAroundSurface(const MeshArrays& m, std::size_t count, double spread = 0.01);

}  // namespace zorgen
