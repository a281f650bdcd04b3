#pragma once
// The Python side of a mesh: a zor.Mesh owns one mesh on the integer grid, built from
// NumPy arrays (checked first) or read from a file, and gives its vertices and triangles
// back as arrays in the order it was given them.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "zor/model/stl_base.h"

namespace zorpy {

namespace py = pybind11;

class Mesh {
public:
  explicit Mesh(std::unique_ptr<MStlBase> stl, std::size_t mergedVertices = 0, std::size_t droppedTriangles = 0);

  // Checks `vertices` ((n, 3) real numbers in millimetres, finite, on the 32-bit grid) and
  // `triangles` ((m, 3) integers below n) and builds the mesh: coincident vertices join,
  // triangles with a repeated corner are dropped (both counted). Throws
  // std::invalid_argument with what is wrong.
  static std::shared_ptr<Mesh> FromArrays(const py::handle& vertices, const py::handle& triangles);

  // A zor.Mesh as it is, or anything with `vertices` and `faces` or `triangles`
  // attributes (trimesh, Open3D) built into one. `role` names it in errors.
  static std::shared_ptr<Mesh> From(const py::handle& object, const char* role);

  const MStlBase& Stl() const { return *stl; }
  MStlBase& Stl() { return *stl; }

  // Readers share; a run that writes the mesh's coordinates for its time (a search on the
  // full meshes) takes it alone.
  std::shared_mutex& Access() const { return access; }

  // The arrays below are read under a shared hold of Access, taken with the interpreter
  // let go. (n, 3) doubles in millimetres, list order.
  py::array_t<double> Vertices() const;
  // (m, 3) int64 vertex numbers, list order.
  py::array_t<std::int64_t> Triangles() const;
  // [[xmin, ymin, zmin], [xmax, ymax, zmax]] in millimetres; zeros without points.
  py::array_t<double> Bounds() const;
  // The list position of each triangle by its mask index, made once.
  const std::vector<std::uint32_t>& TriangleNumbers() const;

  std::size_t MergedVertices() const { return mergedVertices; }
  std::size_t DroppedTriangles() const { return droppedTriangles; }

private:
  std::unique_ptr<MStlBase> stl;
  std::size_t mergedVertices = 0;
  std::size_t droppedTriangles = 0;
  mutable std::shared_mutex access;
  mutable std::once_flag numbersMade;
  mutable std::vector<std::uint32_t> triangleNumbers;
};

// (n, 3) finite doubles from `points` (any real dtype), or std::invalid_argument naming
// `what`.
py::array_t<double, py::array::c_style> PointArray(const py::handle& points, const char* what);

// A 4x4 transform in millimetres from `matrix`, or std::invalid_argument.
MMTransformMatrix TransformFrom(const py::handle& matrix, const char* what);
// The transform as a 4x4 array, its shift in millimetres.
py::array_t<double> TransformArray(const MMTransformMatrix& m);

}  // namespace zorpy
