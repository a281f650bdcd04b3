#pragma once
// Small fixed-size vectors. The geometry of the library runs on MMVector<double,3>;
// integer mesh coordinates use MMVector<std::int32_t,3>, stored normals MMVector<float,3>.

#include <cmath>
#include <cstddef>
#include <cstdint>

template <typename T, std::size_t N>
class MMVector;

template <typename T>
class MMVector<T, 3> {
public:
  constexpr MMVector() : v{T(0), T(0), T(0)} {}
  constexpr MMVector(T x, T y, T z) : v{x, y, z} {}

  // Explicit widening or narrowing between component types (the caller decides
  // where precision changes; double to integer truncates toward zero).
  template <typename U>
  constexpr explicit MMVector(const MMVector<U, 3>& o)
      : v{static_cast<T>(o[0]), static_cast<T>(o[1]), static_cast<T>(o[2])} {}

  constexpr T& operator[](std::size_t i) { return v[i]; }
  constexpr const T& operator[](std::size_t i) const { return v[i]; }
  constexpr T* Data() { return v; }
  constexpr const T* Data() const { return v; }

  constexpr MMVector& operator+=(const MMVector& o) {
    v[0] += o.v[0];
    v[1] += o.v[1];
    v[2] += o.v[2];
    return *this;
  }
  constexpr MMVector& operator-=(const MMVector& o) {
    v[0] -= o.v[0];
    v[1] -= o.v[1];
    v[2] -= o.v[2];
    return *this;
  }
  constexpr MMVector& operator*=(T s) {
    v[0] *= s;
    v[1] *= s;
    v[2] *= s;
    return *this;
  }
  constexpr MMVector& operator/=(T s) {
    v[0] /= s;
    v[1] /= s;
    v[2] /= s;
    return *this;
  }

  friend constexpr MMVector operator+(MMVector a, const MMVector& b) { return a += b; }
  friend constexpr MMVector operator-(MMVector a, const MMVector& b) { return a -= b; }
  friend constexpr MMVector operator-(const MMVector& a) { return MMVector(-a.v[0], -a.v[1], -a.v[2]); }
  friend constexpr MMVector operator*(MMVector a, T s) { return a *= s; }
  friend constexpr MMVector operator*(T s, MMVector a) { return a *= s; }
  friend constexpr MMVector operator/(MMVector a, T s) { return a /= s; }
  friend constexpr bool operator==(const MMVector& a, const MMVector& b) {
    return a.v[0] == b.v[0] && a.v[1] == b.v[1] && a.v[2] == b.v[2];
  }
  friend constexpr bool operator!=(const MMVector& a, const MMVector& b) { return !(a == b); }

private:
  T v[3];
};

using MMVector3d = MMVector<double, 3>;
using MMVector3f = MMVector<float, 3>;
using MMVector3i = MMVector<std::int32_t, 3>;

template <typename T>
constexpr T Dot(const MMVector<T, 3>& a, const MMVector<T, 3>& b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

template <typename T>
constexpr MMVector<T, 3> Cross(const MMVector<T, 3>& a, const MMVector<T, 3>& b) {
  return MMVector<T, 3>(a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]);
}

// Orders by x, then y, then z: a total order on vectors without NaN.
template <typename T>
constexpr bool LexicographicLess(const MMVector<T, 3>& a, const MMVector<T, 3>& b) {
  if (a[0] != b[0]) return a[0] < b[0];
  if (a[1] != b[1]) return a[1] < b[1];
  return a[2] < b[2];
}

// Scale-safe length: m * sqrt((l/g)^2 + (k/g)^2 + 1) with m the largest absolute
// component, l and k the others and g = max(m, smallest positive double). It neither
// overflows for components near the largest double nor underflows for subnormal ones.
inline double ScaleSafeLength(double x, double y, double z) {
  double ax = std::fabs(x), ay = std::fabs(y), az = std::fabs(z);
  double m = ax, l = ay, k = az;
  if (ay > m) {
    m = ay;
    l = ax;
    k = az;
  }
  if (az > m) {
    m = az;
    l = ax;
    k = ay;
  }
  if (m == 0.0) return 0.0;
  const double g = m > 4.9406564584124654e-324 ? m : 4.9406564584124654e-324;
  const double lg = l / g, kg = k / g;
  return m * std::sqrt(lg * lg + kg * kg + 1.0);
}

inline double Length(const MMVector<double, 3>& a) { return ScaleSafeLength(a[0], a[1], a[2]); }

inline double Length2(const MMVector<double, 3>& a) { return Dot(a, a); }

// Divides by the scale-safe length; a zero vector is left as it is. Returns the length.
inline double Normalize(MMVector<double, 3>& a) {
  const double len = Length(a);
  if (len > 0.0) a /= len;
  return len;
}
