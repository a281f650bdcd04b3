// zor-register: rigid registration of mesh files from the command line.
//
//   zor-register align MOVING FIXED [-o MOVED] [--json] [registration options]
//   zor-register icp MOVING FIXED [-o MOVED] [--json] [ICP options]
//   zor-register morph MOVING TARGET [-o MORPHED] [--no-register] [morph options]
//   zor-register merge VIEW... [-o MERGED] [--reference MODEL] [--json] [--report PAGE]
//   zor-register demo [--seed N] [--save DIR]        (also what runs with no arguments)
//   zor-register info FILE | convert IN OUT
// align, icp and morph also write a deviation map with --deviation MAP.ply.
//
// Exit status: 0 done, 1 an unexpected failure, 2 bad input (one line on
// stderr; no output file is left behind).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/zor-register/commands.h"
#include "tools/zor-register/report.h"
#include "zor/pair/pair_parameters.h"

namespace {

using namespace zortool;
using Registration = MUserOperatorStlRegistration;

// A number that `range` holds.
CLI::Validator Within(const ParameterRange& range) {
  return CLI::Validator(
      [range](std::string& text) -> std::string {
        char* end = nullptr;
        const double v = std::strtod(text.c_str(), &end);
        if (end == text.c_str() || *end != '\0') return "'" + text + "' is not a number";
        if (!range.Contains(v)) return "'" + text + "' is outside " + range.Describe();
        return std::string();
      },
      range.Describe());
}

void AddCommonOptions(CLI::App& cmd, CommonOptions& common, bool json) {
  cmd.add_option("--scale", common.scale,
                 "File units times this are millimetres (0.001 for micrometre "
                 "files, 1000 for metres)")
      ->check(Within(PairRanges::kScale))
      ->capture_default_str();
  cmd.add_flag("-q,--quiet", common.quiet, "No progress bar and no warnings");
  cmd.add_option("--threads", common.threads, "Worker threads (0: all cores)")->capture_default_str();
  if (json) cmd.add_flag("--json", common.json, "Print a machine-readable report instead");
}

// `withDefault`: the command offers auto+features and starts from it.
void AddRegistrationOptions(CLI::App& cmd, Registration::MParams& p, std::string& strategy, bool withDefault) {
  strategy = withDefault ? kDefaultStrategy : StrategyName(p.initialAlignment);
  cmd.add_option("--strategy", strategy,
                 std::string("Initial alignment: ") +
                     (withDefault ? "auto+features (auto, then features when the result is doubtful), " : "") +
                     "none (meshes already roughly placed), auto (from the shapes' symmetry), "
                     "axes, rod, disc, ball, or features (matched surface descriptors: partial scans)")
      ->check(CLI::Validator(
          [withDefault](std::string& s) -> std::string {
            const std::optional<StrategyChoice> choice = ParseStrategy(s);
            return choice && (withDefault || !choice->withFeatures)
                       ? std::string()
                       : "unknown strategy '" + s + "' (" + (withDefault ? "auto+features, " : "") +
                             "none, auto, axes, rod, disc, ball, features)";
          },
          "STRATEGY"))
      ->capture_default_str()
      ->group("Registration");
  const auto number = [&](const char* name, auto& field, const char* help, const ParameterRange& range) {
    cmd.add_option(name, field, help)->check(Within(range))->capture_default_str()->group("Registration");
  };
  number("--samples", p.sampleCount, "Samples drawn on the moving mesh", PairRanges::kSamples);
  number("--overlap", p.overlapFraction, "Share of the samples expected to lie on the fixed mesh",
         PairRanges::kOverlap);
  number("--error-tolerance", p.errorTolerance, "Refinement stops below this mean distance (mm)",
         PairRanges::kErrorTolerance);
  number("--iterations", p.iterationCount, "Refinement iterations at most (0: no refinement)", PairRanges::kIterations);
  cmd.add_flag("!--no-reduce", p.reduceMeshes, "Work on the full meshes, not on reduced copies")->group("Registration");
  number("--reduce-tolerance", p.reduceTolerance, "Largest distance the reduced copies may stray (mm)",
         PairRanges::kReduceTolerance);
  number("--slide-step", p.slideStep, "Step of the slide along a long axis (mm)", PairRanges::kSlideStep);
  cmd.add_flag("--normals", p.useNormals, "Match with surface normals as well as distances")->group("Registration");
  cmd.add_flag("--flip-normals", p.flipNormals, "Negate the moving mesh's normals (implies --normals)")
      ->group("Registration");
  number("--normal-radius", p.normalRadius, "Neighbourhood of the fitted normals (mm)", PairRanges::kNormalRadius);
  number("--max-normal-angle", p.maxNormalAngle, "Largest angle between matched normals (degrees)",
         PairRanges::kMaxNormalAngle);
  number("--normal-weight", p.normalWeight, "Weight of the normals against the distance", PairRanges::kNormalWeight);
  number("--sphere-rings", p.sphereRingSteps, "Latitude steps of the directions the ball strategy tries",
         PairRanges::kSphereRings);
  number("--sphere-spins", p.sphereSpinSteps, "Turns about each direction the ball strategy tries",
         PairRanges::kSphereSpins);
  number("--axis-steps", p.axisRotationSteps, "Turns about a symmetry axis the rod and disc strategies try",
         PairRanges::kAxisSteps);
}

void AddIcpOptions(CLI::App& cmd, IcpOptions& o) {
  ZorStlRegistration::MStlBaseOperatorRegistrationICP::MParams& p = o.params;
  const auto number = [&](const char* name, auto& field, const char* help, const ParameterRange& range) {
    cmd.add_option(name, field, help)->check(Within(range))->capture_default_str()->group("ICP");
  };
  cmd.add_flag("!--single", p.multiStart, "One run from --initial instead of the search over starts")->group("ICP");
  cmd.add_flag("!--no-polish", o.polish, "Skip the finish: point-to-plane ICP on the full meshes after the search")
      ->group("ICP");
  number("--directions", p.directionCount, "Directions the moving mesh's axis is aimed at", PairRanges::kDirections);
  number("--rotations", p.rotationCount, "Spins about the axis at each direction", PairRanges::kRotations);
  number("--iterations", p.maxIterations, "Fits in each run", PairRanges::kIcpIterations);
  number("--samples", p.sampleCount, "Points drawn from each mesh", PairRanges::kIcpSamples);
  cmd.add_flag("--allow-scale", p.allowScale, "Also fit a uniform scale")->group("ICP");
  cmd.add_flag("!--no-normals", p.useNormals, "Keep pairs whatever their normals")->group("ICP");
  number("--distance-factor", p.distanceFactor, "Reject pairs beyond this times the median squared distance",
         PairRanges::kDistanceFactor);
  number("--max-distance", o.maxDistance, "Reject pairs farther apart than this (mm) instead (0: the median rule)",
         PairRanges::kMaxDistance);
  cmd.add_option("--initial", o.initial, "Start of --single: 16 numbers, row-major, shift in file units")
      ->expected(16)
      ->delimiter(',')
      ->group("ICP");
  cmd.add_flag("!--no-refine", p.refine, "Skip the final run on a larger sample")->group("ICP");
  number("--refine-factor", p.refineFactor, "How many times larger that sample is", PairRanges::kRefineFactor);
}

void AddDeviationOptions(CLI::App& cmd, DeviationOptions& d) {
  cmd.add_option("--deviation", d.path,
                 "Also write the result as a deviation map: binary PLY with each vertex's signed distance to the "
                 "fixed surface (positive outside, file units) as quality, and colours")
      ->group("Deviation map");
  cmd.add_option("--report", d.report,
                 "Also write an inspection report: one HTML page with the result coloured by its deviation, a "
                 "histogram and the summary, that any browser opens offline")
      ->group("Deviation map");
  cmd.add_option("--deviation-range", d.range,
                 "Distance (file units) within which the map is green; default 3 times the reported error (the "
                 "tolerance for morph)")
      ->check(Within(PairRanges::kDeviationRange))
      ->group("Deviation map");
}

void AddMorphOptions(CLI::App& cmd, MorphOptions& o) {
  const auto number = [&](const char* name, auto& field, const char* help, const ParameterRange& range) {
    cmd.add_option(name, field, help)->check(Within(range))->capture_default_str()->group("Morph");
  };
  cmd.add_flag("!--no-register", o.registerFirst, "Morph the meshes as they lie: no registration, scaling or ICP first")
      ->group("Morph");
  cmd.add_flag("--base-morph", o.baseMorph,
               "Run the base morph (steps toward each vertex's nearest place, position smoothing, no pass limit) "
               "instead of the field morph")
      ->group("Morph");
  number("--tolerance", o.toleranceMm, "A vertex has arrived within this distance of the target (mm)",
         PairRanges::kTolerance);
  number("--target-fraction", o.targetFraction, "Stop once this share of the vertices has arrived",
         PairRanges::kTargetFraction);
  number("--normal-angle", o.normalAngle, "Largest angle between a vertex's and a target triangle's normal (degrees)",
         PairRanges::kNormalAngle);
  number("--search-distance", o.searchDistanceMm,
         "Field morph: farthest match of the first pass (mm); 0: a tenth of MOVING's diagonal",
         PairRanges::kSearchDistance);
  number("--smoothing", o.smoothing, "Field morph: final smoothing length of the displacement field (mean edges)",
         PairRanges::kSmoothing);
  number("--max-passes", o.maxPasses, "Field morph: matching passes at most", PairRanges::kMaxPasses);
  number("--initial-step", o.initialStep, "Base morph: share of the displacement the first step applies",
         PairRanges::kInitialStep);
  number("--step-retention", o.stepRetention,
         "Base morph: share of the way to a whole step that each step keeps missing", PairRanges::kStepRetention);
  number("--smoothing-passes", o.smoothingPasses, "Base morph: smoothing passes after each step",
         PairRanges::kSmoothingPasses);
}

int Fail(int status, const std::string& message) {
  std::fprintf(stderr, "zor-register: %s\n", message.c_str());
  return status;
}

// Runs a command that may write a report; a refused input still leaves the report,
// saying why, and is refused as before, on one line that names the page.
template <typename Command>
int WithRefusalReport(const DeviationOptions& deviation, const char* title, const CommonOptions& common,
                      Command&& command) {
  try {
    return command();
  } catch (const InputError& e) {
    if (!WriteRefusalReport(deviation, title, e.what(), common)) throw;
    throw InputError(std::string(e.what()) + " (" + deviation.report + " says so)");
  }
}

int Run(int argc, char** argv) {
  CLI::App app(
      "Rigid registration of triangle meshes: finds the pose that "
      "lays MOVING on FIXED, with no starting "
      "pose needed.\nFiles: STL (text or binary), PLY (text or binary), OBJ and OFF; "
      "coordinates in millimetres unless --scale says otherwise.",
      "zor-register");
  app.set_version_flag("--version", std::string("zor-register ") + ZOR_VERSION);
  app.require_subcommand(1);

  CommonOptions common;
  Registration::MParams alignParams = PairDefaults();
  std::string alignStrategy, moving, fixed, output;
  CLI::App* align = app.add_subcommand("align", "Register MOVING onto FIXED and print the transform and its error");
  align->add_option("MOVING", moving, "The mesh to move")->required();
  align->add_option("FIXED", fixed, "The mesh it is laid on")->required();
  align->add_option("-o,--output", output, "Also write MOVING, moved, to this file (.stl, .ply, .obj or .off)");
  align->add_flag("--ascii", common.ascii, "Write STL and PLY as text rather than binary");
  AddCommonOptions(*align, common, true);
  AddRegistrationOptions(*align, alignParams, alignStrategy, true);
  bool polish = true;
  align->add_flag("!--no-polish", polish, "Skip the finish: point-to-plane ICP on the full meshes after the search")
      ->group("Registration");
  DeviationOptions deviation;
  AddDeviationOptions(*align, deviation);

  IcpOptions icpOptions;
  std::string icpMoving, icpFixed, icpOutput;
  CLI::App* icp = app.add_subcommand(
      "icp", "Register MOVING onto FIXED by ICP started from many orientations; print the transform and its error");
  icp->add_option("MOVING", icpMoving, "The mesh to move")->required();
  icp->add_option("FIXED", icpFixed, "The mesh it is laid on")->required();
  icp->add_option("-o,--output", icpOutput, "Also write MOVING, moved, to this file (.stl, .ply, .obj or .off)");
  icp->add_flag("--ascii", common.ascii, "Write STL and PLY as text rather than binary");
  AddCommonOptions(*icp, common, true);
  AddIcpOptions(*icp, icpOptions);
  AddDeviationOptions(*icp, deviation);

  MorphOptions morphOptions;
  std::string morphMoving, morphTarget, morphOutput;
  CLI::App* morph = app.add_subcommand(
      "morph",
      "Register MOVING onto TARGET, scale it to TARGET's box and deform it onto TARGET, keeping its triangles");
  morph->add_option("MOVING", morphMoving, "The mesh to deform")->required();
  morph->add_option("TARGET", morphTarget, "The mesh it is deformed onto")->required();
  morph->add_option("-o,--output", morphOutput, "Write MOVING, morphed, to this file (.stl, .ply, .obj or .off)");
  morph->add_flag("--ascii", common.ascii, "Write STL and PLY as text rather than binary");
  AddCommonOptions(*morph, common, true);
  AddMorphOptions(*morph, morphOptions);
  AddDeviationOptions(*morph, deviation);

  MergeOptions merge;
  std::string mergeStrategy;
  Registration::MParams mergeParams = PairDefaults();
  CLI::App* mergeCmd = app.add_subcommand(
      "merge",
      "Bring many views of one part into the frame of the first (or of --reference): print each view's "
      "transform and whether it was placed");
  mergeCmd->add_option("VIEW", merge.views, "The views, in any order")->required();
  mergeCmd->add_option("-o,--output", merge.output,
                       "Also write the placed views together, side by side, to this file (.stl, .ply, .obj or .off)");
  mergeCmd->add_option("--report", merge.report,
                       "Also write an inspection report: the placed views one colour each, how far each point lies "
                       "from the other views, and every view's and pair's verdict (.html)");
  mergeCmd->add_option("--reference", merge.reference, "A model of the part: its frame, and a view like the others");
  mergeCmd
      ->add_option("--max-pairs", merge.options.maxPairs,
                   "Pair registrations at most (0: three for each view beyond the first)")
      ->capture_default_str();
  mergeCmd->add_flag("!--no-refine", merge.options.refine,
                     "Skip the joint refinement of all placed views on their surfaces (multi-view ICP)");
  mergeCmd->add_flag("--ascii", common.ascii, "Write STL and PLY as text rather than binary");
  AddCommonOptions(*mergeCmd, common, true);
  AddRegistrationOptions(*mergeCmd, mergeParams, mergeStrategy, true);

  DemoOptions demo;
  Registration::MParams demoParams = DemoDefaults();
  std::string demoStrategy;
  CLI::App* demoCmd = app.add_subcommand("demo", "Register a built-in sample body back from a random pose");
  demoCmd->add_option("--seed", demo.seed, "Seed of the pose")->capture_default_str();
  demoCmd->add_option("--triangles", demo.triangles, "About this many triangles in the sample body")
      ->check(Within(PairRanges::kSampleTriangles))
      ->capture_default_str();
  demoCmd->add_option("--save", demo.saveFolder, "Write the body and its copy to DIR/fixed.stl and DIR/moving.stl");
  demoCmd->add_flag("--ascii", common.ascii, "Save STL as text rather than binary");
  AddCommonOptions(*demoCmd, common, false);
  AddRegistrationOptions(*demoCmd, demoParams, demoStrategy, false);

  std::string infoPath;
  CLI::App* info = app.add_subcommand("info", "Read a mesh file and print its size and extent");
  info->add_option("FILE", infoPath, "The mesh file")->required();
  AddCommonOptions(*info, common, true);

  std::string convertIn, convertOut;
  CLI::App* convert =
      app.add_subcommand("convert", "Read a mesh file, join its vertices and write it in another format");
  convert->add_option("INPUT", convertIn, "The mesh file to read")->required();
  convert->add_option("OUTPUT", convertOut, "The file to write (.stl, .ply, .obj or .off)")->required();
  convert->add_flag("--ascii", common.ascii, "Write STL and PLY as text rather than binary");
  AddCommonOptions(*convert, common, false);

  if (argc <= 1) return RunDemo(demo, demoParams, common);
  // "help" and "help COMMAND" read as "--help" and "COMMAND --help", as in git.
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args[0] == "help") {
    args.erase(args.begin());
    args.push_back("--help");
  }
  const std::string& first = args[0];
  if (first[0] != '-' && first != "align" && first != "icp" && first != "morph" && first != "merge" &&
      first != "demo" && first != "info" && first != "convert")
    return Fail(2,
                "unknown command '" + first + "' (align, icp, morph, merge, demo, info, convert; --help lists them)");
  try {
    std::reverse(args.begin(), args.end());  // the parser takes its arguments last first
    app.parse(args);
  } catch (const CLI::Success& e) {
    return app.exit(e);  // --help, --version
  } catch (const CLI::ParseError& e) {
    return Fail(2, e.what());
  }

  if (*align) {
    PairOptions pair;
    pair.params = alignParams;
    const StrategyChoice choice = *ParseStrategy(alignStrategy);  // checked by the option
    pair.params.initialAlignment = choice.alignment;
    pair.withFeatures = choice.withFeatures;
    pair.polish = polish;
    return WithRefusalReport(deviation, "zor-register align", common,
                             [&] { return RunAlign(moving, fixed, output, pair, deviation, common); });
  }
  if (*icp)
    return WithRefusalReport(deviation, "zor-register icp", common,
                             [&] { return RunIcp(icpMoving, icpFixed, icpOutput, icpOptions, deviation, common); });
  if (*morph)
    return WithRefusalReport(deviation, "zor-register morph", common, [&] {
      return RunMorph(morphMoving, morphTarget, morphOutput, morphOptions, deviation, common);
    });
  if (*mergeCmd) {
    merge.options.pair.params = mergeParams;
    const StrategyChoice choice = *ParseStrategy(mergeStrategy);  // checked by the option
    merge.options.pair.params.initialAlignment = choice.alignment;
    merge.options.pair.withFeatures = choice.withFeatures;
    return RunMerge(merge, common);
  }
  if (*demoCmd) {
    demoParams.initialAlignment = ParseStrategy(demoStrategy)->alignment;  // checked by the option
    return RunDemo(demo, demoParams, common);
  }
  if (*info) return RunInfo(infoPath, common);
  return RunConvert(convertIn, convertOut, common);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const InputError& e) {
    return Fail(2, e.what());
  } catch (const std::bad_alloc&) {
    return Fail(1, "out of memory");
  } catch (const std::exception& e) {
    return Fail(1, e.what());
  }
}
