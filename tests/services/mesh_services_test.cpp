// Normals, mass properties, reduction and the point-to-plane ICP on meshes.
#include <cmath>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "support/mesh_checks.h"
#include "zor/model/stl.h"
#include "zor/services/geom_properties.h"
#include "zor/services/reduce.h"
#include "zor/services/registration_icp.h"
#include "zor/services/surface_normals.h"
#include "zor/spatial/tree_property.h"

namespace {

using zortest::AllPoints;
using zortest::WorstDistance;

MStlTriangle* TriangleAt(MStlPoint* p) { return &p->GetNeighbourTriangle(0)->data; }

TEST(PointNormals, AngleWeightingIgnoresHowAFanIsCut) {
  // The corner (0, 0, 0) of a box: its three faces are cut into different numbers of
  // triangles at the corner, yet the angle-weighted normal is the symmetric diagonal.
  auto box = zorgen::MakeBox(1000, 1000, 1000, 3);
  MStlPoint* corner = box->GetPoint(0, 0, 0);
  MStlBaseMaskOperatorComputePointNormalVectors op;
  op.SetMethod(ePointNormalAngle);
  MMVector3f n;
  ASSERT_TRUE(op.ComputeNormalCurrentMethod(n, *corner));
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(n[k], -1.0 / std::sqrt(3.0), 1e-6);
  MStlBase lone;
  MStlPoint* free = lone.AddPoint(1, 2, 3, false);
  MMVector3f untouched;
  EXPECT_FALSE(op.ComputeNormalCurrentMethod(untouched, *free));
  EXPECT_EQ(untouched, MMVector3f());
}

TEST(NormalCalculator, SmoothNormalFollowsMovedPoints) {
  auto sphere = zorgen::MakeSphere(20000.0, 24, 48);
  MUserOperatorNormalCalculator calculator;
  MUserOperatorNormalCalculator::MParams params;
  params.mode = 1;
  calculator.SetInputModel(sphere.get());
  calculator.SetParams(params);
  ASSERT_EQ(calculator.Preprocess(), EReturnCode::Ok);
  MStlTriangle* t = TriangleAt(sphere->GetFirstPoint()->GetNext()->GetNext());
  const double bary[3] = {0.2, 0.3, 0.5};
  const MMVector3d at = t->GetVertex(0) * 0.2 + t->GetVertex(1) * 0.3 + t->GetVertex(2) * 0.5;
  MMVector3d n;
  ASSERT_EQ(calculator.QueryResult(n, t, bary), EReturnCode::Ok);
  MMVector3d radial = at;
  Normalize(radial);
  EXPECT_GT(Dot(n, radial), std::cos(0.5 * 0.0174533));  // smoother than the facet
  // Turn the mesh a quarter about z: the same query answers for the new coordinates.
  MMTransformMatrix quarter;
  quarter.MakeRotation(MMVector3d(), MMVector3d(0, 0, 1), 1.5707963267948966);
  sphere->Transform(quarter);
  MMVector3d turned;
  ASSERT_EQ(calculator.QueryResult(turned, t, bary), EReturnCode::Ok);
  const MMVector3d expected = quarter(n, true);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(turned[k], expected[k], 1e-4);
  // Queries from several threads at once agree with the serial answer.
  std::vector<MMVector3d> results(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      for (int repeat = 0; repeat < 200; ++repeat) calculator.QueryResult(results[i], t, bary);
    });
  for (auto& th : threads) th.join();
  for (const MMVector3d& r : results) EXPECT_EQ(r, turned);
}

TEST(NormalCalculator, ReportsBadSetUpAndLeavesTheNormal) {
  auto sphere = zorgen::MakeSphere(1000.0, 6, 8);
  MUserOperatorNormalCalculator calculator;
  MMVector3d n;
  const double bary[3] = {1, 0, 0};
  EXPECT_EQ(calculator.Preprocess(), EReturnCode::NoModel);
  calculator.SetInputModel(sphere.get());
  EXPECT_EQ(calculator.QueryResult(n, TriangleAt(sphere->GetFirstPoint()), bary), EReturnCode::NotPrepared);
  MUserOperatorNormalCalculator::MParams bad;
  bad.mode = 7;
  calculator.SetParams(bad);
  EXPECT_EQ(calculator.Preprocess(), EReturnCode::BadParameter);
  EXPECT_EQ(n, MMVector3d());
}

TEST(GeomProperties, SolidAndShellOfABox) {
  auto box = zorgen::MakeBox(1000, 2000, 4000, 4);
  MStlBaseOperatorGeomProperties solid;
  solid.SetGravityType(GravitySolid);
  solid.AddStl(*box, MMTransformMatrix());
  ASSERT_TRUE(solid.Operate());
  EXPECT_NEAR(solid.GetMass(), 8e9, 1.0);
  const MMVector3d c = solid.GetGravityCenter();
  EXPECT_NEAR(c[0], 500.0, 1e-6);
  EXPECT_NEAR(c[1], 1000.0, 1e-6);
  EXPECT_NEAR(c[2], 2000.0, 1e-6);
  // Ascending moments: the long side (z) first, the short side (x) last; right-handed.
  EXPECT_NEAR(solid.GetInertiaAxis(0)[2], 1.0, 1e-12);
  EXPECT_NEAR(solid.GetInertiaAxis(1)[1], 1.0, 1e-12);
  EXPECT_NEAR(solid.GetInertiaAxis(2)[0], -1.0, 1e-12);  // z x y
  EXPECT_NEAR(solid.GetInertiaMoment(0), 8e9 * (1e6 + 4e6) / 12.0, 1e6);

  // Placed elsewhere, the centre moves with it; the shell of the box has the same centre.
  MMTransformMatrix shift;
  shift.MakeTranslation(MMVector3d(-7000, 0, 3));
  MStlBaseOperatorGeomProperties shell;
  shell.SetGravityType(GravityShell);
  shell.AddStl(*box, shift);
  ASSERT_TRUE(shell.Operate());
  EXPECT_NEAR(shell.GetMass(), 2.0 * (2e6 + 4e6 + 8e6), 1e-3);
  EXPECT_NEAR(shell.GetGravityCenter()[0], -6500.0, 1e-6);
  EXPECT_NEAR(shell.GetGravityCenter()[2], 2003.0, 1e-6);

  // The body reading takes the solid of the closed box and the shell of an open grid.
  const auto bodyMass = [](const MStlBase& mesh) {
    MStlBaseOperatorGeomProperties body;
    body.SetGravityType(GravityBody);
    body.AddStl(mesh, MMTransformMatrix());
    EXPECT_TRUE(body.Operate());
    return body.GetMass();
  };
  EXPECT_NEAR(bodyMass(*box), 8e9, 1.0);
  EXPECT_NEAR(bodyMass(*zorgen::MakeGrid(10, 100)), 1e6, 1e-6);
}

TEST(GeomProperties, RefusesWhatHasNoProperties) {
  auto grid = zorgen::MakeGrid(10, 100);  // open: no enclosed volume
  MStlBaseOperatorGeomProperties solid;
  solid.SetGravityType(GravitySolid);
  solid.AddStl(*grid, MMTransformMatrix());
  EXPECT_FALSE(solid.Operate());
  EXPECT_EQ(solid.GetGravityCenter(), MMVector3d());
  MStlBase empty;
  MStlBaseOperatorGeomProperties none;
  none.AddStl(empty, MMTransformMatrix());
  EXPECT_FALSE(none.Operate());
  EXPECT_EQ(GetGravityCenter(empty), MMVector3d());
  EXPECT_NEAR(GetGravityCenter(*grid)[0], 500.0, 1e-9);
}

// Greatest distance from `points` to the surface of `mesh`.
bool Reduce(MStlBase& mesh, double distance) {
  MStlBaseOperatorReduceExBase::MParams params;
  params.distance = distance;
  MStlBaseOperatorReduceEx<MStlBaseContainer> op(MStlBaseContainer(&mesh), params);
  return op.Operate();
}

TEST(Reduction, CurvedMeshKeepsTheToleranceAndFacesOutward) {
  auto sphere = zorgen::MakeSphere(20000.0, 80, 160, 1500.0);
  const std::vector<MMVector3d> before = AllPoints(*sphere);
  const std::size_t triangles = sphere->GetNumberOfTriangles();
  ASSERT_TRUE(Reduce(*sphere, 300.0));
  EXPECT_LT(sphere->GetNumberOfTriangles(), triangles * 2 / 3);
  EXPECT_LE(WorstDistance(before, *sphere), 300.0);
  // The surface is star-shaped about the origin, so an outward triangle faces away from
  // it. None wider than the tolerance faces inward, and slivers carry almost no area.
  double inwardArea = 0.0;
  for (auto it = sphere->BeginTriangle(); it != sphere->EndTriangle(); ++it) {
    const MMVector3d a = it->GetVertex(0), b = it->GetVertex(1), c = it->GetVertex(2);
    if (Dot(it->GetNormal(), a + b + c) > 0.0) continue;
    const double longest = std::sqrt(std::max({Length2(b - a), Length2(c - b), Length2(a - c)}));
    EXPECT_LT(2.0 * it->SurfaceArea() / longest, 300.0);
    inwardArea += it->SurfaceArea();
  }
  EXPECT_LT(inwardArea, 1e-3 * sphere->SurfaceArea());
}

// A flat 4 x 4 grid of unit squares (1 mm) in two surfaces, A left of x = 2 and B right
// of it, each square split along its rising diagonal:
//
//   y=4  o---o---o---o---o        o  kept: the open border (16 points) and the seam
//        | A | A | B | B |           x = 2 (3 more inside), 19 in all
//   y=3  o---*---o---*---o        *  removed: inner points off the seam (6); a flat
//        | A | A | B | B |           surface loses nothing by losing them
//   y=2  o---*---o---*---o
//        | A | A | B | B |        Each surface must keep its own area (8 mm^2) and every
//   y=1  o---*---o---*---o        triangle its side of the seam: a collapse across the
//        | A | A | B | B |        seam would move triangles from one surface's
//   y=0  o---o---o---o---o        outline into the other's.
//      x=0   1   2   3   4
TEST(Reduction, ASeamBetweenSurfacesKeepsItsPointsAndEachSurfaceItsTriangles) {
  MStlBase mesh;
  MStlSurface* left = mesh.AddSurface();
  MStlSurface* right = mesh.AddSurface();
  const auto at = [&](int i, int j) { return mesh.AddPoint(1000 * i, 1000 * j, 0, false); };
  for (int j = 0; j < 4; ++j)
    for (int i = 0; i < 4; ++i) {
      MStlSurface* surface = i < 2 ? left : right;
      mesh.AddTriangle(at(i, j), at(i + 1, j), at(i + 1, j + 1), surface);
      mesh.AddTriangle(at(i, j), at(i + 1, j + 1), at(i, j + 1), surface);
    }
  ASSERT_TRUE(Reduce(mesh, 50.0));
  EXPECT_EQ(mesh.NumberOfPoints(), 19u);
  for (int j = 0; j <= 4; ++j)
    for (int i = 0; i <= 4; ++i) {
      const bool kept = i == 0 || i == 4 || j == 0 || j == 4 || i == 2;
      EXPECT_EQ(mesh.GetPoint(1000 * i, 1000 * j, 0) != nullptr, kept) << i << ", " << j;
    }
  for (MStlSurface* surface : {left, right}) {
    double area = 0.0;
    for (MStlTriangleCell* cell = surface->GetFirstTriangle(); cell != nullptr; cell = cell->next) {
      const MStlTriangle& t = cell->data;
      area += t.SurfaceArea();
      for (std::size_t k = 0; k < 3; ++k)
        EXPECT_TRUE(surface == left ? t.GetVertex(k)[0] <= 2000 : t.GetVertex(k)[0] >= 2000);
      EXPECT_TRUE(t.SurfaceArea() == 0.0 || t.GetNormal()[2] > 0.99);  // nothing flipped
    }
    EXPECT_NEAR(area, 8e6, 1e-6);
  }
}

TEST(Reduction, BadParametersLeaveTheMeshAlone) {
  auto sphere = zorgen::MakeSphere(5000.0, 20, 40);
  const std::size_t triangles = sphere->GetNumberOfTriangles();
  EXPECT_FALSE(Reduce(*sphere, -1.0));
  EXPECT_FALSE(Reduce(*sphere, NAN));
  EXPECT_EQ(sphere->GetNumberOfTriangles(), triangles);
  // A tolerance far below the facets' deviation: nothing worth removing, mesh kept.
  EXPECT_TRUE(Reduce(*sphere, 0.001));
  EXPECT_EQ(sphere->GetNumberOfTriangles(), triangles);
  MStlBase empty;
  EXPECT_TRUE(Reduce(empty, 10.0));
}

MMTransformMatrix Motion(double angleDeg, MMVector3d axis, MMVector3d shift) {
  MMTransformMatrix m;
  m.MakeRotation(MMVector3d(), axis, angleDeg * 0.017453292519943295);
  m.AddTranslation(shift);
  return m;
}

TEST(RegistrationIcp, ConvergesFromATenDegreeOffsetAndRepeats) {
  auto fixed = zorgen::MakeSphere(20000.0, 60, 120, 3000.0);
  auto moving = zorgen::MakeSphere(20000.0, 60, 120, 3000.0);
  const MMTransformMatrix offset = Motion(10.0, MMVector3d(1, 2, 3), MMVector3d(800, -500, 300));
  moving->Transform(offset);
  MStlBaseOperatorRegistrationICP::MParameters params;
  const MMTransformMatrix identity;
  params.SetReference(fixed.get(), &identity);
  params.SetMoving(moving.get(), &identity);
  params.SetNumberOfIterations(4000);
  params.SetSubSampleRatio(4);
  params.SetThresholdMethod(eMRegistration3DPointsThresholdMethod(1));
  params.SetDistanceThreshold(100000.0);
  MStlBaseOperatorRegistrationICP icp;
  icp.SetParameters(params);
  ASSERT_TRUE(icp.Operate());
  EXPECT_LT(icp.GetIterationsRun(), 200u);
  const MMTransformMatrix back = icp.GetTransformToBeAppliedToMoving() * offset;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(back.GetElement(r, c), identity.GetElement(r, c), c == 3 ? 5.0 : 2e-4);
  EXPECT_LT(icp.GetRMSError(), 20.0);

  MStlBaseOperatorRegistrationICP again;
  again.SetParameters(params);
  ASSERT_TRUE(again.Operate());
  const MMTransformMatrix a = icp.GetTransformToBeAppliedToMoving(), b = again.GetTransformToBeAppliedToMoving();
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_EQ(a.GetElement(r, c), b.GetElement(r, c));

  // A cut-off below every sample's distance leaves no pairs: identity and false.
  params.SetDistanceThreshold(1.0);
  MStlBaseOperatorRegistrationICP tight;
  tight.SetParameters(params);
  EXPECT_FALSE(tight.Operate());
  EXPECT_TRUE(tight.GetTransformToBeAppliedToMoving().IsIdentity());
}

}  // namespace
