#include <cmath>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "zor/model/stl.h"

namespace {

std::vector<MStlTriangleCell*> Neighbours(const MStlPoint* p) {
  std::vector<MStlTriangleCell*> out;
  for (std::uint16_t i = 0; i < p->GetNumberOfNeighbourTriangles(); ++i) out.push_back(p->GetNeighbourTriangle(i));
  return out;
}

// Every triangle appears in exactly its corners' lists, and nowhere else.
void ExpectNeighbourListsConsistent(const MStlBase& mesh) {
  std::size_t references = 0;
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it)
    for (MStlTriangleCell* cell : Neighbours(it.GetPoint())) {
      EXPECT_GE(cell->data.IndexOfPoint(it.GetPoint()), 0);
      ++references;
    }
  EXPECT_EQ(references, 3 * mesh.GetNumberOfTriangles());
}

TEST(MeshPoints, EqualCoordinatesMergeAndRoundingIsHalfAwayFromZero) {
  MStlBase mesh;
  MStlPoint* a = mesh.AddPoint(MMVector3d(1.4, -2.5, 2.5), false);
  EXPECT_EQ(a->GetX(), 1);
  EXPECT_EQ(a->GetY(), -3);
  EXPECT_EQ(a->GetZ(), 3);
  EXPECT_EQ(mesh.AddPoint(MMVector3d(0.5, -3.4, 3.0), false), a);
  EXPECT_EQ(mesh.AddPoint(1, -3, 3, false), a);
  EXPECT_EQ(mesh.NumberOfPoints(), 1u);
  MStlPoint* twin = mesh.AddPoint(1, -3, 3, true);
  EXPECT_NE(twin, a);
  EXPECT_EQ(mesh.NumberOfPoints(), 2u);
  EXPECT_EQ(mesh.GetPoint(1, -3, 3), a);  // the first one stays the indexed one
  EXPECT_EQ(mesh.GetPoint(9, 9, 9), nullptr);
  EXPECT_EQ(mesh.GetXMin(), 1);
  EXPECT_EQ(mesh.GetZMax(), 3);
}

TEST(MeshPoints, OutOfRangeCoordinatesAreRefusedLeavingTheMeshUnchanged) {
  auto mesh = zorgen::MakeTetrahedron();
  try {
    mesh->AddPoint(MMVector3d(0, 3e9, 0), false);
    FAIL() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_NE(std::string(e.what()).find("3000000000"), std::string::npos) << e.what();
  }
  EXPECT_THROW(mesh->AddPoint(MMVector3d(2147483647.5, 0, 0), false), std::out_of_range);
  EXPECT_THROW(mesh->AddPoint(MMVector3d(std::nan(""), 0, 0), false), std::out_of_range);
  EXPECT_EQ(mesh->AddPoint(MMVector3d(-2147483648.4, 0, 0), false)->GetX(), -2147483647 - 1);
  EXPECT_EQ(mesh->NumberOfPoints(), 5u);

  // A move that would push one point out of range moves no point at all.
  auto tetra = zorgen::MakeTetrahedron();
  MMTransformMatrix huge;
  huge.MakeTranslation(MMVector3d(2147483640.0, 0, 0));
  EXPECT_THROW(tetra->Transform(huge), std::out_of_range);
  EXPECT_EQ(tetra->GetPoint(10, 0, 0)->GetX(), 10);
  EXPECT_EQ(tetra->GetXMax(), 10);
  EXPECT_THROW(tetra->AddTriangle(MMVector3i(1, 1, 1), MMVector3i(1, 1, 1), MMVector3i(2, 2, 2), nullptr),
               std::invalid_argument);
  EXPECT_EQ(tetra->NumberOfPoints(), 4u);
  EXPECT_EQ(tetra->GetNumberOfTriangles(), 4u);
}

TEST(MeshTopology, NeighbourListsFollowInvertAndRemoval) {
  auto mesh = zorgen::MakeTetrahedron();
  ExpectNeighbourListsConsistent(*mesh);
  MStlPoint* p0 = mesh->GetPoint(0, 0, 0);
  ASSERT_EQ(p0->GetNumberOfNeighbourTriangles(), 3);

  MStlTriangle* bottom = &p0->GetNeighbourTriangle(0)->data;  // (0, 2, 1)
  const MMVector3d before = bottom->GetNormal();
  EXPECT_NEAR(before[2], -1.0, 1e-15);  // outward: down
  bottom->Invert(0);
  EXPECT_NEAR(bottom->GetNormal()[2], 1.0, 1e-15);
  EXPECT_EQ(bottom->GetPoint(0), p0);
  EXPECT_EQ(p0->GetNumberOfNeighbourTriangles(), 3);  // same triangles, new winding
  ExpectNeighbourListsConsistent(*mesh);

  // Keeping free points leaves the point, the default drops it once its last triangle goes.
  MStlPoint* p3 = mesh->GetPoint(0, 0, 10);
  const auto at3 = Neighbours(p3);
  ASSERT_EQ(at3.size(), 3u);
  mesh->RemoveTriangle(at3[0], MStlBase::KeepFreePoints);
  mesh->RemoveTriangle(at3[1], MStlBase::KeepFreePoints);
  EXPECT_EQ(p3->GetNumberOfNeighbourTriangles(), 1);
  EXPECT_EQ(p3->GetNeighbourTriangle(0), at3[2]);
  ExpectNeighbourListsConsistent(*mesh);
  mesh->RemoveTriangle(&at3[2]->data);
  EXPECT_EQ(mesh->NumberOfPoints(), 3u);
  EXPECT_EQ(mesh->GetPoint(0, 0, 10), nullptr);
  EXPECT_EQ(mesh->GetNumberOfTriangles(), 1u);
  ExpectNeighbourListsConsistent(*mesh);
}

TEST(MeshTopology, HighValencePointsKeepTheirListsInOrder) {
  // A fan of 40 triangles around a centre: the list outgrows its inline room.
  MStlBase mesh;
  MStlPoint* centre = mesh.AddPoint(0, 0, 0, false);
  std::vector<MStlPoint*> rim;
  for (int i = 0; i < 40; ++i)
    rim.push_back(mesh.AddPoint(static_cast<std::int32_t>(std::lround(1000 * std::cos(i * 0.157))),
                                static_cast<std::int32_t>(std::lround(1000 * std::sin(i * 0.157))), 0, false));
  std::vector<MStlTriangleCell*> cells;
  for (int i = 0; i < 40; ++i) cells.push_back(mesh.AddTriangle(centre, rim[i], rim[(i + 1) % 40], nullptr));
  EXPECT_EQ(Neighbours(centre), cells);
  for (int i = 0; i < 40; i += 3) mesh.RemoveTriangle(cells[i], MStlBase::KeepFreePoints);
  std::vector<MStlTriangleCell*> left;
  for (int i = 0; i < 40; ++i)
    if (i % 3 != 0) left.push_back(cells[i]);
  EXPECT_EQ(Neighbours(centre), left);
  ExpectNeighbourListsConsistent(mesh);
}

TEST(MeshTopology, AdjacencyAcrossEdgesAndNonManifoldEdges) {
  auto grid = zorgen::MakeGrid(1);  // square split into (a b c) and (a c d)
  auto it = grid->BeginTriangle();
  const MStlTriangle& first = *it;
  const MStlTriangle& second = *++it;
  EXPECT_EQ(first.FindAdjacentTriangle(1, true), nullptr);           // b-c lies on the border
  EXPECT_EQ(first.FindAdjacentTriangle(2, true), second.GetCell());  // c-a is shared
  EXPECT_EQ(second.FindAdjacentTriangle(0, true), first.GetCell());

  // A third triangle on edge a-c makes the edge non-manifold.
  MStlPoint* a = first.GetPoint(0);
  MStlPoint* c = first.GetPoint(2);
  grid->AddTriangle(a, c, grid->AddPoint(0, 0, 5, false), nullptr);
  EXPECT_EQ(first.FindAdjacentTriangle(2, true), nullptr);
  EXPECT_NE(first.FindAdjacentTriangle(2, false), nullptr);
}

TEST(MeshGeometry, AreaNormalsAndExtremesOfATetrahedron) {
  auto mesh = zorgen::MakeTetrahedron();
  EXPECT_NEAR(mesh->SurfaceArea(), 150.0 + 0.5 * std::sqrt(3.0) * 200.0 / 2.0 * 1.0, 1e-9);
  for (auto it = mesh->BeginTriangle(); it != mesh->EndTriangle(); ++it) {
    const MMVector3d toCentre = MMVector3d(2.5, 2.5, 2.5) - it->GetVertex(0);
    EXPECT_LT(Dot(it->GetNormal(), toCentre), 0.0) << "normals point outward";
    EXPECT_NEAR(Length(it->GetNormal()), 1.0, 1e-15);
  }
  mesh->Rescale(2.0f, 1.0f, 3.0f, MMVector3i(10, 0, 0));
  mesh->Update(65, true);
  EXPECT_EQ(mesh->GetXMin(), -10);
  EXPECT_EQ(mesh->GetXMax(), 10);
  EXPECT_EQ(mesh->GetZMax(), 30);
}

TEST(MeshEmpty, AnEmptyMeshAnswersEverythingSafely) {
  MStlBase mesh;
  EXPECT_TRUE(mesh.BeginTriangle() == mesh.EndTriangle());
  EXPECT_TRUE(mesh.BeginPoint() == mesh.EndPoint());
  EXPECT_EQ(mesh.SurfaceArea(), 0.0);
  EXPECT_GT(mesh.GetXMin(), mesh.GetXMax());
  mesh.Update(65, true);
  mesh.Transform(MMTransformMatrix());
  ASSERT_NE(mesh.GetSurfaceList(), nullptr);
  ASSERT_NE(mesh.GetMainFeature(), nullptr);
  EXPECT_EQ(mesh.AddSurface()->GetFirstTriangle(), nullptr);
  EXPECT_TRUE(mesh.BeginTriangle() == mesh.EndTriangle());  // an empty surface is passed over
  EXPECT_EQ(MStlIteratorStlTriangleConst::Begin(mesh.GetMainFeature()),
            MStlIteratorStlTriangleConst::End(mesh.GetMainFeature()));
}

TEST(MeshCopy, DeepCopyIsEqualAndIndependent) {
  auto source = zorgen::MakeGrid(4, 10);
  MStlSurface* extra = source->AddSurface();
  source->AddTriangle(MMVector3i(0, 0, 5), MMVector3i(10, 0, 5), MMVector3i(0, 10, 5), extra);
  source->AddFeature()->AddSurface(extra);
  MStlIteratorStlTriangle::Begin(source.get())->SetMarked(true);
  source->SetName(L"grid");

  MStlBase copy(*source);
  ASSERT_EQ(copy.NumberOfPoints(), source->NumberOfPoints());
  ASSERT_EQ(copy.GetNumberOfTriangles(), source->GetNumberOfTriangles());
  EXPECT_EQ(std::wstring(copy.GetName()), L"grid");
  EXPECT_EQ(copy.GetSurfaceList()->GetSurfaceCount(), 2u);
  ASSERT_EQ(copy.GetNumberOfFeatures(), 1u);
  EXPECT_EQ(copy.GetFeature(0)->GetNumberOfTriangles(), 1u);
  for (auto a = source->BeginTriangle(), b = copy.BeginTriangle(); a != source->EndTriangle(); ++a, ++b)
    for (std::size_t k = 0; k < 3; ++k) {
      EXPECT_EQ(a->GetVertex(k), b->GetVertex(k));
      EXPECT_EQ(a->IsMarked(), b->IsMarked());
      EXPECT_NE(a->GetPoint(k), b->GetPoint(k));
    }
  ExpectNeighbourListsConsistent(copy);
  copy.Translate(1, 1, 1);
  EXPECT_EQ(source->GetXMin(), 0);
  EXPECT_EQ(copy.GetXMin(), 1);
  std::unique_ptr<MStlBase> clone(source->Clone(nullptr));
  EXPECT_EQ(clone->SurfaceArea(), source->SurfaceArea());
}

TEST(MeshCopy, SelectionsCopyIntoConnectedMeshes) {
  auto mesh = zorgen::MakeTetrahedron();
  auto whole = CopySelectionToNewMesh(MStlItem(mesh.get()));
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(whole->NumberOfPoints(), 4u);  // merged: still one closed body
  EXPECT_EQ(whole->GetNumberOfTriangles(), 4u);
  EXPECT_NEAR(whole->SurfaceArea(), mesh->SurfaceArea(), 1e-9);
  for (auto a = mesh->BeginTriangle(), b = whole->BeginTriangle(); a != mesh->EndTriangle(); ++a, ++b)
    EXPECT_EQ(a->GetNormal(), b->GetNormal());  // winding kept

  auto none = CopySelectionToNewMesh(MStlItem::MarkedTriangles(mesh.get()));
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none->GetNumberOfTriangles(), 0u);
  MStlIteratorStlTriangle::Begin(mesh.get())->SetMarked(true);
  EXPECT_EQ(CopySelectionToNewMesh(MStlItem::MarkedTriangles(mesh.get()))->GetNumberOfTriangles(), 1u);

  MStlSurface* second = mesh->AddSurface();
  mesh->AddTriangle(MMVector3i(20, 0, 0), MMVector3i(30, 0, 0), MMVector3i(20, 10, 0), second);
  EXPECT_EQ(CopySelectionToNewMesh(MStlItem(second))->GetNumberOfTriangles(), 1u);
  MStlFeature* feature = mesh->AddFeature();
  feature->AddSurface(mesh->AddSurface());  // an empty surface first
  feature->AddSurface(second);
  EXPECT_EQ(CopySelectionToNewMesh(MStlItem(feature))->GetNumberOfTriangles(), 1u);

  EXPECT_EQ(CopySelectionToNewMesh(MStlItem()), nullptr);
  EXPECT_EQ(CopySelectionToNewMesh(MStlItem(static_cast<MStlSurface*>(nullptr))), nullptr);
  EXPECT_EQ(CopySelectionToNewMesh(MStlItem(static_cast<MStlBase*>(nullptr))), nullptr);
}

TEST(MeshBuild, ArraysAreValidatedMergedAndDegeneratesCounted) {
  const double xyz[] = {0, 0, 0, 10, 0, 0, 0, 10, 0, 10.2, 0, 0};  // point 3 rounds onto point 1
  const std::uint32_t tris[] = {0, 1, 2, 0, 3, 1, 2, 3, 0};
  MStlBuildReport report;
  auto mesh = BuildStl(xyz, 4, tris, 3, &report);
  EXPECT_EQ(mesh->NumberOfPoints(), 3u);
  EXPECT_EQ(report.pointsMerged, 1u);
  EXPECT_EQ(report.trianglesSkipped, 1u);
  EXPECT_EQ(mesh->GetNumberOfTriangles(), 2u);

  const std::uint32_t bad[] = {0, 1, 7};
  try {
    BuildStl(xyz, 4, bad, 1);
    FAIL() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_NE(std::string(e.what()).find("index 7"), std::string::npos) << e.what();
  }
  const double far[] = {0, 0, -1e12};
  EXPECT_THROW(BuildStl(far, 1, nullptr, 0), std::out_of_range);
}

TEST(MeshPlacement, TemporaryTransformationRestoresExactCoordinates) {
  auto mesh = zorgen::MakeGrid(3, 7);
  std::vector<MMVector3i> before;
  for (auto it = mesh->BeginPoint(); it != mesh->EndPoint(); ++it) before.push_back(it->GetInt());
  MMTransformMatrix turn;
  turn.MakeRotation(MMVector3d(1, 2, 3), MMVector3d(0.3, 1, 0.2), 0.77);
  {
    MStlTempTransformation placed(*mesh, turn, false);
    MMVector3d expected;
    turn.Transform(expected, MMVector3d(7, 0, 0), false);
    MStlPoint* p = mesh->GetPoint(static_cast<std::int32_t>(std::lround(expected[0])),
                                  static_cast<std::int32_t>(std::lround(expected[1])),
                                  static_cast<std::int32_t>(std::lround(expected[2])));
    EXPECT_NE(p, nullptr) << "points read as transformed, and the merge index follows";
  }
  std::size_t i = 0;
  for (auto it = mesh->BeginPoint(); it != mesh->EndPoint(); ++it) EXPECT_EQ(it->GetInt(), before[i++]);
  EXPECT_NE(mesh->GetPoint(7, 0, 0), nullptr);

  MMTransformMatrix mirror;
  mirror.SetElement(0, 0, -1.0, true);
  const MMVector3d n0 = mesh->BeginTriangle()->GetNormal();
  {
    MStlTempTransformation mirrored(*mesh, mirror, true);
    EXPECT_NEAR(mesh->BeginTriangle()->GetNormal()[2], n0[2], 1e-15) << "winding flipped with the reflection";
  }
  EXPECT_EQ(mesh->BeginTriangle()->GetNormal(), n0);
}

}  // namespace
