#pragma once
// Rigid registration by ICP started from many orientations: a moving mesh onto a fixed
// one in any relative placement, with no starting pose.
//
// Operate draws point samples of both meshes (with a generator of fixed seed, so the
// same meshes give the same samples), indexes the fixed sample in a tree, and runs a
// short point-to-point ICP from each start: the moving mesh's first inertia axis aimed
// at each of `directionCount` directions spread over the sphere, spun about that axis
// in `rotationCount` steps, its centre on the fixed mesh's centre. The best of these
// runs is refined once more on a sample `refineFactor` times larger.
//
// Use: construct, SetParameters, Operate, then GetTransformMatrix (moving onto fixed)
// and GetRMSError. Lengths are those of the meshes' coordinates (internal units).
//
// Threading: an operator object is used by one thread at a time; the starts run in
// parallel inside Operate. Other operators may read the same meshes at the same time:
// Operate only reads them. The result is bit-identical on every run and at every thread
// count.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "zor/export.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration {

namespace detail {
class SampleTree;
struct IcpWorkspace;
}  // namespace detail

class ZOR_API MStlBaseOperatorRegistrationICP {
public:
  struct MParams {
    const MStlBase* moving = nullptr;   // the mesh that moves; sampled first
    const MStlBase* fixed = nullptr;    // the mesh matched against; its sample is in the tree
    bool multiStart = true;             // search over starts; false: one run from initialTransform
    std::uint64_t directionCount = 30;  // directions the moving axis is aimed at
    std::uint64_t rotationCount = 12;   // spins about the axis per direction
    std::uint64_t maxIterations = 10;   // fits per run (each run measures one pose more)
    std::uint64_t sampleCount = 500;    // points drawn from each mesh
    bool allowScale = false;            // the fit also estimates a uniform scale
    bool useNormals = true;             // pairs whose normals differ by over 30 degrees are rejected
    double distanceFactor = 2.0;        // rejection beyond this times the median squared distance
    double maxDistance = std::numeric_limits<double>::infinity();  // internal units, with rejectByMaxDistance
    MMTransformMatrix initialTransform;                            // start of the single run (multiStart false)
    bool refine = true;                                            // after the search, one run on a larger sample
    std::uint64_t refineFactor = 10;                               // how much larger; 0 skips the refining run
    std::int32_t rejectByMaxDistance = 0;  // non-zero: reject beyond maxDistance instead of the median rule
  };

  // The outcome of a run: its pose, the error sum of that pose (squared distances of
  // all samples, unlike pairs counted at least at the cap) and the product of the
  // squared scales of the fits that led there (1 without scale).
  struct IcpResult {
    MMTransformMatrix transform;
    double sumSquared = std::numeric_limits<double>::max();
    double scaleSquared = 1.0;
  };

  struct PointWithNormal {
    double position[3];
    double normal[3];  // unit, or zero
  };

  // A mesh's first inertia axis (unit) and centre, or valid false when the mesh has no
  // mass properties (no triangle, no area).
  struct MeshAxis {
    double axis[3] = {0.0, 0.0, 0.0};
    double centre[3] = {0.0, 0.0, 0.0};
    bool valid = false;
  };

  // Wall-clock seconds of the stages of the last Operate that got that far.
  struct StageTimes {
    double sampling = 0.0;    // both samples (both samplings when refining)
    double tree = 0.0;        // the tree over the fixed sample (both trees when refining)
    double analysis = 0.0;    // mass properties of both meshes
    double search = 0.0;      // the runs from every start
    double refinement = 0.0;  // the refining run
    double total = 0.0;
  };

  MStlBaseOperatorRegistrationICP();
  ~MStlBaseOperatorRegistrationICP();
  MStlBaseOperatorRegistrationICP(const MStlBaseOperatorRegistrationICP&) = delete;
  MStlBaseOperatorRegistrationICP& operator=(const MStlBaseOperatorRegistrationICP&) = delete;

  void SetParameters(const MParams& p);
  const MParams& GetParameters() const { return params; }

  // Registers `moving` onto `fixed`. False, leaving the result of the run before, when a
  // mesh is null or has no mass properties (multiStart only); true otherwise. Throws
  // std::length_error ("Too many objects") for a sample past 2^32 - 1 points.
  bool Operate();

  // Root mean square distance of the samples at the result's pose, scale taken out
  // (internal units), over all samples of the sampling the result was found on,
  // rejected pairs included. NaN when that sample was empty; +infinity before a run.
  double GetRMSError() const;
  // Takes moving coordinates onto the fixed mesh; the identity before a run.
  const MMTransformMatrix& GetTransformMatrix() const { return result.transform; }
  const IcpResult& GetResult() const { return result; }
  const StageTimes& GetStageTimes() const { return stageTimes; }

  // Called once after each start's run, from the thread that ran it, with the starts
  // done so far and in all; must be safe to call from several threads at once. Meant for
  // progress display; it must not throw. Null (the default) calls nothing.
  void SetStartObserver(std::function<void(std::size_t done, std::size_t total)> observer);

private:
  void _DrawSamples(std::uint64_t count, std::mt19937& generator);
  IcpResult _RunIcp(const MMTransformMatrix& start, detail::IcpWorkspace& workspace) const;

  MParams params;
  IcpResult result;
  std::vector<PointWithNormal> movingSample;
  std::unique_ptr<detail::SampleTree> fixedTree;
  std::size_t resultSampleSize = 0;  // the moving sample's size when `result` was found
  StageTimes stageTimes;
  std::function<void(std::size_t, std::size_t)> startObserver;
};

// The operator's analysis of one mesh: its first inertia axis and centre of gravity,
// from the mass properties of the body it makes (the solid when closed, else the shell).
ZOR_API MStlBaseOperatorRegistrationICP::MeshAxis AnalyzeMeshAxis(const MStlBase& mesh);

}  // namespace ZorStlRegistration
