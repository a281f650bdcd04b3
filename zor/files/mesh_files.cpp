#include "zor/files/mesh_files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string_view>

#include "zor/files/detail/atomic_file.h"
#include "zor/files/deviation_colour.h"
#include "zor/files/native_readers.h"
#include "zor/model/stl_iterators.h"
#include "zor/model/unit.h"

namespace ZorStlRegistration {
namespace {

constexpr double kGridLimit = 2147483647.0;
// Below this many grid steps across, rounding to the grid costs more than
// 1/20000 of the mesh's size; above a quarter of the range, a move of the mesh
// by its own size may carry it off the grid.
constexpr double kFewSteps = 1.0e4;
constexpr double kFarOut = 1073741824.0;  // 2^30
constexpr double kComfortableSteps = 1.0e5;
constexpr double kComfortableReach = 536870912.0;  // 2^29

std::string Quoted(const std::string& path) { return "'" + path + "'"; }

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", v);
  return text;
}

// `scale` times the power of ten that brings `have` to at least `want` (up) or
// at most `want` (down).
double SuggestedScale(double scale, double have, double want, bool up) {
  const double exponent = std::log10(want / have);
  return scale * std::pow(10.0, up ? std::ceil(exponent) : std::floor(exponent));
}

std::string LowerExtension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext;
}

}  // namespace

namespace {

// A whole file's bytes, mapped rather than copied: a million-triangle file is read
// once by the reader, straight from the page cache.
class FileBytes {
public:
  explicit FileBytes(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw InputError("cannot read " + Quoted(path) + ": " + std::strerror(errno));
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
      const int error = errno;
      ::close(fd);
      throw InputError("cannot read " + Quoted(path) + ": " +
                       (S_ISDIR(info.st_mode) ? std::string("it is a directory")
                        : error != 0          ? std::string(std::strerror(error))
                                              : std::string("it is not a regular file")));
    }
    size = static_cast<std::size_t>(info.st_size);
    if (size > 0) {
      void* at = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
      if (at == MAP_FAILED) {
        const int error = errno;
        ::close(fd);
        throw InputError("cannot read " + Quoted(path) + ": " + std::strerror(error));
      }
      data = static_cast<const char*>(at);
    }
    ::close(fd);
  }
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  ~FileBytes() {
    if (data != nullptr) ::munmap(const_cast<char*>(data), size);
  }
  std::string_view View() const { return {data, size}; }

private:
  const char* data = nullptr;
  std::size_t size = 0;
};

}  // namespace

LoadedMesh ReadMesh(const std::string& path, double scale) {
  const auto start = std::chrono::steady_clock::now();
  const double toGrid = scale * MUnit::GetIE();
  std::vector<double> xyz;
  std::vector<std::uint32_t> indices;
  std::size_t fileVertices = 0, joinedBefore = 0;
  RawMesh raw;
  bool native = false;
  {
    const FileBytes bytes(path);
    native = ReadNativeMesh(path, bytes.View(), raw);
  }
  if (!native) {
    const std::string extension = std::filesystem::path(path).extension().string();
    throw InputError("cannot read " + Quoted(path) + ": not an STL, PLY, OBJ or OFF file" +
                     (extension.empty() ? std::string() : " (unknown format '" + extension + "')"));
  }
  xyz = std::move(raw.xyz);
  indices = std::move(raw.indices);
  fileVertices = raw.fileVertices;
  joinedBefore = raw.joined;
  // To the grid, every coordinate checked.
  double reach = 0.0;
  for (std::size_t i = 0; i < xyz.size(); ++i) {
    const double c = xyz[i] * toGrid;
    if (!std::isfinite(c))
      throw InputError(Quoted(path) + ": vertex " + std::to_string(i / 3 + 1) +
                       " has a coordinate that is not finite (" + Number(xyz[i]) + ")");
    reach = std::max(reach, std::fabs(c));
    xyz[i] = c;
  }
  if (indices.empty()) throw InputError(Quoted(path) + " has no triangles");
  if (reach > kGridLimit)
    throw InputError(Quoted(path) + ": coordinates reach " + Number(reach / toGrid) +
                     ", past the 32-bit grid at scale " + Number(scale) + " (at most " + Number(kGridLimit / toGrid) +
                     "); try --scale " + Number(SuggestedScale(scale, reach, kComfortableReach, false)));

  LoadedMesh loaded;
  loaded.fileVertices = fileVertices;
  loaded.fileTriangles = indices.size() / 3;
  loaded.mesh = BuildStl(xyz.data(), xyz.size() / 3, indices.data(), loaded.fileTriangles, &loaded.joined);
  loaded.joined.pointsMerged += joinedBefore;
  if (loaded.mesh->GetNumberOfTriangles() == 0)
    throw InputError(Quoted(path) + " has no triangles with area: all " + std::to_string(loaded.fileTriangles) +
                     " collapse on the grid at scale " + Number(scale) + "; try --scale " +
                     Number(SuggestedScale(scale, std::max(reach, 1.0), kComfortableSteps, true)));
  loaded.warnings = GridAdvice(Quoted(path), *loaded.mesh, scale);
  loaded.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return loaded;
}

std::vector<std::string> GridAdvice(const std::string& what, const MStlBase& mesh, double scale) {
  std::vector<std::string> advice;
  const double dx = double(mesh.GetXMax()) - mesh.GetXMin(), dy = double(mesh.GetYMax()) - mesh.GetYMin(),
               dz = double(mesh.GetZMax()) - mesh.GetZMin();
  const double steps = std::sqrt(dx * dx + dy * dy + dz * dz);
  const double step = 1.0 / (scale * MUnit::GetIE());
  if (steps < kFewSteps)
    advice.push_back(what + " spans only " + Number(std::round(steps)) + " grid steps of " + Number(step) +
                     " file units; rounding to the grid costs accuracy; try --scale " +
                     Number(SuggestedScale(scale, std::max(steps, 1.0), kComfortableSteps, true)));
  double reach = 0.0;
  for (double c : {double(mesh.GetXMin()), double(mesh.GetYMin()), double(mesh.GetZMin()), double(mesh.GetXMax()),
                   double(mesh.GetYMax()), double(mesh.GetZMax())})
    reach = std::max(reach, std::fabs(c));
  if (reach > kFarOut)
    advice.push_back(what + " reaches " + Number(reach * step) + " file units, near the edge of the 32-bit grid (" +
                     Number(kGridLimit * step) + "); a move may carry it off; try --scale " +
                     Number(SuggestedScale(scale, reach, kComfortableReach, false)));
  return advice;
}

MeshFormat CheckOutputPath(const std::string& path) {
  const std::string ext = LowerExtension(path);
  MeshFormat format;
  if (ext == ".stl")
    format = MeshFormat::Stl;
  else if (ext == ".ply")
    format = MeshFormat::Ply;
  else if (ext == ".obj")
    format = MeshFormat::Obj;
  else if (ext == ".off")
    format = MeshFormat::Off;
  else
    throw InputError("cannot write " + Quoted(path) + ": unknown format " +
                     (ext.empty() ? "(no extension)" : Quoted(ext)) + "; use .stl, .ply, .obj or .off");
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::error_code ec;
  if (!folder.empty() && !std::filesystem::is_directory(folder, ec))
    throw InputError("cannot write " + Quoted(path) + ": no folder " + Quoted(folder.string()));
  return format;
}

namespace detail {

FileGeometry InFileUnits(const MStlBase& mesh, const MMTransformMatrix* pose, double scale) {
  // Divided rather than multiplied by the reciprocal: grid points then print as
  // the short decimals they are (29144 / 1000 is 29.144; 29144 * 0.001 is not).
  const double gridPerFileUnit = scale * MUnit::GetIE();
  FileGeometry g;
  std::vector<std::uint32_t> number(mesh.GetMasks().GetPointMaskSize());
  g.points.reserve(mesh.NumberOfPoints());
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it) {
    number[it->GetMaskIndex()] = static_cast<std::uint32_t>(g.points.size());
    MMVector3d p = it->GetDouble();
    if (pose != nullptr) pose->Transform(p, false);
    g.points.emplace_back(p[0] / gridPerFileUnit, p[1] / gridPerFileUnit, p[2] / gridPerFileUnit);
  }
  g.triangles.reserve(3 * mesh.GetNumberOfTriangles());
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it)
    for (std::size_t k = 0; k < 3; ++k) g.triangles.push_back(number[it->GetPoint(k)->GetMaskIndex()]);
  return g;
}

}  // namespace detail

void WriteDeviationMap(const MStlBase& mesh, const MMTransformMatrix* pose, double scale, const std::string& path,
                       const std::vector<double>& distances, double range,
                       const std::vector<std::uint8_t>& counterpart) {
  const std::string extension = LowerExtension(path);
  if (extension != ".ply") throw InputError("the deviation map " + Quoted(path) + " must be a .ply file");
  CheckOutputPath(path);
  const detail::FileGeometry g = detail::InFileUnits(mesh, pose, scale);
  if (distances.size() != g.points.size())
    throw std::logic_error("WriteDeviationMap: one distance per point is needed");
  if (!counterpart.empty() && counterpart.size() != g.points.size())
    throw std::logic_error("WriteDeviationMap: one counterpart flag per point is needed");
  const double gridPerFileUnit = scale * MUnit::GetIE();
  detail::AtomicFile out(path);
  out.Append("ply\nformat binary_little_endian 1.0\ncomment deviation map written by zor-register\n");
  out.Append("comment quality: signed distance to the fixed surface in file units, positive outside\n");
  out.Append("comment colours: green within ");
  out.Append(range / gridPerFileUnit);
  out.Append(" file units, yellow to red above, cyan to blue below, grey without a counterpart\nelement vertex ");
  out.Append(std::uint64_t{g.points.size()});
  out.Append(
      "\nproperty float x\nproperty float y\nproperty float z\nproperty float quality\n"
      "property uchar red\nproperty uchar green\nproperty uchar blue\nelement face ");
  out.Append(std::uint64_t{g.triangles.size() / 3});
  out.Append("\nproperty list uchar uint vertex_indices\nend_header\n");
  for (std::size_t i = 0; i < g.points.size(); ++i) {
    for (int k = 0; k < 3; ++k) out.AppendRaw(static_cast<float>(g.points[i][k]));
    out.AppendRaw(static_cast<float>(distances[i] / gridPerFileUnit));
    const bool apart = !counterpart.empty() && counterpart[i] == 0;
    for (const std::uint8_t c : apart ? kNoCounterpartColour : DeviationColour(distances[i], range)) out.AppendRaw(c);
  }
  for (std::size_t t = 0; t < g.triangles.size(); t += 3) {
    out.AppendRaw(std::uint8_t{3});
    for (int k = 0; k < 3; ++k) out.AppendRaw(g.triangles[t + k]);
  }
  out.Commit();
}

void WriteMesh(const MStlBase& mesh, const MMTransformMatrix* pose, double scale, const std::string& path, bool ascii) {
  const MeshFormat format = CheckOutputPath(path);
  detail::FileGeometry g = detail::InFileUnits(mesh, pose, scale);
  const std::vector<MMVector3d>& points = g.points;
  const std::vector<std::uint32_t>& triangles = g.triangles;
  const std::uint64_t pointCount = points.size(), triangleCount = triangles.size() / 3;

  detail::AtomicFile out(path);
  const auto normal = [&](std::size_t t) {
    const MMVector3d& a = points[triangles[3 * t]];
    MMVector3d n = Cross(points[triangles[3 * t + 1]] - a, points[triangles[3 * t + 2]] - a);
    Normalize(n);
    return n;
  };
  const auto appendPoint = [&](const char* prefix, const MMVector3d& p) {
    out.Append(prefix);
    for (int k = 0; k < 3; ++k) {
      if (k > 0) out.Append(" ");
      out.Append(p[k]);
    }
    out.Append("\n");
  };
  const auto appendTriangle = [&](const char* prefix, std::size_t t, std::uint32_t first) {
    out.Append(prefix);
    for (int k = 0; k < 3; ++k) {
      if (k > 0) out.Append(" ");
      out.Append(std::uint64_t{triangles[3 * t + k]} + first);
    }
    out.Append("\n");
  };

  switch (format) {
    case MeshFormat::Stl:
      if (ascii) {
        out.Append("solid zor-register\n");
        for (std::size_t t = 0; t < triangleCount; ++t) {
          appendPoint("facet normal ", normal(t));
          out.Append("outer loop\n");
          for (int k = 0; k < 3; ++k) appendPoint("vertex ", points[triangles[3 * t + k]]);
          out.Append("endloop\nendfacet\n");
        }
        out.Append("endsolid zor-register\n");
      } else {
        char header[80] = "binary STL written by zor-register";
        out.Append(std::string_view(header, sizeof header));
        if (triangleCount > std::numeric_limits<std::uint32_t>::max())
          throw InputError("cannot write " + Quoted(path) + ": binary STL holds at most 2^32 - 1 triangles");
        out.AppendRaw(static_cast<std::uint32_t>(triangleCount));
        for (std::size_t t = 0; t < triangleCount; ++t) {
          const MMVector3d n = normal(t);
          for (int k = 0; k < 3; ++k) out.AppendRaw(static_cast<float>(n[k]));
          for (int c = 0; c < 3; ++c)
            for (int k = 0; k < 3; ++k) out.AppendRaw(static_cast<float>(points[triangles[3 * t + c]][k]));
          out.AppendRaw(std::uint16_t{0});
        }
      }
      break;
    case MeshFormat::Ply:
      out.Append(ascii ? "ply\nformat ascii 1.0\n" : "ply\nformat binary_little_endian 1.0\n");
      out.Append("comment written by zor-register\nelement vertex ");
      out.Append(pointCount);
      out.Append(
          "\nproperty double x\nproperty double y\nproperty double "
          "z\nelement face ");
      out.Append(triangleCount);
      out.Append("\nproperty list uchar uint vertex_indices\nend_header\n");
      if (ascii) {
        for (const MMVector3d& p : points) appendPoint("", p);
        for (std::size_t t = 0; t < triangleCount; ++t) appendTriangle("3 ", t, 0);
      } else {
        for (const MMVector3d& p : points)
          for (int k = 0; k < 3; ++k) out.AppendRaw(p[k]);
        for (std::size_t t = 0; t < triangleCount; ++t) {
          out.AppendRaw(std::uint8_t{3});
          for (int k = 0; k < 3; ++k) out.AppendRaw(triangles[3 * t + k]);
        }
      }
      break;
    case MeshFormat::Obj:
      out.Append("# written by zor-register\n");
      for (const MMVector3d& p : points) appendPoint("v ", p);
      for (std::size_t t = 0; t < triangleCount; ++t) appendTriangle("f ", t, 1);
      break;
    case MeshFormat::Off:
      out.Append("OFF\n");
      out.Append(pointCount);
      out.Append(" ");
      out.Append(triangleCount);
      out.Append(" 0\n");
      for (const MMVector3d& p : points) appendPoint("", p);
      for (std::size_t t = 0; t < triangleCount; ++t) appendTriangle("3 ", t, 0);
      break;
  }
  out.Commit();
}

}  // namespace ZorStlRegistration
