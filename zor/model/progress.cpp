#include "zor/model/progress.h"

#include <algorithm>

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

}  // namespace ZorSDK::Common
