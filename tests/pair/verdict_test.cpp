// The verdict on a pose: a right pose of a partial scan is sound, and a wrong pose that
// still leaves part of the moving mesh on the fixed one is doubtful. And the reports a
// pair call gives while it runs.
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/poses.h"
#include "generators/scan_cases.h"
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
  const ZorStlRegistration::Verdict right =
      ZorStlRegistration::JudgePose(*scans.moving, *scans.fixed, MMTransformMatrix(), kDistance);
  EXPECT_GT(ZorStlRegistration::Support(right), ZorStlRegistration::Support(v) + 0.1);
  EXPECT_TRUE(ZorStlRegistration::Better(right, v));
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
  // The operator's reduction, and the clustered copies of meshes counted as large.
  for (const std::size_t searchTriangles : {ZorStlRegistration::PairOptions().searchTriangles, std::size_t{5000}}) {
    auto recorder = std::make_shared<StageRecorder>();
    ZorStlRegistration::PairOptions options;
    options.searchTriangles = searchTriangles;
    ZorStlRegistration::AlignPair(*moving, *fixed, options, recorder);
    ASSERT_GE(recorder->stages.size(), 3u);
    EXPECT_EQ(recorder->stages.front().label, "Reduction");
    EXPECT_EQ(recorder->stages.front().done, recorder->stages.front().total);
    EXPECT_EQ(recorder->stages.back().label, "Finish");
    EXPECT_EQ(recorder->stages.back().done, recorder->stages.back().total);
  }
}

}  // namespace

namespace {

// The pair call's default: a bumpy ball has no axes to start from, so the automatic
// strategy's tournament lands off and its finished result does not lay the copy fully
// on the body; the feature strategy's poses are tried beside its twins, and the best,
// finished, is the right pose and is sound.
TEST(AlignPair, TriesTheFeatureStrategyWhenTheAutomaticResultIsDoubtful) {
  const zorgen::MeshArrays body = zorgen::MakeShape(zorgen::Shape::Bumpy, 10000);
  const auto fixed = zorgen::MakeMesh(body);
  const MMTransformMatrix pose = zorgen::DrawPose(3, 30000.0);
  const auto moving = zorgen::MakeMovedCopy(body, pose);
  const ZorStlRegistration::PairResult r =
      ZorStlRegistration::AlignPair(*moving, *fixed, ZorStlRegistration::PairOptions());
  EXPECT_TRUE(r.triedFeatures);
  EXPECT_FALSE(r.verdict.doubtful) << r.verdict.reason;
  // The copy lies on the body again (the ball's bumps repeat under a half turn, which
  // lays it on itself as well): all of it, within a few micrometres.
  EXPECT_GT(r.verdict.overlap, 0.999);
  EXPECT_LT(r.verdict.rms, 5.0);
}

}  // namespace

namespace {

// Cases as scans bring them, from a blob without symmetry scaled to 200 mm.
zorgen::ScanCase Case(zorgen::ScanKind kind, std::uint64_t seed) {
  static const zorgen::MeshArrays body = zorgen::ScaledToDiagonal(zorgen::MakeLumpyBody(11, 12000), 200000.0);
  return zorgen::MakeScanCase(body, kind, seed);
}

ZorStlRegistration::Verdict Judge(const zorgen::ScanCase& c, const MMTransformMatrix& pose) {
  auto moving = zorgen::MakeMesh(c.moving);
  auto fixed = zorgen::MakeMesh(c.fixed);
  const ZorStlRegistration::PairSurfaces pair(*moving, *fixed);
  return ZorStlRegistration::JudgePose(pair, pose,
                                       pair.VerdictDistance(0.1 * ZorStlRegistration::PairVerdictDistance()));
}

// The part standing on a table beside a box and a ball, the fixed mesh the part alone:
// under the true pose the table and the objects lie outside the part's solid and are
// clutter, not contradiction; under a pose turned by 30 degrees the part passes through
// the fixed solid.
TEST(Verdict, APartOnATableIsSoundInItsRightPoseAndDoubtfulInAWrongOne) {
  const zorgen::ScanCase c = Case(zorgen::ScanKind::Scene, 3);
  const MMTransformMatrix truth = c.pose.Inverted();
  const ZorStlRegistration::Verdict right = Judge(c, truth);
  EXPECT_FALSE(right.doubtful) << right.reason;
  EXPECT_LT(right.overlap, 0.8);  // the table and the objects do not lie on the part
  EXPECT_GT(right.fixedOverlap, 0.99);
  MMTransformMatrix turn;
  turn.MakeRotation(MMVector3d(), MMVector3d(0.3, 1.0, 0.2), 0.52);
  const ZorStlRegistration::Verdict wrong = Judge(c, turn * truth);
  EXPECT_TRUE(wrong.doubtful);
  EXPECT_GT(ZorStlRegistration::Support(right), ZorStlRegistration::Support(wrong) + 0.3);
}

// Noise of 1 mm (0.5% of the diagonal, per axis) on the moving mesh: the distance the
// verdict measures within follows it, and the right pose stays sound; loose fragments
// take no part.
TEST(Verdict, NoiseOfAMillimetreAndLooseFragmentsLeaveTheRightPoseSound) {
  for (const zorgen::ScanKind kind : {zorgen::ScanKind::Noise, zorgen::ScanKind::Debris}) {
    const zorgen::ScanCase c = Case(kind, 5);
    const ZorStlRegistration::Verdict v = Judge(c, c.pose.Inverted());
    EXPECT_FALSE(v.doubtful) << zorgen::ScanKindName(kind) << ": " << v.reason;
    EXPECT_GT(v.overlap, 0.97) << zorgen::ScanKindName(kind);
    if (kind == zorgen::ScanKind::Noise) {
      EXPECT_GT(v.distance, 2000.0);  // three noises and more
    } else {
      EXPECT_GT(v.loose, 0.3);
    }
  }
}

// The pair call end to end on such scans: it finds the pose and calls it sound.
TEST(AlignPair, FindsAndTrustsThePoseOfAPartAmongDebrisAndOnATable) {
  for (const zorgen::ScanKind kind : {zorgen::ScanKind::Debris, zorgen::ScanKind::Scene}) {
    const zorgen::ScanCase c = Case(kind, 7);
    auto moving = zorgen::MakeMesh(c.moving);
    auto fixed = zorgen::MakeMesh(c.fixed);
    const ZorStlRegistration::PairResult r =
        ZorStlRegistration::AlignPair(*moving, *fixed, ZorStlRegistration::PairOptions());
    EXPECT_FALSE(r.verdict.doubtful) << zorgen::ScanKindName(kind) << ": " << r.verdict.reason;
    const MMTransformMatrix residual = r.transform * c.pose;
    for (int row = 0; row < 3; ++row) {
      for (int col = 0; col < 3; ++col)
        EXPECT_NEAR(residual.GetElement(row, col), row == col ? 1.0 : 0.0, 1e-3) << zorgen::ScanKindName(kind);
      EXPECT_NEAR(residual.GetElement(row, 3), 0.0, 200.0) << zorgen::ScanKindName(kind);
    }
  }
}

}  // namespace

namespace {

// Whether each point of `mesh` (made from the case's moving arrays, whose joined corners
// it welds) stands for a place of the fixed surface: 1 or 0, or -1 where points of both
// kinds were welded into it.
std::vector<int> OnFixed(const zorgen::ScanCase& c, const MStlBase& mesh) {
  std::map<std::array<double, 3>, int> truth;
  for (std::size_t i = 0; i < c.onFixed.size(); ++i) {
    const std::array<double, 3> at{c.moving.xyz[3 * i], c.moving.xyz[3 * i + 1], c.moving.xyz[3 * i + 2]};
    const auto [it, added] = truth.emplace(at, c.onFixed[i]);
    if (!added && it->second != c.onFixed[i]) it->second = -1;
  }
  std::vector<int> result;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    const MMVector3d q = p->GetDouble();
    const auto it = truth.find({q[0], q[1], q[2]});
    result.push_back(it == truth.end() ? -1 : it->second);
  }
  return result;
}

// Which points a deviation map shows apart: on a part standing on a table, the table and
// the objects beside it; loose fragments; but not a dent pressed into the part, however
// deep, nor a bump raised from it within the far distance.
TEST(Counterparts, TheTableAndLooseFragmentsHaveNoneAndADentOrABumpHasOne) {
  {
    const zorgen::ScanCase c = Case(zorgen::ScanKind::Scene, 3);
    auto moving = zorgen::MakeMesh(c.moving);
    auto fixed = zorgen::MakeMesh(c.fixed);
    const ZorStlRegistration::PairSurfaces pair(*moving, *fixed);
    const double distance = pair.VerdictDistance(0.1 * ZorStlRegistration::PairVerdictDistance());
    const std::vector<std::uint8_t> flags =
        ZorStlRegistration::Counterparts(pair, c.pose.Inverted(), distance, 5.0 * distance);
    const std::vector<int> truth = OnFixed(c, *moving);
    std::size_t part = 0, partMatched = 0, clutter = 0, clutterApart = 0;
    for (std::size_t i = 0; i < flags.size(); ++i) {
      if (truth[i] < 0) continue;
      (truth[i] != 0 ? part : clutter) += 1;
      (truth[i] != 0 ? partMatched : clutterApart) += truth[i] != 0 ? flags[i] : 1 - flags[i];
    }
    EXPECT_GT(partMatched, 0.99 * part);
    // The table is flat under the part, where it touches it: those points stay.
    EXPECT_GT(clutterApart, 0.9 * clutter);
  }
  {
    const zorgen::ScanCase c = Case(zorgen::ScanKind::Debris, 3);
    auto moving = zorgen::MakeMesh(c.moving);
    auto fixed = zorgen::MakeMesh(c.fixed);
    const ZorStlRegistration::PairSurfaces pair(*moving, *fixed);
    const std::vector<std::uint8_t> flags = ZorStlRegistration::Counterparts(pair, c.pose.Inverted(), 900.0, 4500.0);
    const std::vector<int> truth = OnFixed(c, *moving);
    for (std::size_t i = 0; i < flags.size(); ++i) {
      if (truth[i] >= 0) {
        ASSERT_EQ(flags[i], truth[i]) << i;
      }
    }
  }
  // A closed body, and a copy with a dent 10 mm deep and a bump 3 mm high (the far
  // distance is 4.5 mm), each a few millimetres across, pressed along the lines from the
  // centre.
  const zorgen::MeshArrays body = zorgen::ScaledToDiagonal(zorgen::MakeLumpyBody(11, 12000), 200000.0);
  zorgen::MeshArrays changed = body;
  const std::size_t points = body.xyz.size() / 3;
  MMVector3d centre;
  for (std::size_t i = 0; i < points; ++i)
    centre += MMVector3d(body.xyz[3 * i], body.xyz[3 * i + 1], body.xyz[3 * i + 2]) * (1.0 / points);
  std::vector<std::uint8_t> moved(points, 0);
  for (const auto& [seed, depth] : {std::pair<std::size_t, double>{0, -10000.0}, {points / 2, 3000.0}}) {
    const MMVector3d at(body.xyz[3 * seed], body.xyz[3 * seed + 1], body.xyz[3 * seed + 2]);
    for (std::size_t i = 0; i < points; ++i) {
      MMVector3d p(body.xyz[3 * i], body.xyz[3 * i + 1], body.xyz[3 * i + 2]);
      if (Length(p - at) > 4000.0) continue;
      MMVector3d out = p - centre;
      Normalize(out);
      p = p + out * depth;
      for (int k = 0; k < 3; ++k) changed.xyz[3 * i + k] = p[k];
      moved[i] = 1;
    }
  }
  auto moving = zorgen::MakeMesh(changed);
  auto fixed = zorgen::MakeMesh(body);
  const ZorStlRegistration::PairSurfaces pair(*moving, *fixed);
  const std::vector<std::uint8_t> flags = ZorStlRegistration::Counterparts(pair, MMTransformMatrix(), 900.0, 4500.0);
  ASSERT_EQ(flags.size(), points);
  std::size_t dented = 0;
  for (std::size_t i = 0; i < points; ++i) {
    EXPECT_EQ(flags[i], 1) << i;
    dented += moved[i];
  }
  EXPECT_GT(dented, 10u);
}

}  // namespace
