#pragma once
// A one-line progress bar on stderr, redrawn in place while a report runs and
// wiped at its end, so that stdout stays clean for transforms and JSON.

#include <cstddef>
#include <cstdio>
#include <string>

#include "zor/model/progress.h"

namespace zortool {

class ProgressBar : public ZorSDK::Common::IProgressDelegate {
public:
  void OnStart(const std::string& label, std::size_t total) override {
    shown = -1;
    OnProgress(label, 0, total);
  }
  void OnProgress(const std::string& label, std::size_t done, std::size_t total) override {
    const int percent = total == 0 ? 100 : static_cast<int>(100 * done / total);
    if (percent == shown) return;
    shown = percent;
    char bar[kWidth + 1];
    for (int i = 0; i < kWidth; ++i) bar[i] = i < percent * kWidth / 100 ? '#' : '.';
    bar[kWidth] = '\0';
    std::fprintf(stderr, "\r%s [%s] %3d%%", label.c_str(), bar, percent);
    std::fflush(stderr);
  }
  void OnEnd(const std::string&) override {
    std::fputs("\r\033[K",
               stderr);  // back to the start of the line, and clear it
    std::fflush(stderr);
  }

private:
  static constexpr int kWidth = 30;
  int shown = -1;
};

}  // namespace zortool
