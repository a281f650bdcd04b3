#include "zor/model/stl_item.h"

#include "zor/model/stl_guards.h"

namespace {

// Corners go in as 2, 1, 0 and the triangle as (0, 1, 2): the source winding stays.
void CopyTriangle(MStlBase& mesh, const MStlTriangle& t) {
  MStlPoint* c2 = mesh.AddPoint(t.GetVertex(2), false);
  MStlPoint* c1 = mesh.AddPoint(t.GetVertex(1), false);
  MStlPoint* c0 = mesh.AddPoint(t.GetVertex(0), false);
  mesh.AddTriangle(c0, c1, c2, nullptr);
}

template <typename Accept>
void CopyFeature(MStlBase& mesh, const MStlFeature* feature, Accept accept) {
  for (auto it = MStlIteratorStlTriangleConst::Begin(feature); it != MStlIteratorStlTriangleConst::End(feature); ++it)
    if (accept(*it)) CopyTriangle(mesh, *it);
}

}  // namespace

std::unique_ptr<MStlBase> CopySelectionToNewMesh(const MStlItem& item) {
  const auto all = [](const MStlTriangle&) { return true; };
  std::size_t n = 0;
  switch (item.GetType()) {
    case MStlItemStl:
    case MStlItemMarkedTriangles:
      if (item.GetStl() == nullptr) return nullptr;
      n = item.GetStl()->GetNumberOfTriangles();
      break;
    case MStlItemSurface:
      if (item.GetSurface() == nullptr) return nullptr;
      n = item.GetSurface()->GetNumberOfTriangles();
      break;
    case MStlItemFeature:
      if (item.GetFeature() == nullptr) return nullptr;
      n = item.GetFeature()->GetNumberOfTriangles();
      break;
    default: return nullptr;
  }
  auto mesh = std::make_unique<MStlBase>();
  mesh->Reserve(n / 2, n);
  MStlTempPointSortingDisabler bulk(mesh.get(), true);
  switch (item.GetType()) {
    case MStlItemStl: CopyFeature(*mesh, item.GetStl()->GetSurfaceList(), all); break;
    case MStlItemMarkedTriangles:
      CopyFeature(*mesh, item.GetStl()->GetSurfaceList(), [](const MStlTriangle& t) { return t.IsMarked(); });
      break;
    case MStlItemSurface:
      for (const MStlTriangleCell* c = item.GetSurface()->GetFirstTriangle(); c != nullptr; c = c->next)
        CopyTriangle(*mesh, c->data);
      break;
    default: CopyFeature(*mesh, item.GetFeature(), all); break;
  }
  return mesh;
}
