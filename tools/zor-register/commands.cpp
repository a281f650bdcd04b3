#include "tools/zor-register/commands.h"

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>
#include <tbb/global_control.h>

#include "generators/bodies.h"
#include "generators/poses.h"
#include "tools/zor-register/progress_bar.h"
#include "tools/zor-register/report.h"
#include "zor/model/unit.h"

namespace zortool {

namespace {

// A number as a report row shows it.
std::string Figure(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", v);
  return text;
}

}  // namespace

Registration::MParams DemoDefaults() {
  Registration::MParams p = PairDefaults();
  p.overlapFraction = 1.0;
  p.errorTolerance = 0.01;
  return p;
}

int RunAlign(const std::string& movingPath, const std::string& fixedPath, const std::string& output,
             const PairOptions& options, const DeviationOptions& deviation, const CommonOptions& common) {
  if (!output.empty()) CheckOutputPath(output);
  CheckDeviationPath(deviation);
  const LoadedMesh moving = ReadWithWarnings(movingPath, common);
  const LoadedMesh fixed = ReadWithWarnings(fixedPath, common);

  PairResult result;
  {
    std::shared_ptr<ProgressBar> bar;
    if (!common.quiet && isatty(STDERR_FILENO)) bar = std::make_shared<ProgressBar>();
    const auto limit = LimitThreads(common.threads);
    try {
      result = AlignPair(*moving.mesh, *fixed.mesh, options, bar);
    } catch (const std::out_of_range& e) {
      throw InputError(std::string("the registration carried the moving mesh off the 32-bit grid (") + e.what() +
                       "); try a smaller --scale");
    }
  }
  const Registration::MParams& params = options.params;
  const MMTransformMatrix& transform = result.transform;
  const double toFile = 1.0 / (common.scale * MUnit::GetIE());
  const double error = result.error * toFile;
  const std::string strategy = options.withFeatures && params.initialAlignment == Registration::AlignAutomatic
                                   ? kDefaultStrategy
                                   : StrategyName(params.initialAlignment);
  if (!output.empty()) WriteMesh(*moving.mesh, &transform, common.scale, output, common.ascii);
  const std::optional<Deviation> map =
      MakeDeviationMap(deviation, *moving.mesh, &transform, *fixed.mesh, error, common);
  // Doubt goes to stderr whatever the format, so that scripts reading the report see it too.
  if (result.verdict.doubtful && !common.quiet)
    std::fprintf(stderr, "zor-register: warning: the result is doubtful: %s\n", result.verdict.reason.c_str());

  Registration::StageTimes times = result.times;
  times.total += result.polishSeconds;
  {
    const Verdict& v = result.verdict;
    std::vector<std::pair<std::string, std::string>> rows{
        {"moving", movingPath},
        {"fixed", fixedPath},
        {"strategy", strategy + " (took " + std::string(StrategyName(result.used)) + ")"},
        {"transform", TransformText(transform, toFile)},
        {"error", Figure(error) + " file units (before the finish)"},
        {"overlap",
         Figure(100.0 * v.overlap) + "% within " + Figure(v.distance * toFile) + ", RMS " + Figure(v.rms * toFile)},
        {"verdict", v.doubtful ? "doubtful" : "sound"},
        {"time", Figure(times.total) + " s (reduction " + Figure(times.reduction) + ", alignment " +
                     Figure(times.alignment) + ", refinement " + Figure(times.refinement) + ", finish " +
                     Figure(result.polishSeconds) + ")"}};
    if (v.doubtful) rows.emplace_back("doubt", v.reason);
    const std::string problem =
        v.overlap > 0.0 ? ""
                        : "No part of MOVING lies within " + Figure(v.distance * toFile) +
                              " file units of FIXED: "
                              "the registration found no overlap, and the colours show how far apart they lie.";
    WriteReport(deviation, map, "zor-register align", *moving.mesh, &transform, *fixed.mesh, rows, problem, common);
  }
  if (common.json) {
    Json report{{"moving", MeshJson(movingPath, moving)},
                {"fixed", MeshJson(fixedPath, fixed)},
                {"transform", TransformJson(transform, toFile)},
                {"error", error},
                {"inliers", result.inliers},
                {"samples", params.sampleCount},
                {"strategy", strategy},
                {"strategy_used", StrategyName(result.used)},
                {"polished", result.polished},
                {"overlap", result.verdict.overlap},
                {"overlap_rms", result.verdict.rms * toFile},
                {"overlap_distance", result.verdict.distance * toFile},
                {"doubtful", result.verdict.doubtful},
                {"iterations", times.iterations},
                {"seconds", StageTimesJson(times)},
                {"scale", common.scale}};
    report["seconds"]["polish"] = result.polishSeconds;
    if (result.verdict.doubtful) report["doubt"] = result.verdict.reason;
    if (!output.empty()) report["output"] = output;
    AddDeviation(report, deviation, map);
    std::printf("%s\n", report.dump(2).c_str());
    return 0;
  }
  PrintMeshes(movingPath, moving, fixedPath, fixed);
  std::printf("strategy  %s", strategy.c_str());
  if (params.initialAlignment == Registration::AlignAutomatic)
    std::printf(" (took %s%s)", StrategyName(result.used), result.triedFeatures ? ", after trying both" : "");
  std::printf("\n");
  PrintTransform(transform, toFile);
  std::printf("error     %.6g file units (mean distance of the %llu closest samples, before the finish)\n", error,
              static_cast<unsigned long long>(result.inliers));
  std::printf("overlap   %.1f%% of MOVING within %.6g file units of FIXED, RMS %.6g there%s\n",
              100.0 * result.verdict.overlap, result.verdict.distance * toFile, result.verdict.rms * toFile,
              result.verdict.doubtful ? " (doubtful)" : "");
  PrintStageTimes(times);
  if (options.polish)
    std::printf("finish    %s, %.3f s\n", result.polished ? "point-to-plane ICP on the full meshes" : "could not run",
                result.polishSeconds);
  if (!output.empty()) std::printf("wrote     %s\n", output.c_str());
  PrintDeviation(deviation, map);
  return 0;
}

int RunIcp(const std::string& movingPath, const std::string& fixedPath, const std::string& output,
           const IcpOptions& options, const DeviationOptions& deviation, const CommonOptions& common) {
  if (!output.empty()) CheckOutputPath(output);
  CheckDeviationPath(deviation);
  const LoadedMesh moving = ReadWithWarnings(movingPath, common);
  const LoadedMesh fixed = ReadWithWarnings(fixedPath, common);

  IcpOptions inMillimetres = options;
  for (int i = 3; i < 12 && !options.initial.empty(); i += 4) inMillimetres.initial[i] *= common.scale;
  IcpRun run;
  {
    std::shared_ptr<ProgressBar> bar;
    if (!common.quiet && isatty(STDERR_FILENO)) bar = std::make_shared<ProgressBar>();
    const auto limit = LimitThreads(common.threads);
    run = IcpPair(*moving.mesh, *fixed.mesh, inMillimetres, movingPath, fixedPath, bar);
  }
  const ZorStlRegistration::MStlBaseOperatorRegistrationICP::MParams& p = options.params;
  const MMTransformMatrix& transform = run.transform;
  const double toFile = 1.0 / (common.scale * MUnit::GetIE());
  const double rms = run.rms * toFile;
  if (!output.empty()) WriteMesh(*moving.mesh, &transform, common.scale, output, common.ascii);
  const std::optional<Deviation> map = MakeDeviationMap(deviation, *moving.mesh, &transform, *fixed.mesh, rms, common);
  const auto& t = run.times;
  const Verdict& verdict = run.verdict;
  if (verdict.doubtful && !common.quiet)
    std::fprintf(stderr, "zor-register: warning: the result is doubtful: %s\n", verdict.reason.c_str());
  {
    std::vector<std::pair<std::string, std::string>> rows{
        {"moving", movingPath},
        {"fixed", fixedPath},
        {"search", std::to_string(run.starts) + " start(s) of " + std::to_string(p.maxIterations) + " fits on " +
                       std::to_string(p.sampleCount) + " samples" + (run.polished ? ", finished" : "")},
        {"transform", TransformText(transform, toFile)},
        {"rms error", Figure(rms) + " file units (of the search's samples)"},
        {"overlap", Figure(100.0 * verdict.overlap) + "% within " + Figure(verdict.distance * toFile) + ", RMS " +
                        Figure(verdict.rms * toFile)},
        {"verdict", verdict.doubtful ? "doubtful" : "sound"},
        {"time", Figure(t.total + run.polishSeconds) + " s (search " + Figure(t.search) + ", refinement " +
                     Figure(t.refinement) + ", finish " + Figure(run.polishSeconds) + ")"}};
    if (verdict.doubtful) rows.emplace_back("doubt", verdict.reason);
    const std::string problem = verdict.overlap > 0.0
                                    ? ""
                                    : "No part of MOVING lies within " + Figure(verdict.distance * toFile) +
                                          " file units of FIXED: the search found no overlap.";
    WriteReport(deviation, map, "zor-register icp", *moving.mesh, &transform, *fixed.mesh, rows, problem, common);
  }

  if (common.json) {
    Json report{{"moving", MeshJson(movingPath, moving)},
                {"fixed", MeshJson(fixedPath, fixed)},
                {"transform", TransformJson(transform, toFile)},
                {"rms_error", rms},
                {"samples", p.sampleCount},
                {"refined_samples", run.refined ? p.sampleCount * p.refineFactor : 0},
                {"starts", run.starts},
                {"directions", p.directionCount},
                {"rotations", p.rotationCount},
                {"iterations", p.maxIterations},
                {"polished", run.polished},
                {"overlap", verdict.overlap},
                {"overlap_rms", verdict.rms * toFile},
                {"overlap_distance", verdict.distance * toFile},
                {"doubtful", verdict.doubtful},
                {"seconds", Json{{"sampling", t.sampling},
                                 {"tree", t.tree},
                                 {"analysis", t.analysis},
                                 {"search", t.search},
                                 {"refinement", t.refinement},
                                 {"polish", run.polishSeconds},
                                 {"total", t.total + run.polishSeconds}}},
                {"scale", common.scale}};
    if (verdict.doubtful) report["doubt"] = verdict.reason;
    if (!output.empty()) report["output"] = output;
    AddDeviation(report, deviation, map);
    std::printf("%s\n", report.dump(2).c_str());
    return 0;
  }
  PrintMeshes(movingPath, moving, fixedPath, fixed);
  if (p.multiStart) {
    const std::string refinement = run.refined ? ", refined on " + std::to_string(p.sampleCount * p.refineFactor) : "";
    std::printf("search    %llu starts (%llu directions x %llu spins) of %llu fits on %llu samples%s\n",
                static_cast<unsigned long long>(run.starts), static_cast<unsigned long long>(p.directionCount),
                static_cast<unsigned long long>(p.rotationCount), static_cast<unsigned long long>(p.maxIterations),
                static_cast<unsigned long long>(p.sampleCount), refinement.c_str());
  } else
    std::printf("search    one run of %llu fits on %llu samples from the given pose\n",
                static_cast<unsigned long long>(p.maxIterations), static_cast<unsigned long long>(p.sampleCount));
  PrintTransform(transform, toFile);
  std::printf(
      "rms error %.6g file units (root mean square distance of the samples, rejected ones included, before the "
      "finish)\n",
      rms);
  std::printf("overlap   %.1f%% of MOVING within %.6g file units of FIXED, RMS %.6g there%s\n", 100.0 * verdict.overlap,
              verdict.distance * toFile, verdict.rms * toFile, verdict.doubtful ? " (doubtful)" : "");
  std::printf("time      %.3f s (sampling %.3f, tree %.3f, analysis %.3f, search %.3f, refinement %.3f)\n",
              t.total + run.polishSeconds, t.sampling, t.tree, t.analysis, t.search, t.refinement);
  if (options.polish)
    std::printf("finish    %s, %.3f s\n", run.polished ? "point-to-plane ICP on the full meshes" : "could not run",
                run.polishSeconds);
  if (!output.empty()) std::printf("wrote     %s\n", output.c_str());
  PrintDeviation(deviation, map);
  return 0;
}

int RunMorph(const std::string& movingPath, const std::string& targetPath, const std::string& output,
             const MorphOptions& options, const DeviationOptions& deviation, const CommonOptions& common) {
  if (!output.empty()) CheckOutputPath(output);
  CheckDeviationPath(deviation);
  const LoadedMesh moving = ReadWithWarnings(movingPath, common);
  const LoadedMesh target = ReadWithWarnings(targetPath, common);

  const double toFile = 1.0 / (common.scale * MUnit::GetIE());
  MorphRun run;
  {
    std::shared_ptr<ProgressBar> bar;
    if (!common.quiet && isatty(STDERR_FILENO)) bar = std::make_shared<ProgressBar>();
    const auto limit = LimitThreads(common.threads);
    run = MorphPair(*moving.mesh, *target.mesh, options, movingPath, targetPath, bar);
  }
  const auto& m = run.morph;
  const auto& r = run.stages;
  const double largest = run.maxDistance * toFile;
  if (!output.empty()) WriteMesh(*moving.mesh, nullptr, common.scale, output, common.ascii);
  const std::optional<Deviation> map =
      // Green within the morph's tolerance: what the morph was asked to reach.
      MakeDeviationMap(deviation, *moving.mesh, nullptr, *target.mesh, run.tolerance * toFile / 3.0, common);

  const auto& f = run.field;
  {
    std::vector<std::pair<std::string, std::string>> rows{{"moving", movingPath}, {"target", targetPath}};
    if (run.baseMorph) {
      rows.emplace_back("morph", "base morph, " + std::to_string(m.iterations) + " iterations");
    } else {
      rows.emplace_back("morph", "field morph, " + std::to_string(f.passes) + " passes, " +
                                     ZorStlRegistration::StopReasonName(f.stop));
      rows.emplace_back("unmatched", std::to_string(f.unmatched) + " point(s) without a counterpart on TARGET");
      rows.emplace_back("folded", std::to_string(f.folded) + " triangle(s)");
    }
    if (options.registerFirst) {
      rows.emplace_back("registered", run.registrationSucceeded ? "yes" : "failed; kept the placement");
      rows.emplace_back("scales", Figure(run.scales[0]) + ", " + Figure(run.scales[1]) + ", " + Figure(run.scales[2]));
    }
    rows.emplace_back("time", Figure(options.registerFirst ? r.total : run.total) + " s");
    const std::string problem =
        !run.baseMorph && f.stop == ZorStlRegistration::MWrapperOperatorFieldMorph::StopReason::NoMatch
            ? "No point of MOVING found a TARGET triangle facing its way within reach: nothing was morphed."
            : "";
    WriteReport(deviation, map, "zor-register morph", *moving.mesh, nullptr, *target.mesh, rows, problem, common);
  }
  const Json morphSeconds =
      run.baseMorph
          ? Json{{"setup", m.setup},         {"dual_pass", m.dualPass},    {"main_pass", m.mainPass}, {"step", m.step},
                 {"smoothing", m.smoothing}, {"statistics", m.statistics}, {"total", m.total}}
          : Json{{"setup", f.setup},   {"space", f.space},       {"matching", f.correspondence},
                 {"solving", f.solve}, {"measuring", f.measure}, {"total", f.total}};
  if (common.json) {
    Json report{{"moving", MeshJson(movingPath, moving)},     {"target", MeshJson(targetPath, target)},
                {"registered", options.registerFirst},        {"max_distance", largest},
                {"mean_distance", run.meanDistance * toFile}, {"fraction_within", run.fractionWithin},
                {"tolerance", run.tolerance * toFile},        {"method", run.baseMorph ? "base" : "field"}};
    if (run.baseMorph) {
      report["iterations"] = m.iterations;
    } else {
      report["passes"] = f.passes;
      report["stop"] = ZorStlRegistration::StopReasonName(f.stop);
      report["p95_distance"] = f.p95Distance * toFile;
      report["unmatched"] = f.unmatched;
      report["folded"] = f.folded;
      report["laid"] = f.laid;
    }
    if (options.registerFirst) {
      report["registration_succeeded"] = run.registrationSucceeded;
      report["registration"] = TransformJson(run.registration, toFile);
      report["scales"] = {run.scales[0], run.scales[1], run.scales[2]};
      report["icp"] = TransformJson(run.icp, toFile);
      report["seconds"] = Json{{"registration", r.registration},
                               {"scaling", r.scaling},
                               {"icp", r.icp},
                               {"morph", morphSeconds},
                               {"total", r.total}};
    } else {
      report["seconds"] = Json{{"morph", morphSeconds}, {"total", run.total}};
    }
    report["scale"] = common.scale;
    if (!output.empty()) report["output"] = output;
    AddDeviation(report, deviation, map);
    std::printf("%s\n", report.dump(2).c_str());
    return 0;
  }
  std::printf("%-9s %s: %zu points, %zu triangles\n", "moving", movingPath.c_str(), moving.mesh->NumberOfPoints(),
              moving.mesh->GetNumberOfTriangles());
  std::printf("%-9s %s: %zu points, %zu triangles\n", "target", targetPath.c_str(), target.mesh->NumberOfPoints(),
              target.mesh->GetNumberOfTriangles());
  if (options.registerFirst)
    std::printf("register  %s; scaled by %.5f, %.5f, %.5f to the target's box; then ICP\n",
                run.registrationSucceeded ? "registered" : "registration failed, kept the placement", run.scales[0],
                run.scales[1], run.scales[2]);
  if (run.baseMorph)
    std::printf(
        "morph     base morph, %zu iterations; largest remaining displacement %.6g file units, mean %.6g; %.2f%% "
        "within %.6g\n",
        m.iterations, largest, run.meanDistance * toFile, 100.0 * run.fractionWithin, run.tolerance * toFile);
  else
    std::printf(
        "morph     field morph, %zu passes, %s\ndistance  to TARGET after the last step: largest %.6g file units, "
        "mean %.6g, 95%% below %.6g; %.2f%% within %.6g\n          %zu point(s) without a counterpart on TARGET, %zu "
        "folded triangle(s)\n",
        f.passes, ZorStlRegistration::StopReasonName(f.stop), largest, run.meanDistance * toFile,
        f.p95Distance * toFile, 100.0 * run.fractionWithin, run.tolerance * toFile, f.unmatched, f.folded);
  if (options.registerFirst)
    std::printf("time      %.3f s (registration %.3f, scaling %.3f, ICP %.3f, morph %.3f: ", r.total, r.registration,
                r.scaling, r.icp, r.morph);
  else
    std::printf("time      %.3f s (morph: ", run.total);
  if (run.baseMorph)
    std::printf("setup %.3f, dual passes %.3f, main passes %.3f, steps %.3f, smoothing %.3f)\n", m.setup, m.dualPass,
                m.mainPass, m.step, m.smoothing);
  else
    std::printf("setup %.3f, field over space %.3f, matching %.3f, solving %.3f, measuring %.3f)\n", f.setup, f.space,
                f.correspondence, f.solve, f.measure);
  if (!output.empty()) std::printf("wrote     %s\n", output.c_str());
  PrintDeviation(deviation, map);
  return 0;
}

int RunDemo(const DemoOptions& demo, const Registration::MParams& params, const CommonOptions& common) {
  const int n = std::max(1, static_cast<int>(std::lround(std::sqrt(static_cast<double>(demo.triangles) / 12.0))));
  const double ie = MUnit::GetIE();
  const std::unique_ptr<MStlBase> body = zorgen::MakeSampleBody(n);
  const MMTransformMatrix pose = zorgen::DrawPose(demo.seed, 40.0 * ie);
  std::unique_ptr<MStlBase> copy(body->Clone(nullptr));
  copy->Transform(pose);

  std::printf(
      "zor-register demo: a copy of a sample body, placed by a pose "
      "drawn from seed %llu, registered back\n",
      static_cast<unsigned long long>(demo.seed));
  std::printf(
      "sample body  %zu triangles, %zu points, %.1f x %.1f x %.1f mm "
      "(built in code)\n",
      body->GetNumberOfTriangles(), body->NumberOfPoints(), (body->GetXMax() - double(body->GetXMin())) / ie,
      (body->GetYMax() - double(body->GetYMin())) / ie, (body->GetZMax() - double(body->GetZMin())) / ie);
  std::fflush(stdout);

  Registration registration;
  registration.SetAllParams(params);
  registration.SetMovingStl(copy.get(), nullptr);
  registration.SetFixedStl(body.get(), nullptr);
  Operate(registration, common);
  MMTransformMatrix transform;
  registration.GetTransformation(transform);

  // The registration lays the copy back, so it undoes the pose: the pose it
  // found is its inverse, and transform * pose would be the identity if it were
  // exact.
  const MMTransformMatrix found = transform.Inverted();
  const MMTransformMatrix residue = transform * pose;
  MMVector3d axis;
  const double angle = AngleAxis(residue, axis) * 180.0 / M_PI;
  MMVector3d centre(0.5 * (double(body->GetXMin()) + body->GetXMax()),
                    0.5 * (double(body->GetYMin()) + body->GetYMax()),
                    0.5 * (double(body->GetZMin()) + body->GetZMax()));
  MMVector3d moved = centre;
  residue.Transform(moved, false);

  std::printf("true pose    %s\n", DescribePose(pose, 1.0 / ie).c_str());
  std::printf("found pose   %s\n", DescribePose(found, 1.0 / ie).c_str());
  std::printf("difference   %.6f deg, %.6f mm at the body's centre\n", angle, Length(moved - centre) / ie);
  std::printf("registration strategy %s", StrategyName(params.initialAlignment));
  if (params.initialAlignment == Registration::AlignAutomatic)
    std::printf(" (took %s)", StrategyName(registration.GetAlignmentUsed()));
  std::printf(", error %.6g mm over the %llu closest of %llu samples, %.3f s\n", registration.GetError(),
              static_cast<unsigned long long>(registration.GetInlierCount()),
              static_cast<unsigned long long>(params.sampleCount), registration.GetStageTimes().total);

  if (!demo.saveFolder.empty()) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::create_directories(demo.saveFolder, ec);
    if (ec) throw InputError("cannot make folder '" + demo.saveFolder + "': " + ec.message());
    const std::string fixedPath = (fs::path(demo.saveFolder) / "fixed.stl").string();
    const std::string movingPath = (fs::path(demo.saveFolder) / "moving.stl").string();
    WriteMesh(*body, nullptr, common.scale, fixedPath, common.ascii);
    WriteMesh(*copy, nullptr, common.scale, movingPath, common.ascii);
    std::printf("saved        %s and %s; register them with\n", fixedPath.c_str(), movingPath.c_str());
    std::printf(
        "             zor-register align %s %s --overlap 1 "
        "--error-tolerance 0.01\n",
        movingPath.c_str(), fixedPath.c_str());
  }
  return 0;
}

int RunInfo(const std::string& path, const CommonOptions& common) {
  const LoadedMesh m = ReadWithWarnings(path, common);
  const double toFile = 1.0 / (common.scale * MUnit::GetIE());
  const MStlBase& mesh = *m.mesh;
  const double low[3] = {mesh.GetXMin() * toFile, mesh.GetYMin() * toFile, mesh.GetZMin() * toFile};
  const double high[3] = {mesh.GetXMax() * toFile, mesh.GetYMax() * toFile, mesh.GetZMax() * toFile};
  const double area = mesh.SurfaceArea() * toFile * toFile;
  if (common.json) {
    Json report = MeshJson(path, m);
    report["file_vertices"] = m.fileVertices;
    report["file_triangles"] = m.fileTriangles;
    report["min"] = {low[0], low[1], low[2]};
    report["max"] = {high[0], high[1], high[2]};
    report["area"] = area;
    std::printf("%s\n", report.dump(2).c_str());
    return 0;
  }
  std::printf("%s\n", path.c_str());
  std::printf(
      "  %zu points, %zu triangles (file: %zu vertices, %zu triangles; "
      "%zu vertices joined, %zu degenerate "
      "triangles dropped)\n",
      mesh.NumberOfPoints(), mesh.GetNumberOfTriangles(), m.fileVertices, m.fileTriangles, m.joined.pointsMerged,
      m.joined.trianglesSkipped);
  std::printf(
      "  from (%.6g, %.6g, %.6g) to (%.6g, %.6g, %.6g), area %.6g "
      "(file units)\n",
      low[0], low[1], low[2], high[0], high[1], high[2], area);
  return 0;
}

int RunConvert(const std::string& input, const std::string& output, const CommonOptions& common) {
  CheckOutputPath(output);
  const LoadedMesh m = ReadWithWarnings(input, common);
  WriteMesh(*m.mesh, nullptr, common.scale, output, common.ascii);
  if (!common.quiet)
    std::printf("wrote %s: %zu points, %zu triangles\n", output.c_str(), m.mesh->NumberOfPoints(),
                m.mesh->GetNumberOfTriangles());
  return 0;
}

}  // namespace zortool
