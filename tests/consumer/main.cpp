// An outside program built against the installed library, as a host application would
// use it: two mesh files in, the pair call with its defaults, the transform out.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include "egg.h"
#include "zor/files/mesh_files.h"
#include "zor/pair/pair.h"

int main() {
  const auto body = Egg();
  MMTransformMatrix pose;  // a turn of 50 degrees about z and a shift of (10, -5, 3) mm
  const double angle = 50.0 * 3.141592653589793 / 180.0;
  const double m[16] = {std::cos(angle),
                        -std::sin(angle),
                        0,
                        10000,
                        std::sin(angle),
                        std::cos(angle),
                        0,
                        -5000,
                        0,
                        0,
                        1,
                        3000,
                        0,
                        0,
                        0,
                        1};
  pose.MakeFromDouble16(m);
  ZorStlRegistration::WriteMesh(*body, nullptr, 1.0, "fixed.stl", false);
  ZorStlRegistration::WriteMesh(*body, &pose, 1.0, "moving.ply", false);

  const ZorStlRegistration::LoadedMesh moving = ZorStlRegistration::ReadMesh("moving.ply", 1.0);
  const ZorStlRegistration::LoadedMesh fixed = ZorStlRegistration::ReadMesh("fixed.stl", 1.0);
  const ZorStlRegistration::PairResult result =
      ZorStlRegistration::AlignPair(*moving.mesh, *fixed.mesh, ZorStlRegistration::PairOptions());
  // The transform undoes the pose: moving onto fixed.
  double worst = 0.0;
  for (int r = 0; r < 3; ++r) {
    double back[3] = {0, 0, 0};
    for (int k = 0; k < 3; ++k) back[k] = result.transform.GetElement(r, k);
    for (int c = 0; c < 3; ++c) {
      double product = 0.0;
      for (int k = 0; k < 3; ++k) product += back[k] * pose.GetElement(k, c);
      worst = std::max(worst, std::fabs(product - (r == c ? 1.0 : 0.0)));
    }
  }
  const bool ok = worst < 0.01 && !result.verdict.doubtful;
  std::printf("consumer: %s (rotation residual %.2g, overlap %.3f)\n", ok ? "ok" : "failed", worst,
              result.verdict.overlap);
  return ok ? 0 : 1;
}
