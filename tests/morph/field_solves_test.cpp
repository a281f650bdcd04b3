// The two fits of the field morph against a direct solve: the energies their headers
// state, assembled here as dense matrices and solved by Eigen, must give what the
// conjugate gradients give, run to convergence on small cases.
#include <cmath>
#include <random>
#include <vector>

#include <Eigen/Dense>
#include <gtest/gtest.h>

#include "generators/small_meshes.h"
#include "support/mesh_checks.h"
#include "zor/morph/detail/field_levels.h"
#include "zor/morph/detail/space_field.h"

namespace {

using ZorStlRegistration::detail::FieldLevel;
using ZorStlRegistration::detail::PlaneTerm;

// Random plane terms, every fifth without weight (left to its neighbours).
std::vector<PlaneTerm> RandomTerms(const std::vector<MMVector3d>& rest, std::mt19937& rng) {
  std::normal_distribution<double> n(0.0, 1.0);
  std::vector<PlaneTerm> terms(rest.size());
  for (std::size_t i = 0; i < rest.size(); ++i) {
    MMVector3d normal(n(rng), n(rng), n(rng));
    Normalize(normal);
    terms[i].normal = normal;
    terms[i].place = rest[i] + MMVector3d(n(rng), n(rng), n(rng)) * 3.0;
    terms[i].weight = i % 5 == 4 ? 0.0 : 0.5 + 0.5 * std::fabs(n(rng));
  }
  return terms;
}

// Adds w m m^T to the 3x3 block (i, j) of `a`.
void AddOuter(Eigen::MatrixXd& a, std::size_t i, std::size_t j, const MMVector3d& m, const MMVector3d& v, double w) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) a(3 * i + r, 3 * j + c) += w * m[r] * v[c];
}

// The surface field: sum_i w_i (m_i . (x_i + d_i - c_i))^2 + bending |K d|^2 + membrane
// (sum over listed edges of |d_i - d_j|^2, each edge listed from both ends, halved) +
// strain (the same over (e . (d_i - d_j))^2) + ridge |d|^2 + tangent |d - (n . d) n|^2 +
// tie |d_apex - (1 - t) d_a - t d_b|^2 over the tied triangles (here every one).
TEST(FieldSolves, TheSurfaceFieldIsTheDirectSolveOfItsEnergy) {
  const auto grid = zorgen::MakeGrid(5, 10);
  FieldLevel level;
  level.rest = zortest::AllPoints(*grid);
  std::vector<std::uint32_t> triangles;
  std::vector<const MStlPoint*> order;
  for (const MStlPoint* p = grid->GetFirstPoint(); p != nullptr; p = p->GetNext()) order.push_back(p);
  for (auto it = grid->BeginTriangle(); it != grid->EndTriangle(); ++it)
    for (std::size_t k = 0; k < 3; ++k)
      triangles.push_back(static_cast<std::uint32_t>(
          std::find(order.begin(), order.end(), static_cast<const MStlTriangle*>(it)->GetPoint(k)) - order.begin()));
  const std::size_t n = level.rest.size();
  level.graph = ZorStlRegistration::detail::GraphOfTriangles(n, triangles);
  ZorStlRegistration::detail::MeasureEdges(level);
  ZorStlRegistration::detail::TieThinTriangles(level, triangles, 1.0);
  ASSERT_EQ(level.ties.size(), triangles.size() / 3);
  std::mt19937 rng(11);
  const std::vector<PlaneTerm> terms = RandomTerms(level.rest, rng);
  std::normal_distribution<double> normal(0.0, 1.0);
  level.normals.resize(n);
  for (MMVector3d& m : level.normals) {
    m = MMVector3d(normal(rng), normal(rng), normal(rng));
    Normalize(m);
  }
  const ZorStlRegistration::detail::FieldWeights weights{0.7, 0.05, 0.3, 0.002, 0.4, 0.8};

  // A x = b, assembled from the energy.
  Eigen::MatrixXd a = Eigen::MatrixXd::Zero(3 * n, 3 * n);
  Eigen::VectorXd b = Eigen::VectorXd::Zero(3 * n);
  Eigen::MatrixXd k = Eigen::MatrixXd::Zero(n, n);  // the umbrella operator
  const auto& g = level.graph;
  for (std::size_t i = 0; i < n; ++i) {
    const double degree = static_cast<double>(g.offsets[i + 1] - g.offsets[i]);
    if (degree > 0.0) k(i, i) = 1.0;
    for (std::uint32_t e = g.offsets[i]; e < g.offsets[i + 1]; ++e) k(i, g.neighbours[e]) -= 1.0 / degree;
    const PlaneTerm& t = terms[i];
    AddOuter(a, i, i, t.normal, t.normal, t.weight);
    for (int r = 0; r < 3; ++r) b(3 * i + r) += t.weight * t.normal[r] * Dot(t.normal, t.place - level.rest[i]);
    for (int r = 0; r < 3; ++r) a(3 * i + r, 3 * i + r) += weights.ridge + weights.tangent;
    AddOuter(a, i, i, level.normals[i], level.normals[i], -weights.tangent);
    for (std::uint32_t e = g.offsets[i]; e < g.offsets[i + 1]; ++e) {
      const std::size_t j = g.neighbours[e];
      const MMVector3d& dir = level.edgeDirections[e];
      for (int r = 0; r < 3; ++r) {
        a(3 * i + r, 3 * i + r) += weights.membrane;
        a(3 * i + r, 3 * j + r) -= weights.membrane;
      }
      AddOuter(a, i, i, dir, dir, weights.strain);
      AddOuter(a, i, j, dir, dir, -weights.strain);
    }
  }
  for (const auto& tie : level.ties) {
    const std::size_t at[3] = {tie.apex, tie.a, tie.b};
    const double share[3] = {1.0, -(1.0 - tie.along), -tie.along};
    for (int u = 0; u < 3; ++u)
      for (int v = 0; v < 3; ++v)
        for (int r = 0; r < 3; ++r) a(3 * at[u] + r, 3 * at[v] + r) += weights.tie * share[u] * share[v];
  }
  const Eigen::MatrixXd ktk = k.transpose() * k;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j)
      for (int r = 0; r < 3; ++r) a(3 * i + r, 3 * j + r) += weights.bending * ktk(i, j);
  const Eigen::VectorXd direct = a.ldlt().solve(b);

  std::vector<MMVector3d> field(n);
  ZorStlRegistration::detail::FieldSolverScratch scratch;
  const std::size_t steps = ZorStlRegistration::detail::SolveField(level, terms, weights, 5000, 1e-13, field, scratch);
  EXPECT_GT(steps, 5u);
  for (std::size_t i = 0; i < n; ++i)
    for (int r = 0; r < 3; ++r)
      EXPECT_NEAR(field[i][r], direct(3 * i + r), 1e-6 * (1.0 + direct.cwiseAbs().maxCoeff()));
}

// The lattice over space: sum_i w_i (m_i . (x_i + base_i + f(x_i) - c_i))^2 +
// bending' |second differences of the controls along each axis|^2 + ridge' |controls|^2,
// the weights scaled by the sum of the terms' weights over the control count.
TEST(FieldSolves, TheLatticeFitIsTheDirectSolveOfItsEnergy) {
  std::mt19937 rng(12);
  std::uniform_real_distribution<double> inBox(0.0, 100.0);
  std::vector<MMVector3d> rest(300), base(300);
  for (std::size_t i = 0; i < rest.size(); ++i) {
    rest[i] = MMVector3d(inBox(rng), 0.6 * inBox(rng), 0.4 * inBox(rng));
    base[i] = MMVector3d(0.01 * rest[i][1], 0.0, -0.02 * rest[i][0]);
  }
  const std::vector<PlaneTerm> terms = RandomTerms(rest, rng);
  ZorStlRegistration::detail::SpaceField field(MMVector3d(0, 0, 0), MMVector3d(100, 60, 40));
  ZorStlRegistration::detail::SpaceLattice& lattice = field.AddLattice(2);
  const ZorStlRegistration::detail::SpaceFitWeights weights{0.05, 0.01};
  const std::size_t controls = lattice.controls.size();
  const std::size_t nx = lattice.Controls(0), ny = lattice.Controls(1), nz = lattice.Controls(2);

  double totalWeight = 0.0;
  for (const PlaneTerm& t : terms) totalWeight += t.weight;
  const double perControl = totalWeight / static_cast<double>(controls);
  Eigen::MatrixXd a = Eigen::MatrixXd::Zero(3 * controls, 3 * controls);
  Eigen::VectorXd b = Eigen::VectorXd::Zero(3 * controls);
  for (std::size_t i = 0; i < rest.size(); ++i) {
    const ZorStlRegistration::detail::LatticeStencil s = ZorStlRegistration::detail::StencilAt(lattice, rest[i]);
    std::vector<std::pair<std::size_t, double>> row;  // control, basis weight
    for (std::size_t c = 0; c < 4; ++c)
      for (std::size_t bb = 0; bb < 4; ++bb)
        for (std::size_t aa = 0; aa < 4; ++aa)
          row.emplace_back(((s.first[2] + c) * ny + s.first[1] + bb) * nx + s.first[0] + aa,
                           s.basis[0][aa] * s.basis[1][bb] * s.basis[2][c]);
    const PlaneTerm& t = terms[i];
    const double rhs = t.weight * Dot(t.normal, t.place - rest[i] - base[i]);
    for (const auto& [j, wj] : row) {
      for (int r = 0; r < 3; ++r) b(3 * j + r) += wj * rhs * t.normal[r];
      for (const auto& [l, wl] : row) AddOuter(a, j, l, t.normal, t.normal, t.weight * wj * wl);
    }
  }
  const std::size_t strides[3] = {1, nx, nx * ny}, counts[3] = {nx, ny, nz};
  for (std::size_t j = 0; j < controls; ++j) {
    for (int r = 0; r < 3; ++r) a(3 * j + r, 3 * j + r) += weights.ridge * perControl;
    for (std::size_t axis = 0; axis < 3; ++axis) {
      const std::size_t at = (j / strides[axis]) % counts[axis];
      if (at < 1 || at + 1 >= counts[axis]) continue;
      // The second difference centred on j: (1, -2, 1) on j - step, j, j + step.
      const std::size_t idx[3] = {j - strides[axis], j, j + strides[axis]};
      const double coef[3] = {1.0, -2.0, 1.0};
      for (int p = 0; p < 3; ++p)
        for (int q = 0; q < 3; ++q)
          for (int r = 0; r < 3; ++r)
            a(3 * idx[p] + r, 3 * idx[q] + r) += weights.bending * perControl * coef[p] * coef[q];
    }
  }
  const Eigen::VectorXd direct = a.ldlt().solve(b);

  ZorStlRegistration::detail::SpaceFitScratch scratch;
  const std::size_t steps =
      ZorStlRegistration::detail::FitLattice(lattice, rest, base, terms, weights, 5000, 1e-13, scratch);
  EXPECT_GT(steps, 5u);
  for (std::size_t j = 0; j < controls; ++j)
    for (int r = 0; r < 3; ++r)
      EXPECT_NEAR(lattice.controls[j][r], direct(3 * j + r), 1e-6 * (1.0 + direct.cwiseAbs().maxCoeff()));
}

}  // namespace
