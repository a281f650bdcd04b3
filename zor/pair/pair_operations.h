#pragma once
// The multi-start ICP and the morph as a host application runs them, with lengths in
// millimetres: the checks of the input the operators need, and what a report of each
// run shows. Bad input throws InputError with a one-line message.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zor/icp/stl_base_operator_registration_icp.h"
#include "zor/model/input_error.h"
#include "zor/model/progress.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/model/unit.h"
#include "zor/morph/wrapper_operator_field_morph.h"
#include "zor/morph/wrapper_operator_morph.h"
#include "zor/pair/export.h"
#include "zor/pair/pair_registration.h"

namespace ZorStlRegistration {

// The multi-start ICP: the operator's parameters (meshes aside), with its lengths in
// millimetres.
struct IcpOptions {
  MStlBaseOperatorRegistrationICP::MParams params;
  double maxDistance = 0.0;     // mm; 0: reject by the median rule
  std::vector<double> initial;  // 16 values, row-major, shift in millimetres; empty: the identity
  // The operator fits samples to samples, so its pose lies a fraction of a millimetre
  // off the surface: finish it as AlignPair does (FinishPose on the full meshes).
  bool polish = true;
};

struct IcpRun {
  MMTransformMatrix transform;  // moving onto fixed, finished when `polished`
  double rms = 0.0;             // internal units, the operator's, before the finish
  MStlBaseOperatorRegistrationICP::StageTimes times;
  std::uint64_t starts = 0;  // runs from a start (1 for a single run)
  bool refined = false;      // a run on the larger sample followed
  bool polished = false;
  double polishSeconds = 0.0;
  Verdict verdict;  // of `transform`, as AlignPair's
};

// Runs the multi-start ICP of `moving` onto `fixed`, then the finish (unless
// `options.polish` is off) and the verdict; `progress` (may be null) counts the starts. Throws InputError for an
// initial transform that is not finite, for no starts and for a mesh without area (naming it by `movingName` or
// `fixedName`).
ZOR_PAIR_API IcpRun IcpPair(const MStlBase& moving, const MStlBase& fixed, const IcpOptions& options,
                            const std::string& movingName, const std::string& fixedName,
                            const std::shared_ptr<ZorSDK::Common::IProgressDelegate>& progress = {});

// The morphs' own tolerance (MWrapperOperatorFieldMorph::SParams, internal units) in
// millimetres at the grid in force.
inline double DefaultMorphToleranceMm() {
  return MWrapperOperatorFieldMorph::SParams().distanceTolerance / MUnit::GetIE();
}

// The morph: which one runs (the field morph, or the base morph with its fixed
// schedule), each setting once, and whether the meshes are registered and scaled first.
// Settings that only one morph has are ignored by the other; the defaults are the
// operators' own.
struct MorphOptions {
  bool baseMorph = false;
  bool registerFirst = true;
  // Both morphs.
  double toleranceMm = DefaultMorphToleranceMm();  // a point has arrived within this of the target
  double targetFraction = MWrapperOperatorFieldMorph::SParams().targetFraction;
  double normalAngle = MWrapperOperatorFieldMorph::SParams().normalAngle;  // degrees
  // The field morph.
  double searchDistanceMm = 0.0;  // the first reach; 0: a tenth of the moving mesh's diagonal
  double smoothing = MWrapperOperatorFieldMorph::SParams().smoothing;  // mean edge lengths
  std::size_t maxPasses = MWrapperOperatorFieldMorph::SParams().maxPasses;
  // The base morph.
  double initialStep = MWrapperOperatorBaseMorph::SParams().initialStep;
  double stepRetention = MWrapperOperatorBaseMorph::SParams().stepRetention;
  std::size_t smoothingPasses = MWrapperOperatorBaseMorph::SParams().smoothingPasses;

  // The operators' records at the grid in force.
  MWrapperOperatorFieldMorph::SParams FieldParams() const;
  MWrapperOperatorBaseMorph::SParams BaseParams() const;
};

struct MorphRun {
  bool baseMorph = false;
  MWrapperOperatorFieldMorph::Report field;     // without baseMorph
  MWrapperOperatorBaseMorph::StageTimes morph;  // with baseMorph
  MWrapperOperatorMorph::StageTimes stages;     // with registerFirst
  double total = 0.0;                           // seconds of the whole run
  // Field morph: distances of the morphed points to the target surface. Base morph: the
  // lengths of the displacements its last measurement gave (0 for a point it found no
  // place for). Internal units.
  double maxDistance = 0.0;
  double meanDistance = 0.0;
  double fractionWithin = 0.0;
  double tolerance = 0.0;  // internal units
  // With registerFirst: how the registration went, its pose, the per-axis scales and the
  // ICP's pose after them.
  bool registrationSucceeded = false;
  MMTransformMatrix registration;
  double scales[3] = {1.0, 1.0, 1.0};
  MMTransformMatrix icp;
};

// Morphs `moving` onto `target` in place, keeping its points' order and its triangles;
// `progress` (may be null) hears the passes. Throws InputError when the base morph is
// given points that no triangle uses, or, with registerFirst, when a mesh is flat along
// an axis; and when the morph carries the mesh off the grid.
ZOR_PAIR_API MorphRun MorphPair(MStlBase& moving, MStlBase& target, const MorphOptions& options,
                                const std::string& movingName, const std::string& targetName,
                                std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress = {});

}  // namespace ZorStlRegistration
