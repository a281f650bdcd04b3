#pragma once
// The demo's sample body, built in code so that the demo needs no data file.

#include <cstdint>
#include <memory>

#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace zortool {

// A closed body of 12 n^2 triangles, about 70 x 46 x 30 mm plus its features: a
// rounded block with a boss on its top, a dimple in one flank and a groove
// across one end, so that exactly one pose lays a copy on it. Vertices are
// spread about evenly (a cube grid warped onto the surface) and lie on the
// micrometre grid.
std::unique_ptr<MStlBase> MakeSampleBody(int n);

// A rigid pose drawn from `seed`: a rotation uniform over all rotations and a
// shift of up to `reach` grid units along each axis. The same seed gives the
// same pose on every platform.
MMTransformMatrix DrawPose(std::uint64_t seed, double reach);

}  // namespace zortool
