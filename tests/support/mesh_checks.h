#pragma once
// What tests that change meshes in place check them by, and a progress sink that counts.
#include <cstddef>
#include <string>
#include <tuple>
#include <vector>

#include "zor/model/progress.h"
#include "zor/model/stl_base.h"

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
