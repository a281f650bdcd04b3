#pragma once
// Where the nearest surface is, and what is there: for a point and a mesh's triangle
// tree, the nearest triangle, the barycentric place on it, which feature of the
// triangle holds that place (its face, an edge, a corner), whether that feature lies on
// an open border of the mesh, and the angle-weighted pseudo-normal there, which gives
// the signed distance: positive on the side the surface faces, negative behind it, and
// so inside or outside a closed surface (Baerentzen and Aanaes, "Signed distance
// computation using the angle weighted pseudonormal", 2005).
//
// One answer for every caller: the verdict of a registration, the deviation of a
// result, the morph's matches and the reports all ask here.
//
// Threading: every function only reads the tree and the mesh; any number of threads
// may ask at once while no thread changes the mesh.

#include <cstdint>

#include "zor/model/mm_vector.h"
#include "zor/spatial/export.h"
#include "zor/spatial/nearest_query.h"
#include "zor/spatial/tree_property.h"

namespace MeshQueries {

// A barycentric weight at or below this puts a place on the edge opposite its corner
// (the point-triangle kernel's edge regions give weights of 0 up to rounding).
inline constexpr double kOnEdgeWeight = 1e-9;

enum class SurfaceFeature : std::uint8_t {
  Face,    // inside the triangle
  Edge,    // on the edge opposite corner `corner`
  Corner,  // at corner `corner`
};

struct SurfacePlace {
  std::uint32_t object = kNoObject;  // the triangle's place in the tree's object order; kNoObject: none
  const MStlTriangle* triangle = nullptr;
  double distance = 0.0;                // unsigned, from the query point
  double weights[3] = {0.0, 0.0, 0.0};  // barycentric, of the triangle's corners 0, 1, 2
  MMVector3d point;                     // the nearest place
  SurfaceFeature feature = SurfaceFeature::Face;
  std::uint8_t corner = 0;  // see SurfaceFeature

  bool Found() const { return object != kNoObject; }
};

// The place of object `object` of `holder` nearest to `query`.
ZOR_SPATIAL_API SurfacePlace PlaceOnObject(const TriangleTreeHolder& holder, std::uint32_t object,
                                           const MMVector3d& query);

// The nearest place of the surface strictly within `radius` (+infinity: unbounded);
// false, leaving `place` as it was, when there is none.
ZOR_SPATIAL_API bool NearestSurfacePlace(const TriangleTreeHolder& holder, const MMVector3d& query, double radius,
                                         SurfacePlace& place);

// As NearestSurfacePlace, among the triangles whose normal has a dot product of at least
// `minCosine` with the unit `normal` (the holder must keep its normals).
ZOR_SPATIAL_API bool NearestFacingPlace(const TriangleTreeHolder& holder, const MMVector3d& query,
                                        const MMVector3d& normal, double minCosine, double radius, SurfacePlace& place);

// Whether the edge of `t` opposite corner `corner` belongs to no other triangle.
ZOR_SPATIAL_API bool EdgeIsOpen(const MStlTriangle& t, std::size_t corner);

// Whether `place` lies on an open border of its mesh: on an open edge, or at a corner
// with an open edge beside it on this triangle.
ZOR_SPATIAL_API bool OnOpenBorder(const SurfacePlace& place);

// The angle-weighted pseudo-normal at `place` (not of unit length): the face's normal;
// on an edge the sum of the unit normals of the two triangles that share it; at a
// corner the angle-weighted normal of the corner's triangles.
ZOR_SPATIAL_API MMVector3d PseudoNormal(const SurfacePlace& place);

// The distance from `query` to `place`, negative when `query` lies behind the surface
// (against the pseudo-normal): inside, for a closed surface.
ZOR_SPATIAL_API double SignedDistance(const SurfacePlace& place, const MMVector3d& query);

// Whether a triangle with area vector `area` faces within the angle of `cosine` of a
// reference direction of length `referenceLength`: on this side of a crease.
inline bool WithinCrease(const MMVector3d& area, const MMVector3d& reference, double referenceLength, double cosine) {
  return Dot(area, reference) >= cosine * Length(area) * referenceLength;
}

}  // namespace MeshQueries
