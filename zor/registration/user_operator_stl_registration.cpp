#include "zor/registration/user_operator_stl_registration.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

#include <tbb/parallel_invoke.h>

#include "zor/alignment/normal_orientation_index.h"
#include "zor/alignment/surface_sampling.h"
#include "zor/model/stl_guards.h"
#include "zor/model/unit.h"
#include "zor/registration/detail/registration_solver.h"
#include "zor/services/reduce.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Reduces a clone in place; a reduction that cannot meet its bound leaves the clone
// as it was, which is as good an input.
void ReduceClone(MStlBase& clone, double tolerance) {
  MStlBaseOperatorReduceExBase::MParams reduction;
  reduction.distance = tolerance * MUnit::GetIE();
  reduction.maxPasses = 5;
  reduction.minGainPercent = 10.0;
  MStlBaseOperatorReduceEx<MStlBaseContainer> reduce(MStlBaseContainer(&clone), reduction);
  reduce.Operate();
}

}  // namespace

MUserOperatorStlRegistration::MUserOperatorStlRegistration() = default;

MUserOperatorStlRegistration::~MUserOperatorStlRegistration() = default;

void MUserOperatorStlRegistration::SetAllParams(const MParams& p) { params = p; }

std::unique_ptr<MMTransformMatrix> MUserOperatorStlRegistration::_MakePlacement(const double* matrix) {
  if (matrix == nullptr) return nullptr;
  auto placement = std::make_unique<MMTransformMatrix>();
  if (!placement->MakeFromDouble16(matrix)) return nullptr;
  return placement;
}

void MUserOperatorStlRegistration::SetFixedStl(MStlBase* mesh, const double* matrix) {
  fixedStl = mesh;
  fixedTransform = _MakePlacement(matrix);
}

void MUserOperatorStlRegistration::SetMovingStl(MStlBase* mesh, const double* matrix) {
  movingStl = mesh;
  movingTransform = _MakePlacement(matrix);
}

void MUserOperatorStlRegistration::SetFixedItem(MStlItem item, const double* matrix) {
  fixedItem = item;
  fixedTransform = _MakePlacement(matrix);
}

void MUserOperatorStlRegistration::SetMovingItem(MStlItem item, const double* matrix) {
  movingItem = item;
  movingTransform = _MakePlacement(matrix);
}

void MUserOperatorStlRegistration::SetProgressDelegate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> delegate) {
  progressDelegate = std::move(delegate);
}

void MUserOperatorStlRegistration::GetTransformation(MMTransformMatrix& out) const { out = transformation; }

double MUserOperatorStlRegistration::GetError() const { return error / static_cast<double>(MUnit::GetIE()); }

void MUserOperatorStlRegistration::CollectSurfaceSamples(MStlBase* mesh, std::uint64_t wanted,
                                                         std::vector<MMVector<double, 3>>& points,
                                                         std::vector<MMVector<double, 3>>* normals) {
  ZorStlRegistration::SampleSurface(mesh, wanted, params.normalRadius * MUnit::GetIE(), params.flipNormals, points,
                                    normals);
}

double MUserOperatorStlRegistration::ScorePose(const std::vector<MMVector3d>& samples,
                                               const std::vector<MMVector3d>* normals, const MMTransformMatrix& pose,
                                               std::uint64_t count, bool sort) const {
  return ZorStlRegistration::detail::ScorePose(*orientationIndex, samples, normals, pose, count, sort);
}

bool MUserOperatorStlRegistration::Operate() {
  using ZorStlRegistration::NormalOrientationIndex;
  using ZorStlRegistration::detail::RegistrationSolver;

  if (movingStl != nullptr && movingStl == fixedStl) {
    error = 0.0;
    transformation.MakeIdentity();
    alignmentUsed = AlignNone;
    return true;
  }
  const Clock::time_point start = Clock::now();
  StageTimes times;
  const bool normalsOn = params.useNormals || params.flipNormals;
  const std::size_t steps = static_cast<std::size_t>(
      std::min<std::uint64_t>(params.iterationCount, std::numeric_limits<std::size_t>::max() - 6) + 6);
  ZorSDK::Common::IncrementalProgressReporter reporter(progressDelegate, "Stl registration", steps, false);

  MStlBase* workingMoving = movingStl;
  if (workingMoving == nullptr) {
    movingCopy = CopySelectionToNewMesh(movingItem);
    if (movingCopy == nullptr) return false;
    workingMoving = movingCopy.get();
  }
  ++reporter;
  MStlBase* workingFixed = fixedStl;
  if (workingFixed == nullptr) {
    fixedCopy = CopySelectionToNewMesh(fixedItem);
    if (fixedCopy == nullptr) return false;
    workingFixed = fixedCopy.get();
  }
  ++reporter;

  Clock::time_point stage = Clock::now();
  std::unique_ptr<MStlBase> reducedFixed, reducedMoving;
  if (params.reduceMeshes) {
    // The two clones are independent and each reduction gives the same result on any
    // number of threads, so they run side by side.
    tbb::parallel_invoke(
        [&] {
          reducedFixed = std::make_unique<MStlBase>(*workingFixed, nullptr);
          ReduceClone(*reducedFixed, params.reduceTolerance);
        },
        [&] {
          reducedMoving = std::make_unique<MStlBase>(*workingMoving, nullptr);
          ReduceClone(*reducedMoving, params.reduceTolerance);
        });
    workingFixed = reducedFixed.get();
    workingMoving = reducedMoving.get();
  }
  ++reporter;
  times.reduction = SecondsSince(stage);

  // The stages below see the inputs pre-placed, so the result is meant between the
  // placed meshes.
  stage = Clock::now();
  std::unique_ptr<MStlTempTransformation> fixedPlacement, movingPlacement;
  if (fixedTransform != nullptr)
    fixedPlacement = std::make_unique<MStlTempTransformation>(*workingFixed, *fixedTransform, false);
  if (movingTransform != nullptr)
    movingPlacement = std::make_unique<MStlTempTransformation>(*workingMoving, *movingTransform, false);

  const double fixedArea = workingFixed->SurfaceArea();
  const double movingArea = workingMoving->SurfaceArea();

  samplePoints = std::make_unique<std::vector<MMVector3d>>();
  sampleNormals.reset();
  if (normalsOn) sampleNormals = std::make_unique<std::vector<MMVector3d>>();
  CollectSurfaceSamples(workingMoving, params.sampleCount, *samplePoints, sampleNormals.get());
  ++reporter;
  times.sampling = SecondsSince(stage);

  stage = Clock::now();
  orientationIndex = std::make_unique<NormalOrientationIndex>();
  indexedFixed = std::move(reducedFixed);  // from here on owned with the matcher bound to it
  NormalOrientationIndex::Parameters matching;
  matching.maxAngleDegrees = params.maxNormalAngle;
  matching.normalWeight = params.normalWeight;
  matching.smoothingRadius = params.normalRadius;
  matching.rowCount = 19;
  matching.fitNormals = true;
  orientationIndex->SetParameters(matching);
  const std::vector<MMVector3d>* scoreNormals = nullptr;
  if (normalsOn) {
    orientationIndex->Build(*workingFixed);
    scoreNormals = sampleNormals.get();
  } else {
    orientationIndex->SetMesh(workingFixed);
  }
  times.index = SecondsSince(stage);

  // When the moving mesh has more surface than the fixed one, only the part of it that
  // can lie on the fixed mesh is expected to match.
  stage = Clock::now();
  const double ratio = movingArea > fixedArea ? fixedArea / movingArea : 1.0;
  const double overlap = ratio * params.overlapFraction;
  inlierCount = ZorStlRegistration::detail::InlierCount(samplePoints->size(), overlap);

  transformation.MakeIdentity();
  error = ScorePose(*samplePoints, scoreNormals, transformation, inlierCount, true);
  AlignInitially(reporter, workingMoving, workingFixed, normalsOn, overlap);
  times.alignment = SecondsSince(stage);

  stage = Clock::now();
  RegistrationSolver solver(orientationIndex.get());
  solver.SetSamples(*samplePoints, scoreNormals);
  solver.activeCount = std::min<std::uint64_t>(solver.points.size(), inlierCount);
  solver.MoveRecords(transformation);

  solver.MatchSamples();
  solver.TrimSamples();
  error = solver.MeanError();

  const double tolerance = MUnit::GetIE() * params.errorTolerance;
  for (std::uint64_t i = 0; i < params.iterationCount; ++i) {
    MMTransformMatrix step;
    solver.MatchSamples();
    solver.TrimSamples();
    if (!solver.ComputeStep(step)) break;
    solver.MoveRecords(step);
    // The same active records as in the step, measured again: no trimming here.
    const double e = solver.MeanError();
    if (e > error + 1.4901161193847656e-08) break;  // a rising error: keep the pose before
    transformation = solver.moveTransform;
    error = e;
    ++times.iterations;
    if (tolerance > e) break;
    ++reporter;
  }
  times.refinement = SecondsSince(stage);

  // Placements go before the clones they stand on. The reduced fixed clone stays, bound
  // to the matcher, for GetError(pose).
  movingPlacement.reset();
  fixedPlacement.reset();
  reducedMoving.reset();
  times.total = SecondsSince(start);
  stageTimes = times;
  return true;
}

double MUserOperatorStlRegistration::GetError(const MMTransformMatrix& pose) const {
  if (samplePoints == nullptr || orientationIndex == nullptr || orientationIndex->GetMesh() == nullptr) return 0.0;
  std::unique_ptr<MStlTempTransformation> placement;
  if (fixedTransform != nullptr)
    placement = std::make_unique<MStlTempTransformation>(const_cast<MStlBase&>(*orientationIndex->GetMesh()),
                                                         *fixedTransform, false);
  const MMTransformMatrix relative = transformation.Inverted() * pose;
  return ScorePose(*samplePoints, nullptr, relative, inlierCount, true) / static_cast<double>(MUnit::GetIE());
}
