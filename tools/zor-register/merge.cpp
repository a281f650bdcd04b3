// zor-register merge: many views of one part into one frame (AlignViews).
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <tbb/parallel_for.h>

#include "generators/mesh_arrays.h"
#include "tools/zor-register/commands.h"
#include "tools/zor-register/progress_bar.h"
#include "tools/zor-register/report.h"
#include "zor/files/inspection_report.h"
#include "zor/model/unit.h"
#include "zor/spatial/surface_query.h"
#include "zor/spatial/tree_property.h"

namespace zortool {
namespace {

// The report measures each point against the other views within this many times the
// kept pairs' verdict distance, and colours within a fifth of that.
constexpr double kReportReach = 5.0;

std::string Percent(double share) {
  char text[16];
  std::snprintf(text, sizeof text, "%.0f%%", 100.0 * share);
  return text;
}

// The placed views side by side in the frame, as one mesh (no fusion).
std::unique_ptr<MStlBase> Together(const std::vector<LoadedMesh>& views, const ViewsResult& result) {
  zorgen::MeshArrays all;
  for (std::size_t v = 0; v < views.size(); ++v) {
    if (!result.views[v].placed) continue;
    const zorgen::MeshArrays arrays = zorgen::ArraysOf(*views[v].mesh);
    const std::uint32_t first = static_cast<std::uint32_t>(all.xyz.size() / 3);
    for (std::size_t i = 0; i + 2 < arrays.xyz.size(); i += 3) {
      MMVector3d p(arrays.xyz[i], arrays.xyz[i + 1], arrays.xyz[i + 2]);
      result.views[v].transform.Transform(p, false);
      zorgen::Push3(all.xyz, std::round(p[0]), std::round(p[1]), std::round(p[2]));
    }
    for (const std::uint32_t index : arrays.indices) all.indices.push_back(first + index);
  }
  return zorgen::MakeMesh(all);
}

// One colour a view, apart enough to tell neighbours apart.
constexpr std::array<std::array<std::uint8_t, 3>, 10> kViewColours = {{{230, 25, 75},
                                                                       {60, 180, 75},
                                                                       {0, 130, 200},
                                                                       {245, 130, 48},
                                                                       {145, 30, 180},
                                                                       {70, 240, 240},
                                                                       {240, 50, 230},
                                                                       {210, 245, 60},
                                                                       {170, 110, 40},
                                                                       {0, 128, 128}}};

// The report of a merge: the placed views together, each point coloured by its view, and
// measured against the nearest other view (within `reach`): the second nearest of all
// views, the nearest being its own.
void WriteMergeReport(const MergeOptions& merge, const std::vector<LoadedMesh>& views, const ViewsResult& result,
                      const MStlBase& together, double scale) {
  std::vector<const MeshQueries::TriangleTreeHolder*> trees(views.size(), nullptr);
  std::vector<MMTransformMatrix> back(views.size());
  std::vector<double> distances;
  for (std::size_t v = 0; v < views.size(); ++v) {
    if (!result.views[v].placed) continue;
    trees[v] = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(views[v].mesh.get()));
    back[v] = result.views[v].transform.Inverted();
  }
  for (const ViewPair& pair : result.pairs)
    if (pair.kept) distances.push_back(pair.result.verdict.distance);
  std::sort(distances.begin(), distances.end());
  const double reach = distances.empty() ? PairVerdictDistance() : kReportReach * distances[distances.size() / 2];

  std::vector<const MStlPoint*> points;
  for (const MStlPoint* p = together.GetFirstPoint(); p != nullptr; p = p->GetNext()) points.push_back(p);
  InspectionReport report;
  report.title = "zor-register merge";
  report.moving = &together;
  report.scale = scale;
  report.range = reach / kReportReach;
  report.distances.assign(points.size(), 0.0);
  report.counterpart.assign(points.size(), 0);
  report.colours.assign(points.size(), {128, 128, 128});
  tbb::parallel_for(std::size_t(0), points.size(), [&](std::size_t i) {
    double nearest = HUGE_VAL, nearestSigned = 0.0, second = HUGE_VAL, secondSigned = 0.0;
    std::size_t own = views.size();
    for (std::size_t v = 0; v < views.size(); ++v) {
      if (trees[v] == nullptr) continue;
      MMVector3d q = points[i]->GetDouble();
      back[v].Transform(q, false);
      MeshQueries::SurfacePlace place;
      if (!MeshQueries::NearestSurfacePlace(*trees[v], q, reach, place)) continue;
      if (place.distance < nearest) {
        second = nearest;
        secondSigned = nearestSigned;
        nearest = place.distance;
        nearestSigned = MeshQueries::SignedDistance(place, q);
        own = v;
      } else if (place.distance < second) {
        second = place.distance;
        secondSigned = MeshQueries::SignedDistance(place, q);
      }
    }
    if (own < views.size()) report.colours[i] = kViewColours[own % kViewColours.size()];
    if (second < HUGE_VAL) {
      report.counterpart[i] = 1;
      report.distances[i] = secondSigned;
    }
  });
  for (std::size_t v = 0; v < views.size(); ++v) {
    const ViewPlacement& p = result.views[v];
    char text[200];
    std::snprintf(text, sizeof text, "%s: %s", merge.views[v].c_str(),
                  !p.placed         ? "not placed"
                  : p.pairs.empty() ? "placed (the frame)"
                  : p.confirmed     ? "placed"
                                    : "placed, unconfirmed (one pair alone joins it)");
    report.rows.emplace_back("view " + std::to_string(v + 1), text);
  }
  for (const ViewPair& pair : result.pairs) {
    char text[200];
    std::snprintf(text, sizeof text, "overlap %.0f%% / %.0f%%, residual %.3g mm, %s",
                  100.0 * pair.result.verdict.overlap, 100.0 * pair.result.verdict.fixedOverlap, pair.residual,
                  pair.kept    ? "kept"
                  : pair.sound ? "switched off by a loop"
                               : "doubtful");
    report.rows.emplace_back("pair " + std::to_string(pair.moving + 1) + " onto " + std::to_string(pair.fixed + 1),
                             text);
  }
  report.colourNote =
      "Each view has its own colour; the figures and the histogram are each point's signed distance to the nearest "
      "other view, grey in the histogram's terms where no other view lies near.";
  WriteInspectionReport(report, merge.report);
}

}  // namespace

int RunMerge(const MergeOptions& merge, const CommonOptions& common) {
  if (merge.views.empty()) throw InputError("merge needs at least one view");
  if (!merge.output.empty()) CheckOutputPath(merge.output);
  DeviationOptions reportPath;
  reportPath.report = merge.report;
  CheckDeviationPath(reportPath);
  const auto threads = LimitThreads(common.threads);
  std::vector<LoadedMesh> views;
  views.reserve(merge.views.size());
  for (const std::string& path : merge.views) views.push_back(ReadWithWarnings(path, common));
  std::optional<LoadedMesh> reference;
  if (!merge.reference.empty()) reference = ReadWithWarnings(merge.reference, common);
  std::vector<MStlBase*> meshes;
  for (LoadedMesh& v : views) meshes.push_back(v.mesh.get());

  std::shared_ptr<ProgressBar> bar;
  if (!common.quiet && isatty(STDERR_FILENO)) bar = std::make_shared<ProgressBar>();
  const ViewsResult result = AlignViews(meshes, reference ? reference->mesh.get() : nullptr, merge.options, bar);
  const double toFile = 1.0 / (common.scale * MUnit::GetIE());
  const double mmToFile = 1.0 / common.scale;

  std::size_t placed = 0, confirmed = 0;
  Json report;
  report["reference"] = merge.reference.empty() ? Json(nullptr) : Json(merge.reference);
  report["views"] = Json::array();
  for (std::size_t v = 0; v < views.size(); ++v) {
    const ViewPlacement& p = result.views[v];
    placed += p.placed ? 1 : 0;
    confirmed += p.confirmed ? 1 : 0;
    Json view;
    view["file"] = merge.views[v];
    view["placed"] = p.placed;
    view["confirmed"] = p.confirmed;
    view["transform"] = p.placed ? TransformJson(p.transform, toFile) : Json(nullptr);
    view["pairs"] = p.pairs;
    view["overlap"] = p.overlap;
    view["residual"] = p.residual * mmToFile;
    report["views"].push_back(view);
  }
  report["pairs"] = Json::array();
  for (const ViewPair& pair : result.pairs) {
    Json j;
    j["moving"] = pair.moving;
    j["fixed"] = pair.fixed;
    j["score"] = pair.score;
    j["sound"] = pair.sound;
    j["kept"] = pair.kept;
    j["overlap"] = pair.result.verdict.overlap;
    j["fixed_overlap"] = pair.result.verdict.fixedOverlap;
    j["residual"] = pair.residual * mmToFile;
    j["doubt"] = pair.result.verdict.reason;
    report["pairs"].push_back(j);
  }
  report["seconds"] = {{"ranking", result.rankSeconds},
                       {"pairs", result.pairSeconds},
                       {"graph", result.graphSeconds},
                       {"total", result.rankSeconds + result.pairSeconds + result.graphSeconds}};

  if (!merge.output.empty() || !merge.report.empty()) {
    const std::unique_ptr<MStlBase> together = Together(views, result);
    if (!merge.output.empty()) {
      WriteMesh(*together, nullptr, common.scale, merge.output, common.ascii);
      report["output"] = merge.output;
    }
    if (!merge.report.empty()) {
      WriteMergeReport(merge, views, result, *together, common.scale);
      report["report"] = merge.report;
    }
  }
  if (common.json) {
    std::printf("%s\n", report.dump(2).c_str());
    return 0;
  }
  const std::string frame = merge.reference.empty() ? merge.views[0] : merge.reference;
  std::printf("frame      %s\n", frame.c_str());
  for (std::size_t v = 0; v < views.size(); ++v) {
    const ViewPlacement& p = result.views[v];
    std::string state;
    if (!p.placed) {
      state = "not placed: no sound pair joins it to the frame";
    } else if (p.pairs.empty()) {
      state = "placed (the frame)";
    } else {
      char text[160];
      std::snprintf(text, sizeof text, "placed by %zu pair%s, overlap up to %s, residual up to %.3g%s", p.pairs.size(),
                    p.pairs.size() == 1 ? "" : "s", Percent(p.overlap).c_str(), p.residual * mmToFile,
                    p.confirmed ? "" : " (unconfirmed: one pair alone joins it)");
      state = text;
    }
    std::printf("view %-5zu %s\n           %s\n", v + 1, merge.views[v].c_str(), state.c_str());
    if (p.placed && !p.pairs.empty())
      std::printf("           %s\n", DescribePose(p.transform, 1.0 / MUnit::GetIE()).c_str());
  }
  std::printf("placed     %zu of %zu views (%zu confirmed), %zu pair calls, %.2f s\n", placed, views.size(), confirmed,
              result.pairs.size(), result.rankSeconds + result.pairSeconds + result.graphSeconds);
  if (!merge.output.empty()) std::printf("wrote      %s\n", merge.output.c_str());
  if (!merge.report.empty()) std::printf("report     %s\n", merge.report.c_str());
  return 0;
}

}  // namespace zortool
