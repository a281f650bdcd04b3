#include "zor/pair/pair_operations.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "zor/model/stopwatch.h"
#include "zor/model/unit.h"
#include "zor/morph/registered_stages.h"

namespace ZorStlRegistration {
namespace {

using Icp = MStlBaseOperatorRegistrationICP;

// The axis (0, 1, 2) along which `mesh` has no extent, or -1.
int FlatAxis(const MStlBase& mesh) {
  if (mesh.GetXMax() == mesh.GetXMin()) return 0;
  if (mesh.GetYMax() == mesh.GetYMin()) return 1;
  if (mesh.GetZMax() == mesh.GetZMin()) return 2;
  return -1;
}

}  // namespace

MWrapperOperatorFieldMorph::SParams MorphOptions::FieldParams() const {
  MWrapperOperatorFieldMorph::SParams p;
  p.distanceTolerance = toleranceMm * MUnit::GetIE();
  p.targetFraction = targetFraction;
  p.normalAngle = normalAngle;
  p.searchDistance = searchDistanceMm * MUnit::GetIE();
  p.smoothing = smoothing;
  p.maxPasses = maxPasses;
  return p;
}

MWrapperOperatorBaseMorph::SParams MorphOptions::BaseParams() const {
  MWrapperOperatorBaseMorph::SParams p;
  p.distanceTolerance = toleranceMm * MUnit::GetIE();
  p.targetFraction = targetFraction;
  p.normalAngle = normalAngle;
  p.initialStep = initialStep;
  p.stepRetention = stepRetention;
  p.smoothingPasses = smoothingPasses;
  return p;
}

IcpRun IcpPair(const MStlBase& moving, const MStlBase& fixed, const IcpOptions& options, const std::string& movingName,
               const std::string& fixedName, const std::shared_ptr<ZorSDK::Common::IProgressDelegate>& progress) {
  const double ie = MUnit::GetIE();
  Icp::MParams p = options.params;
  p.moving = &moving;
  p.fixed = &fixed;
  if (options.maxDistance > 0.0) {
    p.maxDistance = options.maxDistance * ie;
    p.rejectByMaxDistance = 1;
  }
  if (!options.initial.empty()) {
    if (options.initial.size() != 16) throw InputError("the initial transform needs 16 values");
    double m[16];
    for (int i = 0; i < 16; ++i) m[i] = options.initial[i] * (i % 4 == 3 && i < 12 ? ie : 1.0);
    if (!p.initialTransform.MakeFromDouble16(m)) throw InputError("the initial transform's values must be finite");
  }
  if (p.multiStart && (p.directionCount == 0 || p.rotationCount == 0))
    throw InputError("no starts: directions and rotations must be at least 1");
  Icp icp;
  icp.SetParameters(p);
  // The reporter counts the starts; the operator tells of each from the thread that ran it.
  std::unique_ptr<ZorSDK::Common::IncrementalProgressReporter> reporter;
  if (progress && p.multiStart) {
    reporter = std::make_unique<ZorSDK::Common::IncrementalProgressReporter>(progress, "Multi-start ICP",
                                                                             p.directionCount * p.rotationCount, false);
    icp.SetStartObserver([&reporter](std::size_t, std::size_t) { ++*reporter; });
  }
  if (!icp.Operate()) {
    const bool movingBad = !AnalyzeMeshAxis(moving).valid;
    throw InputError("'" + (movingBad ? movingName : fixedName) +
                     "' has no area (all its points on a line): there is no axis to start from");
  }
  reporter.reset();
  IcpRun run;
  run.transform = icp.GetTransformMatrix();
  run.rms = icp.GetRMSError();
  run.times = icp.GetStageTimes();
  run.starts = p.multiStart ? p.directionCount * p.rotationCount : 1;
  run.refined = p.multiStart && p.refine && p.refineFactor != 0;
  // Finished and judged as AlignPair does.
  // The pair only reads the meshes: the copies without loose pieces are made beside them.
  const PairSurfaces pair(const_cast<MStlBase&>(moving), const_cast<MStlBase&>(fixed));
  const double distance = pair.VerdictDistance(0.1 * PairVerdictDistance());
  if (options.polish) {
    const auto start = std::chrono::steady_clock::now();
    run.polished = FinishPose(pair.Moving(), pair.Fixed(), std::max(PairVerdictDistance(), distance), run.transform);
    run.polishSeconds = ZorSDK::Common::SecondsSince(start);
  }
  run.verdict = JudgePose(pair, run.transform, distance);
  return run;
}

MorphRun MorphPair(MStlBase& moving, MStlBase& target, const MorphOptions& options, const std::string& movingName,
                   const std::string& targetName, std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) {
  if (options.baseMorph) {
    // Smoothing replaces a point by the mean of its neighbours; a point without
    // triangles has none and would be thrown off the grid.
    std::size_t isolated = 0;
    for (auto it = moving.BeginPoint(); it != moving.EndPoint(); ++it)
      isolated += it->GetNumberOfNeighbourTriangles() == 0 ? 1 : 0;
    if (isolated > 0)
      throw InputError("'" + movingName + "' holds " + std::to_string(isolated) +
                       " point(s) that no triangle uses; the base morph moves every point with its neighbours, so "
                       "remove them first");
  }
  if (options.registerFirst)
    for (const auto& [name, mesh] : {std::pair{&movingName, &moving}, std::pair{&targetName, &target}})
      if (const int axis = FlatAxis(*mesh); axis >= 0)
        throw InputError("'" + *name + "' is flat along " + "xyz"[axis] +
                         ": its box cannot be scaled to the other's; morph meshes that already lie together "
                         "without registering them (--no-register)");

  const double ie = MUnit::GetIE();
  MorphRun run;
  run.baseMorph = options.baseMorph;
  run.tolerance = options.toleranceMm * ie;
  const MWrapperOperatorBaseMorph::StlImpl movingHandle(&moving), targetHandle(&target);
  const auto start = std::chrono::steady_clock::now();
  try {
    if (options.baseMorph) {
      const MWrapperOperatorBaseMorph::SParams params = options.BaseParams();
      MWrapperOperatorMorph registered(movingHandle, targetHandle);
      MWrapperOperatorBaseMorph alone(movingHandle, targetHandle);
      if (options.registerFirst) {
        registered.SetMorphParams(params);
        registered.Operate(std::move(progress));
      } else {
        alone.SetParams(params);
        alone.Operate(std::move(progress));
      }
      const MWrapperOperatorBaseMorph& morph = options.registerFirst ? registered.GetMorph() : alone;
      run.morph = morph.GetStageTimes();
      run.stages = registered.GetStageTimes();
      run.maxDistance = morph.GetMaxDistance();
      run.meanDistance = morph.GetMeanDistance();
      run.fractionWithin = morph.GetFractionWithin();
      if (options.registerFirst) {
        run.registrationSucceeded = registered.GetRegistrationSucceeded();
        run.registration = registered.GetRegistration();
        for (int i = 0; i < 3; ++i) run.scales[i] = registered.GetScales()[i];
        run.icp = registered.GetIcpTransform();
      }
    } else {
      if (options.registerFirst) {
        const RegisteredStages stages = RegisterScaleAndAlign(moving, target);
        run.registrationSucceeded = stages.registered;
        run.registration = stages.registration;
        for (int i = 0; i < 3; ++i) run.scales[i] = stages.scales[i];
        run.icp = stages.icp;
        run.stages.registration = stages.registrationSeconds;
        run.stages.scaling = stages.scalingSeconds;
        run.stages.icp = stages.icpSeconds;
      }
      MWrapperOperatorFieldMorph field(movingHandle, targetHandle);
      field.SetParams(options.FieldParams());
      field.Operate(std::move(progress));
      run.field = field.GetReport();
      run.stages.morph = run.field.total;
      run.maxDistance = run.field.maxDistance;
      run.meanDistance = run.field.meanDistance;
      run.fractionWithin = run.field.fractionWithin;
    }
  } catch (const std::out_of_range& e) {
    throw InputError(std::string("the morph carried the moving mesh off the 32-bit grid (") + e.what() +
                     "); try a smaller scale");
  }
  run.total = ZorSDK::Common::SecondsSince(start);
  run.stages.total = run.total;
  return run;
}

}  // namespace ZorStlRegistration
