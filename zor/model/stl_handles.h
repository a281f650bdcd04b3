#pragma once
// Value handles on a mesh and its elements.

#include <cstddef>
#include <functional>

#include "zor/model/stl_elements.h"

namespace ZorMesh::StlBase::Handle {

struct StlBasePolicy {};

template <typename Policy>
class StlImpl {
public:
  StlImpl() = default;
  explicit StlImpl(MStlBase* m) : mesh(m) {}
  MStlBase* GetStl() const { return mesh; }
  bool operator==(const StlImpl& o) const { return mesh == o.mesh; }
  bool operator!=(const StlImpl& o) const { return mesh != o.mesh; }

private:
  MStlBase* mesh = nullptr;
};

template <typename Policy>
class StlConstImpl {
public:
  StlConstImpl() = default;
  explicit StlConstImpl(const MStlBase* m) : mesh(m) {}
  StlConstImpl(const StlImpl<Policy>& h) : mesh(h.GetStl()) {}  // NOLINT: a mutable handle reads as a const one
  const MStlBase* GetStl() const { return mesh; }
  bool operator==(const StlConstImpl& o) const { return mesh == o.mesh; }
  bool operator!=(const StlConstImpl& o) const { return mesh != o.mesh; }

private:
  const MStlBase* mesh = nullptr;
};

class Vertex {
public:
  Vertex() = default;
  explicit Vertex(MStlPoint* p) : point(p) {}
  MStlPoint* GetPoint() const { return point; }
  MStlPoint* operator->() const { return point; }
  std::size_t GetMaskIndex() const { return point->GetMaskIndex(); }
  bool operator==(const Vertex& o) const { return point == o.point; }
  bool operator!=(const Vertex& o) const { return point != o.point; }
  bool operator<(const Vertex& o) const { return std::less<MStlPoint*>()(point, o.point); }

private:
  MStlPoint* point = nullptr;
};

class Triangle {
public:
  Triangle() = default;
  explicit Triangle(MStlTriangle* t) : triangle(t) {}
  MStlTriangle* GetTriangle() const { return triangle; }
  MStlTriangle* operator->() const { return triangle; }
  std::size_t GetMaskIndex() const { return triangle->GetMaskIndex(); }
  bool operator==(const Triangle& o) const { return triangle == o.triangle; }
  bool operator!=(const Triangle& o) const { return triangle != o.triangle; }

private:
  MStlTriangle* triangle = nullptr;
};

}  // namespace ZorMesh::StlBase::Handle
