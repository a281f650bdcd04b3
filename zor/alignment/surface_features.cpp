#include "zor/alignment/surface_features.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include <oneapi/tbb/parallel_for.h>

#include "zor/model/stl_iterators.h"
#include "zor/services/n_point_registration.h"

namespace ZorStlRegistration {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kSpacingShare = 1.0 / 70.0;
constexpr double kNormalSpacings = 2.0;
constexpr double kFeatureSpacings = 5.0;
// A cell becomes a keypoint when it holds at least this share of a cell's area of
// surface: slivers along borders would give keypoints whose neighbourhood is mostly
// missing.
constexpr double kLeastCellArea = 0.2;
// Triples drawn per parallel chunk of the pose search; fixed, so that the chunks, and
// with them the result, do not depend on the threads.
constexpr std::uint64_t kTrialChunk = 256;

using CellKey = std::array<std::int64_t, 3>;

CellKey CellOf(const MMVector3d& p, double size) {
  return {static_cast<std::int64_t>(std::floor(p[0] / size)), static_cast<std::int64_t>(std::floor(p[1] / size)),
          static_cast<std::int64_t>(std::floor(p[2] / size))};
}

// Points bucketed on a grid: their numbers sorted by cell, so that the points of one
// cell are one run found by binary search.
struct Grid {
  Grid(const std::vector<MMVector3d>& points, double cellSize) : size(cellSize) {
    keys.resize(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) keys[i] = {CellOf(points[i], size), std::uint32_t(i)};
    std::sort(keys.begin(), keys.end());
  }
  // Calls visit(i) for every point i in the cells that the ball about `centre` of
  // `radius` reaches, in grid order.
  template <typename Visit>
  void ForCellsAround(const MMVector3d& centre, double radius, Visit&& visit) const {
    const CellKey lo = CellOf(centre - MMVector3d(radius, radius, radius), size);
    const CellKey hi = CellOf(centre + MMVector3d(radius, radius, radius), size);
    for (std::int64_t x = lo[0]; x <= hi[0]; ++x)
      for (std::int64_t y = lo[1]; y <= hi[1]; ++y) {
        const auto first = std::lower_bound(keys.begin(), keys.end(), Entry{{x, y, lo[2]}, 0});
        for (auto it = first; it != keys.end() && it->first[0] == x && it->first[1] == y && it->first[2] <= hi[2]; ++it)
          visit(it->second);
      }
  }
  using Entry = std::pair<CellKey, std::uint32_t>;
  double size;
  std::vector<Entry> keys;
};

// The three angles of the Darboux frame between two oriented points, binned as one
// histogram of 3 x 11: the source is the point whose normal is closer to the line.
void AddPairFeature(const MMVector3d& p1, const MMVector3d& n1, const MMVector3d& p2, const MMVector3d& n2,
                    double* bins) {
  MMVector3d d = p2 - p1;
  const double length = Length(d);
  if (!(length > 0.0)) return;
  d = d * (1.0 / length);
  MMVector3d u = n1, target = n2;
  double f3 = Dot(n1, d);
  if (std::fabs(Dot(n1, d)) < std::fabs(Dot(n2, d))) {
    u = n2;
    target = n1;
    d = d * -1.0;
    f3 = Dot(n2, d);
  }
  MMVector3d v = Cross(d, u);
  const double vl = Length(v);
  if (!(vl > 0.0)) return;
  v = v * (1.0 / vl);
  const MMVector3d w = Cross(u, v);
  const double f2 = Dot(v, target);
  const double f1 = std::atan2(Dot(w, target), Dot(u, target));
  const auto bin = [](double value, double lo, double hi) {
    const double at = std::floor(11.0 * (value - lo) / (hi - lo));
    return static_cast<int>(std::clamp(at, 0.0, 10.0));
  };
  bins[bin(f1, -kPi, kPi)] += 1.0;
  bins[11 + bin(f2, -1.0, 1.0)] += 1.0;
  bins[22 + bin(f3, -1.0, 1.0)] += 1.0;
}

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

// Descriptors of oriented keypoints (points without a normal get none); keypoints
// without a neighbour within featureRadius are dropped.
FeatureCloud Describe(const std::vector<MMVector3d>& keypoints, const std::vector<MMVector3d>& normals,
                      const FeatureParameters& parameters) {
  FeatureCloud cloud;
  // Simplified histograms over the keypoints within featureRadius.
  const double fr = parameters.featureRadius, fr2 = fr * fr;
  const Grid near(keypoints, fr);
  std::vector<std::array<double, kFeatureBins>> simple(keypoints.size());
  std::vector<std::uint32_t> neighbours(keypoints.size(), 0);
  oneapi::tbb::parallel_for(std::size_t(0), keypoints.size(), [&](std::size_t k) {
    std::array<double, kFeatureBins>& bins = simple[k];
    bins.fill(0.0);
    if (Length2(normals[k]) == 0.0) return;
    std::uint32_t count = 0;
    near.ForCellsAround(keypoints[k], fr, [&](std::uint32_t j) {
      if (j == k || Length2(normals[j]) == 0.0 || Length2(keypoints[j] - keypoints[k]) > fr2) return;
      AddPairFeature(keypoints[k], normals[k], keypoints[j], normals[j], bins.data());
      ++count;
    });
    neighbours[k] = count;
    if (count > 0)
      for (double& b : bins) b *= 100.0 / count;
  });

  // Each histogram plus its neighbours' weighted by inverse squared distance, each
  // third scaled to sum 100.
  std::vector<FeatureDescriptor> descriptors(keypoints.size());
  oneapi::tbb::parallel_for(std::size_t(0), keypoints.size(), [&](std::size_t k) {
    if (neighbours[k] == 0) return;
    std::array<double, kFeatureBins> sum{};
    near.ForCellsAround(keypoints[k], fr, [&](std::uint32_t j) {
      const double d2 = Length2(keypoints[j] - keypoints[k]);
      if (j == k || neighbours[j] == 0 || d2 > fr2 || !(d2 > 0.0)) return;
      for (std::size_t b = 0; b < kFeatureBins; ++b) sum[b] += simple[j][b] / d2;
    });
    for (std::size_t third = 0; third < 3; ++third) {
      double total = 0.0;
      for (std::size_t b = 11 * third; b < 11 * third + 11; ++b) total += sum[b];
      const double scale = total > 0.0 ? 100.0 / total : 0.0;
      for (std::size_t b = 11 * third; b < 11 * third + 11; ++b)
        descriptors[k][b] = static_cast<float>(0.5 * (sum[b] * scale + simple[k][b]));
    }
  });

  for (std::size_t k = 0; k < keypoints.size(); ++k) {
    if (neighbours[k] == 0) continue;
    cloud.points.push_back(keypoints[k]);
    cloud.normals.push_back(normals[k]);
    cloud.descriptors.push_back(descriptors[k]);
  }
  return cloud;
}

}  // namespace

FeatureParameters ChooseFeatureParameters(const MStlBase& moving, const MStlBase& fixed) {
  const auto diagonal = [](const MStlBase& mesh) {
    if (mesh.GetNumberOfTriangles() == 0) return 0.0;
    const double dx = double(mesh.GetXMax()) - mesh.GetXMin(), dy = double(mesh.GetYMax()) - mesh.GetYMin(),
                 dz = double(mesh.GetZMax()) - mesh.GetZMin();
    return std::sqrt(dx * dx + dy * dy + dz * dz);
  };
  FeatureParameters p;
  p.spacing = std::min(diagonal(moving), diagonal(fixed)) * kSpacingShare;
  p.normalRadius = kNormalSpacings * p.spacing;
  p.featureRadius = kFeatureSpacings * p.spacing;
  return p;
}

FeatureCloud DescribeSurface(const MStlBase& mesh, const FeatureParameters& parameters) {
  FeatureCloud cloud;
  const double s = parameters.spacing;
  if (!(s > 0.0) || !std::isfinite(s)) return cloud;

  // Even samples: each triangle cut into n^2 equal parts (n edge steps of at most half
  // a spacing), one sample at each part's centroid with its share of the area.
  std::vector<MMVector3d> samples, sampleNormals;
  std::vector<double> weights;
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MMVector3d a = it->GetVertex(0), b = it->GetVertex(1), c = it->GetVertex(2);
    const MMVector3d area = Cross(b - a, c - a);
    const double twiceArea = Length(area);
    if (!(twiceArea > 0.0)) continue;
    const MMVector3d normal = area * (1.0 / twiceArea);
    const double longest = std::sqrt(std::max({Length2(b - a), Length2(c - b), Length2(a - c)}));
    const int n = static_cast<int>(std::min(4096.0, std::max(1.0, std::ceil(2.0 * longest / s))));
    const double weight = 0.5 * twiceArea / (double(n) * n);
    const MMVector3d ab = (b - a) * (1.0 / n), ac = (c - a) * (1.0 / n);
    for (int i = 0; i < n; ++i)
      for (int j = 0; i + j < n; ++j) {
        samples.push_back(a + ab * (i + 1.0 / 3.0) + ac * (j + 1.0 / 3.0));
        if (i + j + 1 < n) samples.push_back(a + ab * (i + 2.0 / 3.0) + ac * (j + 2.0 / 3.0));
      }
    const std::size_t added = std::size_t(n) * n;
    sampleNormals.insert(sampleNormals.end(), added, normal);
    weights.insert(weights.end(), added, weight);
  }
  if (samples.empty()) return cloud;

  // One keypoint per cell with enough surface.
  const Grid cells(samples, s);
  std::vector<MMVector3d> keypoints;
  for (std::size_t i = 0; i < cells.keys.size();) {
    std::size_t j = i;
    double w = 0.0;
    MMVector3d sum;
    for (; j < cells.keys.size() && cells.keys[j].first == cells.keys[i].first; ++j) {
      const std::uint32_t k = cells.keys[j].second;
      w += weights[k];
      sum += samples[k] * weights[k];
    }
    if (w >= kLeastCellArea * s * s) keypoints.push_back(sum * (1.0 / w));
    i = j;
  }

  // Normals: the area-weighted triangle normals within normalRadius.
  std::vector<MMVector3d> normals(keypoints.size());
  const double nr2 = parameters.normalRadius * parameters.normalRadius;
  oneapi::tbb::parallel_for(std::size_t(0), keypoints.size(), [&](std::size_t k) {
    MMVector3d sum;
    cells.ForCellsAround(keypoints[k], parameters.normalRadius, [&](std::uint32_t i) {
      if (Length2(samples[i] - keypoints[k]) <= nr2) sum += sampleNormals[i] * weights[i];
    });
    const double l = Length(sum);
    normals[k] = l > 0.0 ? sum * (1.0 / l) : MMVector3d();
  });

  return Describe(keypoints, normals, parameters);
}

FeatureCloud Reversed(const FeatureCloud& cloud, const FeatureParameters& parameters) {
  std::vector<MMVector3d> normals(cloud.normals.size());
  for (std::size_t k = 0; k < normals.size(); ++k) normals[k] = cloud.normals[k] * -1.0;
  return Describe(cloud.points, normals, parameters);
}

std::vector<std::pair<std::uint32_t, std::uint32_t>> MatchFeatures(const FeatureCloud& moving,
                                                                   const FeatureCloud& fixed) {
  std::vector<std::pair<std::uint32_t, std::uint32_t>> matches;
  const std::vector<FeatureDescriptor>& a = moving.descriptors;
  const std::vector<FeatureDescriptor>& b = fixed.descriptors;
  if (a.empty() || b.empty()) return matches;
  // One pass over all pairs finds both nearest neighbours: rows of a fixed block size
  // run in parallel, each block keeps its own nearest row per column, and the blocks
  // merge in order. Ties go to the lower number both ways, on any threads.
  struct Nearest {
    float distance = std::numeric_limits<float>::infinity();
    std::uint32_t index = 0;
  };
  constexpr std::size_t kRows = 64;
  // Descriptors padded to 40 floats and summed in eight fixed lanes: the compiler can
  // keep the lanes in vector registers, and the order of the sum stays the same.
  constexpr std::size_t kLanes = 8, kStride = 40;
  const auto padded = [&](const std::vector<FeatureDescriptor>& from) {
    std::vector<float> out(from.size() * kStride, 0.0f);
    for (std::size_t i = 0; i < from.size(); ++i) std::copy(from[i].begin(), from[i].end(), &out[i * kStride]);
    return out;
  };
  const std::vector<float> pa = padded(a), pb = padded(b);
  const std::size_t blocks = (a.size() + kRows - 1) / kRows;
  std::vector<Nearest> forward(a.size());
  std::vector<std::vector<Nearest>> columns(blocks);
  oneapi::tbb::parallel_for(std::size_t(0), blocks, [&](std::size_t block) {
    std::vector<Nearest>& column = columns[block];
    column.assign(b.size(), Nearest());
    for (std::size_t i = block * kRows; i < std::min(a.size(), (block + 1) * kRows); ++i) {
      const float* x = &pa[i * kStride];
      Nearest row;
      for (std::size_t j = 0; j < b.size(); ++j) {
        const float* y = &pb[j * kStride];
        float lane[kLanes] = {};
        for (std::size_t k = 0; k < kStride; k += kLanes)
          for (std::size_t l = 0; l < kLanes; ++l) {
            const float e = x[k + l] - y[k + l];
            lane[l] += e * e;
          }
        const float d = ((lane[0] + lane[1]) + (lane[2] + lane[3])) + ((lane[4] + lane[5]) + (lane[6] + lane[7]));
        if (d < row.distance) row = {d, static_cast<std::uint32_t>(j)};
        if (d < column[j].distance) column[j] = {d, static_cast<std::uint32_t>(i)};
      }
      forward[i] = row;
    }
  });
  std::vector<Nearest> backward = std::move(columns[0]);
  for (std::size_t block = 1; block < blocks; ++block)
    for (std::size_t j = 0; j < b.size(); ++j)
      if (columns[block][j].distance < backward[j].distance) backward[j] = columns[block][j];
  for (std::uint32_t i = 0; i < a.size(); ++i)
    if (backward[forward[i].index].index == i) matches.emplace_back(i, forward[i].index);
  return matches;
}

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

  const std::uint64_t chunks = (parameters.trials + kTrialChunk - 1) / kTrialChunk;
  std::vector<Trial> best(chunks);
  oneapi::tbb::parallel_for(std::uint64_t(0), chunks, [&](std::uint64_t c) {
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
  });
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

}  // namespace ZorStlRegistration
