// zor.morph: the field morph or the base morph, registered first or not.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl/filesystem.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>

#include "generators/bodies.h"
#include "mesh_arrays.h"
#include "operations.h"
#include "progress.h"
#include "zor/files/deviation_colour.h"
#include "zor/files/mesh_files.h"
#include "zor/model/stopwatch.h"
#include "zor/model/unit.h"
#include "zor/pair/deviation.h"
#include "zor/pair/pair.h"
#include "zor/pair/pair_parameters.h"
#include "zor/pair/pair_registration.h"
#include "zor/spatial/tree_property.h"

namespace zorpy {

using Registration = MUserOperatorStlRegistration;
using Icp = ZorStlRegistration::MStlBaseOperatorRegistrationICP;

MorphResult Morph(const py::object& movingObject, const py::object& targetObject, bool registerFirst,
                  const std::string& method, double tolerance, double targetFraction, double normalAngle,
                  double searchDistance, double smoothing, long long maxPasses, double initialStep,
                  double stepRetention, long long smoothingPasses, const py::object& progress) {
  ZorStlRegistration::MorphOptions options;
  options.registerFirst = registerFirst;
  if (method != "field" && method != "base")
    throw py::value_error("method must be 'field' or 'base', not '" + method + "'");
  options.baseMorph = method == "base";
  options.searchDistanceMm = Within(PairRanges::kSearchDistance, searchDistance);
  options.smoothing = Within(PairRanges::kSmoothing, smoothing);
  options.maxPasses = Count(PairRanges::kMaxPasses, maxPasses);
  options.toleranceMm = Within(PairRanges::kTolerance, tolerance);
  options.targetFraction = Within(PairRanges::kTargetFraction, targetFraction);
  options.initialStep = Within(PairRanges::kInitialStep, initialStep);
  options.stepRetention = Within(PairRanges::kStepRetention, stepRetention);
  options.normalAngle = Within(PairRanges::kNormalAngle, normalAngle);
  options.smoothingPasses = Count(PairRanges::kSmoothingPasses, smoothingPasses);
  const auto [moving, target] = Operands(movingObject, "moving", targetObject, "target");
  const std::shared_ptr<Progress> bar = Progress::From(progress);

  std::unique_ptr<MStlBase> morphed;
  ZorStlRegistration::MorphRun r;
  {
    py::gil_scoped_release release;
    const MeshLocks locks({moving.get(), target.get()}, false);
    morphed = std::make_unique<MStlBase>(moving->Stl());  // the caller's mesh stays as it is
    r = ZorStlRegistration::MorphPair(*morphed, target->Stl(), options, "moving", "target", bar);
  }
  if (bar) bar->RaiseIfFailed();
  const double ie = MUnit::GetIE();
  MorphResult out;
  out.mesh = std::make_shared<Mesh>(std::move(morphed));
  out.vertices = out.mesh->Vertices();
  out.triangles = out.mesh->Triangles();
  out.max_distance = r.maxDistance / ie;
  out.mean_distance = r.meanDistance / ie;
  out.fraction_within = r.fractionWithin;
  out.tolerance = r.tolerance / ie;
  out.method = method;
  out.iterations = r.baseMorph ? r.morph.iterations : r.field.passes;
  out.registered = registerFirst;
  const auto& m = r.morph;
  const auto& f = r.field;
  py::dict morphSeconds;
  if (r.baseMorph) {
    morphSeconds =
        py::dict(py::arg("setup") = m.setup, py::arg("dual_pass") = m.dualPass, py::arg("main_pass") = m.mainPass,
                 py::arg("step") = m.step, py::arg("smoothing") = m.smoothing, py::arg("statistics") = m.statistics,
                 py::arg("total") = m.total);
  } else {
    out.stop = ZorStlRegistration::StopReasonName(f.stop);
    out.p95_distance = f.p95Distance / ie;
    out.unmatched = f.unmatched;
    out.folded = f.folded;
    out.local = f.local;
    morphSeconds =
        py::dict(py::arg("setup") = f.setup, py::arg("space") = f.space, py::arg("matching") = f.correspondence,
                 py::arg("solving") = f.solve, py::arg("measuring") = f.measure, py::arg("total") = f.total);
  }
  if (registerFirst) {
    out.registration_succeeded = r.registrationSucceeded;
    out.registration = TransformArray(r.registration);
    py::array_t<double> scales(3);
    std::copy(r.scales, r.scales + 3, scales.mutable_data());
    out.scales = scales;
    out.icp = TransformArray(r.icp);
    out.seconds =
        py::dict(py::arg("registration") = r.stages.registration, py::arg("scaling") = r.stages.scaling,
                 py::arg("icp") = r.stages.icp, py::arg("morph") = morphSeconds, py::arg("total") = r.stages.total);
  } else {
    out.seconds = py::dict(py::arg("morph") = morphSeconds, py::arg("total") = r.total);
  }
  return out;
}

}  // namespace zorpy
