#include "zor/morph/morphing_correspondence.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/parallel_reduce.h>
#include <oneapi/tbb/task_group.h>

#include "zor/model/stopwatch.h"
#include "zor/morph/vertex_ring_iterator.h"
#include "zor/spatial/nearest_query.h"
#include "zor/spatial/point_triangle_distance.h"
#include "zor/spatial/tree_property.h"

namespace {

using ZorMesh::StlBase::Handle::Triangle;
using ZorMesh::StlBase::Handle::Vertex;
using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;

// A hinted search starts with its bound above the hint's squared distance by this share
// of the square of (mesh diagonal + twice the hint's distance): 100 times the rounding
// error a point-triangle distance can carry at that size, so that a box whose computed
// distance rounds above the computed distance of a triangle inside it is not pruned.
constexpr double kHintMargin = 1e-12;
// The skip of a dual search needs the bound to hold by this share: far more than the
// rounding of the squares compared.
constexpr double kCertificateMargin = 1e-6;
// Vertices per task of the passes: a search costs about a microsecond.
constexpr std::size_t kVerticesPerTask = 256;
// A target vertex is unreached when its nearest moving corner lies more than 4.5 times
// its longest edge away; compared on squares.
constexpr double kUnreachedEdgeFactor2 = 4.5 * 4.5;
// A dual vector replaces the main displacement when its square is larger by this.
constexpr double kDualPreference = 1.1;

// A target vertex and the moving corner it is assigned to, one per target vertex.
struct DualRecord {
  Vertex target;
  MStlPoint* moving = nullptr;
  bool valid = false;
};

std::vector<Vertex> VerticesInListOrder(const MStlBase& mesh) {
  std::vector<Vertex> vertices;
  vertices.reserve(mesh.NumberOfPoints());
  for (MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) vertices.emplace_back(p);
  return vertices;
}

// The closest point of `t` to `p`: the corners weighted by the barycentric weights of
// the point-triangle distance.
MMVector3d ClosestPointOn(const MStlTriangle& t, const MMVector3d& p) {
  const MMVector3d a = t.GetVertex(0), b = t.GetVertex(1), c = t.GetVertex(2);
  double w[3];
  MeshQueries::PointTriangleDistance2(p.Data(), a.Data(), b.Data(), c.Data(), w);
  return a * w[0] + b * w[1] + c * w[2];
}

// The corners of one triangle as a tree stores them, so that a triangle outside a tree
// is measured by the same code as the tree's objects.
MeshQueries::TriangleCorners CornersOf(const MStlTriangle& t) {
  MeshQueries::TriangleCorners corners;
  for (std::size_t k = 0; k < 3; ++k)
    for (std::size_t j = 0; j < 3; ++j) corners.xyz[3 * k + j] = (*t.GetPoint(k))[j];
  return corners;
}

// A search of a triangle tree that starts from a hint: a triangle found near this query
// before (vertices move little between passes). When the hint lies within the radius,
// the bound starts above its distance, by a margin far above rounding, instead of at
// the radius. Every object the
// unhinted search would take lies strictly below that bound, the descent visits nodes
// in the same order, and so it ends on the same object at the same distance, the first
// of equals in that order; it only skips boxes that could not have beaten the hint.
// Returns the object's index, or kNoObject; `distance2` gets its squared distance.
template <typename Policy>
std::uint32_t NearestFromHint(const MeshQueries::TriangleTree& tree, const Policy& policy, double radius,
                              double hintDistance2, double scale, double& distance2) {
  distance2 = MeshQueries::SquaredSearchBound(radius);
  if (hintDistance2 < distance2) {
    const double reach = scale + 2.0 * std::sqrt(hintDistance2);
    distance2 = std::min(distance2, hintDistance2 + kHintMargin * reach * reach);
  }
  return MeshQueries::NearestObjectIndex(tree, policy, distance2);
}

// The diagonal of the box of all objects of `tree` (0 for an empty tree).
double Diagonal(const MeshQueries::TriangleTree& tree) {
  if (tree.GetObjects().empty()) return 0.0;
  const auto& box = tree.GetRoot().box;
  double sum = 0.0;
  for (int k = 0; k < 3; ++k) {
    const double side = static_cast<double>(box.maxCorner[k]) - static_cast<double>(box.minCorner[k]);
    sum += side * side;
  }
  return std::sqrt(sum);
}

// The square of the longest triangle edge among the triangles of `vertices`: each
// triangle's edge from each corner to the next. A maximum does not depend on how the
// range is split, so the parallel reduction gives the same value at any thread count.
double LongestEdge2(const std::vector<Vertex>& vertices) {
  const auto longestIn = [&](const tbb::blocked_range<std::size_t>& range, double longest) {
    for (std::size_t i = range.begin(); i != range.end(); ++i) {
      const MStlPoint* p = vertices[i].GetPoint();
      for (std::uint16_t t = 0; t < p->GetNumberOfNeighbourTriangles(); ++t) {
        const MStlTriangle& triangle = p->GetNeighbourTriangle(t)->data;
        const MStlPoint* next = triangle.GetPoint((triangle.IndexOfPoint(p) + 1) % 3);
        const MMVector3d edge = next->GetDouble() - p->GetDouble();
        longest = std::max(longest, Dot(edge, edge));
      }
    }
    return longest;
  };
  return tbb::parallel_reduce(tbb::blocked_range<std::size_t>(0, vertices.size(), 4096), 0.0, longestIn,
                              [](double a, double b) { return std::max(a, b); });
}

// body(i) for i in [0, count) on the workers, in a context of its own.
template <typename Body>
void ParallelOver(std::size_t count, const Body& body) {
  tbb::task_group_context context;
  const auto run = [&body](const tbb::blocked_range<std::size_t>& range) {
    for (std::size_t i = range.begin(); i != range.end(); ++i) body(i);
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count, kVerticesPerTask), run, tbb::auto_partitioner(), context);
}

MStlBase* CheckedMesh(const MWrapperOperatorMorphingCorrespondence::StlImpl& handle, const char* which) {
  if (handle.GetStl() == nullptr)
    throw std::invalid_argument(std::string("MWrapperOperatorMorphingCorrespondence: the ") + which + " mesh is null");
  return handle.GetStl();
}

}  // namespace

MWrapperOperatorMorphingCorrespondence::MWrapperOperatorMorphingCorrespondence(StlImpl& movingMesh, StlImpl& targetMesh)
    : moving(movingMesh),
      target(targetMesh),
      searchRadius(std::numeric_limits<double>::infinity()),
      targetTree(std::make_unique<MeshQueries::TriangleTreeHolder>(
          MeshQueries::MeshHandle(CheckedMesh(targetMesh, "target")))) {
  CheckedMesh(movingMesh, "moving");
  _InitialiseNormalCalculator();
  _InitialiseDualNormalCalculator();
  targetTree->Build(true);

  const MStlBase& targetStl = *target.GetStl();
  targetVertices = VerticesInListOrder(targetStl);
  targetNormals.resize(targetVertices.size());
  targetMaxEdge2.resize(targetVertices.size());
  dualHints.assign(targetVertices.size(), nullptr);
  ParallelOver(targetVertices.size(), [&](std::size_t i) {
    if (targetVertices[i]->GetNumberOfNeighbourTriangles() == 0) return;
    targetNormals[i] = _GetDualNormal(targetVertices[i]);
    targetMaxEdge2[i] = _GetMaxEdgeLength2(targetVertices[i]);
  });
}

MWrapperOperatorMorphingCorrespondence::~MWrapperOperatorMorphingCorrespondence() = default;

void MWrapperOperatorMorphingCorrespondence::SetProgressDelegate(
    std::shared_ptr<ZorSDK::Common::IProgressDelegate> delegate) {
  progress = std::move(delegate);
}

void MWrapperOperatorMorphingCorrespondence::_InitialiseNormalCalculator() {
  MUserOperatorNormalCalculator::MParams params;
  params.mode = 1;
  normalCalculator.SetInputModel(moving.GetStl());
  normalCalculator.SetParams(params);
  normalCalculator.Preprocess();
}

void MWrapperOperatorMorphingCorrespondence::_InitialiseDualNormalCalculator() {
  MUserOperatorNormalCalculator::MParams params;
  params.mode = 1;
  dualNormalCalculator.SetInputModel(target.GetStl());
  dualNormalCalculator.SetParams(params);
  dualNormalCalculator.Preprocess();
}

namespace {

// The smooth normal at a vertex: the calculator's answer at the vertex's corner of its
// first triangle; zero when it has none.
MMVector3d NormalAtVertex(const MUserOperatorNormalCalculator& calculator, const Vertex& v) {
  MStlTriangle* first = v->GetNeighbourTriangle(0)->GetData();
  double weights[3] = {0.0, 0.0, 0.0};
  weights[static_cast<int>(first->IndexOfPoint(v.GetPoint()))] = 1.0;
  MMVector3d normal;
  calculator.QueryResult(normal, first, weights);
  return normal;
}

}  // namespace

MMVector3d MWrapperOperatorMorphingCorrespondence::_GetNormal(const Vertex& v) const {
  return NormalAtVertex(normalCalculator, v);
}

MMVector3d MWrapperOperatorMorphingCorrespondence::_GetDualNormal(const Vertex& v) const {
  return NormalAtVertex(dualNormalCalculator, v);
}

double MWrapperOperatorMorphingCorrespondence::_GetMaxEdgeLength2(const Vertex& v) const {
  const MStlBase* mesh = target.GetStl();
  const MMVector3d centre = v->GetDouble();
  double longest = 0.0;
  const auto end = ZorStlRegistration::VertexRingIterator::End(mesh, v.GetPoint());
  for (auto it = ZorStlRegistration::VertexRingIterator::Begin(mesh, v.GetPoint()); it != end; ++it) {
    const MMVector3d edge = (*it)->GetDouble() - centre;
    const double length2 = Dot(edge, edge);
    if (length2 > longest) longest = length2;
  }
  return longest;
}

void MWrapperOperatorMorphingCorrespondence::Operate(ResultAdapter& result, double maxAngle, double maxDistance,
                                                     bool enabled, bool useNormals) {
  searchRadius = maxDistance;
  const MStlBase& movingStl = *moving.GetStl();
  MDataMask<MStlPoint, std::vector<Vertex>> dualMap(movingStl.GetMasks(), std::vector<Vertex>());
  const std::size_t total = static_cast<std::uint32_t>(target.GetStl()->NumberOfPoints() + movingStl.NumberOfPoints());
  ZorSDK::Common::IncrementalProgressReporter reporter(progress, "MWrapperOperatorMorphingCorrespondence", total,
                                                       false);
  passTimes = PassTimes();
  if (!enabled) return;
  const double cosine = std::cos(maxAngle);
  movingVertices = VerticesInListOrder(movingStl);
  _DualPass(dualMap, cosine, useNormals, reporter);
  _MainPass(result, dualMap, cosine, useNormals, reporter);
}

void MWrapperOperatorMorphingCorrespondence::_DualPass(MDataMask<MStlPoint, std::vector<Vertex>>& dualMap,
                                                       double cosine, bool useNormals,
                                                       ZorSDK::Common::IncrementalProgressReporter& reporter) {
  const Clock::time_point start = Clock::now();
  // A target vertex T takes a record only if the nearest corner of the moving triangle
  // it finds lies beyond 4.5 times T's longest edge. That corner lies within the found
  // triangle's distance plus its longest edge, and the found triangle is no farther than
  // any other triangle that passes the same filter, such as the one T found at the pass
  // before (its hint). So when the hint's distance plus the longest moving edge stays
  // below 4.5 edges of T, the search cannot end in a record and is not made. On meshes
  // that lie close, that is nearly every vertex, and the moving tree is not even built.
  const double longestMovingEdge = std::sqrt(LongestEdge2(movingVertices));
  const double bound2 = MeshQueries::SquaredSearchBound(searchRadius);
  std::vector<double> hintDistances2(targetVertices.size(), std::numeric_limits<double>::infinity());
  std::vector<std::uint8_t> searches(targetVertices.size(), 0);
  const auto screen = [&](std::size_t i) {
    ++reporter;
    const Vertex& t = targetVertices[i];
    if (t->GetNumberOfNeighbourTriangles() == 0) return;
    if (const MStlTriangle* hint = dualHints[i]) {
      const MMVector3d p = t->GetDouble();
      const MeshQueries::TriangleCorners corners = CornersOf(*hint);
      const MMVector3d normal = hint->GetNormal();
      const double hint2 =
          useNormals ? MeshQueries::OrientedTriangleDistance<MeshQueries::StoredNormals>(
                           MeshQueries::StoredNormals(&normal), &corners, p.Data(), targetNormals[i].Data(), cosine)(0)
                     : MeshQueries::TriangleObjectDistance(&corners, p.Data())(0);
      if (hint2 < bound2) {
        hintDistances2[i] = hint2;
        const double reach = std::sqrt(hint2) + longestMovingEdge;
        if (reach * reach < targetMaxEdge2[i] * kUnreachedEdgeFactor2 * (1.0 - kCertificateMargin)) return;
      }
    }
    searches[i] = 1;
  };
  ParallelOver(targetVertices.size(), screen);
  std::vector<std::uint32_t> searched;
  for (std::size_t i = 0; i < searches.size(); ++i)
    if (searches[i] != 0) searched.push_back(static_cast<std::uint32_t>(i));

  std::vector<DualRecord> records(targetVertices.size());
  if (!searched.empty()) {
    auto movingTree = std::make_unique<MeshQueries::TriangleTreeHolder>(MeshQueries::MeshHandle(moving.GetStl()));
    movingTree->Build(useNormals);
    const MeshQueries::TriangleTree& tree = movingTree->GetTree();
    const double scale = Diagonal(tree);
    const auto assign = [&](std::size_t i) {
      const Vertex& t = targetVertices[i];
      const MMVector3d p = t->GetDouble();
      double distance2 = 0.0;
      std::uint32_t index = MeshQueries::kNoObject;
      if (useNormals) {
        const MeshQueries::OrientedTriangleDistance<MeshQueries::StoredNormals> policy(
            MeshQueries::StoredNormals(movingTree->GetNormals()), movingTree->GetCorners(), p.Data(),
            targetNormals[i].Data(), cosine);
        index = NearestFromHint(tree, policy, searchRadius, hintDistances2[i], scale, distance2);
      } else {
        const MeshQueries::TriangleObjectDistance policy(movingTree->GetCorners(), p.Data());
        index = NearestFromHint(tree, policy, searchRadius, hintDistances2[i], scale, distance2);
      }
      if (index == MeshQueries::kNoObject) return;
      const Triangle found = tree.GetObjects()[index];
      dualHints[i] = found.GetTriangle();
      std::size_t nearest = 0;
      double nearest2 = std::numeric_limits<double>::max();
      for (std::size_t k = 0; k < 3; ++k) {
        const MMVector3d w = found->GetVertex(k) - p;
        const double d2 = Dot(w, w);
        if (d2 < nearest2) {
          nearest2 = d2;
          nearest = k;
        }
      }
      if (targetMaxEdge2[i] * kUnreachedEdgeFactor2 < nearest2)
        records[i] = DualRecord{t, found->GetPoint(nearest), true};
    };
    ParallelOver(searched.size(), [&](std::size_t k) { assign(searched[k]); });
  }

  // Several target vertices may share a moving corner: merged on this thread, in list
  // order, so each entry lists its target vertices in that order.
  for (const DualRecord& record : records)
    if (record.valid) dualMap.GetInfo(record.moving->GetMaskIndex()).push_back(record.target);
  passTimes.dual = SecondsSince(start);
}

void MWrapperOperatorMorphingCorrespondence::_MainPass(ResultAdapter& result,
                                                       const MDataMask<MStlPoint, std::vector<Vertex>>& dualMap,
                                                       double cosine, bool useNormals,
                                                       ZorSDK::Common::IncrementalProgressReporter& reporter) {
  const Clock::time_point start = Clock::now();

  if (mainHints.size() != movingVertices.size()) mainHints.assign(movingVertices.size(), MeshQueries::kNoObject);
  const MeshQueries::TriangleTree& tree = targetTree->GetTree();
  const double scale = Diagonal(tree);
  const auto displace = [&](std::size_t i) {
    ++reporter;
    const Vertex& v = movingVertices[i];
    if (v->GetNumberOfNeighbourTriangles() == 0) return;
    const MMVector3d p = v->GetDouble();
    const std::uint32_t hint = mainHints[i];
    double distance2 = 0.0;
    std::uint32_t index = MeshQueries::kNoObject;
    if (useNormals) {
      const MMVector3d normal = _GetNormal(v);
      const MeshQueries::OrientedTriangleDistance<MeshQueries::StoredNormals> policy(
          MeshQueries::StoredNormals(targetTree->GetNormals()), targetTree->GetCorners(), p.Data(), normal.Data(),
          cosine);
      index = NearestFromHint(tree, policy, searchRadius,
                              hint != MeshQueries::kNoObject ? policy(hint) : std::numeric_limits<double>::infinity(),
                              scale, distance2);
      // Nothing faces this vertex: it keeps its displacement of the pass before.
      if (index == MeshQueries::kNoObject) return;
    } else {
      const MeshQueries::TriangleObjectDistance policy(targetTree->GetCorners(), p.Data());
      index = NearestFromHint(tree, policy, searchRadius,
                              hint != MeshQueries::kNoObject ? policy(hint) : std::numeric_limits<double>::infinity(),
                              scale, distance2);
    }
    MMVector3d d;
    double length2 = 0.0;
    if (index != MeshQueries::kNoObject) {
      mainHints[i] = index;
      // The search is strict, but its distance is the root of a square: a triangle at
      // the radius is not taken.
      if (std::sqrt(distance2) < searchRadius) {
        d = ClosestPointOn(*tree.GetObjects()[index].GetTriangle(), p) - p;
        length2 = Dot(d, d);
      }
    }
    for (const Vertex& t : dualMap.GetInfo(v.GetMaskIndex())) {
      const MMVector3d w = t->GetDouble() - p;
      const double s = Dot(w, w);
      if (length2 * kDualPreference < s) {
        d = w;
        length2 = s;
      }
    }
    result.SetInfo(v, d);
  };
  ParallelOver(movingVertices.size(), displace);
  passTimes.main = SecondsSince(start);
}
