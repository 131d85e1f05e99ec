#include "TestFileSystems.h"

#include <algorithm>

namespace testsupport {
namespace {

/// Forwards every operation to the inner stream; writes and setLength go
/// through the overridable hooks.
class CForwardingStream : public tal::CBase, public virtual tal::IInOutStream {
public:
  explicit CForwardingStream(tal::P<tal::IInOutStream> inner) : m_inner(std::move(inner)) {}

  tal::IInOutStream& inner() const { return *m_inner; }

  long long getLength() const override { return m_inner->getLength(); }
  long long getPosition() const override { return m_inner->getPosition(); }
  tal::CURI getURI() const override { return m_inner->getURI(); }
  void seek(long long position) override { m_inner->seek(position); }
  tal::P<tal::IRangeLock> lockRange(long long start, long long length, LockType type) override {
    return m_inner->lockRange(start, length, type);
  }
  void close() override { m_inner->close(); }
  void read(void* buffer, int size) override { m_inner->read(buffer, size); }
  int readLax(void* buffer, int size) override { return m_inner->readLax(buffer, size); }
  int readAvailable(void* buffer, int size) override { return m_inner->readAvailable(buffer, size); }
  bool waitReadable(int timeout) const override { return m_inner->waitReadable(timeout); }
  bool isEndOfStream() const override { return m_inner->isEndOfStream(); }
  int isEndOfStream_NonBlocking() const override { return m_inner->isEndOfStream_NonBlocking(); }
  void write(void const* data, int size, tal::IWriteBarrier* barrier) override { doWrite(data, size, barrier); }
  void writeKeepBuffer(tal::TConstBufferSlice<unsigned char> const& slice, tal::IWriteBarrier* barrier) override {
    doWrite(slice.getData(), slice.getLength(), barrier);
  }
  tal::P<tal::IWriteBarrier> createWriteBarrier(tal::IWriteBarrier* previous) override {
    return m_inner->createWriteBarrier(previous);
  }
  void flush() override { m_inner->flush(); }
  void setLength(long long length) override { doSetLength(length); }

protected:
  virtual void doWrite(void const* data, int size, tal::IWriteBarrier* barrier) {
    m_inner->write(data, size, barrier);
  }
  virtual void doSetLength(long long length) { m_inner->setLength(length); }

private:
  tal::P<tal::IInOutStream> m_inner;
};

/// The inner stream of a stream a wrapper opened, or the stream itself.
tal::IOutStream& unwrap(tal::IOutStream& stream) {
  auto* const wrapper = dynamic_cast<CForwardingStream*>(&stream);
  return wrapper ? static_cast<tal::IOutStream&>(wrapper->inner()) : stream;
}

class CDiskFullStream : public CForwardingStream {
public:
  CDiskFullStream(tal::P<CDiskFullFileSystem> owner, tal::P<tal::IInOutStream> inner)
      : CForwardingStream(std::move(inner)), m_owner(std::move(owner)) {}

protected:
  void doWrite(void const* data, int size, tal::IWriteBarrier* barrier) override {
    m_owner->write(inner(), data, size, barrier);
  }
  void doSetLength(long long length) override { m_owner->setLength(inner(), length); }

private:
  tal::P<CDiskFullFileSystem> m_owner;
};

class CBreakingStream : public CForwardingStream {
public:
  CBreakingStream(tal::P<CBrokenAfterFaultFileSystem> owner, tal::P<tal::IInOutStream> inner)
      : CForwardingStream(std::move(inner)), m_owner(std::move(owner)) {}

protected:
  void doWrite(void const* data, int size, tal::IWriteBarrier* barrier) override {
    m_owner->check(CBrokenAfterFaultFileSystem::BreakWrite, "write", getURI());
    CForwardingStream::doWrite(data, size, barrier);
  }

private:
  tal::P<CBrokenAfterFaultFileSystem> m_owner;
};

} // namespace

// ---- CBasicFileSystem -------------------------------------------------------

CBasicFileSystem::CBasicFileSystem(tal::IFileSystem* inner, bool forwardSync)
    : m_inner(inner), m_forwardSync(forwardSync) {}

tal::P<tal::IInOutStream> CBasicFileSystem::openStream(tal::CURI const& uri, int access, int const& flags) {
  return m_inner->openStream(uri, access, flags);
}

bool CBasicFileSystem::exists(tal::CURI const& uri) { return m_inner->exists(uri); }

void CBasicFileSystem::remove(tal::CURI const& uri) { m_inner->remove(uri); }

void CBasicFileSystem::sync(tal::IOutStream& stream) {
  if (m_forwardSync)
    m_inner->sync(stream);
  else
    tal::IFileSystem::sync(stream);
}

// ---- CDiskFullFileSystem ----------------------------------------------------

CDiskFullFileSystem::CDiskFullFileSystem(tal::IFileSystem* inner, long long room)
    : m_inner(inner), m_room(room), m_lowestRoom(room) {}

long long CDiskFullFileSystem::room() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_room;
}

long long CDiskFullFileSystem::lowestRoom() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lowestRoom;
}

void CDiskFullFileSystem::take(long long growth) {
  m_room -= growth;
  m_lowestRoom = std::min(m_lowestRoom, m_room);
}

tal::CIOError CDiskFullFileSystem::diskFullError(tal::CURI const& uri) {
  return tal::CIOError(tal::CIOError::WriteFailed, tal::String("No space left on device"), tal::uriProps(uri),
                       nullptr);
}

tal::P<tal::IInOutStream> CDiskFullFileSystem::openStream(tal::CURI const& uri, int access, int const& flags) {
  tal::P<tal::IInOutStream> inner = m_inner->openStream(uri, access, flags);
  return tal::P<tal::IInOutStream>::adopt(new CDiskFullStream(tal::P<CDiskFullFileSystem>(this), inner));
}

bool CDiskFullFileSystem::exists(tal::CURI const& uri) { return m_inner->exists(uri); }

long long CDiskFullFileSystem::lengthOf(tal::CURI const& uri) {
  if (!m_inner->exists(uri)) return 0;
  tal::P<tal::IInOutStream> in = m_inner->openStream(uri, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags);
  long long const length = in->getLength();
  in->close();
  return length;
}

void CDiskFullFileSystem::remove(tal::CURI const& uri) {
  std::lock_guard<std::mutex> lock(m_mutex);
  long long const length = lengthOf(uri);
  m_inner->remove(uri);
  take(-length);
}

void CDiskFullFileSystem::sync(tal::IOutStream& stream) { m_inner->sync(unwrap(stream)); }

void CDiskFullFileSystem::move(tal::CURI const& from, tal::CURI const& to) {
  std::lock_guard<std::mutex> lock(m_mutex);
  bool const same = from.toNormalized().toString(true) == to.toNormalized().toString(true);
  long long const replaced = same ? 0 : lengthOf(to);
  m_inner->move(from, to);
  take(-replaced);
}

void CDiskFullFileSystem::write(tal::IInOutStream& inner, void const* data, int size, tal::IWriteBarrier* barrier) {
  std::lock_guard<std::mutex> lock(m_mutex);
  long long const position = inner.getPosition();
  long long const length = inner.getLength();
  long long const growth = std::max(0LL, position + size - length);
  if (growth <= m_room) {
    inner.write(data, size, barrier);
    take(inner.getLength() - length);
    return;
  }
  long long const fits = std::max(0LL, length + m_room - position);
  if (fits > 0) {
    inner.write(data, static_cast<int>(fits), barrier);
    take(inner.getLength() - length);
  }
  ++m_refusals;
  throw diskFullError(inner.getURI());
}

void CDiskFullFileSystem::setLength(tal::IInOutStream& inner, long long newLength) {
  std::lock_guard<std::mutex> lock(m_mutex);
  long long const length = inner.getLength();
  if (newLength - length > m_room) {
    ++m_refusals;
    throw diskFullError(inner.getURI());
  }
  inner.setLength(newLength);
  take(inner.getLength() - length);
}

// ---- CBrokenAfterFaultFileSystem --------------------------------------------

CBrokenAfterFaultFileSystem::CBrokenAfterFaultFileSystem(CFaultyFileSystem* faulty, int breaks)
    : m_faulty(faulty), m_breaks(breaks) {}

void CBrokenAfterFaultFileSystem::check(Breaks which, char const* op, tal::CURI const& uri) {
  if ((m_breaks & which) == 0 || !m_faulty->fired()) return;
  ++m_failures;
  tal::CIOError::Code const code = which == BreakOpen    ? tal::CIOError::OpenFailed
                                   : which == BreakWrite ? tal::CIOError::WriteFailed
                                                         : tal::CIOError::DeleteFailed;
  throw tal::CIOError(code, tal::String("Device gone: ") + tal::String(op), tal::uriProps(uri), nullptr);
}

tal::P<tal::IInOutStream> CBrokenAfterFaultFileSystem::openStream(tal::CURI const& uri, int access,
                                                                  int const& flags) {
  check(BreakOpen, "open", uri);
  tal::P<tal::IInOutStream> inner = m_faulty->openStream(uri, access, flags);
  return tal::P<tal::IInOutStream>::adopt(new CBreakingStream(tal::P<CBrokenAfterFaultFileSystem>(this), inner));
}

bool CBrokenAfterFaultFileSystem::exists(tal::CURI const& uri) { return m_faulty->exists(uri); }

void CBrokenAfterFaultFileSystem::remove(tal::CURI const& uri) {
  check(BreakRemove, "remove", uri);
  m_faulty->remove(uri);
}

void CBrokenAfterFaultFileSystem::sync(tal::IOutStream& stream) { m_faulty->sync(unwrap(stream)); }

void CBrokenAfterFaultFileSystem::move(tal::CURI const& from, tal::CURI const& to) { m_faulty->move(from, to); }

// ---- CRecordingFileSystem ---------------------------------------------------

CRecordingFileSystem::CRecordingFileSystem(tal::IFileSystem* inner) : m_inner(inner) {}

std::set<std::string> CRecordingFileSystem::opened() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::set<std::string> result;
  for (auto const& entry : m_opened) result.insert(entry.first);
  return result;
}

std::set<std::string> CRecordingFileSystem::existing() const {
  std::map<std::string, tal::CURI> opened;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    opened = m_opened;
  }
  std::set<std::string> result;
  for (auto const& entry : opened)
    if (m_inner->exists(entry.second)) result.insert(entry.first);
  return result;
}

std::vector<std::string> CRecordingFileSystem::openCalls() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_openCalls;
}

void CRecordingFileSystem::clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_opened.clear();
  m_openCalls.clear();
}

tal::P<tal::IInOutStream> CRecordingFileSystem::openStream(tal::CURI const& uri, int access, int const& flags) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string const text = uri.toString(true).toUTF8();
    m_opened.emplace(text, uri);
    m_openCalls.push_back(text + " access " + std::to_string(access) + " flags " + std::to_string(flags));
  }
  return m_inner->openStream(uri, access, flags);
}

bool CRecordingFileSystem::exists(tal::CURI const& uri) { return m_inner->exists(uri); }

void CRecordingFileSystem::remove(tal::CURI const& uri) { m_inner->remove(uri); }

void CRecordingFileSystem::sync(tal::IOutStream& stream) { m_inner->sync(stream); }

void CRecordingFileSystem::move(tal::CURI const& from, tal::CURI const& to) { m_inner->move(from, to); }

} // namespace testsupport
