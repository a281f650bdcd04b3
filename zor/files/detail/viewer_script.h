#pragma once
// The viewer library inspection reports inline (three.js, built in from the system's
// copy when the library was configured), or null when none was found.

namespace ZorStlRegistration::detail {

const char* ViewerLibrary();

}  // namespace ZorStlRegistration::detail
