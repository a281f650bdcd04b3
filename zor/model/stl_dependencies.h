#pragma once
// Derived data attached to a mesh (cached spatial trees and the like), kept in a table
// indexed by a slot per dependency type. The table dies with the mesh.
//
// Threading: the table itself has no lock. Code that looks entries up from several
// threads serialises the look-ups with a lock of its own.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "zor/model/export.h"
#include "zor/model/stl_handles.h"

class MStlBase;
class MMTransform;

class ZOR_MODEL_API IStlDependency {
public:
  virtual ~IStlDependency();
  // Grows the box by whatever geometry the dependency adds to the mesh, seen through
  // `transform` when it is not null. Derived data that adds no geometry leaves it.
  virtual void UpdateBoundingBox(std::int32_t& xMin, std::int32_t& yMin, std::int32_t& zMin, std::int32_t& xMax,
                                 std::int32_t& yMax, std::int32_t& zMax, const MMTransform* transform) const = 0;
};

class ZOR_MODEL_API MStlBaseDependencies {
public:
  explicit MStlBaseDependencies(MStlBase* owner) : mesh(owner) {}
  ~MStlBaseDependencies();
  MStlBaseDependencies(const MStlBaseDependencies&) = delete;
  MStlBaseDependencies& operator=(const MStlBaseDependencies&) = delete;

  // The table, indexed by type slot; entries may be null and the table may be shorter
  // than a slot.
  std::vector<std::unique_ptr<IStlDependency>>& GetTable() { return table; }
  const std::vector<std::unique_ptr<IStlDependency>>& GetTable() const { return table; }
  IStlDependency* Get(std::size_t slot) const { return slot < table.size() ? table[slot].get() : nullptr; }
  // Stores `dependency` at `slot`, growing the table as needed; returns it.
  IStlDependency* Put(std::size_t slot, std::unique_ptr<IStlDependency> dependency);
  void Clear() { table.clear(); }
  MStlBase* GetStl() const { return mesh; }

private:
  MStlBase* mesh;
  std::vector<std::unique_ptr<IStlDependency>> table;
};

// The process-wide slot of a dependency type, the same in every module that asks
// (slots are keyed by the type's mangled name). Thread-safe.
ZOR_MODEL_API std::size_t DependencyTypeSlot(const char* typeName);

template <typename Wrapper>
std::size_t GetDepTypeIndex() {
  static const std::size_t slot = DependencyTypeSlot(typeid(Wrapper).name());
  return slot;
}

namespace ZorMesh::StlBase::Handle {

// A keyed store of shared values on a mesh, e.g. cached trees keyed by a name.
template <typename Value, typename Policy>
class StlConstDependencyWrapper : public IStlDependency {
public:
  StlConstDependencyWrapper() = default;
  bool exist(const std::wstring& key) const { return entries.find(key) != entries.end(); }
  // Throws std::out_of_range for a missing key.
  Value& get(const std::wstring& key) { return entries.at(key); }
  const Value& get(const std::wstring& key) const { return entries.at(key); }
  void put(const std::wstring& key, Value value) { entries[key] = std::move(value); }
  void erase(const std::wstring& key) { entries.erase(key); }
  std::size_t size() const { return entries.size(); }

  void UpdateBoundingBox(std::int32_t&, std::int32_t&, std::int32_t&, std::int32_t&, std::int32_t&, std::int32_t&,
                         const MMTransform*) const override {}

private:
  std::map<std::wstring, Value> entries;
};

}  // namespace ZorMesh::StlBase::Handle
