#pragma once
// The field morph's work on the moving mesh as arrays (points in list order, triangles
// as three places each): normals, folds, and the last step that lays matched points on
// the target without turning a triangle over.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/model/mm_vector.h"
#include "zor/morph/detail/field_levels.h"

namespace ZorStlRegistration::detail {

// Area-weighted unit normals of the points at `positions` (zero where a point has no
// triangle with area), summed triangle by triangle in their order.
void PointNormals(const std::vector<std::uint32_t>& triangles, const std::vector<MMVector3d>& positions,
                  std::vector<MMVector3d>& normals);

// Triangles whose normal at `after` points against their normal at `before`. A triangle
// nearly flat at `before` (lower than a small share of its longest edge) never counts,
// here nor below: its normal is the rounding of its corners.
std::size_t FoldedTriangles(const std::vector<std::uint32_t>& triangles, const std::vector<MMVector3d>& before,
                            const std::vector<MMVector3d>& after);

// Per triangle, 1 where its normal at `after` points against its normal at `before`.
void FoldFlags(const std::vector<std::uint32_t>& triangles, const std::vector<MMVector3d>& before,
               const std::vector<MMVector3d>& after, std::vector<std::uint8_t>& flags);

// Moves each point with a match within `reach` (distances[i] in [0, reach)) from
// `from` onto its matched place terms[i].place + base[i], then takes back the move of
// every point of a triangle that the moves fold, until none does: folded against the
// rest places `rest` (unless the field had already turned it) or against `from`,
// checked on the integer grid the places will be written to. Only a triangle with a
// moved corner counts, so each round takes back a moved point. Writes the places to
// `laid` and returns the points moved.
std::size_t LayOnTarget(const std::vector<std::uint32_t>& triangles, const std::vector<MMVector3d>& rest,
                        const std::vector<MMVector3d>& from, const std::vector<PlaneTerm>& terms,
                        const std::vector<double>& distances, const std::vector<MMVector3d>& base, double reach,
                        std::vector<MMVector3d>& laid);

}  // namespace ZorStlRegistration::detail
