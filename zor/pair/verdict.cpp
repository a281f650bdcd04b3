#include "zor/pair/verdict.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_invoke.h>

#include "zor/model/distance_statistics.h"
#include "zor/spatial/surface_query.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {

namespace {

// The distance in noise and roughness: what lies within it lies on the surface, noise
// included (three standard deviations of Gaussian noise along the normal).
constexpr double kRoughnesses = 3.0;
// A result is doubtful when less than this share lies on the other mesh, either way:
// neighbouring views of a turntable scan a quarter turn apart share a quarter or more,
// a wrong pose leaves a few chance contacts (bench/README.md).
constexpr double kLeastOverlap = 0.25;
// Or when the part that lies on the fixed surface lies this loosely (share of the
// distance): a right pose puts it at the noise of the scans, about a third of the
// distance, up to a half where two real scans disagree by their calibration.
constexpr double kMostLooseness = 0.55;
// Or when more than this share of the moving mesh contradicts the fixed surface, or
// more of it than lies on it (bench/README.md).
constexpr double kMostInconsistent = 0.1;
// What a contradicting point weighs against a pose, beside a point on the other surface
// for it: a near-symmetric body's wrong twin lays more on the other mesh than the right
// pose of a partial overlap does, and only what it contradicts tells them apart.
constexpr double kContradictionWeight = 4.0;
// The neighbourhood that tells a mismatch from a surface of its own, as a share of the
// moving body's diagonal: wider than a feature that one end of a near-symmetric body has
// and the other lacks.
constexpr double kNeighbourhoodShare = 0.03;
// A surface whose open borders enclose less than this share of its area is closed: what
// lies inside it is solid, what lies outside may be clutter. A range view, or a body cut
// in half, has more.
constexpr double kMostOpenOfClosed = 0.05;
// The sample of the moving body that tells each point's neighbourhood in Counterparts.
constexpr std::size_t kCounterpartSamples = 20000;

// Every k-th point of `mesh` with a triangle, for at most `samples`.
// Every k-th of `all` (a body's points in list order) that has a triangle, for at most
// about `samples`.
std::vector<const MStlPoint*> Sample(const std::vector<const MStlPoint*>& all, std::size_t samples) {
  std::vector<const MStlPoint*> points;
  samples = std::max<std::size_t>(1, samples);
  const std::size_t step = std::max<std::size_t>(1, (all.size() + samples - 1) / samples);
  for (std::size_t i = 0; i < all.size(); i += step)
    if (all[i]->GetNumberOfNeighbourTriangles() > 0) points.push_back(all[i]);
  return points;
}

double LooseShare(const MStlBase& mesh, const MeshPieces& pieces) {
  std::size_t all = 0, loose = 0;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    ++all;
    loose += pieces.IsLoose(*p) ? 1 : 0;
  }
  return all > 0 ? static_cast<double>(loose) / static_cast<double>(all) : 0.0;
}

// What a moving point beyond the distance is to the fixed surface: nothing (beside its
// open border, or on it), or off it where it is, behind it or in front.
constexpr std::uint8_t kBehind = 1, kInFront = 2;

double Diagonal(const MStlBase& mesh) {
  const double dx = double(mesh.GetXMax()) - mesh.GetXMin(), dy = double(mesh.GetYMax()) - mesh.GetYMin(),
               dz = double(mesh.GetZMax()) - mesh.GetZMin();
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

// Points bucketed on a grid of cells of a given size: their numbers sorted by cell, each
// cell one run found by binary search.
class PointCells {
public:
  PointCells(const std::vector<const MStlPoint*>& points, double cellSize) : source(points), size(cellSize) {
    entries.resize(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) entries[i] = {CellOf(points[i]->GetDouble()), std::uint32_t(i)};
    std::sort(entries.begin(), entries.end());
  }
  // visit(j) for every point j within `radius` (at most the cell size) of `centre`.
  template <typename Visit>
  void ForNear(const MMVector3d& centre, double radius, const Visit& visit) const {
    const Cell c = CellOf(centre);
    for (std::int64_t x = c[0] - 1; x <= c[0] + 1; ++x)
      for (std::int64_t y = c[1] - 1; y <= c[1] + 1; ++y) {
        auto at = std::lower_bound(entries.begin(), entries.end(), Entry{{x, y, c[2] - 1}, 0});
        for (; at != entries.end() && at->first[0] == x && at->first[1] == y && at->first[2] <= c[2] + 1; ++at)
          if (Length2(source[at->second]->GetDouble() - centre) <= radius * radius) visit(at->second);
      }
  }

private:
  using Cell = std::array<std::int64_t, 3>;
  using Entry = std::pair<Cell, std::uint32_t>;
  Cell CellOf(const MMVector3d& p) const {
    return {static_cast<std::int64_t>(std::floor(p[0] / size)), static_cast<std::int64_t>(std::floor(p[1] / size)),
            static_cast<std::int64_t>(std::floor(p[2] / size))};
  }
  const std::vector<const MStlPoint*>& source;
  double size;
  std::vector<Entry> entries;
};

template <typename... Values>
std::string Text(const char* format, Values... values) {
  char text[200];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

// The distance of each of `points`, placed by `pose`, to the fixed surface (beyond
// `distance` at least the next double above it; the largest double when the fixed mesh
// has no surface), and for one beyond `distance` the side of the fixed surface it lies
// on (0 when its nearest fixed place is on an open border: beyond what the fixed mesh
// shows).
void Measure(const std::vector<const MStlPoint*>& points, const MMTransformMatrix& pose,
             const MeshQueries::TriangleTreeHolder& fixedTree, double distance, std::vector<double>& found,
             std::vector<std::uint8_t>& side) {
  found.assign(points.size(), 0.0);
  side.assign(points.size(), 0);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, points.size(), 512),
                    [&](const tbb::blocked_range<std::size_t>& r) {
                      for (std::size_t k = r.begin(); k != r.end(); ++k) {
                        MMVector3d p = points[k]->GetDouble();
                        pose.Transform(p, false);
                        MeshQueries::SurfacePlace place;
                        if (MeshQueries::NearestSurfacePlace(fixedTree, p, distance, place)) {
                          found[k] = place.distance;
                          continue;
                        }
                        if (!MeshQueries::NearestSurfacePlace(fixedTree, p, HUGE_VAL, place)) {
                          found[k] = std::numeric_limits<double>::max();
                          continue;
                        }
                        found[k] = std::max(place.distance, std::nextafter(distance, HUGE_VAL));
                        if (!MeshQueries::OnOpenBorder(place))
                          side[k] = MeshQueries::SignedDistance(place, p) < 0.0 ? kBehind : kInFront;
                      }
                    });
}

// Whether a moving point off the fixed surface, on `side` of it, contradicts it: when it
// lies inside a closed fixed surface (its solid), or, on either side, amid moving points
// (of `cells`, whose distances are `found`) that lie on the fixed surface. Where the two
// surfaces match all about, a point that leaves the surface is a mismatch (the wrong end
// of a near-symmetric body), while clutter (a table, other objects) and the part of a
// view that the other view did not see are surfaces of their own that match nowhere.
bool Contradicts(std::uint8_t side, bool closed, const MMVector3d& at, const PointCells& cells,
                 const std::vector<double>& found, double distance, double reach) {
  if (side == 0) return false;
  if (closed && side == kBehind) return true;
  std::size_t on = 0, near = 0;
  cells.ForNear(at, reach, [&](std::uint32_t j) {
    ++near;
    on += found[j] <= distance ? 1 : 0;
  });
  return near > 0 && 2 * on >= near;
}

}  // namespace

SurfaceFacts StudySurface(const MStlBase& mesh) {
  SurfaceFacts facts;
  facts.roughness = SurfaceRoughness(mesh);
  facts.noise = SurfaceNoise(mesh);
  facts.holeShare = HoleShare(mesh);
  return facts;
}

PairSurfaces::PairSurfaces(MStlBase& movingMesh, MStlBase& fixedMesh) : moving(&movingMesh), fixed(&fixedMesh) {
  const auto study = [](MStlBase& mesh, std::unique_ptr<MStlBase>& copy, SurfaceFacts& facts, double& loose,
                        std::size_t& bodies, MeshPieces& pieces, std::vector<const MStlPoint*>& points) {
    pieces = FindPieces(mesh);
    copy = WithoutLoosePieces(mesh, pieces);
    loose = LooseShare(mesh, pieces);
    bodies = CountBodies(pieces);
    const MStlBase& body = copy ? *copy : mesh;
    facts = StudySurface(body);
    points.reserve(body.NumberOfPoints());
    for (const MStlPoint* p = body.GetFirstPoint(); p != nullptr; p = p->GetNext()) points.push_back(p);
    // The tree every verdict and finish searches in, built here while the other mesh
    // is studied.
    MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&body));
  };
  MeshPieces fixedPieces;
  tbb::parallel_invoke(
      [&] { study(movingMesh, movingCopy, movingFacts, movingLoose, movingBodies, movingPieces, movingPoints); },
      [&] { study(fixedMesh, fixedCopy, fixedFacts, fixedLoose, fixedBodies, fixedPieces, fixedPoints); });
}

double PairSurfaces::VerdictDistance(double least) const {
  // A coarse clean tessellation is rough but not noisy, a fine noisy one both: the
  // moving points lie off the surface by the smaller.
  const double points = std::min(movingFacts.noise, movingFacts.roughness);
  return std::max(kRoughnesses * std::sqrt(points * points + fixedFacts.roughness * fixedFacts.roughness), least);
}

Verdict JudgePose(const MStlBase& moving, const MStlBase& fixed, const MMTransformMatrix& pose, double distance) {
  // The pair only reads the meshes: the copies are made beside them.
  const PairSurfaces pair(const_cast<MStlBase&>(moving), const_cast<MStlBase&>(fixed));
  return JudgePose(pair, pose, distance);
}

Verdict JudgePose(const PairSurfaces& pair, const MMTransformMatrix& pose, double distance, std::size_t samples) {
  Verdict v;
  v.distance = distance;
  v.loose = pair.MovingLoose();
  const MStlBase& moving = pair.Moving();
  const MStlBase& fixed = pair.Fixed();
  const std::vector<const MStlPoint*> movingPoints = Sample(pair.MovingPoints(), samples);
  const std::vector<const MStlPoint*> fixedPoints = Sample(pair.FixedPoints(), samples);
  const MeshQueries::TriangleTreeHolder* fixedTree = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&fixed));
  const MeshQueries::TriangleTreeHolder* movingTree = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&moving));
  if (movingPoints.empty() || fixedPoints.empty() || fixedTree == nullptr || movingTree == nullptr ||
      fixedTree->GetTree().GetObjects().empty() || movingTree->GetTree().GetObjects().empty()) {
    v.doubtful = true;
    v.reason = "a mesh has no surface to measure";
    return v;
  }
  const bool closed = pair.FixedFacts().holeShare < kMostOpenOfClosed;

  // The moving points: their distance within reach, and which side of the fixed surface
  // one beyond it lies on.
  std::vector<double> found;
  std::vector<std::uint8_t> side;
  Measure(movingPoints, pose, *fixedTree, distance, found, side);
  // The fixed points on the moving surface.
  const MMTransformMatrix back = pose.Inverted();
  std::vector<double> fixedFound(fixedPoints.size());
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, fixedPoints.size(), 512),
                    [&](const tbb::blocked_range<std::size_t>& r) {
                      for (std::size_t k = r.begin(); k != r.end(); ++k) {
                        MMVector3d q = fixedPoints[k]->GetDouble();
                        back.Transform(q, false);
                        MeshQueries::SurfacePlace place;
                        fixedFound[k] = MeshQueries::NearestSurfacePlace(*movingTree, q, distance, place)
                                            ? place.distance
                                            : std::numeric_limits<double>::max();
                      }
                    });
  const double reach = kNeighbourhoodShare * Diagonal(moving);
  const PointCells cells(movingPoints, reach);
  std::vector<std::uint8_t> contradicting(movingPoints.size(), 0);
  tbb::parallel_for(
      tbb::blocked_range<std::size_t>(0, movingPoints.size(), 512), [&](const tbb::blocked_range<std::size_t>& r) {
        for (std::size_t k = r.begin(); k != r.end(); ++k)
          contradicting[k] =
              Contradicts(side[k], closed, movingPoints[k]->GetDouble(), cells, found, distance, reach) ? 1 : 0;
      });
  std::size_t contradictions = 0;
  for (std::uint8_t c : contradicting) contradictions += c;
  v.inconsistent = static_cast<double>(contradictions) / static_cast<double>(movingPoints.size());
  const DistanceStatistics statistics = SummariseDistances(found, distance);
  v.overlap = statistics.withinShare;
  v.rms = statistics.withinRms;
  v.fixedOverlap = SummariseDistances(fixedFound, distance).withinShare;

  const double overlap = std::max(v.overlap, v.fixedOverlap);
  if (overlap < kLeastOverlap) {
    v.doubtful = true;
    v.reason = Text("only %.0f%% of the moving mesh lies on the fixed mesh, and %.0f%% of the fixed on the moving",
                    100.0 * v.overlap, 100.0 * v.fixedOverlap);
  } else if (v.inconsistent > kMostInconsistent || v.inconsistent > overlap) {
    v.doubtful = true;
    v.reason =
        Text(closed ? "%.0f%% of the moving mesh lies inside the fixed mesh's solid (%.0f%% on its surface)"
                    : "%.0f%% of the moving mesh lies off the fixed surface where that surface is (%.0f%% on it)",
             100.0 * v.inconsistent, 100.0 * v.overlap);
  } else if (v.rms > kMostLooseness * distance) {
    v.doubtful = true;
    v.reason = Text("the overlap found lies loosely (RMS %.0f%% of the distance it is measured within)",
                    100.0 * v.rms / distance);
  }
  return v;
}

std::vector<std::uint8_t> Counterparts(const PairSurfaces& pair, const MMTransformMatrix& pose, double distance,
                                       double far) {
  const MStlBase& caller = pair.CallerMoving();
  std::vector<const MStlPoint*> points;
  points.reserve(caller.NumberOfPoints());
  for (const MStlPoint* p = caller.GetFirstPoint(); p != nullptr; p = p->GetNext()) points.push_back(p);
  std::vector<std::uint8_t> counterpart(points.size(), 1);
  const MStlBase& fixed = pair.Fixed();
  const MeshQueries::TriangleTreeHolder* fixedTree = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&fixed));
  if (points.empty() || fixedTree == nullptr || fixedTree->GetTree().GetObjects().empty()) return counterpart;
  // Whether a point contradicts the fixed surface is told by its neighbours among the
  // verdict's sample of the body, as the verdict tells it.
  const std::vector<const MStlPoint*> sample = Sample(pair.MovingPoints(), kCounterpartSamples);
  std::vector<double> sampleFound;
  std::vector<std::uint8_t> sampleSide;
  Measure(sample, pose, *fixedTree, distance, sampleFound, sampleSide);
  const double reach = kNeighbourhoodShare * Diagonal(pair.Moving());
  const PointCells cells(sample, reach);
  // Every point: what lies on the fixed surface has a counterpart; beyond the distance,
  // one whose nearest fixed place is on the open border has none (the fixed mesh did not
  // see there); one within `far` has, a deviation however large; beyond that only one
  // that contradicts the fixed surface.
  std::vector<double> found;
  std::vector<std::uint8_t> side;
  Measure(points, pose, *fixedTree, distance, found, side);
  const bool closed = pair.FixedFacts().holeShare < kMostOpenOfClosed;
  const MeshPieces& pieces = pair.MovingPieces();
  tbb::parallel_for(
      tbb::blocked_range<std::size_t>(0, points.size(), 512), [&](const tbb::blocked_range<std::size_t>& r) {
        for (std::size_t k = r.begin(); k != r.end(); ++k) {
          if (pieces.IsLoose(*points[k])) {
            counterpart[k] = 0;
            continue;
          }
          if (found[k] <= distance) continue;
          if (side[k] == 0) {
            counterpart[k] = 0;
            continue;
          }
          if (found[k] <= far) continue;
          counterpart[k] =
              Contradicts(side[k], closed, points[k]->GetDouble(), cells, sampleFound, distance, reach) ? 1 : 0;
        }
      });
  return counterpart;
}

double Support(const Verdict& v) { return std::max(v.overlap, v.fixedOverlap) - kContradictionWeight * v.inconsistent; }

bool Better(const Verdict& a, const Verdict& b) {
  const double sa = Support(a), sb = Support(b);
  return sa > sb || (sa == sb && a.rms < b.rms);
}

}  // namespace ZorStlRegistration
