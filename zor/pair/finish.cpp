// The finish of a found pose (pair_registration.h): point-to-plane ICP in three rounds,
// each pairing points within less of the distance than the one before.
#include <algorithm>
#include <cstddef>

#include "zor/model/unit.h"
#include "zor/pair/pair_registration.h"
#include "zor/services/registration_icp.h"

namespace ZorStlRegistration {
namespace {

// The finish: samples of the moving mesh (every k-th point, at most this many in the
// wide rounds and in the last) and iterations of point-to-plane ICP per round.
constexpr std::size_t kWidePolishSamples = 10000;
constexpr std::size_t kPolishSamples = 40000;
constexpr std::size_t kPolishIterations = 50;
// A finish round ends once a step moves no sample by more than this (millimetres).
constexpr double kFinishStillMotion = 0.001;

}  // namespace

// The wide first round pulls in a start that is a few degrees off, the last one pairs
// only the overlap.
bool FinishPose(const MStlBase& moving, const MStlBase& fixed, double distance, MMTransformMatrix& pose,
                ZorSDK::Common::IncrementalProgressReporter* progress) {
  return FinishPose(moving, fixed, moving, fixed, distance, pose, progress);
}

bool FinishPose(const MStlBase& moving, const MStlBase& fixed, const MStlBase& wideMoving, const MStlBase& wideFixed,
                double distance, MMTransformMatrix& pose, ZorSDK::Common::IncrementalProgressReporter* progress) {
  bool ran = false;
  for (double reach : {4.0, 2.0, 1.0}) {
    const MStlBase& from = reach > 1.0 ? wideMoving : moving;
    const MStlBase& onto = reach > 1.0 ? wideFixed : fixed;
    MStlBaseOperatorRegistrationICP::MParameters p;
    p.SetMoving(&from, &pose);
    p.SetReference(&onto, nullptr);
    p.SetThresholdMethod(eRegistrationThresholdAbsolute);
    p.SetDistanceThreshold(reach * distance);
    p.SetNumberOfIterations(kPolishIterations);
    p.SetStillMotion(kFinishStillMotion * MUnit::GetIE());
    const std::size_t samples = reach > 1.0 ? kWidePolishSamples : kPolishSamples;
    p.SetSubSampleRatio(std::max<std::size_t>(1, (from.NumberOfPoints() + samples - 1) / samples));
    MStlBaseOperatorRegistrationICP icp;
    icp.SetParameters(p);
    if (!icp.Operate()) return ran;
    pose.PostMultiply(icp.GetTransformToBeAppliedToMoving());
    ran = true;
    if (progress != nullptr) ++*progress;
  }
  return ran;
}

}  // namespace ZorStlRegistration
