#pragma once
// The stages of the registered morph that change the moving mesh between the
// registrations, reachable by tests.

#include <cstddef>

#include "zor/export.h"
#include "zor/model/mm_vector.h"
#include "zor/model/transform.h"

class MStlBase;

namespace ZorStlRegistration::detail {

// Moves `mesh` by `matrix`; under a reflection (negative determinant) every triangle's
// winding is reversed too, so that the outside stays outside. Then the mesh's normals
// and extremes are refreshed and its followers told.
ZOR_API void ApplyTransform(MStlBase& mesh, const MMTransformMatrix& matrix);

// The sub-sample ratio of the refining ICP for a moving mesh of `pointCount` points
// (read as its low 32 bits): 10 below 20000 points, otherwise the ratio that leaves
// about 2000 points.
ZOR_API std::size_t IcpSubSampleRatio(std::size_t pointCount);

// The per-axis scales (in float, target extent over moving extent) and the centre (the
// moving box's integer centre) that lay the moving mesh's box on the target's.
struct BoxScaling {
  float scale[3] = {1.0f, 1.0f, 1.0f};
  MMVector3i centre;
};
ZOR_API BoxScaling ScalingToBox(const MStlBase& moving, const MStlBase& target);

}  // namespace ZorStlRegistration::detail
