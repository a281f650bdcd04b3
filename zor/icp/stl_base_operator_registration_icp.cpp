#include "zor/icp/stl_base_operator_registration_icp.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <stdexcept>

#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

#include "zor/icp/detail/icp_iteration.h"
#include "zor/icp/iso_sphere.h"
#include "zor/model/stl_iterators.h"
#include "zor/model/stopwatch.h"
#include "zor/services/geom_properties.h"

namespace ZorStlRegistration {
namespace {

using ZorSDK::Common::Clock;
using ZorSDK::Common::SecondsSince;

constexpr double kTwoPi = 6.283185307179586;

// A draw in [0, r], r below 2^32 - 1, from the generator's 32-bit output: the output
// divided by the width of r + 1 equal bins, drawn again when it lands past r.
std::uint32_t DrawInRange(std::mt19937& generator, std::uint32_t r) {
  const std::uint32_t bins = r + 1;
  std::uint32_t width = 4294967295u / bins;
  if (4294967295u % bins == r) ++width;
  for (;;) {
    const std::uint32_t v = static_cast<std::uint32_t>(generator());
    const std::uint32_t x = v / width;
    if (x <= r) return x;
  }
}

bool Eligible(const MStlPoint& p) { return p.GetNumberOfNeighbourTriangles() > 0; }

// Up to `count` distinct points of the mesh that have a triangle, chosen uniformly by
// the generator, in point order; with normals, each the mean of its triangles' normals.
std::vector<SamplePoint> DrawSample(const MStlBase& mesh, std::uint64_t count, bool useNormals,
                                    std::mt19937& generator) {
  std::uint64_t eligible = 0;
  for (auto it = MStlIteratorStlPointConst::Begin(&mesh); it != MStlIteratorStlPointConst::End(&mesh); ++it)
    eligible += Eligible(*it) ? 1 : 0;
  // The draw works on 32-bit indices, like the tree.
  if (eligible > 4294967295u) throw std::length_error("Too many objects");
  const std::uint64_t k = std::min(count, eligible);
  std::vector<SamplePoint> sample;
  if (k == 0) return sample;

  // Distinct indices: a bit per eligible point, and a draw repeated until it hits a
  // clear bit. Then in ascending order.
  std::vector<std::uint32_t> picked;
  picked.reserve(k);
  {
    std::vector<bool> taken(eligible, false);
    const auto last = static_cast<std::uint32_t>(eligible - 1);
    while (picked.size() < k) {
      const std::uint32_t index = DrawInRange(generator, last);
      if (taken[index]) continue;
      taken[index] = true;
      picked.push_back(index);
    }
  }
  std::sort(picked.begin(), picked.end());

  sample.reserve(k);
  std::uint32_t running = 0;
  std::size_t next = 0;
  for (auto it = MStlIteratorStlPointConst::Begin(&mesh); it != MStlIteratorStlPointConst::End(&mesh) && next < k;
       ++it) {
    if (!Eligible(*it)) continue;
    if (running++ != picked[next]) continue;
    ++next;
    SamplePoint s{};
    const MMVector3d position = it->GetDouble();
    for (int c = 0; c < 3; ++c) s.position[c] = position[c];
    if (useNormals) {
      MMVector3d normal;
      for (std::uint16_t t = 0; t < it->GetNumberOfNeighbourTriangles(); ++t)
        normal += it->GetNeighbourTriangle(t)->data.GetNormal();
      Normalize(normal);
      for (int c = 0; c < 3; ++c) s.normal[c] = normal[c];
    }
    sample.push_back(s);
  }
  return sample;
}

MMVector3d ToVector(const double (&v)[3]) { return MMVector3d(v[0], v[1], v[2]); }

}  // namespace

MStlBaseOperatorRegistrationICP::MeshAxis AnalyzeMeshAxis(const MStlBase& mesh) {
  MStlBaseOperatorRegistrationICP::MeshAxis out;
  MStlBaseOperatorGeomProperties properties;
  properties.SetGravityType(GravityBody);
  properties.AddStl(mesh, MMTransformMatrix());
  if (!properties.Operate()) return out;
  MMVector3d axis = properties.GetInertiaAxis(0);
  Normalize(axis);
  const MMVector3d centre = properties.GetGravityCenter();
  for (int k = 0; k < 3; ++k) out.axis[k] = axis[k], out.centre[k] = centre[k];
  out.valid = true;
  return out;
}

MStlBaseOperatorRegistrationICP::MStlBaseOperatorRegistrationICP() = default;

MStlBaseOperatorRegistrationICP::~MStlBaseOperatorRegistrationICP() = default;

void MStlBaseOperatorRegistrationICP::SetParameters(const MParams& p) { params = p; }

void MStlBaseOperatorRegistrationICP::SetStartObserver(std::function<void(std::size_t, std::size_t)> observer) {
  startObserver = std::move(observer);
}

double MStlBaseOperatorRegistrationICP::GetRMSError() const {
  return std::sqrt(result.sumSquared / (static_cast<double>(resultSampleSize) * result.scaleSquared));
}

void MStlBaseOperatorRegistrationICP::_DrawSamples(std::uint64_t count, std::mt19937& generator) {
  Clock::time_point stage = Clock::now();
  movingSample = DrawSample(*params.moving, count, params.useNormals, generator);
  std::vector<SamplePoint> fixedSample = DrawSample(*params.fixed, count, params.useNormals, generator);
  stageTimes.sampling += SecondsSince(stage);
  stage = Clock::now();
  fixedTree = std::make_unique<detail::SampleTree>(std::move(fixedSample));
  stageTimes.tree += SecondsSince(stage);
}

bool MStlBaseOperatorRegistrationICP::Operate() {
  const Clock::time_point start = Clock::now();
  stageTimes = StageTimes();
  const auto finish = [&](bool ran) {
    stageTimes.total = SecondsSince(start);
    return ran;
  };
  if (params.moving == nullptr || params.fixed == nullptr) return finish(false);

  // A new generator at every call: the same meshes and parameters give the same samples.
  std::mt19937 generator;
  detail::IcpWorkspace single;
  if (!params.multiStart) {
    _DrawSamples(params.sampleCount, generator);
    Clock::time_point stage = Clock::now();
    result = _RunIcp(params.initialTransform, single);
    resultSampleSize = movingSample.size();
    stageTimes.search = SecondsSince(stage);
    return finish(true);
  }

  // Both analyses come first, so that a mesh without mass properties fails the run
  // before anything of the last one is replaced. (They use no draw of the generator.)
  Clock::time_point stage = Clock::now();
  const MeshAxis movingAxis = AnalyzeMeshAxis(*params.moving);
  const MeshAxis fixedAxis = AnalyzeMeshAxis(*params.fixed);
  stageTimes.analysis = SecondsSince(stage);
  // Without a direction or a spin there is no start to run from.
  if (!movingAxis.valid || !fixedAxis.valid || params.directionCount == 0 || params.rotationCount == 0)
    return finish(false);

  _DrawSamples(params.sampleCount, generator);
  stage = Clock::now();
  const std::vector<MMVector3d> directions = IsoSphere::Generate(static_cast<std::size_t>(params.directionCount));
  const MMVector3d a = ToVector(movingAxis.axis), c = ToVector(movingAxis.centre);
  MMTransformMatrix base;
  base.MakeTranslation(ToVector(fixedAxis.centre) - c);

  // Each start keeps its run in its own entry (a task per start, so that two or many
  // workers share the 360 evenly); the workers reuse their buffers from run to run.
  // The runs are then folded in start order, as one loop over them would.
  const auto spins = static_cast<std::size_t>(params.rotationCount);
  const std::size_t startsTotal = directions.size() * spins;
  std::vector<IcpResult> runs(startsTotal);
  std::vector<MMTransformMatrix> tilts(directions.size());
  for (std::size_t i = 0; i < directions.size(); ++i) {
    // Turn the axis onto the direction (a rounding past +-1 of the cosine of unit
    // vectors is taken as +-1); antiparallel vectors give no turn axis and no turn.
    const MMVector3d& d = directions[i];
    tilts[i].MakeRotation(c, Cross(a, d), std::acos(std::clamp(Dot(a, d), -1.0, 1.0)));
  }
  tbb::enumerable_thread_specific<detail::IcpWorkspace> workspaces;
  std::atomic<std::size_t> startsDone{0};
  const auto searchStarts = [&](const tbb::blocked_range<std::size_t>& r) {
    detail::IcpWorkspace& workspace = workspaces.local();
    for (std::size_t s = r.begin(); s != r.end(); ++s) {
      const std::size_t i = s / spins, k = s % spins;
      MMTransformMatrix spin;
      spin.MakeRotation(c, a, static_cast<double>(k) * kTwoPi / static_cast<double>(params.rotationCount));
      // Spin about the axis, then turn the axis onto d, then lay the centres together.
      MMTransformMatrix startPose = base;
      startPose.PostMultiply(tilts[i] * spin);
      runs[s] = _RunIcp(startPose, workspace);
      if (startObserver) startObserver(++startsDone, startsTotal);
    }
  };
  tbb::task_group_context context;
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, startsTotal, 1), searchStarts, tbb::auto_partitioner(), context);
  // The best run of each direction by spin order, then the winner by direction order, so
  // that equal runs resolve the same way every time.
  std::vector<IcpResult> best(directions.size());
  for (std::size_t i = 0; i < directions.size(); ++i)
    for (std::size_t k = 0; k < spins; ++k)
      if (detail::IsBetter(runs[i * spins + k], best[i])) best[i] = runs[i * spins + k];
  IcpResult winner = best[0];
  for (std::size_t i = 1; i < best.size(); ++i)
    if (detail::IsBetter(best[i], winner)) winner = best[i];
  result = winner;
  resultSampleSize = movingSample.size();
  stageTimes.search = SecondsSince(stage);

  // The refining run on a larger sample stands whatever its error: it is measured on
  // more points, so the two errors do not compare.
  if (params.refine && params.refineFactor != 0) {
    const std::uint64_t larger = params.sampleCount > std::numeric_limits<std::uint64_t>::max() / params.refineFactor
                                     ? std::numeric_limits<std::uint64_t>::max()
                                     : params.sampleCount * params.refineFactor;
    _DrawSamples(larger, generator);
    stage = Clock::now();
    result = _RunIcp(result.transform, single);
    resultSampleSize = movingSample.size();
    stageTimes.refinement = SecondsSince(stage);
  }
  return finish(true);
}

}  // namespace ZorStlRegistration
