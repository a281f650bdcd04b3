#include "zor/morph/wrapper_operator_base_morph.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "zor/model/stl_base.h"
#include "zor/model/stl_guards.h"
#include "zor/model/stopwatch.h"
#include "zor/morph/detail/morph_step.h"
#include "zor/morph/morphing_correspondence.h"

namespace ZorStlRegistration {

namespace {

using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;

constexpr double kPi = 3.141592653589793;
// Distances and the search radius before the first measurement: far beyond any mesh.
constexpr double kFar = 1e12;
// The search radius follows the largest displacement with this margin, never growing.
constexpr double kSearchMargin = 1.5;
// The angle schedule has an entry per possible reduction of smoothing; past this many
// the entries would all be the same, and the schedule stops growing.
constexpr std::size_t kLongestSchedule = std::size_t(1) << 16;

MWrapperOperatorBaseMorph::StlImpl CheckedHandle(MWrapperOperatorBaseMorph::StlImpl handle, const char* which) {
  if (handle.GetStl() == nullptr)
    throw std::invalid_argument(std::string("MWrapperOperatorBaseMorph: the ") + which + " mesh is null");
  return handle;
}

}  // namespace

MWrapperOperatorBaseMorph::MWrapperOperatorBaseMorph(StlImpl movingMesh, StlImpl targetMesh)
    : moving(CheckedHandle(movingMesh, "moving")),
      target(CheckedHandle(targetMesh, "target")),
      smoothingMask(std::make_unique<MDataMask<MStlPoint, MMVector3d>>(moving.GetStl()->GetMasks(), MMVector3d())) {}

MWrapperOperatorBaseMorph::MWrapperOperatorBaseMorph(const MWrapperOperatorBaseMorph& other) { _CopyFrom(other); }

// A move copies too: the source keeps its own scratch and stays usable.
MWrapperOperatorBaseMorph::MWrapperOperatorBaseMorph(  // NOLINT(performance-noexcept-move-constructor): allocates
    MWrapperOperatorBaseMorph&& other) {
  _CopyFrom(other);
}

MWrapperOperatorBaseMorph& MWrapperOperatorBaseMorph::operator=(const MWrapperOperatorBaseMorph& other) {
  if (this != &other) _CopyFrom(other);
  return *this;
}

// NOLINTNEXTLINE(performance-noexcept-move-constructor): allocates, as the move constructor
MWrapperOperatorBaseMorph& MWrapperOperatorBaseMorph::operator=(MWrapperOperatorBaseMorph&& other) {
  if (this != &other) _CopyFrom(other);
  return *this;
}

MWrapperOperatorBaseMorph::~MWrapperOperatorBaseMorph() = default;

void MWrapperOperatorBaseMorph::_CopyFrom(const MWrapperOperatorBaseMorph& other) {
  auto scratch = std::make_unique<MDataMask<MStlPoint, MMVector3d>>(other.moving.GetStl()->GetMasks(),
                                                                    other.smoothingMask->GetDefault());
  scratch->CopyFrom(*other.smoothingMask);
  moving = other.moving;
  target = other.target;
  params = other.params;
  displacementMask = other.displacementMask;
  smoothingMask = std::move(scratch);
  previousMaxDistance = other.previousMaxDistance;
  maxDistance = other.maxDistance;
  previousMeanDistance = other.previousMeanDistance;
  meanDistance = other.meanDistance;
  searchDistance = other.searchDistance;
  fractionWithin = other.fractionWithin;
  rings.reset();
  stageTimes = other.stageTimes;
}

void MWrapperOperatorBaseMorph::Operate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) {
  const Clock::time_point start = Clock::now();
  stageTimes = StageTimes();
  // Points move one by one below; the mesh settles (extremes, followers) when this ends.
  const MStlBaseOperatorHelperDirectPointChange directChange(moving.GetStl(), true);
  previousMaxDistance = maxDistance = previousMeanDistance = meanDistance = searchDistance = kFar;

  // The angle of the normal filter: `normalAngle` until the first reduction of
  // smoothing, which also turns the filter off for good.
  std::vector<double> schedule(std::min(params.smoothingPasses, kLongestSchedule) + 1, 180.0);
  schedule[0] = params.normalAngle;
  std::size_t cursor = 0;
  const auto angle = [&] { return schedule[cursor] / 180.0 * kPi; };

  displacementMask = MStlVectorMaskPoints::Create(moving.GetStl(), L"stl compare vector mask");
  Clock::time_point stage = Clock::now();
  MWrapperOperatorMorphingCorrespondence correspondence(moving, target);
  correspondence.SetProgressDelegate(std::move(progress));
  MWrapperOperatorMorphingCorrespondence::ResultAdapter adapter(displacementMask);
  stageTimes.setup += SecondsSince(stage);
  const auto measure = [&](bool useNormals) {
    correspondence.Operate(adapter, angle(), searchDistance, true, useNormals);
    stageTimes.dualPass += correspondence.GetPassTimes().dual;
    stageTimes.mainPass += correspondence.GetPassTimes().main;
    const Clock::time_point statisticsStart = Clock::now();
    _ComputeStatistics();
    stageTimes.statistics += SecondsSince(statisticsStart);
  };
  measure(true);

  bool useNormals = true;
  std::size_t iteration = 0;
  while (params.targetFraction > fractionWithin) {
    if (!(maxDistance > params.distanceTolerance)) break;
    ++iteration;
    // Both measures grew: the mesh is fighting its smoothing or a wrong normal match.
    if (detail::ReducesSmoothing(meanDistance, previousMeanDistance, maxDistance, previousMaxDistance, iteration,
                                 params.smoothingPasses)) {
      --params.smoothingPasses;
      cursor = std::min(cursor + 1, schedule.size() - 1);
      useNormals = false;
    }
    _MorphingStep();
    measure(useNormals);
  }
  stageTimes.iterations = iteration;
  rings.reset();
  stageTimes.total = SecondsSince(start);
}

void MWrapperOperatorBaseMorph::_MorphingStep() {
  if (!rings) {
    const Clock::time_point stage = Clock::now();
    rings = std::make_unique<detail::MeshRings>();
    rings->Build(*moving.GetStl());
    stageTimes.setup += SecondsSince(stage);
  }
  const Clock::time_point stage = Clock::now();
  detail::MorphingStep(*rings, *displacementMask, params.initialStep);
  stageTimes.step += SecondsSince(stage);
  _SmoothStl(params.smoothingPasses);
  params.initialStep = detail::NextStep(params.initialStep, params.stepRetention);
}

void MWrapperOperatorBaseMorph::_SmoothStl(std::size_t passes) {
  if (passes == 0) return;
  const Clock::time_point stage = Clock::now();
  detail::SmoothStl(*rings, *smoothingMask, passes);
  stageTimes.smoothing += SecondsSince(stage);
}

void MWrapperOperatorBaseMorph::_ComputeStatistics() {
  const detail::DisplacementSummary summary =
      detail::SummariseDisplacements(*moving.GetStl(), *displacementMask, params.distanceTolerance);
  // The count is read as its low 32 bits, and an empty mesh gives 0 / 0: NaN, which
  // fails every comparison of the loop and so ends it.
  const double n = static_cast<double>(static_cast<std::uint32_t>(moving.GetStl()->NumberOfPoints()));
  const double nan = std::numeric_limits<double>::quiet_NaN();
  previousMaxDistance = maxDistance;
  maxDistance = summary.largest;
  previousMeanDistance = meanDistance;
  meanDistance = n > 0.0 ? summary.sum / n : nan;
  fractionWithin = n > 0.0 ? static_cast<double>(summary.within) / n : nan;
  const double radius = kSearchMargin * maxDistance;
  if (!(radius > searchDistance)) searchDistance = radius;
}

}  // namespace ZorStlRegistration
