#include "zor/services/surface_normals.h"

#include <cmath>

#include "zor/model/point_normal.h"

namespace {

bool IsKnownMethod(ePointNormalMethod method) {
  return method == ePointNormalMean || method == ePointNormalArea || method == ePointNormalAngle;
}

// The two enumerations list the same weightings in the same order.
NormalWeighting WeightingOf(ePointNormalMethod method) { return static_cast<NormalWeighting>(method); }

}  // namespace

bool ComputePointNormal(MMVector3d& normal, const MStlPoint& point, ePointNormalMethod method) {
  return IsKnownMethod(method) && WeightedPointNormal(point, WeightingOf(method), normal);
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
          WeightedPointNormal(*triangle->GetPoint(k), WeightingOf(params.weighting), cornerNormal, flat, creaseCosine))
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
