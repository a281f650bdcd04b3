// A tour of what the library offers so far: build a mesh from arrays, place it, copy a
// selection, spread directions over the sphere, and set up the registration operator.
#include <cmath>
#include <cstdio>
#include <vector>

#include "zor/icp/iso_sphere.h"
#include "zor/model/stl.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace {

// A closed tube (a torus) of radius 40 around a ring of radius 100, in millimetres.
std::unique_ptr<MStlBase> MakeTorus(int ringSteps, int tubeSteps) {
  std::vector<double> xyz;
  std::vector<std::uint32_t> indices;
  const double ie = MUnit::GetIE();
  for (int i = 0; i < ringSteps; ++i)
    for (int j = 0; j < tubeSteps; ++j) {
      const double u = 2.0 * M_PI * i / ringSteps, v = 2.0 * M_PI * j / tubeSteps;
      xyz.push_back((100.0 + 40.0 * std::cos(v)) * std::cos(u) * ie);
      xyz.push_back((100.0 + 40.0 * std::cos(v)) * std::sin(u) * ie);
      xyz.push_back(40.0 * std::sin(v) * ie);
    }
  for (int i = 0; i < ringSteps; ++i)
    for (int j = 0; j < tubeSteps; ++j) {
      const std::uint32_t a = i * tubeSteps + j, b = ((i + 1) % ringSteps) * tubeSteps + j;
      const std::uint32_t c = ((i + 1) % ringSteps) * tubeSteps + (j + 1) % tubeSteps,
                          d = i * tubeSteps + (j + 1) % tubeSteps;
      indices.insert(indices.end(), {a, b, c, a, c, d});
    }
  return BuildStl(xyz.data(), xyz.size() / 3, indices.data(), indices.size() / 3);
}

}  // namespace

int main() {
  auto torus = MakeTorus(200, 80);
  const double ie = MUnit::GetIE();
  std::printf("torus: %zu points, %zu triangles, area %.2f mm^2 (exact torus %.2f)\n", torus->NumberOfPoints(),
              torus->GetNumberOfTriangles(), torus->SurfaceArea() / (ie * ie), 4.0 * M_PI * M_PI * 100.0 * 40.0);

  MMTransformMatrix pose;
  pose.MakeRotation(MMVector3d(0, 0, 0), MMVector3d(1, 1, 0), 0.5);
  pose.AddTranslation(MMVector3d(5.0 * ie, -3.0 * ie, 2.0 * ie));
  torus->Transform(pose);
  std::printf("after a 28.6 degree turn and a shift: x in [%.3f, %.3f] mm\n", torus->GetXMin() / ie,
              torus->GetXMax() / ie);

  // Mark the triangles above z = 0 and copy them into a mesh of their own.
  for (auto it = MStlIteratorStlTriangle::Begin(torus.get()); it != MStlIteratorStlTriangle::End(torus.get()); ++it)
    it->SetMarked(it->GetVertex(0)[2] > 0.0);
  auto top = CopySelectionToNewMesh(MStlItem::MarkedTriangles(torus.get()));
  std::printf("marked copy: %zu points, %zu triangles\n", top->NumberOfPoints(), top->GetNumberOfTriangles());

  const auto directions = ZorStlRegistration::IsoSphere::Generate(6);
  std::printf("6 spread directions:\n");
  for (const auto& d : directions) std::printf("  (% .4f, % .4f, % .4f)\n", d[0], d[1], d[2]);

  MUserOperatorStlRegistration registration;
  MUserOperatorStlRegistration::MParams params;
  params.initialAlignment = MUserOperatorStlRegistration::AlignAutomatic;
  registration.SetAllParams(params);
  double placement[16];
  pose.ConvertToDouble16(placement);
  registration.SetFixedStl(torus.get(), nullptr);
  registration.SetMovingStl(top.get(), placement);
  std::printf("operator ready: moving placement %s, error before a run %.1f\n",
              registration.GetMovingTransform() != nullptr ? "set" : "none", registration.GetError());
  return 0;
}
