#include "zor/services/geom_properties.h"

#include <cmath>

#include <Eigen/Dense>
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_reduce.h>

namespace {

// First and second moments of a set of triangles, relative to an origin close to the
// data (so that products stay small against the extent).
struct Moments {
  double mass = 0.0;
  double first[3] = {0.0, 0.0, 0.0};
  double second[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};  // xx, yy, zz, xy, xz, yz
  double areaVector[3] = {0.0, 0.0, 0.0};
  double areaLength = 0.0;

  void Add(const Moments& o) {
    mass += o.mass;
    for (int k = 0; k < 3; ++k) first[k] += o.first[k], areaVector[k] += o.areaVector[k];
    for (int k = 0; k < 6; ++k) second[k] += o.second[k];
    areaLength += o.areaLength;
  }
  // Adds m * (sum of v v^T over the vertices + s s^T) / divisor, s the vertex sum; this
  // is the second moment of a triangle (divisor 12, vertices 3) or of a tetrahedron with
  // one vertex at the origin (divisor 20, the other three).
  void AddSecond(double m, const Eigen::Vector3d& a, const Eigen::Vector3d& b, const Eigen::Vector3d& c,
                 double divisor) {
    const Eigen::Vector3d s = a + b + c;
    const double f = m / divisor;
    const auto term = [&](int i, int j) { return f * (a[i] * a[j] + b[i] * b[j] + c[i] * c[j] + s[i] * s[j]); };
    second[0] += term(0, 0), second[1] += term(1, 1), second[2] += term(2, 2);
    second[3] += term(0, 1), second[4] += term(0, 2), second[5] += term(1, 2);
  }
};

// The sums of both readings of the triangles, for GravityBody; each type fills what it reads.
struct BodyMoments {
  Moments solid, shell;
  void Add(const BodyMoments& o) {
    solid.Add(o.solid);
    shell.Add(o.shell);
  }
};

bool IsClosed(const Moments& m) {
  const double open = Eigen::Vector3d(m.areaVector[0], m.areaVector[1], m.areaVector[2]).norm();
  return open <= 1e-9 * m.areaLength;
}

struct Corners {
  Eigen::Vector3d v[3];
};

void AddTriangle(Moments& m, const Corners& t, GravityType type) {
  const Eigen::Vector3d& a = t.v[0];
  const Eigen::Vector3d& b = t.v[1];
  const Eigen::Vector3d& c = t.v[2];
  const Eigen::Vector3d areaVector = (b - a).cross(c - a);
  for (int k = 0; k < 3; ++k) m.areaVector[k] += areaVector[k];
  const double doubleArea = areaVector.norm();
  m.areaLength += doubleArea;
  if (type == GravityShell) {
    const double area = 0.5 * doubleArea;
    m.mass += area;
    const Eigen::Vector3d s = (a + b + c) * (area / 3.0);
    for (int k = 0; k < 3; ++k) m.first[k] += s[k];
    m.AddSecond(area, a, b, c, 12.0);
  } else {
    // Signed volume of the tetrahedron (origin, a, b, c): the divergence theorem sums
    // these to the enclosed volume.
    const double volume = a.dot(b.cross(c)) / 6.0;
    m.mass += volume;
    const Eigen::Vector3d s = (a + b + c) * (volume / 4.0);
    for (int k = 0; k < 3; ++k) m.first[k] += s[k];
    m.AddSecond(volume, a, b, c, 20.0);
  }
}

// Makes the largest component positive (the first of equal magnitude).
Eigen::Vector3d CanonicalSign(Eigen::Vector3d v) {
  int largest = 0;
  for (int k = 1; k < 3; ++k)
    if (std::fabs(v[k]) > std::fabs(v[largest])) largest = k;
  return v[largest] < 0.0 ? Eigen::Vector3d(-v) : v;
}

}  // namespace

void MStlBaseOperatorGeomProperties::AddStl(const MStlBase& mesh, const MMTransformMatrix& placement) {
  inputs.push_back(Input{&mesh, placement});
}

bool MStlBaseOperatorGeomProperties::Operate() {
  mass = 0.0;
  centre = MMVector3d();
  for (auto& a : axes) a = MMVector3d();
  for (double& m : moments) m = 0.0;
  if (gravityType != GravitySolid && gravityType != GravityShell && gravityType != GravityBody) return false;

  // All triangles in input order, with the placement of their mesh as a 3 x 4 map; the
  // origin of the sums is the centre of the placed boxes of the meshes, which keeps the
  // products small against the extent.
  std::vector<const MStlTriangle*> triangles;
  std::vector<std::uint32_t> inputOf;
  std::vector<Eigen::Matrix<double, 3, 4>> maps;
  std::size_t total = 0;
  for (const Input& in : inputs) total += in.mesh->GetNumberOfTriangles();
  triangles.reserve(total);
  inputOf.reserve(total);
  Eigen::Vector3d lo = Eigen::Vector3d::Constant(HUGE_VAL), hi = Eigen::Vector3d::Constant(-HUGE_VAL);
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const MStlBase& mesh = *inputs[i].mesh;
    Eigen::Matrix<double, 3, 4> map;
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 4; ++c) map(r, c) = inputs[i].placement.m[r][c];
    maps.push_back(map);
    if (mesh.GetNumberOfTriangles() == 0) continue;
    for (int corner = 0; corner < 8; ++corner) {
      const Eigen::Vector4d p(corner & 1 ? mesh.GetXMax() : mesh.GetXMin(),
                              corner & 2 ? mesh.GetYMax() : mesh.GetYMin(),
                              corner & 4 ? mesh.GetZMax() : mesh.GetZMin(), 1.0);
      lo = lo.cwiseMin(map * p);
      hi = hi.cwiseMax(map * p);
    }
    for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it) {
      triangles.push_back(&*it);
      inputOf.push_back(static_cast<std::uint32_t>(i));
    }
  }
  if (triangles.empty()) return false;
  const Eigen::Vector3d origin = 0.5 * (lo + hi);
  const auto placed = [&](std::size_t i) {
    const Eigen::Matrix<double, 3, 4>& map = maps[inputOf[i]];
    Corners c;
    for (int k = 0; k < 3; ++k) {
      const MStlPoint& p = *triangles[i]->GetPoint(k);
      c.v[k] = map * Eigen::Vector4d(p[0], p[1], p[2], 1.0) - origin;
    }
    return c;
  };

  // A fixed grain makes the split, and so the order of the additions, independent of
  // the number of threads.
  const GravityType type = gravityType;
  const bool readSolid = type != GravityShell, readShell = type != GravitySolid;
  const auto accumulateRange = [&](const oneapi::tbb::blocked_range<std::size_t>& r, BodyMoments m) {
    for (std::size_t i = r.begin(); i != r.end(); ++i) {
      const Corners t = placed(i);
      if (readSolid) AddTriangle(m.solid, t, GravitySolid);
      if (readShell) AddTriangle(m.shell, t, GravityShell);
    }
    return m;
  };
  const BodyMoments sums = oneapi::tbb::parallel_deterministic_reduce(
      oneapi::tbb::blocked_range<std::size_t>(0, triangles.size(), 4096), BodyMoments(), accumulateRange,
      [](BodyMoments a, const BodyMoments& b) {
        a.Add(b);
        return a;
      });
  const auto usable = [](const Moments& m) { return std::fabs(m.mass) > 0.0 && std::isfinite(m.mass); };
  const bool solid = type == GravitySolid || (type == GravityBody && usable(sums.solid) && IsClosed(sums.solid));
  const Moments& sum = solid ? sums.solid : sums.shell;
  if (!usable(sum)) return false;
  if (solid && !IsClosed(sum)) return false;
  // Dividing by the signed mass makes an inside-out solid read as the same solid.
  const Eigen::Vector3d c(sum.first[0] / sum.mass, sum.first[1] / sum.mass, sum.first[2] / sum.mass);
  Eigen::Matrix3d second;
  second << sum.second[0], sum.second[3], sum.second[4], sum.second[3], sum.second[1], sum.second[5], sum.second[4],
      sum.second[5], sum.second[2];
  second /= sum.mass;
  const Eigen::Matrix3d central = second - c * c.transpose();  // per unit mass, about the centre
  // Inertia tensor per unit mass: trace(C) I - C; scaled back by the mass below.
  const Eigen::Matrix3d inertia = Eigen::Matrix3d::Identity() * central.trace() - central;
  const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> eigen(inertia);
  if (eigen.info() != Eigen::Success) return false;

  mass = std::fabs(sum.mass);
  const Eigen::Vector3d centreWorld = c + origin;
  centre = MMVector3d(centreWorld[0], centreWorld[1], centreWorld[2]);
  const Eigen::Vector3d a0 = CanonicalSign(eigen.eigenvectors().col(0).normalized());
  const Eigen::Vector3d a1 = CanonicalSign(eigen.eigenvectors().col(1).normalized());
  const Eigen::Vector3d a2 = a0.cross(a1).normalized();
  const Eigen::Vector3d* columns[3] = {&a0, &a1, &a2};
  for (int i = 0; i < 3; ++i) {
    axes[i] = MMVector3d((*columns[i])[0], (*columns[i])[1], (*columns[i])[2]);
    moments[i] = eigen.eigenvalues()[i] * mass;
  }
  return true;
}

MMVector3d GetGravityCenter(const MStlBase& mesh) {
  MStlBaseOperatorGeomProperties properties;
  properties.SetGravityType(GravityShell);
  properties.AddStl(mesh, MMTransformMatrix());
  if (properties.Operate()) return properties.GetGravityCenter();
  if (mesh.NumberOfPoints() == 0) return MMVector3d();
  MMVector3d sum;
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it) sum += it->GetDouble();
  return sum / double(mesh.NumberOfPoints());
}
