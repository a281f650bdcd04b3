#include "zor/alignment/feature_poses.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/parallel_invoke.h>

#include "zor/services/n_point_registration.h"

namespace ZorStlRegistration {
namespace {

// Matches that a feature pose brings this many keypoint spacings apart still count as
// agreeing with it: the keypoints of two scans of one place are cut by different grids.
constexpr double kFeatureInlierSpacings = 1.5;
// Every this-many-th moving keypoint tells which winding matches the fixed mesh's: the
// one whose median nearest descriptor lies this much closer (alike, the two differ by 2
// to 100 times on scans and generated bodies; a view against a model wound the other
// way, 6 to 10 times the other way).
constexpr std::size_t kWindingProbe = 8;
constexpr double kWindingMargin = 1.5;
// Triples drawn per parallel chunk of the pose search, and chunks per wave; fixed, so
// that the chunks and the waves, and with them the result, do not depend on the threads.
constexpr std::uint64_t kTrialChunk = 256;
constexpr std::uint64_t kWaveChunks = 8;

// A small deterministic generator (SplitMix64): the n-th triple depends on n alone.
std::uint64_t Mix(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// A rotation (rows) and translation.
struct Rigid {
  MMVector3d r[3];
  MMVector3d t;
  MMVector3d Apply(const MMVector3d& p) const { return MMVector3d(Dot(r[0], p), Dot(r[1], p), Dot(r[2], p)) + t; }
  MMVector3d Turn(const MMVector3d& n) const { return MMVector3d(Dot(r[0], n), Dot(r[1], n), Dot(r[2], n)); }
};

// The frame of a triangle of points: x along the first edge, z across the triangle.
bool TriadFrame(const MMVector3d& a, const MMVector3d& b, const MMVector3d& c, MMVector3d (&axes)[3]) {
  MMVector3d x = b - a, z = Cross(b - a, c - a);
  const double lx = Length(x), lz = Length(z);
  if (!(lx > 0.0) || !(lz > 1e-6 * lx * lx)) return false;
  axes[0] = x * (1.0 / lx);
  axes[2] = z * (1.0 / lz);
  axes[1] = Cross(axes[2], axes[0]);
  return true;
}

// The rigid motion that puts the moving triangle's frame on the fixed one's, about
// their centroids: exact for congruent triangles, close for nearly congruent ones.
bool FitTriple(const MMVector3d (&m)[3], const MMVector3d (&f)[3], Rigid& out) {
  MMVector3d fm[3], ff[3];
  if (!TriadFrame(m[0], m[1], m[2], fm) || !TriadFrame(f[0], f[1], f[2], ff)) return false;
  // R = Ff * Fm^T, with the frames' axes as columns.
  for (int i = 0; i < 3; ++i)
    out.r[i] = MMVector3d(ff[0][i] * fm[0][0] + ff[1][i] * fm[1][0] + ff[2][i] * fm[2][0],
                          ff[0][i] * fm[0][1] + ff[1][i] * fm[1][1] + ff[2][i] * fm[2][1],
                          ff[0][i] * fm[0][2] + ff[1][i] * fm[1][2] + ff[2][i] * fm[2][2]);
  const MMVector3d cm = (m[0] + m[1] + m[2]) * (1.0 / 3.0), cf = (f[0] + f[1] + f[2]) * (1.0 / 3.0);
  out.t = MMVector3d();
  out.t = cf - out.Apply(cm);
  return true;
}

struct Trial {
  std::uint32_t inliers = 0;
  std::uint64_t index = std::numeric_limits<std::uint64_t>::max();
  Rigid fit;
  bool Beats(const Trial& o) const { return inliers > o.inliers || (inliers == o.inliers && index < o.index); }
};

MMTransformMatrix ToMatrix(const Rigid& fit) {
  ZorSDK::Math::matrix4x4<double> m;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) m(i, j) = fit.r[i][j];
    m(i, 3) = fit.t[i];
  }
  return MMTransformMatrix(m);
}

Rigid FromMatrix(const ZorSDK::Math::matrix4x4<double>& m) {
  Rigid fit;
  for (int i = 0; i < 3; ++i) {
    fit.r[i] = MMVector3d(m(i, 0), m(i, 1), m(i, 2));
    fit.t[i] = m(i, 3);
  }
  return fit;
}

}  // namespace

std::vector<FeaturePose> EstimatePoses(const std::vector<MMVector3d>& movingPoints,
                                       const std::vector<MMVector3d>& movingNormals,
                                       const std::vector<MMVector3d>& fixedPoints,
                                       const std::vector<MMVector3d>& fixedNormals,
                                       const std::vector<std::pair<std::uint32_t, std::uint32_t>>& matches,
                                       const PoseSearchParameters& parameters) {
  std::vector<FeaturePose> result;
  const std::size_t m = matches.size();
  const double d2 = parameters.inlierDistance * parameters.inlierDistance;
  if (m < 3 || !(parameters.inlierDistance > 0.0)) return result;
  std::vector<MMVector3d> mp(m), mn(m), fp(m), fn(m);
  for (std::size_t k = 0; k < m; ++k) {
    mp[k] = movingPoints[matches[k].first];
    mn[k] = movingNormals[matches[k].first];
    fp[k] = fixedPoints[matches[k].second];
    fn[k] = fixedNormals[matches[k].second];
  }
  const auto countInliers = [&](const Rigid& fit) {
    std::uint32_t n = 0;
    for (std::size_t k = 0; k < m; ++k) n += Length2(fit.Apply(mp[k]) - fp[k]) < d2 ? 1 : 0;
    return n;
  };

  // The triples run in waves of chunks; after each wave the trials that the best pose so
  // far asks for (enough to draw an all-inlier triple with the confidence asked for, at
  // its inlier share) end the search once they are reached. Waves, chunks and the order
  // of the comparisons are fixed, so the result does not depend on the threads.
  const std::uint64_t chunks = (parameters.trials + kTrialChunk - 1) / kTrialChunk;
  std::vector<Trial> best(chunks);
  const auto runChunk = [&](std::uint64_t c) {
    Trial& winner = best[c];
    const std::uint64_t end = std::min(parameters.trials, (c + 1) * kTrialChunk);
    for (std::uint64_t t = c * kTrialChunk; t < end; ++t) {
      std::uint64_t state = Mix(t);
      std::size_t pick[3];
      for (int i = 0; i < 3; ++i) {
        state = Mix(state);
        pick[i] = static_cast<std::size_t>(state % m);
      }
      if (pick[0] == pick[1] || pick[1] == pick[2] || pick[0] == pick[2]) continue;
      // Early rejection: a rigid motion keeps every edge's length.
      bool agree = true;
      for (int i = 0; i < 3 && agree; ++i) {
        const std::size_t a = pick[i], b = pick[(i + 1) % 3];
        const double lm = Length(mp[a] - mp[b]), lf = Length(fp[a] - fp[b]);
        agree = std::min(lm, lf) >= parameters.edgeAgreement * std::max(lm, lf) && lm > parameters.inlierDistance;
      }
      if (!agree) continue;
      const MMVector3d m3[3] = {mp[pick[0]], mp[pick[1]], mp[pick[2]]};
      const MMVector3d f3[3] = {fp[pick[0]], fp[pick[1]], fp[pick[2]]};
      Trial trial;
      if (!FitTriple(m3, f3, trial.fit)) continue;
      for (int i = 0; i < 3 && agree; ++i)
        agree = Dot(trial.fit.Turn(mn[pick[i]]), fn[pick[i]]) >= parameters.normalAgreement;
      if (!agree) continue;
      trial.inliers = countInliers(trial.fit);
      trial.index = t;
      if (trial.Beats(winner)) winner = trial;
    }
  };
  std::uint64_t done = 0;
  std::uint32_t mostInliers = 0;
  while (done < chunks) {
    const std::uint64_t wave = std::min(chunks, done + kWaveChunks);
    oneapi::tbb::parallel_for(done, wave, runChunk);
    for (std::uint64_t c = done; c < wave; ++c) mostInliers = std::max(mostInliers, best[c].inliers);
    done = wave;
    const double share = static_cast<double>(mostInliers) / static_cast<double>(m);
    const double allInliers = share * share * share;
    if (allInliers > 0.0 && done * kTrialChunk >= parameters.minimumTrials &&
        static_cast<double>(done * kTrialChunk) * -std::log1p(-std::min(allInliers, 0.999999)) >=
            -std::log(1.0 - parameters.confidence))
      break;
  }
  best.resize(done);
  std::sort(best.begin(), best.end(), [](const Trial& a, const Trial& b) { return a.Beats(b); });

  std::vector<Rigid> kept;
  for (const Trial& trial : best) {
    if (trial.inliers < 3 || result.size() >= parameters.keep) break;
    // Refit on the inliers, about their centroid for conditioning.
    std::vector<ZorSDK::Math::point<double, 3>> a, b;
    MMVector3d cm, cf;
    std::size_t n = 0;
    for (std::size_t k = 0; k < m; ++k)
      if (Length2(trial.fit.Apply(mp[k]) - fp[k]) < d2) {
        cm += mp[k];
        cf += fp[k];
        ++n;
      }
    cm = cm * (1.0 / double(n));
    cf = cf * (1.0 / double(n));
    for (std::size_t k = 0; k < m; ++k)
      if (Length2(trial.fit.Apply(mp[k]) - fp[k]) < d2) {
        const MMVector3d p = mp[k] - cm, q = fp[k] - cf;
        a.push_back({{p[0], p[1], p[2]}});
        b.push_back({{q[0], q[1], q[2]}});
      }
    Rigid fit = FromMatrix(ZorSDK::NPointRegistration(a, b, false));
    fit.t = MMVector3d();
    fit.t = cf - fit.Apply(cm);
    std::uint32_t inliers = countInliers(fit);
    if (inliers < trial.inliers) {
      fit = trial.fit;
      inliers = trial.inliers;
    }
    // A pose that puts the matched moving points within the inlier distance of where a
    // better pose puts them is the same pose.
    const bool repeated = std::any_of(kept.begin(), kept.end(), [&](const Rigid& other) {
      double worst = 0.0;
      for (std::size_t k = 0; k < m; k += std::max<std::size_t>(1, m / 64))
        worst = std::max(worst, Length2(fit.Apply(mp[k]) - other.Apply(mp[k])));
      return worst < d2;
    });
    if (repeated) continue;
    kept.push_back(fit);
    result.push_back({ToMatrix(fit), inliers});
  }
  return result;
}

std::vector<FeaturePose> FeaturePoses(const MStlBase& moving, const MStlBase& fixed) {
  const FeatureParameters features = ChooseFeatureParameters(moving, fixed);
  FeatureCloud fixedCloud, movingClouds[2];
  oneapi::tbb::parallel_invoke([&] { fixedCloud = DescribeSurface(fixed, features); },
                               [&] {
                                 movingClouds[0] = DescribeSurface(moving, features);
                                 movingClouds[1] = Reversed(movingClouds[0]);
                               });
  PoseSearchParameters search;
  search.inlierDistance = kFeatureInlierSpacings * features.spacing;
  // The winding that matches clearly closer is the one to search; both when neither is.
  const double asWound = MedianNearestDescriptor(movingClouds[0], fixedCloud, kWindingProbe);
  const double reversed = MedianNearestDescriptor(movingClouds[1], fixedCloud, kWindingProbe);
  const bool searched[2] = {!(reversed * kWindingMargin < asWound), !(asWound * kWindingMargin < reversed)};
  std::vector<FeaturePose> poses;
  for (std::size_t w = 0; w < 2; ++w) {
    if (!searched[w]) continue;
    const FeatureCloud& cloud = movingClouds[w];
    const std::vector<FeaturePose> found = EstimatePoses(cloud.points, cloud.normals, fixedCloud.points,
                                                         fixedCloud.normals, MatchFeatures(cloud, fixedCloud), search);
    poses.insert(poses.end(), found.begin(), found.end());
  }
  return poses;
}

}  // namespace ZorStlRegistration
