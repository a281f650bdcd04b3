#include "zor/model/stl_vector_mask_points.h"

#include <memory>

#include "zor/model/stl_base.h"

MStlVectorMaskPoints* MStlVectorMaskPoints::Create(MStlBase* mesh, const std::wstring& name) {
  if (mesh == nullptr) return nullptr;
  if (auto* existing = dynamic_cast<MStlVectorMaskPoints*>(mesh->_FindOwnedMask(name))) {
    existing->ResetAll();
    return existing;
  }
  std::unique_ptr<MStlVectorMaskPoints> mask(new MStlVectorMaskPoints(mesh->GetMasks(), name));
  return static_cast<MStlVectorMaskPoints*>(mesh->_AdoptOwnedMask(name, std::move(mask)));
}
