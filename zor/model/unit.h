#pragma once
#include <cstdint>

#include "zor/model/export.h"

// Internal integer units per user length unit. Mesh coordinates are integers in
// internal units; lengths that callers give in user units are multiplied by GetIE()
// where they are read. The default, 1000, makes one internal unit a micrometre when
// the user unit is the millimetre.
//
// A host sets the value once, before any operator runs; changing it while an operator
// runs on another thread gives that operator a mix of both values.
class ZOR_MODEL_API MUnit {
public:
  static std::int32_t GetIE();
  // Throws std::invalid_argument unless ie > 0.
  static void SetIE(std::int32_t ie);
};
