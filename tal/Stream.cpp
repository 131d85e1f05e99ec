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

void IFileSystem::sync(IOutStream& stream) {
  CError refusal(String("This file system does not support sync."), String(), -1, uriProps(stream.getURI()), nullptr);
  throw CFileSystemError(CFileSystemError::NotSupported, refusal);
}

void IFileSystem::move(CURI const& from, CURI const&) {
  CError refusal(String("This file system does not support move."), String(), -1, uriProps(from), nullptr);
  throw CFileSystemError(CFileSystemError::NotSupported, refusal);
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
