// The deviation map's distances: their size against a brute-force point-triangle
// distance, their sign against the side of a closed surface, and the summary.
#include "zor/pair/deviation.h"

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "generators/small_meshes.h"
#include "zor/files/deviation_colour.h"
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

TEST(SummariseDeviation, ShareWithinRangeAndNearestRankPercentile) {
  std::vector<double> distances;
  for (int i = 1; i <= 100; ++i) distances.push_back(i % 2 == 0 ? i : -i);
  const ZorStlRegistration::DeviationSummary s = ZorStlRegistration::SummariseDeviation(distances, 10.0);
  EXPECT_DOUBLE_EQ(s.withinShare, 0.10);
  EXPECT_EQ(s.percentile95, 95.0);
  EXPECT_EQ(s.largest, 100.0);
  EXPECT_EQ(ZorStlRegistration::SummariseDeviation({}, 1.0).withinShare, 0.0);
}

TEST(DeviationColour, GreenWithinRedAboveBlueBelow) {
  EXPECT_EQ(ZorStlRegistration::DeviationColour(0.5, 1.0), (std::array<std::uint8_t, 3>{0, 200, 0}));
  EXPECT_EQ(ZorStlRegistration::DeviationColour(5.0, 1.0), (std::array<std::uint8_t, 3>{255, 0, 0}));
  EXPECT_EQ(ZorStlRegistration::DeviationColour(-5.0, 1.0), (std::array<std::uint8_t, 3>{0, 0, 255}));
  EXPECT_EQ(ZorStlRegistration::DeviationColour(1.5, 1.0)[1], 128);  // halfway from yellow to red
}

}  // namespace
