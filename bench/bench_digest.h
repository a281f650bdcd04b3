#pragma once
// A digest of results for the benchmark tables: two builds that give the same results,
// every bit, print the same digest (FNV-1a over the bits).
#include <cstdint>
#include <cstring>

#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace zorbench {

inline constexpr std::uint64_t kDigestStart = 14695981039346656037ull;

inline std::uint64_t DigestBytes(std::uint64_t hash, const void* data, std::size_t bytes) {
  const auto* b = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < bytes; ++i) hash = (hash ^ b[i]) * 1099511628211ull;
  return hash;
}

inline std::uint64_t Digest(std::uint64_t hash, double v) { return DigestBytes(hash, &v, sizeof v); }

// The sixteen elements of a transform.
inline std::uint64_t Digest(std::uint64_t hash, const MMTransformMatrix& t) {
  for (int e = 0; e < 16; ++e) hash = Digest(hash, t.GetElement(e / 4, e % 4));
  return hash;
}

// The coordinates of a mesh's points, in list order.
inline std::uint64_t Digest(std::uint64_t hash, const MStlBase& mesh) {
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    const std::int32_t xyz[3] = {p->GetX(), p->GetY(), p->GetZ()};
    hash = DigestBytes(hash, xyz, sizeof xyz);
  }
  return hash;
}

}  // namespace zorbench
