#pragma once
// Small numeric helpers beside the transforms: the plane through three points, the real
// roots of a quadratic, and the rigid map that takes the Z axis onto a line.

#include "zor/model/export.h"
#include "zor/model/mm_vector.h"
#include "zor/model/transform.h"

// The plane a x + b y + c z + d = 0 through three points, with (a, b, c) the unit normal
// of the triangle p0 p1 p2 (counter-clockwise winding). Collinear points give an invalid
// plane, on which Project leaves the point as it is and returns 0.
template <typename T>
class MMPlaneEq {
public:
  MMPlaneEq(const MMVector<T, 3>& p0, const MMVector<T, 3>& p1, const MMVector<T, 3>& p2) {
    normal = Cross(p1 - p0, p2 - p0);
    const T len = Length(normal);
    valid = len > T(0);
    if (valid) normal /= len;
    d = -Dot(normal, p0);
  }
  bool IsValid() const { return valid; }
  const MMVector<T, 3>& GetNormal() const { return normal; }
  T GetD() const { return d; }
  T SignedDistance(const MMVector<T, 3>& p) const { return valid ? Dot(normal, p) + d : T(0); }
  // Projects `in` onto the plane into `out`; returns the signed distance of `in`.
  T Project(MMVector<T, 3>& out, const MMVector<T, 3>& in) const {
    const T dist = SignedDistance(in);
    out = in - normal * dist;
    return dist;
  }

private:
  MMVector<T, 3> normal;
  T d = T(0);
  bool valid = false;
};

// Real roots of a x^2 + b x + c = 0, by the cancellation-free form of the formula.
// a = 0 falls back to the linear equation. A double root counts once. Roots ascend.
class ZOR_MODEL_API MMQuadraticEquation {
public:
  void Set(double a, double b, double c);
  // True when at least one real root exists.
  bool Solve();
  unsigned char GetNumRoots() const { return numRoots; }
  // Root i < GetNumRoots(); throws std::out_of_range otherwise.
  double GetRoot(unsigned char i) const;

private:
  double a = 0.0, b = 0.0, c = 0.0;
  double roots[2] = {0.0, 0.0};
  unsigned char numRoots = 0;
};

class ZOR_MODEL_API ZorMathUtility {
public:
  // The rigid map that takes the Z axis onto the line through `point` along
  // `direction`: origin to `point`, (0, 0, 1) to the unit direction, by the shortest
  // rotation (a half turn about X when the direction is -Z). False, with the identity
  // in `out`, for a zero direction.
  static bool GetTransformationFromOzToLine(const MMVector3d& point, const MMVector3d& direction,
                                            MMTransformMatrix& out);
};
