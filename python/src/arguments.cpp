// The keywords checked against the library's parameter ranges, and the meshes a run
// takes (see operations.h).

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

void NeedTriangles(const Mesh& mesh, const char* role) {
  if (mesh.Stl().GetNumberOfTriangles() == 0)
    throw std::invalid_argument(std::string("the ") + role + " mesh has no triangles");
}

std::pair<std::shared_ptr<Mesh>, std::shared_ptr<Mesh>> Operands(const py::object& first, const char* firstRole,
                                                                 const py::object& second, const char* secondRole) {
  std::shared_ptr<Mesh> a = Mesh::From(first, firstRole);
  std::shared_ptr<Mesh> b = Mesh::From(second, secondRole);
  NeedTriangles(*a, firstRole);
  NeedTriangles(*b, secondRole);
  return {std::move(a), std::move(b)};
}

}  // namespace zorpy
