#include "tools/zor-register/report.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include <tbb/parallel_invoke.h>

#include "tools/zor-register/progress_bar.h"
#include "zor/files/inspection_report.h"
#include "zor/model/unit.h"

namespace zortool {

void Warn(const CommonOptions& common, const std::vector<std::string>& lines) {
  if (common.quiet) return;
  for (const std::string& line : lines) std::fprintf(stderr, "zor-register: warning: %s\n", line.c_str());
}

// Reads a mesh file and passes its grid advice on to the user.
LoadedMesh ReadWithWarnings(const std::string& path, const CommonOptions& common) {
  LoadedMesh m = ReadMesh(path, common.scale);
  Warn(common, m.warnings);
  return m;
}

std::pair<LoadedMesh, LoadedMesh> ReadPairWithWarnings(const std::string& first, const std::string& second,
                                                       const CommonOptions& common) {
  std::pair<LoadedMesh, LoadedMesh> read;
  std::exception_ptr failed[2];
  {
    const auto limit = LimitThreads(common.threads);
    const auto readInto = [&](const std::string& path, LoadedMesh& into, std::exception_ptr& error) {
      try {
        into = ReadMesh(path, common.scale);
      } catch (...) {
        error = std::current_exception();
      }
    };
    tbb::parallel_invoke([&] { readInto(first, read.first, failed[0]); },
                         [&] { readInto(second, read.second, failed[1]); });
  }
  for (const std::exception_ptr& error : failed)
    if (error) std::rethrow_exception(error);
  Warn(common, read.first.warnings);
  Warn(common, read.second.warnings);
  return read;
}

// Caps the worker threads for the life of the object when `threads` is not 0.
std::optional<tbb::global_control> LimitThreads(unsigned threads) {
  if (threads == 0) return std::nullopt;
  return std::make_optional<tbb::global_control>(tbb::global_control::max_allowed_parallelism, threads);
}

// Rotation angle (radians) and unit axis of the rotation part of `m`.
double AngleAxis(const MMTransformMatrix& m, MMVector3d& axis) {
  const auto e = [&](int r, int c) { return m.GetElement(r, c); };
  axis = MMVector3d(e(2, 1) - e(1, 2), e(0, 2) - e(2, 0), e(1, 0) - e(0, 1));
  const double angle = std::atan2(0.5 * Length(axis), 0.5 * (e(0, 0) + e(1, 1) + e(2, 2) - 1.0));
  if (angle > 3.0) {
    // Near a half turn the skew part vanishes; the axis is the largest column
    // of R + I, signed to agree with what remains of the skew part.
    int k = 0;
    for (int i = 1; i < 3; ++i)
      if (e(i, i) > e(k, k)) k = i;
    MMVector3d column(e(0, k), e(1, k), e(2, k));
    column[k] += 1.0;
    if (Dot(column, axis) < 0.0) column = column * -1.0;
    axis = column;
  }
  if (Normalize(axis) == 0.0) axis = MMVector3d(0, 0, 1);
  return angle;
}

std::string DescribePose(const MMTransformMatrix& pose, double toUser) {
  MMVector3d axis;
  const double angle = AngleAxis(pose, axis) * 180.0 / M_PI;
  const MMVector3d t = pose.GetTranslation() * toUser;
  char text[200];
  std::snprintf(text, sizeof text,
                "turn %.6f deg about (%.6f, %.6f, %.6f), then shift (%.4f, "
                "%.4f, %.4f) mm",
                angle, axis[0], axis[1], axis[2], t[0], t[1], t[2]);
  return text;
}

// The transform in file units: the rotation stands, the shift is divided by the
// scale.
double FileElement(const MMTransformMatrix& m, int r, int c, double toFile) {
  return c == 3 && r < 3 ? m.GetElement(r, c) * toFile : m.GetElement(r, c);
}

// Runs `registration` with a progress bar when stderr is a terminal; a move
// that would carry the moving mesh off the grid is the input's fault.
void Operate(Registration& registration, const CommonOptions& common) {
  if (!common.quiet && isatty(STDERR_FILENO)) registration.SetProgressDelegate(std::make_shared<ProgressBar>());
  const auto limit = LimitThreads(common.threads);
  try {
    registration.Operate();
  } catch (const std::out_of_range& e) {
    throw InputError(std::string("the registration carried the moving mesh off the 32-bit grid (") + e.what() +
                     "); try a smaller --scale");
  }
}

// The transform as rows of file units, for JSON.
Json TransformJson(const MMTransformMatrix& transform, double toFile) {
  Json rows = Json::array();
  for (int r = 0; r < 4; ++r) {
    Json row = Json::array();
    for (int c = 0; c < 4; ++c) row.push_back(FileElement(transform, r, c, toFile));
    rows.push_back(row);
  }
  return rows;
}

Json MeshJson(const std::string& path, const LoadedMesh& m) {
  return Json{{"file", path},
              {"points", m.mesh->NumberOfPoints()},
              {"triangles", m.mesh->GetNumberOfTriangles()},
              {"vertices_joined", m.joined.pointsMerged},
              {"degenerate_dropped", m.joined.trianglesSkipped},
              {"read_seconds", m.seconds}};
}

// The deviation map's path is checked before any work, so that a bad name costs nothing.
void CheckDeviationPath(const DeviationOptions& deviation) {
  if (!deviation.report.empty()) {
    const std::string& path = deviation.report;
    const std::string ext = path.size() >= 5 ? path.substr(path.size() - 5) : "";
    if (ext != ".html" && ext != ".HTML" && (path.size() < 4 || (path.compare(path.size() - 4, 4, ".htm") != 0)))
      throw InputError("--report '" + path + "': the report is an HTML page; name it .html");
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    std::error_code ec;
    if (!folder.empty() && !std::filesystem::is_directory(folder, ec))
      throw InputError("cannot write '" + path + "': no folder '" + folder.string() + "'");
  }
  if (deviation.path.empty()) return;
  const std::string& path = deviation.path;
  if (path.size() < 4 ||
      (path.compare(path.size() - 4, 4, ".ply") != 0 && path.compare(path.size() - 4, 4, ".PLY") != 0))
    throw InputError("--deviation '" + path + "': the deviation map is written as PLY; name it .ply");
  CheckOutputPath(path);
}

namespace {

// A point that lies farther off than this many times the map's range and does not
// contradict the fixed surface is clutter, not a deviation: a table or a clamp scanned
// with the part.
constexpr double kClutterRanges = 5.0;

}  // namespace

std::optional<Deviation> MakeDeviationMap(const DeviationOptions& deviation, const MStlBase& moving,
                                          const MMTransformMatrix* pose, const MStlBase& fixed, double defaultRange,
                                          const CommonOptions& common, const Registered* registered) {
  if (deviation.path.empty() && deviation.report.empty()) return std::nullopt;
  const double gridPerFileUnit = common.scale * MUnit::GetIE();
  Deviation d;
  d.range = (deviation.range > 0.0 ? deviation.range : defaultRange) * gridPerFileUnit;
  if (!(d.range > 0.0)) d.range = 1.0;
  d.distances = SignedDistances(moving, pose, fixed);
  std::vector<double> counted;
  if (registered != nullptr && registered->pair != nullptr) {
    const MMTransformMatrix identity;
    d.counterpart = ZorStlRegistration::Counterparts(*registered->pair, pose != nullptr ? *pose : identity,
                                                     registered->verdictDistance, kClutterRanges * d.range);
    for (std::size_t i = 0; i < d.distances.size(); ++i)
      if (d.counterpart[i] != 0) counted.push_back(d.distances[i]);
    d.withoutCounterpart = d.distances.size() - counted.size();
    if (d.withoutCounterpart == 0) d.counterpart.clear();
  }
  if (!deviation.path.empty())
    WriteDeviationMap(moving, pose, common.scale, deviation.path, d.distances, d.range, d.counterpart);
  d.summary = SummariseDeviation(d.counterpart.empty() ? d.distances : counted, d.range);
  d.summary.tolerance /= gridPerFileUnit;
  d.summary.percentile95 /= gridPerFileUnit;
  d.summary.largest /= gridPerFileUnit;
  return d;
}

void WriteReport(const DeviationOptions& deviation, const std::optional<Deviation>& measured, const std::string& title,
                 const MStlBase& moving, const MMTransformMatrix* pose, const MStlBase& fixed,
                 const std::vector<std::pair<std::string, std::string>>& rows, const std::string& problem,
                 const CommonOptions& common) {
  if (deviation.report.empty() || !measured) return;
  ZorStlRegistration::InspectionReport r;
  r.title = title;
  r.moving = &moving;
  r.pose = pose;
  r.fixed = &fixed;
  r.distances = measured->distances;
  r.range = measured->range;
  r.counterpart = measured->counterpart;
  r.scale = common.scale;
  r.rows = rows;
  r.problem = problem;
  ZorStlRegistration::WriteInspectionReport(r, deviation.report);
}

bool WriteRefusalReport(const DeviationOptions& deviation, const std::string& title, const std::string& reason,
                        const CommonOptions& common) noexcept {
  if (deviation.report.empty()) return false;
  try {
    DeviationOptions onlyReport;
    onlyReport.report = deviation.report;
    CheckDeviationPath(onlyReport);
    const MStlBase nothing;
    ZorStlRegistration::InspectionReport r;
    r.title = title;
    r.moving = &nothing;
    r.scale = common.scale;
    r.problem = "The input was refused: " + reason;
    ZorStlRegistration::WriteInspectionReport(r, deviation.report);
    return true;
  } catch (...) {
    // The report's own path is bad, or the disk refuses: the refusal itself still stands.
    return false;
  }
}

}  // namespace zortool
