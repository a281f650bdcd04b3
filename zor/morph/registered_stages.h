#pragma once
// The moves of the registered morph before its morph, for callers that end with another
// morph (the field morph of the pair call): the rigid registration from any placement,
// the scaling of the moving box to the target's, and the refining ICP.

#include "zor/export.h"
#include "zor/model/transform.h"

class MStlBase;

namespace ZorStlRegistration {

struct RegisteredStages {
  bool registered = false;  // the rigid registration succeeded (otherwise its move is the identity)
  MMTransformMatrix registration;
  float scales[3] = {1.0f, 1.0f, 1.0f};
  MMTransformMatrix icp;
  double registrationSeconds = 0.0, scalingSeconds = 0.0, icpSeconds = 0.0;
};

// Applies each move to `moving` in turn; `target` is only read (its trees may be built).
ZOR_API RegisteredStages RegisterScaleAndAlign(MStlBase& moving, MStlBase& target);

}  // namespace ZorStlRegistration
