#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "zor/model/stl.h"

namespace {

TEST(DataMask, EntriesCrossTheBlockBoundaryAndFollowGrowth) {
  auto mesh = zorgen::MakeGrid(44);  // 45 * 45 = 2025 points: two blocks
  ASSERT_EQ(mesh->NumberOfPoints(), 2025u);
  MDataMask<MStlPoint, double> mask(mesh->GetMasks(), -1.0);
  EXPECT_GE(mask.GetSize(), 2025u);
  std::vector<MStlPoint*> points;
  for (auto it = MStlIteratorStlPoint::Begin(mesh.get()); it != MStlIteratorStlPoint::End(mesh.get()); ++it)
    points.push_back(it.GetPoint());
  for (MStlPoint* p : points) EXPECT_EQ(mask[*p], -1.0);  // made after the points: all default
  for (MStlPoint* p : points) mask[*p] = static_cast<double>(p->GetMaskIndex());
  EXPECT_EQ(mask.GetInfo(1023), 1023.0);
  EXPECT_EQ(mask.GetInfo(1024), 1024.0);  // place 0 of block 1

  // Growth past the next block keeps old entries and gives new ones the default.
  for (int i = 0; i < 2000; ++i) mesh->AddPoint(100000 + i, 0, 0, false);
  EXPECT_GE(mask.GetSize(), mesh->NumberOfPoints());
  for (MStlPoint* p : points) EXPECT_EQ(mask[*p], static_cast<double>(p->GetMaskIndex()));
  EXPECT_EQ(mask[*mesh->GetPoint(100000 + 1999, 0, 0)], -1.0);

  MDataMask<MStlTriangle, bool> flags(mesh->GetMasks(), false);
  auto tri = mesh->BeginTriangle();
  flags[*tri] = true;
  EXPECT_TRUE(flags[*tri]);
  EXPECT_FALSE(flags[*++tri]);
}

TEST(DataMask, RecycledIndicesStartFromTheDefault) {
  auto mesh = zorgen::MakeTetrahedron();
  MDataMask<MStlTriangle, int> mask(mesh->GetMasks(), 7);
  MStlTriangle* first = &*MStlIteratorStlTriangle::Begin(mesh.get());
  const std::size_t index = first->GetMaskIndex();
  mask[*first] = 99;
  mesh->RemoveTriangle(first);
  MStlTriangleCell* again = mesh->AddTriangle(MMVector3i(0, 0, 0), MMVector3i(0, 10, 0), MMVector3i(10, 0, 0), nullptr);
  EXPECT_EQ(again->data.GetMaskIndex(), index);
  EXPECT_EQ(mask[again->data], 7);
  std::set<std::size_t> unique;
  for (auto it = mesh->BeginTriangle(); it != mesh->EndTriangle(); ++it) unique.insert(it->GetMaskIndex());
  EXPECT_EQ(unique.size(), mesh->GetNumberOfTriangles());
}

TEST(DataMask, MasksSurviveTheirMeshAndNamedMasksAreOwned) {
  auto mesh = zorgen::MakeTetrahedron();
  MDataMask<MStlPoint, float> outliving(mesh->GetMasks(), 1.0f);
  MStlVectorMaskPoints* named = MStlVectorMaskPoints::Create(mesh.get(), L"displacement");
  ASSERT_NE(named, nullptr);
  EXPECT_EQ(mesh->GetMasks().GetNumberOfPointMasks(), 2u);
  MStlPoint* p = mesh->GetFirstPoint();
  named->GetInfo(*p) = MMVector3f(1, 2, 3);
  EXPECT_EQ(MStlVectorMaskPoints::Create(mesh.get(), L"displacement"), named);
  EXPECT_EQ(named->GetInfo(*p), MMVector3f());  // handed out again, reset
  EXPECT_NE(MStlVectorMaskPoints::Create(mesh.get(), L"other"), named);
  EXPECT_EQ(MStlVectorMaskPoints::Create(nullptr, L"x"), nullptr);
  mesh.reset();  // the named masks go with the mesh; the outliving one lets go of it
  EXPECT_EQ(outliving.GetOwner(), nullptr);
  EXPECT_EQ(outliving.GetInfo(0), 1.0f);
}

// Records the events a mesh sends.
class Recorder : public MStlCallback {
public:
  explicit Recorder(MStlBase* followed) : bit(nullptr, nullptr) {
    _Initialise(followed);
    _EnableEvent(MStlEventPointsMoved);
    _EnableEvent(MStlEventTopologyChanged);
    _EnableEvent(MStlEventCleared);
    followed->GetValidity().Register(bit, ValidityAnyChange, L"recorder");
    bit.SetValidated();
  }
  void OnMeshEvent(MStlCallBackEventID event) override { events.push_back(event); }
  // The events since the last call, with the validity bit re-armed.
  std::vector<MStlCallBackEventID> Take() {
    wasCleared = !static_cast<bool>(bit);
    bit.SetValidated();
    return std::exchange(events, {});
  }
  bool wasCleared = false;
  MValidityBit bit;
  std::vector<MStlCallBackEventID> events;
};

using Events = std::vector<MStlCallBackEventID>;

TEST(ChangeEvents, EveryEditTellsTheFollowers) {
  auto mesh = zorgen::MakeGrid(2, 10);
  Recorder rec(mesh.get());
  const Events moved{MStlEventPointsMoved};
  const Events topology{MStlEventTopologyChanged};

  MStlPoint* p = mesh->AddPoint(100, 100, 0, false);
  EXPECT_EQ(rec.Take(), topology);
  EXPECT_TRUE(rec.wasCleared);
  MStlTriangleCell* cell = mesh->AddTriangle(p, mesh->GetPoint(20, 20, 0), mesh->GetPoint(20, 10, 0), nullptr);
  EXPECT_EQ(rec.Take(), topology);
  cell->data.Invert(0);
  EXPECT_EQ(rec.Take(), topology);
  mesh->RemoveTriangle(cell);
  EXPECT_EQ(rec.Take(), topology);  // one event for the triangle and its freed point

  mesh->Transform(MMTransformMatrix());
  EXPECT_EQ(rec.Take(), moved);
  mesh->Translate(1, 0, 0);
  EXPECT_EQ(rec.Take(), moved);
  mesh->Rescale(2, 2, 2, MMVector3i());
  EXPECT_EQ(rec.Take(), moved);
  mesh->Update(65, true);
  EXPECT_EQ(rec.Take(), moved);
  mesh->Update(65, false);
  EXPECT_TRUE(rec.Take().empty());

  {
    MStlTempTransformation placed(*mesh, MMTransformMatrix(), false);
    EXPECT_EQ(rec.Take(), moved);
  }
  EXPECT_EQ(rec.Take(), moved);

  {
    MStlBaseOperatorHelperDirectPointChange direct(mesh.get(), true);
    for (auto it = MStlIteratorStlPoint::Begin(mesh.get()); it != MStlIteratorStlPoint::End(mesh.get()); ++it)
      it->Set(MMVector3i(it->GetX(), it->GetY(), 5));
    EXPECT_TRUE(rec.Take().empty());
  }
  EXPECT_EQ(rec.Take(), moved);  // once, at the end
  EXPECT_EQ(mesh->GetZMin(), 5);
  EXPECT_NE(mesh->GetPoint(2, 0, 5), nullptr);  // the merge index follows the new coordinates

  {
    MStlTempPointSortingDisabler bulk(mesh.get(), true);
    for (int i = 0; i < 10; ++i) mesh->AddPoint(500 + i, 0, 0, false);
    EXPECT_TRUE(rec.Take().empty());
  }
  EXPECT_EQ(rec.Take(), topology);

  mesh->ClearStl(true);
  EXPECT_EQ(rec.Take(), (Events{MStlEventCleared}));
  mesh.reset();
  EXPECT_EQ(rec.Take(), (Events{MStlEventCleared}));
  EXPECT_EQ(rec.GetStl(), nullptr);
}

TEST(ChangeEvents, DependenciesHaveStableSlotsAndDieWithTheMesh) {
  using Wrapper = ZorMesh::StlBase::Handle::StlConstDependencyWrapper<std::shared_ptr<int>,
                                                                      ZorMesh::StlBase::Handle::StlBasePolicy>;
  using Other = ZorMesh::StlBase::Handle::StlConstDependencyWrapper<std::shared_ptr<double>,
                                                                    ZorMesh::StlBase::Handle::StlBasePolicy>;
  EXPECT_EQ(GetDepTypeIndex<Wrapper>(), GetDepTypeIndex<Wrapper>());
  EXPECT_NE(GetDepTypeIndex<Wrapper>(), GetDepTypeIndex<Other>());
  auto value = std::make_shared<int>(3);
  {
    auto mesh = zorgen::MakeTetrahedron();
    auto& deps = mesh->GetDependencies();
    EXPECT_EQ(deps.Get(GetDepTypeIndex<Wrapper>()), nullptr);
    auto* w = static_cast<Wrapper*>(deps.Put(GetDepTypeIndex<Wrapper>(), std::make_unique<Wrapper>()));
    EXPECT_FALSE(w->exist(L""));
    w->put(L"", value);
    EXPECT_TRUE(dynamic_cast<Wrapper*>(deps.Get(GetDepTypeIndex<Wrapper>()))->exist(L""));
    EXPECT_EQ(value.use_count(), 2);
  }
  EXPECT_EQ(value.use_count(), 1);
}

TEST(RegisteredHandles, HandlesConvertToTheMeshUntilItDies) {
  auto mesh = std::make_unique<MStlBase>();
  MRegisteredHandle<MRegisteredID<MStlBase>, MStlBase> handle = mesh->GetHandle();
  const auto copy = handle;
  EXPECT_EQ(static_cast<MStlBase*>(handle), mesh.get());
  EXPECT_EQ(static_cast<const MStlBase*>(copy), mesh.get());
  mesh.reset();
  EXPECT_EQ(static_cast<MStlBase*>(handle), nullptr);
  EXPECT_EQ(static_cast<MStlBase*>(MRegisteredHandle<MRegisteredID<MStlBase>, MStlBase>()), nullptr);
}

// Normals and mask reads from several threads at once (run under the thread sanitizer).
TEST(ConcurrentReads, NormalsAndMasksReadFromManyThreads) {
  auto mesh = zorgen::MakeGrid(60);
  MDataMask<MStlTriangle, double> mask(mesh->GetMasks(), 2.0);
  std::vector<const MStlTriangle*> triangles;
  for (auto it = mesh->BeginTriangle(); it != mesh->EndTriangle(); ++it) triangles.push_back(&*it);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (std::size_t i = t; i < triangles.size(); i += 2) {
        if (triangles[i]->GetNormal()[2] != 1.0) ++wrong;
        if (mask.GetInfo(*triangles[i]) != 2.0) ++wrong;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
