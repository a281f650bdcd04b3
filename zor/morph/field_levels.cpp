#include "zor/morph/detail/field_levels.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "zor/morph/detail/parallel_loops.h"

namespace ZorStlRegistration::detail {

namespace {

constexpr std::uint32_t kUnclaimed = std::numeric_limits<std::uint32_t>::max();

constexpr std::size_t kPointGrain = 1024;

template <typename Body>
void ForEachPoint(std::size_t count, const Body& body) {
  ForEachIndex(count, kPointGrain, body);
}

// Rows filled in any order become sorted and free of repeats, compacted in place.
void SortRows(PointGraph& graph) {
  const std::size_t n = graph.Size();
  std::vector<std::uint32_t> kept(n);
  ForEachPoint(n, [&](std::size_t i) {
    auto first = graph.neighbours.begin() + graph.offsets[i], last = graph.neighbours.begin() + graph.offsets[i + 1];
    std::sort(first, last);
    kept[i] = static_cast<std::uint32_t>(std::unique(first, last) - first);
  });
  std::uint32_t write = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint32_t read = graph.offsets[i];
    graph.offsets[i] = write;
    std::copy(graph.neighbours.begin() + read, graph.neighbours.begin() + read + kept[i],
              graph.neighbours.begin() + write);
    write += kept[i];
  }
  graph.offsets[n] = write;
  graph.neighbours.resize(write);
}

// A compact bump: 1 at the centre, 0 from `radius` on, smooth in between.
double Bump(double distance2, double radius2) {
  const double t = 1.0 - distance2 / radius2;
  return t > 0.0 ? t * t : 0.0;
}

double Degree(const PointGraph& g, std::size_t i) { return static_cast<double>(g.offsets[i + 1] - g.offsets[i]); }

// (K d)_i: a point's displacement less the mean of its neighbours' (0 without neighbours).
MMVector3d Umbrella(const PointGraph& g, const std::vector<MMVector3d>& d, std::size_t i) {
  const std::uint32_t begin = g.offsets[i], end = g.offsets[i + 1];
  if (begin == end) return MMVector3d();
  MMVector3d sum;
  for (std::uint32_t k = begin; k < end; ++k) sum = sum + d[g.neighbours[k]];
  return d[i] - sum * (1.0 / static_cast<double>(end - begin));
}

// The share of point i in a tie's difference (apex 1, edge ends the negatives of their
// interpolation weights).
double TieShare(const ApexTie& tie, std::size_t i) {
  if (i == tie.apex) return 1.0;
  return i == tie.a ? -(1.0 - tie.along) : -tie.along;
}

// Applies A d = W d + bending K^T K d + membrane L d at point i, with u = K d given.
MMVector3d Apply(const FieldLevel& level, const std::vector<PlaneTerm>& terms, const FieldWeights& weights,
                 const std::vector<MMVector3d>& d, const std::vector<MMVector3d>& u, std::size_t i) {
  const PointGraph& g = level.graph;
  const std::uint32_t begin = g.offsets[i], end = g.offsets[i + 1];
  MMVector3d out;
  if (begin != end) {
    MMVector3d spread, sum;
    for (std::uint32_t k = begin; k < end; ++k) {
      const std::uint32_t j = g.neighbours[k];
      spread = spread + u[j] * (1.0 / Degree(g, j));
      sum = sum + d[j];
    }
    out = (u[i] - spread) * weights.bending + (d[i] * static_cast<double>(end - begin) - sum) * weights.membrane;
    if (weights.strain > 0.0) {
      MMVector3d stretch;
      for (std::uint32_t k = begin; k < end; ++k) {
        const MMVector3d& e = level.edgeDirections[k];
        stretch = stretch + e * Dot(e, d[i] - d[g.neighbours[k]]);
      }
      out = out + stretch * weights.strain;
    }
  }
  out = out + d[i] * weights.ridge;
  if (weights.tangent > 0.0) {
    const MMVector3d& n = level.normals[i];
    out = out + (d[i] - n * Dot(n, d[i])) * weights.tangent;
  }
  if (weights.tie > 0.0 && !level.ties.empty())
    for (std::uint32_t k = level.tieOffsets[i]; k < level.tieOffsets[i + 1]; ++k) {
      const ApexTie& tie = level.ties[level.tieIndices[k]];
      const MMVector3d r = d[tie.apex] - d[tie.a] * (1.0 - tie.along) - d[tie.b] * tie.along;
      out = out + r * (weights.tie * TieShare(tie, i));
    }
  const PlaneTerm& t = terms[i];
  if (t.weight > 0.0) out = out + t.normal * (t.weight * Dot(t.normal, d[i]));
  return out;
}

// The diagonal of the smoothing part of A at point i, the same on every axis.
double SmoothingDiagonal(const FieldLevel& level, const FieldWeights& weights, std::size_t i) {
  const PointGraph& g = level.graph;
  double ties = 0.0;
  if (weights.tie > 0.0 && !level.ties.empty())
    for (std::uint32_t k = level.tieOffsets[i]; k < level.tieOffsets[i + 1]; ++k) {
      const double share = TieShare(level.ties[level.tieIndices[k]], i);
      ties += weights.tie * share * share;
    }
  const std::uint32_t begin = g.offsets[i], end = g.offsets[i + 1];
  if (begin == end) return weights.ridge + weights.tangent + ties;
  double spread = 1.0;
  for (std::uint32_t k = begin; k < end; ++k) {
    const double degree = Degree(g, g.neighbours[k]);
    spread += 1.0 / (degree * degree);
  }
  return weights.bending * spread + (weights.membrane + weights.strain / 3.0) * static_cast<double>(end - begin) +
         weights.ridge + weights.tangent + ties;
}

// The block-Jacobi preconditioner: (a I + w m m^T)^-1 r by Sherman-Morrison; only the
// normal part where a point has no smoothing term.
MMVector3d Precondition(double a, const PlaneTerm& t, const MMVector3d& r) {
  const double w = t.weight;
  if (a > 0.0) return (r - t.normal * (w / (a + w) * Dot(t.normal, r))) * (1.0 / a);
  if (w > 0.0) return t.normal * (Dot(t.normal, r) / w);
  return MMVector3d();
}

}  // namespace

PointGraph GraphOfTriangles(std::size_t pointCount, const std::vector<std::uint32_t>& triangles) {
  PointGraph graph;
  graph.offsets.assign(pointCount + 1, 0);
  for (std::size_t t = 0; t + 2 < triangles.size(); t += 3)
    for (std::size_t k = 0; k < 3; ++k) graph.offsets[triangles[t + k] + 1] += 2;
  for (std::size_t i = 0; i < pointCount; ++i) graph.offsets[i + 1] += graph.offsets[i];
  graph.neighbours.resize(graph.offsets[pointCount]);
  std::vector<std::uint32_t> fill(graph.offsets.begin(), graph.offsets.end() - 1);
  for (std::size_t t = 0; t + 2 < triangles.size(); t += 3)
    for (std::size_t k = 0; k < 3; ++k) {
      const std::uint32_t a = triangles[t + k];
      const std::uint32_t b = triangles[t + (k + 1) % 3], c = triangles[t + (k + 2) % 3];
      // A repeated corner names the point itself, which the sort below keeps once; it is
      // dropped after the sort.
      graph.neighbours[fill[a]++] = b;
      graph.neighbours[fill[a]++] = c;
    }
  SortRows(graph);
  // Drop self-loops from triangles with a repeated corner.
  std::uint32_t write = 0;
  for (std::size_t i = 0; i < pointCount; ++i) {
    const std::uint32_t begin = graph.offsets[i], end = graph.offsets[i + 1];
    graph.offsets[i] = write;
    for (std::uint32_t k = begin; k < end; ++k)
      if (graph.neighbours[k] != i) graph.neighbours[write++] = graph.neighbours[k];
  }
  graph.offsets[pointCount] = write;
  graph.neighbours.resize(write);
  return graph;
}

void TieThinTriangles(FieldLevel& level, const std::vector<std::uint32_t>& triangles, double thinness) {
  const std::vector<MMVector3d>& x = level.rest;
  level.ties.clear();
  for (std::size_t t = 0; t + 2 < triangles.size(); t += 3) {
    std::size_t longest = 0;
    double longest2 = -1.0;
    for (std::size_t k = 0; k < 3; ++k) {
      const double l2 = Length2(x[triangles[t + (k + 2) % 3]] - x[triangles[t + (k + 1) % 3]]);
      if (l2 > longest2) {
        longest2 = l2;
        longest = k;
      }
    }
    const std::uint32_t apex = triangles[t + longest], a = triangles[t + (longest + 1) % 3],
                        b = triangles[t + (longest + 2) % 3];
    if (!(longest2 > 0.0) || apex == a || apex == b || a == b) continue;
    if (!(Length(Cross(x[a] - x[apex], x[b] - x[apex])) < thinness * longest2)) continue;
    const double along = std::clamp(Dot(x[apex] - x[a], x[b] - x[a]) / longest2, 0.0, 1.0);
    level.ties.push_back({apex, a, b, along});
  }
  const std::size_t n = x.size();
  level.tieOffsets.assign(n + 1, 0);
  for (const ApexTie& tie : level.ties)
    for (std::uint32_t v : {tie.apex, tie.a, tie.b}) ++level.tieOffsets[v + 1];
  for (std::size_t i = 0; i < n; ++i) level.tieOffsets[i + 1] += level.tieOffsets[i];
  level.tieIndices.resize(level.tieOffsets[n]);
  std::vector<std::uint32_t> fill(level.tieOffsets.begin(), level.tieOffsets.end() - 1);
  for (std::size_t k = 0; k < level.ties.size(); ++k)
    for (std::uint32_t v : {level.ties[k].apex, level.ties[k].a, level.ties[k].b})
      level.tieIndices[fill[v]++] = static_cast<std::uint32_t>(k);
}

void MeasureEdges(FieldLevel& level) {
  const PointGraph& g = level.graph;
  level.edgeDirections.resize(g.neighbours.size());
  double sum = 0.0;
  for (std::size_t i = 0; i < g.Size(); ++i)
    for (std::uint32_t k = g.offsets[i]; k < g.offsets[i + 1]; ++k) {
      MMVector3d e = level.rest[g.neighbours[k]] - level.rest[i];
      sum += Normalize(e);
      level.edgeDirections[k] = e;
    }
  level.meanEdge = g.neighbours.empty() ? 0.0 : sum / static_cast<double>(g.neighbours.size());
}

FieldLevel Coarsen(const FieldLevel& fine) {
  const PointGraph& g = fine.graph;
  const std::size_t n = g.Size();
  std::vector<std::uint32_t> claim(n, kUnclaimed);
  FieldLevel coarse;
  for (std::size_t i = 0; i < n; ++i) {
    if (claim[i] != kUnclaimed) continue;
    const auto seed = static_cast<std::uint32_t>(coarse.seeds.size());
    coarse.seeds.push_back(static_cast<std::uint32_t>(i));
    claim[i] = seed;
    for (std::uint32_t k = g.offsets[i]; k < g.offsets[i + 1]; ++k)
      if (claim[g.neighbours[k]] == kUnclaimed) claim[g.neighbours[k]] = seed;
  }
  const std::size_t m = coarse.seeds.size();
  coarse.rest.resize(m);
  coarse.normals.resize(m);
  for (std::size_t s = 0; s < m; ++s) {
    coarse.rest[s] = fine.rest[coarse.seeds[s]];
    coarse.normals[s] = fine.normals[coarse.seeds[s]];
  }
  // Two aggregates are neighbours when a fine edge joins them.
  PointGraph& cg = coarse.graph;
  cg.offsets.assign(m + 1, 0);
  for (std::size_t i = 0; i < n; ++i)
    for (std::uint32_t k = g.offsets[i]; k < g.offsets[i + 1]; ++k)
      if (claim[g.neighbours[k]] != claim[i]) ++cg.offsets[claim[i] + 1];
  for (std::size_t s = 0; s < m; ++s) cg.offsets[s + 1] += cg.offsets[s];
  cg.neighbours.resize(cg.offsets[m]);
  std::vector<std::uint32_t> fill(cg.offsets.begin(), cg.offsets.end() - 1);
  for (std::size_t i = 0; i < n; ++i)
    for (std::uint32_t k = g.offsets[i]; k < g.offsets[i + 1]; ++k)
      if (claim[g.neighbours[k]] != claim[i]) cg.neighbours[fill[claim[i]]++] = claim[g.neighbours[k]];
  SortRows(cg);
  MeasureEdges(coarse);

  // Each fine point takes the field of its own seed and of the seeds next to it, by a
  // bump of its rest distance to each: its own seed lies at most one fine edge away, so
  // it always weighs in, and the weights fade before the next aggregates, so the field
  // has no steps at the borders of the aggregates.
  const double radius = 1.5 * std::max(coarse.meanEdge, fine.meanEdge);
  const double radius2 = radius > 0.0 ? radius * radius : 1.0;
  coarse.prolongOffsets.assign(n + 1, 0);
  for (std::size_t i = 0; i < n; ++i)
    coarse.prolongOffsets[i + 1] = coarse.prolongOffsets[i] + 1 + (cg.offsets[claim[i] + 1] - cg.offsets[claim[i]]);
  coarse.prolongPoints.resize(coarse.prolongOffsets[n]);
  coarse.prolongWeights.resize(coarse.prolongOffsets[n]);
  ForEachPoint(n, [&](std::size_t i) {
    const std::uint32_t own = claim[i];
    std::uint32_t k = coarse.prolongOffsets[i];
    const std::uint32_t first = k;
    double total = 0.0;
    const auto add = [&](std::uint32_t s) {
      const double w = Bump(Length2(fine.rest[i] - coarse.rest[s]), radius2);
      coarse.prolongPoints[k] = s;
      coarse.prolongWeights[k++] = w;
      total += w;
    };
    add(own);
    for (std::uint32_t e = cg.offsets[own]; e < cg.offsets[own + 1]; ++e) add(cg.neighbours[e]);
    if (!(total > 0.0)) {
      // A point as far from its seed as the bump reaches: it follows the seed alone.
      for (std::uint32_t e = first; e < k; ++e) coarse.prolongWeights[e] = 0.0;
      coarse.prolongWeights[first] = 1.0;
      return;
    }
    for (std::uint32_t e = first; e < k; ++e) coarse.prolongWeights[e] /= total;
  });
  return coarse;
}

void Prolong(const FieldLevel& coarse, const std::vector<MMVector3d>& coarseField, std::vector<MMVector3d>& fineField) {
  const std::size_t n = coarse.prolongOffsets.size() - 1;
  fineField.resize(n);
  ForEachPoint(n, [&](std::size_t i) {
    MMVector3d d;
    for (std::uint32_t k = coarse.prolongOffsets[i]; k < coarse.prolongOffsets[i + 1]; ++k)
      d = d + coarseField[coarse.prolongPoints[k]] * coarse.prolongWeights[k];
    fineField[i] = d;
  });
}

std::size_t SolveField(const FieldLevel& level, const std::vector<PlaneTerm>& terms, const FieldWeights& weights,
                       std::size_t maxIterations, double relativeTolerance, std::vector<MMVector3d>& field,
                       FieldSolverScratch& s) {
  const PointGraph& g = level.graph;
  const std::size_t n = g.Size();
  s.cg.residual.resize(n);
  s.umbrella.resize(n);
  s.diagonal.resize(n);
  ForEachPoint(n, [&](std::size_t i) {
    s.diagonal[i] = SmoothingDiagonal(level, weights, i);
    s.umbrella[i] = Umbrella(g, field, i);
  });
  // r = b - A d.
  ForEachPoint(n, [&](std::size_t i) {
    const PlaneTerm& t = terms[i];
    MMVector3d b;
    if (t.weight > 0.0) b = t.normal * (t.weight * Dot(t.normal, t.place - level.rest[i]));
    s.cg.residual[i] = b - Apply(level, terms, weights, field, s.umbrella, i);
  });
  const auto apply = [&](const std::vector<MMVector3d>& in, std::vector<MMVector3d>& out) {
    ForEachPoint(n, [&](std::size_t i) { s.umbrella[i] = Umbrella(g, in, i); });
    ForEachPoint(n, [&](std::size_t i) { out[i] = Apply(level, terms, weights, in, s.umbrella, i); });
  };
  const auto precondition = [&](std::size_t i, const MMVector3d& r) {
    return Precondition(s.diagonal[i], terms[i], r);
  };
  return SolveConjugateGradient(field, s.cg, kPointGrain, maxIterations, relativeTolerance, apply, precondition);
}

}  // namespace ZorStlRegistration::detail
