#include "generators/deformations.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <meshoptimizer.h>

namespace zorgen {

namespace {

MMVector3d Point(const MeshArrays& m, std::size_t i) {
  return MMVector3d(m.xyz[3 * i], m.xyz[3 * i + 1], m.xyz[3 * i + 2]);
}

struct Box {
  MMVector3d lo, hi;
  MMVector3d Centre() const { return (lo + hi) * 0.5; }
  MMVector3d Half() const { return (hi - lo) * 0.5; }
};

Box BoxOf(const MeshArrays& m) {
  Box b{MMVector3d(1e300, 1e300, 1e300), MMVector3d(-1e300, -1e300, -1e300)};
  for (std::size_t i = 0; i < m.xyz.size(); i += 3)
    for (int k = 0; k < 3; ++k) {
      b.lo[k] = std::min(b.lo[k], m.xyz[i + k]);
      b.hi[k] = std::max(b.hi[k], m.xyz[i + k]);
    }
  return b;
}

// SplitMix64: the n-th draw depends on the seed and n alone.
std::uint64_t Mix(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

}  // namespace

std::vector<MMVector3d> VertexNormals(const MeshArrays& m) {
  std::vector<MMVector3d> normals(m.xyz.size() / 3);
  for (std::size_t t = 0; t + 2 < m.indices.size(); t += 3) {
    const MMVector3d a = Point(m, m.indices[t]), b = Point(m, m.indices[t + 1]), c = Point(m, m.indices[t + 2]);
    const MMVector3d area = Cross(b - a, c - a);
    for (int k = 0; k < 3; ++k) normals[m.indices[t + k]] += area;
  }
  for (MMVector3d& n : normals)
    if (Length(n) > 0.0) Normalize(n);
  return normals;
}

std::vector<MMVector3d> ChangedAlongNormals(const MeshArrays& m, const std::vector<LocalChange>& changes) {
  const std::vector<MMVector3d> normals = VertexNormals(m);
  const std::size_t n = m.xyz.size() / 3;
  std::vector<MMVector3d> places(n);
  for (std::size_t i = 0; i < n; ++i) places[i] = Point(m, i);
  for (const LocalChange& c : changes) {
    const MMVector3d centre = Point(m, c.centre);
    const double sigma = 0.5 * c.radius;
    for (std::size_t i = 0; i < n; ++i) {
      const MMVector3d off = Point(m, i) - centre;
      places[i] += normals[i] * (c.height * std::exp(-Dot(off, off) / (2.0 * sigma * sigma)));
    }
  }
  return places;
}

std::vector<LocalChange> NamedChanges(const MeshArrays& m, const std::string& name, std::uint64_t seed) {
  const Box box = BoxOf(m);
  const double extent = 2.0 * std::max({box.Half()[0], box.Half()[1], box.Half()[2]});
  const std::size_t n = m.xyz.size() / 3;
  // Vertices that some triangle uses, drawn in turn.
  std::vector<std::uint8_t> used(n, 0);
  for (const std::uint32_t v : m.indices) used[v] = 1;
  std::uint64_t state = seed;
  const auto draw = [&] {
    for (;;) {
      state = Mix(state);
      const std::size_t v = static_cast<std::size_t>(state % n);
      if (used[v] != 0) return v;
    }
  };
  const auto change = [&](std::size_t centre, double share, double sign) {
    const double radius = share * extent;
    return LocalChange{centre, radius, sign * std::min(0.15 * radius, 4000.0)};
  };
  for (const auto& [prefix, sign] : {std::pair<const char*, double>{"bump-", 1.0}, {"dent-", -1.0}})
    for (const int part : {5, 10, 20})
      if (name == prefix + std::to_string(part)) return {change(draw(), 1.0 / part, sign)};
  if (name == "several") {
    std::vector<LocalChange> out;
    // Centres at least a fifth of the extent apart, so that the three stay apart.
    for (const double sign : {1.0, 1.0, -1.0}) {
      for (int tries = 0; tries < 1000; ++tries) {
        const std::size_t v = draw();
        const bool apart = std::all_of(out.begin(), out.end(), [&](const LocalChange& c) {
          return Length(Point(m, v) - Point(m, c.centre)) > 0.2 * extent;
        });
        if (apart || tries == 999) {
          out.push_back(change(v, 0.1, sign));
          break;
        }
      }
    }
    return out;
  }
  return {};
}

std::vector<MMVector3d> Bent(const MeshArrays& m, const std::string& name) {
  const Box box = BoxOf(m);
  const MMVector3d centre = box.Centre(), half = box.Half();
  const double diagonal = 2.0 * Length(half);
  const std::size_t n = m.xyz.size() / 3;
  std::vector<MMVector3d> places(n);
  for (std::size_t i = 0; i < n; ++i) {
    const MMVector3d p = Point(m, i);
    if (name == "bend") {
      const double u = (p[0] - centre[0]) / half[0];
      places[i] = p + MMVector3d(0.0, 0.0, 0.02 * diagonal * u * u);
    } else if (name == "twist") {
      const double angle = 0.02 * diagonal / std::max(half[0], half[1]) * (p[2] - centre[2]) / half[2];
      const double x = p[0] - centre[0], y = p[1] - centre[1];
      places[i] = MMVector3d(centre[0] + x * std::cos(angle) - y * std::sin(angle),
                             centre[1] + x * std::sin(angle) + y * std::cos(angle), p[2]);
    } else {
      places[i] = p;
    }
  }
  return places;
}

MeshArrays Placed(const MeshArrays& m, const std::vector<MMVector3d>& places) {
  MeshArrays out = m;
  for (std::size_t i = 0; i < places.size(); ++i)
    for (int k = 0; k < 3; ++k) out.xyz[3 * i + k] = std::round(places[i][k]);
  SetDiagonal(out);
  return out;
}

MeshArrays ScaledToExtent(const MeshArrays& m, double extent) {
  const Box box = BoxOf(m);
  const double f = extent / (2.0 * std::max({box.Half()[0], box.Half()[1], box.Half()[2]}));
  MeshArrays out = m;
  for (std::size_t i = 0; i < out.xyz.size(); i += 3)
    for (int k = 0; k < 3; ++k) out.xyz[i + k] = std::round((m.xyz[i + k] - box.Centre()[k]) * f);
  SetDiagonal(out);
  return out;
}

MeshArrays Simplified(const MeshArrays& m, std::size_t triangles) {
  if (m.indices.size() / 3 <= triangles) return m;
  const std::vector<float> xyz(m.xyz.begin(), m.xyz.end());
  std::vector<std::uint32_t> kept(m.indices.size());
  kept.resize(meshopt_simplify(kept.data(), m.indices.data(), m.indices.size(), xyz.data(), m.xyz.size() / 3,
                               3 * sizeof(float), 3 * triangles, 0.05f, 0, nullptr));
  std::vector<std::uint32_t> renumber(m.xyz.size() / 3, std::numeric_limits<std::uint32_t>::max());
  MeshArrays out;
  for (std::uint32_t& v : kept) {
    if (renumber[v] == std::numeric_limits<std::uint32_t>::max()) {
      renumber[v] = static_cast<std::uint32_t>(out.xyz.size() / 3);
      for (int k = 0; k < 3; ++k) out.xyz.push_back(m.xyz[3 * v + k]);
    }
    out.indices.push_back(renumber[v]);
  }
  SetDiagonal(out);
  return out;
}

}  // namespace zorgen
