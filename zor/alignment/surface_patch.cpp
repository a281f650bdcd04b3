#include "zor/alignment/surface_patch.h"

#include <algorithm>
#include <cmath>

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>

#include "zor/services/quadric_surface.h"

namespace ZorStlRegistration {
namespace {

// The edge cut of the sphere (centre, r2) with the edge p-q, or `out` unchanged when
// the quadratic has no usable root. The end points are ordered first (A the greater by
// x, then y, then z), so both triangles on an edge compute the same bits.
void EdgeCut(const MMVector3d& centre, double r2, const MMVector3d& p, const MMVector3d& q, MMVector3d& out) {
  const bool pFirst = LexicographicLess(q, p);
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

}  // namespace

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
                   [](const auto& x, const auto& y) { return LexicographicLess(x.first, y.first); });
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
