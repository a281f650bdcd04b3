// Construction of the object tree: structural invariants on random and degenerate
// inputs, the serial and the parallel path agreeing, thread-count independence, and
// the reuse of node memory across rebuilds.
#include "zor/spatial/object_tree.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include "zor/model/stl.h"
#include "zor/spatial/detail/object_tree_build.h"

namespace {

using MeshQueries::MeshVertex;
using MeshQueries::PointTree;
using MeshQueries::detail::TreeParams;

// Vertices with an id in the point field (never dereferenced by the tree).
std::vector<MeshVertex> RandomVertices(std::size_t n, unsigned seed, int extent) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> c(-extent, extent);
  std::vector<MeshVertex> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = MeshVertex{{c(rng), c(rng), c(rng)}, reinterpret_cast<MStlPoint*>(i + 1)};
  return v;
}

std::uintptr_t Id(const MeshVertex& v) { return reinterpret_cast<std::uintptr_t>(v.point); }

// Checks one subtree; returns its greatest depth.
template <typename Tree>
std::uint64_t CheckNode(const Tree& tree, const typename Tree::Node& node, std::uint32_t begin, std::uint32_t end,
                        std::uint64_t depth, std::uint64_t leafSize) {
  typename Tree::boundingbox tight;
  const typename Tree::accessor_type box;
  for (std::uint32_t i = begin; i < end; ++i) tight.Add(box(tree.GetObjects()[i]));
  for (int k = 0; k < 3; ++k) {
    EXPECT_EQ(node.box.minCorner[k], tight.minCorner[k]) << "depth " << depth;
    EXPECT_EQ(node.box.maxCorner[k], tight.maxCorner[k]) << "depth " << depth;
  }
  if (node.children == nullptr) return depth;
  EXPECT_GT(end - begin, leafSize) << "a range that fits a leaf was split";
  const std::uint32_t count = node.children[0].firstObject;
  EXPECT_TRUE(count == 2 || count == 3);
  std::uint32_t starts[4] = {begin, node.children[1].firstObject, count == 3 ? node.children[2].firstObject : end, end};
  std::uint64_t deepest = depth;
  for (std::uint32_t k = 0; k < count; ++k) {
    EXPECT_LT(starts[k], starts[k + 1]) << "empty or unordered child range";
    deepest = std::max(deepest, CheckNode(tree, node.children[k], starts[k], starts[k + 1], depth + 1, leafSize));
  }
  return deepest;
}

template <typename Tree>
void CheckTree(const Tree& tree, std::uint64_t leafSize) {
  const auto n = static_cast<std::uint32_t>(tree.GetObjects().size());
  EXPECT_EQ(CheckNode(tree, tree.GetRoot(), 0, n, 0, leafSize), tree.GetDepth());
}

// Node-for-node equality of two trees over the same objects.
template <typename Node>
void ExpectSameNodes(const Node& a, const Node& b) {
  for (int k = 0; k < 3; ++k) {
    ASSERT_EQ(a.box.minCorner[k], b.box.minCorner[k]);
    ASSERT_EQ(a.box.maxCorner[k], b.box.maxCorner[k]);
  }
  ASSERT_EQ(a.children == nullptr, b.children == nullptr);
  if (a.children == nullptr) return;
  const std::uint32_t count = a.children[0].firstObject;
  ASSERT_EQ(count, b.children[0].firstObject);
  for (std::uint32_t k = 0; k < count; ++k) {
    if (k > 0) {
      ASSERT_EQ(a.children[k].firstObject, b.children[k].firstObject);
    }
    ExpectSameNodes(a.children[k], b.children[k]);
  }
}

void ExpectSameTrees(const PointTree& a, const PointTree& b) {
  ASSERT_EQ(a.GetObjects().size(), b.GetObjects().size());
  for (std::size_t i = 0; i < a.GetObjects().size(); ++i) ASSERT_EQ(Id(a.GetObjects()[i]), Id(b.GetObjects()[i]));
  EXPECT_EQ(a.GetDepth(), b.GetDepth());
  ExpectSameNodes(a.GetRoot(), b.GetRoot());
}

TEST(ObjectTreeBuild, RandomPointsKeepEveryObjectOnceWithTightBoxes) {
  for (std::size_t n : {1u, 30u, 31u, 999u, 1000u, 20000u}) {  // 30: one root leaf
    SCOPED_TRACE(n);
    PointTree tree;
    tree.Build(TreeParams{30}, RandomVertices(n, 3, 5000));
    CheckTree(tree, 30);
    std::vector<std::uintptr_t> ids;
    for (const auto& v : tree.GetObjects()) ids.push_back(Id(v));
    std::sort(ids.begin(), ids.end());
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(ids[i], i + 1);
    EXPECT_EQ(tree.UsedParallelStore(), n >= 1000);
    EXPECT_EQ(tree.GetRoot().children == nullptr, n <= 30);
  }
}

TEST(ObjectTreeBuild, InputsThatCannotBeSplitStayInOneLeaf) {
  PointTree tree;
  EXPECT_EQ(tree.GetDepth(), ~std::uint64_t{0});  // never built
  tree.Build(TreeParams{30}, {});
  EXPECT_EQ(tree.GetRoot().children, nullptr);
  EXPECT_TRUE(tree.GetRoot().box.IsEmpty());
  EXPECT_EQ(tree.GetDepth(), 0u);
  // Identical points: a leaf of any size.
  tree.Build(TreeParams{30}, std::vector<MeshVertex>(5000, MeshVertex{{7, -7, 7}, nullptr}));
  EXPECT_EQ(tree.GetRoot().children, nullptr);
  // Triangles that all span the whole cube through its centre: no axis separates any
  // two of them, so after three retries the root is a leaf of all 200.
  MStlBase mesh;
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> c(-1000, 1000);
  for (int t = 0; t < 200; ++t) {
    MStlPoint* a = mesh.AddPoint(-1000 - t, -1000, -1000, true);
    MStlPoint* b = mesh.AddPoint(1000 + t, 1000, 1000, true);
    mesh.AddTriangle(a, b, mesh.AddPoint(c(rng), c(rng), c(rng), true), nullptr);
  }
  MeshQueries::TriangleTreeHolder holder{MeshQueries::MeshHandle(&mesh)};
  holder.Build();
  EXPECT_EQ(holder.GetTree().GetRoot().children, nullptr);
  EXPECT_EQ(holder.GetTree().GetObjects().size(), 200u);
}

TEST(ObjectTreeBuild, SerialParallelAndEveryThreadCountBuildTheSameTree) {
  for (std::size_t n : {999u, 1000u, 6000u}) {
    SCOPED_TRACE(n);
    PointTree serial, parallel;
    TreeParams serialParams{30}, parallelParams{30};
    serialParams.serialBelow = ~std::uint64_t{0};
    parallelParams.serialBelow = 0;
    serial.Build(serialParams, RandomVertices(n, 9, 800));
    parallel.Build(parallelParams, RandomVertices(n, 9, 800));
    EXPECT_FALSE(serial.UsedParallelStore());
    EXPECT_TRUE(parallel.UsedParallelStore());
    ExpectSameTrees(serial, parallel);
  }
  PointTree one, two;
  tbb::task_arena(1).execute([&] { one.Build(TreeParams{30}, RandomVertices(60000, 4, 100000)); });
  tbb::task_arena(2).execute([&] { two.Build(TreeParams{30}, RandomVertices(60000, 4, 100000)); });
  ExpectSameTrees(one, two);
}

TEST(ObjectTreeBuild, RebuildReusesNodeBlocksAndFreesUntouchedChunks) {
  PointTree tree;
  tree.Build(TreeParams{4}, RandomVertices(200000, 6, 1000000));
  const std::size_t large = tree.GetMemoryUsage();
  tree.Build(TreeParams{4}, RandomVertices(200000, 7, 1000000));
  // Same size of input: the chunks of the first build carry the second.
  EXPECT_LE(tree.GetMemoryUsage(), large + large / 10);
  tree.Build(TreeParams{4}, RandomVertices(2000, 8, 1000000));
  CheckTree(tree, 4);
  // A small rebuild takes one block per thread at most, so at most one chunk of
  // 8 x 4096 nodes per thread stays; the others are freed.
  const std::size_t threads = static_cast<std::size_t>(tbb::this_task_arena::max_concurrency());
  const std::size_t chunkBytes = 8 * 4096 * sizeof(PointTree::Node);
  EXPECT_LE(tree.GetMemoryUsage(), sizeof(PointTree) + 2000 * sizeof(MeshVertex) + threads * chunkBytes);
  tree.Build(TreeParams{4}, RandomVertices(500, 8, 1000000));
  CheckTree(tree, 4);
  EXPECT_FALSE(tree.UsedParallelStore());
}

}  // namespace
