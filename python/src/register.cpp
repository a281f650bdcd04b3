// zor.register: the pair call with its fallback, finish and verdict.

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

RegisterResult Register(const py::object& movingObject, const py::object& fixedObject, const std::string& strategy,
                        long long samples, double overlap, double errorTolerance, long long iterations, bool reduce,
                        double reduceTolerance, double slideStep, bool normals, bool flipNormals, double normalRadius,
                        double maxNormalAngle, double normalWeight, long long sphereRings, long long sphereSpins,
                        long long axisSteps, bool polish, long long searchTriangles, const py::object& progress) {
  ZorStlRegistration::PairOptions options;
  Registration::MParams& p = options.params;
  p = ZorStlRegistration::PairDefaults();
  const std::optional<ZorStlRegistration::StrategyChoice> choice = ZorStlRegistration::ParseStrategy(strategy);
  if (!choice)
    throw std::invalid_argument("unknown strategy '" + strategy +
                                "' (auto+features, none, auto, axes, rod, disc, ball, features)");
  p.initialAlignment = choice->alignment;
  options.withFeatures = choice->withFeatures;
  p.sampleCount = Count(PairRanges::kSamples, samples);
  p.overlapFraction = Within(PairRanges::kOverlap, overlap);
  p.errorTolerance = Within(PairRanges::kErrorTolerance, errorTolerance);
  p.iterationCount = Count(PairRanges::kIterations, iterations);
  p.reduceMeshes = reduce;
  p.reduceTolerance = Within(PairRanges::kReduceTolerance, reduceTolerance);
  p.slideStep = Within(PairRanges::kSlideStep, slideStep);
  p.useNormals = normals;
  p.flipNormals = flipNormals;
  p.normalRadius = Within(PairRanges::kNormalRadius, normalRadius);
  p.maxNormalAngle = Within(PairRanges::kMaxNormalAngle, maxNormalAngle);
  p.normalWeight = Within(PairRanges::kNormalWeight, normalWeight);
  p.sphereRingSteps = Count(PairRanges::kSphereRings, sphereRings);
  p.sphereSpinSteps = Count(PairRanges::kSphereSpins, sphereSpins);
  p.axisRotationSteps = Count(PairRanges::kAxisSteps, axisSteps);
  options.polish = polish;
  if (searchTriangles < 0) throw std::invalid_argument("search_triangles must not be negative");
  options.searchTriangles = static_cast<std::size_t>(searchTriangles);
  const auto [moving, fixed] = Operands(movingObject, "moving", fixedObject, "fixed");
  const std::shared_ptr<Progress> bar = Progress::From(progress);

  ZorStlRegistration::PairResult r;
  {
    py::gil_scoped_release release;
    // With reduction off the search places the meshes themselves.
    const MeshLocks locks({moving.get(), fixed.get()}, !reduce);
    try {
      r = ZorStlRegistration::AlignPair(moving->Stl(), fixed->Stl(), options, bar);
    } catch (const std::out_of_range& e) {
      throw std::invalid_argument(std::string("the registration carried the moving mesh off the 32-bit grid (") +
                                  e.what() + ")");
    }
  }
  if (bar) bar->RaiseIfFailed();
  const double ie = MUnit::GetIE();
  RegisterResult out;
  out.transform = TransformArray(r.transform);
  out.error = r.error / ie;
  out.strategy = strategy;
  out.strategy_used = ZorStlRegistration::StrategyName(r.used);
  out.inliers = r.inliers;
  out.iterations = r.times.iterations;
  out.tried_features = r.triedFeatures;
  out.polished = r.polished;
  out.overlap = r.verdict.overlap;
  out.fixed_overlap = r.verdict.fixedOverlap;
  out.overlap_rms = r.verdict.rms / ie;
  out.overlap_distance = r.verdict.distance / ie;
  out.doubtful = r.verdict.doubtful;
  out.doubt = r.verdict.reason;
  const Registration::StageTimes& t = r.times;
  out.seconds = py::dict(py::arg("reduction") = t.reduction, py::arg("sampling") = t.sampling,
                         py::arg("index") = t.index, py::arg("alignment") = t.alignment,
                         py::arg("refinement") = t.refinement, py::arg("polish") = r.polishSeconds,
                         py::arg("total") = t.total + r.polishSeconds, py::arg("surfaces") = r.surfaceSeconds,
                         py::arg("verdicts") = r.verdictSeconds, py::arg("registration") = r.seconds);
  return out;
}

}  // namespace zorpy
