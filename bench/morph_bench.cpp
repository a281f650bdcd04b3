// Speed and quality of the base morph with its defaults. Each case morphs a body onto a
// known smooth deformation of itself (a bend, a twist or a local bump of a few percent of
// the diagonal) that is tessellated differently (about 25% more triangles). The partial
// cases keep 70% of one mesh of the bump case: of the moving mesh (partial-moving), so
// that the dual pass has target the moving mesh does not reach and pulls its border
// there, or of the target (partial-target), where the part of the moving mesh without a
// counterpart is dragged toward the target's border; the loop, which has no iteration
// limit, then runs for well over a thousand iterations at 200k triangles, so that case
// only runs when asked for.
//
//   bench_morph [--sizes 10000,200000] [--threads 1,2] [--bodies smooth,featured]
//               [--cases bend,twist,bump,partial-moving,partial-target] [--registered | --field]
//               [--surface-only] [--meshes FILE,..] [--mesh-triangles N]
//
// --meshes morphs real meshes instead of the generated bodies: each file is scaled so
// that its largest extent is 200 mm, and its target is the deformed mesh simplified to
// 60% of its triangles (meshoptimizer), so that the target's triangles differ from the
// moving mesh's and it keeps only some of its points. --sizes does not apply to them;
// --mesh-triangles N first simplifies each file to about N triangles (coarse real meshes).
//
// --field runs the field morph (MWrapperOperatorFieldMorph) with its defaults instead of
// the base morph, and prints its stage times and its stop rule; --surface-only runs it
// without its field over space (SParams::spaceField false).
//
// --registered runs the whole registered morph (MWrapperOperatorMorph) instead, on the
// moving body scaled by a few percent per axis and placed under a seeded pose, and
// prints the time of its stages: registration, scaling, second ICP, morph.
//
// Columns: iterations; milliseconds per iteration in the dual pass, the main pass, the
// step and the smoothing; total seconds (setup and the first measurement included);
// GetMaxDistance; the mean and largest distance of the morphed vertices to the target
// surface and the share of them within distanceTolerance of it; triangles whose normal
// turned by more than 90 degrees (against the deformed original's; triangles whose
// corners lie in a line, height under 0.1% of the longest edge, are not counted); and the mean
// distance of each vertex to where the deformation takes it. The field morph's table
// adds the triangles that the deformation itself turns over (slivers of a coarse scan)
// and the mean distance of where the deformation takes each vertex to the target: what
// a vertex laid on a coarser target must slide at least; and the points without a
// match in its last pass (beyond the target's border). Lengths in micrometres
// (internal units).
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include <meshoptimizer.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "bench/bench_args.h"
#include "bench/bench_digest.h"
#include "generators/bodies.h"
#include "generators/poses.h"
#include "zor/files/mesh_files.h"
#include "zor/model/stl.h"
#include "zor/morph/detail/registered_morph.h"
#include "zor/morph/wrapper_operator_field_morph.h"
#include "zor/morph/wrapper_operator_morph.h"
#include "zor/spatial/tree_property.h"

namespace {

using ZorStlRegistration::MWrapperOperatorBaseMorph;
using Deformation = std::function<MMVector3d(const MMVector3d&)>;

using zorbench::ParseList;

struct Box {
  MMVector3d centre, half;
  double diagonal = 0.0;
};

Box BoxOf(const zorgen::MeshArrays& m) {
  MMVector3d lo(1e300, 1e300, 1e300), hi(-1e300, -1e300, -1e300);
  for (std::size_t i = 0; i < m.xyz.size(); i += 3)
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], m.xyz[i + k]);
      hi[k] = std::max(hi[k], m.xyz[i + k]);
    }
  return Box{(lo + hi) * 0.5, (hi - lo) * 0.5, Length(hi - lo)};
}

// The deformations, each moving the surface by up to a few percent of the diagonal.
Deformation MakeDeformation(const std::string& name, const Box& box) {
  const double d = box.diagonal;
  if (name == "bend")
    return [box, a = 0.02 * d](const MMVector3d& p) {
      const double u = (p[0] - box.centre[0]) / box.half[0];
      return p + MMVector3d(0.0, 0.0, a * u * u);
    };
  if (name == "twist")
    return [box, t = 0.02 * d / std::max(box.half[0], box.half[1])](const MMVector3d& p) {
      const double angle = t * (p[2] - box.centre[2]) / box.half[2];
      const double x = p[0] - box.centre[0], y = p[1] - box.centre[1];
      return MMVector3d(box.centre[0] + x * std::cos(angle) - y * std::sin(angle),
                        box.centre[1] + x * std::sin(angle) + y * std::cos(angle), p[2]);
    };
  // A bump along the ray from the centre, about the surface point on +x.
  return [box, a = 0.03 * d, sigma = 0.12 * d](const MMVector3d& p) {
    const MMVector3d top = box.centre + MMVector3d(box.half[0], 0.0, 0.0);
    MMVector3d ray = p - box.centre;
    Normalize(ray);
    const MMVector3d off = p - top;
    return p + ray * (a * std::exp(-Dot(off, off) / (2.0 * sigma * sigma)));
  };
}

struct Row {
  double registration = 0, scaling = 0, icp = 0, morph = 0;  // seconds, registered runs only
  double space = 0;                                          // field morph: the field over space, ms
  double iterations = 0, dual = 0, main = 0, step = 0, smoothing = 0, total = 0, maxDistance = 0;
  double meanSurface = 0, maxSurface = 0, within = 0, meanTruth = 0;
  long flipped = 0;          // against the deformed original's normal
  std::uint64_t digest = 0;  // of the morphed coordinates
  long flippedByTruth = 0;   // by the deformation itself, against the original's
  long unmatched = 0;        // field morph: points without a match in its last pass
  double truthToTarget = 0;  // mean distance of where the deformation takes each point to the target
  double p95Covered = 0;     // 95th percentile of the distance to the target of the points it covers
  std::string stop;
};

// A body: its moving mesh and, for a deformation, its target before it is deformed
// (tessellated otherwise).
struct Body {
  std::string name;
  zorgen::MeshArrays source, target;
};

Body GeneratedBody(zorgen::Shape shape, long triangles) {
  return Body{zorgen::ShapeName(shape), zorgen::MakeShape(shape, triangles),
              zorgen::MakeShape(shape, triangles + triangles / 4)};
}

// A mesh file scaled to 200 mm along its largest extent; its target is the same surface
// simplified to 60% of the triangles, on the same points.
long meshTriangles = 0;

Body FileBody(const std::string& path) {
  const ZorStlRegistration::LoadedMesh loaded = ZorStlRegistration::ReadMesh(path, 1.0);
  Body body;
  body.name = path.substr(path.find_last_of('/') + 1);
  zorgen::MeshArrays& m = body.source;
  std::vector<std::uint32_t> placeOf(loaded.mesh->GetMasks().GetPointMaskSize());
  for (MStlPoint* p = loaded.mesh->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    placeOf[p->GetMaskIndex()] = static_cast<std::uint32_t>(m.xyz.size() / 3);
    for (std::size_t k = 0; k < 3; ++k) m.xyz.push_back(p->GetDouble()[k]);
  }
  for (auto it = loaded.mesh->BeginTriangle(); it != loaded.mesh->EndTriangle(); ++it)
    for (std::size_t k = 0; k < 3; ++k)
      m.indices.push_back(placeOf[static_cast<const MStlTriangle*>(it)->GetPoint(k)->GetMaskIndex()]);
  if (meshTriangles > 0 && m.indices.size() / 3 > static_cast<std::size_t>(meshTriangles)) {
    const std::vector<float> full(m.xyz.begin(), m.xyz.end());
    std::vector<std::uint32_t> fewer(m.indices.size());
    fewer.resize(meshopt_simplify(fewer.data(), m.indices.data(), m.indices.size(), full.data(), m.xyz.size() / 3,
                                  3 * sizeof(float), 3 * static_cast<std::size_t>(meshTriangles), 0.05f, 0, nullptr));
    // Only the points the kept triangles use.
    std::vector<std::uint32_t> renumber(m.xyz.size() / 3, UINT32_MAX);
    zorgen::MeshArrays coarse;
    for (std::uint32_t& c : fewer) {
      if (renumber[c] == UINT32_MAX) {
        renumber[c] = static_cast<std::uint32_t>(coarse.xyz.size() / 3);
        for (std::size_t k = 0; k < 3; ++k) coarse.xyz.push_back(m.xyz[3 * c + k]);
      }
      coarse.indices.push_back(renumber[c]);
    }
    m = coarse;
  }
  const Box box = BoxOf(m);
  const double scale = 200000.0 / (2.0 * std::max({box.half[0], box.half[1], box.half[2]}));
  for (double& x : m.xyz) x = std::round(x * scale);
  zorgen::SetDiagonal(m);
  body.target = m;
  std::vector<float> xyz(m.xyz.begin(), m.xyz.end());
  std::vector<std::uint32_t> simplified(m.indices.size());
  const std::size_t kept =
      meshopt_simplify(simplified.data(), m.indices.data(), m.indices.size(), xyz.data(), m.xyz.size() / 3,
                       3 * sizeof(float), m.indices.size() * 6 / 10 / 3 * 3, 0.01f, 0, nullptr);
  simplified.resize(kept);
  body.target.indices = simplified;
  return body;
}

bool surfaceOnly = false;

Row RunCase(const Body& body, const std::string& name, int threads, bool registered, bool field) {
  const zorgen::MeshArrays& source = body.source;
  zorgen::MeshArrays target = body.target;
  const long triangles = static_cast<long>(source.indices.size() / 3);
  const bool partialTarget = name == "partial-target", partialMoving = name == "partial-moving";
  const Deformation deform = MakeDeformation(partialTarget || partialMoving ? "bump" : name, BoxOf(source));
  for (std::size_t i = 0; i < target.xyz.size(); i += 3) {
    const MMVector3d q = deform(MMVector3d(target.xyz[i], target.xyz[i + 1], target.xyz[i + 2]));
    for (int k = 0; k < 3; ++k) target.xyz[i + k] = std::round(q[k]);
  }
  std::unique_ptr<MStlBase> moving =
      partialMoving ? zorgen::MakeMovedCopy(source, MMTransformMatrix(), 0.7) : zorgen::MakeMesh(source);
  std::unique_ptr<MStlBase> fixed =
      partialTarget ? zorgen::MakeMovedCopy(target, MMTransformMatrix(), 0.7) : zorgen::MakeMesh(target);
  std::vector<MStlPoint*> points;
  std::vector<MMVector3d> truth;
  for (MStlPoint* p = moving->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    points.push_back(p);
    truth.push_back(deform(p->GetDouble()));
  }
  std::vector<MMVector3d> rest;
  for (const MStlPoint* p : points) rest.push_back(p->GetDouble());

  tbb::task_arena arena(threads);
  Row row;
  MWrapperOperatorBaseMorph alone(MWrapperOperatorBaseMorph::StlImpl(moving.get()),
                                  MWrapperOperatorBaseMorph::StlImpl(fixed.get()));
  ZorStlRegistration::MWrapperOperatorMorph whole(MWrapperOperatorBaseMorph::StlImpl(moving.get()),
                                                  MWrapperOperatorBaseMorph::StlImpl(fixed.get()));
  ZorStlRegistration::MWrapperOperatorFieldMorph fieldMorph(MWrapperOperatorBaseMorph::StlImpl(moving.get()),
                                                            MWrapperOperatorBaseMorph::StlImpl(fixed.get()));
  if (field) {
    ZorStlRegistration::MWrapperOperatorFieldMorph::SParams params;
    params.spaceField = !surfaceOnly;
    fieldMorph.SetParams(params);
    arena.execute([&] { fieldMorph.Operate(nullptr); });
    const auto& rep = fieldMorph.GetReport();
    row.iterations = static_cast<double>(rep.passes);
    row.dual = rep.setup * 1000.0, row.space = rep.space * 1000.0, row.main = rep.correspondence * 1000.0,
    row.step = rep.solve * 1000.0;
    row.smoothing = rep.measure * 1000.0, row.total = rep.total, row.maxDistance = rep.p95Distance;
    row.stop = ZorStlRegistration::StopReasonName(rep.stop);
    row.unmatched = static_cast<long>(rep.unmatched);
  } else if (registered) {
    // A few percent of scale per axis and a pose drawn from the size: the whole call
    // has to find its way back.
    moving->Rescale(1.03f, 0.98f, 1.02f, MMVector3i());
    ZorStlRegistration::detail::ApplyTransform(
        *moving, zorgen::DrawPose(static_cast<std::uint64_t>(triangles), 0.2 * BoxOf(source).diagonal));
    arena.execute([&] { whole.Operate(nullptr); });
    const auto& w = whole.GetStageTimes();
    row.registration = w.registration, row.scaling = w.scaling, row.icp = w.icp, row.morph = w.morph;
  } else {
    arena.execute([&] { alone.Operate(nullptr); });
  }
  const MWrapperOperatorBaseMorph& morph = registered ? whole.GetMorph() : alone;
  if (!field) {
    const MWrapperOperatorBaseMorph::StageTimes& t = morph.GetStageTimes();
    row.iterations = static_cast<double>(t.iterations);
    const double per = t.iterations > 0 ? 1000.0 / static_cast<double>(t.iterations) : 0.0;
    row.dual = t.dualPass * per, row.main = t.mainPass * per, row.step = t.step * per,
    row.smoothing = t.smoothing * per;
    row.total = registered ? whole.GetStageTimes().total : t.total;
    row.maxDistance = morph.GetMaxDistance();
  }

  row.digest = zorbench::Digest(zorbench::kDigestStart, *moving);
  std::vector<double> surface(points.size());
  const MeshQueries::MeshHandle fixedHandle(fixed.get());
  arena.execute([&] {
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, points.size()), [&](const tbb::blocked_range<std::size_t>& r) {
      for (std::size_t i = r.begin(); i != r.end(); ++i) {
        MMVector3d closest;
        MeshQueries::GetClosestPoint(fixedHandle, points[i]->GetDouble(), closest);
        surface[i] = Length(closest - points[i]->GetDouble());
      }
    });
  });
  const double tolerance = field ? fieldMorph.GetParams().distanceTolerance : morph.GetParams().distanceTolerance;
  // A point is covered when the place the deformation takes it lies on the target.
  std::vector<double> covered;
  for (std::size_t i = 0; i < points.size(); ++i) {
    if (!partialTarget) {
      covered.push_back(surface[i]);
      continue;
    }
    MMVector3d closest;
    MeshQueries::GetClosestPoint(fixedHandle, truth[i], closest);
    if (Length(closest - truth[i]) < 2.0 * tolerance) covered.push_back(surface[i]);
  }
  if (!covered.empty()) {
    const std::size_t k95 = std::min(covered.size() - 1, covered.size() * 95 / 100);
    std::nth_element(covered.begin(), covered.begin() + static_cast<std::ptrdiff_t>(k95), covered.end());
    row.p95Covered = covered[k95];
  }
  for (std::size_t i = 0; i < points.size(); ++i) {
    row.meanSurface += surface[i];
    row.maxSurface = std::max(row.maxSurface, surface[i]);
    row.within += surface[i] < tolerance ? 1.0 : 0.0;
    row.meanTruth += Length(points[i]->GetDouble() - truth[i]);
  }
  const double n = static_cast<double>(points.size());
  row.meanSurface /= n, row.within *= 100.0 / n, row.meanTruth /= n;
  // A triangle folds when its normal turns against the deformed original's; the
  // deformation itself may turn over a sliver of the original.
  std::unordered_map<const MStlPoint*, std::size_t> indexOf;
  for (std::size_t i = 0; i < points.size(); ++i) indexOf[points[i]] = i;
  std::size_t k = 0;
  for (auto it = moving->BeginTriangle(); it != moving->EndTriangle(); ++it, ++k) {
    const MStlTriangle* t = static_cast<const MStlTriangle*>(it);
    const MMVector3d& a = truth[indexOf[t->GetPoint(0)]];
    const MMVector3d& b = truth[indexOf[t->GetPoint(1)]];
    const MMVector3d& c = truth[indexOf[t->GetPoint(2)]];
    const MMVector3d deformed = Cross(b - a, c - a);
    // A triangle with its corners in a line (simplification leaves some) has no side
    // to turn to.
    const double longest = std::max({Length(b - a), Length(c - a), Length(c - b)});
    if (!(Length(deformed) > 1e-3 * longest * longest)) continue;
    // Normals from the corners (a stored normal of a sliver may point either way).
    const MMVector3d& r = rest[indexOf[t->GetPoint(0)]];
    const MMVector3d before = Cross(rest[indexOf[t->GetPoint(1)]] - r, rest[indexOf[t->GetPoint(2)]] - r);
    const MMVector3d p = t->GetPoint(0)->GetDouble();
    const MMVector3d after = Cross(t->GetPoint(1)->GetDouble() - p, t->GetPoint(2)->GetDouble() - p);
    if (Dot(after, deformed) < 0.0) ++row.flipped;
    if (Dot(before, deformed) < 0.0) ++row.flippedByTruth;
  }
  std::vector<double> sl, fl, excess;
  for (std::size_t i = 0; i < points.size(); ++i) {
    MMVector3d closest;
    MeshQueries::GetClosestPoint(fixedHandle, truth[i], closest);
    row.truthToTarget += Length(closest - truth[i]) / n;
    sl.push_back(Length(points[i]->GetDouble() - truth[i]));
    fl.push_back(Length(closest - truth[i]));
    excess.push_back(sl.back() - fl.back());
  }
  if (std::getenv("ZOR_Q")) {
    auto q = [](std::vector<double> v) {
      std::sort(v.begin(), v.end());
      std::printf("[%.0f %.0f %.0f %.0f %.0f] ", v[v.size() / 10], v[v.size() / 2], v[v.size() * 9 / 10],
                  v[v.size() * 99 / 100], v.back());
    };
    std::printf("slide ");
    q(sl);
    std::printf("floor ");
    q(fl);
    std::printf("excess ");
    q(excess);
    std::printf("\n");
  }
  return row;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<long> sizes = {10000, 200000}, threads = {1, 2};
  std::vector<std::string> cases = {"bend", "twist", "bump", "partial-moving"};
  std::vector<zorgen::Shape> bodies = {zorgen::Shape::Smooth, zorgen::Shape::Featured};
  std::vector<std::string> meshes;
  bool registered = false, field = false;
  for (int i = 1; i < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--registered" || flag == "--field" || flag == "--surface-only") {
      (flag == "--field" ? field : flag == "--registered" ? registered : surfaceOnly) = true;
      --i;
      continue;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "bench_morph: %s needs a value\n", argv[i]);
      return 2;
    } else if (flag == "--sizes") {
      sizes = ParseList(argv[i + 1]);
    } else if (flag == "--threads") {
      threads = ParseList(argv[i + 1]);
    } else if (flag == "--bodies") {
      const std::string list = argv[i + 1];
      bodies.clear();
      if (list.find("smooth") != std::string::npos) bodies.push_back(zorgen::Shape::Smooth);
      if (list.find("featured") != std::string::npos) bodies.push_back(zorgen::Shape::Featured);
    } else if (flag == "--mesh-triangles") {
      meshTriangles = std::atol(argv[i + 1]);
    } else if (flag == "--meshes") {
      for (std::string list = argv[i + 1]; !list.empty();) {
        const std::size_t comma = list.find(',');
        meshes.push_back(list.substr(0, comma));
        list = comma == std::string::npos ? "" : list.substr(comma + 1);
      }
    } else if (flag == "--cases") {
      cases.clear();
      for (std::string list = argv[i + 1]; !list.empty();) {
        const std::size_t comma = list.find(',');
        cases.push_back(list.substr(0, comma));
        list = comma == std::string::npos ? "" : list.substr(comma + 1);
      }
    } else {
      std::fprintf(stderr,
                   "usage: bench_morph [--sizes N,..] [--threads T,..] [--bodies smooth,featured] "
                   "[--cases bend,twist,bump,partial-moving,partial-target] [--registered | --field [--surface-only]] "
                   "[--meshes FILE,..]\n");
      return 2;
    }
  }
  if (field)
    std::printf(
        "field morph, defaults (tolerance 50 um); stage times in ms; lengths in um\n| body | case | triangles | "
        "threads "
        "| passes | setup | space | matching | solving | measuring | total s | stop | p95 to surface (covered) | mean "
        "to "
        "surface | max to surface | within %% | flipped | mean to truth | flipped by the deformation | truth to "
        "target | unmatched | digest |\n|---|---|---|---|---|---|---|---|---|---|---|"
        "---|---|---|---|---|---|---|---|---|---|---|\n");
  else if (registered)
    std::printf(
        "registered morph (MWrapperOperatorMorph), defaults; the moving body scaled by 1.03, 0.98, 1.02 and under a "
        "seeded pose; stage times in s; lengths in um\n| body | case | triangles | threads | registration | scaling | "
        "icp | morph | iter | total s | GetMaxDistance | mean to surface | max to surface | within %% | flipped | mean "
        "to truth |\n|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  else
    std::printf(
        "base morph, defaults (tolerance 50 um); per-iteration times in ms; lengths in um\n| body | case | triangles "
        "| threads | iter | dual | main | step | smooth | total s | GetMaxDistance | mean to surface | max to surface "
        "| "
        "within %% | flipped | mean to truth |\n|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  std::vector<std::function<Body()>> makers;
  for (const std::string& path : meshes) makers.emplace_back([path] { return FileBody(path); });
  if (meshes.empty())
    for (const zorgen::Shape shape : bodies)
      for (long size : sizes) makers.emplace_back([shape, size] { return GeneratedBody(shape, size); });
  for (const auto& make : makers) {
    const Body body = make();
    const long size = static_cast<long>(body.source.indices.size() / 3);
    for (const std::string& name : cases)
      for (long t : threads) {
        const Row r = RunCase(body, name, static_cast<int>(t), registered, field);
        std::printf("| %s | %s | %ld | %ld | ", body.name.c_str(), name.c_str(), size, t);
        if (field) {
          std::printf(
              "%.0f | %.0f | %.0f | %.0f | %.0f | %.0f | %.2f | %s | %.1f | %.2f | %.1f | %.2f | %ld | %.1f | %ld | "
              "%.1f | %ld | %016llx "
              "|\n",
              r.iterations, r.dual, r.space, r.main, r.step, r.smoothing, r.total, r.stop.c_str(), r.p95Covered,
              r.meanSurface, r.maxSurface, r.within, r.flipped, r.meanTruth, r.flippedByTruth, r.truthToTarget,
              r.unmatched, static_cast<unsigned long long>(r.digest));
          std::fflush(stdout);
          continue;
        }
        if (registered)
          std::printf("%.2f | %.3f | %.2f | %.2f | %.0f | ", r.registration, r.scaling, r.icp, r.morph, r.iterations);
        else
          std::printf("%.0f | %.1f | %.1f | %.1f | %.1f | ", r.iterations, r.dual, r.main, r.step, r.smoothing);
        std::printf("%.2f | %.1f | %.2f | %.1f | %.2f | %ld | %.1f |\n", r.total, r.maxDistance, r.meanSurface,
                    r.maxSurface, r.within, r.flipped, r.meanTruth);
        std::fflush(stdout);
      }
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("\npeak resident memory: %.0f MB\n", static_cast<double>(usage.ru_maxrss) / 1024.0);
  return 0;
}
