#include "tal/Stream.h"

#include <gtest/gtest.h>

#include <atomic>
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

// ---- more of the lock kit ------------------------------------------------------

/// Records the reference count it sees while being unlocked.
class CCountWatchingMutex : public tal::CBase, public virtual tal::IMutex {
public:
  int countAtUnlock = 0;
  void lock() override {}
  void unlock() override { countAtUnlock = getRefCount(); }
};

TEST(MutexTest, TheLockUnlocksBeforeDroppingItsReference) {
  CCountWatchingMutex mutex;
  { tal::CMutexLock lock(mutex); }
  EXPECT_EQ(mutex.countAtUnlock, 2);
  EXPECT_EQ(mutex.getRefCount(), 1);
}

TEST(MutexTest, AnExceptionInTheScopeStillUnlocks) {
  CScriptedMutex mutex;
  try {
    tal::CMutexLock lock(mutex);
    throw std::logic_error("inside");
  } catch (std::logic_error const&) {
  }
  EXPECT_EQ(mutex.locks, 1);
  EXPECT_EQ(mutex.unlocks, 1);
  EXPECT_EQ(mutex.getRefCount(), 1);
}

TEST(MutexTest, AFailingLockPassesTheExceptionUnchanged) {
  CScriptedMutex mutex;
  mutex.failLock = true;
  try {
    tal::CMutexLock lock(mutex);
    FAIL();
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "lock failed");
  }
  EXPECT_EQ(mutex.locks, 0);
  EXPECT_EQ(mutex.unlocks, 0);
  mutex.failLock = false; // the mutex is usable again
  { tal::CMutexLock lock(mutex); }
  EXPECT_EQ(mutex.locks, 1);
  EXPECT_EQ(mutex.unlocks, 1);
}

TEST(MutexTest, AnotherThreadGetsTheMutexOnlyAfterTheScopeEnds) {
  tal::CMutex mutex;
  std::atomic<int> stage{0};
  std::atomic<bool> released{false};
  bool sawReleased = false;
  std::thread waiter;
  {
    tal::CMutexLock lock(mutex);
    waiter = std::thread([&] {
      stage = 1;
      tal::CMutexLock other(mutex); // blocks until the scope below ends
      sawReleased = released.load();
    });
    while (stage.load() != 1) tal::threadYield(true);
    released = true; // set while still holding the lock
  }
  waiter.join();
  EXPECT_TRUE(sawReleased);
  { tal::CMutexLock again(mutex); } // free again on this thread too
}

TEST(MutexTest, TheGlobalMutexIsRecursiveAndExcludesOtherThreads) {
  tal::IMutex& global = tal::getGlobalMutex();
  int counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        tal::CMutexLock outer(global);
        tal::CMutexLock inner(global);
        ++counter;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 8000);
}

TEST(MutexTest, TheDummyBarrierIsACountedBarrierWithNothingElse) {
  bool destroyed = false;
  struct CWatchedBarrier : tal::CDummyWriteBarrier {
    explicit CWatchedBarrier(bool* flag) : m_flag(flag) {}
    ~CWatchedBarrier() override { *m_flag = true; }
    bool* m_flag;
  };
  tal::P<tal::IWriteBarrier> barrier = tal::newObj<CWatchedBarrier>(&destroyed);
  EXPECT_NE(tal::checkedCast<tal::CDummyWriteBarrier>(barrier), nullptr);
  EXPECT_NE(dynamic_cast<tal::IBase*>(barrier.get()), nullptr);
  barrier = nullptr;
  EXPECT_TRUE(destroyed);
  tal::CDummyWriteBarrier onStack; // usable by value, count 1
  EXPECT_EQ(onStack.getRefCount(), 1);
}

} // namespace
