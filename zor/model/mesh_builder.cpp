#include "zor/model/mesh_builder.h"

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "zor/model/coordinates.h"
#include "zor/model/detail/vertex_join.h"
#include "zor/model/stl_guards.h"

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
  // Points join on their grid coordinates: each point maps to the first input point
  // with its coordinates, which alone becomes a mesh point, so mesh points come in the
  // order of first appearance.
  std::vector<MStlPoint*> points(pointCount);
  {
    using ZorMesh::detail::JoinKey;
    const auto keyAt = [&grid](std::size_t i) {
      JoinKey key;
      for (int k = 0; k < 3; ++k) key.words[k] = static_cast<std::uint32_t>(grid[i][k]);
      return key;
    };
    ZorMesh::detail::VertexJoinTable table(pointCount);
    constexpr std::size_t kAhead = 8;
    for (std::size_t i = 0; i < pointCount; ++i) {
      if (i + kAhead < pointCount) table.Prefetch(keyAt(i + kAhead));
      const std::uint32_t first = table.Join(keyAt(i), static_cast<std::uint32_t>(i), keyAt);
      if (first == i) {
        points[i] = mesh->AddPoint(grid[i], true);
      } else {
        points[i] = points[first];
        ++counts.pointsMerged;
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
