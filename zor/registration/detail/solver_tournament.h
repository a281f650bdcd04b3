#pragma once
// A tournament of registration solvers for bodies without a usable axis: solvers start
// from orientations spread over all rotations, all refine at once, and the field
// shrinks geometrically round by round, so the work goes to the starts that look best.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/export.h"
#include "zor/registration/detail/registration_solver.h"

namespace ZorStlRegistration::detail {

inline constexpr int kTournamentRounds = 20;

// How simple a pose is, as a tie-break among equally good ones: 0 the identity, 1 a
// translation, 2 a rotation about X alone (the last of the Z-Y-X angles; with any
// translation), 3 anything else.
ZOR_API int PoseSimplicity(const MMTransformMatrix& pose);

// Whether `x` ranks before `y`: by cachedError, or by PoseSimplicity of moveTransform
// when the errors tie within kTieTolerance. Not transitive near ties, which is why the
// field is cut with std::partial_sort, whose heap selection fixes the outcome by the order
// in which it compares.
ZOR_API bool RanksBefore(const RegistrationSolver& x, const RegistrationSolver& y);

// Keeps the `keep` solvers that rank first (RanksBefore), in rank order, by the standard
// library's heap selection (std::partial_sort), and destroys the rest.
ZOR_API void KeepLeaders(std::vector<RegistrationSolver>& field, std::size_t keep);

// The field left after `round` (1..kTournamentRounds) of a tournament of `starts`:
// round(starts^(1 - round / 20)), which is 1 after the last round.
ZOR_API std::size_t FieldAfterRound(std::size_t starts, int round);

// Starts `solver` at `rotation` followed by the translation that lays the rotated
// moving centre on the fixed centre, with `count` active records, and measures it
// (the mean over the records in sample order, with no trim).
ZOR_API void StartSolver(RegistrationSolver& solver, const MMTransformMatrix& rotation, const MMVector3d& movingCentre,
                         const MMVector3d& fixedCentre, const std::vector<MMVector3d>& samples,
                         const std::vector<MMVector3d>* normals, std::uint64_t count);

// One refinement step: match, trim, fit, move, match again and measure. A step that
// cannot be fitted leaves the solver as it was.
ZOR_API void StepSolver(RegistrationSolver& solver);

// Runs the whole tournament over `rotations` and returns the winner, measured. Solvers
// run in parallel, each touched by one task at a time; the ranking runs between the
// parallel loops, so the winner does not depend on the thread count. `fieldSizes`, when
// given, receives the field at the start of each round. `rotations` must not be empty.
ZOR_API RegistrationSolver RunSolverTournament(const NormalOrientationIndex& index,
                                               const std::vector<MMTransformMatrix>& rotations,
                                               const MMVector3d& movingCentre, const MMVector3d& fixedCentre,
                                               const std::vector<MMVector3d>& samples,
                                               const std::vector<MMVector3d>* normals, std::uint64_t count,
                                               std::vector<std::size_t>* fieldSizes = nullptr);

}  // namespace ZorStlRegistration::detail
