#include "ziputil/CZipWriter.h"

#include "ziputil/MiniZipFailure.h"

#include <zip.h>

namespace ziputil {

CZipWriter::CFileInZipOutStream::CFileInZipOutStream(CZipWriter* const& writer, tal::CURI const& entryURI)
    : m_writer(writer), m_uri(entryURI), m_position(0) {}

CZipWriter::CFileInZipOutStream::~CFileInZipOutStream() {
  try {
    close();
  } catch (std::exception& e) {
    tal::onExceptionInDestructorIgnored("drel::CZipWriter::CFileInZipOutStream", e, true);
  } catch (...) {
  }
}

void CZipWriter::CFileInZipOutStream::checkOpen() const {
  if (!m_writer) throw tal::CIOError(tal::CIOError::StreamClosed, tal::String(), tal::CProps(), nullptr);
}

void CZipWriter::CFileInZipOutStream::throwWriteError(char const* message, int result, bool withResult) const {
  tal::CProps props = tal::uriProps(m_uri);
  if (withResult) props["result"] = tal::toString(result);
  tal::CIOError const error(tal::CIOError::WriteFailed, tal::String(message), props, nullptr);
  throw tal::CFileSystemError(tal::CFileSystemError::Unspecified, error);
}

void CZipWriter::CFileInZipOutStream::throwNotSupported(char const* message) const {
  tal::CProps props;
  props["uri"] = getURI().toString(true);
  tal::CError const error(tal::String(message), tal::String(), -1, props, nullptr);
  throw tal::CFileSystemError(tal::CFileSystemError::NotSupported, error);
}

void CZipWriter::CFileInZipOutStream::write(void const* data, int size, tal::IWriteBarrier*) {
  checkOpen();
  tal::P<CZipWriter> const writer = m_writer; // outlives the lock, so the mutex does too
  tal::CMutexLock lock(writer->m_mutex);
  if (!writer->m_state) {
    writer->m_entryOpen = false;
    m_writer = nullptr;
    throwWriteError("Cannot write file in ZIP archive - archive has already been closed", 0, false);
  }
  int const result = zipWriteInFileInZip(writer->m_state->handle, data, static_cast<unsigned>(size));
  if (result == ZIP_OK) {
    m_position += static_cast<long long>(size);
    return;
  }
  tal::P<tal::CError> bridgeError = result == ZIP_ERRNO ? writer->m_state->bridge.getLastError() : nullptr;
  if (bridgeError) bridgeError->throwClone();
  throwWriteError("zipWriteInFileInZip failed", result, true);
}

void CZipWriter::CFileInZipOutStream::close() {
  if (!m_writer) return;
  tal::P<CZipWriter> const writer = m_writer; // released after the lock
  tal::CMutexLock lock(writer->m_mutex);
  writer->m_entryOpen = false;
  m_writer = nullptr;
  if (!writer->m_state) throwWriteError("Cannot close file in ZIP archive - archive has already been closed", 0, false);
  int const result = zipCloseFileInZip(writer->m_state->handle);
  tal::P<tal::CError> bridgeError = writer->m_state->bridge.getLastError();
  if (result == ZIP_OK) return;
  if (result == ZIP_ERRNO && bridgeError) bridgeError->throwClone();
  throwWriteError("zipCloseFileInZip failed", result, true);
}

void CZipWriter::CFileInZipOutStream::writeKeepBuffer(tal::TConstBufferSlice<unsigned char> const& slice,
                                                       tal::IWriteBarrier*) {
  write(slice.getData(), slice.getLength(), nullptr);
}

tal::P<tal::IWriteBarrier> CZipWriter::CFileInZipOutStream::createWriteBarrier(tal::IWriteBarrier*) {
  flush();
  return tal::P<tal::IWriteBarrier>(tal::newObj<tal::CDummyWriteBarrier>());
}

void CZipWriter::CFileInZipOutStream::flush() { checkOpen(); }

void CZipWriter::CFileInZipOutStream::setLength(long long) {
  checkOpen();
  throwNotSupported("CZipWriter::CFileInZipOutStream does not support setLength.");
}

long long CZipWriter::CFileInZipOutStream::getLength() const { return getPosition(); }

long long CZipWriter::CFileInZipOutStream::getPosition() const {
  checkOpen();
  return m_position;
}

tal::CURI CZipWriter::CFileInZipOutStream::getURI() const { return tal::CURI(m_uri, nullptr); }

void CZipWriter::CFileInZipOutStream::seek(long long) {
  checkOpen();
  throwNotSupported("CZipWriter::CFileInZipOutStream does not support seeking.");
}

tal::P<tal::IRangeLock> CZipWriter::CFileInZipOutStream::lockRange(long long, long long, LockType) {
  checkOpen();
  throw tal::CIOError(tal::CIOError::LockNotSupported, tal::String(), tal::CProps(), nullptr);
}

} // namespace ziputil
