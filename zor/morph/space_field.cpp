#include "zor/morph/detail/space_field.h"

#include <algorithm>
#include <cmath>

#include "zor/morph/detail/conjugate_gradient.h"
#include "zor/morph/detail/parallel_loops.h"

namespace ZorStlRegistration::detail {

namespace {

// Items per task at least: a fit works on a few thousand points and controls, where
// finer tasks cost more to hand out than they save.
constexpr std::size_t kGrain = 2048;

template <typename Body>
void ForEachItem(std::size_t count, const Body& body) {
  ForEachIndex(count, kGrain, body);
}

// The lattice's value at a place from its stencil.
MMVector3d Evaluate(const SpaceLattice& lattice, const std::vector<MMVector3d>& controls, const LatticeStencil& s) {
  const std::size_t nx = lattice.Controls(0), ny = lattice.Controls(1);
  MMVector3d sum;
  for (std::size_t c = 0; c < 4; ++c)
    for (std::size_t b = 0; b < 4; ++b) {
      const double wbc = s.basis[1][b] * s.basis[2][c];
      const std::size_t row = ((s.first[2] + c) * ny + s.first[1] + b) * nx + s.first[0];
      for (std::size_t a = 0; a < 4; ++a) sum = sum + controls[row + a] * (s.basis[0][a] * wbc);
    }
  return sum;
}

// How often control j on an axis of n controls enters the second differences along it:
// the diagonal of D^T D on that axis.
double BendingDiagonal(std::size_t j, std::size_t n) {
  double d = 0.0;
  if (j >= 2) d += 1.0;
  if (j >= 1 && j + 1 < n) d += 4.0;
  if (j + 2 < n) d += 1.0;
  return d;
}

// Inverse of the symmetric 3x3 matrix (xx, xy, xz, yy, yz, zz), upper triangle; zeros
// when it is singular.
std::array<double, 6> InverseOf(const std::array<double, 6>& m) {
  const double c00 = m[3] * m[5] - m[4] * m[4], c01 = m[2] * m[4] - m[1] * m[5], c02 = m[1] * m[4] - m[2] * m[3];
  const double det = m[0] * c00 + m[1] * c01 + m[2] * c02;
  if (!(std::fabs(det) > 0.0)) return {};
  const double f = 1.0 / det;
  return {c00 * f,
          c01 * f,
          c02 * f,
          (m[0] * m[5] - m[2] * m[2]) * f,
          (m[1] * m[2] - m[0] * m[4]) * f,
          (m[0] * m[3] - m[1] * m[1]) * f};
}

MMVector3d Times(const std::array<double, 6>& m, const MMVector3d& v) {
  return MMVector3d(m[0] * v[0] + m[1] * v[1] + m[2] * v[2], m[1] * v[0] + m[3] * v[1] + m[4] * v[2],
                    m[2] * v[0] + m[4] * v[1] + m[5] * v[2]);
}

}  // namespace

LatticeStencil StencilAt(const SpaceLattice& lattice, const MMVector3d& p) {
  LatticeStencil s;
  for (std::size_t k = 0; k < 3; ++k) {
    const double u = (p[k] - lattice.origin[k]) / lattice.spacing;
    const double top = static_cast<double>(lattice.cells[k]);
    // Clamped before the conversion: a place outside the box (or not a number) takes
    // the nearest cell's border.
    const double clamped = u > 0.0 ? std::min(u, top) : 0.0;
    std::size_t cell = static_cast<std::size_t>(clamped);
    if (cell >= lattice.cells[k]) cell = lattice.cells[k] - 1;
    const double t = clamped - static_cast<double>(cell), t2 = t * t, t3 = t2 * t, r = 1.0 - t;
    s.first[k] = cell;
    s.basis[k] = {r * r * r / 6.0, (3.0 * t3 - 6.0 * t2 + 4.0) / 6.0, (-3.0 * t3 + 3.0 * t2 + 3.0 * t + 1.0) / 6.0,
                  t3 / 6.0};
  }
  return s;
}

SpaceLattice& SpaceField::AddLattice(std::size_t cells) {
  const MMVector3d side = high - low;
  const double longest = std::max({side[0], side[1], side[2]});
  SpaceLattice lattice;
  const std::size_t count = std::max<std::size_t>(cells, 1);
  lattice.spacing = longest > 0.0 ? longest / static_cast<double>(count) : 1.0;
  std::size_t controls = 1;
  for (std::size_t k = 0; k < 3; ++k) {
    const double needed = std::ceil(side[k] / lattice.spacing - 1e-9);
    lattice.cells[k] = std::max<std::size_t>(1, static_cast<std::size_t>(std::max(needed, 1.0)));
    lattice.origin[k] = 0.5 * (low[k] + high[k]) - 0.5 * lattice.spacing * static_cast<double>(lattice.cells[k]);
    controls *= lattice.Controls(k);
  }
  lattice.controls.assign(controls, MMVector3d());
  lattices.push_back(std::move(lattice));
  return lattices.back();
}

MMVector3d SpaceField::At(const MMVector3d& p, std::size_t count) const {
  MMVector3d sum;
  for (std::size_t l = 0; l < count && l < lattices.size(); ++l) {
    const SpaceLattice& lattice = lattices[l];
    sum = sum + Evaluate(lattice, lattice.controls, StencilAt(lattice, p));
  }
  return sum;
}

std::size_t FitLattice(SpaceLattice& lattice, const std::vector<MMVector3d>& rest, const std::vector<MMVector3d>& base,
                       const std::vector<PlaneTerm>& terms, const SpaceFitWeights& weights, std::size_t maxIterations,
                       double relativeTolerance, SpaceFitScratch& s) {
  const std::size_t n = rest.size();
  const std::size_t nx = lattice.Controls(0), ny = lattice.Controls(1), nz = lattice.Controls(2);
  const std::size_t controls = lattice.controls.size();
  const std::size_t cx = lattice.cells[0], cy = lattice.cells[1], cz = lattice.cells[2];

  // The points of each cell, in point order (a counting sort).
  s.stencils.resize(n);
  ForEachItem(n, [&](std::size_t i) { s.stencils[i] = StencilAt(lattice, rest[i]); });
  const auto cellOf = [&](const LatticeStencil& st) { return (st.first[2] * cy + st.first[1]) * cx + st.first[0]; };
  s.cellStart.assign(cx * cy * cz + 1, 0);
  for (std::size_t i = 0; i < n; ++i) ++s.cellStart[cellOf(s.stencils[i]) + 1];
  for (std::size_t c = 0; c + 1 < s.cellStart.size(); ++c) s.cellStart[c + 1] += s.cellStart[c];
  s.pointOrder.resize(n);
  {
    std::vector<std::uint32_t> fill(s.cellStart.begin(), s.cellStart.end() - 1);
    for (std::size_t i = 0; i < n; ++i) s.pointOrder[fill[cellOf(s.stencils[i])]++] = static_cast<std::uint32_t>(i);
  }

  double totalWeight = 0.0;
  for (const PlaneTerm& t : terms) totalWeight += t.weight;
  const double perControl = totalWeight / static_cast<double>(controls);
  const double bending = weights.bending * perControl, ridge = weights.ridge * perControl;
  const std::size_t strides[3] = {1, nx, nx * ny};
  const std::size_t counts[3] = {nx, ny, nz};

  // Visits, in a fixed order, each point whose stencil holds control j with the
  // control's weight there.
  const auto forPoints = [&](std::size_t j, const auto& visit) {
    const std::size_t a = j % nx, b = (j / nx) % ny, c = j / (nx * ny);
    for (std::size_t kc = 0; kc < 4; ++kc) {
      if (c < kc || c - kc >= cz) continue;
      for (std::size_t kb = 0; kb < 4; ++kb) {
        if (b < kb || b - kb >= cy) continue;
        for (std::size_t ka = 0; ka < 4; ++ka) {
          if (a < ka || a - ka >= cx) continue;
          const std::size_t cell = ((c - kc) * cy + (b - kb)) * cx + (a - ka);
          for (std::uint32_t e = s.cellStart[cell]; e < s.cellStart[cell + 1]; ++e) {
            const std::uint32_t i = s.pointOrder[e];
            const LatticeStencil& st = s.stencils[i];
            visit(i, st.basis[0][ka] * st.basis[1][kb] * st.basis[2][kc]);
          }
        }
      }
    }
  };
  const auto gather = [&](std::size_t j, const std::vector<MMVector3d>& values) {
    MMVector3d sum;
    forPoints(j, [&](std::uint32_t i, double beta) { sum = sum + values[i] * beta; });
    return sum;
  };

  // The diagonal blocks of A, inverted.
  s.blocks.resize(controls);
  ForEachItem(controls, [&](std::size_t j) {
    std::array<double, 6> m{};
    forPoints(j, [&](std::uint32_t i, double beta) {
      const PlaneTerm& t = terms[i];
      const double w = t.weight * beta * beta;
      const MMVector3d& v = t.normal;
      m[0] += w * v[0] * v[0], m[1] += w * v[0] * v[1], m[2] += w * v[0] * v[2];
      m[3] += w * v[1] * v[1], m[4] += w * v[1] * v[2], m[5] += w * v[2] * v[2];
    });
    const double smooth = bending * (BendingDiagonal(j % nx, nx) + BendingDiagonal((j / nx) % ny, ny) +
                                     BendingDiagonal(j / (nx * ny), nz)) +
                          ridge;
    m[0] += smooth, m[3] += smooth, m[5] += smooth;
    s.blocks[j] = InverseOf(m);
  });

  // product = A x.
  const auto apply = [&](const std::vector<MMVector3d>& x, std::vector<MMVector3d>& product) {
    s.pointValues.resize(n);
    ForEachItem(n, [&](std::size_t i) {
      const PlaneTerm& t = terms[i];
      s.pointValues[i] =
          t.weight > 0.0 ? t.normal * (t.weight * ::Dot(t.normal, Evaluate(lattice, x, s.stencils[i]))) : MMVector3d();
    });
    ForEachItem(controls, [&](std::size_t j) { product[j] = gather(j, s.pointValues) + x[j] * ridge; });
    // Second differences along each axis: bent = D x, then product += D^T bent.
    s.bent.resize(controls);
    for (std::size_t axis = 0; axis < 3; ++axis) {
      const std::size_t step = strides[axis], count = counts[axis];
      ForEachItem(controls, [&](std::size_t j) {
        const std::size_t at = (j / step) % count;
        s.bent[j] = at >= 1 && at + 1 < count ? x[j - step] - x[j] * 2.0 + x[j + step] : MMVector3d();
      });
      ForEachItem(controls, [&](std::size_t j) {
        const std::size_t at = (j / step) % count;
        MMVector3d g = s.bent[j] * -2.0;
        if (at >= 1) g = g + s.bent[j - step];
        if (at + 1 < count) g = g + s.bent[j + step];
        product[j] = product[j] + g * bending;
      });
    }
  };

  // r = b - A x: the plane terms less what the base and the lattice's present controls
  // give.
  s.cg.residual.resize(controls);
  s.pointValues.resize(n);
  apply(lattice.controls, s.cg.residual);
  std::vector<MMVector3d>& target = s.pointValues;  // reused: the data side per point
  ForEachItem(n, [&](std::size_t i) {
    const PlaneTerm& t = terms[i];
    target[i] = t.weight > 0.0 ? t.normal * (t.weight * ::Dot(t.normal, t.place - rest[i] - base[i])) : MMVector3d();
  });
  ForEachItem(controls, [&](std::size_t j) { s.cg.residual[j] = gather(j, target) - s.cg.residual[j]; });
  const auto precondition = [&](std::size_t j, const MMVector3d& r) { return Times(s.blocks[j], r); };
  return SolveConjugateGradient(lattice.controls, s.cg, kGrain, maxIterations, relativeTolerance, apply, precondition);
}

}  // namespace ZorStlRegistration::detail
