#pragma once
// Mesh files: reading STL, PLY, OBJ and OFF (see
// native_readers.h) into a joined mesh on the integer grid, and writing STL, PLY, OBJ or OFF
// whole or not at all.
//
// Coordinates in files are file units. On the way in they are multiplied by
// `scale` (giving user units, millimetres for the default parameters) and by
// MUnit::GetIE() (giving grid units); on the way out they are divided by both.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zor/files/export.h"
#include "zor/model/input_error.h"
#include "zor/model/mesh_builder.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration {

struct LoadedMesh {
  std::unique_ptr<MStlBase> mesh;
  std::size_t fileVertices = 0;       // vertices as the file (after triangulation) has them
  std::size_t fileTriangles = 0;      // triangles read, before degenerate ones were dropped
  MStlBuildReport joined;             // vertices joined and degenerate triangles dropped
  std::vector<std::string> warnings;  // grid advice, one line each
  double seconds = 0.0;               // reading the file and building the mesh
};

// Reads `path` and builds its mesh. Throws InputError when the file is missing
// or unreadable, is not one of the four formats, is malformed, holds no triangle, or has a coordinate that is not
// finite or that leaves the 32-bit grid at this scale (the message then suggests a
// --scale).
ZOR_FILES_API LoadedMesh ReadMesh(const std::string& path, double scale);

// Advice when a mesh spans so few grid steps that rounding costs accuracy, or
// lies so far out that a move could carry it off the grid: one line each,
// naming a --scale.
ZOR_FILES_API std::vector<std::string> GridAdvice(const std::string& what, const MStlBase& mesh, double scale);

enum class MeshFormat { Stl, Ply, Obj, Off };

// The format the extension of `path` names (any case). Throws InputError for
// another extension, or when the folder that should hold the file does not
// exist.
ZOR_FILES_API MeshFormat CheckOutputPath(const std::string& path);

// Writes `mesh`, moved by `pose` when it is not null, to `path` in the format
// its extension names: binary STL and PLY unless `ascii`. The file is written
// beside its destination under a temporary name and renamed over it at the end,
// so a reader never sees half a file and a failure leaves nothing behind.
// Throws InputError when the file cannot be written.
ZOR_FILES_API void WriteMesh(const MStlBase& mesh, const MMTransformMatrix* pose, double scale, const std::string& path,
                             bool ascii);

// Writes the deviation map: `mesh` (moved by `pose` when not null) as binary PLY with
// each vertex's signed distance (`distances`, internal units, one per point in list
// order) as a float `quality` in file units and its colour (see DeviationColour, with
// `range` in internal units). A point whose flag in `counterpart` (when not empty, one
// per point) is 0 has no counterpart on the fixed surface and is grey, its distance kept
// as its quality. Throws InputError unless `path` ends in .ply, and as WriteMesh.
ZOR_FILES_API void WriteDeviationMap(const MStlBase& mesh, const MMTransformMatrix* pose, double scale,
                                     const std::string& path, const std::vector<double>& distances, double range,
                                     const std::vector<std::uint8_t>& counterpart = {});

}  // namespace ZorStlRegistration
