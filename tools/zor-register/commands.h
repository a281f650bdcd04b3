#pragma once
// The subcommands of zor-register, apart from argument parsing. Each returns
// the program's exit status and throws InputError for bad input.

#include <cstdint>
#include <string>
#include <vector>

#include "tools/zor-register/mesh_operations.h"
#include "tools/zor-register/pair_alignment.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace zortool {

struct CommonOptions {
  double scale = 1.0;    // file units times scale are user units (millimetres)
  bool quiet = false;    // no progress bar, no warnings
  bool json = false;     // a machine-readable report on stdout
  bool ascii = false;    // text STL and PLY output
  unsigned threads = 0;  // 0: all cores
};

// The registration parameters as the tool sets them: the library's, except that
// the strategy starts from the shapes alone (files come with no starting pose).
MUserOperatorStlRegistration::MParams ToolDefaults();

// Strategy names, and their values: "none", "auto", "axes", "rod", "disc",
// "ball", "features"; and the command's default, "auto+features": auto, and the
// feature strategy as well when that result is doubtful (see pair_alignment.h), for
// which ParseStrategy sets `withFeatures` (when given) and `out` to auto.
constexpr const char* kDefaultStrategy = "auto+features";
const char* StrategyName(MUserOperatorStlRegistration::MInitialAlignment a);
bool ParseStrategy(const std::string& name, MUserOperatorStlRegistration::MInitialAlignment& out,
                   bool* withFeatures = nullptr);

// A deviation map of the result (see deviation.h), written when `path` is not empty.
struct DeviationOptions {
  std::string path;    // must end in .ply
  double range = 0.0;  // file units; 0: three times the error the command reports
};

int RunAlign(const std::string& moving, const std::string& fixed, const std::string& output, const PairOptions& options,
             const DeviationOptions& deviation, const CommonOptions& common);

int RunIcp(const std::string& moving, const std::string& fixed, const std::string& output, const IcpOptions& options,
           const DeviationOptions& deviation, const CommonOptions& common);

int RunMorph(const std::string& moving, const std::string& target, const std::string& output,
             const MorphOptions& options, const DeviationOptions& deviation, const CommonOptions& common);

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
