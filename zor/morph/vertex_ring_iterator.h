#pragma once
// The vertices adjacent to one vertex, each once, with no scratch memory.
//
// Each neighbour triangle, in the vertex's neighbour order, offers the two corners that
// follow the vertex in its winding; a corner already offered by an earlier triangle is
// passed over. So on a closed fan the walk yields as many vertices as triangles, at a
// border one more, and around a lone triangle two. Whether a corner is new is found by
// looking for the first neighbour triangle that holds it, so a walk costs the square of
// the valence; code that walks the same rings many times should keep what it finds.
//
// The mesh must not change during a walk. Walks may run on many threads at once.

#include <cstdint>

#include "zor/model/stl_elements.h"

class MStlBase;

namespace ZorStlRegistration {

class VertexRingIterator {
public:
  static VertexRingIterator Begin(const MStlBase* mesh, const MStlPoint* vertex) {
    VertexRingIterator it(mesh, vertex, 0, kEnd);
    if (vertex->GetNumberOfNeighbourTriangles() > 0) it.corner = it._CornerAfterCentre(0);
    it._Skip();
    return it;
  }
  static VertexRingIterator End(const MStlBase* mesh, const MStlPoint* vertex) {
    return VertexRingIterator(mesh, vertex, vertex->GetNumberOfNeighbourTriangles(), kEnd);
  }

  MStlPoint* operator*() const { return _Triangle(triangle).GetPoint(corner); }
  VertexRingIterator& operator++() {
    _RawStep();
    _Skip();
    return *this;
  }
  bool operator==(const VertexRingIterator& o) const {
    return mesh == o.mesh && vertex == o.vertex && triangle == o.triangle && corner == o.corner;
  }
  bool operator!=(const VertexRingIterator& o) const { return !(*this == o); }

private:
  static constexpr std::uint8_t kEnd = 3;

  VertexRingIterator(const MStlBase* m, const MStlPoint* v, std::uint16_t t, std::uint8_t c)
      : mesh(m), vertex(v), triangle(t), corner(c) {}

  const MStlTriangle& _Triangle(std::uint16_t i) const { return vertex->GetNeighbourTriangle(i)->data; }
  // The corner that follows the centre in triangle i's winding.
  std::uint8_t _CornerAfterCentre(std::uint16_t i) const {
    return static_cast<std::uint8_t>((_Triangle(i).IndexOfPoint(vertex) + 1) % 3);
  }
  // The next corner of this triangle, or the first offered corner of the next one.
  void _RawStep() {
    const std::uint8_t next = static_cast<std::uint8_t>((corner + 1) % 3);
    if (_Triangle(triangle).GetPoint(next) != vertex) {
      corner = next;
      return;
    }
    ++triangle;
    corner = triangle < vertex->GetNumberOfNeighbourTriangles() ? _CornerAfterCentre(triangle) : kEnd;
  }
  // Steps on until the corner is one that no earlier triangle offered.
  void _Skip() {
    const std::uint16_t count = vertex->GetNumberOfNeighbourTriangles();
    while (triangle != count) {
      const MStlPoint* v = _Triangle(triangle).GetPoint(corner);
      std::uint16_t first = 0;
      while (_Triangle(first).IndexOfPoint(v) == -1) ++first;
      if (first == triangle) return;
      _RawStep();
    }
  }

  const MStlBase* mesh;
  const MStlPoint* vertex;
  std::uint16_t triangle;
  std::uint8_t corner;
};

}  // namespace ZorStlRegistration
