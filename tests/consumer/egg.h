#pragma once
// The body both outside consumers register: built through the mesh model's own calls.
#include <cmath>
#include <cstdint>
#include <memory>

#include "zor/model/stl_base.h"

// An egg with a bump on one flank (one pose lays a copy on it), in millimetres on
// the micrometre grid.
inline std::unique_ptr<MStlBase> Egg() {
  auto mesh = std::make_unique<MStlBase>();
  const int rows = 40, cols = 80;
  const double pi = 3.141592653589793;
  const auto at = [&](int r, int c) {
    const double theta = pi * r / rows, phi = 2.0 * pi * c / cols;
    const double bump = 6.0 * std::exp(-((theta - 1.2) * (theta - 1.2) + (phi - 0.8) * (phi - 0.8)) * 8.0);
    const double radius = 20.0 + bump + 4.0 * std::cos(theta);
    return MMVector3i(static_cast<std::int32_t>(std::lround(1000.0 * 1.6 * radius * std::sin(theta) * std::cos(phi))),
                      static_cast<std::int32_t>(std::lround(1000.0 * radius * std::sin(theta) * std::sin(phi))),
                      static_cast<std::int32_t>(std::lround(1000.0 * 1.2 * radius * std::cos(theta))));
  };
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols; ++c) {
      const MMVector3i a = at(r, c), b = at(r + 1, c), d = at(r, c + 1), e = at(r + 1, c + 1);
      if (r > 0) mesh->AddTriangle(a, b, d, nullptr);
      if (r + 1 < rows) mesh->AddTriangle(d, b, e, nullptr);
    }
  return mesh;
}
