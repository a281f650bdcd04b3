// The inspection report as a file: one page that needs nothing from the network, with
// the numbers of every point, simplified for the view only, and a page that says what
// is wrong instead of an empty view.
#include "zor/files/inspection_report.h"

#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "zor/model/input_error.h"
#include "zor/model/stl.h"

namespace {

namespace fs = std::filesystem;
using ZorStlRegistration::InspectionReport;
using ZorStlRegistration::WriteInspectionReport;

class Report : public ::testing::Test {
protected:
  fs::path dir = fs::temp_directory_path() / ("zor_report_" + std::to_string(::getpid()));
  void SetUp() override { fs::create_directories(dir); }
  void TearDown() override { fs::remove_all(dir); }
  std::string Read(const std::string& name) {
    std::ifstream in(dir / name);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  // The text of the element with `id`'s data-value attribute.
  static double Value(const std::string& page, const std::string& id) {
    const std::size_t at = page.find("id=\"" + id + "\" data-value=\"");
    if (at == std::string::npos) return -1.0;
    return std::stod(page.substr(page.find("data-value=\"", at) + 12));
  }
};

TEST_F(Report, HoldsEverythingItShowsAndTheNumbersOfEveryPoint) {
  const auto moving = zorgen::MakeSphere(20000.0, 40, 80, 800.0);
  const auto fixed = zorgen::MakeSphere(20000.0, 30, 60, 800.0);
  InspectionReport r;
  r.title = "a <test> & more";
  r.moving = moving.get();
  r.fixed = fixed.get();
  r.range = 100.0;
  for (std::size_t i = 0; i < moving->NumberOfPoints(); ++i) r.distances.push_back(i % 10 == 0 ? 250.0 : -20.0);
  r.distances[7] = -900.0;  // the largest
  r.rows = {{"moving", "sphere.stl"}, {"doubt", "none at all"}};
  r.maxTriangles = 1000;  // the view is simplified; the numbers are not
  WriteInspectionReport(r, (dir / "report.html").string());
  const std::string page = Read("report.html");
  // Offline: nothing for the browser to fetch (the viewer's own namespace names, such
  // as the XHTML one, are not fetched).
  for (const char* fetch : {"<script src", " src=\"", "<link", "@import", "url("})
    EXPECT_EQ(page.find(fetch), std::string::npos) << fetch;
  EXPECT_NE(page.find("a &lt;test&gt; &amp; more"), std::string::npos);
  EXPECT_NE(page.find("sphere.stl"), std::string::npos);
  // Every point counts: a tenth and one more lie beyond the range, the 95th percentile
  // is a far one, the largest is the one at -0.9 mm (file units are millimetres at
  // scale 1).
  const double n = static_cast<double>(r.distances.size());
  EXPECT_DOUBLE_EQ(Value(page, "zor-within"), (n - std::ceil(n / 10.0) - 1.0) / n);
  EXPECT_DOUBLE_EQ(Value(page, "zor-p95"), 0.25);
  EXPECT_DOUBLE_EQ(Value(page, "zor-largest"), 0.9);
  EXPECT_NE(page.find("The view shows"), std::string::npos);
  EXPECT_EQ(page.find("id=\"zor-problem\""), std::string::npos);
  if (ZorStlRegistration::InspectionViewerAvailable()) {
    EXPECT_NE(page.find("REVISION"), std::string::npos);  // the viewer, inlined
  }
}

TEST_F(Report, SaysWhatIsWrongInsteadOfShowingNothing) {
  MStlBase empty;
  const auto fixed = zorgen::MakeSphere(20000.0, 12, 24);
  InspectionReport r;
  r.moving = &empty;
  r.fixed = fixed.get();
  r.range = 100.0;
  WriteInspectionReport(r, (dir / "empty.html").string());
  const std::string page = Read("empty.html");
  EXPECT_NE(page.find("id=\"zor-problem\""), std::string::npos);
  EXPECT_NE(page.find("no triangles"), std::string::npos);
  EXPECT_NE(page.find("\"hasMesh\":false"), std::string::npos);

  const auto moving = zorgen::MakeSphere(20000.0, 12, 24);
  r.moving = moving.get();
  r.distances.assign(moving->NumberOfPoints(), 5000.0);
  r.problem = "No part of MOVING lies within 0.9 file units of FIXED.";
  WriteInspectionReport(r, (dir / "apart.html").string());
  EXPECT_NE(Read("apart.html").find(r.problem), std::string::npos);

  // Refused: a name that is not a page, a missing folder, distances that do not fit.
  EXPECT_THROW(WriteInspectionReport(r, (dir / "report.ply").string()), ZorStlRegistration::InputError);
  EXPECT_THROW(WriteInspectionReport(r, (dir / "nowhere" / "r.html").string()), ZorStlRegistration::InputError);
  r.distances.pop_back();
  EXPECT_THROW(WriteInspectionReport(r, (dir / "short.html").string()), std::invalid_argument);
  EXPECT_FALSE(fs::exists(dir / "short.html"));
}

}  // namespace
