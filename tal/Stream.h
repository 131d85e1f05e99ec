// Streams, file systems and locks: the stream interfaces, write barriers, the
// file-system interface, mutexes and the scoped lock.
#pragma once

#include "tal/Buffer.h"
#include "tal/Error.h"
#include "tal/String.h"

namespace tal {

/// A held range lock; releasing the last reference unlocks the range.
class IRangeLock : public virtual IBase {};

/// Operations common to input and output streams.
class IStreamBase : public virtual IBase {
public:
  enum LockType : std::int32_t {
    LockShared = 1,
    LockExclusive = 2,
  };

  /// Length in bytes, or -1 when unknown.
  virtual long long getLength() const = 0;
  virtual long long getPosition() const = 0;
  /// The resource the stream reads or writes.
  virtual CURI getURI() const = 0;
  /// Moves to an absolute position.
  virtual void seek(long long position) = 0;
  virtual P<IRangeLock> lockRange(long long start, long long length, LockType type) = 0;
  /// Finishes and releases the resource; afterwards every other operation
  /// fails with CIOError StreamClosed.
  virtual void close() = 0;
};

class IInStream : public virtual IStreamBase {
public:
  /// Reads exactly `size` bytes or throws (CIOError UnexpectedEnd at an early end).
  virtual void read(void* buffer, int size) = 0;
  /// Reads up to `size` bytes; fewer (down to 0) only at the end of the stream.
  virtual int readLax(void* buffer, int size) = 0;
  /// Reads what can be had without waiting.
  virtual int readAvailable(void* buffer, int size) = 0;
  /// Waits up to `timeout` milliseconds until data can be read.
  virtual bool waitReadable(int timeout) const = 0;
  virtual bool isEndOfStream() const = 0;
  /// isEndOfStream() without blocking, as 0 or 1 (or -1 where it cannot tell).
  virtual int isEndOfStream_NonBlocking() const = 0;
};

class IWriteBarrier : public virtual IBase {};

/// The barrier that is complete from the start.
class CDummyWriteBarrier : public CBase, public virtual IWriteBarrier {};

class IOutStream : public virtual IStreamBase {
public:
  /// Writes all `size` bytes or throws. `barrier` may be null.
  virtual void write(void const* data, int size, IWriteBarrier* barrier) = 0;
  /// Writes the bytes of a slice; the stream may keep a reference to its buffer.
  virtual void writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice, IWriteBarrier* barrier) = 0;
  /// A marker for the point the write sequence has reached.
  virtual P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) = 0;
  virtual void flush() = 0;
  virtual void setLength(long long length) = 0;
};

class IInOutStream : public virtual IInStream, public virtual IOutStream {};

/// Where files live. Every failure throws a CError (or subclass); nothing
/// returns null.
class IFileSystem : public virtual IBase {
public:
  /// Access modes for openStream.
  enum Access : int {
    AccessRead = 1,
    AccessReadWrite = 3,
  };
  /// Open flags for openStream: create the file when it is missing (2 goes
  /// with read-write access, 4 with read access).
  enum OpenFlags : int {
    OpenNoFlags = 0,
    OpenCreate = 2,
    OpenCreateForRead = 4,
  };

  virtual P<IInOutStream> openStream(CURI const& uri, int access, int const& flags) = 0;
  virtual bool exists(CURI const& uri) = 0;
  /// Deletes a file; throws CIOError DeleteFailed when it cannot.
  virtual void remove(CURI const& uri) = 0;

  // Additions to the operations above. Both have a default implementation, so
  // that existing file systems keep building; it refuses the operation.

  /// Addition: makes everything written so far through `stream` durable: once
  /// this returns, the bytes (and the file's length) survive a crash of the
  /// process or of the machine. `stream` must be a stream this file system
  /// opened, still open; its buffered writes are flushed first.
  /// Errors are the file system's own (a stream it did not open is a
  /// CInvalidArgError, a closed one CIOError StreamClosed, a failure to write
  /// or to sync CIOError WriteFailed). The default throws CFileSystemError
  /// NotSupported wrapping the CError "This file system does not support
  /// sync." with {"uri": the stream's URI text}.
  virtual void sync(IOutStream& stream);
  /// Addition: moves the file `from` to `to`, replacing any file at `to`,
  /// atomically: at every instant `to` names either its old file or the moved
  /// one, never a mix or nothing (when it existed before). Durable once it
  /// returns. Streams open on either file keep working on the bytes they had.
  /// A failure throws CIOError MoveFailed with {"uri": from's text} (file
  /// systems may add properties). The default throws CFileSystemError
  /// NotSupported wrapping the CError "This file system does not support
  /// move." with {"uri": from's text}.
  virtual void move(CURI const& from, CURI const& to);
};

class IMutex : public virtual IBase {
public:
  virtual void lock() = 0;
  virtual void unlock() = 0;
};

/// A blocking, non-recursive mutual-exclusion lock.
class CMutex : public CBase, public virtual IMutex {
public:
  CMutex();
  ~CMutex() override;
  CMutex(CMutex const&) = delete;
  CMutex& operator=(CMutex const&) = delete;
  void lock() override;
  void unlock() override;

private:
  struct Impl;
  Impl* m_impl;
};

/// Scoped lock: takes a counted reference to the mutex, then locks it; the
/// destructor unlocks, then drops the reference. If lock() throws, the
/// reference is dropped and nothing is unlocked.
class CMutexLock : public CBase {
public:
  explicit CMutexLock(IMutex& mutex);
  ~CMutexLock() override;
  CMutexLock(CMutexLock const&) = delete;
  CMutexLock& operator=(CMutexLock const&) = delete;

private:
  P<IMutex> m_mutex;
};

/// The process-wide mutex that guards the lazy singletons. It is recursive:
/// one singleton's construction may build another on the same thread.
IMutex& getGlobalMutex();
/// Gives up the processor (`sleep` true: yield to any ready thread).
void threadYield(bool sleep);

} // namespace tal
