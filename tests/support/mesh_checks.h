#pragma once
// What tests that change meshes in place check them by, and a progress sink that counts.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string>
#include <tuple>
#include <vector>

#include "zor/model/progress.h"
#include "zor/model/stl_base.h"
#include "zor/spatial/tree_property.h"

namespace zortest {

// Each triangle's corners in winding order, in list order: equal lists mean the same
// topology and the same windings.
using Corners = std::tuple<const MStlPoint*, const MStlPoint*, const MStlPoint*>;
inline std::vector<Corners> Windings(const MStlBase& mesh) {
  std::vector<Corners> windings;
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    const MStlTriangle* t = it;
    windings.emplace_back(t->GetPoint(0), t->GetPoint(1), t->GetPoint(2));
  }
  return windings;
}

// Every point's position, in mesh order.
inline std::vector<MMVector3d> AllPoints(const MStlBase& mesh) {
  std::vector<MMVector3d> out;
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it) out.push_back(it->GetDouble());
  return out;
}

// The greatest distance from any of `points` to the surface of `mesh`.
inline double WorstDistance(const std::vector<MMVector3d>& points, const MStlBase& mesh) {
  const auto* holder = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&mesh));
  double worst = 0.0;
  for (const MMVector3d& p : points)
    worst = std::max(worst, MeshQueries::FindNearestTriangle(*holder, p, HUGE_VAL).second);
  return worst;
}

// Remembers the last report's label, total and progress, and counts starts and ends.
class CountingDelegate : public ZorSDK::Common::IProgressDelegate {
public:
  void OnStart(const std::string& l, std::size_t t) override { label = l, total = t, ++starts; }
  void OnProgress(const std::string&, std::size_t d, std::size_t) override { done = d; }
  void OnEnd(const std::string&) override { ++ends; }
  std::string label;
  std::size_t total = 0, done = 0;
  int starts = 0, ends = 0;
};

}  // namespace zortest
