#pragma once
// What a registration learns of a scan before it searches and when it judges a result:
// the connected pieces of the mesh and which of them are loose fragments beside the body
// (floaters and debris of photogrammetry, small islands of a range scan), how rough its
// surface is (noise, or the chords of a coarse tessellation), and how open it is (a
// closed model, or a view).
//
// Threading: the functions only read the mesh; several may run at once on one mesh
// while no thread changes it. Results do not depend on the number of threads.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "zor/model/stl_base.h"
#include "zor/services/export.h"

namespace ZorStlRegistration {

inline constexpr std::uint32_t kNoPiece = 0xFFFFFFFFu;

struct MeshPieces {
  // The piece of each point, by the point's mask index; kNoPiece for a point that no
  // triangle uses. Pieces are numbered in the order their first point comes in the list.
  std::vector<std::uint32_t> pieceOfPoint;
  std::vector<double> area;              // of each piece, internal units squared
  std::vector<std::uint32_t> triangles;  // of each piece
  std::vector<std::uint8_t> loose;       // of each piece: 1 for a loose fragment
  double totalArea = 0.0;
  std::size_t loosePieces = 0;
  double looseArea = 0.0;

  bool IsLoose(const MStlPoint& p) const {
    const std::uint32_t piece = pieceOfPoint[p.GetMaskIndex()];
    return piece != kNoPiece && loose[piece] != 0;
  }
};

// The pieces of `mesh` (triangles joined through shared points). A piece is loose when
// its area is below `looseShare` of the largest piece's; unless even the largest piece
// holds less than a twentieth of the triangles: a mesh in many small pieces (a triangle
// soup) is a body of its own, and nothing of it is loose. Loose fragments may hold far
// more area than the body (a small part in a big messy scan).
ZOR_SERVICES_API MeshPieces FindPieces(const MStlBase& mesh, double looseShare = 0.02);

// The pieces of `pieces` that are bodies of their own: not loose, and at least
// `bodyShare` of the largest piece's area (a part and the table it stands on; not a
// fragment a little above the loose share).
ZOR_SERVICES_API std::size_t CountBodies(const MeshPieces& pieces, double bodyShare = 0.1);

// A copy of `mesh` without its loose pieces, or null when it has none.
ZOR_SERVICES_API std::unique_ptr<MStlBase> WithoutLoosePieces(const MStlBase& mesh, const MeshPieces& pieces);

// How far the points of `mesh` lie off the plane of their neighbours, robustly: the
// median over up to `samples` points (every k-th in list order) of the distance from a
// point to the mean of its neighbours, along its normal, divided by 0.7 so that it
// reads as the standard deviation of Gaussian noise along the normal. On a clean mesh it
// is the depth of its chords, on a noisy one the noise. Zero for a mesh without
// triangles. Points of loose pieces of `pieces` (when given) do not count: a loose
// triangle's corners lie in its own plane.
ZOR_SERVICES_API double SurfaceRoughness(const MStlBase& mesh, const MeshPieces* pieces = nullptr,
                                         std::size_t samples = 20000);

// The noise of the points of `mesh`, robustly, apart from how coarse its tessellation
// is: a point's offset from its neighbours (as in SurfaceRoughness) less the mean of
// their offsets, whose median over up to `samples` points is scaled to read as the
// standard deviation of Gaussian noise. The curvature of a coarse but clean
// tessellation changes little from point to point, and scores little. Points of loose
// pieces do not count.
ZOR_SERVICES_API double SurfaceNoise(const MStlBase& mesh, const MeshPieces* pieces = nullptr,
                                     std::size_t samples = 5000);

// How open `mesh` is: the area its open borders enclose (each loop of border edges
// spanned by its vector area) over the area of its surface. 0 for a closed surface, a
// few percent for a model with small holes, about a half for a range view or a
// hemisphere. Loose pieces of `pieces` (when given) do not count.
ZOR_SERVICES_API double HoleShare(const MStlBase& mesh, const MeshPieces* pieces = nullptr);

}  // namespace ZorStlRegistration
