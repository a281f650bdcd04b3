#pragma once
// The spatial trees of a mesh, cached on the mesh: one over all its points and one over
// all triangles of its main feature. The first caller builds a tree; callers that
// arrive during the build wait for it (helping with its parallel work) and share its
// result, or its exception; any change of the mesh drops the tree, and the next call
// builds a new one.
//
// Threading: any number of threads may ask for the trees of any meshes at once and
// query them without a lock. A mesh must not change while another thread asks for
// or holds one of its trees: the change destroys the tree under that thread.

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "zor/model/mm_vector.h"
#include "zor/spatial/export.h"
#include "zor/spatial/m3d_object_tree.h"
#include "zor/spatial/nearest_query.h"

namespace MeshQueries {

// A tree over the triangles of a mesh's main feature, with the corner coordinates of
// its objects in tree order for fast leaf scans. The mesh must not change while the
// holder is used.
class ZOR_SPATIAL_API TriangleTreeHolder {
public:
  explicit TriangleTreeHolder(MeshHandle m) : mesh(m) {}
  TriangleTreeHolder(const TriangleTreeHolder&) = delete;
  TriangleTreeHolder& operator=(const TriangleTreeHolder&) = delete;

  // (Re)builds over the triangles of the mesh's main feature, in surface order. With
  // `keepNormals` the unit normals of the triangles are stored in tree order too, for
  // filtered searches that read them many times.
  void Build(bool keepNormals = false);
  MeshHandle GetMesh() const { return mesh; }
  const TriangleTree& GetTree() const { return tree; }
  const TriangleCorners* GetCorners() const { return corners.data(); }
  // MStlTriangle::GetNormal of each object as of the build, in tree order; null unless
  // the build kept them.
  const MMVector3d* GetNormals() const { return normals.empty() ? nullptr : normals.data(); }
  std::size_t GetMemoryUsage() const {
    return tree.GetMemoryUsage() + corners.capacity() * sizeof(TriangleCorners) +
           normals.capacity() * sizeof(MMVector3d);
  }

private:
  MeshHandle mesh;
  detail::TreeParams params{4};
  TriangleTree tree;
  std::vector<TriangleCorners> corners;
  std::vector<MMVector3d> normals;
};

// A nearest triangle and the closest point on it, computed when first asked for.
struct ZOR_SPATIAL_API ClosestTriangle {
  MeshHandle mesh;                    // null when nothing was found
  double distance = 0.0;              // to the triangle; the given radius when nothing was found
  double barycentric[3] = {0, 0, 0};  // of corners 0, 1, 2, once barycentricValid
  bool barycentricValid = false;
  ZorMesh::StlBase::Handle::Triangle triangle;  // null when nothing was found
  double query[3] = {0, 0, 0};

  // The closest point of `triangle` to `query` (the weighted sum of its corners).
  // Requires a found triangle.
  MMVector3d GetClosestPoint();
};

// The cached trees. Null for a null mesh. Valid until the mesh changes. A failed build
// (std::bad_alloc, std::length_error "Too many objects") throws to every caller that
// waited for it; the next call tries again.
ZOR_SPATIAL_API const PointTree* GetPointTree(MeshHandle mesh);
ZOR_SPATIAL_API const TriangleTreeHolder* GetTriangleTree(MeshHandle mesh);

// The nearest mesh point to `query` within `radius` (+infinity: unbounded). On success
// `point` and `radius` get the point and its distance and true is returned; otherwise
// both stay as they were.
ZOR_SPATIAL_API bool FindNearestPoint(MeshHandle mesh, const MMVector3d& query, double& radius, MStlPoint*& point);

// The nearest triangle within `radius` and its distance; a null triangle and `radius`
// when there is none.
ZOR_SPATIAL_API std::pair<ZorMesh::StlBase::Handle::Triangle, double> FindNearestTriangle(
    const TriangleTreeHolder& holder, const MMVector3d& query, double radius);
// As above, filling `result` (barycentricValid false); returns whether one was found.
ZOR_SPATIAL_API bool FindNearestTriangle(const TriangleTreeHolder& holder, const MMVector3d& query, double radius,
                                         ClosestTriangle& result);
// The nearest triangle whose normal has a dot product of at least `minCosine` with the
// unit `normal` (the stored normals when the holder kept them). Incompatible triangles count as lying at the largest
// double: with a finite radius they are never found, with +infinity one is returned when no compatible triangle exists.
ZOR_SPATIAL_API std::pair<ZorMesh::StlBase::Handle::Triangle, double> FindNearestOrientedTriangle(
    const TriangleTreeHolder& holder, const MMVector3d& query, const MMVector3d& normal, double minCosine,
    double radius);

// The closest point of the mesh's surface to `query`, by its cached triangle tree.
// False for a null mesh or a mesh without triangles.
ZOR_SPATIAL_API bool GetClosestPoint(MeshHandle mesh, const MMVector3d& query, MMVector3d& closest);

}  // namespace MeshQueries
