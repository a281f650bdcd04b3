#include "zor/morph/wrapper_operator_field_morph.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "zor/model/stl_base.h"
#include "zor/model/stl_guards.h"
#include "zor/model/stopwatch.h"
#include "zor/morph/detail/field_levels.h"
#include "zor/morph/detail/parallel_loops.h"
#include "zor/morph/detail/space_field.h"
#include "zor/spatial/nearest_query.h"
#include "zor/spatial/point_triangle_distance.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {

namespace {

using detail::FieldLevel;
using detail::PlaneTerm;
using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;

constexpr double kPi = 3.141592653589793;
// The first smoothing length, as a share of the moving mesh's diagonal: the first field
// is nearly a translation.
constexpr double kFirstSmoothing = 0.25;
// A level serves smoothing lengths of at least this many of its mean edges.
constexpr double kEdgesPerSmoothing = 4.0;
// The first passes' search reach, as a share of the diagonal, unless the caller sets one.
constexpr double kFirstReach = 0.1;
// Later passes search to this many times the 90th percentile of the last match distances.
constexpr double kReachOverSpread = 3.0;
// Conjugate-gradient steps per solve, and the residual drop that ends a solve early.
// The mesh itself starts from a field that its coarser levels have settled, and its
// matches move little: fewer steps do.
constexpr std::size_t kSolverSteps = 200;
constexpr std::size_t kFineSolverSteps = 40;
// The membrane term's weight beside the bending term's, both at the same length.
constexpr double kMembraneShare = 0.01;
// The bending term's weight at a smoothing length of L mean edges is kBendingShare L^4:
// 0.1 against 1 lays the mesh within a few micrometres of its target where 1 left up
// to 0.3 mm at sharp features, with slides about the same.
constexpr double kBendingShare = 0.1;
// Weight of the displacement's own size beside a point's plane term: a motion that no
// match asks for (a whole translation that a local bump would also explain) is not
// taken. Larger values also hold back true motions along the surface (a bend's ends).
// Stronger on the coarse levels, where such a translation would start; measured over
// bends, twists and bumps of smooth and featured bodies at 10k triangles (sum of the
// mean slides 2.79 mm against 3.29 mm with 0.001 throughout).
constexpr double kRidge = 0.001;
constexpr double kCoarseRidge = 0.01;
constexpr double kSolverTolerance = 1e-4;
// A barycentric weight at or below this puts the closest place on the opposite edge.
constexpr double kOnEdge = 1e-9;
// When the distances stall at the final smoothing length, it is halved, at most until
// it is this share of the length asked for.
constexpr double kFloorShare = 0.2;
// A gain of the 95th percentile below this share counts as none.
constexpr double kStallGain = 0.01;
// The field over space: lattices of kFirstCells cells along the longest side, doubling
// up to kLastCells, each fitted in kSpacePasses passes on the finest level of at most
// kSpacePoints points. Measured on bends, twists and bumps of five range scans scaled
// to 200 mm (bench_morph --meshes): the mean slide fell from 0.03-2.1 mm on the surface
// levels alone to 15-45 um. Starting from 4 or 8 cells left 70-800 um on the bends and
// twists; a bending weight of 0.01 or 0.1 held back the true motion (up to 600 um);
// mixed differences (the thin-plate energy) or a term against the change of edge
// lengths slid 50-1100 um on the twists, which shear the surface.
constexpr std::size_t kFirstCells = 2;
constexpr std::size_t kLastCells = 8;
constexpr std::size_t kSpacePasses = 3;
constexpr std::size_t kSpacePoints = 5000;
constexpr std::size_t kSpaceSolverSteps = 20;
constexpr double kSpaceBending = 0.001;
constexpr double kSpaceRidge = 0.001;
// After the field over space, the surface levels start at this share of its finest
// lattice spacing: they only lay the points on the target (0.5 took 0.2 s more at 200k
// triangles for the same slides).
constexpr double kSurfaceStartShare = 0.1;
// Matches are taken on the surface that each triangle's corners and their normals
// describe (a Phong tessellation), by this share of its rise over the flat triangle.
// Faces meeting at more than kCreaseCosine's angle do not share a corner normal, and a
// point where they meet is not matched back. Measured on the five range scans at 3,000
// and 8,000 triangles and whole (bench_morph --meshes --mesh-triangles N), with the
// back matches and no crease rule: shares 0, 0.5 and 1 slid 3478/1673/438 um,
// 2970/1340/456 um and 4122/1527/624 um in sum over the fifteen cases. Without a
// crease rule the featured body at 200k triangles slid 73 and 249 um on its bend and
// bump, against 48 and 213 um with creases at 60 degrees (3353/1338/475 um on the
// scans) and 3764/1475/486 um on the scans with creases at 30.
constexpr double kCurvedShare = 0.5;
constexpr double kCreaseCosine = 0.5;
// The weight of a target point matched back onto the moving mesh, beside a moving
// point's match. The target's points lie on the surface it stands for, where its flat
// triangles cut inside: weights 1, 2, 8 and 32 slid 5362/1690/481, 4324/1528/479,
// 2970/1340/456 and 2824/1292/461 um in sum (as above, no crease rule), against
// 8389/2421/528 um without them.
constexpr double kBackWeight = 8.0;

template <typename Body>
void ForEach(std::size_t count, const Body& body) {
  detail::ForEachIndex(count, 256, body);
}

MWrapperOperatorFieldMorph::StlImpl CheckedHandle(MWrapperOperatorFieldMorph::StlImpl handle, const char* which) {
  if (handle.GetStl() == nullptr)
    throw std::invalid_argument(std::string("MWrapperOperatorFieldMorph: the ") + which + " mesh is null");
  return handle;
}

void CheckParams(const MWrapperOperatorFieldMorph::SParams& p) {
  const auto fail = [](const char* what) {
    throw std::invalid_argument(std::string("MWrapperOperatorFieldMorph: ") + what);
  };
  if (!(p.distanceTolerance > 0.0) || !std::isfinite(p.distanceTolerance)) fail("the tolerance must be above 0");
  if (!(p.targetFraction > 0.0 && p.targetFraction <= 1.0)) fail("the target fraction must lie in (0, 1]");
  if (!(p.normalAngle > 0.0 && p.normalAngle <= 180.0)) fail("the normal angle must lie in (0, 180] degrees");
  if (!(p.searchDistance >= 0.0) || !std::isfinite(p.searchDistance)) fail("the search distance must not be negative");
  if (!(p.smoothing > 0.0) || !std::isfinite(p.smoothing)) fail("the smoothing must be above 0");
  if (p.maxPasses == 0) fail("at least one pass is needed");
}

// The value at share q of `values` (a copy is partly sorted): deterministic, since
// nth_element places the same value whatever it does with equal ones.
double Quantile(std::vector<double> values, double q) {
  if (values.empty()) return 0.0;
  const std::size_t k = std::min(values.size() - 1, static_cast<std::size_t>(q * static_cast<double>(values.size())));
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
  return values[k];
}

// The moving mesh as arrays: points in list order, triangles as places in that order.
struct MovingArrays {
  std::vector<MStlPoint*> points;
  std::vector<std::uint32_t> triangles;
};

MovingArrays ArraysOf(const MStlBase& mesh) {
  MovingArrays a;
  a.points.reserve(mesh.NumberOfPoints());
  for (MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) a.points.push_back(p);
  std::vector<std::uint32_t> placeOf(mesh.GetMasks().GetPointMaskSize());
  for (std::size_t i = 0; i < a.points.size(); ++i)
    placeOf[a.points[i]->GetMaskIndex()] = static_cast<std::uint32_t>(i);
  a.triangles.reserve(3 * mesh.GetNumberOfTriangles());
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = static_cast<const MStlTriangle*>(it);
    for (std::size_t k = 0; k < 3; ++k) a.triangles.push_back(placeOf[t->GetPoint(k)->GetMaskIndex()]);
  }
  return a;
}

// Area-weighted unit normals of the points at `positions` (zero where a point has no
// triangle with area), summed triangle by triangle in their order.
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

std::size_t FoldedTriangles(const std::vector<std::uint32_t>& triangles, const std::vector<MMVector3d>& before,
                            const std::vector<MMVector3d>& after) {
  std::size_t folded = 0;
  for (std::size_t t = 0; t + 2 < triangles.size(); t += 3) {
    const auto normalIn = [&](const std::vector<MMVector3d>& x) {
      const MMVector3d& a = x[triangles[t]];
      return Cross(x[triangles[t + 1]] - a, x[triangles[t + 2]] - a);
    };
    folded += Dot(normalIn(before), normalIn(after)) < 0.0 ? 1 : 0;
  }
  return folded;
}

// The target's triangle tree, with each object's open-border edges: bit k set when the
// edge opposite corner k belongs to no other triangle.
class TargetSurface {
public:
  explicit TargetSurface(MStlBase* mesh) : holder(MeshQueries::MeshHandle(mesh)) {
    holder.Build(true);
    const auto& objects = holder.GetTree().GetObjects();
    borders.assign(objects.size(), 0);
    cornerNormals.assign(3 * objects.size(), MMVector3d());
    ForEach(objects.size(), [&](std::size_t i) {
      const MStlTriangle* t = objects[i].GetTriangle();
      std::uint8_t bits = 0;
      for (std::size_t k = 0; k < 3; ++k) {
        const MStlPoint* a = t->GetPoint((k + 1) % 3);
        const MStlPoint* b = t->GetPoint((k + 2) % 3);
        bool shared = false;
        for (std::uint16_t j = 0; j < a->GetNumberOfNeighbourTriangles() && !shared; ++j) {
          const MStlTriangle* other = a->GetNeighbourTriangle(j)->GetData();
          shared = other != t && other->IndexOfPoint(b) >= 0;
        }
        if (!shared) bits = static_cast<std::uint8_t>(bits | (1u << k));
      }
      borders[i] = bits;
      // Each corner's normal: the area-weighted normals of the triangles around it on
      // this triangle's side of any crease (a corner on a sharp edge keeps each face
      // flat up to it).
      const MMVector3d own = holder.GetNormals()[i];
      for (std::size_t k = 0; k < 3; ++k) {
        const MStlPoint* a = t->GetPoint(k);
        MMVector3d sum;
        for (std::uint16_t j = 0; j < a->GetNumberOfNeighbourTriangles(); ++j) {
          const MMVector3d area = a->GetNeighbourTriangle(j)->GetData()->GetAreaVector();
          const double length = Length(area);
          if (length > 0.0 && Dot(area, own) >= kCreaseCosine * length) sum = sum + area;
        }
        const double length = Length(sum);
        cornerNormals[3 * i + k] = length > 0.0 ? sum * (1.0 / length) : MMVector3d();
      }
    });
  }

  bool Empty() const { return holder.GetTree().GetObjects().empty(); }

  // The nearest triangle facing `normal` within the cone of `cosine` and strictly
  // within `reach`, unless its closest place lies on an open border. Fills `term` and
  // returns the distance, or a negative value for no match.
  double Match(const MMVector3d& p, const MMVector3d& normal, double cosine, double reach, bool curved,
               PlaneTerm& term) const {
    const MeshQueries::OrientedTriangleDistance<MeshQueries::StoredNormals> policy(
        MeshQueries::StoredNormals(holder.GetNormals()), holder.GetCorners(), p.Data(), normal.Data(), cosine);
    double bound2 = MeshQueries::SquaredSearchBound(reach);
    const std::uint32_t index = MeshQueries::NearestObjectIndex(holder.GetTree(), policy, bound2);
    if (index == MeshQueries::kNoObject) return -1.0;
    double w[3];
    const MMVector3d c = Closest(index, p, borders[index], w);
    if (!(c[0] == c[0])) return -1.0;  // NaN marks a place on an open border
    term.normal = holder.GetNormals()[index];
    term.weight = 1.0;
    if (!curved) {
      term.place = c;
      return std::sqrt(bound2);
    }
    // The place on the surface that the triangle's corners and their normals describe
    // (a Phong tessellation): where the target is a coarse tessellation of a curved
    // surface, its flat triangles cut inside it, and matches on them would shrink every
    // convex part by the chords' depth.
    const std::int32_t* v = holder.GetCorners()[index].xyz;
    double lift = 0.0;
    for (std::size_t k = 0; k < 3; ++k) {
      const MMVector3d& corner = cornerNormals[3 * std::size_t{index} + k];
      const MMVector3d toCorner(c[0] - double(v[3 * k]), c[1] - double(v[3 * k + 1]), c[2] - double(v[3 * k + 2]));
      lift -= w[k] * Dot(toCorner, corner) * Dot(corner, term.normal);
    }
    term.place = c + term.normal * (kCurvedShare * lift);
    return Length(term.place - p);
  }

  // Distance from `p` to the nearest place of the whole target.
  double Distance(const MMVector3d& p) const {
    const MeshQueries::TriangleObjectDistance policy(holder.GetCorners(), p.Data());
    double bound2 = std::numeric_limits<double>::infinity();
    MeshQueries::NearestObjectIndex(holder.GetTree(), policy, bound2);
    return std::sqrt(bound2);
  }

private:
  MMVector3d Closest(std::uint32_t index, const MMVector3d& p, std::uint8_t borderBits, double* w) const {
    const std::int32_t* v = holder.GetCorners()[index].xyz;
    const double a[3] = {double(v[0]), double(v[1]), double(v[2])};
    const double b[3] = {double(v[3]), double(v[4]), double(v[5])};
    const double c[3] = {double(v[6]), double(v[7]), double(v[8])};
    MeshQueries::PointTriangleDistance2(p.Data(), a, b, c, w);
    for (std::size_t k = 0; k < 3; ++k)
      if ((borderBits >> k & 1u) != 0 && w[k] <= kOnEdge) {
        const double nan = std::numeric_limits<double>::quiet_NaN();
        return MMVector3d(nan, nan, nan);
      }
    return MMVector3d(a[0] * w[0] + b[0] * w[1] + c[0] * w[2], a[1] * w[0] + b[1] * w[1] + c[1] * w[2],
                      a[2] * w[0] + b[2] * w[1] + c[2] * w[2]);
  }

  MeshQueries::TriangleTreeHolder holder;
  std::vector<std::uint8_t> borders;      // in tree order
  std::vector<MMVector3d> cornerNormals;  // three per triangle, in tree order
};

// What one matching pass found.
struct PassSummary {
  std::size_t matched = 0;
  std::size_t within = 0;  // matched points strictly within the tolerance
  double p90 = 0.0;        // of the matched distances
  double p95 = 0.0;
};

// Matches the points of `level` displaced by base + field; the terms' places are then
// taken back by `base`, so that the solve sees the field alone.
PassSummary MatchLevel(const TargetSurface& surface, const FieldLevel& level, const std::vector<MMVector3d>& base,
                       const std::vector<MMVector3d>& field, const std::vector<MMVector3d>& normals, double cosine,
                       double reach, double tolerance, std::vector<PlaneTerm>& terms, std::vector<double>& distances,
                       bool curved = true) {
  const std::size_t n = level.rest.size();
  terms.assign(n, PlaneTerm());
  distances.assign(n, -1.0);
  ForEach(n, [&](std::size_t i) {
    distances[i] = surface.Match(level.rest[i] + base[i] + field[i], normals[i], cosine, reach, curved, terms[i]);
    terms[i].place = terms[i].place - base[i];
  });
  PassSummary s;
  std::vector<double> matched;
  matched.reserve(n);
  for (double d : distances)
    if (d >= 0.0) {
      matched.push_back(d);
      s.within += d < tolerance ? 1 : 0;
    }
  s.matched = matched.size();
  s.p90 = Quantile(matched, 0.90);
  s.p95 = Quantile(std::move(matched), 0.95);
  return s;
}

// Every k-th point of a mesh, k chosen so that at most about `most` are taken, with
// its area-weighted normal.
void SamplePoints(MStlBase& mesh, std::size_t most, std::vector<MMVector3d>& places, std::vector<MMVector3d>& normals) {
  places.clear();
  normals.clear();
  const std::size_t count = mesh.NumberOfPoints();
  const std::size_t every = most > 0 && count > most ? (count + most - 1) / most : 1;
  std::size_t k = 0;
  for (MStlPoint* a = mesh.GetFirstPoint(); a != nullptr; a = a->GetNext(), ++k) {
    if (k % every != 0) continue;
    MMVector3d sum;
    for (std::uint16_t j = 0; j < a->GetNumberOfNeighbourTriangles(); ++j)
      sum = sum + a->GetNeighbourTriangle(j)->GetData()->GetAreaVector();
    const double length = Length(sum);
    if (!(length > 0.0)) continue;
    // A point on a crease has no one plane to lie on.
    bool crease = false;
    for (std::uint16_t j = 0; j < a->GetNumberOfNeighbourTriangles() && !crease; ++j) {
      const MMVector3d area = a->GetNeighbourTriangle(j)->GetData()->GetAreaVector();
      crease = Dot(area, sum) < kCreaseCosine * Length(area) * length;
    }
    if (crease) continue;
    places.push_back(a->GetDouble());
    normals.push_back(sum * (1.0 / length));
  }
}

// Moves each point with a match within `reach` onto the matched place, then takes back
// the move of every point of a triangle that the moves fold, until none does (only a
// triangle with a moved corner counts, so each round takes back a moved point). Returns
// the points moved.
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

}  // namespace

const char* StopReasonName(MWrapperOperatorFieldMorph::StopReason reason) {
  using R = MWrapperOperatorFieldMorph::StopReason;
  switch (reason) {
    case R::NotRun: return "not run";
    case R::NothingToMorph: return "nothing to morph";
    case R::Converged: return "converged";
    case R::Stalled: return "stalled";
    case R::PassLimit: return "pass limit";
    case R::NoMatch: return "no match";
  }
  return "unknown";
}

MWrapperOperatorFieldMorph::MWrapperOperatorFieldMorph(StlImpl movingMesh, StlImpl targetMesh)
    : moving(CheckedHandle(movingMesh, "moving")), target(CheckedHandle(targetMesh, "target")) {}

void MWrapperOperatorFieldMorph::Operate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress) {
  CheckParams(params);
  const Clock::time_point start = Clock::now();
  report = Report();
  MStlBase& mesh = *moving.GetStl();

  Clock::time_point stage = Clock::now();
  const MovingArrays arrays = ArraysOf(mesh);
  const std::size_t n = arrays.points.size();
  std::vector<FieldLevel> levels(1);
  levels[0].rest.resize(n);
  for (std::size_t i = 0; i < n; ++i) levels[0].rest[i] = arrays.points[i]->GetDouble();
  PointNormals(arrays.triangles, levels[0].rest, levels[0].normals);
  levels[0].graph = detail::GraphOfTriangles(n, arrays.triangles);
  detail::MeasureEdges(levels[0]);
  while (levels.back().rest.size() > params.coarsestPoints) {
    FieldLevel coarse = detail::Coarsen(levels.back());
    if (coarse.rest.size() * 10 > levels.back().rest.size() * 9) break;  // the graph no longer shrinks
    levels.push_back(std::move(coarse));
  }
  report.levels = levels.size();
  const FieldLevel& fine = levels[0];
  const TargetSurface surface(target.GetStl());
  report.setup = SecondsSince(stage);

  std::vector<MMVector3d> field(levels.back().rest.size());
  if (n == 0 || surface.Empty() || arrays.triangles.empty()) {
    report.stop = n == 0 || arrays.triangles.empty() ? StopReason::NothingToMorph : StopReason::NoMatch;
    report.unmatched = n;
    report.total = SecondsSince(start);
    return;
  }

  MMVector3d lo = fine.rest[0], hi = fine.rest[0];
  for (const MMVector3d& p : fine.rest)
    for (std::size_t k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], p[k]);
      hi[k] = std::max(hi[k], p[k]);
    }
  const double diagonal = Length(hi - lo);
  double finest = params.smoothing * (fine.meanEdge > 0.0 ? fine.meanEdge : diagonal);
  double smoothing = std::max(kFirstSmoothing * diagonal, finest);
  double reach = params.searchDistance > 0.0 ? params.searchDistance : kFirstReach * diagonal;
  const double cosine = std::cos(params.normalAngle / 180.0 * kPi);
  const double tolerance = params.distanceTolerance;

  const std::shared_ptr<ZorSDK::Common::IProgressDelegate> delegate = std::move(progress);
  ZorSDK::Common::IncrementalProgressReporter reporter(delegate, "Field morph", params.maxPasses, false);
  std::vector<PlaneTerm> terms;
  std::vector<double> distances;
  std::vector<MMVector3d> normals;
  bool everMatched = false;

  // First the field over space, fitted on the finest level that is still small, from
  // coarse lattices to finer ones; it leaves the surface levels only what lies below
  // its finest spacing.
  detail::SpaceField space(lo, hi);
  if (params.spaceField) {
    std::size_t sample = 0;
    while (sample + 1 < levels.size() && levels[sample].rest.size() > kSpacePoints) ++sample;
    const FieldLevel& points = levels[sample];
    const std::size_t m = points.rest.size();
    std::vector<MMVector3d> before(m), now(m), zero(m);
    detail::SpaceFitScratch spaceScratch;
    // The target's own points are matched back onto the moving mesh at rest as well:
    // where both meshes are coarse tessellations of one curved surface, each side's
    // chords cut inside it, and matches from both sides cancel that.
    std::vector<MMVector3d> backPlaces, backNormals, fitRest, fitBefore;
    std::vector<PlaneTerm> fitTerms, backTerms;
    std::vector<double> backDistances;
    SamplePoints(*target.GetStl(), kSpacePoints, backPlaces, backNormals);
    const TargetSurface restSurface(&mesh);
    bool settled = false;
    for (std::size_t cells = kFirstCells; cells <= kLastCells && !settled && report.passes + 1 < params.maxPasses;
         cells *= 2) {
      ForEach(m, [&](std::size_t i) { before[i] = space.At(points.rest[i]); });
      detail::SpaceLattice& lattice = space.AddLattice(cells);
      for (std::size_t pass = 0; pass < kSpacePasses && report.passes + 1 < params.maxPasses; ++pass) {
        stage = Clock::now();
        ForEach(m, [&](std::size_t i) { now[i] = space.At(points.rest[i]); });
        const PassSummary found =
            MatchLevel(surface, points, now, zero, points.normals, cosine, reach, tolerance, terms, distances);
        // The fit takes the places as matched (MatchLevel took them back by the field).
        ForEach(m, [&](std::size_t i) { terms[i].place = terms[i].place + now[i]; });
        ++report.passes;
        ++reporter;
        everMatched = everMatched || found.matched > 0;
        // Already on the target within the tolerance (a mesh in place): nothing is left
        // for a field over space to see.
        settled = found.matched > 0 && found.p95 < tolerance;
        if (settled) {
          report.space += SecondsSince(stage);
          break;
        }
        // Each target point's rest place: the field is smooth, so it moves a rest place
        // near the point about as it would move the point itself.
        const std::size_t b = backPlaces.size();
        backTerms.assign(b, PlaneTerm());
        backDistances.assign(b, -1.0);
        ForEach(b, [&](std::size_t j) {
          backDistances[j] = restSurface.Match(backPlaces[j] - space.At(backPlaces[j]), backNormals[j], cosine, reach,
                                               true, backTerms[j]);
        });
        fitRest.assign(points.rest.begin(), points.rest.end());
        fitBefore.assign(before.begin(), before.end());
        fitTerms.assign(terms.begin(), terms.end());
        for (std::size_t j = 0; j < b; ++j) {
          if (!(backDistances[j] >= 0.0)) continue;
          fitRest.push_back(backTerms[j].place);
          fitBefore.push_back(space.At(backTerms[j].place, space.Lattices().size() - 1));
          PlaneTerm back;
          back.place = backPlaces[j];
          back.normal = backTerms[j].normal;
          back.weight = kBackWeight;
          fitTerms.push_back(back);
        }
        detail::FitLattice(lattice, fitRest, fitBefore, fitTerms, {kSpaceBending, kSpaceRidge}, kSpaceSolverSteps,
                           kSolverTolerance, spaceScratch);
        report.space += SecondsSince(stage);
        if (found.matched > 0)
          reach = std::max({kReachOverSpread * found.p90, 10.0 * tolerance, 2.0 * points.meanEdge});
      }
    }
    if (!space.Empty())
      smoothing = std::max(std::min(smoothing, kSurfaceStartShare * space.Lattices().back().spacing), finest);
  }

  detail::FieldSolverScratch scratch;
  std::size_t level = levels.size() - 1;
  std::vector<MMVector3d> finerField;
  // The displacement the field over space gives each point of the level in use; the
  // surface field is solved on top of it.
  std::vector<MMVector3d> base(levels[level].rest.size());
  const auto baseOf = [&](const FieldLevel& at) {
    base.resize(at.rest.size());
    ForEach(at.rest.size(), [&](std::size_t i) { base[i] = space.At(at.rest[i]); });
  };
  baseOf(levels[level]);
  // Hands the field down to the next finer level.
  const auto stepDown = [&] {
    detail::Prolong(levels[level], field, finerField);
    field.swap(finerField);
    --level;
    baseOf(levels[level]);
  };
  double best95 = std::numeric_limits<double>::infinity();
  std::size_t sinceGain = 0;
  std::vector<MMVector3d> positions, previous;  // the mesh's points, and its field before a solve
  StopReason stop = StopReason::PassLimit;
  for (;;) {
    // Down to the coarsest level that still resolves this smoothing length.
    while (level > 0 && kEdgesPerSmoothing * levels[level].meanEdge > smoothing) stepDown();
    const FieldLevel& current = levels[level];
    stage = Clock::now();
    if (level == 0) {
      positions.resize(n);
      ForEach(n, [&](std::size_t i) { positions[i] = fine.rest[i] + base[i] + field[i]; });
      PointNormals(arrays.triangles, positions, normals);
    }
    const PassSummary pass = MatchLevel(surface, current, base, field, level == 0 ? normals : current.normals, cosine,
                                        reach, tolerance, terms, distances);
    report.correspondence += SecondsSince(stage);
    ++report.passes;
    ++reporter;
    if (pass.matched == 0 && !everMatched) {
      stop = StopReason::NoMatch;
      break;
    }
    everMatched = true;
    report.unmatched = level == 0 ? n - pass.matched : report.unmatched;
    const bool lastLength = level == 0 && !(smoothing > finest);
    if (lastLength) {
      if (static_cast<double>(pass.within) >= params.targetFraction * static_cast<double>(pass.matched) &&
          pass.p95 < tolerance) {
        stop = StopReason::Converged;
        break;
      }
      if (pass.p95 < best95 * (1.0 - kStallGain)) {
        best95 = pass.p95;
        sinceGain = 0;
      } else if (++sinceGain >= params.stallPasses) {
        // The field is too stiff for what is left: let it bend more, down to a floor,
        // before giving up.
        if (!(finest > kFloorShare * params.smoothing * fine.meanEdge)) {
          stop = StopReason::Stalled;
          break;
        }
        finest *= 0.5;
        smoothing = finest;
        best95 = pass.p95;
        sinceGain = 0;
      }
    }
    stage = Clock::now();
    const double ratio2 =
        current.meanEdge > 0.0 ? (smoothing / current.meanEdge) * (smoothing / current.meanEdge) : 0.0;
    const detail::FieldWeights weights{kBendingShare * ratio2 * ratio2, kMembraneShare * ratio2, 0.0,
                                       level == 0 ? kRidge : kCoarseRidge};
    if (level == 0) previous = field;
    detail::SolveField(current, terms, weights, level == 0 ? kFineSolverSteps : kSolverSteps, kSolverTolerance, field,
                       scratch);
    if (level == 0) {
      // A step that folds triangles to come closer is not taken: the run ends on the
      // field before it. (Coarse meshes laid on a coarse re-tessellation of their
      // target would otherwise crease at the target's edges.)
      const std::size_t foldedBefore = FoldedTriangles(arrays.triangles, fine.rest, positions);
      ForEach(n, [&](std::size_t i) { positions[i] = fine.rest[i] + base[i] + field[i]; });
      if (FoldedTriangles(arrays.triangles, fine.rest, positions) > foldedBefore) {
        field.swap(previous);
        report.solve += SecondsSince(stage);
        stop = StopReason::Stalled;
        break;
      }
    }
    report.solve += SecondsSince(stage);
    if (report.passes >= params.maxPasses) {
      stop = StopReason::PassLimit;
      break;
    }
    smoothing = std::max(0.5 * smoothing, finest);
    reach = std::max({kReachOverSpread * pass.p90, 10.0 * tolerance, 2.0 * current.meanEdge});
  }
  while (level > 0) stepDown();
  report.stop = stop;
  if (stop != StopReason::NoMatch && params.layOnTarget) {
    // The field is smooth at its final length, and on a coarse mesh laid on a different
    // tessellation of its target that leaves each point up to the target's chords off
    // it. The last step lays every point with a near match on the target itself.
    stage = Clock::now();
    positions.resize(n);
    ForEach(n, [&](std::size_t i) { positions[i] = fine.rest[i] + base[i] + field[i]; });
    PointNormals(arrays.triangles, positions, normals);
    const PassSummary last =
        MatchLevel(surface, fine, base, field, normals, cosine, reach, tolerance, terms, distances, false);
    std::vector<MMVector3d> laid;
    report.laid = LayOnTarget(arrays.triangles, fine.rest, positions, terms, distances, base,
                              std::max(kReachOverSpread * last.p90, 2.0 * tolerance), laid);
    ForEach(n, [&](std::size_t i) { field[i] = field[i] + (laid[i] - positions[i]); });
    report.correspondence += SecondsSince(stage);
  }

  // Rounded to the grid; checked whole before any point is written.
  stage = Clock::now();
  std::vector<MMVector3i> written(n);
  std::vector<MMVector3d> placed(n);
  bool offGrid = false;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t k = 0; k < 3; ++k) {
      const double x =
          stop == StopReason::NoMatch ? fine.rest[i][k] : std::round(fine.rest[i][k] + base[i][k] + field[i][k]);
      if (!(x >= -2147483648.0 && x <= 2147483647.0)) {
        offGrid = true;
        continue;
      }
      written[i][k] = static_cast<std::int32_t>(x);
      placed[i][k] = x;
    }
  if (offGrid) throw std::out_of_range("MWrapperOperatorFieldMorph: a morphed point leaves the 32-bit grid");
  {
    const MStlBaseOperatorHelperDirectPointChange directChange(&mesh, true);
    for (std::size_t i = 0; i < n; ++i) arrays.points[i]->Set(written[i]);
  }
  report.folded = FoldedTriangles(arrays.triangles, fine.rest, placed);
  std::vector<double> final(n);
  ForEach(n, [&](std::size_t i) { final[i] = surface.Distance(placed[i]); });
  double sum = 0.0;
  for (double d : final) {
    sum += d;
    report.maxDistance = std::max(report.maxDistance, d);
    report.fractionWithin += d < tolerance ? 1.0 : 0.0;
  }
  report.meanDistance = sum / static_cast<double>(n);
  report.fractionWithin /= static_cast<double>(n);
  report.p95Distance = Quantile(std::move(final), 0.95);
  if (stop == StopReason::NoMatch) report.unmatched = n;
  report.measure = SecondsSince(stage);
  report.total = SecondsSince(start);
}

}  // namespace ZorStlRegistration
