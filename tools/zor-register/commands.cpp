#include "tools/zor-register/commands.h"

#include <unistd.h>

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
#include "tools/zor-register/result.h"
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

namespace {

// Renders a described result: the JSON report, or the printed lines.
int Render(const ResultDescription& d, const CommonOptions& common) {
  if (common.json)
    std::printf("%s\n", d.json.dump(2).c_str());
  else
    d.Print();
  return 0;
}

// Doubt goes to stderr whatever the format, so that scripts reading the report see it too.
void WarnIfDoubtful(const Verdict& verdict, const CommonOptions& common) {
  if (verdict.doubtful && !common.quiet)
    std::fprintf(stderr, "zor-register: warning: the result is doubtful: %s\n", verdict.reason.c_str());
}

// The report's problem when the result found no overlap.
std::string NoOverlapProblem(const Verdict& v, double toFile, const char* what) {
  return v.overlap > 0.0
             ? std::string()
             : "No part of MOVING lies within " + Figure(v.distance * toFile) + " file units of FIXED: " + what;
}

// The deviation of a registration's result, when a map or a report was asked for:
// green within the verdict's distance (what it counts as lying on the fixed surface;
// `fallback`, file units, when it has none), the points without a counterpart grey.
std::optional<Deviation> RegisteredDeviation(const DeviationOptions& deviation, const LoadedMesh& moving,
                                             const MMTransformMatrix& pose, const LoadedMesh& fixed, const Verdict& v,
                                             double fallback, double toFile, const CommonOptions& common) {
  if (deviation.path.empty() && deviation.report.empty()) return std::nullopt;
  const ZorStlRegistration::PairSurfaces pair(*moving.mesh, *fixed.mesh);
  const Registered registered{&pair, v.distance};
  return MakeDeviationMap(deviation, *moving.mesh, &pose, *fixed.mesh,
                          v.distance > 0.0 ? v.distance * toFile : fallback, common, &registered);
}

}  // namespace

int RunAlign(const std::string& movingPath, const std::string& fixedPath, const std::string& output,
             const PairOptions& options, const DeviationOptions& deviation, const CommonOptions& common) {
  if (!output.empty()) CheckOutputPath(output);
  CheckDeviationPath(deviation);
  const auto [moving, fixed] = ReadPairWithWarnings(movingPath, fixedPath, common);

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
  const double toFile = 1.0 / (common.scale * MUnit::GetIE());
  if (!output.empty()) WriteMesh(*moving.mesh, &result.transform, common.scale, output, common.ascii);
  const std::optional<Deviation> map = RegisteredDeviation(deviation, moving, result.transform, fixed, result.verdict,
                                                           3.0 * result.error * toFile, toFile, common);
  WarnIfDoubtful(result.verdict, common);
  ResultDescription d = DescribeAlign(movingPath, moving, fixedPath, fixed, options, result, toFile);
  DescribeWall(d, moving.seconds + fixed.seconds, result);
  DescribeOutputs(d, output, deviation, map, common.scale);
  WriteReport(deviation, map, "zor-register align", *moving.mesh, &result.transform, *fixed.mesh, d.Lines(),
              NoOverlapProblem(result.verdict, toFile,
                               "the registration found no overlap, and the colours show how far apart they lie."),
              common);
  return Render(d, common);
}

int RunIcp(const std::string& movingPath, const std::string& fixedPath, const std::string& output,
           const IcpOptions& options, const DeviationOptions& deviation, const CommonOptions& common) {
  if (!output.empty()) CheckOutputPath(output);
  CheckDeviationPath(deviation);
  const auto [moving, fixed] = ReadPairWithWarnings(movingPath, fixedPath, common);

  IcpOptions inMillimetres = options;
  for (int i = 3; i < 12 && !options.initial.empty(); i += 4) inMillimetres.initial[i] *= common.scale;
  IcpRun run;
  {
    std::shared_ptr<ProgressBar> bar;
    if (!common.quiet && isatty(STDERR_FILENO)) bar = std::make_shared<ProgressBar>();
    const auto limit = LimitThreads(common.threads);
    run = IcpPair(*moving.mesh, *fixed.mesh, inMillimetres, movingPath, fixedPath, bar);
  }
  const double toFile = 1.0 / (common.scale * MUnit::GetIE());
  if (!output.empty()) WriteMesh(*moving.mesh, &run.transform, common.scale, output, common.ascii);
  const std::optional<Deviation> map =
      RegisteredDeviation(deviation, moving, run.transform, fixed, run.verdict, 3.0 * run.rms * toFile, toFile, common);
  WarnIfDoubtful(run.verdict, common);
  ResultDescription d = DescribeIcp(movingPath, moving, fixedPath, fixed, options, run, toFile);
  DescribeOutputs(d, output, deviation, map, common.scale);
  WriteReport(deviation, map, "zor-register icp", *moving.mesh, &run.transform, *fixed.mesh, d.Lines(),
              NoOverlapProblem(run.verdict, toFile, "the search found no overlap."), common);
  return Render(d, common);
}

int RunMorph(const std::string& movingPath, const std::string& targetPath, const std::string& output,
             const MorphOptions& options, const DeviationOptions& deviation, const CommonOptions& common) {
  if (!output.empty()) CheckOutputPath(output);
  CheckDeviationPath(deviation);
  const auto [moving, target] = ReadPairWithWarnings(movingPath, targetPath, common);

  const double toFile = 1.0 / (common.scale * MUnit::GetIE());
  MorphRun run;
  {
    std::shared_ptr<ProgressBar> bar;
    if (!common.quiet && isatty(STDERR_FILENO)) bar = std::make_shared<ProgressBar>();
    const auto limit = LimitThreads(common.threads);
    run = MorphPair(*moving.mesh, *target.mesh, options, movingPath, targetPath, bar);
  }
  if (!output.empty()) WriteMesh(*moving.mesh, nullptr, common.scale, output, common.ascii);
  // Green within the morph's tolerance: what the morph was asked to reach.
  const std::optional<Deviation> map =
      MakeDeviationMap(deviation, *moving.mesh, nullptr, *target.mesh, run.tolerance * toFile, common);
  ResultDescription d = DescribeMorph(movingPath, moving, targetPath, target, options, run, toFile);
  DescribeOutputs(d, output, deviation, map, common.scale);
  const std::string problem =
      !run.baseMorph && run.field.stop == ZorStlRegistration::MWrapperOperatorFieldMorph::StopReason::NoMatch
          ? "No point of MOVING found a TARGET triangle facing its way within reach: nothing was morphed."
          : "";
  WriteReport(deviation, map, "zor-register morph", *moving.mesh, nullptr, *target.mesh, d.Lines(), problem, common);
  return Render(d, common);
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
