// Reduction of meshes cut into blocks: the bound holds across the seams between
// blocks, on noisy surfaces and at creases that blocks meet on; surfaces keep their
// seams; and the result does not depend on the number of threads.
#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <oneapi/tbb/task_arena.h>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/small_meshes.h"
#include "support/mesh_checks.h"
#include "zor/model/stl.h"
#include "zor/services/reduce.h"
#include "zor/spatial/tree_property.h"

namespace {

using zortest::AllPoints;
using zortest::WorstDistance;

// Reduces with blocks of `block` triangles; returns Operate's result.
bool Reduce(MStlBase& mesh, double distance, std::size_t block, std::size_t* after = nullptr) {
  MStlBaseOperatorReduceExBase::MParams params;
  params.distance = distance;
  params.blockTriangles = block;
  MStlBaseOperatorReduceEx<MStlBaseContainer> op(MStlBaseContainer(&mesh), params);
  const bool ok = op.Operate();
  EXPECT_LE(op.GetMaxDeviation(), distance);
  if (after != nullptr) *after = op.GetTrianglesAfter();
  return ok;
}

// Area of the triangles that face against `outward` at their centroid and are wider
// than `distance` (a narrower one lies within the bound whichever way it faces).
template <typename Outward>
double FoldedArea(const MStlBase& mesh, double distance, Outward outward) {
  double area = 0.0;
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MMVector3d a = it->GetVertex(0), b = it->GetVertex(1), c = it->GetVertex(2);
    const double longest = std::sqrt(std::max({Length2(b - a), Length2(c - b), Length2(a - c)}));
    if (Dot(it->GetAreaVector(), outward((a + b + c) * (1.0 / 3.0))) < 0.0 &&
        2.0 * it->SurfaceArea() / longest > distance)
      area += it->SurfaceArea();
  }
  return area;
}

// Every triangle as its corner coordinates, in mesh order: equal lists, equal meshes.
std::vector<std::array<double, 9>> Triangles(const MStlBase& mesh) {
  std::vector<std::array<double, 9>> out;
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    std::array<double, 9> t;
    for (int k = 0; k < 3; ++k)
      for (int d = 0; d < 3; ++d) t[3 * k + d] = it->GetVertex(k)[d];
    out.push_back(t);
  }
  return out;
}

TEST(ReductionInBlocks, NoiseBelowTheBoundIsRemovedAndTheBoundHolds) {
  // A smooth body (about 100 mm, edges about 1 mm) with Gaussian noise of 130 um along
  // the surface normal: a reduction to 1 mm must smooth the noise away, not give up on
  // it. The few points that the noise puts beyond the bound of a smooth surface keep
  // their triangles.
  auto mesh = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Smooth, 60000, 130.0));
  const std::vector<MMVector3d> before = AllPoints(*mesh);
  const std::size_t triangles = mesh->GetNumberOfTriangles();
  std::size_t after = 0;
  EXPECT_TRUE(Reduce(*mesh, 1000.0, 4096, &after));
  EXPECT_LT(after, triangles / 10);
  EXPECT_EQ(after, mesh->GetNumberOfTriangles());
  EXPECT_LE(WorstDistance(before, *mesh), 1000.0);
}

TEST(ReductionInBlocks, NoiseAsLargeAsTheEdgesEndsABlockAfterAPassThatRemovesTooLittle) {
  // Edges of about 1 mm and noise of 0.7 mm against a bound of 0.6 mm: each pass keeps
  // a percent or two of the triangles away, never enough for a rewrite. The blocks stop
  // there instead of running every pass, and the mesh is left as it was.
  auto mesh = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Smooth, 60000, 700.0));
  const std::vector<std::array<double, 9>> before = Triangles(*mesh);
  MStlBaseOperatorReduceExBase::MParams params;
  params.distance = 600.0;
  params.blockTriangles = 4096;
  MStlBaseOperatorReduceEx<MStlBaseContainer> op(MStlBaseContainer(mesh.get()), params);
  EXPECT_TRUE(op.Operate());
  EXPECT_LE(op.GetPassesRun(), 2);
  EXPECT_EQ(Triangles(*mesh), before);
}

TEST(ReductionInBlocks, SurfacesKeepTheirSeamAndTheirSideAcrossBlocks) {
  // A 60 x 60 grid of 1 mm squares on a gentle dome, in two surfaces split at x = 30,
  // cut into blocks of 500 triangles: the seam between the surfaces keeps all its
  // points, every triangle stays on its surface's side, and the bound holds over the
  // seams between blocks.
  constexpr int n = 60;
  MStlBase mesh;
  MStlSurface* left = mesh.AddSurface();
  MStlSurface* right = mesh.AddSurface();
  const auto at = [&](int i, int j) {
    const double x = i - 30.0, y = j - 30.0;
    return mesh.AddPoint(1000 * i, 1000 * j, static_cast<std::int32_t>(std::lround(-4.0 * (x * x + y * y))), false);
  };
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) {
      MStlSurface* surface = i < 30 ? left : right;
      mesh.AddTriangle(at(i, j), at(i + 1, j), at(i + 1, j + 1), surface);
      mesh.AddTriangle(at(i, j), at(i + 1, j + 1), at(i, j + 1), surface);
    }
  const std::vector<MMVector3d> before = AllPoints(mesh);
  std::size_t after = 0;
  EXPECT_TRUE(Reduce(mesh, 50.0, 500, &after));
  EXPECT_LT(after, std::size_t(2 * n * n) / 2);
  EXPECT_LE(WorstDistance(before, mesh), 50.0);
  for (int j = 0; j <= n; ++j) EXPECT_NE(mesh.GetPoint(30000, 1000 * j, at(30, j)->GetInt()[2]), nullptr) << j;
  for (MStlSurface* surface : {left, right})
    for (MStlTriangleCell* cell = surface->GetFirstTriangle(); cell != nullptr; cell = cell->next)
      for (std::size_t k = 0; k < 3; ++k)
        EXPECT_TRUE(surface == left ? cell->data.GetVertex(k)[0] <= 30000 : cell->data.GetVertex(k)[0] >= 30000);
  EXPECT_EQ(FoldedArea(mesh, 50.0, [](const MMVector3d&) { return MMVector3d(0, 0, 1); }), 0.0);
}

TEST(ReductionInBlocks, BlocksThatMeetAtACreaseKeepItAndFaceOutward) {
  // A closed box of 40 x 30 x 20 mm, 24 x 24 squares a face, in blocks of 600: block
  // outlines run into the box's edges, where a collapse across the crease would cut
  // the corner off by far more than the bound.
  auto box = zorgen::MakeBox(40000, 30000, 20000, 24);
  const std::vector<MMVector3d> before = AllPoints(*box);
  const std::size_t triangles = box->GetNumberOfTriangles();
  std::size_t after = 0;
  EXPECT_TRUE(Reduce(*box, 100.0, 600, &after));
  EXPECT_LT(after, triangles / 10);
  EXPECT_LE(WorstDistance(before, *box), 100.0);
  EXPECT_NE(box->GetPoint(0, 0, 0), nullptr);
  EXPECT_NE(box->GetPoint(40000, 30000, 20000), nullptr);
  EXPECT_NE(box->GetPoint(40000, 0, 20000), nullptr);
  const MMVector3d centre(20000, 15000, 10000);
  EXPECT_EQ(FoldedArea(*box, 100.0, [&](const MMVector3d& p) { return p - centre; }), 0.0);
}

TEST(ReductionInBlocks, FoldsAcrossRoundedEdgesAreRepairedInEveryBlock) {
  // The rounded box of the benchmarks: where the engine cuts across a rounded edge, the
  // folded triangle's centre lies inside the body, away from every original triangle,
  // and only keeping the triangles around its corners repairs it. Every block must hold.
  auto box = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Box, 100000));
  const std::vector<MMVector3d> before = AllPoints(*box);
  std::size_t after = 0;
  EXPECT_TRUE(Reduce(*box, 300.0, 32768, &after));
  EXPECT_LT(after, std::size_t(10000));
  EXPECT_LE(WorstDistance(before, *box), 300.0);
}

TEST(ReductionInBlocks, IsBitIdenticalAtAnyThreadCountAndFromRunToRun) {
  // Small enough for the thread sanitizer, with eight blocks and their seams.
  const zorgen::MeshArrays body = zorgen::MakeShape(zorgen::Shape::Featured, 8000, 40.0);
  const auto reduced = [&] {
    auto mesh = zorgen::MakeMesh(body);
    Reduce(*mesh, 300.0, 1024);
    return Triangles(*mesh);
  };
  const auto first = reduced();
  EXPECT_LT(first.size(), std::size_t(6000));  // reduced, not left as it was
  EXPECT_EQ(reduced(), first);
  std::vector<std::array<double, 9>> single;
  oneapi::tbb::task_arena(1).execute([&] { single = reduced(); });
  EXPECT_EQ(single, first);
}

// Every point in list order, then every triangle surface by surface with its mark.
std::vector<std::array<double, 10>> Layout(const MStlBase& mesh) {
  std::vector<std::array<double, 10>> out;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext())
    out.push_back({p->GetDouble()[0], p->GetDouble()[1], p->GetDouble()[2]});
  const MStlFeature* list = mesh.GetSurfaceList();
  for (std::size_t s = 0; s < list->GetSurfaceCount(); ++s) {
    out.push_back({-1.0, double(s)});
    for (MStlTriangleCell* cell = list->GetSurface(s)->GetFirstTriangle(); cell != nullptr; cell = cell->next) {
      std::array<double, 10> t{};
      for (int k = 0; k < 3; ++k)
        for (int d = 0; d < 3; ++d) t[3 * k + d] = cell->data.GetVertex(k)[d];
      t[9] = cell->data.IsMarked() ? 1.0 : 0.0;
      out.push_back(t);
    }
  }
  return out;
}

TEST(ReductionInBlocks, OnACopyGivesWhatOperateLeavesInACopy) {
  // Three surfaces (one empty) on a wavy sheet, a free point, marked triangles, a
  // feature and a name: the copy must match Operate on a clone down to the order of
  // points and triangles, and the source must stay as it was.
  MStlBase mesh;
  mesh.SetName(L"sheet");
  MStlSurface* surfaces[3] = {mesh.AddSurface(), mesh.AddSurface(), mesh.AddSurface()};
  mesh.AddPoint(-5000, -5000, 9000, true);
  const auto at = [&](int i, int j) {
    const double z = 800.0 * std::sin(0.15 * i) * std::cos(0.1 * j);
    return mesh.AddPoint(1000 * i, 1000 * j, static_cast<std::int32_t>(std::lround(z)), false);
  };
  for (int j = 0; j < 50; ++j)
    for (int i = 0; i < 50; ++i) {
      MStlSurface* surface = surfaces[i < 20 ? 0 : 2];
      mesh.AddTriangle(at(i, j), at(i + 1, j), at(i + 1, j + 1), surface)->data.SetMarked((i + j) % 7 == 0);
      mesh.AddTriangle(at(i, j), at(i + 1, j + 1), at(i, j + 1), surface);
    }
  mesh.AddFeature()->AddSurface(surfaces[2]);
  const auto source = Layout(mesh);

  MStlBaseOperatorReduceExBase::MParams params;
  params.distance = 60.0;
  params.blockTriangles = 700;
  MStlBase clone(mesh);
  const bool applied = MStlBaseOperatorReduceEx<MStlBaseContainer>(MStlBaseContainer(&clone), params).Operate();
  std::unique_ptr<MStlBase> copy;
  MStlBaseOperatorReduceEx<MStlBaseContainer> onCopy(MStlBaseContainer(&mesh), params);
  EXPECT_EQ(onCopy.OperateOnCopy(copy), applied);
  ASSERT_NE(copy, nullptr);
  EXPECT_LT(copy->GetNumberOfTriangles(), mesh.GetNumberOfTriangles() / 2);
  EXPECT_EQ(onCopy.GetTrianglesAfter(), copy->GetNumberOfTriangles());
  EXPECT_EQ(Layout(*copy), Layout(clone));
  EXPECT_EQ(Layout(mesh), source);
  EXPECT_EQ(std::wstring(copy->GetName()), L"sheet");
  ASSERT_EQ(copy->GetNumberOfFeatures(), 1u);
  EXPECT_EQ(copy->GetFeature(0)->GetSurface(0), copy->GetSurfaceList()->GetSurface(2));
  EXPECT_EQ(copy->GetXMin(), clone.GetXMin());
  EXPECT_EQ(copy->GetYMin(), clone.GetYMin());
  EXPECT_EQ(copy->GetZMin(), clone.GetZMin());
  EXPECT_EQ(copy->GetZMax(), clone.GetZMax());

  // Nothing worth removing, and nothing to reduce: no copy, and the same answer.
  params.distance = 0.001;
  EXPECT_TRUE(MStlBaseOperatorReduceEx<MStlBaseContainer>(MStlBaseContainer(&mesh), params).OperateOnCopy(copy));
  EXPECT_EQ(copy, nullptr);
  MStlBase empty;
  EXPECT_TRUE(MStlBaseOperatorReduceEx<MStlBaseContainer>(MStlBaseContainer(&empty), params).OperateOnCopy(copy));
  EXPECT_EQ(copy, nullptr);
}

}  // namespace
