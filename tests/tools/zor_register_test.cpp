// Runs the built zor-register on files written here and checks its exit status,
// its output and the files it leaves.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "generators/bodies.h"
#include "generators/mesh_arrays.h"
#include "generators/poses.h"
#include "generators/scan_cases.h"
#include "generators/small_meshes.h"
#include "generators/virtual_scans.h"
#include "zor/files/mesh_files.h"
#include "zor/model/unit.h"

namespace fs = std::filesystem;

namespace {

struct Outcome {
  int status = -1;
  std::string out, err;
};

class ZorRegister : public ::testing::Test {
protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir = fs::temp_directory_path() / (std::string("zor_register_") + info->name() + "_" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }

  std::string Path(const std::string& name) const { return (dir / name).string(); }
  void WriteText(const std::string& name, const std::string& text) const { std::ofstream(Path(name)) << text; }

  // Runs the program with `args` (already quoted where needed) in the test's
  // folder.
  Outcome Tool(const std::string& args) const {
    const std::string command = "cd '" + dir.string() + "' && '" ZOR_REGISTER "' " + args + " >stdout.txt 2>stderr.txt";
    const int raw = std::system(command.c_str());
    Outcome run;
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = Slurp("stdout.txt");
    run.err = Slurp("stderr.txt");
    fs::remove(dir / "stdout.txt");
    fs::remove(dir / "stderr.txt");
    return run;
  }
  std::string Slurp(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path dir;
};

nlohmann::json ParseJson(const Outcome& run) {
  EXPECT_EQ(run.status, 0) << run.err;
  return nlohmann::json::parse(run.out);
}

// A cube of side 30 with one corner pulled out, in quads (the reader
// triangulates them).
const char* kQuadBox =
    "v -15 -12.5 1.25\nv 15 -12.5 1.25\nv 15 17.5 1.25\nv -15 17.5 1.25\n"
    "v -15 -12.5 31.25\nv 15 -12.5 31.25\nv 15 17.5 31.25\nv -15 17.5 45.125\n"
    "f 1 4 3 2\nf 5 6 7 8\nf 1 2 6 5\nf 2 3 7 6\nf 3 4 8 7\nf 4 1 5 8\n";

TEST_F(ZorRegister, EveryFormatRoundTripsThroughConvert) {
  WriteText("box.obj", kQuadBox);
  const nlohmann::json source = ParseJson(Tool("info box.obj --json"));
  EXPECT_EQ(source["points"], 8);
  EXPECT_EQ(source["triangles"], 12);
  EXPECT_DOUBLE_EQ(source["max"][2].get<double>(), 45.125);

  for (const std::string target : {"out.stl", "out.ply", "out.obj", "out.off", "text.stl", "text.PLY"}) {
    SCOPED_TRACE(target);
    const Outcome convert = Tool("convert box.obj " + target + (target[0] == 't' ? " --ascii" : ""));
    ASSERT_EQ(convert.status, 0) << convert.err;
    const nlohmann::json back = ParseJson(Tool("info " + target + " --json"));
    // STL repeats each corner per triangle: the reader joins them back into 8
    // points.
    EXPECT_EQ(back["points"], source["points"]);
    EXPECT_EQ(back["triangles"], source["triangles"]);
    EXPECT_EQ(back["min"], source["min"]);
    EXPECT_EQ(back["max"], source["max"]);
    EXPECT_DOUBLE_EQ(back["area"].get<double>(), source["area"].get<double>());
  }
  // Text formats print grid points as the short decimals they are.
  EXPECT_NE(Slurp("out.off").find("\n-15 -12.5 1.25\n"), std::string::npos);
}

// The transform (file units: millimetres over `scale`) that the program reports
// for a copy placed by `pose` must undo the pose.
void ExpectRecovered(const MMTransformMatrix& pose, double scale, const nlohmann::json& report,
                     double rotationTolerance = 1e-3, double shiftToleranceMm = 0.05) {
  const double ie = MUnit::GetIE();
  double values[16];
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c)
      values[4 * r + c] = report["transform"][r][c].get<double>() * (c == 3 && r < 3 ? scale * ie : 1.0);
  MMTransformMatrix found;
  ASSERT_TRUE(found.MakeFromDouble16(values));
  const MMTransformMatrix residue = found * pose;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(residue.GetElement(r, c), r == c ? 1.0 : 0.0, rotationTolerance);
  EXPECT_LT(Length(residue.GetTranslation()) / ie, shiftToleranceMm);
}

TEST_F(ZorRegister, AlignRecoversAKnownPoseAndReportsIt) {
  const double ie = MUnit::GetIE();
  const auto body = zorgen::MakeSampleBody(24);
  const MMTransformMatrix pose = zorgen::DrawPose(5, 30.0 * ie);
  for (double scale : {1.0, 1000.0}) {  // millimetre files, then metre files read with --scale 1000
    SCOPED_TRACE(scale);
    ZorStlRegistration::WriteMesh(*body, nullptr, scale, Path("fixed.ply"), false);
    ZorStlRegistration::WriteMesh(*body, &pose, scale, Path("moving.obj"), false);
    const std::string scaleArg = " --scale " + std::to_string(scale);
    const Outcome run = Tool(
        "align moving.obj fixed.ply --json --overlap 1 "
        "--error-tolerance 0.01 -o moved.stl" +
        scaleArg);
    EXPECT_EQ(run.err, "");  // no progress bar when stderr is not a terminal
    const nlohmann::json report = ParseJson(run);
    ExpectRecovered(pose, scale, report);
    EXPECT_EQ(report["strategy"], "auto+features");
    EXPECT_EQ(report["strategy_used"], "axes");
    // A sound result: the whole copy lies on the body, closely, and no doubt is raised.
    EXPECT_GT(report["overlap"].get<double>(), 0.99);
    EXPECT_LT(report["overlap_rms"].get<double>() * scale, 0.01);
    EXPECT_EQ(report["doubtful"], false);
    EXPECT_EQ(report["polished"], true);
    EXPECT_GT(report["inliers"].get<int>(),
              450);  // about 500 samples, all on the body
    EXPECT_LT(report["error"].get<double>() * scale,
              0.1);  // reported in file units
    EXPECT_GT(report["seconds"]["total"].get<double>(), 0.0);
    // The whole call holds its stages, and reading is counted apart.
    EXPECT_GE(report["seconds"]["registration"].get<double>(), report["seconds"]["verdicts"].get<double>());
    EXPECT_GT(report["seconds"]["read"].get<double>(), 0.0);
    EXPECT_EQ(report["moving"]["triangles"], body->GetNumberOfTriangles());

    // The moved copy lands on the body.
    const nlohmann::json moved = ParseJson(Tool("info moved.stl --json" + scaleArg));
    const nlohmann::json fixed = ParseJson(Tool("info fixed.ply --json" + scaleArg));
    for (int k = 0; k < 3; ++k) {
      EXPECT_NEAR(moved["min"][k].get<double>() * scale, fixed["min"][k].get<double>() * scale, 0.05);
      EXPECT_NEAR(moved["max"][k].get<double>() * scale, fixed["max"][k].get<double>() * scale, 0.05);
    }
  }
  // The plain report carries the same transform, rounded for reading.
  const Outcome text = Tool("align moving.obj fixed.ply --scale 1000 --strategy axes");
  EXPECT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("transform moving onto fixed"), std::string::npos);
  EXPECT_NE(text.out.find("error "), std::string::npos);
  EXPECT_NE(text.out.find("overlap "), std::string::npos);
}

TEST_F(ZorRegister, ADoubtfulResultIsReportedAndWarnedOfButNotAnError) {
  // A ball registered onto a box it is no part of: whatever pose is found, little of the
  // ball lies on the box, and the command must say so rather than report success.
  ZorStlRegistration::WriteMesh(*zorgen::MakeSphere(15000, 30, 60), nullptr, 1.0, Path("ball.stl"), false);
  ZorStlRegistration::WriteMesh(*zorgen::MakeBox(40000, 30000, 20000, 12), nullptr, 1.0, Path("box.stl"), false);
  const Outcome run = Tool("align ball.stl box.stl --json");
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.err.find("warning: the result is doubtful: only "), std::string::npos) << run.err;
  const nlohmann::json report = ParseJson(run);
  EXPECT_EQ(report["doubtful"], true);
  EXPECT_LT(report["overlap"].get<double>(), 0.3);
  EXPECT_NE(report["doubt"].get<std::string>().find("lies on the fixed mesh"), std::string::npos);
  // Both ways were tried; quiet keeps stderr empty.
  EXPECT_EQ(Tool("align ball.stl box.stl --quiet --strategy features").err, "");
}

// A part scanned on a table beside other objects, aligned onto the part alone: the
// result is sound, and the map greys the table and the objects out of its figures
// instead of colouring them as deviations.
TEST_F(ZorRegister, AlignMapsTheClutterOfAScanAsWithoutCounterpart) {
  const zorgen::MeshArrays body = zorgen::ScaledToDiagonal(zorgen::MakeLumpyBody(11, 12000), 200000.0);
  const zorgen::ScanCase c = zorgen::MakeScanCase(body, zorgen::ScanKind::Scene, 3);
  ZorStlRegistration::WriteMesh(*zorgen::MakeMesh(c.moving), nullptr, 1.0, Path("scan.ply"), false);
  ZorStlRegistration::WriteMesh(*zorgen::MakeMesh(c.fixed), nullptr, 1.0, Path("part.stl"), false);
  const nlohmann::json report = ParseJson(Tool("align scan.ply part.stl --json --deviation map.ply"));
  EXPECT_EQ(report["doubtful"], false) << report["doubt"];
  std::size_t clutter = 0;
  for (const std::uint8_t on : c.onFixed) clutter += on == 0 ? 1 : 0;
  const std::size_t apart = report["deviation"]["without_counterpart"].get<std::size_t>();
  EXPECT_GT(apart, clutter / 2);
  EXPECT_LT(apart, clutter + clutter / 10);
  EXPECT_GT(report["deviation"]["within_range"].get<double>(), 0.95);
  EXPECT_NE(Slurp("map.ply").find("grey without a counterpart"), std::string::npos);
}

// The multi-start ICP from the files alone, on a body with a deep relief (the search
// tells poses apart by sampled points, so the body must differ from its turns by more
// than the samples' spacing), and its refusals.
TEST_F(ZorRegister, IcpRecoversAKnownPoseAndRefusesWhatHasNoAxis) {
  const double ie = MUnit::GetIE();
  const auto body = zorgen::MakeSphere(20000, 40, 80, 6000);
  const MMTransformMatrix pose = zorgen::DrawPose(3, 30.0 * ie);
  ZorStlRegistration::WriteMesh(*body, nullptr, 1.0, Path("fixed.stl"), false);
  ZorStlRegistration::WriteMesh(*body, &pose, 1.0, Path("moving.ply"), false);
  const nlohmann::json report = ParseJson(Tool("icp moving.ply fixed.stl --json -o moved.off"));
  // The finish lays the search's pose on the surface.
  ExpectRecovered(pose, 1.0, report, 0.01, 0.05);
  EXPECT_TRUE(report["polished"].get<bool>());
  EXPECT_FALSE(report["doubtful"].get<bool>());
  EXPECT_GT(report["overlap"].get<double>(), 0.99);
  EXPECT_LT(report["rms_error"].get<double>(), 2.0);  // mm, of the search
  // Without it, ten point-to-point fits between sparse samples converge slowly: the
  // right pose to within a few degrees (a turn of the relief would be tens of degrees off).
  const nlohmann::json searched = ParseJson(Tool("icp moving.ply fixed.stl --json --no-polish"));
  ExpectRecovered(pose, 1.0, searched, 0.1, 2.0);
  EXPECT_FALSE(searched["polished"].get<bool>());
  EXPECT_EQ(report["starts"], 360);
  EXPECT_EQ(report["refined_samples"], 5000);
  EXPECT_TRUE(fs::exists(dir / "moved.off"));
  // One run from a given start, written in file units.
  std::string initial;
  const MMTransformMatrix back = pose.Inverted();
  for (int i = 0; i < 16; ++i)
    initial += (i ? "," : "") + std::to_string(back.GetElement(i / 4, i % 4) / (i % 4 == 3 && i < 12 ? ie : 1.0));
  const nlohmann::json single = ParseJson(Tool("icp moving.ply fixed.stl --json --single --initial " + initial));
  ExpectRecovered(pose, 1.0, single, 0.02, 1.0);
  EXPECT_EQ(single["starts"], 1);

  WriteText("line.off", "OFF\n4 2 0\n0 0 0\n1 0 0\n2 0 0\n3 0 0\n3 0 1 2\n3 1 2 3\n");
  for (const auto& [args, message] :
       {std::pair<std::string, std::string>{"icp line.off fixed.stl --quiet", "'line.off' has no area"},
        {"icp moving.ply fixed.stl --directions 0", "--directions"},
        {"icp moving.ply fixed.stl --single --initial 1,0,0", "--initial"}}) {
    SCOPED_TRACE(args);
    const Outcome run = Tool(args);
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << "one line: " << run.err;
  }
}

// The registered morph from files: a bumpy sphere under a pose and stretched, onto a
// bent copy laid on other rows; the morphed file keeps the moving file's triangles, and
// the deviation map holds a distance and a colour per vertex.
TEST_F(ZorRegister, MorphLaysAMovedStretchedCopyOnItsBentTargetAndMapsTheDeviation) {
  const double ie = MUnit::GetIE();
  auto target = zorgen::MakeSphere(20000.0, 48, 96, 1500.0);
  for (MStlPoint* p = target->GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    const double u = p->GetX() / 20000.0;
    p->Set(MMVector3i(p->GetX(), p->GetY(), p->GetZ() + static_cast<std::int32_t>(std::lround(1500.0 * u * u))));
  }
  target->Update(65, true);
  auto moving = zorgen::MakeSphere(20000.0, 44, 90, 1500.0);
  moving->Rescale(1.03f, 0.98f, 1.0f, MMVector3i());
  const MMTransformMatrix pose = zorgen::DrawPose(3, 30.0 * ie);
  ZorStlRegistration::WriteMesh(*target, nullptr, 1.0, Path("target.stl"), false);
  ZorStlRegistration::WriteMesh(*moving, &pose, 1.0, Path("moving.ply"), false);

  const nlohmann::json report =
      ParseJson(Tool("morph moving.ply target.stl -o morphed.ply --json --tolerance 0.2 --deviation map.ply"));
  EXPECT_TRUE(report["registration_succeeded"].get<bool>());
  EXPECT_EQ(report["method"], "field");
  EXPECT_GT(report["passes"].get<int>(), 0);
  // The registration's box scaling leaves this pair far from a nearby deformation (it
  // scales rotated axes by 0.90 and 1.09); the morph folds a handful of triangles there.
  EXPECT_LT(report["folded"].get<double>(), 0.01 * moving->GetNumberOfTriangles());
  EXPECT_LT(report["p95_distance"].get<double>(), 0.2);
  // The printed distances are those of the map of the same result.
  EXPECT_NEAR(report["max_distance"].get<double>(), report["deviation"]["largest"].get<double>(), 1e-6);
  EXPECT_EQ(report["moving"]["triangles"], moving->GetNumberOfTriangles());
  EXPECT_GT(report["deviation"]["within_range"].get<double>(), 0.9);
  EXPECT_LT(report["deviation"]["p95"].get<double>(), 0.3);
  const nlohmann::json morphed = ParseJson(Tool("info morphed.ply --json"));
  EXPECT_EQ(morphed["triangles"], moving->GetNumberOfTriangles());
  EXPECT_EQ(morphed["points"], moving->NumberOfPoints());
  const std::string map = Slurp("map.ply");
  EXPECT_NE(map.find("property float quality\nproperty uchar red"), std::string::npos);
  EXPECT_NE(map.find("element vertex " + std::to_string(moving->NumberOfPoints()) + "\n"), std::string::npos);

  // Meshes that already agree: --no-register morphs nothing, with either morph.
  const nlohmann::json same = ParseJson(Tool("morph target.stl target.stl --no-register --json"));
  EXPECT_EQ(same["max_distance"], 0.0);
  EXPECT_FALSE(same["registered"].get<bool>());
  const nlohmann::json base = ParseJson(Tool("morph target.stl target.stl --no-register --base-morph --json"));
  EXPECT_EQ(base["iterations"], 0);
  EXPECT_EQ(base["method"], "base");
}

TEST_F(ZorRegister, DemoRunsWithNoArgumentsAndSavesMeshesThatAlignAgrees) {
  const Outcome plain = Tool("");
  ASSERT_EQ(plain.status, 0) << plain.err;
  double angle = 1e9, distance = 1e9;
  const auto at = plain.out.find("difference");
  ASSERT_NE(at, std::string::npos);
  ASSERT_EQ(std::sscanf(plain.out.c_str() + at, "difference %lf deg, %lf mm", &angle, &distance), 2) << plain.out;
  EXPECT_LT(angle, 0.05);
  EXPECT_LT(distance, 0.05);

  const Outcome saved = Tool("demo --triangles 5000 --save samples");
  ASSERT_EQ(saved.status, 0) << saved.err;
  const Outcome align = Tool(
      "align samples/moving.stl samples/fixed.stl "
      "--overlap 1 --error-tolerance 0.01 --json");
  EXPECT_LT(ParseJson(align)["error"].get<double>(), 0.1);
}

// Each bad input: exit status 2, one line on stderr naming the fault, and no
// file made.
TEST_F(ZorRegister, BadInputExitsWithStatusTwoAndWritesNothing) {
  WriteText("box.obj", kQuadBox);
  WriteText("empty.stl", "solid nothing\nendsolid nothing\n");
  WriteText("garbage.stl", "this is not a mesh\n");
  WriteText("far.off", "OFF\n3 1 0\n0 0 0\n3000000 0 0\n0 1 0\n3 0 1 2\n");
  WriteText("stray.off", "OFF\n5 4 0\n0 0 0\n10 0 0\n0 10 0\n0 0 10\n50 50 50\n3 0 2 1\n3 0 1 3\n3 0 3 2\n3 1 2 3\n");
  WriteText("flat.off", "OFF\n4 2 0\n0 0 0\n10 0 0\n10 10 0\n0 10 0\n3 0 1 2\n3 0 2 3\n");
  {
    // A binary STL whose second corner is not a number.
    std::ofstream nan(Path("nan.stl"), std::ios::binary);
    const std::string header(80, ' ');
    nan.write(header.data(), 80);
    const std::uint32_t one = 1;
    nan.write(reinterpret_cast<const char*>(&one), 4);
    const float values[12] = {0, 0, 1, 0, 0, 0, NAN, 1, 0, 0, 1, 0};
    nan.write(reinterpret_cast<const char*>(values), sizeof values);
    nan.write("\0\0", 2);
  }
  fs::create_directories(dir / "folder.stl");
  const std::vector<std::string> before = Files();

  const struct {
    const char* args;
    const char* message;
  } cases[] = {
      {"align missing.stl box.obj -o out.stl", "cannot read 'missing.stl': No such file or directory"},
      // Both files are read at once; when both fail, the first one named is reported.
      {"align missing.stl garbage.stl -o out.stl", "cannot read 'missing.stl': No such file or directory"},
      {"align box.obj folder.stl -o out.stl", "cannot read 'folder.stl': it is a directory"},
      {"align garbage.stl box.obj -o out.stl", "cannot read 'garbage.stl'"},
      {"align empty.stl box.obj -o out.stl", "'empty.stl' has no triangles"},
      {"align box.obj nan.stl -o out.stl", "'nan.stl': vertex 2 has a coordinate that is not finite"},
      {"align far.off box.obj -o out.stl", "'far.off': coordinates reach 3e+06, past the 32-bit grid at scale 1"},
      {"align box.obj box.obj --scale 1e6 -o out.stl", "past the 32-bit grid at scale 1e+06"},
      {"align box.obj box.obj --bogus -o out.stl", "--bogus"},
      {"align box.obj box.obj --strategy spiral -o out.stl", "unknown strategy 'spiral'"},
      {"align box.obj box.obj --overlap 1.5 -o out.stl", "--overlap: '1.5' is outside (0, 1]"},
      {"align box.obj box.obj --scale -2 -o out.stl", "--scale: '-2' is outside"},
      {"align box.obj box.obj -o out.xyz", "unknown format '.xyz'"},
      {"morph flat.off box.obj -o out.stl", "'flat.off' is flat along z"},
      {"morph box.obj flat.off -o out.stl", "'flat.off' is flat along z"},
      {"morph missing.stl box.obj -o out.stl", "cannot read 'missing.stl'"},
      {"morph stray.off box.obj --base-morph -o out.stl", "'stray.off' holds 1 point(s) that no triangle uses"},
      {"morph box.obj box.obj --tolerance nan -o out.stl", "--tolerance: 'nan' is outside"},
      {"morph box.obj box.obj --initial-step inf -o out.stl", "--initial-step: 'inf' is outside"},
      {"morph box.obj box.obj --smoothing-passes -1 -o out.stl", "--smoothing-passes"},
      {"align box.obj box.obj --deviation map.stl", "name it .ply"},
      {"icp box.obj box.obj --deviation map.ply --deviation-range inf", "--deviation-range: 'inf' is outside"},
      {"morph box.obj box.obj --deviation nowhere/map.ply", "no folder 'nowhere'"},
      {"convert box.obj nowhere/out.stl", "no folder 'nowhere'"},
      {"convert box.obj folder.stl", "cannot write 'folder.stl'"},  // fails at the rename
      {"frobnicate", "unknown command 'frobnicate'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    const Outcome run = Tool(c.args);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << "one line: " << run.err;
    EXPECT_EQ(Files(), before);  // no output file, no temporary left behind
  }
  // Asked for a report, a refused input still leaves one that says why.
  const Outcome refused = Tool("align empty.stl box.obj --report refused.html");
  EXPECT_EQ(refused.status, 2);
  EXPECT_NE(refused.err.find("'empty.stl' has no triangles (refused.html says so)"), std::string::npos) << refused.err;
  const std::string page = Slurp("refused.html");
  EXPECT_NE(page.find("id=\"zor-problem\">The input was refused: 'empty.stl' has no triangles"), std::string::npos);
  EXPECT_EQ(page.find("zor-histogram\""), std::string::npos);  // no chart of nothing
  fs::remove(dir / "refused.html");
  // The overflow message names a scale that works.
  EXPECT_NE(Tool("info far.off").err.find("try --scale 0.1"), std::string::npos);
  EXPECT_EQ(Tool("info far.off --scale 0.1").status, 0);
}

TEST_F(ZorRegister, WarnsWhenTheGridIsCoarseForTheMesh) {
  // A 2 mm box spans under 10^4 micrometre steps: accepted, with advice on
  // stderr.
  WriteText("small.off",
            "OFF\n4 4 0\n0 0 0\n0.002 0 0\n0 0.002 0\n0 0 "
            "0.002\n3 0 2 1\n3 0 1 3\n3 0 3 2\n3 1 2 3\n");
  const Outcome run = Tool("info small.off");
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.err.find("warning: 'small.off' spans only 3 grid steps"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("try --scale 100000"), std::string::npos) << run.err;
  EXPECT_EQ(Tool("info small.off --quiet").err, "");
}

}  // namespace

namespace {

TEST_F(ZorRegister, MergePlacesViewsInTheFirstOnesFrameAndWritesThemTogether) {
  const zorgen::MeshArrays body = zorgen::ScaledToDiagonal(zorgen::MakeLumpyBody(3, 12000), 150.0 * MUnit::GetIE());
  std::string views;
  std::size_t triangles = 0, number = 0;
  std::mt19937 rng(4);
  for (const zorgen::VirtualScan& scan : zorgen::VirtualScans(body, 6, 0.0, 5)) {
    const std::unique_ptr<MStlBase> mesh = zorgen::MakeMovedCopy(scan.view, zorgen::UniformPose(rng, 30000.0));
    const std::string name = "view" + std::to_string(number++) + ".ply";
    ZorStlRegistration::WriteMesh(*mesh, nullptr, 1.0, Path(name), false);
    views += " " + name;
    triangles += mesh->GetNumberOfTriangles();
  }
  const Outcome run = Tool("merge" + views + " -o all.stl --json --report merge.html");
  ASSERT_EQ(run.status, 0) << run.err;
  const nlohmann::json report = nlohmann::json::parse(run.out);
  ASSERT_EQ(report["views"].size(), 6u);
  for (const auto& view : report["views"]) EXPECT_TRUE(view["placed"].get<bool>()) << view["file"];
  EXPECT_NEAR(report["views"][0]["transform"][0][0].get<double>(), 1.0, 1e-12);
  EXPECT_EQ(ZorStlRegistration::ReadMesh(Path("all.stl"), 1.0).fileTriangles, triangles);
  const std::string page = Slurp("merge.html");
  EXPECT_NE(page.find("view 6"), std::string::npos);
  EXPECT_NE(page.find("onto 1"), std::string::npos);  // a pair onto the first view
  EXPECT_EQ(Tool("merge" + views + " --report merge.txt").status, 2);

  const Outcome text = Tool("merge" + views);
  EXPECT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("placed     6 of 6 views"), std::string::npos) << text.out;
  EXPECT_EQ(Tool("merge view0.ply missing.ply").status, 2);
}

}  // namespace
