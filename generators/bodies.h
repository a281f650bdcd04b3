#pragma once
// Closed bodies for tests, benchmarks and the command-line tool's demo: surfaces laid
// on a lattice of directions (sphere rows, a geodesic sphere, a cube) at a radius that
// depends on the direction, in internal units (micrometres for millimetre bodies),
// rounded to whole units. Everything is seeded, so every run sees the same meshes.

#include <cstdint>
#include <memory>

#include "generators/mesh_arrays.h"
#include "zor/model/stl_base.h"

namespace zorgen {

// A closed sphere of `radius` about `centre` over sphere rows (see RowsOfPoints), with
// `bump` adding a smooth asymmetric relief of that amplitude (0: a true sphere).
std::unique_ptr<MStlBase> MakeSphere(double radius, int rows, int cols, double bump = 0.0,
                                     MMVector3d centre = MMVector3d());

// A sphere of radius 40 mm with bumps of a few millimetres and 5 micrometres of noise,
// about `triangles` triangles, rows of vertices in scan order.
MeshArrays MakeScanLikeMesh(std::int64_t triangles);

// A bumpy height field of about `triangles` triangles, 0.1 mm apart: shared vertices,
// valence 6 inside, the layout of a scanned surface patch. Heights are not rounded.
MeshArrays MakeBumpyHeightField(std::int64_t triangles);

// The benchmark bodies.
enum class Shape { Smooth, Bumpy, Featured, Box, Rod, Disc, Ball };

const char* ShapeName(Shape s);

// About `triangles` triangles of body `s`, in micrometres, with vertices spread about
// evenly over the surface as a scanner's would be: a geodesic sphere stretched to the
// body's extents, laid on the surface along rays from the centre, then relaxed (each
// vertex to the middle of its neighbours, back on the surface). Points are rounded to
// whole micrometres after `noise` micrometres of Gaussian noise along the ray.
MeshArrays MakeShape(Shape s, std::int64_t triangles, double noise = 0.0);

// The demo's sample body: a closed body of 12 n^2 triangles, about 70 x 46 x 30 mm plus
// its features, in internal units of MUnit::GetIE() per millimetre. A rounded block with
// a boss on its top, a dimple in one flank and a groove across one end, so that exactly
// one pose lays a copy on it. Vertices are spread about evenly (a cube grid warped onto
// the surface).
std::unique_ptr<MStlBase> MakeSampleBody(int n);

}  // namespace zorgen
