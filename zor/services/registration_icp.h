#pragma once
// Fine alignment of a moving mesh onto a reference surface by point-to-plane ICP.

#include <cstddef>
#include <cstdint>
#include <limits>

#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/services/export.h"

// Which pairs of an iteration take part.
enum eMRegistration3DPointsThresholdMethod : std::int32_t {
  eRegistrationThresholdNone = 0,      // every sample with a closest point
  eRegistrationThresholdAbsolute = 1,  // samples closer to the surface than the distance threshold
};

class ZOR_SERVICES_API MRegistration3DPoints {
public:
  class ZOR_SERVICES_API MParameters {
  public:
    // At most this many iterations; 0 runs none and returns the identity.
    void SetNumberOfIterations(std::size_t n) { iterations = n; }
    // Every ratio-th point of the moving mesh, in point order, is a sample (0 acts as 1).
    void SetSubSampleRatio(std::size_t ratio) { subSampleRatio = ratio; }
    void SetThresholdMethod(const eMRegistration3DPointsThresholdMethod& m) { thresholdMethod = m; }
    // Internal units, for eRegistrationThresholdAbsolute.
    void SetDistanceThreshold(double d) { distanceThreshold = d; }
    // A step that moves no sample by more than this (internal units) ends the run.
    void SetStillMotion(double d) { stillMotion = d; }

    std::size_t GetNumberOfIterations() const { return iterations; }
    std::size_t GetSubSampleRatio() const { return subSampleRatio; }
    eMRegistration3DPointsThresholdMethod GetThresholdMethod() const { return thresholdMethod; }
    double GetDistanceThreshold() const { return distanceThreshold; }
    double GetStillMotion() const { return stillMotion; }

  private:
    std::size_t iterations = 100;
    std::size_t subSampleRatio = 1;
    eMRegistration3DPointsThresholdMethod thresholdMethod = eRegistrationThresholdNone;
    double distanceThreshold = std::numeric_limits<double>::infinity();
    double stillMotion = 1e-3;
  };
};

// Point-to-plane ICP (Chen and Medioni): samples of the moving mesh are paired with their
// closest points on the reference surface (the reference's cached triangle tree), and
// each iteration solves the linearised least-squares rigid step that moves the samples
// onto the tangent planes at those points, then applies it as an exact rotation. It
// stops when a step moves no sample by more than the still motion (0.001 internal units
// unless set), when the RMS
// distance of the pairs no longer improves (the best pose is kept), when fewer than six
// pairs remain, or after the iteration limit.
//
// The meshes are only read. The result is the transform to apply to the moving mesh's
// own coordinates (before its placement) so that, placed, it lies on the placed
// reference. Sums run in sample order, so results are identical on every run and at
// any thread count. An operator object is used by one thread at a time; the reference
// mesh must not change while Operate runs.
class ZOR_SERVICES_API MStlBaseOperatorRegistrationICP {
public:
  class ZOR_SERVICES_API MParameters : public MRegistration3DPoints::MParameters {
  public:
    // A placement of null means the identity; the matrices are copied.
    void SetReference(const MStlBase* mesh, const MMTransformMatrix* placement);
    void SetMoving(const MStlBase* mesh, const MMTransformMatrix* placement);

    const MStlBase* GetReference() const { return reference; }
    const MStlBase* GetMoving() const { return moving; }
    const MMTransformMatrix& GetReferencePlacement() const { return referencePlacement; }
    const MMTransformMatrix& GetMovingPlacement() const { return movingPlacement; }

  private:
    const MStlBase* reference = nullptr;
    const MStlBase* moving = nullptr;
    MMTransformMatrix referencePlacement;
    MMTransformMatrix movingPlacement;
  };

  MStlBaseOperatorRegistrationICP() = default;
  void SetParameters(const MParameters& p) { params = p; }

  // False, with the identity as result, for a missing mesh, a reference without
  // triangles, a moving mesh without points, a placement without inverse, an absolute
  // threshold that is not positive, or when the first iteration finds fewer than six
  // pairs. True otherwise, also when the iteration limit ends the run.
  bool Operate();

  MMTransformMatrix GetTransformToBeAppliedToMoving() const { return result; }
  // Root mean square distance of the pairs of the last matching (internal units).
  double GetRMSError() const { return rmsError; }
  std::size_t GetIterationsRun() const { return iterationsRun; }
  std::size_t GetNumberOfPairs() const { return pairCount; }

private:
  MParameters params;
  MMTransformMatrix result;
  double rmsError = 0.0;
  std::size_t iterationsRun = 0;
  std::size_t pairCount = 0;
};
