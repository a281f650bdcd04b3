#include "zor/files/detail/reader_support.h"

namespace ZorStlRegistration::detail {

namespace {

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
      detail::Fail(path, "byte " + std::to_string(at),
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
  [[noreturn]] void Fail(const std::string& where, const std::string& why) const { detail::Fail(path, where, why); }
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
}  // namespace

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

}  // namespace ZorStlRegistration::detail
