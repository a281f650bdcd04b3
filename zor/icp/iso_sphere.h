#pragma once
#include <cstddef>
#include <vector>

#include "zor/export.h"
#include "zor/model/mm_vector.h"

namespace ZorStlRegistration::IsoSphere {

// `count` unit vectors spread evenly over the sphere, the first always (1, 0, 0).
// Deterministic: the generator is std::mt19937 with its default seed, made anew at
// every call, so a count always gives the same directions on every thread and run.
// Starting points are drawn on a grid of integer directions in [-500, 499]^3 and then
// pushed apart by inverse-distance repulsion until no point moves more than 0.01 in a
// pass (at most 10000 passes of count^2 work: meant for counts of tens to hundreds).
ZOR_API std::vector<MMVector<double, 3>> Generate(std::size_t count);

}  // namespace ZorStlRegistration::IsoSphere
