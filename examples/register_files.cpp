// Registers one mesh file onto another with the library's defaults and prints the
// transform: what most host applications need.
//
//   register_files MOVING FIXED      (STL, PLY, OBJ or OFF; coordinates in millimetres)
#include <cstdio>

#include "zor/files/mesh_files.h"
#include "zor/model/unit.h"
#include "zor/pair/pair.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: register_files MOVING FIXED\n");
    return 2;
  }
  try {
    const ZorStlRegistration::LoadedMesh moving = ZorStlRegistration::ReadMesh(argv[1], 1.0);
    const ZorStlRegistration::LoadedMesh fixed = ZorStlRegistration::ReadMesh(argv[2], 1.0);
    const ZorStlRegistration::PairResult result =
        ZorStlRegistration::AlignPair(*moving.mesh, *fixed.mesh, ZorStlRegistration::PairOptions());
    const double perMm = MUnit::GetIE();  // internal units per millimetre
    std::printf("moving onto fixed (points as column vectors, shift in mm):\n");
    for (int r = 0; r < 4; ++r)
      std::printf("  %12.6f %12.6f %12.6f %12.6f\n", result.transform.GetElement(r, 0),
                  result.transform.GetElement(r, 1), result.transform.GetElement(r, 2),
                  result.transform.GetElement(r, 3) / (r < 3 ? perMm : 1.0));
    std::printf("overlap %.1f%%, %s%s\n", 100.0 * result.verdict.overlap,
                result.verdict.doubtful ? "doubtful: " : "sound", result.verdict.reason.c_str());
    return result.verdict.doubtful ? 1 : 0;
  } catch (const ZorStlRegistration::InputError& e) {
    std::fprintf(stderr, "register_files: %s\n", e.what());
    return 2;
  }
}
