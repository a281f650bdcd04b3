#include "generators/scan_cases.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <random>
#include <utility>

#include <meshoptimizer.h>

#include "generators/poses.h"

namespace zorgen {

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Kind {
  ScanKind kind;
  const char* name;
};
constexpr Kind kKinds[] = {
    {ScanKind::Whole, "whole"},
    {ScanKind::Partial, "partial"},
    {ScanKind::Noisy, "noisy"},
    {ScanKind::Remeshed, "remeshed"},
    {ScanKind::Noise, "noise"},
    {ScanKind::Floaters, "floaters"},
    {ScanKind::Debris, "debris"},
    {ScanKind::Scene, "scene"},
    {ScanKind::Overlap, "overlap"},
    {ScanKind::Coarse, "coarse"},
    {ScanKind::Combination, "combination"},
};

MMVector3d Point(const MeshArrays& m, std::size_t i) {
  return MMVector3d(m.xyz[3 * i], m.xyz[3 * i + 1], m.xyz[3 * i + 2]);
}

struct Box {
  MMVector3d lo, hi;
  MMVector3d Centre() const { return (lo + hi) * 0.5; }
  MMVector3d Side() const { return hi - lo; }
};

Box BoxOf(const MeshArrays& m) {
  Box b{Point(m, 0), Point(m, 0)};
  for (std::size_t i = 0; i < m.xyz.size() / 3; ++i)
    for (int k = 0; k < 3; ++k) {
      b.lo[k] = std::min(b.lo[k], m.xyz[3 * i + k]);
      b.hi[k] = std::max(b.hi[k], m.xyz[3 * i + k]);
    }
  return b;
}

double MeanEdge(const MeshArrays& m) {
  double sum = 0.0;
  for (std::size_t t = 0; t < m.indices.size(); t += 3)
    for (int k = 0; k < 3; ++k) sum += Length(Point(m, m.indices[t + k]) - Point(m, m.indices[t + (k + 1) % 3]));
  return m.indices.empty() ? 0.0 : sum / static_cast<double>(m.indices.size());
}

// The triangles whose centroid `keep` accepts, with only the points they use; `flags`
// (one per point, may be empty) follows the points.
template <typename Keep>
MeshArrays KeepTriangles(const MeshArrays& m, const Keep& keep, std::vector<std::uint8_t>* flags = nullptr) {
  MeshArrays out;
  std::vector<std::int64_t> renumber(m.xyz.size() / 3, -1);
  std::vector<std::uint8_t> kept;
  for (std::size_t t = 0; t < m.indices.size(); t += 3) {
    const MMVector3d c =
        (Point(m, m.indices[t]) + Point(m, m.indices[t + 1]) + Point(m, m.indices[t + 2])) * (1.0 / 3.0);
    if (!keep(c)) continue;
    for (int k = 0; k < 3; ++k) {
      const std::uint32_t i = m.indices[t + k];
      if (renumber[i] < 0) {
        renumber[i] = static_cast<std::int64_t>(out.xyz.size() / 3);
        Push3(out.xyz, m.xyz[3 * i], m.xyz[3 * i + 1], m.xyz[3 * i + 2]);
        if (flags != nullptr) kept.push_back((*flags)[i]);
      }
      out.indices.push_back(static_cast<std::uint32_t>(renumber[i]));
    }
  }
  if (flags != nullptr) flags->swap(kept);
  SetDiagonal(out);
  return out;
}

void Append(MeshArrays& to, const MeshArrays& from) {
  const auto offset = static_cast<std::uint32_t>(to.xyz.size() / 3);
  to.xyz.insert(to.xyz.end(), from.xyz.begin(), from.xyz.end());
  for (std::uint32_t i : from.indices) to.indices.push_back(i + offset);
}

void AddNoise(MeshArrays& m, double sigma, std::mt19937& rng) {
  std::normal_distribution<double> gauss(0.0, sigma);
  for (double& c : m.xyz) c = std::round(c + gauss(rng));
}

// `count` loose triangles, equilateral with edges of `edge`, turned at random, centred
// anywhere in `box`.
MeshArrays LooseTriangles(std::size_t count, double edge, const Box& box, std::mt19937& rng) {
  MeshArrays m;
  std::uniform_real_distribution<double> u(0.0, 1.0);
  const double r = edge / std::sqrt(3.0);
  for (std::size_t t = 0; t < count; ++t) {
    const MMTransformMatrix turn = UniformPose(rng, 0.0);
    const MMVector3d centre(box.lo[0] + u(rng) * box.Side()[0], box.lo[1] + u(rng) * box.Side()[1],
                            box.lo[2] + u(rng) * box.Side()[2]);
    for (int k = 0; k < 3; ++k) {
      MMVector3d p(r * std::cos(2.0 * kPi * k / 3.0), r * std::sin(2.0 * kPi * k / 3.0), 0.0);
      turn.Transform(p, false);
      p = p + centre;
      Push3(m.xyz, std::round(p[0]), std::round(p[1]), std::round(p[2]));
      m.indices.push_back(static_cast<std::uint32_t>(3 * t + k));
    }
  }
  return m;
}

// A closed box [lo, hi] with `n` x `n` squares a face, outward winding.
MeshArrays BoxMesh(const MMVector3d& lo, const MMVector3d& hi, int n) {
  MeshArrays m;
  for (int axis = 0; axis < 3; ++axis)
    for (int side = 0; side < 2; ++side) {
      const int u = (axis + 1) % 3, v = (axis + 2) % 3;
      const auto base = static_cast<std::uint32_t>(m.xyz.size() / 3);
      for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) {
          MMVector3d p;
          p[axis] = side == 0 ? lo[axis] : hi[axis];
          p[u] = lo[u] + (hi[u] - lo[u]) * i / n;
          p[v] = lo[v] + (hi[v] - lo[v]) * j / n;
          Push3(m.xyz, std::round(p[0]), std::round(p[1]), std::round(p[2]));
        }
      for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
          const std::uint32_t a = base + static_cast<std::uint32_t>(j * (n + 1) + i), b = a + 1,
                              c = a + static_cast<std::uint32_t>(n) + 2, d = a + static_cast<std::uint32_t>(n) + 1;
          // u x v points along +axis: counter-clockwise in (u, v) faces outward on the high side.
          if (side == 1) {
            Push3(m.indices, a, b, c);
            Push3(m.indices, a, c, d);
          } else {
            Push3(m.indices, a, c, b);
            Push3(m.indices, a, d, c);
          }
        }
    }
  return m;
}

// The part standing on a table (a grid 1.6 times its box's footprint, at the lowest z of
// the part), with a box and a ball on the table beside it.
MeshArrays SceneAround(const MeshArrays& part) {
  const Box box = BoxOf(part);
  const MMVector3d side = box.Side(), centre = box.Centre();
  const double spacing = 2.0 * MeanEdge(part);
  const double width = 1.6 * std::max(side[0], side[1]);
  const int n = std::max(2, static_cast<int>(width / std::max(spacing, 1.0)));
  MeshArrays scene = part;
  MeshArrays table = HeightField(n, width / n, [](int, int) { return 0.0; });
  for (std::size_t i = 0; i < table.xyz.size(); i += 3) {
    table.xyz[i] = std::round(table.xyz[i] + centre[0] - 0.5 * width);
    table.xyz[i + 1] = std::round(table.xyz[i + 1] + centre[1] - 0.5 * width);
    table.xyz[i + 2] = std::round(box.lo[2]);
  }
  Append(scene, table);
  // A box in one corner of the table and a ball in the opposite one, each about a
  // third of the part's size, standing on it.
  const double size = 0.3 * std::max({side[0], side[1], side[2]});
  const MMVector3d boxLow(centre[0] + 0.5 * width - 1.1 * size, centre[1] - 0.5 * width + 0.1 * size, box.lo[2]);
  Append(scene, BoxMesh(boxLow, boxLow + MMVector3d(size, size, size), 8));
  const double radius = 0.5 * size;
  const MMVector3d ballCentre(centre[0] - 0.5 * width + 1.2 * radius, centre[1] + 0.5 * width - 1.2 * radius,
                              box.lo[2] + radius);
  Append(scene, RowsOfPoints(20, 40, [&](double theta, double phi, bool) {
           return ballCentre + MMVector3d(radius * std::sin(theta) * std::cos(phi),
                                          radius * std::sin(theta) * std::sin(phi), radius * std::cos(theta));
         }));
  SetDiagonal(scene);
  return scene;
}

// A unit direction drawn from `rng`.
MMVector3d Direction(std::mt19937& rng) {
  std::normal_distribution<double> gauss(0.0, 1.0);
  MMVector3d d(gauss(rng), gauss(rng), gauss(rng));
  Normalize(d);
  return d;
}

// The value of `along` at share q of the points of `m`.
double Quantile(const MeshArrays& m, const MMVector3d& along, double q) {
  std::vector<double> v;
  for (std::size_t i = 0; i < m.xyz.size() / 3; ++i) v.push_back(Dot(Point(m, i), along));
  const auto at = v.begin() + static_cast<std::ptrdiff_t>(q * static_cast<double>(v.size() - 1));
  std::nth_element(v.begin(), at, v.end());
  return *at;
}

}  // namespace

const char* ScanKindName(ScanKind kind) {
  for (const Kind& k : kKinds)
    if (k.kind == kind) return k.name;
  return "unknown";
}

bool ParseScanKind(const std::string& name, ScanKind& kind) {
  for (const Kind& k : kKinds)
    if (name == k.name) {
      kind = k.kind;
      return true;
    }
  return false;
}

std::vector<ScanKind> AllScanKinds() {
  std::vector<ScanKind> all;
  for (const Kind& k : kKinds) all.push_back(k.kind);
  return all;
}

MeshArrays MakeLumpyBody(std::uint64_t seed, std::int64_t triangles) {
  std::mt19937 rng(static_cast<std::uint32_t>(seed));
  std::uniform_real_distribution<double> amplitude(-0.3, 0.8), width(0.3, 0.6);
  struct Lump {
    MMVector3d centre;
    double height, width;
  };
  std::vector<Lump> lumps;
  for (int k = 0; k < 12; ++k) lumps.push_back({Direction(rng), amplitude(rng), width(rng)});
  const int rows = std::max(8, static_cast<int>(std::sqrt(static_cast<double>(triangles) / 4.0)));
  const double radius = 50000.0;
  return RowsOfPoints(rows, 2 * rows, [&](double theta, double phi, bool) {
    const MMVector3d d(std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta));
    // Thicker towards +x (an egg), and lumped: no half turn lays it on itself.
    double r = 1.0;
    for (const Lump& l : lumps) r += l.height * std::exp(-Length2(d - l.centre) / (l.width * l.width));
    r *= 1.0 + 0.3 * d[0] + 0.15 * d[1] * d[2];
    return MMVector3d(1.4 * d[0], d[1], 0.7 * d[2]) * (radius * r);
  });
}

MeshArrays ScaledToDiagonal(const MeshArrays& m, double diagonal) {
  const Box box = BoxOf(m);
  const double f = diagonal / Length(box.Side());
  MeshArrays out = m;
  for (std::size_t i = 0; i < out.xyz.size(); i += 3)
    for (int k = 0; k < 3; ++k) out.xyz[i + k] = std::round((m.xyz[i + k] - box.Centre()[k]) * f);
  SetDiagonal(out);
  return out;
}

MeshArrays Retessellated(const MeshArrays& m, double share) {
  // Split every triangle in four at its edges' midpoints (shared between neighbours).
  std::vector<float> xyz(m.xyz.begin(), m.xyz.end());
  std::vector<double> exact = m.xyz;
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint32_t> midpoints;
  const auto midpoint = [&](std::uint32_t a, std::uint32_t b) {
    const auto key = std::minmax(a, b);
    const auto found = midpoints.find(key);
    if (found != midpoints.end()) return found->second;
    const auto id = static_cast<std::uint32_t>(exact.size() / 3);
    for (int k = 0; k < 3; ++k) {
      exact.push_back(0.5 * (m.xyz[3 * a + k] + m.xyz[3 * b + k]));
      xyz.push_back(static_cast<float>(exact.back()));
    }
    midpoints.emplace(key, id);
    return id;
  };
  std::vector<std::uint32_t> fine;
  for (std::size_t t = 0; t < m.indices.size(); t += 3) {
    const std::uint32_t a = m.indices[t], b = m.indices[t + 1], c = m.indices[t + 2];
    const std::uint32_t ab = midpoint(a, b), bc = midpoint(b, c), ca = midpoint(c, a);
    for (const std::array<std::uint32_t, 3> tri : {std::array{a, ab, ca}, {ab, b, bc}, {ca, bc, c}, {ab, bc, ca}})
      fine.insert(fine.end(), tri.begin(), tri.end());
  }
  const std::size_t target = 3 * std::max<std::size_t>(4, static_cast<std::size_t>(share * m.indices.size() / 3));
  std::vector<std::uint32_t> kept(fine.size());
  kept.resize(meshopt_simplify(kept.data(), fine.data(), fine.size(), xyz.data(), xyz.size() / 3, 3 * sizeof(float),
                               target, 0.05f, 0, nullptr));
  MeshArrays out;
  out.xyz = exact;
  out.indices = kept;
  return KeepTriangles(out, [](const MMVector3d&) { return true; });
}

ScanCase MakeScanCase(const MeshArrays& body, ScanKind kind, std::uint64_t seed) {
  std::mt19937 rng(static_cast<std::uint32_t>(seed * 2654435761u + static_cast<unsigned>(kind)));
  const double diagonal = Length(BoxOf(body).Side());
  ScanCase c;
  c.fixed = body;
  c.body = body;
  const double share = kind == ScanKind::Remeshed      ? 0.3
                       : kind == ScanKind::Coarse      ? 0.05
                       : kind == ScanKind::Combination ? 0.2
                                                       : 0.6;
  MeshArrays part = Retessellated(body, share);
  std::vector<std::uint8_t> onFixed(part.xyz.size() / 3, 1);
  if (kind == ScanKind::Partial) {
    const MMVector3d along = Direction(rng);
    const double cut = Quantile(part, along, 0.7);
    part = KeepTriangles(
        part, [&](const MMVector3d& p) { return Dot(p, along) <= cut; }, &onFixed);
  }
  if (kind == ScanKind::Overlap || kind == ScanKind::Combination) {
    // The fixed mesh keeps one side, the moving mesh the other and a band of the first:
    // about 45% of what it keeps lies on the fixed mesh.
    const MMVector3d along = Direction(rng);
    const double fixedCut = Quantile(body, along, 0.6), movingCut = Quantile(body, along, 0.27);
    c.fixed = KeepTriangles(body, [&](const MMVector3d& p) { return Dot(p, along) <= fixedCut; });
    part = KeepTriangles(
        part, [&](const MMVector3d& p) { return Dot(p, along) >= movingCut; }, &onFixed);
    for (std::size_t i = 0; i < onFixed.size(); ++i) onFixed[i] = Dot(Point(part, i), along) <= fixedCut ? 1 : 0;
  }
  const double noise = kind == ScanKind::Noisy         ? 0.002 * diagonal
                       : kind == ScanKind::Noise       ? 0.005 * diagonal
                       : kind == ScanKind::Combination ? 0.003 * diagonal
                                                       : 0.0;
  if (noise > 0.0) AddNoise(part, noise, rng);
  c.noise = noise;
  MeshArrays moving = part;
  const std::size_t partTriangles = part.indices.size() / 3;
  const double edge = MeanEdge(part);
  if (kind == ScanKind::Floaters) Append(moving, LooseTriangles(partTriangles * 3 / 10, edge, BoxOf(part), rng));
  if (kind == ScanKind::Debris) Append(moving, LooseTriangles(partTriangles * 3 / 10, 5.0 * edge, BoxOf(part), rng));
  if (kind == ScanKind::Combination)
    Append(moving, LooseTriangles(partTriangles / 10, 5.0 * MeanEdge(Retessellated(body, 0.6)), BoxOf(part), rng));
  if (kind == ScanKind::Scene) moving = SceneAround(part);
  onFixed.resize(moving.xyz.size() / 3, 0);

  c.pose = DrawPose(seed, 0.3 * diagonal);
  for (std::size_t i = 0; i < moving.xyz.size(); i += 3) {
    MMVector3d p(moving.xyz[i], moving.xyz[i + 1], moving.xyz[i + 2]);
    c.pose.Transform(p, false);
    for (int k = 0; k < 3; ++k) moving.xyz[i + k] = std::round(p[k]);
  }
  SetDiagonal(moving);
  c.moving = std::move(moving);
  c.onFixed = std::move(onFixed);
  return c;
}

}  // namespace zorgen
