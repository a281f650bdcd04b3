#pragma once
// Readers of our own for the binary formats that large scans come in (binary STL,
// binary PLY in either byte order): one pass over the file in memory, every count
// checked against the bytes the file has before anything is allocated, every index
// against the vertex count. Other files go to the importer.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zortool {

// A mesh as a file gives it: coordinates in file units, three vertex numbers per
// triangle (polygons as fans), and the vertices already joined on equal coordinates.
struct RawMesh {
  std::vector<double> xyz;
  std::vector<std::uint32_t> indices;
  std::size_t fileVertices = 0;  // vertices the file holds (STL: three per triangle)
  std::size_t joined = 0;        // of those, vertices that repeat an earlier one exactly
};

// Fills `raw` from `bytes` (the whole file) when it is a binary STL (its size is that of
// the triangle count it declares) or a binary PLY; false for any other file. Throws
// InputError, naming `path`, the place and the reason, for a file of those kinds that
// is malformed.
bool ReadNativeMesh(const std::string& path, std::string_view bytes, RawMesh& raw);

}  // namespace zortool
