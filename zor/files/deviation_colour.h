#pragma once
// The colours of a deviation map.

#include <array>
#include <cstdint>

#include "zor/files/export.h"

namespace ZorStlRegistration {

// The colour of a signed distance: green within `range`, yellow to red above it (red
// from twice the range on), cyan to blue below it; grey for a NaN.
ZOR_FILES_API std::array<std::uint8_t, 3> DeviationColour(double distance, double range);

}  // namespace ZorStlRegistration
