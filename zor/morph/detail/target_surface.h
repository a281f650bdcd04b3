#pragma once
// The field morph's view of its target: matches of moving points on the target's
// surface (facing their way, not on its open border, on the curved surface its corners'
// normals describe), the same surface's distances, and points of a mesh to match back.
//
// Threading: a built TargetSurface is only read; any number of threads may match at
// once while no thread changes the target mesh.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/export.h"
#include "zor/model/mm_vector.h"
#include "zor/morph/detail/field_levels.h"
#include "zor/spatial/tree_property.h"

class MStlBase;

namespace ZorStlRegistration::detail {

// Faces meeting at more than this angle's cosine do not share a corner normal, and a
// point where they meet lies on a crease (no one plane to lie on). 60 degrees: finer
// creases slid the scans more, none slid the featured body more (bench/README.md).
inline constexpr double kCreaseCosine = 0.5;

class ZOR_API TargetSurface {
public:
  // Builds the target's triangle tree (with its normals) and each corner's normal.
  explicit TargetSurface(MStlBase* mesh);

  bool Empty() const { return holder.GetTree().GetObjects().empty(); }

  // The nearest triangle facing `normal` within the cone of `cosine` and strictly
  // within `reach`, unless its closest place lies on an open border. With `curved` the
  // place is raised toward the surface the triangle's corners and their normals
  // describe. Fills `term` (weight 1) and returns the distance, or -1 for no match.
  double Match(const MMVector3d& p, const MMVector3d& normal, double cosine, double reach, bool curved,
               PlaneTerm& term) const;

  // Distance from `p` to the nearest place of the whole target; with `covered`, -1
  // where that place lies on an open border (the target does not show the surface
  // there).
  double Distance(const MMVector3d& p, bool covered = false) const;

private:
  MeshQueries::TriangleTreeHolder holder;
  std::vector<MMVector3d> cornerNormals;  // three per triangle, in tree order
};

// What one matching pass found.
struct PassSummary {
  std::size_t matched = 0;
  std::size_t within = 0;  // matched points within the tolerance
  double p90 = 0.0;        // of the matched distances
  double p95 = 0.0;
  double largest = 0.0;  // of the matched distances
};

// Matches the points of `level` displaced by base + field; the terms' places are then
// taken back by `base`, so that a solve sees the field alone.
PassSummary MatchLevel(const TargetSurface& surface, const FieldLevel& level, const std::vector<MMVector3d>& base,
                       const std::vector<MMVector3d>& field, const std::vector<MMVector3d>& normals, double cosine,
                       double reach, double tolerance, std::vector<PlaneTerm>& terms, std::vector<double>& distances,
                       bool curved = true);

// Every k-th point of `mesh`, k chosen so that at most about `most` are taken, with its
// area-weighted normal; points on a crease and points without area are left out.
void SamplePoints(MStlBase& mesh, std::size_t most, std::vector<MMVector3d>& places, std::vector<MMVector3d>& normals);

}  // namespace ZorStlRegistration::detail
