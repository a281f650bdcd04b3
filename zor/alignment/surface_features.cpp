#include "zor/alignment/surface_features.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include <oneapi/tbb/parallel_for.h>

#include "zor/model/stl_iterators.h"

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
// A triangle cut into more equal parts than this many times what its area needs is a
// sliver, sampled by its area instead.
constexpr double kSliverParts = 4.0;
// The R2 sequence's steps: 1/g and 1/g^2 for the plastic number g (Roberts, 2018).
constexpr double kR2First = 0.7548776662466927, kR2Second = 0.5698402909980532;

// Points bucketed on a grid: their numbers sorted by cell, so that the points of one
// cell are one run found by binary search. A cell is one 64-bit key, 21 bits an axis,
// counted from the lowest cell; cells grow beyond the size asked for where the points
// would span more than 2^21 of them.
struct Grid {
  Grid(const std::vector<MMVector3d>& points, double cellSize) : size(cellSize) {
    if (points.empty()) return;
    MMVector3d lo = points[0], hi = points[0];
    for (const MMVector3d& p : points)
      for (int k = 0; k < 3; ++k) lo[k] = std::min(lo[k], p[k]), hi[k] = std::max(hi[k], p[k]);
    for (int k = 0; k < 3; ++k) size = std::max(size, (hi[k] - lo[k]) / double(kSpan - 2));
    for (int k = 0; k < 3; ++k) origin[k] = std::floor(lo[k] / size) - 1.0;
    keys.resize(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) keys[i] = {Key(Cell(points[i])), std::uint32_t(i)};
    std::sort(keys.begin(), keys.end());
  }
  // Calls visit(i) for every point i in the cells that the ball about `centre` of
  // `radius` reaches, in grid order.
  template <typename Visit>
  void ForCellsAround(const MMVector3d& centre, double radius, Visit&& visit) const {
    const std::array<std::int64_t, 3> lo = Cell(centre - MMVector3d(radius, radius, radius));
    const std::array<std::int64_t, 3> hi = Cell(centre + MMVector3d(radius, radius, radius));
    for (std::int64_t x = lo[0]; x <= hi[0]; ++x)
      for (std::int64_t y = lo[1]; y <= hi[1]; ++y) {
        const std::uint64_t first = Key({x, y, lo[2]}), last = Key({x, y, hi[2]});
        for (auto it = std::lower_bound(keys.begin(), keys.end(), Entry{first, 0});
             it != keys.end() && it->first <= last; ++it)
          visit(it->second);
      }
  }
  // The runs of points that share a cell: visit(begin, end) over `keys`.
  template <typename Visit>
  void ForEachCell(Visit&& visit) const {
    for (std::size_t i = 0; i < keys.size();) {
      std::size_t j = i;
      while (j < keys.size() && keys[j].first == keys[i].first) ++j;
      visit(i, j);
      i = j;
    }
  }

  static constexpr std::int64_t kSpan = std::int64_t(1) << 21;
  using Entry = std::pair<std::uint64_t, std::uint32_t>;
  std::array<std::int64_t, 3> Cell(const MMVector3d& p) const {
    std::array<std::int64_t, 3> c{};
    for (int k = 0; k < 3; ++k) {
      // Places outside the points' span (a query ball's corners) are clamped to the
      // border cells, which hold no point beyond them.
      const double at = std::floor(p[k] / size) - origin[k];
      c[k] = static_cast<std::int64_t>(std::clamp(at, 0.0, double(kSpan - 1)));
    }
    return c;
  }
  static std::uint64_t Key(const std::array<std::int64_t, 3>& c) {
    return (std::uint64_t(c[0]) << 42) | (std::uint64_t(c[1]) << 21) | std::uint64_t(c[2]);
  }
  double size;
  MMVector3d origin;  // the lowest cell's index, less one, per axis
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

// Descriptors padded to 40 floats and compared in eight fixed lanes: the compiler keeps
// the lanes in vector registers, and the order of the sum is the same for every pair.
constexpr std::size_t kDescriptorLanes = 8, kDescriptorStride = 40;

std::vector<float> PaddedDescriptors(const std::vector<FeatureDescriptor>& from) {
  std::vector<float> out(from.size() * kDescriptorStride, 0.0f);
  for (std::size_t i = 0; i < from.size(); ++i) std::copy(from[i].begin(), from[i].end(), &out[i * kDescriptorStride]);
  return out;
}

float DescriptorDistance2(const float* x, const float* y) {
  float lane[kDescriptorLanes] = {};
  for (std::size_t k = 0; k < kDescriptorStride; k += kDescriptorLanes)
    for (std::size_t l = 0; l < kDescriptorLanes; ++l) {
      const float e = x[k + l] - y[k + l];
      lane[l] += e * e;
    }
  return ((lane[0] + lane[1]) + (lane[2] + lane[3])) + ((lane[4] + lane[5]) + (lane[6] + lane[7]));
}

// An exact nearest-descriptor search: a k-d tree split at the median of the widest
// dimension (Friedman, Bentley and Finkel, 1977). Its answer is the brute force's: the
// same distance function, and of equal distances the lowest number, since a subtree is
// passed over only when its bound clearly exceeds the best distance.
class DescriptorTree {
public:
  DescriptorTree(const std::vector<float>& padded, std::size_t count) : data(padded) {
    order.resize(count);
    std::iota(order.begin(), order.end(), 0u);
    nodes.reserve(2 * count / kLeaf + 2);
    Build(0, static_cast<std::uint32_t>(count));
  }

  std::uint32_t Nearest(const float* query) const {
    float best = std::numeric_limits<float>::infinity();
    std::uint32_t index = std::numeric_limits<std::uint32_t>::max();
    std::array<double, kFeatureBins> offsets{};
    Search(0, query, 0.0, offsets, best, index);
    return index;
  }

private:
  static constexpr std::uint32_t kLeaf = 8;
  struct Node {
    std::uint32_t begin, end;           // of `order`
    std::uint32_t left = 0, right = 0;  // children; 0: a leaf
    std::uint32_t dimension = 0;
    float split = 0.0f;
  };

  std::uint32_t Build(std::uint32_t begin, std::uint32_t end) {
    const auto at = static_cast<std::uint32_t>(nodes.size());
    nodes.push_back({begin, end});
    if (end - begin <= kLeaf) return at;
    float widest = -1.0f;
    std::uint32_t dimension = 0;
    for (std::uint32_t d = 0; d < kFeatureBins; ++d) {
      float lo = std::numeric_limits<float>::infinity(), hi = -lo;
      for (std::uint32_t i = begin; i < end; ++i) {
        lo = std::min(lo, Coordinate(order[i], d));
        hi = std::max(hi, Coordinate(order[i], d));
      }
      if (hi - lo > widest) widest = hi - lo, dimension = d;
    }
    if (!(widest > 0.0f)) return at;  // all alike: a leaf
    const std::uint32_t mid = begin + (end - begin) / 2;
    std::nth_element(
        order.begin() + begin, order.begin() + mid, order.begin() + end,
        [&](std::uint32_t a, std::uint32_t b) { return Coordinate(a, dimension) < Coordinate(b, dimension); });
    nodes[at].dimension = dimension;
    nodes[at].split = Coordinate(order[mid], dimension);
    const std::uint32_t left = Build(begin, mid);
    const std::uint32_t right = Build(mid, end);
    nodes[at].left = left;
    nodes[at].right = right;
    return at;
  }

  float Coordinate(std::uint32_t i, std::uint32_t d) const { return data[i * kDescriptorStride + d]; }

  // `bound` is the squared distance from the query to the node's cell, summed over the
  // dimensions whose splits the descent has crossed (`offsets` holds each one's offset:
  // Arya and Mount's incremental distance). A cell whose bound exceeds the best
  // distance, by a margin for the rounding of the two sums, cannot hold a point as near.
  void Search(std::uint32_t at, const float* query, double bound, std::array<double, kFeatureBins>& offsets,
              float& best, std::uint32_t& index) const {
    const Node& node = nodes[at];
    if (node.left == 0) {
      for (std::uint32_t k = node.begin; k < node.end; ++k) {
        const std::uint32_t i = order[k];
        const float d = DescriptorDistance2(query, &data[i * kDescriptorStride]);
        if (d < best || (d == best && i < index)) best = d, index = i;
      }
      return;
    }
    // Below the split lie values up to it, above it values from it on.
    const double diff = double(query[node.dimension]) - double(node.split);
    const std::uint32_t near = diff < 0.0 ? node.left : node.right, far = diff < 0.0 ? node.right : node.left;
    Search(near, query, bound, offsets, best, index);
    const double before = offsets[node.dimension];
    const double farBound = bound - before * before + diff * diff;
    if (farBound > double(best) * (1.0 + 1e-6)) return;
    offsets[node.dimension] = diff;
    Search(far, query, farBound, offsets, best, index);
    offsets[node.dimension] = before;
  }

  const std::vector<float>& data;
  std::vector<std::uint32_t> order;
  std::vector<Node> nodes;
};

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
  // a spacing), one sample at each part's centroid with its share of the area. A sliver
  // (long edges about little area: the flat triangles a reduction leaves on a plane)
  // would give far more parts than its area needs; it gets samples by its area instead,
  // spread over it by a low-discrepancy sequence (Roberts' R2), each with its share.
  std::vector<MMVector3d> samples, sampleNormals;
  std::vector<double> weights;
  const double sampleArea = 0.25 * s * s;
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MMVector3d a = it->GetVertex(0), b = it->GetVertex(1), c = it->GetVertex(2);
    const MMVector3d area = Cross(b - a, c - a);
    const double twiceArea = Length(area);
    if (!(twiceArea > 0.0)) continue;
    const MMVector3d normal = area * (1.0 / twiceArea);
    const double longest = std::sqrt(std::max({Length2(b - a), Length2(c - b), Length2(a - c)}));
    const double byArea = std::ceil(0.5 * twiceArea / sampleArea);
    const int n = static_cast<int>(std::min(4096.0, std::max(1.0, std::ceil(2.0 * longest / s))));
    std::size_t added = 0;
    if (double(n) * n > kSliverParts * byArea) {
      added = static_cast<std::size_t>(std::min(byArea, 16777216.0));
      for (std::size_t i = 0; i < added; ++i) {
        double u = 0.5 + double(i) * kR2First, v = 0.5 + double(i) * kR2Second;
        u -= std::floor(u), v -= std::floor(v);
        if (u + v > 1.0) u = 1.0 - u, v = 1.0 - v;
        samples.push_back(a + (b - a) * u + (c - a) * v);
      }
    } else {
      const MMVector3d ab = (b - a) * (1.0 / n), ac = (c - a) * (1.0 / n);
      for (int i = 0; i < n; ++i)
        for (int j = 0; i + j < n; ++j) {
          samples.push_back(a + ab * (i + 1.0 / 3.0) + ac * (j + 1.0 / 3.0));
          if (i + j + 1 < n) samples.push_back(a + ab * (i + 2.0 / 3.0) + ac * (j + 2.0 / 3.0));
        }
      added = std::size_t(n) * n;
    }
    sampleNormals.insert(sampleNormals.end(), added, normal);
    weights.insert(weights.end(), added, 0.5 * twiceArea / double(added));
  }
  if (samples.empty()) return cloud;

  // One keypoint per cell with enough surface.
  const Grid cells(samples, s);
  std::vector<MMVector3d> keypoints;
  cells.ForEachCell([&](std::size_t begin, std::size_t end) {
    double w = 0.0;
    MMVector3d sum;
    for (std::size_t j = begin; j < end; ++j) {
      const std::uint32_t k = cells.keys[j].second;
      w += weights[k];
      sum += samples[k] * weights[k];
    }
    if (w >= kLeastCellArea * s * s) keypoints.push_back(sum * (1.0 / w));
  });

  // Normals: the area-weighted triangle normals within normalRadius, found on a grid of
  // that size.
  std::vector<MMVector3d> normals(keypoints.size());
  const double nr2 = parameters.normalRadius * parameters.normalRadius;
  const Grid near(samples, parameters.normalRadius);
  oneapi::tbb::parallel_for(std::size_t(0), keypoints.size(), [&](std::size_t k) {
    MMVector3d sum;
    near.ForCellsAround(keypoints[k], parameters.normalRadius, [&](std::uint32_t i) {
      if (Length2(samples[i] - keypoints[k]) <= nr2) sum += sampleNormals[i] * weights[i];
    });
    const double l = Length(sum);
    normals[k] = l > 0.0 ? sum * (1.0 / l) : MMVector3d();
  });

  return Describe(keypoints, normals, parameters);
}

FeatureCloud Reversed(const FeatureCloud& cloud) {
  // Reversing every normal turns the Darboux frame's first and third axes (u = n_s and
  // v = d x u change sign, w = u x v does not) and the target normal: the first angle and
  // the third feature change sign, the second does not. Their bins over symmetric
  // ranges mirror, and so do the histograms, which are sums of them.
  FeatureCloud reversed = cloud;
  for (MMVector3d& n : reversed.normals) n = n * -1.0;
  for (FeatureDescriptor& d : reversed.descriptors)
    for (std::size_t third : {0, 2}) std::reverse(d.begin() + 11 * third, d.begin() + 11 * third + 11);
  return reversed;
}

std::vector<std::pair<std::uint32_t, std::uint32_t>> MatchFeatures(const FeatureCloud& moving,
                                                                   const FeatureCloud& fixed) {
  std::vector<std::pair<std::uint32_t, std::uint32_t>> matches;
  if (moving.descriptors.empty() || fixed.descriptors.empty()) return matches;
  const std::vector<float> pa = PaddedDescriptors(moving.descriptors), pb = PaddedDescriptors(fixed.descriptors);
  const DescriptorTree fixedTree(pb, fixed.descriptors.size()), movingTree(pa, moving.descriptors.size());
  std::vector<std::uint32_t> forward(moving.descriptors.size()), backward(fixed.descriptors.size());
  oneapi::tbb::parallel_for(std::size_t(0), forward.size(),
                            [&](std::size_t i) { forward[i] = fixedTree.Nearest(&pa[i * kDescriptorStride]); });
  oneapi::tbb::parallel_for(std::size_t(0), backward.size(),
                            [&](std::size_t j) { backward[j] = movingTree.Nearest(&pb[j * kDescriptorStride]); });
  for (std::uint32_t i = 0; i < forward.size(); ++i)
    if (backward[forward[i]] == i) matches.emplace_back(i, forward[i]);
  return matches;
}

double MedianNearestDescriptor(const FeatureCloud& moving, const FeatureCloud& fixed, std::size_t every) {
  if (moving.descriptors.empty() || fixed.descriptors.empty()) return std::numeric_limits<double>::infinity();
  every = std::max<std::size_t>(1, every);
  const std::vector<float> pa = PaddedDescriptors(moving.descriptors), pb = PaddedDescriptors(fixed.descriptors);
  const DescriptorTree fixedTree(pb, fixed.descriptors.size());
  std::vector<double> nearest((moving.descriptors.size() + every - 1) / every);
  oneapi::tbb::parallel_for(std::size_t(0), nearest.size(), [&](std::size_t k) {
    const float* query = &pa[k * every * kDescriptorStride];
    nearest[k] = DescriptorDistance2(query, &pb[fixedTree.Nearest(query) * kDescriptorStride]);
  });
  const auto middle = nearest.begin() + static_cast<std::ptrdiff_t>(nearest.size() / 2);
  std::nth_element(nearest.begin(), middle, nearest.end());
  return *middle;
}

}  // namespace ZorStlRegistration
