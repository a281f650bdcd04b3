#include "zor/alignment/normal_orientation_index.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>

#include "zor/alignment/surface_patch.h"
#include "zor/model/stl_iterators.h"
#include "zor/model/unit.h"
#include "zor/services/geom_properties.h"
#include "zor/services/surface_normals.h"
#include "zor/spatial/point_triangle_distance.h"
#include "zor/spatial/tree_property.h"

namespace ZorStlRegistration {

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 6.283185307179586;
constexpr double kDegree = 0.017453292519943295;
constexpr double kLargest = std::numeric_limits<double>::max();

// Rounds half away from zero to a signed 64-bit value. NaN and values outside the
// range give the smallest value, as the x86 conversion does, so that what follows
// (an unsigned comparison or remainder) is the same on every platform.
std::int64_t RoundToInt64(double x) {
  if (!(x > -9.2233720368547758e18 && x < 9.2233720368547758e18)) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(std::llround(x));
}

// A rounded value as an unsigned index: negative values wrap through 2^64, on purpose,
// so that they compare as huge.
std::uint64_t RoundToIndex(double x) { return static_cast<std::uint64_t>(RoundToInt64(x)); }

double ClampedCosine(const MMVector3d& u, const MMVector3d& v) {
  const double norms = Length2(u) * Length2(v);
  if (norms == 0.0) return 0.0;
  return std::min(1.0, std::max(-1.0, Dot(u, v) / std::sqrt(norms)));
}

// Lays every triangle of a mesh in a vector, in iteration order.
std::vector<const MStlTriangle*> TrianglesOf(const MStlBase& mesh) {
  std::vector<const MStlTriangle*> triangles;
  triangles.reserve(mesh.GetNumberOfTriangles());
  for (auto it = MStlIteratorStlTriangleConst::Begin(&mesh); it != MStlIteratorStlTriangleConst::End(&mesh); ++it)
    triangles.push_back(&*it);
  return triangles;
}

// The points of a mesh that have a triangle, in point order, with the neighbour
// triangle 0 and the corner of the point in it.
struct PointSeed {
  const MStlPoint* point;
  MStlTriangle* triangle;
  int corner;
};

std::vector<PointSeed> SeedsOf(const MStlBase& mesh) {
  std::vector<PointSeed> seeds;
  seeds.reserve(mesh.NumberOfPoints());
  for (auto it = MStlIteratorStlPointConst::Begin(&mesh); it != MStlIteratorStlPointConst::End(&mesh); ++it) {
    if (it->GetNumberOfNeighbourTriangles() == 0) continue;
    MStlTriangle* t = &it->GetNeighbourTriangle(0)->data;
    seeds.push_back(PointSeed{it.GetPoint(), t, static_cast<int>(t->IndexOfPoint(it.GetPoint()))});
  }
  return seeds;
}

}  // namespace

NormalOrientationIndex::NormalOrientationIndex() : unitsPerLength(MUnit::GetIE()) { _LayOutGrid(); }

NormalOrientationIndex::~NormalOrientationIndex() = default;

void NormalOrientationIndex::SetParameters(const Parameters& p) { SetParameters(p, MUnit::GetIE()); }

void NormalOrientationIndex::SetParameters(const Parameters& p, std::int32_t units) {
  parameters = p;
  unitsPerLength = units;
  _LayOutGrid();
}

void NormalOrientationIndex::_DropCells() {
  entries.clear();
  entries.shrink_to_fit();
  cellStart.clear();
}

void NormalOrientationIndex::_LayOutGrid() {
  if (mesh != nullptr && IsBuilt()) _DropCells();
  const std::uint64_t rowCount = parameters.rowCount;
  const double last = static_cast<double>(rowCount) - 1.0;
  rows.assign(rowCount, {});
  std::uint64_t next = 0;
  for (std::uint64_t r = 0; r < rowCount; ++r) {
    const double theta = static_cast<double>(r) * kPi / last;
    const std::uint64_t count = std::max<std::int64_t>(1, RoundToInt64(2.0 * (last * std::fabs(std::sin(theta)))));
    rows[r].resize(count);
    for (std::uint64_t& id : rows[r]) id = next++;
  }
  const double g = static_cast<double>(unitsPerLength);
  cellDirections.resize(next);
  for (std::uint64_t r = 0; r < rowCount; ++r) {
    const double theta = static_cast<double>(r) * kPi / last;
    const double sinTheta = std::sin(theta), cosTheta = std::cos(theta);
    const double n = static_cast<double>(rows[r].size());
    for (std::size_t j = 0; j < rows[r].size(); ++j) {
      const double phi = static_cast<double>(j) * kTwoPi / n;
      cellDirections[rows[r][j]] = MMVector3d(g * std::cos(phi) * sinTheta, g * std::sin(phi) * sinTheta, g * cosTheta);
    }
  }
}

double NormalOrientationIndex::Colatitude(const MMVector3d& v) {
  return std::acos(v[2] / std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]));
}

double NormalOrientationIndex::Longitude(const MMVector3d& v) {
  const double x = v[0], y = v[1];
  if (std::fabs(x) <= 2.220446049250313e-16) return y > 0.0 ? 1.570796326794895 : 4.712388980384685;
  const double phi = std::atan(y / x);
  if (x < 0.0) return phi + kPi;
  return y < 0.0 ? phi + kTwoPi : phi;
}

void NormalOrientationIndex::SetMesh(const MStlBase* m) {
  if (mesh != nullptr && m != mesh) _DropCells();
  mesh = m;
}

void NormalOrientationIndex::_ComputePointNormals() {
  pointNormals = std::make_unique<MDataMask<MStlPoint, MMVector3d>>(MMVector3d());
  pointNormals->_SetSize(mesh->GetMasks().GetPointMaskSize());
  const std::vector<PointSeed> seeds = SeedsOf(*mesh);
  MStlBase* editable = const_cast<MStlBase*>(mesh);  // read only: the evaluator keeps its own masks

  if (parameters.fitNormals) {
    // One evaluator per worker: they share the neighbour table and keep their own
    // working masks. Each point's normal depends on the point alone, so the result
    // does not depend on which worker computes it.
    SurfacePatchEvaluator prototype;
    prototype.radius = parameters.smoothingRadius * unitsPerLength;
    prototype.curvatureKind = 1;
    prototype.Initialise(MStlBaseContainer(editable));
    tbb::enumerable_thread_specific<std::unique_ptr<SurfacePatchEvaluator>> workers;
    const auto fitRange = [&](const tbb::blocked_range<std::size_t>& r) {
      std::unique_ptr<SurfacePatchEvaluator>& evaluator = workers.local();
      if (!evaluator) evaluator = prototype.CloneForAnotherThread();
      for (std::size_t i = r.begin(); i != r.end(); ++i) {
        double bary[3] = {0.0, 0.0, 0.0};
        bary[seeds[i].corner] = 1.0;
        pointNormals->SetInfo(*seeds[i].point, evaluator->Evaluate(seeds[i].triangle, bary, false, 0.0).normal);
      }
    };
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, seeds.size(), 64), fitRange);
    return;
  }

  MStlBaseMaskOperatorComputePointNormalVectors fans;
  fans.SetMethod(ePointNormalMethod(2));
  const auto blendRange = [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      const MStlTriangle* t = seeds[i].triangle;
      double bary[3] = {0.0, 0.0, 0.0};
      bary[seeds[i].corner] = 1.0;
      MMVector3d sum;
      for (int k = 0; k < 3; ++k) {
        if (!(bary[k] > 0.0003452669770922512)) continue;
        MMVector3f corner;
        if (!fans.ComputeNormalCurrentMethod(corner, *t->GetPoint(k))) continue;
        sum += MMVector3d(corner[0], corner[1], corner[2]) * bary[k];
      }
      const double length = Length(sum);
      pointNormals->SetInfo(*seeds[i].point, length == 0.0 ? t->GetNormal() : sum / length);
    }
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, seeds.size(), 256), blendRange);
}

void NormalOrientationIndex::Build(const MStlBase& m) {
  if (mesh != nullptr && IsBuilt()) _DropCells();
  mesh = &m;
  _ComputePointNormals();

  const MMVector3d centre = GetGravityCenter(m);
  meshRadius = 0.0;
  for (auto it = MStlIteratorStlPointConst::Begin(&m); it != MStlIteratorStlPointConst::End(&m); ++it)
    meshRadius = std::max(meshRadius, Length(it->GetDouble() - centre));

  // Bucket each triangle by the mean of its smoothed vertex normals. A triangle whose
  // vertex normals cancel has no such direction; it goes by its face normal instead,
  // and to cell 0 when that is zero too, so that every triangle stays findable.
  const std::vector<const MStlTriangle*> triangles = TrianglesOf(m);
  const std::uint64_t last = parameters.rowCount - 1;
  std::vector<std::uint64_t> cellOf(triangles.size());
  const auto bucketRange = [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      const MStlTriangle* t = triangles[i];
      MMVector3d sum = pointNormals->GetInfo(*t->GetPoint(0)) + pointNormals->GetInfo(*t->GetPoint(1)) +
                       pointNormals->GetInfo(*t->GetPoint(2));
      const double length = Length(sum);
      if (length != 0.0) {
        sum /= length;
      } else {
        sum = t->GetNormal();
        if (Length2(sum) == 0.0) {
          cellOf[i] = 0;
          continue;
        }
      }
      const double theta = Colatitude(sum), phi = Longitude(sum);
      const std::uint64_t row = std::min(RoundToIndex(static_cast<double>(last) * (theta / kPi)), last);
      const std::vector<std::uint64_t>& cellsOfRow = rows[row];
      const std::uint64_t n = cellsOfRow.size();
      cellOf[i] = cellsOfRow[RoundToIndex((phi / kTwoPi) * static_cast<double>(n)) % n];
    }
  };
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, triangles.size(), 1024), bucketRange);

  // Counting sort by cell keeps the triangle order within each cell.
  cellStart.assign(cellDirections.size() + 1, 0);
  for (std::uint64_t c : cellOf) ++cellStart[c + 1];
  for (std::size_t c = 1; c < cellStart.size(); ++c) cellStart[c] += cellStart[c - 1];
  entries.resize(triangles.size());
  std::vector<std::size_t> fill(cellStart.begin(), cellStart.end() - 1);
  for (std::size_t i = 0; i < triangles.size(); ++i) {
    MStlTriangle* t = const_cast<MStlTriangle*>(triangles[i]);
    const MMVector3d a = t->GetVertex(0), b = t->GetVertex(1), c = t->GetVertex(2);
    const MMVector3d middle = (a + b + c) / 3.0;
    const double radius = std::max({Length(a - middle), Length(b - middle), Length(c - middle)});
    entries[fill[cellOf[i]]++] = Entry{t, t->GetNormal(), middle, radius};
  }
}

std::vector<MStlTriangle*> NormalOrientationIndex::GetCellTriangles(std::uint64_t cell) const {
  std::vector<MStlTriangle*> out;
  if (!IsBuilt() || cell + 1 >= cellStart.size()) return out;
  for (std::size_t i = cellStart[cell]; i < cellStart[cell + 1]; ++i) out.push_back(entries[i].triangle);
  return out;
}

std::size_t NormalOrientationIndex::ConeCells(const MMVector3d& normal, std::uint64_t* buffer) const {
  const double a = parameters.maxAngleDegrees * kDegree;
  const double theta = Colatitude(normal), phi = Longitude(normal);
  const std::uint64_t last = parameters.rowCount - 1;
  // A cone reaching half a row or more over the north pole rounds to a negative row,
  // which the unsigned limit turns into the last row; the pole rule below then opens
  // the walk to every row.
  std::uint64_t low = std::min(RoundToIndex(((theta - a) / kPi) * static_cast<double>(last)), last);
  std::uint64_t high = std::min(RoundToIndex(((theta + a) / kPi) * static_cast<double>(last)), last);
  const double d = ClampedCosine(normal, MMVector3d(0.0, 0.0, 1.0));
  const double cosA = std::cos(a);
  if (d > cosA) high = std::max(low, high), low = 0;
  if (d < -cosA) low = std::min(low, high), high = last;
  if (low > high) return 0;
  std::size_t count = 0;
  for (std::uint64_t row = low; row <= high; ++row) {
    const std::vector<std::uint64_t>& ids = rows[row];
    const std::uint64_t c = ids.size();
    const double n = static_cast<double>(c);
    // Negative columns wrap through 2^64, not through c. This fixes which cells a cone
    // near longitude 0 reaches, and so which matches, and poses, a run finds; the usual
    // wrap through c would reach other cells wherever c is not a power of two.
    const std::uint64_t first = RoundToIndex(n * ((phi - a) / kTwoPi)) % c;
    const std::uint64_t lastColumn = RoundToIndex(n * ((phi + a) / kTwoPi)) % c;
    for (std::uint64_t j = first;; j = (j + 1) % c) {
      buffer[count++] = ids[j];
      if (j == lastColumn) break;
    }
  }
  return count;
}

bool NormalOrientationIndex::FindBestMatch(const MMVector3d& point, const MMVector3d& normal,
                                           MMVector3d& closest) const {
  if (mesh == nullptr || !IsBuilt()) return false;
  // The cone's cells: on the stack for the usual grid, so a query allocates nothing.
  constexpr std::size_t kStackCells = 512;
  std::uint64_t stackCells[kStackCells];
  std::vector<std::uint64_t> heapCells;
  std::uint64_t* cellList = stackCells;
  if (cellDirections.size() > kStackCells) {
    heapCells.resize(cellDirections.size());
    cellList = heapCells.data();
  }
  const std::size_t cellCount = ConeCells(normal, cellList);

  const double cosA = std::cos(parameters.maxAngleDegrees * kDegree);
  const double w = parameters.normalWeight;
  const double distanceWeight = 1.0 - w;
  double best = kLargest;
  MMVector3d result;
  for (std::size_t k = 0; k < cellCount; ++k) {
    const std::uint64_t cell = cellList[k];
    for (std::size_t e = cellStart[cell]; e < cellStart[cell + 1]; ++e) {
      const Entry& entry = entries[e];
      // Its score is at least distanceWeight * distance, so a triangle whose bounding
      // sphere lies that far cannot win. The bound is shrunk a little so that rounding
      // never passes over a triangle that could.
      if (distanceWeight > 0.0 && best < kLargest) {
        const double lower = (Length(point - entry.centre) - entry.radius) * (1.0 - 1e-12) - 1e-9;
        if (distanceWeight * lower >= best) continue;
      }
      if (!(ClampedCosine(normal, entry.normal) >= cosA)) continue;
      const MStlTriangle* t = entry.triangle;
      MMVector3d projected, unusedWeights;
      MStlTriangle::MPosition where;
      const double dist = t->ProjectPoint(projected, unusedWeights, where, point);
      const MMVector3d a = t->GetVertex(0), b = t->GetVertex(1), c = t->GetVertex(2);
      double bary[3];
      MeshQueries::PointTriangleDistance2(projected.Data(), a.Data(), b.Data(), c.Data(), bary);
      MMVector3d m = pointNormals->GetInfo(*t->GetPoint(0)) * bary[0] +
                     pointNormals->GetInfo(*t->GetPoint(1)) * bary[1] +
                     pointNormals->GetInfo(*t->GetPoint(2)) * bary[2];
      const double length = Length(m);
      if (length != 0.0) m /= length;
      const double mismatch = Length(normal - m) * meshRadius;
      const double score = distanceWeight * dist + w * mismatch;
      if (score < best) {
        best = score;
        result = projected;
      }
    }
  }
  if (best == kLargest) return false;
  closest = result;
  return true;
}

bool NormalOrientationIndex::FindClosest(const MMVector3d& point, MMVector3d& closest) const {
  return FindClosestWithin(GetClosestTree(), point, std::numeric_limits<double>::infinity(), closest);
}

const MeshQueries::TriangleTreeHolder* NormalOrientationIndex::GetClosestTree() const {
  if (mesh == nullptr) return nullptr;
  return MeshQueries::GetTriangleTree(MeshQueries::MeshHandle(mesh));
}

bool NormalOrientationIndex::FindClosestWithin(const MeshQueries::TriangleTreeHolder* tree, const MMVector3d& point,
                                               double bound, MMVector3d& closest) {
  if (tree == nullptr) return false;
  MeshQueries::ClosestTriangle found;
  if (!MeshQueries::FindNearestTriangle(*tree, point, bound, found)) return false;
  closest = found.GetClosestPoint();
  return true;
}

}  // namespace ZorStlRegistration
