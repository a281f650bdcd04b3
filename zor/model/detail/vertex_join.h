#pragma once
// Joining equal vertices: a flat open-addressing table from a vertex's key (three
// 32-bit words: its grid coordinates, or the bits of its float coordinates) to the
// number of the first vertex with that key. The mesh builder joins grid points with it
// and the binary STL reader joins the corners of its triangles.
//
// A slot holds the upper half of the key's hash beside the entry's number, so probes
// past other entries do not read their keys. The table stays at most half full and
// grows as entries come. On large inputs nearly every probe misses the cache; callers
// fetch the slot of a key some places ahead early (Prefetch).

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ZorMesh::detail {

struct JoinKey {
  std::uint32_t words[3];

  bool operator==(const JoinKey& o) const {
    return words[0] == o.words[0] && words[1] == o.words[1] && words[2] == o.words[2];
  }
};

inline std::uint64_t JoinHash(const JoinKey& k) {
  std::uint64_t h = k.words[0] * 0x9E3779B97F4A7C15ull;
  h ^= k.words[1] * 0xC2B2AE3D27D4EB4Full;
  h = (h << 31) | (h >> 33);
  h ^= k.words[2] * 0x165667B19E3779F9ull;
  h ^= h >> 29;
  h *= 0xBF58476D1CE4E5B9ull;
  return h ^ (h >> 32);
}

class VertexJoinTable {
public:
  // Sized for `expected` entries without growing.
  explicit VertexJoinTable(std::size_t expected) {
    std::size_t slots = 16;
    while (slots < 2 * expected + 2) slots *= 2;
    table.assign(slots, kEmpty);
  }

  void Prefetch(const JoinKey& key) const { __builtin_prefetch(&table[JoinHash(key) & (table.size() - 1)]); }

  // The number of the entry whose key equals `key` (`keyOf(number)` gives an entry's
  // key), or `next` after taking it in as a new entry.
  template <typename KeyOf>
  std::uint32_t Join(const JoinKey& key, std::uint32_t next, const KeyOf& keyOf) {
    if (2 * (used + 1) > table.size()) Grow(keyOf);
    const std::size_t mask = table.size() - 1;
    const std::uint64_t h = JoinHash(key), tag = h >> 32 << 32;
    for (std::size_t at = h & mask;; at = (at + 1) & mask) {
      const std::uint64_t slot = table[at];
      if (slot == kEmpty) {
        table[at] = tag | next;
        ++used;
        return next;
      }
      const std::uint32_t number = static_cast<std::uint32_t>(slot & 0xFFFFFFFFu);
      if ((slot ^ tag) >> 32 == 0 && keyOf(number) == key) return number;
    }
  }

private:
  static constexpr std::uint64_t kEmpty = ~std::uint64_t(0);

  template <typename KeyOf>
  void Grow(const KeyOf& keyOf) {
    std::vector<std::uint64_t> bigger(2 * table.size(), kEmpty);
    const std::size_t mask = bigger.size() - 1;
    for (const std::uint64_t slot : table) {
      if (slot == kEmpty) continue;
      const std::uint32_t number = static_cast<std::uint32_t>(slot & 0xFFFFFFFFu);
      const std::uint64_t h = JoinHash(keyOf(number));
      std::size_t at = h & mask;
      while (bigger[at] != kEmpty) at = (at + 1) & mask;
      bigger[at] = (h >> 32 << 32) | number;
    }
    table.swap(bigger);
  }

  std::vector<std::uint64_t> table;
  std::size_t used = 0;
};

}  // namespace ZorMesh::detail
