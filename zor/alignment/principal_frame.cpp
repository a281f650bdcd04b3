#include "zor/alignment/principal_frame.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <tbb/blocked_range.h>
#include <tbb/parallel_invoke.h>
#include <tbb/parallel_reduce.h>

#include "zor/model/coordinates.h"
#include "zor/model/math_utility.h"
#include "zor/services/geom_properties.h"

namespace ZorStlRegistration {

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kEpsilon = 2.220446049250313e-16;

}  // namespace

PrincipalFrame AnalyzePrincipalFrame(const MStlBase& mesh, double tolerance) {
  MStlBaseOperatorGeomProperties properties;
  properties.SetGravityType(GravityShell);
  properties.AddStl(mesh, MMTransformMatrix());
  properties.Operate();  // without area the centre and axes stay zero, which the spreads show

  PrincipalFrame frame;
  frame.centre = properties.GetGravityCenter();
  MMVector3d axes[3];
  for (std::size_t i = 0; i < 3; ++i) axes[i] = properties.GetInertiaAxis(i);
  // One pass in point order for all three sums keeps them reproducible.
  double sums[3] = {0.0, 0.0, 0.0};
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it) {
    const MMVector3d d = it->GetDouble() - frame.centre;
    for (std::size_t i = 0; i < 3; ++i) {
      const double t = Dot(d, axes[i]);
      sums[i] += t * t;
    }
  }
  const double count = static_cast<double>(mesh.NumberOfPoints());
  for (std::size_t i = 0; i < 3; ++i) frame.axes[i] = {axes[i], std::sqrt(sums[i] / count)};
  std::stable_sort(std::begin(frame.axes), std::end(frame.axes),
                   [](const PrincipalFrame::Axis& a, const PrincipalFrame::Axis& b) { return a.spread < b.spread; });

  const double s0 = frame.axes[0].spread, s1 = frame.axes[1].spread, s2 = frame.axes[2].spread;
  if (s1 > kEpsilon && (s1 - s0) / s1 < tolerance) frame.flags |= PrincipalFrame::kRod;
  if (s2 > kEpsilon && (s2 - s1) / s2 < tolerance) frame.flags |= PrincipalFrame::kDisc;
  return frame;
}

AxisSymmetryResult ClassifyAxisSymmetry(const MStlBase& moving, const MStlBase& fixed, double tolerance) {
  if (moving.NumberOfPoints() == 0 || fixed.NumberOfPoints() == 0) return {};
  PrincipalFrame movingFrame, fixedFrame;
  tbb::parallel_invoke([&] { movingFrame = AnalyzePrincipalFrame(moving, tolerance); },
                       [&] { fixedFrame = AnalyzePrincipalFrame(fixed, tolerance); });
  return {movingFrame.flags | fixedFrame.flags, true};
}

std::vector<MMTransformMatrix> SignFrames(const PrincipalFrame& frame) {
  MMVector3d a = frame.axes[0].axis, b = frame.axes[1].axis;
  Normalize(a);
  Normalize(b);
  std::vector<MMVector3d> firsts = {a, a, -a, -a}, seconds = {b, -b, b, -b};
  std::vector<MMTransformMatrix> frames(4);
  for (std::size_t i = 0; i < 4; ++i) {
    MMVector3d c = Cross(firsts[i], seconds[i]);
    Normalize(c);
    frames[i].MakeTransformation(frame.centre, firsts[i], seconds[i], c);
  }
  return frames;
}

std::vector<MMTransformMatrix> AxisRotationFrames(const MMVector3d& axis, const MMVector3d& centre,
                                                  std::uint64_t steps) {
  std::vector<MMTransformMatrix> frames(2 * steps);
  if (steps == 0) return frames;
  MMTransformMatrix forward, backward, turn;
  ZorMathUtility::GetTransformationFromOzToLine(centre, axis, forward);
  ZorMathUtility::GetTransformationFromOzToLine(centre, -axis, backward);
  // The same turn about the forward axis serves both halves.
  turn.MakeRotation(centre, axis, kTwoPi / static_cast<double>(steps));
  for (std::uint64_t i = 0; i < steps; ++i) {
    frames[i] = forward;
    frames[steps + i] = backward;
    forward.PreMultiply(turn);
    backward.PreMultiply(turn);
  }
  return frames;
}

std::pair<double, double> ProjectionInterval(const MStlBase& mesh, const MMVector3d& axis) {
  double lowest = std::numeric_limits<double>::max(), highest = -std::numeric_limits<double>::max();
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it) {
    const double v = Dot(it->GetDouble(), axis);
    lowest = std::min(lowest, v);
    highest = std::max(highest, v);
  }
  return {lowest, highest};
}

bool PlacedProjectionInterval(const MStlBase& mesh, const MMTransformMatrix& pose, const MMVector3d& axis,
                              std::pair<double, double>& interval) {
  double lowest = std::numeric_limits<double>::max(), highest = -std::numeric_limits<double>::max();
  for (auto it = mesh.BeginPoint(); it != mesh.EndPoint(); ++it) {
    MMVector3d moved;
    pose.Transform(moved, it->GetDouble(), false);
    MMVector3i grid;
    for (int k = 0; k < 3; ++k)
      if (!RoundCoordinate(moved[k], grid[k])) return false;
    const double v = Dot(MMVector3d(grid[0], grid[1], grid[2]), axis);
    lowest = std::min(lowest, v);
    highest = std::max(highest, v);
  }
  interval = {lowest, highest};
  return true;
}

bool PlacedProjectionInterval(const std::vector<MMVector3d>& points, const MMTransformMatrix& pose,
                              const MMVector3d& axis, std::pair<double, double>& interval) {
  struct Span {
    double lowest = std::numeric_limits<double>::max(), highest = -std::numeric_limits<double>::max();
    bool onGrid = true;
  };
  const Span span = tbb::parallel_reduce(
      tbb::blocked_range<std::size_t>(0, points.size(), 4096), Span(),
      [&](const tbb::blocked_range<std::size_t>& r, Span s) {
        for (std::size_t i = r.begin(); i != r.end() && s.onGrid; ++i) {
          MMVector3d moved;
          pose.Transform(moved, points[i], false);
          MMVector3i grid;
          for (int k = 0; k < 3; ++k) s.onGrid = s.onGrid && RoundCoordinate(moved[k], grid[k]);
          if (!s.onGrid) break;
          const double v = Dot(MMVector3d(grid[0], grid[1], grid[2]), axis);
          s.lowest = std::min(s.lowest, v);
          s.highest = std::max(s.highest, v);
        }
        return s;
      },
      [](Span a, const Span& b) {
        a.lowest = std::min(a.lowest, b.lowest);
        a.highest = std::max(a.highest, b.highest);
        a.onGrid = a.onGrid && b.onGrid;
        return a;
      });
  if (!span.onGrid) return false;
  interval = {span.lowest, span.highest};
  return true;
}

std::vector<MMVector3d> MakeDirectionSphere(std::uint64_t n) {
  std::vector<MMVector3d> directions;
  directions.reserve(2 * n * (n + 1));
  directions.emplace_back(0.0, 0.0, 1.0);
  directions.emplace_back(0.0, 0.0, -1.0);
  for (std::uint64_t i = 0; i < n; ++i) {
    const double b = static_cast<double>(i) * 1.5707963267948966 / static_cast<double>(n);
    const std::uint64_t k = 4 * (n - i);
    for (std::uint64_t j = 0; j < k; ++j) {
      const double a = static_cast<double>(j) * kTwoPi / static_cast<double>(k);
      const MMVector3d v(std::cos(a) * std::cos(b), std::sin(a) * std::cos(b), std::sin(b));
      directions.push_back(v);
      if (i != 0) directions.emplace_back(v[0], v[1], -v[2]);
    }
  }
  return directions;
}

std::vector<MMTransformMatrix> MakeSphereRotations(const std::vector<MMVector3d>& directions, std::uint64_t m) {
  std::vector<MMTransformMatrix> rotations;
  rotations.reserve(directions.size() * m);
  const MMVector3d origin;
  for (const MMVector3d& d : directions) {
    const double ax = std::fabs(d[0]), ay = std::fabs(d[1]), az = std::fabs(d[2]);
    // A perpendicular formed by dividing by the larger components stays well conditioned.
    MMVector3d p;
    if (ax > ay && ax > az)
      p = MMVector3d(-d[2] / d[0], 0.0, 1.0);
    else if (ay > az)
      p = MMVector3d(1.0, -d[0] / d[1], 0.0);
    else
      p = MMVector3d(0.0, 1.0, -d[1] / d[2]);
    Normalize(p);
    MMVector3d q = Cross(p, d);
    Normalize(q);
    MMTransformMatrix frame, turn;
    frame.MakeTransformation(origin, q, p, d);
    turn.MakeRotation(origin, d, kTwoPi / static_cast<double>(m));
    for (std::uint64_t i = 0; i < m; ++i) {
      rotations.push_back(frame);
      frame.PreMultiply(turn);
    }
  }
  return rotations;
}

}  // namespace ZorStlRegistration
