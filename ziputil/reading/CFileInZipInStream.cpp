#include "ziputil/CZipReader.h"

#include "ziputil/bridge/MiniZipExtras.h"
#include "ziputil/bridge/MiniZipFailure.h"
#include "ziputil/reading/EntryDecoding.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>

namespace ziputil {
namespace {

tal::CIOError closedError() { return tal::CIOError(tal::CIOError::StreamClosed, tal::String(), tal::CProps(), nullptr); }

} // namespace

CZipReader::CFileInZipInStream::CFileInZipInStream(CZipReader* const& reader, tal::CURI const& entryURI,
                                                   long long const& length)
    : m_reader(reader), m_owner(reader), m_open(true), m_uri(entryURI), m_length(length), m_position(0) {}

CZipReader::CFileInZipInStream::~CFileInZipInStream() {
  try {
    close();
  } catch (std::exception& e) {
    tal::onExceptionInDestructorIgnored("drel::CZipReader::CFileInZipInStream", e, true);
  }
}

void CZipReader::CFileInZipInStream::checkOpen() const {
  if (!m_open) throw closedError();
}

void CZipReader::CFileInZipInStream::detach() {
  m_owner->m_streamOpen = false;
  m_open = false;
  m_reader = nullptr;
}

int CZipReader::CFileInZipInStream::readLax(void* buffer, int size) {
  checkOpen();
  tal::P<CZipReader> reader; // released after the lock, so the mutex outlives it
  tal::CMutexLock lock(m_owner->m_mutex);
  checkOpen(); // another thread may have closed the stream meanwhile
  reader = m_reader;
  if (!reader->m_zipStuff) {
    detach();
    tal::CIOError const error(tal::CIOError::StreamClosed,
                              tal::String("Cannot read file in ZIP archive - archive has already been closed"),
                              tal::uriProps(m_uri), nullptr);
    throw tal::CFileSystemError(tal::CFileSystemError::Unspecified, error);
  }
  if (m_verifyError) m_verifyError->throwClone();
  if (size <= 0) return 0;
  if (m_decoding) return readDecoded(static_cast<unsigned char*>(buffer), size);
  int const result = unzReadCurrentFile(reader->m_zipStuff->handle, buffer, static_cast<unsigned>(size));
  if (result < 0) {
    tal::CProps props = tal::uriProps(m_uri);
    props["result"] = tal::toString(result);
    tal::CIOError const error(tal::CIOError::ReadFailed, tal::String("unzReadCurrentFile failed"), props, nullptr);
    throwMinizipFailure(reader->m_zipStuff->io.getLastError(), result,
                        tal::CFileSystemError(tal::CFileSystemError::Unspecified, error));
  }
  m_position += result;
  if (m_verify && !m_verified) {
    m_crc = crc32(m_crc, static_cast<Bytef const*>(buffer), static_cast<uInt>(result));
    if (result < size || static_cast<unsigned long long>(m_position) >= m_storedSize) verifyEnd(*reader->m_zipStuff);
  }
  if (result < size) m_length = m_position;
  return result;
}

int CZipReader::CFileInZipInStream::readDecoded(unsigned char* buffer, int size) {
  int done = 0;
  try {
    unsigned long long const position = static_cast<unsigned long long>(m_position);
    unsigned long long const room = m_decodedLimit > position ? m_decodedLimit - position : 0;
    int const want = static_cast<int>(std::min<unsigned long long>(static_cast<unsigned long long>(size), room));
    while (done < want) {
      std::size_t const got = m_decoding->read(buffer + done, static_cast<std::size_t>(want - done));
      if (got == 0) break;
      done += static_cast<int>(got);
    }
    m_position += done;
    bool const atEnd = done < size || static_cast<unsigned long long>(m_position) >= m_decodedLimit;
    if (m_verify && !m_verified) {
      m_crc = crc32(m_crc, buffer, static_cast<uInt>(done));
      if (atEnd) verifyEnd(*m_reader->m_zipStuff);
    } else if (atEnd) {
      m_decoding->authenticate();
    }
  } catch (codecs::DecodeError const& failure) {
    try {
      m_decoding->rethrowBlamingChangedData(failure);
    } catch (codecs::DecodeError const& blamed) {
      throwDecodeFailure(blamed);
    }
  }
  if (done < size) m_length = m_position;
  return done;
}

void CZipReader::CFileInZipInStream::decodeWith(std::unique_ptr<CEntryDecoding> decoding, unsigned long long size,
                                                bool checkCRC) {
  m_decoding = std::move(decoding);
  m_decodedLimit = size;
  m_checkCRC = checkCRC;
}

void CZipReader::CFileInZipInStream::throwDecodeFailure(codecs::DecodeError const& failure) {
  throwVerifyFailure(CEntryDecoding::messageFor(failure));
}

void CZipReader::CFileInZipInStream::verifyAgainst(unsigned long crc, unsigned long long size) {
  m_verify = true;
  m_storedCRC = crc;
  m_storedSize = size;
  m_crc = crc32(0L, Z_NULL, 0);
}

void CZipReader::CFileInZipInStream::throwVerifyFailure(std::string const& message) {
  tal::CIOError const error(tal::CIOError::ReadFailed, tal::String(message.c_str()), tal::uriProps(m_uri), nullptr);
  m_verifyError = tal::CFileSystemError(tal::CFileSystemError::Unspecified, error).clone();
  m_verifyError->throwClone();
  __builtin_unreachable(); // throwClone never returns; virtual calls lose the attribute
}

void CZipReader::CFileInZipInStream::verifyEnd(ZipStuff& stuff) {
  m_verified = true;
  char text[160];
  if (static_cast<unsigned long long>(m_position) < m_storedSize) {
    if (m_decoding) m_decoding->authenticate(); // changed data is named as such first
    std::snprintf(text, sizeof text, "ZIP entry is shorter than its stored size: %lld of %llu bytes", m_position,
                  m_storedSize);
    throwVerifyFailure(text);
  }
  if (m_decoding) {
    if (m_decoding->hasMore() || !m_decoding->storedDataEndsThere()) {
      m_decoding->authenticate(); // changed data is named as such first
      std::snprintf(text, sizeof text, "ZIP entry's data does not end at its stored size of %llu bytes", m_storedSize);
      throwVerifyFailure(text);
    }
  } else {
    unsigned char beyond = 0;
    int const past = ziputil_unzReadPastEnd(stuff.handle, &beyond, 1);
    if (past != 0) {
      if (past == UNZ_ERRNO && stuff.io.getLastError()) stuff.io.getLastError()->throwClone(); // the file system failed
      std::snprintf(text, sizeof text, "ZIP entry's data does not end at its stored size of %llu bytes", m_storedSize);
      throwVerifyFailure(text);
    }
  }
  if (m_checkCRC && m_crc != m_storedCRC) {
    std::snprintf(text, sizeof text, "ZIP entry's CRC-32 does not match: computed %08lx, stored %08lx", m_crc,
                  m_storedCRC);
    throwVerifyFailure(text);
  }
}

void CZipReader::CFileInZipInStream::read(void* buffer, int size) {
  if (readLax(buffer, size) == size) return;
  tal::CIOError const error(tal::CIOError::UnexpectedEnd, tal::String(), tal::uriProps(m_uri), nullptr);
  throw tal::CFileSystemError(tal::CFileSystemError::Unspecified, error);
}

int CZipReader::CFileInZipInStream::readAvailable(void* buffer, int size) { return readLax(buffer, size); }

bool CZipReader::CFileInZipInStream::waitReadable(int) const {
  checkOpen();
  return true;
}

bool CZipReader::CFileInZipInStream::isEndOfStream() const {
  checkOpen();
  return m_position >= m_length;
}

int CZipReader::CFileInZipInStream::isEndOfStream_NonBlocking() const { return isEndOfStream() ? 1 : 0; }

long long CZipReader::CFileInZipInStream::getLength() const {
  checkOpen();
  return m_length;
}

long long CZipReader::CFileInZipInStream::getPosition() const {
  checkOpen();
  return m_position;
}

tal::CURI CZipReader::CFileInZipInStream::getURI() const { return tal::CURI(m_uri, nullptr); }

void CZipReader::CFileInZipInStream::seek(long long) {
  checkOpen();
  tal::CProps props;
  props["uri"] = getURI().toString(true);
  tal::CError const error(tal::String("CZipReader::CFileInZipInStream does not support seeking."), tal::String(), -1,
                          props, nullptr);
  throw tal::CFileSystemError(tal::CFileSystemError::NotSupported, error);
}

tal::P<tal::IRangeLock> CZipReader::CFileInZipInStream::lockRange(long long, long long, LockType) {
  checkOpen();
  throw tal::CIOError(tal::CIOError::LockNotSupported, tal::String(), tal::CProps(), nullptr);
}

void CZipReader::CFileInZipInStream::close() {
  if (!m_open) return;
  tal::P<CZipReader> reader; // released after the lock
  tal::CMutexLock lock(m_owner->m_mutex);
  if (!m_open) return;
  reader = m_reader;
  if (reader->m_zipStuff) {
    unzCloseCurrentFile(reader->m_zipStuff->handle); // a CRC mismatch here is deliberately not raised
    reader->m_zipStuff->io.getLastError();
    detach();
    return;
  }
  detach();
  tal::CIOError const error(tal::CIOError::ReadFailed,
                            tal::String("Cannot close file in ZIP archive - archive has already been closed"),
                            tal::uriProps(m_uri), nullptr);
  throw tal::CFileSystemError(tal::CFileSystemError::Unspecified, error);
}

} // namespace ziputil
