#pragma once
// The mesh readers: STL (binary and text), PLY (text, binary in either byte
// order), OBJ and OFF. One pass over the file in memory, linear in its size; every
// count checked against what the bytes left can hold before anything is allocated,
// every index against the vertex count, every coordinate for being finite. Files come
// from users' downloads and other programs, so a malformed one is refused with its
// name, the place (line or byte) and the reason, never read past.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zor/files/export.h"

namespace ZorStlRegistration {

// A mesh as a file gives it: coordinates in file units, three vertex numbers per
// triangle (polygons as fans), and the vertices already joined on equal coordinates.
struct RawMesh {
  std::vector<double> xyz;
  std::vector<std::uint32_t> indices;
  std::size_t fileVertices = 0;  // vertices the file holds (STL: three per triangle)
  std::size_t joined = 0;        // of those, vertices that repeat an earlier one exactly
};

// Fills `raw` from `bytes` (the whole file): a binary STL when its size is that of the
// triangle count it declares, a PLY when it starts with "ply", then OBJ and OFF by
// `path`'s extension (OFF also by its keyword), then text STL (by extension or a
// leading "solid"). False for a file of none of these kinds. Throws InputError, naming
// `path`, the place and the reason, for an empty file or a malformed one.
ZOR_FILES_API bool ReadNativeMesh(const std::string& path, std::string_view bytes, RawMesh& raw);

}  // namespace ZorStlRegistration
