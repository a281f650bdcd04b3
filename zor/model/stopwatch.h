#pragma once
// Wall-clock seconds for the stage times that operators and benchmarks report.

#include <chrono>

namespace ZorSDK::Common {

using Clock = std::chrono::steady_clock;

// Seconds from `start` to now.
inline double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace ZorSDK::Common
