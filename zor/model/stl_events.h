#pragma once
// Change notification of a mesh: callbacks that follow a mesh's events, and validity
// bits that the mesh clears whenever its data changes. Derived data cached on a mesh
// (spatial trees and the like) use both to know when to drop what they hold.

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "zor/model/export.h"

class MStlBase;
class MStlValidity;

// Events a mesh sends. Every edit of a mesh sends at least one of them.
enum MStlCallBackEventID : int {
  // Point coordinates changed (Transform, Rescale, Translate, temporary placements,
  // direct point changes, Update with notification).
  MStlEventPointsMoved = 0,
  // Elements added or removed, or a triangle's winding reversed.
  MStlEventTopologyChanged = 7,
  // The mesh was cleared or is being destroyed.
  MStlEventCleared = 13,
};

// Base of an object that follows a mesh. Construct, _Initialise on the mesh, enable the
// events of interest; the mesh then calls OnMeshEvent for each of them, on the thread
// that changes the mesh. A callback that outlives its mesh receives
// MStlEventCleared when the mesh is destroyed (if enabled) and is detached.
class ZOR_MODEL_API MStlCallback {
public:
  virtual ~MStlCallback();
  MStlCallback(const MStlCallback&) = delete;
  MStlCallback& operator=(const MStlCallback&) = delete;

  virtual void OnMeshEvent(MStlCallBackEventID event) = 0;
  MStlBase* GetStl() const { return mesh; }
  bool IsEnabled(MStlCallBackEventID event) const { return (enabled >> static_cast<unsigned>(event)) & 1u; }

protected:
  MStlCallback() = default;
  explicit MStlCallback(MStlBase* mesh);
  // Follows `mesh` (null: follows nothing), leaving any mesh followed before.
  void _Initialise(MStlBase* mesh);
  void _EnableEvent(MStlCallBackEventID event);
  void _DisableEvent(MStlCallBackEventID event);

private:
  friend class MStlBase;
  MStlBase* mesh = nullptr;
  std::uint32_t enabled = 0;
};

enum ValidityField : int {
  // Cleared by any change of the mesh.
  ValidityAnyChange = 0,
};

// A flag that reads true while the data it guards may be used. Joins a mesh's register
// through MStlValidity::Register; the mesh clears it at every change. Reading, setting
// and clearing are atomic, so the flag may be tested from several threads.
class ZOR_MODEL_API MValidityBit {
public:
  // `validity` non-null joins that register at once (field ValidityAnyChange).
  MValidityBit(MStlValidity* validity, const wchar_t* name);
  ~MValidityBit();
  MValidityBit(const MValidityBit&) = delete;
  MValidityBit& operator=(const MValidityBit&) = delete;

  explicit operator bool() const { return valid.load(std::memory_order_acquire); }
  void Invalidate() { valid.store(false, std::memory_order_release); }
  void SetValidated() { valid.store(true, std::memory_order_release); }
  const std::wstring& GetName() const { return name; }

private:
  friend class MStlValidity;
  MStlValidity* owner = nullptr;
  std::atomic<bool> valid{false};
  std::wstring name;
};

// A mesh's register of validity bits.
class ZOR_MODEL_API MStlValidity {
public:
  MStlValidity() = default;
  ~MStlValidity();
  MStlValidity(const MStlValidity&) = delete;
  MStlValidity& operator=(const MStlValidity&) = delete;

  // Adds `bit` (leaving any register it was in). `name`, if not null, names it.
  void Register(MValidityBit& bit, ValidityField field, const wchar_t* name);
  void Unregister(MValidityBit& bit);
  void InvalidateAll();
  std::size_t GetNumberOfBits() const { return bits.size(); }

private:
  std::vector<MValidityBit*> bits;
};
