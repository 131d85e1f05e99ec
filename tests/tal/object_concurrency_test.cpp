// Many threads at once: the first use of the lazy singletons, heap-only
// construction with per-thread flags, and counting on shared objects.
#include "tal/Object.h"
#include "tal/Stream.h"

#include <gtest/gtest.h>

#include <atomic>
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

} // namespace
