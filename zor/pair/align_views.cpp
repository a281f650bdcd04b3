#include "zor/pair/align_views.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>

#include <tbb/parallel_for.h>

#include "zor/alignment/feature_poses.h"
#include "zor/alignment/surface_features.h"
#include "zor/model/input_error.h"
#include "zor/model/unit.h"
#include "zor/pair/detail/joint_icp.h"
#include "zor/pair/detail/pose_graph.h"
#include "zor/spatial/surface_query.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {
namespace {

// The ranking describes the views and draws triples as the feature strategy does: with
// coarser keypoints or fewer trials, true neighbours scored no better than views from
// opposite sides.
constexpr std::uint64_t kRankTrials = 20000;
constexpr std::uint64_t kRankMinimumTrials = 4096;
constexpr double kRankInlierSpacings = 1.5;
// A pair whose features agree in place on fewer keypoints than this share of the
// smaller view is not worth a pair call: chance agreement of unrelated surfaces stays
// below it.
constexpr double kLeastScore = 0.01;
// A sound pair joins two views only where each shows at least this share of itself on
// the other: the pair call accepts a small piece on a larger mesh (a part in a scene),
// but between views of one part so little in common is as likely a coincidence of two
// smooth patches, and a view joined by it alone would be placed wrong.
constexpr double kLeastViewOverlap = 0.1;
// Pair calls beyond those that join the views, for loops: up to two a view in all.
constexpr std::size_t kLoopCallsPerView = 2;
constexpr std::size_t kEdgePoints = 2000;  // overlap points that weigh a pair in the graph
constexpr double kLeastSigmaMm = 0.005;
// Views placed by the caller are refined within this share of the pair calls' verdict
// distance: they are assumed close, as a turntable's poses are.
constexpr double kGivenPoseDistance = 1.0 / 3.0;

using Seconds = std::chrono::duration<double>;

struct Candidate {
  std::size_t fixed, moving;  // nodes, fixed < moving
  double score = 0.0;
};

struct DisjointSets {
  std::vector<std::size_t> parent;
  explicit DisjointSets(std::size_t n) : parent(n) { std::iota(parent.begin(), parent.end(), std::size_t(0)); }
  std::size_t Find(std::size_t x) {
    while (parent[x] != x) x = parent[x] = parent[parent[x]];
    return x;
  }
  bool Join(std::size_t a, std::size_t b) {
    a = Find(a);
    b = Find(b);
    if (a == b) return false;
    parent[std::max(a, b)] = std::min(a, b);
    return true;
  }
};

// Every pair of nodes with its score, best first (ties: lower nodes first).
std::vector<Candidate> RankPairs(const std::vector<MStlBase*>& nodes) {
  std::size_t smallest = 0;
  double smallestDiagonal = HUGE_VAL;
  for (std::size_t k = 0; k < nodes.size(); ++k) {
    const MStlBase& m = *nodes[k];
    const double dx = double(m.GetXMax()) - m.GetXMin(), dy = double(m.GetYMax()) - m.GetYMin(),
                 dz = double(m.GetZMax()) - m.GetZMin();
    const double d = dx * dx + dy * dy + dz * dz;
    if (d < smallestDiagonal) {
      smallestDiagonal = d;
      smallest = k;
    }
  }
  const FeatureParameters parameters = ChooseFeatureParameters(*nodes[smallest], *nodes[smallest]);
  std::vector<FeatureCloud> clouds;
  clouds.reserve(nodes.size());
  for (MStlBase* node : nodes) clouds.push_back(DescribeSurface(*node, parameters));

  std::vector<Candidate> candidates;
  for (std::size_t b = 1; b < nodes.size(); ++b)
    for (std::size_t a = 0; a < b; ++a) candidates.push_back({a, b, 0.0});
  PoseSearchParameters search;
  search.inlierDistance = kRankInlierSpacings * parameters.spacing;
  search.trials = kRankTrials;
  search.minimumTrials = kRankMinimumTrials;
  search.keep = 1;
  tbb::parallel_for(std::size_t(0), candidates.size(), [&](std::size_t k) {
    const FeatureCloud& fixed = clouds[candidates[k].fixed];
    const FeatureCloud& moving = clouds[candidates[k].moving];
    const std::size_t fewer = std::min(fixed.points.size(), moving.points.size());
    if (fewer == 0) return;
    const auto matches = MatchFeatures(moving, fixed);
    const std::vector<FeaturePose> poses =
        EstimatePoses(moving.points, moving.normals, fixed.points, fixed.normals, matches, search);
    if (!poses.empty()) candidates[k].score = static_cast<double>(poses.front().inliers) / static_cast<double>(fewer);
  });
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Candidate& x, const Candidate& y) { return x.score > y.score; });
  return candidates;
}

// The pose graph's edge of a sound pair: the moving view's points that lie on the fixed
// surface under the pair's pose, with the fixed surface's normals there, in the moving
// view's frame and millimetres.
detail::GraphEdge EdgeOf(std::size_t fixedNode, std::size_t movingNode, const PairResult& r,
                         const std::vector<MStlBase*>& nodes) {
  const double ie = MUnit::GetIE();
  detail::GraphEdge edge;
  edge.fixed = fixedNode;
  edge.moving = movingNode;
  edge.weight = std::max(r.verdict.overlap, r.verdict.fixedOverlap);
  edge.sigma = std::max(r.verdict.rms / ie, kLeastSigmaMm);
  edge.transform = r.transform;
  edge.transform.SetElement(0, 3, r.transform.m[0][3] / ie, false);
  edge.transform.SetElement(1, 3, r.transform.m[1][3] / ie, false);
  edge.transform.SetElement(2, 3, r.transform.m[2][3] / ie, true);

  const MStlBase& moving = *nodes[movingNode];
  const auto* tree = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(nodes[fixedNode]));
  if (tree == nullptr) return edge;
  std::vector<const MStlPoint*> points;
  const std::size_t step = std::max<std::size_t>(1, (moving.NumberOfPoints() + kEdgePoints - 1) / kEdgePoints);
  std::size_t i = 0;
  for (const MStlPoint* p = moving.GetFirstPoint(); p != nullptr; p = p->GetNext(), ++i)
    if (i % step == 0) points.push_back(p);
  std::vector<MMVector3d> at(points.size()), normal(points.size());
  std::vector<std::uint8_t> found(points.size(), 0);
  tbb::parallel_for(std::size_t(0), points.size(), [&](std::size_t k) {
    MMVector3d q = points[k]->GetDouble();
    r.transform.Transform(q, false);
    MeshQueries::SurfacePlace place;
    if (!MeshQueries::NearestSurfacePlace(*tree, q, r.verdict.distance, place)) return;
    MMVector3d n = MeshQueries::PseudoNormal(place);
    const double length = Length(n);
    if (!(length > 0.0)) return;
    n = n / length;
    // Into the moving view's frame: the transposed rotation.
    normal[k] = MMVector3d(r.transform.m[0][0] * n[0] + r.transform.m[1][0] * n[1] + r.transform.m[2][0] * n[2],
                           r.transform.m[0][1] * n[0] + r.transform.m[1][1] * n[1] + r.transform.m[2][1] * n[2],
                           r.transform.m[0][2] * n[0] + r.transform.m[1][2] * n[1] + r.transform.m[2][2] * n[2]);
    at[k] = points[k]->GetDouble() / ie;
    found[k] = 1;
  });
  for (std::size_t k = 0; k < points.size(); ++k) {
    if (!found[k]) continue;
    edge.points.push_back(at[k]);
    edge.normals.push_back(normal[k]);
  }
  return edge;
}

// The nodes of a set of views: node 0 is the frame's, the reference when there is one,
// else the first view. Throws InputError for a missing view or one without triangles.
struct Nodes {
  std::vector<MStlBase*> meshes;
  std::size_t views = 0;
  bool withReference = false;
  std::size_t ViewOf(std::size_t node) const { return withReference ? (node == 0 ? views : node - 1) : node; }
  std::size_t NodeOf(std::size_t view) const { return withReference ? (view == views ? 0 : view + 1) : view; }
};

Nodes CheckedNodes(const std::vector<MStlBase*>& views, MStlBase* reference) {
  Nodes nodes;
  nodes.views = views.size();
  nodes.withReference = reference != nullptr;
  if (reference != nullptr) {
    if (reference->GetNumberOfTriangles() == 0) throw InputError("the reference has no triangles");
    nodes.meshes.push_back(reference);
  }
  for (std::size_t v = 0; v < views.size(); ++v) {
    if (views[v] == nullptr) throw InputError("view " + std::to_string(v + 1) + " is missing");
    if (views[v]->GetNumberOfTriangles() == 0) throw InputError("view " + std::to_string(v + 1) + " has no triangles");
    nodes.meshes.push_back(views[v]);
  }
  return nodes;
}

}  // namespace

bool SoundViewPair(const Verdict& verdict) {
  return !verdict.doubtful && std::min(verdict.overlap, verdict.fixedOverlap) >= kLeastViewOverlap;
}

std::vector<ViewCandidate> RankViewPairs(const std::vector<MStlBase*>& views, MStlBase* reference) {
  const Nodes nodes = CheckedNodes(views, reference);
  std::vector<ViewCandidate> out;
  if (nodes.meshes.size() < 2) return out;
  for (const Candidate& c : RankPairs(nodes.meshes))
    if (c.score >= kLeastScore) out.push_back({nodes.ViewOf(c.moving), nodes.ViewOf(c.fixed), c.score});
  return out;
}

ViewsResult PlaceViews(const std::vector<MStlBase*>& views, MStlBase* reference, std::vector<ViewPair> pairs,
                       const ViewsOptions& options) {
  const Nodes nodes = CheckedNodes(views, reference);
  const std::size_t n = nodes.meshes.size();
  const std::size_t offset = nodes.withReference ? 1 : 0;
  const auto started = std::chrono::steady_clock::now();
  ViewsResult result;
  result.views.resize(views.size());
  result.pairs = std::move(pairs);
  std::vector<detail::GraphEdge> edges;
  std::vector<std::size_t> edgePair;
  for (std::size_t p = 0; p < result.pairs.size(); ++p) {
    ViewPair& pair = result.pairs[p];
    if (pair.moving > views.size() || pair.fixed > views.size() || pair.moving == pair.fixed ||
        (!nodes.withReference && (pair.moving == views.size() || pair.fixed == views.size())))
      throw InputError("pair " + std::to_string(p + 1) + " names a view that is not there");
    pair.sound = SoundViewPair(pair.result.verdict);
    pair.kept = false;
    pair.residual = 0.0;
    if (!pair.sound) continue;
    edges.push_back(EdgeOf(nodes.NodeOf(pair.fixed), nodes.NodeOf(pair.moving), pair.result, nodes.meshes));
    edgePair.push_back(p);
  }
  const double allowed =
      options.allowedResidualMm > 0.0 ? options.allowedResidualMm : PairVerdictDistance() / MUnit::GetIE();
  const detail::GraphResult graph = detail::SolvePoseGraph(n, edges, allowed);
  for (std::size_t e = 0; e < edges.size(); ++e) {
    ViewPair& pair = result.pairs[edgePair[e]];
    pair.kept = graph.kept[e];
    pair.residual = graph.residuals[e];
  }
  const double ie = MUnit::GetIE();
  std::vector<MMTransformMatrix> poses(n);
  for (std::size_t node = 0; node < n; ++node) {
    poses[node] = graph.poses[node];
    poses[node].SetElement(0, 3, graph.poses[node].m[0][3] * ie, false);
    poses[node].SetElement(1, 3, graph.poses[node].m[1][3] * ie, false);
    poses[node].SetElement(2, 3, graph.poses[node].m[2][3] * ie, true);
  }
  if (options.refine && !edges.empty()) {
    // Within the distance the kept pairs' verdicts measured within (their median), so
    // that noisier views pair farther.
    std::vector<double> distances;
    for (const ViewPair& pair : result.pairs)
      if (pair.kept) distances.push_back(pair.result.verdict.distance);
    std::nth_element(distances.begin(), distances.begin() + distances.size() / 2, distances.end());
    const detail::JointRefinement joint =
        detail::RefineJointly(nodes.meshes, graph.placed, poses, distances[distances.size() / 2]);
    result.refinedPairs = joint.pairs;
    result.refinedRms = joint.rms / ie;
  }
  for (std::size_t node = offset; node < n; ++node) {
    ViewPlacement& view = result.views[node - offset];
    view.placed = graph.placed[node];
    if (!view.placed) continue;
    view.transform = poses[node];
    const std::size_t number = node - offset;
    std::vector<std::size_t> partners;
    for (std::size_t p = 0; p < result.pairs.size(); ++p) {
      const ViewPair& pair = result.pairs[p];
      if (!pair.kept || (pair.moving != number && pair.fixed != number)) continue;
      view.pairs.push_back(p);
      view.overlap = std::max(view.overlap,
                              pair.moving == number ? pair.result.verdict.overlap : pair.result.verdict.fixedOverlap);
      view.residual = std::max(view.residual, pair.residual);
      const std::size_t other = pair.moving == number ? pair.fixed : pair.moving;
      if (std::find(partners.begin(), partners.end(), other) == partners.end()) partners.push_back(other);
    }
    view.confirmed = node == 0 || partners.size() >= 2;
  }
  result.graphSeconds = Seconds(std::chrono::steady_clock::now() - started).count();
  return result;
}

ViewsResult AlignViews(const std::vector<MStlBase*>& views, MStlBase* reference, const ViewsOptions& options,
                       const std::shared_ptr<ZorSDK::Common::IProgressDelegate>& progress) {
  const Nodes nodes = CheckedNodes(views, reference);
  const std::size_t n = nodes.meshes.size();
  const std::size_t offset = nodes.withReference ? 1 : 0;
  ViewsResult result;
  result.views.resize(views.size());
  if (n < 2) {
    if (n == 1 && reference == nullptr) result.views[0].placed = result.views[0].confirmed = true;
    return result;
  }

  if (!options.initial.empty()) {
    if (options.initial.size() != views.size())
      throw InputError("the initial poses number " + std::to_string(options.initial.size()) + " for " +
                       std::to_string(views.size()) + " views");
    std::vector<MMTransformMatrix> poses(n);
    for (std::size_t v = 0; v < views.size(); ++v) poses[v + offset] = options.initial[v];
    if (options.refine) {
      const auto started = std::chrono::steady_clock::now();
      const detail::JointRefinement joint = detail::RefineJointly(nodes.meshes, std::vector<bool>(n, true), poses,
                                                                  kGivenPoseDistance * PairVerdictDistance());
      result.refinedPairs = joint.pairs;
      result.refinedRms = joint.rms / MUnit::GetIE();
      result.graphSeconds = Seconds(std::chrono::steady_clock::now() - started).count();
    }
    for (std::size_t v = 0; v < views.size(); ++v) {
      result.views[v].placed = result.views[v].confirmed = true;
      result.views[v].transform = poses[v + offset];
    }
    return result;
  }

  auto started = std::chrono::steady_clock::now();
  const std::vector<Candidate> candidates = RankPairs(nodes.meshes);
  const double rankSeconds = Seconds(std::chrono::steady_clock::now() - started).count();

  const std::size_t budget = options.maxPairs > 0 ? options.maxPairs : 3 * (n - 1);
  const std::size_t loopBudget = std::min(budget, kLoopCallsPerView * (n - 1));
  ZorSDK::Common::IncrementalProgressReporter reporter(progress, "Pairs", budget, true);
  started = std::chrono::steady_clock::now();
  std::vector<bool> tried(candidates.size(), false);
  std::vector<ViewPair> pairs;
  DisjointSets joined(n);
  std::size_t groups = n;
  auto registerPair = [&](std::size_t k) {
    tried[k] = true;
    ViewPair pair;
    pair.moving = nodes.ViewOf(candidates[k].moving);
    pair.fixed = nodes.ViewOf(candidates[k].fixed);
    pair.score = candidates[k].score;
    try {
      pair.result = AlignPair(*nodes.meshes[candidates[k].moving], *nodes.meshes[candidates[k].fixed], options.pair);
    } catch (const std::out_of_range&) {
      pair.result.verdict.doubtful = true;
      pair.result.verdict.reason = "a pose carried the view off the grid";
    }
    if (SoundViewPair(pair.result.verdict) && joined.Join(candidates[k].fixed, candidates[k].moving)) --groups;
    pairs.push_back(std::move(pair));
    ++reporter;
  };
  // First the pairs that join what is not yet joined, best first; then loops.
  for (std::size_t k = 0; k < candidates.size() && groups > 1 && pairs.size() < budget; ++k)
    if (candidates[k].score >= kLeastScore && joined.Find(candidates[k].fixed) != joined.Find(candidates[k].moving))
      registerPair(k);
  for (std::size_t k = 0; k < candidates.size() && pairs.size() < loopBudget; ++k)
    if (!tried[k] && candidates[k].score >= kLeastScore) registerPair(k);
  const double pairSeconds = Seconds(std::chrono::steady_clock::now() - started).count();

  result = PlaceViews(views, reference, std::move(pairs), options);
  result.candidates = candidates.size();
  result.rankSeconds = rankSeconds;
  result.pairSeconds = pairSeconds;
  return result;
}

}  // namespace ZorStlRegistration
