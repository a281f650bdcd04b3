#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "zor/model/stl_base.h"

// ---------------------------------------------------------------------------------------
// MStlPoint

MStlPoint::MStlPoint(std::int32_t x, std::int32_t y, std::int32_t z) : inlineNeighbours{} {
  coords[0] = x;
  coords[1] = y;
  coords[2] = z;
}

MStlPoint::~MStlPoint() {
  if (neighbourCapacity != 0) delete[] heapNeighbours;
}

void MStlPoint::AddNeighbour(MStlTriangleCell* cell) {
  if (neighbourCount == kMaxNeighbours)
    throw std::length_error("MStlBase::AddTriangle: a point cannot belong to more than 65535 triangles");
  const std::size_t capacity = neighbourCapacity == 0 ? kInlineNeighbours : neighbourCapacity;
  if (neighbourCount == capacity) {
    const std::size_t grown = std::min<std::size_t>(capacity * 2, kMaxNeighbours);
    MStlTriangleCell** bigger = new MStlTriangleCell*[grown];
    std::memcpy(bigger, Neighbours(), neighbourCount * sizeof(MStlTriangleCell*));
    if (neighbourCapacity != 0) delete[] heapNeighbours;
    heapNeighbours = bigger;
    neighbourCapacity = static_cast<std::uint16_t>(grown);
  }
  Neighbours()[neighbourCount++] = cell;
}

void MStlPoint::RemoveNeighbour(MStlTriangleCell* cell) {
  MStlTriangleCell** list = Neighbours();
  for (std::uint16_t i = 0; i < neighbourCount; ++i)
    if (list[i] == cell) {
      std::memmove(list + i, list + i + 1, (neighbourCount - i - 1) * sizeof(MStlTriangleCell*));
      --neighbourCount;
      return;
    }
}

// ---------------------------------------------------------------------------------------
// MStlTriangle

// The cell holds the triangle at a fixed offset; offsetof on a class with a base is
// conditionally supported, and GCC and Clang support it for classes without virtual
// bases.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static constexpr std::size_t kTriangleOffsetInCell = offsetof(MStlTriangleCell, data);
#pragma GCC diagnostic pop

MStlTriangleCell* MStlTriangle::GetCell() {
  return reinterpret_cast<MStlTriangleCell*>(reinterpret_cast<char*>(this) - kTriangleOffsetInCell);
}

const MStlTriangleCell* MStlTriangle::GetCell() const {
  return reinterpret_cast<const MStlTriangleCell*>(reinterpret_cast<const char*>(this) - kTriangleOffsetInCell);
}

MMVector3d MStlTriangle::GetAreaVector() const {
  const MMVector3d a = corners[0]->GetDouble();
  return Cross(corners[1]->GetDouble() - a, corners[2]->GetDouble() - a);
}

MMVector3d MStlTriangle::GetNormal() const {
  MMVector3d n = GetAreaVector();
  Normalize(n);
  return n;
}

double MStlTriangle::SurfaceArea() const { return 0.5 * Length(GetAreaVector()); }

MStlTriangleCell* MStlTriangle::FindAdjacentTriangle(std::size_t edge, bool manifoldOnly) const {
  const MStlPoint* a = corners[edge % 3];
  const MStlPoint* b = corners[(edge + 1) % 3];
  const MStlTriangleCell* self = GetCell();
  MStlTriangleCell* found = nullptr;
  for (std::uint16_t i = 0; i < a->GetNumberOfNeighbourTriangles(); ++i) {
    MStlTriangleCell* cell = a->GetNeighbourTriangle(i);
    if (cell == self || cell->data.IndexOfPoint(b) < 0) continue;
    if (found == nullptr) {
      found = cell;
      if (!manifoldOnly) return found;
    } else {
      return nullptr;  // a third triangle on the edge: not manifold
    }
  }
  return found;
}

namespace {

// Closest point of segment [p, q] to x, as the parameter t along it.
double SegmentParameter(const MMVector3d& p, const MMVector3d& q, const MMVector3d& x) {
  const MMVector3d d = q - p;
  const double len2 = Dot(d, d);
  if (len2 <= 0.0) return 0.0;
  return std::clamp(Dot(x - p, d) / len2, 0.0, 1.0);
}

}  // namespace

double MStlTriangle::ProjectPoint(MMVector3d& projected, MMVector3d& weights, MPosition& where,
                                  const MMVector3d& query) const {
  const MMVector3d a = corners[0]->GetDouble(), b = corners[1]->GetDouble(), c = corners[2]->GetDouble();
  const MMVector3d ab = b - a, ac = c - a, ap = query - a;
  // Regions by the signs of the projections (Eberly; also Ericson, Real-Time Collision
  // Detection 5.1.5).
  const double d1 = Dot(ab, ap), d2 = Dot(ac, ap);
  const auto finish = [&](const MMVector3d& w, MPosition pos) {
    weights = w;
    projected = a * w[0] + b * w[1] + c * w[2];
    where = pos;
    return Length(query - projected);
  };
  const MMVector3d normal = Cross(ab, ac);
  if (Dot(normal, normal) <= 0.0) {
    // Degenerate triangle: the closest point of its three edges.
    const MMVector3d* v[3] = {&a, &b, &c};
    double best = -1.0;
    MMVector3d bestWeights;
    MPosition bestWhere = AtCorner0;
    for (int e = 0; e < 3; ++e) {
      const int f = (e + 1) % 3;
      const double t = SegmentParameter(*v[e], *v[f], query);
      MMVector3d w;
      w[e] = 1.0 - t;
      w[f] = t;
      const MMVector3d point = *v[e] * (1.0 - t) + *v[f] * t;
      const double dist2 = Length2(query - point);
      if (best < 0.0 || dist2 < best) {
        best = dist2;
        bestWeights = w;
        bestWhere = t == 0.0   ? static_cast<MPosition>(AtCorner0 + e)
                    : t == 1.0 ? static_cast<MPosition>(AtCorner0 + f)
                               : static_cast<MPosition>(OnEdge0 + e);
      }
    }
    return finish(bestWeights, bestWhere);
  }
  if (d1 <= 0.0 && d2 <= 0.0) return finish(MMVector3d(1, 0, 0), AtCorner0);
  const MMVector3d bp = query - b;
  const double d3 = Dot(ab, bp), d4 = Dot(ac, bp);
  if (d3 >= 0.0 && d4 <= d3) return finish(MMVector3d(0, 1, 0), AtCorner1);
  const double vc = d1 * d4 - d3 * d2;
  if (vc <= 0.0 && d1 >= 0.0 && d3 <= 0.0) {
    const double t = d1 / (d1 - d3);
    return finish(MMVector3d(1.0 - t, t, 0.0), OnEdge0);
  }
  const MMVector3d cp = query - c;
  const double d5 = Dot(ab, cp), d6 = Dot(ac, cp);
  if (d6 >= 0.0 && d5 <= d6) return finish(MMVector3d(0, 0, 1), AtCorner2);
  const double vb = d5 * d2 - d1 * d6;
  if (vb <= 0.0 && d2 >= 0.0 && d6 <= 0.0) {
    const double t = d2 / (d2 - d6);
    return finish(MMVector3d(1.0 - t, 0.0, t), OnEdge2);
  }
  const double va = d3 * d6 - d5 * d4;
  if (va <= 0.0 && (d4 - d3) >= 0.0 && (d5 - d6) >= 0.0) {
    const double t = (d4 - d3) / ((d4 - d3) + (d5 - d6));
    return finish(MMVector3d(0.0, 1.0 - t, t), OnEdge1);
  }
  const double denom = 1.0 / (va + vb + vc);
  const double v = vb * denom, w = vc * denom;
  return finish(MMVector3d(1.0 - v - w, v, w), Inside);
}

void MStlTriangle::Invert(char keep) {
  const int k = ((keep % 3) + 3) % 3;
  std::swap(corners[(k + 1) % 3], corners[(k + 2) % 3]);
  if (surface != nullptr) surface->GetStl()->_Notify(MStlEventTopologyChanged);
}

// ---------------------------------------------------------------------------------------
// Surfaces and features

std::size_t MStlSurface::GetNumberOfTrianglesInList() const {
  std::size_t n = 0;
  for (const MStlTriangleCell* c = first; c != nullptr; c = c->next) ++n;
  return n;
}

MStlFeature::~MStlFeature() = default;

std::size_t MStlFeature::GetNumberOfTriangles() const {
  std::size_t n = 0;
  for (const MStlSurface* s : surfaces) n += s->GetNumberOfTriangles();
  return n;
}

std::size_t MStlFeature::GetNumSurfaces(bool includeEmpty) const {
  if (includeEmpty) return surfaces.size();
  return static_cast<std::size_t>(std::count_if(surfaces.begin(), surfaces.end(),
                                                [](const MStlSurface* s) { return s->GetNumberOfTriangles() > 0; }));
}

void MStlFeature::AddSurface(MStlSurface* surface) {
  if (surface == nullptr || surface->GetStl() != mesh)
    throw std::invalid_argument("MStlFeature::AddSurface: the surface belongs to another mesh");
  if (std::find(surfaces.begin(), surfaces.end(), surface) == surfaces.end()) surfaces.push_back(surface);
}

std::size_t MStlSurfaceList::GetNumberOfTriangles() const { return GetStl()->GetNumberOfTriangles(); }
