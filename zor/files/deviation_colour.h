#pragma once
// The colours of a deviation map.

#include <array>
#include <cstdint>

#include "zor/files/export.h"

namespace ZorStlRegistration {

// The colour of a signed distance: green within `range`, yellow to red above it (red
// from twice the range on), cyan to blue below it; grey for a NaN.
ZOR_FILES_API std::array<std::uint8_t, 3> DeviationColour(double distance, double range);

// The colour of a point without a counterpart on the fixed surface (clutter, or beyond
// its border), and of a distance that is not a number: a neutral grey, apart from the
// diverging scale.
inline constexpr std::array<std::uint8_t, 3> kNoCounterpartColour{128, 128, 128};

}  // namespace ZorStlRegistration
