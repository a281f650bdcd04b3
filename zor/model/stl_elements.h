#pragma once
// The parts of a mesh: points, triangles in list cells, surfaces (lists of triangles)
// and features (groups of surfaces). All belong to their MStlBase, which makes and
// destroys them; pointers to them stay valid until the element is removed.
//
// Threading: every const member, GetNormal included, may be called from many threads
// at once while no thread changes the mesh.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/model/data_mask.h"
#include "zor/model/export.h"
#include "zor/model/mm_vector.h"

class MStlBase;
class MStlSurface;
class MStlTriangle;

// A list cell: the triangle lives in it, linked to the next and previous cells of its
// surface. A null next link ends the list.
template <typename T>
struct DLIST_ELEMENT {
  DLIST_ELEMENT* next = nullptr;
  DLIST_ELEMENT* prev = nullptr;
  T data;

  T* GetData() { return &data; }
  const T* GetData() const { return &data; }
  DLIST_ELEMENT* GetNext() const { return next; }
  DLIST_ELEMENT* GetPrev() const { return prev; }
};

using MStlTriangleCell = DLIST_ELEMENT<MStlTriangle>;

// Three integer coordinates in internal units.
class MStlPointBase {
public:
  std::int32_t operator[](std::size_t i) const { return coords[i]; }
  std::int32_t GetX() const { return coords[0]; }
  std::int32_t GetY() const { return coords[1]; }
  std::int32_t GetZ() const { return coords[2]; }

protected:
  std::int32_t coords[3] = {0, 0, 0};
};

// A vertex: coordinates, a mask index and the cells of the triangles that use it, in
// the order they were attached.
class ZOR_MODEL_API MStlPoint : public MStlPointBase, public MDataMaskIndex {
public:
  static constexpr std::uint16_t kInlineNeighbours = 8;
  static constexpr std::size_t kMaxNeighbours = 65535;

  MStlPoint(std::int32_t x, std::int32_t y, std::int32_t z);
  ~MStlPoint();
  MStlPoint(const MStlPoint&) = delete;
  MStlPoint& operator=(const MStlPoint&) = delete;

  void Get(MMVector3d& out) const { out = MMVector3d(coords[0], coords[1], coords[2]); }
  MMVector3d GetDouble() const { return MMVector3d(coords[0], coords[1], coords[2]); }
  MMVector3i GetInt() const { return MMVector3i(coords[0], coords[1], coords[2]); }
  // Overwrites the coordinates; the point keeps its identity, mask index and triangles.
  // The mesh is not told: do this under MStlBaseOperatorHelperDirectPointChange (whose
  // end settles the mesh) or follow it with Update(..., true).
  void Set(const MMVector3i& c) {
    coords[0] = c[0];
    coords[1] = c[1];
    coords[2] = c[2];
  }

  std::uint16_t GetNumberOfNeighbourTriangles() const { return neighbourCount; }
  MStlTriangleCell* GetNeighbourTriangle(std::uint16_t i) const { return Neighbours()[i]; }

  MStlPoint* GetNext() const { return next; }
  MStlPoint* GetPrev() const { return prev; }

private:
  friend class MStlBase;
  MStlTriangleCell* const* Neighbours() const { return neighbourCapacity == 0 ? inlineNeighbours : heapNeighbours; }
  MStlTriangleCell** Neighbours() { return neighbourCapacity == 0 ? inlineNeighbours : heapNeighbours; }
  void AddNeighbour(MStlTriangleCell* cell);     // throws std::length_error past kMaxNeighbours
  void RemoveNeighbour(MStlTriangleCell* cell);  // keeps the order of the others

  MStlPoint* next = nullptr;
  MStlPoint* prev = nullptr;
  std::uint16_t neighbourCount = 0;
  std::uint16_t neighbourCapacity = 0;  // 0: the inline array is in use
  union {
    MStlTriangleCell* inlineNeighbours[kInlineNeighbours];
    MStlTriangleCell** heapNeighbours;
  };
};

// A triangle: three corners in winding order (the outward normal follows the winding),
// the surface it belongs to, a mask index and a mark.
class ZOR_MODEL_API MStlTriangle : public MDataMaskIndex {
public:
  // Where ProjectPoint's closest point falls.
  enum MPosition : std::uint8_t {
    Inside = 0,
    OnEdge0 = 1,  // edge e joins corners e and (e + 1) % 3
    OnEdge1 = 2,
    OnEdge2 = 3,
    AtCorner0 = 4,
    AtCorner1 = 5,
    AtCorner2 = 6,
  };

  MStlPoint* GetPoint(std::size_t corner) const { return corners[corner]; }
  MStlPoint* operator[](std::size_t corner) const { return corners[corner]; }
  MMVector3d GetVertex(const std::size_t& corner) const { return corners[corner]->GetDouble(); }
  MStlSurface* GetSurface() const { return surface; }

  // Unit normal of the winding, computed from the current coordinates at each call (so
  // it is never stale and safe from any thread); zero for a degenerate triangle.
  MMVector3d GetNormal() const;
  // Cross product of the edges 0->1 and 0->2: twice the area, along the normal.
  MMVector3d GetAreaVector() const;
  double SurfaceArea() const;
  // Corner index of `point`, or -1 when it is no corner.
  char IndexOfPoint(const MStlPoint* point) const {
    return corners[0] == point ? 0 : corners[1] == point ? 1 : corners[2] == point ? 2 : -1;
  }
  // The triangle across edge `edge` (corners edge and (edge + 1) % 3), or null. With
  // `manifoldOnly` true, an edge that more than two triangles share gives null; with
  // false, the first other triangle found on the edge, in the neighbour order of the
  // edge's first corner.
  MStlTriangleCell* FindAdjacentTriangle(std::size_t edge, bool manifoldOnly) const;
  // The closest point of the triangle to `query` (regions method after Eberly, with the
  // segments as fall-back for a degenerate triangle): `projected` gets the point,
  // `weights` its barycentric weights for corners 0, 1, 2, `where` the region. Returns
  // the distance.
  double ProjectPoint(MMVector3d& projected, MMVector3d& weights, MPosition& where, const MMVector3d& query) const;
  // Reverses the winding, keeping corner `keep` (0, 1 or 2) in its place.
  void Invert(char keep);

  bool IsMarked() const { return (flags & kMarked) != 0; }
  void SetMarked(bool marked) { flags = marked ? (flags | kMarked) : (flags & ~kMarked); }

  MStlTriangleCell* GetCell();
  const MStlTriangleCell* GetCell() const;

private:
  friend class MStlBase;
  static constexpr std::uint8_t kMarked = 1;
  std::uint8_t flags = 0;
  MStlPoint* corners[3] = {nullptr, nullptr, nullptr};
  MStlSurface* surface = nullptr;
};

// Advances `cell` to the next cell of its surface and returns it (null at the end).
inline MStlTriangleCell* NextTriangle(MStlTriangleCell*& cell) {
  cell = cell->next;
  return cell;
}

// A list of triangles of one mesh, in the order they were added.
class ZOR_MODEL_API MStlSurface {
public:
  MStlTriangleCell* GetFirstTriangle() const { return first; }
  MStlTriangleCell* GetLastTriangle() const { return last; }
  std::size_t GetNumberOfTriangles() const { return count; }
  // Counts by walking the list (a check of the stored count).
  std::size_t GetNumberOfTrianglesInList() const;
  MStlBase* GetStl() const { return mesh; }

private:
  friend class MStlBase;
  explicit MStlSurface(MStlBase* owner) : mesh(owner) {}
  MStlBase* mesh;
  MStlTriangleCell* first = nullptr;
  MStlTriangleCell* last = nullptr;
  std::size_t count = 0;
};

// A group of surfaces of one mesh.
class ZOR_MODEL_API MStlFeature {
public:
  virtual ~MStlFeature();
  MStlFeature(const MStlFeature&) = delete;
  MStlFeature& operator=(const MStlFeature&) = delete;

  virtual std::size_t GetNumberOfTriangles() const;
  // With `includeEmpty` false, surfaces without triangles are not counted.
  std::size_t GetNumSurfaces(bool includeEmpty) const;
  MStlSurface* GetSurface(std::size_t i) const { return surfaces[i]; }
  std::size_t GetSurfaceCount() const { return surfaces.size(); }
  // Adds a surface of the same mesh; throws std::invalid_argument for another mesh's.
  void AddSurface(MStlSurface* surface);
  MStlBase* GetStl() const { return mesh; }

protected:
  explicit MStlFeature(MStlBase* owner) : mesh(owner) {}

private:
  friend class MStlBase;
  MStlBase* mesh;
  std::vector<MStlSurface*> surfaces;
};

// All surfaces of a mesh, in the order they were made. It is the mesh's main feature.
class ZOR_MODEL_API MStlSurfaceList : public MStlFeature {
public:
  std::size_t GetNumberOfTriangles() const override;

private:
  friend class MStlBase;
  explicit MStlSurfaceList(MStlBase* owner) : MStlFeature(owner) {}
};
