#pragma once
// A selection on a mesh, and the copy of a selection into a mesh of its own.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "zor/model/export.h"
#include "zor/model/stl_base.h"

enum MStlItemType : std::int32_t {
  MStlItemNone = 0,
  MStlItemStl = 1,               // a whole mesh: GetStl
  MStlItemSurface = 6,           // one surface: GetSurface
  MStlItemFeature = 11,          // one feature: GetFeature
  MStlItemMarkedTriangles = 12,  // the marked triangles of a mesh: GetStl, then IsMarked
};

class ZOR_MODEL_API MStlItem {
public:
  MStlItem() = default;
  explicit MStlItem(MStlBase* mesh) : type(MStlItemStl), stl(mesh) {}
  explicit MStlItem(MStlSurface* s) : type(MStlItemSurface), stl(s != nullptr ? s->GetStl() : nullptr), surface(s) {}
  explicit MStlItem(MStlFeature* f) : type(MStlItemFeature), stl(f != nullptr ? f->GetStl() : nullptr), feature(f) {}
  static MStlItem MarkedTriangles(MStlBase* mesh) {
    MStlItem item(mesh);
    item.type = MStlItemMarkedTriangles;
    return item;
  }

  MStlItemType GetType() const { return type; }
  // The mesh of the selection (for every kind), or null.
  MStlBase* GetStl() const { return stl; }
  MStlSurface* GetSurface() const { return surface; }
  MStlFeature* GetFeature() const { return feature; }

private:
  MStlItemType type = MStlItemNone;
  MStlBase* stl = nullptr;
  MStlSurface* surface = nullptr;
  MStlFeature* feature = nullptr;
};

// A new mesh holding the selected triangles with their winding, points merged by
// coordinates so the copy stays connected; null when the item selects nothing it can
// name (no mesh, surface or feature, or an unknown type). An empty selection gives a
// mesh without triangles. Triangles come in selection order: a mesh or its marked
// triangles surface by surface, a feature surface by surface, a surface in list order.
ZOR_MODEL_API std::unique_ptr<MStlBase> CopySelectionToNewMesh(const MStlItem& item);
