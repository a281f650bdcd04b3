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

#include <meshoptimizer.h>

#include "zor/files/detail/atomic_file.h"
#include "zor/files/detail/viewer_script.h"
#include "zor/files/deviation_colour.h"
#include "zor/model/unit.h"

namespace ZorStlRegistration {
namespace {

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

// A mesh for the page: positions in file units (float), corners, and for the coloured
// mesh each kept point's place in the full mesh.
struct PageMesh {
  std::vector<float> xyz;
  std::vector<std::uint32_t> corners;
  std::vector<std::uint32_t> source;
};

// The mesh in file units, simplified to at most `budget` triangles (meshoptimizer keeps a
// subset of the points, so every point of the page is one of the full mesh's).
PageMesh ForPage(const MStlBase& mesh, const MMTransformMatrix* pose, double scale, std::size_t budget) {
  const detail::FileGeometry g = detail::InFileUnits(mesh, pose, scale);
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

void AppendBase64(detail::AtomicFile& out, const void* data, std::size_t bytes) {
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

// Text for HTML and for a JSON string inside a script element.
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

// The page's script: decodes the arrays, draws the meshes with three.js, the colour bar
// and the histogram on canvases, and tells (data-drawn, data-painted) when the view has
// been drawn and how many of its pixels differ from the background.
constexpr const char* kPageScript = R"zorpage(
(function () {
  const data = JSON.parse(document.getElementById('zor-data').textContent);
  const status = document.getElementById('zor-status');
  function bytesOf(id) {
    const el = document.getElementById(id);
    if (!el) return null;
    const text = atob(el.textContent.trim());
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i);
    return bytes.buffer;
  }
  function rgb(c) { return 'rgb(' + c[0] + ',' + c[1] + ',' + c[2] + ')'; }

  // Colour bar: the stops the map uses, from -2.5 to +2.5 ranges.
  const bar = document.getElementById('zor-colourbar');
  if (bar) {
    const g = bar.getContext('2d');
    const n = data.stops.length;
    for (let i = 0; i < n; ++i) {
      g.fillStyle = rgb(data.stops[i]);
      g.fillRect(Math.floor(i * bar.width / n), 0, Math.ceil(bar.width / n) + 1, bar.height);
    }
  }

  // Histogram of the signed distances, the tolerance band shaded.
  const hist = document.getElementById('zor-histogram');
  if (hist) {
    const g = hist.getContext('2d');
    const w = hist.width, h = hist.height, pad = 18;
    g.fillStyle = '#fff';
    g.fillRect(0, 0, w, h);
    const span = data.histogram.span, bins = data.histogram.counts;
    const x = function (v) { return (v + span) / (2 * span) * w; };
    g.fillStyle = 'rgba(0, 160, 0, 0.12)';
    g.fillRect(x(-data.range), 0, x(data.range) - x(-data.range), h - pad);
    let top = 1;
    for (const c of bins) top = Math.max(top, c);
    for (let i = 0; i < bins.length; ++i) {
      const bh = (h - pad - 4) * Math.sqrt(bins[i] / top);
      g.fillStyle = rgb(data.histogram.colours[i]);
      g.fillRect(i * w / bins.length + 0.5, h - pad - bh, w / bins.length - 1, bh);
    }
    g.strokeStyle = '#080';
    g.setLineDash([4, 3]);
    for (const v of [-data.range, data.range]) {
      g.beginPath(); g.moveTo(x(v), 0); g.lineTo(x(v), h - pad); g.stroke();
    }
    g.setLineDash([]);
    g.fillStyle = '#333';
    g.font = '11px sans-serif';
    g.textAlign = 'left'; g.fillText((-span).toPrecision(3), 2, h - 4);
    g.textAlign = 'center'; g.fillText('0', w / 2, h - 4);
    g.textAlign = 'right'; g.fillText(span.toPrecision(3), w - 2, h - 4);
  }

  const canvas = document.getElementById('zor-view');
  if (typeof THREE === 'undefined' || !data.hasMesh) {
    document.body.dataset.drawn = '1';
    document.body.dataset.painted = '0';
    return;
  }
  let renderer;
  try {
    renderer = new THREE.WebGLRenderer({canvas: canvas, antialias: true, preserveDrawingBuffer: true});
  } catch (e) {
    status.textContent = 'This browser could not start WebGL: ' + e.message;
    document.body.dataset.drawn = '1';
    document.body.dataset.painted = '0';
    return;
  }
  renderer.setPixelRatio(window.devicePixelRatio || 1);
  const scene = new THREE.Scene();
  scene.background = new THREE.Color(0xf4f5f7);
  const camera = new THREE.PerspectiveCamera(35, 1, 0.001, 1e7);
  scene.add(new THREE.AmbientLight(0xffffff, 0.55));
  const light = new THREE.DirectionalLight(0xffffff, 0.6);
  camera.add(light);
  light.position.set(0.5, 1, 2);
  scene.add(camera);

  function meshOf(prefix, colours) {
    const geometry = new THREE.BufferGeometry();
    geometry.setAttribute('position', new THREE.BufferAttribute(new Float32Array(bytesOf(prefix + '-xyz')), 3));
    geometry.setIndex(new THREE.BufferAttribute(new Uint32Array(bytesOf(prefix + '-corners')), 1));
    if (colours) geometry.setAttribute('color', new THREE.BufferAttribute(new Uint8Array(bytesOf(prefix + '-rgb')), 3, true));
    geometry.computeVertexNormals();
    geometry.computeBoundingSphere();
    return geometry;
  }
  const moving = meshOf('zor-moving', true);
  const movingMesh = new THREE.Mesh(moving, new THREE.MeshPhongMaterial({
    vertexColors: THREE.VertexColors, side: THREE.DoubleSide, shininess: 20}));
  scene.add(movingMesh);
  let ghost = null;
  if (data.hasGhost) {
    ghost = new THREE.Mesh(meshOf('zor-fixed', false), new THREE.MeshBasicMaterial({
      color: 0x8090a0, transparent: true, opacity: 0.15, depthWrite: false, side: THREE.DoubleSide}));
    scene.add(ghost);
    const toggle = document.getElementById('zor-ghost');
    toggle.addEventListener('change', function () { ghost.visible = toggle.checked; draw(); });
  }
  const sphere = moving.boundingSphere;
  const radius = Math.max(sphere.radius, 1e-6);
  if (data.largestAt) {
    const marker = new THREE.Mesh(new THREE.SphereBufferGeometry(radius * 0.015, 16, 12),
                                  new THREE.MeshBasicMaterial({color: 0xd000d0}));
    marker.position.set(data.largestAt[0], data.largestAt[1], data.largestAt[2]);
    scene.add(marker);
  }

  // Orbit about a target: drag turns, the wheel zooms, a right or shift drag pans.
  const target = sphere.center.clone();
  let distance = radius / Math.tan(camera.fov * Math.PI / 360) * 1.15;
  let yaw = 0.6, pitch = 0.45;
  function place() {
    const c = Math.cos(pitch);
    camera.position.set(target.x + distance * c * Math.sin(yaw), target.y + distance * Math.sin(pitch),
                        target.z + distance * c * Math.cos(yaw));
    camera.near = distance / 1000;
    camera.far = distance * 100;
    camera.lookAt(target);
    camera.updateProjectionMatrix();
  }
  function resize() {
    const w = canvas.clientWidth, h = canvas.clientHeight;
    renderer.setSize(w, h, false);
    camera.aspect = w / Math.max(h, 1);
  }
  function draw() { place(); renderer.render(scene, camera); }
  let dragging = null;
  canvas.addEventListener('contextmenu', function (e) { e.preventDefault(); });
  canvas.addEventListener('pointerdown', function (e) {
    dragging = {x: e.clientX, y: e.clientY, pan: e.button === 2 || e.shiftKey};
    canvas.setPointerCapture(e.pointerId);
  });
  canvas.addEventListener('pointerup', function () { dragging = null; });
  canvas.addEventListener('pointermove', function (e) {
    if (!dragging) return;
    const dx = e.clientX - dragging.x, dy = e.clientY - dragging.y;
    dragging.x = e.clientX; dragging.y = e.clientY;
    if (dragging.pan) {
      const scale = distance * Math.tan(camera.fov * Math.PI / 360) * 2 / canvas.clientHeight;
      const right = new THREE.Vector3().setFromMatrixColumn(camera.matrix, 0);
      const up = new THREE.Vector3().setFromMatrixColumn(camera.matrix, 1);
      target.addScaledVector(right, -dx * scale).addScaledVector(up, dy * scale);
    } else {
      yaw -= dx * 0.008;
      pitch = Math.max(-1.55, Math.min(1.55, pitch + dy * 0.008));
    }
    draw();
  });
  canvas.addEventListener('wheel', function (e) {
    e.preventDefault();
    distance *= Math.exp(e.deltaY * 0.001);
    draw();
  }, {passive: false});
  window.addEventListener('resize', function () { resize(); draw(); });
  resize();
  draw();

  // How much of the view is drawn: pixels that differ from the background.
  const gl = renderer.getContext();
  const w = gl.drawingBufferWidth, h = gl.drawingBufferHeight;
  const pixels = new Uint8Array(w * h * 4);
  gl.readPixels(0, 0, w, h, gl.RGBA, gl.UNSIGNED_BYTE, pixels);
  let painted = 0;
  for (let i = 0; i < pixels.length; i += 4)
    if (Math.abs(pixels[i] - 244) + Math.abs(pixels[i + 1] - 245) + Math.abs(pixels[i + 2] - 247) > 12) ++painted;
  document.body.dataset.painted = String(painted);
  document.body.dataset.drawnAfterMs = String(Math.round(performance.now()));  // since the page was opened
  document.body.dataset.drawn = '1';
})();
)zorpage";

constexpr const char* kStyle = R"zorstyle(
body { font-family: system-ui, sans-serif; margin: 0; color: #222; background: #fff; }
header { padding: 10px 16px; background: #223; color: #fff; }
header h1 { font-size: 18px; margin: 0; font-weight: 600; }
main { display: flex; height: calc(100vh - 42px); }
#zor-view { flex: 1; min-width: 0; height: 100%; display: block; cursor: grab; }
aside { width: 420px; overflow-y: auto; padding: 10px 14px; border-left: 1px solid #ccd; font-size: 13px; }
table { border-collapse: collapse; width: 100%; }
td { padding: 3px 4px; vertical-align: top; border-bottom: 1px solid #eef; overflow-wrap: anywhere; }
td:first-child { color: #556; white-space: nowrap; }
.problem { background: #fde8e8; border: 1px solid #d99; padding: 8px 10px; margin-bottom: 10px; font-weight: 600; }
.doubt { color: #a00; font-weight: 600; }
h2 { font-size: 14px; margin: 14px 0 6px; }
canvas.chart { width: 100%; display: block; }
.scale { display: flex; justify-content: space-between; color: #556; font-size: 11px; }
#zor-status { color: #a00; }
)zorstyle";

}  // namespace

bool InspectionViewerAvailable() { return detail::ViewerLibrary() != nullptr; }

void WriteInspectionReport(const InspectionReport& r, const std::string& path) {
  CheckReportPath(path);
  const double gridPerFileUnit = r.scale * MUnit::GetIE();
  const bool hasMoving = r.moving != nullptr && r.moving->GetNumberOfTriangles() > 0;
  if (r.moving != nullptr && r.distances.size() != r.moving->NumberOfPoints())
    throw std::invalid_argument("WriteInspectionReport: one distance per point of the moving mesh is needed");

  // The numbers, from every point of the full mesh.
  std::size_t within = 0, largestAt = 0;
  double largest = 0.0;
  std::vector<double> magnitudes;
  magnitudes.reserve(r.distances.size());
  for (std::size_t i = 0; i < r.distances.size(); ++i) {
    const double a = std::fabs(r.distances[i]);
    if (!(a <= largest) && std::isfinite(a)) largest = a, largestAt = i;  // first of equals
    within += a <= r.range ? 1 : 0;
    if (std::isfinite(a)) magnitudes.push_back(a);  // a NaN would break the selection's order
  }
  // Nearest rank: the smallest value that at least a share q of the points do not exceed.
  const auto percentile = [&magnitudes](double q) {
    if (magnitudes.empty()) return 0.0;
    const std::size_t rank =
        std::max<std::size_t>(1, static_cast<std::size_t>(std::ceil(q * static_cast<double>(magnitudes.size()))));
    std::nth_element(magnitudes.begin(), magnitudes.begin() + static_cast<std::ptrdiff_t>(rank - 1), magnitudes.end());
    return magnitudes[rank - 1];
  };
  const double p95 = percentile(0.95);
  const double p99 = percentile(0.99);
  const double share =
      r.distances.empty() ? 0.0 : static_cast<double>(within) / static_cast<double>(r.distances.size());
  const double rangeFile = r.range / gridPerFileUnit;
  // The histogram spans the bulk: the colour bar's span, or as far as 99% of the points
  // reach; the farthest hundredth falls into the end bars.
  double span = std::max(kBarSpan * r.range, p99) / gridPerFileUnit;
  if (!(span > 0.0)) span = rangeFile > 0.0 ? rangeFile : 1.0;
  std::vector<std::uint64_t> counts(kBins, 0);
  for (double d : r.distances) {
    if (!std::isfinite(d)) continue;
    const double t = (d / gridPerFileUnit + span) / (2.0 * span) * kBins;
    const int bin = t <= 0.0 ? 0 : t >= kBins ? kBins - 1 : static_cast<int>(t);
    ++counts[static_cast<std::size_t>(bin)];
  }

  PageMesh moving, fixed;
  std::vector<std::uint8_t> colours;
  if (hasMoving) {
    moving = ForPage(*r.moving, r.pose, r.scale, r.maxTriangles);
    colours.reserve(3 * moving.source.size());
    for (std::uint32_t s : moving.source)
      for (std::uint8_t c : DeviationColour(r.distances[s], r.range)) colours.push_back(c);
  }
  const bool hasGhost = hasMoving && r.fixed != nullptr && r.fixed->GetNumberOfTriangles() > 0;
  if (hasGhost) fixed = ForPage(*r.fixed, nullptr, r.scale, r.maxGhostTriangles);
  MMVector3d largestPlace;
  if (hasMoving && !r.distances.empty()) {
    std::size_t k = 0;
    for (auto it = r.moving->BeginPoint(); it != r.moving->EndPoint(); ++it, ++k)
      if (k == largestAt) {
        largestPlace = it->GetDouble();
        if (r.pose != nullptr) r.pose->Transform(largestPlace, false);
        largestPlace = largestPlace * (1.0 / gridPerFileUnit);
        break;
      }
  }

  std::string problem = r.problem;
  if (problem.empty() && !hasMoving) problem = "The moving mesh has no triangles: there is nothing to show.";

  // The page's data, for its script.
  std::string json = "{\"range\":" + Number(rangeFile) + ",\"hasMesh\":" + (hasMoving ? "true" : "false") +
                     ",\"hasGhost\":" + (hasGhost ? "true" : "false") + ",\"stops\":[";
  for (int i = 0; i < kStops; ++i) {
    const double t = -kBarSpan + 2.0 * kBarSpan * i / (kStops - 1);
    json += (i ? "," : "") + ColourText(DeviationColour(t * r.range, r.range));
  }
  json += "],\"histogram\":{\"span\":" + Number(span) + ",\"counts\":[";
  for (int i = 0; i < kBins; ++i) json += (i ? "," : "") + std::to_string(counts[static_cast<std::size_t>(i)]);
  json += "],\"colours\":[";
  for (int i = 0; i < kBins; ++i) {
    const double centre = (-span + (i + 0.5) * 2.0 * span / kBins) * gridPerFileUnit;
    json += (i ? "," : "") + ColourText(DeviationColour(centre, r.range));
  }
  json += "]}";
  if (hasMoving && !r.distances.empty())
    json += ",\"largestAt\":[" + Number(largestPlace[0]) + "," + Number(largestPlace[1]) + "," +
            Number(largestPlace[2]) + "]";
  json += "}";

  detail::AtomicFile out(path);
  out.Append("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>");
  out.Append(Escaped(r.title.empty() ? std::string("Inspection report") : r.title));
  out.Append("</title>\n<style>");
  out.Append(kStyle);
  out.Append("</style>\n</head>\n<body data-drawn=\"0\">\n<header><h1>");
  out.Append(Escaped(r.title.empty() ? std::string("Inspection report") : r.title));
  out.Append("</h1></header>\n<main>\n<canvas id=\"zor-view\"></canvas>\n<aside>\n");
  if (!problem.empty()) out.Append("<div class=\"problem\" id=\"zor-problem\">" + Escaped(problem) + "</div>\n");
  if (!InspectionViewerAvailable())
    out.Append(
        "<p id=\"zor-status\">This program was built without its 3D viewer (three.js); the numbers and the "
        "histogram stand.</p>\n");
  else
    out.Append("<p id=\"zor-status\"></p>\n");
  out.Append("<table id=\"zor-summary\">\n");
  for (const auto& [label, text] : r.rows) {
    const bool doubt = label == "doubt";
    out.Append("<tr><td>" + Escaped(label) + "</td><td" + (doubt ? " class=\"doubt\"" : "") + ">" + Escaped(text) +
               "</td></tr>\n");
  }
  // Without a single measured point the numbers and charts would only show zeros: the
  // problem above says what there is to know.
  const bool measured = !r.distances.empty();
  if (measured) {
    out.Append("<tr><td>within &plusmn;" + Escaped(Short(rangeFile)) + "</td><td id=\"zor-within\" data-value=\"" +
               Number(share) + "\">" + Escaped(Short(100.0 * share)) + "% of " + std::to_string(r.distances.size()) +
               " vertices</td></tr>\n");
    out.Append("<tr><td>95th percentile</td><td id=\"zor-p95\" data-value=\"" + Number(p95 / gridPerFileUnit) + "\">" +
               Escaped(Short(p95 / gridPerFileUnit)) + " (|signed distance|, file units)</td></tr>\n");
    out.Append("<tr><td>largest</td><td id=\"zor-largest\" data-value=\"" + Number(largest / gridPerFileUnit) + "\">" +
               Escaped(Short(largest / gridPerFileUnit)));
    if (hasMoving && !r.distances.empty())
      out.Append(" at (" + Escaped(Short(largestPlace[0])) + ", " + Escaped(Short(largestPlace[1])) + ", " +
                 Escaped(Short(largestPlace[2])) + "), the violet marker");
    out.Append("</td></tr>\n");
  }
  out.Append("</table>\n");
  if (hasGhost)
    out.Append(
        "<p><label><input type=\"checkbox\" id=\"zor-ghost\" checked> show the fixed mesh (ghost)</label></p>\n");
  if (measured) {
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
  out.Append(
      "<p>Drag to turn, wheel to zoom, right-drag or shift-drag to pan. Green lies within the tolerance, yellow "
      "to red outside the fixed surface, cyan to blue inside it.");
  if (hasMoving && r.moving->GetNumberOfTriangles() > moving.corners.size() / 3)
    out.Append(" The view shows " + std::to_string(moving.corners.size() / 3) + " of the moving mesh's " +
               std::to_string(r.moving->GetNumberOfTriangles()) + " triangles; the numbers come from all of them.");
  out.Append("</p>\n</aside>\n</main>\n<script type=\"application/json\" id=\"zor-data\">");
  out.Append(json);
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
  out.Append(kPageScript);
  out.Append("</script>\n</body>\n</html>\n");
  out.Commit();
}

}  // namespace ZorStlRegistration
