// Many threads at once: the first use of the lazy singletons, heap-only
// construction with per-thread flags, and counting on shared objects.
#include "tal/Object.h"
#include "tal/Stream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

struct CHeapOnly : tal::TRequireNewAlloc<tal::CBase> {};

TEST(ObjectConcurrencyTest, ThreadsRaceTheFirstUseOfTheSingletons) {
  std::atomic<bool> go{false};
  std::atomic<int> built{0}, refused{0};
  std::vector<std::thread> threads;
  std::vector<void const*> managers(8), storages(8);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      while (!go) tal::threadYield(false);
      for (int i = 0; i < 200; ++i) {
        if (tal::newObj<CHeapOnly>()) ++built;
        try {
          CHeapOnly onStack; // this thread's flag is clear again
        } catch (tal::CError const&) {
          ++refused;
        }
      }
      managers[t] = tal::CThreadLocalStorageManager::get().instance.get();
      storages[t] = tal::TRequireNewAlloc<tal::CBase>::getAllocatedWithNew().instance.get();
    });
  }
  go = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(built.load(), 1600);
  EXPECT_EQ(refused.load(), 1600);
  for (int t = 1; t < 8; ++t) {
    EXPECT_EQ(managers[t], managers[0]);
    EXPECT_EQ(storages[t], storages[0]);
  }
}

TEST(ObjectConcurrencyTest, FlagsArePerThread) {
  // One thread sets its flag and waits; another constructs without one and is refused.
  std::atomic<int> stage{0};
  bool otherRefused = false, ownAllowed = false;
  alignas(CHeapOnly) unsigned char memory[sizeof(CHeapOnly)];
  std::thread owner([&] {
    tal::TRequireNewAlloc<tal::CBase>::currentThreadFlag()->value = true;
    stage = 1;
    while (stage != 2) tal::threadYield(true);
    CHeapOnly* object = new (memory) CHeapOnly();
    ownAllowed = true;
    object->~CHeapOnly();
  });
  std::thread other([&] {
    while (stage != 1) tal::threadYield(true);
    try {
      CHeapOnly onStack;
    } catch (tal::CError const&) {
      otherRefused = true;
    }
    stage = 2;
  });
  owner.join();
  other.join();
  EXPECT_TRUE(otherRefused);
  EXPECT_TRUE(ownAllowed);
}

TEST(ObjectConcurrencyTest, ConcurrentCountingOnSharedObjects) {
  static std::atomic<int> destroyed{0};
  struct CShared : tal::CBase {
    ~CShared() override { ++destroyed; }
  };
  tal::P<CShared> shared = tal::newObj<CShared>();
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([shared] {
      for (int i = 0; i < 10000; ++i) {
        tal::P<CShared> copy = shared;
        tal::P<CShared> another(copy);
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(shared->getRefCount(), 1);
  shared = nullptr;
  EXPECT_EQ(destroyed.load(), 1);
}

// ---- a lazy singleton of this test, raced from its very first use -----------

struct CRaced : tal::CBase {};

std::atomic<int> g_racedBuilds{0};

bool& racedGuard() {
  static bool g_Guard = false;
  return g_Guard;
}

tal::TSafeGlobalPointer<CRaced>& racedSingleton() {
  std::exception_ptr failure;
  static tal::TSafeGlobalPointer<CRaced> g_pInstance(
      racedGuard(),
      [] {
        ++g_racedBuilds;
        tal::threadYield(true); // give the other threads time to pile up
        return tal::newObj<CRaced>();
      },
      failure);
  return g_pInstance.ready(failure);
}

bool& failingGuard() {
  static bool g_Guard = false;
  return g_Guard;
}

tal::TSafeGlobalPointer<CRaced>& failingSingleton() {
  std::exception_ptr failure;
  static tal::TSafeGlobalPointer<CRaced> g_pInstance(
      failingGuard(), []() -> tal::P<CRaced> { throw std::runtime_error("first build failed"); }, failure);
  return g_pInstance.ready(failure);
}

TEST(ObjectConcurrencyTest, ThreadsRacingALazySingletonShareOneBuild) {
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  std::vector<CRaced*> seen(8, nullptr);
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      while (!go) tal::threadYield(false);
      seen[t] = racedSingleton().instance.get();
    });
  go = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(g_racedBuilds.load(), 1);
  ASSERT_NE(seen[0], nullptr);
  for (int t = 1; t < 8; ++t) EXPECT_EQ(seen[t], seen[0]);
}

TEST(ObjectConcurrencyTest, ThreadsRacingAFailingSingletonAllFail) {
  std::atomic<bool> go{false};
  std::atomic<int> original{0}, constructionFailed{0}, other{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&] {
      while (!go) tal::threadYield(false);
      try {
        failingSingleton();
        ++other;
      } catch (tal::CError const& e) {
        if (e.getMessage().toUTF8() == "Construction of static object has failed." && e.getCode() == -1)
          ++constructionFailed;
        else
          ++other;
      } catch (std::runtime_error const& e) {
        if (std::string(e.what()) == "first build failed")
          ++original;
        else
          ++other;
      }
    });
  go = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(original.load(), 1); // only the thread that built sees the original exception
  EXPECT_EQ(constructionFailed.load(), 7);
  EXPECT_EQ(other.load(), 0);
}

TEST(ObjectConcurrencyTest, ManyThreadsKeepTheirOwnFlags) {
  std::atomic<int> stage{0};
  std::atomic<int> allowed{0}, refused{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      bool const licensed = t % 2 == 0;
      if (licensed) tal::TRequireNewAlloc<tal::CBase>::currentThreadFlag()->value = true;
      ++stage;
      while (stage.load() < 8) tal::threadYield(true); // every flag is set before anyone constructs
      alignas(CHeapOnly) unsigned char memory[sizeof(CHeapOnly)];
      try {
        CHeapOnly* object = new (memory) CHeapOnly();
        object->~CHeapOnly();
        ++allowed;
      } catch (tal::CError const&) {
        ++refused;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(allowed.load(), 4);
  EXPECT_EQ(refused.load(), 4);
}

TEST(ObjectConcurrencyTest, LastReleaseRacedFromManyThreadsDeletesOnce) {
  static std::atomic<int> deletions{0};
  struct CShared : tal::CBase {
    ~CShared() override { ++deletions; }
  };
  for (int round = 0; round < 50; ++round) {
    tal::P<CShared> shared = tal::newObj<CShared>();
    std::vector<tal::P<CShared>> copies(4, shared);
    shared = nullptr;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&, t] {
        while (!go) tal::threadYield(false);
        copies[static_cast<std::size_t>(t)] = nullptr;
      });
    go = true;
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(deletions.load(), round + 1);
  }
}

} // namespace
