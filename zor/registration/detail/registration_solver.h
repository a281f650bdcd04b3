#pragma once
// The refinement state of the registration: samples of the moving mesh, each with its
// match on the fixed mesh, trimmed to the closest part, and the rigid step that fits
// the active samples onto their matches. Also the stateless score of a pose.
//
// Distances are in internal units. A sample with no match counts as lying at the
// largest double, so trimming puts it last.
//
// Threading: a solver is used by one thread at a time; its matching runs in parallel
// inside, each record written by its own task. Several solvers may share one index.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "zor/alignment/normal_orientation_index.h"
#include "zor/export.h"
#include "zor/model/math_types.h"
#include "zor/model/mm_vector.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration::detail {

inline constexpr double kUnmatched = std::numeric_limits<double>::max();
// Two errors closer than this (the square root of the double epsilon) count as equal,
// and so does a small angle: a refinement step may raise the error by this much and
// still stand, and the tournament ranks such ties by the simpler pose.
inline constexpr double kTieTolerance = 1.4901161193847656e-08;

// How many of `n` samples count as inliers for an expected `overlap` share:
// min(n, n * overlap rounded half away from zero). A rounding that is not a number or
// leaves the signed 32-bit range reads as negative, which leaves all n.
inline std::uint64_t InlierCount(std::uint64_t n, double overlap) {
  const double x = static_cast<double>(n) * overlap;
  if (!(x > -0.5 && x < 2147483647.5)) return n;
  return std::min<std::uint64_t>(n, static_cast<std::uint64_t>(std::llround(x)));
}

class ZOR_API RegistrationSolver {
public:
  struct PointToMove {
    MMVector3d position;    // the sample in the current pose
    double distance = 0.0;  // to `closest`, or kUnmatched
    MMVector3d normal;      // zero when the solver has none
    MMVector3d closest;     // the matched surface point; zero when unmatched
  };

  // `matcher` is the matcher over the fixed mesh; it must outlive the solver. `units`
  // is the run's MUnit::GetIE(): the fit works in lengths of that many internal units.
  RegistrationSolver(const NormalOrientationIndex* matcher, std::int32_t units);

  // One record per sample, in order, at the sample's place; normals (when given, one
  // per sample) make matching use them. All records become active. Throws
  // std::out_of_range ("invalid vector<T> subscript") when there are fewer normals
  // than samples, after the records were made.
  void SetSamples(const std::vector<MMVector3d>& samples, const std::vector<MMVector3d>* normals);
  // Matches every record (not only the active ones), unless `matched` is set.
  void MatchSamples();
  // Brings the activeCount closest records to the front, in ascending distance, by the
  // standard library's heap selection (std::partial_sort): a max-heap on the front, each
  // later record swapped in only when strictly closer than its top, then the heap sorted.
  // Which of the records tied at the boundary stay, and in what order, is that
  // procedure's; the records behind the active range keep no particular order.
  void TrimSamples();
  // Mean distance of the active records, cached until the flags are cleared.
  double MeanError();
  // The rigid step that carries the active positions onto their matches, or false
  // (leaving `step`) when no record is active.
  bool ComputeStep(MMTransformMatrix& step);
  // Moves every record by `t`: the position and the normal through the same in-place
  // call with the position flag (so the normal takes the translation as well), then
  // accumulates `t` in moveTransform and clears both flags.
  void MoveRecords(const MMTransformMatrix& t);

  bool matched = false;
  bool errorKnown = false;
  double cachedError = kUnmatched;
  std::uint64_t activeCount = 0;
  std::vector<PointToMove> points;
  MMTransformMatrix moveTransform;
  bool hasNormals = false;
  const NormalOrientationIndex* index = nullptr;
  std::int32_t unitsPerLength = 1000;  // internal units per coordinate unit

private:
  // `closest` holds a surface point of the fixed mesh from an earlier match, whose
  // distance bounds the next search of a record that has moved only a little.
  bool closestIsSurface = false;
  std::vector<ZorSDK::Math::point<double, 3>> moving, target;  // reused by ComputeStep
};

// The trimmed mean distance of `samples` moved by `pose`: each matched through
// `index` (with its normal, turned by the pose, when `normals` is given), the `count`
// smallest distances (with `sort`; otherwise the first `count`) summed in ascending
// order and divided by `count`. 0.0 for a count of 0; `count` must not exceed the
// number of samples. Matching runs in parallel; nothing is written but locals.
ZOR_API double ScorePose(const NormalOrientationIndex& index, const std::vector<MMVector3d>& samples,
                         const std::vector<MMVector3d>* normals, const MMTransformMatrix& pose, std::uint64_t count,
                         bool sort);

}  // namespace ZorStlRegistration::detail
