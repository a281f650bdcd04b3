// zor.align_views: many views of one part into one frame; and its two stages for a
// cluster (zor.batch.align_views): the pairs worth registering, and the placement from
// pairs registered elsewhere.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "mesh_arrays.h"
#include "operations.h"
#include "progress.h"
#include "zor/model/unit.h"
#include "zor/pair/align_views.h"

namespace zorpy {
namespace {

// The meshes of a call, checked, with the reference (or none) last among `held`.
struct ViewMeshes {
  std::vector<std::shared_ptr<Mesh>> owned;
  std::vector<const Mesh*> held;
  std::vector<MStlBase*> views;
  MStlBase* reference = nullptr;

  ViewMeshes(const py::sequence& meshObjects, const py::object& referenceObject) {
    for (std::size_t i = 0; i < meshObjects.size(); ++i) {
      const std::string role = "view " + std::to_string(i);
      owned.push_back(Mesh::From(meshObjects[i], role.c_str()));
      NeedTriangles(*owned.back(), role.c_str());
      held.push_back(owned.back().get());
      views.push_back(&owned.back()->Stl());
    }
    if (!referenceObject.is_none()) {
      owned.push_back(Mesh::From(referenceObject, "reference"));
      NeedTriangles(*owned.back(), "reference");
      held.push_back(owned.back().get());
      reference = &owned.back()->Stl();
    }
  }
};

py::dict ResultDict(const ZorStlRegistration::ViewsResult& r) {
  py::list viewList, pairList;
  for (const ZorStlRegistration::ViewPlacement& p : r.views) {
    py::dict view;
    view["placed"] = p.placed;
    view["confirmed"] = p.confirmed;
    view["transform"] = p.placed ? py::object(TransformArray(p.transform)) : py::object(py::none());
    py::list pairs;
    for (const std::size_t k : p.pairs) pairs.append(k);
    view["pairs"] = pairs;
    view["overlap"] = p.overlap;
    view["residual"] = p.residual;
    viewList.append(view);
  }
  const double ie = MUnit::GetIE();
  for (const ZorStlRegistration::ViewPair& pair : r.pairs) {
    py::dict d;
    d["moving"] = pair.moving;
    d["fixed"] = pair.fixed;
    d["score"] = pair.score;
    d["sound"] = pair.sound;
    d["kept"] = pair.kept;
    d["transform"] = TransformArray(pair.result.transform);
    d["overlap"] = pair.result.verdict.overlap;
    d["fixed_overlap"] = pair.result.verdict.fixedOverlap;
    d["overlap_rms"] = pair.result.verdict.rms / ie;
    d["overlap_distance"] = pair.result.verdict.distance / ie;
    d["residual"] = pair.residual;
    d["doubtful"] = pair.result.verdict.doubtful;
    d["doubt"] = pair.result.verdict.reason;
    pairList.append(d);
  }
  py::dict out;
  out["views"] = viewList;
  out["pairs"] = pairList;
  out["seconds"] =
      py::dict(py::arg("ranking") = r.rankSeconds, py::arg("pairs") = r.pairSeconds, py::arg("graph") = r.graphSeconds,
               py::arg("total") = r.rankSeconds + r.pairSeconds + r.graphSeconds);
  return out;
}

}  // namespace

py::dict AlignViews(const py::sequence& meshObjects, const py::object& referenceObject, const std::string& strategy,
                    long long maxPairs, bool refine, const py::object& progress) {
  ZorStlRegistration::ViewsOptions options;
  const std::optional<ZorStlRegistration::StrategyChoice> choice = ZorStlRegistration::ParseStrategy(strategy);
  if (!choice)
    throw std::invalid_argument("unknown strategy '" + strategy +
                                "' (auto+features, none, auto, axes, rod, disc, ball, features)");
  options.pair.params.initialAlignment = choice->alignment;
  options.pair.withFeatures = choice->withFeatures;
  if (maxPairs < 0) throw std::invalid_argument("max_pairs must be 0 or more; got " + std::to_string(maxPairs));
  options.maxPairs = static_cast<std::size_t>(maxPairs);
  options.refine = refine;
  const ViewMeshes meshes(meshObjects, referenceObject);
  const std::shared_ptr<Progress> bar = Progress::From(progress);
  ZorStlRegistration::ViewsResult r;
  {
    py::gil_scoped_release release;
    const MeshLocks locks(meshes.held, false);
    r = ZorStlRegistration::AlignViews(meshes.views, meshes.reference, options, bar);
  }
  if (bar) bar->RaiseIfFailed();
  return ResultDict(r);
}

py::list RankViewPairs(const py::sequence& meshObjects, const py::object& referenceObject) {
  const ViewMeshes meshes(meshObjects, referenceObject);
  std::vector<ZorStlRegistration::ViewCandidate> candidates;
  {
    py::gil_scoped_release release;
    const MeshLocks locks(meshes.held, false);
    candidates = ZorStlRegistration::RankViewPairs(meshes.views, meshes.reference);
  }
  py::list out;
  for (const auto& c : candidates) out.append(py::make_tuple(c.moving, c.fixed, c.score));
  return out;
}

py::dict PlaceViews(const py::sequence& meshObjects, const py::sequence& pairObjects, const py::object& referenceObject,
                    bool refine) {
  const ViewMeshes meshes(meshObjects, referenceObject);
  const double ie = MUnit::GetIE();
  std::vector<ZorStlRegistration::ViewPair> pairs;
  for (const py::handle item : pairObjects) {
    const py::dict d = py::reinterpret_borrow<py::dict>(item);
    ZorStlRegistration::ViewPair pair;
    pair.moving = d["moving"].cast<std::size_t>();
    pair.fixed = d["fixed"].cast<std::size_t>();
    pair.score = d.contains("score") ? d["score"].cast<double>() : 0.0;
    // A pair whose call failed (no transform) takes no part.
    if (!d.contains("transform") || d["transform"].is_none()) {
      pair.result.verdict.doubtful = true;
      pair.result.verdict.reason = d.contains("failure") ? py::str(d["failure"]).cast<std::string>() : "not registered";
    } else {
      pair.result.transform = TransformFrom(d["transform"], "transform");
      pair.result.verdict.overlap = d["overlap"].cast<double>();
      pair.result.verdict.fixedOverlap = d["fixed_overlap"].cast<double>();
      pair.result.verdict.rms = d["overlap_rms"].cast<double>() * ie;
      pair.result.verdict.distance = d["overlap_distance"].cast<double>() * ie;
      pair.result.verdict.doubtful = d["doubtful"].cast<bool>();
      pair.result.verdict.reason = d.contains("doubt") ? d["doubt"].cast<std::string>() : std::string();
    }
    pairs.push_back(std::move(pair));
  }
  ZorStlRegistration::ViewsOptions options;
  options.refine = refine;
  ZorStlRegistration::ViewsResult r;
  {
    py::gil_scoped_release release;
    const MeshLocks locks(meshes.held, false);
    r = ZorStlRegistration::PlaceViews(meshes.views, meshes.reference, std::move(pairs), options);
  }
  return ResultDict(r);
}

}  // namespace zorpy
