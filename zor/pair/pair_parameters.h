#pragma once
// The range of every parameter of the pair calls, in the units the pair calls take
// (millimetres, degrees, shares, counts), under the name the Python package gives it
// (the command line's options are mostly the same names with dashes). The defaults stand in the option records
// themselves (PairOptions, IcpOptions, MorphOptions); the ranges stand here, once, for every caller that checks what a
// user typed.

#include <cmath>
#include <cstdio>
#include <string>

namespace ZorStlRegistration {

struct ParameterRange {
  const char* name;
  double low;
  double high;         // +infinity: no upper bound
  bool openLow;        // the low end itself is outside the range
  bool whole = false;  // a count: whole numbers only

  bool Contains(double v) const {
    if (!std::isfinite(v) || v < low || (openLow && v <= low) || v > high) return false;
    return !whole || std::floor(v) == v;
  }
  // "(0, 1]", "[1, 1e+09]", "(0, inf]".
  std::string Describe() const {
    char lowText[32], highText[32];
    std::snprintf(lowText, sizeof lowText, "%g", low);
    std::snprintf(highText, sizeof highText, "%g", high);
    return std::string(openLow ? "(" : "[") + lowText + ", " + (std::isinf(high) ? "inf" : highText) + "]";
  }
};

namespace PairRanges {

constexpr double kInf = HUGE_VAL;
constexpr double kMostCount = 1e9;

// Registration (AlignPair), lengths in millimetres.
constexpr ParameterRange kSamples{"samples", 1, kMostCount, false, true};
constexpr ParameterRange kOverlap{"overlap", 0.0, 1.0, true};
constexpr ParameterRange kErrorTolerance{"error_tolerance", 0.0, kInf, false};
constexpr ParameterRange kIterations{"iterations", 0, kMostCount, false, true};
constexpr ParameterRange kReduceTolerance{"reduce_tolerance", 0.0, kInf, true};
constexpr ParameterRange kSlideStep{"slide_step", 0.0, kInf, true};
constexpr ParameterRange kNormalRadius{"normal_radius", 0.0, kInf, true};
constexpr ParameterRange kMaxNormalAngle{"max_normal_angle", 0.0, 180.0, true};
constexpr ParameterRange kNormalWeight{"normal_weight", 0.0, 1.0, false};
constexpr ParameterRange kSphereRings{"sphere_rings", 1, kMostCount, false, true};
constexpr ParameterRange kSphereSpins{"sphere_spins", 1, kMostCount, false, true};
constexpr ParameterRange kAxisSteps{"axis_steps", 1, kMostCount, false, true};

// Multi-start ICP (IcpPair).
constexpr ParameterRange kDirections{"directions", 1, kMostCount, false, true};
constexpr ParameterRange kRotations{"rotations", 1, kMostCount, false, true};
constexpr ParameterRange kIcpIterations{"iterations", 0, kMostCount, false, true};
constexpr ParameterRange kIcpSamples{"samples", 1, kMostCount, false, true};
constexpr ParameterRange kDistanceFactor{"distance_factor", 0.0, kInf, true};
constexpr ParameterRange kMaxDistance{"max_distance", 0.0, kInf, false};  // 0: the median rule
constexpr ParameterRange kRefineFactor{"refine_factor", 1, kMostCount, false, true};

// Morph (MorphPair), lengths in millimetres.
constexpr ParameterRange kTolerance{"tolerance", 0.0, kInf, true};
constexpr ParameterRange kTargetFraction{"target_fraction", 0.0, 1.0, true};
constexpr ParameterRange kNormalAngle{"normal_angle", 0.0, 180.0, true};
constexpr ParameterRange kSearchDistance{"search_distance", 0.0, kInf, false};  // 0: a tenth of the diagonal
constexpr ParameterRange kSmoothing{"smoothing", 0.0, kInf, true};
constexpr ParameterRange kMaxPasses{"max_passes", 1, 100000, false, true};
constexpr ParameterRange kInitialStep{"initial_step", 0.0, 1.0, true};
constexpr ParameterRange kStepRetention{"step_retention", 0.0, 1.0, false};
constexpr ParameterRange kSmoothingPasses{"smoothing_passes", 0, 1000, false, true};

// Files and maps.
constexpr ParameterRange kScale{"scale", 0.0, kInf, true};
constexpr ParameterRange kDeviationRange{"range", 0.0, kInf, true};
constexpr ParameterRange kSampleTriangles{"triangles", 12, 2e7, false, true};

}  // namespace PairRanges

}  // namespace ZorStlRegistration
