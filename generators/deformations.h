#pragma once
// Known deformations of a body, for judging a morph by where the deformation takes each
// vertex: local changes along the surface normals (bumps and dents of a given size), a
// bend and a twist of the whole body, and a stretch under a turn. Each gives the place
// of every vertex of the arrays it is given, in order. Deterministic.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "generators/mesh_arrays.h"
#include "zor/model/mm_vector.h"

namespace zorgen {

// A bump (height above 0) or a dent (below) about a vertex: every vertex moves along its
// normal by height times a Gaussian of its distance to the centre, sigma half of
// `radius`.
struct LocalChange {
  std::size_t centre = 0;  // vertex
  double radius = 0.0;     // internal units
  double height = 0.0;     // internal units
};

// The area-weighted normal of every vertex (unit; zero for a vertex of no triangle).
std::vector<MMVector3d> VertexNormals(const MeshArrays& m);

// The places of the vertices of `m` under the changes, summed.
std::vector<MMVector3d> ChangedAlongNormals(const MeshArrays& m, const std::vector<LocalChange>& changes);

// The changes of a named case on `m`, drawn from `seed`: "bump-5", "bump-10", "bump-20"
// (a bump a fifth, a tenth, a twentieth of the body's largest extent across, at most
// 4 mm high), "dent-5", "dent-10", "dent-20" (the same, inwards), and "several" (two
// bumps and a dent a tenth across, apart from one another). Empty for other names.
std::vector<LocalChange> NamedChanges(const MeshArrays& m, const std::string& name, std::uint64_t seed);

// The places of the vertices under a bend ("bend": the ends along x lifted in z by 2% of
// the diagonal, quadratically) or a twist ("twist": about z, the ends turned so that the
// box's corners move 2% of the diagonal). The points unchanged for other names.
std::vector<MMVector3d> Bent(const MeshArrays& m, const std::string& name);

// `m` with its points at `places` (rounded to whole units), its triangles kept.
MeshArrays Placed(const MeshArrays& m, const std::vector<MMVector3d>& places);

// `m` scaled about its box's centre so that its largest extent is `extent`, rounded to
// whole units.
MeshArrays ScaledToExtent(const MeshArrays& m, double extent);

// `m` simplified to about `triangles` triangles on a subset of its points (meshoptimizer),
// the points no triangle keeps dropped.
MeshArrays Simplified(const MeshArrays& m, std::size_t triangles);

}  // namespace zorgen
