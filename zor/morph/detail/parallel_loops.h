#pragma once
// The parallel loops of the field morph: a loop whose body writes only its own index's
// slots, and a sum that comes out the same at any thread count, because fixed blocks,
// not the threads, decide the order of addition.

#include <algorithm>
#include <cstddef>
#include <vector>

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>

namespace ZorStlRegistration::detail {

// Items per block of a blocked sum.
inline constexpr std::size_t kSumBlock = 4096;

// body(i) for i in [0, count), at least `grain` items a task.
template <typename Body>
void ForEachIndex(std::size_t count, std::size_t grain, const Body& body) {
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count, grain),
                    [&body](const tbb::blocked_range<std::size_t>& r) {
                      for (std::size_t i = r.begin(); i != r.end(); ++i) body(i);
                    });
}

// Sum of partial(begin, end) over the blocks of kSumBlock items of [0, count), the
// blocks added in order; `blockSums` is scratch.
template <typename Partial>
double BlockedSum(std::size_t count, std::vector<double>& blockSums, const Partial& partial) {
  const std::size_t blocks = (count + kSumBlock - 1) / kSumBlock;
  blockSums.resize(blocks);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, blocks, 1), [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t b = r.begin(); b != r.end(); ++b)
      blockSums[b] = partial(b * kSumBlock, std::min(count, (b + 1) * kSumBlock));
  });
  double sum = 0.0;
  for (double s : blockSums) sum += s;
  return sum;
}

}  // namespace ZorStlRegistration::detail
