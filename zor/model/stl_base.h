#pragma once
// The triangle mesh. Points hold signed 32-bit integer coordinates in internal units
// (see MUnit); all geometry derived from them is computed in double on the widened
// integers. Triangles live in list cells grouped into surfaces; features group
// surfaces. Each point knows the triangles that use it.
//
// Errors: edits validate what they are given and refuse bad input with a standard
// exception, leaving the mesh as it was: std::out_of_range for a coordinate outside the
// 32-bit range, std::invalid_argument for a null or repeated corner or another mesh's
// surface, std::length_error for a point past 65535 triangles.
//
// Threading: any number of threads may read a mesh (coordinates, neighbour lists,
// normals, masks, iterators) while no thread changes it. Edits are never concurrent
// with each other or with reads.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zor/model/data_mask.h"
#include "zor/model/export.h"
#include "zor/model/mm_vector.h"
#include "zor/model/progress.h"
#include "zor/model/registered.h"
#include "zor/model/stl_dependencies.h"
#include "zor/model/stl_elements.h"
#include "zor/model/stl_events.h"
#include "zor/model/stl_iterators.h"
#include "zor/model/transform.h"

// Bits of MStlBase::Update.
enum MStlUpdateFlags : unsigned long {
  // Triangle normals. They are derived from the coordinates at every call and hold no
  // cache, so they are always current; the bit is accepted and needs no work.
  MStlUpdateNormals = 1,
  // Bounding extremes, recomputed from all points.
  MStlUpdateExtremes = 64,
};

// The registry of a mesh's masks, kept in step with its element counts.
class ZOR_MODEL_API MStlBaseMasks : public IDataMaskOwner {
public:
  MStlBaseMasks() = default;
  ~MStlBaseMasks() override;
  MStlBaseMasks(const MStlBaseMasks&) = delete;
  MStlBaseMasks& operator=(const MStlBaseMasks&) = delete;

  void Attach(MDataMaskBase<MStlPoint>* mask) override;
  void Detach(MDataMaskBase<MStlPoint>* mask) override;
  void Attach(MDataMaskBase<MStlTriangle>* mask) override;
  void Detach(MDataMaskBase<MStlTriangle>* mask) override;

  // Entries every point or triangle mask holds (a multiple of 1024).
  std::size_t GetPointMaskSize() const { return pointSize; }
  std::size_t GetTriangleMaskSize() const { return triangleSize; }
  std::size_t GetNumberOfPointMasks() const { return pointMasks.size(); }
  std::size_t GetNumberOfTriangleMasks() const { return triangleMasks.size(); }

private:
  friend class MStlBase;
  void _GrowPoints(std::size_t indexEnd);
  void _GrowTriangles(std::size_t indexEnd);
  void _ResetPoint(std::size_t i);
  void _ResetTriangle(std::size_t i);

  std::vector<MDataMaskBase<MStlPoint>*> pointMasks;
  std::vector<MDataMaskBase<MStlTriangle>*> triangleMasks;
  std::size_t pointSize = 0;
  std::size_t triangleSize = 0;
};

class ZOR_MODEL_API MStlBase : public MRegisteredObject<MRegisteredID<MStlBase>, MStlBase>, public MDataMaskIndex {
public:
  enum MRemoveTriangleMode : int {
    KeepFreePoints = 0,    // points left without triangles stay in the mesh
    RemoveFreePoints = 1,  // points left without triangles are removed too
  };

  MStlBase();
  // Deep copy: its own points (same order, same coordinates), surfaces, features and
  // triangles (same order, winding and marks), and the name. Masks, callbacks,
  // validity bits and dependencies belong to the source and are not copied. Reports
  // progress as "Copy mesh" when a delegate is given.
  MStlBase(const MStlBase& other, std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress = {});
  MStlBase& operator=(const MStlBase&) = delete;
  virtual ~MStlBase();

  virtual void SetName(const wchar_t* name);
  virtual const wchar_t* GetName() const;
  virtual MStlBase* Clone(std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) const;
  // Removes all points and triangles; with `keepSurfaces` the (now empty) surfaces and
  // features stay.
  virtual void ClearStl(bool keepSurfaces);

  // Adds a point, or returns the point already at those coordinates unless `forceNew`
  // is true. Doubles round to the nearest integer, halves away from zero; a value
  // outside the signed 32-bit range (or not finite) throws std::out_of_range naming it.
  virtual MStlPoint* AddPoint(const MMVector3d& position, bool forceNew);
  virtual MStlPoint* AddPoint(const MMVector3i& position, bool forceNew);
  virtual MStlPoint* AddPoint(const MStlPoint* point, bool forceNew);
  virtual MStlPoint* AddPoint(const std::int32_t* xyz, bool forceNew);
  virtual MStlPoint* AddPoint(std::int32_t x, std::int32_t y, std::int32_t z, bool forceNew);
  // The point at those coordinates (the first added, if several share them), or null.
  // After points moved, the first call rebuilds the merge index: it is an edit in that
  // respect and must not run beside other reads of the mesh.
  virtual MStlPoint* GetPoint(std::int32_t x, std::int32_t y, std::int32_t z) const;

  // Adds the triangle (a, b, c) in that winding to `surface`, or to the first surface
  // when it is null (made if the mesh has none). The corners must be distinct points
  // of this mesh.
  virtual MStlTriangleCell* AddTriangle(MStlPoint* a, MStlPoint* b, MStlPoint* c, MStlSurface* surface);
  virtual MStlTriangleCell* AddTriangle(MStlPoint** corners, MStlSurface* surface);
  // Adds (or finds) the corner points first; coordinates as AddPoint.
  virtual MStlTriangleCell* AddTriangle(const MMVector3i& a, const MMVector3i& b, const MMVector3i& c,
                                        MStlSurface* surface);
  virtual MStlTriangleCell* AddTriangle(const std::int32_t* a, const std::int32_t* b, const std::int32_t* c,
                                        MStlSurface* surface);
  virtual MStlTriangleCell* AddTriangle(std::int32_t ax, std::int32_t ay, std::int32_t az, std::int32_t bx,
                                        std::int32_t by, std::int32_t bz, std::int32_t cx, std::int32_t cy,
                                        std::int32_t cz, MStlSurface* surface);

  virtual void RemoveTriangle(MStlTriangleCell* cell, MRemoveTriangleMode mode);
  // The forms below remove points left without triangles.
  virtual void RemoveTriangle(const MStlIteratorStlTriangle& it);
  virtual void RemoveTriangle(MStlTriangle* triangle);
  virtual void RemoveTriangle(MStlTriangleCell* cell);
  // Removes all of `cells` (distinct triangles of this mesh) as RemoveTriangle would one
  // by one, in one edit batch; large batches drop the merge index instead of updating it
  // point by point (the next GetPoint rebuilds it).
  virtual void RemoveTriangles(const std::vector<MStlTriangleCell*>& cells, MRemoveTriangleMode mode);

  // Refreshes derived data (MStlUpdateFlags); with `notify` the mesh's followers are
  // told that points moved. Call it after changing points with MStlPoint::Set.
  virtual void Update(unsigned long flags, bool notify);
  virtual void UpdateExtremes(bool notify);

  // Whole-mesh moves. Each new coordinate rounds to nearest (halves away from zero); if
  // any falls outside the 32-bit range, std::out_of_range is thrown and no point moves.
  // Triangles keep their winding, even under a reflection.
  virtual void Translate(std::int32_t dx, std::int32_t dy, std::int32_t dz);
  virtual void Rescale(float sx, float sy, float sz, const MMVector3i& centre);
  virtual void Transform(const MMTransformMatrix& matrix);
  // Moves by the inverse; std::domain_error for a singular matrix.
  virtual void InverseTransform(const MMTransformMatrix& matrix);

  virtual void Mark();    // marks every triangle
  virtual void UnMark();  // clears every mark

  void Reserve(const std::size_t& points, const std::size_t& triangles);
  std::size_t NumberOfPoints() const { return pointCount; }
  std::size_t GetNumberOfTriangles() const { return triangleCount; }
  // Total area in internal units squared, summed in list order.
  double SurfaceArea() const;

  // Bounding extremes, valid after Update (also kept up by additions and whole-mesh
  // moves). After removals they may still enclose removed points until
  // UpdateExtremes. An empty mesh has min INT32_MAX and max INT32_MIN.
  std::int32_t GetXMin() const { return extremes[0]; }
  std::int32_t GetYMin() const { return extremes[1]; }
  std::int32_t GetZMin() const { return extremes[2]; }
  std::int32_t GetXMax() const { return extremes[3]; }
  std::int32_t GetYMax() const { return extremes[4]; }
  std::int32_t GetZMax() const { return extremes[5]; }

  MStlBaseMasks& GetMasks() const { return masks; }
  MStlBaseDependencies& GetDependencies() const { return dependencies; }
  MStlValidity& GetValidity() const { return validity; }

  // Surfaces and features. The surface list holds every surface and is the main
  // feature.
  MStlSurface* AddSurface();
  MStlFeature* AddFeature();
  const MStlSurfaceList* GetSurfaceList() const { return surfaceList.get(); }
  MStlSurfaceList* GetSurfaceList() { return surfaceList.get(); }
  const MStlFeature* GetMainFeature() const { return surfaceList.get(); }
  std::size_t GetNumberOfFeatures() const { return features.size(); }
  MStlFeature* GetFeature(std::size_t i) const { return features[i].get(); }

  MStlPoint* GetFirstPoint() const { return firstPoint; }
  MStlIteratorStlPointConst BeginPoint() const { return MStlIteratorStlPointConst(firstPoint); }
  MStlIteratorStlPointConst EndPoint() const { return MStlIteratorStlPointConst(nullptr); }
  MStlIteratorStlTriangleConst BeginTriangle() const { return MStlIteratorStlTriangleConst::Begin(this); }
  MStlIteratorStlTriangleConst EndTriangle() const { return MStlIteratorStlTriangleConst::End(this); }

  // Bytes held by the mesh's own storage (pools, index, neighbour overflow), for
  // memory reports.
  std::size_t GetMemoryUsage() const;

  // Named masks that the mesh owns (see MStlVectorMaskPoints::Create).
  IDataMask* _FindOwnedMask(const std::wstring& name) const;
  IDataMask* _AdoptOwnedMask(const std::wstring& name, std::unique_ptr<IDataMask> mask);

  // Sends `event` to the followers and clears the validity bits; while an edit batch
  // is open (see the scoped guards) events are collected and sent once at its end.
  void _Notify(MStlCallBackEventID event);

private:
  friend class MStlCallback;
  friend class MStlTriangle;
  friend class MStlTempTransformation;
  friend class MStlTempPointSortingDisabler;
  friend class MStlBaseOperatorHelperDirectPointChange;
  struct Storage;

  MStlPoint* _NewPoint(std::int32_t x, std::int32_t y, std::int32_t z);
  void _RemovePoint(MStlPoint* p);
  void _DestroyAll();
  void _BeginBatch();
  void _EndBatch();
  void _RecomputeExtremes();
  void _ExtendExtremes(const MStlPoint* p);
  void _InvalidatePointIndex();
  // Rounds every point through `map` into `out` (list order) or throws, touching nothing.
  void _ComputeMoved(std::vector<MMVector3i>& out, const MMTransform& map) const;
  void _ApplyCoordinates(const std::vector<MMVector3i>& coords);
  void _Attach(MStlCallback* cb);
  void _Detach(MStlCallback* cb);

  std::unique_ptr<Storage> storage;
  std::wstring name;
  MStlPoint* firstPoint = nullptr;
  MStlPoint* lastPoint = nullptr;
  std::size_t pointCount = 0;
  std::size_t triangleCount = 0;
  std::int32_t extremes[6];
  std::unique_ptr<MStlSurfaceList> surfaceList;
  std::vector<std::unique_ptr<MStlSurface>> surfaces;
  std::vector<std::unique_ptr<MStlFeature>> features;
  std::vector<MStlCallback*> callbacks;
  int batchDepth = 0;
  std::uint32_t pendingEvents = 0;
  mutable MStlValidity validity;
  mutable MStlBaseMasks masks;
  std::vector<std::pair<std::wstring, std::unique_ptr<IDataMask>>> ownedMasks;
  mutable MStlBaseDependencies dependencies{this};
};

// A light, copyable view of a whole mesh.
class MStlBaseContainer {
public:
  explicit MStlBaseContainer(MStlBase* m) : mesh(m) {}
  MStlBase* GetStl() const { return mesh; }
  std::size_t GetNumberOfTriangles() const { return mesh->GetNumberOfTriangles(); }
  MStlIteratorStlTriangle BeginTriangle() const { return MStlIteratorStlTriangle::Begin(mesh); }
  MStlIteratorStlTriangle EndTriangle() const { return MStlIteratorStlTriangle::End(mesh); }

private:
  MStlBase* mesh;
};

inline const MStlFeature* GetSurfaceListOf(const MStlBase* mesh) { return mesh->GetSurfaceList(); }
inline MStlPoint* GetFirstPointOf(const MStlBase* mesh) { return mesh->GetFirstPoint(); }

// A caller's registered mesh handle converts to the mesh (null for an empty handle or a
// destroyed mesh). The conversions are compiled once, here with the mesh, and exported,
// so that any library above the model can take a handle where it takes a mesh.
extern template class ZOR_MODEL_API MRegisteredHandle<MRegisteredID<MStlBase>, MStlBase>;
