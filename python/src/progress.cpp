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
  bar = py::object();
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

void Progress::OnStart(const std::string& label, std::size_t all) {
  Call([&] {
    shown = 0;
    total = all;
    if (!tqdm.is_none())
      bar = tqdm(py::arg("total") = all, py::arg("desc") = label, py::arg("leave") = false);
    else
      callback(label, 0, all);
  });
}

void Progress::OnProgress(const std::string& label, std::size_t done, std::size_t all) {
  Call([&] {
    if (!bar.is_none()) {
      if (done > shown) bar.attr("update")(done - shown);
    } else if (!callback.is_none())
      callback(label, done, all);
    shown = done;
  });
}

void Progress::OnEnd(const std::string& label) {
  Call([&] {
    if (!bar.is_none()) {
      if (total > shown) bar.attr("update")(total - shown);
      bar.attr("close")();
      bar = py::none();
    } else if (!callback.is_none())
      callback(label, total, total);
  });
}

void Progress::RaiseIfFailed() {
  if (!failure) return;
  py::error_already_set e = std::move(*failure);
  failure.reset();
  throw e;
}

}  // namespace zorpy
