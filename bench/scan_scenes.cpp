// Registration on scan scenes: each body (scaled to a 200 mm diagonal) is made into
// cases of every kind of generators/scan_cases.h (the classic whole, partial, noisy and
// remeshed copies, and noise of 1 mm, loose floaters, large debris, a table with other
// objects, a 45% overlap, a coarse copy, and all of them at once), each under seeded
// poses, and registered by the pair call (AlignPair, the tool's default). Per kind it
// prints:
//   on surface   the moving points that stand for the fixed surface lie on it as closely
//                as under the true pose (RMS within 1.2 times the truth's, plus 0.2% of
//                the diagonal): the right pose, or one that a symmetry of the body makes
//                equal to it
//   strict       rotation within 2 degrees and shift within 1% of the diagonal of the truth
//   doubted      right results (on surface) that the verdict called doubtful
//   unwarned     wrong results (not on surface) that the verdict called sound
//   ms           median time of the pair call
// and a digest of every result's bits.
//
//   bench_scan_scenes [--bodies bunny,view,view0,lumpy,lumpy2,sample] [--kinds all|whole,...]
//                     [--poses 5] [--threads 2] [--data DIR] [--save DIR] [--peer FILE] [--verbose]
//                     [--verdicts] [--search-triangles N]
//
// --save DIR writes every case as DIR/NNN_moving.ply and DIR/NNN_fixed.ply (millimetres)
// with DIR/cases.txt listing them, for bench/peers/open3d_scan_scenes.py, which writes
// the transforms it finds and its seconds to a file (and its verdicts, when it gives
// any: an earlier build of ours through the tool's JSON); --peer FILE judges that file's
// results on the same cases by the same measures and prints them beside ours.
// --search-triangles N sets the pair call's option of that name: meshes of more than 4 N
// triangles are searched on a copy clustered to about N (the default leaves these cases,
// of a few tens of thousands, to the operator's reduction).
// --verdicts judges the verdict alone on the true pose and on wrong poses that the finish
// has settled (see RunVerdicts), instead of running the pair call.
// "bunny" is the zippered model, "view" and "view0" the range scans bun090 and bun000 of
// ../shared/data/bunny (left out, with a note, when the data is not there); "lumpy" and
// "lumpy2" seeded blobs without any symmetry, "sample" the demo's body (one pose lays it
// on itself, but a half turn nearly does: a cut of it may fit either way); "featured"
// and "bumpy" the generated bodies of the other benchmarks (nearly and exactly symmetric
// under a half turn), "disc", "smooth", "box" and "rod" more of them.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <tbb/global_control.h>

#include "bench/bench_args.h"
#include "bench/bench_bodies.h"
#include "bench/bench_digest.h"
#include "generators/bodies.h"
#include "generators/scan_cases.h"
#include "zor/files/mesh_files.h"
#include "zor/model/stopwatch.h"
#include "zor/pair/pair_registration.h"
#include "zor/spatial/surface_query.h"

namespace {

constexpr double kDiagonal = 200000.0;  // micrometres
constexpr double kDegrees = 57.29577951308232;

struct Body {
  std::string name;
  zorgen::MeshArrays arrays;
};

// What one result shows against the truth.
struct Judged {
  bool onSurface = false, strict = false;
  double degrees = 0.0;
};

Judged Judge(const zorgen::ScanCase& c, const MStlBase& fixed, const MMTransformMatrix& found) {
  const MeshQueries::TriangleTreeHolder* tree = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&fixed));
  const MMTransformMatrix truth = c.pose.Inverted();
  double truth2 = 0.0, found2 = 0.0;
  std::size_t n = 0;
  MMVector3d centre;
  for (std::size_t i = 0; i < c.onFixed.size(); ++i) {
    const MMVector3d p(c.moving.xyz[3 * i], c.moving.xyz[3 * i + 1], c.moving.xyz[3 * i + 2]);
    centre = centre + p;
    if (c.onFixed[i] == 0) continue;
    MeshQueries::SurfacePlace place;
    MMVector3d q = p;
    truth.Transform(q, false);
    MeshQueries::NearestSurfacePlace(*tree, q, HUGE_VAL, place);
    truth2 += place.distance * place.distance;
    q = p;
    found.Transform(q, false);
    MeshQueries::NearestSurfacePlace(*tree, q, HUGE_VAL, place);
    found2 += place.distance * place.distance;
    ++n;
  }
  centre = centre * (1.0 / static_cast<double>(c.onFixed.size()));
  Judged j;
  const double rmsTruth = std::sqrt(truth2 / static_cast<double>(std::max<std::size_t>(n, 1)));
  const double rmsFound = std::sqrt(found2 / static_cast<double>(std::max<std::size_t>(n, 1)));
  const double diagonal = c.body.diagonal;
  j.onSurface = rmsFound <= 1.2 * rmsTruth + 0.002 * diagonal;
  MMTransformMatrix residual = found;
  residual.PostMultiply(c.pose);
  const double cosine = std::clamp(
      0.5 * (residual.GetElement(0, 0) + residual.GetElement(1, 1) + residual.GetElement(2, 2) - 1.0), -1.0, 1.0);
  j.degrees = std::acos(cosine) * kDegrees;
  MMVector3d moved = centre;
  residual.Transform(moved, false);
  j.strict = j.degrees < 2.0 && Length(moved - centre) < 0.01 * diagonal;
  return j;
}

struct Tally {
  int cases = 0, onSurface = 0, strict = 0, doubted = 0, unwarned = 0;
  std::vector<double> ms;
  std::uint64_t digest = zorbench::kDigestStart;
};

double Median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

std::vector<Body> LoadBodies(const std::vector<std::string>& names, const std::string& data) {
  std::vector<Body> bodies;
  for (const std::string& name : names) {
    zorgen::MeshArrays arrays;
    if (zorbench::IsBunnyBody(name)) {
      std::optional<zorgen::MeshArrays> read = zorbench::BunnyBody(name, data);
      if (!read) continue;
      arrays = std::move(*read);
    } else if (name == "sample") {
      arrays = zorgen::ArraysOf(*zorgen::MakeSampleBody(55));
    } else if (name == "lumpy" || name == "lumpy2") {
      arrays = zorgen::MakeLumpyBody(name == "lumpy" ? 7 : 13, 40000);
    } else {
      const std::map<std::string, zorgen::Shape> shapes{
          {"featured", zorgen::Shape::Featured}, {"bumpy", zorgen::Shape::Bumpy}, {"smooth", zorgen::Shape::Smooth},
          {"disc", zorgen::Shape::Disc},         {"box", zorgen::Shape::Box},     {"rod", zorgen::Shape::Rod}};
      const auto found = shapes.find(name);
      if (found == shapes.end()) {
        std::printf("(unknown body %s)\n", name.c_str());
        continue;
      }
      arrays = zorgen::MakeShape(found->second, 40000);
    }
    bodies.push_back({name, zorgen::ScaledToDiagonal(arrays, kDiagonal)});
  }
  return bodies;
}

// A peer's result: its seconds, the transform (millimetres), and its verdict when it
// gives one (a 19th value on the line, 1 for doubtful; -1 when there is none).
struct PeerResult {
  double seconds = 0.0;
  MMTransformMatrix transform;
  int doubtful = -1;
};

// The peer's results by case number.
std::map<int, PeerResult> ReadPeer(const std::string& path) {
  std::map<int, PeerResult> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream s(line);
    int id = 0;
    double seconds = 0.0, m[16];
    if (!(s >> id >> seconds)) continue;
    for (double& v : m) s >> v;
    for (int r = 0; r < 3; ++r) m[4 * r + 3] *= 1000.0;
    MMTransformMatrix t;
    t.MakeFromDouble16(m);
    int doubtful = -1;
    if (!(s >> doubtful)) doubtful = -1;
    out[id] = {seconds, t, doubtful};
  }
  return out;
}

// The verdict alone, on poses of known worth: for each case the true pose, and wrong
// starts (the truth turned by 20 to 180 degrees about three axes through the body's
// centre) each finished as the pair call finishes (so that they sit in the nearest
// local optimum, where a wrong pose is hardest to tell from a right one). Each result
// is judged against the truth and by the verdict; prints per kind the right poses
// called doubtful and the wrong ones called sound.
void RunVerdicts(const std::vector<Body>& bodies, const std::vector<zorgen::ScanKind>& kinds, int poses, bool verbose) {
  std::printf(
      "| kind | right | right, doubted | wrong | wrong, sound | right: most contradicting | right: most RMS over "
      "distance | right: least overlap |\n|---|---|---|---|---|---|---|---|\n");
  int id = 0;
  for (const zorgen::ScanKind kind : kinds) {
    int right = 0, doubted = 0, wrong = 0, sound = 0;
    double mostOff = 0.0, mostLoose = 0.0, leastOverlap = 1.0;
    for (const Body& body : bodies)
      for (int p = 0; p < poses; ++p, ++id) {
        const zorgen::ScanCase c = zorgen::MakeScanCase(body.arrays, kind, 1000u * static_cast<unsigned>(id % 97) + p);
        auto moving = zorgen::MakeMesh(c.moving);
        auto fixed = zorgen::MakeMesh(c.fixed);
        const auto whole = zorgen::MakeMesh(c.body);
        const ZorStlRegistration::PairSurfaces pair(*moving, *fixed);
        const double least = 0.1 * ZorStlRegistration::PairVerdictDistance();
        const double distance = pair.VerdictDistance(least);
        const double reach = std::max(ZorStlRegistration::PairVerdictDistance(), distance);
        const MMTransformMatrix truth = c.pose.Inverted();
        MMVector3d centre(0.5 * (double(whole->GetXMin()) + whole->GetXMax()),
                          0.5 * (double(whole->GetYMin()) + whole->GetYMax()),
                          0.5 * (double(whole->GetZMin()) + whole->GetZMax()));
        std::vector<MMTransformMatrix> candidates{truth};
        for (const MMVector3d axis : {MMVector3d(1, 0, 0), MMVector3d(0, 1, 0), MMVector3d(0, 0, 1)})
          for (const double degrees : {20.0, 60.0, 120.0, 180.0}) {
            MMTransformMatrix turn;
            turn.MakeRotation(centre, axis, degrees / kDegrees);
            MMTransformMatrix start = turn * truth;
            ZorStlRegistration::FinishPose(pair.Moving(), pair.Fixed(), reach, start);
            candidates.push_back(start);
          }
        for (const MMTransformMatrix& pose : candidates) {
          const Judged j = Judge(c, *fixed, pose);
          const ZorStlRegistration::Verdict v = ZorStlRegistration::JudgePose(pair, pose, distance);
          right += j.onSurface ? 1 : 0;
          doubted += j.onSurface && v.doubtful ? 1 : 0;
          wrong += j.onSurface ? 0 : 1;
          sound += !j.onSurface && !v.doubtful ? 1 : 0;
          if (j.onSurface) {
            mostOff = std::max(mostOff, v.inconsistent);
            mostLoose = std::max(mostLoose, v.rms / v.distance);
            leastOverlap = std::min(leastOverlap, std::max(v.overlap, v.fixedOverlap));
          }
          if (verbose && j.onSurface == v.doubtful)
            std::fprintf(stderr, "%03d %-11s %-8s: %s %.1f deg, overlap %.2f/%.2f off %.3f rms %.3f in %.3f: %s\n", id,
                         zorgen::ScanKindName(kind), body.name.c_str(), j.onSurface ? "right, doubted" : "WRONG, sound",
                         j.degrees, v.overlap, v.fixedOverlap, v.inconsistent, v.rms / 1000.0, v.distance / 1000.0,
                         v.reason.c_str());
        }
      }
    std::printf("| %s | %d | %d | %d | %d | %.3f | %.2f | %.2f |\n", zorgen::ScanKindName(kind), right, doubted, wrong,
                sound, mostOff, mostLoose, leastOverlap);
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string data = (std::filesystem::path(PROJECT_SOURCE_DIR) / ".." / "shared" / "data" / "bunny").string();
  std::vector<std::string> bodyNames = {"bunny", "view", "view0", "lumpy", "lumpy2", "sample"};
  std::vector<zorgen::ScanKind> kinds = zorgen::AllScanKinds();
  int poses = 5;
  long threads = 2;
  std::string save, peer;
  bool verbose = false, verdicts = false;
  ZorStlRegistration::PairOptions options;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : "";
    if (flag == "--verbose" || flag == "--verdicts") {
      (flag == "--verbose" ? verbose : verdicts) = true;
      continue;
    }
    ++i;
    if (flag == "--bodies") {
      bodyNames = zorbench::ParseNames(value);
    } else if (flag == "--kinds") {
      if (std::strcmp(value, "all") != 0) {
        kinds.clear();
        for (const std::string& name : zorbench::ParseNames(value)) {
          zorgen::ScanKind k;
          if (!zorgen::ParseScanKind(name, k)) {
            std::fprintf(stderr, "bench_scan_scenes: unknown kind %s\n", name.c_str());
            return 2;
          }
          kinds.push_back(k);
        }
      }
    } else if (flag == "--poses") {
      poses = std::max(1, std::atoi(value));
    } else if (flag == "--threads") {
      threads = std::max(1L, std::atol(value));
    } else if (flag == "--data") {
      data = value;
    } else if (flag == "--save") {
      save = value;
    } else if (flag == "--peer") {
      peer = value;
    } else if (flag == "--search-triangles") {
      options.searchTriangles = static_cast<std::size_t>(std::max(0L, std::atol(value)));
    } else {
      std::fprintf(stderr,
                   "usage: bench_scan_scenes [--bodies bunny,view,view0,lumpy,lumpy2,sample] [--kinds all|...] "
                   "[--poses 5] [--threads 2] [--data DIR] [--save DIR] [--peer FILE] [--verbose] [--verdicts] "
                   "[--search-triangles N]\n");
      return 2;
    }
  }
  const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(threads));
  const std::vector<Body> bodies = LoadBodies(bodyNames, data);
  if (verdicts) {
    RunVerdicts(bodies, kinds, poses, verbose);
    return 0;
  }
  const auto peerResults = peer.empty() ? std::map<int, PeerResult>() : ReadPeer(peer);
  const bool peerVerdicts =
      std::any_of(peerResults.begin(), peerResults.end(), [](const auto& entry) { return entry.second.doubtful >= 0; });
  std::ofstream manifest;
  if (!save.empty()) {
    std::filesystem::create_directories(save);
    manifest.open(save + "/cases.txt");
  }
  std::printf("scan scenes: %zu bodies, %d poses, %ld threads; the pair call with its defaults%s\n\n", bodies.size(),
              poses, threads, peer.empty() ? "" : "; beside it the peer's results from the file given");
  std::printf("| kind | cases | on surface | strict | right, doubted | wrong, unwarned | median ms |%s digest |\n",
              peer.empty() ? ""
              : peerVerdicts
                  ? " peer on surface | peer strict | peer right, doubted | peer wrong, unwarned | peer median ms |"
                  : " peer on surface | peer strict | peer median ms |");
  std::printf("|---|---|---|---|---|---|---|%s---|\n", peer.empty()   ? ""
                                                       : peerVerdicts ? "---|---|---|---|---|"
                                                                      : "---|---|---|");
  Tally all, peerAll;
  int id = 0;
  for (const zorgen::ScanKind kind : kinds) {
    Tally tally, peerTally;
    for (const Body& body : bodies)
      for (int p = 0; p < poses; ++p, ++id) {
        const zorgen::ScanCase c = zorgen::MakeScanCase(body.arrays, kind, 1000u * static_cast<unsigned>(id % 97) + p);
        const auto moving = zorgen::MakeMesh(c.moving);
        const auto fixed = zorgen::MakeMesh(c.fixed);
        if (!save.empty()) {
          char name[32];
          std::snprintf(name, sizeof name, "%03d", id);
          ZorStlRegistration::WriteMesh(*moving, nullptr, 1.0, save + "/" + name + "_moving.ply", false);
          ZorStlRegistration::WriteMesh(*fixed, nullptr, 1.0, save + "/" + name + "_fixed.ply", false);
          manifest << name << " " << zorgen::ScanKindName(kind) << " " << body.name << "\n";
        }
        const auto start = std::chrono::steady_clock::now();
        const ZorStlRegistration::PairResult r = ZorStlRegistration::AlignPair(*moving, *fixed, options);
        const double ms = ZorSDK::Common::SecondsSince(start) * 1000.0;
        const Judged j = Judge(c, *fixed, r.transform);
        for (Tally* t : {&tally, &all}) {
          ++t->cases;
          t->onSurface += j.onSurface ? 1 : 0;
          t->strict += j.strict ? 1 : 0;
          t->doubted += j.onSurface && r.verdict.doubtful ? 1 : 0;
          t->unwarned += !j.onSurface && !r.verdict.doubtful ? 1 : 0;
          t->ms.push_back(ms);
          t->digest = zorbench::Digest(zorbench::Digest(t->digest, r.transform), r.verdict.doubtful ? 1.0 : 0.0);
        }
        if (verbose)
          std::fprintf(stderr,
                       "%03d %-11s %-8s #%d: %s%s %.2f deg, overlap %.2f/%.2f off %.2f rms %.3f mm in %.3f, %s%s, %.0f "
                       "ms (reduction %.0f, "
                       "alignment %.0f, refinement %.0f, finish %.0f)%s%s\n",
                       id, zorgen::ScanKindName(kind), body.name.c_str(), p, j.onSurface ? "right" : "WRONG",
                       j.strict ? "" : " (not strict)", j.degrees, r.verdict.overlap, r.verdict.fixedOverlap,
                       r.verdict.inconsistent, r.verdict.rms / 1000.0, r.verdict.distance / 1000.0,
                       ZorStlRegistration::StrategyName(r.used), r.triedFeatures ? " (both tried)" : "", ms,
                       r.times.reduction * 1000.0, r.times.alignment * 1000.0, r.times.refinement * 1000.0,
                       r.polishSeconds * 1000.0, r.verdict.doubtful ? ", doubtful: " : "", r.verdict.reason.c_str());
        const auto found = peerResults.find(id);
        if (found != peerResults.end()) {
          const PeerResult& pr = found->second;
          const Judged pj = Judge(c, *fixed, pr.transform);
          for (Tally* t : {&peerTally, &peerAll}) {
            ++t->cases;
            t->onSurface += pj.onSurface ? 1 : 0;
            t->strict += pj.strict ? 1 : 0;
            t->doubted += pj.onSurface && pr.doubtful == 1 ? 1 : 0;
            t->unwarned += !pj.onSurface && pr.doubtful == 0 ? 1 : 0;
            t->ms.push_back(pr.seconds * 1000.0);
          }
        }
      }
    const auto row = [&](const char* name, const Tally& t, const Tally& pt) {
      std::printf("| %s | %d | %d | %d | %d of %d | %d | %.0f |", name, t.cases, t.onSurface, t.strict, t.doubted,
                  t.onSurface, t.unwarned, Median(t.ms));
      if (!peer.empty()) std::printf(" %d/%d | %d |", pt.onSurface, pt.cases, pt.strict);
      if (peerVerdicts) std::printf(" %d of %d | %d |", pt.doubted, pt.onSurface, pt.unwarned);
      if (!peer.empty()) std::printf(" %.0f |", Median(pt.ms));
      std::printf(" %016llx |\n", static_cast<unsigned long long>(t.digest));
      std::fflush(stdout);
    };
    row(zorgen::ScanKindName(kind), tally, peerTally);
    if (kind == kinds.back()) row("all", all, peerAll);
  }
  return 0;
}
