// Accuracy on real scans: the Stanford bunny's range views registered with no starting
// pose, each view onto the zippered model and each view onto its neighbour on the
// turntable ring, under seeded random placements of the moving mesh. A case succeeds
// when the rotation error is below 2 degrees and the translation error (at the moving
// mesh's centre) below 1% of the fixed mesh's diagonal. "warned" counts doubtful
// verdicts; "wrong, unwarned" the failures the verdict called sound.
//
//   bench_scan_suite [--data DIR] [--placements 5] [--modes tool,auto,features]
//                    [--threads 2] [--cases model,views]
//
// Modes: tool (the command's default: automatic, features when doubtful, full finish),
// tool-no-polish, auto, features (the operator alone with that strategy, no finish).
// The data (binary PLY in millimetres, already in one frame) is read from
// ../shared/data/bunny beside the project unless --data says otherwise; without it the
// program says so and exits 0.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <tbb/global_control.h>

#include "bench/bench_args.h"
#include "bench/bench_digest.h"
#include "generators/poses.h"
#include "zor/files/mesh_files.h"
#include "zor/model/stopwatch.h"
#include "zor/model/unit.h"
#include "zor/pair/pair_registration.h"

namespace {

using Registration = MUserOperatorStlRegistration;
constexpr double kDegrees = 57.29577951308232;

struct Case {
  std::string moving, fixed;
};

struct Tally {
  std::vector<double> rotation, seconds;
  int recovered = 0, warned = 0, wrongUnwarned = 0, total = 0;
  std::uint64_t digest = zorbench::kDigestStart;
};

double Median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

double Diagonal(const MStlBase& m) {
  const double dx = double(m.GetXMax()) - m.GetXMin(), dy = double(m.GetYMax()) - m.GetYMin(),
               dz = double(m.GetZMax()) - m.GetZMin();
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

MMVector3d Centre(const MStlBase& m) {
  return MMVector3d(0.5 * (double(m.GetXMin()) + m.GetXMax()), 0.5 * (double(m.GetYMin()) + m.GetYMax()),
                    0.5 * (double(m.GetZMin()) + m.GetZMax()));
}

}  // namespace

int main(int argc, char** argv) {
  std::string data = (std::filesystem::path(PROJECT_SOURCE_DIR) / ".." / "shared" / "data" / "bunny").string();
  int placements = 5;
  std::vector<std::string> modes = {"tool", "auto", "features"}, groups = {"model", "views"};
  long threads = 2;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--data") {
      data = argv[i + 1];
    } else if (flag == "--placements") {
      placements = std::max(1, std::atoi(argv[i + 1]));
    } else if (flag == "--modes") {
      modes = zorbench::ParseNames(argv[i + 1]);
    } else if (flag == "--cases") {
      groups = zorbench::ParseNames(argv[i + 1]);
    } else if (flag == "--threads") {
      threads = std::max(1L, std::atol(argv[i + 1]));
    } else {
      std::fprintf(stderr,
                   "usage: bench_scan_suite [--data DIR] [--placements 5] [--modes tool,tool-no-polish,auto,features] "
                   "[--threads 2] [--cases model,views]\n");
      return 2;
    }
  }
  if (!std::filesystem::exists(std::filesystem::path(data) / "bun_zipper.ply")) {
    std::printf("bench_scan_suite: no bunny data in %s; skipped\n", data.c_str());
    return 0;
  }
  tbb::global_control limit(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(threads));

  const std::vector<std::string> ring = {"bun000", "bun045", "bun090", "bun180", "bun270", "bun315"};
  std::vector<std::pair<std::string, std::vector<Case>>> suites;
  for (const std::string& g : groups) {
    std::vector<Case> cases;
    for (std::size_t v = 0; v < ring.size(); ++v) {
      if (g == "model") cases.push_back({ring[v], "bun_zipper"});
      if (g == "views") cases.push_back({ring[v], ring[(v + 1) % ring.size()]});
    }
    suites.emplace_back(g == "model" ? "view onto model" : "view onto view", cases);
  }

  std::printf(
      "bunny range scans, %d placements per pair, %ld threads; success: rotation < 2 deg, translation < 1%% "
      "of the fixed diagonal; times are whole cases in seconds\n\n",
      placements, threads);
  std::printf("| mode | cases | recovered | median rot err deg | median s | warned | wrong, unwarned | digest |\n");
  std::printf("|---|---|---|---|---|---|---|---|\n");
  const double ie = MUnit::GetIE();
  for (const std::string& mode : modes) {
    for (const auto& [title, cases] : suites) {
      Tally tally;
      for (const Case& c : cases) {
        const ZorStlRegistration::LoadedMesh fixed = ZorStlRegistration::ReadMesh(data + "/" + c.fixed + ".ply", 1.0);
        const ZorStlRegistration::LoadedMesh original =
            ZorStlRegistration::ReadMesh(data + "/" + c.moving + ".ply", 1.0);
        const MMVector3d centre = Centre(*original.mesh);
        const double diagonal = Diagonal(*fixed.mesh);
        for (int p = 0; p < placements; ++p) {
          // Seeds by pair and placement, the same for every mode.
          const std::uint64_t seed = std::hash<std::string>()(c.moving + c.fixed) % 100000 * 100 + std::uint64_t(p);
          const MMTransformMatrix placement = zorgen::DrawPose(seed, 0.3 * diagonal);
          MStlBase moving(*original.mesh);
          moving.Transform(placement);

          ZorStlRegistration::PairOptions options;
          options.params.initialAlignment = Registration::AlignAutomatic;
          options.withFeatures = mode == "tool" || mode == "tool-no-polish";
          options.polish = mode == "tool";
          if (mode == "features") options.params.initialAlignment = Registration::AlignFeatures;
          const auto start = std::chrono::steady_clock::now();
          const ZorStlRegistration::PairResult r = ZorStlRegistration::AlignPair(moving, *fixed.mesh, options);
          const double seconds = ZorSDK::Common::SecondsSince(start);

          // The result times the placement is the identity when the pose was found.
          MMTransformMatrix residual = r.transform;
          residual.PostMultiply(placement);
          const double angle = RotationDegrees(residual);
          MMVector3d moved = centre;
          residual.Transform(moved, false);
          const double shift = Length(moved - centre);
          const bool ok = angle < 2.0 && shift < 0.01 * diagonal;
          ++tally.total;
          tally.digest = zorbench::Digest(zorbench::Digest(tally.digest, r.transform), r.verdict.overlap);
          tally.digest = zorbench::Digest(tally.digest, r.verdict.doubtful ? 1.0 : 0.0);
          tally.recovered += ok ? 1 : 0;
          tally.warned += r.verdict.doubtful ? 1 : 0;
          tally.wrongUnwarned += !ok && !r.verdict.doubtful ? 1 : 0;
          tally.rotation.push_back(angle);
          tally.seconds.push_back(seconds);
          if (std::getenv("ZOR_SUITE_VERBOSE") != nullptr)
            std::fprintf(stderr,
                         "%s %s->%s #%d: %s %.3f deg %.3f mm, overlap %.2f/%.2f inconsistent %.3f rms %.3f mm in "
                         "%.3f%s, %s%s, %.2f s "
                         "(operator %.2f: "
                         "reduction %.2f alignment %.2f; finish %.2f)\n",
                         mode.c_str(), c.moving.c_str(), c.fixed.c_str(), p, ok ? "right" : "WRONG", angle, shift / ie,
                         r.verdict.overlap, r.verdict.fixedOverlap, r.verdict.inconsistent, r.verdict.rms / ie,
                         r.verdict.distance / ie, r.verdict.doubtful ? " (doubtful)" : "",
                         r.used == Registration::AlignFeatures ? "features" : "shapes",
                         r.triedFeatures ? " (both tried)" : "", seconds, r.times.total, r.times.reduction,
                         r.times.alignment, r.polishSeconds);
        }
      }
      std::printf("| %s | %s | %d/%d (%.0f%%) | %.3f | %.2f | %d | %d | %016llx |\n", mode.c_str(), title.c_str(),
                  tally.recovered, tally.total, 100.0 * tally.recovered / std::max(1, tally.total),
                  Median(tally.rotation), Median(tally.seconds), tally.warned, tally.wrongUnwarned,
                  static_cast<unsigned long long>(tally.digest));
      std::fflush(stdout);
    }
  }
  return 0;
}
