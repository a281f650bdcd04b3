#pragma once
// Geometric value types: a point, an axis-aligned box and a plain 4x4 matrix.

#include <cstddef>
#include <cstdint>
#include <limits>

namespace ZorSDK::Math {

template <typename T, std::size_t N>
struct point {
  T coords[N] = {};
  constexpr T& operator[](std::size_t i) { return coords[i]; }
  constexpr const T& operator[](std::size_t i) const { return coords[i]; }
  friend constexpr bool operator==(const point& a, const point& b) {
    for (std::size_t i = 0; i < N; ++i)
      if (a.coords[i] != b.coords[i]) return false;
    return true;
  }
};

// An empty box has its minimum at the largest value of T and its maximum at the most
// negative one, so that the first point added sets both corners.
template <typename T, std::size_t N, typename P = point<T, N>>
struct boundingbox {
  P minCorner;
  P maxCorner;

  constexpr boundingbox() { Clear(); }
  constexpr void Clear() {
    for (std::size_t i = 0; i < N; ++i) {
      minCorner[i] = std::numeric_limits<T>::max();
      maxCorner[i] = std::numeric_limits<T>::lowest();
    }
  }
  constexpr bool IsEmpty() const { return minCorner[0] > maxCorner[0]; }
  constexpr void Add(const P& p) {
    for (std::size_t i = 0; i < N; ++i) {
      if (p[i] < minCorner[i]) minCorner[i] = p[i];
      if (p[i] > maxCorner[i]) maxCorner[i] = p[i];
    }
  }
  constexpr void Add(const boundingbox& b) {
    if (b.IsEmpty()) return;
    Add(b.minCorner);
    Add(b.maxCorner);
  }
};

// Sixteen doubles, row-major: element (r, c) is values[4 * r + c].
template <typename T>
struct matrix4x4 {
  T values[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  constexpr T& operator()(std::size_t r, std::size_t c) { return values[4 * r + c]; }
  constexpr const T& operator()(std::size_t r, std::size_t c) const { return values[4 * r + c]; }
};

}  // namespace ZorSDK::Math
