#include "zor/alignment/surface_sampling.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/parallel_sort.h>

#include "zor/services/quadric_surface.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {
namespace {

bool LexLess(const MMVector3d& a, const MMVector3d& b) {
  if (a[0] != b[0]) return a[0] < b[0];
  if (a[1] != b[1]) return a[1] < b[1];
  return a[2] < b[2];
}

// Walks a run sorted by component `axis` in cells of `cellSize` starting at its first
// value, calling `cell(begin, end)` for each non-empty cell.
template <typename Cell>
void WalkCells(const std::vector<MMVector3d>& run, int axis, double cellSize, Cell&& cell) {
  const double first = run.front()[axis];
  std::size_t i = 0;
  for (std::uint64_t k = 0; i < run.size(); ++k) {
    const double lower = double(k) * cellSize + first;
    const double upper = cellSize + lower;
    const std::size_t begin = i;
    while (i < run.size() && run[i][axis] < upper) ++i;
    if (i > begin) cell(begin, i);
    // Skip a gap of empty cells at once. The division may round either way, so the walk
    // resumes one cell early and still compares each bound exactly as written above.
    if (i < run.size()) {
      const double next = std::floor((run[i][axis] - first) / cellSize);
      if (next > double(k) + 2.0) k = static_cast<std::uint64_t>(next) - 2;
    }
  }
}

// Cells of no extent: equal points share a cell.
std::uint64_t GridSampleDistinct(const std::vector<MMVector3d>& source, bool countOnly, std::vector<MMVector3d>& out) {
  std::vector<MMVector3d> sorted(source);
  oneapi::tbb::parallel_sort(sorted.begin(), sorted.end(), LexLess);
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < sorted.size();) {
    std::size_t j = i + 1;
    while (j < sorted.size() && sorted[j] == sorted[i]) ++j;
    ++count;
    if (!countOnly) out.push_back(sorted[i]);
    i = j;
  }
  return count;
}

// The edge cut of the sphere (centre, r2) with the edge p-q, or `out` unchanged when
// the quadratic has no usable root. The end points are ordered first (A the greater by
// x, then y, then z), so both triangles on an edge compute the same bits.
void EdgeCut(const MMVector3d& centre, double r2, const MMVector3d& p, const MMVector3d& q, MMVector3d& out) {
  const bool pFirst = LexLess(q, p);
  const MMVector3d& A = pFirst ? p : q;
  const MMVector3d& B = pFirst ? q : p;
  const MMVector3d d = B - A, f = A - centre;
  const double a = Dot(d, d), b = 2.0 * Dot(d, f), c = Dot(f, f) - r2;
  constexpr double kEps = 2.220446049250313e-16;
  double t;
  if (std::fabs(a) < kEps) {
    if (std::fabs(b) < kEps) return;
    t = -c / b;
  } else {
    const double disc = b * b - 4.0 * a * c;
    if (disc < 0.0) return;
    const double s = std::sqrt(disc);
    const double t0 = (-b - s) / (2.0 * a), t1 = (s - b) / (2.0 * a);
    t = std::fabs(t1 - 0.5) < std::fabs(t0 - 0.5) ? t1 : t0;
  }
  out = A * (1.0 - t) + B * t;
}

double TriangleArea(const MMVector3d& a, const MMVector3d& b, const MMVector3d& c) {
  return 0.5 * Length(Cross(b - a, c - a));
}

// The cell size whose grid gives about `wanted` cells, by bisection on [0, range].
double FindCellSize(const std::vector<MMVector3d>& source, std::uint64_t wanted, double range) {
  double lo = 0.0, hi = range, cell = 0.0;
  if (!(range > 0.0)) return 0.0;
  std::vector<MMVector3d> none;
  while (hi > lo) {
    if (std::fabs(2.0 * cell - lo - hi) < 0.0001) break;
    cell = (hi + lo) * 0.5;
    const std::uint64_t count = GridSample(GridSampleContext{&source, cell, true}, none);
    if (std::fabs(double(count) - double(wanted)) < 5.0) break;
    if (count < wanted)
      hi = cell;
    else
      lo = cell;
  }
  return cell;
}

}  // namespace

std::uint64_t GridSample(const GridSampleContext& context, std::vector<MMVector3d>& out) {
  const std::vector<MMVector3d>& source = *context.source;
  if (source.empty()) return 0;
  const double cellSize = context.cellSize;
  if (!(cellSize > 0.0) || !std::isfinite(cellSize)) return GridSampleDistinct(source, context.countOnly, out);

  std::vector<MMVector3d> sorted(source);
  oneapi::tbb::parallel_sort(sorted.begin(), sorted.end(), CmpByX());
  std::uint64_t count = 0;
  std::vector<MMVector3d> slab, row;
  WalkCells(sorted, 0, cellSize, [&](std::size_t slabBegin, std::size_t slabEnd) {
    slab.assign(sorted.begin() + slabBegin, sorted.begin() + slabEnd);
    oneapi::tbb::parallel_sort(slab.begin(), slab.end(), CmpByY());
    WalkCells(slab, 1, cellSize, [&](std::size_t rowBegin, std::size_t rowEnd) {
      row.assign(slab.begin() + rowBegin, slab.begin() + rowEnd);
      oneapi::tbb::parallel_sort(row.begin(), row.end(), CmpByZ());
      WalkCells(row, 2, cellSize, [&](std::size_t begin, std::size_t end) {
        ++count;
        if (context.countOnly) return;
        MMVector3d sum;
        for (std::size_t i = begin; i < end; ++i) sum += row[i];
        const double n = double(end - begin);
        out.emplace_back(sum[0] / n, sum[1] / n, sum[2] / n);
      });
    });
  });
  return count;
}

void SampleSurface(MStlBase* mesh, std::uint64_t wanted, double normalRadius, bool flipNormals,
                   std::vector<MMVector3d>& points, std::vector<MMVector3d>* normals) {
  std::vector<MMVector3d> all;
  all.reserve(mesh->NumberOfPoints());
  for (auto it = mesh->BeginPoint(); it != mesh->EndPoint(); ++it) all.push_back(it->GetDouble());
  if (all.empty()) return;

  if (wanted >= all.size()) {
    points = std::move(all);
  } else {
    double xMin = all.front()[0], xMax = 0.0;
    double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
    for (const MMVector3d& p : all) {
      xMin = std::min(xMin, p[0]);
      xMax = std::max(xMax, p[0]);
      for (int k = 0; k < 3; ++k) lo[k] = std::min(lo[k], p[k]), hi[k] = std::max(hi[k], p[k]);
    }
    double cell = FindCellSize(all, wanted, xMax - xMin);
    if (cell == 0.0) {
      const double largest = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
      cell = largest > 0.0 ? FindCellSize(all, wanted, largest) : 1.0;
      if (cell == 0.0) cell = 1.0;
    }
    GridSample(GridSampleContext{&all, cell, false}, points);
  }
  if (normals == nullptr) return;

  SurfacePatchEvaluator evaluator;
  evaluator.radius = normalRadius;
  evaluator.curvatureKind = 1;
  evaluator.neighbourhoodRule = 0;
  evaluator.edgeStep = 0.0;
  evaluator.fitFlag = true;
  evaluator.creaseCosine = 0.0;
  evaluator.Initialise(MStlBaseContainer(mesh));
  normals->resize(points.size());
  const MeshQueries::MeshHandle handle(mesh);
  for (std::size_t k = 0; k < points.size(); ++k) {
    double distance = HUGE_VAL;
    MStlPoint* point = nullptr;
    if (!MeshQueries::FindNearestPoint(handle, points[k], distance, point) || point == nullptr ||
        point->GetNumberOfNeighbourTriangles() == 0)
      continue;
    MStlTriangle* t = &point->GetNeighbourTriangle(0)->data;
    double bary[3] = {0.0, 0.0, 0.0};
    bary[static_cast<int>(t->IndexOfPoint(point))] = 1.0;
    MMVector3d n = evaluator.Evaluate(t, bary, false, 0.0).normal;
    if (flipNormals) n = -n;
    (*normals)[k] = n;
    points[k] = point->GetDouble();
  }
}

void SurfacePatchEvaluator::Initialise(const MStlBaseContainer& meshContainer) {
  container = meshContainer;
  MStlBase* mesh = container.GetStl();
  auto table = std::make_shared<NeighbourTable>();
  table->_SetSize(mesh->GetMasks().GetTriangleMaskSize());
  NeighbourTable& neighbourTable = *table;
  vertexWeight._SetSize(mesh->GetMasks().GetPointMaskSize());
  visited._SetSize(mesh->GetMasks().GetTriangleMaskSize());
  std::vector<MStlTriangle*> triangles;
  triangles.reserve(mesh->GetNumberOfTriangles());
  for (auto it = container.BeginTriangle(); it != container.EndTriangle(); ++it) triangles.push_back(&*it);
  const double minCosine = creaseCosine;
  oneapi::tbb::parallel_for(
      oneapi::tbb::blocked_range<std::size_t>(0, triangles.size(), 10000),
      [&](const oneapi::tbb::blocked_range<std::size_t>& r) {
        for (std::size_t i = r.begin(); i != r.end(); ++i) {
          const MStlTriangle* t = triangles[i];
          const MMVector3d normal = t->GetNormal();
          MAdjacentTrianglesCalculatorCached::MTriangleNeighbours entry;
          for (std::size_t e = 0; e < 3; ++e) {
            MStlTriangleCell* cell = t->FindAdjacentTriangle(e, true);
            if (cell != nullptr && Dot(cell->data.GetNormal(), normal) > minCosine) entry.across[e] = &cell->data;
          }
          neighbourTable.SetInfo(*t, entry);
        }
      },
      oneapi::tbb::auto_partitioner());
  neighbours = std::move(table);
}

std::unique_ptr<SurfacePatchEvaluator> SurfacePatchEvaluator::CloneForAnotherThread() const {
  auto copy = std::make_unique<SurfacePatchEvaluator>();
  copy->radius = radius;
  copy->curvatureKind = curvatureKind;
  copy->neighbourhoodRule = neighbourhoodRule;
  copy->edgeStep = edgeStep;
  copy->fitFlag = fitFlag;
  copy->creaseCosine = creaseCosine;
  copy->container = container;
  copy->neighbours = neighbours;
  MStlBase* mesh = container.GetStl();
  if (mesh != nullptr) {
    copy->vertexWeight._SetSize(mesh->GetMasks().GetPointMaskSize());
    copy->visited._SetSize(mesh->GetMasks().GetTriangleMaskSize());
  }
  return copy;
}

void SurfacePatchEvaluator::_AddVertexWeight(MStlPoint* point, double w) {
  if (w == 0.0) return;
  double& weight = vertexWeight.GetInfo(*point);
  if (weight == 0.0) touchedVertices.push_back(point);
  weight += w;
}

void SurfacePatchEvaluator::SurfacePatch(MStlTriangle* seed, const double bary[3], double patchRadius,
                                         std::vector<MMVector3d>& outPoints, std::vector<double>& outWeights,
                                         MMVector3d& patchNormal) {
  const MMVector3d centre = seed->GetVertex(0) * bary[0] + seed->GetVertex(1) * bary[1] + seed->GetVertex(2) * bary[2];
  const double r2 = patchRadius * patchRadius;
  outPoints.clear();
  outWeights.clear();
  patchNormal = MMVector3d();
  stack.clear();
  stack.push_back(seed);
  visited.SetInfo(*seed, 1);
  visitedList.push_back(seed);

  while (!stack.empty()) {
    MStlTriangle* t = stack.back();
    stack.pop_back();
    MMVector3d v[3];
    double d2[3];
    bool in[3];
    for (int c = 0; c < 3; ++c) {
      v[c] = t->GetVertex(c);
      d2[c] = Length2(v[c] - centre);
      in[c] = d2[c] <= r2;
    }
    double w;
    if (in[0] && in[1] && in[2]) {
      w = t->SurfaceArea();
      for (int c = 0; c < 3; ++c) _AddVertexWeight(t->GetPoint(c), w);
    } else if (!in[0] && !in[1] && !in[2]) {
      // Only the seed can get here: neighbours are pushed only with a corner inside.
      for (MStlTriangle* done : visitedList) visited.SetInfo(*done, 0);
      visitedList.clear();
      patchNormal = seed->GetNormal();
      return;
    } else {
      int u = 0;
      while (in[u] != in[(u + 1) % 3]) ++u;
      const int lone = (u + 2) % 3, a = (lone + 1) % 3, b = (lone + 2) % 3;
      MMVector3d cutA = v[lone], cutB = v[lone];
      EdgeCut(centre, r2, v[b], v[lone], cutA);
      EdgeCut(centre, r2, v[lone], v[a], cutB);
      if (in[lone]) {
        w = TriangleArea(cutA, v[lone], cutB);
        _AddVertexWeight(t->GetPoint(lone), w);
      } else {
        w = TriangleArea(cutA, cutB, v[a]) + TriangleArea(v[a], v[b], cutA);
        _AddVertexWeight(t->GetPoint(a), w);
        _AddVertexWeight(t->GetPoint(b), w);
      }
      cutWeight.emplace_back(cutA, w);
      cutWeight.emplace_back(cutB, w);
    }
    patchNormal += t->GetNormal() * w;

    const MAdjacentTrianglesCalculatorCached::MTriangleNeighbours& across = neighbours->GetInfo(*t);
    for (int e = 0; e < 3; ++e) {
      MStlTriangle* nb = across.across[e];
      if (nb == nullptr || visited.GetInfo(*nb) != 0 || !(d2[e] < r2 || d2[(e + 1) % 3] < r2)) continue;
      visited.SetInfo(*nb, 1);
      visitedList.push_back(nb);
      stack.push_back(nb);
    }
  }

  for (MStlPoint* p : touchedVertices) {
    double& weight = vertexWeight.GetInfo(*p);
    outPoints.push_back(p->GetDouble());
    outWeights.push_back(weight);
    weight = 0.0;
  }
  touchedVertices.clear();
  // In key order, equal keys summed in the order they were added.
  std::stable_sort(cutWeight.begin(), cutWeight.end(),
                   [](const auto& x, const auto& y) { return LexLess(x.first, y.first); });
  for (std::size_t i = 0; i < cutWeight.size();) {
    double sum = cutWeight[i].second;
    std::size_t j = i + 1;
    for (; j < cutWeight.size() && cutWeight[j].first == cutWeight[i].first; ++j) sum += cutWeight[j].second;
    outPoints.push_back(cutWeight[i].first);
    outWeights.push_back(sum);
    i = j;
  }
  cutWeight.clear();
  Normalize(patchNormal);
  for (MStlTriangle* done : visitedList) visited.SetInfo(*done, 0);
  visitedList.clear();
}

SurfaceEvaluation SurfacePatchEvaluator::Evaluate(MStlTriangle* triangle, const double bary[3], bool,
                                                  double radiusOverride) {
  SurfaceEvaluation result;
  double r = radiusOverride > 0.0 ? radiusOverride : radius;
  result.normal = triangle->GetNormal();
  if (!(r > 0.0)) return result;
  const MMVector3d centre =
      triangle->GetVertex(0) * bary[0] + triangle->GetVertex(1) * bary[1] + triangle->GetVertex(2) * bary[2];
  points.clear();
  MMVector3d patchNormal;
  for (int attempt = 0; attempt < 5 && points.size() < 6; ++attempt) {
    SurfacePatch(triangle, bary, r, points, weights, patchNormal);
    r *= 2.0;
  }
  if (points.size() < 6) return result;
  const MMVector3d fallback = patchNormal;
  MQuadricSurface quadric;
  if (!quadric.Fit(centre, points, weights, patchNormal, fitFlag)) {
    result.normal = fallback;
    return result;
  }
  switch (curvatureKind) {
    case 0: result.curvature = quadric.GetCurvatureMean(); break;
    case 1: result.curvature = quadric.GetCurvatureGaussian(); break;
    case 2: result.curvature = quadric.GetCurvatureK1(); break;
    case 3: result.curvature = quadric.GetCurvatureK2(); break;
    default: result.curvature = 0.0; break;
  }
  result.normal = patchNormal;
  return result;
}

}  // namespace ZorStlRegistration
