#pragma once
// What inspection reports inline, built into the library when it was configured: the
// viewer library (the system's three.js, or null when none was found), the page's own
// script (report_page.js) and its style (report_page.css).

namespace ZorStlRegistration::detail {

const char* ViewerLibrary();
const char* PageScript();
const char* PageStyle();

}  // namespace ZorStlRegistration::detail
