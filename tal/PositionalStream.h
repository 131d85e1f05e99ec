// The stream shared by the framework's file systems: an IInOutStream over a
// file that can be read and written at any offset, with read and write
// buffering. Internal to libtal (not installed).
#pragma once

#include "tal/ReadBlocks.h"
#include "tal/Stream.h"

#include <vector>

namespace tal {

/// A file addressed by offset. Every failure throws a CError carrying "uri".
class IPositionalFile : public virtual IBase {
public:
  /// Reads up to `size` bytes at `offset`; returns the count, 0 only at the end.
  virtual std::size_t readAt(long long offset, void* buffer, std::size_t size) = 0;
  /// Writes all `size` bytes at `offset`, extending the file as needed.
  virtual void writeAt(long long offset, void const* data, std::size_t size) = 0;
  /// Length in bytes, or -1 when unknown.
  virtual long long size() = 0;
  virtual void truncate(long long length) = 0;
  /// Makes the bytes written so far (and the length) durable.
  virtual void sync() = 0;
  /// Releases the file; called once.
  virtual void closeFile() = 0;
};

/// Buffered stream over an IPositionalFile. seek() accepts any position: past
/// the end reads give nothing, and a negative position (an unsigned offset of
/// 2^63 or more, which minizip seeks to when it finds no archive) reads as past
/// the end and cannot be written. Reads fill one of two buffers of
/// `bufferSize` bytes, the one used less recently, so that reads going back
/// and forth between two parts of a file (an archive's central directory and
/// its entries) each keep theirs; a seek only moves the position, so a seek
/// that stays inside a buffer keeps it and a seek to the current position
/// costs nothing. Any write or setLength() empties both. Writes collect in a buffer of up to `bufferSize` bytes: a write
/// that starts inside the buffered range or at its end and fits goes into it
/// (overwriting what it covers), anything else flushes it first. flush(),
/// close(), a read and setLength() flush it too. A failed flush drops what
/// the buffer held. `bufferSize` 0 passes every call straight to the file.
/// One thread at a time may use a stream.
///
/// `owner` tags the stream with the file system that opened it (compared,
/// never dereferenced), so that file system can recognise its own streams
/// among the IOutStreams handed back to it, open or closed.
class CPositionalStream : public CBase, public virtual IInOutStream {
public:
  /// `context` names the stream's class in reports of failures its destructor swallows.
  CPositionalStream(P<IPositionalFile> file, CURI const& uri, bool writable, std::size_t bufferSize,
                    char const* context, void const* owner);
  /// Closes the stream if still open; a failure goes to onExceptionInDestructorIgnored(context, e, true).
  ~CPositionalStream() override;

  long long getLength() const override;
  long long getPosition() const override;
  CURI getURI() const override;
  void seek(long long position) override;
  /// Range locks are not supported: CIOError LockNotSupported.
  P<IRangeLock> lockRange(long long start, long long length, LockType type) override;
  /// Flushes and releases the file; the stream is closed even when that fails
  /// (the failure is then thrown).
  void close() override;

  void read(void* buffer, int size) override;
  int readLax(void* buffer, int size) override;
  int readAvailable(void* buffer, int size) override;
  bool waitReadable(int timeout) const override;
  bool isEndOfStream() const override;
  int isEndOfStream_NonBlocking() const override;

  void write(void const* data, int size, IWriteBarrier* barrier) override;
  void writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice, IWriteBarrier* barrier) override;
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override;
  void flush() override;
  void setLength(long long length) override;

  /// Whether the stream was constructed with this `owner` tag.
  bool isOwnedBy(void const* owner) const { return m_owner == owner; }
  /// Flushes the collected writes, then makes the file durable (IPositionalFile::sync).
  /// CIOError StreamClosed once closed.
  void sync();

private:
  void checkOpen() const;
  std::size_t readInto(unsigned char* out, std::size_t size);
  void flushWrites();

  P<IPositionalFile> m_file; ///< null once closed
  CURI m_uri;
  char const* m_context;
  void const* m_owner;
  bool m_writable;
  std::size_t m_bufferSize;
  long long m_position = 0;
  CReadBlocks m_readBlocks;
  std::vector<unsigned char> m_writeBuffer;
  long long m_writeStart = 0;
};

} // namespace tal
