#pragma once
// The local surface evaluation of a mesh: the patch of triangles around a point,
// clipped by a sphere, and the quadric fitted to it, which give the normal (and a
// curvature) at that point.
//
// Deterministic, with no random source. A SurfacePatchEvaluator holds working buffers
// and is used by one thread at a time (CloneForAnotherThread gives each thread its
// own); the mesh must not change while it is in use.

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "zor/export.h"
#include "zor/model/data_mask.h"
#include "zor/model/stl_base.h"

namespace ZorStlRegistration {

// The neighbours of a triangle across its edges 0, 1, 2 (edge e joins corners e and
// (e + 1) % 3), or null where the edge is open, shared by more than two triangles, or
// a crease.
struct MAdjacentTrianglesCalculatorCached {
  struct MTriangleNeighbours {
    MStlTriangle* across[3] = {nullptr, nullptr, nullptr};
  };
};

struct SurfaceEvaluation {
  double curvature = 0.0;
  MMVector3d normal;
};

// The local surface evaluation of one mesh. Set the fields, then Initialise; after
// that, SurfacePatch and Evaluate may be called any number of times.
class ZOR_API SurfacePatchEvaluator {
public:
  double radius = 0.0;                 // internal units
  std::int32_t curvatureKind = 1;      // 0 mean, 1 Gaussian, 2 K1, 3 K2, other: 0.0
  std::int32_t neighbourhoodRule = 0;  // the flood fill over neighbours; the only rule
  double edgeStep = 0.0;               // extra points along edges: off (the only setting)
  bool fitFlag = true;                 // handed to the quadric fit (refine the normal)
  double creaseCosine = 0.0;           // neighbours whose normals' dot product is at most this are not joined

  // Binds the evaluator to the container's mesh and builds the neighbour table (in
  // parallel) and the working masks.
  void Initialise(const MStlBaseContainer& meshContainer);

  // The patch of the triangles around the point with weights `bary` of the seed's
  // corners, clipped by the sphere of `patchRadius` about it: vertex points and edge cut
  // points, each with its weight (an area), and the area-weighted unit normal. A seed
  // with no corner inside the sphere gives empty lists and the seed's normal. Edge cuts
  // are computed from the edge's end points in a fixed order, so the two triangles on an
  // edge give bit-identical cut points, whose weights meet in one entry.
  void SurfacePatch(MStlTriangle* seed, const double bary[3], double patchRadius, std::vector<MMVector3d>& points,
                    std::vector<double>& weights, MMVector3d& patchNormal);

  // The normal (and the curvature of `curvatureKind`) at that point: a patch of
  // `radiusOverride` (or `radius` when it is not above 0), doubled up to four times
  // until it has 6 entries, fitted with a quadric. Falls back to the patch normal when
  // the fit fails and to the triangle's normal when the patch stays too small.
  SurfaceEvaluation Evaluate(MStlTriangle* triangle, const double bary[3], bool unused, double radiusOverride);

  const MStlBaseContainer& GetContainer() const { return container; }

  // An evaluator of the same settings and mesh for another thread: it shares this
  // one's neighbour table (which is only read) and has working buffers of its own. It
  // gives the same results as this one.
  std::unique_ptr<SurfacePatchEvaluator> CloneForAnotherThread() const;

private:
  void _AddVertexWeight(MStlPoint* point, double w);

  using NeighbourTable = MDataMask<MStlTriangle, MAdjacentTrianglesCalculatorCached::MTriangleNeighbours>;

  MStlBaseContainer container{nullptr};
  std::shared_ptr<const NeighbourTable> neighbours;
  std::vector<MMVector3d> points;
  std::vector<double> weights;
  MDataMask<MStlPoint, double> vertexWeight{0.0};
  std::vector<MStlPoint*> touchedVertices;
  std::vector<std::pair<MMVector3d, double>> cutWeight;  // merged by key at output
  MDataMask<MStlTriangle, std::uint8_t> visited{0};
  std::vector<MStlTriangle*> visitedList;
  std::vector<MStlTriangle*> stack;
};

}  // namespace ZorStlRegistration
