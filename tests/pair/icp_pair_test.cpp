// The multi-start ICP as the pair call runs it: the search fits samples to samples, and
// the finish lays the result on the surface, with the verdict align gives.
#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/poses.h"
#include "zor/model/stl.h"
#include "zor/pair/pair_operations.h"

namespace {

using ZorStlRegistration::IcpOptions;
using ZorStlRegistration::IcpPair;

// Largest distance between a point of the moving body placed by `found` and by `truth`.
double WorstOffset(const MStlBase& moving, const MMTransformMatrix& found, const MMTransformMatrix& truth) {
  double worst = 0.0;
  for (const MStlPoint* p = moving.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    MMVector3d a, b;
    found.Transform(a, p->GetDouble(), false);
    truth.Transform(b, p->GetDouble(), false);
    worst = std::max(worst, Length(a - b));
  }
  return worst;
}

// The same body tessellated twice (samples never coincide), the moving one under a pose.
TEST(IcpPair, TheFinishLaysTheFoundPoseOnTheSurface) {
  const zorgen::MeshArrays fixedArrays = zorgen::MakeShape(zorgen::Shape::Featured, 20000);
  const zorgen::MeshArrays movingArrays = zorgen::MakeShape(zorgen::Shape::Featured, 16000);
  const MMTransformMatrix pose = zorgen::DrawPose(3, 60000.0);
  const auto fixed = zorgen::MakeMesh(fixedArrays);
  const auto moving = zorgen::MakeMovedCopy(movingArrays, pose);
  const MMTransformMatrix truth = pose.Inverted();

  IcpOptions options;
  const auto finished = IcpPair(*moving, *fixed, options, "moving", "fixed");
  options.polish = false;
  const auto searched = IcpPair(*moving, *fixed, options, "moving", "fixed");
  const double before = WorstOffset(*moving, searched.transform, truth);
  const double after = WorstOffset(*moving, finished.transform, truth);
  EXPECT_TRUE(finished.polished);
  EXPECT_FALSE(searched.polished);
  EXPECT_FALSE(finished.verdict.doubtful) << finished.verdict.reason;
  EXPECT_GT(finished.verdict.overlap, 0.99);
  EXPECT_GT(before, 100.0);  // the search alone: 0.6 mm at the worst point
  EXPECT_LT(after, 20.0);    // finished: 2 um
}

// A pose the search cannot find (too few starts to reach it) is finished all the same
// and called doubtful, not passed off as a registration.
TEST(IcpPair, AWrongResultIsDoubtful) {
  const zorgen::MeshArrays body = zorgen::MakeShape(zorgen::Shape::Featured, 8000);
  const auto fixed = zorgen::MakeMesh(body);
  const auto moving = zorgen::MakeMovedCopy(body, zorgen::DrawPose(5, 60000.0));
  IcpOptions options;
  options.params.directionCount = 1;
  options.params.rotationCount = 1;
  const auto run = IcpPair(*moving, *fixed, options, "moving", "fixed");
  EXPECT_TRUE(run.verdict.doubtful);
  EXPECT_FALSE(run.verdict.reason.empty());
}

}  // namespace
