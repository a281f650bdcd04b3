#pragma once
// The subcommands of zor-register, apart from argument parsing. Each returns
// the program's exit status and throws InputError for bad input.

#include <cstdint>
#include <string>
#include <vector>

#include "zor/files/mesh_files.h"
#include "zor/pair/pair.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace zortool {

// The library's pair calls and files, by their short names.
using namespace ZorStlRegistration;  // NOLINT(google-build-using-namespace): the tool's own namespace

struct CommonOptions {
  double scale = 1.0;    // file units times scale are user units (millimetres)
  bool quiet = false;    // no progress bar, no warnings
  bool json = false;     // a machine-readable report on stdout
  bool ascii = false;    // text STL and PLY output
  unsigned threads = 0;  // 0: all cores
};

// A deviation map of the result (see deviation.h), written when `path` is not empty.
struct DeviationOptions {
  std::string path;    // must end in .ply
  double range = 0.0;  // file units; 0: three times the error the command reports
  std::string report;  // the inspection report, .html
};

int RunAlign(const std::string& moving, const std::string& fixed, const std::string& output, const PairOptions& options,
             const DeviationOptions& deviation, const CommonOptions& common);

int RunIcp(const std::string& moving, const std::string& fixed, const std::string& output, const IcpOptions& options,
           const DeviationOptions& deviation, const CommonOptions& common);

int RunMorph(const std::string& moving, const std::string& target, const std::string& output,
             const MorphOptions& options, const DeviationOptions& deviation, const CommonOptions& common);

// Many views of one part into one frame: each view's transform and whether it was
// placed; -o writes the placed views together.
struct MergeOptions {
  std::vector<std::string> views;
  std::string reference;  // empty: the frame of the first view
  std::string output;
  std::string report;  // an inspection report of the merged views (.html)
  ViewsOptions options;
};
int RunMerge(const MergeOptions& merge, const CommonOptions& common);

struct DemoOptions {
  std::uint64_t seed = 1;
  std::uint64_t triangles = 50000;
  std::string saveFolder;  // empty: save nothing
};
// The demo's parameters: the tool's, tightened for a copy that lies wholly on
// the body.
MUserOperatorStlRegistration::MParams DemoDefaults();
int RunDemo(const DemoOptions& demo, const MUserOperatorStlRegistration::MParams& params, const CommonOptions& common);

int RunInfo(const std::string& path, const CommonOptions& common);
int RunConvert(const std::string& input, const std::string& output, const CommonOptions& common);

}  // namespace zortool
