#pragma once
// Mass properties of meshes: centre of gravity and principal axes of inertia.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/services/export.h"

// What carries the mass.
enum GravityType : std::int32_t {
  // The body the meshes make: the solid they bound when their surfaces close, the shell
  // otherwise. For callers that take closed parts and open scans alike.
  GravityBody = 0,
  // A shell of uniform density per area: the surface itself. Works for open meshes
  // such as scans.
  GravityShell = 1,
  // A solid of uniform density bounded by the meshes. Needs closed surfaces: the
  // triangles' area vectors must cancel out (to 1e-9 of their total length). An
  // inside-out surface counts as the same solid.
  GravitySolid = 2,
};

// Centre of gravity and inertia axes of one or more meshes, each under its own
// placement. Sums run in a fixed order, so results are identical on every run and at
// any thread count.
//
// Use: SetGravityType, AddStl for each mesh, Operate, then read the results.
class ZOR_SERVICES_API MStlBaseOperatorGeomProperties {
public:
  MStlBaseOperatorGeomProperties() = default;
  void SetGravityType(GravityType type) { gravityType = type; }
  // The mesh must outlive Operate; the placement is copied.
  void AddStl(const MStlBase& mesh, const MMTransformMatrix& placement);

  // False, leaving the results zero, when there is no triangle, the mass (volume or
  // area) is zero, a solid's surface is not closed, or the gravity type is unknown.
  // GravityBody fails only where the shell would.
  bool Operate();

  // Mass: volume (solid) or area (shell), in internal units cubed or squared.
  double GetMass() const { return mass; }
  MMVector3d GetGravityCenter() const { return centre; }
  // Principal axes by ascending moment of inertia: axis 0 is the one the body turns
  // about most easily (the long axis of a rod). Each is a unit vector; axes 0 and 1
  // have their largest component positive (the first of equal ones), and axis 2 is
  // axis 0 x axis 1, so the frame is right-handed. i > 2 gives the zero vector.
  MMVector3d GetInertiaAxis(std::size_t i) const { return i < 3 ? axes[i] : MMVector3d(); }
  // Principal moments about the centre for unit density, ascending, matching the axes.
  double GetInertiaMoment(std::size_t i) const { return i < 3 ? moments[i] : 0.0; }

private:
  struct Input {
    const MStlBase* mesh;
    MMTransformMatrix placement;
  };
  std::vector<Input> inputs;
  GravityType gravityType = GravityShell;
  double mass = 0.0;
  MMVector3d centre;
  MMVector3d axes[3];
  double moments[3] = {0.0, 0.0, 0.0};
};

// The centre of gravity of the mesh's surface (a shell of uniform density), in
// internal units. A mesh without area gives the mean of its points; an empty mesh
// gives the origin.
ZOR_SERVICES_API MMVector3d GetGravityCenter(const MStlBase& mesh);
