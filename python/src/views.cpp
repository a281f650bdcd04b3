// zor.align_views: many views of one part into one frame.

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

  std::vector<std::shared_ptr<Mesh>> meshes;
  std::vector<const Mesh*> held;
  std::vector<MStlBase*> views;
  for (std::size_t i = 0; i < meshObjects.size(); ++i) {
    const std::string role = "view " + std::to_string(i);
    meshes.push_back(Mesh::From(meshObjects[i], role.c_str()));
    NeedTriangles(*meshes.back(), role.c_str());
    held.push_back(meshes.back().get());
    views.push_back(&meshes.back()->Stl());
  }
  std::shared_ptr<Mesh> reference;
  if (!referenceObject.is_none()) {
    reference = Mesh::From(referenceObject, "reference");
    NeedTriangles(*reference, "reference");
    held.push_back(reference.get());
  }
  const std::shared_ptr<Progress> bar = Progress::From(progress);
  ZorStlRegistration::ViewsResult r;
  {
    py::gil_scoped_release release;
    const MeshLocks locks(held, false);
    r = ZorStlRegistration::AlignViews(views, reference ? &reference->Stl() : nullptr, options, bar);
  }
  if (bar) bar->RaiseIfFailed();

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
    d["residual"] = pair.residual;
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

}  // namespace zorpy
