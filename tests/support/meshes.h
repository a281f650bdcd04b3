#pragma once
// Small meshes built by hand for tests.
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "zor/model/stl.h"

namespace zortest {

// A regular tetrahedron-like solid, outward winding:
//        3
//       /|\        corners: 0 (0,0,0), 1 (10,0,0), 2 (0,10,0), 3 (0,0,10)
//      0-+-2       faces: (0,2,1) bottom, (0,1,3), (0,3,2), (1,2,3)
//       \|/
//        1
inline std::unique_ptr<MStlBase> MakeTetrahedron() {
  auto mesh = std::make_unique<MStlBase>();
  MStlPoint* p0 = mesh->AddPoint(0, 0, 0, false);
  MStlPoint* p1 = mesh->AddPoint(10, 0, 0, false);
  MStlPoint* p2 = mesh->AddPoint(0, 10, 0, false);
  MStlPoint* p3 = mesh->AddPoint(0, 0, 10, false);
  mesh->AddTriangle(p0, p2, p1, nullptr);
  mesh->AddTriangle(p0, p1, p3, nullptr);
  mesh->AddTriangle(p0, p3, p2, nullptr);
  mesh->AddTriangle(p1, p2, p3, nullptr);
  return mesh;
}

// An n x n grid of unit squares in the plane z = 0, two triangles each, counter-clockwise
// seen from +z; spacing `step` internal units.
inline std::unique_ptr<MStlBase> MakeGrid(int n, int step = 1) {
  std::vector<double> xyz;
  std::vector<std::uint32_t> idx;
  for (int j = 0; j <= n; ++j)
    for (int i = 0; i <= n; ++i) xyz.insert(xyz.end(), {double(i * step), double(j * step), 0.0});
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) {
      const std::uint32_t a = j * (n + 1) + i, b = a + 1, c = a + n + 2, d = a + n + 1;
      idx.insert(idx.end(), {a, b, c, a, c, d});
    }
  return BuildStl(xyz.data(), xyz.size() / 3, idx.data(), idx.size() / 3);
}

// `count` random triangles with corners in [0, extent)^3, each corner a point of its
// own unless `shareCorners`, in which case corners come from a pool of count / 2
// points. With `degenerateEvery` n > 0 every n-th triangle is flattened: its third
// corner goes to the middle of the first two (rounded), or onto the first when the
// two would coincide.
inline std::unique_ptr<MStlBase> MakeRandomTriangles(int count, unsigned seed, int extent = 1000,
                                                     bool shareCorners = false, int degenerateEvery = 0) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> coordinate(0, extent - 1);
  auto mesh = std::make_unique<MStlBase>();
  std::vector<MStlPoint*> pool;
  const auto newPoint = [&] { return mesh->AddPoint(coordinate(rng), coordinate(rng), coordinate(rng), true); };
  if (shareCorners)
    for (int i = 0; i < count / 2 + 3; ++i) pool.push_back(newPoint());
  std::uniform_int_distribution<std::size_t> pick(0, pool.empty() ? 0 : pool.size() - 1);
  for (int t = 0; t < count; ++t) {
    MStlPoint* c[3];
    do {
      for (auto& p : c) p = shareCorners ? pool[pick(rng)] : newPoint();
    } while (c[0] == c[1] || c[1] == c[2] || c[0] == c[2]);
    if (degenerateEvery > 0 && t % degenerateEvery == 0) {
      const MMVector3i a = c[0]->GetInt(), b = c[1]->GetInt();
      c[2] = mesh->AddPoint(
          t % (2 * degenerateEvery) == 0 ? MMVector3i(2 * b[0] - a[0], 2 * b[1] - a[1], 2 * b[2] - a[2]) : a, true);
    }
    mesh->AddTriangle(c[0], c[1], c[2], nullptr);
  }
  return mesh;
}

// A closed UV sphere of `radius` about `centre`, outward winding: a pole vertex at
// each end and `rows` - 1 rings of `cols` vertices between them. `bump` adds a smooth
// asymmetric relief of that amplitude (0: a true sphere).
inline std::unique_ptr<MStlBase> MakeSphere(double radius, int rows, int cols, double bump = 0.0,
                                            MMVector3d centre = MMVector3d()) {
  const double pi = 3.14159265358979323846;
  std::vector<double> xyz;
  std::vector<std::uint32_t> idx;
  const auto push = [&](double th, double ph) {
    const double r = radius + bump * (std::sin(3 * th + 0.5) * std::cos(2 * ph) + 0.5 * std::sin(5 * ph + th));
    xyz.insert(xyz.end(),
               {std::round(centre[0] + r * std::sin(th) * std::cos(ph)),
                std::round(centre[1] + r * std::sin(th) * std::sin(ph)), std::round(centre[2] + r * std::cos(th))});
  };
  push(0, 0);
  for (int r = 1; r < rows; ++r)
    for (int c = 0; c < cols; ++c) push(pi * r / rows, 2 * pi * c / cols);
  push(pi, 0);
  const std::uint32_t south = static_cast<std::uint32_t>(xyz.size() / 3 - 1);
  const auto at = [cols](int r, int c) { return static_cast<std::uint32_t>(1 + (r - 1) * cols + (c % cols)); };
  for (int c = 0; c < cols; ++c) idx.insert(idx.end(), {0u, at(1, c), at(1, c + 1)});
  for (int r = 1; r + 1 < rows; ++r)
    for (int c = 0; c < cols; ++c)
      idx.insert(idx.end(), {at(r, c), at(r + 1, c), at(r + 1, c + 1), at(r, c), at(r + 1, c + 1), at(r, c + 1)});
  for (int c = 0; c < cols; ++c) idx.insert(idx.end(), {at(rows - 1, c), south, at(rows - 1, c + 1)});
  return BuildStl(xyz.data(), xyz.size() / 3, idx.data(), idx.size() / 3);
}

// A closed box [0, ex] x [0, ey] x [0, ez], outward winding, each face an n x n grid.
inline std::unique_ptr<MStlBase> MakeBox(int ex, int ey, int ez, int n) {
  auto mesh = std::make_unique<MStlBase>();
  const int size[3] = {ex, ey, ez};
  for (int axis = 0; axis < 3; ++axis)
    for (int side = 0; side < 2; ++side) {
      const int u = (axis + 1) % 3, v = (axis + 2) % 3;
      const auto corner = [&](int i, int j) {
        std::int32_t p[3];
        p[axis] = side * size[axis];
        p[u] = static_cast<std::int32_t>(std::lround(double(size[u]) * i / n));
        p[v] = static_cast<std::int32_t>(std::lround(double(size[v]) * j / n));
        return mesh->AddPoint(p[0], p[1], p[2], false);
      };
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
          MStlPoint *a = corner(i, j), *b = corner(i + 1, j), *c = corner(i + 1, j + 1), *d = corner(i, j + 1);
          // u x v points along +axis: keep that winding on the far side, reverse it on the near one.
          if (side == 1) {
            mesh->AddTriangle(a, b, c, nullptr);
            mesh->AddTriangle(a, c, d, nullptr);
          } else {
            mesh->AddTriangle(a, c, b, nullptr);
            mesh->AddTriangle(a, d, c, nullptr);
          }
        }
    }
  return mesh;
}

}  // namespace zortest
