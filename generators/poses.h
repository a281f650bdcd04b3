#pragma once
// Rigid poses drawn at random, for tests, benchmarks and the demo.

#include <cstdint>
#include <random>

#include "zor/model/transform.h"

namespace zorgen {

// A pose drawn from `seed`: a rotation uniform over all rotations and a shift of up to
// `reach` grid units along each axis. It uses the engine's raw output only, so the same
// seed gives the same pose with every standard library.
MMTransformMatrix DrawPose(std::uint64_t seed, double reach);

// A rotation drawn uniformly over all rotations (a normalised Gaussian quaternion),
// followed by a translation drawn uniformly in the ball of radius `maxShift`, from the
// stream of `rng` (the standard distributions: the same on one standard library).
MMTransformMatrix UniformPose(std::mt19937& rng, double maxShift);

}  // namespace zorgen
