#include "tal/Error.h"
#include "tal/Object.h"
#include "tal/Stream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

int g_live = 0;

struct CCounted : tal::CBase {
  CCounted() { ++g_live; }
  ~CCounted() override { --g_live; }
};

struct CThrowing : tal::CBase {
  explicit CThrowing(bool fail) {
    if (fail) throw std::runtime_error("constructor failed");
    ++g_live;
  }
  ~CThrowing() override { --g_live; }
};

TEST(ObjectTest, CountStartsAtOneAndNewObjAdoptsIt) {
  CCounted onStack;
  EXPECT_EQ(onStack.getRefCount(), 1);
  tal::P<CCounted> p = tal::newObj<CCounted>();
  EXPECT_EQ(p->getRefCount(), 1);
  tal::P<CCounted> copy = p;
  EXPECT_EQ(p->getRefCount(), 2);
  copy = nullptr;
  EXPECT_EQ(p->getRefCount(), 1);
}

TEST(ObjectTest, NewObjWhoseConstructorThrowsLeavesNothing) {
  int const before = g_live;
  tal::P<CThrowing> p;
  EXPECT_THROW(p = tal::newObj<CThrowing>(true), std::runtime_error);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(g_live, before); // and AddressSanitizer sees no leak
}

TEST(ObjectTest, SelfAssignmentKeepsTheCount) {
  tal::P<CCounted> p = tal::newObj<CCounted>();
  tal::P<CCounted>& alias = p;
  p = alias;
  EXPECT_EQ(p->getRefCount(), 1);
  tal::P<CCounted> other = p;
  other = p; // same object through another pointer
  EXPECT_EQ(p->getRefCount(), 2);
}

struct CSelfReferencing : tal::CBase {
  static int deletions;
  static int countSeenInDestructor;
  ~CSelfReferencing() override {
    countSeenInDestructor = getRefCount();
    tal::P<CSelfReferencing> again(this); // addRef and release during destruction
  }
  void deleteThis() override {
    ++deletions;
    tal::CBase::deleteThis();
  }
};
int CSelfReferencing::deletions = 0;
int CSelfReferencing::countSeenInDestructor = 0;

TEST(ObjectTest, LastReleaseParksTheCountAndDeletesOnce) {
  {
    tal::P<CSelfReferencing> p = tal::newObj<CSelfReferencing>();
  }
  EXPECT_EQ(CSelfReferencing::deletions, 1);
  EXPECT_EQ(CSelfReferencing::countSeenInDestructor, -0x40000000);
  EXPECT_EQ(tal::CBase::kParkedCount, -0x40000000);
}

struct CRefusing : tal::CBase {
  bool checkCastAllowed(std::type_info const& target) const override { return target != typeid(CCounted); }
};

std::string castMessage(void const* object, char const* from, char const* to) {
  char address[32];
  std::snprintf(address, sizeof address, "0x%016llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(object)));
  return std::string("Error casting object ") + address + " of type " + from + " to type " + to + ".";
}

TEST(ObjectTest, CheckedCasts) {
  tal::P<CCounted> counted = tal::newObj<CCounted>();
  EXPECT_EQ(tal::checkedCast<CCounted>(static_cast<tal::IBase const*>(counted.get())), counted);
  EXPECT_EQ(tal::checkedCast<CCounted>(static_cast<tal::IBase const*>(nullptr)), nullptr);
  tal::P<CRefusing> refusing = tal::newObj<CRefusing>();
  try {
    tal::checkedCast<CCounted>(static_cast<tal::IBase const*>(refusing.get()));
    FAIL();
  } catch (tal::CCastError const& e) {
    EXPECT_EQ(e.getMessage().toUTF8(), castMessage(static_cast<tal::IBase const *>(refusing.get()),
                                                   typeid(CRefusing).name(), typeid(CCounted).name()));
    EXPECT_EQ(e.getCode(), -1);
  }
  tal::P<tal::TSimpleType<bool>> flag = tal::newObj<tal::TSimpleType<bool>>(false);
  try {
    tal::checkedCast<CCounted>(static_cast<tal::IBase const*>(flag.get()));
    FAIL();
  } catch (tal::CCastError const& e) {
    EXPECT_EQ(e.getMessage().toUTF8(), castMessage(static_cast<tal::IBase const*>(flag.get()),
                                                   typeid(tal::TSimpleType<bool>).name(), typeid(CCounted).name()));
  }
}

struct CHeapOnly : tal::TRequireNewAlloc<tal::CBase> {
  int value = 7;
};

struct CHolder {
  CHeapOnly member;
};

std::string const kMustAllocate = std::string("Objects of class ") + typeid(tal::TRequireNewAlloc<tal::CBase>).name() +
                                  " must be allocated with new.";

/// Expects exactly a tal::CError with `message`, empty context, code -1, no properties and no cause.
void expectPlainError(tal::CError const& e, std::string const& message) {
  EXPECT_EQ(typeid(e), typeid(tal::CError));
  EXPECT_EQ(e.getMessage().toUTF8(), message);
  EXPECT_EQ(e.getContext().toUTF8(), "");
  EXPECT_EQ(e.getCode(), -1);
  EXPECT_TRUE(e.getProps().empty());
  EXPECT_EQ(e.getCause(), nullptr);
}

void expectMustAllocate(tal::CError const& e) { expectPlainError(e, kMustAllocate); }

void expectStaticConstructionFailed(tal::CError const& e) {
  expectPlainError(e, "Construction of static object has failed.");
}

TEST(ObjectTest, HeapOnlyClassesComeFromNewObjOnly) {
  tal::P<CHeapOnly> p = tal::newObj<CHeapOnly>();
  EXPECT_EQ(p->value, 7);
  try {
    CHeapOnly onStack;
    FAIL();
  } catch (tal::CError const& e) {
    expectMustAllocate(e);
  }
  try {
    CHolder holder;
    FAIL();
  } catch (tal::CError const& e) {
    expectMustAllocate(e);
  }
  CHeapOnly* plain = new CHeapOnly(); // the class's allocation function sets the flag too
  plain->release();
}

TEST(ObjectTest, OneSettingOfTheFlagLicensesOneConstruction) {
  alignas(CHeapOnly) unsigned char memory[2][sizeof(CHeapOnly)];
  tal::TRequireNewAlloc<tal::CBase>::currentThreadFlag()->value = true;
  CHeapOnly* first = new (memory[0]) CHeapOnly();
  EXPECT_EQ(first->value, 7);
  try {
    new (memory[1]) CHeapOnly();
    FAIL();
  } catch (tal::CError const& e) {
    expectMustAllocate(e);
  }
  first->~CHeapOnly();
}

TEST(ObjectTest, AFreshThreadGetsAFalseFlagAndIsRefused) {
  bool refused = false;
  bool installedFalse = false;
  std::thread([&] {
    using Guard = tal::TRequireNewAlloc<tal::CBase>;
    auto storage = Guard::getAllocatedWithNew().instance;
    EXPECT_EQ(storage->getRaw(), nullptr); // never touched on this thread
    try {
      CHeapOnly onStack;
    } catch (tal::CError const& e) {
      refused = e.getMessage().toUTF8() == kMustAllocate;
    }
    tal::P<tal::IBase> value = storage->getRaw();
    auto flag = tal::checkedCast<tal::TSimpleType<bool>>(value);
    installedFalse = flag && !flag->value;
  }).join();
  EXPECT_TRUE(refused);
  EXPECT_TRUE(installedFalse);
}

TEST(ObjectTest, AForeignValueInTheFlagSlotIsACastError) {
  std::thread([] {
    using Guard = tal::TRequireNewAlloc<tal::CBase>;
    tal::P<CCounted> foreign = tal::newObj<CCounted>();
    Guard::getAllocatedWithNew().instance->set(foreign.get());
    EXPECT_THROW(tal::newObj<CHeapOnly>(), tal::CCastError);
    Guard::getAllocatedWithNew().instance->set(nullptr);
    EXPECT_NO_THROW(tal::newObj<CHeapOnly>());
  }).join();
}

TEST(ObjectTest, ThreadValuesAreReleasedWhenTheThreadEnds) {
  static bool destroyed = false;
  struct CMarker : tal::CBase {
    ~CMarker() override { destroyed = true; }
  };
  tal::P<tal::TThreadLocalStorage<CMarker>> storage = tal::newObj<tal::TThreadLocalStorage<CMarker>>();
  std::thread([&] {
    storage->set(tal::newObj<CMarker>().get());
    EXPECT_NE(storage->get(), nullptr);
    EXPECT_FALSE(destroyed);
  }).join();
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(storage->get(), nullptr); // this thread has its own (empty) value
}

// ---- lazily built singletons -------------------------------------------------

struct CSingleton : tal::CBase {};

bool& singletonGuard() {
  static bool g_Guard = false;
  return g_Guard;
}

int g_builds = 0;
bool g_failBuild = true;

tal::TSafeGlobalPointer<CSingleton>& failingSingleton() {
  std::exception_ptr failure;
  static tal::TSafeGlobalPointer<CSingleton> g_pInstance(
      singletonGuard(),
      [] {
        ++g_builds;
        if (g_failBuild) throw std::runtime_error("build failed");
        return tal::newObj<CSingleton>();
      },
      failure);
  return g_pInstance.ready(failure);
}

TEST(ObjectTest, AFailedSingletonBuildFailsEveryLaterRequest) {
  try {
    failingSingleton();
    FAIL();
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "build failed"); // the first caller gets the original exception
  }
  g_failBuild = false;
  for (int i = 0; i < 3; ++i) {
    try {
      failingSingleton();
      FAIL();
    } catch (tal::CError const& e) {
      expectStaticConstructionFailed(e);
    }
  }
  EXPECT_EQ(g_builds, 1);
  EXPECT_FALSE(singletonGuard()); // reset after the failure
}

TEST(ObjectTest, BuiltSingletonsAreReadyAndShared) {
  auto& manager = tal::CThreadLocalStorageManager::get();
  EXPECT_EQ(manager.state.load(), tal::TSafeGlobalPointer<tal::CThreadLocalStorageManager>::kBuilt);
  EXPECT_EQ(&manager, &tal::CThreadLocalStorageManager::get());
  EXPECT_NE(manager.instance, nullptr);
  int const a = manager.instance->createSlot();
  int const b = manager.instance->createSlot();
  EXPECT_NE(a, b);
}

TEST(ObjectTest, GlobalMutexAndYield) {
  tal::IMutex& global = tal::getGlobalMutex();
  EXPECT_EQ(&global, &tal::getGlobalMutex());
  {
    tal::CMutexLock outer(global);
    tal::CMutexLock inner(global); // singleton builds nest on one thread
  }
  tal::threadYield(true);
  tal::threadYield(false);
}

// ---- more of the object model --------------------------------------------------

int g_allocations = 0;
int g_deallocations = 0;

/// Counts its own allocations, so a failed construction can be seen to return its memory.
struct CAllocCounting : tal::CBase {
  explicit CAllocCounting(bool fail) {
    if (fail) throw tal::CError(tal::String("refused"), tal::String("ctx"), 17, tal::CProps(), nullptr);
    ++g_live;
  }
  ~CAllocCounting() override { --g_live; }
  static void* operator new(std::size_t size) {
    ++g_allocations;
    return ::operator new(size);
  }
  static void operator delete(void* memory) noexcept {
    ++g_deallocations;
    ::operator delete(memory);
  }
};

TEST(ObjectTest, AFailedNewObjReturnsItsMemoryAndPassesTheExceptionUnchanged) {
  g_allocations = g_deallocations = 0;
  int const before = g_live;
  try {
    tal::newObj<CAllocCounting>(true);
    FAIL();
  } catch (tal::CError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CError));
    EXPECT_EQ(e.getMessage().toUTF8(), "refused");
    EXPECT_EQ(e.getContext().toUTF8(), "ctx");
    EXPECT_EQ(e.getCode(), 17);
  }
  EXPECT_EQ(g_allocations, 1);
  EXPECT_EQ(g_deallocations, 1);
  EXPECT_EQ(g_live, before);
  {
    tal::P<CAllocCounting> ok = tal::newObj<CAllocCounting>(false);
    EXPECT_EQ(ok->getRefCount(), 1);
    EXPECT_EQ(g_live, before + 1);
  }
  EXPECT_EQ(g_allocations, 2);
  EXPECT_EQ(g_deallocations, 2);
  EXPECT_EQ(g_live, before);
}

/// A counted object holding the only reference to another.
struct CNode : CCounted {
  tal::P<CCounted> next = tal::newObj<CCounted>();
};

TEST(ObjectTest, AssignmentTakesTheNewReferenceBeforeDroppingTheOld) {
  int const before = g_live;
  tal::P<CCounted> holder;
  holder = tal::newObj<CNode>();
  EXPECT_EQ(g_live, before + 2);
  // The right-hand side lives inside the object the left-hand side releases:
  // dropping the old reference first would free it before it is copied
  // (AddressSanitizer would report the use after free).
  holder = static_cast<CNode*>(holder.get())->next;
  EXPECT_EQ(g_live, before + 1);
  ASSERT_NE(holder, nullptr);
  EXPECT_EQ(holder->getRefCount(), 1);
  EXPECT_EQ(dynamic_cast<CNode*>(holder.get()), nullptr);
  holder = nullptr;
  EXPECT_EQ(g_live, before);
}

TEST(ObjectTest, ConversionsBetweenCountedPointersAddReferences) {
  tal::P<CCounted> counted = tal::newObj<CCounted>();
  tal::P<tal::CBase> base(counted);
  EXPECT_EQ(counted->getRefCount(), 2);
  tal::P<tal::IBase> root = base;
  EXPECT_EQ(counted->getRefCount(), 3);
  tal::P<CCounted> back = tal::checkedCast<CCounted>(root);
  EXPECT_EQ(back, counted);
  EXPECT_EQ(counted->getRefCount(), 4);
  tal::P<CCounted> moved(std::move(back));
  EXPECT_EQ(back, nullptr);
  EXPECT_EQ(counted->getRefCount(), 4);
  CCounted* raw = moved.detach();
  EXPECT_EQ(counted->getRefCount(), 4);
  tal::P<CCounted> adopted = tal::P<CCounted>::adopt(raw);
  EXPECT_EQ(counted->getRefCount(), 4);
}

TEST(ObjectTest, ARefusedCheckedCastIsACastErrorWithNoPropertiesOrCause) {
  tal::P<CRefusing> refusing = tal::newObj<CRefusing>();
  EXPECT_NE(tal::checkedCast<CRefusing>(refusing), nullptr); // refuses one target type only
  try {
    tal::checkedCast<CCounted>(refusing);
    FAIL();
  } catch (tal::CError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CCastError));
    EXPECT_EQ(e.getContext().toUTF8(), "");
    EXPECT_EQ(e.getCode(), -1);
    EXPECT_TRUE(e.getProps().empty());
    EXPECT_EQ(e.getCause(), nullptr);
  }
  EXPECT_EQ(refusing->getRefCount(), 1); // nothing was kept
}

TEST(ObjectTest, OneHeapAllocationLicensesExactlyOneConstruction) {
  using Guard = tal::TRequireNewAlloc<tal::CBase>;
  tal::P<CHeapOnly> p = tal::newObj<CHeapOnly>();
  EXPECT_EQ(p->getRefCount(), 1);
  EXPECT_FALSE(Guard::currentThreadFlag()->value); // read and cleared by the constructor
  try {
    CHeapOnly onStack;
    FAIL();
  } catch (tal::CError const& e) {
    expectMustAllocate(e);
  }
  EXPECT_FALSE(Guard::currentThreadFlag()->value);
}

TEST(ObjectTest, ThreadValuesAreCountedAndReplaceable) {
  static int destroyed = 0;
  struct CMarker : tal::CBase {
    ~CMarker() override { ++destroyed; }
  };
  destroyed = 0;
  tal::CThreadLocalStorageManager& manager = *tal::CThreadLocalStorageManager::get().instance;
  int const slot = manager.createSlot();
  int const other = manager.createSlot();
  EXPECT_EQ(manager.getThreadValue(slot), nullptr);
  tal::P<CMarker> first = tal::newObj<CMarker>();
  manager.setThreadValue(slot, first.get());
  EXPECT_EQ(first->getRefCount(), 2); // the slot holds a reference
  EXPECT_EQ(manager.getThreadValue(slot).get(), static_cast<tal::IBase*>(first.get()));
  EXPECT_EQ(manager.getThreadValue(other), nullptr);
  manager.setThreadValue(slot, tal::newObj<CMarker>().get());
  EXPECT_EQ(first->getRefCount(), 1); // the replaced value was released
  EXPECT_EQ(destroyed, 0);
  manager.setThreadValue(slot, nullptr); // clearing releases the second marker
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(manager.getThreadValue(slot), nullptr);
  manager.setThreadValue(other, nullptr); // clearing an empty slot is harmless
}

// ---- the safe global pointer, used directly ----------------------------------

struct CFlagged : tal::CBase {
  explicit CFlagged(bool* destroyed) : m_destroyed(destroyed) {}
  ~CFlagged() override { *m_destroyed = true; }
  bool* m_destroyed;
};

TEST(ObjectTest, ASuccessfulBuildIsReadyAndTheHolderReleasesItsObject) {
  bool guard = false;
  bool destroyed = false;
  int builds = 0;
  std::exception_ptr failure;
  {
    tal::TSafeGlobalPointer<CFlagged> holder(
        guard,
        [&] {
          ++builds;
          EXPECT_TRUE(guard); // the guard is set while building
          return tal::newObj<CFlagged>(&destroyed);
        },
        failure);
    EXPECT_EQ(failure, nullptr);
    EXPECT_EQ(holder.state.load(), tal::TSafeGlobalPointer<CFlagged>::kBuilt);
    EXPECT_EQ(&holder.ready(failure), &holder);
    ASSERT_NE(holder.instance, nullptr);
    EXPECT_EQ(holder.instance->getRefCount(), 1); // the holder's single reference
    EXPECT_EQ(builds, 1);
    EXPECT_FALSE(destroyed);
  }
  EXPECT_TRUE(destroyed); // the holder's destructor released it
  EXPECT_EQ(tal::TSafeGlobalPointer<CFlagged>::kBuilt, 0x47A592FE710A82BCull);
  EXPECT_EQ(tal::TSafeGlobalPointer<CFlagged>::kFailed, 0xFE3493AD1F6783BDull);
}

TEST(ObjectTest, ARequestWhileBuildingSkipsTheBuild) {
  bool guard = false;
  bool destroyed = false;
  int innerBuilds = 0;
  std::uint64_t innerState = 1;
  bool innerEmpty = false;
  std::exception_ptr failure;
  tal::TSafeGlobalPointer<CFlagged> outer(
      guard,
      [&] {
        std::exception_ptr innerFailure;
        tal::TSafeGlobalPointer<CFlagged> inner(
            guard,
            [&] {
              ++innerBuilds;
              return tal::newObj<CFlagged>(&destroyed);
            },
            innerFailure);
        innerState = inner.state.load();
        innerEmpty = !inner.instance && !innerFailure;
        return tal::newObj<CFlagged>(&destroyed);
      },
      failure);
  EXPECT_EQ(innerBuilds, 0);
  EXPECT_EQ(innerState, 0u); // neither built nor failed
  EXPECT_TRUE(innerEmpty);
  EXPECT_EQ(outer.state.load(), tal::TSafeGlobalPointer<CFlagged>::kBuilt);
  EXPECT_NE(outer.instance, nullptr);
  EXPECT_TRUE(guard); // stays set after a successful build
}

TEST(ObjectTest, AFailedBuildReleasesNothingItDidNotHoldAndResetsTheGuard) {
  bool guard = false;
  std::exception_ptr failure;
  tal::TSafeGlobalPointer<CFlagged> holder(
      guard,
      []() -> tal::P<CFlagged> {
        throw tal::CIOError(tal::CIOError::OpenFailed, tal::String(), tal::CProps(), nullptr);
      },
      failure);
  EXPECT_FALSE(guard);
  EXPECT_EQ(holder.state.load(), tal::TSafeGlobalPointer<CFlagged>::kFailed);
  EXPECT_EQ(holder.instance, nullptr);
  ASSERT_NE(failure, nullptr);
  EXPECT_THROW(holder.ready(failure), tal::CIOError); // the building caller: the original error
  std::exception_ptr none;
  try {
    holder.ready(none);
    FAIL();
  } catch (tal::CError const& e) {
    expectStaticConstructionFailed(e);
  }
}

} // namespace
