#pragma once
// The registration of one mesh onto another as a host application wants it: files and
// scans come with no starting pose, so the operator starts from the shapes' automatic
// choice; then a point-to-plane finish on the full meshes; and a verdict on what was
// found (verdict.h: the overlap both ways, its RMS, and whether the result is doubtful
// and why). A finished result that does not lay the meshes fully on each other is set
// against other poses, each settled by a short ICP and measured on a sample: its twins
// (half turns about the meshes' principal axes, where a near-symmetric body may lie as
// well), and the feature strategy's poses when it is doubtful or leaves much off; the
// best is finished and kept when its verdict is better, and a distinct pose that would
// pass nearly as well makes the answer doubtful ("not unique"). A scene of several
// bodies facing a part alone starts from the feature poses, since its axes are not the
// part's. Loose fragments of either mesh (floaters, debris) take no part in the search,
// the finish or the verdict.
// MUserOperatorStlRegistration stays available for callers that want the operator's
// own defaults and behaviour.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "zor/model/progress.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/pair/export.h"
#include "zor/pair/verdict.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace ZorStlRegistration {

// The registration parameters of the pair call: the operator's, except that the
// strategy starts from the shapes alone (AlignAutomatic).
ZOR_PAIR_API MUserOperatorStlRegistration::MParams PairDefaults();

// A strategy by name: the operator's initial alignment, and whether the pair call also
// tries the feature strategy when that result is doubtful. Names: "none", "auto",
// "axes", "rod", "disc", "ball", "features", and the pair call's default
// "auto+features" (auto, and features as well when doubtful).
struct StrategyChoice {
  MUserOperatorStlRegistration::MInitialAlignment alignment = MUserOperatorStlRegistration::AlignAutomatic;
  bool withFeatures = false;
};
constexpr const char* kDefaultStrategy = "auto+features";
ZOR_PAIR_API const char* StrategyName(MUserOperatorStlRegistration::MInitialAlignment a);
// The choice a name stands for; none for an unknown name.
ZOR_PAIR_API std::optional<StrategyChoice> ParseStrategy(const std::string& name);

struct PairOptions {
  MUserOperatorStlRegistration::MParams params = PairDefaults();
  // With the automatic strategy (params.initialAlignment), try the feature strategy's
  // poses as well when its result is doubtful or leaves much of either mesh off the
  // other, and keep the better (the default); other strategies run alone, set against
  // their twins only.
  bool withFeatures = true;
  bool polish = true;  // point-to-plane ICP on the full meshes after the operator
  // With reduceMeshes on, a mesh of more than four times this many triangles is searched
  // on a copy clustered to about this many (at the speed of reading it), a smaller one
  // on the operator's own reduction; 0 leaves every mesh to the operator's reduction.
  // The finish and the verdict work on the full meshes either way.
  std::size_t searchTriangles = 50000;
};

struct PairResult {
  MMTransformMatrix transform;  // moving onto fixed
  // Internal units: the operator's measure of the pose it found (the mean distance of its
  // `inliers` closest samples), or for a pose the pair call settled beside it, the RMS of
  // its sample on the fixed surface (`inliers` 0). Both before the finish.
  double error = 0.0;
  std::uint64_t inliers = 0;
  MUserOperatorStlRegistration::MInitialAlignment used = MUserOperatorStlRegistration::AlignNone;
  MUserOperatorStlRegistration::StageTimes times;  // of the whole search: every run and candidate tried
  bool triedFeatures = false;
  bool polished = false;
  double polishSeconds = 0.0;   // the finishes (AlignPair may finish two poses)
  double surfaceSeconds = 0.0;  // studying both meshes (pieces, noise, holes) and building their trees
  double verdictSeconds = 0.0;  // judging poses (of candidates too, whose time `times` also counts)
  double seconds = 0.0;         // the whole call
  Verdict verdict;
};

// The distance the pair calls finish within, and the least their verdicts measure
// within (a tenth of it): three reduction bounds of the pair defaults (internal units).
ZOR_PAIR_API double PairVerdictDistance();

// The finish of a found pose: point-to-plane ICP of the full moving mesh onto the full
// fixed mesh from `pose`, pairing points within 4, then 2, then 1 times `distance`.
// False, leaving `pose`, when the first round cannot run. `progress`, when not null,
// counts one step per round.
ZOR_PAIR_API bool FinishPose(const MStlBase& moving, const MStlBase& fixed, double distance, MMTransformMatrix& pose,
                             ZorSDK::Common::IncrementalProgressReporter* progress = nullptr);
// As above, the wide rounds (4 and 2 times `distance`) on `wideMoving` onto `wideFixed`
// (coarse copies of the two), the last on the meshes themselves.
ZOR_PAIR_API bool FinishPose(const MStlBase& moving, const MStlBase& fixed, const MStlBase& wideMoving,
                             const MStlBase& wideFixed, double distance, MMTransformMatrix& pose,
                             ZorSDK::Common::IncrementalProgressReporter* progress = nullptr);

// Registers `moving` onto `fixed` (lengths of `options.params` in user units, usually
// millimetres). Throws std::out_of_range when a pose
// carries the moving mesh off the grid (as the operator does). With reduceMeshes on (the
// default) the meshes are only read, and other threads may read them meanwhile; with it
// off the search places them by writing their coordinates for the time of the run.
ZOR_PAIR_API PairResult AlignPair(MStlBase& moving, MStlBase& fixed, const PairOptions& options,
                                  std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress = {});

}  // namespace ZorStlRegistration
