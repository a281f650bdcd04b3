// zor.icp: the multi-start ICP, or one run from a given start.

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

IcpResult RunIcp(const py::object& movingObject, const py::object& fixedObject, bool single, long long directions,
                 long long rotations, long long iterations, long long samples, bool allowScale, bool normals,
                 double distanceFactor, double maxDistance, const py::object& initial, bool refine,
                 long long refineFactor, bool polish, const py::object& progress) {
  ZorStlRegistration::IcpOptions options;
  Icp::MParams& p = options.params;
  p.multiStart = !single;
  p.directionCount = Count(PairRanges::kDirections, directions);
  p.rotationCount = Count(PairRanges::kRotations, rotations);
  p.maxIterations = Count(PairRanges::kIcpIterations, iterations);
  p.sampleCount = Count(PairRanges::kIcpSamples, samples);
  p.allowScale = allowScale;
  p.useNormals = normals;
  p.distanceFactor = Within(PairRanges::kDistanceFactor, distanceFactor);
  options.maxDistance = Within(PairRanges::kMaxDistance, maxDistance);
  p.refine = refine;
  p.refineFactor = Count(PairRanges::kRefineFactor, refineFactor);
  options.polish = polish;
  if (!initial.is_none()) {
    TransformFrom(initial, "initial");  // checks it
    const auto values = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(
        py::module_::import("numpy").attr("asarray")(initial));
    options.initial.assign(values.data(), values.data() + 16);
  }
  const auto [moving, fixed] = Operands(movingObject, "moving", fixedObject, "fixed");
  const std::shared_ptr<Progress> bar = Progress::From(progress);

  ZorStlRegistration::IcpRun r;
  {
    py::gil_scoped_release release;
    const MeshLocks locks({moving.get(), fixed.get()}, false);
    r = ZorStlRegistration::IcpPair(moving->Stl(), fixed->Stl(), options, "moving", "fixed", bar);
  }
  if (bar) bar->RaiseIfFailed();
  IcpResult out;
  out.transform = TransformArray(r.transform);
  out.rms_error = r.rms / MUnit::GetIE();
  out.starts = r.starts;
  out.refined = r.refined;
  out.polished = r.polished;
  out.overlap = r.verdict.overlap;
  out.fixed_overlap = r.verdict.fixedOverlap;
  out.overlap_rms = r.verdict.rms / MUnit::GetIE();
  out.doubtful = r.verdict.doubtful;
  out.doubt = r.verdict.reason;
  const Icp::StageTimes& t = r.times;
  out.seconds = py::dict(py::arg("sampling") = t.sampling, py::arg("tree") = t.tree, py::arg("analysis") = t.analysis,
                         py::arg("search") = t.search, py::arg("refinement") = t.refinement,
                         py::arg("polish") = r.polishSeconds, py::arg("total") = t.total + r.polishSeconds);
  return out;
}

}  // namespace zorpy
