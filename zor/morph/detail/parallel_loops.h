#pragma once
// The parallel loops of the field morph: a loop whose body writes only its own index's
// slots, and a sum that comes out the same at any thread count, because fixed blocks,
// not the threads, decide the order of addition.

#include <algorithm>
#include <cstddef>
#include <vector>

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* addr);  // NOLINT(bugprone-reserved-identifier)
extern "C" void __tsan_release(void* addr);  // NOLINT(bugprone-reserved-identifier)
#endif

namespace ZorStlRegistration::detail {

// Items per block of a blocked sum.
inline constexpr std::size_t kSumBlock = 4096;

// The join of a parallel loop, told to the thread sanitizer: the system's oneTBB is not
// built with it, so it cannot see that a loop's tasks start after the caller's writes
// and end before parallel_for returns, and it would take every read of a slot that
// another task wrote for a race (and spend minutes matching them against its
// suppressions). Does nothing in other builds.
class LoopJoin {
public:
#if defined(__SANITIZE_THREAD__)
  void Release() { __tsan_release(&mark); }
  void Acquire() { __tsan_acquire(&mark); }

private:
  char mark = 0;
#else
  void Release() {}
  void Acquire() {}
#endif
};

// body(i) for i in [0, count), at least `grain` items a task.
template <typename Body>
void ForEachIndex(std::size_t count, std::size_t grain, const Body& body) {
  LoopJoin join;
  join.Release();
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count, grain),
                    [&body, &join](const tbb::blocked_range<std::size_t>& r) {
                      join.Acquire();
                      for (std::size_t i = r.begin(); i != r.end(); ++i) body(i);
                      join.Release();
                    });
  join.Acquire();
}

// Sum of partial(begin, end) over the blocks of kSumBlock items of [0, count), the
// blocks added in order; `blockSums` is scratch.
template <typename Partial>
double BlockedSum(std::size_t count, std::vector<double>& blockSums, const Partial& partial) {
  const std::size_t blocks = (count + kSumBlock - 1) / kSumBlock;
  blockSums.resize(blocks);
  ForEachIndex(blocks, 1,
               [&](std::size_t b) { blockSums[b] = partial(b * kSumBlock, std::min(count, (b + 1) * kSumBlock)); });
  double sum = 0.0;
  for (double s : blockSums) sum += s;
  return sum;
}

}  // namespace ZorStlRegistration::detail
