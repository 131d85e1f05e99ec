#include "tal/Object.h"

#include "tal/Error.h"
#include "tal/Stream.h"

#include <unordered_map>

namespace tal {

void CBase::addRef() const { m_refCount.fetch_add(1); }

void CBase::release() const {
  if (m_refCount.fetch_sub(1) - 1 != 0) return;
  // No other reference exists: park the count so that references taken and
  // dropped during destruction can never bring it back to zero.
  m_refCount.fetch_sub(0x40000000);
  const_cast<CBase*>(this)->deleteThis();
}

bool CBase::checkCastAllowed(std::type_info const&) const { return true; }

void CBase::deleteThis() { delete this; }

namespace detail {

void throwCastError(IBase const* object, std::type_info const& target) { throw CCastError(object, &target); }

void throwStaticConstructionFailed() {
  throw CError("Construction of static object has failed.", String(), -1, CProps(), nullptr);
}

void throwMustAllocateWithNew(std::type_info const& guardType) {
  throw CError(String("Objects of class ") + String(guardType.name()) + String(" must be allocated with new."),
               String(), -1, CProps(), nullptr);
}

GlobalLock::GlobalLock() : m_lock(new CMutexLock(getGlobalMutex())) {}

GlobalLock::~GlobalLock() { delete static_cast<CMutexLock*>(m_lock); }

void yieldThread() { threadYield(true); }

} // namespace detail

namespace {

/// The calling thread's slot values; released when the thread ends.
std::unordered_map<int, P<IBase>>& threadValues() {
  thread_local std::unordered_map<int, P<IBase>> values;
  return values;
}

std::atomic<int> g_nextSlot{0};

} // namespace

CThreadLocalStorageManager::CThreadLocalStorageManager() = default;

CThreadLocalStorageManager::~CThreadLocalStorageManager() = default;

int CThreadLocalStorageManager::createSlot() { return g_nextSlot.fetch_add(1); }

P<IBase> CThreadLocalStorageManager::getThreadValue(int slot) {
  auto& values = threadValues();
  auto const it = values.find(slot);
  return it == values.end() ? P<IBase>() : it->second;
}

void CThreadLocalStorageManager::setThreadValue(int slot, IBase* value) {
  auto& values = threadValues();
  if (value) {
    values[slot] = P<IBase>(value);
  } else {
    P<IBase> old;
    auto const it = values.find(slot);
    if (it == values.end()) return;
    old = it->second;
    values.erase(it);
  }
}

bool& CThreadLocalStorageManager::globalInstanceGuard() {
  static bool g_Guard = false;
  return g_Guard;
}

TSafeGlobalPointer<CThreadLocalStorageManager>& CThreadLocalStorageManager::get() {
  std::exception_ptr failure;
  static TSafeGlobalPointer<CThreadLocalStorageManager> g_pInstance(
      globalInstanceGuard(), [] { return P<CThreadLocalStorageManager>::adopt(new CThreadLocalStorageManager()); },
      failure);
  return g_pInstance.ready(failure);
}

CThreadLocalStorage::CThreadLocalStorage() : m_slot(CThreadLocalStorageManager::get().instance->createSlot()) {}

P<IBase> CThreadLocalStorage::getValue() const {
  return CThreadLocalStorageManager::get().instance->getThreadValue(m_slot);
}

void CThreadLocalStorage::setValue(IBase* value) const {
  CThreadLocalStorageManager::get().instance->setThreadValue(m_slot, value);
}

} // namespace tal
