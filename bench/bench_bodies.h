#pragma once
// The bunny bodies the benchmarks share by name: "bunny" the zippered model, "view" and
// "view0" the range scans bun090 and bun000 of the data folder.
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

#include "generators/mesh_arrays.h"
#include "zor/files/mesh_files.h"

namespace zorbench {

inline bool IsBunnyBody(const std::string& name) { return name == "bunny" || name == "view" || name == "view0"; }

// The body `name` read from `data`; none, with a note, when its file is missing.
inline std::optional<zorgen::MeshArrays> BunnyBody(const std::string& name, const std::string& data) {
  const std::string path = data + (name == "bunny"  ? "/bun_zipper.ply"
                                   : name == "view" ? "/bun090.ply"
                                                    : "/bun000.ply");
  if (!std::filesystem::exists(path)) {
    std::printf("(no %s: %s is missing)\n", name.c_str(), path.c_str());
    return std::nullopt;
  }
  return zorgen::ArraysOf(*ZorStlRegistration::ReadMesh(path, 1.0).mesh);
}

}  // namespace zorbench
