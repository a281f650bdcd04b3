#pragma once
// Building a mesh from plain arrays, as a file reader or a host hands them over.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "zor/model/export.h"
#include "zor/model/stl_base.h"

struct MStlBuildReport {
  std::size_t pointsMerged = 0;      // input points that landed on an earlier point's coordinates
  std::size_t trianglesSkipped = 0;  // triangles with two corners on one point (degenerate)
};

// A mesh from `pointCount` points (x, y, z doubles in internal units, rounded to nearest,
// halves away from zero) and `triangleCount` index triples. Points with equal rounded
// coordinates merge; a triangle whose corners are not three distinct points is skipped
// and counted. Everything is validated first: a coordinate outside the 32-bit range
// throws std::out_of_range naming the value and the point, an index at or past
// `pointCount` throws std::out_of_range naming it and the triangle.
ZOR_MODEL_API std::unique_ptr<MStlBase> BuildStl(const double* xyz, std::size_t pointCount,
                                                 const std::uint32_t* indices, std::size_t triangleCount,
                                                 MStlBuildReport* report = nullptr);
