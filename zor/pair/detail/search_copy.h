#pragma once
// The coarse copy a large mesh is searched on: what the pose search needs is a faithful
// surface of some tens of thousands of triangles with its normals, not a simplification
// that keeps every point within a bound. Vertex clustering on a grid sized from the
// surface's area gives one in a pass or two over the points: each cell keeps one of the
// mesh's own points, so every point of the copy lies on the mesh, exactly.

#include <cstddef>
#include <memory>
#include <utility>

#include "zor/model/progress.h"
#include "zor/model/stl_base.h"
#include "zor/pair/export.h"

namespace ZorStlRegistration::detail {

// A copy of `mesh` clustered to about `triangles` triangles (never more than the mesh
// has), its points in the mesh's list order. A mesh without triangles gives a copy of
// its points alone. `mesh` is only read.
ZOR_PAIR_API std::unique_ptr<MStlBase> ClusteredSearchCopy(const MStlBase& mesh, std::size_t triangles);

// Whether SearchCopies clusters `mesh` (more than four times `searchTriangles`
// triangles) rather than reducing it.
bool ClustersMesh(const MStlBase& mesh, std::size_t searchTriangles);

// The copies of both meshes the pose search runs on, made at once: a mesh of more than
// four times `searchTriangles` triangles clustered to about that many (0: none is), a
// smaller one reduced by the registration operator's reduction within `bound`
// (internal units). `progress` (may be null) hears "Reduction", each mesh's share of it
// by its triangles. The meshes are only read.
std::pair<std::unique_ptr<MStlBase>, std::unique_ptr<MStlBase>> SearchCopies(
    MStlBase& moving, MStlBase& fixed, double bound, std::size_t searchTriangles,
    const std::shared_ptr<ZorSDK::Common::IProgressDelegate>& progress);

}  // namespace ZorStlRegistration::detail
