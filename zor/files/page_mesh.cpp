#include "zor/files/detail/page_mesh.h"

#include <meshoptimizer.h>

namespace ZorStlRegistration::detail {

PageMesh ForPage(const MStlBase& mesh, const MMTransformMatrix* pose, double scale, std::size_t budget) {
  const detail::FileGeometry g = InFileUnits(mesh, pose, scale);
  PageMesh page;
  std::vector<float> all(3 * g.points.size());
  for (std::size_t i = 0; i < g.points.size(); ++i)
    for (std::size_t k = 0; k < 3; ++k) all[3 * i + k] = static_cast<float>(g.points[i][k]);
  std::vector<std::uint32_t> corners = g.triangles;
  if (corners.size() / 3 > budget) {
    // The grid-based simplifier: ten times faster than the quadric one on a million
    // triangles, and at half of them or more the view shows no difference.
    std::vector<std::uint32_t> simplified(corners.size());
    simplified.resize(meshopt_simplifySloppy(simplified.data(), corners.data(), corners.size(), all.data(),
                                             g.points.size(), 3 * sizeof(float), 3 * budget, 1.0f, nullptr));
    corners.swap(simplified);
  }
  // Only the points the kept triangles use, in their first use's order.
  std::vector<std::uint32_t> renumber(g.points.size(), UINT32_MAX);
  page.corners.reserve(corners.size());
  for (std::uint32_t c : corners) {
    if (renumber[c] == UINT32_MAX) {
      renumber[c] = static_cast<std::uint32_t>(page.source.size());
      page.source.push_back(c);
      const auto first = all.begin() + 3 * static_cast<std::ptrdiff_t>(c);
      page.xyz.insert(page.xyz.end(), first, first + 3);
    }
    page.corners.push_back(renumber[c]);
  }
  return page;
}

void AppendBase64(AtomicFile& out, const void* data, std::size_t bytes) {
  static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto* b = static_cast<const unsigned char*>(data);
  std::string chunk;
  chunk.reserve(1 << 16);
  for (std::size_t i = 0; i < bytes; i += 3) {
    const std::uint32_t n = (std::uint32_t{b[i]} << 16) | (i + 1 < bytes ? std::uint32_t{b[i + 1]} << 8 : 0u) |
                            (i + 2 < bytes ? std::uint32_t{b[i + 2]} : 0u);
    chunk += kDigits[(n >> 18) & 63];
    chunk += kDigits[(n >> 12) & 63];
    chunk += i + 1 < bytes ? kDigits[(n >> 6) & 63] : '=';
    chunk += i + 2 < bytes ? kDigits[n & 63] : '=';
    if (chunk.size() >= (1 << 16) - 4) {
      out.Append(chunk);
      chunk.clear();
    }
  }
  out.Append(chunk);
}

std::string Escaped(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\\': out += "&#92;"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20)
          out += ' ';
        else
          out += c;
    }
  }
  return out;
}

}  // namespace ZorStlRegistration::detail
