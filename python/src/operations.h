#pragma once
// What the operations of the extension module share: the checks of the keywords against
// the library's parameter ranges, the meshes of a run held for its time, the result
// records, and the operations themselves (one file each).

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mesh_arrays.h"
#include "zor/pair/pair_parameters.h"

namespace zorpy {

namespace PairRanges = ZorStlRegistration::PairRanges;
constexpr double kInf = std::numeric_limits<double>::infinity();

// `value` when `range` holds it; otherwise ValueError naming the keyword and the range.
double Within(const ZorStlRegistration::ParameterRange& range, double value);
std::uint64_t Count(const ZorStlRegistration::ParameterRange& range, long long value);

// ---- meshes held for a run ---------------------------------------------------------

// The meshes of a run, locked in address order so that runs over shared meshes never
// wait on each other in a circle: shared for reading, alone for a run that writes them.
class MeshLocks {
public:
  MeshLocks(std::vector<const Mesh*> meshes, bool exclusive) : alone(exclusive) {
    std::sort(meshes.begin(), meshes.end());
    meshes.erase(std::unique(meshes.begin(), meshes.end()), meshes.end());
    for (const Mesh* m : meshes) {
      if (alone)
        m->Access().lock();
      else
        m->Access().lock_shared();
      held.push_back(m);
    }
  }
  ~MeshLocks() {
    for (const Mesh* m : held) {
      if (alone)
        m->Access().unlock();
      else
        m->Access().unlock_shared();
    }
  }
  MeshLocks(const MeshLocks&) = delete;
  MeshLocks& operator=(const MeshLocks&) = delete;

private:
  bool alone;
  std::vector<const Mesh*> held;
};

// ValueError unless `mesh` has triangles; `role` names it.
void NeedTriangles(const Mesh& mesh, const char* role);

// The two meshes an operator runs on, both with triangles (ValueError otherwise).
std::pair<std::shared_ptr<Mesh>, std::shared_ptr<Mesh>> Operands(const py::object& first, const char* firstRole,
                                                                 const py::object& second, const char* secondRole);

// ---- results -----------------------------------------------------------------------

struct RegisterResult {
  py::array_t<double> transform;
  double error = 0.0;
  std::string strategy, strategy_used;
  std::uint64_t inliers = 0, iterations = 0;
  bool tried_features = false, polished = false;
  double overlap = 0.0, fixed_overlap = 0.0, overlap_rms = 0.0, overlap_distance = 0.0;
  bool doubtful = false;
  std::string doubt;
  py::dict seconds;
};

struct IcpResult {
  py::array_t<double> transform;
  double rms_error = 0.0;
  std::uint64_t starts = 0;
  bool refined = false;
  bool polished = false;
  double overlap = 0.0, fixed_overlap = 0.0, overlap_rms = 0.0;
  bool doubtful = false;
  std::string doubt;
  py::dict seconds;
};

struct MorphResult {
  py::array_t<double> vertices;
  py::array_t<std::int64_t> triangles;
  std::shared_ptr<Mesh> mesh;
  double max_distance = 0.0, mean_distance = 0.0, fraction_within = 0.0, tolerance = 0.0;
  std::size_t iterations = 0;
  std::string method, stop;
  double p95_distance = 0.0;
  std::size_t unmatched = 0, folded = 0;
  bool local = false;
  bool registered = false, registration_succeeded = false;
  py::object registration = py::none(), scales = py::none(), icp = py::none();
  py::dict seconds;
};

struct DeviationResult {
  py::array_t<double> distances;
  py::array_t<std::uint8_t> colours;
  double range = 0.0, within_share = 0.0, percentile95 = 0.0, largest = 0.0;
};

RegisterResult Register(const py::object& movingObject, const py::object& fixedObject, const std::string& strategy,
                        long long samples, double overlap, double errorTolerance, long long iterations, bool reduce,
                        double reduceTolerance, double slideStep, bool normals, bool flipNormals, double normalRadius,
                        double maxNormalAngle, double normalWeight, long long sphereRings, long long sphereSpins,
                        long long axisSteps, bool polish, long long searchTriangles, const py::object& progress);
IcpResult RunIcp(const py::object& movingObject, const py::object& fixedObject, bool single, long long directions,
                 long long rotations, long long iterations, long long samples, bool allowScale, bool normals,
                 double distanceFactor, double maxDistance, const py::object& initial, bool refine,
                 long long refineFactor, bool polish, const py::object& progress);
MorphResult Morph(const py::object& movingObject, const py::object& targetObject, bool registerFirst,
                  const std::string& method, double tolerance, double targetFraction, double normalAngle,
                  double searchDistance, double smoothing, long long maxPasses, double initialStep,
                  double stepRetention, long long smoothingPasses, const py::object& progress);
py::tuple ClosestPoints(const py::object& meshObject, const py::object& points);
DeviationResult Deviation(const py::object& movingObject, const py::object& fixedObject, const py::object& transform,
                          const py::object& range);
DeviationResult Report(const std::filesystem::path& path, const py::object& movingObject, const py::object& fixedObject,
                       const py::object& transform, const py::object& range, const std::string& title,
                       const py::object& rows);
py::dict AlignViews(const py::sequence& meshObjects, const py::object& referenceObject, const std::string& strategy,
                    long long maxPairs, bool refine, const py::object& progress);
py::list RankViewPairs(const py::sequence& meshObjects, const py::object& referenceObject);
py::dict PlaceViews(const py::sequence& meshObjects, const py::sequence& pairObjects, const py::object& referenceObject,
                    bool refine);
std::shared_ptr<Mesh> Load(const std::filesystem::path& path, double scale);
void Save(const Mesh& mesh, const std::filesystem::path& path, double scale, bool ascii);
std::shared_ptr<Mesh> Transformed(const Mesh& mesh, const py::object& matrix);

}  // namespace zorpy
