#include "generators/virtual_scans.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace zorgen {
namespace {

constexpr double kGrazingCosine = 0.2;  // a scanner sees no surface at a flatter angle
constexpr double kCellEdges = 0.5;      // depth cells across a mean edge
// A triangle farther than this many cells behind the nearest surface in its cell, over
// the cosine of its slant, is hidden.
constexpr double kHiddenCells = 2.0;

MMVector3d Corner(const MeshArrays& m, std::uint32_t i) {
  return MMVector3d(m.xyz[3 * i], m.xyz[3 * i + 1], m.xyz[3 * i + 2]);
}

double TriangleArea(const MeshArrays& m, std::uint32_t t) {
  const MMVector3d a = Corner(m, m.indices[3 * t]), b = Corner(m, m.indices[3 * t + 1]),
                   c = Corner(m, m.indices[3 * t + 2]);
  return 0.5 * Length(Cross(b - a, c - a));
}

// The nearest depth along the line of sight on a grid across the view: every triangle
// rasterised at the centres of the cells it covers.
class DepthBuffer {
public:
  DepthBuffer(const std::vector<double>& x, const std::vector<double>& y, double cell) : size(cell) {
    x0 = *std::min_element(x.begin(), x.end()) - cell;
    y0 = *std::min_element(y.begin(), y.end()) - cell;
    nx = static_cast<int>((*std::max_element(x.begin(), x.end()) - x0) / cell) + 2;
    ny = static_cast<int>((*std::max_element(y.begin(), y.end()) - y0) / cell) + 2;
    depth.assign(static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny), -HUGE_VAL);
  }
  void Draw(const double (&px)[3], const double (&py)[3], const double (&pz)[3]) {
    const double area = (px[1] - px[0]) * (py[2] - py[0]) - (px[2] - px[0]) * (py[1] - py[0]);
    if (std::fabs(area) < 1e-12) return;
    const int i0 = std::max(0, Cell(std::min({px[0], px[1], px[2]}), x0)),
              i1 = std::min(nx - 1, Cell(std::max({px[0], px[1], px[2]}), x0) + 1);
    const int j0 = std::max(0, Cell(std::min({py[0], py[1], py[2]}), y0)),
              j1 = std::min(ny - 1, Cell(std::max({py[0], py[1], py[2]}), y0) + 1);
    for (int j = j0; j <= j1; ++j)
      for (int i = i0; i <= i1; ++i) {
        const double cx = x0 + (i + 0.5) * size, cy = y0 + (j + 0.5) * size;
        const double w1 = ((cx - px[0]) * (py[2] - py[0]) - (px[2] - px[0]) * (cy - py[0])) / area;
        const double w2 = ((px[1] - px[0]) * (cy - py[0]) - (cx - px[0]) * (py[1] - py[0])) / area;
        const double w0 = 1.0 - w1 - w2;
        if (w0 < 0.0 || w1 < 0.0 || w2 < 0.0) continue;
        double& d = depth[Index(i, j)];
        d = std::max(d, w0 * pz[0] + w1 * pz[1] + w2 * pz[2]);
      }
  }
  // The nearest depth in the cell of (x, y).
  double Near(double x, double y) const {
    const int i = Cell(x, x0), j = Cell(y, y0);
    return i >= 0 && i < nx && j >= 0 && j < ny ? depth[Index(i, j)] : -HUGE_VAL;
  }

private:
  int Cell(double v, double origin) const { return static_cast<int>(std::floor((v - origin) / size)); }
  std::size_t Index(int i, int j) const { return static_cast<std::size_t>(j) * static_cast<std::size_t>(nx) + i; }
  double size, x0 = 0.0, y0 = 0.0;
  int nx = 0, ny = 0;
  std::vector<double> depth;
};

}  // namespace

std::vector<VirtualScan> VirtualScans(const MeshArrays& body, std::size_t count, double noise, std::uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> gauss(0.0, 1.0);
  const double turn = 2.0 * M_PI * static_cast<double>(rng() % 100000) / 100000.0;
  const std::size_t points = body.xyz.size() / 3, triangleCount = body.indices.size() / 3;
  double edges = 0.0;
  for (std::size_t t = 0; t < triangleCount; ++t)
    edges += Length(Corner(body, body.indices[3 * t + 1]) - Corner(body, body.indices[3 * t]));
  const double cell = kCellEdges * edges / static_cast<double>(std::max<std::size_t>(1, triangleCount));

  std::vector<VirtualScan> scans;
  for (std::size_t v = 0; v < count; ++v) {
    // A spiral over the sphere: even heights, the golden angle around.
    const double z = 1.0 - (2.0 * static_cast<double>(v) + 1.0) / static_cast<double>(count);
    const double around = turn + static_cast<double>(v) * M_PI * (3.0 - std::sqrt(5.0));
    const double r = std::sqrt(std::max(0.0, 1.0 - z * z));
    VirtualScan scan;
    scan.direction = MMVector3d(r * std::cos(around), r * std::sin(around), z);
    const MMVector3d d = scan.direction;
    MMVector3d u = std::fabs(d[0]) < 0.9 ? Cross(d, MMVector3d(1, 0, 0)) : Cross(d, MMVector3d(0, 1, 0));
    u = u / Length(u);
    const MMVector3d w = Cross(d, u);
    std::vector<double> x(points), y(points), depth(points);
    for (std::size_t i = 0; i < points; ++i) {
      const MMVector3d p = Corner(body, static_cast<std::uint32_t>(i));
      x[i] = Dot(p, u);
      y[i] = Dot(p, w);
      depth[i] = Dot(p, d);
    }
    DepthBuffer buffer(x, y, cell);
    for (std::size_t t = 0; t < triangleCount; ++t) {
      const std::uint32_t* c = &body.indices[3 * t];
      const double px[3] = {x[c[0]], x[c[1]], x[c[2]]}, py[3] = {y[c[0]], y[c[1]], y[c[2]]},
                   pz[3] = {depth[c[0]], depth[c[1]], depth[c[2]]};
      buffer.Draw(px, py, pz);
    }
    std::vector<std::uint32_t> renumber(points, UINT32_MAX);
    for (std::size_t t = 0; t < triangleCount; ++t) {
      const std::uint32_t* c = &body.indices[3 * t];
      const MMVector3d a = Corner(body, c[0]);
      const MMVector3d n = Cross(Corner(body, c[1]) - a, Corner(body, c[2]) - a);
      const double length = Length(n);
      if (!(length > 0.0) || Dot(n, d) < kGrazingCosine * length) continue;
      const double cx = (x[c[0]] + x[c[1]] + x[c[2]]) / 3.0, cy = (y[c[0]] + y[c[1]] + y[c[2]]) / 3.0;
      const double cz = (depth[c[0]] + depth[c[1]] + depth[c[2]]) / 3.0;
      if (cz < buffer.Near(cx, cy) - kHiddenCells * cell * length / Dot(n, d)) continue;
      scan.triangles.push_back(static_cast<std::uint32_t>(t));
      for (int k = 0; k < 3; ++k) {
        if (renumber[c[k]] == UINT32_MAX) {
          renumber[c[k]] = static_cast<std::uint32_t>(scan.view.xyz.size() / 3);
          const MMVector3d p = Corner(body, c[k]) + d * (noise * gauss(rng));
          Push3(scan.view.xyz, std::round(p[0]), std::round(p[1]), std::round(p[2]));
        }
        scan.view.indices.push_back(renumber[c[k]]);
      }
    }
    SetDiagonal(scan.view);
    scans.push_back(std::move(scan));
  }
  return scans;
}

double SharedArea(const MeshArrays& body, const VirtualScan& a, const VirtualScan& b) {
  double all = 0.0, shared = 0.0;
  for (const std::uint32_t t : a.triangles) {
    const double area = TriangleArea(body, t);
    all += area;
    if (std::binary_search(b.triangles.begin(), b.triangles.end(), t)) shared += area;
  }
  return all > 0.0 ? shared / all : 0.0;
}

}  // namespace zorgen
