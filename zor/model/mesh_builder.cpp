#include "zor/model/mesh_builder.h"

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "zor/model/coordinates.h"
#include "zor/model/stl_guards.h"

std::unique_ptr<MStlBase> BuildStl(const double* xyz, std::size_t pointCount, const std::uint32_t* indices,
                                   std::size_t triangleCount, MStlBuildReport* report) {
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
  std::vector<MStlPoint*> points(pointCount);
  for (std::size_t i = 0; i < pointCount; ++i) {
    const std::size_t before = mesh->NumberOfPoints();
    points[i] = mesh->AddPoint(grid[i], false);
    if (mesh->NumberOfPoints() == before) ++counts.pointsMerged;
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
