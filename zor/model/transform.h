#pragma once
// Rigid and affine transforms of 3D points. Points are column vectors: q = M p, with
// the translation in column 3, rows 0 to 2. MMTransformMatrix keeps its inverse beside
// the matrix and a classification of its kind.
//
// Threading: const members may be called from any number of threads at once; no const
// member writes to the object.

#include <cmath>
#include <cstdint>
#include <vector>

#include "zor/model/export.h"
#include "zor/model/math_types.h"
#include "zor/model/mm_vector.h"

// A transform of points and directions.
class ZOR_MODEL_API MMTransform {
public:
  virtual ~MMTransform();

  // Transforms every vector of `in` into `out` (resized to match) as positions.
  virtual bool Transform(std::vector<MMVector3d>& out, const std::vector<MMVector3d>& in) const;
  // Transforms every vector in place as a position.
  virtual bool Transform(std::vector<MMVector3d>& inOut) const;
  // `direction` true applies the linear part alone, false the whole map.
  virtual MMVector3f operator()(const MMVector3f& in, bool direction) const;
  virtual MMVector3d operator()(const MMVector3d& in, bool direction) const;

  // In place; `direction` as above. Returns false when the map cannot be applied
  // (a projective matrix that sends the point to infinity); the vector is then unchanged.
  bool Transform(MMVector3d& inOut, bool direction) const;
  bool Transform(MMVector3d& out, const MMVector3d& in, bool direction) const;
  // The inverse map; false when the transform has no inverse.
  bool InverseTransform(MMVector3d& out, const MMVector3d& in, bool direction) const;

private:
  virtual bool _Transform(MMVector3d& out, const MMVector3d& in, bool direction) const = 0;
  virtual bool _InverseTransform(MMVector3d& out, const MMVector3d& in, bool direction) const = 0;
};

// What kind of map a matrix is, from the simplest. Identity and Translation allow a
// deviation of 1e-12 in the linear part and 1e-9 internal units in the translation, so
// that a product of a rotation with its inverse still reads as the identity.
enum class MMTransformClass : std::uint8_t {
  Identity = 0,
  Translation = 1,
  Rigid = 2,       // rotation (orthonormal, determinant +1) and translation
  Affine = 3,      // any other matrix with last row 0 0 0 1
  Projective = 4,  // last row other than 0 0 0 1
};

struct ZOR_MODEL_API MMTransformMatrixData {
  double m[4][4];    // the matrix, m[row][column]
  double inv[4][4];  // its inverse, valid when inverseState is Current
  enum class InverseState : std::uint8_t { Current, Stale, Singular };
  MMTransformClass kind = MMTransformClass::Identity;
  InverseState inverseState = InverseState::Current;
};

class ZOR_MODEL_API MMTransformMatrix : public MMTransform, public MMTransformMatrixData {
public:
  MMTransformMatrix();  // identity
  MMTransformMatrix(const MMTransformMatrix&) = default;
  MMTransformMatrix& operator=(const MMTransformMatrix&) = default;
  explicit MMTransformMatrix(const ZorSDK::Math::matrix4x4<double>& values);  // row-major
  ~MMTransformMatrix() override;

  virtual MMTransformMatrix* Clone() const;
  // Row-major: element (r, c) goes to out[4 * r + c]. False for a null pointer.
  virtual bool ConvertToFloat16(float* out) const;
  virtual bool ConvertToDouble16(double* out) const;
  // Inverts in place. Returns false, leaving the matrix as it was, when it is singular.
  virtual bool Invert();
  virtual bool IsIdentity() const;

  bool MakeIdentity();
  void MakeTranslation(const MMVector3d& t);
  // Rotation by `angle` radians about the line through `point` along `direction`,
  // counter-clockwise when the direction points at the viewer. A zero direction gives
  // the identity and returns false.
  bool MakeRotation(const MMVector3d& point, const MMVector3d& direction, double angle);
  // The map from frame coordinates to world coordinates of the frame with that origin
  // and those axes: columns 0, 1, 2 are the axes, column 3 the origin.
  void MakeTransformation(const MMVector3d& origin, const MMVector3d& xAxis, const MMVector3d& yAxis,
                          const MMVector3d& zAxis);
  // Takes sixteen values, row-major. Returns false, leaving the matrix as it was, for a
  // null pointer or a value that is not finite.
  bool MakeFromDouble16(const double* values);

  // Sets one element. With `update` true the classification and inverse follow at once;
  // with false they go stale until VerifyAndSetClass(), so that a batch of writes pays
  // for one update. Throws std::out_of_range for a row or column above 3.
  void SetElement(unsigned short row, unsigned short column, double value, bool update);
  double GetElement(unsigned short row, unsigned short column) const;
  // Recomputes classification and inverse after direct writes.
  void VerifyAndSetClass();
  // Recomputes the inverse alone; returns whether it exists.
  bool ComputeInverse();

  void AddTranslation(const MMVector3d& t);
  void FillInTranslation(const MMVector3d& t);
  MMVector3d GetTranslation() const { return MMVector3d(m[0][3], m[1][3], m[2][3]); }

  // this = other * this: `other` acts after the present transform.
  MMTransformMatrix& PreMultiply(const MMTransformMatrix& other);
  // this = this * other: `other` acts before the present transform.
  MMTransformMatrix& PostMultiply(const MMTransformMatrix& other);
  friend ZOR_MODEL_API MMTransformMatrix operator*(const MMTransformMatrix& a, const MMTransformMatrix& b);

  // Throws std::domain_error when the matrix is singular (test IsInversible first).
  MMTransformMatrix Inverted() const;
  bool IsInversible() const;
  double Determinant() const;
  bool IsTranslation() const;
  MMTransformClass GetClass() const { return kind; }

  // Angles (radians) with linear part = Rz(rz) * Ry(ry) * Rx(rx); ry in [-pi/2, pi/2].
  // At ry = +-pi/2 the split between rz and rx is not unique and rx is set to 0.
  // Returns false, leaving the outputs untouched, unless the linear part is a rotation.
  bool GetRotationZYX(double& rz, double& ry, double& rx) const;

  ZorSDK::Math::matrix4x4<double> ToMatrix4x4() const;

private:
  bool _Transform(MMVector3d& out, const MMVector3d& in, bool direction) const override;
  bool _InverseTransform(MMVector3d& out, const MMVector3d& in, bool direction) const override;
  void _Update();
};

// The angle of the rotation part of `m` in degrees, from its trace (clamped, so that a
// matrix a rounding away from a rotation still gives an angle).
inline double RotationDegrees(const MMTransformMatrix& m) {
  const double trace = m.GetElement(0, 0) + m.GetElement(1, 1) + m.GetElement(2, 2);
  const double cosine = (trace - 1.0) / 2.0;
  return std::acos(cosine < -1.0 ? -1.0 : cosine > 1.0 ? 1.0 : cosine) * 180.0 / 3.141592653589793;
}
