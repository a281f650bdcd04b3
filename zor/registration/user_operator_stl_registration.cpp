#include "zor/registration/user_operator_stl_registration.h"

#include "zor/alignment/surface_sampling.h"
#include "zor/model/unit.h"

template class MRegisteredHandle<MRegisteredID<MStlBase>, MStlBase>;

MUserOperatorStlRegistration::MUserOperatorStlRegistration() = default;

MUserOperatorStlRegistration::~MUserOperatorStlRegistration() = default;

void MUserOperatorStlRegistration::SetAllParams(const MParams& p) { params = p; }

std::unique_ptr<MMTransformMatrix> MUserOperatorStlRegistration::_MakePlacement(const double* matrix) {
  if (matrix == nullptr) return nullptr;
  auto placement = std::make_unique<MMTransformMatrix>();
  if (!placement->MakeFromDouble16(matrix)) return nullptr;
  return placement;
}

void MUserOperatorStlRegistration::SetFixedStl(MStlBase* mesh, const double* matrix) {
  fixedStl = mesh;
  fixedTransform = _MakePlacement(matrix);
}

void MUserOperatorStlRegistration::SetMovingStl(MStlBase* mesh, const double* matrix) {
  movingStl = mesh;
  movingTransform = _MakePlacement(matrix);
}

void MUserOperatorStlRegistration::SetFixedItem(MStlItem item, const double* matrix) {
  fixedItem = item;
  fixedTransform = _MakePlacement(matrix);
}

void MUserOperatorStlRegistration::SetMovingItem(MStlItem item, const double* matrix) {
  movingItem = item;
  movingTransform = _MakePlacement(matrix);
}

void MUserOperatorStlRegistration::SetProgressDelegate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> delegate) {
  progressDelegate = std::move(delegate);
}

void MUserOperatorStlRegistration::GetTransformation(MMTransformMatrix& out) const { out = transformation; }

double MUserOperatorStlRegistration::GetError() const { return error / static_cast<double>(MUnit::GetIE()); }

void MUserOperatorStlRegistration::CollectSurfaceSamples(MStlBase* mesh, std::uint64_t wanted,
                                                         std::vector<MMVector<double, 3>>& points,
                                                         std::vector<MMVector<double, 3>>* normals) {
  ZorStlRegistration::SampleSurface(mesh, wanted, params.normalRadius * MUnit::GetIE(), params.flipNormals, points,
                                    normals);
}
