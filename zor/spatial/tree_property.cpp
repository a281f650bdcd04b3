#include "zor/spatial/tree_property.h"

#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/parallel_pipeline.h>
#include <oneapi/tbb/task_arena.h>

#include "zor/model/stl_base.h"
#include "zor/spatial/detail/object_tree_build.h"
#include "zor/spatial/detail/thread_safe_property.h"

namespace MeshQueries {

using ZorMesh::StlBase::Handle::Triangle;

namespace {

constexpr detail::TreeParams kPointTreeParams{30};
// Triangles handed from the list walk to the box fill at a time.
constexpr std::size_t kTrianglesPerToken = 10000;

// Follows a mesh and drops what it holds at any change.
class MeshFollower : public MStlCallback {
public:
  explicit MeshFollower(MeshHandle m) : mesh(m), valid(nullptr, nullptr) {
    MStlBase* followed = const_cast<MStlBase*>(mesh.GetStl());
    followed->GetValidity().Register(valid, ValidityAnyChange, nullptr);
    _Initialise(followed);
    _EnableEvent(MStlEventPointsMoved);
    _EnableEvent(MStlEventTopologyChanged);
    _EnableEvent(MStlEventCleared);
    valid.Invalidate();
  }
  bool IsValid() const { return static_cast<bool>(valid); }
  void SetValidated() { valid.SetValidated(); }

protected:
  MeshHandle mesh;
  MValidityBit valid;
};

}  // namespace

class M3DPointTreePropertyBase {
public:
  virtual ~M3DPointTreePropertyBase() = default;
};

class M3DTriangleTreePropertyBase {
public:
  virtual ~M3DTriangleTreePropertyBase() = default;
};

template <typename Mesh>
class M3DPointTreeProperty : public M3DPointTreePropertyBase, public MeshFollower {
public:
  explicit M3DPointTreeProperty(Mesh m) : MeshFollower(m) {}

  void OnMeshEvent(MStlCallBackEventID) override {
    tree.reset();
    valid.Invalidate();
  }

  void Fill() {
    if (!tree) tree = std::make_unique<PointTree>();
    const MStlBase* m = mesh.GetStl();
    std::vector<MeshVertex> vertices;
    vertices.reserve(m->NumberOfPoints());
    for (MStlPoint* p = m->GetFirstPoint(); p != nullptr; p = p->GetNext())
      vertices.push_back(MeshVertex{{p->GetX(), p->GetY(), p->GetZ()}, p});
    tree->Build(kPointTreeParams, std::move(vertices));
  }

  const PointTree* GetTree() const { return tree.get(); }

private:
  std::unique_ptr<PointTree> tree;
};

template <typename Mesh>
class M3DTriangleTreeProperty : public M3DTriangleTreePropertyBase, public MeshFollower {
public:
  explicit M3DTriangleTreeProperty(Mesh m) : MeshFollower(m) {}

  void OnMeshEvent(MStlCallBackEventID) override {
    tree.reset();
    valid.Invalidate();
  }

  void Fill() {
    if (!tree) tree = std::make_unique<TriangleTreeHolder>(mesh);
    tree->Build();
  }

  const TriangleTreeHolder* GetTree() const { return tree.get(); }

private:
  std::unique_ptr<TriangleTreeHolder> tree;
};

void TriangleTreeHolder::Build(bool keepNormals) {
  using Box = TriangleTree::boundingbox;
  const MStlFeature* feature = mesh.GetStl()->GetMainFeature();
  std::vector<const MStlSurface*> surfaces;
  std::size_t total = 0;
  for (std::size_t s = 0; s < feature->GetSurfaceCount(); ++s) {
    const MStlSurface* surface = feature->GetSurface(s);
    if (surface->GetNumberOfTriangles() == 0) continue;
    surfaces.push_back(surface);
    total += surface->GetNumberOfTriangles();
  }
  detail::CheckObjectCount(total);
  corners.clear();
  std::vector<Triangle> objects(total);
  TriangleTree::BoxArray boxes = TriangleTree::AllocateBoxes(total);

  // The lists are walked in order by one token at a time while other tokens fill the
  // boxes of the runs already collected.
  struct Run {
    std::size_t first = 0, count = 0;
  };
  std::size_t nextSurface = 0, written = 0;
  const MStlTriangleCell* cell = surfaces.empty() ? nullptr : surfaces[0]->GetFirstTriangle();
  const auto collect = [&](tbb::flow_control& control) -> Run {
    Run run{written, 0};
    while (run.count < kTrianglesPerToken && written < total) {
      while (cell == nullptr && ++nextSurface < surfaces.size()) cell = surfaces[nextSurface]->GetFirstTriangle();
      if (cell == nullptr) break;
      objects[written++] = Triangle(const_cast<MStlTriangle*>(cell->GetData()));
      ++run.count;
      cell = cell->GetNext();
    }
    if (run.count == 0) control.stop();
    return run;
  };
  Box* out = boxes.first;
  const detail::ObjectTreeDefaultAccessor<Triangle, Box> boxOf;
  const auto fillBoxes = [&](Run run) {
    for (std::size_t i = run.first; i < run.first + run.count; ++i) new (out + i) Box(boxOf(objects[i]));
  };
  tbb::parallel_pipeline(static_cast<std::size_t>(tbb::this_task_arena::max_concurrency()),
                         tbb::make_filter<void, Run>(tbb::filter_mode::serial_in_order, collect) &
                             tbb::make_filter<Run, void>(tbb::filter_mode::parallel, fillBoxes));
  objects.resize(written);  // a list shorter than its count leaves no null handles behind
  tree.BuildWithBoxes(params, std::move(objects), std::move(boxes));

  const std::vector<Triangle>& ordered = tree.GetObjects();
  corners.resize(ordered.size());
  const auto copyCorners = [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i)
      for (std::size_t k = 0; k < 3; ++k) {
        const MStlPoint* p = ordered[i]->GetPoint(k);
        for (std::size_t j = 0; j < 3; ++j) corners[i].xyz[3 * k + j] = (*p)[j];
      }
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, ordered.size(), 4096), copyCorners);
  normals.clear();
  if (keepNormals) {
    normals.resize(ordered.size());
    const auto copyNormals = [&](const tbb::blocked_range<std::size_t>& r) {
      for (std::size_t i = r.begin(); i != r.end(); ++i) normals[i] = ordered[i]->GetNormal();
    };
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, ordered.size(), 4096), copyNormals);
  }
}

MMVector3d ClosestTriangle::GetClosestPoint() {
  const MStlTriangle* t = triangle.GetTriangle();
  const MMVector3d a = t->GetVertex(0), b = t->GetVertex(1), c = t->GetVertex(2);
  if (!barycentricValid) {
    PointTriangleDistance2(query, a.Data(), b.Data(), c.Data(), barycentric);
    barycentricValid = true;
  }
  return a * barycentric[0] + b * barycentric[1] + c * barycentric[2];
}

const PointTree* GetPointTree(MeshHandle mesh) { return GetCachedProperty<M3DPointTreeProperty<MeshHandle>>(mesh); }

const TriangleTreeHolder* GetTriangleTree(MeshHandle mesh) {
  return GetCachedProperty<M3DTriangleTreeProperty<MeshHandle>>(mesh);
}

bool FindNearestPoint(MeshHandle mesh, const MMVector3d& query, double& radius, MStlPoint*& point) {
  const PointTree* tree = GetPointTree(mesh);
  if (tree == nullptr) return false;
  const PointObjectDistance<std::vector<MeshVertex>> distance(tree->GetObjects(), query.Data());
  const MeshVertex* found = Nearest(*tree, distance, radius);
  if (found == nullptr) return false;
  point = found->point;
  return true;
}

std::pair<Triangle, double> FindNearestTriangle(const TriangleTreeHolder& holder, const MMVector3d& query,
                                                double radius) {
  const TriangleObjectDistance distance(holder.GetCorners(), query.Data());
  const Triangle* found = Nearest(holder.GetTree(), distance, radius);
  return {found != nullptr ? *found : Triangle(), radius};
}

bool FindNearestTriangle(const TriangleTreeHolder& holder, const MMVector3d& query, double radius,
                         ClosestTriangle& result) {
  const auto [triangle, distance] = FindNearestTriangle(holder, query, radius);
  result.mesh = triangle.GetTriangle() != nullptr ? holder.GetMesh() : MeshHandle();
  result.distance = distance;
  result.barycentricValid = false;
  result.triangle = triangle;
  for (int k = 0; k < 3; ++k) result.query[k] = query[k];
  return triangle.GetTriangle() != nullptr;
}

std::pair<Triangle, double> FindNearestOrientedTriangle(const TriangleTreeHolder& holder, const MMVector3d& query,
                                                        const MMVector3d& normal, double minCosine, double radius) {
  const Triangle* found = nullptr;
  if (const MMVector3d* normals = holder.GetNormals()) {
    const OrientedTriangleDistance<StoredNormals> distance(StoredNormals(normals), holder.GetCorners(), query.Data(),
                                                           normal.Data(), minCosine);
    found = Nearest(holder.GetTree(), distance, radius);
  } else {
    const OrientedTriangleDistance<NormalsOfTriangles> distance(
        NormalsOfTriangles(holder.GetTree().GetObjects()), holder.GetCorners(), query.Data(), normal.Data(), minCosine);
    found = Nearest(holder.GetTree(), distance, radius);
  }
  return {found != nullptr ? *found : Triangle(), radius};
}

bool GetClosestPoint(MeshHandle mesh, const MMVector3d& query, MMVector3d& closest) {
  const TriangleTreeHolder* holder = GetTriangleTree(mesh);
  if (holder == nullptr) return false;
  ClosestTriangle result;
  if (!FindNearestTriangle(*holder, query, std::numeric_limits<double>::infinity(), result)) return false;
  closest = result.GetClosestPoint();
  return true;
}

}  // namespace MeshQueries
