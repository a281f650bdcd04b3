#pragma once
// Building an M3DObjectTree. Include this where a tree instance is compiled (the
// library's own instances are in object_tree.cpp).
//
// Below TreeParams::serialBelow objects the whole build runs on the calling thread and the
// nodes end up in one exact-size array. From that count up, ranges of at least
// kParallelGrain objects split their children into parallel tasks; each thread takes
// nodes from blocks of 4096 that it fetches from a shared queue, so it touches shared
// state once per block. A rebuild reuses the blocks of the last parallel build.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/cache_aligned_allocator.h>
#include <oneapi/tbb/concurrent_queue.h>
#include <oneapi/tbb/concurrent_vector.h>
#include <oneapi/tbb/enumerable_thread_specific.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/parallel_invoke.h>

#include "zor/spatial/m3d_object_tree.h"

namespace MeshQueries::detail {

inline constexpr std::size_t kNodesPerBlock = 4096;
inline constexpr std::size_t kBlocksPerChunk = 8;
// Ranges smaller than this split their children on the same thread: a task costs
// more than the partition of a few thousand objects.
inline constexpr std::uint32_t kParallelGrain = 4096;

template <typename Node>
struct ParallelNodeStore {
  // 8 blocks of 4096 nodes in one cache-aligned allocation.
  struct NodeChunk {
    std::atomic<std::uint64_t> freeBlocks{kBlocksPerChunk};
    Node* base = nullptr;

    NodeChunk() : base(tbb::cache_aligned_allocator<Node>().allocate(kNodesPerBlock * kBlocksPerChunk)) {}
    ~NodeChunk() { tbb::cache_aligned_allocator<Node>().deallocate(base, kNodesPerBlock * kBlocksPerChunk); }
    NodeChunk(const NodeChunk&) = delete;
    NodeChunk& operator=(const NodeChunk&) = delete;
  };
  using FreeBlock = std::pair<Node*, std::atomic<std::uint64_t>*>;

  tbb::concurrent_queue<FreeBlock> freeQueue;
  tbb::concurrent_vector<std::unique_ptr<NodeChunk>> chunks;

  Node* FetchBlock() {
    FreeBlock block;
    if (!freeQueue.try_pop(block)) {
      NodeChunk* chunk = chunks.emplace_back(std::make_unique<NodeChunk>())->get();
      for (std::size_t b = 1; b < kBlocksPerChunk; ++b)
        freeQueue.push(FreeBlock(chunk->base + b * kNodesPerBlock, &chunk->freeBlocks));
      block = FreeBlock(chunk->base, &chunk->freeBlocks);
    }
    block.second->fetch_sub(1, std::memory_order_relaxed);
    return block.first;
  }

  // Before a parallel build: every block of every kept chunk is free again.
  void Recycle() {
    freeQueue.clear();
    for (auto& chunk : chunks) {
      chunk->freeBlocks.store(kBlocksPerChunk, std::memory_order_relaxed);
      for (std::size_t b = 0; b < kBlocksPerChunk; ++b)
        freeQueue.push(FreeBlock(chunk->base + b * kNodesPerBlock, &chunk->freeBlocks));
    }
  }

  // After a parallel build: chunks of which no block was taken are freed.
  void Compact() {
    freeQueue.clear();
    tbb::concurrent_vector<std::unique_ptr<NodeChunk>> kept;
    for (auto& chunk : chunks)
      if (chunk->freeBlocks.load(std::memory_order_relaxed) != kBlocksPerChunk) kept.push_back(std::move(chunk));
    chunks.swap(kept);
  }

  void Release() {
    freeQueue.clear();
    chunks.clear();
  }

  std::size_t BytesHeld() const { return chunks.size() * kNodesPerBlock * kBlocksPerChunk * sizeof(Node); }
};

// Node source of one thread in a parallel build. A sibling group never spans blocks:
// a group that would reach the block's end goes to a fresh block.
template <typename Node>
struct ParallelNodeAllocator {
  Node* position = nullptr;
  Node* end = nullptr;
  ParallelNodeStore<Node>* store = nullptr;
  std::uint64_t maxDepth = 0;
  std::size_t nodesTaken = 0;

  explicit ParallelNodeAllocator(ParallelNodeStore<Node>* s) : store(s) {}

  Node* TakeGroup(std::uint32_t n) {
    if (position == nullptr || end - position <= static_cast<std::ptrdiff_t>(n)) {
      position = store->FetchBlock();
      end = position + kNodesPerBlock;
    }
    Node* group = position;
    position += n;
    nodesTaken += n;
    return group;
  }
};

// Node source of a serial build: a scratch array large enough for any tree over
// `count` objects (every inner node has at least two non-empty children and every
// leaf but an empty root holds an object, so a tree has at most 2 * count - 1 nodes).
template <typename Node>
struct SerialNodeAllocator {
  std::vector<Node> nodes;
  std::size_t used = 0;
  std::uint64_t maxDepth = 0;

  explicit SerialNodeAllocator(std::size_t count) : nodes(std::max<std::size_t>(1, 2 * count)) {}

  Node* TakeGroup(std::uint32_t n) {
    Node* group = nodes.data() + used;
    used += n;
    return group;
  }
};

template <typename Tree>
class ObjectTreeBuilder {
public:
  using Node = typename Tree::Node;
  using Box = typename Tree::boundingbox;
  using Object = typename Tree::object_type;
  using Coord = typename Tree::coord;
  using ThreadNodes = tbb::enumerable_thread_specific<ParallelNodeAllocator<Node>>;

  ObjectTreeBuilder(Object* objs, Box* bxs, std::uint64_t leaf, ThreadNodes* threads)
      : objects(objs), boxes(bxs), leafSize(leaf), threadNodes(threads) {}

  // Fills `node` for the objects [begin, end) and builds its subtree. `axisMask` bit
  // k set: axis k may no longer be split.
  template <bool Parallel, typename Allocator>
  void Step(Node* node, std::uint32_t begin, std::uint32_t end, std::uint32_t axisMask, std::uint64_t depth,
            Allocator* nodes) const {
    if (depth > nodes->maxDepth) nodes->maxDepth = depth;
    node->box = UnionBox(begin, end);
    node->children = nullptr;
    for (;;) {
      if (axisMask == 7 || end - begin <= leafSize) return;
      const int axis = ChooseAxis(node->box, axisMask);
      if (axis < 0) return;
      const Coord split = Middle(node->box, axis);
      std::uint32_t low = begin, high = end;
      Partition(axis, split, low, high);
      const std::uint32_t starts[3] = {begin, low, high};
      const std::uint32_t ends[3] = {low, high, end};
      std::uint32_t n = 0;
      for (int k = 0; k < 3; ++k) n += starts[k] < ends[k] ? 1u : 0u;
      if (n == 1) {
        // Everything straddles or lies to one side: this axis can't separate them.
        axisMask |= 1u << axis;
        continue;
      }
      Node* group = nodes->TakeGroup(n);
      struct ChildRange {
        Node* node;
        std::uint32_t begin, end, axisMask;
      } children[3];
      std::uint32_t c = 0;
      for (int k = 0; k < 3; ++k) {
        if (starts[k] == ends[k]) continue;
        Node* child = new (group + c) Node();
        child->firstObject = starts[k];
        // The straddling range holds the split value on this axis in every object.
        children[c++] = ChildRange{child, starts[k], ends[k], k == 1 ? (axisMask | (1u << axis)) : axisMask};
      }
      node->children = group;
      const auto buildChild = [&](const ChildRange& r) {
        if constexpr (Parallel) {
          if (r.end - r.begin >= kParallelGrain)
            Step<true>(r.node, r.begin, r.end, r.axisMask, depth + 1, &threadNodes->local());
          else
            Step<false>(r.node, r.begin, r.end, r.axisMask, depth + 1, &threadNodes->local());
        } else {
          Step<false>(r.node, r.begin, r.end, r.axisMask, depth + 1, nodes);
        }
      };
      if (Parallel && n == 3)
        tbb::parallel_invoke([&] { buildChild(children[0]); }, [&] { buildChild(children[1]); },
                             [&] { buildChild(children[2]); });
      else if (Parallel)
        tbb::parallel_invoke([&] { buildChild(children[0]); }, [&] { buildChild(children[1]); });
      else
        for (std::uint32_t k = 0; k < n; ++k) buildChild(children[k]);
      group[0].firstObject = n;
      return;
    }
  }

private:
  Box UnionBox(std::uint32_t begin, std::uint32_t end) const {
    Box box;
    for (std::uint32_t i = begin; i < end; ++i) {
      const Box& b = boxes[i];
      for (int k = 0; k < 3; ++k) {
        if (b.minCorner[k] < box.minCorner[k]) box.minCorner[k] = b.minCorner[k];
        if (b.maxCorner[k] > box.maxCorner[k]) box.maxCorner[k] = b.maxCorner[k];
      }
    }
    return box;
  }

  // Widest axis not masked, ties to the higher axis; -1 when every extent is 0.
  // Integer extents are unsigned 32-bit (a span of two int32 always fits); a NaN
  // extent of a double box counts as an axis.
  static int ChooseAxis(const Box& box, std::uint32_t axisMask) {
    if constexpr (std::is_integral_v<Coord>) {
      std::uint32_t ext[3];
      for (int k = 0; k < 3; ++k)
        ext[k] = (axisMask >> k) & 1u
                     ? 0u
                     : static_cast<std::uint32_t>(box.maxCorner[k]) - static_cast<std::uint32_t>(box.minCorner[k]);
      int axis = 0;
      if (ext[1] >= ext[axis]) axis = 1;
      if (ext[2] >= ext[axis]) axis = 2;
      return ext[axis] == 0 ? -1 : axis;
    } else {
      Coord ext[3];
      for (int k = 0; k < 3; ++k) ext[k] = (axisMask >> k) & 1u ? Coord(0) : box.maxCorner[k] - box.minCorner[k];
      int axis = 0;
      if (ext[1] >= ext[axis]) axis = 1;
      if (ext[2] >= ext[axis]) axis = 2;
      return ext[axis] == Coord(0) ? -1 : axis;
    }
  }

  // The middle of the box on `axis`; integers round down without overflow.
  static Coord Middle(const Box& box, int axis) {
    if constexpr (std::is_integral_v<Coord>) {
      const std::uint32_t span =
          static_cast<std::uint32_t>(box.maxCorner[axis]) - static_cast<std::uint32_t>(box.minCorner[axis]);
      return static_cast<Coord>(static_cast<std::uint32_t>(box.minCorner[axis]) + (span >> 1));
    } else {
      return box.maxCorner[axis] * 0.5 + box.minCorner[axis] * 0.5;
    }
  }

  // Three-way partition of [low, high): below the split to the front, above it to
  // the back, touching or straddling in between. Not stable.
  void Partition(int axis, Coord split, std::uint32_t& low, std::uint32_t& high) const {
    std::uint32_t i = low;
    while (i < high) {
      if (boxes[i].maxCorner[axis] < split) {
        Swap(i, low);
        ++low;
        ++i;
      } else if (boxes[i].minCorner[axis] > split) {
        --high;
        Swap(i, high);
      } else {
        ++i;
      }
    }
  }

  void Swap(std::uint32_t a, std::uint32_t b) const {
    if (a == b) return;
    std::swap(boxes[a], boxes[b]);
    std::swap(objects[a], objects[b]);
  }

  Object* objects;
  Box* boxes;
  std::uint64_t leafSize;
  ThreadNodes* threadNodes;
};

template <typename P>
M3DObjectTree<P>::M3DObjectTree() = default;

template <typename P>
M3DObjectTree<P>::~M3DObjectTree() = default;

template <typename P>
typename M3DObjectTree<P>::BoxArray M3DObjectTree<P>::AllocateBoxes(std::size_t count) {
  // Storage without the boxes' constructors, which the caller's fill makes needless;
  // operator new aligns it for any fundamental type.
  static_assert(alignof(boundingbox) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
  std::unique_ptr<unsigned char[]> raw(new unsigned char[count * sizeof(boundingbox)]);
  auto* first = reinterpret_cast<boundingbox*>(raw.get());
  return BoxArray(first, std::move(raw));
}

inline void CheckObjectCount(std::size_t count) {
  if (count > 0xFFFFFFFFull) throw std::length_error("Too many objects");
}

template <typename P>
void M3DObjectTree<P>::Build(const TreeParams& params, container_type&& newObjects) {
  CheckObjectCount(newObjects.size());
  BoxArray boxes = AllocateBoxes(newObjects.size());
  depth = ~std::uint64_t{0};
  objects.clear();
  accessor = accessor_type();
  objects = std::move(newObjects);
  boundingbox* out = boxes.first;
  const auto fillBoxes = [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) new (out + i) boundingbox(accessor(objects[i]));
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, objects.size(), 4096), fillBoxes);
  _Construct(params, std::move(boxes));
}

template <typename P>
void M3DObjectTree<P>::BuildWithBoxes(const TreeParams& params, container_type&& newObjects, BoxArray boxes) {
  CheckObjectCount(newObjects.size());
  depth = ~std::uint64_t{0};
  objects.clear();
  accessor = accessor_type();
  objects = std::move(newObjects);
  _Construct(params, std::move(boxes));
}

template <typename P>
void M3DObjectTree<P>::_ReleaseNodes() {
  if (nodeStore) nodeStore->Release();
  serialNodes.reset();
}

template <typename P>
void M3DObjectTree<P>::_Construct(const TreeParams& params, BoxArray boxes) {
  const std::size_t count = objects.size();
  CheckObjectCount(count);
  const auto n = static_cast<std::uint32_t>(count);
  root = Node();
  if (n < params.serialBelow) {
    _ReleaseNodes();
    SerialNodeAllocator<Node> scratch(n);
    const ObjectTreeBuilder<M3DObjectTree> builder(objects.data(), boxes.first, params.leafSize, nullptr);
    builder.template Step<false>(&root, 0, n, 0, 0, &scratch);
    if (scratch.used > 0) serialNodes.reset(new Node[scratch.used]);
    std::copy(scratch.nodes.begin(), scratch.nodes.begin() + static_cast<std::ptrdiff_t>(scratch.used),
              serialNodes.get());
    const auto rebase = [&](Node& node) {
      if (node.children != nullptr) node.children = serialNodes.get() + (node.children - scratch.nodes.data());
    };
    rebase(root);
    for (std::size_t i = 0; i < scratch.used; ++i) rebase(serialNodes[i]);
    depth = scratch.maxDepth;
    nodeCount = scratch.used + 1;
    parallelBuild = false;
  } else {
    if (!nodeStore) nodeStore = std::make_unique<ParallelNodeStore<Node>>();
    nodeStore->Recycle();
    serialNodes.reset();
    typename ObjectTreeBuilder<M3DObjectTree>::ThreadNodes threadNodes(
        [store = nodeStore.get()] { return ParallelNodeAllocator<Node>(store); });
    const ObjectTreeBuilder<M3DObjectTree> builder(objects.data(), boxes.first, params.leafSize, &threadNodes);
    builder.template Step<true>(&root, 0, n, 0, 0, &threadNodes.local());
    depth = 0;
    nodeCount = 1;
    for (const auto& t : threadNodes) {
      depth = std::max(depth, t.maxDepth);
      nodeCount += t.nodesTaken;
    }
    nodeStore->Compact();
    parallelBuild = true;
  }
}

template <typename P>
std::size_t M3DObjectTree<P>::GetMemoryUsage() const {
  std::size_t bytes = sizeof(*this) + objects.capacity() * sizeof(object_type);
  if (serialNodes) bytes += (nodeCount - 1) * sizeof(Node);
  if (nodeStore) bytes += nodeStore->BytesHeld();
  return bytes;
}

}  // namespace MeshQueries::detail
