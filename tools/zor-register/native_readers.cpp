#include "tools/zor-register/native_readers.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>

#include "tools/zor-register/mesh_files.h"

namespace zortool {
namespace {

std::uint32_t Load32(const char* p, bool bigEndian) {
  const auto* b = reinterpret_cast<const unsigned char*>(p);
  return bigEndian ? (std::uint32_t(b[0]) << 24) | (std::uint32_t(b[1]) << 16) | (std::uint32_t(b[2]) << 8) | b[3]
                   : (std::uint32_t(b[3]) << 24) | (std::uint32_t(b[2]) << 16) | (std::uint32_t(b[1]) << 8) | b[0];
}

std::uint64_t Load64(const char* p, bool bigEndian) {
  const std::uint64_t first = Load32(p, bigEndian), second = Load32(p + 4, bigEndian);
  return bigEndian ? (first << 32) | second : (second << 32) | first;
}

float LoadFloat(const char* p, bool bigEndian) {
  const std::uint32_t bits = Load32(p, bigEndian);
  float v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

[[noreturn]] void Fail(const std::string& path, const std::string& where, const std::string& why) {
  throw InputError("cannot read '" + path + "': " + why + " (" + where + ")");
}

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
    for (int d = 0; d < 3; ++d) {
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
      if ((slot ^ tag) >> 32 == 0 && std::memcmp(&unique[3 * j], v, sizeof v) == 0) {
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

// ---------------------------------------------------------------------------------------
// Text

// A cursor over a text file: numbers and words without allocating, lines counted for
// messages. Every call moves forward or fails, so a reader built on it is linear in the
// file's size.
class Text {
public:
  // `bytes` starts on line `firstLine` of the file.
  Text(const std::string& file, std::string_view bytes, std::size_t firstLine = 1)
      : path(file), p(bytes.data()), end(bytes.data() + bytes.size()), line(firstLine) {}

  // Skips blanks on this line (and a '#' comment to its end when `comments`).
  void SkipBlanks() {
    while (p < end && (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\f' || *p == '\v')) ++p;
    if (comments && p < end && *p == '#')
      while (p < end && *p != '\n') ++p;
  }
  // Skips blanks and line ends.
  void SkipSpace() {
    for (;;) {
      SkipBlanks();
      if (p < end && *p == '\n') {
        ++p;
        ++line;
        continue;
      }
      return;
    }
  }
  bool AtEnd() {
    SkipSpace();
    return p == end;
  }
  bool AtLineEnd() {
    SkipBlanks();
    return p == end || *p == '\n';
  }
  // Moves past the end of this line.
  void NextLine() {
    while (p < end && *p != '\n') ++p;
    if (p < end) {
      ++p;
      ++line;
    }
  }
  // The next word on this line; empty at the line's end.
  std::string_view Word() {
    SkipBlanks();
    const char* start = p;
    while (p < end && !IsSpace(*p)) ++p;
    return {start, static_cast<std::size_t>(p - start)};
  }
  // The next word, across lines; empty at the file's end.
  std::string_view AnyWord() {
    SkipSpace();
    return Word();
  }
  // A finite number: the next word (across lines when `anyLine`) read whole.
  double Number(const char* what, bool anyLine = true) {
    const std::string_view w = anyLine ? AnyWord() : Word();
    if (w.empty()) Fail(std::string(what) + ": the " + (p == end ? "file" : "line") + " ends before it");
    double v = 0.0;
    const char* first = w.data();
    if (*first == '+') ++first;
    const auto [stop, error] = std::from_chars(first, w.data() + w.size(), v);
    if (error != std::errc() || stop != w.data() + w.size() || first == w.data() + w.size())
      Fail(std::string(what) + ": '" + Clip(w) + "' is not a number");
    if (!std::isfinite(v)) Fail(std::string(what) + ": '" + Clip(w) + "' is not finite");
    return v;
  }
  // A whole number within [lo, hi].
  std::int64_t Integer(const char* what, std::int64_t lo, std::int64_t hi, bool anyLine = true) {
    const std::string_view w = anyLine ? AnyWord() : Word();
    if (w.empty()) Fail(std::string(what) + ": the " + (p == end ? "file" : "line") + " ends before it");
    std::int64_t v = 0;
    const char* first = w.data();
    if (*first == '+') ++first;
    const auto [stop, error] = std::from_chars(first, w.data() + w.size(), v);
    if (error != std::errc() || stop != w.data() + w.size() || first == w.data() + w.size())
      Fail(std::string(what) + ": '" + Clip(w) + "' is not a whole number");
    if (v < lo || v > hi)
      Fail(std::string(what) + ": " + std::to_string(v) + " is not within [" + std::to_string(lo) + ", " +
           std::to_string(hi) + "]");
    return v;
  }
  // At most the bytes left can hold `count` items of at least `least` bytes each.
  void Need(std::uint64_t count, std::size_t least, const std::string& what) {
    const std::uint64_t left = static_cast<std::uint64_t>(end - p) + 1;
    if (count > left / least) Fail(what + " cannot fit in the " + std::to_string(end - p) + " bytes that follow");
  }
  [[noreturn]] void Fail(const std::string& why) const { zortool::Fail(path, "line " + std::to_string(line), why); }

  bool comments = false;

private:
  static bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v'; }
  static std::string Clip(std::string_view w) {
    return w.size() > 24 ? std::string(w.substr(0, 24)) + "..." : std::string(w);
  }

  const std::string& path;
  const char* p;
  const char* end;
  std::size_t line;
};

// The triangles of a polygon of `n` corners from `corner(i)`, as a fan from its first.
template <typename Corner>
void AddFan(std::vector<std::uint32_t>& indices, std::size_t n, Corner&& corner) {
  for (std::size_t i = 2; i < n; ++i) indices.insert(indices.end(), {corner(0), corner(i - 1), corner(i)});
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

// OBJ: "v x y z" and "f" with one to three slash-separated numbers per corner (the
// first is the vertex; negative counts back from the last vertex so far); polygons as
// fans; every other statement skipped.
void ReadObj(const std::string& path, std::string_view bytes, RawMesh& raw) {
  Text text(path, bytes);
  text.comments = true;
  std::vector<std::uint32_t> corners;
  while (!text.AtEnd()) {
    const std::string_view w = text.Word();
    if (w == "v") {
      for (int d = 0; d < 3; ++d) raw.xyz.push_back(text.Number("vertex coordinate", false));
      if (raw.xyz.size() / 3 >= 0xFFFFFFFFu) text.Fail("more vertices than 32-bit indices reach");
    } else if (w == "f") {
      corners.clear();
      const std::int64_t count = static_cast<std::int64_t>(raw.xyz.size() / 3);
      while (!text.AtLineEnd()) {
        const std::string_view corner = text.Word();
        const std::string_view first = corner.substr(0, corner.find('/'));
        std::int64_t v = 0;
        const char* begin = first.data() + (!first.empty() && first[0] == '+' ? 1 : 0);
        const auto [stop, error] = std::from_chars(begin, first.data() + first.size(), v);
        if (first.empty() || error != std::errc() || stop != first.data() + first.size())
          text.Fail("face corner '" + std::string(corner.substr(0, 24)) + "' does not start with a vertex number");
        const std::int64_t index = v < 0 ? count + v : v - 1;
        if (v == 0 || index < 0 || index >= count)
          text.Fail("vertex " + std::to_string(v) + " of a face is not among the " + std::to_string(count) +
                    " vertices so far");
        corners.push_back(static_cast<std::uint32_t>(index));
      }
      if (corners.size() < 3) text.Fail("a face of " + std::to_string(corners.size()) + " corners");
      AddFan(raw.indices, corners.size(), [&](std::size_t i) { return corners[i]; });
    }
    text.NextLine();
  }
  raw.fileVertices = raw.xyz.size() / 3;
}

// OFF and its common variants: a keyword of [ST][C][N][4][n]OFF, then the vertex, face
// and edge counts (on the keyword's line or the next), then one vertex per line (its
// first three numbers; a fourth divides them in 4OFF; normals, colours and texture
// coordinates after them are skipped), then one face per line: its corner count and
// corners (a colour after them is skipped). '#' starts a comment.
void ReadOff(const std::string& path, std::string_view bytes, RawMesh& raw) {
  Text text(path, bytes);
  text.comments = true;
  text.SkipSpace();
  const std::string_view keyword = text.Word();
  if (keyword.size() < 3 || keyword.substr(keyword.size() - 3) != "OFF") text.Fail("no OFF keyword");
  std::string_view prefix = keyword.substr(0, keyword.size() - 3);
  const auto take = [&](std::string_view part) {
    if (prefix.substr(0, part.size()) != part) return false;
    prefix.remove_prefix(part.size());
    return true;
  };
  take("ST");
  take("C");
  take("N");
  const bool homogeneous = take("4");
  const bool dimension = take("n");
  if (!prefix.empty()) text.Fail("unknown OFF variant '" + std::string(keyword) + "'");
  if (dimension && text.Integer("dimension", 3, 3) != 3) text.Fail("only three dimensions are read");
  const std::int64_t vertices = text.Integer("vertex count", 0, 0xFFFFFFFEll);
  const std::int64_t faces = text.Integer("face count", 0, std::numeric_limits<std::int64_t>::max());
  if (!text.AtLineEnd()) text.Integer("edge count", 0, std::numeric_limits<std::int64_t>::max(), false);
  text.NextLine();
  // A vertex line holds at least three numbers, a face line at least four.
  text.Need(static_cast<std::uint64_t>(vertices), 6, std::to_string(vertices) + " vertices");
  raw.xyz.reserve(3 * static_cast<std::size_t>(vertices));
  for (std::int64_t v = 0; v < vertices; ++v) {
    double p[4] = {0.0, 0.0, 0.0, 1.0};
    for (int d = 0; d < (homogeneous ? 4 : 3); ++d) p[d] = text.Number("vertex coordinate");
    if (homogeneous) {
      if (p[3] == 0.0) text.Fail("a vertex at infinity (w = 0)");
      for (int d = 0; d < 3; ++d) p[d] /= p[3];
    }
    raw.xyz.insert(raw.xyz.end(), {p[0], p[1], p[2]});
    text.NextLine();
  }
  text.Need(static_cast<std::uint64_t>(faces), 8, std::to_string(faces) + " faces");
  std::vector<std::uint32_t> corners;
  for (std::int64_t f = 0; f < faces; ++f) {
    const std::int64_t n = text.Integer("corner count", 0, vertices);
    corners.clear();
    for (std::int64_t c = 0; c < n; ++c)
      corners.push_back(static_cast<std::uint32_t>(text.Integer("corner", 0, vertices - 1)));
    AddFan(raw.indices, corners.size(), [&](std::size_t i) { return corners[i]; });
    text.NextLine();
  }
  raw.fileVertices = raw.xyz.size() / 3;
}

// ---------------------------------------------------------------------------------------
// Binary PLY

enum class PlyType { Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64 };

bool ParsePlyType(std::string_view name, PlyType& type) {
  static const std::array<std::pair<std::string_view, PlyType>, 16> kNames = {{
      {"char", PlyType::Int8},
      {"int8", PlyType::Int8},
      {"uchar", PlyType::UInt8},
      {"uint8", PlyType::UInt8},
      {"short", PlyType::Int16},
      {"int16", PlyType::Int16},
      {"ushort", PlyType::UInt16},
      {"uint16", PlyType::UInt16},
      {"int", PlyType::Int32},
      {"int32", PlyType::Int32},
      {"uint", PlyType::UInt32},
      {"uint32", PlyType::UInt32},
      {"float", PlyType::Float32},
      {"float32", PlyType::Float32},
      {"double", PlyType::Float64},
      {"float64", PlyType::Float64},
  }};
  for (const auto& [n, t] : kNames)
    if (n == name) {
      type = t;
      return true;
    }
  return false;
}

std::size_t SizeOf(PlyType t) {
  switch (t) {
    case PlyType::Int8:
    case PlyType::UInt8: return 1;
    case PlyType::Int16:
    case PlyType::UInt16: return 2;
    case PlyType::Int32:
    case PlyType::UInt32:
    case PlyType::Float32: return 4;
    case PlyType::Float64: return 8;
  }
  return 0;
}

double LoadPly(const char* p, PlyType t, bool bigEndian) {
  switch (t) {
    case PlyType::Int8: return static_cast<signed char>(*p);
    case PlyType::UInt8: return static_cast<unsigned char>(*p);
    case PlyType::Int16:
    case PlyType::UInt16: {
      const auto* b = reinterpret_cast<const unsigned char*>(p);
      const std::uint16_t u = bigEndian ? std::uint16_t((b[0] << 8) | b[1]) : std::uint16_t((b[1] << 8) | b[0]);
      return t == PlyType::Int16 ? double(static_cast<std::int16_t>(u)) : double(u);
    }
    case PlyType::Int32: return static_cast<std::int32_t>(Load32(p, bigEndian));
    case PlyType::UInt32: return Load32(p, bigEndian);
    case PlyType::Float32: return LoadFloat(p, bigEndian);
    case PlyType::Float64: {
      const std::uint64_t bits = Load64(p, bigEndian);
      double v;
      std::memcpy(&v, &bits, sizeof v);
      return v;
    }
  }
  return 0.0;
}

struct PlyProperty {
  std::string name;
  bool list = false;
  PlyType count = PlyType::UInt8;  // lists: the type of the count
  PlyType type = PlyType::Float32;
};

struct PlyElement {
  std::string name;
  std::uint64_t count = 0;
  std::vector<PlyProperty> properties;
};

// The bytes of one item when no property is a list; 0 otherwise.
std::size_t FixedSize(const PlyElement& e) {
  std::size_t size = 0;
  for (const PlyProperty& p : e.properties) {
    if (p.list) return 0;
    size += SizeOf(p.type);
  }
  return size;
}

// Values of a binary PLY body.
class BinaryValues {
public:
  BinaryValues(const std::string& file, std::string_view bytes, std::size_t start, bool big)
      : path(file), data(bytes.data()), size(bytes.size()), at(start), bigEndian(big) {}
  // `count` values of type `t` must fit in what is left of the file.
  void Need(std::uint64_t count, PlyType t, const std::string& what) const {
    if (count > (size - at) / SizeOf(t))
      zortool::Fail(path, "byte " + std::to_string(at),
                    what + " need more bytes than the " + std::to_string(size - at) + " that follow");
  }
  double Value(PlyType t, const std::string& what) {
    Need(1, t, what);
    const double v = LoadPly(data + at, t, bigEndian);
    at += SizeOf(t);
    return v;
  }
  void Skip(std::uint64_t count, PlyType t, const std::string& what) {
    Need(count, t, what);
    at += count * SizeOf(t);
  }
  [[noreturn]] void Fail(const std::string& where, const std::string& why) const { zortool::Fail(path, where, why); }
  std::string Where() const { return "byte " + std::to_string(at); }

  const std::string& path;
  const char* data;
  std::size_t size;
  std::size_t at;
  bool bigEndian;
};

// Values of a text PLY body: numbers separated by white space, whatever the lines.
class TextValues {
public:
  TextValues(const std::string& file, std::string_view body, std::size_t firstLine) : text(file, body, firstLine) {}
  // Every value takes at least two bytes (a digit and a separator).
  void Need(std::uint64_t count, PlyType, const std::string& what) { text.Need(count, 2, what); }
  double Value(PlyType t, const std::string& what) {
    switch (t) {
      case PlyType::Int8: return double(text.Integer(what.c_str(), -128, 127));
      case PlyType::UInt8: return double(text.Integer(what.c_str(), 0, 255));
      case PlyType::Int16: return double(text.Integer(what.c_str(), -32768, 32767));
      case PlyType::UInt16: return double(text.Integer(what.c_str(), 0, 65535));
      case PlyType::Int32: return double(text.Integer(what.c_str(), -2147483648ll, 2147483647ll));
      case PlyType::UInt32: return double(text.Integer(what.c_str(), 0, 4294967295ll));
      case PlyType::Float32:
      case PlyType::Float64: return text.Number(what.c_str());
    }
    return 0.0;
  }
  void Skip(std::uint64_t count, PlyType t, const std::string& what) {
    Need(count, t, what);
    for (std::uint64_t i = 0; i < count; ++i) Value(t, what);
  }
  [[noreturn]] void Fail(const std::string&, const std::string& why) const { text.Fail(why); }
  std::string Where() const { return "body"; }

  Text text;
};

std::string NotFinite(std::uint64_t vertex, double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return "vertex " + std::to_string(vertex + 1) + " has a coordinate that is not finite (" + text + ")";
}

// The body of a PLY file after its header: the vertices' x, y and z, the faces'
// vertex_indices (or vertex_index) as fans; other properties and elements skipped.
template <typename Values>
void ReadPlyBody(Values& in, const std::vector<PlyElement>& elements, RawMesh& raw) {
  std::uint64_t vertexCount = 0;
  bool vertexSeen = false;
  for (const PlyElement& e : elements) {
    // Every item takes at least one value per property: a bound on the count before
    // anything is allocated.
    PlyType smallest = PlyType::Float64;
    for (const PlyProperty& p : e.properties) {
      const PlyType t = p.list ? p.count : p.type;
      if (SizeOf(t) < SizeOf(smallest)) smallest = t;
    }
    if (!e.properties.empty()) {
      const std::size_t fixed = FixedSize(e);
      const std::uint64_t perItem = fixed > 0 ? fixed / SizeOf(smallest) : 1;
      if (e.count > std::numeric_limits<std::uint64_t>::max() / std::max<std::uint64_t>(perItem, 1))
        in.Fail("header", "the count of " + e.name + " is too large");
      const std::string items = e.name == "vertex" ? " vertices"
                                : e.name == "face" ? " faces"
                                                   : " " + e.name + " items";
      in.Need(e.count * perItem, smallest, std::to_string(e.count) + items);
    }
    if (e.name == "vertex") {
      int axis[3] = {-1, -1, -1};
      for (std::size_t i = 0; i < e.properties.size(); ++i)
        for (int d = 0; d < 3; ++d)
          if (e.properties[i].name == std::string(1, char('x' + d))) axis[d] = static_cast<int>(i);
      if (axis[0] < 0 || axis[1] < 0 || axis[2] < 0) in.Fail("header", "the vertex element has no x, y and z");
      for (int d = 0; d < 3; ++d)
        if (e.properties[axis[d]].list) in.Fail("header", "a vertex coordinate that is a list");
      if (e.count >= 0xFFFFFFFFull) in.Fail("header", "more vertices than 32-bit indices reach");
      raw.xyz.resize(3 * e.count);
      const std::size_t fixed = FixedSize(e);
      if constexpr (std::is_same_v<Values, BinaryValues>) {
        if (fixed > 0) {
          // The common case, straight: items of one size, no list among the properties.
          std::vector<std::size_t> offset(e.properties.size());
          for (std::size_t i = 0, o = 0; i < e.properties.size(); o += SizeOf(e.properties[i].type), ++i) offset[i] = o;
          for (std::uint64_t v = 0; v < e.count; ++v, in.at += fixed)
            for (int d = 0; d < 3; ++d) {
              const double c = LoadPly(in.data + in.at + offset[axis[d]], e.properties[axis[d]].type, in.bigEndian);
              if (!std::isfinite(c)) in.Fail(in.Where(), NotFinite(v, c));
              raw.xyz[3 * v + d] = c;
            }
          vertexCount = e.count;
          vertexSeen = true;
          continue;
        }
      }
      for (std::uint64_t v = 0; v < e.count; ++v)
        for (std::size_t i = 0; i < e.properties.size(); ++i) {
          const PlyProperty& p = e.properties[i];
          const std::string what = "vertex " + std::to_string(v + 1);
          if (p.list) {
            const double n = in.Value(p.count, what);
            if (n < 0) in.Fail(in.Where(), "a negative list length in " + what);
            in.Skip(static_cast<std::uint64_t>(n), p.type, what);
            continue;
          }
          const double value = in.Value(p.type, what);
          for (int d = 0; d < 3; ++d)
            if (axis[d] == static_cast<int>(i)) {
              if (!std::isfinite(value)) in.Fail(in.Where(), NotFinite(v, value));
              raw.xyz[3 * v + d] = value;
            }
        }
      vertexCount = e.count;
      vertexSeen = true;
    } else if (e.name == "face") {
      if (!vertexSeen) in.Fail("header", "faces come before the vertices");
      int listIndex = -1;
      for (std::size_t i = 0; i < e.properties.size(); ++i)
        if (e.properties[i].list &&
            (e.properties[i].name == "vertex_indices" || e.properties[i].name == "vertex_index"))
          listIndex = static_cast<int>(i);
      if (listIndex < 0) in.Fail("header", "the face element has no vertex_indices list");
      raw.indices.reserve(3 * e.count);
      for (std::uint64_t f = 0; f < e.count; ++f)
        for (std::size_t i = 0; i < e.properties.size(); ++i) {
          const PlyProperty& p = e.properties[i];
          const std::string what = "face " + std::to_string(f + 1);
          if (!p.list) {
            in.Value(p.type, what);
            continue;
          }
          const double n = in.Value(p.count, what);
          if (n < 0) in.Fail(in.Where(), "a negative corner count in " + what);
          const std::uint64_t corners = static_cast<std::uint64_t>(n);
          if (static_cast<int>(i) != listIndex) {
            in.Skip(corners, p.type, what);
            continue;
          }
          in.Need(corners, p.type, what);
          std::uint32_t first = 0, previous = 0;
          for (std::uint64_t c = 0; c < corners; ++c) {
            const double index = in.Value(p.type, what);
            if (!(index >= 0.0 && index < double(vertexCount)) || index != std::floor(index)) {
              char text[64];
              std::snprintf(text, sizeof text, "%.17g", index);
              in.Fail(in.Where(), "vertex index " + std::string(text) + " of " + what + " is not below the " +
                                      std::to_string(vertexCount) + " vertices");
            }
            const auto v = static_cast<std::uint32_t>(index);
            if (c == 0) first = v;
            if (c >= 2) raw.indices.insert(raw.indices.end(), {first, previous, v});  // a fan
            previous = v;
          }
        }
    } else if (!e.properties.empty()) {  // items of no property take no bytes, however many
      for (std::uint64_t k = 0; k < e.count; ++k)
        for (const PlyProperty& p : e.properties) {
          const std::string what = e.name + " item " + std::to_string(k + 1);
          if (!p.list) {
            in.Skip(1, p.type, what);
            continue;
          }
          const double n = in.Value(p.count, what);
          if (n < 0) in.Fail(in.Where(), "a negative list length in " + what);
          in.Skip(static_cast<std::uint64_t>(n), p.type, what);
        }
    }
  }
  raw.fileVertices = vertexCount;
  raw.joined = 0;
}

// PLY, text or binary: the header line by line up to a line that is "end_header".
void ReadPly(const std::string& path, std::string_view all, RawMesh& raw) {
  bool bigEndian = false, text = false, formatSeen = false, ended = false;
  std::vector<PlyElement> elements;
  std::size_t lineNumber = 0, at = 0;
  while (at < all.size()) {
    std::size_t end = all.find('\n', at);
    if (end == std::string_view::npos) end = all.size();
    std::string_view line = all.substr(at, end - at);
    at = std::min(all.size(), end + 1);
    ++lineNumber;
    std::vector<std::string_view> words;
    for (std::size_t i = 0; i < line.size();) {
      while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
      std::size_t j = i;
      while (j < line.size() && line[j] != ' ' && line[j] != '\t' && line[j] != '\r') ++j;
      if (j > i) words.push_back(line.substr(i, j - i));
      i = j;
    }
    const std::string where = "header line " + std::to_string(lineNumber);
    if (lineNumber == 1) {
      if (words.size() != 1 || words[0] != "ply") Fail(path, where, "the first line is not 'ply'");
      continue;
    }
    if (words.empty() || words[0] == "comment" || words[0] == "obj_info") continue;
    if (words[0] == "end_header") {
      ended = true;
      break;
    }
    if (words[0] == "format") {
      if (words.size() < 2) Fail(path, where, "a format line without a format");
      if (words[1] == "ascii")
        text = true;
      else if (words[1] == "binary_little_endian")
        bigEndian = false;
      else if (words[1] == "binary_big_endian")
        bigEndian = true;
      else
        Fail(path, where, "unknown PLY format '" + std::string(words[1].substr(0, 32)) + "'");
      formatSeen = true;
    } else if (words[0] == "element") {
      if (words.size() != 3) Fail(path, where, "an element line needs a name and a count");
      PlyElement e;
      e.name = std::string(words[1]);
      const auto [stop, error] = std::from_chars(words[2].data(), words[2].data() + words[2].size(), e.count);
      if (error != std::errc() || stop != words[2].data() + words[2].size())
        Fail(path, where, "the count '" + std::string(words[2].substr(0, 32)) + "' is not a number");
      elements.push_back(std::move(e));
    } else if (words[0] == "property") {
      if (elements.empty()) Fail(path, where, "a property before any element");
      PlyProperty p;
      const bool list = words.size() == 5 && words[1] == "list";
      if (!(list || words.size() == 3)) Fail(path, where, "a property line needs a type and a name");
      p.list = list;
      if (list && !ParsePlyType(words[2], p.count))
        Fail(path, where, "unknown PLY type '" + std::string(words[2].substr(0, 32)) + "'");
      if (!ParsePlyType(words[list ? 3 : 1], p.type))
        Fail(path, where, "unknown PLY type '" + std::string(words[list ? 3 : 1].substr(0, 32)) + "'");
      if (list && (p.count == PlyType::Float32 || p.count == PlyType::Float64))
        Fail(path, where, "a list count must be an integer type");
      p.name = std::string(words[list ? 4 : 2]);
      elements.back().properties.push_back(std::move(p));
    } else {
      Fail(path, where, "unknown header line '" + std::string(words[0].substr(0, 32)) + "'");
    }
  }
  if (!ended) Fail(path, "header", "no end_header line");
  if (!formatSeen) Fail(path, "header", "no format line");
  if (text) {
    TextValues in(path, all.substr(at), lineNumber + 1);
    ReadPlyBody(in, elements, raw);
  } else {
    BinaryValues in(path, all, at, bigEndian);
    ReadPlyBody(in, elements, raw);
  }
}

bool EndsWith(const std::string& path, const char* extension) {
  const std::size_t n = std::strlen(extension);
  if (path.size() < n) return false;
  for (std::size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(path[path.size() - n + i])) != extension[i]) return false;
  return true;
}

}  // namespace

bool ReadNativeMesh(const std::string& path, std::string_view bytes, RawMesh& raw) {
  raw = RawMesh();
  if (bytes.empty()) throw InputError("cannot read '" + path + "': the file is empty");
  if (ReadBinaryStl(path, bytes, raw)) return true;
  if (bytes.substr(0, 3) == "ply") {
    ReadPly(path, bytes, raw);
    return true;
  }
  if (EndsWith(path, ".obj")) {
    ReadObj(path, bytes, raw);
    return true;
  }
  std::size_t first = 0;
  while (first < bytes.size() && std::isspace(static_cast<unsigned char>(bytes[first]))) ++first;
  const std::string_view start = bytes.substr(first, 16);
  const std::size_t offAt = start.find("OFF");
  if (EndsWith(path, ".off") || (offAt != std::string_view::npos && offAt <= 5 && start[0] != '#')) {
    ReadOff(path, bytes, raw);
    return true;
  }
  if (EndsWith(path, ".stl") || start.substr(0, 5) == "solid") {
    // Not a binary STL of the size it declares: text, unless it holds bytes no text has.
    const std::string_view head = bytes.substr(0, 512);
    const bool binary = std::any_of(head.begin(), head.end(), [](char c) {
      return c == '\0' || (static_cast<unsigned char>(c) < 32 && !std::isspace(static_cast<unsigned char>(c)));
    });
    if (binary || bytes.substr(first, 5) != "solid") {
      if (bytes.size() < 84)
        Fail(path, "byte " + std::to_string(bytes.size()), "a binary STL needs 84 bytes of header");
      const std::uint64_t count = Load32(bytes.data() + 80, false);
      Fail(path, "header",
           "a binary STL of " + std::to_string(count) + " triangles takes " + std::to_string(84 + 50 * count) +
               " bytes; the file has " + std::to_string(bytes.size()));
    }
    ReadTextStl(path, bytes, raw);
    return true;
  }
  return false;
}

}  // namespace zortool
