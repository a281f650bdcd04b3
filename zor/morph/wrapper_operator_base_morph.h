#pragma once
// Deforms a moving mesh onto a target mesh that already lies close to it. Only the
// moving mesh's coordinates change, in place: its triangles, point count and point
// order stay, and the target is only read.
//
// Operate measures for every moving vertex a displacement toward the target (see
// MWrapperOperatorMorphingCorrespondence), then loops: move every vertex by a growing
// fraction of its displacement (0.05, 0.145, 0.2305, ... toward 1 with the defaults),
// smooth the mesh by `smoothingPasses` rounds of neighbour averaging, measure again.
// It stops when the share of vertices whose displacement is shorter than
// `distanceTolerance` reaches `targetFraction`, or when no displacement is longer than
// the tolerance. Correspondences first respect normals within `normalAngle`; when the
// mean and the largest displacement both grow (from the fifth iteration on), the run
// drops one smoothing pass and uses plain nearest places from then on. The loop has no
// iteration limit: meshes that do not lie close can make it run long.
//
// Every smoothing pass replaces each vertex by the mean of its neighbours and
// truncates toward zero, so a surface shrinks a little with each pass; the step moves it
// back. A mesh with isolated points (points without triangles) must not be morphed:
// such a point has no neighbours, its mean is 0 / 0, and it lands on -2147483648 on
// each axis at the first smoothing pass.
//
// Units: all lengths are internal units (MUnit::GetIE() is not applied).
// Threading: an operator object is used by one thread at a time, and no other thread
// may touch either mesh during Operate. The passes run in parallel; the result is
// bit-identical on every run and at every thread count.

#include <cstddef>
#include <memory>

#include "zor/export.h"
#include "zor/model/data_mask.h"
#include "zor/model/mm_vector.h"
#include "zor/model/progress.h"
#include "zor/model/stl_handles.h"
#include "zor/model/stl_vector_mask_points.h"

namespace ZorStlRegistration {

namespace detail {
class MeshRings;
}

class ZOR_API MWrapperOperatorBaseMorph {
public:
  using StlImpl = ZorMesh::StlBase::Handle::StlImpl<ZorMesh::StlBase::Handle::StlBasePolicy>;

  struct SParams {
    double distanceTolerance = 50.0;  // a vertex has arrived when its displacement is shorter
    double targetFraction = 0.99;     // the loop runs while fewer vertices than this have arrived
    double initialStep = 0.05;        // share of the displacement of the first step; then the current step
    double stepRetention = 0.9;       // share of the way to a whole step that each step keeps missing
    double normalAngle = 60.0;        // degrees between a vertex normal and a target triangle's, first phase
    std::size_t smoothingPasses = 5;  // passes after each step; then the current count
  };

  // Wall-clock seconds spent in each part of the last Operate, and its iterations.
  struct StageTimes {
    double setup = 0.0;       // trees and normals of the target, ring table
    double dualPass = 0.0;    // all dual passes of the correspondence
    double mainPass = 0.0;    // all main passes
    double step = 0.0;        // all morphing steps
    double smoothing = 0.0;   // all smoothing passes
    double statistics = 0.0;  // all measurements of the displacements
    double total = 0.0;
    std::size_t iterations = 0;  // loop turns (steps taken)
  };

  // Both meshes stay the caller's and must outlive every Operate. Throws
  // std::invalid_argument for a null mesh.
  MWrapperOperatorBaseMorph(StlImpl moving, StlImpl target);
  // Copies and moves take the handles, parameters, statistics and the mask pointer, and
  // give the new object a smoothing scratch of its own with the same contents; a moved-
  // from object stays usable.
  MWrapperOperatorBaseMorph(const MWrapperOperatorBaseMorph& other);
  MWrapperOperatorBaseMorph& operator=(const MWrapperOperatorBaseMorph& other);
  // A move copies the scratch (the source stays usable), which allocates: not noexcept.
  // NOLINTNEXTLINE(performance-noexcept-move-constructor)
  MWrapperOperatorBaseMorph(MWrapperOperatorBaseMorph&& other);
  // NOLINTNEXTLINE(performance-noexcept-move-constructor)
  MWrapperOperatorBaseMorph& operator=(MWrapperOperatorBaseMorph&& other);
  ~MWrapperOperatorBaseMorph();

  void SetParams(const SParams& p) { params = p; }
  // The parameters, with `initialStep` and `smoothingPasses` as the last run left them:
  // a second Operate goes on from there unless SetParams comes first.
  const SParams& GetParams() const { return params; }

  // Morphs. `progress` (may be null) hears the correspondence passes.
  void Operate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress);

  // Of the last measurement, in internal units: the longest displacement (0 before any
  // run), the mean one and the share of vertices that have arrived.
  double GetMaxDistance() const { return maxDistance; }
  double GetMeanDistance() const { return meanDistance; }
  double GetFractionWithin() const { return fractionWithin; }
  // The displacement mask of the last run on the moving mesh (owned by the mesh), or
  // null before any run.
  MStlVectorMaskPoints* GetDisplacementMask() const { return displacementMask; }
  const StageTimes& GetStageTimes() const { return stageTimes; }

private:
  void _ComputeStatistics();
  void _MorphingStep();
  void _SmoothStl(std::size_t passes);
  void _CopyFrom(const MWrapperOperatorBaseMorph& other);

  StlImpl moving;
  StlImpl target;
  SParams params;
  MStlVectorMaskPoints* displacementMask = nullptr;
  std::unique_ptr<MDataMask<MStlPoint, MMVector3d>> smoothingMask;  // on the moving mesh; default (0, 0, 0)
  double previousMaxDistance = 0.0;
  double maxDistance = 0.0;
  double previousMeanDistance = 0.0;
  double meanDistance = 0.0;
  double searchDistance = 0.0;
  double fractionWithin = 0.0;
  std::unique_ptr<detail::MeshRings> rings;  // of the run in progress
  StageTimes stageTimes;
};

}  // namespace ZorStlRegistration
