#include "zor/model/progress.h"

#include <mutex>
#include <thread>

#include <gtest/gtest.h>

namespace {

class RecordingDelegate : public ZorSDK::Common::IProgressDelegate {
public:
  void OnStart(const std::string& l, std::size_t total) override {
    label = l;
    starts++;
    announced = total;
  }
  void OnProgress(const std::string&, std::size_t done, std::size_t total) override {
    std::lock_guard<std::mutex> lock(mutex);  // only to read safely from the test
    values.push_back(done);
    EXPECT_EQ(total, announced);
  }
  void OnEnd(const std::string&) override { ends++; }
  std::string label;
  int starts = 0, ends = 0;
  std::size_t announced = 0;
  std::vector<std::size_t> values;
  std::mutex mutex;
};

TEST(Progress, ConcurrentStepsReportMonotonicallyUpToTheTotal) {
  auto delegate = std::make_shared<RecordingDelegate>();
  {
    ZorSDK::Common::IncrementalProgressReporter reporter(delegate, "Stl registration", 40000, false);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&] {
        for (int i = 0; i < 10000; ++i) ++reporter;
      });
    for (auto& th : threads) th.join();
    EXPECT_EQ(reporter.GetDone(), 40000u);
  }
  EXPECT_EQ(delegate->label, "Stl registration");
  EXPECT_EQ(delegate->starts, 1);
  EXPECT_EQ(delegate->ends, 1);
  ASSERT_FALSE(delegate->values.empty());
  EXPECT_LE(delegate->values.size(), 101u);  // throttled to whole percents
  EXPECT_TRUE(std::is_sorted(delegate->values.begin(), delegate->values.end()));
  EXPECT_EQ(delegate->values.back(), 40000u);
}

TEST(Progress, NullDelegateAndOverrunAreHarmless) {
  ZorSDK::Common::IncrementalProgressReporter silent(nullptr, "x", 3, false);
  for (int i = 0; i < 5; ++i) ++silent;
  EXPECT_EQ(silent.GetDone(), 5u);
  auto delegate = std::make_shared<RecordingDelegate>();
  {
    ZorSDK::Common::IncrementalProgressReporter every(delegate, "y", 3, true);
    for (int i = 0; i < 5; ++i) ++every;
  }
  EXPECT_EQ(delegate->values, (std::vector<std::size_t>{1, 2, 3}));  // never beyond the total
}

// Shares of one report, advanced by uneven weights from several threads: each issues
// exactly its steps when its weights add up to its total, and weights past it add none.
TEST(Progress, SharesIssueTheirStepsWhateverTheWeightsAndThreads) {
  ZorSDK::Common::IncrementalProgressReporter reporter(nullptr, "Reduction", 100, false);
  ZorSDK::Common::ProgressShare first(reporter, 37, 1000003), second(reporter, 63, 7);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 250; ++i) first.Add(t == 0 && i == 0 ? 4003 : 4000);
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(reporter.GetDone(), 37u);
  second.Add(3);
  EXPECT_EQ(reporter.GetDone(), 37u + 27u);  // 3 of 7 is 27 of 63 steps
  second.Add(4);
  second.Add(1000);
  EXPECT_EQ(reporter.GetDone(), 100u);
  ZorSDK::Common::ProgressShare nothing(reporter, 5, 0);
  nothing.Add(0);
  EXPECT_EQ(reporter.GetDone(), 100u);  // an empty total has nothing to count, and divides by nothing
}

}  // namespace
