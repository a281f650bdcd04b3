// The clustered copy a large mesh is searched on, and the pair call on it: the copy keeps
// the mesh's own points in their order at about the size asked for, and a pair searched
// on such copies finds the right pose, the same at every thread count.
#include "zor/pair/detail/search_copy.h"

#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/poses.h"
#include "generators/scan_cases.h"
#include "zor/model/mesh_builder.h"
#include "zor/model/stl.h"
#include "zor/pair/pair_registration.h"

namespace {

using ZorStlRegistration::detail::ClusteredSearchCopy;

TEST(ClusteredSearchCopy, KeepsTheMeshsOwnPointsInOrderAtAboutTheSizeAsked) {
  const auto mesh = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Featured, 60000));
  const std::unique_ptr<MStlBase> copy = ClusteredSearchCopy(*mesh, 3000);
  ASSERT_NE(copy, nullptr);
  EXPECT_GT(copy->GetNumberOfTriangles(), 1500u);
  EXPECT_LE(copy->GetNumberOfTriangles(), 4500u);
  // Every point is one of the mesh's, exactly, and they come in the mesh's list order.
  std::vector<const MStlPoint*> order;
  for (const MStlPoint* p = mesh->GetFirstPoint(); p != nullptr; p = p->GetNext()) order.push_back(p);
  std::size_t last = 0;
  bool first = true;
  for (const MStlPoint* p = copy->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    const MMVector3i at = p->GetInt();
    const MStlPoint* same = mesh->GetPoint(at[0], at[1], at[2]);
    ASSERT_NE(same, nullptr);
    std::size_t rank = 0;
    while (order[rank] != same) ++rank;
    EXPECT_TRUE(first || rank > last);
    first = false;
    last = rank;
  }
  // The copy stands for the whole body: its box is nearly the mesh's.
  EXPECT_NEAR(copy->GetXMax() - double(copy->GetXMin()), mesh->GetXMax() - double(mesh->GetXMin()),
              0.05 * (mesh->GetXMax() - double(mesh->GetXMin())));
}

TEST(ClusteredSearchCopy, ASmallMeshIsCopiedWholeAndAMeshWithoutTrianglesKeepsItsPoints) {
  const auto small = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Featured, 2000));
  const std::unique_ptr<MStlBase> whole = ClusteredSearchCopy(*small, 50000);
  EXPECT_EQ(whole->GetNumberOfTriangles(), small->GetNumberOfTriangles());
  EXPECT_EQ(whole->NumberOfPoints(), small->NumberOfPoints());

  const double xyz[] = {0, 0, 0, 1000, 0, 0, 0, 1000, 0};
  const std::unique_ptr<MStlBase> points = BuildStl(xyz, 3, nullptr, 0);
  const std::unique_ptr<MStlBase> copy = ClusteredSearchCopy(*points, 10);
  EXPECT_EQ(copy->GetNumberOfTriangles(), 0u);
  EXPECT_EQ(copy->NumberOfPoints(), 3u);

  const MStlBase empty;
  EXPECT_EQ(ClusteredSearchCopy(empty, 10)->NumberOfPoints(), 0u);
}

// A part among debris, a part of a partial scan and a noisy copy, searched on clustered
// copies and finished first on them (the option set low, so that these meshes count as
// large): the right pose, sound, and bit for bit the same on one thread and on two.
TEST(AlignPair, SearchedOnClusteredCopiesFindsTheRightPoseAtEveryThreadCount) {
  const zorgen::MeshArrays body = zorgen::ScaledToDiagonal(zorgen::MakeLumpyBody(5, 40000), 200000.0);
  for (const zorgen::ScanKind kind : {zorgen::ScanKind::Debris, zorgen::ScanKind::Partial, zorgen::ScanKind::Noisy}) {
    const zorgen::ScanCase c = zorgen::MakeScanCase(body, kind, 17);
    ZorStlRegistration::PairOptions options;
    options.searchTriangles = 2000;
    std::vector<MMTransformMatrix> found;
    for (int threads : {1, 2}) {
      const auto moving = zorgen::MakeMesh(c.moving);
      const auto fixed = zorgen::MakeMesh(c.fixed);
      ASSERT_GT(moving->GetNumberOfTriangles(), 4 * options.searchTriangles);
      ZorStlRegistration::PairResult r;
      tbb::task_arena(threads).execute([&] { r = ZorStlRegistration::AlignPair(*moving, *fixed, options); });
      EXPECT_FALSE(r.verdict.doubtful) << r.verdict.reason;
      EXPECT_LT(RotationDegrees(r.transform * c.pose), 0.1);
      found.push_back(r.transform);
    }
    for (int r = 0; r < 4; ++r)
      for (int k = 0; k < 4; ++k) EXPECT_EQ(found[0].GetElement(r, k), found[1].GetElement(r, k));
  }
}

}  // namespace
