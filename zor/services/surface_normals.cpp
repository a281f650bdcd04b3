#include "zor/services/surface_normals.h"

#include <cmath>

namespace {

// The weight of triangle `t` in the normal of its corner `corner`, with `n` the
// triangle's area vector (twice the area along the normal).
double CornerWeight(const MStlTriangle& t, int corner, const MMVector3d& areaVector, ePointNormalMethod method) {
  switch (method) {
    case ePointNormalMean: return 1.0;
    case ePointNormalArea: return 0.5 * Length(areaVector);
    case ePointNormalAngle: {
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

bool IsKnownMethod(ePointNormalMethod method) {
  return method == ePointNormalMean || method == ePointNormalArea || method == ePointNormalAngle;
}

// The weighted normal sum over the triangles around `point` whose unit normal has a
// dot product of at least `minCosine` with `reference`; false when it vanishes.
bool CornerNormal(MMVector3d& normal, const MStlPoint& point, ePointNormalMethod method, const MMVector3d& reference,
                  double minCosine) {
  MMVector3d sum;
  for (std::uint16_t i = 0; i < point.GetNumberOfNeighbourTriangles(); ++i) {
    const MStlTriangle& t = point.GetNeighbourTriangle(i)->data;
    const int corner = t.IndexOfPoint(&point);
    if (corner < 0) continue;
    MMVector3d areaVector = t.GetAreaVector();
    const double weight = CornerWeight(t, corner, areaVector, method);
    if (Normalize(areaVector) == 0.0 || Dot(areaVector, reference) < minCosine) continue;
    sum += areaVector * weight;
  }
  if (Normalize(sum) == 0.0) return false;
  normal = sum;
  return true;
}

}  // namespace

bool ComputePointNormal(MMVector3d& normal, const MStlPoint& point, ePointNormalMethod method) {
  return IsKnownMethod(method) && CornerNormal(normal, point, method, MMVector3d(), -2.0);
}

bool MStlBaseMaskOperatorComputePointNormalVectors::ComputeNormalCurrentMethod(MMVector3f& normal,
                                                                               const MStlPoint& point) const {
  MMVector3d n;
  if (!ComputePointNormal(n, point, method)) return false;
  normal = MMVector3f(n);
  return true;
}

EReturnCode MUserOperatorNormalCalculator::Preprocess() {
  prepared = false;
  if (model == nullptr) return EReturnCode::NoModel;
  if ((params.mode != 0 && params.mode != 1) || !IsKnownMethod(params.weighting) || std::isnan(params.creaseAngle))
    return EReturnCode::BadParameter;
  creaseCosine = params.creaseAngle >= 180.0 ? -2.0 : std::cos(params.creaseAngle * 0.017453292519943295);
  prepared = true;
  return EReturnCode::Ok;
}

EReturnCode MUserOperatorNormalCalculator::QueryResult(MMVector3d& normal, MStlTriangle* triangle,
                                                       const double* barycentric) const {
  if (!prepared) return model == nullptr ? EReturnCode::NoModel : EReturnCode::NotPrepared;
  if (triangle == nullptr || barycentric == nullptr) return EReturnCode::BadParameter;
  const MMVector3d flat = triangle->GetNormal();
  if (params.mode == 1) {
    MMVector3d blend;
    for (int k = 0; k < 3; ++k) {
      MMVector3d cornerNormal;
      if (barycentric[k] != 0.0 &&
          CornerNormal(cornerNormal, *triangle->GetPoint(k), params.weighting, flat, creaseCosine))
        blend += cornerNormal * barycentric[k];
    }
    if (Normalize(blend) > 0.0) {
      normal = blend;
      return EReturnCode::Ok;
    }
  }
  if (flat == MMVector3d()) return EReturnCode::Degenerate;
  normal = flat;
  return EReturnCode::Ok;
}
