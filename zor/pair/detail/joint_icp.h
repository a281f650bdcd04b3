#pragma once
// The poses of several views refined together on their surfaces: point-to-plane ICP over
// every pair of placed views that overlap under the present poses, all poses solved in
// one step (node 0 stays), pairing points within 4, 2, then 1 times the given distance.
// A point pairs with the nearest place of the other view unless that lies on its open
// border or faces away; points near their own view's border take no part (range scans
// curl there), and the plane is the point's own, its normal smoothed over two rings.
// A pair registered alone settles where its own overlap pulls it; in a set of views each
// surface is held by all its neighbours at once, so the small errors of single pairs
// average out instead of adding up along a chain.
//
// Deterministic: points are sampled by stride, pairs are taken in a fixed order and
// their sums added in that order.

#include <cstddef>
#include <vector>

#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/pair/export.h"

namespace ZorStlRegistration::detail {

struct JointRefinement {
  std::size_t pairs = 0;   // pairs of views that overlapped in the last round
  std::size_t rounds = 0;  // solves
  double rms = 0.0;        // internal units: point-to-plane RMS of the last round's pairs
};

// Refines `poses` (each node's frame to node 0's, internal units) of the `placed` nodes.
ZOR_PAIR_API JointRefinement RefineJointly(const std::vector<MStlBase*>& nodes, const std::vector<bool>& placed,
                                           std::vector<MMTransformMatrix>& poses, double distance);

}  // namespace ZorStlRegistration::detail
