#pragma once
// Sampling a mesh: an evenly spread set of points found on a sorted grid, each with the
// fitted normal of the surface there when asked (see surface_patch.h).
//
// Everything here is deterministic and draws on no random source. The mesh must not
// change while it is sampled.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/export.h"
#include "zor/model/stl_base.h"

namespace ZorStlRegistration {

// Order of two vectors by one component, ascending, with no tie-break.
struct CmpByX {
  bool operator()(const MMVector3d& a, const MMVector3d& b) const { return a[0] < b[0]; }
};
struct CmpByY {
  bool operator()(const MMVector3d& a, const MMVector3d& b) const { return a[1] < b[1]; }
};
struct CmpByZ {
  bool operator()(const MMVector3d& a, const MMVector3d& b) const { return a[2] < b[2]; }
};

struct GridSampleContext {
  const std::vector<MMVector3d>* source = nullptr;
  double cellSize = 0.0;  // internal units
  bool countOnly = false;
};

// Counts the occupied cells of a grid over the source points and, unless countOnly,
// appends the mean of each cell's points to `out`. Cells are not a fixed lattice: slabs
// start at the lowest x, each slab's rows at its lowest y, each row's cells at its
// lowest z; a cell holds the points below its upper bound, so a point exactly on it
// opens the next cell. A cell size that is not above 0 (or not finite) gives cells of
// no extent: each set of points with equal coordinates is one cell.
ZOR_API std::uint64_t GridSample(const GridSampleContext& context, std::vector<MMVector3d>& out);

// About `wanted` points spread evenly over the mesh, in internal units: all mesh points
// (in point order) when there are no more than `wanted`, otherwise the centroids of a
// grid whose cell size is found by bisection until the count is within 4 of `wanted`.
// With `normals` not null, each sample moves onto its nearest mesh point and gets the
// fitted unit normal there (over `normalRadius`, internal units), negated when
// `flipNormals`; a sample whose nearest point has no triangle keeps its place and the
// zero normal.
//
// The x extent drives the search. When it is zero (every point at one x of 0 or more),
// the search runs on the largest extent of the three axes instead, and when all points
// coincide the one cell holds them all.
ZOR_API void SampleSurface(MStlBase* mesh, std::uint64_t wanted, double normalRadius, bool flipNormals,
                           std::vector<MMVector3d>& points, std::vector<MMVector3d>* normals);

}  // namespace ZorStlRegistration
