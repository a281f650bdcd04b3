#include "tools/zor-register/native_readers.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

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

bool ReadBinaryPly(const std::string& path, std::string_view bytes, RawMesh& raw) {
  const std::string_view all(bytes.data(), bytes.size());
  if (all.substr(0, 4) != "ply\n" && all.substr(0, 5) != "ply\r\n") return false;
  const std::size_t headerEnd = all.find("end_header");
  if (headerEnd == std::string_view::npos) Fail(path, "header", "no end_header line");
  std::size_t body = all.find('\n', headerEnd);
  if (body == std::string_view::npos) Fail(path, "header", "the file ends after end_header");
  ++body;

  bool bigEndian = false, formatSeen = false;
  std::vector<PlyElement> elements;
  std::size_t lineNumber = 0;
  for (std::size_t at = 0; at < headerEnd;) {
    std::size_t end = all.find('\n', at);
    std::string_view line = all.substr(at, end - at);
    at = end + 1;
    ++lineNumber;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::vector<std::string_view> words;
    for (std::size_t i = 0; i < line.size();) {
      while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
      std::size_t j = i;
      while (j < line.size() && line[j] != ' ' && line[j] != '\t') ++j;
      if (j > i) words.push_back(line.substr(i, j - i));
      i = j;
    }
    const std::string where = "header line " + std::to_string(lineNumber);
    if (words.empty() || words[0] == "ply" || words[0] == "comment" || words[0] == "obj_info") continue;
    if (words[0] == "format") {
      if (words.size() < 2) Fail(path, where, "a format line without a format");
      if (words[1] == "ascii") return false;  // text: the importer's
      if (words[1] == "binary_little_endian")
        bigEndian = false;
      else if (words[1] == "binary_big_endian")
        bigEndian = true;
      else
        Fail(path, where, "unknown PLY format '" + std::string(words[1]) + "'");
      formatSeen = true;
    } else if (words[0] == "element") {
      if (words.size() != 3) Fail(path, where, "an element line needs a name and a count");
      PlyElement e;
      e.name = std::string(words[1]);
      const std::string count(words[2]);
      char* stop = nullptr;
      errno = 0;
      e.count = std::strtoull(count.c_str(), &stop, 10);
      if (stop == count.c_str() || *stop != '\0' || errno != 0 || count[0] == '-')
        Fail(path, where, "the count '" + count + "' is not a number");
      elements.push_back(std::move(e));
    } else if (words[0] == "property") {
      if (elements.empty()) Fail(path, where, "a property before any element");
      PlyProperty p;
      const bool list = words.size() == 5 && words[1] == "list";
      if (!(list || words.size() == 3)) Fail(path, where, "a property line needs a type and a name");
      p.list = list;
      if (list && !ParsePlyType(words[2], p.count))
        Fail(path, where, "unknown PLY type '" + std::string(words[2]) + "'");
      if (!ParsePlyType(words[list ? 3 : 1], p.type))
        Fail(path, where, "unknown PLY type '" + std::string(words[list ? 3 : 1]) + "'");
      if (list && (p.count == PlyType::Float32 || p.count == PlyType::Float64))
        Fail(path, where, "a list count must be an integer type");
      p.name = std::string(words[list ? 4 : 2]);
      elements.back().properties.push_back(std::move(p));
    } else {
      Fail(path, where, "unknown header line '" + std::string(words[0]) + "'");
    }
  }
  if (!formatSeen) Fail(path, "header", "no format line");

  const char* const data = bytes.data();
  std::size_t at = body;
  const std::size_t size = bytes.size();
  // `count` items of `unit` bytes must fit in what is left of the file.
  const auto need = [&](std::uint64_t count, std::size_t unit, const std::string& what) {
    if (unit != 0 && count > (size - at) / unit)
      Fail(path, "byte " + std::to_string(at),
           what + " need more bytes than the " + std::to_string(size - at) + " that follow");
  };
  std::uint64_t vertexCount = 0;
  bool vertexSeen = false;
  for (const PlyElement& e : elements) {
    const std::size_t fixed = FixedSize(e);
    if (e.name == "vertex") {
      int axis[3] = {-1, -1, -1};
      std::vector<std::size_t> offset(e.properties.size());
      for (std::size_t i = 0, o = 0; i < e.properties.size(); ++i) {
        offset[i] = o;  // used only when no property is a list
        o += SizeOf(e.properties[i].type);
        for (int d = 0; d < 3; ++d)
          if (e.properties[i].name == std::string(1, char('x' + d))) axis[d] = static_cast<int>(i);
      }
      if (axis[0] < 0 || axis[1] < 0 || axis[2] < 0) Fail(path, "header", "the vertex element has no x, y and z");
      for (int d = 0; d < 3; ++d)
        if (e.properties[axis[d]].list) Fail(path, "header", "a vertex coordinate that is a list");
      // Every vertex takes at least one byte per property: a bound on the count before
      // anything is allocated.
      need(e.count, fixed > 0 ? fixed : e.properties.size(), std::to_string(e.count) + " vertices");
      raw.xyz.resize(3 * e.count);
      if (fixed > 0) {
        for (std::uint64_t v = 0; v < e.count; ++v, at += fixed)
          for (int d = 0; d < 3; ++d)
            raw.xyz[3 * v + d] = LoadPly(data + at + offset[axis[d]], e.properties[axis[d]].type, bigEndian);
      } else {
        // Lists among the properties: each vertex walked property by property.
        for (std::uint64_t v = 0; v < e.count; ++v)
          for (std::size_t i = 0; i < e.properties.size(); ++i) {
            const PlyProperty& p = e.properties[i];
            const std::string where = "vertex " + std::to_string(v + 1);
            need(1, SizeOf(p.list ? p.count : p.type), where);
            if (p.list) {
              const double n = LoadPly(data + at, p.count, bigEndian);
              at += SizeOf(p.count);
              if (n < 0) Fail(path, where, "a negative list length");
              need(static_cast<std::uint64_t>(n), SizeOf(p.type), where);
              at += static_cast<std::uint64_t>(n) * SizeOf(p.type);
              continue;
            }
            for (int d = 0; d < 3; ++d)
              if (axis[d] == static_cast<int>(i)) raw.xyz[3 * v + d] = LoadPly(data + at, p.type, bigEndian);
            at += SizeOf(p.type);
          }
      }
      vertexCount = e.count;
      vertexSeen = true;
    } else if (e.name == "face") {
      if (!vertexSeen) Fail(path, "header", "faces come before the vertices");
      int listIndex = -1;
      for (std::size_t i = 0; i < e.properties.size(); ++i)
        if (e.properties[i].list &&
            (e.properties[i].name == "vertex_indices" || e.properties[i].name == "vertex_index"))
          listIndex = static_cast<int>(i);
      if (listIndex < 0) Fail(path, "header", "the face element has no vertex_indices list");
      need(e.count, SizeOf(e.properties[listIndex].count), std::to_string(e.count) + " faces");
      raw.indices.reserve(3 * e.count);
      for (std::uint64_t f = 0; f < e.count; ++f)
        for (std::size_t i = 0; i < e.properties.size(); ++i) {
          const PlyProperty& p = e.properties[i];
          if (!p.list) {
            need(1, SizeOf(p.type), "face " + std::to_string(f + 1));
            at += SizeOf(p.type);
            continue;
          }
          need(1, SizeOf(p.count), "face " + std::to_string(f + 1));
          const double n = LoadPly(data + at, p.count, bigEndian);
          at += SizeOf(p.count);
          if (n < 0) Fail(path, "face " + std::to_string(f + 1), "a negative vertex count");
          const std::uint64_t corners = static_cast<std::uint64_t>(n);
          need(corners, SizeOf(p.type), "face " + std::to_string(f + 1));
          if (static_cast<int>(i) != listIndex) {
            at += corners * SizeOf(p.type);
            continue;
          }
          std::uint32_t first = 0, previous = 0;
          for (std::uint64_t c = 0; c < corners; ++c, at += SizeOf(p.type)) {
            const double index = LoadPly(data + at, p.type, bigEndian);
            if (!(index >= 0.0 && index < double(vertexCount)) || index != std::floor(index))
              Fail(path, "face " + std::to_string(f + 1),
                   "vertex index " + std::to_string(static_cast<long long>(index)) + " is not below the " +
                       std::to_string(vertexCount) + " vertices");
            const auto v = static_cast<std::uint32_t>(index);
            if (c == 0) first = v;
            if (c >= 2) raw.indices.insert(raw.indices.end(), {first, previous, v});  // a fan
            previous = v;
          }
        }
    } else if (fixed > 0) {
      need(e.count, fixed, std::to_string(e.count) + " " + e.name + " items");
      at += e.count * fixed;
    } else {
      for (std::uint64_t k = 0; k < e.count; ++k)
        for (const PlyProperty& p : e.properties) {
          need(1, SizeOf(p.list ? p.count : p.type), e.name + " item " + std::to_string(k + 1));
          if (!p.list) {
            at += SizeOf(p.type);
            continue;
          }
          const double n = LoadPly(data + at, p.count, bigEndian);
          at += SizeOf(p.count);
          if (n < 0) Fail(path, e.name + " item " + std::to_string(k + 1), "a negative list length");
          need(static_cast<std::uint64_t>(n), SizeOf(p.type), e.name + " item " + std::to_string(k + 1));
          at += static_cast<std::uint64_t>(n) * SizeOf(p.type);
        }
    }
  }
  if (vertexCount >= 0xFFFFFFFFull) Fail(path, "header", "more vertices than 32-bit indices reach");
  raw.fileVertices = vertexCount;
  raw.joined = 0;
  return true;
}

}  // namespace

bool ReadNativeMesh(const std::string& path, std::string_view bytes, RawMesh& raw) {
  raw = RawMesh();
  return ReadBinaryStl(path, bytes, raw) || ReadBinaryPly(path, bytes, raw);
}

}  // namespace zortool
