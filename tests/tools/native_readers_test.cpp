// The tool's own binary readers: they give the very mesh the importer gives for the
// same mesh in text, read PLY in either byte order with any properties and polygon
// faces, and refuse a malformed file with its name, the place and the reason.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/generators/bodies.h"
#include "tools/zor-register/mesh_files.h"
#include "zor/model/stl.h"

namespace {

namespace fs = std::filesystem;
using zortool::InputError;
using zortool::ReadMesh;

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

TEST_F(Files, BinaryFilesReadAsTheImporterReadsTheirTextTwins) {
  const auto body = zorgen::MakeSampleBody(12);
  for (const char* ext : {".stl", ".ply"}) {
    SCOPED_TRACE(ext);
    zortool::WriteMesh(*body, nullptr, 1.0, Path(std::string("binary") + ext), false);
    zortool::WriteMesh(*body, nullptr, 1.0, Path(std::string("text") + ext), true);
    const zortool::LoadedMesh binary = ReadMesh(Path(std::string("binary") + ext), 1.0);
    const zortool::LoadedMesh text = ReadMesh(Path(std::string("text") + ext), 1.0);
    EXPECT_EQ(Shape(*binary.mesh), Shape(*text.mesh));
    EXPECT_EQ(binary.fileVertices, text.fileVertices);
    EXPECT_EQ(binary.fileTriangles, text.fileTriangles);
    EXPECT_EQ(binary.joined.pointsMerged, text.joined.pointsMerged);
  }
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
  const zortool::LoadedMesh loaded = ReadMesh(Path("big.ply"), 1.0);
  EXPECT_EQ(loaded.fileVertices, 5u);
  EXPECT_EQ(loaded.fileTriangles, 3u);  // the quad as a fan of two
  ASSERT_EQ(loaded.mesh->NumberOfPoints(), 5u);
  EXPECT_NE(loaded.mesh->GetPoint(5000, 5000, 8000), nullptr);
  EXPECT_NEAR(loaded.mesh->SurfaceArea(), 100e6 + 0.5 * 10000 * std::sqrt(64e6 + 25e6), 1.0);
}

TEST_F(Files, MalformedPlyNamesTheFileThePlaceAndTheReason) {
  const std::string head =
      "ply\nformat binary_little_endian 1.0\nelement vertex 3\nproperty float x\n"
      "property float y\nproperty float z\nelement face 1\n"
      "property list uchar int vertex_indices\nend_header\n";
  std::string vertices(36, '\0');
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
      {"short.ply", head + vertices.substr(0, 20), "3 vertices need more bytes than the 20 that follow"},
      {"index.ply", head + vertices + face(0, 1, 9), "vertex index 9 is not below the 3 vertices (face 1)"},
      {"huge.ply",
       "ply\nformat binary_little_endian 1.0\nelement vertex 4000000000\nproperty float x\nproperty float y\n"
       "property float z\nend_header\n" +
           vertices,
       "4000000000 vertices need more bytes"},
      {"type.ply", "ply\nformat binary_little_endian 1.0\nelement vertex 1\nproperty float16 x\nend_header\n",
       "unknown PLY type 'float16' (header line 4)"},
      {"noend.ply", "ply\nformat binary_little_endian 1.0\nelement vertex 1\n", "no end_header line"},
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

}  // namespace
