#pragma once
// Morphing. MWrapperOperatorMorph does the whole job in one call: a moving mesh in any
// placement is registered rigidly onto a target, scaled per axis to the target's box,
// aligned again by point-to-plane ICP, and morphed onto it (MWrapperOperatorBaseMorph),
// keeping its triangles and point order. MWrapperOperatorBaseMorph alone morphs meshes
// that already lie close together.

#include <memory>

#include "zor/export.h"
#include "zor/model/progress.h"
#include "zor/model/transform.h"
#include "zor/morph/morphing_correspondence.h"
#include "zor/morph/vertex_ring_iterator.h"
#include "zor/morph/wrapper_operator_base_morph.h"

namespace ZorStlRegistration {

// Stages of Operate, each changing the moving mesh in place:
//  1. rigid registration with the default parameters of MUserOperatorStlRegistration
//     (the identity when it fails);
//  2. per-axis scaling of the moving mesh's box onto the target's, about the moving
//     box's centre (not rigid, and not undone);
//  3. point-to-plane ICP of about 2000 moving points onto the target (up to 4000
//     iterations, pairs beyond 100000 internal units rejected), its result applied
//     whatever its outcome;
//  4. the base morph.
// A transform with a negative determinant also reverses every triangle. Nothing is
// reported; GetMaxDistanceAfterMorphing tells how the run went.
//
// A moving mesh flat along an axis (zero extent) cannot be scaled to the target's box:
// the scale is infinite, and Operate throws std::out_of_range from the scaling, with
// the mesh registered but not scaled. The target's extremes must be valid on entry
// (any Update, or building the mesh, makes them so).
//
// Lifetime and threading as MWrapperOperatorBaseMorph: both meshes outlive the object,
// one thread uses it, nobody else touches the meshes during Operate.
class ZOR_API MWrapperOperatorMorph {
public:
  using StlImpl = MWrapperOperatorBaseMorph::StlImpl;

  // Seconds of the stages of the last Operate.
  struct StageTimes {
    double registration = 0.0;
    double scaling = 0.0;
    double icp = 0.0;
    double morph = 0.0;
    double total = 0.0;
  };

  // Throws std::invalid_argument for a null mesh.
  MWrapperOperatorMorph(StlImpl moving, StlImpl target);
  MWrapperOperatorMorph(const MWrapperOperatorMorph&) = default;
  MWrapperOperatorMorph(MWrapperOperatorMorph&&) = default;
  MWrapperOperatorMorph& operator=(const MWrapperOperatorMorph&) = default;
  MWrapperOperatorMorph& operator=(MWrapperOperatorMorph&&) = default;
  ~MWrapperOperatorMorph();

  void SetMorphParams(const MWrapperOperatorBaseMorph::SParams& params) { morph.SetParams(params); }
  // `progress` (may be null) hears the morph's correspondence passes.
  void Operate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress);
  // The morph's longest remaining displacement, internal units.
  double GetMaxDistanceAfterMorphing() const { return morph.GetMaxDistance(); }

  // What the last Operate did: whether the first registration succeeded, the three
  // moves in the order they were applied, and the morph itself.
  bool GetRegistrationSucceeded() const { return registered; }
  const MMTransformMatrix& GetRegistration() const { return registration; }
  const float* GetScales() const { return scales; }
  const MMTransformMatrix& GetIcpTransform() const { return icpTransform; }
  const MWrapperOperatorBaseMorph& GetMorph() const { return morph; }
  const StageTimes& GetStageTimes() const { return stageTimes; }

private:
  void _Register();
  void _ApplyTransform(const MMTransformMatrix& matrix, StlImpl mesh);

  StlImpl moving;
  StlImpl target;
  MWrapperOperatorBaseMorph morph;
  bool registered = false;
  MMTransformMatrix registration;
  float scales[3] = {1.0f, 1.0f, 1.0f};
  MMTransformMatrix icpTransform;
  StageTimes stageTimes;
};

}  // namespace ZorStlRegistration
