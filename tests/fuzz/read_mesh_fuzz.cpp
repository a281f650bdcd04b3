// A libFuzzer target for one of the tool's readers: the bytes as a file of the format
// that ZOR_FUZZ_EXTENSION names. A reader may refuse the bytes (InputError); anything
// else it does wrong is a finding: a crash, a sanitizer report, a hang, a huge
// allocation, or a mesh that breaks its own promises (an index past the vertices, a
// coordinate that is not finite).
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zor/files/mesh_files.h"
#include "zor/files/native_readers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = std::string("fuzzed") + ZOR_FUZZ_EXTENSION;
  ZorStlRegistration::RawMesh raw;
  try {
    if (!ZorStlRegistration::ReadNativeMesh(path, std::string_view(reinterpret_cast<const char*>(data), size), raw))
      return 0;
  } catch (const ZorStlRegistration::InputError&) {
    return 0;
  }
  const std::size_t vertices = raw.xyz.size() / 3;
  if (raw.xyz.size() % 3 != 0 || raw.indices.size() % 3 != 0) std::abort();
  for (double c : raw.xyz)
    if (!std::isfinite(c)) std::abort();
  for (std::uint32_t i : raw.indices)
    if (i >= vertices) std::abort();
  return 0;
}
