#pragma once
// The verdict on a registration's result: does the moving mesh lie on the fixed one
// where the two show the same surface, and does nothing of it contradict the fixed
// surface?
//
// Scans bring more than the part and less than all of it: loose fragments, a table and
// other objects beside the part, the part of a view that the other view did not see.
// So the verdict
// - leaves the loose pieces of both meshes out (zor/services/scan_analysis.h);
// - measures within a distance that comes from the meshes themselves: three times the
//   moving points' noise and the fixed surface's roughness (its noise, or the chords of
//   a coarse tessellation) together, and never less than a tenth of the finish's
//   distance;
// - takes the overlap both ways, so that clutter on either side does not hide it: the
//   share of the moving mesh on the fixed surface, and of the fixed mesh on the moving
//   surface;
// - counts as a contradiction only what cannot be clutter or an unseen part: a moving
//   point off the fixed surface whose nearest fixed place is not on an open border, and
//   that lies inside the fixed solid (when the fixed surface is closed: a table beside a
//   part lies outside it, a wrong pose passes through it) or amid moving points that lie
//   on the fixed surface (where the two match all about, a point that leaves the surface
//   is a mismatch: the wrong end of a near-symmetric body; clutter and the part of a view
//   that the other view did not see are surfaces of their own, matching nowhere).
//
// Threading: the meshes are only read (their cached triangle trees are built on first
// use); several verdicts may run at once.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zor/model/stl_base.h"
#include "zor/model/transform.h"
#include "zor/pair/export.h"
#include "zor/services/scan_analysis.h"

namespace ZorStlRegistration {

struct Verdict {
  double distance = 0.0;      // internal units: what lies within this of the other surface lies on it
  double overlap = 0.0;       // share of the moving mesh's points (loose pieces aside) on the fixed surface
  double fixedOverlap = 0.0;  // share of the fixed mesh's points (loose pieces aside) on the moving surface
  double rms = 0.0;           // internal units: RMS distance of the moving points on the fixed surface
  // Share of the moving mesh's points (loose pieces aside) that contradict the fixed
  // surface (see above).
  double inconsistent = 0.0;
  double loose = 0.0;  // share of the moving mesh's points in loose pieces, left out of the above
  bool doubtful = false;
  std::string reason;  // why it is doubtful; empty when it is not
};

// What the verdict knows of a mesh beside its surface.
struct SurfaceFacts {
  double roughness = 0.0;  // internal units (SurfaceRoughness)
  double noise = 0.0;      // internal units (SurfaceNoise)
  double holeShare = 0.0;  // HoleShare
};
ZOR_PAIR_API SurfaceFacts StudySurface(const MStlBase& mesh);

// The two meshes of a pair as the pair calls search, finish and judge them: each
// without its loose pieces (a copy, made only when it has any), and studied. The meshes
// given stay the caller's and must outlive this.
class ZOR_PAIR_API PairSurfaces {
public:
  PairSurfaces(MStlBase& moving, MStlBase& fixed);
  PairSurfaces(const PairSurfaces&) = delete;
  PairSurfaces& operator=(const PairSurfaces&) = delete;

  // The meshes as given, and their pieces (the moving mesh's).
  const MStlBase& CallerMoving() const { return *moving; }
  const MeshPieces& MovingPieces() const { return movingPieces; }
  // The bodies: the meshes, or their copies without loose pieces.
  MStlBase& Moving() const { return movingCopy ? *movingCopy : *moving; }
  MStlBase& Fixed() const { return fixedCopy ? *fixedCopy : *fixed; }
  const SurfaceFacts& MovingFacts() const { return movingFacts; }
  const SurfaceFacts& FixedFacts() const { return fixedFacts; }
  // Shares of the meshes' points in loose pieces.
  double MovingLoose() const { return movingLoose; }
  double FixedLoose() const { return fixedLoose; }
  // How many bodies each mesh shows (CountBodies): a part alone, or a scene of several.
  std::size_t MovingBodies() const { return movingBodies; }
  std::size_t FixedBodies() const { return fixedBodies; }
  // The distance a verdict on the two measures within: three times the combined noise
  // of the moving points and roughness of the fixed surface (the moving mesh is measured
  // by its points, which lie on the surface however coarse its triangles; the fixed one
  // by its triangles, whose chords cut inside a curved surface), at least `least`
  // (internal units).
  double VerdictDistance(double least) const;
  // The bodies' points in list order, so that a verdict samples them without walking
  // the lists again.
  const std::vector<const MStlPoint*>& MovingPoints() const { return movingPoints; }
  const std::vector<const MStlPoint*>& FixedPoints() const { return fixedPoints; }

private:
  MStlBase* moving;
  MStlBase* fixed;
  std::unique_ptr<MStlBase> movingCopy, fixedCopy;
  SurfaceFacts movingFacts, fixedFacts;
  double movingLoose = 0.0, fixedLoose = 0.0;
  std::size_t movingBodies = 0, fixedBodies = 0;
  MeshPieces movingPieces;
  std::vector<const MStlPoint*> movingPoints, fixedPoints;
};

// Judges `pose` (moving onto fixed) within `distance`, on up to `samples` points of
// each body (every k-th in list order).
ZOR_PAIR_API Verdict JudgePose(const PairSurfaces& pair, const MMTransformMatrix& pose, double distance,
                               std::size_t samples = 20000);

// As above, for two meshes studied first (their loose pieces left out).
ZOR_PAIR_API Verdict JudgePose(const MStlBase& moving, const MStlBase& fixed, const MMTransformMatrix& pose,
                               double distance);

// Which points of the moving mesh as given (one flag per point, list order) have a
// counterpart on the fixed surface under `pose`, as the verdict within `distance` sees
// them: 0 for a point of a loose piece, for one off the fixed surface whose nearest fixed
// place is on its open border (beyond what the fixed mesh shows), and for one farther
// than `far` that does not contradict the fixed surface (clutter: a table, other
// objects); 1 for every other, however far it deviates. A deviation map shows the points without one
// apart, out of its figures.
ZOR_PAIR_API std::vector<std::uint8_t> Counterparts(const PairSurfaces& pair, const MMTransformMatrix& pose,
                                                    double distance, double far);

// How much a verdict speaks for its pose: the overlap (the larger way) less four times
// the share that contradicts the fixed surface, since a contradiction is evidence
// against a pose where a part that does not overlap may only be unseen.
ZOR_PAIR_API double Support(const Verdict& v);

// The better of two verdicts on one pair: the larger support, then the smaller RMS.
ZOR_PAIR_API bool Better(const Verdict& a, const Verdict& b);

}  // namespace ZorStlRegistration
