#include "zor/files/detail/reader_support.h"

namespace ZorStlRegistration::detail {

// OBJ: "v x y z" and "f" with one to three slash-separated numbers per corner (the
// first is the vertex; negative counts back from the last vertex so far); polygons as
// fans; every other statement skipped.
void ReadObj(const std::string& path, std::string_view bytes, RawMesh& raw) {
  Text text(path, bytes);
  text.comments = true;
  std::vector<std::uint32_t> corners;
  while (!text.AtEnd()) {
    const std::string_view w = text.Word();
    if (w == "v") {
      for (int d = 0; d < 3; ++d) raw.xyz.push_back(text.Number("vertex coordinate", false));
      if (raw.xyz.size() / 3 >= 0xFFFFFFFFu) text.Fail("more vertices than 32-bit indices reach");
    } else if (w == "f") {
      corners.clear();
      const std::int64_t count = static_cast<std::int64_t>(raw.xyz.size() / 3);
      while (!text.AtLineEnd()) {
        const std::string_view corner = text.Word();
        const std::string_view first = corner.substr(0, corner.find('/'));
        std::int64_t v = 0;
        const char* begin = first.data() + (!first.empty() && first[0] == '+' ? 1 : 0);
        const auto [stop, error] = std::from_chars(begin, first.data() + first.size(), v);
        if (first.empty() || error != std::errc() || stop != first.data() + first.size())
          text.Fail("face corner '" + std::string(corner.substr(0, 24)) + "' does not start with a vertex number");
        const std::int64_t index = v < 0 ? count + v : v - 1;
        if (v == 0 || index < 0 || index >= count)
          text.Fail("vertex " + std::to_string(v) + " of a face is not among the " + std::to_string(count) +
                    " vertices so far");
        corners.push_back(static_cast<std::uint32_t>(index));
      }
      if (corners.size() < 3) text.Fail("a face of " + std::to_string(corners.size()) + " corners");
      AddFan(raw.indices, corners.size(), [&](std::size_t i) { return corners[i]; });
    }
    text.NextLine();
  }
  raw.fileVertices = raw.xyz.size() / 3;
}

// OFF and its common variants: a keyword of [ST][C][N][4][n]OFF, then the vertex, face
// and edge counts (on the keyword's line or the next), then one vertex per line (its
// first three numbers; a fourth divides them in 4OFF; normals, colours and texture
// coordinates after them are skipped), then one face per line: its corner count and
// corners (a colour after them is skipped). '#' starts a comment.
void ReadOff(const std::string& path, std::string_view bytes, RawMesh& raw) {
  Text text(path, bytes);
  text.comments = true;
  text.SkipSpace();
  const std::string_view keyword = text.Word();
  if (keyword.size() < 3 || keyword.substr(keyword.size() - 3) != "OFF") text.Fail("no OFF keyword");
  std::string_view prefix = keyword.substr(0, keyword.size() - 3);
  const auto take = [&](std::string_view part) {
    if (prefix.substr(0, part.size()) != part) return false;
    prefix.remove_prefix(part.size());
    return true;
  };
  take("ST");
  take("C");
  take("N");
  const bool homogeneous = take("4");
  const bool dimension = take("n");
  if (!prefix.empty()) text.Fail("unknown OFF variant '" + std::string(keyword) + "'");
  if (dimension && text.Integer("dimension", 3, 3) != 3) text.Fail("only three dimensions are read");
  const std::int64_t vertices = text.Integer("vertex count", 0, 0xFFFFFFFEll);
  const std::int64_t faces = text.Integer("face count", 0, std::numeric_limits<std::int64_t>::max());
  if (!text.AtLineEnd()) text.Integer("edge count", 0, std::numeric_limits<std::int64_t>::max(), false);
  text.NextLine();
  // A vertex line holds at least three numbers, a face line at least four.
  text.Need(static_cast<std::uint64_t>(vertices), 6, std::to_string(vertices) + " vertices");
  raw.xyz.reserve(3 * static_cast<std::size_t>(vertices));
  for (std::int64_t v = 0; v < vertices; ++v) {
    double p[4] = {0.0, 0.0, 0.0, 1.0};
    for (int d = 0; d < (homogeneous ? 4 : 3); ++d) p[d] = text.Number("vertex coordinate");
    if (homogeneous) {
      if (p[3] == 0.0) text.Fail("a vertex at infinity (w = 0)");
      for (int d = 0; d < 3; ++d) p[d] /= p[3];
    }
    raw.xyz.insert(raw.xyz.end(), {p[0], p[1], p[2]});
    text.NextLine();
  }
  text.Need(static_cast<std::uint64_t>(faces), 8, std::to_string(faces) + " faces");
  std::vector<std::uint32_t> corners;
  for (std::int64_t f = 0; f < faces; ++f) {
    const std::int64_t n = text.Integer("corner count", 0, vertices);
    corners.clear();
    for (std::int64_t c = 0; c < n; ++c)
      corners.push_back(static_cast<std::uint32_t>(text.Integer("corner", 0, vertices - 1)));
    AddFan(raw.indices, corners.size(), [&](std::size_t i) { return corners[i]; });
    text.NextLine();
  }
  raw.fileVertices = raw.xyz.size() / 3;
}

}  // namespace ZorStlRegistration::detail
