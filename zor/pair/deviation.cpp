#include "zor/pair/deviation.h"

#include <limits>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "zor/spatial/surface_query.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {

std::vector<double> SignedDistances(const MStlBase& moving, const MMTransformMatrix* pose, const MStlBase& fixed) {
  std::vector<MMVector3d> points;
  points.reserve(moving.NumberOfPoints());
  for (auto it = moving.BeginPoint(); it != moving.EndPoint(); ++it) {
    MMVector3d p = it->GetDouble();
    if (pose != nullptr) pose->Transform(p, false);
    points.push_back(p);
  }
  std::vector<double> distances(points.size(), 0.0);
  const MeshQueries::TriangleTreeHolder* tree = MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(&fixed));
  if (tree == nullptr || tree->GetTree().GetObjects().empty()) return distances;
  const auto measure = [&](const tbb::blocked_range<std::size_t>& range) {
    for (std::size_t i = range.begin(); i != range.end(); ++i) {
      MeshQueries::SurfacePlace place;
      distances[i] = MeshQueries::NearestSurfacePlace(*tree, points[i], std::numeric_limits<double>::infinity(), place)
                         ? MeshQueries::SignedDistance(place, points[i])
                         : std::numeric_limits<double>::quiet_NaN();  // a point that is not a number
    }
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, points.size(), 1024), measure);
  return distances;
}

}  // namespace ZorStlRegistration
