#pragma once
#include <cmath>
#include <cstdint>

// Rounds a double coordinate to the integer grid: nearest, halves away from zero.
// Returns false, leaving `out`, outside the signed 32-bit range or for NaN.
inline bool RoundCoordinate(double v, std::int32_t& out) {
  const double r = std::round(v);
  if (!(r >= -2147483648.0 && r <= 2147483647.0)) return false;
  out = static_cast<std::int32_t>(r);
  return true;
}
