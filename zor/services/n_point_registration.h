#pragma once
// The best rigid fit of two matched point lists.

#include <vector>

#include "zor/model/math_types.h"
#include "zor/services/export.h"

namespace ZorSDK {

// The transform M that minimises the sum over i of |M a[i] - b[i]|^2: rotation and
// translation (Kabsch / Umeyama, by the singular value decomposition of the 3x3
// cross-covariance), never a reflection. With `withScale` true a uniform scale is fitted
// as well (Umeyama's similarity); with false the result is rigid.
//
// Lists of different lengths, empty lists or a value that is not finite give the
// identity. One pair, or pairs whose moving points all coincide, give the translation
// of the mean alone. Collinear clouds leave the turn about their line undetermined; the
// result is then the smallest rotation that the decomposition yields, the same on every
// call.
//
// Threading: a pure function; any number of calls may run at once.
ZOR_SERVICES_API Math::matrix4x4<double> NPointRegistration(const std::vector<Math::point<double, 3>>& a,
                                                            const std::vector<Math::point<double, 3>>& b,
                                                            bool withScale);

}  // namespace ZorSDK
