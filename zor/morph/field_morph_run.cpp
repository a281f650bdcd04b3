#include "zor/morph/detail/field_morph_run.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

#include "zor/model/distance_statistics.h"
#include "zor/model/stl_guards.h"
#include "zor/model/stopwatch.h"
#include "zor/morph/detail/lay_on_target.h"
#include "zor/morph/detail/parallel_loops.h"

namespace ZorStlRegistration::detail {

namespace {

using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;

// The constants' measurements stand in bench/README.md ("Field morph").
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
constexpr double kSolverTolerance = 1e-4;
// The membrane term's weight beside the bending term's, both at the same length.
constexpr double kMembraneShare = 0.01;
// The bending term's weight at a smoothing length of L mean edges is kBendingShare L^4:
// stiffer fields left points off the target at sharp features.
constexpr double kBendingShare = 0.1;
// Weight of the displacement's own size beside a point's plane term: a motion that no
// match asks for (a whole translation that a local bump would also explain) is not
// taken. Larger values also hold back true motions along the surface (a bend's ends),
// so it is stronger only on the coarse levels, where such a translation would start.
constexpr double kRidge = 0.001;
constexpr double kCoarseRidge = 0.01;
// Weight of the part of the displacement along the surface (across the point's rest
// normal), beside a point's plane term: the matches cannot see it, and where the field
// carries a change along the normals (a bump, a dent) it would otherwise slide the
// surface around it as well.
constexpr double kTangent = 10.0;
// A triangle thinner than this (twice its area over its longest edge squared) has its
// apex tied to its longest edge with this weight: a smooth field bends across a sliver
// by more than its height and turns it over.
constexpr double kThinTriangle = 0.1;
constexpr double kTie = 100.0;
// When the distances stall at the final smoothing length, it is halved, at most until
// it is this share of the length asked for.
constexpr double kFloorShare = 0.2;
// Nor does a run end as converged while a matched point lies farther than this many
// tolerances: a change on under 1% of the points passes the share and the 95th
// percentile before it is reached.
constexpr double kLargestTolerances = 10.0;
// A gain of the 95th percentile below this share counts as none.
constexpr double kStallGain = 0.01;
// The field over space: lattices of kFirstCells cells along the longest side, doubling
// up to kLastCells, each fitted in kSpacePasses passes on the finest level of at most
// kSpacePoints points. Coarser starts left the bends and twists behind; stiffer
// lattices held back the true motion.
constexpr std::size_t kFirstCells = 2;
constexpr std::size_t kLastCells = 8;
constexpr std::size_t kSpacePasses = 3;
constexpr std::size_t kSpacePoints = 5000;
constexpr std::size_t kSpaceSolverSteps = 20;
constexpr double kSpaceBending = 0.001;
constexpr double kSpaceRidge = 0.001;
// After the field over space, the surface levels start at this share of its finest
// lattice spacing: they only lay the points on the target.
constexpr double kSurfaceStartShare = 0.1;
// The weight of a target point matched back onto the moving mesh, beside a moving
// point's match: the target's points lie on the surface it stands for, where its flat
// triangles cut inside.
constexpr double kBackWeight = 8.0;

// A point lies near the target, before anything moved, within this many tolerances.
constexpr double kNearTolerances = 5.0;

template <typename Body>
void ForEach(std::size_t count, const Body& body) {
  ForEachIndex(count, 256, body);
}

}  // namespace

bool FieldMorphRun::Prepare() {
  const Clock::time_point stage = Clock::now();
  points.reserve(mesh.NumberOfPoints());
  for (MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) points.push_back(p);
  std::vector<std::uint32_t> placeOf(mesh.GetMasks().GetPointMaskSize());
  for (std::size_t i = 0; i < points.size(); ++i) placeOf[points[i]->GetMaskIndex()] = static_cast<std::uint32_t>(i);
  triangles.reserve(3 * mesh.GetNumberOfTriangles());
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = static_cast<const MStlTriangle*>(it);
    for (std::size_t k = 0; k < 3; ++k) triangles.push_back(placeOf[t->GetPoint(k)->GetMaskIndex()]);
  }
  const std::size_t n = points.size();
  levels.resize(1);
  levels[0].rest.resize(n);
  for (std::size_t i = 0; i < n; ++i) levels[0].rest[i] = points[i]->GetDouble();
  PointNormals(triangles, levels[0].rest, levels[0].normals);
  levels[0].graph = GraphOfTriangles(n, triangles);
  MeasureEdges(levels[0]);
  TieThinTriangles(levels[0], triangles, kThinTriangle);
  while (levels.back().rest.size() > params.coarsestPoints) {
    FieldLevel coarse = Coarsen(levels.back());
    if (coarse.rest.size() * 10 > levels.back().rest.size() * 9) break;  // the graph no longer shrinks
    levels.push_back(std::move(coarse));
  }
  report.levels = levels.size();
  surface = std::make_unique<TargetSurface>(&targetMesh);
  report.setup = SecondsSince(stage);

  level = levels.size() - 1;
  field.assign(levels[level].rest.size(), MMVector3d());
  if (n == 0 || surface->Empty() || triangles.empty()) {
    report.stop = n == 0 || triangles.empty() ? StopReason::NothingToMorph : StopReason::NoMatch;
    report.unmatched = n;
    return false;
  }
  const FieldLevel& fine = levels[0];
  MMVector3d lo = fine.rest[0], hi = fine.rest[0];
  for (const MMVector3d& p : fine.rest)
    for (std::size_t k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], p[k]);
      hi[k] = std::max(hi[k], p[k]);
    }
  low = lo;
  high = hi;
  diagonal = Length(hi - lo);
  finest = params.smoothing * (fine.meanEdge > 0.0 ? fine.meanEdge : diagonal);
  smoothing = std::max(kFirstSmoothing * diagonal, finest);
  reach = params.searchDistance > 0.0 ? params.searchDistance : kFirstReach * diagonal;
  cosine = std::cos(params.normalAngle / 180.0 * kPi);
  space = SpaceField(lo, hi);
  return true;
}

void FieldMorphRun::FitSpaceField(ZorSDK::Common::IncrementalProgressReporter& reporter) {
  if (!params.spaceField) return;
  const double tolerance = params.distanceTolerance;
  std::size_t sample = 0;
  while (sample + 1 < levels.size() && levels[sample].rest.size() > kSpacePoints) ++sample;
  const FieldLevel& fit = levels[sample];
  const std::size_t m = fit.rest.size();
  std::vector<MMVector3d> before(m), now(m), zero(m);
  SpaceFitScratch scratch;
  // The target's own points are matched back onto the moving mesh at rest as well:
  // where both meshes are coarse tessellations of one curved surface, each side's
  // chords cut inside it, and matches from both sides cancel that.
  std::vector<MMVector3d> backPlaces, backNormals, fitRest, fitBefore;
  std::vector<PlaneTerm> fitTerms, backTerms;
  std::vector<double> backDistances;
  SamplePoints(targetMesh, kSpacePoints, backPlaces, backNormals);
  const TargetSurface restSurface(&mesh);
  bool settled = false;
  for (std::size_t cells = kFirstCells;
       cells <= kLastCells && !settled && report.passes + 1 < firstPass + params.maxPasses; cells *= 2) {
    ForEach(m, [&](std::size_t i) { before[i] = space.At(fit.rest[i]); });
    SpaceLattice& lattice = space.AddLattice(cells);
    for (std::size_t pass = 0; pass < kSpacePasses && report.passes + 1 < firstPass + params.maxPasses; ++pass) {
      const Clock::time_point stage = Clock::now();
      ForEach(m, [&](std::size_t i) { now[i] = space.At(fit.rest[i]); });
      const PassSummary found =
          MatchLevel(*surface, fit, now, zero, fit.normals, cosine, reach, tolerance, terms, distances);
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
      fitRest.assign(fit.rest.begin(), fit.rest.end());
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
      FitLattice(lattice, fitRest, fitBefore, fitTerms, {kSpaceBending, kSpaceRidge}, kSpaceSolverSteps,
                 kSolverTolerance, scratch);
      report.space += SecondsSince(stage);
      if (found.matched > 0) reach = std::max({kReachOverSpread * found.p90, 10.0 * tolerance, 2.0 * fit.meanEdge});
    }
  }
  if (!space.Empty())
    smoothing = std::max(std::min(smoothing, kSurfaceStartShare * space.Lattices().back().spacing), finest);
}

void FieldMorphRun::SetBase(const FieldLevel& at) {
  base.resize(at.rest.size());
  ForEach(at.rest.size(), [&](std::size_t i) { base[i] = space.At(at.rest[i]); });
}

void FieldMorphRun::StepDown() {
  Prolong(levels[level], field, finerField);
  field.swap(finerField);
  --level;
  SetBase(levels[level]);
}

void FieldMorphRun::PlaceFinePoints(bool withNormals) {
  const FieldLevel& fine = levels[0];
  positions.resize(fine.rest.size());
  ForEach(fine.rest.size(), [&](std::size_t i) { positions[i] = fine.rest[i] + base[i] + field[i]; });
  if (withNormals) PointNormals(triangles, positions, normals);
}

void FieldMorphRun::FitSurfaceLevels(ZorSDK::Common::IncrementalProgressReporter& reporter) {
  const double tolerance = params.distanceTolerance;
  const std::size_t n = points.size();
  const FieldLevel& fine = levels[0];
  FieldSolverScratch scratch;
  SetBase(levels[level]);
  double best95 = std::numeric_limits<double>::infinity();
  std::size_t sinceGain = 0;
  std::vector<MMVector3d> previous;  // the mesh's field before a solve
  for (;;) {
    // Down to the coarsest level that still resolves this smoothing length.
    while (level > 0 && kEdgesPerSmoothing * levels[level].meanEdge > smoothing) StepDown();
    const FieldLevel& current = levels[level];
    Clock::time_point stage = Clock::now();
    if (level == 0) PlaceFinePoints(true);
    const PassSummary pass = MatchLevel(*surface, current, base, field, level == 0 ? normals : current.normals, cosine,
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
          pass.p95 < tolerance && !(pass.largest > kLargestTolerances * tolerance)) {
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
    const FieldWeights weights{
        kBendingShare * ratio2 * ratio2, kMembraneShare * ratio2, 0.0, level == 0 ? kRidge : kCoarseRidge, kTangent,
        level == 0 ? kTie : 0.0};
    if (level == 0) {
      previous = field;
      FoldFlags(triangles, fine.rest, positions, foldedAt);
    }
    SolveField(current, terms, weights, level == 0 ? kFineSolverSteps : kSolverSteps, kSolverTolerance, field, scratch);
    if (level == 0) {
      // A step that turns over a triangle that was not turned over before is not taken:
      // the run ends on the field before it. (Coarse meshes laid on a coarse
      // re-tessellation of their target would otherwise crease at the target's edges.)
      PlaceFinePoints(false);
      FoldFlags(triangles, fine.rest, positions, foldedNow);
      bool folds = false;
      for (std::size_t t = 0; t < foldedNow.size() && !folds; ++t) folds = foldedNow[t] != 0 && foldedAt[t] == 0;
      if (folds) {
        field.swap(previous);
        report.solve += SecondsSince(stage);
        stop = StopReason::Stalled;
        break;
      }
    }
    report.solve += SecondsSince(stage);
    if (report.passes - firstPass >= params.maxPasses) {
      stop = StopReason::PassLimit;
      break;
    }
    smoothing = std::max(0.5 * smoothing, finest);
    reach = std::max({kReachOverSpread * pass.p90, 10.0 * tolerance, 2.0 * current.meanEdge});
  }
  while (level > 0) StepDown();
  report.stop = stop;
}

void FieldMorphRun::LayPointsOnTarget() {
  if (stop == StopReason::NoMatch || !params.layOnTarget) return;
  // The field is smooth at its final length, and on a coarse mesh laid on a different
  // tessellation of its target that leaves each point up to the target's chords off
  // it. The last step lays every point with a near match on the target itself.
  const Clock::time_point stage = Clock::now();
  const FieldLevel& fine = levels[0];
  PlaceFinePoints(true);
  const PassSummary last = MatchLevel(*surface, fine, base, field, normals, cosine, reach, params.distanceTolerance,
                                      terms, distances, false);
  std::vector<MMVector3d> laid;
  // As far as the last passes searched: a point the smooth field left short of a sharp
  // local change is laid on it too.
  const double layReach = std::max({kReachOverSpread * last.p90, 10.0 * params.distanceTolerance, 2.0 * fine.meanEdge});
  report.laid = LayOnTarget(triangles, fine.rest, positions, terms, distances, base, layReach, laid);
  ForEach(fine.rest.size(), [&](std::size_t i) { field[i] = field[i] + (laid[i] - positions[i]); });
  report.correspondence += SecondsSince(stage);
}

FieldMorphRun::RestMatch FieldMorphRun::MatchAtRest() const {
  // As the first pass of the field over space matches: on its sample level, at rest.
  std::size_t sample = 0;
  while (sample + 1 < levels.size() && levels[sample].rest.size() > kSpacePoints) ++sample;
  const FieldLevel& fit = levels[sample];
  const std::vector<MMVector3d> zero(fit.rest.size());
  std::vector<PlaneTerm> restTerms;
  std::vector<double> restDistances;
  const PassSummary found = MatchLevel(*surface, fit, zero, zero, fit.normals, cosine, reach, params.distanceTolerance,
                                       restTerms, restDistances);
  RestMatch out;
  if (found.matched == 0) return out;
  std::size_t near = 0;
  MMVector3d lo, hi;
  bool any = false;
  for (std::size_t i = 0; i < restDistances.size(); ++i) {
    const double d = restDistances[i];
    if (!(d >= 0.0)) continue;
    if (d <= kNearTolerances * params.distanceTolerance) {
      ++near;
      continue;
    }
    const MMVector3d& p = fit.rest[i];
    if (!any) lo = hi = p;
    any = true;
    for (std::size_t k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], p[k]);
      hi[k] = std::max(hi[k], p[k]);
    }
  }
  out.nearShare = static_cast<double>(near) / static_cast<double>(found.matched);
  out.farSpread = any && diagonal > 0.0 ? Length(hi - lo) / diagonal : 0.0;
  return out;
}

void FieldMorphRun::Restart(bool withSpaceField) {
  space = SpaceField(low, high);
  level = levels.size() - 1;
  field.assign(levels[level].rest.size(), MMVector3d());
  const FieldLevel& fine = levels[0];
  finest = params.smoothing * (fine.meanEdge > 0.0 ? fine.meanEdge : diagonal);
  smoothing = std::max(kFirstSmoothing * diagonal, finest);
  if (!withSpaceField) {
    // Where the field over space would have left the surface levels after its coarsest
    // lattice: they only lay the points on the target.
    const double longest = std::max({high[0] - low[0], high[1] - low[1], high[2] - low[2]});
    smoothing = std::max(std::min(smoothing, kSurfaceStartShare * longest / static_cast<double>(kFirstCells)), finest);
  }
  reach = params.searchDistance > 0.0 ? params.searchDistance : kFirstReach * diagonal;
  firstPass = report.passes;
  spaceUsed = withSpaceField && params.spaceField;
  stop = StopReason::PassLimit;
}

void FieldMorphRun::Place(std::vector<MMVector3d>& out) const {
  const FieldLevel& fine = levels[0];
  out.resize(fine.rest.size());
  if (stop == StopReason::NoMatch) {
    out = fine.rest;
    return;
  }
  // The field is on the mesh itself once a run has ended.
  ForEach(fine.rest.size(), [&](std::size_t i) { out[i] = fine.rest[i] + base[i] + field[i]; });
}

std::size_t FieldMorphRun::Folds(const std::vector<MMVector3d>& at) const {
  return FoldedTriangles(triangles, levels[0].rest, at);
}

double FieldMorphRun::Strain(const std::vector<MMVector3d>& at) const {
  const FieldLevel& fine = levels[0];
  double change = 0.0, length = 0.0;
  for (std::size_t i = 0; i < fine.graph.Size(); ++i)
    for (std::uint32_t e = fine.graph.offsets[i]; e < fine.graph.offsets[i + 1]; ++e) {
      const std::uint32_t j = fine.graph.neighbours[e];
      if (j <= i) continue;
      const double rest = Length(fine.rest[j] - fine.rest[i]);
      const double now = Length(at[j] - at[i]);
      change += (now - rest) * (now - rest);
      length += rest * rest;
    }
  return length > 0.0 ? change / length : 0.0;
}

double FieldMorphRun::MeanMove(const std::vector<MMVector3d>& at) const {
  const FieldLevel& fine = levels[0];
  double sum = 0.0;
  for (std::size_t i = 0; i < at.size(); ++i) sum += Length(at[i] - fine.rest[i]);
  return at.empty() ? 0.0 : sum / static_cast<double>(at.size());
}

void FieldMorphRun::Distances(const std::vector<MMVector3d>& at, std::vector<double>& out, bool covered) const {
  out.resize(at.size());
  ForEach(at.size(), [&](std::size_t i) { out[i] = surface->Distance(at[i], covered); });
  if (covered) out.erase(std::remove(out.begin(), out.end(), -1.0), out.end());
}

void FieldMorphRun::WriteBack(const std::vector<MMVector3d>& at) {
  const std::size_t n = points.size();
  std::vector<MMVector3i> written(n);
  positions.resize(n);
  bool offGrid = false;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t k = 0; k < 3; ++k) {
      const double x = std::round(at[i][k]);
      if (!(x >= -2147483648.0 && x <= 2147483647.0)) {
        offGrid = true;
        continue;
      }
      written[i][k] = static_cast<std::int32_t>(x);
      positions[i][k] = x;
    }
  if (offGrid) throw std::out_of_range("MWrapperOperatorFieldMorph: a morphed point leaves the 32-bit grid");
  const MStlBaseOperatorHelperDirectPointChange directChange(&mesh, true);
  for (std::size_t i = 0; i < n; ++i) points[i]->Set(written[i]);
}

void FieldMorphRun::Measure() {
  const Clock::time_point stage = Clock::now();
  const std::size_t n = points.size();
  report.folded = FoldedTriangles(triangles, levels[0].rest, positions);
  std::vector<double> final;
  Distances(positions, final);
  const DistanceStatistics statistics = SummariseDistances(final, params.distanceTolerance);
  report.maxDistance = statistics.largest;
  report.meanDistance = statistics.mean;
  report.fractionWithin = statistics.withinShare;
  report.p95Distance = statistics.percentile95;
  if (stop == StopReason::NoMatch) report.unmatched = n;
  report.measure = SecondsSince(stage);
}

}  // namespace ZorStlRegistration::detail
