#pragma once
// Progress reporting. A host implements IProgressDelegate and hands it to an operator as
// a shared pointer (null when nobody listens); the library counts through
// IncrementalProgressReporter and never calls the delegate in any other way.

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "zor/model/export.h"

namespace ZorSDK::Common {

// The host's sink. Calls for one report are serialised by its reporter, so a delegate
// needs no lock of its own unless it is shared by reports that run at the same time.
// A delegate must not throw from OnEnd (it is called from a destructor; what it throws
// there is dropped).
class ZOR_MODEL_API IProgressDelegate {
public:
  virtual ~IProgressDelegate();
  virtual void OnStart(const std::string& label, std::size_t total) = 0;
  // `done` grows with each call and never exceeds `total`.
  virtual void OnProgress(const std::string& label, std::size_t done, std::size_t total) = 0;
  virtual void OnEnd(const std::string& label) = 0;
};

// A scoped counter of `total` steps: the constructor starts the report, each ++ counts
// one step, the destructor ends it. ++ may be called from many threads at once; it costs
// one atomic add, and takes a lock only when the report moves on, which is at most
// about 100 times a report unless `everyStep` is true (then at every step).
class ZOR_MODEL_API IncrementalProgressReporter {
public:
  IncrementalProgressReporter(const std::shared_ptr<IProgressDelegate>& delegate, const std::string& label,
                              std::size_t total, bool everyStep);
  ~IncrementalProgressReporter();
  IncrementalProgressReporter(const IncrementalProgressReporter&) = delete;
  IncrementalProgressReporter& operator=(const IncrementalProgressReporter&) = delete;

  IncrementalProgressReporter& operator++();
  std::size_t GetDone() const { return done.load(std::memory_order_relaxed); }
  std::size_t GetTotal() const { return total; }

private:
  std::shared_ptr<IProgressDelegate> delegate;
  std::string label;
  std::size_t total;
  std::size_t stride;  // steps between reports
  std::atomic<std::size_t> done{0};
  std::mutex reportMutex;
  std::size_t reported = 0;  // guarded by reportMutex
};

// A share of `steps` steps of a report, advanced by weights that add up to `total` (the
// triangles of a block as it is done, say), from any thread: the report moves as the
// work does, however unevenly the work is cut. Weights past `total` count as nothing.
class ZOR_MODEL_API ProgressShare {
public:
  ProgressShare(IncrementalProgressReporter& reporter, std::size_t steps, std::size_t total);
  ProgressShare(const ProgressShare&) = delete;
  ProgressShare& operator=(const ProgressShare&) = delete;
  void Add(std::size_t weight);

private:
  std::size_t StepsAt(std::size_t weight) const;

  IncrementalProgressReporter& reporter;
  std::size_t steps;
  std::size_t total;
  std::atomic<std::size_t> done{0};
};

}  // namespace ZorSDK::Common
