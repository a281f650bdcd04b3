#include "zor/model/unit.h"

#include <atomic>
#include <stdexcept>
#include <string>

namespace {
std::atomic<std::int32_t> internalUnitsPerUnit{1000};
}

std::int32_t MUnit::GetIE() { return internalUnitsPerUnit.load(std::memory_order_relaxed); }

void MUnit::SetIE(std::int32_t ie) {
  if (ie <= 0)
    throw std::invalid_argument("MUnit::SetIE: internal units per unit must be positive, got " + std::to_string(ie));
  internalUnitsPerUnit.store(ie, std::memory_order_relaxed);
}
