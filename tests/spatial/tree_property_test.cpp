// Trees cached on a mesh: made once, shared by concurrent callers, a failed build
// reaching every waiter, and every kind of edit dropping the tree.
#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "generators/bodies.h"
#include "generators/small_meshes.h"
#include "zor/model/stl.h"
#include "zor/spatial/detail/thread_safe_property.h"
#include "zor/spatial/object_tree.h"

namespace {

using MeshQueries::MeshHandle;
using MeshQueries::TriangleTreeHolder;

constexpr double kInf = std::numeric_limits<double>::infinity();

// Runs `body` on `count` threads released together.
void RunTogether(int count, const std::function<void(int)>& body) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back([&, i] {
      ++ready;
      while (ready.load() < count) std::this_thread::yield();
      body(i);
    });
  for (auto& t : threads) t.join();
}

TEST(CachedTree, NullAndEmptyMeshes) {
  EXPECT_EQ(MeshQueries::GetPointTree(MeshHandle()), nullptr);
  EXPECT_EQ(MeshQueries::GetTriangleTree(MeshHandle()), nullptr);
  MMVector3d closest(1, 2, 3);
  EXPECT_FALSE(MeshQueries::GetClosestPoint(MeshHandle(), MMVector3d(), closest));
  MStlBase empty;
  const TriangleTreeHolder* holder = MeshQueries::GetTriangleTree(MeshHandle(&empty));
  ASSERT_NE(holder, nullptr);
  EXPECT_TRUE(holder->GetTree().GetObjects().empty());
  EXPECT_EQ(holder->GetTree().GetRoot().children, nullptr);
  EXPECT_FALSE(MeshQueries::GetClosestPoint(MeshHandle(&empty), MMVector3d(), closest));
  EXPECT_EQ(closest, MMVector3d(1, 2, 3));
  double radius = kInf;
  MStlPoint* point = nullptr;
  EXPECT_FALSE(MeshQueries::FindNearestPoint(MeshHandle(&empty), MMVector3d(), radius, point));
}

// One edit of each way a mesh tells its followers (a topology change, a move, a
// clearing, a batch of direct point changes, an explicit update; which edit sends
// which is the change events' test), applied to a 10 x 10 grid of step 10 in z = 0;
// the probe at (55, 55, 50) then tells whether the trees saw it.
struct Edit {
  const char* name;
  std::function<void(MStlBase&)> apply;
};

TEST(CachedTree, EveryKindOfEditDropsTheTrees) {
  const std::vector<Edit> edits = {
      {"AddTriangle",
       [](MStlBase& m) {
         m.AddTriangle(MMVector3i(50, 50, 40), MMVector3i(60, 50, 40), MMVector3i(55, 60, 40), nullptr);
       }},
      {"Transform",
       [](MStlBase& m) {
         MMTransformMatrix shift;
         shift.MakeTranslation(MMVector3d(0, 0, 30));
         m.Transform(shift);
       }},
      {"ClearStl", [](MStlBase& m) { m.ClearStl(true); }},
      {"DirectPointChange",
       [](MStlBase& m) {
         MStlBaseOperatorHelperDirectPointChange guard(&m, true);
         for (MStlPoint* p = m.GetFirstPoint(); p != nullptr; p = p->GetNext())
           p->Set(MMVector3i(p->GetX(), p->GetY(), 25));
       }},
      {"SetThenUpdate",
       [](MStlBase& m) {
         m.GetFirstPoint()->Set(MMVector3i(55, 55, 49));
         m.Update(MStlUpdateExtremes, true);
       }},
  };
  const MMVector3d probe(55, 55, 50);
  for (const Edit& edit : edits) {
    SCOPED_TRACE(edit.name);
    auto mesh = zorgen::MakeGrid(10, 10);
    const MeshHandle handle(mesh.get());
    const TriangleTreeHolder* before = MeshQueries::GetTriangleTree(handle);
    ASSERT_EQ(MeshQueries::GetTriangleTree(handle), before);  // cached, not rebuilt
    ASSERT_EQ(before->GetTree().GetObjects().size(), mesh->GetNumberOfTriangles());
    ASSERT_EQ(MeshQueries::GetPointTree(handle)->GetObjects().size(), mesh->NumberOfPoints());
    edit.apply(*mesh);
    // The next request builds over the edited mesh: sizes and answers follow the edit.
    const TriangleTreeHolder* holder = MeshQueries::GetTriangleTree(handle);
    ASSERT_EQ(holder->GetTree().GetObjects().size(), mesh->GetNumberOfTriangles());
    EXPECT_EQ(MeshQueries::GetPointTree(handle)->GetObjects().size(), mesh->NumberOfPoints());
    double expected = kInf;
    for (auto it = mesh->BeginTriangle(); it != mesh->EndTriangle(); ++it) {
      const MMVector3d a = it->GetVertex(0), b = it->GetVertex(1), c = it->GetVertex(2);
      expected =
          std::min(expected, MeshQueries::PointTriangleDistance2(probe.Data(), a.Data(), b.Data(), c.Data(), nullptr));
    }
    const auto found = MeshQueries::FindNearestTriangle(*holder, probe, kInf);
    if (mesh->GetNumberOfTriangles() == 0) {
      EXPECT_EQ(found.first.GetTriangle(), nullptr);
    } else {
      EXPECT_EQ(found.second, std::sqrt(expected));
    }
    for (const auto& v : MeshQueries::GetPointTree(handle)->GetObjects()) {
      ASSERT_EQ(v.coords[0], v.point->GetX());
      ASSERT_EQ(v.coords[2], v.point->GetZ());
    }
  }
}

TEST(ConcurrentTreeRequests, ManyThreadsShareOneTriangleTree) {
  auto mesh = zorgen::MakeRandomTriangles(4000, 3, 100000, true);
  std::vector<const TriangleTreeHolder*> seen(8, nullptr);
  RunTogether(8, [&](int i) { seen[i] = MeshQueries::GetTriangleTree(MeshHandle(mesh.get())); });
  for (const auto* h : seen) EXPECT_EQ(h, seen[0]);
  EXPECT_EQ(seen[0]->GetTree().GetObjects().size(), 4000u);
}

// A property whose build is counted, held open until every thread has asked, and
// made to throw on demand.
std::atomic<int> fills{0};
std::atomic<int> arrived{0};
std::atomic<bool> failNext{false};
int expectedCallers = 0;

class CountingProperty {
public:
  explicit CountingProperty(MeshHandle) {}
  bool IsValid() const { return valid; }
  void SetValidated() { valid = true; }
  void Fill() {
    ++fills;
    while (arrived.load() < expectedCallers) std::this_thread::yield();
    // Give the last callers time to join the build before it ends.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (failNext.exchange(false)) throw std::runtime_error("build failed");
    value = 42;
  }
  const int* GetTree() const { return &value; }

private:
  bool valid = false;  // guarded by the shared lock, as a validity bit is
  int value = 0;
};

TEST(ConcurrentTreeRequests, OneBuildForAllWaitersAndItsFailureReachesEveryone) {
  MStlBase mesh;
  const MeshHandle handle(&mesh);
  constexpr int kThreads = 8;
  expectedCallers = kThreads;

  failNext = true;
  std::atomic<int> failures{0};
  RunTogether(kThreads, [&](int) {
    ++arrived;
    try {
      MeshQueries::GetCachedProperty<CountingProperty>(handle);
    } catch (const std::runtime_error& e) {
      if (std::string(e.what()) == "build failed") ++failures;
    }
  });
  EXPECT_EQ(fills.load(), 1);
  EXPECT_EQ(failures.load(), kThreads);

  // The next requests build anew, once, and all see the result.
  arrived = 0;
  std::vector<const int*> results(kThreads, nullptr);
  RunTogether(kThreads, [&](int i) {
    ++arrived;
    results[i] = MeshQueries::GetCachedProperty<CountingProperty>(handle);
  });
  EXPECT_EQ(fills.load(), 2);
  for (const int* r : results) {
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(*r, 42);
  }
  // Valid now: no further build.
  EXPECT_EQ(MeshQueries::GetCachedProperty<CountingProperty>(handle), results[0]);
  EXPECT_EQ(fills.load(), 2);
}

}  // namespace
