#pragma once
// A mesh as an inspection report's page carries it: positions in file units (float),
// corners, and which point of the full mesh each kept point is; written into the page
// as base64 blobs.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zor/files/detail/atomic_file.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration::detail {

struct PageMesh {
  std::vector<float> xyz;
  std::vector<std::uint32_t> corners;
  std::vector<std::uint32_t> source;  // the full mesh's point (list order) of each kept point
};

// `mesh` moved by `pose` (may be null) in file units, simplified to at most `budget`
// triangles (meshoptimizer keeps a subset of the points, so every point of the page is
// one of the full mesh's).
PageMesh ForPage(const MStlBase& mesh, const MMTransformMatrix* pose, double scale, std::size_t budget);

// Appends `bytes` of `data` to `out` as base64.
void AppendBase64(AtomicFile& out, const void* data, std::size_t bytes);

// Text for HTML and for a JSON string inside a script element.
std::string Escaped(const std::string& s);

}  // namespace ZorStlRegistration::detail
