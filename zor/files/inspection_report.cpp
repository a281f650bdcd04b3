#include "zor/files/inspection_report.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "zor/files/detail/atomic_file.h"
#include "zor/files/detail/page_mesh.h"
#include "zor/files/detail/report_assets.h"
#include "zor/files/deviation_colour.h"
#include "zor/model/distance_statistics.h"
#include "zor/model/unit.h"

namespace ZorStlRegistration {
namespace {

using detail::AppendBase64;
using detail::AtomicFile;
using detail::Escaped;
using detail::ForPage;
using detail::PageMesh;

// Bars of the histogram, and colour-bar stops from -kBarSpan to +kBarSpan ranges.
constexpr int kBins = 64;
constexpr int kStops = 41;
constexpr double kBarSpan = 2.5;

std::string LowerExtension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext;
}

void CheckReportPath(const std::string& path) {
  const std::string ext = LowerExtension(path);
  if (ext != ".html" && ext != ".htm")
    throw InputError("cannot write '" + path + "': an inspection report is an HTML page; name it .html");
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::error_code ec;
  if (!folder.empty() && !std::filesystem::is_directory(folder, ec))
    throw InputError("cannot write '" + path + "': no folder '" + folder.string() + "'");
}

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", std::isfinite(v) ? v : 0.0);
  return text;
}

std::string Short(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", v);
  return text;
}

std::string ColourText(const std::array<std::uint8_t, 3>& c) {
  return "[" + std::to_string(c[0]) + "," + std::to_string(c[1]) + "," + std::to_string(c[2]) + "]";
}

// The figures of the page: the statistics of the points with a counterpart, by the
// library's one rule, and the histogram's bars.
struct PageFigures {
  DistanceStatistics statistics;  // internal units
  std::size_t largestAt = 0;      // the moving mesh's point (list order) of the largest
  std::size_t withoutCounterpart = 0;
  double span = 1.0;  // the histogram's half width, file units
  std::vector<std::uint64_t> counts = std::vector<std::uint64_t>(kBins, 0);
};

bool HasCounterpart(const InspectionReport& r, std::size_t i) { return r.counterpart.empty() || r.counterpart[i] != 0; }

PageFigures Figures(const InspectionReport& r, double gridPerFileUnit) {
  PageFigures f;
  std::vector<double> measured;
  std::vector<std::size_t> pointOf;
  measured.reserve(r.distances.size());
  for (std::size_t i = 0; i < r.distances.size(); ++i) {
    if (!HasCounterpart(r, i)) {
      ++f.withoutCounterpart;
      continue;
    }
    measured.push_back(r.distances[i]);
    pointOf.push_back(i);
  }
  f.statistics = SummariseDistances(measured, r.range);
  f.largestAt = pointOf.empty() ? 0 : pointOf[f.statistics.largestAt];
  // The bars span the bulk: 99% of the points, or the colour bar's span.
  std::vector<double> magnitudes;
  magnitudes.reserve(measured.size());
  for (double d : measured)
    if (std::isfinite(d)) magnitudes.push_back(std::fabs(d));
  const double p99 = NearestRank(magnitudes, 0.99);
  f.span = std::max(kBarSpan * r.range, p99) / gridPerFileUnit;
  const double rangeFile = r.range / gridPerFileUnit;
  if (!(f.span > 0.0)) f.span = rangeFile > 0.0 ? rangeFile : 1.0;
  for (double d : measured) {
    if (!std::isfinite(d)) continue;
    const double t = (d / gridPerFileUnit + f.span) / (2.0 * f.span) * kBins;
    const int bin = t <= 0.0 ? 0 : t >= kBins ? kBins - 1 : static_cast<int>(t);
    ++f.counts[static_cast<std::size_t>(bin)];
  }
  return f;
}

// The page's data for its script: the colour bar, the histogram, where the largest lies.
std::string PageData(const InspectionReport& r, const PageFigures& f, double gridPerFileUnit, bool hasMoving,
                     bool hasGhost, const MMVector3d* largestPlace) {
  std::string json = "{\"range\":" + Number(r.range / gridPerFileUnit) +
                     ",\"hasMesh\":" + (hasMoving ? "true" : "false") +
                     ",\"hasGhost\":" + (hasGhost ? "true" : "false") + ",\"stops\":[";
  for (int i = 0; i < kStops; ++i) {
    const double t = -kBarSpan + 2.0 * kBarSpan * i / (kStops - 1);
    json += (i ? "," : "") + ColourText(DeviationColour(t * r.range, r.range));
  }
  json += "],\"histogram\":{\"span\":" + Number(f.span) + ",\"counts\":[";
  for (int i = 0; i < kBins; ++i) json += (i ? "," : "") + std::to_string(f.counts[static_cast<std::size_t>(i)]);
  json += "],\"colours\":[";
  for (int i = 0; i < kBins; ++i) {
    const double centre = (-f.span + (i + 0.5) * 2.0 * f.span / kBins) * gridPerFileUnit;
    json += (i ? "," : "") + ColourText(DeviationColour(centre, r.range));
  }
  json += "],\"withoutCounterpart\":" + std::to_string(f.withoutCounterpart) + "}";
  if (largestPlace != nullptr)
    json += ",\"largestAt\":[" + Number((*largestPlace)[0]) + "," + Number((*largestPlace)[1]) + "," +
            Number((*largestPlace)[2]) + "]";
  return json + "}";
}

// The summary table: the caller's rows, then the figures.
void AppendSummary(AtomicFile& out, const InspectionReport& r, const PageFigures& f, double gridPerFileUnit,
                   const MMVector3d* largestPlace) {
  out.Append("<table id=\"zor-summary\">\n");
  for (const auto& [label, text] : r.rows) {
    const bool doubt = label == "doubt";
    out.Append("<tr><td>" + Escaped(label) + "</td><td" + (doubt ? " class=\"doubt\"" : "") + ">" + Escaped(text) +
               "</td></tr>\n");
  }
  if (!r.distances.empty()) {
    const DistanceStatistics& s = f.statistics;
    const double rangeFile = r.range / gridPerFileUnit;
    out.Append("<tr><td>within &plusmn;" + Escaped(Short(rangeFile)) + "</td><td id=\"zor-within\" data-value=\"" +
               Number(s.withinShare) + "\">" + Escaped(Short(100.0 * s.withinShare)) + "% of " +
               std::to_string(s.count) + " vertices</td></tr>\n");
    if (f.withoutCounterpart > 0)
      out.Append(
          "<tr><td>no counterpart</td><td id=\"zor-no-counterpart\" data-value=\"" +
          std::to_string(f.withoutCounterpart) + "\">" + std::to_string(f.withoutCounterpart) +
          " vertices (grey: clutter, or beyond the fixed mesh's border), not counted above or below</td></tr>\n");
    out.Append("<tr><td>95th percentile</td><td id=\"zor-p95\" data-value=\"" +
               Number(s.percentile95 / gridPerFileUnit) + "\">" + Escaped(Short(s.percentile95 / gridPerFileUnit)) +
               " (|signed distance|, file units)</td></tr>\n");
    out.Append("<tr><td>largest</td><td id=\"zor-largest\" data-value=\"" + Number(s.largest / gridPerFileUnit) +
               "\">" + Escaped(Short(s.largest / gridPerFileUnit)));
    if (largestPlace != nullptr)
      out.Append(" at (" + Escaped(Short((*largestPlace)[0])) + ", " + Escaped(Short((*largestPlace)[1])) + ", " +
                 Escaped(Short((*largestPlace)[2])) + "), the violet marker");
    out.Append("</td></tr>\n");
  }
  out.Append("</table>\n");
}

}  // namespace

bool InspectionViewerAvailable() { return detail::ViewerLibrary() != nullptr; }

void WriteInspectionReport(const InspectionReport& r, const std::string& path) {
  CheckReportPath(path);
  const double gridPerFileUnit = r.scale * MUnit::GetIE();
  const bool hasMoving = r.moving != nullptr && r.moving->GetNumberOfTriangles() > 0;
  if (r.moving != nullptr && r.distances.size() != r.moving->NumberOfPoints())
    throw std::invalid_argument("WriteInspectionReport: one distance per point of the moving mesh is needed");
  if (!r.counterpart.empty() && r.counterpart.size() != r.distances.size())
    throw std::invalid_argument("WriteInspectionReport: one counterpart flag per distance is needed");
  if (!r.colours.empty() && r.colours.size() != r.distances.size())
    throw std::invalid_argument("WriteInspectionReport: one colour per point is needed");
  const PageFigures figures = Figures(r, gridPerFileUnit);
  const bool measured = figures.statistics.count > 0;

  PageMesh moving, fixed;
  std::vector<std::uint8_t> colours;
  if (hasMoving) {
    moving = ForPage(*r.moving, r.pose, r.scale, r.maxTriangles);
    colours.reserve(3 * moving.source.size());
    for (std::uint32_t s : moving.source) {
      const std::array<std::uint8_t, 3> colour = !r.colours.empty()     ? r.colours[s]
                                                 : HasCounterpart(r, s) ? DeviationColour(r.distances[s], r.range)
                                                                        : kNoCounterpartColour;
      colours.insert(colours.end(), colour.begin(), colour.end());
    }
  }
  const bool hasGhost = hasMoving && r.fixed != nullptr && r.fixed->GetNumberOfTriangles() > 0;
  if (hasGhost) fixed = ForPage(*r.fixed, nullptr, r.scale, r.maxGhostTriangles);
  MMVector3d largestPlace;
  const bool showLargest = hasMoving && measured;
  if (showLargest) {
    std::size_t k = 0;
    for (auto it = r.moving->BeginPoint(); it != r.moving->EndPoint(); ++it, ++k)
      if (k == figures.largestAt) {
        largestPlace = it->GetDouble();
        if (r.pose != nullptr) r.pose->Transform(largestPlace, false);
        largestPlace = largestPlace * (1.0 / gridPerFileUnit);
        break;
      }
  }

  std::string problem = r.problem;
  if (problem.empty() && !hasMoving) problem = "The moving mesh has no triangles: there is nothing to show.";
  const std::string title = Escaped(r.title.empty() ? std::string("Inspection report") : r.title);
  AtomicFile out(path);
  out.Append("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>" + title +
             "</title>\n<style>");
  out.Append(detail::PageStyle());
  out.Append("</style>\n</head>\n<body data-drawn=\"0\">\n<header><h1>" + title +
             "</h1></header>\n<main>\n<canvas id=\"zor-view\"></canvas>\n<aside>\n");
  if (!problem.empty()) out.Append("<div class=\"problem\" id=\"zor-problem\">" + Escaped(problem) + "</div>\n");
  if (!InspectionViewerAvailable())
    out.Append(
        "<p id=\"zor-status\">This program was built without its 3D viewer (three.js); the numbers and the "
        "histogram stand.</p>\n");
  else
    out.Append("<p id=\"zor-status\"></p>\n");
  AppendSummary(out, r, figures, gridPerFileUnit, showLargest ? &largestPlace : nullptr);
  if (hasGhost)
    out.Append(
        "<p><label><input type=\"checkbox\" id=\"zor-ghost\" checked> show the fixed mesh (ghost)</label></p>\n");
  if (measured) {
    const double rangeFile = r.range / gridPerFileUnit;
    out.Append(
        "<h2>Signed distance, file units</h2>\n<canvas class=\"chart\" id=\"zor-colourbar\" width=\"400\" "
        "height=\"16\"></canvas>\n<div class=\"scale\"><span>" +
        Escaped(Short(-kBarSpan * rangeFile)) + "</span><span>-" + Escaped(Short(rangeFile)) +
        "</span><span>0</span><span>" + Escaped(Short(rangeFile)) + "</span><span>" +
        Escaped(Short(kBarSpan * rangeFile)) + "</span></div>\n");
    out.Append(
        "<h2>Histogram (bar height: square root of the count)</h2>\n<canvas class=\"chart\" "
        "id=\"zor-histogram\" width=\"400\" height=\"160\"></canvas>\n");
  }
  out.Append("<p>Drag to turn, wheel to zoom, right-drag or shift-drag to pan. ");
  if (!r.colourNote.empty()) {
    out.Append(Escaped(r.colourNote));
  } else {
    out.Append("Green lies within the tolerance, yellow to red outside the fixed surface, cyan to blue inside it");
    out.Append(figures.withoutCounterpart > 0 ? "; grey has no counterpart on it." : ".");
  }
  if (hasMoving && r.moving->GetNumberOfTriangles() > moving.corners.size() / 3)
    out.Append(" The view shows " + std::to_string(moving.corners.size() / 3) + " of the moving mesh's " +
               std::to_string(r.moving->GetNumberOfTriangles()) + " triangles; the numbers come from all of them.");
  out.Append("</p>\n</aside>\n</main>\n<script type=\"application/json\" id=\"zor-data\">");
  out.Append(PageData(r, figures, gridPerFileUnit, hasMoving, hasGhost, showLargest ? &largestPlace : nullptr));
  out.Append("</script>\n");
  const auto blob = [&](const char* id, const void* data, std::size_t bytes) {
    out.Append(std::string("<script type=\"text/plain\" id=\"") + id + "\">");
    AppendBase64(out, data, bytes);
    out.Append("</script>\n");
  };
  if (hasMoving) {
    blob("zor-moving-xyz", moving.xyz.data(), moving.xyz.size() * sizeof(float));
    blob("zor-moving-corners", moving.corners.data(), moving.corners.size() * sizeof(std::uint32_t));
    blob("zor-moving-rgb", colours.data(), colours.size());
  }
  if (hasGhost) {
    blob("zor-fixed-xyz", fixed.xyz.data(), fixed.xyz.size() * sizeof(float));
    blob("zor-fixed-corners", fixed.corners.data(), fixed.corners.size() * sizeof(std::uint32_t));
  }
  if (const char* library = detail::ViewerLibrary()) {
    out.Append("<script>\n");
    out.Append(library);
    out.Append("\n</script>\n");
  }
  out.Append("<script>");
  out.Append(detail::PageScript());
  out.Append("</script>\n</body>\n</html>\n");
  out.Commit();
}

}  // namespace ZorStlRegistration
