#pragma once
// Hash index from integer coordinates to a mesh point, for merging points that share
// coordinates. Open addressing with linear probing and backward-shift deletion; the
// table stays at most half full.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/model/stl_elements.h"

namespace ZorMeshDetail {

class PointIndex {
public:
  MStlPoint* Find(std::int32_t x, std::int32_t y, std::int32_t z) const {
    if (slots.empty()) return nullptr;
    for (std::size_t i = Hash(x, y, z) & mask;; i = (i + 1) & mask) {
      MStlPoint* p = slots[i];
      if (p == nullptr) return nullptr;
      if (p->GetX() == x && p->GetY() == y && p->GetZ() == z) return p;
    }
  }

  // Adds `p` unless a point with its coordinates is present (the first one stays).
  void Insert(MStlPoint* p) {
    if ((count + 1) * 2 > slots.size()) Grow((count + 1) * 2);
    for (std::size_t i = Hash(p->GetX(), p->GetY(), p->GetZ()) & mask;; i = (i + 1) & mask) {
      MStlPoint* q = slots[i];
      if (q == nullptr) {
        slots[i] = p;
        ++count;
        return;
      }
      if (q->GetX() == p->GetX() && q->GetY() == p->GetY() && q->GetZ() == p->GetZ()) return;
    }
  }

  // Removes `p` if it is the point indexed at its coordinates.
  void Erase(const MStlPoint* p) {
    if (slots.empty()) return;
    std::size_t i = Hash(p->GetX(), p->GetY(), p->GetZ()) & mask;
    for (;; i = (i + 1) & mask) {
      if (slots[i] == nullptr) return;
      if (slots[i] == p) break;
    }
    // Backward shift: pull later entries of the probe run into the hole.
    std::size_t hole = i;
    for (std::size_t j = (i + 1) & mask; slots[j] != nullptr; j = (j + 1) & mask) {
      const std::size_t home = Hash(slots[j]->GetX(), slots[j]->GetY(), slots[j]->GetZ()) & mask;
      // Move j into the hole unless its home lies cyclically in (hole, j].
      const bool homeBetween = hole <= j ? (home > hole && home <= j) : (home > hole || home <= j);
      if (!homeBetween) {
        slots[hole] = slots[j];
        hole = j;
      }
    }
    slots[hole] = nullptr;
    --count;
  }

  void Clear() {
    slots.clear();
    count = 0;
    mask = 0;
  }
  void Reserve(std::size_t points) {
    if (points * 2 > slots.size()) Grow(points * 2);
  }
  std::size_t Size() const { return count; }
  // The slots hold pointers, so a slot's bytes are a pointer's.
  // NOLINTNEXTLINE(bugprone-sizeof-expression)
  std::size_t BytesReserved() const { return slots.capacity() * sizeof(MStlPoint*); }

private:
  static std::size_t Hash(std::int32_t x, std::int32_t y, std::int32_t z) {
    std::uint64_t h = static_cast<std::uint32_t>(x) * 0x9E3779B97F4A7C15ull;
    h ^= static_cast<std::uint32_t>(y) * 0xC2B2AE3D27D4EB4Full;
    h = (h << 31) | (h >> 33);
    h ^= static_cast<std::uint32_t>(z) * 0x165667B19E3779F9ull;
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 32;
    return static_cast<std::size_t>(h);
  }

  void Grow(std::size_t minimum) {
    std::size_t capacity = 16;
    while (capacity < minimum) capacity *= 2;
    std::vector<MStlPoint*> old;
    old.swap(slots);
    slots.assign(capacity, nullptr);
    mask = capacity - 1;
    count = 0;
    for (MStlPoint* p : old)
      if (p != nullptr) Insert(p);
  }

  std::vector<MStlPoint*> slots;
  std::size_t count = 0;
  std::size_t mask = 0;
};

}  // namespace ZorMeshDetail
