#include "zor/registration/detail/registration_solver.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "zor/services/n_point_registration.h"

namespace ZorStlRegistration::detail {

namespace {

struct ByDistance {
  bool operator()(const RegistrationSolver::PointToMove& a, const RegistrationSolver::PointToMove& b) const {
    return a.distance < b.distance;
  }
};

}  // namespace

RegistrationSolver::RegistrationSolver(const NormalOrientationIndex* matcher, std::int32_t units)
    : index(matcher), unitsPerLength(units) {}

void RegistrationSolver::SetSamples(const std::vector<MMVector3d>& samples, const std::vector<MMVector3d>* normals) {
  points.clear();
  points.reserve(samples.size());
  for (const MMVector3d& s : samples) points.push_back(PointToMove{s, 0.0, MMVector3d(), MMVector3d()});
  activeCount = points.size();
  closestIsSurface = false;
  if (normals == nullptr) {
    hasNormals = false;
    return;
  }
  for (std::size_t i = 0; i < points.size(); ++i) {
    if (i >= normals->size()) throw std::out_of_range("invalid vector<T> subscript");
    points[i].normal = (*normals)[i];
  }
  hasNormals = true;
}

void RegistrationSolver::MatchSamples() {
  if (matched) return;
  const bool useHints = closestIsSurface && !hasNormals;
  const MeshQueries::TriangleTreeHolder* tree = hasNormals ? nullptr : index->GetClosestTree();
  constexpr double kUnbounded = std::numeric_limits<double>::infinity();
  const auto matchRange = [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      PointToMove& record = points[i];
      MMVector3d c;
      bool found;
      if (hasNormals) {
        found = index->FindBestMatch(record.position, record.normal, c);
      } else if (useHints && record.distance != kUnmatched) {
        // The old match is a point of the surface, so the nearest one lies no farther;
        // with that bound the search finds the same triangle as an unbounded one. The
        // bound is widened a little so that rounding cannot push the old one out.
        const double bound = Length(record.position - record.closest) * (1.0 + 1e-9) + 1e-6;
        found = NormalOrientationIndex::FindClosestWithin(tree, record.position, bound, c) ||
                NormalOrientationIndex::FindClosestWithin(tree, record.position, kUnbounded, c);
      } else {
        found = NormalOrientationIndex::FindClosestWithin(tree, record.position, kUnbounded, c);
      }
      record.closest = c;
      record.distance = found ? Length(record.position - c) : kUnmatched;
    }
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, points.size(), 16), matchRange);
  matched = true;
  closestIsSurface = true;
}

void RegistrationSolver::TrimSamples() {
  if (points.empty() || activeCount == 0) return;
  const std::uint64_t active = std::min<std::uint64_t>(activeCount, points.size());
  std::partial_sort(points.begin(), points.begin() + static_cast<std::ptrdiff_t>(active), points.end(), ByDistance());
}

double RegistrationSolver::MeanError() {
  if (errorKnown) return cachedError;
  MatchSamples();
  double sum = 0.0;
  for (std::uint64_t i = 0; i < activeCount; ++i) sum += points[i].distance;
  cachedError = activeCount == 0 ? 0.0 : sum / static_cast<double>(activeCount);
  errorKnown = true;
  return cachedError;
}

bool RegistrationSolver::ComputeStep(MMTransformMatrix& step) {
  const std::uint64_t n = activeCount;
  if (n == 0) return false;
  const double s = static_cast<double>(unitsPerLength);
  MMVector3d sumP, sumQ;
  for (std::uint64_t i = 0; i < n; ++i) {
    sumP += points[i].position;
    sumQ += points[i].closest;
  }
  // The centres in coordinate units: the sums divided by (units per coordinate) * n,
  // formed in integers.
  const double d = static_cast<double>(
      static_cast<std::uint64_t>(static_cast<std::int64_t>(unitsPerLength) * static_cast<std::int64_t>(n)));
  const MMVector3d cp = sumP / d, cq = sumQ / d;
  // Small, centred clouds in coordinate units keep the fit well conditioned whatever
  // the unit.
  moving.resize(n);
  target.resize(n);
  for (std::uint64_t i = 0; i < n; ++i) {
    const MMVector3d p = points[i].position / s - cp, q = points[i].closest / s - cq;
    moving[i] = {{p[0], p[1], p[2]}};
    target[i] = {{q[0], q[1], q[2]}};
  }
  step = MMTransformMatrix(ZorSDK::NPointRegistration(moving, target, false));
  MMVector3d movedCentre = cp;
  step.Transform(movedCentre, false);
  step.AddTranslation((cq - movedCentre) * s);
  return true;
}

void RegistrationSolver::MoveRecords(const MMTransformMatrix& t) {
  moveTransform.PreMultiply(t);
  for (PointToMove& record : points) {
    t.Transform(record.position, false);
    // The normal moves as a position on purpose: it then grows with the translation, and
    // FindBestMatch weighs that longer normal's mismatch, which is how the refinement and
    // the tournament have always ranked their matches; a unit normal would pick others.
    if (hasNormals) t.Transform(record.normal, false);
  }
  matched = false;
  errorKnown = false;
}

double ScorePose(const NormalOrientationIndex& index, const std::vector<MMVector3d>& samples,
                 const std::vector<MMVector3d>* normals, const MMTransformMatrix& pose, std::uint64_t count,
                 bool sort) {
  const std::size_t n = samples.size();
  std::vector<double> distances(n);
  const MeshQueries::TriangleTreeHolder* tree = normals == nullptr && n != 0 ? index.GetClosestTree() : nullptr;
  if (n != 0) {
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, n, 1), [&](const tbb::blocked_range<std::size_t>& r) {
      for (std::size_t i = r.begin(); i != r.end(); ++i) {
        MMVector3d p, c;
        pose.Transform(p, samples[i], false);
        bool found;
        if (normals != nullptr) {
          MMVector3d m;
          pose.Transform(m, (*normals)[i], true);
          found = index.FindBestMatch(p, m, c);
        } else {
          found = NormalOrientationIndex::FindClosestWithin(tree, p, std::numeric_limits<double>::infinity(), c);
        }
        distances[i] = found ? Length(p - c) : kUnmatched;
      }
    });
  }
  if (count == 0) return 0.0;
  // Sorting the distances themselves gives the same leading values as sorting an
  // index by them and permuting.
  if (sort)
    std::partial_sort(distances.begin(), distances.begin() + static_cast<std::ptrdiff_t>(count), distances.end());
  double sum = 0.0;
  for (std::uint64_t i = 0; i < count; ++i) sum += distances[i];
  return sum / static_cast<double>(count);
}

}  // namespace ZorStlRegistration::detail
