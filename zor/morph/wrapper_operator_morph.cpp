#include "zor/morph/wrapper_operator_morph.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "zor/model/stl_base.h"
#include "zor/model/stl_iterators.h"
#include "zor/model/stopwatch.h"
#include "zor/morph/detail/registered_morph.h"
#include "zor/morph/registered_stages.h"
#include "zor/registration/user_operator_stl_registration.h"
#include "zor/services/registration_icp.h"

namespace ZorStlRegistration {

namespace {

using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;

// The refining ICP works on about this many moving points.
constexpr double kIcpPoints = 2000.0;
// Meshes below this many points are sub-sampled by a fixed ratio instead.
constexpr std::uint32_t kFixedRatioBelow = 20000;
constexpr std::size_t kFixedRatio = 10;
constexpr std::size_t kIcpIterations = 4000;
// Pairs farther apart than this (internal units) do not count in the refining ICP.
constexpr double kIcpDistanceThreshold = 100000.0;
// Update flags: normals and extremes.
constexpr unsigned long kNormalsAndExtremes = 65;

}  // namespace

namespace detail {

void ApplyTransform(MStlBase& mesh, const MMTransformMatrix& matrix) {
  mesh.Transform(matrix);
  if (matrix.Determinant() < 0.0)
    for (auto it = MStlIteratorStlTriangle::Begin(&mesh); it != MStlIteratorStlTriangle::End(&mesh); ++it)
      static_cast<MStlTriangle*>(it)->Invert(0);
  mesh.Update(kNormalsAndExtremes, true);
}

std::size_t IcpSubSampleRatio(std::size_t pointCount) {
  const std::uint32_t n = static_cast<std::uint32_t>(pointCount);
  if (n < kFixedRatioBelow) return kFixedRatio;
  const double ratio = std::min(kIcpPoints / n, 1.0);
  return static_cast<std::size_t>(1.0 / ratio);  // at least 10 here: no conversion can overflow
}

BoxScaling ScalingToBox(const MStlBase& moving, const MStlBase& target) {
  const std::int64_t movingMin[3] = {moving.GetXMin(), moving.GetYMin(), moving.GetZMin()};
  const std::int64_t movingMax[3] = {moving.GetXMax(), moving.GetYMax(), moving.GetZMax()};
  const std::int64_t targetMin[3] = {target.GetXMin(), target.GetYMin(), target.GetZMin()};
  const std::int64_t targetMax[3] = {target.GetXMax(), target.GetYMax(), target.GetZMax()};
  BoxScaling scaling;
  for (int k = 0; k < 3; ++k) {
    scaling.scale[k] =
        static_cast<float>(targetMax[k] - targetMin[k]) / static_cast<float>(movingMax[k] - movingMin[k]);
    // The sum of two 32-bit values halved toward zero fits 32 bits again.
    scaling.centre[k] = static_cast<std::int32_t>((movingMin[k] + movingMax[k]) / 2);
  }
  return scaling;
}

}  // namespace detail

RegisteredStages RegisterScaleAndAlign(MStlBase& movingMesh, MStlBase& targetMesh) {
  RegisteredStages out;
  Clock::time_point stage = Clock::now();
  MUserOperatorStlRegistration rigid;
  rigid.SetFixedStl(&targetMesh, nullptr);
  rigid.SetMovingStl(&movingMesh, nullptr);
  out.registered = rigid.Operate();
  if (out.registered) rigid.GetTransformation(out.registration);
  detail::ApplyTransform(movingMesh, out.registration);
  out.registrationSeconds = SecondsSince(stage);

  stage = Clock::now();
  const detail::BoxScaling scaling = detail::ScalingToBox(movingMesh, targetMesh);
  std::copy(scaling.scale, scaling.scale + 3, out.scales);
  movingMesh.Rescale(scaling.scale[0], scaling.scale[1], scaling.scale[2], scaling.centre);
  out.scalingSeconds = SecondsSince(stage);

  stage = Clock::now();
  const MMTransformMatrix identity;
  ::MStlBaseOperatorRegistrationICP icp;
  ::MStlBaseOperatorRegistrationICP::MParameters params;
  params.SetReference(&targetMesh, &identity);
  params.SetMoving(&movingMesh, &identity);
  params.SetNumberOfIterations(kIcpIterations);
  params.SetSubSampleRatio(detail::IcpSubSampleRatio(movingMesh.NumberOfPoints()));
  params.SetThresholdMethod(eRegistrationThresholdAbsolute);
  params.SetDistanceThreshold(kIcpDistanceThreshold);
  icp.SetParameters(params);
  icp.Operate();  // its transform is applied whatever the outcome: the identity on failure
  out.icp = icp.GetTransformToBeAppliedToMoving();
  detail::ApplyTransform(movingMesh, out.icp);
  out.icpSeconds = SecondsSince(stage);
  return out;
}

// The base morph refuses null meshes for both.
MWrapperOperatorMorph::MWrapperOperatorMorph(StlImpl movingMesh, StlImpl targetMesh)
    : moving(movingMesh), target(targetMesh), morph(movingMesh, targetMesh) {}

MWrapperOperatorMorph::~MWrapperOperatorMorph() = default;

void MWrapperOperatorMorph::Operate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) {
  const Clock::time_point start = Clock::now();
  stageTimes = StageTimes();
  _Register();
  const Clock::time_point stage = Clock::now();
  morph.Operate(std::move(progress));
  moving.GetStl()->Update(kNormalsAndExtremes, true);
  stageTimes.morph = SecondsSince(stage);
  stageTimes.total = SecondsSince(start);
}

void MWrapperOperatorMorph::_Register() {
  const RegisteredStages stages = RegisterScaleAndAlign(*moving.GetStl(), *target.GetStl());
  registered = stages.registered;
  registration = stages.registration;
  std::copy(stages.scales, stages.scales + 3, scales);
  icpTransform = stages.icp;
  stageTimes.registration = stages.registrationSeconds;
  stageTimes.scaling = stages.scalingSeconds;
  stageTimes.icp = stages.icpSeconds;
}

void MWrapperOperatorMorph::_ApplyTransform(const MMTransformMatrix& matrix, StlImpl mesh) {
  detail::ApplyTransform(*mesh.GetStl(), matrix);
}

}  // namespace ZorStlRegistration
