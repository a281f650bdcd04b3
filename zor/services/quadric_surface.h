#pragma once
// A quadric height field fitted to a neighbourhood of a surface, for normals and
// curvature at a point.

#include <vector>

#include "zor/model/mm_vector.h"
#include "zor/services/export.h"

// Fits h(x, y) = a x^2 + b x y + c y^2 + d x + e y + f by weighted least squares in the
// frame whose height axis is the given normal and whose origin is the centre, and reads
// the normal and the principal curvatures of the fitted surface at the foot of the
// centre (the point of the surface above it).
//
// Curvatures are positive where the surface bends away from the normal: a sphere of
// radius r with outward normals has K1 = K2 = mean = 1/r and Gaussian 1/r^2. K1 is the
// larger principal curvature. Lengths are in the units of the points.
//
// Not for concurrent use: one object per thread.
class ZOR_SERVICES_API MQuadricSurface {
public:
  MQuadricSurface() = default;

  // `points` and `weights` are matched by index; points with a weight that is not
  // positive, or a coordinate that is not finite, take no part. With `refine` true the
  // fit is repeated once in the frame of the normal it found, which removes the bias of
  // a starting normal that is several degrees off.
  //
  // Returns false, leaving `normal` and the curvatures as they were, when the normal is
  // zero, the lists differ in length, fewer than six points take part, or the points
  // do not determine the six coefficients (all on one line, or too few distinct
  // positions). On success `normal` becomes the unit normal of the fit, on the side of
  // the normal given. The lists are not changed.
  bool Fit(const MMVector3d& centre, std::vector<MMVector3d>& points, std::vector<double>& weights, MMVector3d& normal,
           bool refine);

  double GetCurvatureK1() const { return k1; }
  double GetCurvatureK2() const { return k2; }
  double GetCurvatureMean() const { return 0.5 * (k1 + k2); }
  double GetCurvatureGaussian() const { return k1 * k2; }

private:
  double k1 = 0.0;
  double k2 = 0.0;
};
