// The verdict on a pose: a right pose of a partial scan is sound, and a wrong pose that
// still leaves part of the moving mesh on the fixed one is doubtful. And the reports a
// pair call gives while it runs.
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/poses.h"
#include "zor/model/stl.h"
#include "zor/pair/pair_registration.h"

namespace {

// Removes every triangle of `mesh` whose centroid lies below height `z` (micrometres),
// leaving an open scan-like patch.
void CutBelow(MStlBase& mesh, double z) {
  std::set<MStlTriangleCell*> below;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext())
    for (std::uint16_t k = 0; k < p->GetNumberOfNeighbourTriangles(); ++k) {
      MStlTriangleCell* cell = p->GetNeighbourTriangle(k);
      const MStlTriangle* t = cell->GetData();
      if (t->GetVertex(0)[2] + t->GetVertex(1)[2] + t->GetVertex(2)[2] < 3.0 * z) below.insert(cell);
    }
  for (MStlTriangleCell* cell : below) mesh.RemoveTriangle(cell, MStlBase::RemoveFreePoints);
}

constexpr double kDistance = 900.0;  // the pair call's verdict distance with the default reduction bound

// A bumpy sphere seen from above (the fixed scan) and the same body seen farther
// around (the moving scan): where the moving scan goes beyond the fixed one, its
// points lie past the fixed scan's border.
struct Scans {
  std::unique_ptr<MStlBase> fixed = zorgen::MakeSphere(20000.0, 40, 80, 2000.0);
  std::unique_ptr<MStlBase> moving = zorgen::MakeSphere(20000.0, 36, 72, 2000.0);
  Scans() {
    CutBelow(*fixed, 0.0);
    CutBelow(*moving, -9000.0);
  }
};

TEST(Verdict, ARightPoseOfAPartialScanIsSound) {
  const Scans scans;
  const ZorStlRegistration::Verdict v =
      ZorStlRegistration::JudgePose(*scans.moving, *scans.fixed, MMTransformMatrix(), kDistance);
  EXPECT_FALSE(v.doubtful) << v.reason;
  EXPECT_GT(v.overlap, 0.6);
  EXPECT_LT(v.inconsistent, 0.05);  // what goes beyond the fixed scan lies past its border
}

TEST(Verdict, AWrongPoseOverTheFixedSurfaceIsDoubtfulThoughPartOfItTouches) {
  const Scans scans;
  MMTransformMatrix turn;
  turn.MakeRotation(MMVector3d(), MMVector3d(0, 0, 1), 0.6);  // the bumps no longer meet
  const ZorStlRegistration::Verdict v = ZorStlRegistration::JudgePose(*scans.moving, *scans.fixed, turn, kDistance);
  EXPECT_TRUE(v.doubtful);
  EXPECT_GT(v.overlap, 0.3);  // as much as lies on the fixed surface would pass for a small overlap
  EXPECT_GT(v.inconsistent, 0.35);
  EXPECT_NE(v.reason.find("off the fixed surface"), std::string::npos) << v.reason;
}

}  // namespace

namespace {

// Every report of a pair call, in the order the reports start, with its last count.
class StageRecorder : public ZorSDK::Common::IProgressDelegate {
public:
  void OnStart(const std::string& label, std::size_t total) override { stages.push_back({label, 0, total}); }
  void OnProgress(const std::string& label, std::size_t done, std::size_t) override {
    ASSERT_EQ(stages.back().label, label);
    EXPECT_GE(done, stages.back().done);  // never back
    stages.back().done = done;
  }
  void OnEnd(const std::string&) override {}
  struct Stage {
    std::string label;
    std::size_t done, total;
  };
  std::vector<Stage> stages;
};

// A large pair's report moves through the reduction of both meshes (cut into several
// blocks) to its end, then the search, then the finish's rounds.
TEST(PairProgress, TheReductionAndTheFinishReportTheirSteps) {
  const auto fixed = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Featured, 120000));
  const auto moving =
      zorgen::MakeMovedCopy(zorgen::MakeShape(zorgen::Shape::Featured, 100000), zorgen::DrawPose(5, 20000.0));
  auto recorder = std::make_shared<StageRecorder>();
  ZorStlRegistration::PairOptions options;
  ZorStlRegistration::AlignPair(*moving, *fixed, options, recorder);
  ASSERT_GE(recorder->stages.size(), 3u);
  EXPECT_EQ(recorder->stages.front().label, "Reduction");
  EXPECT_EQ(recorder->stages.front().done, recorder->stages.front().total);
  EXPECT_EQ(recorder->stages.back().label, "Finish");
  EXPECT_EQ(recorder->stages.back().done, recorder->stages.back().total);
}

}  // namespace

namespace {

// The pair call's default: a bumpy ball has no axes to start from, so the automatic
// strategy's tournament lands off, its result is doubtful, and the feature strategy is
// tried as well; the better of the two, finished, is the right pose and is sound.
TEST(AlignPair, TriesTheFeatureStrategyWhenTheAutomaticResultIsDoubtful) {
  const zorgen::MeshArrays body = zorgen::MakeShape(zorgen::Shape::Bumpy, 10000);
  const auto fixed = zorgen::MakeMesh(body);
  const MMTransformMatrix pose = zorgen::DrawPose(3, 30000.0);
  const auto moving = zorgen::MakeMovedCopy(body, pose);
  const ZorStlRegistration::PairResult r =
      ZorStlRegistration::AlignPair(*moving, *fixed, ZorStlRegistration::PairOptions());
  EXPECT_TRUE(r.triedFeatures);
  EXPECT_EQ(r.used, MUserOperatorStlRegistration::AlignFeatures);
  EXPECT_FALSE(r.verdict.doubtful) << r.verdict.reason;
  // The copy lies on the body again (the ball's bumps repeat under a half turn, which
  // lays it on itself as well): all of it, within a few micrometres.
  EXPECT_GT(r.verdict.overlap, 0.999);
  EXPECT_LT(r.verdict.rms, 5.0);
}

}  // namespace
