#include "generators/small_meshes.h"

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "generators/mesh_arrays.h"

namespace zorgen {

std::unique_ptr<MStlBase> MakeTetrahedron() {
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

std::unique_ptr<MStlBase> MakeGrid(int n, int step) {
  return MakeMesh(HeightField(n, static_cast<double>(step), [](int, int) { return 0.0; }));
}

std::unique_ptr<MStlBase> MakeBox(int ex, int ey, int ez, int n) {
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

std::unique_ptr<MStlBase> MakeRandomTriangles(int count, unsigned seed, int extent, bool shareCorners,
                                              int degenerateEvery) {
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

}  // namespace zorgen
