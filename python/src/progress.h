#pragma once
// Progress of a run for Python: a callable hears (label, done, total) as a report moves
// on, or a tqdm bar shows it. The library reports from its worker threads while the
// caller's thread has let the interpreter go, so each report takes the interpreter's lock
// for the time of the call. What the callable raises is kept and raised once the run is
// over; the callable is not called again in that run.

#include <pybind11/pybind11.h>

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "zor/model/progress.h"

namespace zorpy {

namespace py = pybind11;

class Progress : public ZorSDK::Common::IProgressDelegate {
public:
  // Null for None or False; a tqdm bar for True; otherwise `progress` must be callable
  // (std::invalid_argument if not).
  static std::shared_ptr<Progress> From(const py::object& progress);
  ~Progress() override;

  void OnStart(const std::string& label, std::size_t total) override;
  void OnProgress(const std::string& label, std::size_t done, std::size_t total) override;
  void OnEnd(const std::string& label) override;

  // Raises what the callable raised, if it did. Call with the interpreter's lock held.
  void RaiseIfFailed();

private:
  Progress(py::object call, py::object bars) : callback(std::move(call)), tqdm(std::move(bars)) {}
  template <typename F>
  void Call(F&& f);

  // A report under way. Reports may run at once, each with its own bar; all of this is
  // touched only under the interpreter's lock.
  struct Report {
    py::object bar;  // the open bar, or null
    std::size_t shown = 0;
    std::size_t total = 0;
  };

  py::object callback;  // or None
  py::object tqdm;      // the tqdm class, or None
  std::map<std::string, Report> reports;
  std::optional<py::error_already_set> failure;
};

}  // namespace zorpy
