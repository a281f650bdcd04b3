#pragma once
// Block allocator of mesh elements: stable addresses, one allocation per block, freed
// slots reused last-in first-out. The pool does not know which slots are alive; its
// owner destroys live elements before the pool goes.

#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace ZorMeshDetail {

template <typename T, std::size_t BlockSize = 4096>
class ElementPool {
public:
  ElementPool() = default;
  ElementPool(const ElementPool&) = delete;
  ElementPool& operator=(const ElementPool&) = delete;

  template <typename... Args>
  T* Create(Args&&... args) {
    void* slot;
    if (freeHead != nullptr) {
      slot = freeHead;
      freeHead = freeHead->next;
    } else {
      if (blocks.empty() || usedInLast == BlockSize) {
        blocks.emplace_back(new Slot[BlockSize]);
        usedInLast = 0;
      }
      slot = &blocks.back()[usedInLast++];
    }
    return ::new (slot) T(std::forward<Args>(args)...);
  }

  void Destroy(T* element) {
    element->~T();
    FreeSlot* f = ::new (static_cast<void*>(element)) FreeSlot;
    f->next = freeHead;
    freeHead = f;
  }

  // Forgets every slot at once; live elements must have been destroyed.
  void Release() {
    blocks.clear();
    usedInLast = 0;
    freeHead = nullptr;
  }

  void Reserve(std::size_t count) { blocks.reserve((count + BlockSize - 1) / BlockSize); }
  std::size_t BytesReserved() const { return blocks.size() * BlockSize * sizeof(Slot); }

private:
  struct FreeSlot {
    FreeSlot* next;
  };
  struct Slot {
    alignas(T) alignas(FreeSlot) unsigned char bytes[sizeof(T) > sizeof(FreeSlot) ? sizeof(T) : sizeof(FreeSlot)];
  };
  std::vector<std::unique_ptr<Slot[]>> blocks;
  std::size_t usedInLast = 0;
  FreeSlot* freeHead = nullptr;
};

// Mask indices: fresh ones count up, released ones are handed out again last-in
// first-out, so masks stay as small as the largest number of live elements.
class IndexAllocator {
public:
  // Returns the index and whether it is recycled (its mask entries need a reset).
  std::pair<std::size_t, bool> Allocate() {
    if (!released.empty()) {
      const std::size_t i = released.back();
      released.pop_back();
      return {i, true};
    }
    return {next++, false};
  }
  void Release(std::size_t i) { released.push_back(i); }
  std::size_t End() const { return next; }
  void Clear() {
    next = 0;
    released.clear();
  }

private:
  std::size_t next = 0;
  std::vector<std::size_t> released;
};

}  // namespace ZorMeshDetail
