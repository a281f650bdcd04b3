#pragma once
// A static bounding-box tree over a vector of objects (points or triangles). Each node
// splits its objects three ways at the middle of its widest axis: wholly below the
// middle, touching or straddling it, and wholly above it. Every object lives in exactly
// one leaf and child boxes may overlap.
//
// Building needs oneTBB and lives in zor/spatial/detail/object_tree_build.h; the
// library builds the two mesh instances (points and triangles) itself, so callers of
// this header only read trees.
//
// Threading: a built tree is read-only; any number of threads may query it at once
// with no lock. Building is not concurrent with reading. Node memory differs between
// builds, but the node structure and the order of `objects` depend only on the input
// objects and their order, not on the number of threads.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#include "zor/model/math_types.h"
#include "zor/model/stl_handles.h"
#include "zor/spatial/export.h"

namespace MeshQueries {

// A mesh point as a tree object: its coordinates copied next to the point, so that a
// leaf scan reads one contiguous run of memory.
template <typename Mesh>
struct Vertex3D {
  std::int32_t coords[3];
  MStlPoint* point;
};

namespace detail {

struct TreeParams {
  std::uint64_t leafSize = 0;  // a range of at most this many objects is not split
  // Fewer objects than this build on the calling thread into one exact-size node
  // array; more use all threads. Both give the same tree; tests move the threshold.
  std::uint64_t serialBelow = 1000;
};

// The box rule of an object type; specialised for each object type a tree holds.
template <typename T, typename Box>
struct ObjectTreeDefaultAccessor;

template <typename T, typename Coord, int Dim, typename Accessor, typename Container>
struct M3DObjectTreeParams {
  static_assert(Dim == 3, "object trees are three-dimensional");
  using object_type = T;
  using coord_type = Coord;
  using accessor_type = Accessor;
  using container_type = Container;
};

// Tree nodes store no object count: a traversal carries the range [begin, end) down.
// Child 0 starts at its parent's begin; child k > 0 starts at its own firstObject; a
// child ends where the next starts and the last ends at the parent's end. Child 0's
// firstObject holds the number of children of the group (2 or 3) instead. Children
// are in the order below, straddling, above, with empty ones left out.
//
// Integer nodes are packed to 36 bytes (the pointer at 4-byte alignment); double
// nodes keep natural alignment, which makes them exactly 64 bytes, one cache line.
#pragma pack(push, 4)
template <typename Box>
struct PackedObjectTreeNode {
  Box box;
  std::uint32_t firstObject = 0;
  PackedObjectTreeNode* children = nullptr;
};
#pragma pack(pop)

template <typename Box>
struct AlignedObjectTreeNode {
  Box box;
  std::uint32_t firstObject = 0;
  AlignedObjectTreeNode* children = nullptr;
};

template <typename Box>
using ObjectTreeNode = std::conditional_t<(alignof(Box) <= 4), PackedObjectTreeNode<Box>, AlignedObjectTreeNode<Box>>;

template <typename Node>
struct ParallelNodeStore;  // per-thread node blocks kept across rebuilds (detail header)

template <typename Params>
class M3DObjectTree {
public:
  using object_type = typename Params::object_type;
  using coord = typename Params::coord_type;
  using accessor_type = typename Params::accessor_type;
  using container_type = typename Params::container_type;
  using boundingbox = ZorSDK::Math::boundingbox<coord, 3, ZorSDK::Math::point<coord, 3>>;
  using Node = ObjectTreeNode<boundingbox>;
  // One box per object, in the order of `objects`: an 8-aligned pointer into the
  // owned allocation. The build frees it at its end.
  using BoxArray = std::pair<boundingbox*, std::unique_ptr<unsigned char[]>>;

  M3DObjectTree();
  ~M3DObjectTree();
  M3DObjectTree(const M3DObjectTree&) = delete;
  M3DObjectTree& operator=(const M3DObjectTree&) = delete;

  // Replaces the tree by one over `newObjects`, boxes from the accessor. Throws
  // std::length_error "Too many objects" beyond 2^32 - 1 objects, before anything
  // changes. Defined in the detail header.
  void Build(const TreeParams& params, container_type&& newObjects);
  // As Build, with `boxes` already filled for `newObjects` (see AllocateBoxes).
  void BuildWithBoxes(const TreeParams& params, container_type&& newObjects, BoxArray boxes);
  static BoxArray AllocateBoxes(std::size_t count);

  const container_type& GetObjects() const { return objects; }
  const Node& GetRoot() const { return root; }
  // Greatest node depth (root 0); all ones before the first build.
  std::uint64_t GetDepth() const { return depth; }
  std::size_t GetNumberOfNodes() const { return nodeCount; }
  // Bytes held for nodes (whole blocks on the parallel path) and objects.
  std::size_t GetMemoryUsage() const;
  // True when the last build took the parallel path (for tests and reports).
  bool UsedParallelStore() const { return parallelBuild; }

private:
  void _Construct(const TreeParams& params, BoxArray boxes);
  void _ReleaseNodes();

  container_type objects;
  accessor_type accessor;
  Node root;
  std::uint64_t depth = ~std::uint64_t{0};
  std::unique_ptr<ParallelNodeStore<Node>> nodeStore;
  std::unique_ptr<Node[]> serialNodes;
  std::size_t nodeCount = 1;
  bool parallelBuild = false;
};

}  // namespace detail

using MeshHandle = ZorMesh::StlBase::Handle::StlConstImpl<ZorMesh::StlBase::Handle::StlBasePolicy>;
using MeshVertex = Vertex3D<MeshHandle>;

template <typename Box>
struct detail::ObjectTreeDefaultAccessor<MeshVertex, Box> {
  Box operator()(const MeshVertex& v) const {
    Box b;
    for (int i = 0; i < 3; ++i) b.minCorner[i] = b.maxCorner[i] = v.coords[i];
    return b;
  }
};

template <typename Box>
struct detail::ObjectTreeDefaultAccessor<ZorMesh::StlBase::Handle::Triangle, Box> {
  Box operator()(const ZorMesh::StlBase::Handle::Triangle& t) const {
    Box b;
    for (std::size_t k = 0; k < 3; ++k) {
      const MStlPoint* p = t->GetPoint(k);
      for (std::size_t i = 0; i < 3; ++i) {
        if ((*p)[i] < b.minCorner[i]) b.minCorner[i] = (*p)[i];
        if ((*p)[i] > b.maxCorner[i]) b.maxCorner[i] = (*p)[i];
      }
    }
    return b;
  }
};

using IntBox = ZorSDK::Math::boundingbox<std::int32_t, 3, ZorSDK::Math::point<std::int32_t, 3>>;
using PointTree = detail::M3DObjectTree<detail::M3DObjectTreeParams<
    MeshVertex, std::int32_t, 3, detail::ObjectTreeDefaultAccessor<MeshVertex, IntBox>, std::vector<MeshVertex>>>;
using TriangleTree = detail::M3DObjectTree<
    detail::M3DObjectTreeParams<ZorMesh::StlBase::Handle::Triangle, std::int32_t, 3,
                                detail::ObjectTreeDefaultAccessor<ZorMesh::StlBase::Handle::Triangle, IntBox>,
                                std::vector<ZorMesh::StlBase::Handle::Triangle>>>;

// The two mesh instances are compiled into the library.
extern template class ZOR_SPATIAL_API detail::M3DObjectTree<detail::M3DObjectTreeParams<
    MeshVertex, std::int32_t, 3, detail::ObjectTreeDefaultAccessor<MeshVertex, IntBox>, std::vector<MeshVertex>>>;
extern template class ZOR_SPATIAL_API detail::M3DObjectTree<
    detail::M3DObjectTreeParams<ZorMesh::StlBase::Handle::Triangle, std::int32_t, 3,
                                detail::ObjectTreeDefaultAccessor<ZorMesh::StlBase::Handle::Triangle, IntBox>,
                                std::vector<ZorMesh::StlBase::Handle::Triangle>>>;

}  // namespace MeshQueries
