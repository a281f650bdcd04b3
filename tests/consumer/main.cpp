// An outside program built against the installed library, as a host application would
// use it: two mesh files in, the pair call with its defaults, the transform out.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include "zor/files/mesh_files.h"
#include "zor/pair/pair.h"

namespace {

// An egg with a bump on one flank (one pose lays a copy on it), in millimetres on
// the micrometre grid.
std::unique_ptr<MStlBase> Egg() {
  auto mesh = std::make_unique<MStlBase>();
  const int rows = 40, cols = 80;
  const double pi = 3.141592653589793;
  const auto at = [&](int r, int c) {
    const double theta = pi * r / rows, phi = 2.0 * pi * c / cols;
    const double bump = 6.0 * std::exp(-((theta - 1.2) * (theta - 1.2) + (phi - 0.8) * (phi - 0.8)) * 8.0);
    const double radius = 20.0 + bump + 4.0 * std::cos(theta);
    return MMVector3i(static_cast<std::int32_t>(std::lround(1000.0 * 1.6 * radius * std::sin(theta) * std::cos(phi))),
                      static_cast<std::int32_t>(std::lround(1000.0 * radius * std::sin(theta) * std::sin(phi))),
                      static_cast<std::int32_t>(std::lround(1000.0 * 1.2 * radius * std::cos(theta))));
  };
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols; ++c) {
      const MMVector3i a = at(r, c), b = at(r + 1, c), d = at(r, c + 1), e = at(r + 1, c + 1);
      if (r > 0) mesh->AddTriangle(a, b, d, nullptr);
      if (r + 1 < rows) mesh->AddTriangle(d, b, e, nullptr);
    }
  return mesh;
}

}  // namespace

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
