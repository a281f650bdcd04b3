#include "zor/model/point_normal.h"

#include <cmath>

#include "zor/model/stl_elements.h"

namespace {

// The weight of triangle `t` in the normal of its corner `corner`, with `areaVector`
// the triangle's area vector (twice the area along the normal).
double CornerWeight(const MStlTriangle& t, int corner, const MMVector3d& areaVector, NormalWeighting weighting) {
  switch (weighting) {
    case NormalWeighting::Mean: return 1.0;
    case NormalWeighting::Area: return 0.5 * Length(areaVector);
    case NormalWeighting::Angle: {
      const MMVector3d p = t.GetVertex(corner);
      const MMVector3d e1 = t.GetVertex((corner + 1) % 3) - p;
      const MMVector3d e2 = t.GetVertex((corner + 2) % 3) - p;
      // atan2 of |e1 x e2| and e1 . e2 is accurate for angles near 0 and pi, where the
      // arc cosine of a normalised dot product is not.
      return std::atan2(Length(areaVector), Dot(e1, e2));
    }
  }
  return 0.0;
}

}  // namespace

bool WeightedPointNormal(const MStlPoint& point, NormalWeighting weighting, MMVector3d& normal,
                         const MMVector3d& reference, double minCosine) {
  MMVector3d sum;
  for (std::uint16_t i = 0; i < point.GetNumberOfNeighbourTriangles(); ++i) {
    const MStlTriangle& t = point.GetNeighbourTriangle(i)->data;
    const int corner = t.IndexOfPoint(&point);
    if (corner < 0) continue;
    MMVector3d areaVector = t.GetAreaVector();
    const double weight = CornerWeight(t, corner, areaVector, weighting);
    if (Normalize(areaVector) == 0.0 || Dot(areaVector, reference) < minCosine) continue;
    sum += areaVector * weight;
  }
  if (Normalize(sum) == 0.0) return false;
  normal = sum;
  return true;
}
