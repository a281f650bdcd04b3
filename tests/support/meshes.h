#pragma once
// Small meshes built by hand for tests.
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
  const auto newPoint = [&] {
    return mesh->AddPoint(coordinate(rng), coordinate(rng), coordinate(rng), true);
  };
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
      c[2] = mesh->AddPoint(t % (2 * degenerateEvery) == 0 ? MMVector3i(2 * b[0] - a[0], 2 * b[1] - a[1], 2 * b[2] - a[2]) : a,
                            true);
    }
    mesh->AddTriangle(c[0], c[1], c[2], nullptr);
  }
  return mesh;
}

}  // namespace zortest
