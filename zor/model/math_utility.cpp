#include "zor/model/math_utility.h"

#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

// ---------------------------------------------------------------------------------------
// MMQuadraticEquation

void MMQuadraticEquation::Set(double a_, double b_, double c_) {
  a = a_;
  b = b_;
  c = c_;
  numRoots = 0;
}

bool MMQuadraticEquation::Solve() {
  numRoots = 0;
  if (a == 0.0) {
    if (b == 0.0) return false;
    roots[0] = -c / b;
    numRoots = 1;
    return true;
  }
  const double disc = b * b - 4.0 * a * c;
  if (disc < 0.0) return false;
  if (disc == 0.0) {
    roots[0] = -b / (2.0 * a);
    numRoots = 1;
    return true;
  }
  // q = -(b + sign(b) sqrt(disc)) / 2 avoids subtracting nearly equal numbers.
  const double q = -0.5 * (b + std::copysign(std::sqrt(disc), b));
  double r0 = q / a;
  double r1 = q != 0.0 ? c / q : -r0;
  if (r0 > r1) std::swap(r0, r1);
  roots[0] = r0;
  roots[1] = r1;
  numRoots = 2;
  return true;
}

double MMQuadraticEquation::GetRoot(unsigned char i) const {
  if (i >= numRoots)
    throw std::out_of_range("MMQuadraticEquation::GetRoot: root " + std::to_string(i) + " of " +
                            std::to_string(numRoots));
  return roots[i];
}

// ---------------------------------------------------------------------------------------
// ZorMathUtility

bool ZorMathUtility::GetTransformationFromOzToLine(const MMVector3d& point, const MMVector3d& direction,
                                                   MMTransformMatrix& out) {
  MMVector3d d = direction;
  if (Normalize(d) == 0.0) {
    out.MakeIdentity();
    return false;
  }
  const MMVector3d z(0.0, 0.0, 1.0);
  const MMVector3d axis = Cross(z, d);
  const double sine = Length(axis);
  const double cosine = d[2];
  if (sine <= 1e-15) {
    if (cosine > 0.0)
      out.MakeIdentity();
    else
      out.MakeRotation(MMVector3d(), MMVector3d(1.0, 0.0, 0.0), 3.141592653589793);
  } else {
    out.MakeRotation(MMVector3d(), axis, std::atan2(sine, cosine));
  }
  out.FillInTranslation(point);
  return true;
}
