#pragma once
// A typed view on a point mask: its user speaks handles and vectors of one component
// type, the mask stores another. The morph writes its displacements as double vectors
// through it and the mask keeps them as floats, half the memory per point.

#include <cstddef>
#include <type_traits>

#include "zor/model/mm_vector.h"

namespace ZorMesh::StlBase::Adapters {

// `Element` has GetMaskIndex(); `Value` and the mask's Info are MMVector<., 3>. The
// adapter holds one pointer and does not own the mask. Reads widen, writes narrow
// each component (double to float rounds to nearest). Threading as the mask's:
// distinct elements may be written from many threads while the mesh does not change.
template <typename Element, typename Value, typename Mask>
class MStlBaseMaskAdapter {
public:
  explicit MStlBaseMaskAdapter(Mask* m) : mask(m) {}

  Value GetInfo(const Element& e) const { return Value(mask->GetInfo(e.GetMaskIndex())); }
  void SetInfo(const Element& e, const Value& value) const {
    using Stored = std::decay_t<decltype(mask->GetInfo(std::size_t{0}))>;
    mask->SetInfo(e.GetMaskIndex(), Stored(value));
  }
  Mask* GetMask() const { return mask; }

private:
  Mask* mask;
};

}  // namespace ZorMesh::StlBase::Adapters
