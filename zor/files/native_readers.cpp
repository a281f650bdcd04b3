#include "zor/files/native_readers.h"

#include "zor/files/detail/reader_support.h"

namespace ZorStlRegistration {

using namespace detail;  // NOLINT(google-build-using-namespace): the readers of this module

namespace {

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

}  // namespace ZorStlRegistration
