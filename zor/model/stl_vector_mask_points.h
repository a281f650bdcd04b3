#pragma once
#include <string>

#include "zor/model/data_mask.h"
#include "zor/model/export.h"
#include "zor/model/mm_vector.h"

class MStlBase;

// A named point mask of float vectors that its mesh owns: made only by Create, never
// deleted by a caller, gone with the mesh.
class ZOR_MODEL_API MStlVectorMaskPoints : public MDataMask<MStlPoint, MMVector3f> {
public:
  // The mask of that name on `mesh`, every entry zero. Asking again for a name returns
  // the same mask, reset to zero. Null for a null mesh.
  static MStlVectorMaskPoints* Create(MStlBase* mesh, const std::wstring& name);
  const std::wstring& GetName() const { return name; }

private:
  MStlVectorMaskPoints(IDataMaskOwner& meshMasks, const std::wstring& n)
      : MDataMask(meshMasks, MMVector3f()), name(n) {}
  std::wstring name;
};
