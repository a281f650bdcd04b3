#pragma once
// Stable handles to registered objects. A registered object owns a small record whose
// first word points at the object; handles share the record, and the object's death
// clears that word, so a handle outliving its object converts to null instead of
// dangling.

#include <atomic>

template <typename T>
struct MRegisteredID {
  T* object;  // first word: the object, null once it is gone
  std::atomic<long> references;
};

template <typename ID, typename T>
class MRegisteredHandle {
public:
  MRegisteredHandle() = default;
  explicit MRegisteredHandle(ID* record) : id(record) { _Acquire(); }
  MRegisteredHandle(const MRegisteredHandle& o) : id(o.id) { _Acquire(); }
  MRegisteredHandle& operator=(const MRegisteredHandle& o) {
    if (id != o.id) {
      MRegisteredHandle copy(o);
      std::swap(id, copy.id);
    }
    return *this;
  }
  ~MRegisteredHandle() { _Release(id); }

  // The object, or null for an empty handle or a destroyed object.
  operator T*();
  operator const T*() const;

  static void _Release(ID* record) {
    if (record != nullptr && record->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete record;
  }

private:
  void _Acquire() {
    if (id != nullptr) id->references.fetch_add(1, std::memory_order_relaxed);
  }
  ID* id = nullptr;
};

template <typename ID, typename T>
MRegisteredHandle<ID, T>::operator T*() {
  return id == nullptr ? nullptr : *reinterpret_cast<T* const*>(id);
}

template <typename ID, typename T>
MRegisteredHandle<ID, T>::operator const T*() const {
  return id == nullptr ? nullptr : *reinterpret_cast<T* const*>(id);
}

template <typename ID, typename T>
class MRegisteredObject {
public:
  MRegisteredHandle<ID, T> GetHandle() const { return MRegisteredHandle<ID, T>(id); }

protected:
  explicit MRegisteredObject(T* self) : id(new ID{self, {1}}) {}
  ~MRegisteredObject() {
    id->object = nullptr;
    MRegisteredHandle<ID, T>::_Release(id);
  }
  MRegisteredObject(const MRegisteredObject&) = delete;
  MRegisteredObject& operator=(const MRegisteredObject&) = delete;

private:
  ID* id;
};
