#pragma once
// Smooth normals of a mesh: at a point of a triangle, and at a mesh point.
//
// Both read the mesh's coordinates at the time of the call and cache nothing, so their
// answers follow points that move between calls. Const members may run from any number
// of threads at once while no thread changes the mesh.

#include <cstdint>

#include "zor/model/stl_base.h"
#include "zor/services/export.h"

// Outcome codes of the normal calculator.
enum class EReturnCode : std::int32_t {
  Ok = 0,
  NoModel = 1,       // no mesh was set
  BadParameter = 2,  // unknown mode, or a null argument
  NotPrepared = 3,   // QueryResult before Preprocess
  Degenerate = 4,    // no normal exists at that place (all triangles around it flat)
};

// The weighting of a mesh point's normal over the triangles around it.
enum ePointNormalMethod : std::int32_t {
  ePointNormalMean = 0,   // plain mean of the unit triangle normals
  ePointNormalArea = 1,   // weighted by triangle area
  ePointNormalAngle = 2,  // weighted by the triangle's angle at the point (Thurmer and Wuthrich):
                          // independent of how the fan is triangulated
};

// The unit normal at a mesh point; false, leaving `normal` as it was, for a point
// without triangles, an unknown method, or a fan whose weighted sum vanishes.
ZOR_SERVICES_API bool ComputePointNormal(MMVector3d& normal, const MStlPoint& point, ePointNormalMethod method);

// A point-normal operator that a caller configures once and applies to many points.
class ZOR_SERVICES_API MStlBaseMaskOperatorComputePointNormalVectors {
public:
  MStlBaseMaskOperatorComputePointNormalVectors() = default;
  void SetMethod(const ePointNormalMethod& m) { method = m; }
  ePointNormalMethod GetMethod() const { return method; }
  // The unit normal of `point` in float; see ComputePointNormal.
  bool ComputeNormalCurrentMethod(MMVector3f& normal, const MStlPoint& point) const;

private:
  ePointNormalMethod method = ePointNormalAngle;
};

// Normals at any point of a triangle of one mesh.
//
// Modes: 0 gives the triangle's own (flat) normal; 1 gives the smooth normal, the
// barycentric blend of the normals of the triangle's three corners, which turns
// continuously across edges and equals the corner's normal at a corner. A corner's
// normal takes only the triangles around it whose normal lies within `creaseAngle` of
// the queried triangle's, so that a smooth normal does not bend over a sharp edge.
//
// Use: SetInputModel, SetParams, Preprocess once, then QueryResult from any threads.
// Preprocess only checks the set-up; queries read current coordinates, so the mesh may
// move its points between queries (never during one) without a new Preprocess.
class ZOR_SERVICES_API MUserOperatorNormalCalculator {
public:
  struct ZOR_SERVICES_API MParams {
    double creaseAngle = 180.0;                        // degrees; 180 or more: no crease
    ePointNormalMethod weighting = ePointNormalAngle;  // weights of a corner's triangles
    std::int32_t mode = 1;                             // 0 flat triangle normal, 1 smooth blended normal
  };

  MUserOperatorNormalCalculator() = default;
  void SetInputModel(const MStlBase* mesh) {
    model = mesh;
    prepared = false;
  }
  void SetParams(MParams p) {
    params = p;
    prepared = false;
  }
  // NoModel without a mesh, BadParameter for an unknown mode or weighting or a crease
  // angle that is not a number; Ok otherwise.
  EReturnCode Preprocess();

  // Writes the unit normal at the point of `triangle` (a triangle of the model) with
  // weights `barycentric[0..2]` of its corners. On any code but Ok, `normal` is left as
  // it was. A blend that cancels out falls back to the flat normal; a flat normal of
  // zero (a degenerate triangle) gives Degenerate.
  EReturnCode QueryResult(MMVector3d& normal, MStlTriangle* triangle, const double* barycentric) const;

private:
  const MStlBase* model = nullptr;
  MParams params;
  double creaseCosine = -2.0;  // below every cosine: no filter
  bool prepared = false;
};
