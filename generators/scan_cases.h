#pragma once
// Registration cases as scans bring them: a moving mesh made from a body (re-tessellated,
// cut, noisy, coarse) and placed by a seeded pose, with what a scanner brings along
// (loose fragments, a table and other objects), against the body as the fixed mesh, cut
// too where the case is a low overlap. Every case knows which of its moving points stand
// for a place of the fixed surface, so that a result can be judged against the truth.
// Deterministic: the same body, kind and seed give the same case.

#include <cstdint>
#include <string>
#include <vector>

#include "generators/mesh_arrays.h"
#include "zor/model/transform.h"

namespace zorgen {

enum class ScanKind {
  // Classic cases.
  Whole,     // the body re-tessellated
  Partial,   // 70% of it, cut by a plane
  Noisy,     // Gaussian noise of 0.2% of the diagonal per axis
  Remeshed,  // re-tessellated at 30% of the triangles
  // Scan scenes.
  Noise,        // Gaussian noise of 0.5% of the diagonal per axis
  Floaters,     // 30% more triangles, each the size of the body's own, loose through its box
  Debris,       // 30% more triangles, each about five of the body's edges across, loose through its box
  Scene,        // standing on a table 1.6 times its box, beside a box and a ball
  Overlap,      // both cut so that about 45% of the moving mesh lies on the fixed one
  Coarse,       // decimated to 5% of the triangles
  Combination,  // the overlap cut, 20% of the triangles, 0.3% noise and 10% debris
};

const char* ScanKindName(ScanKind kind);
// False for an unknown name.
bool ParseScanKind(const std::string& name, ScanKind& kind);
// Every kind, classic ones first.
std::vector<ScanKind> AllScanKinds();

struct ScanCase {
  MeshArrays moving;                  // in its own frame (the pose applied)
  MeshArrays fixed;                   // in its frame
  MeshArrays body;                    // the whole body in the fixed frame, uncut: what the truth lays points on
  std::vector<std::uint8_t> onFixed;  // per moving point: 1 where it stands for a place of the fixed surface
  MMTransformMatrix pose;             // fixed frame to moving frame; the right result is its inverse
  double noise = 0.0;                 // Gaussian noise per axis on the moving mesh, internal units
};

// The case of `kind` made from `body` (internal units; bodies of about 200 mm diagonal
// are what the kinds' sizes assume) and `seed`.
ScanCase MakeScanCase(const MeshArrays& body, ScanKind kind, std::uint64_t seed);

// A closed blob without any symmetry, about 1.4 : 1 : 0.7, egg-shaped along its length,
// with a few smooth lumps and hollows drawn from `seed`, of about `triangles` triangles
// over sphere rows.
MeshArrays MakeLumpyBody(std::uint64_t seed, std::int64_t triangles);

// `m` moved so that its box's centre is at the origin and scaled so that the box's
// diagonal is `diagonal`, rounded to whole units.
MeshArrays ScaledToDiagonal(const MeshArrays& m, double diagonal);

// The surface of `m` tessellated anew with about `share` of its triangles: each triangle
// split in four, then simplified (meshoptimizer), so that most vertices are new places
// on the surface.
MeshArrays Retessellated(const MeshArrays& m, double share);

}  // namespace zorgen
