#pragma once
// A derived value cached on a mesh (a spatial tree), made on first demand and shared
// by all threads. One process-wide reader-writer spin lock guards the look-up tables
// of all meshes and the state of every property; it is held for short steps only,
// never during a build or a wait.
//
// A property type P provides: P(MeshHandle), bool IsValid() const, void SetValidated(),
// void Fill() (builds; may throw; called with no lock held) and GetTree() const. It
// follows its mesh and drops its tree, clearing its validity, at any change.
//
// Concurrent requests for an invalid property share one build: the first one starts
// it and all of them wait in tbb::collaborative_call_once, whose waiters help run the
// build's parallel work. A build that throws hands its exception to every request that
// waited for it; the next request after that starts a new build.

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include <oneapi/tbb/collaborative_call_once.h>
#include <oneapi/tbb/spin_rw_mutex.h>

#include "zor/model/stl_base.h"
#include "zor/spatial/export.h"
#include "zor/spatial/m3d_object_tree.h"

namespace MeshQueries {

class ZOR_SPATIAL_API ThreadSafePropertyBase {
public:
  // The one lock shared by all properties of all meshes.
  static tbb::spin_rw_mutex& GetSharedMutex();
};

template <typename P, typename Mesh>
class ThreadSafeProperty : public ThreadSafePropertyBase {
public:
  explicit ThreadSafeProperty(Mesh mesh) : property(std::make_unique<P>(mesh)) {}
  ThreadSafeProperty(const ThreadSafeProperty&) = delete;
  ThreadSafeProperty& operator=(const ThreadSafeProperty&) = delete;

  P& GetProperty() { return *property; }
  const P& GetProperty() const { return *property; }

  // Makes the property valid, building it or waiting for the build under way.
  // Rethrows the exception of the build it waited for. Call with no lock held.
  void RequestBuild() {
    using Lock = tbb::spin_rw_mutex::scoped_lock;
    std::shared_ptr<BuildRun> run;
    {
      Lock lock(GetSharedMutex(), true);
      if (property->IsValid()) return;
      if (!rootTask || rootTask->finished) rootTask = std::make_shared<BuildRun>();
      run = rootTask;
      ++waiters;
    }
    tbb::collaborative_call_once(run->once, [&] { _Build(*run); });
    std::exception_ptr error;
    {
      Lock lock(GetSharedMutex(), true);
      --waiters;
      error = run->failure;
    }
    if (error) std::rethrow_exception(error);
  }

private:
  // One build and everyone who waits for it.
  struct BuildRun {
    tbb::collaborative_once_flag once;
    std::exception_ptr failure;
    bool finished = false;  // guarded by the shared lock
  };

  void _Build(BuildRun& run) noexcept {
    using Lock = tbb::spin_rw_mutex::scoped_lock;
    std::exception_ptr error;
    try {
      property->Fill();
    } catch (...) {
      error = std::current_exception();
    }
    Lock lock(GetSharedMutex(), true);
    if (!error) property->SetValidated();
    failure = error;
    run.failure = error;
    run.finished = true;
  }

  std::shared_ptr<BuildRun> rootTask;  // the build under way or the last one
  std::uint64_t waiters = 0;
  std::exception_ptr failure;  // of the last build; null after a good one
  std::unique_ptr<P> property;
};

namespace detail {

// The wrapper of type W in the mesh's dependency table, made when `create` is true.
template <typename W>
W* FindDependencyWrapper(const MStlBase* mesh, bool create) {
  MStlBaseDependencies& dependencies = mesh->GetDependencies();
  const std::size_t slot = GetDepTypeIndex<W>();
  if (IStlDependency* found = dependencies.Get(slot)) return dynamic_cast<W*>(found);
  if (!create) return nullptr;
  return static_cast<W*>(dependencies.Put(slot, std::make_unique<W>()));
}

}  // namespace detail

// The property P of `mesh`, made valid: looked up (or made) under the shared lock,
// then built outside it if needed. Returns P::GetTree(), null for a null mesh.
template <typename P>
auto GetCachedProperty(MeshHandle mesh) -> decltype(std::declval<const P&>().GetTree()) {
  using Property = ThreadSafeProperty<P, MeshHandle>;
  using Wrapper = ZorMesh::StlBase::Handle::StlConstDependencyWrapper<std::shared_ptr<Property>,
                                                                      ZorMesh::StlBase::Handle::StlBasePolicy>;
  if (mesh.GetStl() == nullptr) return nullptr;
  static const std::wstring key;
  tbb::spin_rw_mutex::scoped_lock lock(ThreadSafePropertyBase::GetSharedMutex(), false);
  Wrapper* wrapper = detail::FindDependencyWrapper<Wrapper>(mesh.GetStl(), false);
  if (wrapper == nullptr || !wrapper->exist(key)) {
    // The upgrade may let another thread in first: look again.
    lock.upgrade_to_writer();
    wrapper = detail::FindDependencyWrapper<Wrapper>(mesh.GetStl(), false);
    if (wrapper == nullptr || !wrapper->exist(key)) {
      auto made = std::make_shared<Property>(mesh);
      wrapper = detail::FindDependencyWrapper<Wrapper>(mesh.GetStl(), true);
      wrapper->put(key, std::move(made));
    }
    lock.downgrade_to_reader();
  }
  const std::shared_ptr<Property> property = wrapper->get(key);
  if (property->GetProperty().IsValid()) return property->GetProperty().GetTree();
  lock.release();
  property->RequestBuild();
  return property->GetProperty().GetTree();
}

}  // namespace MeshQueries
