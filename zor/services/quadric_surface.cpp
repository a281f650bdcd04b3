#include "zor/services/quadric_surface.h"

#include <cmath>
#include <cstddef>

#include <Eigen/Dense>

namespace {

// A unit vector orthogonal to the unit `n`, built from the axis least aligned with it.
MMVector3d AnyOrthogonal(const MMVector3d& n) {
  const double ax = std::fabs(n[0]), ay = std::fabs(n[1]), az = std::fabs(n[2]);
  MMVector3d axis = ax <= ay && ax <= az ? MMVector3d(1, 0, 0) : (ay <= az ? MMVector3d(0, 1, 0) : MMVector3d(0, 0, 1));
  MMVector3d u = Cross(n, axis);
  Normalize(u);
  return u;
}

struct HeightFit {
  MMVector3d normal;  // unit, world frame
  double k1 = 0.0, k2 = 0.0;
};

// One weighted least-squares fit about the unit normal `n`. False when the system does
// not determine the six coefficients.
bool FitOnce(const MMVector3d& centre, const std::vector<MMVector3d>& points, const std::vector<double>& weights,
             const MMVector3d& n, HeightFit& out) {
  const MMVector3d u = AnyOrthogonal(n);
  const MMVector3d v = Cross(n, u);
  // Lengths are divided by the weighted RMS radius, so the system is equally well
  // conditioned at any scale of the data.
  double radius2 = 0.0, weightSum = 0.0;
  std::size_t used = 0;
  for (std::size_t i = 0; i < points.size(); ++i) {
    const double w = weights[i];
    const MMVector3d p = points[i] - centre;
    if (!(w > 0.0) || !std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2]) || !std::isfinite(w))
      continue;
    radius2 += w * Length2(p);
    weightSum += w;
    ++used;
  }
  if (used < 6 || !(radius2 > 0.0)) return false;
  const double scale = 1.0 / std::sqrt(radius2 / weightSum);

  Eigen::Matrix<double, 6, 6> normalMatrix = Eigen::Matrix<double, 6, 6>::Zero();
  Eigen::Matrix<double, 6, 1> rhs = Eigen::Matrix<double, 6, 1>::Zero();
  for (std::size_t i = 0; i < points.size(); ++i) {
    const double w = weights[i];
    const MMVector3d p = points[i] - centre;
    if (!(w > 0.0) || !std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2]) || !std::isfinite(w))
      continue;
    const double x = Dot(p, u) * scale, y = Dot(p, v) * scale, h = Dot(p, n) * scale;
    Eigen::Matrix<double, 6, 1> row;
    row << x * x, x * y, y * y, x, y, 1.0;
    const double ws = w / weightSum;
    normalMatrix.noalias() += ws * row * row.transpose();
    rhs.noalias() += ws * h * row;
  }
  // A rank test on the normal equations: pivots below 1e-10 of the largest mean the
  // positions do not pin down the quadric (a line, a single ring of collinear points).
  Eigen::ColPivHouseholderQR<Eigen::Matrix<double, 6, 6>> qr(normalMatrix);
  qr.setThreshold(1e-10);
  if (qr.rank() < 6) return false;
  const Eigen::Matrix<double, 6, 1> coef = qr.solve(rhs);
  if (!coef.allFinite()) return false;

  // The fitted surface is z(x, y) in scaled units; at the foot of the centre (0, 0):
  // gradient (d, e), second derivatives (2a, b, 2c).
  const double a = coef[0], b = coef[1], c = coef[2], d = coef[3], e = coef[4];
  const double fxx = 2.0 * a, fxy = b, fyy = 2.0 * c;
  const double w2 = 1.0 + d * d + e * e, w = std::sqrt(w2);
  // First and second fundamental forms of a graph; curvature is read with the sign
  // flipped so that a surface bending away from the normal counts as positive.
  const double E = 1.0 + d * d, F = d * e, G = 1.0 + e * e;
  const double L = -fxx / w, M = -fxy / w, N = -fyy / w;
  const double det = E * G - F * F;
  const double gaussian = (L * N - M * M) / det;
  const double mean = (E * N - 2.0 * F * M + G * L) / (2.0 * det);
  const double disc = std::sqrt(std::fmax(0.0, mean * mean - gaussian));
  out.k1 = (mean + disc) * scale;
  out.k2 = (mean - disc) * scale;
  out.normal = u * (-d / w) + v * (-e / w) + n * (1.0 / w);
  Normalize(out.normal);
  return true;
}

}  // namespace

bool MQuadricSurface::Fit(const MMVector3d& centre, std::vector<MMVector3d>& points, std::vector<double>& weights,
                          MMVector3d& normal, bool refine) {
  if (points.size() != weights.size()) return false;
  MMVector3d n = normal;
  if (!std::isfinite(n[0]) || !std::isfinite(n[1]) || !std::isfinite(n[2]) || Normalize(n) == 0.0) return false;
  HeightFit fit;
  if (!FitOnce(centre, points, weights, n, fit)) return false;
  if (refine) {
    HeightFit second;
    if (FitOnce(centre, points, weights, fit.normal, second)) fit = second;
  }
  if (Dot(fit.normal, n) < 0.0) {
    // Seen from the other side, bending away becomes bending towards.
    fit.normal = -fit.normal;
    const double k1Flipped = -fit.k2;
    fit.k2 = -fit.k1;
    fit.k1 = k1Flipped;
  }
  normal = fit.normal;
  k1 = fit.k1;
  k2 = fit.k2;
  return true;
}
