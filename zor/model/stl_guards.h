#pragma once
// Scoped edits of a mesh. Each guard opens an edit batch: the change events of the
// edits made while it lives are collected and sent once when it ends.

#include <cstdint>
#include <vector>

#include "zor/model/export.h"
#include "zor/model/stl_base.h"

// While it lives, the mesh's points read as moved by `transform` (each coordinate
// rounded to nearest, halves away from zero); its destructor puts back the exact
// coordinates. With `flipReflections` true and a transform of negative determinant,
// triangle windings are reversed too (and restored), so the mesh stays outward-facing.
// Throws std::out_of_range, changing nothing, when a moved coordinate leaves the 32-bit
// range. Points and triangles must not be added or removed while it lives.
class ZOR_MODEL_API MStlTempTransformation {
public:
  MStlTempTransformation(MStlBase& mesh, const MMTransform& transform, bool flipReflections);
  virtual ~MStlTempTransformation();
  MStlTempTransformation(const MStlTempTransformation&) = delete;
  MStlTempTransformation& operator=(const MStlTempTransformation&) = delete;

private:
  MStlBase& mesh;
  std::vector<MMVector3i> original;
  bool flipped = false;
};

// For bulk insertion: while it lives, points and triangles are added without sending a
// change event for each; one event goes out at its end. The coordinate index that
// merges points is dropped at its start and built again on the next look-up, so that
// points added as new cost no index work. `active` false makes the guard do nothing.
class ZOR_MODEL_API MStlTempPointSortingDisabler {
public:
  MStlTempPointSortingDisabler(MStlBase* mesh, bool active);
  ~MStlTempPointSortingDisabler();
  MStlTempPointSortingDisabler(const MStlTempPointSortingDisabler&) = delete;
  MStlTempPointSortingDisabler& operator=(const MStlTempPointSortingDisabler&) = delete;

private:
  MStlBase* mesh;
};

// While it lives, points may be moved one by one with MStlPoint::Set; the destructor
// settles the mesh: the merge index and extremes follow the new coordinates and the
// followers hear once that points moved. `active` false makes the guard do nothing.
class ZOR_MODEL_API MStlBaseOperatorHelperDirectPointChange {
public:
  MStlBaseOperatorHelperDirectPointChange(MStlBase* mesh, bool active);
  ~MStlBaseOperatorHelperDirectPointChange();
  MStlBaseOperatorHelperDirectPointChange(const MStlBaseOperatorHelperDirectPointChange&) = delete;
  MStlBaseOperatorHelperDirectPointChange& operator=(const MStlBaseOperatorHelperDirectPointChange&) = delete;

private:
  MStlBase* mesh;
};
