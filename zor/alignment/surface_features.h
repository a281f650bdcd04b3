#pragma once
// Local shape descriptors of a surface, and their matches (the poses they give are in
// feature_poses.h).
//
// Two partial views of one body share no principal axes and no symmetry, but they share
// the local shape where they overlap. A view is described by keypoints on a regular
// spacing, each with the normal of the mesh about it and a Fast Point Feature Histogram
// (Rusu et al., 2009: 3 x 11 bins of the angles between the normals of neighbouring
// keypoints in their Darboux frame). The mesh's own triangles give the normals: they
// are oriented, so that a descriptor tells a bump from a dent, and they need no fit.
// Descriptors of the two meshes are matched mutually (each the other's nearest).
//
// Everything here is deterministic: keypoints come in grid order, and matches in moving
// order, the same on every run and at every thread count.

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "zor/export.h"
#include "zor/model/stl_base.h"
#include "zor/model/transform.h"

namespace ZorStlRegistration {

constexpr std::size_t kFeatureBins = 33;
using FeatureDescriptor = std::array<float, kFeatureBins>;

struct FeatureParameters {
  double spacing = 0.0;        // internal units: grid cell of the keypoints
  double normalRadius = 0.0;   // internal units: the surface about a keypoint that gives its normal
  double featureRadius = 0.0;  // internal units: keypoints whose normals make the histogram
};

// The parameters for a pair of meshes: a spacing of 1/50 of the smaller bounding box
// diagonal, normals over 2 spacings and histograms over 5, as the field uses them on
// down-sampled clouds. Zero spacing for a mesh without extent.
ZOR_API FeatureParameters ChooseFeatureParameters(const MStlBase& moving, const MStlBase& fixed);

struct FeatureCloud {
  std::vector<MMVector3d> points;              // internal units
  std::vector<MMVector3d> normals;             // unit, outward as the triangles wind
  std::vector<FeatureDescriptor> descriptors;  // each of the three histograms sums to 100
};

// Keypoints of `mesh`: the surface is sampled evenly (every triangle cut into equal
// parts no wider than half a spacing), and each grid cell of `spacing` that holds at
// least a fifth of a cell's area of surface gives one keypoint, the area-weighted mean
// of its samples. Keypoints without a neighbour within featureRadius get no
// descriptor and are dropped. The mesh must not change meanwhile.
ZOR_API FeatureCloud DescribeSurface(const MStlBase& mesh, const FeatureParameters& parameters);

// The same keypoints with their normals reversed and their descriptors as the reversed
// normals give them (the histograms of the two angles that change sign, mirrored; equal
// to describing them anew but for values on a bin's border). Meshes of one body may be
// wound either way (scanner views are often wound towards the scanner, reconstructions
// outwards), and a descriptor built on oriented normals only matches one wound the same
// way.
ZOR_API FeatureCloud Reversed(const FeatureCloud& cloud);

// Pairs (moving keypoint, fixed keypoint) whose descriptors are each other's nearest
// (Euclidean), in moving order; ties go to the lower number.
ZOR_API std::vector<std::pair<std::uint32_t, std::uint32_t>> MatchFeatures(const FeatureCloud& moving,
                                                                           const FeatureCloud& fixed);

// How closely the descriptors of `moving` find their nearest in `fixed`: the median
// squared descriptor distance of every `every`-th moving keypoint to its nearest fixed
// one (+infinity when either has none). Two meshes wound alike match far closer than
// wound opposite.
ZOR_API double MedianNearestDescriptor(const FeatureCloud& moving, const FeatureCloud& fixed, std::size_t every);

}  // namespace ZorStlRegistration
