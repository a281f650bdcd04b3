#pragma once
// What the registration tests measure a result by.
#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/registration/user_operator_stl_registration.h"

namespace zortest {

// The angle of the rotation part of a transform, in degrees.
using ::RotationDegrees;

// The largest distance between the points of `mesh` moved by `a` and by `b`: how far
// apart two poses put the mesh anywhere.
inline double LargestGap(const MStlBase& mesh, const MMTransformMatrix& a, const MMTransformMatrix& b) {
  double gap = 0.0;
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it) {
    MMVector3d p = it->GetDouble(), q = p;
    a.Transform(p, false);
    b.Transform(q, false);
    gap = std::max(gap, Length(p - q));
  }
  return gap;
}

// Runs `r` on the two meshes (each with an optional placement of 16 doubles) and
// returns the transform it found; the run must report success.
inline MMTransformMatrix Register(MUserOperatorStlRegistration& r, const MUserOperatorStlRegistration::MParams& params,
                                  MStlBase* fixed, MStlBase* moving, const double* fixedPlacement = nullptr,
                                  const double* movingPlacement = nullptr) {
  r.SetAllParams(params);
  r.SetFixedStl(fixed, fixedPlacement);
  r.SetMovingStl(moving, movingPlacement);
  EXPECT_TRUE(r.Operate());
  MMTransformMatrix result;
  r.GetTransformation(result);
  return result;
}

}  // namespace zortest
