#include "zor/model/mesh_builder.h"

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "zor/model/coordinates.h"
#include "zor/model/stl_guards.h"

namespace {

std::uint64_t GridHash(const MMVector3i& p) {
  std::uint64_t h = static_cast<std::uint32_t>(p[0]) * 0x9E3779B97F4A7C15ull;
  h ^= static_cast<std::uint32_t>(p[1]) * 0xC2B2AE3D27D4EB4Full;
  h = (h << 31) | (h >> 33);
  h ^= static_cast<std::uint32_t>(p[2]) * 0x165667B19E3779F9ull;
  h ^= h >> 29;
  h *= 0xBF58476D1CE4E5B9ull;
  h ^= h >> 32;
  return h;
}

}  // namespace

std::unique_ptr<MStlBase> BuildStl(const double* xyz, std::size_t pointCount, const std::uint32_t* indices,
                                   std::size_t triangleCount, MStlBuildReport* report) {
  if (pointCount >= 0xFFFFFFFFu) throw std::length_error("BuildStl: more points than 32-bit indices can reach");
  std::vector<MMVector3i> grid(pointCount);
  for (std::size_t i = 0; i < pointCount; ++i)
    for (int k = 0; k < 3; ++k)
      if (!RoundCoordinate(xyz[3 * i + k], grid[i][k])) {
        char text[64];
        std::snprintf(text, sizeof text, "%.17g", xyz[3 * i + k]);
        throw std::out_of_range(std::string("BuildStl: coordinate ") + text + " of point " + std::to_string(i) +
                                " lies outside the signed 32-bit range [-2147483648, 2147483647]");
      }
  for (std::size_t t = 0; t < 3 * triangleCount; ++t)
    if (indices[t] >= pointCount)
      throw std::out_of_range("BuildStl: index " + std::to_string(indices[t]) + " of triangle " +
                              std::to_string(t / 3) + " is not below the point count " + std::to_string(pointCount));

  auto mesh = std::make_unique<MStlBase>();
  mesh->Reserve(pointCount, triangleCount);
  MStlTempPointSortingDisabler bulk(mesh.get(), true);
  MStlBuildReport counts;
  // Points join on a flat table of input numbers (no pointer to follow per probe): each
  // point maps to the first input point with its coordinates, which alone becomes a
  // mesh point, so mesh points come in the order of first appearance. A slot holds the
  // upper half of the point's hash beside its number, so probes past other points do
  // not read their coordinates; and the slot of a point some places ahead is fetched
  // early, since on large inputs nearly every probe misses the cache.
  std::vector<MStlPoint*> points(pointCount);
  {
    std::size_t slots = 16;
    while (slots < 2 * pointCount) slots *= 2;
    const std::size_t mask = slots - 1;
    constexpr std::uint64_t kEmpty = ~std::uint64_t(0);
    constexpr std::size_t kAhead = 8;
    std::vector<std::uint64_t> table(slots, kEmpty);
    for (std::size_t i = 0; i < pointCount; ++i) {
      if (i + kAhead < pointCount) __builtin_prefetch(&table[GridHash(grid[i + kAhead]) & mask]);
      const MMVector3i& p = grid[i];
      const std::uint64_t h = GridHash(p);
      const std::uint64_t tag = h >> 32 << 32;
      for (std::size_t at = h & mask;; at = (at + 1) & mask) {
        const std::uint64_t slot = table[at];
        if (slot == kEmpty) {
          table[at] = tag | i;
          points[i] = mesh->AddPoint(p, true);
          break;
        }
        const std::size_t j = slot & 0xFFFFFFFFu;
        if ((slot ^ tag) >> 32 == 0 && grid[j] == p) {
          points[i] = points[j];
          ++counts.pointsMerged;
          break;
        }
      }
    }
  }
  for (std::size_t t = 0; t < triangleCount; ++t) {
    MStlPoint* a = points[indices[3 * t]];
    MStlPoint* b = points[indices[3 * t + 1]];
    MStlPoint* c = points[indices[3 * t + 2]];
    if (a == b || b == c || a == c) {
      ++counts.trianglesSkipped;
      continue;
    }
    mesh->AddTriangle(a, b, c, nullptr);
  }
  if (report != nullptr) *report = counts;
  return mesh;
}
