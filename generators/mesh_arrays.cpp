#include "generators/mesh_arrays.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <random>

#include "zor/model/mesh_builder.h"

namespace zorgen {

void SetDiagonal(MeshArrays& m) {
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
  for (std::size_t i = 0; i < m.xyz.size(); ++i) {
    lo[i % 3] = std::min(lo[i % 3], m.xyz[i]);
    hi[i % 3] = std::max(hi[i % 3], m.xyz[i]);
  }
  m.diagonal = std::sqrt((hi[0] - lo[0]) * (hi[0] - lo[0]) + (hi[1] - lo[1]) * (hi[1] - lo[1]) +
                         (hi[2] - lo[2]) * (hi[2] - lo[2]));
}

std::unique_ptr<MStlBase> MakeMesh(const MeshArrays& m) {
  return BuildStl(m.xyz.data(), m.xyz.size() / 3, m.indices.data(), m.indices.size() / 3);
}

MeshArrays ArraysOf(const MStlBase& mesh) {
  MeshArrays m;
  std::vector<std::uint32_t> placeOf(mesh.GetMasks().GetPointMaskSize());
  for (const MStlPoint* p = mesh.GetFirstPoint(); p != nullptr; p = p->GetNext()) {
    placeOf[p->GetMaskIndex()] = static_cast<std::uint32_t>(m.xyz.size() / 3);
    Push3(m.xyz, double(p->GetX()), double(p->GetY()), double(p->GetZ()));
  }
  for (auto it = mesh.BeginTriangle(); it != mesh.EndTriangle(); ++it)
    for (std::size_t k = 0; k < 3; ++k)
      m.indices.push_back(placeOf[static_cast<const MStlTriangle*>(it)->GetPoint(k)->GetMaskIndex()]);
  SetDiagonal(m);
  return m;
}

std::unique_ptr<MStlBase> MakeMovedCopy(const MeshArrays& m, const MMTransformMatrix& pose, double keep, int cutAxis) {
  std::vector<double> xyz(m.xyz.size());
  for (std::size_t i = 0; i < m.xyz.size(); i += 3) {
    MMVector3d p(m.xyz[i], m.xyz[i + 1], m.xyz[i + 2]);
    pose.Transform(p, false);
    for (int k = 0; k < 3; ++k) xyz[i + k] = std::round(p[k]);
  }
  std::vector<std::uint32_t> indices;
  if (keep >= 1.0) {
    return BuildStl(xyz.data(), xyz.size() / 3, m.indices.data(), m.indices.size() / 3);
  } else {
    std::vector<double> along;
    for (std::size_t t = 0; t < m.indices.size(); t += 3) along.push_back(m.xyz[3 * m.indices[t] + cutAxis]);
    std::vector<double> sorted = along;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(keep * sorted.size()), sorted.end());
    const double cut = sorted[static_cast<std::size_t>(keep * sorted.size())];
    for (std::size_t t = 0; t < along.size(); ++t)
      if (along[t] < cut) indices.insert(indices.end(), &m.indices[3 * t], &m.indices[3 * t] + 3);
  }
  // Only the points that the kept triangles use: a stray point would still count in
  // the shape of the copy.
  std::vector<std::int64_t> renumber(xyz.size() / 3, -1);
  std::vector<double> used;
  for (std::uint32_t& i : indices) {
    if (renumber[i] < 0) {
      renumber[i] = static_cast<std::int64_t>(used.size() / 3);
      used.insert(used.end(), &xyz[3 * i], &xyz[3 * i] + 3);
    }
    i = static_cast<std::uint32_t>(renumber[i]);
  }
  return BuildStl(used.data(), used.size() / 3, indices.data(), indices.size() / 3);
}

std::vector<double> MakeQueriesAroundSurface(const MeshArrays& m, std::size_t count, double spread) {
  std::vector<double> cumulative;
  cumulative.reserve(m.indices.size() / 3);
  double total = 0.0;
  for (std::size_t t = 0; t < m.indices.size(); t += 3) {
    const double* a = &m.xyz[3 * m.indices[t]];
    const double* b = &m.xyz[3 * m.indices[t + 1]];
    const double* c = &m.xyz[3 * m.indices[t + 2]];
    const double u[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]}, v[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
    const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    total += std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    cumulative.push_back(total);
  }
  std::mt19937 rng(42);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::vector<double> q;
  q.reserve(3 * count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t t =
        std::lower_bound(cumulative.begin(), cumulative.end(), unit(rng) * total) - cumulative.begin();
    const double* a = &m.xyz[3 * m.indices[3 * t]];
    const double* b = &m.xyz[3 * m.indices[3 * t + 1]];
    const double* c = &m.xyz[3 * m.indices[3 * t + 2]];
    double s = unit(rng), r = unit(rng);
    if (s + r > 1) s = 1 - s, r = 1 - r;
    double dir[3] = {gauss(rng), gauss(rng), gauss(rng)};
    const double len = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
    const double off = unit(rng) * spread * m.diagonal / len;
    for (int k = 0; k < 3; ++k) q.push_back(a[k] + s * (b[k] - a[k]) + r * (c[k] - a[k]) + dir[k] * off);
  }
  return q;
}

MeshArrays Shuffled(const MeshArrays& m, unsigned seed) {
  std::mt19937 rng(seed);
  const std::size_t n = m.xyz.size() / 3;
  std::vector<std::uint32_t> slot(n);
  for (std::uint32_t i = 0; i < n; ++i) slot[i] = i;
  std::shuffle(slot.begin(), slot.end(), rng);  // slot[old] = new
  MeshArrays out = m;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t k = 0; k < 3; ++k) out.xyz[3 * slot[i] + k] = m.xyz[3 * i + k];
  std::vector<std::array<std::uint32_t, 3>> triangles(m.indices.size() / 3);
  for (std::size_t t = 0; t < triangles.size(); ++t) {
    const std::size_t turn = rng() % 3;
    for (std::size_t k = 0; k < 3; ++k) triangles[t][k] = slot[m.indices[3 * t + (k + turn) % 3]];
  }
  std::shuffle(triangles.begin(), triangles.end(), rng);
  for (std::size_t t = 0; t < triangles.size(); ++t)
    for (std::size_t k = 0; k < 3; ++k) out.indices[3 * t + k] = triangles[t][k];
  return out;
}

}  // namespace zorgen
