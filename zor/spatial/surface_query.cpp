#include "zor/spatial/surface_query.h"

#include <cmath>

#include "zor/model/point_normal.h"
#include "zor/model/stl_elements.h"
#include "zor/spatial/point_triangle_distance.h"

namespace MeshQueries {

SurfacePlace PlaceOnObject(const TriangleTreeHolder& holder, std::uint32_t object, const MMVector3d& query) {
  SurfacePlace place;
  place.object = object;
  place.triangle = holder.GetTree().GetObjects()[object].GetTriangle();
  const std::int32_t* v = holder.GetCorners()[object].xyz;
  const double a[3] = {double(v[0]), double(v[1]), double(v[2])};
  const double b[3] = {double(v[3]), double(v[4]), double(v[5])};
  const double c[3] = {double(v[6]), double(v[7]), double(v[8])};
  double* w = place.weights;
  place.distance = std::sqrt(PointTriangleDistance2(query.Data(), a, b, c, w));
  place.point = MMVector3d(a[0] * w[0] + b[0] * w[1] + c[0] * w[2], a[1] * w[0] + b[1] * w[1] + c[1] * w[2],
                           a[2] * w[0] + b[2] * w[1] + c[2] * w[2]);
  int onEdges = 0;
  for (std::uint8_t k = 0; k < 3; ++k)
    if (w[k] <= kOnEdgeWeight) {
      ++onEdges;
      place.corner = k;  // the edge opposite k
    }
  if (onEdges == 0) {
    place.feature = SurfaceFeature::Face;
    place.corner = 0;
  } else if (onEdges == 1) {
    place.feature = SurfaceFeature::Edge;
  } else {
    // Two weights at zero: the corner with the third.
    place.feature = SurfaceFeature::Corner;
    place.corner = w[0] > kOnEdgeWeight ? 0 : w[1] > kOnEdgeWeight ? 1 : 2;
  }
  return place;
}

bool NearestSurfacePlace(const TriangleTreeHolder& holder, const MMVector3d& query, double radius,
                         SurfacePlace& place) {
  const TriangleObjectDistance distance(holder.GetCorners(), query.Data());
  double bound2 = SquaredSearchBound(radius);
  const std::uint32_t object = NearestObjectIndex(holder.GetTree(), distance, bound2);
  if (object == kNoObject) return false;
  place = PlaceOnObject(holder, object, query);
  return true;
}

bool NearestFacingPlace(const TriangleTreeHolder& holder, const MMVector3d& query, const MMVector3d& normal,
                        double minCosine, double radius, SurfacePlace& place) {
  const OrientedTriangleDistance<StoredNormals> distance(StoredNormals(holder.GetNormals()), holder.GetCorners(),
                                                         query.Data(), normal.Data(), minCosine);
  double bound2 = SquaredSearchBound(radius);
  const std::uint32_t object = NearestObjectIndex(holder.GetTree(), distance, bound2);
  if (object == kNoObject) return false;
  place = PlaceOnObject(holder, object, query);
  return true;
}

bool EdgeIsOpen(const MStlTriangle& t, std::size_t corner) {
  const MStlPoint* from = t.GetPoint((corner + 1) % 3);
  const MStlPoint* to = t.GetPoint((corner + 2) % 3);
  for (std::uint16_t j = 0; j < from->GetNumberOfNeighbourTriangles(); ++j) {
    const MStlTriangle* other = from->GetNeighbourTriangle(j)->GetData();
    if (other != &t && other->IndexOfPoint(to) >= 0) return false;
  }
  return true;
}

bool OnOpenBorder(const SurfacePlace& place) {
  if (!place.Found()) return false;
  for (std::size_t k = 0; k < 3; ++k)
    if (place.weights[k] <= kOnEdgeWeight && EdgeIsOpen(*place.triangle, k)) return true;
  return false;
}

MMVector3d PseudoNormal(const SurfacePlace& place) {
  const MStlTriangle& t = *place.triangle;
  MMVector3d normal = t.GetNormal();
  switch (place.feature) {
    case SurfaceFeature::Face: break;
    case SurfaceFeature::Edge: {
      // The edge opposite corner k joins corners k + 1 and k + 2, which is the model's
      // edge k + 1.
      if (const MStlTriangleCell* other = t.FindAdjacentTriangle((place.corner + 1) % 3, false))
        normal += other->data.GetNormal();
      break;
    }
    case SurfaceFeature::Corner: WeightedPointNormal(*t.GetPoint(place.corner), NormalWeighting::Angle, normal); break;
  }
  return normal;
}

double SignedDistance(const SurfacePlace& place, const MMVector3d& query) {
  return Dot(query - place.point, PseudoNormal(place)) < 0.0 ? -place.distance : place.distance;
}

}  // namespace MeshQueries
