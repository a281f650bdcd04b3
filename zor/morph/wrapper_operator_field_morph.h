#pragma once
// Deforms a moving mesh onto a target mesh that lies close to it, keeping its triangles,
// its point count and its point order; only coordinates change, in place, and the
// target is only read. Beside MWrapperOperatorBaseMorph, which slides each point to its
// own nearest place and smooths positions, this morph regularises the deformation:
//
// - First a field over space (unless `spaceField` is off): a sum of smooth lattices
//   over the moving mesh's box, coarse to fine, fitted to point-to-plane matches of a
//   few thousand points. A motion along the surface, which no match on that part can
//   see (the ends of a bend seen from the side, a twist), moves the surface along its
//   normal elsewhere on the body, and one field over space carries it across. A
//   local motion that a coarse lattice can only explain by a stretch of the whole body
//   (a dent on the tip of a featureless ellipsoid) would be taken as that stretch: the
//   matches cannot tell the two apart there. Hence local changes first (below). The
//   target's own points are matched back
//   onto the moving mesh as well, so that where both meshes are coarse tessellations
//   of one curved surface the chords of either side, which cut inside it, do not
//   shrink the field.
// - Then the surface levels: each point carries a displacement on top of the field
//   over space. A pass matches every point to the nearest target triangle that faces
//   its way (within `normalAngle`, not on the target's open border, within the search
//   distance) and solves for the displacement field that best lays the points on the
//   planes of their matches while keeping the field smooth (point-to-plane terms plus
//   the bending and membrane energy of the field). A mesh already on its target does
//   not move; a smooth stretch keeps its volume. The part of a point's displacement
//   along the surface, which its match does not see, costs more than the part across
//   it, so that a bump or a dent is followed along the normals instead of sliding the
//   surface around it; the apex of a thin triangle moves with its longest edge. A step
//   that turns over a triangle (one not flat to start with) is not taken.
// - Coarse to fine on the surface too: the field is first solved on coarse aggregates
//   of the points with a long smoothing length, then handed down level by level while
//   the length shrinks to `smoothing` mean edges on the mesh itself.
// - Matches are taken on the curved surface that the target's triangles and their
//   corners' normals describe (not across creases), not on the flat triangles alone.
// - Last (unless `layOnTarget` is off), each point with a match as near as the last
//   passes searched is laid on the target itself, unless that would fold one of its
//   triangles: the field is smooth, and a coarse mesh on a coarse target would
//   otherwise keep the chords' depth, a sharp local change its tip.
// - Local changes: when most points (80% of a sample, or 70% with the others lying
//   together, their box within 0.9 of the mesh's diagonal) already lie within five
//   tolerances of the target, the change is taken for a local one (a dent, a bump) and
//   the surface levels alone run first, from the length the field over space would have
//   left them at. Their result is kept when it lays the mesh on the target cleanly (no
//   fold, the 95th percentile within the tolerance, no point beyond four, over the
//   points the target covers); otherwise the
//   field over space runs as well, and of the two the one that moves the points less is
//   kept, unless it strains the mesh (its edges' lengths) half as much again or lies
//   farther from the target or folds more. The report says which (`local`).
// - Points without a match (the target does not cover them) keep the deformation of
//   their neighbours and are counted.
// - The run always ends: when the share `targetFraction` of the matched points lies
//   within `distanceTolerance` of its match (at most that far) and none lies farther than
//   ten tolerances (after the full schedule), when the 95th
//   percentile of the match distances has not improved by 1% in `stallPasses` passes,
//   or after `maxPasses` passes, each of the (at most two) deformations tried. The
//   report says which, of the one kept; its passes and times are those of both.
//
// The report's distances are measured after the last step, on the coordinates written,
// from each point to the nearest place of the whole target (no filter, no radius): the
// numbers a deviation map of the result shows.
//
// Units: lengths in internal units (MUnit::GetIE() is not applied).
// Threading: an operator object is used by one thread at a time, and no other thread
// may touch either mesh during Operate. The passes run in parallel; the result is
// bit-identical on every run and at every thread count.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "zor/export.h"
#include "zor/model/progress.h"
#include "zor/model/stl_handles.h"

namespace ZorStlRegistration {

class ZOR_API MWrapperOperatorFieldMorph {
public:
  using StlImpl = ZorMesh::StlBase::Handle::StlImpl<ZorMesh::StlBase::Handle::StlBasePolicy>;

  struct SParams {
    double distanceTolerance = 50.0;    // internal units: a point has arrived within this of the target
    double targetFraction = 0.99;       // share of matched points within the tolerance that ends the run
    double normalAngle = 60.0;          // degrees between a point's normal and a matched triangle's
    double searchDistance = 0.0;        // internal units: farthest match of the first pass; 0: a tenth of the diagonal
    double smoothing = 2.0;             // final smoothing length of the field, in mean edge lengths
    std::size_t maxPasses = 60;         // correspondence passes of all levels together
    std::size_t stallPasses = 4;        // passes without 1% gain of the 95th percentile that end the run
    std::size_t coarsestPoints = 3000;  // the coarsest level has at most about this many points
    bool spaceField = true;             // start with the field over space (see above)
    bool layOnTarget = true;            // end by laying each matched point on the target (see above)
  };

  enum class StopReason : std::uint8_t {
    NotRun,          // Operate has not run
    NothingToMorph,  // the moving mesh has no points or no triangles: nothing moved
    Converged,       // targetFraction of the matched points within the tolerance, none beyond ten
    Stalled,         // the distances stopped improving
    PassLimit,       // maxPasses ran out
    NoMatch,         // no point found a target triangle (or the target has none): nothing moved
  };

  struct Report {
    StopReason stop = StopReason::NotRun;
    std::size_t passes = 0;  // correspondence passes, all levels
    std::size_t levels = 0;  // levels of the hierarchy, the mesh itself included
    // Distances of the written points to the target surface (internal units), by the
    // library's one rule for distances (zor/model/distance_statistics.h).
    double maxDistance = 0.0;
    double meanDistance = 0.0;
    double p95Distance = 0.0;     // nearest rank
    double fractionWithin = 0.0;  // of all points, at most distanceTolerance
    std::size_t unmatched = 0;    // points without a match in the last pass
    std::size_t folded = 0;       // triangles whose normal turned by more than 90 degrees
    std::size_t laid = 0;         // points the last step laid on the target
    bool local = false;           // the deformation kept is the one without the field over space
    // Seconds.
    double setup = 0.0;           // levels, target tree
    double space = 0.0;           // the field over space: its matching and fitting
    double correspondence = 0.0;  // matching passes of the surface levels
    double solve = 0.0;           // field solves of the surface levels
    double measure = 0.0;         // the final distances
    double total = 0.0;
  };

  // Both meshes stay the caller's and must outlive every Operate. Throws
  // std::invalid_argument for a null mesh.
  MWrapperOperatorFieldMorph(StlImpl moving, StlImpl target);

  void SetParams(const SParams& p) { params = p; }
  const SParams& GetParams() const { return params; }

  // Morphs. `progress` (may be null) hears the passes. Throws std::invalid_argument for
  // parameters out of range (a tolerance or smoothing not above 0, an angle outside
  // (0, 180], a fraction outside (0, 1], no passes), and std::out_of_range when a
  // result would leave the 32-bit grid; in both cases the mesh is left as it was.
  void Operate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress);

  const Report& GetReport() const { return report; }

private:
  StlImpl moving;
  StlImpl target;
  SParams params;
  Report report;
};

ZOR_API const char* StopReasonName(MWrapperOperatorFieldMorph::StopReason reason);

}  // namespace ZorStlRegistration
