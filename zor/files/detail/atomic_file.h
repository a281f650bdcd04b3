#pragma once
// What the file writers share: a file that appears whole or not at all, and a mesh as a
// file holds it.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "zor/model/input_error.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration::detail {

// A file written under a temporary name beside its destination and renamed over
// it by Commit; dropped without Commit (or on any failure), it leaves nothing
// behind.
class AtomicFile {
public:
  explicit AtomicFile(const std::string& destination) : target(destination) {
    const std::filesystem::path p(destination);
    temporary = (p.parent_path() / ("." + p.filename().string() + ".XXXXXX")).string();
    const int fd = mkstemp(temporary.data());
    if (fd < 0) Fail();
    // mkstemp makes the file private; give it the mode a plain create would.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    file = fdopen(fd, "wb");
    if (file == nullptr) {
      close(fd);
      Fail();
    }
    buffer.reserve(kChunk + 256);
  }
  ~AtomicFile() {
    if (file != nullptr) std::fclose(file);
    if (!committed && !temporary.empty()) std::remove(temporary.c_str());
  }
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  void Append(std::string_view s) {
    buffer.append(s);
    if (buffer.size() >= kChunk) Flush();
  }
  // The shortest text that reads back as the same double.
  void Append(double v) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, v == 0.0 ? 0.0 : v).ptr;  // no "-0"
    Append(std::string_view(text, static_cast<std::size_t>(end - text)));
  }
  void Append(std::uint64_t v) {
    char text[24];
    const auto end = std::to_chars(text, text + sizeof text, v).ptr;
    Append(std::string_view(text, static_cast<std::size_t>(end - text)));
  }
  template <typename T>
  void AppendRaw(T v) {  // little-endian, as binary STL and our binary PLY header say
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "binary mesh writers assume a little-endian machine");
    char bytes[sizeof(T)];
    std::memcpy(bytes, &v, sizeof(T));
    Append(std::string_view(bytes, sizeof(T)));
  }

  void Commit() {
    Flush();
    if (std::fflush(file) != 0 || fsync(fileno(file)) != 0) Fail();
    const int closed = std::fclose(file);
    file = nullptr;
    if (closed != 0 || std::rename(temporary.c_str(), target.c_str()) != 0) Fail();
    committed = true;
  }

private:
  static constexpr std::size_t kChunk = 1 << 20;
  void Flush() {
    if (!buffer.empty() && std::fwrite(buffer.data(), 1, buffer.size(), file) != buffer.size()) Fail();
    buffer.clear();
  }
  [[noreturn]] void Fail() { throw InputError("cannot write '" + target + "': " + std::strerror(errno)); }

  std::string target;
  std::string temporary;
  std::FILE* file = nullptr;
  std::string buffer;
  bool committed = false;
};

// A mesh as a file holds it: points in list order, moved and in file units, and the
// triangles' corners as numbers into them.
struct FileGeometry {
  std::vector<MMVector3d> points;
  std::vector<std::uint32_t> triangles;
};

FileGeometry InFileUnits(const MStlBase& mesh, const MMTransformMatrix* pose, double scale);

}  // namespace ZorStlRegistration::detail
