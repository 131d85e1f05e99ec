#include "tal/Stream.h"

#include <mutex>
#include <thread>

namespace tal {

struct CMutex::Impl {
  std::mutex mutex;
};

CMutex::CMutex() : m_impl(new Impl) {}

CMutex::~CMutex() { delete m_impl; }

void CMutex::lock() { m_impl->mutex.lock(); }

void CMutex::unlock() { m_impl->mutex.unlock(); }

CMutexLock::CMutexLock(IMutex& mutex) : m_mutex(&mutex) {
  try {
    mutex.lock();
  } catch (...) {
    m_mutex = nullptr;
    throw;
  }
}

CMutexLock::~CMutexLock() {
  if (m_mutex) m_mutex->unlock();
}

namespace {

/// Recursive, because singleton builds nest: building one singleton may
/// construct an object whose constructor builds another on the same thread.
class CRecursiveMutex : public CBase, public virtual IMutex {
public:
  void lock() override { m_mutex.lock(); }
  void unlock() override { m_mutex.unlock(); }

private:
  std::recursive_mutex m_mutex;
};

} // namespace

IMutex& getGlobalMutex() {
  // Built on first use and never destroyed, so singletons can lock it at any
  // point of the process's life, including exit.
  static CRecursiveMutex* const g_mutex = new CRecursiveMutex();
  return *g_mutex;
}

void threadYield(bool sleep) {
  if (sleep)
    std::this_thread::sleep_for(std::chrono::microseconds(1));
  else
    std::this_thread::yield();
}

} // namespace tal
