// The field over space: a lattice fitted to point-to-plane terms alone carries the part
// of a motion that runs along the surface, and places off its box have a defined value.
#include "zor/morph/detail/space_field.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "support/mesh_checks.h"

namespace {

using ZorStlRegistration::detail::PlaneTerm;
using ZorStlRegistration::detail::SpaceField;

// A lift along z with a stretch along x, on a sphere: on the equator the lift runs
// along the surface, so no term there sees it, and at the poles the stretch does. A
// field over space, fitted to the terms of the whole sphere, moves every point as the
// motion does: what one side cannot see, the other side gives.
TEST(SpaceField, CarriesTheMotionAlongTheSurfaceFromWhereTheSurfaceSeesIt) {
  const double r = 20000.0, a = 1000.0;
  const std::vector<MMVector3d> rest = zortest::AllPoints(*zorgen::MakeSphere(r, 40, 80));
  const auto motion = [&](const MMVector3d& p) { return MMVector3d(0.03 * p[0], 0.0, a); };
  std::vector<PlaneTerm> terms(rest.size());
  for (std::size_t i = 0; i < rest.size(); ++i) {
    terms[i].normal = rest[i] * (1.0 / Length(rest[i]));
    terms[i].place = rest[i] + motion(rest[i]);
    terms[i].weight = 1.0;
  }
  SpaceField field(MMVector3d(-r, -r, -r), MMVector3d(r, r, r));
  ZorStlRegistration::detail::SpaceFitScratch scratch;
  for (std::size_t cells : {2, 4}) {
    std::vector<MMVector3d> before(rest.size());
    for (std::size_t i = 0; i < rest.size(); ++i) before[i] = field.At(rest[i]);
    ZorStlRegistration::detail::FitLattice(field.AddLattice(cells), rest, before, terms, {0.001, 0.001}, 200, 1e-8,
                                           scratch);
  }
  double worst = 0.0, equator = a;
  for (const MMVector3d& p : rest) {
    worst = std::max(worst, Length(field.At(p) - motion(p)));
    if (std::fabs(p[2]) < 0.1 * r) equator = std::min(equator, field.At(p)[2]);
  }
  // The small ridge holds back a tenth of what only one side sees; a surface that
  // matches alone would leave the equator where it was.
  EXPECT_LT(worst, 0.15 * a);
  EXPECT_GT(equator, 0.85 * a);
}

// A place outside the box, or not a number, takes the nearest border cell's value: no
// conversion of an out-of-range double to an index.
TEST(SpaceField, PlacesOffTheBoxTakeTheBorderValue) {
  SpaceField field(MMVector3d(0.0, 0.0, 0.0), MMVector3d(100.0, 50.0, 10.0));
  EXPECT_EQ(Length(field.At(MMVector3d(5.0, 5.0, 5.0))), 0.0);  // no lattice: zero
  auto& lattice = field.AddLattice(4);
  EXPECT_EQ(lattice.cells[0], 4u);
  EXPECT_EQ(lattice.cells[1], 2u);
  EXPECT_EQ(lattice.cells[2], 1u);
  for (std::size_t j = 0; j < lattice.controls.size(); ++j)
    lattice.controls[j] = MMVector3d(static_cast<double>(j), 1.0, 0.0);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(field.At(MMVector3d(-1e300, 25.0, 5.0)), field.At(MMVector3d(-12.5, 25.0, 5.0)));
  EXPECT_EQ(field.At(MMVector3d(1e300, 25.0, 5.0)), field.At(MMVector3d(112.5, 25.0, 5.0)));
  const MMVector3d low = field.At(MMVector3d(nan, nan, nan));
  EXPECT_EQ(low, field.At(MMVector3d(-1e300, -1e300, -1e300)));
  EXPECT_NEAR(low[1], 1.0, 1e-12);  // the basis sums to one anywhere
  const ZorStlRegistration::detail::LatticeStencil s =
      ZorStlRegistration::detail::StencilAt(lattice, {1e300, 1e300, 1e300});
  EXPECT_EQ(s.first[0], 3u);
  EXPECT_EQ(s.first[1], 1u);
  EXPECT_EQ(s.first[2], 0u);
}

}  // namespace
