#pragma once
// Small meshes drawn by hand, for tests that need to know every point and triangle.

#include <memory>

#include "zor/model/stl_base.h"

namespace zorgen {

// A tetrahedron, outward winding:
//        3
//       /|\        corners: 0 (0,0,0), 1 (10,0,0), 2 (0,10,0), 3 (0,0,10)
//      0-+-2       faces: (0,2,1) bottom, (0,1,3), (0,3,2), (1,2,3)
//       \|/
//        1
std::unique_ptr<MStlBase> MakeTetrahedron();

// An n x n grid of squares `step` internal units wide in the plane z = 0, two triangles
// each, counter-clockwise seen from +z:
//   d---c      point (i, j) is number j (n + 1) + i; square (i, j) gives the
//   | / |      triangles (a b c) and (a c d), with a = (i, j), b = (i + 1, j),
//   a---b      c = (i + 1, j + 1) and d = (i, j + 1).
std::unique_ptr<MStlBase> MakeGrid(int n, int step = 1);

// A closed box [0, ex] x [0, ey] x [0, ez], outward winding, each face an n x n grid,
// face by face (-x, +x, -y, +y, -z, +z). Edges and corners are shared points.
std::unique_ptr<MStlBase> MakeBox(int ex, int ey, int ez, int n);

// `count` random triangles (seeded) with corners in [0, extent)^3, each corner a point
// of its own unless `shareCorners`, in which case corners come from a pool of count / 2
// points. With `degenerateEvery` n > 0 every n-th triangle is flattened: its third
// corner goes to the reflection of the first through the second, or onto the first.
std::unique_ptr<MStlBase> MakeRandomTriangles(int count, unsigned seed, int extent = 1000, bool shareCorners = false,
                                              int degenerateEvery = 0);

}  // namespace zorgen
