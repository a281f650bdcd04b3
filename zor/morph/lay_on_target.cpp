#include "zor/morph/detail/lay_on_target.h"

#include <algorithm>
#include <cmath>

#include "zor/morph/detail/parallel_loops.h"

namespace ZorStlRegistration::detail {

namespace {

template <typename Body>
void ForEach(std::size_t count, const Body& body) {
  ForEachIndex(count, 256, body);
}

// A triangle lower than this share of its longest edge has no side to turn over: its
// normal is the rounding of its corners.
constexpr double kFlat = 3e-4;

bool HasSide(const MMVector3d& a, const MMVector3d& b, const MMVector3d& c) {
  const double longest2 = std::max({Length2(b - a), Length2(c - a), Length2(c - b)});
  return Length(Cross(b - a, c - a)) > kFlat * longest2;
}

}  // namespace

void PointNormals(const std::vector<std::uint32_t>& triangles, const std::vector<MMVector3d>& positions,
                  std::vector<MMVector3d>& normals) {
  normals.assign(positions.size(), MMVector3d());
  for (std::size_t t = 0; t + 2 < triangles.size(); t += 3) {
    const MMVector3d& a = positions[triangles[t]];
    const MMVector3d n = Cross(positions[triangles[t + 1]] - a, positions[triangles[t + 2]] - a);
    for (std::size_t k = 0; k < 3; ++k) normals[triangles[t + k]] = normals[triangles[t + k]] + n;
  }
  ForEach(normals.size(), [&](std::size_t i) {
    if (Length2(normals[i]) > 0.0) Normalize(normals[i]);
  });
}

void FoldFlags(const std::vector<std::uint32_t>& triangles, const std::vector<MMVector3d>& before,
               const std::vector<MMVector3d>& after, std::vector<std::uint8_t>& flags) {
  flags.assign(triangles.size() / 3, 0);
  ForEach(flags.size(), [&](std::size_t t) {
    const std::uint32_t* v = &triangles[3 * t];
    if (!HasSide(before[v[0]], before[v[1]], before[v[2]])) return;
    const MMVector3d a = Cross(before[v[1]] - before[v[0]], before[v[2]] - before[v[0]]);
    const MMVector3d b = Cross(after[v[1]] - after[v[0]], after[v[2]] - after[v[0]]);
    flags[t] = Dot(a, b) < 0.0 ? 1 : 0;
  });
}

std::size_t FoldedTriangles(const std::vector<std::uint32_t>& triangles, const std::vector<MMVector3d>& before,
                            const std::vector<MMVector3d>& after) {
  std::vector<std::uint8_t> flags;
  FoldFlags(triangles, before, after, flags);
  std::size_t folded = 0;
  for (std::uint8_t f : flags) folded += f;
  return folded;
}

std::size_t LayOnTarget(const std::vector<std::uint32_t>& triangles, const std::vector<MMVector3d>& rest,
                        const std::vector<MMVector3d>& from, const std::vector<PlaneTerm>& terms,
                        const std::vector<double>& distances, const std::vector<MMVector3d>& base, double reach,
                        std::vector<MMVector3d>& laid) {
  const std::size_t n = from.size();
  laid.resize(n);
  std::vector<std::uint8_t> moved(n, 0);
  ForEach(n, [&](std::size_t i) {
    moved[i] = distances[i] >= 0.0 && distances[i] < reach ? 1 : 0;
    laid[i] = moved[i] != 0 ? terms[i].place + base[i] : from[i];
  });
  const std::size_t count = triangles.size() / 3;
  std::vector<std::uint8_t> folds(count, 0);
  for (;;) {
    ForEach(count, [&](std::size_t t) {
      const std::uint32_t* v = &triangles[3 * t];
      folds[t] = 0;
      if (moved[v[0]] == 0 && moved[v[1]] == 0 && moved[v[2]] == 0) return;
      if (!HasSide(rest[v[0]], rest[v[1]], rest[v[2]])) return;
      const auto normalIn = [&](const std::vector<MMVector3d>& x) {
        return Cross(x[v[1]] - x[v[0]], x[v[2]] - x[v[0]]);
      };
      // The laid places as they will be written: on the grid, where a sliver laid
      // nearly flat may turn over.
      const auto written = [&](std::uint32_t i) {
        return MMVector3d(std::round(laid[i][0]), std::round(laid[i][1]), std::round(laid[i][2]));
      };
      const MMVector3d original = normalIn(rest), before = normalIn(from);
      const MMVector3d after = Cross(written(v[1]) - written(v[0]), written(v[2]) - written(v[0]));
      // Turned over neither against the original nor against where the field put it:
      // the normal of a sliver (a few percent of its length high) swings with small
      // moves, and the field and a last step may swing it opposite ways.
      const bool overturned = Dot(original, after) < 0.0 && !(Dot(original, before) < 0.0);
      folds[t] = overturned || Dot(before, after) < 0.0 ? 1 : 0;
    });
    bool any = false;
    for (std::size_t t = 0; t < count; ++t) {
      if (folds[t] == 0) continue;
      any = true;
      for (std::size_t k = 0; k < 3; ++k) {
        const std::uint32_t v = triangles[3 * t + k];
        moved[v] = 0;
        laid[v] = from[v];
      }
    }
    if (!any) break;
  }
  std::size_t total = 0;
  for (std::uint8_t m : moved) total += m;
  return total;
}

}  // namespace ZorStlRegistration::detail
