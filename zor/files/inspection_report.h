#pragma once
// An inspection report a person can open: one self-contained HTML file with the moved
// or morphed mesh coloured by its signed deviation from the fixed one (the fixed mesh
// as a faint ghost that can be switched off; orbit, zoom and pan with the mouse), a
// colour bar, a histogram of the deviations with the tolerance band, a marker where the
// deviation is largest, and a summary. Nothing is fetched at view time: the viewer
// (three.js) is inlined. Meshes above `maxTriangles` are simplified for the page only;
// the colours, the histogram and the numbers come from every point of the full mesh.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "zor/files/export.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration {

struct InspectionReport {
  std::string title;                 // the page's heading, e.g. "zor-register align"
  const MStlBase* moving = nullptr;  // drawn coloured, moved by `pose` when it is not null
  const MMTransformMatrix* pose = nullptr;
  const MStlBase* fixed = nullptr;  // drawn as the ghost; may be null
  // Signed distance of every point of `moving` (list order) to the fixed surface, and
  // the tolerance the colours and the share within refer to; internal units.
  std::vector<double> distances;
  double range = 0.0;
  // Empty: every point has a counterpart on the fixed surface. Otherwise one flag per
  // point, 0 for a point without one (clutter, or beyond the fixed mesh's open border):
  // it is shown grey and counted apart, out of the figures and the histogram.
  std::vector<std::uint8_t> counterpart;
  // When not empty: one colour per point of `moving`, drawn instead of the deviation's
  // (the views of a merge, one colour each), and the sentence that says what they mean.
  std::vector<std::array<std::uint8_t, 3>> colours;
  std::string colourNote;
  double scale = 1.0;  // user units per file unit, as for WriteMesh; the page shows file units
  // The summary, row by row (label, text), in the order shown.
  std::vector<std::pair<std::string, std::string>> rows;
  // When not empty: what keeps the result from being judged (no triangles, no overlap),
  // shown above everything else.
  std::string problem;
  std::size_t maxTriangles = 500000;       // of the moving mesh in the page
  std::size_t maxGhostTriangles = 300000;  // of the fixed mesh in the page
};

// Writes the report to `path` (whole or not at all, as WriteMesh). Throws InputError
// unless the name ends in .html or .htm, when the folder does not exist, or when the
// file cannot be written; std::invalid_argument when the distances do not match the
// moving mesh's points.
ZOR_FILES_API void WriteInspectionReport(const InspectionReport& report, const std::string& path);

// Whether the viewer was built in (otherwise the page shows the histogram and the
// summary, and says why there is no view).
ZOR_FILES_API bool InspectionViewerAvailable();

}  // namespace ZorStlRegistration
