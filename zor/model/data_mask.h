#pragma once
// Per-element data on a mesh. A mask holds one Info per element (point or triangle),
// addressed by the element's stable mask index. Storage is a table of 1024-entry
// blocks: entry i lies in block i >> 10 at place i & 1023, so a look-up is a shift and a
// mask, an index stays valid while the mesh grows, and two threads may write distinct
// entries without a lock.
//
// A mask constructed on an owner (MStlBase::GetMasks()) is sized at once to the mesh's
// element count and kept in step as the mesh grows; new entries, and entries of
// recycled indices, take the default Info. Threading: GetInfo and writes to distinct
// entries are safe from many threads while the mesh does not change; the mesh never
// changes during such a loop. Constructing or destroying a mask is a change of the
// owner and must not race with other changes of the same mesh.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "zor/model/export.h"

class MStlPoint;
class MStlTriangle;

// The stable index of a mesh element, below the size of every mask of its kind.
class MDataMaskIndex {
public:
  std::size_t GetMaskIndex() const { return maskIndex; }

protected:
  std::uint32_t maskIndex = 0;
  friend class MStlBase;
};

class ZOR_MODEL_API IDataMask {
public:
  virtual ~IDataMask();
};

template <typename Element>
class MDataMaskBase;

// The registry that masks join on construction and leave on destruction.
class ZOR_MODEL_API IDataMaskOwner {
public:
  virtual ~IDataMaskOwner();
  virtual void Attach(MDataMaskBase<MStlPoint>* mask) = 0;
  virtual void Detach(MDataMaskBase<MStlPoint>* mask) = 0;
  virtual void Attach(MDataMaskBase<MStlTriangle>* mask) = 0;
  virtual void Detach(MDataMaskBase<MStlTriangle>* mask) = 0;
};

template <typename Element>
class MDataMaskBase : public IDataMask {
public:
  ~MDataMaskBase() override {
    if (owner != nullptr) owner->Detach(this);
  }
  MDataMaskBase(const MDataMaskBase&) = delete;
  MDataMaskBase& operator=(const MDataMaskBase&) = delete;

  virtual void CopyInfo(const Element& from, const Element& to) = 0;
  virtual void CopyInfo(std::size_t from, std::size_t to) = 0;
  virtual void SwapInfo(const Element& a, const Element& b) = 0;
  virtual void SwapInfo(std::size_t a, std::size_t b) = 0;
  // Called by the owner: make room for `size` entries, each new one the default.
  virtual void _SetSize(std::size_t size) = 0;
  // Called by the owner: reset entry i to the default (an index handed out again).
  virtual void _SetDefault(std::size_t i) = 0;

  IDataMaskOwner* GetOwner() const { return owner; }
  // Called by the owner when it dies first: the mask stays usable as plain storage.
  void _DetachOwner() { owner = nullptr; }

protected:
  MDataMaskBase() = default;
  void _AttachTo(IDataMaskOwner* o) {
    owner = o;
    if (owner != nullptr) owner->Attach(this);
  }

private:
  IDataMaskOwner* owner = nullptr;
};

template <typename Element, typename Info>
class MDataMask : public MDataMaskBase<Element> {
public:
  static constexpr std::size_t kBlockShift = 10;
  static constexpr std::size_t kBlockSize = std::size_t(1) << kBlockShift;

  explicit MDataMask(IDataMaskOwner& meshMasks, const Info& defaultValue = Info()) : defaultInfo(defaultValue) {
    this->_AttachTo(&meshMasks);
  }
  // A mask of its own, on no mesh; size it with _SetSize.
  explicit MDataMask(const Info& defaultValue = Info()) : defaultInfo(defaultValue) {}

  const Info& GetInfo(std::size_t i) const { return blocks[i >> kBlockShift][i & (kBlockSize - 1)]; }
  Info& GetInfo(std::size_t i) { return blocks[i >> kBlockShift][i & (kBlockSize - 1)]; }
  const Info& GetInfo(const Element& e) const { return GetInfo(e.GetMaskIndex()); }
  Info& GetInfo(const Element& e) { return GetInfo(e.GetMaskIndex()); }
  void SetInfo(std::size_t i, const Info& value) { GetInfo(i) = value; }
  void SetInfo(const Element& e, const Info& value) { GetInfo(e.GetMaskIndex()) = value; }
  Info& operator[](const Element& e) { return GetInfo(e.GetMaskIndex()); }
  const Info& operator[](const Element& e) const { return GetInfo(e.GetMaskIndex()); }

  std::size_t GetSize() const { return size; }
  const Info& GetDefault() const { return defaultInfo; }
  // Every entry back to the default.
  void ResetAll() {
    for (auto& block : blocks)
      for (std::size_t j = 0; j < kBlockSize; ++j) block[j] = defaultInfo;
  }

  void CopyInfo(const Element& from, const Element& to) override { CopyInfo(from.GetMaskIndex(), to.GetMaskIndex()); }
  void CopyInfo(std::size_t from, std::size_t to) override { GetInfo(to) = GetInfo(from); }
  void SwapInfo(const Element& a, const Element& b) override { SwapInfo(a.GetMaskIndex(), b.GetMaskIndex()); }
  void SwapInfo(std::size_t a, std::size_t b) override {
    using std::swap;
    swap(GetInfo(a), GetInfo(b));
  }
  void _SetSize(std::size_t newSize) override {
    const std::size_t needed = (newSize + kBlockSize - 1) >> kBlockShift;
    while (blocks.size() < needed) {
      std::unique_ptr<Info[]> block(new Info[kBlockSize]);
      for (std::size_t j = 0; j < kBlockSize; ++j) block[j] = defaultInfo;
      blocks.push_back(std::move(block));
    }
    if (newSize > size) size = newSize;
  }
  void _SetDefault(std::size_t i) override { GetInfo(i) = defaultInfo; }
  // Takes the other mask's default and all its entries.
  virtual void CopyFrom(const MDataMask& other) {
    defaultInfo = other.defaultInfo;
    _SetSize(other.size);
    for (std::size_t b = 0; b < other.blocks.size(); ++b)
      for (std::size_t j = 0; j < kBlockSize; ++j) blocks[b][j] = other.blocks[b][j];
  }

private:
  Info defaultInfo;
  std::vector<std::unique_ptr<Info[]>> blocks;
  std::size_t size = 0;
};
