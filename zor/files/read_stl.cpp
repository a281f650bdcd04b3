#include "zor/files/detail/reader_support.h"
#include "zor/model/detail/vertex_join.h"

namespace ZorStlRegistration::detail {

// ---------------------------------------------------------------------------------------
// Binary STL

bool ReadBinaryStl(const std::string& path, std::string_view bytes, RawMesh& raw) {
  if (bytes.size() < 84) return false;
  const std::uint64_t count = Load32(bytes.data() + 80, false);
  if (84 + 50 * count != bytes.size()) return false;  // a text STL, or not an STL
  // Vertices join on their exact float coordinates (the mesh builder joins them again
  // on the grid). Closed meshes have about half as many vertices as triangles, which
  // sizes the first table.
  using ZorMesh::detail::JoinKey;
  std::vector<JoinKey> unique;
  unique.reserve(count / 2 + 16);
  ZorMesh::detail::VertexJoinTable table(count / 2 + 16);
  const auto keyOf = [&unique](std::uint32_t j) { return unique[j]; };
  // The corner's coordinates as bits, -0 as 0 (one place); false if one is not finite.
  const auto cornerKey = [&](std::uint64_t corner, float* v, JoinKey& key) {
    const char* at = bytes.data() + 84 + 50 * (corner / 3) + 12 + 12 * (corner % 3);
    bool finite = true;
    for (std::size_t d = 0; d < 3; ++d) {
      v[d] = LoadFloat(at + 4 * d, false);
      finite = finite && std::isfinite(v[d]);
      if (v[d] == 0.0f) v[d] = 0.0f;
      std::memcpy(&key.words[d], &v[d], sizeof key.words[d]);
    }
    return finite;
  };
  constexpr std::uint64_t kAhead = 8;
  raw.indices.resize(3 * count);
  for (std::uint64_t corner = 0; corner < 3 * count; ++corner) {
    float v[3];
    JoinKey key;
    if (corner + kAhead < 3 * count && cornerKey(corner + kAhead, v, key)) table.Prefetch(key);
    if (!cornerKey(corner, v, key)) {
      const float bad = !std::isfinite(v[0]) ? v[0] : !std::isfinite(v[1]) ? v[1] : v[2];
      char text[32];
      std::snprintf(text, sizeof text, "%g", double(bad));
      throw InputError("'" + path + "': vertex " + std::to_string(corner + 1) +
                       " has a coordinate that is not finite (" + text + ")");
    }
    const std::uint32_t number = table.Join(key, static_cast<std::uint32_t>(unique.size()), keyOf);
    if (number == unique.size()) unique.push_back(key);
    raw.indices[corner] = number;
  }
  raw.xyz.resize(3 * unique.size());
  for (std::size_t j = 0; j < unique.size(); ++j)
    for (std::size_t d = 0; d < 3; ++d) {
      float f;
      std::memcpy(&f, &unique[j].words[d], sizeof f);
      raw.xyz[3 * j + d] = f;
    }
  raw.fileVertices = 3 * count;
  raw.joined = raw.fileVertices - unique.size();
  return true;
}

// Text STL: "vertex x y z" lines between "outer loop" and "endloop", a triangle or a
// polygon per loop; other words are skipped to their line's end.
void ReadTextStl(const std::string& path, std::string_view bytes, RawMesh& raw) {
  Text text(path, bytes);
  std::size_t loopStart = 0;
  bool inLoop = false;
  while (!text.AtEnd()) {
    const std::string_view w = text.Word();
    if (w == "vertex") {
      if (!inLoop) text.Fail("a vertex outside an outer loop");
      for (int d = 0; d < 3; ++d) raw.xyz.push_back(text.Number("vertex coordinate", false));
    } else if (w == "outer") {
      if (inLoop) text.Fail("an outer loop inside another");
      inLoop = true;
      loopStart = raw.xyz.size() / 3;
    } else if (w == "endloop") {
      if (!inLoop) text.Fail("endloop without outer loop");
      const std::size_t n = raw.xyz.size() / 3 - loopStart;
      if (n < 3) text.Fail("a loop of " + std::to_string(n) + " vertices");
      if (raw.xyz.size() / 3 >= 0xFFFFFFFFu) text.Fail("more vertices than 32-bit indices reach");
      AddFan(raw.indices, n, [&](std::size_t i) { return static_cast<std::uint32_t>(loopStart + i); });
      inLoop = false;
    }
    text.NextLine();
  }
  if (inLoop) text.Fail("the file ends inside an outer loop");
  raw.fileVertices = raw.xyz.size() / 3;
}

}  // namespace ZorStlRegistration::detail
