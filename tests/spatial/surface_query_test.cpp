// The surface query: which feature of the nearest triangle holds the nearest place,
// whether it lies on the mesh's open border, and the sign the pseudo-normal gives, on
// meshes small enough to know every answer.
#include "zor/spatial/surface_query.h"

#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "generators/small_meshes.h"

namespace {

using MeshQueries::SurfaceFeature;
using MeshQueries::SurfacePlace;

constexpr double kInf = std::numeric_limits<double>::infinity();

SurfacePlace Nearest(const MeshQueries::TriangleTreeHolder& holder, const MMVector3d& p) {
  SurfacePlace place;
  EXPECT_TRUE(MeshQueries::NearestSurfacePlace(holder, p, kInf, place));
  return place;
}

// A 2 x 2 grid of squares, 10 units each, in z = 0 (drawn in generators/small_meshes.h):
//
//   6---7---8     the outer ring of edges is the open border; the edges inside,
//   | / | / |     the diagonals among them, are shared by two triangles
//   3---4---5
//   | / | / |
//   0---1---2
TEST(SurfaceQuery, TellsFaceEdgeAndCornerAndWhichLieOnTheOpenBorder) {
  const auto grid = zorgen::MakeGrid(2, 10);
  MeshQueries::TriangleTreeHolder holder{MeshQueries::MeshHandle(grid.get())};
  holder.Build(true);
  struct Probe {
    MMVector3d at;
    SurfaceFeature feature;
    bool border;
    double distance;
  };
  const Probe probes[] = {
      {{7, 3, 5}, SurfaceFeature::Face, false, 5.0},      // above a triangle
      {{5, 5, 4}, SurfaceFeature::Edge, false, 4.0},      // above a diagonal (shared)
      {{10, 5, 3}, SurfaceFeature::Edge, false, 3.0},     // above the inner edge 1-4
      {{5, -4, 3}, SurfaceFeature::Edge, true, 5.0},      // beside the outer edge 0-1
      {{-3, -4, 0}, SurfaceFeature::Corner, true, 5.0},   // past corner 0
      {{10, 10, 2}, SurfaceFeature::Corner, false, 2.0},  // above the inner point 4
      {{25, 10, 0}, SurfaceFeature::Corner, true, 5.0},   // past the border point 5
  };
  for (const Probe& p : probes) {
    const SurfacePlace place = Nearest(holder, p.at);
    EXPECT_EQ(place.feature, p.feature) << p.at[0] << " " << p.at[1] << " " << p.at[2];
    EXPECT_EQ(MeshQueries::OnOpenBorder(place), p.border) << p.at[0] << " " << p.at[1] << " " << p.at[2];
    EXPECT_NEAR(place.distance, p.distance, 1e-12);
    // Above the sheet (+z, its winding's side) is outside, below it inside.
    EXPECT_GE(MeshQueries::SignedDistance(place, p.at), 0.0);
    const MMVector3d below(p.at[0], p.at[1], -p.at[2] - 1.0);
    EXPECT_LT(MeshQueries::SignedDistance(Nearest(holder, below), below), 0.0);
  }
  // Nothing within a radius that the surface does not reach.
  SurfacePlace none;
  EXPECT_FALSE(MeshQueries::NearestSurfacePlace(holder, {5, 5, 50}, 10.0, none));
  EXPECT_FALSE(none.Found());
}

// Near a box's edges and corners the nearest face's own normal can point either way;
// the pseudo-normal tells inside from outside everywhere.
TEST(SurfaceQuery, ThePseudoNormalTellsInsideFromOutsideNearEdgesAndCorners) {
  const auto box = zorgen::MakeBox(100, 60, 40, 1);
  MeshQueries::TriangleTreeHolder holder{MeshQueries::MeshHandle(box.get())};
  holder.Build(true);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> offset(-3.0, 3.0);
  int edges = 0, corners = 0;
  for (int i = 0; i < 3000; ++i) {
    // Near a random corner of the box, so that many nearest places lie on edges and
    // corners.
    const MMVector3d corner((rng() % 2) * 100.0, (rng() % 2) * 60.0, (rng() % 2) * 40.0);
    const MMVector3d p = corner + MMVector3d(offset(rng), offset(rng), offset(rng));
    const SurfacePlace place = Nearest(holder, p);
    const bool inside = p[0] > 0 && p[0] < 100 && p[1] > 0 && p[1] < 60 && p[2] > 0 && p[2] < 40;
    if (place.distance < 1e-9) continue;
    EXPECT_EQ(MeshQueries::SignedDistance(place, p) < 0.0, inside) << p[0] << " " << p[1] << " " << p[2];
    EXPECT_FALSE(MeshQueries::OnOpenBorder(place));  // a closed box has none
    edges += place.feature == SurfaceFeature::Edge ? 1 : 0;
    corners += place.feature == SurfaceFeature::Corner ? 1 : 0;
  }
  EXPECT_GT(edges, 300);
  EXPECT_GT(corners, 100);
}

// The filtered search finds only triangles facing the query's way.
TEST(SurfaceQuery, TheFacingSearchSkipsTrianglesThatFaceAway) {
  const auto box = zorgen::MakeBox(100, 100, 100, 2);
  MeshQueries::TriangleTreeHolder holder{MeshQueries::MeshHandle(box.get())};
  holder.Build(true);
  SurfacePlace place;
  // Just inside the top face, asking for a downward normal: the bottom face, 99 away.
  ASSERT_TRUE(MeshQueries::NearestFacingPlace(holder, {50, 50, 99}, {0, 0, -1}, 0.9, kInf, place));
  EXPECT_NEAR(place.distance, 99.0, 1e-9);
  EXPECT_NEAR(place.triangle->GetNormal()[2], -1.0, 1e-12);
  EXPECT_FALSE(MeshQueries::NearestFacingPlace(holder, {50, 50, 99}, {0, 0, -1}, 0.9, 50.0, place));
}

}  // namespace
