#include <memory>

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "support/mesh_checks.h"
#include "support/registration.h"
#include "zor/model/stl.h"
#include "zor/model/stl_iterators.h"
#include "zor/model/unit.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace {

using zortest::RotationDegrees;

using Registration = MUserOperatorStlRegistration;
constexpr double kPi = 3.141592653589793;

using zortest::CountingDelegate;

MMTransformMatrix SmallPose() {
  MMTransformMatrix pose;
  pose.MakeRotation(MMVector3d(3000, -2000, 1000), MMVector3d(1, -2, 0.5), 6.0 * kPi / 180.0);
  MMTransformMatrix shift;
  shift.MakeTranslation(MMVector3d(1500, -800, 600));
  return pose.PreMultiply(shift);
}

// Sum of all point coordinates and the counts: equal before and after means untouched.
double Fingerprint(const MStlBase& mesh) {
  double sum = static_cast<double>(mesh.NumberOfPoints()) + 1e3 * static_cast<double>(mesh.GetNumberOfTriangles());
  for (auto it = MStlIteratorStlPointConst::Begin(&mesh); it != MStlIteratorStlPointConst::End(&mesh); ++it)
    sum += it->GetDouble()[0] + 3.0 * it->GetDouble()[1] + 7.0 * it->GetDouble()[2];
  return sum;
}

// A bumpy, asymmetric body of about 4k triangles and a copy of it under SmallPose.
struct RegistrationRun : ::testing::Test {
  void SetUp() override {
    fixed = zorgen::MakeSphere(20000, 32, 64, 3000);
    moving.reset(fixed->Clone(nullptr));
    moving->Transform(SmallPose());
    params.initialAlignment = Registration::AlignNone;
  }
  MMTransformMatrix Run(Registration& r, MStlBase* f, MStlBase* m) { return zortest::Register(r, params, f, m); }
  std::unique_ptr<MStlBase> fixed, moving;
  Registration::MParams params;
};

TEST_F(RegistrationRun, RecoversASmallPoseWithoutTouchingTheInputs) {
  params.errorTolerance = 0.0;
  params.iterationCount = 400;
  params.sampleCount = 3000;
  const double before[2] = {Fingerprint(*fixed), Fingerprint(*moving)};
  Registration r;
  const MMTransformMatrix found = Run(r, fixed.get(), moving.get());
  const MMTransformMatrix residual = found * SmallPose();
  EXPECT_LT(RotationDegrees(residual), 0.05);
  EXPECT_LT(Length(residual.GetTranslation()), 30.0);  // 0.03 mm on a 46 mm body
  EXPECT_LT(r.GetError(), 0.02);
  EXPECT_EQ(Fingerprint(*fixed), before[0]);
  EXPECT_EQ(Fingerprint(*moving), before[1]);
}

// Bit for bit, through every parallel stage: the reduction, the tournament of solvers
// (each stepping in its own task), matching and refinement.
TEST_F(RegistrationRun, ResultIsTheSameOnEveryRunAndThreadCount) {
  params.initialAlignment = Registration::AlignBall;
  Registration a, b, c;
  const MMTransformMatrix first = Run(a, fixed.get(), moving.get());
  const MMTransformMatrix second = Run(b, fixed.get(), moving.get());
  MMTransformMatrix single;
  tbb::task_arena one(1);
  one.execute([&] { single = Run(c, fixed.get(), moving.get()); });
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) {
      EXPECT_EQ(first.GetElement(i, j), second.GetElement(i, j));
      EXPECT_EQ(first.GetElement(i, j), single.GetElement(i, j));
    }
  EXPECT_EQ(a.GetError(), b.GetError());
  EXPECT_EQ(a.GetError(), c.GetError());
}

TEST_F(RegistrationRun, RefinementStopsOnARisingErrorAndKeepsThePoseOfItsError) {
  // No tolerance and room for many iterations: the run ends when an iteration would
  // raise the error, and that iteration's pose is dropped.
  params.errorTolerance = 0.0;
  params.iterationCount = 100000;
  params.sampleCount = 700;  // with these samples the error rises well within the limit
  Registration r;
  const MMTransformMatrix found = Run(r, fixed.get(), moving.get());
  EXPECT_GT(r.GetStageTimes().iterations, 5u);
  EXPECT_LT(r.GetStageTimes().iterations, 100000u);
  // GetError(pose) scores a pose relative to the result, so the result itself is
  // result * result there, and the stored error belongs to the stored pose.
  EXPECT_NEAR(r.GetError(found * found), r.GetError(), 1e-9);
  MMTransformMatrix worse = found * found;
  worse.AddTranslation(MMVector3d(500, 0, 0));
  EXPECT_GT(r.GetError(worse), r.GetError());
  // Each accepted iteration advances the report once, after the five stages.
  params.iterationCount = 3;
  auto delegate = std::make_shared<CountingDelegate>();
  Registration counted;
  counted.SetProgressDelegate(delegate);
  Run(counted, fixed.get(), moving.get());
  EXPECT_EQ(delegate->label, "Stl registration");
  EXPECT_EQ(delegate->total, 9u);
  EXPECT_EQ(delegate->done, 5u + counted.GetStageTimes().iterations);
  EXPECT_EQ(delegate->ends, 1);
}

TEST_F(RegistrationRun, NoIterationsLeaveTheStartScoredOnTheSamples) {
  params.iterationCount = 0;
  Registration r;
  const MMTransformMatrix found = Run(r, fixed.get(), moving.get());
  EXPECT_TRUE(found.IsIdentity());
  EXPECT_EQ(r.GetError(), r.GetError(MMTransformMatrix()));
  EXPECT_GT(r.GetError(), 0.1);
}

TEST_F(RegistrationRun, EdgeRunsEndWithTheIdentity) {
  EXPECT_EQ(Registration().GetError(MMTransformMatrix()), 0.0);
  // An empty moving mesh, an empty fixed mesh (no overlap can be expected) and an
  // overlap of 0: nothing counts, so the identity stands with error 0.
  MStlBase empty;
  const Registration::MParams defaults = params;
  for (int kase = 0; kase < 3; ++kase) {
    params.overlapFraction = kase == 2 ? 0.0 : defaults.overlapFraction;
    Registration r;
    const MMTransformMatrix found = Run(r, kase == 1 ? &empty : fixed.get(), kase == 0 ? &empty : moving.get());
    EXPECT_TRUE(found.IsIdentity()) << kase;
    EXPECT_EQ(r.GetError(), 0.0) << kase;
    EXPECT_EQ(r.GetInlierCount(), 0u) << kase;
  }
  // An overlap above 1, or one that rounds below zero, counts every sample.
  Registration all, negative;
  params.overlapFraction = 1.5;
  Run(all, fixed.get(), moving.get());
  params.overlapFraction = -0.5;
  Run(negative, fixed.get(), moving.get());
  EXPECT_GT(all.GetInlierCount(), 400u);
  EXPECT_EQ(negative.GetInlierCount(), all.GetInlierCount());
}

TEST_F(RegistrationRun, ItemsOfEachKindAndUnresolvableInputs) {
  // Mark every triangle and gather the one surface into a feature of its own.
  for (auto it = MStlIteratorStlTriangle::Begin(moving.get()); it != MStlIteratorStlTriangle::End(moving.get()); ++it)
    it->SetMarked(true);
  MStlSurface* surface = moving->GetSurfaceList()->GetSurface(0);
  MStlFeature* feature = moving->AddFeature();
  feature->AddSurface(surface);

  Registration reference;
  const MMTransformMatrix expected = Run(reference, fixed.get(), moving.get());
  for (const MStlItem& item :
       {MStlItem(moving.get()), MStlItem(surface), MStlItem(feature), MStlItem::MarkedTriangles(moving.get())}) {
    Registration r;
    r.SetAllParams(params);
    r.SetFixedStl(fixed.get(), nullptr);
    r.SetMovingItem(item, nullptr);
    ASSERT_TRUE(r.Operate());
    MMTransformMatrix found;
    r.GetTransformation(found);
    EXPECT_LT(RotationDegrees(found * expected.Inverted()), 1e-6) << item.GetType();
  }

  // An item that names no mesh: false, and the result of the run before stands.
  auto delegate = std::make_shared<CountingDelegate>();
  Registration r;
  Run(r, fixed.get(), moving.get());
  const double error = r.GetError();
  r.SetProgressDelegate(delegate);
  r.SetMovingStl(nullptr, nullptr);
  r.SetMovingItem(MStlItem(), nullptr);
  EXPECT_FALSE(r.Operate());
  EXPECT_EQ(r.GetError(), error);
  EXPECT_EQ(delegate->done, 0u);
  EXPECT_EQ(delegate->ends, 1);
  r.SetMovingStl(moving.get(), nullptr);
  r.SetFixedStl(nullptr, nullptr);
  EXPECT_FALSE(r.Operate());
  EXPECT_EQ(delegate->done, 1u);
}

// Whatever way a run ends, the readers tell of one run: its own, or for a run that
// could not start, the one before.
TEST_F(RegistrationRun, ReadersAlwaysDescribeOneRun) {
  // A matcher that stands on a copy made from an item (no reduction): a later run
  // that replaces the copy and fails must keep scoring as the first run did.
  params.reduceMeshes = false;
  double shift[16] = {1, 0, 0, 100, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  Registration r;
  r.SetAllParams(params);
  r.SetFixedItem(MStlItem(fixed.get()), shift);
  r.SetMovingStl(moving.get(), nullptr);
  ASSERT_TRUE(r.Operate());
  MMTransformMatrix found;
  r.GetTransformation(found);
  const MMTransformMatrix probe = found * SmallPose();
  const double before = r.GetError(probe);
  const std::uint64_t inliers = r.GetInlierCount();
  ASSERT_GT(before, 0.0);
  // A new placement and an item that names nothing: the run fails, and neither the
  // replaced copy nor the new placement reaches the old run's scores.
  r.SetFixedItem(MStlItem(), nullptr);
  EXPECT_FALSE(r.Operate());
  EXPECT_EQ(r.GetError(probe), before);
  EXPECT_EQ(r.GetInlierCount(), inliers);
  EXPECT_EQ(r.GetStageTimes().iterations, 0u);
  EXPECT_EQ(r.GetStageTimes().sampling, 0.0);
  // The unit is the run's: changing it afterwards changes no reported error.
  const double error = r.GetError();
  MUnit::SetIE(100);
  EXPECT_EQ(r.GetError(), error);
  EXPECT_EQ(r.GetError(probe), before);
  MUnit::SetIE(1000);
  // The same mesh on both sides: identity, no samples, nothing left of the run before,
  // and nothing reported.
  auto delegate = std::make_shared<CountingDelegate>();
  r.SetProgressDelegate(delegate);
  r.SetFixedStl(moving.get(), nullptr);
  ASSERT_TRUE(r.Operate());
  EXPECT_EQ(delegate->starts, 0);
  EXPECT_EQ(r.GetError(), 0.0);
  EXPECT_EQ(r.GetError(probe), 0.0);
  EXPECT_EQ(r.GetInlierCount(), 0u);
  // A placement that carries the moving mesh off the grid throws, and leaves the
  // operator as before any run.
  Registration thrown;
  Run(thrown, fixed.get(), moving.get());
  const double far[16] = {1, 0, 0, 2.2e9, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  thrown.SetMovingStl(moving.get(), far);
  EXPECT_THROW(thrown.Operate(), std::out_of_range);
  thrown.GetTransformation(found);
  EXPECT_TRUE(found.IsIdentity());
  EXPECT_EQ(thrown.GetError(), 0.0);
  EXPECT_EQ(thrown.GetError(probe), 0.0);
  EXPECT_EQ(thrown.GetInlierCount(), 0u);
}

}  // namespace
