#pragma once
// A displacement field over space, for the first stage of the field morph: the sum of
// uniform cubic B-spline lattices laid over one box, each finer than the last.
//
// The surface field of field_levels.h couples two points only along the surface. A
// motion along the surface (the ends of a bend seen from the side, a twist) is seen by
// no match there, and that field fills it in from the neighbours, which sit on the same
// blind side. A field over space couples the points across the body as well, so that
// a part of a motion which is along the surface on one side is taken from the other
// side of the body, where the same motion moves the surface along its normal and the
// matches see it. Smooth deformations of real parts (a bend, a twist, a local dent) are
// fields of this kind, and a few coarse lattices carry them whole; the surface levels
// then lay the points on the target within the tolerance.
//
// A lattice is fitted to point-to-plane terms of points at their rest places x_i, on
// top of the displacement `base_i` that the other lattices give them:
//   sum_i w_i (m_i . (x_i + base_i + f(x_i) - c_i))^2
//   + bending * sum of |second differences of the controls along each axis|^2
//   + ridge * sum of |control|^2,
// by conjugate gradients with a 3x3 block-Jacobi preconditioner. The bending term does
// not see a field that is affine (or multilinear) over the lattice, so a stretch, a
// turn or a twist costs nothing; the small ridge takes nothing that no match asks for.
//
// Every parallel loop writes its own slots, and every sum is taken in fixed blocks
// added in order, so results are bit-identical at any thread count.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/export.h"
#include "zor/model/mm_vector.h"
#include "zor/morph/detail/field_levels.h"

namespace ZorStlRegistration::detail {

struct SpaceLattice {
  MMVector3d origin;                   // the low corner of cell (0, 0, 0)
  double spacing = 1.0;                // cell side
  std::array<std::size_t, 3> cells{};  // cells per axis; controls per axis are cells + 3
  std::vector<MMVector3d> controls;    // x fastest, then y, then z

  std::size_t Controls(std::size_t axis) const { return cells[axis] + 3; }
};

// The 64 controls and weights of the lattice at one place: the first control's index
// on each axis and the four basis values per axis.
struct LatticeStencil {
  std::array<std::size_t, 3> first{};
  std::array<std::array<double, 4>, 3> basis{};
};

ZOR_API LatticeStencil StencilAt(const SpaceLattice& lattice, const MMVector3d& p);

class ZOR_API SpaceField {
public:
  SpaceField() = default;
  // A field of zeros over the box [lo, hi].
  SpaceField(const MMVector3d& lo, const MMVector3d& hi) : low(lo), high(hi) {}

  // Adds a lattice of zeros with `cells` cells along the box's longest side (at least 1)
  // and as many of the same size on the others as cover the box.
  SpaceLattice& AddLattice(std::size_t cells);

  MMVector3d At(const MMVector3d& p) const { return At(p, lattices.size()); }
  // The field of the first `count` lattices only.
  MMVector3d At(const MMVector3d& p, std::size_t count) const;
  bool Empty() const { return lattices.empty(); }
  const std::vector<SpaceLattice>& Lattices() const { return lattices; }

private:
  MMVector3d low, high;
  std::vector<SpaceLattice> lattices;
};

struct SpaceFitWeights {
  double bending = 0.0;  // second differences of the controls along each axis
  double ridge = 0.0;    // size of the controls
};

// Scratch of the fit, reused between fits of one run.
struct SpaceFitScratch {
  std::vector<LatticeStencil> stencils;
  std::vector<std::uint32_t> cellStart, pointOrder;
  std::vector<MMVector3d> pointValues, bent;
  std::vector<std::array<double, 6>> blocks;  // inverse of each control's diagonal block, upper triangle
  ConjugateGradientVectors cg;
};

// Fits the controls of `lattice` (warm start: their values on entry) to the terms of
// the points at `rest`, each already displaced by `base`. At most `maxIterations`
// conjugate-gradient steps; stops early when the preconditioned residual norm falls
// below `relativeTolerance` times its first value. The weights are per point of data:
// they are scaled by the sum of the terms' weights over the control count. Returns the
// steps taken.
ZOR_API std::size_t FitLattice(SpaceLattice& lattice, const std::vector<MMVector3d>& rest,
                               const std::vector<MMVector3d>& base, const std::vector<PlaneTerm>& terms,
                               const SpaceFitWeights& weights, std::size_t maxIterations, double relativeTolerance,
                               SpaceFitScratch& scratch);

}  // namespace ZorStlRegistration::detail
