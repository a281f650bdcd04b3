// zor.closest_points and zor.deviation: where one mesh lies against another.

#include "zor/pair/deviation.h"

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
#include "zor/files/inspection_report.h"
#include "zor/files/mesh_files.h"
#include "zor/model/stopwatch.h"
#include "zor/model/unit.h"
#include "zor/pair/pair.h"
#include "zor/pair/pair_parameters.h"
#include "zor/pair/pair_registration.h"
#include "zor/spatial/tree_property.h"

namespace zorpy {

using Registration = MUserOperatorStlRegistration;
using Icp = ZorStlRegistration::MStlBaseOperatorRegistrationICP;

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

namespace {

// The distances of moving (moved by `transform`) from fixed, with the range they are
// judged by and their summary: `range` mm when given, else three times the median
// distance (one grid step at least).
struct Measured {
  std::vector<double> distances;
  ZorStlRegistration::DeviationSummary summary;
};

Measured Measure(const Mesh& moving, const Mesh& fixed, const std::optional<MMTransformMatrix>& pose,
                 std::optional<double> rangeMm) {
  Measured m;
  const double ie = MUnit::GetIE();
  m.distances = ZorStlRegistration::SignedDistances(moving.Stl(), pose ? &*pose : nullptr, fixed.Stl());
  double within = 0.0;
  if (rangeMm) {
    within = *rangeMm * ie;
  } else {
    // Three times the median distance: the bulk of a good fit shows green, what stands
    // out shows in colour. One grid step at least.
    std::vector<double> magnitudes;
    magnitudes.reserve(m.distances.size());
    for (double v : m.distances)
      if (std::isfinite(v)) magnitudes.push_back(std::abs(v));
    within = std::max(3.0 * ZorStlRegistration::NearestRank(magnitudes, 0.5), 1.0);
  }
  m.summary = ZorStlRegistration::SummariseDeviation(m.distances, within);
  return m;
}

DeviationResult ResultOf(const Measured& m) {
  const double ie = MUnit::GetIE();
  DeviationResult out;
  const py::ssize_t n = static_cast<py::ssize_t>(m.distances.size());
  out.distances = py::array_t<double>(n);
  out.colours = py::array_t<std::uint8_t>({n, py::ssize_t{3}});
  double* d = out.distances.mutable_data();
  std::uint8_t* c = out.colours.mutable_data();
  for (py::ssize_t i = 0; i < n; ++i) {
    d[i] = m.distances[i] / ie;
    const auto rgb = ZorStlRegistration::DeviationColour(m.distances[i], m.summary.tolerance);
    std::copy(rgb.begin(), rgb.end(), c + 3 * i);
  }
  out.range = m.summary.tolerance / ie;
  out.within_share = m.summary.withinShare;
  out.percentile95 = m.summary.percentile95 / ie;
  out.largest = m.summary.largest / ie;
  return out;
}

std::optional<double> RangeMm(const py::object& range) {
  if (range.is_none()) return std::nullopt;
  return Within(PairRanges::kDeviationRange, py::float_(range).cast<double>());
}

}  // namespace

DeviationResult Deviation(const py::object& movingObject, const py::object& fixedObject, const py::object& transform,
                          const py::object& range) {
  const std::shared_ptr<Mesh> moving = Mesh::From(movingObject, "moving");
  const std::shared_ptr<Mesh> fixed = Mesh::From(fixedObject, "fixed");
  NeedTriangles(*fixed, "fixed");
  std::optional<MMTransformMatrix> pose;
  if (!transform.is_none()) pose = TransformFrom(transform, "transform");
  const std::optional<double> rangeMm = RangeMm(range);
  Measured measured;
  {
    py::gil_scoped_release release;
    const MeshLocks locks({moving.get(), fixed.get()}, false);
    measured = Measure(*moving, *fixed, pose, rangeMm);
  }
  return ResultOf(measured);
}

DeviationResult Report(const std::filesystem::path& path, const py::object& movingObject, const py::object& fixedObject,
                       const py::object& transform, const py::object& range, const std::string& title,
                       const py::object& rows) {
  const std::shared_ptr<Mesh> moving = Mesh::From(movingObject, "moving");
  const std::shared_ptr<Mesh> fixed = Mesh::From(fixedObject, "fixed");
  std::optional<MMTransformMatrix> pose;
  if (!transform.is_none()) pose = TransformFrom(transform, "transform");
  const std::optional<double> rangeMm = RangeMm(range);
  ZorStlRegistration::InspectionReport report;
  report.title = title;
  if (!rows.is_none())
    for (const py::handle row : rows) {
      const py::tuple pair = py::reinterpret_borrow<py::object>(row).cast<py::tuple>();
      if (pair.size() != 2) throw py::value_error("rows: each row is a (label, text) pair");
      report.rows.emplace_back(py::str(pair[0]).cast<std::string>(), py::str(pair[1]).cast<std::string>());
    }
  Measured measured;
  {
    py::gil_scoped_release release;
    const MeshLocks locks({moving.get(), fixed.get()}, false);
    measured = Measure(*moving, *fixed, pose, rangeMm);
    report.moving = &moving->Stl();
    report.fixed = &fixed->Stl();
    report.pose = pose ? &*pose : nullptr;
    report.distances = measured.distances;
    report.range = measured.summary.tolerance;
    if (fixed->Stl().GetNumberOfTriangles() == 0)
      report.problem = "The fixed mesh has no triangles: there is no surface to measure against.";
    ZorStlRegistration::WriteInspectionReport(report, path.string());
  }
  return ResultOf(measured);
}

}  // namespace zorpy
