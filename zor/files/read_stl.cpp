#include "zor/files/detail/reader_support.h"

namespace ZorStlRegistration::detail {

// ---------------------------------------------------------------------------------------
// Binary STL

bool ReadBinaryStl(const std::string& path, std::string_view bytes, RawMesh& raw) {
  if (bytes.size() < 84) return false;
  const std::uint64_t count = Load32(bytes.data() + 80, false);
  if (84 + 50 * count != bytes.size()) return false;  // a text STL, or not an STL
  // Vertices join on their exact float coordinates, on an open-addressing table that
  // stays at most half full. A slot holds the upper half of the vertex's hash beside
  // its number, so probes past other vertices do not read their coordinates. Closed
  // meshes have about half as many vertices as triangles, which sizes the first table;
  // the slot of a corner some places ahead is fetched early, since on large files
  // nearly every probe misses the cache.
  constexpr std::uint64_t kEmpty = ~std::uint64_t(0);
  std::vector<float> unique;
  unique.reserve(3 * (count / 2 + 16));
  std::size_t slots = 64;
  while (slots < count + 32) slots *= 2;
  std::vector<std::uint64_t> table(slots, kEmpty);
  std::size_t used = 0;
  const auto hash = [](const std::uint32_t* bits) {
    std::uint64_t h = bits[0] * 0x9E3779B97F4A7C15ull;
    h ^= bits[1] * 0xC2B2AE3D27D4EB4Full;
    h = (h << 31) | (h >> 33);
    h ^= bits[2] * 0x165667B19E3779F9ull;
    h ^= h >> 29;
    return h * 0xBF58476D1CE4E5B9ull;
  };
  // The corner's coordinates as bits, -0 as 0 (one place); false if one is not finite.
  const auto cornerBits = [&](std::uint64_t corner, float* v, std::uint32_t* bits) {
    const char* at = bytes.data() + 84 + 50 * (corner / 3) + 12 + 12 * (corner % 3);
    bool finite = true;
    for (std::size_t d = 0; d < 3; ++d) {
      v[d] = LoadFloat(at + 4 * d, false);
      finite = finite && std::isfinite(v[d]);
      if (v[d] == 0.0f) v[d] = 0.0f;
      std::memcpy(&bits[d], &v[d], sizeof bits[d]);
    }
    return finite;
  };
  const auto insert = [&](std::vector<std::uint64_t>& into, std::uint64_t h, std::uint64_t number) {
    const std::size_t mask = into.size() - 1;
    std::size_t at = h & mask;
    while (into[at] != kEmpty) at = (at + 1) & mask;
    into[at] = (h >> 32 << 32) | number;
  };
  const auto grow = [&] {
    std::vector<std::uint64_t> bigger(2 * table.size(), kEmpty);
    for (std::uint64_t v = 0; v < unique.size() / 3; ++v) {
      std::uint32_t bits[3];
      std::memcpy(bits, &unique[3 * v], sizeof bits);
      insert(bigger, hash(bits), v);
    }
    table.swap(bigger);
  };
  constexpr std::uint64_t kAhead = 8;
  raw.indices.resize(3 * count);
  for (std::uint64_t corner = 0; corner < 3 * count; ++corner) {
    float v[3];
    std::uint32_t bits[3];
    if (corner + kAhead < 3 * count && cornerBits(corner + kAhead, v, bits))
      __builtin_prefetch(&table[hash(bits) & (table.size() - 1)]);
    if (!cornerBits(corner, v, bits)) {
      const float bad = !std::isfinite(v[0]) ? v[0] : !std::isfinite(v[1]) ? v[1] : v[2];
      char text[32];
      std::snprintf(text, sizeof text, "%g", double(bad));
      throw InputError("'" + path + "': vertex " + std::to_string(corner + 1) +
                       " has a coordinate that is not finite (" + text + ")");
    }
    if (2 * (used + 1) > table.size()) grow();
    const std::size_t mask = table.size() - 1;
    const std::uint64_t h = hash(bits), tag = h >> 32 << 32;
    for (std::size_t at = h & mask;; at = (at + 1) & mask) {
      const std::uint64_t slot = table[at];
      if (slot == kEmpty) {
        const std::uint64_t number = unique.size() / 3;
        table[at] = tag | number;
        unique.insert(unique.end(), v, v + 3);
        ++used;
        raw.indices[corner] = static_cast<std::uint32_t>(number);
        break;
      }
      const std::uint64_t j = slot & 0xFFFFFFFFu;
      if ((slot ^ tag) >> 32 == 0 && unique[3 * j] == v[0] && unique[3 * j + 1] == v[1] && unique[3 * j + 2] == v[2]) {
        raw.indices[corner] = static_cast<std::uint32_t>(j);
        break;
      }
    }
  }
  raw.xyz.assign(unique.begin(), unique.end());
  raw.fileVertices = 3 * count;
  raw.joined = raw.fileVertices - unique.size() / 3;
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
