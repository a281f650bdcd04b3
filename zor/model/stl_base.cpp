#include "zor/model/stl_base.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "zor/model/detail/stl_storage.h"

template class MRegisteredHandle<MRegisteredID<MStlBase>, MStlBase>;

using ZorMeshDetail::kInt32Max;
using ZorMeshDetail::kInt32Min;
using ZorMeshDetail::RoundPoint;

// ---------------------------------------------------------------------------------------
// Masks registry

MStlBaseMasks::~MStlBaseMasks() {
  for (auto* m : pointMasks) m->_DetachOwner();
  for (auto* m : triangleMasks) m->_DetachOwner();
}

void MStlBaseMasks::Attach(MDataMaskBase<MStlPoint>* mask) {
  mask->_SetSize(pointSize);
  pointMasks.push_back(mask);
}

void MStlBaseMasks::Detach(MDataMaskBase<MStlPoint>* mask) {
  pointMasks.erase(std::remove(pointMasks.begin(), pointMasks.end(), mask), pointMasks.end());
}

void MStlBaseMasks::Attach(MDataMaskBase<MStlTriangle>* mask) {
  mask->_SetSize(triangleSize);
  triangleMasks.push_back(mask);
}

void MStlBaseMasks::Detach(MDataMaskBase<MStlTriangle>* mask) {
  triangleMasks.erase(std::remove(triangleMasks.begin(), triangleMasks.end(), mask), triangleMasks.end());
}

namespace {
constexpr std::size_t kMaskBlock = 1024;
std::size_t RoundUpToBlock(std::size_t n) { return (n + kMaskBlock - 1) / kMaskBlock * kMaskBlock; }
}  // namespace

void MStlBaseMasks::_GrowPoints(std::size_t indexEnd) {
  if (indexEnd <= pointSize) return;
  pointSize = RoundUpToBlock(indexEnd);
  for (auto* m : pointMasks) m->_SetSize(pointSize);
}

void MStlBaseMasks::_GrowTriangles(std::size_t indexEnd) {
  if (indexEnd <= triangleSize) return;
  triangleSize = RoundUpToBlock(indexEnd);
  for (auto* m : triangleMasks) m->_SetSize(triangleSize);
}

void MStlBaseMasks::_ResetPoint(std::size_t i) {
  for (auto* m : pointMasks) m->_SetDefault(i);
}

void MStlBaseMasks::_ResetTriangle(std::size_t i) {
  for (auto* m : triangleMasks) m->_SetDefault(i);
}

// ---------------------------------------------------------------------------------------
// Construction, copy, destruction

MStlBase::MStlBase()
    : MRegisteredObject(this),
      storage(new Storage),
      extremes{kInt32Max, kInt32Max, kInt32Max, kInt32Min, kInt32Min, kInt32Min},
      surfaceList(new MStlSurfaceList(this)) {}

// The delegate comes by value, as the mesh's copy constructor declares it.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
MStlBase::MStlBase(const MStlBase& other, std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) : MStlBase() {
  ZorSDK::Common::IncrementalProgressReporter reporter(progress, "Copy mesh", other.pointCount + other.triangleCount,
                                                       false);
  name = other.name;
  Reserve(other.pointCount, other.triangleCount);
  // Points in list order; duplicates of coordinates stay duplicates. The coordinate
  // index is built on the first look-up rather than point by point here.
  std::vector<MStlPoint*> pointMap(other.storage->pointIds.End(), nullptr);
  _InvalidatePointIndex();
  _BeginBatch();
  for (const MStlPoint* p = other.firstPoint; p != nullptr; p = p->GetNext()) {
    pointMap[p->GetMaskIndex()] = _NewPoint(p->GetX(), p->GetY(), p->GetZ());
    ++reporter;
  }
  std::vector<MStlSurface*> surfaceMap;
  surfaceMap.reserve(other.surfaces.size());
  for (const auto& s : other.surfaces) {
    MStlSurface* copy = AddSurface();
    surfaceMap.push_back(copy);
    for (const MStlTriangleCell* c = s->GetFirstTriangle(); c != nullptr; c = c->next) {
      const MStlTriangle& t = c->data;
      MStlTriangleCell* added =
          AddTriangle(pointMap[t.corners[0]->GetMaskIndex()], pointMap[t.corners[1]->GetMaskIndex()],
                      pointMap[t.corners[2]->GetMaskIndex()], copy);
      added->data.flags = t.flags;
      ++reporter;
    }
  }
  for (const auto& f : other.features) {
    MStlFeature* copy = AddFeature();
    for (const MStlSurface* s : f->surfaces) {
      const auto at = std::find_if(other.surfaces.begin(), other.surfaces.end(),
                                   [s](const std::unique_ptr<MStlSurface>& o) { return o.get() == s; });
      copy->surfaces.push_back(surfaceMap[static_cast<std::size_t>(at - other.surfaces.begin())]);
    }
  }
  std::copy(std::begin(other.extremes), std::end(other.extremes), std::begin(extremes));
  pendingEvents = 0;  // a new mesh has no followers to tell
  _EndBatch();
}

MStlBase::~MStlBase() {
  // Followers hear of the end first, then let go of the mesh.
  for (MStlCallback* cb : std::vector<MStlCallback*>(callbacks))
    if (cb->IsEnabled(MStlEventCleared)) cb->OnMeshEvent(MStlEventCleared);
  for (MStlCallback* cb : callbacks) cb->mesh = nullptr;
  callbacks.clear();
  dependencies.Clear();
  ownedMasks.clear();
  _DestroyAll();
}

void MStlBase::_DestroyAll() {
  for (MStlPoint* p = firstPoint; p != nullptr;) {
    MStlPoint* next = p->next;
    p->~MStlPoint();
    p = next;
  }
  // Cells are trivially destructible; the pools drop their blocks at once.
  storage->points.Release();
  storage->cells.Release();
  storage->index.Clear();
  storage->indexValid = true;
  storage->pointIds.Clear();
  storage->triangleIds.Clear();
  firstPoint = lastPoint = nullptr;
  pointCount = triangleCount = 0;
  for (auto& s : surfaces) {
    s->first = s->last = nullptr;
    s->count = 0;
  }
}

void MStlBase::SetName(const wchar_t* n) { name = n != nullptr ? n : L""; }

const wchar_t* MStlBase::GetName() const { return name.c_str(); }

MStlBase* MStlBase::Clone(std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) const {
  return new MStlBase(*this, std::move(progress));
}

void MStlBase::ClearStl(bool keepSurfaces) {
  _DestroyAll();
  if (!keepSurfaces) {
    features.clear();
    surfaceList->surfaces.clear();
    surfaces.clear();
  }
  extremes[0] = extremes[1] = extremes[2] = kInt32Max;
  extremes[3] = extremes[4] = extremes[5] = kInt32Min;
  _Notify(MStlEventCleared);
}

void MStlBase::Reserve(const std::size_t& points, const std::size_t& triangles) {
  storage->points.Reserve(points);
  storage->cells.Reserve(triangles);
  storage->index.Reserve(points);
}

std::size_t MStlBase::GetMemoryUsage() const {
  std::size_t bytes = sizeof(MStlBase) + sizeof(Storage) + storage->points.BytesReserved() +
                      storage->cells.BytesReserved() + storage->index.BytesReserved();
  for (const MStlPoint* p = firstPoint; p != nullptr; p = p->GetNext())
    bytes += p->neighbourCapacity * sizeof(MStlTriangleCell*);
  return bytes;
}

// ---------------------------------------------------------------------------------------
// Points

MStlPoint* MStlBase::_NewPoint(std::int32_t x, std::int32_t y, std::int32_t z) {
  MStlPoint* p = storage->points.Create(x, y, z);
  const auto [index, recycled] = storage->pointIds.Allocate();
  p->maskIndex = static_cast<std::uint32_t>(index);
  if (recycled)
    masks._ResetPoint(index);
  else
    masks._GrowPoints(index + 1);
  p->prev = lastPoint;
  (lastPoint != nullptr ? lastPoint->next : firstPoint) = p;
  lastPoint = p;
  ++pointCount;
  if (storage->indexValid) storage->index.Insert(p);
  _ExtendExtremes(p);
  _Notify(MStlEventTopologyChanged);
  return p;
}

void MStlBase::_RemovePoint(MStlPoint* p) {
  if (storage->indexValid) storage->index.Erase(p);
  (p->prev != nullptr ? p->prev->next : firstPoint) = p->next;
  (p->next != nullptr ? p->next->prev : lastPoint) = p->prev;
  storage->pointIds.Release(p->maskIndex);
  --pointCount;
  storage->points.Destroy(p);
}

MStlPoint* MStlBase::GetPoint(std::int32_t x, std::int32_t y, std::int32_t z) const {
  if (!storage->indexValid) {
    storage->index.Clear();
    storage->index.Reserve(pointCount);
    for (MStlPoint* p = firstPoint; p != nullptr; p = p->next) storage->index.Insert(p);
    storage->indexValid = true;
  }
  return storage->index.Find(x, y, z);
}

MStlPoint* MStlBase::AddPoint(std::int32_t x, std::int32_t y, std::int32_t z, bool forceNew) {
  if (!forceNew)
    if (MStlPoint* existing = GetPoint(x, y, z)) return existing;
  return _NewPoint(x, y, z);
}

MStlPoint* MStlBase::AddPoint(const MMVector3d& position, bool forceNew) {
  const MMVector3i p = RoundPoint("MStlBase::AddPoint", position);
  return AddPoint(p[0], p[1], p[2], forceNew);
}

MStlPoint* MStlBase::AddPoint(const MMVector3i& position, bool forceNew) {
  return AddPoint(position[0], position[1], position[2], forceNew);
}

MStlPoint* MStlBase::AddPoint(const MStlPoint* point, bool forceNew) {
  return AddPoint(point->GetX(), point->GetY(), point->GetZ(), forceNew);
}

MStlPoint* MStlBase::AddPoint(const std::int32_t* xyz, bool forceNew) {
  return AddPoint(xyz[0], xyz[1], xyz[2], forceNew);
}

// ---------------------------------------------------------------------------------------
// Surfaces, features, triangles

MStlSurface* MStlBase::AddSurface() {
  surfaces.emplace_back(new MStlSurface(this));
  surfaceList->surfaces.push_back(surfaces.back().get());
  return surfaces.back().get();
}

MStlFeature* MStlBase::AddFeature() {
  features.emplace_back(new MStlFeature(this));
  return features.back().get();
}

MStlTriangleCell* MStlBase::AddTriangle(MStlPoint* a, MStlPoint* b, MStlPoint* c, MStlSurface* surface) {
  if (a == nullptr || b == nullptr || c == nullptr)
    throw std::invalid_argument("MStlBase::AddTriangle: a corner is null");
  if (a == b || b == c || a == c)
    throw std::invalid_argument("MStlBase::AddTriangle: the three corners must be distinct points");
  if (surface != nullptr && surface->mesh != this)
    throw std::invalid_argument("MStlBase::AddTriangle: the surface belongs to another mesh");
  for (MStlPoint* p : {a, b, c})
    if (p->neighbourCount == MStlPoint::kMaxNeighbours)
      throw std::length_error("MStlBase::AddTriangle: a point cannot belong to more than 65535 triangles");
  if (surface == nullptr) surface = surfaces.empty() ? AddSurface() : surfaces.front().get();

  MStlTriangleCell* cell = storage->cells.Create();
  MStlTriangle& t = cell->data;
  t.corners[0] = a;
  t.corners[1] = b;
  t.corners[2] = c;
  t.surface = surface;
  const auto [index, recycled] = storage->triangleIds.Allocate();
  t.maskIndex = static_cast<std::uint32_t>(index);
  if (recycled)
    masks._ResetTriangle(index);
  else
    masks._GrowTriangles(index + 1);
  cell->prev = surface->last;
  (surface->last != nullptr ? surface->last->next : surface->first) = cell;
  surface->last = cell;
  ++surface->count;
  ++triangleCount;
  a->AddNeighbour(cell);
  b->AddNeighbour(cell);
  c->AddNeighbour(cell);
  _Notify(MStlEventTopologyChanged);
  return cell;
}

MStlTriangleCell* MStlBase::AddTriangle(MStlPoint** corners, MStlSurface* surface) {
  return AddTriangle(corners[0], corners[1], corners[2], surface);
}

MStlTriangleCell* MStlBase::AddTriangle(const MMVector3i& a, const MMVector3i& b, const MMVector3i& c,
                                        MStlSurface* surface) {
  return AddTriangle(a[0], a[1], a[2], b[0], b[1], b[2], c[0], c[1], c[2], surface);
}

MStlTriangleCell* MStlBase::AddTriangle(const std::int32_t* a, const std::int32_t* b, const std::int32_t* c,
                                        MStlSurface* surface) {
  return AddTriangle(a[0], a[1], a[2], b[0], b[1], b[2], c[0], c[1], c[2], surface);
}

MStlTriangleCell* MStlBase::AddTriangle(std::int32_t ax, std::int32_t ay, std::int32_t az, std::int32_t bx,
                                        std::int32_t by, std::int32_t bz, std::int32_t cx, std::int32_t cy,
                                        std::int32_t cz, MStlSurface* surface) {
  // Refuse a repeated corner before adding any point, so a refusal changes nothing.
  if ((ax == bx && ay == by && az == bz) || (bx == cx && by == cy && bz == cz) || (ax == cx && ay == cy && az == cz))
    throw std::invalid_argument("MStlBase::AddTriangle: the three corners must be distinct points");
  if (surface != nullptr && surface->mesh != this)
    throw std::invalid_argument("MStlBase::AddTriangle: the surface belongs to another mesh");
  return AddTriangle(AddPoint(ax, ay, az, false), AddPoint(bx, by, bz, false), AddPoint(cx, cy, cz, false), surface);
}

void MStlBase::RemoveTriangle(MStlTriangleCell* cell, MRemoveTriangleMode mode) {
  MStlTriangle& t = cell->data;
  MStlSurface* s = t.surface;
  (cell->prev != nullptr ? cell->prev->next : s->first) = cell->next;
  (cell->next != nullptr ? cell->next->prev : s->last) = cell->prev;
  --s->count;
  --triangleCount;
  for (MStlPoint* p : t.corners) {
    p->RemoveNeighbour(cell);
    if (mode == RemoveFreePoints && p->neighbourCount == 0) _RemovePoint(p);
  }
  storage->triangleIds.Release(t.maskIndex);
  storage->cells.Destroy(cell);
  _Notify(MStlEventTopologyChanged);
}

void MStlBase::RemoveTriangle(const MStlIteratorStlTriangle& it) { RemoveTriangle(it.GetCell(), RemoveFreePoints); }

void MStlBase::RemoveTriangle(MStlTriangle* triangle) { RemoveTriangle(triangle->GetCell(), RemoveFreePoints); }

void MStlBase::RemoveTriangle(MStlTriangleCell* cell) { RemoveTriangle(cell, RemoveFreePoints); }

void MStlBase::RemoveTriangles(const std::vector<MStlTriangleCell*>& cells, MRemoveTriangleMode mode) {
  if (cells.empty()) return;
  if (cells.size() > pointCount / 16) _InvalidatePointIndex();
  _BeginBatch();
  for (MStlTriangleCell* cell : cells) RemoveTriangle(cell, mode);
  _EndBatch();
}

void MStlBase::Mark() {
  for (auto& s : surfaces)
    for (MStlTriangleCell* c = s->first; c != nullptr; c = c->next) c->data.SetMarked(true);
}

void MStlBase::UnMark() {
  for (auto& s : surfaces)
    for (MStlTriangleCell* c = s->first; c != nullptr; c = c->next) c->data.SetMarked(false);
}

double MStlBase::SurfaceArea() const {
  double area = 0.0;
  for (const auto& s : surfaces)
    for (const MStlTriangleCell* c = s->first; c != nullptr; c = c->next) area += c->data.SurfaceArea();
  return area;
}
