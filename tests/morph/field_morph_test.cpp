// The field morph as a caller sees it: it ends, keeps the shape's size, does not move
// what is already in place, counts what it could not match, and is repeatable.
#include <algorithm>
#include <cmath>
#include <memory>
#include <set>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>
#include <oneapi/tbb/task_arena.h>

#include "generators/bodies.h"
#include "generators/deformations.h"
#include "generators/mesh_arrays.h"
#include "generators/scan_cases.h"
#include "generators/small_meshes.h"
#include "support/mesh_checks.h"
#include "zor/model/stl.h"
#include "zor/model/stl_guards.h"
#include "zor/morph/detail/field_levels.h"
#include "zor/morph/detail/target_surface.h"
#include "zor/morph/wrapper_operator_field_morph.h"

namespace {

using ZorStlRegistration::MWrapperOperatorFieldMorph;
using Handle = MWrapperOperatorFieldMorph::StlImpl;
using Stop = MWrapperOperatorFieldMorph::StopReason;

std::vector<MMVector3i> Coordinates(const MStlBase& mesh) {
  std::vector<MMVector3i> out;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) out.push_back(p->GetInt());
  return out;
}

MWrapperOperatorFieldMorph::Report Morph(MStlBase& moving, MStlBase& target, int threads = 2) {
  MWrapperOperatorFieldMorph morph{Handle(&moving), Handle(&target)};
  tbb::task_arena arena(threads);
  arena.execute([&] { morph.Operate(nullptr); });
  return morph.GetReport();
}

// Coarse rows (edges of about 5 mm on a 20 mm sphere): position smoothing shrinks such a
// mesh by more than the tolerance per pass, so a morph that smooths positions never
// settles there. The field morph ends on the larger sphere, at its size.
TEST(FieldMorph, ACoarseSphereEndsOnASlightlyLargerOne) {
  const auto moving = zorgen::MakeSphere(20000.0, 12, 24);
  const auto target = zorgen::MakeSphere(20300.0, 31, 57);
  const auto windings = zortest::Windings(*moving);
  const auto report = Morph(*moving, *target);
  EXPECT_EQ(report.stop, Stop::Converged);
  EXPECT_LT(report.p95Distance, 50.0);
  EXPECT_EQ(report.folded, 0u);
  EXPECT_EQ(zortest::Windings(*moving), windings);
  // The report measures the written points, as a deviation map would.
  EXPECT_NEAR(report.maxDistance, zortest::WorstDistance(zortest::AllPoints(*moving), *target), 1e-6);
  for (const MMVector3d& p : zortest::AllPoints(*moving)) EXPECT_NEAR(Length(p), 20300.0, 150.0);
}

// A body stretched by 1.04 and 0.97 goes back onto its original without losing volume,
// and each point lands near where the stretch's inverse takes it, not merely on the surface.
TEST(FieldMorph, AStretchedBodyGoesBackWithoutShrinking) {
  const auto target = zorgen::MakeSampleBody(16);
  const auto moving = zorgen::MakeSampleBody(16);
  const std::vector<MMVector3d> original = zortest::AllPoints(*target);
  MMVector3i centre((target->GetXMin() + target->GetXMax()) / 2, (target->GetYMin() + target->GetYMax()) / 2,
                    (target->GetZMin() + target->GetZMax()) / 2);
  moving->Rescale(1.04f, 0.97f, 1.0f, centre);
  const auto report = Morph(*moving, *target);
  EXPECT_NE(report.stop, Stop::PassLimit);
  EXPECT_LT(report.p95Distance, 50.0);
  EXPECT_EQ(report.folded, 0u);
  const std::vector<MMVector3d> morphed = zortest::AllPoints(*moving);
  double slide = 0.0;
  for (std::size_t i = 0; i < morphed.size(); ++i) slide += Length(morphed[i] - original[i]);
  EXPECT_LT(slide / static_cast<double>(morphed.size()), 100.0);  // the stretch moved points 800 um on average
}

// The sample body (19k triangles) bent by 2.5 mm at its ends onto a finer tessellation
// of the bent body. On its flanks the bend runs along the surface, where matches cannot see it;
// the points still land where the bend takes them, not merely on the surface.
TEST(FieldMorph, ABentBodyLandsWhereTheBendTakesIt) {
  const auto moving = zorgen::MakeSampleBody(40);
  const auto target = zorgen::MakeSampleBody(50);
  const double xMid = 0.5 * (target->GetXMin() + target->GetXMax()),
               half = 0.5 * (target->GetXMax() - target->GetXMin());
  const auto bend = [&](const MMVector3d& p) {
    const double u = (p[0] - xMid) / half;
    return p + MMVector3d(0.0, 0.0, 2500.0 * u * u);
  };
  {
    const MStlBaseOperatorHelperDirectPointChange change(target.get(), true);
    for (MStlPoint* p = target->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
      const MMVector3d q = bend(p->GetDouble());
      p->Set(MMVector3i(static_cast<std::int32_t>(std::lround(q[0])), static_cast<std::int32_t>(std::lround(q[1])),
                        static_cast<std::int32_t>(std::lround(q[2]))));
    }
  }
  const std::vector<MMVector3d> original = zortest::AllPoints(*moving);
  const auto report = Morph(*moving, *target);
  EXPECT_EQ(report.stop, Stop::Converged);
  EXPECT_LT(report.p95Distance, 50.0);
  EXPECT_EQ(report.folded, 0u);
  const std::vector<MMVector3d> morphed = zortest::AllPoints(*moving);
  double slide = 0.0, still = 0.0;
  for (std::size_t i = 0; i < morphed.size(); ++i) {
    slide += Length(morphed[i] - bend(original[i]));
    still += Length(original[i] - bend(original[i]));
  }
  EXPECT_GT(still / static_cast<double>(morphed.size()), 1000.0);
  // 140 um; the surface levels alone leave 700 um, sliding along the flanks.
  EXPECT_LT(slide / static_cast<double>(morphed.size()), 250.0);
  EXPECT_FALSE(report.local);
}

// Two bumps and a dent a tenth of the body across, the rest of the body as it was: a
// field over space would take them for a stretch of the whole body and slide every point
// along the surface. The morph keeps the rest where it is: its points end nearer where
// the changes take them than they started, and it says the change was taken locally. A
// dent a fifth of a blob across leaves more than a fifth of the points off the target,
// but all in one place: it is taken locally too, and the blob does not turn under it.
TEST(FieldMorph, LocalChangesStayWhereTheyAreAndTheRestDoesNotSlide) {
  struct Case {
    zorgen::MeshArrays body;
    const char* change;
    double share;  // of the slide of leaving the mesh as it was, at most
  };
  const Case cases[] = {
      {zorgen::MakeShape(zorgen::Shape::Featured, 10000), "several", 1.0},
      {zorgen::MakeLumpyBody(7, 20000), "dent-5", 0.2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.change);
    const zorgen::MeshArrays body =
        zorgen::ArraysOf(*zorgen::MakeMesh(zorgen::ScaledToExtent(zorgen::Simplified(c.body, 20000), 200000.0)));
    const std::vector<MMVector3d> truth = zorgen::ChangedAlongNormals(body, zorgen::NamedChanges(body, c.change, 3));
    const auto moving = zorgen::MakeMesh(body);
    // The changed body tessellated anew, as a scan of it would be.
    const auto target = zorgen::MakeMesh(zorgen::Retessellated(zorgen::Placed(body, truth), 0.6));
    const std::vector<MMVector3d> rest = zortest::AllPoints(*moving);
    const auto report = Morph(*moving, *target);
    EXPECT_TRUE(report.local);
    EXPECT_EQ(report.folded, 0u);
    EXPECT_LT(report.p95Distance, 50.0);
    const std::vector<MMVector3d> morphed = zortest::AllPoints(*moving);
    double slide = 0.0, nothing = 0.0;
    for (std::size_t i = 0; i < morphed.size(); ++i) {
      slide += Length(morphed[i] - truth[i]);
      nothing += Length(rest[i] - truth[i]);
    }
    EXPECT_GT(nothing / static_cast<double>(morphed.size()), 20.0);
    EXPECT_LT(slide, c.share * nothing);
  }
}

// Both meshes tessellate the same sphere coarsely (edges of 5 and 7 mm on a 20 mm
// radius), so the target's flat triangles cut up to 0.6 mm inside the sphere where the
// moving mesh's points lie on it. Nothing is deformed: each point should only drop onto
// the chord below it, not take the chords' depth as a shrink of the whole body and
// slide with it. The points end on the target, unfolded.
TEST(FieldMorph, ACoarseTargetOfTheSameSurfaceOnlyLaysThePointsOnIt) {
  const auto moving = zorgen::MakeSphere(20000.0, 12, 24);
  const auto target = zorgen::MakeSphere(20000.0, 9, 17);
  const std::vector<MMVector3d> original = zortest::AllPoints(*moving);
  double depth = 0.0;  // the mean distance of the points to the target before the morph
  for (const MMVector3d& p : original) depth += zortest::WorstDistance({p}, *target);
  depth /= static_cast<double>(original.size());
  const auto report = Morph(*moving, *target);
  EXPECT_LT(report.p95Distance, 50.0);
  EXPECT_EQ(report.folded, 0u);
  EXPECT_GT(report.laid, original.size() * 9 / 10);
  const std::vector<MMVector3d> morphed = zortest::AllPoints(*moving);
  double moved = 0.0;
  for (std::size_t i = 0; i < morphed.size(); ++i) moved += Length(morphed[i] - original[i]);
  EXPECT_GT(depth, 150.0);
  EXPECT_LT(moved / static_cast<double>(morphed.size()), 1.25 * depth) << "chords' mean depth " << depth;
}

TEST(FieldMorph, AMeshOnItsTargetDoesNotMove) {
  const auto moving = zorgen::MakeSphere(20000.0, 24, 48, 800.0);
  const auto target = zorgen::MakeSphere(20000.0, 24, 48, 800.0);
  const auto before = Coordinates(*moving);
  const auto report = Morph(*moving, *target);
  EXPECT_EQ(Coordinates(*moving), before);
  EXPECT_EQ(report.stop, Stop::Converged);
  EXPECT_EQ(report.maxDistance, 0.0);
}

// The target covers the upper half only. The lower half has no counterpart: it is
// counted, not reported as arrived, and it follows its neighbours instead of being
// dragged onto the target's open border.
TEST(FieldMorph, PointsWithoutACounterpartAreCountedAndKeepTheirShape) {
  const auto moving = zorgen::MakeSphere(20000.0, 24, 48);
  const auto whole = zorgen::MakeSphere(20300.0, 31, 57);
  std::set<MStlTriangleCell*> lower;
  for (const MStlPoint* p = whole->GetFirstPoint(); p != nullptr; p = p->GetNext())
    for (std::uint16_t k = 0; k < p->GetNumberOfNeighbourTriangles(); ++k) {
      MStlTriangleCell* cell = p->GetNeighbourTriangle(k);
      const MStlTriangle* t = cell->GetData();
      if (t->GetVertex(0)[2] + t->GetVertex(1)[2] + t->GetVertex(2)[2] < 0.0) lower.insert(cell);
    }
  for (MStlTriangleCell* cell : lower) whole->RemoveTriangle(cell, MStlBase::RemoveFreePoints);
  const auto report = Morph(*moving, *whole);
  std::size_t below = 0;
  for (const MMVector3d& p : zortest::AllPoints(*moving)) {
    below += p[2] < -2000.0 ? 1 : 0;
    EXPECT_NEAR(Length(p), 20150.0, 400.0);  // neither collapsed nor dragged to the border
  }
  EXPECT_GE(report.unmatched, below);
  EXPECT_LT(report.fractionWithin, 0.75);
  EXPECT_EQ(report.folded, 0u);
}

TEST(FieldMorph, IsBitIdenticalAtOneAndTwoThreads) {
  const auto target = zorgen::MakeSphere(20000.0, 31, 57, 800.0);
  std::vector<MMVector3i> results[2];
  for (int threads = 1; threads <= 2; ++threads) {
    const auto moving = zorgen::MakeSphere(20000.0, 24, 48);
    Morph(*moving, *target, threads);
    results[threads - 1] = Coordinates(*moving);
  }
  EXPECT_EQ(results[0], results[1]);
}

TEST(FieldMorph, RefusesBadInputAndLeavesTheMeshAlone) {
  const auto moving = zorgen::MakeSphere(20000.0, 12, 24);
  const auto target = zorgen::MakeSphere(20300.0, 12, 24);
  const auto before = Coordinates(*moving);
  EXPECT_THROW(MWrapperOperatorFieldMorph(Handle(nullptr), Handle(target.get())), std::invalid_argument);
  MWrapperOperatorFieldMorph morph{Handle(moving.get()), Handle(target.get())};
  for (auto bad :
       {&MWrapperOperatorFieldMorph::SParams::distanceTolerance, &MWrapperOperatorFieldMorph::SParams::normalAngle,
        &MWrapperOperatorFieldMorph::SParams::smoothing}) {
    MWrapperOperatorFieldMorph::SParams p;
    p.*bad = std::nan("");
    morph.SetParams(p);
    EXPECT_THROW(morph.Operate(nullptr), std::invalid_argument);
  }
  MWrapperOperatorFieldMorph::SParams none;
  none.maxPasses = 0;
  morph.SetParams(none);
  EXPECT_THROW(morph.Operate(nullptr), std::invalid_argument);
  EXPECT_EQ(Coordinates(*moving), before);

  MStlBase empty;
  EXPECT_EQ(Morph(*moving, empty).stop, Stop::NoMatch);
  EXPECT_EQ(Coordinates(*moving), before);
  EXPECT_EQ(Morph(empty, *target).stop, Stop::NothingToMorph);
}

// Two spheres 1 mm apart: close in space, but no edge joins them, so no coarse level
// may either, and a field laid on the coarse level comes back unchanged where it is
// constant.
// The field morph judges its deformations where the target shows the surface: a point
// whose nearest place lies on the target's open border has no distance to count.
TEST(TargetSurface, APointBeyondAnOpenBorderIsNotCovered) {
  const auto grid = zorgen::MakeGrid(4, 1000);  // 1 mm squares over 4 x 4 mm, open all round
  const ZorStlRegistration::detail::TargetSurface surface(grid.get());
  EXPECT_NEAR(surface.Distance(MMVector3d(2000.0, 2000.0, 300.0), true), 300.0, 1e-9);
  EXPECT_NEAR(surface.Distance(MMVector3d(2000.0, 2000.0, 300.0)), 300.0, 1e-9);
  EXPECT_EQ(surface.Distance(MMVector3d(6000.0, 2500.0, 0.0), true), -1.0);
  EXPECT_NEAR(surface.Distance(MMVector3d(6000.0, 2500.0, 0.0)), 2000.0, 1e-9);
}

TEST(FieldLevels, CoarseLevelsJoinOnlyWhatTheMeshJoins) {
  const auto a = zorgen::MakeSphere(10000.0, 16, 32);
  const auto b = zorgen::MakeSphere(10000.0, 16, 32, 0.0, MMVector3d(21000.0, 0.0, 0.0));
  ZorStlRegistration::detail::FieldLevel fine;
  std::vector<std::uint32_t> triangles;
  std::size_t offset = 0;
  for (const MStlBase* mesh : {a.get(), b.get()}) {
    std::vector<const MStlPoint*> points;
    for (const MStlPoint* p = mesh->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
      points.push_back(p);
      fine.rest.push_back(p->GetDouble());
      fine.normals.push_back(MMVector3d());
    }
    for (auto it = mesh->BeginTriangle(); it != mesh->EndTriangle(); ++it)
      for (std::size_t k = 0; k < 3; ++k) {
        const MStlPoint* corner = static_cast<const MStlTriangle*>(it)->GetPoint(k);
        triangles.push_back(
            static_cast<std::uint32_t>(offset + (std::find(points.begin(), points.end(), corner) - points.begin())));
      }
    offset += points.size();
  }
  fine.graph = ZorStlRegistration::detail::GraphOfTriangles(fine.rest.size(), triangles);
  ZorStlRegistration::detail::MeasureEdges(fine);
  const std::size_t split = offset / 2;
  auto level = ZorStlRegistration::detail::Coarsen(fine);
  for (int round = 0; round < 3; ++round) {
    for (std::size_t s = 0; s < level.rest.size(); ++s)
      for (std::uint32_t k = level.graph.offsets[s]; k < level.graph.offsets[s + 1]; ++k)
        EXPECT_EQ(level.rest[s][0] > 10500.0, level.rest[level.graph.neighbours[k]][0] > 10500.0);
    if (round < 2) {
      ZorStlRegistration::detail::FieldLevel next = ZorStlRegistration::detail::Coarsen(level);
      level = std::move(next);
    }
  }
  const auto first = ZorStlRegistration::detail::Coarsen(fine);
  std::vector<MMVector3d> coarse(first.rest.size(), MMVector3d(1.0, -2.0, 3.0)), back;
  ZorStlRegistration::detail::Prolong(first, coarse, back);
  ASSERT_EQ(back.size(), fine.rest.size());
  for (const MMVector3d& d : back) EXPECT_LT(Length(d - MMVector3d(1.0, -2.0, 3.0)), 1e-12);
  EXPECT_GT(split, 0u);
}

}  // namespace
