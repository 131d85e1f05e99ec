#include "tal/Stream.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace {

/// A mutex that records its calls and can refuse to lock.
class CScriptedMutex : public tal::CBase, public virtual tal::IMutex {
public:
  bool failLock = false;
  int locks = 0, unlocks = 0;
  void lock() override {
    if (failLock) throw std::runtime_error("lock failed");
    ++locks;
  }
  void unlock() override { ++unlocks; }
};

TEST(MutexTest, ScopedLockHoldsExactlyForItsScope) {
  CScriptedMutex mutex;
  {
    tal::CMutexLock lock(mutex);
    EXPECT_EQ(mutex.locks, 1);
    EXPECT_EQ(mutex.unlocks, 0);
    EXPECT_EQ(mutex.getRefCount(), 2); // the lock holds a counted reference
  }
  EXPECT_EQ(mutex.unlocks, 1);
  EXPECT_EQ(mutex.getRefCount(), 1);
}

TEST(MutexTest, AFailingLockDropsTheReferenceAndNeverUnlocks) {
  CScriptedMutex mutex;
  mutex.failLock = true;
  EXPECT_THROW(tal::CMutexLock lock(mutex), std::runtime_error);
  EXPECT_EQ(mutex.unlocks, 0);
  EXPECT_EQ(mutex.getRefCount(), 1);
}

TEST(MutexTest, RealMutexExcludes) {
  tal::CMutex mutex;
  int counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        tal::CMutexLock lock(mutex);
        ++counter;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 40000);
}

TEST(MutexTest, DummyBarrierIsAWriteBarrier) {
  tal::P<tal::CDummyWriteBarrier> barrier = tal::newObj<tal::CDummyWriteBarrier>();
  tal::P<tal::IWriteBarrier> asInterface(barrier.get());
  EXPECT_NE(asInterface, nullptr);
  EXPECT_EQ(barrier->getRefCount(), 2);
}

} // namespace
