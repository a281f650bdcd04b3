#include "zor/files/deviation_colour.h"

#include <algorithm>
#include <cmath>

namespace ZorStlRegistration {

std::array<std::uint8_t, 3> DeviationColour(double distance, double range) {
  const double t = range > 0.0 ? distance / range : (distance > 0.0 ? 2.0 : distance < 0.0 ? -2.0 : 0.0);
  const auto level = [](double share) {
    return static_cast<std::uint8_t>(std::lround(255.0 * std::clamp(share, 0.0, 1.0)));
  };
  if (t > 1.0) return {255, level(2.0 - t), 0};   // yellow at the range, red from twice it
  if (t < -1.0) return {0, level(2.0 + t), 255};  // cyan at the range, blue from twice it
  if (std::isnan(t)) return kNoCounterpartColour;
  return {0, 200, 0};
}

}  // namespace ZorStlRegistration
