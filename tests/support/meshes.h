#pragma once
// Small meshes built by hand for tests.
#include <memory>
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

}  // namespace zortest
