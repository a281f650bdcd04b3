#include "zor/registration/user_operator_stl_registration.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

#include <tbb/parallel_invoke.h>

#include "zor/alignment/normal_orientation_index.h"
#include "zor/alignment/surface_sampling.h"
#include "zor/model/stl_guards.h"
#include "zor/model/stopwatch.h"
#include "zor/model/unit.h"
#include "zor/registration/detail/registration_solver.h"
#include "zor/services/reduce.h"

namespace {

using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;

// Latitude rows of the matcher's grid of normal directions, poles included.
constexpr std::uint64_t kMatcherRows = 19;
// Steps of the progress report besides the iterations: the five stages that advance it
// and one to spare, so that a full run never reaches the end of the bar early.
constexpr std::size_t kProgressBase = 6;
// Reduction: rounds of reduce-and-check, and the least gain (percent of the triangles)
// that is worth rewriting a clone.
constexpr std::int32_t kReducePasses = 5;
constexpr double kReduceMinGainPercent = 10.0;

}  // namespace

std::unique_ptr<MStlBase> ReducedSearchCopy(MStlBase& mesh, double bound, ZorSDK::Common::ProgressShare* progress) {
  MStlBaseOperatorReduceExBase::MParams reduction;
  reduction.progress = progress;
  reduction.distance = bound;
  reduction.maxPasses = kReducePasses;
  reduction.minGainPercent = kReduceMinGainPercent;
  MStlBaseOperatorReduceEx<MStlBaseContainer> reduce(MStlBaseContainer(&mesh), reduction);
  std::unique_ptr<MStlBase> copy;
  reduce.OperateOnCopy(copy);
  if (copy == nullptr) copy = std::make_unique<MStlBase>(mesh, nullptr);
  return copy;
}

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

void MUserOperatorStlRegistration::CollectSurfaceSamples(MStlBase* mesh, std::uint64_t wanted,
                                                         std::vector<MMVector<double, 3>>& points,
                                                         std::vector<MMVector<double, 3>>* normals) const {
  ZorStlRegistration::SampleSurface(mesh, wanted, params.normalRadius * unitsPerLength, params.flipNormals, points,
                                    normals);
}

double MUserOperatorStlRegistration::ScorePose(const std::vector<MMVector3d>& samples,
                                               const std::vector<MMVector3d>* normals, const MMTransformMatrix& pose,
                                               std::uint64_t count, bool sort) const {
  return ZorStlRegistration::detail::ScorePose(*orientationIndex, samples, normals, pose, count, sort);
}

bool MUserOperatorStlRegistration::Operate() {
  try {
    return _Operate();
  } catch (...) {
    _ForgetResult();
    throw;
  }
}

void MUserOperatorStlRegistration::_ForgetResult() {
  transformation.MakeIdentity();
  error = 0.0;
  samplePoints.reset();
  sampleNormals.reset();
  orientationIndex.reset();
  indexedFixed.reset();
  indexedPlacement.reset();
  inlierCount = 0;
  stageTimes = StageTimes();
  alignmentUsed = AlignNone;
  unitsPerLength = 0;
}

void MUserOperatorStlRegistration::_ReplaceCopy(std::unique_ptr<MStlBase>& copy, const MStlItem& item) {
  // The matcher of the last run may stand on the copy about to be replaced; it stays
  // alive with the matcher, for GetError(pose).
  if (copy != nullptr && orientationIndex != nullptr && orientationIndex->GetMesh() == copy.get())
    indexedFixed = std::move(copy);
  copy = CopySelectionToNewMesh(item);
}

bool MUserOperatorStlRegistration::_Operate() {
  using ZorStlRegistration::NormalOrientationIndex;
  using ZorStlRegistration::detail::kTieTolerance;
  using ZorStlRegistration::detail::RegistrationSolver;

  const Clock::time_point start = Clock::now();
  if (movingStl != nullptr && movingStl == fixedStl) {
    // Nothing to move: the identity with no error, and no samples to score other poses.
    _ForgetResult();
    stageTimes.total = SecondsSince(start);
    return true;
  }
  StageTimes times;
  const bool normalsOn = params.useNormals || params.flipNormals;
  const std::size_t steps = static_cast<std::size_t>(
      std::min<std::uint64_t>(params.iterationCount, std::numeric_limits<std::size_t>::max() - kProgressBase) +
      kProgressBase);
  ZorSDK::Common::IncrementalProgressReporter reporter(progressDelegate, "Stl registration", steps, false);

  // An input that names no mesh ends the run here, with the result, the samples and
  // the matcher of the run before; only the stage times tell of this run.
  const auto unresolved = [&] {
    stageTimes = StageTimes();
    stageTimes.total = SecondsSince(start);
    return false;
  };
  MStlBase* workingMoving = movingStl;
  if (workingMoving == nullptr) {
    _ReplaceCopy(movingCopy, movingItem);
    workingMoving = movingCopy.get();
    if (workingMoving == nullptr) return unresolved();
  }
  ++reporter;
  MStlBase* workingFixed = fixedStl;
  if (workingFixed == nullptr) {
    _ReplaceCopy(fixedCopy, fixedItem);
    workingFixed = fixedCopy.get();
    if (workingFixed == nullptr) return unresolved();
  }
  ++reporter;

  // The unit is read once: every length of this run, and the result's, are in it.
  unitsPerLength = MUnit::GetIE();
  const double units = static_cast<double>(unitsPerLength);

  Clock::time_point stage = Clock::now();
  std::unique_ptr<MStlBase> reducedFixed, reducedMoving;
  if (params.reduceMeshes) {
    // The two reductions only read their meshes (which may be one mesh) and each gives
    // the same result on any number of threads, so they run side by side.
    const double bound = params.reduceTolerance * units;
    tbb::parallel_invoke([&] { reducedFixed = ReducedSearchCopy(*workingFixed, bound); },
                         [&] { reducedMoving = ReducedSearchCopy(*workingMoving, bound); });
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
  // From here on the matcher's mesh lives as long as the matcher: the reduced clone is
  // kept, and so is the placement it is scored in, for GetError(pose).
  indexedFixed = std::move(reducedFixed);
  indexedPlacement = fixedTransform != nullptr ? std::make_unique<MMTransformMatrix>(*fixedTransform) : nullptr;
  NormalOrientationIndex::Parameters matching;
  matching.maxAngleDegrees = params.maxNormalAngle;
  matching.normalWeight = params.normalWeight;
  matching.smoothingRadius = params.normalRadius;
  matching.rowCount = kMatcherRows;
  matching.fitNormals = true;
  orientationIndex->SetParameters(matching, unitsPerLength);
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
  RegistrationSolver solver(orientationIndex.get(), unitsPerLength);
  solver.SetSamples(*samplePoints, scoreNormals);
  solver.activeCount = std::min<std::uint64_t>(solver.points.size(), inlierCount);
  solver.MoveRecords(transformation);

  solver.MatchSamples();
  solver.TrimSamples();
  error = solver.MeanError();

  const double tolerance = units * params.errorTolerance;
  for (std::uint64_t i = 0; i < params.iterationCount; ++i) {
    MMTransformMatrix step;
    solver.MatchSamples();
    solver.TrimSamples();
    if (!solver.ComputeStep(step)) break;
    solver.MoveRecords(step);
    // The same active records as in the step, measured again: no trimming here.
    const double e = solver.MeanError();
    if (e > error + kTieTolerance) break;  // a rising error: keep the pose before
    transformation = solver.moveTransform;
    error = e;
    ++times.iterations;
    if (tolerance > e) break;
    ++reporter;
  }
  times.refinement = SecondsSince(stage);

  // Placements go before the clones they stand on.
  movingPlacement.reset();
  fixedPlacement.reset();
  reducedMoving.reset();
  times.total = SecondsSince(start);
  stageTimes = times;
  return true;
}

double MUserOperatorStlRegistration::GetError() const {
  return unitsPerLength == 0 ? 0.0 : error / static_cast<double>(unitsPerLength);
}

double MUserOperatorStlRegistration::GetError(const MMTransformMatrix& pose) const {
  if (samplePoints == nullptr || orientationIndex == nullptr || orientationIndex->GetMesh() == nullptr) return 0.0;
  std::unique_ptr<MStlTempTransformation> placement;
  if (indexedPlacement != nullptr)
    placement = std::make_unique<MStlTempTransformation>(const_cast<MStlBase&>(*orientationIndex->GetMesh()),
                                                         *indexedPlacement, false);
  const MMTransformMatrix relative = transformation.Inverted() * pose;
  return ScorePose(*samplePoints, nullptr, relative, inlierCount, true) / static_cast<double>(unitsPerLength);
}
