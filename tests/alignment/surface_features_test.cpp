// Surface descriptors and the pose search on their matches: descriptors must not change
// with a rigid motion or a finer tessellation of the same surface, the search must find
// a pose among mostly wrong matches, and everything must repeat bit for bit.
#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <oneapi/tbb/task_arena.h>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/poses.h"
#include "zor/alignment/feature_poses.h"
#include "zor/model/stl_iterators.h"

namespace {

using namespace ZorStlRegistration;

double Distance(const FeatureDescriptor& a, const FeatureDescriptor& b) {
  double sum = 0.0;
  for (std::size_t i = 0; i < kFeatureBins; ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return std::sqrt(sum);
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

// Angle (degrees) of the rotation of a * b, and its shift of `at`.
std::pair<double, double> Residual(const MMTransformMatrix& a, const MMTransformMatrix& b, const MMVector3d& at) {
  MMTransformMatrix r = a;
  r.PostMultiply(b);
  MMVector3d moved = at;
  r.Transform(moved, false);
  return {RotationDegrees(r), Length(moved - at)};
}

// For each keypoint of `a` whose place (moved by `pose`) has a keypoint of `b` within
// half a spacing, the descriptor distance of the two; and of `a`'s keypoint to a
// keypoint of `b` far away, for comparison.
void PairDistances(const FeatureCloud& a, const FeatureCloud& b, const MMTransformMatrix& pose, double spacing,
                   std::vector<double>& same, std::vector<double>& other) {
  for (std::size_t i = 0; i < a.points.size(); ++i) {
    MMVector3d p = a.points[i];
    pose.Transform(p, false);
    std::size_t nearest = 0;
    double least = HUGE_VAL;
    for (std::size_t j = 0; j < b.points.size(); ++j)
      if (Length(p - b.points[j]) < least) least = Length(p - b.points[j]), nearest = j;
    if (least > 0.5 * spacing) continue;
    same.push_back(Distance(a.descriptors[i], b.descriptors[nearest]));
    other.push_back(Distance(a.descriptors[i], b.descriptors[(nearest + b.points.size() / 2) % b.points.size()]));
  }
}

TEST(SurfaceFeatures, DescriptorsFollowTheSurfaceNotItsPoseOrTessellation) {
  // The featured body at two tessellations, the coarse one under a pose: where keypoints
  // of the two fall on one place, their descriptors must be far closer than those of
  // different places, and mutual matching must pair mostly true places.
  const auto coarse = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Featured, 20000));
  const auto fine = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Featured, 80000));
  const MMTransformMatrix pose = zorgen::DrawPose(11, 50000.0);
  coarse->Transform(pose);
  const FeatureParameters params = ChooseFeatureParameters(*coarse, *fine);
  ASSERT_GT(params.spacing, 0.0);
  const FeatureCloud moved = DescribeSurface(*coarse, params);
  const FeatureCloud finer = DescribeSurface(*fine, params);
  ASSERT_GT(moved.points.size(), 300u);
  for (const auto& d : moved.descriptors)
    for (std::size_t third = 0; third < 3; ++third) {
      double sum = 0.0;
      for (std::size_t b = 11 * third; b < 11 * third + 11; ++b) sum += d[b];
      EXPECT_NEAR(sum, 100.0, 1e-3);
    }

  const MMTransformMatrix back = pose.Inverted();
  std::vector<double> same, other;
  PairDistances(moved, finer, back, params.spacing, same, other);
  ASSERT_GT(same.size(), moved.points.size() / 4);
  EXPECT_LT(Median(same), 0.4 * Median(other));

  const auto matches = MatchFeatures(moved, finer);
  std::size_t right = 0;
  for (const auto& [i, j] : matches) {
    MMVector3d p = moved.points[i];
    back.Transform(p, false);
    right += Length(p - finer.points[j]) < 1.5 * params.spacing ? 1 : 0;
  }
  // A smooth body repeats its local shape, so most matches are wrong; enough are right
  // for the search to find the pose.
  EXPECT_GT(right, matches.size() / 10);
  PoseSearchParameters search;
  search.inlierDistance = 1.5 * params.spacing;
  const auto poses = EstimatePoses(moved.points, moved.normals, finer.points, finer.normals, matches, search);
  ASSERT_FALSE(poses.empty());
  const auto [angle, shift] = Residual(poses[0].pose, pose, MMVector3d());
  // Close enough for the refinement: keypoints stand up to half a spacing off.
  EXPECT_LT(angle, 3.0);
  EXPECT_LT(shift, 2.0 * params.spacing);

  // Reversed normals describe another surface: the same places no longer match.
  const FeatureCloud reversed = Reversed(finer);
  std::vector<double> flipped, unused;
  PairDistances(moved, reversed, back, params.spacing, flipped, unused);
  EXPECT_GT(Median(flipped), 2.0 * Median(same));
}

// Reversing the cloud's normals gives the descriptors that the mesh wound the other way
// gives at the nearest keypoint (its triangles are cut into parts from another corner,
// so its keypoints stand a little apart): far closer than the descriptors left as they
// were.
TEST(SurfaceFeatures, AReversedCloudIsTheMeshWoundTheOtherWay) {
  const auto mesh = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Featured, 20000));
  const FeatureParameters params = ChooseFeatureParameters(*mesh, *mesh);
  const FeatureCloud cloud = DescribeSurface(*mesh, params);
  auto inverted = zorgen::MakeMesh(zorgen::MakeShape(zorgen::Shape::Featured, 20000));
  for (auto it = MStlIteratorStlTriangle::Begin(inverted.get()); it != MStlIteratorStlTriangle::End(inverted.get());
       ++it)
    it->Invert(0);
  const FeatureCloud other = DescribeSurface(*inverted, params);
  const FeatureCloud reversed = Reversed(cloud);
  ASSERT_EQ(reversed.points.size(), cloud.points.size());
  ASSERT_GT(other.points.size(), 100u);
  // Each keypoint against the other mesh's nearest, every 16th for speed.
  double mirrored = 0.0, unmirrored = 0.0;
  std::size_t compared = 0;
  for (std::size_t k = 0; k < reversed.points.size(); k += 16, ++compared) {
    std::size_t nearest = 0;
    for (std::size_t j = 1; j < other.points.size(); ++j)
      if (Length2(other.points[j] - reversed.points[k]) < Length2(other.points[nearest] - reversed.points[k]))
        nearest = j;
    EXPECT_GT(Dot(reversed.normals[k], other.normals[nearest]), 0.95);
    for (std::size_t b = 0; b < ZorStlRegistration::kFeatureBins; ++b) {
      mirrored += std::fabs(reversed.descriptors[k][b] - other.descriptors[nearest][b]);
      unmirrored += std::fabs(cloud.descriptors[k][b] - other.descriptors[nearest][b]);
    }
  }
  mirrored /= static_cast<double>(compared);
  unmirrored /= static_cast<double>(compared);
  EXPECT_LT(mirrored, 15.0) << unmirrored;  // of 300 (three histograms summing to 100)
  EXPECT_GT(unmirrored, 8.0 * mirrored) << mirrored;
}

TEST(SurfaceFeatures, PoseSearchFindsThePoseAmongNineWrongMatchesInTen) {
  // 400 oriented points in a 100 mm box, the fixed ones under a known pose with 20 um
  // of noise; 40 matches are right, 360 pair random points.
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> coordinate(-50000.0, 50000.0), unit(-1.0, 1.0), noise(-20.0, 20.0);
  const MMTransformMatrix pose = zorgen::DrawPose(3, 80000.0);
  std::vector<MMVector3d> mp, mn, fp, fn;
  for (int i = 0; i < 400; ++i) {
    const MMVector3d p(coordinate(rng), coordinate(rng), coordinate(rng));
    MMVector3d n(unit(rng), unit(rng), unit(rng));
    n = n * (1.0 / Length(n));
    MMVector3d q = p, m = n;
    pose.Transform(q, false);
    pose.Transform(m, true);
    mp.push_back(p);
    mn.push_back(n);
    fp.push_back(q + MMVector3d(noise(rng), noise(rng), noise(rng)));
    fn.push_back(m);
  }
  std::vector<std::pair<std::uint32_t, std::uint32_t>> matches;
  std::uniform_int_distribution<std::uint32_t> any(0, 399);
  for (std::uint32_t i = 0; i < 400; ++i) matches.emplace_back(i, i % 10 == 0 ? i : any(rng));
  PoseSearchParameters search;
  search.inlierDistance = 1000.0;
  const auto poses = EstimatePoses(mp, mn, fp, fn, matches, search);
  ASSERT_FALSE(poses.empty());
  EXPECT_GE(poses[0].inliers, 40u);
  const auto [angle, shift] = Residual(pose.Inverted(), poses[0].pose, MMVector3d());
  EXPECT_LT(angle, 0.05);
  EXPECT_LT(shift, 50.0);
  for (std::size_t k = 1; k < poses.size(); ++k) EXPECT_LE(poses[k].inliers, poses[0].inliers);

  // The same poses, bit for bit, on one thread.
  std::vector<FeaturePose> single;
  oneapi::tbb::task_arena(1).execute([&] { single = EstimatePoses(mp, mn, fp, fn, matches, search); });
  ASSERT_EQ(single.size(), poses.size());
  for (std::size_t k = 0; k < poses.size(); ++k) {
    EXPECT_EQ(single[k].inliers, poses[k].inliers);
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 4; ++c) EXPECT_EQ(single[k].pose.GetElement(r, c), poses[k].pose.GetElement(r, c));
  }

  // Too few matches, or no distance to count inliers within: nothing.
  EXPECT_TRUE(EstimatePoses(mp, mn, fp, fn, {{0, 0}, {1, 1}}, search).empty());
  search.inlierDistance = 0.0;
  EXPECT_TRUE(EstimatePoses(mp, mn, fp, fn, matches, search).empty());
}

// The matcher's tree search gives the brute force's mutual nearest descriptors, ties to
// the lower number both ways: descriptors drawn at random (most components zero, as a
// histogram's are), some of them repeated.
TEST(SurfaceFeatures, MatchesAreTheMutualNearestOfTheBruteForce) {
  std::mt19937 rng(21);
  std::uniform_real_distribution<float> value(0.0f, 30.0f);
  std::uniform_int_distribution<int> bin(0, static_cast<int>(ZorStlRegistration::kFeatureBins) - 1);
  const auto draw = [&](std::size_t n) {
    FeatureCloud cloud;
    for (std::size_t i = 0; i < n; ++i) {
      ZorStlRegistration::FeatureDescriptor d{};
      for (int k = 0; k < 8; ++k) d[static_cast<std::size_t>(bin(rng))] += value(rng);
      cloud.descriptors.push_back(d);
    }
    return cloud;
  };
  FeatureCloud a = draw(700), b = draw(900);
  for (std::size_t i = 0; i < 40; ++i) b.descriptors[10 * i + 5] = b.descriptors[10 * i];  // ties on the fixed side
  for (std::size_t i = 0; i < 40; ++i) a.descriptors[3 * i + 1] = b.descriptors[7 * i];    // exact matches
  const auto nearest = [](const FeatureCloud& from, std::size_t i, const FeatureCloud& to) {
    double best = HUGE_VAL;
    std::uint32_t at = 0;
    for (std::size_t j = 0; j < to.descriptors.size(); ++j) {
      double d = 0.0;
      for (std::size_t k = 0; k < ZorStlRegistration::kFeatureBins; ++k) {
        const double e = double(from.descriptors[i][k]) - double(to.descriptors[j][k]);
        d += e * e;
      }
      if (d < best) best = d, at = static_cast<std::uint32_t>(j);
    }
    return at;
  };
  std::vector<std::pair<std::uint32_t, std::uint32_t>> expected;
  for (std::uint32_t i = 0; i < a.descriptors.size(); ++i) {
    const std::uint32_t j = nearest(a, i, b);
    if (nearest(b, j, a) == i) expected.emplace_back(i, j);
  }
  EXPECT_EQ(MatchFeatures(a, b), expected);
  EXPECT_GT(expected.size(), 40u);
}

TEST(SurfaceFeatures, EmptyAndFlatMeshesGiveNoKeypoints) {
  MStlBase empty;
  EXPECT_EQ(ChooseFeatureParameters(empty, empty).spacing, 0.0);
  EXPECT_TRUE(DescribeSurface(empty, FeatureParameters{1000.0, 2000.0, 5000.0}).points.empty());
  EXPECT_TRUE(MatchFeatures(FeatureCloud(), FeatureCloud()).empty());
}

}  // namespace
