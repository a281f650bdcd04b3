#include "generators/bodies.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "zor/model/mesh_builder.h"
#include "zor/model/unit.h"

namespace zorgen {
namespace {

constexpr double kPi = 3.14159265358979323846;

constexpr double kHalf[3] = {35.0, 23.0, 15.0};  // mm: half extents of the sample body's block

// Squared distance of the unit direction `d` from the direction of `at`, over `width`.
double Spread(const MMVector3d& d, MMVector3d at, double width) {
  Normalize(at);
  return Length2(d - at) / width;
}

// Distance (mm) from the sample body's centre to its surface along the unit direction `d`.
double SurfaceRadius(const MMVector3d& d) {
  const double p = 6.0;  // rounds the block's edges
  double q = 0.0;
  for (int k = 0; k < 3; ++k) q += std::pow(std::fabs(d[k]) / kHalf[k], p);
  double r = 1.0 / std::pow(q, 1.0 / p);
  // A flat-topped boss on the top face, off the middle towards +x +y.
  const double boss = Spread(d, MMVector3d(0.45, 0.3, 0.84), 0.015);
  r += 7.0 * std::exp(-boss * boss);
  // A dimple in the -y flank, and a groove down the -x end, off its middle.
  r -= 4.0 * std::exp(-Spread(d, MMVector3d(-0.3, -0.9, 0.2), 0.02));
  if (d[0] < -0.5) r -= 2.5 * std::exp(-(d[1] - 0.15) * (d[1] - 0.15) / 0.003);
  return r;
}

// Radius (micrometres) in the direction (x, y, z) of unit length.
double ShapeRadius(Shape s, double x, double y, double z) {
  switch (s) {
    case Shape::Smooth: {
      // An ellipsoid of semi-axes 50, 35 and 25 mm.
      const double q = x * x / (50.0 * 50.0) + y * y / (35.0 * 35.0) + z * z / (25.0 * 25.0);
      return 1000.0 / std::sqrt(q);
    }
    case Shape::Bumpy: {
      const double th = std::acos(std::max(-1.0, std::min(1.0, z))), ph = std::atan2(y, x);
      return 40000.0 + 2500.0 * std::sin(3 * th) * std::cos(5 * ph) + 800.0 * std::sin(11 * th + 2 * ph);
    }
    case Shape::Featured: {
      // A rounded block of 80 x 60 x 40 mm with sharp-ish edges, a boss on one face
      // and a groove across another.
      const double p = 10.0;
      const double q =
          std::pow(std::fabs(x) / 40.0, p) + std::pow(std::fabs(y) / 30.0, p) + std::pow(std::fabs(z) / 20.0, p);
      double r = 1000.0 / std::pow(q, 1.0 / p);
      const double bx = x - 0.5, by = y - 0.3, bz = z - 0.81;
      r += 6000.0 * std::exp(-(bx * bx + by * by + bz * bz) / 0.02);
      if (x < -0.2) r -= 1500.0 * std::exp(-(y * y) / 0.004);
      return r;
    }
    case Shape::Box: {
      // A rounded block of 90 x 60 x 30 mm: three distinct extents, no feature.
      const double p = 8.0;
      const double q =
          std::pow(std::fabs(x) / 45.0, p) + std::pow(std::fabs(y) / 30.0, p) + std::pow(std::fabs(z) / 15.0, p);
      return 1000.0 / std::pow(q, 1.0 / p);
    }
    case Shape::Rod: {
      // A rounded bar 120 mm long and 24 mm thick along X, with a point on its +X end:
      // symmetric about its axis only.
      const double rho = std::sqrt(y * y + z * z), p = 4.0;
      const double q = std::pow(std::fabs(x) / 60.0, p) + std::pow(rho / 12.0, p);
      return 1000.0 / std::pow(q, 1.0 / p) + (x > 0.0 ? 8000.0 * std::exp(-(1.0 - x) / 0.002) : 0.0);
    }
    case Shape::Disc: {
      // A rounded plate of 80 mm across and 16 mm thick along Z, domed on its +Z face:
      // symmetric about its axis only.
      const double rho = std::sqrt(x * x + y * y), p = 4.0;
      const double q = std::pow(rho / 40.0, p) + std::pow(std::fabs(z) / 8.0, p);
      return 1000.0 / std::pow(q, 1.0 / p) + (z > 0.0 ? 6000.0 * std::exp(-(1.0 - z) / 0.05) : 0.0);
    }
    case Shape::Ball: {
      // A 40 mm ball with six bumps and dents of 3 to 5 mm at scattered places: no
      // usable axis, yet one orientation only.
      static const double detail[6][5] = {{0.36, 0.48, 0.80, 5000, 0.05},   {-0.70, 0.10, 0.71, -4000, 0.06},
                                          {0.20, -0.93, 0.30, 4500, 0.04},  {-0.40, -0.40, -0.82, 3000, 0.08},
                                          {0.90, 0.20, -0.39, -3000, 0.03}, {-0.15, 0.85, -0.50, 4000, 0.05}};
      double r = 40000.0;
      for (const auto& b : detail) {
        const double dx = x - b[0], dy = y - b[1], dz = z - b[2];
        r += b[3] * std::exp(-(dx * dx + dy * dy + dz * dz) / b[4]);
      }
      return r;
    }
  }
  return 0.0;
}

// Rough half extents (mm) of each body, used to spread the vertices more evenly.
MMVector3d ShapeExtents(Shape s) {
  switch (s) {
    case Shape::Smooth: return MMVector3d(50, 35, 25);
    case Shape::Bumpy: return MMVector3d(40, 40, 40);
    case Shape::Featured: return MMVector3d(40, 30, 20);
    case Shape::Box: return MMVector3d(45, 30, 15);
    case Shape::Rod: return MMVector3d(64, 12, 12);
    case Shape::Disc: return MMVector3d(40, 40, 10);
    case Shape::Ball: return MMVector3d(40, 40, 40);
  }
  return MMVector3d(1, 1, 1);
}

// A geodesic sphere: each face of the icosahedron split into n^2 triangles, 20 n^2 in
// all, outward winding. Points on the icosahedron's edges are made once, so the mesh
// is closed.
void GeodesicSphere(int n, std::vector<MMVector3d>& directions, std::vector<std::uint32_t>& triangles) {
  const double t = (1.0 + std::sqrt(5.0)) / 2.0;
  const MMVector3d corners[12] = {{-1, t, 0},  {1, t, 0},  {-1, -t, 0}, {1, -t, 0}, {0, -1, t},  {0, 1, t},
                                  {0, -1, -t}, {0, 1, -t}, {t, 0, -1},  {t, 0, 1},  {-t, 0, -1}, {-t, 0, 1}};
  const int faces[20][3] = {{0, 11, 5},  {0, 5, 1},  {0, 1, 7},  {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
                            {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
                            {3, 8, 9},   {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
  directions.assign(corners, corners + 12);
  std::map<std::tuple<int, int, int>, std::uint32_t> edgePoints;
  const auto edgePoint = [&](int a, int b, int k) -> std::uint32_t {  // k steps from a towards b
    if (k == 0) return static_cast<std::uint32_t>(a);
    if (k == n) return static_cast<std::uint32_t>(b);
    if (a > b) std::swap(a, b), k = n - k;
    const auto [it, fresh] =
        edgePoints.emplace(std::make_tuple(a, b, k), static_cast<std::uint32_t>(directions.size()));
    if (fresh) directions.push_back(corners[a] + (corners[b] - corners[a]) * (static_cast<double>(k) / n));
    return it->second;
  };
  std::vector<std::uint32_t> grid((n + 1) * (n + 1));
  for (const auto& f : faces) {
    for (int i = 0; i <= n; ++i)
      for (int j = 0; i + j <= n; ++j) {
        std::uint32_t id;
        if (j == 0)
          id = edgePoint(f[0], f[1], i);
        else if (i == 0)
          id = edgePoint(f[0], f[2], j);
        else if (i + j == n)
          id = edgePoint(f[1], f[2], j);
        else {
          id = static_cast<std::uint32_t>(directions.size());
          directions.push_back(corners[f[0]] + (corners[f[1]] - corners[f[0]]) * (static_cast<double>(i) / n) +
                               (corners[f[2]] - corners[f[0]]) * (static_cast<double>(j) / n));
        }
        grid[i * (n + 1) + j] = id;
      }
    const auto at = [&](int i, int j) { return grid[i * (n + 1) + j]; };
    for (int i = 0; i < n; ++i)
      for (int j = 0; i + j < n; ++j) {
        Push3(triangles, at(i, j), at(i + 1, j), at(i, j + 1));
        if (i + j < n - 1) Push3(triangles, at(i + 1, j), at(i + 1, j + 1), at(i, j + 1));
      }
  }
  for (MMVector3d& d : directions) Normalize(d);
}

}  // namespace

std::unique_ptr<MStlBase> MakeSphere(double radius, int rows, int cols, double bump, MMVector3d centre) {
  return MakeMesh(RowsOfPoints(rows, cols, [&](double th, double ph, bool) {
    const double r = radius + bump * (std::sin(3 * th + 0.5) * std::cos(2 * ph) + 0.5 * std::sin(5 * ph + th));
    return centre + MMVector3d(r * std::sin(th) * std::cos(ph), r * std::sin(th) * std::sin(ph), r * std::cos(th));
  }));
}

MeshArrays MakeScanLikeMesh(std::int64_t triangles) {
  const int rows = std::max(4, static_cast<int>(std::sqrt(triangles / 4.0)));
  const int cols = std::max(8, static_cast<int>(triangles / (2.0 * rows)));
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0.0, 5.0);
  return RowsOfPoints(rows, cols, [&](double th, double ph, bool pole) {
    const double rad = 40000.0 + 2500.0 * std::sin(3 * th) * std::cos(5 * ph) + 800.0 * std::sin(11 * th + 2 * ph) +
                       (pole ? 0.0 : noise(rng));
    return MMVector3d(rad * std::sin(th) * std::cos(ph), rad * std::sin(th) * std::sin(ph), rad * std::cos(th));
  });
}

MeshArrays MakeBumpyHeightField(std::int64_t triangles) {
  const int n = static_cast<int>(std::sqrt(triangles / 2.0));
  return HeightField(n, 100.0, [](int i, int j) { return 500.0 * std::sin(i * 0.05) * std::cos(j * 0.07); });
}

const char* ShapeName(Shape s) {
  switch (s) {
    case Shape::Smooth: return "smooth";
    case Shape::Bumpy: return "bumpy";
    case Shape::Featured: return "featured";
    case Shape::Box: return "box";
    case Shape::Rod: return "rod";
    case Shape::Disc: return "disc";
    case Shape::Ball: return "ball";
  }
  return "?";
}

// About `triangles` triangles of body `s`, in micrometres, with vertices spread about
// evenly over the surface as a scanner's would be: a geodesic sphere stretched to the
// body's extents, laid on the surface along rays from the centre, then relaxed (each
// vertex to the middle of its neighbours, back on the surface). Points are rounded to
// whole micrometres after `noise` micrometres of Gaussian noise along the ray.
MeshArrays MakeShape(Shape s, std::int64_t triangles, double noise) {
  const int n = std::max(2, static_cast<int>(std::lround(std::sqrt(static_cast<double>(triangles) / 20.0))));
  std::vector<MMVector3d> directions;
  MeshArrays m;
  GeodesicSphere(n, directions, m.indices);
  const MMVector3d extents = ShapeExtents(s);
  const auto onSurface = [&](MMVector3d d) {
    Normalize(d);
    return d * ShapeRadius(s, d[0], d[1], d[2]);
  };
  std::vector<MMVector3d> points(directions.size()), next(directions.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    const MMVector3d& d = directions[i];
    points[i] = onSurface(MMVector3d(d[0] * extents[0], d[1] * extents[1], d[2] * extents[2]));
  }
  std::vector<std::vector<std::uint32_t>> neighbours(points.size());
  for (std::size_t t = 0; t < m.indices.size(); t += 3)
    for (int k = 0; k < 3; ++k) neighbours[m.indices[t + k]].push_back(m.indices[t + (k + 1) % 3]);
  for (int iteration = 0; iteration < 10; ++iteration) {
    for (std::size_t i = 0; i < points.size(); ++i) {
      MMVector3d sum;
      for (std::uint32_t j : neighbours[i]) sum += points[j];
      next[i] = onSurface(points[i] * 0.5 + sum * (0.5 / static_cast<double>(neighbours[i].size())));
    }
    points.swap(next);
  }
  std::mt19937 rng(11);
  std::normal_distribution<double> gauss(0.0, noise > 0.0 ? noise : 1.0);
  for (const MMVector3d& p : points) {
    MMVector3d q = p;
    if (noise > 0.0) {
      MMVector3d ray = p;
      Normalize(ray);
      q += ray * gauss(rng);
    }
    Push3(m.xyz, std::round(q[0]), std::round(q[1]), std::round(q[2]));
  }
  SetDiagonal(m);
  return m;
}

std::unique_ptr<MStlBase> MakeSampleBody(int n) {
  const double ie = MUnit::GetIE();
  // Points of the cube's surface lattice [0, n]^3, each made once so the mesh
  // is closed.
  const std::size_t side = static_cast<std::size_t>(n) + 1;
  std::vector<std::uint32_t> id(side * side * side, UINT32_MAX);
  std::vector<double> xyz;
  const auto point = [&](int i, int j, int k) {
    std::uint32_t& slot = id[(static_cast<std::size_t>(i) * side + j) * side + k];
    if (slot == UINT32_MAX) {
      slot = static_cast<std::uint32_t>(xyz.size() / 3);
      // Equal angles rather than equal steps across each face spread the points
      // evenly.
      const int lattice[3] = {i, j, k};
      MMVector3d d;
      for (int a = 0; a < 3; ++a) d[a] = std::tan((2.0 * lattice[a] / n - 1.0) * kPi / 4.0) * kHalf[a];
      Normalize(d);
      const double r = SurfaceRadius(d) * ie;
      for (int a = 0; a < 3; ++a) xyz.push_back(std::round(d[a] * r));
    }
    return slot;
  };
  std::vector<std::uint32_t> triangles;
  for (int a = 0; a < 3; ++a)
    for (int s = 0; s <= n; s += n) {
      const int b = (a + 1) % 3, c = (a + 2) % 3;
      const auto at = [&](int u, int v) {
        int lattice[3];
        lattice[a] = s, lattice[b] = u, lattice[c] = v;
        return point(lattice[0], lattice[1], lattice[2]);
      };
      for (int u = 0; u < n; ++u)
        for (int v = 0; v < n; ++v) {
          const std::uint32_t q[4] = {at(u, v), at(u + 1, v), at(u + 1, v + 1), at(u, v + 1)};
          // Counter-clockwise seen from outside: e_b x e_c points along +a.
          if (s == n)
            triangles.insert(triangles.end(), {q[0], q[1], q[2], q[0], q[2], q[3]});
          else
            triangles.insert(triangles.end(), {q[0], q[2], q[1], q[0], q[3], q[2]});
        }
    }
  return BuildStl(xyz.data(), xyz.size() / 3, triangles.data(), triangles.size() / 3);
}

}  // namespace zorgen
