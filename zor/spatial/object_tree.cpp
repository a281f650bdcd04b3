#include "zor/spatial/detail/object_tree_build.h"
#include "zor/spatial/detail/thread_safe_property.h"

namespace MeshQueries {

template class detail::M3DObjectTree<detail::M3DObjectTreeParams<
    MeshVertex, std::int32_t, 3, detail::ObjectTreeDefaultAccessor<MeshVertex, IntBox>, std::vector<MeshVertex>>>;
template class detail::M3DObjectTree<
    detail::M3DObjectTreeParams<ZorMesh::StlBase::Handle::Triangle, std::int32_t, 3,
                                detail::ObjectTreeDefaultAccessor<ZorMesh::StlBase::Handle::Triangle, IntBox>,
                                std::vector<ZorMesh::StlBase::Handle::Triangle>>>;

tbb::spin_rw_mutex& ThreadSafePropertyBase::GetSharedMutex() {
  static tbb::spin_rw_mutex mutex;
  return mutex;
}

}  // namespace MeshQueries
