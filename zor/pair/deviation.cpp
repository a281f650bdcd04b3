#include "zor/pair/deviation.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "zor/services/surface_normals.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {
namespace {

// The pseudo-normal of `t` at the place `where` of its closest point.
MMVector3d PseudoNormal(const MStlTriangle& t, MStlTriangle::MPosition where) {
  MMVector3d normal = t.GetNormal();
  switch (where) {
    case MStlTriangle::Inside: break;
    case MStlTriangle::OnEdge0:
    case MStlTriangle::OnEdge1:
    case MStlTriangle::OnEdge2: {
      const std::size_t edge = static_cast<std::size_t>(where - MStlTriangle::OnEdge0);
      if (const MStlTriangleCell* other = t.FindAdjacentTriangle(edge, false)) normal += other->data.GetNormal();
      break;
    }
    case MStlTriangle::AtCorner0:
    case MStlTriangle::AtCorner1:
    case MStlTriangle::AtCorner2:
      ComputePointNormal(normal, *t.GetPoint(static_cast<std::size_t>(where - MStlTriangle::AtCorner0)),
                         ePointNormalAngle);
      break;
  }
  return normal;
}

}  // namespace

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
      const auto found =
          MeshQueries::FindNearestTriangle(*tree, points[i], std::numeric_limits<double>::infinity()).first;
      const MStlTriangle& t = *found.GetTriangle();
      MMVector3d closest, weights;
      MStlTriangle::MPosition where = MStlTriangle::Inside;
      const double distance = t.ProjectPoint(closest, weights, where, points[i]);
      distances[i] = Dot(points[i] - closest, PseudoNormal(t, where)) < 0.0 ? -distance : distance;
    }
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, points.size(), 1024), measure);
  return distances;
}

DeviationSummary SummariseDeviation(const std::vector<double>& distances, double range) {
  DeviationSummary summary;
  summary.range = range;
  if (distances.empty()) return summary;
  std::vector<double> magnitudes(distances.size());
  std::size_t within = 0;
  for (std::size_t i = 0; i < distances.size(); ++i) {
    magnitudes[i] = std::fabs(distances[i]);
    if (magnitudes[i] <= range) ++within;
  }
  summary.withinShare = static_cast<double>(within) / static_cast<double>(distances.size());
  // Nearest rank: the smallest value with at least 95% of the values at or below it.
  const std::size_t rank = (95 * magnitudes.size() + 99) / 100 - 1;
  std::nth_element(magnitudes.begin(), magnitudes.begin() + static_cast<std::ptrdiff_t>(rank), magnitudes.end());
  summary.percentile95 = magnitudes[rank];
  summary.largest = *std::max_element(magnitudes.begin() + static_cast<std::ptrdiff_t>(rank), magnitudes.end());
  return summary;
}

}  // namespace ZorStlRegistration
