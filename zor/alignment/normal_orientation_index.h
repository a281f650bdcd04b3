#pragma once
// The matcher of the registration: given a point of the moving mesh (and, optionally,
// its normal) it answers with the corresponding point of the fixed mesh.
//
// With a normal, the answer lies on a part of the fixed surface that faces about the
// same way. The fixed mesh's triangles are bucketed by the direction of their smoothed
// normal on a latitude-longitude grid of the unit sphere; a query walks only the cells
// inside a cone about its normal and keeps the triangle with the best blend of distance
// and normal mismatch. Without a normal, a query is the nearest surface point through
// the mesh's cached triangle tree.
//
// Use: construct, SetParameters, then Build (for queries with normals) or SetMesh (for
// queries without). After that any number of threads may query at once: a query writes
// nothing in the object. The index does not watch the mesh; a mesh changed after Build
// must be built again.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "zor/export.h"
#include "zor/model/data_mask.h"
#include "zor/model/stl_base.h"

namespace MeshQueries {
class TriangleTreeHolder;
}

namespace ZorStlRegistration {

class ZOR_API NormalOrientationIndex {
public:
  struct Parameters {
    double maxAngleDegrees = 20.0;  // half angle of the query cone
    double normalWeight = 0.8;      // 0..1: weight of normal mismatch against distance
    double smoothingRadius = 2.0;   // coordinate units: neighbourhood of the fitted vertex normals
    std::uint64_t rowCount = 19;    // latitude rows, poles included; at least 2
    bool fitNormals = true;         // fitted vertex normals; false: angle-weighted mean of the fan
  };

  NormalOrientationIndex();
  ~NormalOrientationIndex();
  NormalOrientationIndex(const NormalOrientationIndex&) = delete;
  NormalOrientationIndex& operator=(const NormalOrientationIndex&) = delete;

  // Copies the block and lays out the grid anew; buckets of a built mesh are dropped.
  // Lengths are read with `unitsPerLength` internal units per coordinate unit, or with
  // MUnit::GetIE() of the moment in the form without it.
  void SetParameters(const Parameters& p);
  void SetParameters(const Parameters& p, std::int32_t unitsPerLength);
  std::int32_t GetUnitsPerLength() const { return unitsPerLength; }
  const Parameters& GetParameters() const { return parameters; }

  // Binds `mesh` for FindClosest. Binding a different mesh drops the buckets.
  void SetMesh(const MStlBase* mesh);
  // Binds `mesh` and fills the buckets and vertex normals that FindBestMatch needs.
  void Build(const MStlBase& mesh);
  const MStlBase* GetMesh() const { return mesh; }

  // The point of a triangle facing within the cone about `normal` that minimises
  // (1 - normalWeight) * distance + normalWeight * meshRadius * |normal - smoothed
  // normal there|; the first such triangle in cell order wins a tie. False, with
  // `closest` untouched, before Build or when no triangle in the cone faces that way.
  bool FindBestMatch(const MMVector3d& point, const MMVector3d& normal, MMVector3d& closest) const;
  // The nearest point of the bound mesh's surface. False, with `closest` untouched,
  // when no mesh is bound or it has no triangles.
  bool FindClosest(const MMVector3d& point, MMVector3d& closest) const;

  // For a batch of nearest-point queries: the bound mesh's triangle tree, fetched once
  // (FindClosest fetches it at every call). Valid while the mesh does not change; null
  // when no mesh is bound or it has no triangles.
  const MeshQueries::TriangleTreeHolder* GetClosestTree() const;
  // On that tree: the same answer as FindClosest whenever the nearest surface point lies
  // strictly within `bound` of `point` (+infinity: always), found faster for a tight
  // bound such as a known surface point's distance. False when nothing lies within.
  static bool FindClosestWithin(const MeshQueries::TriangleTreeHolder* tree, const MMVector3d& point, double bound,
                                MMVector3d& closest);

  // The grid: rows of cell ids in longitude order, one direction per cell (length
  // MUnit::GetIE()), and the triangles bucketed in each cell after Build.
  const std::vector<std::vector<std::uint64_t>>& GetRows() const { return rows; }
  const std::vector<MMVector3d>& GetCellDirections() const { return cellDirections; }
  bool IsBuilt() const { return !cellStart.empty(); }
  std::vector<MStlTriangle*> GetCellTriangles(std::uint64_t cell) const;
  // Smoothed unit normal of a point of the built mesh (zero for a point with no
  // triangle), and the largest distance of a mesh point from its centroid.
  const MMVector3d& GetPointNormal(const MStlPoint& p) const { return pointNormals->GetInfo(p); }
  double GetMeshRadius() const { return meshRadius; }

  // Colatitude (from +Z, 0..pi) and longitude (0..2 pi) of a vector; NaN colatitude
  // for the zero vector.
  static double Colatitude(const MMVector3d& v);
  static double Longitude(const MMVector3d& v);
  // The ids of the cells inside the cone of half angle maxAngleDegrees about `normal`,
  // row by row, each row from its first column to its last with wrap-around.
  // `buffer` must hold at least the number of cells; returns the count written.
  std::size_t ConeCells(const MMVector3d& normal, std::uint64_t* buffer) const;

private:
  // A bucketed triangle with what a query reads of it: its face normal and a bounding
  // sphere, which lets a query pass over triangles that cannot beat the best so far.
  struct Entry {
    MStlTriangle* triangle;
    MMVector3d normal;
    MMVector3d centre;
    double radius;
  };

  void _LayOutGrid();
  void _DropCells();
  void _ComputePointNormals();

  Parameters parameters;
  std::int32_t unitsPerLength = 1000;  // internal units per coordinate unit, fixed by SetParameters
  std::vector<std::vector<std::uint64_t>> rows;
  const MStlBase* mesh = nullptr;
  std::vector<MMVector3d> cellDirections;
  // The buckets, cell after cell: cell k holds entries[cellStart[k] .. cellStart[k + 1]).
  // Both are empty unless Build ran.
  std::vector<Entry> entries;
  std::vector<std::size_t> cellStart;
  std::unique_ptr<MDataMask<MStlPoint, MMVector3d>> pointNormals;
  double meshRadius = 0.0;
};

}  // namespace ZorStlRegistration
