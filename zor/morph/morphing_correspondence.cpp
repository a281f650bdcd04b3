#include "zor/morph/morphing_correspondence.h"

#include <chrono>
#include <cmath>
#include <limits>
#include <stdexcept>

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/task_group.h>

#include "zor/morph/vertex_ring_iterator.h"
#include "zor/spatial/point_triangle_distance.h"
#include "zor/spatial/tree_property.h"

namespace {

using ZorMesh::StlBase::Handle::Triangle;
using ZorMesh::StlBase::Handle::Vertex;
using Clock = std::chrono::steady_clock;

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

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

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
  _DualPass(dualMap, cosine, useNormals, reporter);
  _MainPass(result, dualMap, cosine, useNormals, reporter);
}

void MWrapperOperatorMorphingCorrespondence::_DualPass(MDataMask<MStlPoint, std::vector<Vertex>>& dualMap,
                                                       double cosine, bool useNormals,
                                                       ZorSDK::Common::IncrementalProgressReporter& reporter) {
  const Clock::time_point start = Clock::now();
  auto movingTree = std::make_unique<MeshQueries::TriangleTreeHolder>(MeshQueries::MeshHandle(moving.GetStl()));
  movingTree->Build(useNormals);
  std::vector<DualRecord> records(targetVertices.size());

  const auto assign = [&](std::size_t i) {
    ++reporter;
    const Vertex& t = targetVertices[i];
    if (t->GetNumberOfNeighbourTriangles() == 0) return;
    const MMVector3d p = t->GetDouble();
    const Triangle found =
        useNormals
            ? MeshQueries::FindNearestOrientedTriangle(*movingTree, p, targetNormals[i], cosine, searchRadius).first
            : MeshQueries::FindNearestTriangle(*movingTree, p, searchRadius).first;
    if (found.GetTriangle() == nullptr) return;
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
  ParallelOver(records.size(), assign);

  // Several target vertices may share a moving corner: merged on this thread, in list
  // order, so each entry lists its target vertices in that order.
  for (const DualRecord& record : records)
    if (record.valid) dualMap.GetInfo(record.moving->GetMaskIndex()).push_back(record.target);
  passTimes.dual = Seconds(start);
}

void MWrapperOperatorMorphingCorrespondence::_MainPass(ResultAdapter& result,
                                                       const MDataMask<MStlPoint, std::vector<Vertex>>& dualMap,
                                                       double cosine, bool useNormals,
                                                       ZorSDK::Common::IncrementalProgressReporter& reporter) {
  const Clock::time_point start = Clock::now();
  const std::vector<Vertex> movingVertices = VerticesInListOrder(*moving.GetStl());

  const auto displace = [&](std::size_t i) {
    ++reporter;
    const Vertex& v = movingVertices[i];
    if (v->GetNumberOfNeighbourTriangles() == 0) return;
    const MMVector3d p = v->GetDouble();
    MMVector3d d;
    double length2 = 0.0;
    if (useNormals) {
      const auto [found, distance] =
          MeshQueries::FindNearestOrientedTriangle(*targetTree, p, _GetNormal(v), cosine, searchRadius);
      // Nothing faces this vertex: it keeps its displacement of the pass before.
      if (found.GetTriangle() == nullptr) return;
      if (distance < searchRadius) {
        d = ClosestPointOn(*found.GetTriangle(), p) - p;
        length2 = Dot(d, d);
      }
    } else {
      const Triangle found = MeshQueries::FindNearestTriangle(*targetTree, p, searchRadius).first;
      if (found.GetTriangle() != nullptr) {
        d = ClosestPointOn(*found.GetTriangle(), p) - p;
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
  passTimes.main = Seconds(start);
}
