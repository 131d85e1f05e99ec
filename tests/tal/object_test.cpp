#include "tal/Error.h"
#include "tal/Object.h"
#include "tal/Stream.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <thread>

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
  std::snprintf(address, sizeof address, "0x%016llx", static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(object)));
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
    EXPECT_EQ(e.getMessage().toUTF8(),
              castMessage(static_cast<tal::IBase const*>(refusing.get()), typeid(CRefusing).name(), typeid(CCounted).name()));
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

std::string const kMustAllocate =
    std::string("Objects of class ") + typeid(tal::TRequireNewAlloc<tal::CBase>).name() + " must be allocated with new.";

void expectMustAllocate(tal::CError const& e) {
  EXPECT_EQ(typeid(e), typeid(tal::CError));
  EXPECT_EQ(e.getMessage().toUTF8(), kMustAllocate);
  EXPECT_EQ(e.getContext().toUTF8(), "");
  EXPECT_EQ(e.getCode(), -1);
  EXPECT_TRUE(e.getProps().empty());
  EXPECT_EQ(e.getCause(), nullptr);
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
      EXPECT_EQ(typeid(e), typeid(tal::CError));
      EXPECT_EQ(e.getMessage().toUTF8(), "Construction of static object has failed.");
      EXPECT_EQ(e.getContext().toUTF8(), "");
      EXPECT_EQ(e.getCode(), -1);
      EXPECT_TRUE(e.getProps().empty());
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

} // namespace
