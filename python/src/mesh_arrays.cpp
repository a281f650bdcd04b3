#include "mesh_arrays.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <utility>

#include "zor/model/mesh_builder.h"
#include "zor/model/unit.h"

namespace zorpy {
namespace {

std::string ShapeText(const py::array& a) {
  std::string text = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) text += (i > 0 ? ", " : "") + std::to_string(a.shape(i));
  return text + (a.ndim() == 1 ? ",)" : ")");
}

std::string DtypeText(const py::array& a) { return py::str(a.dtype()).cast<std::string>(); }

// `object` as a NumPy array with rows of `columns` numbers whose dtype kind is one of
// `kinds`; std::invalid_argument otherwise.
py::array Rows(const py::handle& object, py::ssize_t columns, const char* kinds, const char* what,
               const char* kindText) {
  py::array a;
  try {
    a = py::module_::import("numpy").attr("asarray")(object);
  } catch (const py::error_already_set& e) {
    throw std::invalid_argument(std::string(what) + " cannot be read as an array: " + e.what());
  }
  if (a.ndim() != 2 || a.shape(1) != columns)
    throw std::invalid_argument(std::string(what) + " must be an (n, " + std::to_string(columns) +
                                ") array; got shape " + ShapeText(a));
  if (std::string(kinds).find(a.dtype().kind()) == std::string::npos)
    throw std::invalid_argument(std::string(what) + " must hold " + kindText + "; got dtype " + DtypeText(a));
  return a;
}

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", v);
  return text;
}

}  // namespace

Mesh::Mesh(std::unique_ptr<MStlBase> s, std::size_t merged, std::size_t dropped)
    : stl(std::move(s)), mergedVertices(merged), droppedTriangles(dropped) {}

py::array_t<double, py::array::c_style> PointArray(const py::handle& points, const char* what) {
  const py::array rows = Rows(points, 3, "fiu", what, "real numbers");
  auto a = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(rows);
  const double* p = a.data();
  for (py::ssize_t i = 0; i < 3 * a.shape(0); ++i)
    if (!std::isfinite(p[i]))
      throw std::invalid_argument(std::string(what) + ": row " + std::to_string(i / 3) + " holds " + Number(p[i]) +
                                  ", which is not finite");
  return a;
}

std::shared_ptr<Mesh> Mesh::FromArrays(const py::handle& vertices, const py::handle& triangles) {
  const auto v = PointArray(vertices, "vertices");
  const py::array t = Rows(triangles, 3, "iu", "triangles", "integers");
  const std::size_t n = static_cast<std::size_t>(v.shape(0));
  const std::size_t m = static_cast<std::size_t>(t.shape(0));
  if (n > std::numeric_limits<std::uint32_t>::max())
    throw std::invalid_argument("vertices: at most 4294967295 are supported; got " + std::to_string(n));

  // Millimetres to grid steps; the grid holds what rounds into 32 bits.
  const double ie = MUnit::GetIE();
  std::vector<double> xyz(3 * n);
  const double* source = v.data();
  for (std::size_t i = 0; i < 3 * n; ++i) {
    const double g = source[i] * ie;
    if (!(g > -2147483648.5 && g < 2147483647.5))
      throw std::invalid_argument("vertices: row " + std::to_string(i / 3) + " holds " + Number(source[i]) +
                                  " mm, which leaves the 32-bit grid (coordinates up to +-" +
                                  Number(2147483647.0 / ie) + " mm at " + Number(ie) + " grid steps per mm)");
    xyz[i] = g;
  }
  std::vector<std::uint32_t> indices(3 * m);
  const auto check = [&](auto* values) {
    for (std::size_t i = 0; i < 3 * m; ++i) {
      const auto value = values[i];
      if (value < 0)
        throw std::invalid_argument("triangles: row " + std::to_string(i / 3) + " holds the vertex number " +
                                    std::to_string(value) + ", which is negative");
      if (static_cast<std::uint64_t>(value) >= n)
        throw std::invalid_argument("triangles: row " + std::to_string(i / 3) + " holds the vertex number " +
                                    std::to_string(value) + ", but there are " + std::to_string(n) + " vertices");
      indices[i] = static_cast<std::uint32_t>(value);
    }
  };
  if (t.dtype().kind() == 'u')
    check(py::array_t<std::uint64_t, py::array::c_style | py::array::forcecast>::ensure(t).data());
  else
    check(py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>::ensure(t).data());

  MStlBuildReport report;
  std::unique_ptr<MStlBase> stl;
  {
    py::gil_scoped_release release;
    stl = BuildStl(xyz.data(), n, indices.data(), m, &report);
  }
  if (report.trianglesSkipped > 0) {
    const std::string message = std::to_string(report.trianglesSkipped) +
                                " triangle(s) with a repeated corner (after joining coincident vertices) were dropped";
    if (PyErr_WarnEx(PyExc_UserWarning, message.c_str(), 2) != 0) throw py::error_already_set();
  }
  return std::make_shared<Mesh>(std::move(stl), report.pointsMerged, report.trianglesSkipped);
}

std::shared_ptr<Mesh> Mesh::From(const py::handle& object, const char* role) {
  if (py::isinstance<Mesh>(object)) return object.cast<std::shared_ptr<Mesh>>();
  if (py::hasattr(object, "vertices")) {
    for (const char* name : {"faces", "triangles"})
      if (py::hasattr(object, name)) return FromArrays(object.attr("vertices"), object.attr(name));
  }
  throw py::type_error(std::string(role) +
                       " must be a zor.Mesh or have vertices and faces (or triangles) arrays; got " +
                       py::str(py::type::of(object)).cast<std::string>());
}

py::array_t<double> Mesh::Vertices() const {
  // Point and triangle counts never change; the coordinates may be placed for a while by a
  // run on another thread, which is waited for without the interpreter's lock.
  py::array_t<double> out({static_cast<py::ssize_t>(stl->NumberOfPoints()), py::ssize_t{3}});
  double* o = out.mutable_data();
  py::gil_scoped_release release;
  const std::shared_lock<std::shared_mutex> reading(access);
  // Divided rather than multiplied by the reciprocal, so that grid points come back as the
  // short decimals they are (29144 / 1000 is 29.144; 29144 * 0.001 is not).
  const double ie = MUnit::GetIE();
  for (auto it = stl->BeginPoint(); it != stl->EndPoint(); ++it) {
    const MMVector3d p = it->GetDouble();
    for (int k = 0; k < 3; ++k) *o++ = p[k] / ie;
  }
  return out;
}

py::array_t<std::int64_t> Mesh::Triangles() const {
  py::array_t<std::int64_t> out({static_cast<py::ssize_t>(stl->GetNumberOfTriangles()), py::ssize_t{3}});
  std::int64_t* o = out.mutable_data();
  py::gil_scoped_release release;
  const std::shared_lock<std::shared_mutex> reading(access);
  std::vector<std::int64_t> number(stl->GetMasks().GetPointMaskSize());
  std::int64_t next = 0;
  for (auto it = stl->BeginPoint(); it != stl->EndPoint(); ++it) number[it->GetMaskIndex()] = next++;
  for (auto it = stl->BeginTriangle(); it != stl->EndTriangle(); ++it)
    for (std::size_t k = 0; k < 3; ++k) *o++ = number[it->GetPoint(k)->GetMaskIndex()];
  return out;
}

py::array_t<double> Mesh::Bounds() const {
  py::array_t<double> out({py::ssize_t{2}, py::ssize_t{3}});
  double* o = out.mutable_data();
  py::gil_scoped_release release;
  const std::shared_lock<std::shared_mutex> reading(access);
  const double ie = MUnit::GetIE();
  const double v[6] = {double(stl->GetXMin()), double(stl->GetYMin()), double(stl->GetZMin()),
                       double(stl->GetXMax()), double(stl->GetYMax()), double(stl->GetZMax())};
  for (int i = 0; i < 6; ++i) o[i] = stl->NumberOfPoints() > 0 ? v[i] / ie : 0.0;
  return out;
}

const std::vector<std::uint32_t>& Mesh::TriangleNumbers() const {
  std::call_once(numbersMade, [this] {
    triangleNumbers.assign(stl->GetMasks().GetTriangleMaskSize(), 0);
    std::uint32_t next = 0;
    for (auto it = stl->BeginTriangle(); it != stl->EndTriangle(); ++it) triangleNumbers[it->GetMaskIndex()] = next++;
  });
  return triangleNumbers;
}

MMTransformMatrix TransformFrom(const py::handle& matrix, const char* what) {
  py::array a = py::module_::import("numpy").attr("asarray")(matrix);
  if (a.ndim() != 2 || a.shape(0) != 4 || a.shape(1) != 4)
    throw std::invalid_argument(std::string(what) + " must be a 4x4 array; got shape " + ShapeText(a));
  if (std::string("fiu").find(a.dtype().kind()) == std::string::npos)
    throw std::invalid_argument(std::string(what) + " must hold real numbers; got dtype " + DtypeText(a));
  const auto d = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(a);
  double values[16];
  for (int i = 0; i < 16; ++i) values[i] = d.data()[i] * (i % 4 == 3 && i < 12 ? MUnit::GetIE() : 1.0);
  if (values[12] != 0.0 || values[13] != 0.0 || values[14] != 0.0 || values[15] != 1.0)
    throw std::invalid_argument(std::string(what) + " must be affine: its last row must be 0, 0, 0, 1");
  MMTransformMatrix m;
  if (!m.MakeFromDouble16(values)) throw std::invalid_argument(std::string(what) + " must hold finite numbers");
  return m;
}

py::array_t<double> TransformArray(const MMTransformMatrix& m) {
  py::array_t<double> out({py::ssize_t{4}, py::ssize_t{4}});
  double* o = out.mutable_data();
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) o[4 * r + c] = m.GetElement(r, c) / (c == 3 && r < 3 ? MUnit::GetIE() : 1.0);
  return out;
}

}  // namespace zorpy
