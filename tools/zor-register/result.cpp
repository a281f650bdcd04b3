#include "tools/zor-register/result.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <tuple>

#include "zor/morph/wrapper_operator_field_morph.h"

namespace zortool {

namespace {

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

std::string TransformLines(const MMTransformMatrix& transform, double toFile) {
  std::string text = "moving onto fixed (row-major, points as column vectors, file units):";
  for (int r = 0; r < 4; ++r) {
    text += "\n";
    for (int c = 0; c < 4; ++c) text += Format("%16.9f", FileElement(transform, r, c, toFile));
  }
  return text;
}

}  // namespace

void ResultDescription::Print() const {
  for (const auto& [label, text] : lines) {
    std::string indented;
    for (char c : text) indented += c == '\n' ? std::string("\n          ") : std::string(1, c);
    // A transform's rows stand under each other, not under the label.
    if (label == "transform") {
      std::printf("%s %s\n", label.c_str(), text.c_str());
      continue;
    }
    std::printf("%-9s %s\n", label.c_str(), indented.c_str());
  }
}

void DescribeMeshes(ResultDescription& d, const char* movingRole, const std::string& movingPath,
                    const LoadedMesh& moving, const char* fixedRole, const std::string& fixedPath,
                    const LoadedMesh& fixed) {
  for (const auto& [role, path, mesh] :
       {std::tuple{movingRole, &movingPath, &moving}, {fixedRole, &fixedPath, &fixed}}) {
    d.Add(role, Format("%s: %zu points, %zu triangles", path->c_str(), mesh->mesh->NumberOfPoints(),
                       mesh->mesh->GetNumberOfTriangles()));
    d.json[role] = MeshJson(*path, *mesh);
  }
}

void DescribeWall(ResultDescription& d, double read, const PairResult& result) {
  d.Add("wall", Format("reading both files %.3f s; the registration %.3f s, of which studying the surfaces %.3f and "
                       "verdicts %.3f",
                       read, result.seconds, result.surfaceSeconds, result.verdictSeconds));
  d.json["seconds"]["read"] = read;
  d.json["seconds"]["surfaces"] = result.surfaceSeconds;
  d.json["seconds"]["verdicts"] = result.verdictSeconds;
  d.json["seconds"]["registration"] = result.seconds;
}

void DescribeVerdict(ResultDescription& d, const Verdict& v, double toFile) {
  d.Add("overlap", Format("%.1f%% of MOVING within %.6g file units of FIXED, RMS %.6g there; %.1f%% of FIXED on "
                          "MOVING",
                          100.0 * v.overlap, v.distance * toFile, v.rms * toFile, 100.0 * v.fixedOverlap));
  d.Add("verdict", v.doubtful ? "doubtful: " + v.reason : std::string("sound"));
  d.json["overlap"] = v.overlap;
  d.json["fixed_overlap"] = v.fixedOverlap;
  d.json["overlap_rms"] = v.rms * toFile;
  d.json["overlap_distance"] = v.distance * toFile;
  d.json["doubtful"] = v.doubtful;
  if (v.doubtful) d.json["doubt"] = v.reason;
}

void DescribeOutputs(ResultDescription& d, const std::string& output, const DeviationOptions& deviation,
                     const std::optional<Deviation>& measured, double scale) {
  d.json["scale"] = scale;
  if (!output.empty()) {
    d.Add("wrote", output);
    d.json["output"] = output;
  }
  if (!measured) return;
  const DeviationSummary& s = measured->summary;
  d.Add("deviation", Format("%.2f%% of the vertices within +-%.6g file units; 95%% within %.6g, largest %.6g",
                            100.0 * s.withinShare, s.tolerance, s.percentile95, s.largest));
  Json& j = d.json["deviation"];
  j = Json{{"range", s.tolerance}, {"within_range", s.withinShare}, {"p95", s.percentile95}, {"largest", s.largest}};
  if (measured->withoutCounterpart > 0)
    d.Add("unmatched", Format("%zu vertices without a counterpart on FIXED (clutter, or beyond its border): grey, "
                              "out of the figures above",
                              measured->withoutCounterpart));
  j["without_counterpart"] = measured->withoutCounterpart;
  if (!deviation.path.empty()) {
    d.Add("wrote", deviation.path + " (deviation map: signed distance as vertex quality, and colours)");
    j["map"] = deviation.path;
  }
  if (!deviation.report.empty()) {
    d.Add("wrote", deviation.report + " (inspection report: open it in a browser)");
    j["report"] = deviation.report;
  }
}

ResultDescription DescribeAlign(const std::string& movingPath, const LoadedMesh& moving, const std::string& fixedPath,
                                const LoadedMesh& fixed, const PairOptions& options, const PairResult& result,
                                double toFile) {
  ResultDescription d;
  const Registration::MParams& params = options.params;
  DescribeMeshes(d, "moving", movingPath, moving, "fixed", fixedPath, fixed);
  const bool twoWays = options.withFeatures && params.initialAlignment == Registration::AlignAutomatic;
  const std::string strategy = twoWays ? kDefaultStrategy : StrategyName(params.initialAlignment);
  d.Add("strategy", params.initialAlignment == Registration::AlignAutomatic
                        ? Format("%s (took %s%s)", strategy.c_str(), StrategyName(result.used),
                                 result.triedFeatures ? ", after trying both" : "")
                        : strategy);
  d.json["strategy"] = strategy;
  d.json["strategy_used"] = StrategyName(result.used);
  d.Add("transform", TransformLines(result.transform, toFile));
  d.json["transform"] = TransformJson(result.transform, toFile);
  const double error = result.error * toFile;
  d.Add("error", result.inliers > 0
                     ? Format("%.6g file units (mean distance of the %llu closest samples, before the finish)", error,
                              static_cast<unsigned long long>(result.inliers))
                     : Format("%.6g file units (RMS of the samples on the fixed surface, before the finish)", error));
  d.json["error"] = error;
  d.json["inliers"] = result.inliers;
  d.json["samples"] = params.sampleCount;
  DescribeVerdict(d, result.verdict, toFile);
  Registration::StageTimes s = result.times;
  s.total += result.polishSeconds;
  d.Add("time", Format("%.3f s (reduction %.3f, sampling %.3f, index %.3f, alignment %.3f, refinement %.3f; %llu "
                       "iterations)",
                       s.total, s.reduction, s.sampling, s.index, s.alignment, s.refinement,
                       static_cast<unsigned long long>(s.iterations)));
  d.json["iterations"] = s.iterations;
  d.json["seconds"] = Json{{"reduction", s.reduction}, {"sampling", s.sampling},     {"index", s.index},
                           {"alignment", s.alignment}, {"refinement", s.refinement}, {"polish", result.polishSeconds},
                           {"total", s.total}};
  if (options.polish)
    d.Add("finish", Format("%s, %.3f s", result.polished ? "point-to-plane ICP on the full meshes" : "could not run",
                           result.polishSeconds));
  d.json["polished"] = result.polished;
  return d;
}

ResultDescription DescribeIcp(const std::string& movingPath, const LoadedMesh& moving, const std::string& fixedPath,
                              const LoadedMesh& fixed, const IcpOptions& options, const IcpRun& run, double toFile) {
  ResultDescription d;
  const ZorStlRegistration::MStlBaseOperatorRegistrationICP::MParams& p = options.params;
  DescribeMeshes(d, "moving", movingPath, moving, "fixed", fixedPath, fixed);
  const auto count = [](std::size_t n) { return static_cast<unsigned long long>(n); };
  if (p.multiStart)
    d.Add("search",
          Format("%llu starts (%llu directions x %llu spins) of %llu fits on %llu samples%s", count(run.starts),
                 count(p.directionCount), count(p.rotationCount), count(p.maxIterations), count(p.sampleCount),
                 run.refined ? (", refined on " + std::to_string(p.sampleCount * p.refineFactor)).c_str() : ""));
  else
    d.Add("search", Format("one run of %llu fits on %llu samples from the given pose", count(p.maxIterations),
                           count(p.sampleCount)));
  d.json["samples"] = p.sampleCount;
  d.json["refined_samples"] = run.refined ? p.sampleCount * p.refineFactor : 0;
  d.json["starts"] = run.starts;
  d.json["directions"] = p.directionCount;
  d.json["rotations"] = p.rotationCount;
  d.json["iterations"] = p.maxIterations;
  d.Add("transform", TransformLines(run.transform, toFile));
  d.json["transform"] = TransformJson(run.transform, toFile);
  const double rms = run.rms * toFile;
  d.Add("rms error", Format("%.6g file units (root mean square distance of the samples, rejected ones included, "
                            "before the finish)",
                            rms));
  d.json["rms_error"] = rms;
  DescribeVerdict(d, run.verdict, toFile);
  const auto& t = run.times;
  d.Add("time", Format("%.3f s (sampling %.3f, tree %.3f, analysis %.3f, search %.3f, refinement %.3f)",
                       t.total + run.polishSeconds, t.sampling, t.tree, t.analysis, t.search, t.refinement));
  d.json["seconds"] = Json{{"sampling", t.sampling},
                           {"tree", t.tree},
                           {"analysis", t.analysis},
                           {"search", t.search},
                           {"refinement", t.refinement},
                           {"polish", run.polishSeconds},
                           {"total", t.total + run.polishSeconds}};
  if (options.polish)
    d.Add("finish", Format("%s, %.3f s", run.polished ? "point-to-plane ICP on the full meshes" : "could not run",
                           run.polishSeconds));
  d.json["polished"] = run.polished;
  return d;
}

ResultDescription DescribeMorph(const std::string& movingPath, const LoadedMesh& moving, const std::string& targetPath,
                                const LoadedMesh& target, const MorphOptions& options, const MorphRun& run,
                                double toFile) {
  using ZorStlRegistration::StopReasonName;
  ResultDescription d;
  DescribeMeshes(d, "moving", movingPath, moving, "target", targetPath, target);
  d.json["registered"] = options.registerFirst;
  d.json["method"] = run.baseMorph ? "base" : "field";
  if (options.registerFirst) {
    d.Add("register", Format("%s; scaled by %.5f, %.5f, %.5f to the target's box; then ICP",
                             run.registrationSucceeded ? "registered" : "registration failed, kept the placement",
                             run.scales[0], run.scales[1], run.scales[2]));
    d.json["registration_succeeded"] = run.registrationSucceeded;
    d.json["registration"] = TransformJson(run.registration, toFile);
    d.json["scales"] = {run.scales[0], run.scales[1], run.scales[2]};
    d.json["icp"] = TransformJson(run.icp, toFile);
  }
  const double tolerance = run.tolerance * toFile;
  const auto& m = run.morph;
  const auto& f = run.field;
  if (run.baseMorph) {
    d.Add("morph", Format("base morph, %zu iterations; largest remaining displacement %.6g file units, mean %.6g; "
                          "%.2f%% within %.6g",
                          m.iterations, run.maxDistance * toFile, run.meanDistance * toFile, 100.0 * run.fractionWithin,
                          tolerance));
    d.json["iterations"] = m.iterations;
  } else {
    d.Add("morph", Format("field morph, %zu passes, %s%s", f.passes, StopReasonName(f.stop),
                          f.local ? "; a local change, followed by the surface alone" : ""));
    d.Add("distance", Format("to TARGET after the last step: largest %.6g file units, mean %.6g, 95%% below %.6g; "
                             "%.2f%% within %.6g",
                             run.maxDistance * toFile, run.meanDistance * toFile, f.p95Distance * toFile,
                             100.0 * run.fractionWithin, tolerance));
    d.Add("unmatched", Format("%zu point(s) without a counterpart on TARGET", f.unmatched));
    d.Add("folded", Format("%zu triangle(s)", f.folded));
    d.json["passes"] = f.passes;
    d.json["stop"] = StopReasonName(f.stop);
    d.json["p95_distance"] = f.p95Distance * toFile;
    d.json["unmatched"] = f.unmatched;
    d.json["folded"] = f.folded;
    d.json["laid"] = f.laid;
    d.json["local"] = f.local;
  }
  d.json["max_distance"] = run.maxDistance * toFile;
  d.json["mean_distance"] = run.meanDistance * toFile;
  d.json["fraction_within"] = run.fractionWithin;
  d.json["tolerance"] = tolerance;
  const auto& r = run.stages;
  const std::string morphTimes =
      run.baseMorph ? Format("setup %.3f, dual passes %.3f, main passes %.3f, steps %.3f, smoothing %.3f", m.setup,
                             m.dualPass, m.mainPass, m.step, m.smoothing)
                    : Format("setup %.3f, field over space %.3f, matching %.3f, solving %.3f, measuring %.3f", f.setup,
                             f.space, f.correspondence, f.solve, f.measure);
  const Json morphSeconds =
      run.baseMorph
          ? Json{{"setup", m.setup},         {"dual_pass", m.dualPass},    {"main_pass", m.mainPass}, {"step", m.step},
                 {"smoothing", m.smoothing}, {"statistics", m.statistics}, {"total", m.total}}
          : Json{{"setup", f.setup},   {"space", f.space},       {"matching", f.correspondence},
                 {"solving", f.solve}, {"measuring", f.measure}, {"total", f.total}};
  if (options.registerFirst) {
    d.Add("time", Format("%.3f s (registration %.3f, scaling %.3f, ICP %.3f, morph %.3f: %s)", r.total, r.registration,
                         r.scaling, r.icp, r.morph, morphTimes.c_str()));
    d.json["seconds"] = Json{{"registration", r.registration},
                             {"scaling", r.scaling},
                             {"icp", r.icp},
                             {"morph", morphSeconds},
                             {"total", r.total}};
  } else {
    d.Add("time", Format("%.3f s (morph: %s)", run.total, morphTimes.c_str()));
    d.json["seconds"] = Json{{"morph", morphSeconds}, {"total", run.total}};
  }
  return d;
}

}  // namespace zortool
