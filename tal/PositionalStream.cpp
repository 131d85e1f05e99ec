#include "tal/PositionalStream.h"

#include <algorithm>
#include <cstring>

namespace tal {

CPositionalStream::CPositionalStream(P<IPositionalFile> file, CURI const& uri, bool writable, std::size_t bufferSize,
                                     char const* context, void const* owner)
    : m_file(std::move(file)), m_uri(uri), m_context(context), m_owner(owner), m_writable(writable),
      m_bufferSize(bufferSize), m_readBlocks(bufferSize) {}

CPositionalStream::~CPositionalStream() {
  if (!m_file) return;
  try {
    close();
  } catch (std::exception& e) {
    onExceptionInDestructorIgnored(m_context, e, true);
  }
}

void CPositionalStream::checkOpen() const {
  if (!m_file) throw CIOError(CIOError::StreamClosed, String(), uriProps(m_uri), nullptr);
}

long long CPositionalStream::getLength() const {
  checkOpen();
  long long length = m_file->size();
  if (length < 0) return -1;
  long long const written = m_writeStart + static_cast<long long>(m_writeBuffer.size());
  return m_writeBuffer.empty() ? length : std::max(length, written);
}

long long CPositionalStream::getPosition() const {
  checkOpen();
  return m_position;
}

CURI CPositionalStream::getURI() const { return CURI(m_uri, nullptr); }

void CPositionalStream::seek(long long position) {
  checkOpen();
  m_position = position;
}

P<IRangeLock> CPositionalStream::lockRange(long long, long long, LockType) {
  checkOpen();
  throw CIOError(CIOError::LockNotSupported, String(), uriProps(m_uri), nullptr);
}

void CPositionalStream::close() {
  checkOpen();
  P<IPositionalFile> file = m_file;
  m_file = nullptr;
  m_readBlocks.release();
  std::exception_ptr failure;
  try {
    if (!m_writeBuffer.empty()) file->writeAt(m_writeStart, m_writeBuffer.data(), m_writeBuffer.size());
  } catch (...) {
    failure = std::current_exception();
  }
  std::vector<unsigned char>().swap(m_writeBuffer);
  file->closeFile(); // released even when the last write failed
  if (failure) std::rethrow_exception(failure);
}

void CPositionalStream::flushWrites() {
  if (m_writeBuffer.empty()) return;
  try {
    m_file->writeAt(m_writeStart, m_writeBuffer.data(), m_writeBuffer.size());
  } catch (...) {
    m_writeBuffer.clear(); // what failed to reach the file is not written again
    throw;
  }
  m_writeBuffer.clear(); // its storage stays for the next writes
}

std::size_t CPositionalStream::readInto(unsigned char* out, std::size_t size) {
  std::size_t done = 0;
  if (m_position < 0) return 0; // beyond any file: minizip seeks to offset 2^64-1 when it finds no archive
  while (done < size) {
    long long const at = m_position;
    std::size_t n;
    if (size - done >= m_bufferSize && !m_readBlocks.holds(at))
      n = m_file->readAt(at, out + done, size - done);
    else
      n = m_readBlocks.read(at, 0, out + done, size - done, [&](unsigned char* into, std::size_t capacity,
                                                                 unsigned long long&) {
        return m_file->readAt(at, into, capacity);
      });
    if (n == 0) break;
    done += n;
    m_position += static_cast<long long>(n);
  }
  return done;
}

int CPositionalStream::readLax(void* buffer, int size) {
  checkOpen();
  if (size <= 0) return 0;
  flushWrites();
  return static_cast<int>(readInto(static_cast<unsigned char*>(buffer), static_cast<std::size_t>(size)));
}

void CPositionalStream::read(void* buffer, int size) {
  if (readLax(buffer, size) < size) throw CIOError(CIOError::UnexpectedEnd, String(), uriProps(m_uri), nullptr);
}

int CPositionalStream::readAvailable(void* buffer, int size) { return readLax(buffer, size); }

bool CPositionalStream::waitReadable(int) const {
  checkOpen();
  return true;
}

bool CPositionalStream::isEndOfStream() const {
  long long length = getLength();
  return m_position < 0 || (length >= 0 && m_position >= length);
}

int CPositionalStream::isEndOfStream_NonBlocking() const { return isEndOfStream() ? 1 : 0; }

void CPositionalStream::write(void const* data, int size, IWriteBarrier*) {
  checkOpen();
  if (!m_writable)
    throw CIOError(CIOError::WriteFailed, String("The stream is open for reading only"), uriProps(m_uri), nullptr);
  if (size <= 0) return;
  if (m_position < 0)
    throw CIOError(CIOError::WriteFailed, String("Cannot write beyond the largest file offset"), uriProps(m_uri),
                   nullptr);
  std::size_t const n = static_cast<std::size_t>(size);
  m_readBlocks.drop(); // the read buffers may hold what is being overwritten
  // A write that starts inside the buffered range or at its end, and fits, goes into the buffer: so
  // going back to fill in a header just written (as minizip does after each entry) costs no file write.
  long long const bufferEnd = m_writeStart + static_cast<long long>(m_writeBuffer.size());
  bool const buffered = !m_writeBuffer.empty() && m_position >= m_writeStart && m_position <= bufferEnd &&
                        static_cast<std::size_t>(m_position - m_writeStart) + n <= m_bufferSize;
  if (!buffered) flushWrites();
  if (!buffered && n >= m_bufferSize) {
    m_file->writeAt(m_position, data, n);
  } else {
    if (m_writeBuffer.empty()) {
      m_writeStart = m_position;
      m_writeBuffer.reserve(m_bufferSize);
    }
    std::size_t const offset = static_cast<std::size_t>(m_position - m_writeStart);
    if (offset + n > m_writeBuffer.size()) m_writeBuffer.resize(offset + n);
    std::memcpy(m_writeBuffer.data() + offset, data, n);
  }
  m_position += static_cast<long long>(n);
}

void CPositionalStream::writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice, IWriteBarrier* barrier) {
  write(slice.getData(), static_cast<int>(slice.getLength()), barrier);
}

P<IWriteBarrier> CPositionalStream::createWriteBarrier(IWriteBarrier*) {
  flush();
  return P<IWriteBarrier>(newObj<CDummyWriteBarrier>());
}

void CPositionalStream::flush() {
  checkOpen();
  flushWrites();
}

void CPositionalStream::sync() {
  checkOpen();
  flushWrites();
  m_file->sync();
}

void CPositionalStream::setLength(long long length) {
  checkOpen();
  if (!m_writable)
    throw CIOError(CIOError::SetLengthFailed, String("The stream is open for reading only"), uriProps(m_uri), nullptr);
  flushWrites();
  m_readBlocks.drop();
  m_file->truncate(length);
}

} // namespace tal
