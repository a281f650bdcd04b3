#pragma once
// Views of a body as a range scanner sees it: from a number of directions spread over
// the sphere, each view keeps the triangles that face the scanner (not at a grazing
// angle) and that no nearer surface hides, with noise along the line of sight. The views
// stay in the body's frame, so that any placement of them has a known truth.
// Deterministic: the same body, count, noise and seed give the same views.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "generators/mesh_arrays.h"

namespace zorgen {

struct VirtualScan {
  MeshArrays view;                       // in the body's frame
  std::vector<std::uint32_t> triangles;  // the body's triangles it holds, ascending
  MMVector3d direction;                  // unit, from the body towards the scanner
};

// `count` views of `body` (a closed surface, internal units) from directions on a
// spiral over the sphere turned by `seed`, Gaussian noise of `noise` internal units
// along each line of sight.
std::vector<VirtualScan> VirtualScans(const MeshArrays& body, std::size_t count, double noise, std::uint64_t seed);

// The share of view a's area that view b also holds.
double SharedArea(const MeshArrays& body, const VirtualScan& a, const VirtualScan& b);

}  // namespace zorgen
