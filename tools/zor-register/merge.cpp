// zor-register merge: many views of one part into one frame (AlignViews).
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "generators/mesh_arrays.h"
#include "tools/zor-register/commands.h"
#include "tools/zor-register/progress_bar.h"
#include "tools/zor-register/report.h"
#include "zor/model/unit.h"

namespace zortool {
namespace {

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

}  // namespace

int RunMerge(const MergeOptions& merge, const CommonOptions& common) {
  if (merge.views.empty()) throw InputError("merge needs at least one view");
  if (!merge.output.empty()) CheckOutputPath(merge.output);
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

  if (!merge.output.empty()) {
    const std::unique_ptr<MStlBase> together = Together(views, result);
    WriteMesh(*together, nullptr, common.scale, merge.output, common.ascii);
    report["output"] = merge.output;
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
  return 0;
}

}  // namespace zortool
