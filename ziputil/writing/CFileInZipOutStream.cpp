#include "ziputil/CZipWriter.h"

#include "ziputil/writing/EntryEncoding.h"

#include "ziputil/bridge/MiniZipFailure.h"
#include "ziputil/writing/WriterState.h"

#include <zip.h>

namespace ziputil {

CZipWriter::CFileInZipOutStream::CFileInZipOutStream(CZipWriter* const& writer, tal::CURI const& entryURI)
    : m_writer(writer), m_owner(writer), m_open(true), m_uri(entryURI), m_position(0) {}

CZipWriter::CFileInZipOutStream::~CFileInZipOutStream() {
  try {
    close();
  } catch (std::exception& e) {
    tal::onExceptionInDestructorIgnored("drel::CZipWriter::CFileInZipOutStream", e, true);
  } catch (...) {
  }
}

void CZipWriter::CFileInZipOutStream::checkOpen() const {
  if (!m_open) throw tal::CIOError(tal::CIOError::StreamClosed, tal::String(), tal::CProps(), nullptr);
}

void CZipWriter::CFileInZipOutStream::detach() {
  m_owner->m_entryOpen = false;
  m_open = false;
  m_writer = nullptr;
}

tal::CFileSystemError CZipWriter::CFileInZipOutStream::writeError(char const* message, int const* result) const {
  tal::CProps props = tal::uriProps(m_uri);
  if (result) props["result"] = tal::toString(*result);
  tal::CIOError const error(tal::CIOError::WriteFailed, tal::String(message), props, nullptr);
  return tal::CFileSystemError(tal::CFileSystemError::Unspecified, error);
}

void CZipWriter::CFileInZipOutStream::throwNotSupported(char const* message) const {
  tal::CError const error(tal::String(message), tal::String(), -1, tal::uriProps(getURI()), nullptr);
  throw tal::CFileSystemError(tal::CFileSystemError::NotSupported, error);
}

void CZipWriter::CFileInZipOutStream::write(void const* data, int size, tal::IWriteBarrier*) {
  checkOpen();
  if (size < 0 || (data == nullptr && size > 0))
    throw tal::CInvalidArgError(tal::String("CZipWriter::CFileInZipOutStream::write"),
                                tal::String(size < 0 ? "size is negative" : "data is null"), tal::uriProps(m_uri));
  tal::P<CZipWriter> writer; // released after the lock, so the mutex outlives it
  tal::CMutexLock lock(m_owner->m_mutex);
  checkOpen(); // another thread may have closed the stream meanwhile
  writer = m_writer;
  if (!writer->m_state) {
    detach();
    throw writeError("Cannot write file in ZIP archive - archive has already been closed", nullptr);
  }
  // zlib's crc32 starts over for a null pointer: an empty write passes an empty buffer instead.
  static unsigned char const kNothing = 0;
  if (size == 0 && data == nullptr) data = &kNothing;
  tal::P<tal::CError> const before = writer->m_state->bridge.getLastError();
  int result = ZIP_OK;
  if (m_encoding) {
    writeEncoded(*writer, [&](CEntryEncoding& encoding, codecs::EncodedSink const& sink) {
      encoding.write(static_cast<unsigned char const*>(data), static_cast<std::size_t>(size), sink);
    }, result);
  } else {
    result = zipWriteInFileInZip(writer->m_state->handle, data, static_cast<unsigned>(size));
  }
  if (!writer->succeeded(result, before)) {
    tal::P<tal::CError> const failure = writer->failureOf(result, before, writeError("zipWriteInFileInZip failed", &result));
    // The stream stays open and its position as it was; the entry cannot be finished any more: its close
    // reports the first failure and takes the entry back.
    if (writer->m_allOrNothing) writer->rollBackAndThrow(failure);
    if (!writer->m_state->entryFailure) writer->m_state->entryFailure = failure;
    failure->throwClone();
  }
  m_position += static_cast<long long>(size);
}

void CZipWriter::CFileInZipOutStream::close() {
  if (!m_open) return;
  tal::P<CZipWriter> writer; // released after the lock
  tal::CMutexLock lock(m_owner->m_mutex);
  if (!m_open) return;
  writer = m_writer;
  detach();
  if (!writer->m_state) throw writeError("Cannot close file in ZIP archive - archive has already been closed", nullptr);
  // An entry whose write failed is not finished: it is taken back, and its close reports that failure.
  if (tal::P<tal::CError> const failed = writer->m_state->entryFailure) writer->failEntry(failed);
  tal::P<tal::CError> const before = writer->m_state->bridge.getLastError();
  if (m_encoding) { // the encoder's last bytes, and AES's code
    int result = ZIP_OK;
    writeEncoded(*writer, [](CEntryEncoding& encoding, codecs::EncodedSink const& sink) { encoding.finish(sink); },
                 result);
    if (!writer->succeeded(result, before))
      writer->failEntry(writer->failureOf(result, before, writeError("zipWriteInFileInZip failed", &result)));
  }
  bool const raw = m_raw || m_encoding;
  // Written raw by CParallelDeflater: the size it gave. Encoded here: the size the encoding counted. The
  // encoding's CRC-32 to record (0 for AES) wins over CParallelDeflater's.
  unsigned long long const size = m_raw ? m_rawSize : m_encoding ? m_encoding->size() : 0;
  unsigned long const crc = m_encoding ? m_encoding->crcToRecord() : m_rawCRC;
  int const result = raw ? zipCloseFileInZipRaw64(writer->m_state->handle, size, crc)
                         : zipCloseFileInZip(writer->m_state->handle);
  if (!writer->succeeded(result, before))
    writer->failEntry(writer->failureOf(
        result, before, writeError(raw ? "zipCloseFileInZipRaw64 failed" : "zipCloseFileInZip failed", &result)));
}

void CZipWriter::CFileInZipOutStream::writeEncoded(
    CZipWriter& writer, std::function<void(CEntryEncoding&, RawSink const&)> const& encode, int& result) {
  zipFile const handle = writer.m_state->handle;
  auto const sink = [&](unsigned char const* out, std::size_t n) {
    if (result == ZIP_OK) result = zipWriteInFileInZip(handle, out, static_cast<unsigned>(n));
  };
  try {
    encode(*m_encoding, sink);
  } catch (std::exception& e) { // the encoder failed (memory, say): the entry is spoiled as by a failed write
    tal::P<tal::CError> const failure(tal::CStdExceptionError::exceptionToError(&e)->clone());
    if (writer.m_allOrNothing) writer.rollBackAndThrow(failure);
    if (!writer.m_state->entryFailure) writer.m_state->entryFailure = failure;
    failure->throwClone();
  }
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
