// Many views into one frame: a ring of views found from random placements in any order,
// a view of another object left unplaced, a view given twice, and the pose graph that
// switches off a pair a loop contradicts.
#include "zor/pair/align_views.h"

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <tbb/global_control.h>

#include "generators/mesh_arrays.h"
#include "generators/poses.h"
#include "generators/scan_cases.h"
#include "generators/virtual_scans.h"
#include "zor/model/unit.h"
#include "zor/pair/detail/pose_graph.h"

namespace {

using ZorStlRegistration::AlignViews;
using ZorStlRegistration::ViewsOptions;
using ZorStlRegistration::ViewsResult;

struct PlacedViews {
  std::vector<std::unique_ptr<MStlBase>> meshes;
  std::vector<MMTransformMatrix> poses;  // the body's frame to each view's own
  std::vector<MStlBase*> Pointers() const {
    std::vector<MStlBase*> out;
    for (const auto& m : meshes) out.push_back(m.get());
    return out;
  }
};

zorgen::MeshArrays Moved(const zorgen::MeshArrays& m, const MMTransformMatrix& pose) {
  zorgen::MeshArrays out = m;
  for (std::size_t i = 0; i + 2 < out.xyz.size(); i += 3) {
    MMVector3d p(m.xyz[i], m.xyz[i + 1], m.xyz[i + 2]);
    pose.Transform(p, false);
    for (int k = 0; k < 3; ++k) out.xyz[i + k] = std::round(p[k]);
  }
  return out;
}

const zorgen::MeshArrays& Body() {
  static const zorgen::MeshArrays body =
      zorgen::ScaledToDiagonal(zorgen::MakeLumpyBody(3, 12000), 150.0 * MUnit::GetIE());
  return body;
}

// `views` of `Body()` seen from a ring of directions, each placed at random.
PlacedViews Views(const std::vector<zorgen::MeshArrays>& views, std::uint32_t seed) {
  PlacedViews out;
  std::mt19937 rng(seed);
  for (const zorgen::MeshArrays& v : views) {
    out.poses.push_back(zorgen::UniformPose(rng, 50.0 * MUnit::GetIE()));
    out.meshes.push_back(zorgen::MakeMesh(Moved(v, out.poses.back())));
  }
  return out;
}

std::vector<zorgen::MeshArrays> Scans(std::size_t count) {
  std::vector<zorgen::MeshArrays> out;
  for (const zorgen::VirtualScan& s : zorgen::VirtualScans(Body(), count, 0.02 * MUnit::GetIE(), 5))
    out.push_back(s.view);
  return out;
}

// How far view v's result lies from its truth relative to view `frame`: degrees, mm.
void Error(const ViewsResult& r, const PlacedViews& views, std::size_t v, std::size_t frame, double& degrees,
           double& mm) {
  MMTransformMatrix truth = views.poses[frame];
  truth.PostMultiply(views.poses[v].Inverted());
  MMTransformMatrix error = r.views[v].transform.Inverted();
  error.PostMultiply(truth);
  degrees = RotationDegrees(error);
  MMVector3d c(0.5 * (views.meshes[v]->GetXMin() + double(views.meshes[v]->GetXMax())),
               0.5 * (views.meshes[v]->GetYMin() + double(views.meshes[v]->GetYMax())),
               0.5 * (views.meshes[v]->GetZMin() + double(views.meshes[v]->GetZMax())));
  MMVector3d moved = c;
  error.Transform(moved, false);
  mm = Length(moved - c) / MUnit::GetIE();
}

TEST(AlignViews, PlacesARingOfViewsInAnyOrder) {
  const std::vector<zorgen::MeshArrays> scans = Scans(6);
  const PlacedViews views = Views(scans, 1);
  const ViewsResult r = AlignViews(views.Pointers(), nullptr, ViewsOptions());
  ASSERT_EQ(r.views.size(), 6u);
  EXPECT_LE(r.pairs.size(), 3u * 5u);  // the budget
  for (std::size_t v = 0; v < 6; ++v) {
    ASSERT_TRUE(r.views[v].placed) << v;
    EXPECT_TRUE(r.views[v].confirmed) << v;
    double degrees = 0.0, mm = 0.0;
    Error(r, views, v, 0, degrees, mm);
    EXPECT_LT(degrees, 0.3) << v;
    EXPECT_LT(mm, 0.3) << v;
  }
  EXPECT_TRUE(r.views[0].transform.IsIdentity());

  // The same views in another order: the frame is the new first view's, and every view
  // lies where it truly does relative to it.
  const std::vector<std::size_t> order = {3, 0, 5, 1, 4, 2};
  PlacedViews shuffled;
  for (const std::size_t k : order) {
    shuffled.poses.push_back(views.poses[k]);
    shuffled.meshes.push_back(std::make_unique<MStlBase>(*views.meshes[k]));
  }
  const ViewsResult s = AlignViews(shuffled.Pointers(), nullptr, ViewsOptions());
  for (std::size_t v = 0; v < 6; ++v) {
    ASSERT_TRUE(s.views[v].placed) << v;
    double degrees = 0.0, mm = 0.0;
    Error(s, shuffled, v, 0, degrees, mm);
    EXPECT_LT(degrees, 0.3) << v;
    EXPECT_LT(mm, 0.3) << v;
  }
}

TEST(AlignViews, LeavesAViewOfAnotherObjectUnplacedAndPlacesAViewGivenTwice) {
  std::vector<zorgen::MeshArrays> scans = Scans(5);
  const zorgen::MeshArrays other = zorgen::ScaledToDiagonal(zorgen::MakeLumpyBody(77, 12000), 150.0 * MUnit::GetIE());
  scans.push_back(zorgen::VirtualScans(other, 4, 0.0, 2)[0].view);
  scans.push_back(scans[2]);
  const PlacedViews views = Views(scans, 2);
  const ViewsResult r = AlignViews(views.Pointers(), nullptr, ViewsOptions());
  EXPECT_FALSE(r.views[5].placed);
  for (const std::size_t v : {1, 2, 3, 4, 6}) {
    ASSERT_TRUE(r.views[v].placed) << v;
    double degrees = 0.0, mm = 0.0;
    Error(r, views, v, 0, degrees, mm);
    EXPECT_LT(degrees, 0.3) << v;
  }
  // Bit-identical on one thread.
  const ViewsResult again = [&] {
    const tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
    return AlignViews(views.Pointers(), nullptr, ViewsOptions());
  }();
  for (std::size_t v = 0; v < r.views.size(); ++v)
    for (int e = 0; e < 16; ++e)
      EXPECT_EQ(r.views[v].transform.m[e / 4][e % 4], again.views[v].transform.m[e / 4][e % 4]);
}

TEST(AlignViews, TakesAReferenceAsTheFrameAndRefusesEmptyViews) {
  const std::vector<zorgen::MeshArrays> scans = Scans(4);
  const PlacedViews views = Views(scans, 3);
  const std::unique_ptr<MStlBase> model = zorgen::MakeMesh(Body());
  const ViewsResult r = AlignViews(views.Pointers(), model.get(), ViewsOptions());
  for (std::size_t v = 0; v < 4; ++v) {
    ASSERT_TRUE(r.views[v].placed) << v;
    MMTransformMatrix error = r.views[v].transform;
    error.PostMultiply(views.poses[v]);  // back to the body's frame: the identity
    EXPECT_LT(RotationDegrees(error), 0.3) << v;
  }
  MStlBase empty;
  std::vector<MStlBase*> withEmpty = views.Pointers();
  withEmpty.push_back(&empty);
  EXPECT_THROW(AlignViews(withEmpty, nullptr, ViewsOptions()), ZorStlRegistration::InputError);
  EXPECT_THROW(AlignViews({nullptr}, nullptr, ViewsOptions()), ZorStlRegistration::InputError);
  const ViewsResult none = AlignViews({}, nullptr, ViewsOptions());
  EXPECT_TRUE(none.views.empty());
  const ViewsResult one = AlignViews({views.meshes[0].get()}, nullptr, ViewsOptions());
  EXPECT_TRUE(one.views[0].placed && one.views[0].transform.IsIdentity());
}

// Views given their poses, one of them half a degree and half a millimetre off: the joint
// refinement brings it back onto the others and leaves the right ones where they are.
TEST(AlignViews, RefinesGivenPosesTogether) {
  const std::vector<zorgen::MeshArrays> scans = Scans(6);
  const PlacedViews views = Views(scans, 5);
  ViewsOptions options;
  options.refine = true;
  for (std::size_t v = 0; v < 6; ++v) {
    MMTransformMatrix truth = views.poses[0];
    truth.PostMultiply(views.poses[v].Inverted());
    options.initial.push_back(truth);
  }
  MMTransformMatrix nudge;
  nudge.MakeRotation(MMVector3d(1000.0, 0.0, 0.0), MMVector3d(1.0, 2.0, 0.5), 0.5 * M_PI / 180.0);
  nudge.AddTranslation(MMVector3d(300.0, -300.0, 200.0));
  options.initial[3].PreMultiply(nudge);
  const ViewsResult r = AlignViews(views.Pointers(), nullptr, options);
  EXPECT_GT(r.refinedPairs, 5u);
  for (std::size_t v = 0; v < 6; ++v) {
    ASSERT_TRUE(r.views[v].placed && r.views[v].confirmed);
    double degrees = 0.0, mm = 0.0;
    Error(r, views, v, 0, degrees, mm);
    EXPECT_LT(degrees, 0.05) << v;
    EXPECT_LT(mm, 0.05) << v;
  }
  options.initial.pop_back();
  EXPECT_THROW(AlignViews(views.Pointers(), nullptr, options), ZorStlRegistration::InputError);
}

// A square of four nodes with both diagonals; one diagonal's measure is turned 5 degrees.
TEST(PoseGraph, SwitchesOffThePairALoopContradictsAndKeepsABridge) {
  namespace d = ZorStlRegistration::detail;
  std::vector<MMTransformMatrix> truth(5);
  std::mt19937 rng(9);
  for (std::size_t k = 1; k < 5; ++k) truth[k] = zorgen::UniformPose(rng, 40.0);
  std::vector<MMVector3d> points, normals;
  for (int i = 0; i < 200; ++i) {
    const double a = 0.1 * i, b = 0.37 * i;
    normals.emplace_back(std::cos(a) * std::sin(b), std::sin(a) * std::sin(b), std::cos(b));
    points.push_back(normals.back() * 30.0);
  }
  std::vector<d::GraphEdge> edges;
  const std::size_t ends[][2] = {{0, 1}, {1, 2}, {2, 3}, {0, 3}, {0, 2}, {1, 3}, {3, 4}};
  for (const auto& e : ends) {
    d::GraphEdge edge;
    edge.fixed = e[0];
    edge.moving = e[1];
    edge.transform = truth[e[0]].Inverted();
    edge.transform.PostMultiply(truth[e[1]]);
    edge.points = points;
    edge.normals = normals;
    edges.push_back(edge);
  }
  MMTransformMatrix turn;
  turn.MakeRotation(MMVector3d(), MMVector3d(0, 0, 1), 5.0 * M_PI / 180.0);
  edges[4].transform.PostMultiply(turn);
  const d::GraphResult g = d::SolvePoseGraph(5, edges, 0.5);
  for (std::size_t k = 0; k < edges.size(); ++k) EXPECT_EQ(g.kept[k], k != 4) << k;
  for (std::size_t k = 0; k < 5; ++k) {
    ASSERT_TRUE(g.placed[k]);
    MMTransformMatrix error = g.poses[k].Inverted();
    error.PostMultiply(truth[k]);
    EXPECT_LT(RotationDegrees(error), 1e-6) << k;
  }
}

}  // namespace
