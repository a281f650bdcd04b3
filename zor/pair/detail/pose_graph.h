#pragma once
// The poses of several views from the rigid transforms found between pairs of them.
//
// Each edge says where its moving view lies in its fixed view's frame, and carries the
// points of the moving view that lie on the fixed surface with their normals (moving
// view's frame, millimetres). Those points weigh the edge: the information of a
// point-to-plane fit, J = (p x n, n) summed as J J^T over the points, so that an edge
// pinned by much overlap of varied normals counts for more along the directions it pins.
//
// The poses start from a spanning tree of the edges (most overlap first, from node 0)
// and are then fitted to all edges together (Gauss-Newton on small turns and shifts of
// each pose). An edge that a loop contradicts, one whose pose the fit moves its points
// away from by more than the allowed residual, is switched off, worst first, and the fit
// redone; an edge that closes no loop cannot be judged this way and is kept.
//
// Deterministic: edges are taken in the order given, ties go to the lower number.

#include <cstddef>
#include <vector>

#include "zor/model/mm_vector.h"
#include "zor/model/transform.h"
#include "zor/pair/export.h"

namespace ZorStlRegistration::detail {

struct GraphEdge {
  std::size_t fixed = 0, moving = 0;
  MMTransformMatrix transform;      // moving view's frame to fixed view's frame; shift in millimetres
  double weight = 1.0;              // spanning tree order: larger first
  std::vector<MMVector3d> points;   // moving view's frame, millimetres
  std::vector<MMVector3d> normals;  // unit, moving view's frame
  double sigma = 0.1;               // mm: how closely the edge's points lie on the fixed surface
};

struct GraphResult {
  std::vector<bool> placed;              // per node: joined to node 0 by kept edges
  std::vector<MMTransformMatrix> poses;  // per node: its frame to node 0's; shift in millimetres
  std::vector<bool> kept;                // per edge
  std::vector<double> residuals;         // per edge, mm: RMS of how far the fitted poses move its points
  std::size_t iterations = 0;            // Gauss-Newton steps, all fits together
};

// Poses of `nodes` nodes from `edges`; `allowed` (mm) is the largest residual a kept
// edge may have where a loop judges it.
ZOR_PAIR_API GraphResult SolvePoseGraph(std::size_t nodes, const std::vector<GraphEdge>& edges, double allowed);

}  // namespace ZorStlRegistration::detail
