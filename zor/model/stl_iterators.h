#pragma once
// Iterators over the points of a mesh, the triangles of a mesh or feature (surface by
// surface, each surface in list order) and the surfaces of a feature.

#include <cstddef>

#include "zor/model/stl_elements.h"

// Included through stl_base.h, which defines these two.
class MStlBase;
inline const MStlFeature* GetSurfaceListOf(const MStlBase* mesh);
inline MStlPoint* GetFirstPointOf(const MStlBase* mesh);

class MStlIteratorStlPointConst {
public:
  MStlIteratorStlPointConst() = default;
  explicit MStlIteratorStlPointConst(const MStlPoint* p) : point(p) {}
  static MStlIteratorStlPointConst Begin(const MStlBase* mesh) {
    return MStlIteratorStlPointConst(GetFirstPointOf(mesh));
  }
  static MStlIteratorStlPointConst End(const MStlBase*) { return MStlIteratorStlPointConst(nullptr); }

  const MStlPoint& operator*() const { return *point; }
  const MStlPoint* operator->() const { return point; }
  const MStlPoint* GetPoint() const { return point; }
  MStlIteratorStlPointConst& operator++() {
    point = point->GetNext();
    return *this;
  }
  bool operator==(const MStlIteratorStlPointConst& o) const { return point == o.point; }
  bool operator!=(const MStlIteratorStlPointConst& o) const { return point != o.point; }

private:
  const MStlPoint* point = nullptr;
};

class MStlIteratorStlPoint {
public:
  MStlIteratorStlPoint() = default;
  explicit MStlIteratorStlPoint(MStlPoint* p) : point(p) {}
  static MStlIteratorStlPoint Begin(MStlBase* mesh) { return MStlIteratorStlPoint(GetFirstPointOf(mesh)); }
  static MStlIteratorStlPoint End(MStlBase*) { return MStlIteratorStlPoint(nullptr); }

  MStlPoint& operator*() const { return *point; }
  MStlPoint* operator->() const { return point; }
  MStlPoint* GetPoint() const { return point; }
  MStlIteratorStlPoint& operator++() {
    point = point->GetNext();
    return *this;
  }
  bool operator==(const MStlIteratorStlPoint& o) const { return point == o.point; }
  bool operator!=(const MStlIteratorStlPoint& o) const { return point != o.point; }

private:
  MStlPoint* point = nullptr;
};

struct MStlIteratorStlTriangleTraits {
  using Triangle = MStlTriangle;
  using Cell = MStlTriangleCell;
};
struct MStlIteratorStlTriangleConstTraits {
  using Triangle = const MStlTriangle;
  using Cell = const MStlTriangleCell;
};

// Walks the triangles of a feature's surfaces. Two iterators are equal when they stand
// on the same cell; every end iterator stands on none.
template <typename Derived, typename Traits>
class MStlIteratorStlTriangleGeneric {
public:
  using Triangle = typename Traits::Triangle;
  using Cell = typename Traits::Cell;

  MStlIteratorStlTriangleGeneric() = default;

  Triangle& operator*() const { return cell->data; }
  Triangle* operator->() const { return &cell->data; }
  operator Triangle*() const { return cell != nullptr ? &cell->data : nullptr; }
  Cell* GetCell() const { return cell; }

  Derived& operator++() {
    cell = cell->next;
    if (cell == nullptr) _SeekSurface(surfaceIndex + 1);
    return static_cast<Derived&>(*this);
  }
  bool operator==(const MStlIteratorStlTriangleGeneric& o) const { return cell == o.cell; }
  bool operator!=(const MStlIteratorStlTriangleGeneric& o) const { return cell != o.cell; }

protected:
  static Derived _Begin(const MStlFeature* f) {
    Derived it;
    it.feature = f;
    it._SeekSurface(0);
    return it;
  }
  static Derived _End(const MStlFeature* f) {
    Derived it;
    it.feature = f;
    it.surfaceIndex = f != nullptr ? f->GetSurfaceCount() : 0;
    return it;
  }

private:
  void _SeekSurface(std::size_t from) {
    cell = nullptr;
    const std::size_t n = feature != nullptr ? feature->GetSurfaceCount() : 0;
    for (surfaceIndex = from; surfaceIndex < n; ++surfaceIndex) {
      cell = feature->GetSurface(surfaceIndex)->GetFirstTriangle();
      if (cell != nullptr) return;
    }
  }

  const MStlFeature* feature = nullptr;
  std::size_t surfaceIndex = 0;
  Cell* cell = nullptr;
};

class MStlIteratorStlTriangle
    : public MStlIteratorStlTriangleGeneric<MStlIteratorStlTriangle, MStlIteratorStlTriangleTraits> {
public:
  static MStlIteratorStlTriangle Begin(MStlBase* mesh) { return _Begin(GetSurfaceListOf(mesh)); }
  static MStlIteratorStlTriangle End(MStlBase* mesh) { return _End(GetSurfaceListOf(mesh)); }
  static MStlIteratorStlTriangle Begin(MStlFeature* feature) { return _Begin(feature); }
  static MStlIteratorStlTriangle End(MStlFeature* feature) { return _End(feature); }
};

class MStlIteratorStlTriangleConst
    : public MStlIteratorStlTriangleGeneric<MStlIteratorStlTriangleConst, MStlIteratorStlTriangleConstTraits> {
public:
  static MStlIteratorStlTriangleConst Begin(const MStlBase* mesh) { return _Begin(GetSurfaceListOf(mesh)); }
  static MStlIteratorStlTriangleConst End(const MStlBase* mesh) { return _End(GetSurfaceListOf(mesh)); }
  static MStlIteratorStlTriangleConst Begin(const MStlFeature* feature) { return _Begin(feature); }
  static MStlIteratorStlTriangleConst End(const MStlFeature* feature) { return _End(feature); }
};

// Walks the surfaces of a feature; with `includeEmpty` false, it passes over surfaces
// without triangles.
template <typename SurfacePtr>
class MStlIteratorFeatureSurfaceGeneric {
public:
  MStlIteratorFeatureSurfaceGeneric() = default;
  MStlIteratorFeatureSurfaceGeneric(const MStlFeature* f, std::size_t i, bool withEmpty)
      : feature(f), index(i), includeEmpty(withEmpty) {
    _Skip();
  }
  SurfacePtr operator->() const { return feature->GetSurface(index); }
  auto& operator*() const { return *feature->GetSurface(index); }
  MStlIteratorFeatureSurfaceGeneric& operator++() {
    ++index;
    _Skip();
    return *this;
  }
  bool operator==(const MStlIteratorFeatureSurfaceGeneric& o) const { return index == o.index && feature == o.feature; }
  bool operator!=(const MStlIteratorFeatureSurfaceGeneric& o) const { return !(*this == o); }

private:
  void _Skip() {
    if (feature == nullptr || includeEmpty) return;
    while (index < feature->GetSurfaceCount() && feature->GetSurface(index)->GetFirstTriangle() == nullptr) ++index;
  }
  const MStlFeature* feature = nullptr;
  std::size_t index = 0;
  bool includeEmpty = true;
};

class MStlIteratorFeatureSurface : public MStlIteratorFeatureSurfaceGeneric<MStlSurface*> {
public:
  using MStlIteratorFeatureSurfaceGeneric::MStlIteratorFeatureSurfaceGeneric;
  static MStlIteratorFeatureSurface Begin(const MStlFeature* f, bool includeEmpty) {
    return MStlIteratorFeatureSurface(f, 0, includeEmpty);
  }
  static MStlIteratorFeatureSurface End(const MStlFeature* f, bool includeEmpty) {
    return MStlIteratorFeatureSurface(f, f != nullptr ? f->GetSurfaceCount() : 0, includeEmpty);
  }
};

class MStlIteratorFeatureSurfaceConst : public MStlIteratorFeatureSurfaceGeneric<const MStlSurface*> {
public:
  using MStlIteratorFeatureSurfaceGeneric::MStlIteratorFeatureSurfaceGeneric;
  static MStlIteratorFeatureSurfaceConst Begin(const MStlFeature* f, bool includeEmpty) {
    return MStlIteratorFeatureSurfaceConst(f, 0, includeEmpty);
  }
  static MStlIteratorFeatureSurfaceConst End(const MStlFeature* f, bool includeEmpty) {
    return MStlIteratorFeatureSurfaceConst(f, f != nullptr ? f->GetSurfaceCount() : 0, includeEmpty);
  }
};
