#include "progress.h"

#include <stdexcept>
#include <utility>

namespace zorpy {

std::shared_ptr<Progress> Progress::From(const py::object& progress) {
  if (progress.is_none() || (py::isinstance<py::bool_>(progress) && !progress.cast<bool>())) return nullptr;
  if (py::isinstance<py::bool_>(progress))
    return std::shared_ptr<Progress>(new Progress(py::none(), py::module_::import("tqdm").attr("tqdm")));
  if (!PyCallable_Check(progress.ptr()))
    throw std::invalid_argument("progress must be None, True (a tqdm bar) or a callable (label, done, total); got " +
                                py::str(py::type::of(progress)).cast<std::string>());
  return std::shared_ptr<Progress>(new Progress(progress, py::none()));
}

Progress::~Progress() {
  // The last owner may be a library object let go on a worker thread.
  py::gil_scoped_acquire gil;
  reports.clear();
  callback = py::object();
  tqdm = py::object();
  failure.reset();
}

template <typename F>
void Progress::Call(F&& f) {
  py::gil_scoped_acquire gil;
  if (failure) return;
  try {
    f();
  } catch (py::error_already_set& e) {
    failure.emplace(std::move(e));
  }
}

void Progress::OnStart(const std::string& label, std::size_t total) {
  Call([&] {
    Report& report = reports[label];
    report = Report{};
    report.total = total;
    if (!tqdm.is_none())
      report.bar = tqdm(py::arg("total") = total, py::arg("desc") = label, py::arg("leave") = false);
    else
      callback(label, 0, total);
  });
}

void Progress::OnProgress(const std::string& label, std::size_t done, std::size_t total) {
  Call([&] {
    Report& report = reports[label];
    if (report.bar) {
      if (done > report.shown) report.bar.attr("update")(done - report.shown);
    } else if (!callback.is_none())
      callback(label, done, total);
    report.shown = done;
  });
}

void Progress::OnEnd(const std::string& label) {
  Call([&] {
    const auto it = reports.find(label);
    if (it == reports.end()) return;
    Report& report = it->second;
    if (report.bar) {
      if (report.total > report.shown) report.bar.attr("update")(report.total - report.shown);
      report.bar.attr("close")();
    } else if (!callback.is_none())
      callback(label, report.total, report.total);
    reports.erase(it);
  });
}

void Progress::RaiseIfFailed() {
  if (!failure) return;
  py::error_already_set e = std::move(*failure);
  failure.reset();
  throw e;
}

}  // namespace zorpy
