#include "zor/pair/detail/search_copy.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include <tbb/parallel_invoke.h>

#include "zor/model/mesh_builder.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace ZorStlRegistration::detail {

namespace {

// Triangles of the surface sampled for its area: enough for a few percent, far fewer
// than a large mesh has.
constexpr std::size_t kAreaSamples = 65536;
// A clustering that keeps more than this many times the triangles asked for runs again
// on a grid sized from what it kept.
constexpr double kTooMany = 1.5;
// Steps of the progress report of both copies.
constexpr std::size_t kReductionSteps = 100;

// Grid cells by their integer coordinates, numbered in the order they are first met:
// open addressing over 64-bit keys, sized for the cells a surface can occupy.
class CellTable {
public:
  explicit CellTable(std::size_t expected) {
    std::size_t size = 1024;
    while (size < 4 * expected) size *= 2;
    keys.assign(size, kEmpty);
    numbers.assign(size, 0);
  }
  // The cell's number, a new one for a cell not met before.
  std::uint32_t Find(std::uint64_t key) {
    std::size_t slot = Hash(key) & (keys.size() - 1);
    while (keys[slot] != kEmpty && keys[slot] != key) slot = (slot + 1) & (keys.size() - 1);
    if (keys[slot] == kEmpty) {
      if (4 * (std::size_t{count} + 1) > 3 * keys.size()) Grow();
      return Find(key, count++);
    }
    return numbers[slot];
  }
  std::uint32_t Count() const { return count; }

private:
  static constexpr std::uint64_t kEmpty = ~std::uint64_t{0};
  static std::uint64_t Hash(std::uint64_t k) {
    k ^= k >> 33;
    k *= 0xff51afd7ed558ccdULL;
    k ^= k >> 33;
    return k;
  }
  std::uint32_t Find(std::uint64_t key, std::uint32_t number) {
    std::size_t slot = Hash(key) & (keys.size() - 1);
    while (keys[slot] != kEmpty) slot = (slot + 1) & (keys.size() - 1);
    keys[slot] = key;
    numbers[slot] = number;
    return number;
  }
  void Grow() {
    std::vector<std::uint64_t> oldKeys(2 * keys.size(), kEmpty);
    std::vector<std::uint32_t> oldNumbers(2 * keys.size(), 0);
    oldKeys.swap(keys);
    oldNumbers.swap(numbers);
    for (std::size_t s = 0; s < oldKeys.size(); ++s)
      if (oldKeys[s] != kEmpty) Find(oldKeys[s], oldNumbers[s]);
  }
  std::vector<std::uint64_t> keys;
  std::vector<std::uint32_t> numbers;
  std::uint32_t count = 0;
};

struct Clustered {
  std::vector<std::uint32_t> keep;     // per point: its cell's point when it stands for the cell, else UINT32_MAX
  std::vector<std::uint32_t> corners;  // in the points' places
};

// Clusters the points on a grid of cells `h` across: each cell is stood for by its point
// nearest the mean of its points (the first in list order, `order`, on a tie), each
// triangle by the cells of its corners unless two share one, each set of three cells
// once (its first triangle in the mesh's order).
Clustered Cluster(const std::vector<MMVector3d>& xyz, const std::vector<std::uint32_t>& order,
                  const std::vector<std::uint8_t>& used, const std::vector<std::uint32_t>& corners,
                  const MMVector3d& low, double h, std::size_t expected) {
  const std::size_t n = xyz.size();
  CellTable table(expected);
  std::vector<std::uint32_t> cellOf(n, UINT32_MAX);
  std::vector<MMVector3d> sum;
  std::vector<std::uint32_t> members;
  for (const std::uint32_t i : order) {
    if (used[i] == 0) continue;
    std::uint64_t key = 0;
    for (std::size_t k = 0; k < 3; ++k)
      key = key << 21 | (static_cast<std::uint64_t>(std::floor((xyz[i][k] - low[k]) / h)) & 0x1FFFFF);
    const std::uint32_t cell = table.Find(key);
    if (cell == sum.size()) {
      sum.emplace_back();
      members.push_back(0);
    }
    sum[cell] += xyz[i];
    ++members[cell];
    cellOf[i] = cell;
  }
  const std::size_t cells = sum.size();
  std::vector<std::uint32_t> standFor(cells, UINT32_MAX);
  std::vector<double> nearest(cells, HUGE_VAL);
  for (const std::uint32_t i : order) {
    if (cellOf[i] == UINT32_MAX) continue;
    const std::uint32_t c = cellOf[i];
    const double d = Length2(xyz[i] - sum[c] * (1.0 / members[c]));
    if (d < nearest[c]) {
      nearest[c] = d;
      standFor[c] = i;
    }
  }
  Clustered out;
  out.keep.assign(n, UINT32_MAX);
  for (std::uint32_t p : standFor) out.keep[p] = p;
  std::vector<std::array<std::uint32_t, 4>> seen;  // sorted cells, then the triangle
  for (std::size_t t = 0; t + 2 < corners.size(); t += 3) {
    std::array<std::uint32_t, 3> c = {cellOf[corners[t]], cellOf[corners[t + 1]], cellOf[corners[t + 2]]};
    if (c[0] == c[1] || c[1] == c[2] || c[0] == c[2]) continue;
    std::array<std::uint32_t, 3> sorted = c;
    std::sort(sorted.begin(), sorted.end());
    seen.push_back({sorted[0], sorted[1], sorted[2], static_cast<std::uint32_t>(t / 3)});
  }
  // The first triangle of each set of cells, in the mesh's order.
  std::sort(seen.begin(), seen.end());
  std::vector<std::uint32_t> firsts;
  for (std::size_t k = 0; k < seen.size(); ++k)
    if (k == 0 || seen[k][0] != seen[k - 1][0] || seen[k][1] != seen[k - 1][1] || seen[k][2] != seen[k - 1][2])
      firsts.push_back(seen[k][3]);
  std::sort(firsts.begin(), firsts.end());
  out.corners.reserve(3 * firsts.size());
  for (std::uint32_t t : firsts)
    for (std::size_t k = 0; k < 3; ++k) out.corners.push_back(standFor[cellOf[corners[3 * std::size_t{t} + k]]]);
  return out;
}

}  // namespace

std::unique_ptr<MStlBase> ClusteredSearchCopy(const MStlBase& mesh, std::size_t triangles) {
  // The points by their mask places, which the triangles name directly.
  const std::size_t places = mesh.GetMasks().GetPointMaskSize();
  std::vector<MMVector3d> xyz(places);
  std::vector<std::uint8_t> used(places, 0);
  std::vector<std::uint32_t> order;  // mask places in list order
  order.reserve(mesh.NumberOfPoints());
  MMVector3d low(HUGE_VAL, HUGE_VAL, HUGE_VAL), high(-HUGE_VAL, -HUGE_VAL, -HUGE_VAL);
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    const std::uint32_t i = static_cast<std::uint32_t>(p->GetMaskIndex());
    xyz[i] = p->GetDouble();
    order.push_back(i);
    for (std::size_t k = 0; k < 3; ++k) {
      low[k] = std::min(low[k], xyz[i][k]);
      high[k] = std::max(high[k], xyz[i][k]);
    }
  }
  std::vector<std::uint32_t> corners;
  corners.reserve(3 * mesh.GetNumberOfTriangles());
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = static_cast<const MStlTriangle*>(it);
    for (std::size_t k = 0; k < 3; ++k) {
      const auto c = static_cast<std::uint32_t>(t->GetPoint(k)->GetMaskIndex());
      corners.push_back(c);
      used[c] = 1;
    }
  }
  std::vector<std::uint32_t> keep(places);
  for (std::uint32_t i : order) keep[i] = corners.empty() ? i : UINT32_MAX;
  for (std::uint32_t c : corners) keep[c] = c;
  const std::size_t count = corners.size() / 3;
  if (count > triangles && triangles > 0) {
    // A cell h across holds about h^2 of the surface, and the clustered surface keeps
    // about two triangles a cell: the grid is sized from the area, measured on a sample.
    const std::size_t every = std::max<std::size_t>(1, count / kAreaSamples);
    double area = 0.0;
    for (std::size_t t = 0; t < count; t += every)
      area += 0.5 * Length(Cross(xyz[corners[3 * t + 1]] - xyz[corners[3 * t]],
                                 xyz[corners[3 * t + 2]] - xyz[corners[3 * t]]));
    const std::size_t sampled = (count + every - 1) / every;
    area *= static_cast<double>(count) / static_cast<double>(sampled);
    // At least a millionth of the box, so that the cells' coordinates fit their keys.
    const double longest = std::max({high[0] - low[0], high[1] - low[1], high[2] - low[2], 1.0});
    double h = std::sqrt(2.0 * area / static_cast<double>(triangles));
    if (!(h > 1e-6 * longest)) h = 1e-6 * longest;
    Clustered c = Cluster(xyz, order, used, corners, low, h, triangles);
    const auto keptTriangles = static_cast<double>(c.corners.size()) / 3.0;
    if (keptTriangles > kTooMany * static_cast<double>(triangles))
      c = Cluster(xyz, order, used, corners, low, h * std::sqrt(keptTriangles / static_cast<double>(triangles)),
                  triangles);
    keep.swap(c.keep);
    corners.swap(c.corners);
  }
  // The points kept, in the mesh's list order.
  std::vector<std::uint32_t> renumber(places, UINT32_MAX);
  std::vector<double> points;
  std::uint32_t kept = 0;
  for (std::uint32_t i : order) {
    if (keep[i] == UINT32_MAX) continue;
    renumber[i] = kept++;
    points.insert(points.end(), {xyz[i][0], xyz[i][1], xyz[i][2]});
  }
  for (std::uint32_t& c : corners) c = renumber[c];
  return BuildStl(points.data(), kept, corners.data(), corners.size() / 3);
}

bool ClustersMesh(const MStlBase& mesh, std::size_t searchTriangles) {
  return searchTriangles > 0 && mesh.GetNumberOfTriangles() / 4 > searchTriangles;
}

std::pair<std::unique_ptr<MStlBase>, std::unique_ptr<MStlBase>> SearchCopies(
    MStlBase& moving, MStlBase& fixed, double bound, std::size_t searchTriangles,
    const std::shared_ptr<ZorSDK::Common::IProgressDelegate>& progress) {
  // The report moves with the blocks of both reductions, each mesh's share by its
  // triangles.
  const std::size_t movingTriangles = moving.GetNumberOfTriangles(), fixedTriangles = fixed.GetNumberOfTriangles();
  const std::size_t all = std::max<std::size_t>(1, movingTriangles + fixedTriangles);
  const std::size_t movingSteps = kReductionSteps * movingTriangles / all;
  ZorSDK::Common::IncrementalProgressReporter reporter(progress, "Reduction", kReductionSteps, false);
  ZorSDK::Common::ProgressShare movingShare(reporter, movingSteps, movingTriangles);
  ZorSDK::Common::ProgressShare fixedShare(reporter, kReductionSteps - movingSteps, fixedTriangles);
  const auto copyOf = [&](MStlBase& mesh, ZorSDK::Common::ProgressShare& share) {
    if (ClustersMesh(mesh, searchTriangles)) {
      std::unique_ptr<MStlBase> copy = ClusteredSearchCopy(mesh, searchTriangles);
      share.Add(mesh.GetNumberOfTriangles());
      return copy;
    }
    return ReducedSearchCopy(mesh, bound, &share);
  };
  std::pair<std::unique_ptr<MStlBase>, std::unique_ptr<MStlBase>> copies;
  tbb::parallel_invoke([&] { copies.first = copyOf(moving, movingShare); },
                       [&] { copies.second = copyOf(fixed, fixedShare); });
  return copies;
}

}  // namespace ZorStlRegistration::detail
