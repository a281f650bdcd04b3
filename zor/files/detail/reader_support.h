#pragma once
// What the mesh readers share: byte loads in either order, the refusal with the file's
// name and place, the text cursor, and polygons as fans. Included by the readers only.

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
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "zor/files/native_readers.h"
#include "zor/model/input_error.h"

namespace ZorStlRegistration::detail {

inline std::uint32_t Load32(const char* p, bool bigEndian) {
  const auto* b = reinterpret_cast<const unsigned char*>(p);
  return bigEndian ? (std::uint32_t(b[0]) << 24) | (std::uint32_t(b[1]) << 16) | (std::uint32_t(b[2]) << 8) | b[3]
                   : (std::uint32_t(b[3]) << 24) | (std::uint32_t(b[2]) << 16) | (std::uint32_t(b[1]) << 8) | b[0];
}

inline std::uint64_t Load64(const char* p, bool bigEndian) {
  const std::uint64_t first = Load32(p, bigEndian), second = Load32(p + 4, bigEndian);
  return bigEndian ? (first << 32) | second : (second << 32) | first;
}

inline float LoadFloat(const char* p, bool bigEndian) {
  const std::uint32_t bits = Load32(p, bigEndian);
  float v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

[[noreturn]] inline void Fail(const std::string& path, const std::string& where, const std::string& why) {
  throw InputError("cannot read '" + path + "': " + why + " (" + where + ")");
}

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
  [[noreturn]] void Fail(const std::string& why) const { detail::Fail(path, "line " + std::to_string(line), why); }

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
inline void AddFan(std::vector<std::uint32_t>& indices, std::size_t n, Corner&& corner) {
  for (std::size_t i = 2; i < n; ++i) indices.insert(indices.end(), {corner(0), corner(i - 1), corner(i)});
}

// The format readers, each filling `raw` from a whole file or throwing InputError.
bool ReadBinaryStl(const std::string& path, std::string_view bytes, RawMesh& raw);
void ReadTextStl(const std::string& path, std::string_view bytes, RawMesh& raw);
void ReadObj(const std::string& path, std::string_view bytes, RawMesh& raw);
void ReadOff(const std::string& path, std::string_view bytes, RawMesh& raw);
void ReadPly(const std::string& path, std::string_view all, RawMesh& raw);

}  // namespace ZorStlRegistration::detail
