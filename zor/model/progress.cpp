#include "zor/model/progress.h"

#include <algorithm>
#include <cstdint>

namespace ZorSDK::Common {

IProgressDelegate::~IProgressDelegate() = default;

IncrementalProgressReporter::IncrementalProgressReporter(const std::shared_ptr<IProgressDelegate>& delegate_,
                                                         const std::string& label_, std::size_t total_, bool everyStep)
    : delegate(delegate_),
      label(label_),
      total(total_),
      stride(everyStep ? 1 : std::max<std::size_t>(1, total_ / 100)) {
  if (delegate) delegate->OnStart(label, total);
}

IncrementalProgressReporter::~IncrementalProgressReporter() {
  if (!delegate) return;
  try {
    delegate->OnEnd(label);
  } catch (...) {
    // A destructor cannot pass the delegate's failure on.
  }
}

IncrementalProgressReporter& IncrementalProgressReporter::operator++() {
  const std::size_t now = done.fetch_add(1, std::memory_order_relaxed) + 1;
  if (delegate && (now % stride == 0 || now == total)) {
    std::lock_guard<std::mutex> lock(reportMutex);
    // Threads may arrive out of order; report only forward moves, never beyond total.
    const std::size_t value = std::min(done.load(std::memory_order_relaxed), total);
    if (value > reported) {
      reported = value;
      delegate->OnProgress(label, value, total);
    }
  }
  return *this;
}

ProgressShare::ProgressShare(IncrementalProgressReporter& reporter_, std::size_t steps_, std::size_t total_)
    : reporter(reporter_), steps(steps_), total(total_) {}

std::size_t ProgressShare::StepsAt(std::size_t weight) const {
  if (weight >= total) return steps;
  // In double: weight * steps may pass 64 bits, and a step more or less is no matter.
  return static_cast<std::size_t>(static_cast<double>(weight) / static_cast<double>(total) *
                                  static_cast<double>(steps));
}

void ProgressShare::Add(std::size_t weight) {
  const std::size_t before = done.fetch_add(weight, std::memory_order_relaxed);
  // Each thread issues the steps between its own two marks, so that together they issue
  // each step once. Sums past `total` saturate in StepsAt.
  const std::size_t after = weight > SIZE_MAX - before ? SIZE_MAX : before + weight;
  for (std::size_t s = StepsAt(before), end = StepsAt(after); s < end; ++s) ++reporter;
}

}  // namespace ZorSDK::Common
