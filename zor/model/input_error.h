#pragma once
// Bad input from a user: a missing or malformed file, a parameter out of range, a mesh
// an operation cannot take. The message is one line that names what was wrong; a
// command-line program shows it and exits with status 2.

#include <stdexcept>

#include "zor/model/export.h"

namespace ZorStlRegistration {

// Visible from every library that throws or catches it, so that all share one type.
class ZOR_MODEL_API InputError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

}  // namespace ZorStlRegistration
