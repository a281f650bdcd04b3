#include "zor/alignment/surface_sampling.h"

#include <algorithm>
#include <cmath>

#include <oneapi/tbb/enumerable_thread_specific.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/parallel_sort.h>

#include "zor/alignment/surface_patch.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {
namespace {

// Walks a run sorted by component `axis` in cells of `cellSize` starting at its first
// value, calling `cell(begin, end)` for each non-empty cell.
template <typename Cell>
void WalkCells(const std::vector<MMVector3d>& run, int axis, double cellSize, Cell&& cell) {
  const double first = run.front()[axis];
  std::size_t i = 0;
  for (std::uint64_t k = 0; i < run.size(); ++k) {
    const double lower = double(k) * cellSize + first;
    const double upper = cellSize + lower;
    const std::size_t begin = i;
    while (i < run.size() && run[i][axis] < upper) ++i;
    if (i > begin) cell(begin, i);
    // Skip a gap of empty cells at once. The division may round either way, so the walk
    // resumes one cell early and still compares each bound exactly as written above.
    if (i < run.size()) {
      const double next = std::floor((run[i][axis] - first) / cellSize);
      if (next > double(k) + 2.0) k = static_cast<std::uint64_t>(next) - 2;
    }
  }
}

// Cells of no extent: equal points share a cell.
std::uint64_t GridSampleDistinct(const std::vector<MMVector3d>& source, bool countOnly, std::vector<MMVector3d>& out) {
  std::vector<MMVector3d> sorted(source);
  oneapi::tbb::parallel_sort(sorted.begin(), sorted.end(), LexicographicLess<double>);
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < sorted.size();) {
    std::size_t j = i + 1;
    while (j < sorted.size() && sorted[j] == sorted[i]) ++j;
    ++count;
    if (!countOnly) out.push_back(sorted[i]);
    i = j;
  }
  return count;
}

// The cell of `v` on a walk from `first` in steps of `size`, as WalkCells finds it: the
// least k with v < size + (k size + first). False when the walk's arithmetic is out of
// its depth (a step lost against `first`, or a cell number beyond exact doubles).
bool CellOf(double v, double first, double size, std::uint64_t& k) {
  const double estimate = std::floor((v - first) / size);
  if (!(estimate >= 0.0 && estimate < 1.0e15)) return false;
  std::uint64_t c = static_cast<std::uint64_t>(estimate);
  const auto upper = [&](std::uint64_t j) { return size + (double(j) * size + first); };
  for (int guard = 0; c > 0 && v < upper(c - 1); ++guard, --c)
    if (guard == 4) return false;
  for (int guard = 0; !(v < upper(c)); ++guard, ++c)
    if (guard == 4) return false;
  k = c;
  return true;
}

// The count of GridSample(countOnly) at `cellSize` on points already sorted by x, found
// without sorting points: each slab (the same walk over x) numbers its points' rows,
// sorts (row, z) pairs once, and counts the cells along each row. Slabs run in
// parallel; the count is a sum of integers, the same on any threads. False when some
// cell number is out of reach (see CellOf): the caller then counts the sorting way.
// Scratch of one thread for CountCells.
struct CellScratch {
  std::vector<std::uint64_t> rowOf;                           // per point of the slab
  std::vector<double> rowLowest;                              // per row: its lowest z
  std::vector<std::pair<std::uint64_t, std::uint64_t>> seen;  // hash set of (row, cell); row ~0 is empty
  std::vector<std::pair<std::uint64_t, std::uint64_t>> grown;
};

constexpr std::uint64_t kNoRow = ~std::uint64_t(0);

// The occupied cells of one slab: rows numbered, each row's lowest z found on a dense
// table of rows, then every (row, cell) pair counted once on a hash set. False when a
// cell number is out of reach or the rows are too sparse for the table.
bool CountSlab(const std::vector<MMVector3d>& byX, std::size_t begin, std::size_t end, double cellSize,
               CellScratch& scratch, std::uint64_t& cells) {
  const std::size_t n = end - begin;
  double firstY = byX[begin][1];
  for (std::size_t i = begin; i < end; ++i) firstY = std::min(firstY, byX[i][1]);
  scratch.rowOf.resize(n);
  std::uint64_t rows = 0;
  for (std::size_t i = 0; i < n; ++i) {
    if (!CellOf(byX[begin + i][1], firstY, cellSize, scratch.rowOf[i])) return false;
    rows = std::max(rows, scratch.rowOf[i] + 1);
  }
  if (rows > 4 * n + 64) return false;
  scratch.rowLowest.assign(rows, HUGE_VAL);
  for (std::size_t i = 0; i < n; ++i)
    scratch.rowLowest[scratch.rowOf[i]] = std::min(scratch.rowLowest[scratch.rowOf[i]], byX[begin + i][2]);
  // The set starts small and doubles when half full: a slab holds few cells next to its
  // points at the sizes the bisection tries, and a table the size of the slab would
  // cost more to clear than the count.
  scratch.seen.assign(64, {kNoRow, 0});
  cells = 0;
  const auto insert = [](std::vector<std::pair<std::uint64_t, std::uint64_t>>& into, std::uint64_t row,
                         std::uint64_t cell) {
    std::uint64_t h = (row * 0x9E3779B97F4A7C15ull) ^ (cell * 0xC2B2AE3D27D4EB4Full);
    h ^= h >> 29;
    const std::size_t mask = into.size() - 1;
    for (std::size_t k = h & mask;; k = (k + 1) & mask) {
      std::pair<std::uint64_t, std::uint64_t>& slot = into[k];
      if (slot.first == kNoRow) {
        slot = {row, cell};
        return true;
      }
      if (slot.first == row && slot.second == cell) return false;
    }
  };
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint64_t row = scratch.rowOf[i];
    std::uint64_t cell = 0;
    if (!CellOf(byX[begin + i][2], scratch.rowLowest[row], cellSize, cell)) return false;
    if (!insert(scratch.seen, row, cell)) continue;
    if (2 * ++cells > scratch.seen.size()) {
      scratch.grown.assign(2 * scratch.seen.size(), {kNoRow, 0});
      for (const auto& slot : scratch.seen)
        if (slot.first != kNoRow) insert(scratch.grown, slot.first, slot.second);
      scratch.seen.swap(scratch.grown);
    }
  }
  return true;
}

// The count of GridSample(countOnly) at `cellSize` on points already sorted by x, found
// without sorting points: slabs by the same walk over x, rows and cells numbered as the
// walks number them. Slabs run in parallel; the count is a sum of integers, the same on
// any threads. False when some slab cannot be counted this way: the caller then counts
// the sorting way.
bool CountCells(const std::vector<MMVector3d>& byX, double cellSize, std::uint64_t& count) {
  std::vector<std::pair<std::size_t, std::size_t>> slabs;
  WalkCells(byX, 0, cellSize, [&](std::size_t begin, std::size_t end) { slabs.emplace_back(begin, end); });
  std::vector<std::uint64_t> counts(slabs.size(), 0);
  std::vector<std::uint8_t> failed(slabs.size(), 0);
  oneapi::tbb::enumerable_thread_specific<CellScratch> scratch;
  oneapi::tbb::parallel_for(std::size_t(0), slabs.size(), [&](std::size_t s) {
    if (!CountSlab(byX, slabs[s].first, slabs[s].second, cellSize, scratch.local(), counts[s])) failed[s] = 1;
  });
  if (std::find(failed.begin(), failed.end(), std::uint8_t{1}) != failed.end()) return false;
  count = 0;
  for (std::uint64_t c : counts) count += c;
  return true;
}

// The cell size whose grid gives about `wanted` cells, by bisection on [0, range]. The
// points are sorted by x once for all the counts.
double FindCellSize(const std::vector<MMVector3d>& source, std::uint64_t wanted, double range) {
  double lo = 0.0, hi = range, cell = 0.0;
  if (!(range > 0.0)) return 0.0;
  std::vector<MMVector3d> byX(source);
  oneapi::tbb::parallel_sort(byX.begin(), byX.end(), CmpByX());
  std::vector<MMVector3d> none;
  while (hi > lo) {
    if (std::fabs(2.0 * cell - lo - hi) < 0.0001) break;
    cell = (hi + lo) * 0.5;
    std::uint64_t count = 0;
    if (!CountCells(byX, cell, count)) count = GridSample(GridSampleContext{&source, cell, true}, none);
    if (std::fabs(double(count) - double(wanted)) < 5.0) break;
    if (count < wanted)
      hi = cell;
    else
      lo = cell;
  }
  return cell;
}

}  // namespace

std::uint64_t GridSample(const GridSampleContext& context, std::vector<MMVector3d>& out) {
  const std::vector<MMVector3d>& source = *context.source;
  if (source.empty()) return 0;
  const double cellSize = context.cellSize;
  if (!(cellSize > 0.0) || !std::isfinite(cellSize)) return GridSampleDistinct(source, context.countOnly, out);

  std::vector<MMVector3d> sorted(source);
  oneapi::tbb::parallel_sort(sorted.begin(), sorted.end(), CmpByX());
  std::uint64_t count = 0;
  std::vector<MMVector3d> slab, row;
  WalkCells(sorted, 0, cellSize, [&](std::size_t slabBegin, std::size_t slabEnd) {
    slab.assign(sorted.begin() + slabBegin, sorted.begin() + slabEnd);
    oneapi::tbb::parallel_sort(slab.begin(), slab.end(), CmpByY());
    WalkCells(slab, 1, cellSize, [&](std::size_t rowBegin, std::size_t rowEnd) {
      row.assign(slab.begin() + rowBegin, slab.begin() + rowEnd);
      oneapi::tbb::parallel_sort(row.begin(), row.end(), CmpByZ());
      WalkCells(row, 2, cellSize, [&](std::size_t begin, std::size_t end) {
        ++count;
        if (context.countOnly) return;
        MMVector3d sum;
        for (std::size_t i = begin; i < end; ++i) sum += row[i];
        const double n = double(end - begin);
        out.emplace_back(sum[0] / n, sum[1] / n, sum[2] / n);
      });
    });
  });
  return count;
}

void SampleSurface(MStlBase* mesh, std::uint64_t wanted, double normalRadius, bool flipNormals,
                   std::vector<MMVector3d>& points, std::vector<MMVector3d>* normals) {
  std::vector<MMVector3d> all;
  all.reserve(mesh->NumberOfPoints());
  for (auto it = mesh->BeginPoint(); it != mesh->EndPoint(); ++it) all.push_back(it->GetDouble());
  if (all.empty()) return;

  if (wanted >= all.size()) {
    points = std::move(all);
  } else {
    // The x range runs from the least x to the greatest x or 0, whichever is larger: the
    // bisection over it, and so every sample a run is scored on, is defined that way.
    double xMin = all.front()[0], xMax = 0.0;
    double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
    for (const MMVector3d& p : all) {
      xMin = std::min(xMin, p[0]);
      xMax = std::max(xMax, p[0]);
      for (int k = 0; k < 3; ++k) lo[k] = std::min(lo[k], p[k]), hi[k] = std::max(hi[k], p[k]);
    }
    double cell = FindCellSize(all, wanted, xMax - xMin);
    if (cell == 0.0) {
      const double largest = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
      cell = largest > 0.0 ? FindCellSize(all, wanted, largest) : 1.0;
      if (cell == 0.0) cell = 1.0;
    }
    GridSample(GridSampleContext{&all, cell, false}, points);
  }
  if (normals == nullptr) return;

  SurfacePatchEvaluator evaluator;
  evaluator.radius = normalRadius;
  evaluator.curvatureKind = 1;
  evaluator.neighbourhoodRule = 0;
  evaluator.edgeStep = 0.0;
  evaluator.fitFlag = true;
  evaluator.creaseCosine = 0.0;
  evaluator.Initialise(MStlBaseContainer(mesh));
  normals->resize(points.size());
  const MeshQueries::MeshHandle handle(mesh);
  for (std::size_t k = 0; k < points.size(); ++k) {
    double distance = HUGE_VAL;
    MStlPoint* point = nullptr;
    if (!MeshQueries::FindNearestPoint(handle, points[k], distance, point) || point == nullptr ||
        point->GetNumberOfNeighbourTriangles() == 0)
      continue;
    MStlTriangle* t = &point->GetNeighbourTriangle(0)->data;
    double bary[3] = {0.0, 0.0, 0.0};
    bary[static_cast<int>(t->IndexOfPoint(point))] = 1.0;
    MMVector3d n = evaluator.Evaluate(t, bary, false, 0.0).normal;
    if (flipNormals) n = -n;
    (*normals)[k] = n;
    points[k] = point->GetDouble();
  }
}

}  // namespace ZorStlRegistration
