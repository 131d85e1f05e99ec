#include "FaultyFileSystem.h"

namespace testsupport {
namespace {

/// Forwards every operation to the inner stream, counting and failing as armed.
class CFaultyStream : public tal::CBase, public virtual tal::IInOutStream {
public:
  CFaultyStream(tal::P<CFaultyFileSystem> owner, tal::P<tal::IInOutStream> inner)
      : m_owner(std::move(owner)), m_inner(std::move(inner)), m_uri(m_inner->getURI()) {}

  long long getLength() const override {
    m_owner->count(CFaultyFileSystem::Length, m_uri);
    return m_inner->getLength();
  }
  long long getPosition() const override {
    m_owner->count(CFaultyFileSystem::Tell, m_uri);
    return m_inner->getPosition();
  }
  tal::CURI getURI() const override { return m_inner->getURI(); }
  void seek(long long position) override {
    m_owner->count(CFaultyFileSystem::Seek, m_uri);
    m_inner->seek(position);
  }
  tal::P<tal::IRangeLock> lockRange(long long start, long long length, LockType type) override {
    return m_inner->lockRange(start, length, type);
  }
  void close() override {
    try {
      m_owner->count(CFaultyFileSystem::Close, m_uri);
    } catch (...) {
      m_inner->close(); // a failing close still closes
      throw;
    }
    m_inner->close();
  }
  void read(void* buffer, int size) override {
    m_owner->count(CFaultyFileSystem::Read, m_uri);
    m_inner->read(buffer, size);
  }
  int readLax(void* buffer, int size) override {
    m_owner->count(CFaultyFileSystem::Read, m_uri);
    return m_inner->readLax(buffer, size);
  }
  int readAvailable(void* buffer, int size) override {
    m_owner->count(CFaultyFileSystem::Read, m_uri);
    return m_inner->readAvailable(buffer, size);
  }
  bool waitReadable(int timeout) const override { return m_inner->waitReadable(timeout); }
  bool isEndOfStream() const override { return m_inner->isEndOfStream(); }
  int isEndOfStream_NonBlocking() const override { return m_inner->isEndOfStream_NonBlocking(); }
  void write(void const* data, int size, tal::IWriteBarrier* barrier) override {
    m_owner->count(CFaultyFileSystem::Write, m_uri);
    m_inner->write(data, size, barrier);
  }
  void writeKeepBuffer(tal::TConstBufferSlice<unsigned char> const& slice, tal::IWriteBarrier* barrier) override {
    m_owner->count(CFaultyFileSystem::Write, m_uri);
    m_inner->writeKeepBuffer(slice, barrier);
  }
  tal::P<tal::IWriteBarrier> createWriteBarrier(tal::IWriteBarrier* previous) override {
    return m_inner->createWriteBarrier(previous);
  }
  void flush() override { m_inner->flush(); }
  void setLength(long long length) override { m_inner->setLength(length); }

  tal::IInOutStream& inner() const { return *m_inner; }

private:
  tal::P<CFaultyFileSystem> m_owner;
  tal::P<tal::IInOutStream> m_inner;
  tal::CURI m_uri;
};

} // namespace

CInjectedError::CInjectedError(Code code, tal::String const& message, tal::CProps const& props)
    : tal::CIOError(code, message, props, nullptr) {}

tal::P<tal::CError> CInjectedError::clone() const { return tal::P<tal::CError>::adopt(new CInjectedError(*this)); }

void CInjectedError::throwClone() const { throw CInjectedError(*this); }

CFaultyFileSystem::CFaultyFileSystem(tal::IFileSystem* inner) : m_inner(inner) { reset(); }

char const* CFaultyFileSystem::opName(Op op) {
  static char const* const kNames[] = {"Open", "Read", "Write", "Seek", "Tell", "Close", "Length", "Sync", "Move"};
  static_assert(sizeof kNames / sizeof kNames[0] == OpCount, "one name per operation");
  return op >= 0 && op < OpCount ? kNames[op] : "?";
}

CInjectedError CFaultyFileSystem::injectedError(Op op, long long n, tal::CURI const& uri) {
  static tal::CIOError::Code const kCodes[] = {tal::CIOError::OpenFailed, tal::CIOError::ReadFailed,
                                               tal::CIOError::WriteFailed, tal::CIOError::SeekFailed,
                                               tal::CIOError::SeekFailed, tal::CIOError::Unknown,
                                               tal::CIOError::SeekFailed, tal::CIOError::WriteFailed,
                                               tal::CIOError::MoveFailed};
  static_assert(sizeof kCodes / sizeof kCodes[0] == OpCount, "one code per operation");
  tal::String const number = tal::toString(n);
  tal::CProps props;
  props["uri"] = uri.toString(true);
  props["injected"] = tal::String(opName(op)) + tal::String("#") + number;
  tal::String const message = tal::String("Injected ") + tal::String(opName(op)) + tal::String(" fault #") + number;
  return CInjectedError(kCodes[op], message, props);
}

void CFaultyFileSystem::failNth(Op op, long long n) {
  m_armedN = n;
  m_armedOp = n > 0 ? op : -1;
  m_fired = false;
}

long long CFaultyFileSystem::count(Op op) const { return m_counts[op].load(); }

void CFaultyFileSystem::reset() {
  for (auto& c : m_counts) c = 0;
  m_armedOp = -1;
  m_armedN = 0;
  m_fired = false;
}

bool CFaultyFileSystem::fired() const { return m_fired.load(); }

void CFaultyFileSystem::count(Op op, tal::CURI const& uri) {
  long long const n = ++m_counts[op];
  if (m_armedOp.load() == op && m_armedN.load() == n) {
    m_fired = true;
    throw injectedError(op, n, uri);
  }
}

tal::P<tal::IInOutStream> CFaultyFileSystem::openStream(tal::CURI const& uri, int access, int const& flags) {
  count(Open, uri);
  tal::P<tal::IInOutStream> inner = m_inner->openStream(uri, access, flags);
  return tal::P<tal::IInOutStream>::adopt(new CFaultyStream(tal::P<CFaultyFileSystem>(this), inner));
}

bool CFaultyFileSystem::exists(tal::CURI const& uri) { return m_inner->exists(uri); }

void CFaultyFileSystem::remove(tal::CURI const& uri) { m_inner->remove(uri); }

void CFaultyFileSystem::sync(tal::IOutStream& stream) {
  count(Sync, stream.getURI());
  auto* const wrapper = dynamic_cast<CFaultyStream*>(&stream);
  m_inner->sync(wrapper ? static_cast<tal::IOutStream&>(wrapper->inner()) : stream);
}

void CFaultyFileSystem::move(tal::CURI const& from, tal::CURI const& to) {
  count(Move, from);
  m_inner->move(from, to);
}

} // namespace testsupport
