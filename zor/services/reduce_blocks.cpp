#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

#include <meshoptimizer.h>
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/enumerable_thread_specific.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/parallel_invoke.h>

#include "zor/model/stl_guards.h"
#include "zor/services/detail/reduce_parts.h"
#include "zor/spatial/point_triangle_distance.h"
#include "zor/spatial/tree_property.h"

namespace ReduceDetail {

namespace {

// A triangle's centroid (three times it) as the split sorts it.
struct Centroid {
  float c[3];
  std::uint32_t triangle;
};

// Splits [first, last) of `items` at the median along the widest axis until each part
// has at most `limit`; parts are appended in order. Halves split in parallel.
void SplitBlocks(std::vector<Centroid>& items, std::size_t first, std::size_t last, std::size_t limit,
                 std::vector<std::pair<std::size_t, std::size_t>>& parts) {
  if (last - first <= limit) {
    parts.emplace_back(first, last);
    return;
  }
  float lo[3] = {items[first].c[0], items[first].c[1], items[first].c[2]};
  float hi[3] = {lo[0], lo[1], lo[2]};
  for (std::size_t i = first; i < last; ++i)
    for (int d = 0; d < 3; ++d) {
      lo[d] = std::min(lo[d], items[i].c[d]);
      hi[d] = std::max(hi[d], items[i].c[d]);
    }
  int axis = 0;
  for (int d = 1; d < 3; ++d)
    if (hi[d] - lo[d] > hi[axis] - lo[axis]) axis = d;
  const std::size_t middle = first + (last - first) / 2;
  // Ties go by triangle number, so the split does not depend on the order it starts from.
  std::nth_element(items.begin() + first, items.begin() + middle, items.begin() + last,
                   [axis](const Centroid& a, const Centroid& b) {
                     return a.c[axis] < b.c[axis] || (a.c[axis] == b.c[axis] && a.triangle < b.triangle);
                   });
  std::vector<std::pair<std::size_t, std::size_t>> upper;
  oneapi::tbb::parallel_invoke([&] { SplitBlocks(items, first, middle, limit, parts); },
                               [&] { SplitBlocks(items, middle, last, limit, upper); });
  parts.insert(parts.end(), upper.begin(), upper.end());
}

}  // namespace

FlatMesh Flatten(MStlBase& mesh) {
  FlatMesh flat;
  flat.globalOfMask.assign(mesh.GetMasks().GetPointMaskSize(), kNone);
  std::vector<std::uint32_t>& globalOfMask = flat.globalOfMask;
  const MMVector3d centre(0.5 * (double(mesh.GetXMin()) + mesh.GetXMax()),
                          0.5 * (double(mesh.GetYMin()) + mesh.GetYMax()),
                          0.5 * (double(mesh.GetZMin()) + mesh.GetZMax()));
  const MStlFeature* list = mesh.GetSurfaceList();
  flat.cells.reserve(mesh.GetNumberOfTriangles());
  flat.corners.reserve(3 * mesh.GetNumberOfTriangles());
  flat.points.reserve(mesh.NumberOfPoints());
  flat.position.reserve(mesh.NumberOfPoints());
  flat.normals.reserve(mesh.NumberOfPoints());
  for (std::size_t s = 0; s < list->GetSurfaceCount(); ++s) {
    MStlSurface* surface = list->GetSurface(s);
    if (surface->GetFirstTriangle() == nullptr) continue;
    flat.surfaces.push_back(surface);
    flat.surfaceStart.push_back(static_cast<std::uint32_t>(flat.cells.size()));
    for (MStlTriangleCell* cell = surface->GetFirstTriangle(); cell != nullptr; cell = cell->next) {
      flat.cells.push_back(cell);
      const MMVector3d areaVector = cell->data.GetAreaVector();
      for (std::size_t k = 0; k < 3; ++k) {
        MStlPoint* p = cell->data.GetPoint(k);
        std::uint32_t& global = globalOfMask[p->GetMaskIndex()];
        if (global == kNone) {
          global = static_cast<std::uint32_t>(flat.points.size());
          flat.points.push_back(p);
          flat.position.push_back(p->GetDouble() - centre);
          flat.normals.emplace_back();
        }
        flat.normals[global] += areaVector;
        flat.corners.push_back(global);
      }
    }
  }
  flat.surfaceStart.push_back(static_cast<std::uint32_t>(flat.cells.size()));
  return flat;
}

std::vector<Block> MakeBlocks(const FlatMesh& flat, std::size_t limit) {
  std::vector<Block> blocks;
  for (std::uint32_t s = 0; s + 1 < flat.surfaceStart.size(); ++s) {
    const std::uint32_t first = flat.surfaceStart[s], last = flat.surfaceStart[s + 1];
    std::vector<Centroid> items(last - first);
    std::vector<std::pair<std::size_t, std::size_t>> parts;
    oneapi::tbb::parallel_for(first, last, [&](std::uint32_t t) {
      const std::uint32_t* k = flat.CornersOf(t);
      const MMVector3d c = flat.position[k[0]] + flat.position[k[1]] + flat.position[k[2]];
      items[t - first] = Centroid{{float(c[0]), float(c[1]), float(c[2])}, t};
    });
    SplitBlocks(items, 0, items.size(), limit, parts);
    for (const auto& part : parts) {
      Block block;
      block.surface = s;
      block.triangles.reserve(part.second - part.first);
      for (std::size_t i = part.first; i < part.second; ++i) block.triangles.push_back(items[i].triangle);
      blocks.push_back(std::move(block));
    }
  }
  // Each block's triangles in mesh order, then its local numbering by first use, in
  // parallel: each thread keeps one mesh-wide lookup and clears what it used.
  oneapi::tbb::enumerable_thread_specific<std::vector<std::uint32_t>> lookups(
      [&] { return std::vector<std::uint32_t>(flat.points.size(), kNone); });
  oneapi::tbb::parallel_for(std::size_t(0), blocks.size(), [&](std::size_t b) {
    Block& block = blocks[b];
    std::sort(block.triangles.begin(), block.triangles.end());
    std::vector<std::uint32_t>& localOf = lookups.local();
    block.indices.reserve(3 * block.triangles.size());
    for (std::uint32_t t : block.triangles) {
      const std::uint32_t* c = flat.CornersOf(t);
      for (int k = 0; k < 3; ++k) {
        std::uint32_t& local = localOf[c[k]];
        if (local == kNone) {
          local = static_cast<std::uint32_t>(block.globalOf.size());
          block.globalOf.push_back(c[k]);
          const MMVector3d& q = flat.position[c[k]];
          block.positions.insert(block.positions.end(), {float(q[0]), float(q[1]), float(q[2])});
        }
        block.indices.push_back(local);
      }
    }
    for (std::uint32_t g : block.globalOf) localOf[g] = kNone;
    block.scale = meshopt_simplifyScale(block.positions.data(), block.globalOf.size(), 3 * sizeof(float));
  });
  return blocks;
}

}  // namespace ReduceDetail
