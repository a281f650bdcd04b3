#pragma once
// Squared distance from a point to a triangle, with the barycentric weights of the
// closest point. The region method of D. Eberly ("Distance Between Point and
// Triangle in 3D"): minimise the quadratic q(s, t) = |A + s E0 + t E1 - Q|^2 over the
// triangle by the region in which the unconstrained minimum (s0, t0) / det falls.
// A triangle whose edge cross product vanishes is treated as its three edges.
//
// Pure and serial; the trees, the closest-point records and the test oracle all call
// this one kernel.

#include <algorithm>

namespace MeshQueries {

struct PointTriangleResult {
  double distance2;   // squared distance, never negative
  double weights[3];  // of A, B, C: (1 - s - t, s, t)
};

namespace detail {

inline double Dot3(const double* u, const double* v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; }

// Parameter of the point of segment p0 -> p1 closest to q, clamped to [0, 1]; 0.5 for
// a segment shorter than about 1.2e-4. Writes the squared distance of that point.
inline double ClampedSegmentParameter(const double* q, const double* p0, const double* p1, double& dist2) {
  const double dir[3] = {p1[0] - p0[0], p1[1] - p0[1], p1[2] - p0[2]};
  const double rel[3] = {q[0] - p0[0], q[1] - p0[1], q[2] - p0[2]};
  const double len2 = Dot3(dir, dir);
  double t = len2 < 1.4901161193847656e-8 ? 0.5 : Dot3(rel, dir) / len2;
  t = std::min(1.0, std::max(0.0, t));
  const double diff[3] = {rel[0] - t * dir[0], rel[1] - t * dir[1], rel[2] - t * dir[2]};
  dist2 = Dot3(diff, diff);
  return t;
}

}  // namespace detail

// `q`, `a`, `b`, `c`: three doubles each. Returns the squared distance; when
// `weights` is not null, writes the weights of a, b, c there.
inline double PointTriangleDistance2(const double* q, const double* a, const double* b, const double* c,
                                     double* weights) {
  using detail::Dot3;
  const double e0[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
  const double e1[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
  const double cross[3] = {e0[1] * e1[2] - e0[2] * e1[1], e0[2] * e1[0] - e0[0] * e1[2], e0[0] * e1[1] - e0[1] * e1[0]};
  double s, t, dist2;
  if (Dot3(cross, cross) < 2.220446049250313e-16) {
    // Degenerate: the nearest of the edges A-C, A-B and C-B.
    double dAC, dAB, dCB;
    const double tAC = detail::ClampedSegmentParameter(q, a, c, dAC);
    const double sAB = detail::ClampedSegmentParameter(q, a, b, dAB);
    const double uCB = detail::ClampedSegmentParameter(q, c, b, dCB);
    if (dAB > dAC && dCB > dAC) {
      s = 0.0, t = tAC, dist2 = dAC;
    } else if (dCB > dAB) {
      s = sAB, t = 0.0, dist2 = dAB;
    } else {
      s = uCB, t = 1.0 - uCB, dist2 = dCB;
    }
  } else {
    const double dv[3] = {a[0] - q[0], a[1] - q[1], a[2] - q[2]};
    const double ea = Dot3(e0, e0), eb = Dot3(e0, e1), ec = Dot3(e1, e1);
    const double d = Dot3(e0, dv), e = Dot3(e1, dv), f = Dot3(dv, dv);
    const double det = std::abs(ea * ec - eb * eb);
    const double s0 = eb * e - ec * d, t0 = eb * d - ea * e;
    const double n = ea - 2.0 * eb + ec;
    if (s0 + t0 <= det) {
      if (s0 < 0.0 && t0 < 0.0 && d < 0.0) {
        t = 0.0;
        s = -d >= ea ? 1.0 : -d / ea;
      } else if (s0 < 0.0) {
        s = 0.0;
        t = e >= 0.0 ? 0.0 : (-e >= ec ? 1.0 : -e / ec);
      } else if (t0 < 0.0) {
        t = 0.0;
        s = d >= 0.0 ? 0.0 : (-d >= ea ? 1.0 : -d / ea);
      } else {
        const double inv = 1.0 / det;
        s = s0 * inv;
        t = t0 * inv;
      }
    } else if (s0 < 0.0) {
      const double u = eb + d, v = ec + e;
      if (v > u) {
        const double m = v - u;
        if (m >= n)
          s = 1.0, t = 0.0;
        else
          s = m / n, t = 1.0 - s;
      } else {
        s = 0.0;
        t = v <= 0.0 ? 1.0 : (e >= 0.0 ? 0.0 : -e / ec);
      }
    } else if (t0 < 0.0) {
      const double u = eb + e, v = ea + d;
      if (v > u) {
        const double m = v - u;
        if (m >= n)
          t = 1.0, s = 0.0;
        else
          t = m / n, s = 1.0 - t;
      } else {
        t = 0.0;
        s = v <= 0.0 ? 1.0 : (d >= 0.0 ? 0.0 : -d / ea);
      }
    } else {
      const double m = ec + e - eb - d;
      if (m <= 0.0)
        s = 0.0, t = 1.0;
      else if (m >= n)
        s = 1.0, t = 0.0;
      else
        s = m / n, t = 1.0 - s;
    }
    dist2 = s * (ea * s + eb * t + 2.0 * d) + t * (eb * s + ec * t + 2.0 * e) + f;
  }
  if (weights != nullptr) {
    weights[0] = 1.0 - s - t;
    weights[1] = s;
    weights[2] = t;
  }
  return dist2 < 0.0 ? 0.0 : dist2;
}

}  // namespace MeshQueries
