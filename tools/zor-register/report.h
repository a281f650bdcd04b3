#pragma once
// What the subcommands share in what they print: warnings, poses and transforms, stage
// times, the meshes read, the JSON report's parts, and the deviation map of a result.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>
#include <tbb/global_control.h>

#include "tools/zor-register/commands.h"

namespace zortool {

using Registration = MUserOperatorStlRegistration;
using Json = nlohmann::ordered_json;

void Warn(const CommonOptions& common, const std::vector<std::string>& lines);

// Reads a mesh file and passes its grid advice on to the user.
LoadedMesh ReadWithWarnings(const std::string& path, const CommonOptions& common);

// Reads two mesh files at once (each reader runs on one thread), then passes their
// grid advice on in order. When both fail, the first file's error is the one thrown.
std::pair<LoadedMesh, LoadedMesh> ReadPairWithWarnings(const std::string& first, const std::string& second,
                                                       const CommonOptions& common);

// Caps the worker threads for the life of the object when `threads` is not 0.
std::optional<tbb::global_control> LimitThreads(unsigned threads);

// Rotation angle (radians) and unit axis of the rotation part of `m`.
double AngleAxis(const MMTransformMatrix& m, MMVector3d& axis);

std::string DescribePose(const MMTransformMatrix& pose, double toUser);

// The transform in file units: the rotation stands, the shift is divided by the
// scale.
double FileElement(const MMTransformMatrix& m, int r, int c, double toFile);

// Runs `registration` with a progress bar when stderr is a terminal; a move
// that would carry the moving mesh off the grid is the input's fault.
void Operate(Registration& registration, const CommonOptions& common);

// The transform as rows of file units, for JSON.
Json TransformJson(const MMTransformMatrix& transform, double toFile);

Json MeshJson(const std::string& path, const LoadedMesh& m);

// The deviation map's and the report's paths are checked before any work, so that a bad
// name costs nothing.
void CheckDeviationPath(const DeviationOptions& deviation);

// The signed distances of a result and their summary in file units, when a deviation
// map or a report was asked for.
struct Deviation {
  DeviationSummary summary;       // file units, of the points with a counterpart
  std::vector<double> distances;  // internal units, one per moving point
  double range = 0.0;             // internal units
  // Empty when every point has a counterpart on the fixed surface; else one flag per
  // moving point, 0 for clutter or a point beyond the fixed mesh's border.
  std::vector<std::uint8_t> counterpart;
  std::size_t withoutCounterpart = 0;
};

// A registration's result, for telling which moved points have a counterpart as its
// verdict sees them (ZorStlRegistration::Counterparts).
struct Registered {
  const ZorStlRegistration::PairSurfaces* pair = nullptr;
  double verdictDistance = 0.0;  // internal units
};

// Measures the deviation of `moving` (moved by `pose` when not null) from `fixed` and
// writes the map when one was asked for; nothing when neither a map nor a report was.
// The range is the one asked for, else `defaultRange` (file units), else one grid step.
// With `registered`, points without a counterpart are told apart (grey, out of the
// figures): beside the verdict's own, what lies farther than kClutterRanges times the
// range without contradicting the fixed surface.
std::optional<Deviation> MakeDeviationMap(const DeviationOptions& deviation, const MStlBase& moving,
                                          const MMTransformMatrix* pose, const MStlBase& fixed, double defaultRange,
                                          const CommonOptions& common, const Registered* registered = nullptr);

// Writes the inspection report when one was asked for: the result coloured by its
// deviation, with `rows` as its summary and `problem` (when not empty) above them.
void WriteReport(const DeviationOptions& deviation, const std::optional<Deviation>& measured, const std::string& title,
                 const MStlBase& moving, const MMTransformMatrix* pose, const MStlBase& fixed,
                 const std::vector<std::pair<std::string, std::string>>& rows, const std::string& problem,
                 const CommonOptions& common);

// When a command with --report refuses its input (a file without triangles, one that
// does not parse, a result off the grid), the page says why instead of not being
// written, so that whoever opens it learns what went wrong. Writes nothing when no
// report was asked for, or when the report's own path is what was refused; never throws.
// Whether the page was written.
bool WriteRefusalReport(const DeviationOptions& deviation, const std::string& title, const std::string& reason,
                        const CommonOptions& common) noexcept;

}  // namespace zortool
