#pragma once
// Error-bounded mesh reduction in place.
//
// Engine: meshoptimizer's quadric edge-collapse simplifier (Garland and Heckbert's
// error quadrics, collapsing onto existing vertices), run surface by surface with the
// border vertices of each surface locked. Large surfaces are cut into spatial blocks
// (median splits of the triangle centroids), simplified in parallel with their
// outlines locked, then the strip of triangles along the seams between blocks is
// simplified once more. The engine bounds an averaged plane distance, not the distance
// of each original vertex, so every result is checked: every original vertex must lie
// within the bound of some candidate triangle (Eberly's point-triangle distance), and
// every new triangle must face the same way as the original surface it stands for. A
// block where points miss the bound keeps the original triangles around them, one with
// a few folds keeps the original triangles about them, and runs again; one that fails
// widely runs again with a tighter target. On a noisy surface the target starts above
// the noise (measured per block), so that noise finer than the bound is removed.
//
// What the result keeps: points keep their exact integer coordinates (collapses land
// on existing points, so nothing is rounded); open borders and the seams between
// surfaces keep every point; each triangle stays in its surface; triangles the engine
// did not touch stay as they were; points that no triangle used before stay as well.
// Between collinear locked border points the engine may leave triangles of no area;
// they are kept, since they hold those points, and they carry no normal.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "zor/model/stl_base.h"
#include "zor/services/export.h"

namespace ZorSDK::Common {
class ProgressShare;
}

class ZOR_SERVICES_API MStlBaseOperatorReduceExBase {
public:
  struct ZOR_SERVICES_API MParams {
    // Internal units: every original vertex lies within this distance of the result.
    double distance = 0.0;
    // Reduce-and-check rounds per block. A block where none gives a result within
    // `distance` (or without a flipped triangle) keeps its triangles, and Operate
    // returns false.
    std::int32_t maxPasses = 5;
    // Percent of the triangles: a result that removes fewer is not worth rewriting the
    // mesh, which is then left as it was (and Operate returns true).
    double minGainPercent = 10.0;
    // Surfaces of more triangles are cut into spatial blocks of at most this many, which
    // are reduced in parallel with their outlines locked, then joined by one pass over
    // the seams. Smaller blocks use more threads and leave more for the seam pass.
    std::size_t blockTriangles = 32768;
    // When not null, advanced by the triangles of each block as it is done (from the
    // worker threads), so that a report of a long reduction moves: its total is the
    // mesh's triangle count. Not owned.
    ZorSDK::Common::ProgressShare* progress = nullptr;
  };
};

template <typename Container>
class MStlBaseOperatorReduceEx;

// Reduction of a whole mesh. Operate runs on the calling thread and uses all threads
// for its parallel parts; no other thread may use the mesh meanwhile. The result does
// not depend on the number of threads.
template <>
class ZOR_SERVICES_API MStlBaseOperatorReduceEx<MStlBaseContainer> : public MStlBaseOperatorReduceExBase {
public:
  MStlBaseOperatorReduceEx(MStlBaseContainer container, const MParams& params);

  // True when the mesh holds a checked result, or was left as it was because there was
  // nothing worth removing. False, with the mesh unchanged, for a null mesh, a distance
  // that is negative or not finite, or fewer than one pass; false also when some block
  // met the bound in no pass: that block keeps its triangles, the rest is reduced.
  bool Operate();
  // The same reduction without touching the mesh, which it only reads: `copy` receives
  // the mesh that Operate would leave in a copy of it (same points, triangles, order,
  // surfaces, features and name), or null when Operate would leave the mesh as it was.
  // Returns what Operate would. Costs less than copying the mesh and reducing the copy,
  // since nothing the result drops is copied.
  bool OperateOnCopy(std::unique_ptr<MStlBase>& copy);

  std::size_t GetTrianglesBefore() const { return trianglesBefore; }
  std::size_t GetTrianglesAfter() const { return trianglesAfter; }
  // The most passes any block ran.
  std::int32_t GetPassesRun() const { return passesRun; }
  // No original vertex lies farther than this from the applied result (internal units):
  // the greatest distance the checks measured.
  double GetMaxDeviation() const { return maxDeviation; }

private:
  bool _Run(bool onCopy, std::unique_ptr<MStlBase>& copy);

  MStlBaseContainer container;
  MParams params;
  std::size_t trianglesBefore = 0;
  std::size_t trianglesAfter = 0;
  std::int32_t passesRun = 0;
  double maxDeviation = 0.0;
};
