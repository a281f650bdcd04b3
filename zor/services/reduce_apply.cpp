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

Split SplitResult(const FlatMesh& flat, const std::vector<std::vector<std::uint32_t>>& surfaceResults) {
  Split split;
  for (std::uint32_t s = 0; s < surfaceResults.size(); ++s) {
    const std::vector<std::uint32_t>& r = surfaceResults[s];
    for (std::size_t t = 0; t < r.size(); t += 3) split.kept.push_back(MakeKey(s, r[t], r[t + 1], r[t + 2]));
  }
  std::sort(split.kept.begin(), split.kept.end());
  split.existing.assign(split.kept.size(), 0);
  split.stays.assign(flat.cells.size(), 0);
  for (std::uint32_t s = 0; s + 1 < flat.surfaceStart.size(); ++s)
    for (std::uint32_t i = flat.surfaceStart[s]; i < flat.surfaceStart[s + 1]; ++i) {
      const std::uint32_t* c = flat.CornersOf(i);
      const TriangleKey key = MakeKey(s, c[0], c[1], c[2]);
      const auto at = std::lower_bound(split.kept.begin(), split.kept.end(), key);
      if (at != split.kept.end() && *at == key && split.existing[at - split.kept.begin()] == 0) {
        split.existing[at - split.kept.begin()] = 1;
        split.stays[i] = 1;
      }
    }
  return split;
}

// Writes the result into the mesh: new triangles first (so that the points they use
// keep a triangle throughout), then the old triangles that the result does not hold,
// with the points they leave without triangles.
void Apply(MStlBase& mesh, const FlatMesh& flat, const Split& split) {
  std::vector<MStlTriangleCell*> drop;
  for (std::size_t i = 0; i < flat.cells.size(); ++i)
    if (split.stays[i] == 0) drop.push_back(flat.cells[i]);
  MStlTempPointSortingDisabler batch(&mesh, true);
  for (std::size_t i = 0; i < split.kept.size(); ++i) {
    if (split.existing[i] != 0) continue;
    const TriangleKey& k = split.kept[i];
    mesh.AddTriangle(flat.points[k[1]], flat.points[k[2]], flat.points[k[3]], flat.surfaces[k[0]]);
  }
  mesh.RemoveTriangles(drop, MStlBase::RemoveFreePoints);
  mesh.UpdateExtremes(false);
}

// A new mesh equal to what Apply makes of a copy of `mesh`, down to the order of its
// points and triangles, built without copying what the result drops.
std::unique_ptr<MStlBase> BuildApplied(const MStlBase& mesh, const FlatMesh& flat, const Split& split) {
  std::vector<std::uint8_t> used(flat.points.size(), 0);
  std::size_t triangles = 0;
  for (std::size_t i = 0; i < split.kept.size(); ++i) {
    for (int k = 1; k < 4; ++k) used[split.kept[i][k]] = 1;
    ++triangles;
  }
  auto copy = std::make_unique<MStlBase>();
  copy->SetName(mesh.GetName());
  const std::size_t points =
      std::count(used.begin(), used.end(), std::uint8_t(1)) + (mesh.NumberOfPoints() - flat.points.size());
  copy->Reserve(points, triangles);
  {
    MStlTempPointSortingDisabler batch(copy.get(), true);
    // Points in list order: those the result uses and those no triangle used before.
    std::vector<MStlPoint*> pointOf(flat.points.size(), nullptr);
    for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
      const std::uint32_t global = flat.globalOfMask[p->GetMaskIndex()];
      if (global != kNone && used[global] == 0) continue;
      MStlPoint* added = copy->AddPoint(p->GetX(), p->GetY(), p->GetZ(), true);
      if (global != kNone) pointOf[global] = added;
    }
    const MStlFeature* list = mesh.GetSurfaceList();
    std::vector<MStlSurface*> surfaceOf(list->GetSurfaceCount());
    for (std::size_t s = 0; s < surfaceOf.size(); ++s) surfaceOf[s] = copy->AddSurface();
    // flat.surfaces skips empty surfaces; map its numbers onto the copy's.
    std::vector<MStlSurface*> flatSurface(flat.surfaces.size());
    for (std::size_t s = 0, f = 0; s < surfaceOf.size() && f < flat.surfaces.size(); ++s)
      if (list->GetSurface(s) == flat.surfaces[f]) flatSurface[f++] = surfaceOf[s];
    // The triangles that stay, in their order, then the new ones: Apply appends those
    // at the ends of their surfaces.
    for (std::uint32_t s = 0; s + 1 < flat.surfaceStart.size(); ++s)
      for (std::uint32_t i = flat.surfaceStart[s]; i < flat.surfaceStart[s + 1]; ++i) {
        if (split.stays[i] == 0) continue;
        const std::uint32_t* c = flat.CornersOf(i);
        copy->AddTriangle(pointOf[c[0]], pointOf[c[1]], pointOf[c[2]], flatSurface[s])
            ->data.SetMarked(flat.cells[i]->data.IsMarked());
      }
    for (std::size_t i = 0; i < split.kept.size(); ++i) {
      if (split.existing[i] != 0) continue;
      const TriangleKey& k = split.kept[i];
      copy->AddTriangle(pointOf[k[1]], pointOf[k[2]], pointOf[k[3]], flatSurface[k[0]]);
    }
    for (std::size_t f = 0; f < mesh.GetNumberOfFeatures(); ++f) {
      const MStlFeature* feature = mesh.GetFeature(f);
      MStlFeature* added = copy->AddFeature();
      for (std::size_t i = 0; i < feature->GetSurfaceCount(); ++i)
        for (std::size_t s = 0; s < surfaceOf.size(); ++s)
          if (list->GetSurface(s) == feature->GetSurface(i)) added->AddSurface(surfaceOf[s]);
    }
  }
  copy->UpdateExtremes(false);
  return copy;
}

}  // namespace ReduceDetail
