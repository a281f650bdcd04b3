// What a registration learns of a scan: its loose pieces (and a soup has none), its
// roughness and noise (noise, not the coarseness of a clean tessellation), and how open
// it is.
#include "zor/services/scan_analysis.h"

#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/scan_cases.h"
#include "generators/small_meshes.h"
#include "zor/model/stl_iterators.h"

namespace {

using ZorStlRegistration::FindPieces;
using ZorStlRegistration::MeshPieces;

// A body with loose triangles scattered through its box: each is a piece of its own and
// loose, whatever their area together; the copy without them is the body again, and
// the debris counts as no body.
TEST(ScanAnalysis, LooseFragmentsArePiecesOfTheirOwnAndTheCopyDropsThem) {
  const zorgen::MeshArrays body = zorgen::ScaledToDiagonal(zorgen::MakeLumpyBody(3, 8000), 200000.0);
  const zorgen::ScanCase debris = zorgen::MakeScanCase(body, zorgen::ScanKind::Debris, 4);
  const auto mesh = zorgen::MakeMesh(debris.moving);
  const MeshPieces pieces = FindPieces(*mesh);
  std::size_t partPoints = 0;
  for (std::uint8_t flag : debris.onFixed) partPoints += flag;
  EXPECT_EQ(pieces.loosePieces, pieces.area.size() - 1);
  EXPECT_GT(pieces.looseArea, 2.0 * (pieces.totalArea - pieces.looseArea));  // the debris outweighs the body
  const auto copy = ZorStlRegistration::WithoutLoosePieces(*mesh, pieces);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->NumberOfPoints(), partPoints);
  EXPECT_EQ(FindPieces(*copy).loosePieces, 0u);
  EXPECT_EQ(ZorStlRegistration::WithoutLoosePieces(*copy, FindPieces(*copy)), nullptr);  // nothing to drop
  // One body among the debris; a scene shows the part, the table, a box and a ball.
  EXPECT_EQ(ZorStlRegistration::CountBodies(pieces), 1u);
  const auto scene = zorgen::MakeMesh(zorgen::MakeScanCase(body, zorgen::ScanKind::Scene, 4).moving);
  EXPECT_EQ(ZorStlRegistration::CountBodies(FindPieces(*scene)), 4u);
}

// Triangles that share no point (a facet soup) are a body of their own: none is loose.
TEST(ScanAnalysis, ASoupOfTrianglesHasNoLoosePieces) {
  const auto soup = zorgen::MakeRandomTriangles(500, 9);
  const MeshPieces pieces = FindPieces(*soup);
  EXPECT_EQ(pieces.area.size(), 500u);
  EXPECT_EQ(pieces.loosePieces, 0u);
  // A mesh without triangles has no pieces.
  EXPECT_TRUE(FindPieces(MStlBase()).area.empty());
}

// Noise of sigma along the normal reads as about sigma in both measures; a coarse clean
// tessellation of a curved body is rough (its chords) but not noisy.
TEST(ScanAnalysis, NoiseIsToldFromACoarseTessellation) {
  const zorgen::MeshArrays body = zorgen::ScaledToDiagonal(zorgen::MakeShape(zorgen::Shape::Smooth, 40000), 200000.0);
  for (const double sigma : {300.0, 1000.0}) {
    zorgen::MeshArrays noisy = body;
    std::mt19937 rng(5);
    std::normal_distribution<double> gauss(0.0, sigma);
    for (double& c : noisy.xyz) c = std::round(c + gauss(rng));
    const auto mesh = zorgen::MakeMesh(noisy);
    EXPECT_NEAR(ZorStlRegistration::SurfaceRoughness(*mesh), sigma, 0.2 * sigma);
    EXPECT_NEAR(ZorStlRegistration::SurfaceNoise(*mesh), sigma, 0.25 * sigma);
  }
  const auto coarse = zorgen::MakeMesh(zorgen::Retessellated(body, 0.05));
  const double roughness = ZorStlRegistration::SurfaceRoughness(*coarse);
  EXPECT_GT(roughness, 100.0);
  EXPECT_LT(ZorStlRegistration::SurfaceNoise(*coarse), 0.2 * roughness);
  EXPECT_EQ(ZorStlRegistration::SurfaceRoughness(MStlBase()), 0.0);
}

// A closed box has no hole; cut open, its open border spans the cut's area.
TEST(ScanAnalysis, TheHoleShareIsTheAreaTheOpenBordersSpan) {
  const auto box = zorgen::MakeBox(1000, 1000, 1000, 4);
  EXPECT_EQ(ZorStlRegistration::HoleShare(*box), 0.0);
  const auto grid = zorgen::MakeGrid(4, 250);  // one face alone: its border spans all of it
  EXPECT_NEAR(ZorStlRegistration::HoleShare(*grid), 1.0, 1e-12);
  // Five faces of the box: the missing face's square over five faces' area.
  auto open = zorgen::MakeBox(1000, 1000, 1000, 4);
  std::vector<MStlTriangleCell*> top;
  for (auto it = MStlIteratorStlTriangle::Begin(open.get()); it != MStlIteratorStlTriangle::End(open.get()); ++it) {
    MStlTriangle* t = &*it;
    if (t->GetVertex(0)[2] == 1000 && t->GetVertex(1)[2] == 1000 && t->GetVertex(2)[2] == 1000)
      top.push_back(t->GetCell());
  }
  for (MStlTriangleCell* cell : top) open->RemoveTriangle(cell, MStlBase::RemoveFreePoints);
  EXPECT_NEAR(ZorStlRegistration::HoleShare(*open), 0.2, 1e-9);

  // One triangle taken out of the middle of three faces: three small holes amid points
  // whose fans are closed.
  auto pricked = zorgen::MakeBox(1000, 1000, 1000, 4);
  std::vector<MStlTriangleCell*> taken;
  for (int axis = 0; axis < 3; ++axis)
    for (auto it = MStlIteratorStlTriangle::Begin(pricked.get()); it != MStlIteratorStlTriangle::End(pricked.get());
         ++it) {
      MStlTriangle* t = &*it;
      bool inside = true;
      for (std::size_t c = 0; c < 3; ++c)
        for (int k = 0; k < 3; ++k) {
          const auto v = t->GetVertex(c)[k];
          inside = inside && (k == axis ? v == 0 : v >= 250 && v <= 750);
        }
      if (inside) {
        taken.push_back(t->GetCell());
        break;
      }
    }
  ASSERT_EQ(taken.size(), 3u);
  for (MStlTriangleCell* cell : taken) pricked->RemoveTriangle(cell, MStlBase::RemoveFreePoints);
  const double hole = 250.0 * 250.0 / 2.0;
  EXPECT_NEAR(ZorStlRegistration::HoleShare(*pricked), 3 * hole / (6e6 - 3 * hole), 1e-12);
}

}  // namespace
