#include "zor/model/transform.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

constexpr double kLinearTolerance = 1e-12;
constexpr double kTranslationTolerance = 1e-9;
constexpr double kDivisorZero = 2.220446049250313e-16;

using Mat = double[4][4];

void SetIdentity(Mat a) {
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) a[r][c] = r == c ? 1.0 : 0.0;
}

void Multiply(const Mat a, const Mat b, Mat out) {
  double t[4][4];
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) t[r][c] = a[r][0] * b[0][c] + a[r][1] * b[1][c] + a[r][2] * b[2][c] + a[r][3] * b[3][c];
  std::memcpy(out, t, sizeof t);
}

// Gauss-Jordan elimination with partial pivoting. A pivot no larger than 2.2e-16 times
// the largest element of the matrix counts as zero, so the test scales with the matrix.
bool Inverse4(const Mat in, Mat out) {
  double a[4][8];
  double largest = 0.0;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) {
      a[r][c] = in[r][c];
      a[r][c + 4] = r == c ? 1.0 : 0.0;
      largest = std::max(largest, std::fabs(in[r][c]));
    }
  const double zero = kDivisorZero * largest;
  for (int col = 0; col < 4; ++col) {
    int pivot = col;
    for (int r = col + 1; r < 4; ++r)
      if (std::fabs(a[r][col]) > std::fabs(a[pivot][col])) pivot = r;
    if (!(std::fabs(a[pivot][col]) > zero)) return false;
    if (pivot != col)
      for (int c = 0; c < 8; ++c) std::swap(a[pivot][c], a[col][c]);
    const double scale = 1.0 / a[col][col];
    for (int c = 0; c < 8; ++c) a[col][c] *= scale;
    for (int r = 0; r < 4; ++r) {
      if (r == col || a[r][col] == 0.0) continue;
      const double f = a[r][col];
      for (int c = 0; c < 8; ++c) a[r][c] -= f * a[col][c];
    }
  }
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) out[r][c] = a[r][c + 4];
  return true;
}

double Determinant3(const Mat a) {
  return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) - a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
         a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
}

double Determinant4(const Mat a) {
  // Expansion by 2x2 minors of the first two rows against the last two.
  const double s0 = a[0][0] * a[1][1] - a[1][0] * a[0][1];
  const double s1 = a[0][0] * a[1][2] - a[1][0] * a[0][2];
  const double s2 = a[0][0] * a[1][3] - a[1][0] * a[0][3];
  const double s3 = a[0][1] * a[1][2] - a[1][1] * a[0][2];
  const double s4 = a[0][1] * a[1][3] - a[1][1] * a[0][3];
  const double s5 = a[0][2] * a[1][3] - a[1][2] * a[0][3];
  const double c5 = a[2][2] * a[3][3] - a[3][2] * a[2][3];
  const double c4 = a[2][1] * a[3][3] - a[3][1] * a[2][3];
  const double c3 = a[2][1] * a[3][2] - a[3][1] * a[2][2];
  const double c2 = a[2][0] * a[3][3] - a[3][0] * a[2][3];
  const double c1 = a[2][0] * a[3][2] - a[3][0] * a[2][2];
  const double c0 = a[2][0] * a[3][1] - a[3][0] * a[2][1];
  return s0 * c5 - s1 * c4 + s2 * c3 + s3 * c2 - s4 * c1 + s5 * c0;
}

MMTransformClass Classify(const Mat a) {
  if (a[3][0] != 0.0 || a[3][1] != 0.0 || a[3][2] != 0.0 || a[3][3] != 1.0) return MMTransformClass::Projective;
  bool linearIdentity = true;
  for (int r = 0; r < 3 && linearIdentity; ++r)
    for (int c = 0; c < 3; ++c)
      if (std::fabs(a[r][c] - (r == c ? 1.0 : 0.0)) > kLinearTolerance) {
        linearIdentity = false;
        break;
      }
  if (linearIdentity) {
    const bool noShift = std::fabs(a[0][3]) <= kTranslationTolerance && std::fabs(a[1][3]) <= kTranslationTolerance &&
                         std::fabs(a[2][3]) <= kTranslationTolerance;
    return noShift ? MMTransformClass::Identity : MMTransformClass::Translation;
  }
  // Orthonormal columns and a positive determinant make a rotation.
  constexpr double kRigidTolerance = 1e-9;
  for (int i = 0; i < 3; ++i)
    for (int j = i; j < 3; ++j) {
      const double d = a[0][i] * a[0][j] + a[1][i] * a[1][j] + a[2][i] * a[2][j];
      if (std::fabs(d - (i == j ? 1.0 : 0.0)) > kRigidTolerance) return MMTransformClass::Affine;
    }
  return Determinant3(a) > 0.0 ? MMTransformClass::Rigid : MMTransformClass::Affine;
}

bool ApplyMatrix(const Mat a, bool projective, MMVector3d& out, const MMVector3d& in, bool direction) {
  const double x = in[0], y = in[1], z = in[2];
  if (direction) {
    out = MMVector3d(a[0][0] * x + a[0][1] * y + a[0][2] * z, a[1][0] * x + a[1][1] * y + a[1][2] * z,
                     a[2][0] * x + a[2][1] * y + a[2][2] * z);
    return true;
  }
  MMVector3d q(a[0][0] * x + a[0][1] * y + a[0][2] * z + a[0][3], a[1][0] * x + a[1][1] * y + a[1][2] * z + a[1][3],
               a[2][0] * x + a[2][1] * y + a[2][2] * z + a[2][3]);
  if (projective) {
    const double w = a[3][0] * x + a[3][1] * y + a[3][2] * z + a[3][3];
    if (std::fabs(w) <= kDivisorZero) return false;
    q /= w;
  }
  out = q;
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// MMTransform

MMTransform::~MMTransform() = default;

bool MMTransform::Transform(std::vector<MMVector3d>& out, const std::vector<MMVector3d>& in) const {
  out.resize(in.size());
  bool all = true;
  for (std::size_t i = 0; i < in.size(); ++i)
    if (!_Transform(out[i], in[i], false)) {
      out[i] = in[i];
      all = false;
    }
  return all;
}

bool MMTransform::Transform(std::vector<MMVector3d>& inOut) const {
  bool all = true;
  for (MMVector3d& v : inOut) all = Transform(v, false) && all;
  return all;
}

MMVector3f MMTransform::operator()(const MMVector3f& in, bool direction) const {
  MMVector3d out(in);
  Transform(out, direction);
  return MMVector3f(out);
}

MMVector3d MMTransform::operator()(const MMVector3d& in, bool direction) const {
  MMVector3d out(in);
  Transform(out, direction);
  return out;
}

bool MMTransform::Transform(MMVector3d& inOut, bool direction) const {
  const MMVector3d in = inOut;
  return _Transform(inOut, in, direction);
}

bool MMTransform::Transform(MMVector3d& out, const MMVector3d& in, bool direction) const {
  return _Transform(out, in, direction);
}

bool MMTransform::InverseTransform(MMVector3d& out, const MMVector3d& in, bool direction) const {
  return _InverseTransform(out, in, direction);
}

// ---------------------------------------------------------------------------------------
// MMTransformMatrix

MMTransformMatrix::MMTransformMatrix() { MakeIdentity(); }

MMTransformMatrix::MMTransformMatrix(const ZorSDK::Math::matrix4x4<double>& values) {
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) m[r][c] = values(r, c);
  _Update();
}

MMTransformMatrix::~MMTransformMatrix() = default;

MMTransformMatrix* MMTransformMatrix::Clone() const { return new MMTransformMatrix(*this); }

bool MMTransformMatrix::ConvertToFloat16(float* out) const {
  if (out == nullptr) return false;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) out[4 * r + c] = static_cast<float>(m[r][c]);
  return true;
}

bool MMTransformMatrix::ConvertToDouble16(double* out) const {
  if (out == nullptr) return false;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) out[4 * r + c] = m[r][c];
  return true;
}

void MMTransformMatrix::_Update() {
  kind = Classify(m);
  ComputeInverse();
}

bool MMTransformMatrix::ComputeInverse() {
  // A pure translation (linear part exactly 1) inverts exactly by negating the shift.
  const bool pureShift = m[0][0] == 1.0 && m[1][1] == 1.0 && m[2][2] == 1.0 && m[0][1] == 0.0 && m[0][2] == 0.0 &&
                         m[1][0] == 0.0 && m[1][2] == 0.0 && m[2][0] == 0.0 && m[2][1] == 0.0 &&
                         kind != MMTransformClass::Projective;
  if (pureShift) {
    SetIdentity(inv);
    for (int r = 0; r < 3; ++r) inv[r][3] = -m[r][3];
    inverseState = InverseState::Current;
  } else {
    inverseState = Inverse4(m, inv) ? InverseState::Current : InverseState::Singular;
  }
  return inverseState == InverseState::Current;
}

void MMTransformMatrix::VerifyAndSetClass() { _Update(); }

bool MMTransformMatrix::MakeIdentity() {
  SetIdentity(m);
  SetIdentity(inv);
  kind = MMTransformClass::Identity;
  inverseState = InverseState::Current;
  return true;
}

void MMTransformMatrix::MakeTranslation(const MMVector3d& t) {
  MakeIdentity();
  for (int r = 0; r < 3; ++r) m[r][3] = t[r];
  _Update();
}

bool MMTransformMatrix::MakeRotation(const MMVector3d& point, const MMVector3d& direction, double angle) {
  MMVector3d u = direction;
  if (Normalize(u) == 0.0) {
    MakeIdentity();
    return false;
  }
  // Rodrigues: R = cos I + sin [u]x + (1 - cos) u u^T, then t = p - R p.
  const double c = std::cos(angle), s = std::sin(angle), k = 1.0 - c;
  const double x = u[0], y = u[1], z = u[2];
  SetIdentity(m);
  m[0][0] = c + k * x * x;
  m[0][1] = k * x * y - s * z;
  m[0][2] = k * x * z + s * y;
  m[1][0] = k * y * x + s * z;
  m[1][1] = c + k * y * y;
  m[1][2] = k * y * z - s * x;
  m[2][0] = k * z * x - s * y;
  m[2][1] = k * z * y + s * x;
  m[2][2] = c + k * z * z;
  for (int r = 0; r < 3; ++r) m[r][3] = point[r] - (m[r][0] * point[0] + m[r][1] * point[1] + m[r][2] * point[2]);
  _Update();
  return true;
}

void MMTransformMatrix::MakeTransformation(const MMVector3d& origin, const MMVector3d& xAxis, const MMVector3d& yAxis,
                                           const MMVector3d& zAxis) {
  SetIdentity(m);
  for (int r = 0; r < 3; ++r) {
    m[r][0] = xAxis[r];
    m[r][1] = yAxis[r];
    m[r][2] = zAxis[r];
    m[r][3] = origin[r];
  }
  _Update();
}

bool MMTransformMatrix::MakeFromDouble16(const double* values) {
  if (values == nullptr) return false;
  for (int i = 0; i < 16; ++i)
    if (!std::isfinite(values[i])) return false;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) m[r][c] = values[4 * r + c];
  _Update();
  return true;
}

void MMTransformMatrix::SetElement(unsigned short row, unsigned short column, double value, bool update) {
  if (row > 3 || column > 3)
    throw std::out_of_range("MMTransformMatrix::SetElement: element (" + std::to_string(row) + ", " +
                            std::to_string(column) + ") is outside the 4x4 matrix");
  m[row][column] = value;
  if (update)
    _Update();
  else
    inverseState = InverseState::Stale;
}

double MMTransformMatrix::GetElement(unsigned short row, unsigned short column) const {
  if (row > 3 || column > 3)
    throw std::out_of_range("MMTransformMatrix::GetElement: element (" + std::to_string(row) + ", " +
                            std::to_string(column) + ") is outside the 4x4 matrix");
  return m[row][column];
}

void MMTransformMatrix::AddTranslation(const MMVector3d& t) {
  for (int r = 0; r < 3; ++r) m[r][3] += t[r];
  _Update();
}

void MMTransformMatrix::FillInTranslation(const MMVector3d& t) {
  for (int r = 0; r < 3; ++r) m[r][3] = t[r];
  _Update();
}

MMTransformMatrix& MMTransformMatrix::PreMultiply(const MMTransformMatrix& other) {
  Multiply(other.m, m, m);
  _Update();
  return *this;
}

MMTransformMatrix& MMTransformMatrix::PostMultiply(const MMTransformMatrix& other) {
  Multiply(m, other.m, m);
  _Update();
  return *this;
}

MMTransformMatrix operator*(const MMTransformMatrix& a, const MMTransformMatrix& b) {
  MMTransformMatrix result(a);
  result.PostMultiply(b);
  return result;
}

bool MMTransformMatrix::Invert() {
  double inverse[4][4];
  if (inverseState == InverseState::Current)
    std::memcpy(inverse, inv, sizeof inverse);
  else if (!Inverse4(m, inverse))
    return false;
  std::memcpy(inv, m, sizeof inv);
  std::memcpy(m, inverse, sizeof inverse);
  kind = Classify(m);
  inverseState = InverseState::Current;
  return true;
}

MMTransformMatrix MMTransformMatrix::Inverted() const {
  MMTransformMatrix result(*this);
  if (!result.Invert()) throw std::domain_error("MMTransformMatrix::Inverted: the matrix is singular");
  return result;
}

bool MMTransformMatrix::IsInversible() const {
  if (inverseState != InverseState::Stale) return inverseState == InverseState::Current;
  double scratch[4][4];
  return Inverse4(m, scratch);
}

double MMTransformMatrix::Determinant() const { return Determinant4(m); }

bool MMTransformMatrix::IsIdentity() const { return kind == MMTransformClass::Identity; }

bool MMTransformMatrix::IsTranslation() const { return kind == MMTransformClass::Translation; }

bool MMTransformMatrix::GetRotationZYX(double& rz, double& ry, double& rx) const {
  const MMTransformClass k = Classify(m);
  if (k != MMTransformClass::Identity && k != MMTransformClass::Translation && k != MMTransformClass::Rigid)
    return false;
  // R = Rz Ry Rx gives R20 = -sin(ry), R21 = cos(ry) sin(rx), R22 = cos(ry) cos(rx),
  // R10 = sin(rz) cos(ry), R00 = cos(rz) cos(ry).
  const double s = std::clamp(-m[2][0], -1.0, 1.0);
  ry = std::asin(s);
  if (std::fabs(s) < 1.0 - 1e-12) {
    rx = std::atan2(m[2][1], m[2][2]);
    rz = std::atan2(m[1][0], m[0][0]);
  } else {
    // Gimbal lock: only rz -+ rx is determined; put it all in rz.
    rx = 0.0;
    rz = std::atan2(-m[0][1], m[1][1]);
  }
  return true;
}

ZorSDK::Math::matrix4x4<double> MMTransformMatrix::ToMatrix4x4() const {
  ZorSDK::Math::matrix4x4<double> out;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) out(r, c) = m[r][c];
  return out;
}

bool MMTransformMatrix::_Transform(MMVector3d& out, const MMVector3d& in, bool direction) const {
  return ApplyMatrix(m, kind == MMTransformClass::Projective, out, in, direction);
}

bool MMTransformMatrix::_InverseTransform(MMVector3d& out, const MMVector3d& in, bool direction) const {
  if (inverseState == InverseState::Current)
    return ApplyMatrix(inv, kind == MMTransformClass::Projective, out, in, direction);
  double inverse[4][4];
  if (!Inverse4(m, inverse)) return false;
  return ApplyMatrix(inverse, kind == MMTransformClass::Projective, out, in, direction);
}
