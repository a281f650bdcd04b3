#pragma once
// Rigid registration of a moving mesh onto a fixed mesh.
//
// Use: construct, SetAllParams, set the fixed and the moving input (a mesh or a
// selection, each with an optional 4x4 placement), Operate, then read
// GetTransformation (moving coordinates onto the fixed mesh) and GetError.
//
// Meshes handed in stay the caller's and must outlive the operator's use of them (with
// reduceMeshes off, GetError(pose) reads the fixed mesh after the run).
//
// Threading: an operator object is used by one thread at a time. Different operators
// may run on different threads at once, and may share an input mesh only when
// reduceMeshes is on: with it off, a run works on the caller's meshes themselves and
// places them through a temporary transformation (the placement matrices, the slide
// of the initial alignment, GetError(pose) with a fixed placement), which writes their
// coordinates for the time of the run. Results are bit-identical at every thread count.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "zor/export.h"
#include "zor/model/progress.h"
#include "zor/model/registered.h"
#include "zor/model/stl_base.h"
#include "zor/model/stl_item.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration {
class NormalOrientationIndex;
}
namespace ZorSDK::Common {
class IncrementalProgressReporter;
}

class ZOR_API MUserOperatorStlRegistration {
public:
  enum MInitialAlignment : std::int32_t {
    AlignNone = 0,       // start from the given placements
    AlignAutomatic = 1,  // choose from the shapes' symmetry
    AlignAxes = 2,       // principal axes of a body with three distinct spreads
    AlignRod = 3,        // one distinct axis: rotations about it
    AlignDisc = 4,       // one distinct axis across a flat body
    AlignBall = 5,       // no usable axis: a tournament over spread orientations
    // Local shape descriptors matched between the meshes, the pose from the matches: for
    // partial views of one body, which share no axes. Never chosen by AlignAutomatic.
    AlignFeatures = 6,
  };

  // Lengths are in coordinate (user) units and multiplied by MUnit::GetIE() where read.
  struct ZOR_API MParams {
    bool reduceMeshes = true;         // work on reduced clones of both meshes
    double reduceTolerance = 0.3;     // coordinate units: reduction distance bound
    double errorTolerance = 0.1;      // coordinate units: refinement stops below it
    std::uint64_t sampleCount = 500;  // samples on the moving mesh
    double overlapFraction = 0.8;     // share of samples expected on the fixed mesh; not range-checked
    double slideStep = 10.0;          // coordinate units: step of the slide along an axis
    bool useNormals = false;          // match with sample normals
    double normalRadius = 2.0;        // coordinate units: neighbourhood of fitted normals
    double maxNormalAngle = 25.0;     // degrees: half angle of accepted normals
    double normalWeight = 0.5;        // 0..1: weight of normal mismatch against distance
    MInitialAlignment initialAlignment = AlignAxes;
    std::uint64_t sphereRingSteps = 4;     // latitude steps of the direction sphere
    std::uint64_t sphereSpinSteps = 8;     // spins about each direction
    std::uint64_t axisRotationSteps = 16;  // rotations about a symmetry axis
    std::uint64_t iterationCount = 100;    // refinement iterations; 0: no refinement
    bool flipNormals = false;              // negate sample normals (switches normals on)
  };

  MUserOperatorStlRegistration();
  ~MUserOperatorStlRegistration();
  MUserOperatorStlRegistration(const MUserOperatorStlRegistration&) = delete;
  MUserOperatorStlRegistration& operator=(const MUserOperatorStlRegistration&) = delete;

  // Copies the block; nothing is validated and nothing else changes.
  void SetAllParams(const MParams& p);
  // Each input setter stores its mesh or item and then replaces the side's placement:
  // `matrix` points at 16 doubles (row-major, element (r, c) at 4 r + c) or is null,
  // which clears it. A later setter of the same side therefore always overrides an
  // earlier matrix. A direct mesh and an item may both be set; the mesh wins while it
  // is not null. A matrix with a value that is not finite is not stored (the side is
  // left without placement).
  void SetFixedStl(MStlBase* mesh, const double* matrix);
  void SetMovingStl(MStlBase* mesh, const double* matrix);
  void SetFixedItem(MStlItem item, const double* matrix);
  void SetMovingItem(MStlItem item, const double* matrix);
  void SetProgressDelegate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> delegate);

  // Registers the moving input onto the fixed one: reduces clones of both (unless
  // reduceMeshes is false), samples the moving mesh, searches an initial pose, then
  // refines by a trimmed closest-point iteration. The inputs are left as they were.
  // MUnit::GetIE() is read once, at the start of the run; the run's lengths and its
  // result are in that unit. The same inputs give the same result on every run and at
  // every thread count.
  //
  // What the readers report afterwards always belongs to one run:
  // - true: this run's result, samples, inlier count and stage times. The same mesh on
  //   both sides gives the identity with error 0.0 and no samples (GetError(pose) is
  //   then 0.0), as does a run with nothing to fit.
  // - false, when an input names no mesh: the result, samples and matcher of the run
  //   before stay; the stage times are this run's (all but `total` zero).
  // - an exception (std::out_of_range when a placement carries a mesh off the
  //   coordinate grid, std::bad_alloc): the operator is left as before any run.
  bool Operate();

  // The result: takes moving coordinates onto the fixed mesh (identity before a run).
  void GetTransformation(MMTransformMatrix& out) const;
  // Mean trimmed distance of the result in coordinate units; 0.0 before a run.
  double GetError() const;
  // The same measure on the samples of the last run, always without normals, for a
  // pose taken relative to the result: the samples are moved by
  // transformation^-1 * pose. So GetError(transformation) scores the samples where they
  // stand, and GetError(transformation * transformation) scores the result itself
  // (equal to GetError() when normals were off, to rounding). 0.0 before a run.
  double GetError(const MMTransformMatrix& pose) const;

  // Wall-clock seconds of the stages of the last run that got that far.
  struct StageTimes {
    double reduction = 0.0;   // clones and their reduction
    double sampling = 0.0;    // placements, areas and samples of the moving mesh
    double index = 0.0;       // the matcher over the fixed mesh
    double alignment = 0.0;   // baseline score and initial alignment
    double refinement = 0.0;  // first evaluation and the iterations
    double total = 0.0;
    std::uint64_t iterations = 0;  // accepted refinement iterations
  };
  const StageTimes& GetStageTimes() const { return stageTimes; }

  const MParams& GetParams() const { return params; }
  MStlBase* GetFixedStl() const { return fixedStl; }
  MStlBase* GetMovingStl() const { return movingStl; }
  const MStlItem& GetFixedItem() const { return fixedItem; }
  const MStlItem& GetMovingItem() const { return movingItem; }
  // The placements, or null when none is set.
  const MMTransformMatrix* GetFixedTransform() const { return fixedTransform.get(); }
  const MMTransformMatrix* GetMovingTransform() const { return movingTransform.get(); }
  std::uint64_t GetInlierCount() const { return inlierCount; }
  // The strategy the last run took: initialAlignment, or for AlignAutomatic the one the
  // shapes chose (AlignNone when a mesh has no point). AlignNone before a run.
  MInitialAlignment GetAlignmentUsed() const { return alignmentUsed; }

private:
  static std::unique_ptr<MMTransformMatrix> _MakePlacement(const double* matrix);
  // The run itself; Operate clears the result when it throws.
  bool _Operate();
  // The state of an operator before any run: identity, error 0.0, no samples.
  void _ForgetResult();
  // Replaces a copy made from an item, keeping the old one alive if the matcher stands on it.
  void _ReplaceCopy(std::unique_ptr<MStlBase>& copy, const MStlItem& item);
  // About `wanted` samples of `mesh` (internal units), with fitted normals over
  // normalRadius when `normals` is not null, negated when flipNormals is set.
  void CollectSurfaceSamples(MStlBase* mesh, std::uint64_t wanted, std::vector<MMVector<double, 3>>& points,
                             std::vector<MMVector<double, 3>>* normals) const;
  // The trimmed mean distance (internal units) of the samples moved by `pose`, over the
  // `count` closest of them.
  double ScorePose(const std::vector<MMVector<double, 3>>& samples, const std::vector<MMVector<double, 3>>* normals,
                   const MMTransformMatrix& pose, std::uint64_t count, bool sort) const;
  // The initial alignment: may replace transformation and error by a better pose.
  void AlignInitially(ZorSDK::Common::IncrementalProgressReporter& reporter, MStlBase* moving, MStlBase* fixed,
                      bool normalsOn, double overlap);
  // Tries the moving frame onto each candidate frame of the fixed mesh: the four sign
  // frames (useAxisRotation false) or the rotations about axis `axisIndex`. Takes the
  // best only if it beats `error` strictly.
  void SearchPrincipalPoses(bool useAxisRotation, std::int32_t axisIndex, MStlBase* moving, const MStlBase* fixed,
                            const std::vector<MMVector<double, 3>>& samples,
                            const std::vector<MMVector<double, 3>>* normals, std::uint64_t count);
  // Sweeps the pose `transformation` along `axis` from the moving body's lower end on
  // the fixed body's lower end to its upper end on the fixed body's upper end, in
  // steps of at most slideStep, and keeps the best scoring position.
  void SlideAlongAxis(MStlBase* moving, const MStlBase* fixed, const std::vector<MMVector<double, 3>>& samples,
                      const std::vector<MMVector<double, 3>>* normals, std::uint64_t count,
                      const MMVector<double, 3>& axis, MMTransformMatrix& pose, double& score) const;
  // The poses that matched surface descriptors give (see feature_poses.h); takes the
  // best scoring only if it beats `error` strictly.
  void SearchFeaturePoses(const MStlBase* moving, const MStlBase* fixed,
                          const std::vector<MMVector<double, 3>>& samples,
                          const std::vector<MMVector<double, 3>>* normals, std::uint64_t count);
  // The solver tournament over orientations spread on the sphere; takes the winner only
  // if it beats `error` strictly.
  void SolveFromSphere(const MStlBase* moving, const MStlBase* fixed, const std::vector<MMVector<double, 3>>& samples,
                       const std::vector<MMVector<double, 3>>* normals, std::uint64_t count);

  // Declared in this order so that destruction runs: delegate, copies, samples,
  // placements, then result and items.
  MParams params;
  MStlBase* fixedStl = nullptr;
  MStlBase* movingStl = nullptr;
  MStlItem fixedItem;
  MStlItem movingItem;
  MMTransformMatrix transformation;
  double error = 0.0;  // internal units
  std::unique_ptr<MMTransformMatrix> movingTransform;
  std::unique_ptr<MMTransformMatrix> fixedTransform;
  std::unique_ptr<ZorStlRegistration::NormalOrientationIndex> orientationIndex;
  std::unique_ptr<std::vector<MMVector<double, 3>>> samplePoints;
  std::unique_ptr<std::vector<MMVector<double, 3>>> sampleNormals;
  std::unique_ptr<MStlBase> fixedCopy;
  std::unique_ptr<MStlBase> movingCopy;
  std::shared_ptr<ZorSDK::Common::IProgressDelegate> progressDelegate;
  std::uint64_t inlierCount = 0;
  // The fixed mesh that orientationIndex is bound to, when the operator owns it (the
  // reduced clone, or a replaced copy of an item), and the placement it was scored in:
  // kept so that GetError(pose) matches as the run did.
  std::unique_ptr<MStlBase> indexedFixed;
  std::unique_ptr<MMTransformMatrix> indexedPlacement;
  std::int32_t unitsPerLength = 0;  // MUnit::GetIE() of the last run; 0 before any run
  StageTimes stageTimes;
  MInitialAlignment alignmentUsed = AlignNone;
  // What every slide of one search shares: the moving mesh's points in an array (the
  // extent of each placed candidate is measured over it in parallel) and the fixed
  // mesh's extent along the slide axis. Valid for the search that filled it.
  struct SlideShared {
    const MStlBase* moving = nullptr;
    const MStlBase* fixed = nullptr;
    MMVector<double, 3> axis;
    std::vector<MMVector<double, 3>> movingPoints;
    double fixedMin = 0.0, fixedMax = 0.0;
  };
  std::unique_ptr<SlideShared> slideShared;
};

// The mesh Operate searches on when reduceMeshes is on: a copy of `mesh` reduced so
// that every vertex stays within `bound` (internal units), or a plain copy when
// reduction would leave it as it is (a run must own what it places and indexes, since
// callers may share an input mesh between runs). `mesh` is only read. Callers that run
// the operator several times on the same pair reduce once with this and switch
// reduceMeshes off. `progress`, when not null, is advanced by the mesh's triangles as
// the reduction's blocks are done.
ZOR_API std::unique_ptr<MStlBase> ReducedSearchCopy(MStlBase& mesh, double bound,
                                                    ZorSDK::Common::ProgressShare* progress = nullptr);
