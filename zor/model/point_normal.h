#pragma once
// The normal of a mesh point from the triangles around it, weighted one of three ways.
// One kernel for the smooth normals of the services and the pseudo-normal of the
// surface query, so that both give the same vector to the bit.

#include <cstdint>

#include "zor/model/export.h"
#include "zor/model/mm_vector.h"

class MStlPoint;

enum class NormalWeighting : std::uint8_t {
  Mean,   // plain mean of the unit triangle normals
  Area,   // by triangle area
  Angle,  // by the triangle's angle at the point (Thurmer and Wuthrich): independent of
          // how the fan is triangulated; the angle-weighted pseudo-normal of a corner
};

// The unit normal of `point`: the unit normals of its triangles, weighted, summed in
// neighbour order, over those whose unit normal has a dot product of at least
// `minCosine` with `reference` (-2: all). False, leaving `normal` as it was, when the
// sum vanishes (no triangle, or all flat). Reads the coordinates of the call's time;
// safe from any number of threads while no thread changes the mesh.
ZOR_MODEL_API bool WeightedPointNormal(const MStlPoint& point, NormalWeighting weighting, MMVector3d& normal,
                                       const MMVector3d& reference = MMVector3d(), double minCosine = -2.0);
