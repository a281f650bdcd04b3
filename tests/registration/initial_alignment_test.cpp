#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <oneapi/tbb/task_arena.h>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/small_meshes.h"
#include "support/registration.h"
#include "zor/alignment/principal_frame.h"
#include "zor/model/mesh_builder.h"
#include "zor/model/stl.h"
#include "zor/model/stl_iterators.h"
#include "zor/registration/detail/solver_tournament.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace {

using zortest::LargestGap;
using zortest::Register;

using Registration = MUserOperatorStlRegistration;
using namespace ZorStlRegistration::detail;
constexpr double kPi = 3.141592653589793;

std::unique_ptr<MStlBase> Transformed(std::unique_ptr<MStlBase> mesh, const double (&m)[16]) {
  MMTransformMatrix t;
  t.MakeFromDouble16(m);
  mesh->Transform(t);
  return mesh;
}

// The triangles of `mesh` whose corners all have lo <= z <= hi, as a mesh of their own.
std::unique_ptr<MStlBase> SliceAlongZ(const MStlBase& mesh, double lo, double hi) {
  std::vector<double> xyz;
  std::vector<std::uint32_t> idx;
  for (auto t = MStlIteratorStlTriangleConst::Begin(&mesh); t != MStlIteratorStlTriangleConst::End(&mesh); ++t) {
    bool inside = true;
    for (std::size_t k = 0; k < 3; ++k) inside = inside && t->GetVertex(k)[2] >= lo && t->GetVertex(k)[2] <= hi;
    if (!inside) continue;
    for (std::size_t k = 0; k < 3; ++k) {
      const MMVector3d v = t->GetVertex(k);
      idx.push_back(static_cast<std::uint32_t>(xyz.size() / 3));
      xyz.insert(xyz.end(), {v[0], v[1], v[2]});
    }
  }
  return BuildStl(xyz.data(), xyz.size() / 3, idx.data(), idx.size() / 3);
}

MMTransformMatrix LargePose() {
  MMTransformMatrix pose;
  pose.MakeRotation(MMVector3d(), MMVector3d(0.3, -1, 0.6), 130.0 * kPi / 180.0);
  MMTransformMatrix shift;
  shift.MakeTranslation(MMVector3d(25000, -40000, 12000));
  return pose.PreMultiply(shift);
}

TEST(SolverTournament, FieldShrinksGeometricallyToOneWinner) {
  const auto fixed = zorgen::MakeSphere(20000, 16, 32, 3000);
  ZorStlRegistration::NormalOrientationIndex index;
  index.SetMesh(fixed.get());
  std::vector<MMVector3d> samples;
  for (auto it = fixed->BeginPoint(); it != fixed->EndPoint() && samples.size() < 24; ++it)
    samples.push_back(it->GetDouble());
  const auto rotations = ZorStlRegistration::MakeSphereRotations(ZorStlRegistration::MakeDirectionSphere(4), 8);
  std::vector<std::size_t> field;
  const RegistrationSolver best =
      RunSolverTournament(index, rotations, MMVector3d(), MMVector3d(), samples, nullptr, 20, &field);
  const std::vector<std::size_t> expected = {528, 386, 282, 206, 151, 110, 81, 59, 43, 31,
                                             23,  17,  12,  9,   7,   5,   4,  3,  2,  1};
  EXPECT_EQ(field, expected);
  EXPECT_TRUE(best.errorKnown);
  EXPECT_EQ(best.activeCount, 20u);
  // Two spins give four starts: the field can stay whole in a round.
  std::vector<std::size_t> small;
  RunSolverTournament(index, ZorStlRegistration::MakeSphereRotations(ZorStlRegistration::MakeDirectionSphere(0), 2),
                      MMVector3d(), MMVector3d(), samples, nullptr, 20, &small);
  EXPECT_EQ(small.front(), 4u);
  EXPECT_EQ(small.back(), 1u);
}

TEST(SolverTournament, TiesGoToTheSimplerPose) {
  MMTransformMatrix identity, shift, spinX, general;
  shift.MakeTranslation(MMVector3d(1, 2, 3));
  spinX.MakeRotation(MMVector3d(5, 5, 5), MMVector3d(1, 0, 0), 0.3);
  general.MakeRotation(MMVector3d(), MMVector3d(1, 1, 0), 0.3);
  EXPECT_EQ(PoseSimplicity(identity), 0);
  EXPECT_EQ(PoseSimplicity(shift), 1);
  EXPECT_EQ(PoseSimplicity(spinX), 2);  // X is the last of the Z-Y-X angles
  EXPECT_EQ(PoseSimplicity(general), 3);

  const auto solver = [](const MMTransformMatrix& pose, double error) {
    RegistrationSolver s(nullptr, 1000);
    s.moveTransform = pose;
    s.cachedError = error;
    return s;
  };
  // Within the tolerance the simpler pose wins either way round...
  EXPECT_TRUE(RanksBefore(solver(shift, 1.0 + 1e-9), solver(general, 1.0)));
  EXPECT_FALSE(RanksBefore(solver(general, 1.0), solver(shift, 1.0 + 1e-9)));
  EXPECT_TRUE(RanksBefore(solver(spinX, 2.0), solver(general, 2.0)));
  // ...outside it the error decides.
  EXPECT_TRUE(RanksBefore(solver(general, 1.0), solver(shift, 1.0 + 1e-6)));
  EXPECT_EQ(FieldAfterRound(528, 20), 1u);

  // Equally good solvers at the cut: the standard heap selection keeps the first of the
  // tied ones and then the strictly better one first (errors 2, 2, 0 keep solvers 2, 0).
  std::vector<RegistrationSolver> field;
  for (double e : {2.0, 2.0, 0.0}) {
    field.push_back(solver(general, e));
    field.back().activeCount = field.size() - 1;  // the solver's place in the field
  }
  KeepLeaders(field, 2);
  ASSERT_EQ(field.size(), 2u);
  EXPECT_EQ(field[0].activeCount, 2u);
  EXPECT_EQ(field[1].activeCount, 0u);
}

// A flattened bumpy rod 100 mm long and a 40 mm piece of it, far from its middle.
TEST(InitialAlignment, SlideFindsAShortPieceAlongALongBody) {
  const double stretch[16] = {1, 0, 0, 0, 0, 0.6, 0, 0, 0, 0, 5, 0, 0, 0, 0, 1};
  const auto rod = Transformed(zorgen::MakeSphere(10000, 64, 32, 1500), stretch);
  const auto piece = SliceAlongZ(*rod, 5000, 45000);
  auto moving = std::unique_ptr<MStlBase>(piece->Clone(nullptr));
  moving->Transform(LargePose());
  Registration::MParams params;
  params.initialAlignment = Registration::AlignAxes;
  params.iterationCount = 0;
  Registration r;
  const MMTransformMatrix found = Register(r, params, rod.get(), moving.get());
  // The piece's middle sits 25 mm from the rod's; the slide brings it to within half a
  // slide step (5 mm) of its place.
  EXPECT_LT(LargestGap(*piece, found * LargePose(), MMTransformMatrix()), 5500.0);
}

TEST(InitialAlignment, TournamentRecoversALargePoseOfABall) {
  const auto fixed = zorgen::MakeSphere(20000, 32, 64, 3000);
  auto moving = std::unique_ptr<MStlBase>(fixed->Clone(nullptr));
  moving->Transform(LargePose());
  Registration::MParams params;
  params.initialAlignment = Registration::AlignBall;
  params.errorTolerance = 0.01;
  Registration r;
  const MMTransformMatrix found = Register(r, params, fixed.get(), moving.get());
  EXPECT_EQ(r.GetAlignmentUsed(), Registration::AlignBall);
  EXPECT_LT(LargestGap(*fixed, found * LargePose(), MMTransformMatrix()), 200.0);
}

// An exact copy already lies at the identity with a score of zero, which no candidate
// can beat: the run must end on the identity exactly, not on a candidate equal to it
// up to rounding.
TEST(InitialAlignment, AnExactCopyKeepsTheExactIdentity) {
  const auto fixed = zorgen::MakeBox(30000, 20000, 10000, 4);
  const auto moving = std::unique_ptr<MStlBase>(fixed->Clone(nullptr));
  for (auto strategy :
       {Registration::AlignAxes, Registration::AlignRod, Registration::AlignDisc, Registration::AlignBall}) {
    Registration::MParams params;
    params.initialAlignment = strategy;
    params.iterationCount = 0;
    Registration r;
    const MMTransformMatrix found = Register(r, params, fixed.get(), moving.get());
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 4; ++j) EXPECT_EQ(found.GetElement(i, j), i == j ? 1.0 : 0.0) << strategy;
    EXPECT_EQ(r.GetError(), 0.0);
  }
}

TEST(InitialAlignment, DegenerateSearchesLeaveTheBaseline) {
  const auto fixed = zorgen::MakeSphere(20000, 16, 32, 3000);
  auto moving = std::unique_ptr<MStlBase>(fixed->Clone(nullptr));
  moving->Transform(LargePose());
  const auto run = [&](MStlBase* f, MStlBase* m, auto&& adjust) {
    Registration::MParams params;
    params.iterationCount = 0;
    adjust(params);
    Registration r;
    const MMTransformMatrix found = Register(r, params, f, m);
    return std::make_pair(found, r.GetAlignmentUsed());
  };
  using P = Registration::MParams;
  // No rotations, no spins, or a strategy that names none: no candidate at all.
  EXPECT_TRUE(run(fixed.get(), moving.get(), [](P& p) {
                p.initialAlignment = Registration::AlignRod, p.axisRotationSteps = 0;
              }).first.IsIdentity());
  EXPECT_TRUE(run(fixed.get(), moving.get(), [](P& p) {
                p.initialAlignment = Registration::AlignBall, p.sphereSpinSteps = 0;
              }).first.IsIdentity());
  EXPECT_TRUE(run(fixed.get(), moving.get(), [](P& p) {
                p.initialAlignment = static_cast<Registration::MInitialAlignment>(7);
              }).first.IsIdentity());
  // A slide step of zero scores each candidate where it stands.
  EXPECT_FALSE(run(fixed.get(), moving.get(), [](P& p) { p.slideStep = 0.0; }).first.IsIdentity());
  // Automatic with a mesh that has no point searches nothing.
  MStlBase empty;
  EXPECT_EQ(run(fixed.get(), &empty, [](P& p) { p.initialAlignment = Registration::AlignAutomatic; }).second,
            Registration::AlignNone);
}

// A candidate that would carry the moving body off the coordinate grid is passed over
// instead of failing the run.
TEST(InitialAlignment, CandidatesOffTheGridArePassedOver) {
  const double far[16] = {1, 0, 0, 2100000000.0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  const auto fixed = Transformed(zorgen::MakeBox(30000, 20000, 10000, 2), far);
  const auto moving = zorgen::MakeBox(400000000, 20000, 10000, 2);
  Registration::MParams params;
  params.iterationCount = 0;
  params.reduceMeshes = false;
  Registration r;
  EXPECT_TRUE(Register(r, params, fixed.get(), moving.get()).IsIdentity());
}

}  // namespace

namespace {

TEST(InitialAlignment, FeaturesLayAPartOnTheWholeAndRepeatOnAnyThreads) {
  // The lower two thirds of the sample body (boss, dimple, groove) under a large pose,
  // onto the whole body: no axes are shared, the descriptors are. The result repeats
  // bit for bit on one thread.
  const auto fixed = zorgen::MakeSampleBody(40);
  const MMTransformMatrix pose = LargePose();
  const double lo = fixed->GetZMin(), hi = fixed->GetZMax();
  const auto moving = SliceAlongZ(*fixed, lo, lo + 0.65 * (hi - lo));
  moving->Transform(pose);
  Registration::MParams params;
  params.initialAlignment = Registration::AlignFeatures;
  params.overlapFraction = 1.0;
  params.errorTolerance = 0.001;
  Registration r;
  const MMTransformMatrix found = Register(r, params, fixed.get(), moving.get());
  EXPECT_EQ(r.GetAlignmentUsed(), Registration::AlignFeatures);
  const MMTransformMatrix residue = found * pose;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) EXPECT_NEAR(residue.GetElement(i, j), i == j ? 1.0 : 0.0, 0.002);
  EXPECT_LT(Length(residue.GetTranslation()), 100.0);

  MMTransformMatrix single;
  oneapi::tbb::task_arena(1).execute([&] {
    Registration again;
    single = Register(again, params, fixed.get(), moving.get());
  });
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) EXPECT_EQ(single.GetElement(i, j), found.GetElement(i, j));
}

}  // namespace
