#pragma once
// The pieces of the field morph that know nothing of meshes: the vertex graph, its
// coarser levels, and the solve of one smoothed displacement field.
//
// A level is a graph over points with rest positions. A coarser level is made by
// greedy aggregation along the graph (each seed claims its unclaimed neighbours), so
// that two sheets of a surface that lie close in space but far apart along it never
// share a coarse point. A field on the coarse level reaches the finer one through a
// partition of unity over the point's own seed and that seed's coarse neighbours.
//
// The solve minimises, over the displacements d of a level,
//   sum_i w_i (m_i . (x_i + d_i - c_i))^2                 point-to-plane terms
//   + bending * sum_i |d_i - mean of d over i's neighbours|^2   (|K d|^2)
//   + membrane * sum over edges (i, j) of |d_i - d_j|^2,
// toward matched places c_i with target normals m_i. The smoothing acts on the
// displacement field, not on the positions: a field of zeros costs nothing, so a mesh
// already in place stays and nothing shrinks. The bending term is the umbrella operator
// squared, which a field that is affine along the surface (a stretch, a turn, a shear)
// barely feels: such motions are carried whole into the places where no match can see
// them (the part of a motion along the surface), where the membrane term alone would
// flatten them. The small membrane term keeps fields over unmatched regions from
// running away. Conjugate gradients with a block-Jacobi preconditioner, warm-started.
//
// Every parallel loop writes its own slots, and every sum over points is taken in
// fixed blocks added in order, so results are bit-identical at any thread count.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zor/export.h"
#include "zor/model/mm_vector.h"
#include "zor/morph/detail/conjugate_gradient.h"

namespace ZorStlRegistration::detail {

// Adjacency in compressed rows: the neighbours of point i are
// neighbours[offsets[i] .. offsets[i + 1]), ascending, each edge listed from both ends.
struct PointGraph {
  std::vector<std::uint32_t> offsets{0};
  std::vector<std::uint32_t> neighbours;
  std::size_t Size() const { return offsets.size() - 1; }
};

// The graph of the edges of `triangles` (three point indices each, below pointCount).
// Corners repeated within a triangle give no edge.
ZOR_API PointGraph GraphOfTriangles(std::size_t pointCount, const std::vector<std::uint32_t>& triangles);

// A thin triangle's apex (the corner across its longest edge) held to the point of that
// edge it stands over, at `along` from `a` to `b`: its displacement follows theirs, so the
// triangle moves with its edge instead of turning over when the field bends across it.
struct ApexTie {
  std::uint32_t apex = 0, a = 0, b = 0;
  double along = 0.0;
};

struct FieldLevel {
  std::vector<MMVector3d> rest;     // rest position of each point
  std::vector<MMVector3d> normals;  // unit rest normal (zero where unknown)
  PointGraph graph;
  double meanEdge = 0.0;                   // mean rest length of the graph's edges (0 without edges)
  std::vector<MMVector3d> edgeDirections;  // unit rest direction of each graph entry, i to neighbour
  // Coarser levels only: the point of the finer level each point stands on, and for
  // each finer point the coarse points and weights (summing to 1) of its field.
  std::vector<std::uint32_t> seeds;
  // The level's ties, and for each point the ties it takes part in (compressed rows).
  std::vector<ApexTie> ties;
  std::vector<std::uint32_t> tieOffsets{0};
  std::vector<std::uint32_t> tieIndices;
  std::vector<std::uint32_t> prolongOffsets{0};
  std::vector<std::uint32_t> prolongPoints;
  std::vector<double> prolongWeights;
};

// Ties the apex of every triangle of `triangles` thinner than `thinness` (twice its area
// over its longest edge squared) to that edge, at the level's rest places.
ZOR_API void TieThinTriangles(FieldLevel& level, const std::vector<std::uint32_t>& triangles, double thinness);

// Fills meanEdge and edgeDirections from the rest positions and the graph.
ZOR_API void MeasureEdges(FieldLevel& level);

// A coarser level of `fine`: greedy aggregates of one ring (seeds in point order), about
// a fifth of the points on a triangle mesh.
ZOR_API FieldLevel Coarsen(const FieldLevel& fine);

// The field of the finer level from that of `coarse` (its prolongation weights).
ZOR_API void Prolong(const FieldLevel& coarse, const std::vector<MMVector3d>& coarseField,
                     std::vector<MMVector3d>& fineField);

// The data term of one point: w (m . (x + d - c))^2. A weight of 0 leaves the point to
// its neighbours.
struct PlaneTerm {
  MMVector3d place;   // c
  MMVector3d normal;  // m, unit
  double weight = 0.0;
};

struct FieldWeights {
  double bending = 0.0;
  double membrane = 0.0;
  double strain = 0.0;
  double ridge = 0.0;
  double tangent = 0.0;
  double tie = 0.0;  // weight of each apex tie
};

// Scratch of the solver, reused between solves of one run.
struct FieldSolverScratch {
  ConjugateGradientVectors cg;
  std::vector<MMVector3d> umbrella;
  std::vector<double> diagonal;
};

// Solves the energy above for `field` (warm start: its values on entry), at most
// `maxIterations` conjugate-gradient steps, stopping early when the preconditioned
// residual norm falls below `relativeTolerance` times its first value. Returns the
// steps taken.
ZOR_API std::size_t SolveField(const FieldLevel& level, const std::vector<PlaneTerm>& terms,
                               const FieldWeights& weights, std::size_t maxIterations, double relativeTolerance,
                               std::vector<MMVector3d>& field, FieldSolverScratch& scratch);

}  // namespace ZorStlRegistration::detail
