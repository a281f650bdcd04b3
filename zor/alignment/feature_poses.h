#pragma once
// Poses from matched surface features (surface_features.h): a RANSAC over triples of
// matches, where a triple whose edge lengths or normals disagree is rejected before any
// fit and the rest are fitted and counted, the best fits refitted on their inliers; and
// the feature strategy's search of two meshes.
//
// Deterministic: the n-th triple is drawn from a generator seeded by n alone, and the
// triples run in fixed chunks and waves, so the hypotheses, their order and the result
// are the same on every run and at every thread count. The functions only read their
// input; several may run at once.

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "zor/alignment/surface_features.h"

namespace ZorStlRegistration {

struct FeaturePose {
  MMTransformMatrix pose;     // moving onto fixed
  std::uint32_t inliers = 0;  // matches that the pose brings within the inlier distance
};

struct PoseSearchParameters {
  double inlierDistance = 0.0;   // internal units
  std::uint64_t trials = 20000;  // triples drawn at most
  // The search ends early, after at least `minimumTrials`, once the trials drawn would
  // have drawn a triple of inliers alone with this confidence at the inlier share of
  // the best pose so far (RANSAC's adaptive stop, Fischler and Bolles).
  std::uint64_t minimumTrials = 4096;
  double confidence = 0.9999;
  std::size_t keep = 8;          // best distinct poses returned
  double edgeAgreement = 0.9;    // shortest over longest of corresponding edges
  double normalAgreement = 0.5;  // least cosine between a moved normal and its match
};

// The best poses from matched points (and their normals): for each, the triple fit is
// refitted on all its inliers (least squares). Best first: more inliers, then the
// earlier triple. Poses closer than the inlier distance to a better one are dropped.
ZOR_API std::vector<FeaturePose> EstimatePoses(const std::vector<MMVector3d>& movingPoints,
                                               const std::vector<MMVector3d>& movingNormals,
                                               const std::vector<MMVector3d>& fixedPoints,
                                               const std::vector<MMVector3d>& fixedNormals,
                                               const std::vector<std::pair<std::uint32_t, std::uint32_t>>& matches,
                                               const PoseSearchParameters& parameters);

// The feature strategy's poses of `moving` onto `fixed`: both described with
// ChooseFeatureParameters, the moving mesh also reversed (two meshes of one body may be
// wound opposite ways) unless one winding's descriptors match clearly closer than the
// other's, mutual matches of each winding searched, the best distinct poses of both.
ZOR_API std::vector<FeaturePose> FeaturePoses(const MStlBase& moving, const MStlBase& fixed);

}  // namespace ZorStlRegistration
