#pragma once
// The storage behind MStlBase and the checked rounding its moves share; included by the
// mesh's own files only.

#include <cstdint>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>

#include "zor/model/coordinates.h"
#include "zor/model/detail/element_pool.h"
#include "zor/model/detail/point_index.h"
#include "zor/model/stl_base.h"

struct MStlBase::Storage {
  ZorMeshDetail::ElementPool<MStlPoint> points;
  ZorMeshDetail::ElementPool<MStlTriangleCell> cells;
  ZorMeshDetail::IndexAllocator pointIds;
  ZorMeshDetail::IndexAllocator triangleIds;
  ZorMeshDetail::PointIndex index;
  bool indexValid = true;  // false after coordinates moved; rebuilt on the next look-up
};

namespace ZorMeshDetail {

constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kInt32Min = std::numeric_limits<std::int32_t>::min();

[[noreturn]] inline void ThrowCoordinateOutOfRange(const char* where, double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.17g", value);
  throw std::out_of_range(std::string(where) + ": coordinate " + text +
                          " lies outside the signed 32-bit range [-2147483648, 2147483647]");
}

inline MMVector3i RoundPoint(const char* where, const MMVector3d& p) {
  MMVector3i out;
  for (int i = 0; i < 3; ++i)
    if (!RoundCoordinate(p[i], out[i])) ThrowCoordinateOutOfRange(where, p[i]);
  return out;
}

}  // namespace ZorMeshDetail
