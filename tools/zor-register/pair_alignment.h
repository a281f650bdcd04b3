#pragma once
// The command's registration of one mesh onto another: the operator with the chosen
// strategy; by default the shapes' automatic choice, and when that result is
// doubtful the feature strategy as well, the better kept; then a point-to-plane finish
// on the full meshes; and a verdict on what was found.

#include <cstdint>
#include <memory>
#include <string>

#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace zortool {

// What the result shows of itself, on up to kVerdictSamples of the moving mesh's points
// placed by it: the share within `distance` of the fixed surface (the overlap found)
// and the RMS distance of those.
struct Verdict {
  double distance = 0.0;  // internal units
  double overlap = 0.0;   // 0..1
  double rms = 0.0;       // internal units
  bool doubtful = false;
  std::string reason;  // why it is doubtful; empty when it is not
};

struct PairOptions {
  MUserOperatorStlRegistration::MParams params;
  // The default: automatic, and features as well when that result is doubtful.
  bool withFeatures = true;
  bool polish = true;  // point-to-plane ICP on the full meshes after the operator
};

struct PairResult {
  MMTransformMatrix transform;  // moving onto fixed
  double error = 0.0;           // internal units, the operator's measure
  std::uint64_t inliers = 0;
  MUserOperatorStlRegistration::MInitialAlignment used = MUserOperatorStlRegistration::AlignNone;
  MUserOperatorStlRegistration::StageTimes times;  // of the run kept
  bool triedFeatures = false;
  bool polished = false;
  double polishSeconds = 0.0;
  Verdict verdict;
};

// Measures `pose` (moving onto fixed) as Verdict says. The fixed mesh's triangle tree is
// built on first use and kept with the mesh.
Verdict JudgePose(const MStlBase& moving, const MStlBase& fixed, const MMTransformMatrix& pose, double distance);

// Runs the registration as the command does. Throws std::out_of_range when a pose
// carries the moving mesh off the grid (as the operator does). With reduceMeshes on (the
// default) the meshes are only read, and other threads may read them meanwhile; with it
// off the search places them by writing their coordinates for the time of the run.
PairResult AlignPair(MStlBase& moving, MStlBase& fixed, const PairOptions& options,
                     std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress = {});

}  // namespace zortool
