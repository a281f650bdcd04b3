// zor.load, Mesh.save and Mesh.transformed.

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

}  // namespace zorpy
