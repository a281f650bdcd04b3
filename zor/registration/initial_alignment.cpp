// The alignment stage of the registration: candidate poses from the shapes of the two
// meshes, each scored on a small sample set and taken only when it beats the pose the
// run already holds.

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include "zor/alignment/feature_poses.h"
#include "zor/alignment/principal_frame.h"
#include "zor/model/progress.h"
#include "zor/model/stl_guards.h"
#include "zor/registration/detail/solver_tournament.h"
#include "zor/registration/user_operator_stl_registration.h"
#include "zor/services/geom_properties.h"

namespace {

constexpr double kFrameTolerance = 0.15;
constexpr std::uint64_t kCoarseSamples = 100;
// More slide positions than this would only repeat ScorePose at spacings far below
// any sample spacing.
constexpr double kMaxSlideSteps = 1 << 20;
MUserOperatorStlRegistration::MInitialAlignment ChooseAlignment(const MStlBase& moving, const MStlBase& fixed) {
  using Op = MUserOperatorStlRegistration;
  const ZorStlRegistration::AxisSymmetryResult symmetry =
      ZorStlRegistration::ClassifyAxisSymmetry(moving, fixed, kFrameTolerance);
  if (!symmetry.valid) return Op::AlignNone;
  switch (symmetry.code) {
    case 0x00: return Op::AlignAxes;
    case 0x01: return Op::AlignRod;
    case 0x10: return Op::AlignDisc;
    case 0x11: return Op::AlignBall;
    default: return Op::AlignNone;
  }
}

}  // namespace

void MUserOperatorStlRegistration::AlignInitially(ZorSDK::Common::IncrementalProgressReporter& reporter,
                                                  MStlBase* moving, MStlBase* fixed, bool normalsOn, double overlap) {
  MInitialAlignment chosen = params.initialAlignment;
  if (chosen == AlignAutomatic) chosen = ChooseAlignment(*moving, *fixed);
  alignmentUsed = chosen;
  ++reporter;
  if (chosen == AlignNone) return;

  // A coarse set of its own: each candidate costs one score over it, and the tournament
  // holds one copy per solver.
  std::vector<MMVector3d> points, normals;
  CollectSurfaceSamples(moving, kCoarseSamples, points, normalsOn ? &normals : nullptr);
  const std::uint64_t count = ZorStlRegistration::detail::InlierCount(points.size(), overlap);
  const std::vector<MMVector3d>* coarseNormals = normalsOn ? &normals : nullptr;
  switch (chosen) {
    case AlignAxes: SearchPrincipalPoses(false, 2, moving, fixed, points, coarseNormals, count); break;
    case AlignRod: SearchPrincipalPoses(true, 2, moving, fixed, points, coarseNormals, count); break;
    case AlignDisc: SearchPrincipalPoses(true, 0, moving, fixed, points, coarseNormals, count); break;
    case AlignBall: SolveFromSphere(moving, fixed, points, coarseNormals, count); break;
    case AlignFeatures: SearchFeaturePoses(moving, fixed, points, coarseNormals, count); break;
    default: break;  // an unknown strategy searches nothing
  }
}

void MUserOperatorStlRegistration::SearchPrincipalPoses(bool useAxisRotation, std::int32_t axisIndex, MStlBase* moving,
                                                        const MStlBase* fixed, const std::vector<MMVector3d>& samples,
                                                        const std::vector<MMVector3d>* normals, std::uint64_t count) {
  using namespace ZorStlRegistration;
  const PrincipalFrame movingFrame = AnalyzePrincipalFrame(*moving, kFrameTolerance);
  const PrincipalFrame fixedFrame = AnalyzePrincipalFrame(*fixed, kFrameTolerance);
  std::vector<MMTransformMatrix> movingFrames, fixedFrames;
  if (useAxisRotation) {
    const std::size_t a = static_cast<std::size_t>(std::clamp(axisIndex, 0, 2));
    movingFrames = AxisRotationFrames(movingFrame.axes[a].axis, movingFrame.centre, params.axisRotationSteps);
    fixedFrames = AxisRotationFrames(fixedFrame.axes[a].axis, fixedFrame.centre, params.axisRotationSteps);
  } else {
    movingFrames = SignFrames(movingFrame);
    fixedFrames = SignFrames(fixedFrame);
  }
  // Without rotation steps there is no candidate.
  if (movingFrames.empty()) return;

  // One moving frame suffices: the fixed frames already run through every way the two
  // can agree.
  MMTransformMatrix base = movingFrames[0];
  if (!base.Invert()) return;
  const bool slide = !useAxisRotation || axisIndex == 2;
  if (slide) {
    // Every candidate slides along one axis over the same two meshes.
    slideShared = std::make_unique<SlideShared>();
    slideShared->moving = moving;
    slideShared->fixed = fixed;
    slideShared->axis = fixedFrame.axes[2].axis;
    slideShared->movingPoints.reserve(moving->NumberOfPoints());
    for (auto it = moving->BeginPoint(); it != moving->EndPoint(); ++it)
      slideShared->movingPoints.push_back(it->GetDouble());
    std::tie(slideShared->fixedMin, slideShared->fixedMax) = ProjectionInterval(*fixed, slideShared->axis);
  }
  double best = std::numeric_limits<double>::max();
  MMTransformMatrix bestPose;
  for (const MMTransformMatrix& candidate : fixedFrames) {
    MMTransformMatrix pose = candidate;
    pose.PostMultiply(base);
    double score;
    if (slide)
      SlideAlongAxis(moving, fixed, samples, normals, count, fixedFrame.axes[2].axis, pose, score);
    else
      score = ScorePose(samples, normals, pose, count, true);
    if (score < best) {
      best = score;
      bestPose = pose;
    }
  }
  slideShared.reset();
  if (error > best) {
    transformation = bestPose;
    error = best;
  }
}

void MUserOperatorStlRegistration::SlideAlongAxis(MStlBase* moving, const MStlBase* fixed,
                                                  const std::vector<MMVector3d>& samples,
                                                  const std::vector<MMVector3d>* normals, std::uint64_t count,
                                                  const MMVector3d& axis, MMTransformMatrix& pose,
                                                  double& score) const {
  using ZorStlRegistration::PlacedProjectionInterval;
  using ZorStlRegistration::ProjectionInterval;
  // The moving body's extent along the axis as it would stand in this pose, on the grid.
  const SlideShared* shared = slideShared.get();
  if (shared != nullptr && (shared->moving != moving || shared->fixed != fixed || !(shared->axis == axis)))
    shared = nullptr;
  std::pair<double, double> movingSpan;
  const bool onGrid = shared != nullptr ? PlacedProjectionInterval(shared->movingPoints, pose, axis, movingSpan)
                                        : PlacedProjectionInterval(*moving, pose, axis, movingSpan);
  if (!onGrid) {
    // The pose carries the body off the coordinate grid: no place for this candidate.
    score = std::numeric_limits<double>::max();
    return;
  }
  const auto [mMin, mMax] = movingSpan;
  const auto [fMin, fMax] =
      shared != nullptr ? std::make_pair(shared->fixedMin, shared->fixedMax) : ProjectionInterval(*fixed, axis);

  // The two extreme places of the moving body's upper end: its lower end on the fixed
  // body's lower end, or its upper end on the fixed body's upper end.
  const double e1 = fMin + (mMax - mMin), e2 = fMax;
  const double start = std::min(e1, e2), span = std::max(e1, e2) - start;
  const double stepLimit = static_cast<double>(unitsPerLength) * params.slideStep;
  // A step that is not above zero (or not a number) leaves nothing to sweep: the
  // candidate is scored as it stands.
  if (!(stepLimit > 0.0) || !std::isfinite(span)) {
    score = ScorePose(samples, normals, pose, count, true);
    return;
  }
  const double steps = std::min(std::ceil(span / stepLimit), kMaxSlideSteps);
  const std::uint64_t n = static_cast<std::uint64_t>(steps) + 1;
  const double stepLength = n > 1 ? span / static_cast<double>(n - 1) : 0.0;

  MMTransformMatrix position = pose, step;
  position.AddTranslation(axis * (start - mMax));
  step.AddTranslation(axis * stepLength);
  double best = std::numeric_limits<double>::max();
  MMTransformMatrix bestPose = position;
  for (std::uint64_t i = 0; i < n; ++i) {
    const double s = ScorePose(samples, normals, position, count, true);
    if (s < best) {  // the lowest position wins a tie
      best = s;
      bestPose = position;
    }
    position.PreMultiply(step);
  }
  score = best;
  pose = bestPose;
}

void MUserOperatorStlRegistration::SolveFromSphere(const MStlBase* moving, const MStlBase* fixed,
                                                   const std::vector<MMVector3d>& samples,
                                                   const std::vector<MMVector3d>* normals, std::uint64_t count) {
  using namespace ZorStlRegistration;
  const std::vector<MMTransformMatrix> rotations =
      MakeSphereRotations(MakeDirectionSphere(params.sphereRingSteps), params.sphereSpinSteps);
  if (rotations.empty()) return;  // no spins: no start
  detail::RegistrationSolver best = detail::RunSolverTournament(*orientationIndex, rotations, GetGravityCenter(*moving),
                                                                GetGravityCenter(*fixed), samples, normals, count);
  if (error <= best.cachedError) return;
  transformation = best.moveTransform;
  error = best.cachedError;
}

void MUserOperatorStlRegistration::SearchFeaturePoses(const MStlBase* moving, const MStlBase* fixed,
                                                      const std::vector<MMVector3d>& samples,
                                                      const std::vector<MMVector3d>* normals, std::uint64_t count) {
  using namespace ZorStlRegistration;
  const std::vector<FeaturePose> poses = FeaturePoses(*moving, *fixed);
  for (const FeaturePose& candidate : poses) {
    const double score = ScorePose(samples, normals, candidate.pose, count, true);
    if (score < error) {
      transformation = candidate.pose;
      error = score;
    }
  }
}
