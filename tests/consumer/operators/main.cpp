// A host that links only the operators: a mesh built in memory, moved by a known
// turn, registered back by the rigid registration operator.
#include <cmath>
#include <cstdio>

#include "../egg.h"
#include "zor/registration/user_operator_stl_registration.h"

int main() {
  const auto fixed = Egg();
  const auto moving = Egg();
  const double angle = 0.35;
  const double m[16] = {std::cos(angle),
                        -std::sin(angle),
                        0,
                        4000,
                        std::sin(angle),
                        std::cos(angle),
                        0,
                        -2000,
                        0,
                        0,
                        1,
                        1500,
                        0,
                        0,
                        0,
                        1};
  MMTransformMatrix pose;
  pose.MakeFromDouble16(m);
  moving->Transform(pose);

  MUserOperatorStlRegistration registration;
  MUserOperatorStlRegistration::MParams params;
  params.initialAlignment = MUserOperatorStlRegistration::AlignAutomatic;
  params.reduceMeshes = false;   // a small mesh: search on every point
  params.overlapFraction = 1.0;  // the copy lies wholly on the body
  params.errorTolerance = 0.001;
  registration.SetAllParams(params);
  registration.SetMovingStl(moving.get(), nullptr);
  registration.SetFixedStl(fixed.get(), nullptr);
  const bool ran = registration.Operate();
  MMTransformMatrix found;
  registration.GetTransformation(found);
  // found undoes pose: their product is the identity's rotation.
  const MMTransformMatrix product = found * pose;
  double worst = 0.0;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) worst = std::fmax(worst, std::fabs(product.GetElement(r, c) - (r == c ? 1.0 : 0.0)));
  const bool ok = ran && worst < 0.01;
  std::printf("operators consumer: %s (rotation residual %.2g)\n", ok ? "ok" : "failed", worst);
  return ok ? 0 : 1;
}
