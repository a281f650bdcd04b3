// The deviation map's distances: their size against a brute-force point-triangle
// distance, their sign against the side of a closed surface, and their summary against
// every other place that summarises distances.
#include "zor/pair/deviation.h"

#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "zor/files/deviation_colour.h"
#include "zor/files/inspection_report.h"
#include "zor/model/unit.h"
#include "zor/pair/pair_operations.h"
#include "zor/pair/pair_registration.h"
#include "zor/spatial/point_triangle_distance.h"

namespace {

double BruteForceDistance(const MStlBase& mesh, const MMVector3d& p) {
  double best = std::numeric_limits<double>::infinity();
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = it;
    const MMVector3d a = t->GetVertex(0), b = t->GetVertex(1), c = t->GetVertex(2);
    best = std::min(best, MeshQueries::PointTriangleDistance2(p.Data(), a.Data(), b.Data(), c.Data(), nullptr));
  }
  return std::sqrt(best);
}

TEST(SignedDistances, MatchBruteForceAndArePositiveOutsideAClosedSurface) {
  const auto box = zorgen::MakeBox(1000, 600, 400, 3);
  // Points in and around the box, on a grid of their own so that they land in faces,
  // on edges and at corners as well as in space.
  MStlBase probes;
  std::mt19937 rng(4);
  std::uniform_int_distribution<int> x(-300, 1300), y(-300, 900), z(-300, 700);
  for (int i = 0; i < 400; ++i) probes.AddPoint(x(rng), y(rng), z(rng), true);
  for (int i = 0; i < 20; ++i) probes.AddPoint(1000 + i * 30, 600 + i * 20, 400 + i * 10, true);  // off the corner
  MMTransformMatrix lift;
  lift.MakeTranslation(MMVector3d(0, 0, 0));
  const std::vector<double> distances = ZorStlRegistration::SignedDistances(probes, &lift, *box);
  ASSERT_EQ(distances.size(), probes.NumberOfPoints());
  std::size_t i = 0;
  for (const MStlPoint* p = probes.GetFirstPoint(); p != nullptr; p = p->GetNext(), ++i) {
    const MMVector3d q = p->GetDouble();
    EXPECT_NEAR(std::fabs(distances[i]), BruteForceDistance(*box, q), 1e-9);
    const bool inside = q[0] > 0 && q[0] < 1000 && q[1] > 0 && q[1] < 600 && q[2] > 0 && q[2] < 400;
    const bool onSurface = distances[i] == 0.0;
    if (!onSurface) {
      EXPECT_EQ(distances[i] < 0.0, inside) << q[0] << " " << q[1] << " " << q[2];
    }
  }
}

TEST(SignedDistances, FollowThePose) {
  const auto box = zorgen::MakeBox(1000, 600, 400, 2);
  MStlBase probe;
  probe.AddPoint(500, 300, 200, true);  // the centre: 200 inside
  MMTransformMatrix up;
  up.MakeTranslation(MMVector3d(0, 0, 500));  // 300 above the top
  EXPECT_NEAR(ZorStlRegistration::SignedDistances(probe, nullptr, *box)[0], -200.0, 1e-9);
  EXPECT_NEAR(ZorStlRegistration::SignedDistances(probe, &up, *box)[0], 300.0, 1e-9);
}

// The morph's own report, the deviation summary, the verdict and the inspection report
// of one morphed mesh give the same figures, to the bit: one surface query, one rule.
TEST(OneStatisticsRule, TheMorphTheDeviationTheVerdictAndTheReportAgree) {
  auto moving = zorgen::MakeSphere(20000.0, 30, 60, 600.0);
  const auto target = zorgen::MakeSphere(20300.0, 36, 72, 900.0);
  ZorStlRegistration::MorphOptions options;
  options.registerFirst = false;
  options.toleranceMm = 0.0005;  // below the grid's rounding, so that the share within is not all or nothing
  options.maxPasses = 6;
  const ZorStlRegistration::MorphRun run = ZorStlRegistration::MorphPair(*moving, *target, options, "moving", "target");
  const auto& morph = run.field;

  const std::vector<double> distances = ZorStlRegistration::SignedDistances(*moving, nullptr, *target);
  const ZorStlRegistration::DeviationSummary deviation =
      ZorStlRegistration::SummariseDeviation(distances, run.tolerance);
  EXPECT_EQ(deviation.percentile95, morph.p95Distance);
  EXPECT_EQ(deviation.largest, morph.maxDistance);
  EXPECT_EQ(deviation.mean, morph.meanDistance);
  EXPECT_EQ(deviation.withinShare, morph.fractionWithin);
  EXPECT_GT(deviation.withinShare, 0.0);
  EXPECT_LT(deviation.withinShare, 1.0);

  const ZorStlRegistration::Verdict verdict =
      ZorStlRegistration::JudgePose(*moving, *target, MMTransformMatrix(), run.tolerance);
  EXPECT_EQ(verdict.overlap, deviation.withinShare);
  EXPECT_EQ(verdict.rms, deviation.withinRms);

  const std::filesystem::path page =
      std::filesystem::temp_directory_path() / ("zor_agree_" + std::to_string(::getpid()) + ".html");
  ZorStlRegistration::InspectionReport report;
  report.moving = moving.get();
  report.fixed = target.get();
  report.distances = distances;
  report.range = run.tolerance;
  ZorStlRegistration::WriteInspectionReport(report, page.string());
  std::ifstream in(page);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::filesystem::remove(page);
  const auto value = [&](const std::string& id) {
    const std::size_t at = text.find("id=\"" + id + "\" data-value=\"");
    return at == std::string::npos ? -1.0 : std::stod(text.substr(text.find("data-value=\"", at) + 12));
  };
  const double ie = MUnit::GetIE();
  EXPECT_EQ(value("zor-p95"), deviation.percentile95 / ie);
  EXPECT_EQ(value("zor-largest"), deviation.largest / ie);
  EXPECT_EQ(value("zor-within"), deviation.withinShare);
}

TEST(DeviationColour, GreenWithinRedAboveBlueBelow) {
  EXPECT_EQ(ZorStlRegistration::DeviationColour(0.5, 1.0), (std::array<std::uint8_t, 3>{0, 200, 0}));
  EXPECT_EQ(ZorStlRegistration::DeviationColour(5.0, 1.0), (std::array<std::uint8_t, 3>{255, 0, 0}));
  EXPECT_EQ(ZorStlRegistration::DeviationColour(-5.0, 1.0), (std::array<std::uint8_t, 3>{0, 0, 255}));
  EXPECT_EQ(ZorStlRegistration::DeviationColour(1.5, 1.0)[1], 128);  // halfway from yellow to red
}

}  // namespace
