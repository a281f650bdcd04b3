#include <algorithm>
#include <mutex>
#include <string>
#include <unordered_map>

#include "zor/model/stl_base.h"

// ---------------------------------------------------------------------------------------
// Callbacks

MStlCallback::MStlCallback(MStlBase* m) { _Initialise(m); }

MStlCallback::~MStlCallback() { _Initialise(nullptr); }

void MStlCallback::_Initialise(MStlBase* m) {
  if (mesh == m) return;
  if (mesh != nullptr) mesh->_Detach(this);
  mesh = m;
  if (mesh != nullptr) mesh->_Attach(this);
}

void MStlCallback::_EnableEvent(MStlCallBackEventID event) { enabled |= 1u << static_cast<unsigned>(event); }

void MStlCallback::_DisableEvent(MStlCallBackEventID event) { enabled &= ~(1u << static_cast<unsigned>(event)); }

// ---------------------------------------------------------------------------------------
// Validity

MValidityBit::MValidityBit(MStlValidity* validity, const wchar_t* n) : name(n != nullptr ? n : L"") {
  if (validity != nullptr) validity->Register(*this, ValidityAnyChange, nullptr);
}

MValidityBit::~MValidityBit() {
  if (owner != nullptr) owner->Unregister(*this);
}

MStlValidity::~MStlValidity() {
  for (MValidityBit* bit : bits) bit->owner = nullptr;
}

void MStlValidity::Register(MValidityBit& bit, ValidityField, const wchar_t* n) {
  if (bit.owner == this) return;
  if (bit.owner != nullptr) bit.owner->Unregister(bit);
  bit.owner = this;
  if (n != nullptr) bit.name = n;
  bits.push_back(&bit);
}

void MStlValidity::Unregister(MValidityBit& bit) {
  bits.erase(std::remove(bits.begin(), bits.end(), &bit), bits.end());
  bit.owner = nullptr;
}

void MStlValidity::InvalidateAll() {
  for (MValidityBit* bit : bits) bit->Invalidate();
}

// ---------------------------------------------------------------------------------------
// Dependencies and masks

IStlDependency::~IStlDependency() = default;

MStlBaseDependencies::~MStlBaseDependencies() = default;

IStlDependency* MStlBaseDependencies::Put(std::size_t slot, std::unique_ptr<IStlDependency> dependency) {
  if (table.size() <= slot) table.resize(slot + 1);
  table[slot] = std::move(dependency);
  return table[slot].get();
}

std::size_t DependencyTypeSlot(const char* typeName) {
  static std::mutex mutex;
  static std::unordered_map<std::string, std::size_t> slots;
  std::lock_guard<std::mutex> lock(mutex);
  return slots.emplace(typeName, slots.size()).first->second;
}

IDataMask::~IDataMask() = default;

IDataMaskOwner::~IDataMaskOwner() = default;
