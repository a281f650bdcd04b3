// An outside program built against the installed library.
#include <cstdio>

#include "zor/icp/iso_sphere.h"
#include "zor/model/stl.h"
#include "zor/registration/user_operator_stl_registration.h"

int main() {
  MStlBase mesh;
  mesh.AddTriangle(MMVector3i(0, 0, 0), MMVector3i(1000, 0, 0), MMVector3i(0, 1000, 0), nullptr);
  MUserOperatorStlRegistration registration;
  registration.SetFixedStl(&mesh, nullptr);
  const auto directions = ZorStlRegistration::IsoSphere::Generate(4);
  const bool ok = mesh.GetNumberOfTriangles() == 1 && directions.size() == 4 && registration.GetError() == 0.0;
  std::printf("consumer: %s\n", ok ? "ok" : "failed");
  return ok ? 0 : 1;
}
