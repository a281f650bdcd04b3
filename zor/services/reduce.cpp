#include "zor/services/reduce.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include <meshoptimizer.h>
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>

#include "zor/model/stl_guards.h"
#include "zor/spatial/tree_property.h"

namespace {

constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

using TriangleKey = std::array<std::uint32_t, 4>;  // surface, then corners from the smallest, winding kept

TriangleKey MakeKey(std::uint32_t surface, std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  if (b < a && b < c) return {surface, b, c, a};
  if (c < a && c < b) return {surface, c, a, b};
  return {surface, a, b, c};
}

// One surface as the engine sees it: its triangles over surface-local vertex numbers.
struct SurfaceInput {
  MStlSurface* surface = nullptr;
  std::vector<std::uint32_t> globalOf;  // local vertex -> mesh-wide vertex
  std::vector<float> positions;         // local vertices, relative to the mesh centre
  std::vector<std::uint32_t> indices;   // three local vertices per triangle
  float scale = 0.0f;                   // the engine's measure of the surface's extent
  std::vector<std::uint32_t> result;    // the candidate of the current pass, mesh-wide vertices
};

// The mesh as flat arrays: every point that a triangle uses, numbered by first use in
// surface order, and each surface's triangles.
struct FlatMesh {
  std::vector<MStlPoint*> points;
  std::vector<MMVector3d> normals;  // sum of the original area vectors around each point
  std::vector<SurfaceInput> surfaces;
  std::vector<MStlTriangleCell*> cells;  // all triangles, surface by surface
  std::vector<std::uint32_t> cellSurface;
  std::vector<TriangleKey> original;  // sorted keys of the input triangles
};

FlatMesh Flatten(MStlBase& mesh) {
  FlatMesh flat;
  std::vector<std::uint32_t> globalOfMask(mesh.GetMasks().GetPointMaskSize(), kNone);
  std::vector<std::uint32_t> localOfGlobal;
  const MMVector3d centre(0.5 * (double(mesh.GetXMin()) + mesh.GetXMax()),
                          0.5 * (double(mesh.GetYMin()) + mesh.GetYMax()),
                          0.5 * (double(mesh.GetZMin()) + mesh.GetZMax()));
  const MStlFeature* list = mesh.GetSurfaceList();
  flat.cells.reserve(mesh.GetNumberOfTriangles());
  for (std::size_t s = 0; s < list->GetSurfaceCount(); ++s) {
    MStlSurface* surface = list->GetSurface(s);
    if (surface->GetFirstTriangle() == nullptr) continue;
    SurfaceInput in;
    in.surface = surface;
    in.indices.reserve(3 * surface->GetNumberOfTriangles());
    for (MStlTriangleCell* cell = surface->GetFirstTriangle(); cell != nullptr; cell = cell->next) {
      flat.cells.push_back(cell);
      flat.cellSurface.push_back(static_cast<std::uint32_t>(flat.surfaces.size()));
      const MMVector3d areaVector = cell->data.GetAreaVector();
      for (std::size_t k = 0; k < 3; ++k) {
        MStlPoint* p = cell->data.GetPoint(k);
        std::uint32_t& global = globalOfMask[p->GetMaskIndex()];
        if (global == kNone) {
          global = static_cast<std::uint32_t>(flat.points.size());
          flat.points.push_back(p);
          flat.normals.emplace_back();
          localOfGlobal.push_back(kNone);
        }
        flat.normals[global] += areaVector;
        std::uint32_t& local = localOfGlobal[global];
        if (local == kNone) {
          local = static_cast<std::uint32_t>(in.globalOf.size());
          in.globalOf.push_back(global);
          const MMVector3d q = p->GetDouble() - centre;
          in.positions.insert(in.positions.end(), {float(q[0]), float(q[1]), float(q[2])});
        }
        in.indices.push_back(local);
      }
      const std::uint32_t* g = &in.indices[in.indices.size() - 3];
      flat.original.push_back(MakeKey(static_cast<std::uint32_t>(flat.surfaces.size()), in.globalOf[g[0]],
                                      in.globalOf[g[1]], in.globalOf[g[2]]));
    }
    for (std::uint32_t g : in.globalOf) localOfGlobal[g] = kNone;
    in.scale = meshopt_simplifyScale(in.positions.data(), in.globalOf.size(), 3 * sizeof(float));
    flat.surfaces.push_back(std::move(in));
  }
  std::sort(flat.original.begin(), flat.original.end());
  return flat;
}

// The candidate of one pass: each surface simplified with the engine target `target`
// (internal units), border vertices locked. Surfaces run in parallel, each into its own
// result.
std::size_t Simplify(FlatMesh& flat, double target) {
  oneapi::tbb::parallel_for(std::size_t(0), flat.surfaces.size(), [&](std::size_t s) {
    SurfaceInput& in = flat.surfaces[s];
    in.result.assign(in.indices.size(), 0);
    std::size_t count = in.indices.size();
    if (in.scale > 0.0f) {
      count = meshopt_simplify(in.result.data(), in.indices.data(), in.indices.size(), in.positions.data(),
                               in.globalOf.size(), 3 * sizeof(float), 0, float(target / in.scale),
                               meshopt_SimplifyLockBorder, nullptr);
    } else {
      std::copy(in.indices.begin(), in.indices.end(), in.result.begin());
    }
    in.result.resize(count);
    for (std::uint32_t& v : in.result) v = in.globalOf[v];
  });
  std::size_t triangles = 0;
  for (const SurfaceInput& in : flat.surfaces) triangles += in.result.size() / 3;
  return triangles;
}

// Twice the area over the longest edge; 0 for a degenerate triangle.
double SmallestAltitude(const MMVector3d& a, const MMVector3d& b, const MMVector3d& c) {
  const double longest = std::sqrt(std::max({Length2(b - a), Length2(c - b), Length2(a - c)}));
  return longest > 0.0 ? Length(Cross(b - a, c - a)) / longest : 0.0;
}

struct Check {
  std::size_t violations = 0;
  double worstDistance = 0.0;  // greatest vertex distance found (unbounded for violators)
};

// Measures the candidate: the distance of every original vertex that it dropped, and the
// orientation of each new triangle against the original surface that it stands for
// (the area-weighted normals at its corners and at the dropped vertices nearest to it).
// A single corner's normal would not do: on noisy scans the original triangles at a
// vertex may themselves fold. A new triangle folds when it faces away from that surface
// and is wider than the distance bound; a narrower one (a sliver between points of a
// noisy patch) lies within the bound of the surface whichever way it faces.
Check Verify(const FlatMesh& flat, double distance) {
  // The candidate as a mesh of its own (same integer coordinates), for its triangle tree.
  MStlBase candidate;
  std::vector<MStlPoint*> candidatePoint(flat.points.size(), nullptr);
  std::vector<std::array<std::uint32_t, 3>> corners;
  std::vector<bool> untouched;  // the engine left the triangle as it was
  std::vector<std::uint32_t> triangleOfMask;
  {
    MStlTempPointSortingDisabler batch(&candidate, true);
    for (std::uint32_t s = 0; s < flat.surfaces.size(); ++s) {
      const SurfaceInput& in = flat.surfaces[s];
      for (std::size_t t = 0; t < in.result.size(); t += 3) {
        MStlPoint* c[3];
        for (int k = 0; k < 3; ++k) {
          MStlPoint*& p = candidatePoint[in.result[t + k]];
          if (p == nullptr) p = candidate.AddPoint(flat.points[in.result[t + k]]->GetInt(), true);
          c[k] = p;
        }
        const std::size_t mask = candidate.AddTriangle(c[0], c[1], c[2], nullptr)->data.GetMaskIndex();
        if (triangleOfMask.size() <= mask) triangleOfMask.resize(mask + 1, kNone);
        triangleOfMask[mask] = static_cast<std::uint32_t>(corners.size());
        corners.push_back({in.result[t], in.result[t + 1], in.result[t + 2]});
        untouched.push_back(std::binary_search(flat.original.begin(), flat.original.end(),
                                               MakeKey(s, in.result[t], in.result[t + 1], in.result[t + 2])));
      }
    }
  }
  Check check;
  if (corners.empty()) {
    check.violations = flat.points.size();
    check.worstDistance = std::numeric_limits<double>::max();
    return check;
  }
  const MeshQueries::TriangleTreeHolder* holder = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&candidate));

  // Vertices that the candidate keeps lie on it; the others are measured within the
  // bound, and only those outside it are measured again without one.
  const double radius = std::max(std::nextafter(distance, HUGE_VAL), 1e-150);
  std::vector<double> deviation(flat.points.size(), 0.0);
  std::vector<std::uint32_t> nearest(flat.points.size(), kNone);
  const auto measureRange = [&](const oneapi::tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      if (candidatePoint[i] != nullptr) continue;
      const MMVector3d q = flat.points[i]->GetDouble();
      auto found = MeshQueries::FindNearestTriangle(*holder, q, radius);
      if (found.first.GetTriangle() == nullptr) found = MeshQueries::FindNearestTriangle(*holder, q, HUGE_VAL);
      deviation[i] = found.second;
      nearest[i] = triangleOfMask[found.first.GetMaskIndex()];
    }
  };
  oneapi::tbb::parallel_for(oneapi::tbb::blocked_range<std::size_t>(0, flat.points.size(), 1024), measureRange);
  std::vector<MMVector3d> region(corners.size());
  for (std::size_t i = 0; i < flat.points.size(); ++i) {
    if (deviation[i] > distance) ++check.violations;
    check.worstDistance = std::max(check.worstDistance, deviation[i]);
    if (nearest[i] != kNone) region[nearest[i]] += flat.normals[i];
  }
  for (std::size_t t = 0; t < corners.size(); ++t) {
    if (untouched[t]) continue;
    const std::array<std::uint32_t, 3>& c = corners[t];
    const MMVector3d a = flat.points[c[0]]->GetDouble();
    const MMVector3d n = Cross(flat.points[c[1]]->GetDouble() - a, flat.points[c[2]]->GetDouble() - a);
    const MMVector3d around = region[t] + flat.normals[c[0]] + flat.normals[c[1]] + flat.normals[c[2]];
    if (!(Dot(n, around) > 0.0) &&
        SmallestAltitude(a, flat.points[c[1]]->GetDouble(), flat.points[c[2]]->GetDouble()) > distance)
      ++check.violations;
  }
  return check;
}

// Writes the candidate into the mesh: new triangles first (so that the points they use
// keep a triangle throughout), then the old triangles that the candidate does not hold,
// with the points they leave without triangles.
void Apply(MStlBase& mesh, const FlatMesh& flat) {
  std::vector<TriangleKey> kept;
  for (std::uint32_t s = 0; s < flat.surfaces.size(); ++s) {
    const std::vector<std::uint32_t>& r = flat.surfaces[s].result;
    for (std::size_t t = 0; t < r.size(); t += 3) kept.push_back(MakeKey(s, r[t], r[t + 1], r[t + 2]));
  }
  std::sort(kept.begin(), kept.end());
  std::vector<std::uint32_t> globalOfMask(mesh.GetMasks().GetPointMaskSize(), kNone);
  for (std::uint32_t g = 0; g < flat.points.size(); ++g) globalOfMask[flat.points[g]->GetMaskIndex()] = g;
  std::vector<bool> existing(kept.size(), false);
  std::vector<MStlTriangleCell*> drop;
  for (std::size_t i = 0; i < flat.cells.size(); ++i) {
    const MStlTriangle& t = flat.cells[i]->data;
    const TriangleKey key =
        MakeKey(flat.cellSurface[i], globalOfMask[t.GetPoint(0)->GetMaskIndex()],
                globalOfMask[t.GetPoint(1)->GetMaskIndex()], globalOfMask[t.GetPoint(2)->GetMaskIndex()]);
    const auto at = std::lower_bound(kept.begin(), kept.end(), key);
    if (at != kept.end() && *at == key && !existing[at - kept.begin()])
      existing[at - kept.begin()] = true;
    else
      drop.push_back(flat.cells[i]);
  }
  MStlTempPointSortingDisabler batch(&mesh, true);
  for (std::size_t i = 0; i < kept.size(); ++i) {
    if (existing[i]) continue;
    const TriangleKey& k = kept[i];
    mesh.AddTriangle(flat.points[k[1]], flat.points[k[2]], flat.points[k[3]], flat.surfaces[k[0]].surface);
  }
  mesh.RemoveTriangles(drop, MStlBase::RemoveFreePoints);
  mesh.UpdateExtremes(false);
}

}  // namespace

MStlBaseOperatorReduceEx<MStlBaseContainer>::MStlBaseOperatorReduceEx(MStlBaseContainer c, const MParams& p)
    : container(c), params(p) {}

bool MStlBaseOperatorReduceEx<MStlBaseContainer>::Operate() {
  MStlBase* mesh = container.GetStl();
  passesRun = 0;
  maxDeviation = 0.0;
  trianglesBefore = trianglesAfter = mesh != nullptr ? mesh->GetNumberOfTriangles() : 0;
  if (mesh == nullptr || !(params.distance >= 0.0) || !std::isfinite(params.distance) || params.maxPasses < 1)
    return false;
  if (trianglesBefore == 0) return true;

  FlatMesh flat = Flatten(*mesh);
  const double minGain = std::max(0.0, params.minGainPercent) * 0.01 * double(trianglesBefore);
  // The engine's target starts at 0.4 of the distance: its averaged measure runs at about
  // half the worst vertex distance on scanned surfaces, so the first pass usually holds.
  double factor = 0.4;
  for (passesRun = 1; passesRun <= params.maxPasses; ++passesRun) {
    const std::size_t triangles = Simplify(flat, params.distance * factor);
    if (double(trianglesBefore - triangles) < minGain || triangles == trianglesBefore) return true;
    const Check check = Verify(flat, params.distance);
    if (check.violations == 0) {
      Apply(*mesh, flat);
      trianglesAfter = mesh->GetNumberOfTriangles();
      maxDeviation = check.worstDistance;
      return true;
    }
    // Tighten in proportion to the overshoot; halve when only orientation failed.
    factor *= check.worstDistance > params.distance ? 0.9 * params.distance / check.worstDistance : 0.5;
  }
  passesRun = params.maxPasses;
  return false;
}
