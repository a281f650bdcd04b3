#include "zor/services/reduce.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include <oneapi/tbb/parallel_for.h>

#include "zor/model/progress.h"
#include "zor/model/stl_guards.h"
#include "zor/services/detail/reduce_parts.h"

using namespace ReduceDetail;  // NOLINT(google-build-using-namespace): the reduction's own parts

MStlBaseOperatorReduceEx<MStlBaseContainer>::MStlBaseOperatorReduceEx(MStlBaseContainer c, const MParams& p)
    : container(c), params(p) {}

bool MStlBaseOperatorReduceEx<MStlBaseContainer>::Operate() {
  std::unique_ptr<MStlBase> unused;
  return _Run(false, unused);
}

bool MStlBaseOperatorReduceEx<MStlBaseContainer>::OperateOnCopy(std::unique_ptr<MStlBase>& copy) {
  copy.reset();
  return _Run(true, copy);
}

bool MStlBaseOperatorReduceEx<MStlBaseContainer>::_Run(bool onCopy, std::unique_ptr<MStlBase>& copy) {
  MStlBase* mesh = container.GetStl();
  passesRun = 0;
  maxDeviation = 0.0;
  trianglesBefore = trianglesAfter = mesh != nullptr ? mesh->GetNumberOfTriangles() : 0;
  if (mesh == nullptr || !(params.distance >= 0.0) || !std::isfinite(params.distance) || params.maxPasses < 1)
    return false;
  if (trianglesBefore == 0) return true;

  const FlatMesh flat = Flatten(*mesh);
  std::vector<Block> blocks = MakeBlocks(flat, std::max<std::size_t>(params.blockTriangles, 1));
  oneapi::tbb::parallel_for(std::size_t(0), blocks.size(), [&](std::size_t b) {
    ReduceBlock(flat, blocks[b], params.distance, params.maxPasses, std::max(0.0, params.minGainPercent) * 0.01);
    if (params.progress != nullptr) params.progress->Add(blocks[b].triangles.size());
  });

  bool allHeld = true;
  std::size_t blockTriangles = 0, offered = 0;
  for (const Block& b : blocks) {
    allHeld = allHeld && b.held;
    blockTriangles += b.result.size() / 3;
    offered += b.offered;
    passesRun = std::max<std::int32_t>(passesRun, b.passes);
  }
  // Too little to gain even unchecked: there was nothing worth removing. Too
  // little left after the checks: the bound cost the gain, and blocks that never held
  // say so in the result.
  const double minGain = std::max(0.0, params.minGainPercent) * 0.01 * double(trianglesBefore);
  if (double(offered) < minGain) return true;
  if (double(trianglesBefore - blockTriangles) < minGain || blockTriangles == trianglesBefore) return allHeld;

  // Surfaces cut into blocks get a pass over their seams, at the tightest target any of
  // their blocks ended with; surfaces run in parallel.
  std::vector<std::vector<const Block*>> ofSurface(flat.surfaces.size());
  for (const Block& b : blocks) ofSurface[b.surface].push_back(&b);
  std::vector<SeamOutcome> seams(flat.surfaces.size());
  oneapi::tbb::parallel_for(std::size_t(0), flat.surfaces.size(), [&](std::size_t s) {
    double factor = kLargestFactor;
    for (const Block* b : ofSurface[s]) factor = std::min(factor, b->factor);
    seams[s] = ReduceSeams(flat, ofSurface[s], params.distance, factor);
  });
  for (const Block& b : blocks) maxDeviation = std::max(maxDeviation, b.worst);
  blocks.clear();
  std::vector<std::vector<std::uint32_t>> surfaceResults(flat.surfaces.size());
  for (std::size_t s = 0; s < seams.size(); ++s) {
    surfaceResults[s] = std::move(seams[s].result);
    maxDeviation = std::max(maxDeviation, seams[s].worst);
  }
  const Split split = SplitResult(flat, surfaceResults);
  if (onCopy) {
    copy = BuildApplied(*mesh, flat, split);
    trianglesAfter = copy->GetNumberOfTriangles();
  } else {
    Apply(*mesh, flat, split);
    trianglesAfter = mesh->GetNumberOfTriangles();
  }
  return allHeld;
}
