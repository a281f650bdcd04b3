#pragma once
// The rough shape of a mesh and the candidate frames it gives.
//
// A mesh's principal frame is its centre of gravity with its three principal axes,
// sorted by how far the mesh spreads along each. Two nearly equal spreads make a body
// rotationally symmetric about the third axis, so a frame built on those two would be
// arbitrary; three distinct spreads make the axes landmarks that two meshes share. The
// frame generators here turn that reading into poses to try: the four sign choices of
// a box's axes, or rotations about one symmetry axis.

#include <cstdint>
#include <utility>
#include <vector>

#include "zor/export.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration {

struct PrincipalFrame {
  enum Flags : std::uint32_t {
    kRod = 0x01,   // the two smallest spreads nearly equal: symmetric about axis 2
    kDisc = 0x10,  // the two largest spreads nearly equal: symmetric about axis 0
  };
  struct Axis {
    MMVector3d axis;      // unit principal axis (zero for a mesh without area)
    double spread = 0.0;  // RMS distance of the mesh's points to the plane through the centre across `axis`
  };
  MMVector3d centre;  // centre of gravity of the surface
  Axis axes[3];       // by growing spread: 0 is the thin direction, 2 the long one
  std::uint32_t flags = 0;
};

struct AxisSymmetryResult {
  std::uint32_t code = 0;  // the union of both meshes' PrincipalFrame flags
  bool valid = false;      // false when either mesh has no point
};

// Reads the frame of `mesh` in internal units. Two spreads are "nearly equal" when
// their difference is below `tolerance` times the larger. The mesh is not checked: an
// empty one gives spreads that are not numbers and no flag.
ZOR_API PrincipalFrame AnalyzePrincipalFrame(const MStlBase& mesh, double tolerance);

// Both frames at once (in parallel); the more symmetric mesh decides, since an axis
// that one mesh cannot define is of no use for matching however clear the other's is.
ZOR_API AxisSymmetryResult ClassifyAxisSymmetry(const MStlBase& moving, const MStlBase& fixed, double tolerance);

// The four right-handed frames on axes 0 and 1 of `frame` and their signs, in the order
// (+a, +b), (+a, -b), (-a, +b), (-a, -b); axis 2 of each frame is a x b. They are the
// four ways in which the axes of one box can agree with those of another.
ZOR_API std::vector<MMTransformMatrix> SignFrames(const PrincipalFrame& frame);

// 2 * steps frames whose Z axis lies on the line through `centre` along `axis`: the
// first `steps` along +axis, the others along -axis, each half turned by multiples of
// 2 pi / steps about +axis.
ZOR_API std::vector<MMTransformMatrix> AxisRotationFrames(const MMVector3d& axis, const MMVector3d& centre,
                                                          std::uint64_t steps);

// The smallest and the largest value of p . axis over the mesh's points; (largest
// double, -largest double) for a mesh without points.
ZOR_API std::pair<double, double> ProjectionInterval(const MStlBase& mesh, const MMVector3d& axis);

// ProjectionInterval of the mesh as `pose` would place it, each moved point rounded to
// the grid exactly as a transformation of the mesh rounds it, without moving the mesh.
// False, with `interval` unchanged, when a moved point would leave the 32-bit grid.
ZOR_API bool PlacedProjectionInterval(const MStlBase& mesh, const MMTransformMatrix& pose, const MMVector3d& axis,
                                      std::pair<double, double>& interval);
// The same over an array of the mesh's points, in parallel (the least and the greatest
// value do not depend on the order they are found in).
ZOR_API bool PlacedProjectionInterval(const std::vector<MMVector3d>& points, const MMTransformMatrix& pose,
                                      const MMVector3d& axis, std::pair<double, double>& interval);

// 2 + 4 n^2 unit directions: the two poles, then rings from the equator towards the
// poles, ring i of 4 (n - i) directions, mirrored across the equator except the
// equator itself.
ZOR_API std::vector<MMVector3d> MakeDirectionSphere(std::uint64_t n);

// For each direction d in order, m rotations about the origin that take Z onto d, each
// turned 2 pi / m further about d than the one before.
ZOR_API std::vector<MMTransformMatrix> MakeSphereRotations(const std::vector<MMVector3d>& directions, std::uint64_t m);

}  // namespace ZorStlRegistration
