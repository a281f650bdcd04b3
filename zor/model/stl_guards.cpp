#include "zor/model/stl_guards.h"

namespace {

void InvertAllWindings(MStlBase& mesh) {
  for (MStlIteratorStlTriangle it = MStlIteratorStlTriangle::Begin(&mesh); it != MStlIteratorStlTriangle::End(&mesh);
       ++it)
    it->Invert(0);
}

}  // namespace

MStlTempTransformation::MStlTempTransformation(MStlBase& m, const MMTransform& transform, bool flipReflections)
    : mesh(m) {
  std::vector<MMVector3i> moved;
  mesh._ComputeMoved(moved, transform);  // throws before anything changes
  original.reserve(mesh.NumberOfPoints());
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) original.push_back(p->GetInt());
  mesh._BeginBatch();
  mesh._ApplyCoordinates(moved);
  if (flipReflections) {
    const auto* matrix = dynamic_cast<const MMTransformMatrix*>(&transform);
    if (matrix != nullptr && matrix->Determinant() < 0.0) {
      InvertAllWindings(mesh);
      flipped = true;
    }
  }
  mesh._EndBatch();
}

MStlTempTransformation::~MStlTempTransformation() {
  mesh._BeginBatch();
  mesh._ApplyCoordinates(original);
  if (flipped) InvertAllWindings(mesh);
  mesh._EndBatch();
}

MStlTempPointSortingDisabler::MStlTempPointSortingDisabler(MStlBase* m, bool active) : mesh(active ? m : nullptr) {
  if (mesh == nullptr) return;
  mesh->_BeginBatch();
  mesh->_InvalidatePointIndex();
}

MStlTempPointSortingDisabler::~MStlTempPointSortingDisabler() {
  if (mesh != nullptr) mesh->_EndBatch();
}

MStlBaseOperatorHelperDirectPointChange::MStlBaseOperatorHelperDirectPointChange(MStlBase* m, bool active)
    : mesh(active ? m : nullptr) {
  if (mesh != nullptr) mesh->_BeginBatch();
}

MStlBaseOperatorHelperDirectPointChange::~MStlBaseOperatorHelperDirectPointChange() {
  if (mesh == nullptr) return;
  mesh->Update(MStlUpdateExtremes, true);
  mesh->_EndBatch();
}
