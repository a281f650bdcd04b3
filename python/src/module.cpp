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
namespace {

using Registration = MUserOperatorStlRegistration;
using Icp = ZorStlRegistration::MStlBaseOperatorRegistrationICP;

constexpr ZorStlRegistration::ParameterRange kThreadCount{"n", 1, 1 << 20, false, true};

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
          "overlap", "fixed_overlap", "overlap_rms", "overlap_distance", "doubtful", "doubt", "seconds"},
         &RegisterResult::transform, &RegisterResult::error, &RegisterResult::strategy, &RegisterResult::strategy_used,
         &RegisterResult::inliers, &RegisterResult::iterations, &RegisterResult::tried_features,
         &RegisterResult::polished, &RegisterResult::overlap, &RegisterResult::fixed_overlap,
         &RegisterResult::overlap_rms, &RegisterResult::overlap_distance, &RegisterResult::doubtful,
         &RegisterResult::doubt, &RegisterResult::seconds);
  py::class_<IcpResult> icpResult(m, "IcpResult", "What zor.icp found.");
  Fields(icpResult,
         {"transform", "rms_error", "starts", "refined", "polished", "overlap", "fixed_overlap", "overlap_rms",
          "doubtful", "doubt", "seconds"},
         &IcpResult::transform, &IcpResult::rms_error, &IcpResult::starts, &IcpResult::refined, &IcpResult::polished,
         &IcpResult::overlap, &IcpResult::fixed_overlap, &IcpResult::overlap_rms, &IcpResult::doubtful,
         &IcpResult::doubt, &IcpResult::seconds);
  py::class_<MorphResult> morphResult(m, "MorphResult", "What zor.morph made.");
  Fields(morphResult, {"vertices",      "triangles",
                       "mesh",          "max_distance",
                       "mean_distance", "fraction_within",
                       "tolerance",     "iterations",
                       "method",        "stop",
                       "p95_distance",  "unmatched",
                       "folded",        "local",
                       "registered",    "registration_succeeded",
                       "registration",  "scales",
                       "icp",           "seconds"},
         &MorphResult::vertices, &MorphResult::triangles, &MorphResult::mesh, &MorphResult::max_distance,
         &MorphResult::mean_distance, &MorphResult::fraction_within, &MorphResult::tolerance, &MorphResult::iterations,
         &MorphResult::method, &MorphResult::stop, &MorphResult::p95_distance, &MorphResult::unmatched,
         &MorphResult::folded, &MorphResult::local, &MorphResult::registered, &MorphResult::registration_succeeded,
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
        py::arg("polish") = true,
        py::arg("search_triangles") = static_cast<long long>(ZorStlRegistration::PairOptions().searchTriangles),
        py::arg("progress") = py::none(),
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
search_triangles: with reduce, a mesh of more than four times this many triangles is
  searched on a copy clustered to about this many (fast); smaller ones on the reduction
  (0: always the reduction).
progress: None, True (a tqdm bar) or a callable (label, done, total).

Returns a RegisterResult: transform (4x4, points as column vectors, shift in mm), error
(mm), strategy_used, inliers, iterations, overlap (share of moving within
overlap_distance mm of fixed, loose fragments aside), fixed_overlap (share of fixed
within it of moving), overlap_rms (mm), doubtful and doubt (why), seconds by stage (and
of the whole call: registration; studying the surfaces: surfaces; judging poses: verdicts). The interpreter is free for other threads while it runs.)");

  m.def("align_views", &AlignViews, py::arg("meshes"), py::arg("reference") = py::none(), py::kw_only(),
        py::arg("strategy") = std::string(ZorStlRegistration::kDefaultStrategy), py::arg("max_pairs") = 0,
        py::arg("refine") = true, py::arg("progress") = py::none(),
        R"(Brings many views of one part, in any order and with no poses, into one frame.

meshes: the views (zor.Mesh, or anything with vertices and faces arrays).
reference: a model of the part, whose frame the views go to; None: the first view's.
strategy: of each pair registration, as in register.
max_pairs: pair registrations at most (0: three for each view beyond the first).
refine: then refine all placed views together on their surfaces (multi-view ICP).
progress: None, True (a tqdm bar) or a callable (label, done, total).

Returns a dict: views, one dict per view in the order given (placed; confirmed: joined
by sound pairs to at least two other views, so that a loop checks it; transform, 4x4
into the frame with its shift in mm, None when not placed; pairs, the places in pairs
of the kept pairs that join it; overlap, the largest share of it on another view;
residual, mm); pairs, the pairs registered (moving, fixed: view numbers, the reference
being len(meshes); score; sound; kept; transform; overlap; fixed_overlap; overlap_rms;
residual; doubt); seconds by stage. A view no sound pair joins is not placed, never
placed by a guess. The interpreter is free for other threads while it runs.)");

  m.def(
      "_sound_view_pair",
      [](bool doubtful, double overlap, double fixedOverlap) {
        ZorStlRegistration::Verdict v;
        v.doubtful = doubtful;
        v.overlap = overlap;
        v.fixedOverlap = fixedOverlap;
        return ZorStlRegistration::SoundViewPair(v);
      },
      py::arg("doubtful"), py::arg("overlap"), py::arg("fixed_overlap"),
      "Whether a registered pair of views may join them (not doubtful, each a tenth on the other).");
  m.def("rank_view_pairs", &RankViewPairs, py::arg("meshes"), py::arg("reference") = py::none(),
        R"(The pairs of views worth a registration, best first: (moving, fixed, score) with view
numbers as in align_views. The first stage of align_views, for zor.batch.align_views.)");
  m.def("place_views", &PlaceViews, py::arg("meshes"), py::arg("pairs"), py::arg("reference") = py::none(),
        py::kw_only(), py::arg("refine") = true,
        R"(Places the views from pairs registered elsewhere: each a dict with moving, fixed, score and
the fields of register's result (transform, overlap, fixed_overlap, overlap_rms,
overlap_distance, doubtful, doubt), or a failure without a transform. Returns what
align_views does. The last stage of align_views, for zor.batch.align_views.)");

  const Icp::MParams i;
  m.def("icp", &RunIcp, py::arg("moving"), py::arg("fixed"), py::kw_only(), py::arg("single") = !i.multiStart,
        py::arg("directions") = i.directionCount, py::arg("rotations") = i.rotationCount,
        py::arg("iterations") = i.maxIterations, py::arg("samples") = i.sampleCount,
        py::arg("allow_scale") = i.allowScale, py::arg("normals") = i.useNormals,
        py::arg("distance_factor") = i.distanceFactor, py::arg("max_distance") = 0.0, py::arg("initial") = py::none(),
        py::arg("refine") = i.refine, py::arg("refine_factor") = i.refineFactor, py::arg("polish") = true,
        py::arg("progress") = py::none(),
        R"(Registers moving onto fixed by ICP started from many orientations.

single: one run from initial instead of the search over starts.
directions, rotations: directions the moving mesh's axis is aimed at, and spins about it.
iterations: fits in each run. samples: points drawn from each mesh.
allow_scale: also fit a uniform scale. normals: reject pairs whose normals differ.
distance_factor: reject pairs beyond this times the median squared distance;
max_distance: reject pairs farther apart than this (mm) instead (0: the median rule).
initial: 4x4 start of the single run (shift in mm). refine, refine_factor: a last run on
a sample this many times larger. polish: finish with point-to-plane ICP on the full
meshes, as register does. progress: as in register.

Returns an IcpResult: transform (4x4, shift in mm), rms_error (mm, of the search, before
the finish), starts, refined, polished, overlap, fixed_overlap, overlap_rms (mm), doubtful
and doubt (why), seconds by stage.)");

  const ZorStlRegistration::MorphOptions mo;
  m.def("morph", &Morph, py::arg("moving"), py::arg("target"), py::kw_only(), py::arg("register") = mo.registerFirst,
        py::arg("method") = "field", py::arg("tolerance") = mo.toleranceMm,
        py::arg("target_fraction") = mo.targetFraction, py::arg("normal_angle") = mo.normalAngle,
        py::arg("search_distance") = mo.searchDistanceMm, py::arg("smoothing") = mo.smoothing,
        py::arg("max_passes") = mo.maxPasses, py::arg("initial_step") = mo.initialStep,
        py::arg("step_retention") = mo.stepRetention, py::arg("smoothing_passes") = mo.smoothingPasses,
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
counterpart), folded (triangles turned over), local (the change was taken as a local
one: the surface levels alone, without the field over space) and stop (what ended it); with register
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

  m.def("report", &Report, py::arg("path"), py::arg("moving"), py::arg("fixed"), py::kw_only(),
        py::arg("transform") = py::none(), py::arg("range") = py::none(), py::arg("title") = "zor report",
        py::arg("rows") = py::none(),
        R"(Writes an inspection report to path (.html): one page that any browser opens offline,
with moving (moved by transform, when given) coloured by its signed distance to fixed,
fixed as a ghost, a histogram, a colour bar, the largest deviation marked, and rows
((label, text) pairs) as its summary. range as in deviation. Meshes above 500k triangles
are simplified for the view; the numbers come from every vertex. Returns the
DeviationResult the page shows. zor.inspect(path, moving, fixed, result) takes the
transform and the rows from a result.)");

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
