#pragma once
// One Operate of the field morph: the stages in order, each a member, sharing the state
// of the run (the moving mesh as arrays and its levels, the target's surface, the field).
// The operator's file chooses between the deformations a run can give; this one makes
// them.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "zor/model/progress.h"
#include "zor/model/stl_base.h"
#include "zor/morph/detail/field_levels.h"
#include "zor/morph/detail/space_field.h"
#include "zor/morph/detail/target_surface.h"
#include "zor/morph/wrapper_operator_field_morph.h"

namespace ZorStlRegistration::detail {

class FieldMorphRun {
public:
  using Params = MWrapperOperatorFieldMorph::SParams;
  using Report = MWrapperOperatorFieldMorph::Report;
  using StopReason = MWrapperOperatorFieldMorph::StopReason;

  FieldMorphRun(MStlBase& movingMesh, MStlBase& targetOf, const Params& p, Report& r)
      : mesh(movingMesh), targetMesh(targetOf), params(p), report(r) {}

  // The moving mesh as arrays and its levels, the target's surface. False when there is
  // nothing to morph or nothing to morph onto (the report says which).
  bool Prepare();
  // The field over space, fitted on the finest level that is still small, from coarse
  // lattices to finer ones; it leaves the surface levels only what lies below its finest
  // spacing.
  void FitSpaceField(ZorSDK::Common::IncrementalProgressReporter& reporter);
  // The surface levels, coarse to fine, until the run ends by one of its stop rules.
  void FitSurfaceLevels(ZorSDK::Common::IncrementalProgressReporter& reporter);
  // Lays every point with a near match on the target itself, unless that folds.
  void LayPointsOnTarget();

  // The points the field over space would match first (a sample of the mesh, at rest):
  // the share of them that already lies near the target, and how far apart the others
  // lie (the diagonal of their box over the mesh's).
  struct RestMatch {
    double nearShare = 0.0;
    double farSpread = 0.0;
  };
  RestMatch MatchAtRest() const;
  // Starts again from no deformation, with its own budget of passes: with the field over
  // space (FitSpaceField next), or without it, the surface levels alone from the length
  // they would start at after its coarsest lattice.
  void Restart(bool withSpaceField);
  bool WithoutSpaceField() const { return !spaceUsed; }

  // The places the field gives the mesh's points (rest + field), in list order.
  void Place(std::vector<MMVector3d>& out) const;
  // Triangles of the mesh turned over at `at` against their rest normals.
  std::size_t Folds(const std::vector<MMVector3d>& at) const;
  // How much the mesh is strained at `at`: the squared changes of its edge lengths over
  // their squared rest lengths, summed over all edges in order.
  double Strain(const std::vector<MMVector3d>& at) const;
  // The mean distance of `at` from the rest places.
  double MeanMove(const std::vector<MMVector3d>& at) const;
  // Distances of `at` to the target, in list order; with `covered`, only of the points
  // the target covers (their nearest place not on its open border), in list order.
  void Distances(const std::vector<MMVector3d>& at, std::vector<double>& out, bool covered = false) const;
  StopReason Stop() const { return stop; }

  // Rounds `at` to the grid, checked whole before any point is written, and writes it
  // (the rest places when nothing matched).
  void WriteBack(const std::vector<MMVector3d>& at);
  // The distances of the written points to the target, the folds.
  void Measure();

private:
  void SetBase(const FieldLevel& at);
  void StepDown();
  // rest + base + field of the mesh itself, and their normals.
  void PlaceFinePoints(bool withNormals);

  MStlBase& mesh;
  MStlBase& targetMesh;
  const Params& params;
  Report& report;

  std::vector<MStlPoint*> points;        // in list order
  std::vector<std::uint32_t> triangles;  // three places in that order each
  std::vector<FieldLevel> levels;        // the mesh itself first, then coarser
  std::unique_ptr<TargetSurface> surface;
  SpaceField space;
  MMVector3d low, high;           // the moving mesh's box
  std::size_t level = 0;          // the level in use
  std::vector<MMVector3d> field;  // of the level in use, on top of `base`
  std::vector<MMVector3d> base;   // the field over space at the level's points
  std::vector<MMVector3d> positions, normals, finerField;
  std::vector<PlaneTerm> terms;
  std::vector<std::uint8_t> foldedAt, foldedNow;  // per triangle
  std::vector<double> distances;
  double diagonal = 0.0, finest = 0.0, smoothing = 0.0, reach = 0.0, cosine = 0.0;
  std::size_t firstPass = 0;
  bool spaceUsed = false;  // this start fitted the field over space  // report.passes when this start began
  bool everMatched = false;
  StopReason stop = StopReason::PassLimit;
};

}  // namespace ZorStlRegistration::detail
