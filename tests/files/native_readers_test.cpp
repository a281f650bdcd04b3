// The tool's own readers: every format and flavour the tool writes reads back as the
// very mesh it wrote; PLY in either byte order with any properties and polygon faces,
// OBJ with relative and slashed indices and OFF variants read; a malformed file is
// refused with its name, the place and the reason; and mutated files never get past
// that refusal in any other way.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "zor/files/mesh_files.h"
#include "zor/model/stl.h"
#include "zor/model/unit.h"

namespace {

namespace fs = std::filesystem;
using ZorStlRegistration::InputError;
using ZorStlRegistration::ReadMesh;

struct Files : ::testing::Test {
  void SetUp() override {
    dir =
        fs::temp_directory_path() / ("zor_native_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                                     "_" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }
  std::string Path(const std::string& name) const { return (dir / name).string(); }
  void Write(const std::string& name, const std::string& bytes) const {
    std::ofstream(Path(name), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  fs::path dir;
};

// Every point in mesh order and every triangle's corners as point numbers.
std::vector<std::int32_t> Shape(const MStlBase& mesh) {
  std::vector<std::int32_t> out;
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it)
    for (int k = 0; k < 3; ++k) out.push_back(it->GetInt()[k]);
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it)
    for (int k = 0; k < 3; ++k)
      for (int d = 0; d < 3; ++d) out.push_back(it->GetPoint(k)->GetInt()[d]);
  return out;
}

// Every triangle as its corners' grid coordinates, sorted: equal for equal surfaces
// whatever order the points come in.
std::vector<std::array<std::int32_t, 9>> Triangles(const MStlBase& mesh) {
  std::vector<std::array<std::int32_t, 9>> out;
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
    std::array<std::int32_t, 9> t;
    for (int k = 0; k < 3; ++k)
      for (int d = 0; d < 3; ++d) t[3 * k + d] = it->GetPoint(k)->GetInt()[d];
    out.push_back(t);
  }
  std::sort(out.begin(), out.end());
  return out;
}

TEST_F(Files, EveryFormatReadsBackExactlyWhatTheToolWrote) {
  const auto body = zorgen::MakeSampleBody(12);
  for (const char* name : {"b.stl", "t.stl", "b.ply", "t.ply", "t.obj", "t.off"}) {
    SCOPED_TRACE(name);
    ZorStlRegistration::WriteMesh(*body, nullptr, 1.0, Path(name), name[0] == 't');
    const ZorStlRegistration::LoadedMesh back = ReadMesh(Path(name), 1.0);
    EXPECT_EQ(back.mesh->NumberOfPoints(), body->NumberOfPoints());
    EXPECT_EQ(Triangles(*back.mesh), Triangles(*body));
  }
  // Binary and text twins: the same mesh, point for point, in the same order.
  EXPECT_EQ(Shape(*ReadMesh(Path("b.stl"), 1.0).mesh), Shape(*ReadMesh(Path("t.stl"), 1.0).mesh));
  EXPECT_EQ(Shape(*ReadMesh(Path("b.ply"), 1.0).mesh), Shape(*ReadMesh(Path("t.ply"), 1.0).mesh));
}

TEST_F(Files, ObjAndOffVariantsRead) {
  // OBJ: slashed corners, a quad, negative indices counting back, other statements.
  Write("quad.obj",
        "# a unit square and a roof\nmtllib x.mtl\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvn 0 0 1\n"
        "g part\nusemtl m\ns off\nf 1/1/1 2/1/1 3//1 4\nv 0.5 0.5 1\nf -5 -4 -1\n");
  const ZorStlRegistration::LoadedMesh obj = ReadMesh(Path("quad.obj"), 1.0);
  EXPECT_EQ(obj.fileTriangles, 3u);
  EXPECT_EQ(obj.mesh->NumberOfPoints(), 5u);
  // OFF variants: colours after vertices and faces, homogeneous coordinates, counts
  // on the keyword's line, comments.
  Write("c.off",
        "COFF\n# colours\n4 2 0\n0 0 0 255 0 0 255\n1 0 0 0 255 0 255\n1 1 0 0 0 255 255\n"
        "0 1 0 9 9 9 255\n3 0 1 2\n3 0 2 3 1 0 0\n");
  Write("h.off", "4OFF 3 1 3\n0 0 0 1\n2 0 0 2\n0 4 0 4\n3 0 1 2\n");
  EXPECT_EQ(ReadMesh(Path("c.off"), 1.0).fileTriangles, 2u);
  const ZorStlRegistration::LoadedMesh h = ReadMesh(Path("h.off"), 1.0);
  EXPECT_EQ(Triangles(*h.mesh).size(), 1u);
  EXPECT_EQ(h.mesh->GetXMax(), std::int32_t(MUnit::GetIE()));  // (2, 0, 0) / 2
  EXPECT_EQ(h.mesh->GetYMax(), std::int32_t(MUnit::GetIE()));  // (0, 4, 0) / 4
}

TEST_F(Files, EveryMalformedClassIsRefusedWithItsReason) {
  std::string stl(84 + 50, '\0');
  stl[80] = 2;  // declares two triangles, holds one
  const std::string head =
      "ply\nformat binary_little_endian 1.0\nelement vertex 3\nproperty float x\n"
      "property float y\nproperty float z\nelement face 1\n"
      "property list uchar int vertex_indices\nend_header\n";
  const std::string vertices(36, '\0');
  const auto face = [](int a, int b, int c) {
    std::string f = "\x03";
    for (int v : {a, b, c}) f += std::string(reinterpret_cast<const char*>(&v), 4);
    return f;
  };
  const struct {
    const char* name;
    std::string bytes;
    const char* message;
  } cases[] = {
      {"cut.stl", stl, "a binary STL of 2 triangles takes 184 bytes; the file has 134"},
      {"empty.ply", "", "the file is empty"},
      {"short.ply", head + vertices.substr(0, 20), "3 vertices need more bytes than the 20 that follow"},
      {"index.ply", head + vertices + face(0, 1, 9), "vertex index 9 of face 1 is not below the 3 vertices"},
      {"huge.ply",
       "ply\nformat binary_little_endian 1.0\nelement vertex 4000000000\nproperty float x\nproperty float y\n"
       "property float z\nend_header\n" +
           vertices,
       "4000000000 vertices need more bytes"},
      {"float16.ply", "ply\nformat binary_little_endian 1.0\nelement vertex 1\nproperty float16 x\nend_header\n",
       "unknown PLY type 'float16' (header line 4)"},
      {"scene.dae", "<?xml version=\"1.0\"?><COLLADA/>", "not an STL, PLY, OBJ or OFF file (unknown format '.dae')"},
      {"count.off", "OFF\n1000000 1 0\n0 0 0\n", "1000000 vertices cannot fit in the"},
      {"index.off", "OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 3\n", "corner: 3 is not within [0, 2] (line 6)"},
      {"inf.obj", "v 0 0 0\nv 1 0 inf\nv 0 1 0\nf 1 2 3\n", "'inf' is not finite (line 2)"},
      {"nan.off", "OFF\n3 1 0\n0 0 0\n1 nan 0\n0 1 0\n3 0 1 2\n", "'nan' is not finite (line 4)"},
      {"negative.obj", "v 0 0 0\nv 1 0 0\nf 1 2 -3\n", "vertex -3 of a face is not among the 2 vertices"},
      {"zero.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 0 1 2\n", "vertex 0 of a face"},
      {"word.obj", "v 0 0 zero\n", "'zero' is not a number (line 1)"},
      {"type.ply", "ply\nformat ascii 1.0\nelement vertex 1\nproperty half x\nend_header\n",
       "unknown PLY type 'half' (header line 4)"},
      {"comment.ply",
       "ply\nformat ascii 1.0\ncomment end_header inside a comment\nelement vertex 3\nproperty float x\n"
       "property float y\nproperty float z\nelement face 1\nproperty list uchar int vertex_indices\n",
       "no end_header line"},
      {"shorttext.ply",
       "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\nproperty float z\n"
       "end_header\n0 0 0\n1 0 0\n",
       "3 vertices cannot fit in the 12 bytes that follow (line 8)"},
      {"loop.stl", "solid s\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nendloop\nendfacet\n",
       "a loop of 2 vertices (line 6)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Write(c.name, c.bytes);
    try {
      ReadMesh(Path(c.name), 1.0);
      ADD_FAILURE() << "read without complaint";
    } catch (const InputError& e) {
      const std::string what = e.what();
      EXPECT_NE(what.find(c.name), std::string::npos) << what;
      EXPECT_NE(what.find(c.message), std::string::npos) << what;
    }
  }
}

TEST_F(Files, MutatedFilesAreReadOrRefusedNeverAnythingElse) {
  // Files of every format, truncated, with bytes flipped, digits changed and junk put
  // in, as a user's damaged downloads would be: each either reads or is refused as bad
  // input; a crash, a hang or another kind of error fails the test.
  const auto body = zorgen::MakeSampleBody(2);
  std::vector<std::pair<std::string, std::string>> sources;
  for (const char* name : {"b.stl", "t.stl", "b.ply", "t.ply", "t.obj", "t.off"}) {
    ZorStlRegistration::WriteMesh(*body, nullptr, 1.0, Path(name), name[0] == 't');
    std::ifstream in(Path(name), std::ios::binary);
    sources.emplace_back(name, std::string(std::istreambuf_iterator<char>(in), {}));
  }
  std::mt19937 rng(2026);
  int refused = 0, read = 0;
  for (int round = 0; round < 300; ++round)
    for (const auto& [name, original] : sources) {
      std::string bytes = original;
      std::uniform_int_distribution<std::size_t> at(0, bytes.size() - 1);
      switch (round % 4) {
        case 0: bytes.resize(at(rng)); break;
        case 1:
          for (int k = 0; k < 4; ++k) bytes[at(rng)] = static_cast<char>(rng());
          break;
        case 2:
          for (char& ch : bytes)
            if (ch >= '0' && ch <= '9' && rng() % 40 == 0) ch = static_cast<char>('0' + rng() % 10);
          break;
        default: bytes.insert(at(rng), std::string(1 + rng() % 16, static_cast<char>(rng())));
      }
      const std::string mutated = "m" + std::to_string(round) + name;
      Write(mutated, bytes);
      try {
        ReadMesh(Path(mutated), 1.0);
        ++read;
      } catch (const InputError&) {
        ++refused;
      }
      fs::remove(Path(mutated));
    }
  EXPECT_GT(refused, 300);
  EXPECT_GT(read, 100);
}

std::string Be32(std::uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }
std::string BeFloat(float f) {
  std::uint32_t bits;
  std::memcpy(&bits, &f, 4);
  return Be32(bits);
}

TEST_F(Files, BigEndianPlyWithPolygonsAndExtraPropertiesReads) {
  // Five points (each with a double and a list beside x, y, z), one quad and one
  // triangle, then an element the reader skips.
  std::string ply =
      "ply\nformat binary_big_endian 1.0\ncomment made by hand\nelement vertex 5\nproperty double quality\n"
      "property float x\nproperty float y\nproperty float z\nproperty list uchar short tags\nelement face 2\n"
      "property uchar flags\nproperty list uchar int vertex_indices\nelement edge 1\nproperty int a\n"
      "property int b\nend_header\n";
  const float points[5][3] = {{0, 0, 0}, {10, 0, 0}, {10, 10, 0}, {0, 10, 0}, {5, 5, 8}};
  for (const auto& p : points) {
    ply += std::string(8, '\0');
    for (float c : p) ply += BeFloat(c);
    ply += std::string("\x01\x00\x07", 3);
  }
  ply += std::string("\x00\x04", 2) + Be32(0) + Be32(1) + Be32(2) + Be32(3);
  ply += std::string("\x00\x03", 2) + Be32(0) + Be32(1) + Be32(4);
  ply += Be32(0) + Be32(1);
  Write("big.ply", ply);
  const ZorStlRegistration::LoadedMesh loaded = ReadMesh(Path("big.ply"), 1.0);
  EXPECT_EQ(loaded.fileVertices, 5u);
  EXPECT_EQ(loaded.fileTriangles, 3u);  // the quad as a fan of two
  ASSERT_EQ(loaded.mesh->NumberOfPoints(), 5u);
  EXPECT_NE(loaded.mesh->GetPoint(5000, 5000, 8000), nullptr);
  EXPECT_NEAR(loaded.mesh->SurfaceArea(), 100e6 + 0.5 * 10000 * std::sqrt(64e6 + 25e6), 1.0);
}

}  // namespace

namespace {

TEST_F(Files, AnElementOfNoPropertiesTakesNoTimeHoweverMany) {
  // Items without properties hold no bytes: a header may declare 10^17 of them, and the
  // reader must not walk them one by one.
  Write("many.ply",
        "ply\nformat ascii 1.0\nelement nothing 100000000000000000\nelement vertex 3\nproperty float x\n"
        "property float y\nproperty float z\nelement face 1\nproperty list uchar int vertex_indices\nend_header\n"
        "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n");
  EXPECT_EQ(ReadMesh(Path("many.ply"), 1.0).fileTriangles, 1u);
}

}  // namespace
