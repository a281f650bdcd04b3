#pragma once
// Preconditioned conjugate gradients on a field of 3-vectors, for the two fits of the
// field morph (the lattices over space and the surface levels): the solver written
// once, the system given by the caller.
//
// Every parallel loop writes its own slots and every dot product is a blocked sum, so
// the result is bit-identical at any thread count.

#include <cstddef>
#include <vector>

#include "zor/model/mm_vector.h"
#include "zor/morph/detail/parallel_loops.h"

namespace ZorStlRegistration::detail {

// The solver's vectors, reused between solves of one run.
struct ConjugateGradientVectors {
  std::vector<MMVector3d> residual, direction, product, preconditioned;
  std::vector<double> blockSums;
};

// Sum of Dot(a[i], b[i]) over [0, count), in fixed blocks added in order.
inline double BlockedDot(const std::vector<MMVector3d>& a, const std::vector<MMVector3d>& b, std::size_t count,
                         std::vector<double>& blockSums) {
  return BlockedSum(count, blockSums, [&](std::size_t begin, std::size_t end) {
    double sum = 0.0;
    for (std::size_t i = begin; i < end; ++i) sum += Dot(a[i], b[i]);
    return sum;
  });
}

// Solves A x = b for `x` (warm start: its values on entry), with `v.residual` holding
// b - A x on entry (count entries). `apply(in, out)` writes A in to out;
// `precondition(i, r)` gives the preconditioner's block i times r. At most
// `maxIterations` steps, ending early once the preconditioned residual norm falls below
// `relativeTolerance` times its first value, or when A stops being positive along the
// search direction. Loops hand out at least `grain` items a task. Returns the steps
// taken (Hestenes and Stiefel; Shewchuk, "An introduction to the conjugate gradient
// method without the agonizing pain", B3).
template <typename Apply, typename Precondition>
std::size_t SolveConjugateGradient(std::vector<MMVector3d>& x, ConjugateGradientVectors& v, std::size_t grain,
                                   std::size_t maxIterations, double relativeTolerance, const Apply& apply,
                                   const Precondition& precondition) {
  const std::size_t count = x.size();
  v.direction.resize(count);
  v.product.resize(count);
  v.preconditioned.resize(count);
  ForEachIndex(count, grain, [&](std::size_t i) {
    v.preconditioned[i] = precondition(i, v.residual[i]);
    v.direction[i] = v.preconditioned[i];
  });
  double rz = BlockedDot(v.residual, v.preconditioned, count, v.blockSums);
  const double stop = relativeTolerance * relativeTolerance * rz;
  std::size_t iteration = 0;
  while (iteration < maxIterations && rz > stop && rz > 0.0) {
    apply(v.direction, v.product);
    const double pq = BlockedDot(v.direction, v.product, count, v.blockSums);
    if (!(pq > 0.0)) break;
    const double alpha = rz / pq;
    ForEachIndex(count, grain, [&](std::size_t i) {
      x[i] = x[i] + v.direction[i] * alpha;
      v.residual[i] = v.residual[i] - v.product[i] * alpha;
      v.preconditioned[i] = precondition(i, v.residual[i]);
    });
    const double next = BlockedDot(v.residual, v.preconditioned, count, v.blockSums);
    const double beta = next / rz;
    rz = next;
    ForEachIndex(count, grain, [&](std::size_t i) { v.direction[i] = v.preconditioned[i] + v.direction[i] * beta; });
    ++iteration;
  }
  return iteration;
}

}  // namespace ZorStlRegistration::detail
