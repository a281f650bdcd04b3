#include <algorithm>
#include <cmath>

#include "zor/model/detail/stl_storage.h"
#include "zor/model/stl_base.h"

using ZorMeshDetail::kInt32Max;
using ZorMeshDetail::kInt32Min;
using ZorMeshDetail::RoundPoint;

// ---------------------------------------------------------------------------------------
// Refresh and whole-mesh moves

void MStlBase::_ExtendExtremes(const MStlPoint* p) {
  for (int i = 0; i < 3; ++i) {
    extremes[i] = std::min(extremes[i], (*p)[i]);
    extremes[i + 3] = std::max(extremes[i + 3], (*p)[i]);
  }
}

void MStlBase::_RecomputeExtremes() {
  extremes[0] = extremes[1] = extremes[2] = kInt32Max;
  extremes[3] = extremes[4] = extremes[5] = kInt32Min;
  for (const MStlPoint* p = firstPoint; p != nullptr; p = p->next) _ExtendExtremes(p);
}

void MStlBase::_InvalidatePointIndex() {
  storage->indexValid = false;
  storage->index.Clear();
}

void MStlBase::Update(unsigned long flags, bool notify) {
  // Points may have moved through MStlPoint::Set: the merge index follows lazily.
  _InvalidatePointIndex();
  if (flags & MStlUpdateExtremes) _RecomputeExtremes();
  if (notify) _Notify(MStlEventPointsMoved);
}

void MStlBase::UpdateExtremes(bool notify) { Update(MStlUpdateExtremes, notify); }

void MStlBase::_ComputeMoved(std::vector<MMVector3i>& out, const MMTransform& map) const {
  out.resize(pointCount);
  std::size_t i = 0;
  for (const MStlPoint* p = firstPoint; p != nullptr; p = p->next, ++i) {
    MMVector3d q;
    map.Transform(q, p->GetDouble(), false);
    out[i] = RoundPoint("MStlBase::Transform", q);
  }
}

void MStlBase::_ApplyCoordinates(const std::vector<MMVector3i>& coords) {
  std::size_t i = 0;
  for (MStlPoint* p = firstPoint; p != nullptr && i < coords.size(); p = p->next, ++i) p->Set(coords[i]);
  _InvalidatePointIndex();
  _RecomputeExtremes();
  _Notify(MStlEventPointsMoved);
}

void MStlBase::Transform(const MMTransformMatrix& matrix) {
  std::vector<MMVector3i> moved;
  _ComputeMoved(moved, matrix);
  _ApplyCoordinates(moved);
}

void MStlBase::InverseTransform(const MMTransformMatrix& matrix) { Transform(matrix.Inverted()); }

void MStlBase::Translate(std::int32_t dx, std::int32_t dy, std::int32_t dz) {
  MMTransformMatrix shift;
  shift.MakeTranslation(MMVector3d(dx, dy, dz));
  Transform(shift);
}

void MStlBase::Rescale(float sx, float sy, float sz, const MMVector3i& centre) {
  MMTransformMatrix scale;
  const double s[3] = {sx, sy, sz};
  for (unsigned short i = 0; i < 3; ++i) {
    scale.SetElement(i, i, s[i], false);
    scale.SetElement(i, 3, centre[i] - s[i] * centre[i], false);
  }
  scale.VerifyAndSetClass();
  Transform(scale);
}

// ---------------------------------------------------------------------------------------
// Events

void MStlBase::_Notify(MStlCallBackEventID event) {
  if (batchDepth > 0) {
    pendingEvents |= 1u << static_cast<unsigned>(event);
    return;
  }
  validity.InvalidateAll();
  if (callbacks.empty()) return;
  // A handler may let go of the mesh (detach itself) while we walk.
  const std::vector<MStlCallback*> followers(callbacks);
  for (MStlCallback* cb : followers)
    if (std::find(callbacks.begin(), callbacks.end(), cb) != callbacks.end() && cb->IsEnabled(event))
      cb->OnMeshEvent(event);
}

void MStlBase::_BeginBatch() { ++batchDepth; }

void MStlBase::_EndBatch() {
  if (--batchDepth > 0) return;
  const std::uint32_t pending = pendingEvents;
  pendingEvents = 0;
  for (unsigned e = 0; e < 32; ++e)
    if (pending & (1u << e)) _Notify(static_cast<MStlCallBackEventID>(e));
}

void MStlBase::_Attach(MStlCallback* cb) { callbacks.push_back(cb); }

void MStlBase::_Detach(MStlCallback* cb) {
  callbacks.erase(std::remove(callbacks.begin(), callbacks.end(), cb), callbacks.end());
}

IDataMask* MStlBase::_FindOwnedMask(const std::wstring& maskName) const {
  for (const auto& [n, m] : ownedMasks)
    if (n == maskName) return m.get();
  return nullptr;
}

IDataMask* MStlBase::_AdoptOwnedMask(const std::wstring& maskName, std::unique_ptr<IDataMask> mask) {
  ownedMasks.emplace_back(maskName, std::move(mask));
  return ownedMasks.back().second.get();
}
