#include "zor/morph/detail/target_surface.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "zor/model/distance_statistics.h"
#include "zor/model/stl_base.h"
#include "zor/morph/detail/parallel_loops.h"
#include "zor/spatial/surface_query.h"

namespace ZorStlRegistration::detail {

namespace {

// Matches are taken on the surface that each triangle's corners and their normals
// describe (a Phong tessellation), by this share of its rise over the flat triangle:
// half of the rise slid real scans least at every density (bench/README.md).
constexpr double kCurvedShare = 0.5;

template <typename Body>
void ForEach(std::size_t count, const Body& body) {
  ForEachIndex(count, 256, body);
}

}  // namespace

TargetSurface::TargetSurface(MStlBase* mesh) : holder(MeshQueries::MeshHandle(mesh)) {
  holder.Build(true);
  const auto& objects = holder.GetTree().GetObjects();
  cornerNormals.assign(3 * objects.size(), MMVector3d());
  ForEach(objects.size(), [&](std::size_t i) {
    const MStlTriangle* t = objects[i].GetTriangle();
    // Each corner's normal: the area-weighted normals of the triangles around it on
    // this triangle's side of any crease (a corner on a sharp edge keeps each face flat
    // up to it).
    const MMVector3d own = holder.GetNormals()[i];
    for (std::size_t k = 0; k < 3; ++k) {
      const MStlPoint* a = t->GetPoint(k);
      MMVector3d sum;
      for (std::uint16_t j = 0; j < a->GetNumberOfNeighbourTriangles(); ++j) {
        const MMVector3d area = a->GetNeighbourTriangle(j)->GetData()->GetAreaVector();
        if (Length(area) > 0.0 && MeshQueries::WithinCrease(area, own, 1.0, kCreaseCosine)) sum = sum + area;
      }
      const double length = Length(sum);
      cornerNormals[3 * i + k] = length > 0.0 ? sum * (1.0 / length) : MMVector3d();
    }
  });
}

double TargetSurface::Match(const MMVector3d& p, const MMVector3d& normal, double cosine, double reach, bool curved,
                            PlaneTerm& term) const {
  MeshQueries::SurfacePlace place;
  if (!MeshQueries::NearestFacingPlace(holder, p, normal, cosine, reach, place) || MeshQueries::OnOpenBorder(place))
    return -1.0;
  term.normal = holder.GetNormals()[place.object];
  term.weight = 1.0;
  if (!curved) {
    term.place = place.point;
    return place.distance;
  }
  // The place on the surface that the triangle's corners and their normals describe
  // (a Phong tessellation): where the target is a coarse tessellation of a curved
  // surface, its flat triangles cut inside it, and matches on them would shrink every
  // convex part by the chords' depth.
  const std::int32_t* v = holder.GetCorners()[place.object].xyz;
  double lift = 0.0;
  for (std::size_t k = 0; k < 3; ++k) {
    const MMVector3d& corner = cornerNormals[3 * std::size_t{place.object} + k];
    const MMVector3d toCorner(place.point[0] - double(v[3 * k]), place.point[1] - double(v[3 * k + 1]),
                              place.point[2] - double(v[3 * k + 2]));
    lift -= place.weights[k] * Dot(toCorner, corner) * Dot(corner, term.normal);
  }
  term.place = place.point + term.normal * (kCurvedShare * lift);
  return Length(term.place - p);
}

double TargetSurface::Distance(const MMVector3d& p, bool covered) const {
  MeshQueries::SurfacePlace place;
  if (!MeshQueries::NearestSurfacePlace(holder, p, std::numeric_limits<double>::infinity(), place))
    return covered ? -1.0 : std::numeric_limits<double>::infinity();
  return covered && MeshQueries::OnOpenBorder(place) ? -1.0 : place.distance;
}

PassSummary MatchLevel(const TargetSurface& surface, const FieldLevel& level, const std::vector<MMVector3d>& base,
                       const std::vector<MMVector3d>& field, const std::vector<MMVector3d>& normals, double cosine,
                       double reach, double tolerance, std::vector<PlaneTerm>& terms, std::vector<double>& distances,
                       bool curved) {
  const std::size_t n = level.rest.size();
  terms.assign(n, PlaneTerm());
  distances.assign(n, -1.0);
  ForEach(n, [&](std::size_t i) {
    distances[i] = surface.Match(level.rest[i] + base[i] + field[i], normals[i], cosine, reach, curved, terms[i]);
    terms[i].place = terms[i].place - base[i];
  });
  PassSummary s;
  std::vector<double> matched;
  matched.reserve(n);
  for (double d : distances)
    if (d >= 0.0) {
      matched.push_back(d);
      s.within += IsWithin(d, tolerance) ? 1 : 0;
    }
  s.matched = matched.size();
  s.p90 = NearestRank(matched, 0.90);
  s.p95 = NearestRank(matched, 0.95);
  for (double d : matched) s.largest = std::max(s.largest, d);
  return s;
}

void SamplePoints(MStlBase& mesh, std::size_t most, std::vector<MMVector3d>& places, std::vector<MMVector3d>& normals) {
  places.clear();
  normals.clear();
  const std::size_t count = mesh.NumberOfPoints();
  const std::size_t every = most > 0 && count > most ? (count + most - 1) / most : 1;
  std::size_t k = 0;
  for (MStlPoint* a = mesh.GetFirstPoint(); a != nullptr; a = a->GetNext(), ++k) {
    if (k % every != 0) continue;
    MMVector3d sum;
    for (std::uint16_t j = 0; j < a->GetNumberOfNeighbourTriangles(); ++j)
      sum = sum + a->GetNeighbourTriangle(j)->GetData()->GetAreaVector();
    const double length = Length(sum);
    if (!(length > 0.0)) continue;
    // A point on a crease has no one plane to lie on.
    bool crease = false;
    for (std::uint16_t j = 0; j < a->GetNumberOfNeighbourTriangles() && !crease; ++j)
      crease = !MeshQueries::WithinCrease(a->GetNeighbourTriangle(j)->GetData()->GetAreaVector(), sum, length,
                                          kCreaseCosine);
    if (crease) continue;
    places.push_back(a->GetDouble());
    normals.push_back(sum * (1.0 / length));
  }
}

}  // namespace ZorStlRegistration::detail
