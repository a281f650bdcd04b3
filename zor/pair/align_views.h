#pragma once
// Many views of one part into one frame, with no poses given: a part scanned from six
// to twenty sides, each view in its own frame.
//
// Registering every pair blindly costs N(N-1)/2 pair calls, and chaining N-1 of them
// lets one wrong pair, or the small errors of a long chain, put the last view beside
// the first. So AlignViews
// - ranks the pairs by how well their surface features agree in place: each view is
//   described once (surface_features.h), and each pair's mutual feature matches are
//   checked for a pose that many of them share (feature_poses.h); the count of those
//   that do, over the smaller view's keypoints, is the pair's score;
// - registers the most promising pairs with AlignPair, first those that join views not
//   yet joined, then, while the budget lasts, pairs that close loops; a pair counts only
//   when its verdict is not doubtful;
// - fits all views' poses to the sound pairs together (detail/pose_graph.h), each pair
//   weighted by the overlap it pins, and switches off a pair that a loop contradicts;
// - refines the placed views together on their surfaces: every pair of them that
//   overlaps, registered or not, pulls both (detail/joint_icp.h).
// A view that no sound pair joins to the frame's view is reported as not placed, never
// placed by a guess; one that a single pair joins is placed but not confirmed.
//
// The frame is that of the first view, or of `reference` (a model of the part) when one
// is given: the reference takes part in the ranking like a view and is never moved.
//
// Threading: the meshes are only read (their cached trees are built on first use), the
// pair calls run one after another, each on all threads. Deterministic: the same views
// in the same order give the same result on every run and at every thread count.

#include <cstddef>
#include <memory>
#include <vector>

#include "zor/model/input_error.h"
#include "zor/model/progress.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/pair/export.h"
#include "zor/pair/pair_registration.h"

namespace ZorStlRegistration {

struct ViewsOptions {
  PairOptions pair;  // each pair call (its lengths in user units, as AlignPair's)
  // Pair calls at most; 0: three for each view beyond the first (a chain needs one).
  std::size_t maxPairs = 0;
  // The largest residual (mm) of a pair whose views a loop joins otherwise; 0: the
  // pair calls' verdict distance.
  double allowedResidualMm = 0.0;
  // Then refine all placed views together on their surfaces (detail/joint_icp.h): the
  // pairs' own errors average out (on virtual scans of a smooth blob with 0.2 mm of
  // noise, 70 of 80 views within 0.1 degrees instead of 12).
  bool refine = true;
  // Poses the views already have (one per view, into the frame; internal units), from a
  // turntable or an earlier run: then no pair is searched, and the views are only
  // refined together (with `refine`). Empty: search.
  std::vector<MMTransformMatrix> initial;
};

// A pair of views that was registered. Views are numbered as given; the reference, when
// there is one, is number views.size().
struct ViewPair {
  std::size_t moving = 0, fixed = 0;
  double score = 0.0;  // the ranking's: share of keypoints whose features agree in place
  PairResult result;   // moving onto fixed
  // Its verdict is not doubtful and each view shows at least a tenth of itself on the
  // other: the pose graph takes it.
  bool sound = false;
  bool kept = false;      // sound, and no loop contradicts it
  double residual = 0.0;  // mm: RMS of how far the views' final poses move its overlap points from its own pose
};

struct ViewPlacement {
  bool placed = false;
  // Placed and joined by kept pairs with at least two other views (or the frame's view
  // itself), so that a loop checks it. A view joined by one pair alone rests on that
  // pair's verdict only.
  bool confirmed = false;
  MMTransformMatrix transform;     // view onto the frame (internal units, as AlignPair's)
  std::vector<std::size_t> pairs;  // the kept pairs that join it (places in ViewsResult::pairs)
  double overlap = 0.0;            // the largest share of the view on another view among them
  double residual = 0.0;           // mm: the largest residual among them
};

struct ViewsResult {
  std::vector<ViewPlacement> views;  // in the order given
  std::vector<ViewPair> pairs;       // the pairs registered, in the order they were
  std::size_t candidates = 0;        // pairs ranked
  std::size_t refinedPairs = 0;      // pairs of views that held each other in the joint refinement
  double refinedRms = 0.0;           // mm: their point-to-plane RMS at its end
  double rankSeconds = 0.0, pairSeconds = 0.0, graphSeconds = 0.0;
};

// The stages of AlignViews, for callers that run the pair calls elsewhere (on a cluster):
// the pairs worth a pair call, best first (moving, fixed and score as in ViewPair), and
// the placement of the views from pairs registered by AlignPair (each with moving,
// fixed, score and result; sound, kept and residual are set here).
struct ViewCandidate {
  std::size_t moving = 0, fixed = 0;
  double score = 0.0;
};
ZOR_PAIR_API std::vector<ViewCandidate> RankViewPairs(const std::vector<MStlBase*>& views, MStlBase* reference);
ZOR_PAIR_API ViewsResult PlaceViews(const std::vector<MStlBase*>& views, MStlBase* reference,
                                    std::vector<ViewPair> pairs, const ViewsOptions& options);
// Whether a pair's verdict lets it join two views (see ViewPair::sound).
ZOR_PAIR_API bool SoundViewPair(const Verdict& verdict);

// Brings `views` into one frame (see above). `reference` may be null. `progress` (may
// be null) counts the pair calls. Throws InputError for a null view and for a view or
// reference without triangles.
ZOR_PAIR_API ViewsResult AlignViews(const std::vector<MStlBase*>& views, MStlBase* reference,
                                    const ViewsOptions& options,
                                    const std::shared_ptr<ZorSDK::Common::IProgressDelegate>& progress = {});

}  // namespace ZorStlRegistration
