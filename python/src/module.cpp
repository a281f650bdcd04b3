// The extension module zor._zor: meshes from NumPy arrays and files, the registration,
// the multi-start ICP and the morph with the command line's parameters and defaults,
// closest points and the deviation map. Every run lets the interpreter go, so other
// Python threads go on meanwhile.

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
namespace {

using Registration = MUserOperatorStlRegistration;
using Icp = ZorStlRegistration::MStlBaseOperatorRegistrationICP;

// ---- parameters ------------------------------------------------------------------

// `value` when `range` holds it; otherwise ValueError naming the keyword and the range.
double Within(const ZorStlRegistration::ParameterRange& range, double value) {
  if (!range.Contains(value))
    throw std::invalid_argument(std::string(range.name) + " must be in " + range.Describe() + "; got " +
                                py::str(py::float_(value)).cast<std::string>());
  return value;
}

std::uint64_t Count(const ZorStlRegistration::ParameterRange& range, long long value) {
  if (!range.Contains(static_cast<double>(value)))
    throw std::invalid_argument(std::string(range.name) + " must be in " + range.Describe() + "; got " +
                                std::to_string(value));
  return static_cast<std::uint64_t>(value);
}

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr ZorStlRegistration::ParameterRange kThreadCount{"n", 1, 1 << 20, false, true};
namespace PairRanges = ZorStlRegistration::PairRanges;

// ---- meshes held for a run ---------------------------------------------------------

// The meshes of a run, locked in address order so that runs over shared meshes never
// wait on each other in a circle: shared for reading, alone for a run that writes them.
class MeshLocks {
public:
  MeshLocks(std::vector<const Mesh*> meshes, bool exclusive) : alone(exclusive) {
    std::sort(meshes.begin(), meshes.end());
    meshes.erase(std::unique(meshes.begin(), meshes.end()), meshes.end());
    for (const Mesh* m : meshes) {
      if (alone)
        m->Access().lock();
      else
        m->Access().lock_shared();
      held.push_back(m);
    }
  }
  ~MeshLocks() {
    for (const Mesh* m : held) {
      if (alone)
        m->Access().unlock();
      else
        m->Access().unlock_shared();
    }
  }
  MeshLocks(const MeshLocks&) = delete;
  MeshLocks& operator=(const MeshLocks&) = delete;

private:
  bool alone;
  std::vector<const Mesh*> held;
};

void NeedTriangles(const Mesh& mesh, const char* role) {
  if (mesh.Stl().GetNumberOfTriangles() == 0)
    throw std::invalid_argument(std::string("the ") + role + " mesh has no triangles");
}

// The two meshes an operator runs on, both with triangles.
std::pair<std::shared_ptr<Mesh>, std::shared_ptr<Mesh>> Operands(const py::object& first, const char* firstRole,
                                                                 const py::object& second, const char* secondRole) {
  std::shared_ptr<Mesh> a = Mesh::From(first, firstRole);
  std::shared_ptr<Mesh> b = Mesh::From(second, secondRole);
  NeedTriangles(*a, firstRole);
  NeedTriangles(*b, secondRole);
  return {std::move(a), std::move(b)};
}

// ---- results -----------------------------------------------------------------------

struct RegisterResult {
  py::array_t<double> transform;
  double error = 0.0;
  std::string strategy, strategy_used;
  std::uint64_t inliers = 0, iterations = 0;
  bool tried_features = false, polished = false;
  double overlap = 0.0, overlap_rms = 0.0, overlap_distance = 0.0;
  bool doubtful = false;
  std::string doubt;
  py::dict seconds;
};

struct IcpResult {
  py::array_t<double> transform;
  double rms_error = 0.0;
  std::uint64_t starts = 0;
  bool refined = false;
  py::dict seconds;
};

struct MorphResult {
  py::array_t<double> vertices;
  py::array_t<std::int64_t> triangles;
  std::shared_ptr<Mesh> mesh;
  double max_distance = 0.0, mean_distance = 0.0, fraction_within = 0.0, tolerance = 0.0;
  std::size_t iterations = 0;
  std::string method, stop;
  double p95_distance = 0.0;
  std::size_t unmatched = 0, folded = 0;
  bool registered = false, registration_succeeded = false;
  py::object registration = py::none(), scales = py::none(), icp = py::none();
  py::dict seconds;
};

struct DeviationResult {
  py::array_t<double> distances;
  py::array_t<std::uint8_t> colours;
  double range = 0.0, within_share = 0.0, percentile95 = 0.0, largest = 0.0;
};

// Read-only attributes named in `fields`, an as_dict() of them and a repr that shows the
// scalar ones.
template <typename T, typename... Members>
void Fields(py::class_<T>& c, const std::vector<const char*>& names, Members... members) {
  static_assert(sizeof...(Members) > 0);
  std::size_t i = 0;
  (c.def_readonly(names[i++], members), ...);
  c.def(
      "as_dict",
      [names](const py::object& self) {
        py::dict d;
        for (const char* name : names) d[name] = self.attr(name);
        return d;
      },
      "The fields as a dict (arrays stay arrays).");
  c.def("__repr__", [names](const py::object& self) {
    std::string text = py::str(self.attr("__class__").attr("__name__")).cast<std::string>() + "(";
    bool first = true;
    for (const char* name : names) {
      const py::object v = self.attr(name);
      if (!(py::isinstance<py::float_>(v) || py::isinstance<py::int_>(v) || py::isinstance<py::str>(v))) continue;
      text += (first ? "" : ", ") + std::string(name) + "=" + py::repr(v).cast<std::string>();
      first = false;
    }
    return text + ")";
  });
}

// ---- operations --------------------------------------------------------------------

RegisterResult Register(const py::object& movingObject, const py::object& fixedObject, const std::string& strategy,
                        long long samples, double overlap, double errorTolerance, long long iterations, bool reduce,
                        double reduceTolerance, double slideStep, bool normals, bool flipNormals, double normalRadius,
                        double maxNormalAngle, double normalWeight, long long sphereRings, long long sphereSpins,
                        long long axisSteps, bool polish, const py::object& progress) {
  ZorStlRegistration::PairOptions options;
  Registration::MParams& p = options.params;
  p = ZorStlRegistration::PairDefaults();
  if (!ZorStlRegistration::ParseStrategy(strategy, p.initialAlignment, &options.withFeatures))
    throw std::invalid_argument("unknown strategy '" + strategy +
                                "' (auto+features, none, auto, axes, rod, disc, ball, features)");
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
  out.overlap_rms = r.verdict.rms / ie;
  out.overlap_distance = r.verdict.distance / ie;
  out.doubtful = r.verdict.doubtful;
  out.doubt = r.verdict.reason;
  const Registration::StageTimes& t = r.times;
  out.seconds =
      py::dict(py::arg("reduction") = t.reduction, py::arg("sampling") = t.sampling, py::arg("index") = t.index,
               py::arg("alignment") = t.alignment, py::arg("refinement") = t.refinement,
               py::arg("polish") = r.polishSeconds, py::arg("total") = t.total + r.polishSeconds);
  return out;
}

IcpResult RunIcp(const py::object& movingObject, const py::object& fixedObject, bool single, long long directions,
                 long long rotations, long long iterations, long long samples, bool allowScale, bool normals,
                 double distanceFactor, double maxDistance, const py::object& initial, bool refine,
                 long long refineFactor, const py::object& progress) {
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
  const Icp::StageTimes& t = r.times;
  out.seconds =
      py::dict(py::arg("sampling") = t.sampling, py::arg("tree") = t.tree, py::arg("analysis") = t.analysis,
               py::arg("search") = t.search, py::arg("refinement") = t.refinement, py::arg("total") = t.total);
  return out;
}

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
  options.fieldParams.smoothing = Within(PairRanges::kSmoothing, smoothing);
  options.fieldParams.maxPasses = Count(PairRanges::kMaxPasses, maxPasses);
  options.toleranceMm = Within(PairRanges::kTolerance, tolerance);
  auto& p = options.params;
  p.targetFraction = Within(PairRanges::kTargetFraction, targetFraction);
  p.initialStep = Within(PairRanges::kInitialStep, initialStep);
  p.stepRetention = Within(PairRanges::kStepRetention, stepRetention);
  p.normalAngle = Within(PairRanges::kNormalAngle, normalAngle);
  p.smoothingPasses = Count(PairRanges::kSmoothingPasses, smoothingPasses);
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
    morphSeconds = py::dict(py::arg("setup") = f.setup, py::arg("matching") = f.correspondence,
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

py::tuple ClosestPoints(const py::object& meshObject, const py::object& points) {
  const std::shared_ptr<Mesh> mesh = Mesh::From(meshObject, "mesh");
  NeedTriangles(*mesh, "given");
  const auto queries = PointArray(points, "points");
  const py::ssize_t k = queries.shape(0);
  py::array_t<double> closest({k, py::ssize_t{3}});
  py::array_t<double> distances(k);
  py::array_t<std::int64_t> triangles(k);
  const double* q = queries.data();
  double* c = closest.mutable_data();
  double* d = distances.mutable_data();
  std::int64_t* t = triangles.mutable_data();
  {
    py::gil_scoped_release release;
    const MeshLocks locks({mesh.get()}, false);
    const double ie = MUnit::GetIE();
    const std::vector<std::uint32_t>& numbers = mesh->TriangleNumbers();
    const MeshQueries::TriangleTreeHolder* holder = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&mesh->Stl()));
    tbb::parallel_for(tbb::blocked_range<py::ssize_t>(0, k, 256), [&](const tbb::blocked_range<py::ssize_t>& range) {
      for (py::ssize_t i = range.begin(); i != range.end(); ++i) {
        MeshQueries::ClosestTriangle found;
        const MMVector3d query(q[3 * i] * ie, q[3 * i + 1] * ie, q[3 * i + 2] * ie);
        MeshQueries::FindNearestTriangle(*holder, query, kInf, found);
        const MMVector3d p = found.GetClosestPoint();
        for (int a = 0; a < 3; ++a) c[3 * i + a] = p[a] / ie;
        d[i] = found.distance / ie;
        t[i] = numbers[found.triangle.GetMaskIndex()];
      }
    });
  }
  return py::make_tuple(closest, distances, triangles);
}

DeviationResult Deviation(const py::object& movingObject, const py::object& fixedObject, const py::object& transform,
                          const py::object& range) {
  const std::shared_ptr<Mesh> moving = Mesh::From(movingObject, "moving");
  const std::shared_ptr<Mesh> fixed = Mesh::From(fixedObject, "fixed");
  NeedTriangles(*fixed, "fixed");
  std::optional<MMTransformMatrix> pose;
  if (!transform.is_none()) pose = TransformFrom(transform, "transform");
  const double ie = MUnit::GetIE();
  std::optional<double> rangeMm;
  if (!range.is_none()) rangeMm = Within(PairRanges::kDeviationRange, py::float_(range).cast<double>());

  std::vector<double> distances;
  ZorStlRegistration::DeviationSummary summary;
  {
    py::gil_scoped_release release;
    const MeshLocks locks({moving.get(), fixed.get()}, false);
    distances = ZorStlRegistration::SignedDistances(moving->Stl(), pose ? &*pose : nullptr, fixed->Stl());
    double within = 0.0;
    if (rangeMm)
      within = *rangeMm * ie;
    else {
      // Three times the median distance: the bulk of a good fit shows green, what stands
      // out shows in colour. One grid step at least.
      std::vector<double> magnitudes(distances.size());
      std::transform(distances.begin(), distances.end(), magnitudes.begin(), [](double v) { return std::abs(v); });
      if (!magnitudes.empty()) {
        const auto middle = magnitudes.begin() + static_cast<std::ptrdiff_t>(magnitudes.size() / 2);
        std::nth_element(magnitudes.begin(), middle, magnitudes.end());
        within = 3.0 * *middle;
      }
      within = std::max(within, 1.0);
    }
    summary = ZorStlRegistration::SummariseDeviation(distances, within);
  }
  DeviationResult out;
  const py::ssize_t n = static_cast<py::ssize_t>(distances.size());
  out.distances = py::array_t<double>(n);
  out.colours = py::array_t<std::uint8_t>({n, py::ssize_t{3}});
  double* d = out.distances.mutable_data();
  std::uint8_t* c = out.colours.mutable_data();
  for (py::ssize_t i = 0; i < n; ++i) {
    d[i] = distances[i] / ie;
    const auto rgb = ZorStlRegistration::DeviationColour(distances[i], summary.range);
    std::copy(rgb.begin(), rgb.end(), c + 3 * i);
  }
  out.range = summary.range / ie;
  out.within_share = summary.withinShare;
  out.percentile95 = summary.percentile95 / ie;
  out.largest = summary.largest / ie;
  return out;
}

std::shared_ptr<Mesh> Load(const std::filesystem::path& path, double scale) {
  Within(PairRanges::kScale, scale);
  std::error_code error;
  if (!std::filesystem::exists(path, error) && !error) {
    errno = ENOENT;
    PyErr_SetFromErrnoWithFilename(PyExc_FileNotFoundError, path.c_str());
    throw py::error_already_set();
  }
  ZorStlRegistration::LoadedMesh loaded;
  {
    py::gil_scoped_release release;
    loaded = ZorStlRegistration::ReadMesh(path.string(), scale);
  }
  for (const std::string& line : loaded.warnings)
    if (PyErr_WarnEx(PyExc_UserWarning, line.c_str(), 2) != 0) throw py::error_already_set();
  return std::make_shared<Mesh>(std::move(loaded.mesh), loaded.joined.pointsMerged, loaded.joined.trianglesSkipped);
}

void Save(const Mesh& mesh, const std::filesystem::path& path, double scale, bool ascii) {
  Within(PairRanges::kScale, scale);
  py::gil_scoped_release release;
  const MeshLocks locks({&mesh}, false);
  ZorStlRegistration::WriteMesh(mesh.Stl(), nullptr, scale, path.string(), ascii);
}

std::shared_ptr<Mesh> Transformed(const Mesh& mesh, const py::object& matrix) {
  const MMTransformMatrix m = TransformFrom(matrix, "matrix");
  py::gil_scoped_release release;
  const MeshLocks locks({&mesh}, false);
  auto copy = std::make_unique<MStlBase>(mesh.Stl());
  try {
    copy->Transform(m);
  } catch (const std::out_of_range& e) {
    throw std::invalid_argument(std::string("the transform carries the mesh off the 32-bit grid (") + e.what() + ")");
  }
  return std::make_shared<Mesh>(std::move(copy));
}

// A cap on the library's worker threads while a `with` block runs: process-wide, and
// the smallest of several caps in force holds.
class ThreadLimit {
public:
  explicit ThreadLimit(long long n) : count(Count(kThreadCount, n)) {}
  ThreadLimit& Enter() {
    if (limit) throw std::runtime_error("this zor.threads block is already entered");
    limit.emplace(tbb::global_control::max_allowed_parallelism, count);
    return *this;
  }
  void Exit(const py::args&) { limit.reset(); }
  std::size_t Count_() const { return count; }

private:
  std::size_t count;
  std::optional<tbb::global_control> limit;
};

}  // namespace
}  // namespace zorpy

PYBIND11_MODULE(_zor, m) {
  using namespace zorpy;
  namespace py = pybind11;
  m.doc() = "Rigid registration, multi-start ICP and morphing of triangle meshes.";

  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const ZorStlRegistration::InputError& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const std::invalid_argument& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const std::out_of_range& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    }
  });

  py::class_<Mesh, std::shared_ptr<Mesh>> mesh(m, "Mesh", R"(A triangle mesh on the library's integer grid.

Mesh(vertices, triangles): vertices is an (n, 3) array of real numbers in millimetres
(finite, within about 2147 m of the origin: the grid has 1000 steps per mm and 32
bits), triangles an (m, 3) array of integers below n. Coincident vertices (after rounding
to the grid) join and triangles with a repeated corner are dropped (with a warning);
merged_vertices and dropped_triangles count them. Otherwise vertices and triangles come
back as given, in the same order. Mesh(obj) takes anything with vertices and faces (or
triangles) arrays, such as a trimesh or Open3D mesh. A Mesh does not change; operators
return new ones.)");
  mesh.def(py::init([](const py::object& vertices, const py::object& triangles) {
             return Mesh::FromArrays(vertices, triangles);
           }),
           py::arg("vertices"), py::arg("triangles"))
      .def(py::init([](const py::object& object) { return Mesh::From(object, "the argument"); }), py::arg("mesh"))
      .def_property_readonly("vertices", &Mesh::Vertices,
                             "(n, 3) float64 array of the vertices in millimetres (a copy).")
      .def_property_readonly("triangles", &Mesh::Triangles, "(m, 3) int64 array of vertex numbers (a copy).")
      .def_property_readonly("faces", &Mesh::Triangles, "The same as triangles.")
      .def_property_readonly("vertex_count", [](const Mesh& s) { return s.Stl().NumberOfPoints(); })
      .def_property_readonly("triangle_count", [](const Mesh& s) { return s.Stl().GetNumberOfTriangles(); })
      .def_property_readonly("merged_vertices", &Mesh::MergedVertices,
                             "Vertices that joined an earlier one at the same grid point when the mesh was made.")
      .def_property_readonly("dropped_triangles", &Mesh::DroppedTriangles,
                             "Triangles dropped when the mesh was made, for a repeated corner.")
      .def_property_readonly(
          "bounds", &Mesh::Bounds,
          "[[xmin, ymin, zmin], [xmax, ymax, zmax]] in millimetres (zeros for a mesh without vertices).")
      .def("transformed", &Transformed, py::arg("matrix"),
           "A new Mesh moved by the 4x4 matrix (points as column vectors, shift in millimetres).")
      .def("save", &Save, py::arg("path"), py::arg("scale") = 1.0, py::arg("ascii") = false,
           "Writes the mesh as STL, PLY, OBJ or OFF by the extension of path (binary STL and PLY unless ascii), "
           "coordinates divided by scale. The file appears whole or not at all.")
      .def("__len__", [](const Mesh& s) { return s.Stl().GetNumberOfTriangles(); })
      .def("__repr__",
           [](const Mesh& s) {
             return "zor.Mesh(" + std::to_string(s.Stl().NumberOfPoints()) + " vertices, " +
                    std::to_string(s.Stl().GetNumberOfTriangles()) + " triangles)";
           })
      .def(py::pickle([](const Mesh& s) { return py::make_tuple(s.Vertices(), s.Triangles()); },
                      [](const py::tuple& t) {
                        if (t.size() != 2) throw std::invalid_argument("a pickled zor.Mesh holds two arrays");
                        return Mesh::FromArrays(t[0], t[1]);
                      }));

  m.def("load", &Load, py::arg("path"), py::arg("scale") = 1.0,
        R"(Reads a mesh file (STL text or binary, PLY text or binary, OBJ, OFF) with the
command-line tool's readers. File units times scale are millimetres. Raises
FileNotFoundError for a missing file and ValueError for a malformed one, naming the place.)");

  py::class_<RegisterResult> registerResult(m, "RegisterResult", "What zor.register found.");
  Fields(registerResult,
         {"transform", "error", "strategy", "strategy_used", "inliers", "iterations", "tried_features", "polished",
          "overlap", "overlap_rms", "overlap_distance", "doubtful", "doubt", "seconds"},
         &RegisterResult::transform, &RegisterResult::error, &RegisterResult::strategy, &RegisterResult::strategy_used,
         &RegisterResult::inliers, &RegisterResult::iterations, &RegisterResult::tried_features,
         &RegisterResult::polished, &RegisterResult::overlap, &RegisterResult::overlap_rms,
         &RegisterResult::overlap_distance, &RegisterResult::doubtful, &RegisterResult::doubt,
         &RegisterResult::seconds);
  py::class_<IcpResult> icpResult(m, "IcpResult", "What zor.icp found.");
  Fields(icpResult, {"transform", "rms_error", "starts", "refined", "seconds"}, &IcpResult::transform,
         &IcpResult::rms_error, &IcpResult::starts, &IcpResult::refined, &IcpResult::seconds);
  py::class_<MorphResult> morphResult(m, "MorphResult", "What zor.morph made.");
  Fields(morphResult,
         {"vertices", "triangles", "mesh", "max_distance", "mean_distance", "fraction_within", "tolerance",
          "iterations", "method", "stop", "p95_distance", "unmatched", "folded", "registered", "registration_succeeded",
          "registration", "scales", "icp", "seconds"},
         &MorphResult::vertices, &MorphResult::triangles, &MorphResult::mesh, &MorphResult::max_distance,
         &MorphResult::mean_distance, &MorphResult::fraction_within, &MorphResult::tolerance, &MorphResult::iterations,
         &MorphResult::method, &MorphResult::stop, &MorphResult::p95_distance, &MorphResult::unmatched,
         &MorphResult::folded, &MorphResult::registered, &MorphResult::registration_succeeded,
         &MorphResult::registration, &MorphResult::scales, &MorphResult::icp, &MorphResult::seconds);
  py::class_<DeviationResult> deviationResult(m, "DeviationResult", "Signed distances of zor.deviation.");
  Fields(deviationResult, {"distances", "colours", "range", "within_share", "percentile95", "largest"},
         &DeviationResult::distances, &DeviationResult::colours, &DeviationResult::range,
         &DeviationResult::within_share, &DeviationResult::percentile95, &DeviationResult::largest);

  const Registration::MParams r = ZorStlRegistration::PairDefaults();
  m.def("register", &Register, py::arg("moving"), py::arg("fixed"), py::kw_only(),
        py::arg("strategy") = std::string(ZorStlRegistration::kDefaultStrategy), py::arg("samples") = r.sampleCount,
        py::arg("overlap") = r.overlapFraction, py::arg("error_tolerance") = r.errorTolerance,
        py::arg("iterations") = r.iterationCount, py::arg("reduce") = r.reduceMeshes,
        py::arg("reduce_tolerance") = r.reduceTolerance, py::arg("slide_step") = r.slideStep,
        py::arg("normals") = r.useNormals, py::arg("flip_normals") = r.flipNormals,
        py::arg("normal_radius") = r.normalRadius, py::arg("max_normal_angle") = r.maxNormalAngle,
        py::arg("normal_weight") = r.normalWeight, py::arg("sphere_rings") = r.sphereRingSteps,
        py::arg("sphere_spins") = r.sphereSpinSteps, py::arg("axis_steps") = r.axisRotationSteps,
        py::arg("polish") = true, py::arg("progress") = py::none(),
        R"(Finds the rigid transform that lays moving on fixed, with no starting pose.

moving, fixed: zor.Mesh, or anything with vertices and faces arrays.
strategy: "auto+features" (the shapes' symmetry, and matched surface features as well
  when that result is doubtful), "none" (already roughly placed), "auto", "axes", "rod",
  "disc", "ball" or "features" (partial scans).
samples: samples drawn on the moving mesh. overlap: share of them expected on fixed.
error_tolerance: the refinement stops below this mean distance (mm).
iterations: refinement iterations at most (0: none).
reduce: search on reduced copies (False: on the full meshes).
reduce_tolerance: how far the reduced copies may stray (mm).
slide_step: step of the slide along a long axis (mm).
normals, flip_normals, normal_radius (mm), max_normal_angle (degrees), normal_weight:
  matching with surface normals.
sphere_rings, sphere_spins: directions the ball strategy tries; axis_steps: turns about
  a symmetry axis for rod and disc.
polish: finish with point-to-plane ICP on the full meshes.
progress: None, True (a tqdm bar) or a callable (label, done, total).

Returns a RegisterResult: transform (4x4, points as column vectors, shift in mm), error
(mm), strategy_used, inliers, iterations, overlap (share of moving within
overlap_distance mm of fixed), overlap_rms (mm), doubtful and doubt (why), seconds by
stage. The interpreter is free for other threads while it runs.)");

  const Icp::MParams i;
  m.def("icp", &RunIcp, py::arg("moving"), py::arg("fixed"), py::kw_only(), py::arg("single") = !i.multiStart,
        py::arg("directions") = i.directionCount, py::arg("rotations") = i.rotationCount,
        py::arg("iterations") = i.maxIterations, py::arg("samples") = i.sampleCount,
        py::arg("allow_scale") = i.allowScale, py::arg("normals") = i.useNormals,
        py::arg("distance_factor") = i.distanceFactor, py::arg("max_distance") = 0.0, py::arg("initial") = py::none(),
        py::arg("refine") = i.refine, py::arg("refine_factor") = i.refineFactor, py::arg("progress") = py::none(),
        R"(Registers moving onto fixed by ICP started from many orientations.

single: one run from initial instead of the search over starts.
directions, rotations: directions the moving mesh's axis is aimed at, and spins about it.
iterations: fits in each run. samples: points drawn from each mesh.
allow_scale: also fit a uniform scale. normals: reject pairs whose normals differ.
distance_factor: reject pairs beyond this times the median squared distance;
max_distance: reject pairs farther apart than this (mm) instead (0: the median rule).
initial: 4x4 start of the single run (shift in mm). refine, refine_factor: a last run on
a sample this many times larger. progress: as in register.

Returns an IcpResult: transform (4x4, shift in mm), rms_error (mm), starts, refined,
seconds by stage.)");

  const ZorStlRegistration::MorphOptions mo;
  m.def("morph", &Morph, py::arg("moving"), py::arg("target"), py::kw_only(), py::arg("register") = mo.registerFirst,
        py::arg("method") = "field", py::arg("tolerance") = mo.toleranceMm,
        py::arg("target_fraction") = mo.params.targetFraction, py::arg("normal_angle") = mo.params.normalAngle,
        py::arg("search_distance") = mo.searchDistanceMm, py::arg("smoothing") = mo.fieldParams.smoothing,
        py::arg("max_passes") = mo.fieldParams.maxPasses, py::arg("initial_step") = mo.params.initialStep,
        py::arg("step_retention") = mo.params.stepRetention, py::arg("smoothing_passes") = mo.params.smoothingPasses,
        py::arg("progress") = py::none(),
        R"(Deforms moving onto target, keeping its vertex order and triangles.

register: register moving onto target, scale it to target's box and align it by ICP
  first (False: morph the meshes as they lie).
method: 'field' (a smooth displacement field solved coarse to fine; always ends) or
  'base' (steps toward each vertex's nearest place with position smoothing, no pass
  limit).
tolerance: a vertex has arrived within this distance of the target (mm).
target_fraction: stop once this share of the vertices has arrived.
normal_angle: largest angle between a vertex's and a target triangle's normal (degrees).
search_distance, smoothing, max_passes (field): the first pass's farthest match (mm; 0:
  a tenth of moving's diagonal), the final smoothing length (mean edges), the passes at
  most.
initial_step, step_retention, smoothing_passes (base): the share of the displacement
  the first step applies, the share of the way to a whole step that each step keeps
  missing, the smoothing passes after each step. progress: as in register.

moving is left as it is. Returns a MorphResult: vertices (the new positions, mm),
triangles, mesh (the morphed Mesh), max_distance and mean_distance (mm), fraction_within,
iterations (passes of the field morph); for the field morph the distances are those of
the morphed vertices to target, with p95_distance, unmatched (vertices without a
counterpart), folded (triangles turned over) and stop (what ended it); with register
also registration (4x4), scales and icp (4x4); seconds.)");

  m.def("closest_points", &ClosestPoints, py::arg("mesh"), py::arg("points"),
        R"(The closest place on mesh's surface to each of points ((k, 3), mm).

Returns (closest (k, 3) float64 mm, distances (k,) float64 mm, triangles (k,) int64:
the row of mesh.triangles each closest place lies on).)");
  m.def("deviation", &Deviation, py::arg("moving"), py::arg("fixed"), py::arg("transform") = py::none(),
        py::arg("range") = py::none(),
        R"(The signed distance of each vertex of moving (moved by transform, when given) to
fixed's surface, positive outside, in mm, as the deviation map gives it.

range (mm): the tolerance the colours and within_share refer to; by default three times
the median distance (one grid step at least). Returns a DeviationResult: distances (n,),
colours ((n, 3) uint8: green within range, yellow to red above, cyan to blue below),
range, within_share, percentile95 and largest (of the absolute distances, mm).)");

  py::class_<ThreadLimit>(m, "threads", R"(with zor.threads(n): caps the worker threads of every
run in the process at n while the block runs (the smallest of nested caps holds).)")
      .def(py::init<long long>(), py::arg("n"))
      .def("__enter__", &ThreadLimit::Enter, py::return_value_policy::reference_internal)
      .def("__exit__", &ThreadLimit::Exit)
      .def_property_readonly("n", &ThreadLimit::Count_);
  m.def(
      "max_threads", [] { return tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism); },
      "The worker threads a run may use now.");
  m.def(
      "sample_body",
      [](long long triangles) {
        Count(PairRanges::kSampleTriangles, triangles);
        const int n = std::max(1, static_cast<int>(std::lround(std::sqrt(static_cast<double>(triangles) / 12.0))));
        py::gil_scoped_release release;
        return std::make_shared<Mesh>(zorgen::MakeSampleBody(n));
      },
      py::arg("triangles") = 50000,
      R"(The command-line demo's sample body: a closed block of about 70 x 46 x 30 mm with a boss,
a dimple and a groove, so that exactly one pose lays a copy on it; about this many triangles.)");
  m.def(
      "_time_align_pair",
      [](const std::shared_ptr<Mesh>& moving, const std::shared_ptr<Mesh>& fixed) {
        // For bench/python_bench.py: the C++ call that zor.register makes with its
        // defaults, timed in C++ on the same meshes in the same process.
        ZorStlRegistration::PairOptions options;
        options.params = ZorStlRegistration::PairDefaults();
        py::gil_scoped_release release;
        const auto start = std::chrono::steady_clock::now();
        ZorStlRegistration::AlignPair(moving->Stl(), fixed->Stl(), options);
        return ZorSDK::Common::SecondsSince(start);
      },
      py::arg("moving"), py::arg("fixed"));
  m.attr("__version__") = ZOR_VERSION;
  m.def(
      "grid_steps_per_mm", [] { return MUnit::GetIE(); }, "Grid steps per millimetre (coordinates round to them).");
}
