#include "zor/services/scan_analysis.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "zor/model/distance_statistics.h"
#include "zor/model/mesh_builder.h"
#include "zor/spatial/surface_query.h"

namespace ZorStlRegistration {

namespace {

// The median deviation of Gaussian noise is 0.674 of its standard deviation; the mean
// of a point's neighbours carries a little noise of its own.
constexpr double kMedianToSigma = 0.7;
// A point's offset less its neighbours' mean offset carries its noise about 1.25 times
// (measured on Gaussian noise over fine and coarse tessellations).
constexpr double kSecondDifferenceGain = 1.25;
// A mesh whose largest piece holds less than this share of its triangles is a soup of
// pieces (unwelded facets, a point cloud meshed in bits): none of them is loose. Loose
// fragments are few triangles each, however large.
constexpr double kLeastBodyShare = 0.05;

// Union-find over list places with path halving; the smaller place is the root, so the
// roots do not depend on the order of the unions.
std::uint32_t Root(std::vector<std::uint32_t>& parent, std::uint32_t i) {
  while (parent[i] != i) {
    parent[i] = parent[parent[i]];
    i = parent[i];
  }
  return i;
}

void Join(std::vector<std::uint32_t>& parent, std::uint32_t a, std::uint32_t b) {
  a = Root(parent, a);
  b = Root(parent, b);
  if (a < b)
    parent[b] = a;
  else if (b < a)
    parent[a] = b;
}

}  // namespace

MeshPieces FindPieces(const MStlBase& mesh, double looseShare) {
  MeshPieces pieces;
  pieces.pieceOfPoint.assign(mesh.GetMasks().GetPointMaskSize(), kNoPiece);
  std::vector<std::uint32_t> placeOf(mesh.GetMasks().GetPointMaskSize(), 0);
  std::uint32_t count = 0;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) placeOf[p->GetMaskIndex()] = count++;
  std::vector<std::uint32_t> parent(count);
  std::iota(parent.begin(), parent.end(), 0u);
  std::vector<std::uint8_t> used(count, 0);
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = it;
    const std::uint32_t a = placeOf[t->GetPoint(0)->GetMaskIndex()], b = placeOf[t->GetPoint(1)->GetMaskIndex()],
                        c = placeOf[t->GetPoint(2)->GetMaskIndex()];
    Join(parent, a, b);
    Join(parent, a, c);
    used[a] = used[b] = used[c] = 1;
  }
  // Pieces numbered in list order of their first point.
  std::vector<std::uint32_t> pieceOfRoot(count, kNoPiece);
  std::uint32_t place = 0;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext(), ++place) {
    if (used[place] == 0) continue;
    const std::uint32_t root = Root(parent, place);
    if (pieceOfRoot[root] == kNoPiece) {
      pieceOfRoot[root] = static_cast<std::uint32_t>(pieces.area.size());
      pieces.area.push_back(0.0);
      pieces.triangles.push_back(0);
    }
    pieces.pieceOfPoint[p->GetMaskIndex()] = pieceOfRoot[root];
  }
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = it;
    const std::uint32_t piece = pieces.pieceOfPoint[t->GetPoint(0)->GetMaskIndex()];
    const double area = 0.5 * Length(t->GetAreaVector());
    pieces.area[piece] += area;
    pieces.totalArea += area;
    ++pieces.triangles[piece];
  }
  pieces.loose.assign(pieces.area.size(), 0);
  if (pieces.area.empty()) return pieces;
  const double largest = *std::max_element(pieces.area.begin(), pieces.area.end());
  const std::uint32_t most = *std::max_element(pieces.triangles.begin(), pieces.triangles.end());
  if (most < kLeastBodyShare * static_cast<double>(mesh.GetNumberOfTriangles())) return pieces;  // a soup
  for (std::size_t i = 0; i < pieces.area.size(); ++i)
    if (pieces.area[i] < looseShare * largest) {
      pieces.loose[i] = 1;
      ++pieces.loosePieces;
      pieces.looseArea += pieces.area[i];
    }
  return pieces;
}

std::size_t CountBodies(const MeshPieces& pieces, double bodyShare) {
  const double largest = pieces.area.empty() ? 0.0 : *std::max_element(pieces.area.begin(), pieces.area.end());
  std::size_t bodies = 0;
  for (std::size_t k = 0; k < pieces.area.size(); ++k)
    bodies += pieces.loose[k] == 0 && pieces.area[k] >= bodyShare * largest ? 1 : 0;
  return bodies;
}

std::unique_ptr<MStlBase> WithoutLoosePieces(const MStlBase& mesh, const MeshPieces& pieces) {
  if (pieces.loosePieces == 0) return nullptr;
  std::vector<double> xyz;
  std::vector<std::uint32_t> indices;
  std::vector<std::uint32_t> placeOf(mesh.GetMasks().GetPointMaskSize(), kNoPiece);
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    if (pieces.pieceOfPoint[p->GetMaskIndex()] == kNoPiece || pieces.IsLoose(*p)) continue;
    placeOf[p->GetMaskIndex()] = static_cast<std::uint32_t>(xyz.size() / 3);
    xyz.insert(xyz.end(), {double(p->GetX()), double(p->GetY()), double(p->GetZ())});
  }
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = it;
    if (pieces.IsLoose(*t->GetPoint(0))) continue;
    for (std::size_t k = 0; k < 3; ++k) indices.push_back(placeOf[t->GetPoint(k)->GetMaskIndex()]);
  }
  return BuildStl(xyz.data(), xyz.size() / 3, indices.data(), indices.size() / 3);
}

double SurfaceRoughness(const MStlBase& mesh, const MeshPieces* pieces, std::size_t samples) {
  std::vector<const MStlPoint*> points;
  const std::size_t every =
      std::max<std::size_t>(1, (mesh.NumberOfPoints() + samples - 1) / std::max<std::size_t>(1, samples));
  std::size_t k = 0;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext(), ++k)
    if (k % every == 0 && p->GetNumberOfNeighbourTriangles() > 0 && (pieces == nullptr || !pieces->IsLoose(*p)))
      points.push_back(p);
  std::vector<double> deviation(points.size(), std::numeric_limits<double>::quiet_NaN());
  tbb::parallel_for(
      tbb::blocked_range<std::size_t>(0, points.size(), 512), [&](const tbb::blocked_range<std::size_t>& r) {
        for (std::size_t i = r.begin(); i != r.end(); ++i) {
          const MStlPoint& p = *points[i];
          MMVector3d normal, sum;
          std::size_t corners = 0;
          for (std::uint16_t j = 0; j < p.GetNumberOfNeighbourTriangles(); ++j) {
            const MStlTriangle& t = p.GetNeighbourTriangle(j)->data;
            normal += t.GetAreaVector();
            for (std::size_t c = 0; c < 3; ++c)
              if (t.GetPoint(c) != &p) {
                sum += t.GetVertex(c);
                ++corners;
              }
          }
          if (Normalize(normal) == 0.0 || corners == 0) continue;
          deviation[i] = std::fabs(Dot(p.GetDouble() - sum * (1.0 / static_cast<double>(corners)), normal));
        }
      });
  std::vector<double> finite;
  for (double d : deviation)
    if (std::isfinite(d)) finite.push_back(d);
  return NearestRank(finite, 0.5) / kMedianToSigma;
}

double SurfaceNoise(const MStlBase& mesh, const MeshPieces* pieces, std::size_t samples) {
  // Each point's offset from the mean of its neighbours along its normal: noise, plus
  // the curvature of the surface over an edge. The curvature's part is smooth from
  // point to point and the noise's is not, so a point's offset less the mean of its
  // neighbours' offsets keeps the noise alone.
  std::vector<const MStlPoint*> all;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext())
    if (p->GetNumberOfNeighbourTriangles() > 0 && (pieces == nullptr || !pieces->IsLoose(*p))) all.push_back(p);
  const auto ringMean = [](const MStlPoint& p, const auto& value) {
    double sum = 0.0;
    std::size_t corners = 0;
    for (std::uint16_t j = 0; j < p.GetNumberOfNeighbourTriangles(); ++j) {
      const MStlTriangle& t = p.GetNeighbourTriangle(j)->data;
      for (std::size_t c = 0; c < 3; ++c)
        if (t.GetPoint(c) != &p) {
          sum += value(*t.GetPoint(c));
          ++corners;
        }
    }
    return corners > 0 ? sum / static_cast<double>(corners) : 0.0;
  };
  // Only the sampled points and their neighbours need an offset: a few per sample
  // rather than one per point of a mesh of millions.
  const auto offsetOf = [&ringMean](const MStlPoint& p) {
    MMVector3d normal;
    for (std::uint16_t j = 0; j < p.GetNumberOfNeighbourTriangles(); ++j)
      normal += p.GetNeighbourTriangle(j)->data.GetAreaVector();
    double offset = 0.0;
    if (Normalize(normal) == 0.0) return offset;
    for (std::size_t k = 0; k < 3; ++k) {
      const double mean = ringMean(p, [k](const MStlPoint& q) { return q.GetDouble()[k]; });
      offset += (p.GetDouble()[k] - mean) * normal[k];
    }
    return offset;
  };
  const std::size_t every = std::max<std::size_t>(1, (all.size() + samples - 1) / std::max<std::size_t>(1, samples));
  std::vector<double> noise((all.size() + every - 1) / every);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, noise.size(), 64),
                    [&](const tbb::blocked_range<std::size_t>& r) {
                      for (std::size_t i = r.begin(); i != r.end(); ++i) {
                        const MStlPoint& p = *all[i * every];
                        noise[i] = std::fabs(offsetOf(p) - ringMean(p, offsetOf));
                      }
                    });
  return NearestRank(noise, 0.5) / (kMedianToSigma * kSecondDifferenceGain);
}

double HoleShare(const MStlBase& mesh, const MeshPieces* pieces) {
  std::vector<const MStlTriangle*> triangles;
  triangles.reserve(mesh.GetNumberOfTriangles());
  double area = 0.0;
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = it;
    if (pieces != nullptr && pieces->IsLoose(*t->GetPoint(0))) continue;
    triangles.push_back(t);
    area += 0.5 * Length(t->GetAreaVector());
  }
  // Which edges only their own triangle holds (bit k: the edge opposite corner k).
  std::vector<std::uint8_t> open(triangles.size(), 0);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, triangles.size(), 2048),
                    [&](const tbb::blocked_range<std::size_t>& r) {
                      for (std::size_t i = r.begin(); i != r.end(); ++i)
                        for (std::size_t k = 0; k < 3; ++k)
                          if (MeshQueries::EdgeIsOpen(*triangles[i], k))
                            open[i] = static_cast<std::uint8_t>(open[i] | (1u << k));
                    });
  // The border edges in their triangles' winding, chained into loops from point to
  // point; a point where several loops meet continues along the first edge left.
  std::vector<std::pair<const MStlPoint*, const MStlPoint*>> edges;
  for (std::size_t i = 0; i < triangles.size(); ++i)
    for (std::size_t k = 0; k < 3; ++k)
      if ((open[i] >> k & 1u) != 0)
        edges.emplace_back(triangles[i]->GetPoint((k + 1) % 3), triangles[i]->GetPoint((k + 2) % 3));
  if (edges.empty() || !(area > 0.0)) return 0.0;
  std::sort(edges.begin(), edges.end(), [](const auto& a, const auto& b) {
    return a.first->GetMaskIndex() < b.first->GetMaskIndex() ||
           (a.first->GetMaskIndex() == b.first->GetMaskIndex() && a.second->GetMaskIndex() < b.second->GetMaskIndex());
  });
  std::vector<std::uint8_t> used(edges.size(), 0);
  const auto firstFrom = [&](const MStlPoint* p) {
    auto at = std::lower_bound(edges.begin(), edges.end(), p, [](const auto& e, const MStlPoint* q) {
      return e.first->GetMaskIndex() < q->GetMaskIndex();
    });
    for (; at != edges.end() && at->first == p; ++at)
      if (used[static_cast<std::size_t>(at - edges.begin())] == 0) return static_cast<std::size_t>(at - edges.begin());
    return edges.size();
  };
  double holes = 0.0;
  for (std::size_t start = 0; start < edges.size(); ++start) {
    if (used[start] != 0) continue;
    // The vector area of the loop about its first point.
    const MMVector3d origin = edges[start].first->GetDouble();
    MMVector3d sum;
    for (std::size_t e = start; e < edges.size(); e = firstFrom(edges[e].second)) {
      used[e] = 1;
      sum += Cross(edges[e].first->GetDouble() - origin, edges[e].second->GetDouble() - origin);
    }
    holes += 0.5 * Length(sum);
  }
  return holes / area;
}

}  // namespace ZorStlRegistration
