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

// The moves of the registered morph before its morph: the rigid registration (from any
// placement), the scaling of the moving box to the target's, the refining ICP; each is
// applied to `moving` in turn. Shared by the registered morph and by callers that end
// with another morph.
struct RegisteredStages {
  bool registered = false;  // the rigid registration succeeded (otherwise its move is the identity)
  MMTransformMatrix registration;
  float scales[3] = {1.0f, 1.0f, 1.0f};
  MMTransformMatrix icp;
  double registrationSeconds = 0.0, scalingSeconds = 0.0, icpSeconds = 0.0;
};
ZOR_API RegisteredStages RegisterScaleAndAlign(MStlBase& moving, MStlBase& target);

}  // namespace ZorStlRegistration::detail
