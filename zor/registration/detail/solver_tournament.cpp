#include "zor/registration/detail/solver_tournament.h"

#include <algorithm>
#include <cmath>

#include <tbb/parallel_for.h>
#include <tbb/parallel_for_each.h>
#include <tbb/partitioner.h>

namespace ZorStlRegistration::detail {

int PoseSimplicity(const MMTransformMatrix& pose) {
  if (pose.IsIdentity()) return 0;
  if (pose.IsTranslation()) return 1;
  double a = 0.0, b = 0.0, c = 0.0;
  if (pose.GetRotationZYX(a, b, c) && std::fabs(a) < kTieTolerance && std::fabs(b) < kTieTolerance &&
      std::fabs(c) > kTieTolerance)
    return 2;
  return 3;
}

bool RanksBefore(const RegistrationSolver& x, const RegistrationSolver& y) {
  if (std::fabs(x.cachedError - y.cachedError) < kTieTolerance)
    return PoseSimplicity(x.moveTransform) < PoseSimplicity(y.moveTransform);
  return x.cachedError < y.cachedError;
}

void KeepLeaders(std::vector<RegistrationSolver>& field, std::size_t keep) {
  const auto middle = field.begin() + static_cast<std::ptrdiff_t>(std::min(keep, field.size()));
  std::partial_sort(field.begin(), middle, field.end(), RanksBefore);
  field.erase(middle, field.end());
}

std::size_t FieldAfterRound(std::size_t starts, int round) {
  const double exponent = 1.0 - static_cast<double>(round) / static_cast<double>(kTournamentRounds);
  return static_cast<std::size_t>(std::lround(std::pow(static_cast<double>(starts), exponent)));
}

void StartSolver(RegistrationSolver& solver, const MMTransformMatrix& rotation, const MMVector3d& movingCentre,
                 const MMVector3d& fixedCentre, const std::vector<MMVector3d>& samples,
                 const std::vector<MMVector3d>* normals, std::uint64_t count) {
  MMTransformMatrix start = rotation;
  MMVector3d turned;
  start.Transform(turned, movingCentre, false);
  start.FillInTranslation(fixedCentre - turned);
  solver.SetSamples(samples, normals);
  solver.activeCount = std::min<std::uint64_t>(count, solver.points.size());
  solver.MoveRecords(start);
  solver.MeanError();  // no trim yet: the records in sample order
}

void StepSolver(RegistrationSolver& solver) {
  MMTransformMatrix delta;
  solver.MatchSamples();
  solver.TrimSamples();
  if (!solver.ComputeStep(delta)) return;
  solver.MoveRecords(delta);
  solver.MeanError();  // the same active records, not trimmed again
}

RegistrationSolver RunSolverTournament(const NormalOrientationIndex& index,
                                       const std::vector<MMTransformMatrix>& rotations, const MMVector3d& movingCentre,
                                       const MMVector3d& fixedCentre, const std::vector<MMVector3d>& samples,
                                       const std::vector<MMVector3d>* normals, std::uint64_t count,
                                       std::vector<std::size_t>* fieldSizes) {
  const std::size_t starts = rotations.size();
  std::vector<RegistrationSolver> field(starts, RegistrationSolver(&index, index.GetUnitsPerLength()));
  tbb::parallel_for(
      tbb::blocked_range<std::size_t>(0, starts, 1),
      [&](const tbb::blocked_range<std::size_t>& r) {
        for (std::size_t i = r.begin(); i != r.end(); ++i)
          StartSolver(field[i], rotations[i], movingCentre, fixedCentre, samples, normals, count);
      },
      tbb::auto_partitioner());

  if (fieldSizes != nullptr) fieldSizes->clear();
  for (int round = 1; round <= kTournamentRounds; ++round) {
    if (fieldSizes != nullptr) fieldSizes->push_back(field.size());
    tbb::parallel_for_each(field.begin(), field.end(), [](RegistrationSolver& s) { StepSolver(s); });
    KeepLeaders(field, FieldAfterRound(starts, round));
  }
  RegistrationSolver best = std::move(field.front());
  best.MeanError();
  return best;
}

}  // namespace ZorStlRegistration::detail
