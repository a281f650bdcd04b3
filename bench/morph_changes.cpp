// The morph of the pair call (MorphPair, field morph, its defaults) judged by where a
// known deformation takes each vertex: local changes along the normals (bumps and dents
// a fifth, a tenth and a twentieth of the body across, and several at once), a bend and
// a twist of the whole body, and a stretch of 1.03 / 0.98 / 1.02 under a turn of 30
// degrees (registered first). The target is the deformed body tessellated anew with 60%
// of its triangles, so that it shares no vertex with the moving mesh.
//
//   bench_morph_changes [--bodies bunny,view,view0,lumpy,featured] [--cases all|bend,...]
//                       [--triangles 20000] [--threads 2] [--data DIR] [--save DIR]
//                       [--peer DIR] [--verbose]
//
// Bodies are scaled to 200 mm along their largest extent; "bunny" is the zippered model,
// "view" and "view0" the range scans bun090 and bun000 of ../shared/data/bunny (left
// out, with a note, when the data is not there), "lumpy" a seeded blob, "featured" the
// generated body with creases; each simplified to about --triangles triangles.
//
// Columns (millimetres): slide, the mean distance of each vertex to where the
// deformation takes it; nothing, the same for the mesh left as it was; least, the mean
// distance of where the deformation takes each vertex to the target (what a vertex laid
// on the target must slide at least); p95 and largest, of the distances to the target
// of the morphed vertices it covers (where the deformation takes them, the target shows
// the surface, not beyond its open border); truth largest, the largest distance of where
// the deformation takes a covered vertex to the target (where the target's tessellation
// cuts a change's tip off); folds, triangles turned over that the deformation did not turn; ok when the
// slide is at most 0.1 mm or the least plus 0.05, and not above nothing plus the least
// (what leaving the mesh as it was, laid on the target, would leave; but for the
// stretch), the p95 at most 0.05 mm, the largest at most 0.2 mm or the truth's plus
// 0.05, and nothing folds.
//
// --save DIR writes each case as DIR/NNN_moving.ply and DIR/NNN_target.ply (millimetres,
// the moving vertices in order) with DIR/cases.txt, for bench/peers/trimesh_morph_changes.py,
// which writes DIR/NNN_peer.txt (one morphed vertex a line) and DIR/peer.txt (seconds a
// case); --peer DIR judges those beside ours by the same measures.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>

#include "bench/bench_args.h"
#include "bench/bench_bodies.h"
#include "bench/bench_digest.h"
#include "generators/bodies.h"
#include "generators/deformations.h"
#include "generators/mesh_arrays.h"
#include "generators/scan_cases.h"
#include "zor/files/mesh_files.h"
#include "zor/model/distance_statistics.h"
#include "zor/model/stl.h"
#include "zor/pair/pair_operations.h"
#include "zor/spatial/surface_query.h"
#include "zor/spatial/tree_property.h"

namespace {

constexpr double kExtent = 200000.0;  // micrometres
constexpr double kMm = 1000.0;
const std::vector<std::string> kAllCases = {"bend",   "twist",   "bump-5",  "bump-10", "bump-20",
                                            "dent-5", "dent-10", "dent-20", "several", "stretch"};

struct Body {
  std::string name;
  zorgen::MeshArrays arrays;  // in the list order of the mesh made from them
};

std::vector<Body> LoadBodies(const std::vector<std::string>& names, const std::string& data, std::size_t triangles) {
  std::vector<Body> bodies;
  for (const std::string& name : names) {
    zorgen::MeshArrays arrays;
    if (zorbench::IsBunnyBody(name)) {
      std::optional<zorgen::MeshArrays> read = zorbench::BunnyBody(name, data);
      if (!read) continue;
      arrays = std::move(*read);
    } else if (name == "lumpy") {
      arrays = zorgen::MakeLumpyBody(7, static_cast<std::int64_t>(triangles));
    } else if (name == "featured") {
      arrays = zorgen::MakeShape(zorgen::Shape::Featured, static_cast<std::int64_t>(triangles));
    } else {
      std::printf("(unknown body %s)\n", name.c_str());
      continue;
    }
    arrays = zorgen::ScaledToExtent(zorgen::Simplified(arrays, triangles), kExtent);
    // The order of the mesh the morph gets.
    bodies.push_back({name, zorgen::ArraysOf(*zorgen::MakeMesh(arrays))});
  }
  return bodies;
}

std::vector<MMVector3d> PointsOf(const MStlBase& mesh) {
  std::vector<MMVector3d> out;
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) out.push_back(p->GetDouble());
  return out;
}

// What a morph left, judged against the truth.
struct Judged {
  double slide = 0.0, nothing = 0.0, least = 0.0, p95 = 0.0, largest = 0.0, truthLargest = 0.0;
  double changedSlide = 0.0, restSlide = 0.0;  // over the vertices the deformation moves, and the others
  std::size_t folds = 0;
};

Judged Judge(const zorgen::MeshArrays& body, const std::vector<MMVector3d>& rest, const std::vector<MMVector3d>& truth,
             const std::vector<MMVector3d>& morphed, const MStlBase& target) {
  const std::size_t n = truth.size();
  const MeshQueries::TriangleTreeHolder* tree = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&target));
  std::vector<double> toTarget(n), truthToTarget(n);
  std::vector<std::uint8_t> covered(n, 0);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, n, 256), [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      MeshQueries::SurfacePlace place;
      MeshQueries::NearestSurfacePlace(*tree, morphed[i], HUGE_VAL, place);
      toTarget[i] = place.distance;
      MeshQueries::NearestSurfacePlace(*tree, truth[i], HUGE_VAL, place);
      truthToTarget[i] = place.distance;
      // Where the deformation takes the vertex, the target shows the surface (not
      // beyond its open border).
      covered[i] = MeshQueries::OnOpenBorder(place) ? 0 : 1;
    }
  });
  Judged j;
  std::size_t changed = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const bool moves = Length(rest[i] - truth[i]) > 10.0;
    changed += moves ? 1 : 0;
    (moves ? j.changedSlide : j.restSlide) += Length(morphed[i] - truth[i]);
    j.slide += Length(morphed[i] - truth[i]) / static_cast<double>(n);
    j.nothing += Length(rest[i] - truth[i]) / static_cast<double>(n);
    j.least += truthToTarget[i] / static_cast<double>(n);
  }
  j.changedSlide /= static_cast<double>(std::max<std::size_t>(changed, 1));
  j.restSlide /= static_cast<double>(std::max<std::size_t>(n - changed, 1));
  std::vector<double> coveredToTarget;
  for (std::size_t i = 0; i < n; ++i)
    if (covered[i] != 0) {
      coveredToTarget.push_back(toTarget[i]);
      j.truthLargest = std::max(j.truthLargest, truthToTarget[i]);
    }
  const ZorStlRegistration::DistanceStatistics s = ZorStlRegistration::SummariseDistances(coveredToTarget, 50.0);
  j.p95 = s.percentile95;
  j.largest = s.largest;
  // A triangle folds when its normal turns against the deformed body's; one that the
  // deformation itself turns over (a sliver) does not count, nor one whose corners lie in
  // a line.
  for (std::size_t t = 0; t + 2 < body.indices.size(); t += 3) {
    const std::uint32_t a = body.indices[t], b = body.indices[t + 1], c = body.indices[t + 2];
    const MMVector3d deformed = Cross(truth[b] - truth[a], truth[c] - truth[a]);
    const double longest =
        std::max({Length(truth[b] - truth[a]), Length(truth[c] - truth[a]), Length(truth[c] - truth[b])});
    if (!(Length(deformed) > 1e-3 * longest * longest)) continue;
    if (Dot(Cross(rest[b] - rest[a], rest[c] - rest[a]), deformed) < 0.0) continue;
    if (Dot(Cross(morphed[b] - morphed[a], morphed[c] - morphed[a]), deformed) < 0.0) ++j.folds;
  }
  return j;
}

bool Passes(const Judged& j, bool stretch) {
  return j.slide <= std::max(0.1 * kMm, j.least + 0.05 * kMm) && (stretch || j.slide <= j.nothing + j.least) &&
         j.p95 <= 0.05 * kMm && j.largest <= std::max(0.2 * kMm, j.truthLargest + 0.05 * kMm) && j.folds == 0;
}

struct Peer {
  std::map<int, double> seconds;
  std::string folder;
};

// The peer's morphed vertices of case `id`, or none.
std::vector<MMVector3d> PeerPoints(const Peer& peer, int id) {
  char name[32];
  std::snprintf(name, sizeof name, "/%03d_peer.txt", id);
  std::ifstream in(peer.folder + name);
  std::vector<MMVector3d> out;
  double x, y, z;
  while (in >> x >> y >> z) out.emplace_back(x * kMm, y * kMm, z * kMm);
  return out;
}

Peer ReadPeer(const std::string& folder) {
  Peer peer;
  peer.folder = folder;
  std::ifstream in(folder + "/peer.txt");
  int id = 0;
  double seconds = 0.0;
  while (in >> id >> seconds) peer.seconds[id] = seconds;
  return peer;
}

// A seed from a case's name, the same on every machine.
std::uint64_t SeedOf(const std::string& name) {
  return zorbench::DigestBytes(zorbench::kDigestStart, name.data(), name.size());
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> bodyNames = {"bunny", "view", "view0", "lumpy", "featured"}, cases = kAllCases;
  std::size_t triangles = 20000;
  long threads = 2;
  std::string data = PROJECT_SOURCE_DIR "/../shared/data/bunny", save, peerFolder;
  bool verbose = false;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--verbose") {
      verbose = true;
      continue;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "bench_morph_changes: %s needs a value\n", flag.c_str());
      return 2;
    }
    const std::string value = argv[++i];
    if (flag == "--bodies") {
      bodyNames = zorbench::ParseNames(value.c_str());
    } else if (flag == "--cases") {
      cases = value == "all" ? kAllCases : zorbench::ParseNames(value.c_str());
    } else if (flag == "--triangles") {
      triangles = static_cast<std::size_t>(std::stoul(value));
    } else if (flag == "--threads") {
      threads = std::stol(value);
    } else if (flag == "--data") {
      data = value;
    } else if (flag == "--save") {
      save = value;
    } else if (flag == "--peer") {
      peerFolder = value;
    } else {
      std::fprintf(stderr,
                   "usage: bench_morph_changes [--bodies bunny,view,view0,lumpy,featured] [--cases all|bend,...] "
                   "[--triangles 20000] [--threads 2] [--data DIR] [--save DIR] [--peer DIR] [--verbose]\n");
      return 2;
    }
  }
  tbb::global_control limit(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(threads));
  const std::vector<Body> bodies = LoadBodies(bodyNames, data, triangles);
  const Peer peer = peerFolder.empty() ? Peer() : ReadPeer(peerFolder);
  std::ofstream manifest;
  if (!save.empty()) {
    std::filesystem::create_directories(save);
    manifest.open(save + "/cases.txt");
  }
  std::printf("morph changes: %zu bodies, %ld threads; MorphPair (field morph) with its defaults%s\n\n", bodies.size(),
              threads, peer.folder.empty() ? "" : "; beside it the peer's results");
  std::printf(
      "| body | case | vertices | slide | nothing | least | p95 | largest | truth largest | folds | ms | stop | ok "
      "|%s digest |\n",
      peer.folder.empty() ? "" : " peer slide | peer p95 | peer largest | peer folds | peer s | peer ok |");
  std::printf("|---|---|---|---|---|---|---|---|---|---|---|---|---|%s---|\n",
              peer.folder.empty() ? "" : "---|---|---|---|---|---|");
  int id = 0, passed = 0, peerPassed = 0, peerCases = 0;
  std::vector<double> ms;
  std::uint64_t all = zorbench::kDigestStart;
  for (std::size_t b = 0; b < bodies.size(); ++b) {
    const zorgen::MeshArrays& body = bodies[b].arrays;
    const std::vector<MMVector3d> rest = PointsOf(*zorgen::MakeMesh(body));
    for (const std::string& name : cases) {
      const bool stretch = name == "stretch";
      std::vector<MMVector3d> truth;
      if (name == "bend" || name == "twist") {
        truth = zorgen::Bent(body, name);
      } else if (stretch) {
        truth = rest;
      } else {
        const std::vector<zorgen::LocalChange> changes =
            zorgen::NamedChanges(body, name, SeedOf(bodies[b].name + "/" + name));
        if (changes.empty()) {
          std::printf("(unknown case %s)\n", name.c_str());
          continue;
        }
        truth = zorgen::ChangedAlongNormals(body, changes);
      }
      const auto target = zorgen::MakeMesh(zorgen::Retessellated(zorgen::Placed(body, truth), 0.6));
      std::unique_ptr<MStlBase> moving = zorgen::MakeMesh(body);
      std::vector<MMVector3d> start = rest;
      if (stretch) {
        // Stretched about the centre along the body's own axes, then turned by 30
        // degrees and moved aside: the truth is the body as it was.
        moving->Rescale(1.03f, 0.98f, 1.02f, MMVector3i());
        MMTransformMatrix turn;
        turn.MakeRotation(MMVector3d(), MMVector3d(1.0, 2.0, 0.5), 30.0 / 180.0 * 3.141592653589793);
        turn.AddTranslation(MMVector3d(12000.0, -8000.0, 5000.0));
        for (MStlPoint* p = moving->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
          MMVector3d q = p->GetDouble();
          turn.Transform(q, false);
          p->Set(MMVector3i(static_cast<std::int32_t>(std::lround(q[0])), static_cast<std::int32_t>(std::lround(q[1])),
                            static_cast<std::int32_t>(std::lround(q[2]))));
        }
        moving->Update(65, true);
        start = PointsOf(*moving);
      }
      if (!save.empty()) {
        char file[32];
        std::snprintf(file, sizeof file, "/%03d", id);
        ZorStlRegistration::WriteMesh(*moving, nullptr, 1.0, save + file + "_moving.ply", false);
        ZorStlRegistration::WriteMesh(*target, nullptr, 1.0, save + file + "_target.ply", false);
        manifest << file + 1 << " " << bodies[b].name << " " << name << "\n";
      }
      ZorStlRegistration::MorphOptions options;
      options.registerFirst = stretch;
      const auto clock = std::chrono::steady_clock::now();
      const ZorStlRegistration::MorphRun run =
          ZorStlRegistration::MorphPair(*moving, *target, options, "moving", "target");
      const double elapsed =
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - clock).count();
      ms.push_back(elapsed);
      const Judged j = Judge(body, stretch ? rest : start, truth, PointsOf(*moving), *target);
      const bool ok = Passes(j, stretch);
      passed += ok ? 1 : 0;
      const std::uint64_t digest = zorbench::Digest(zorbench::kDigestStart, *moving);
      all = zorbench::Digest(all, static_cast<double>(digest));
      std::printf("| %s | %s | %zu | %.3f | %.3f | %.3f | %.3f | %.3f | %.3f | %zu | %.0f | %s | %s |",
                  bodies[b].name.c_str(), name.c_str(), rest.size(), j.slide / kMm, (stretch ? 0.0 : j.nothing) / kMm,
                  j.least / kMm, j.p95 / kMm, j.largest / kMm, j.truthLargest / kMm, j.folds, elapsed,
                  ZorStlRegistration::StopReasonName(run.field.stop), ok ? "yes" : "**no**");
      if (!peer.folder.empty()) {
        const auto seconds = peer.seconds.find(id);
        const std::vector<MMVector3d> theirs = PeerPoints(peer, id);
        if (seconds != peer.seconds.end() && theirs.size() == rest.size()) {
          const Judged pj = Judge(body, stretch ? rest : start, truth, theirs, *target);
          const bool peerOk = Passes(pj, stretch);
          ++peerCases;
          peerPassed += peerOk ? 1 : 0;
          std::printf(" %.3f | %.3f | %.3f | %zu | %.2f | %s |", pj.slide / kMm, pj.p95 / kMm, pj.largest / kMm,
                      pj.folds, seconds->second, peerOk ? "yes" : "no");
        } else {
          std::printf(" - | - | - | - | - | - |");
        }
      }
      std::printf(" %016llx |\n", static_cast<unsigned long long>(digest));
      std::fflush(stdout);
      if (verbose)
        std::fprintf(stderr,
                     "%03d %s %s: %zu passes, %zu laid, %zu unmatched, %zu folded, %.0f ms; slide %.3f where the "
                     "deformation moves "
                     "vertices, %.3f elsewhere\n",
                     id, bodies[b].name.c_str(), name.c_str(), run.field.passes, run.field.laid, run.field.unmatched,
                     run.field.folded, elapsed, j.changedSlide / kMm, j.restSlide / kMm);
      ++id;
    }
  }
  std::printf("\n%d of %d cases ok", passed, id);
  if (!peer.folder.empty()) std::printf("; the peer %d of %d", peerPassed, peerCases);
  std::printf("; median %.0f ms; digest %016llx\n", Median(ms), static_cast<unsigned long long>(all));
  return 0;
}
