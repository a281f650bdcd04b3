#pragma once
// For every vertex of a moving mesh, the vector by which it should move to lie on a
// target mesh.
//
// Two passes per Operate. The dual pass looks, from every target vertex, for the
// nearest corner of the moving mesh; a target vertex that lies more than 4.5 times its
// own longest edge away from that corner is a part of the target the moving mesh has
// not reached, and is assigned to the corner. The main pass finds, for every moving
// vertex, the closest place on the target (among triangles that face within `maxAngle`
// of the vertex's normal when normals are used); an assigned target vertex replaces
// that place when it is clearly farther (by the factor 1.1 on squared lengths), so that
// unreached parts of the target pull the nearest moving corner toward them.
//
// A moving vertex without triangles keeps its entry. With normals, a moving vertex that
// faces no target triangle within the radius keeps its entry too (the morph moves it by
// its old displacement); without normals it gets zero, or its dual vector.
//
// Lifetime: both meshes and the caller's handles (held by reference) outlive the object.
// The target must not change while the object lives: its tree and normals are made
// once. The moving mesh may move its points between calls, but not change its triangles. Threading: an object is used
// by one thread at a time; the passes run in parallel inside Operate, and the result does not depend on the thread
// count.

#include <cstdint>
#include <memory>
#include <vector>

#include "zor/export.h"
#include "zor/model/progress.h"
#include "zor/model/stl_base.h"
#include "zor/model/stl_handles.h"
#include "zor/model/stl_mask_adapter.h"
#include "zor/model/stl_vector_mask_points.h"
#include "zor/services/surface_normals.h"

namespace MeshQueries {
class TriangleTreeHolder;
}

class ZOR_API MWrapperOperatorMorphingCorrespondence {
public:
  using StlImpl = ZorMesh::StlBase::Handle::StlImpl<ZorMesh::StlBase::Handle::StlBasePolicy>;
  using Vertex = ZorMesh::StlBase::Handle::Vertex;
  using ResultAdapter = ZorMesh::StlBase::Adapters::MStlBaseMaskAdapter<Vertex, MMVector3d, MStlVectorMaskPoints>;

  // Wall-clock seconds of the passes of the last Operate.
  struct PassTimes {
    double dual = 0.0;  // moving tree, dual search and merge
    double main = 0.0;
  };

  // Builds the target's triangle tree and prepares the smooth normals of both meshes.
  // Throws std::invalid_argument for a null mesh.
  MWrapperOperatorMorphingCorrespondence(StlImpl& moving, StlImpl& target);
  ~MWrapperOperatorMorphingCorrespondence();
  MWrapperOperatorMorphingCorrespondence(const MWrapperOperatorMorphingCorrespondence&) = delete;
  MWrapperOperatorMorphingCorrespondence& operator=(const MWrapperOperatorMorphingCorrespondence&) = delete;

  // Progress of each Operate goes there, labelled "MWrapperOperatorMorphingCorrespondence",
  // one step per target and per moving vertex. Null: nobody listens.
  void SetProgressDelegate(std::shared_ptr<ZorSDK::Common::IProgressDelegate> delegate);

  // Writes the displacement of each moving vertex through `result`. `maxAngle` in
  // radians; `maxDistance` in internal units (+infinity: unbounded), and a triangle
  // found at or beyond it is not taken. With `enabled` false nothing is searched or
  // written.
  void Operate(ResultAdapter& result, double maxAngle, double maxDistance, bool enabled, bool useNormals);

  const PassTimes& GetPassTimes() const { return passTimes; }

private:
  void _InitialiseNormalCalculator();
  void _InitialiseDualNormalCalculator();
  MMVector3d _GetNormal(const Vertex& v) const;
  MMVector3d _GetDualNormal(const Vertex& v) const;
  double _GetMaxEdgeLength2(const Vertex& v) const;
  void _DualPass(MDataMask<MStlPoint, std::vector<Vertex>>& dualMap, double cosine, bool useNormals,
                 ZorSDK::Common::IncrementalProgressReporter& reporter);
  void _MainPass(ResultAdapter& result, const MDataMask<MStlPoint, std::vector<Vertex>>& dualMap, double cosine,
                 bool useNormals, ZorSDK::Common::IncrementalProgressReporter& reporter);

  StlImpl& moving;
  StlImpl& target;
  MUserOperatorNormalCalculator normalCalculator;
  MUserOperatorNormalCalculator dualNormalCalculator;
  double searchRadius;
  std::unique_ptr<MeshQueries::TriangleTreeHolder> targetTree;
  std::shared_ptr<ZorSDK::Common::IProgressDelegate> progress;
  // What the target, which does not change, gives the same way at every pass: its
  // vertices in list order, their smooth normals and their longest squared edges.
  std::vector<Vertex> targetVertices;
  std::vector<MMVector3d> targetNormals;
  std::vector<double> targetMaxEdge2;
  // The moving vertices in list order, listed at each Operate.
  std::vector<Vertex> movingVertices;
  // The triangle each query found at the pass before, where the next search starts:
  // target tree objects by moving vertex, moving triangles by target vertex.
  std::vector<std::uint32_t> mainHints;
  std::vector<MStlTriangle*> dualHints;
  PassTimes passTimes;
};
