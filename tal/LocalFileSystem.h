// tal::CLocalFileSystem: `file:` URIs onto the operating system's files.
#pragma once

#include "tal/Stream.h"

namespace tal {

/// The local disk. A URI names a file by its `file:` scheme and decoded path
/// ("file:///tmp/a%20b.zip" is the file "/tmp/a b.zip"); the host must be
/// empty or "localhost". The path text is handed to the operating system as
/// UTF-8.
///
/// openStream: access 1 opens for reading (O_RDONLY), 3 for reading and
/// writing (O_RDWR); any other access is a CInvalidArgError. Flags 2 or 4
/// create a missing file (mode 0666 less the umask); an existing file is kept
/// as it is. A folder cannot be opened (OpenFailed).
///
/// Streams are buffered: reads fill one of two 64 KiB buffers (the one used
/// less recently, so reads going back and forth between two parts of a file
/// keep both), and a seek only moves the position, so a seek that stays inside
/// a buffer keeps it and a seek to the current position makes no system call.
/// Writes collect in a 64 KiB buffer (a write going back into the collected
/// bytes changes them there) until flush(), createWriteBarrier(), close(), a
/// read, a write that neither starts inside nor right after them or does not
/// fit, or setLength(); getLength() counts the collected bytes. seek() accepts any position: past
/// the end reads give nothing and writes extend the file with zeros; a negative
/// position (read as an offset of 2^63 and more) reads as past the end and
/// fails writes with WriteFailed. Range locks are not supported (lockRange
/// throws CIOError LockNotSupported). Streams opened for reading refuse
/// write() (WriteFailed) and setLength() (SetLengthFailed). close() flushes
/// and closes the file; when that fails it throws, and the stream is closed
/// anyway. After close() every operation but getURI() throws CIOError
/// StreamClosed. A stream dropped while open is closed by its destructor, which
/// reports a failure to onExceptionInDestructorIgnored("tal::CLocalFileSystem::CStream", e, true).
/// One thread at a time may use a stream; the file system itself may be used
/// from any number of threads.
///
/// Failures throw CIOError with the fitting code (OpenFailed, ReadFailed,
/// WriteFailed, SetLengthFailed, DeleteFailed, MoveFailed, UnexpectedEnd, StreamClosed;
/// SeekFailed when the length cannot be read; Unknown when closing fails), the
/// operating system's reason in the message ("Cannot open file: No such file or
/// directory") and the URI text under "uri". A URI that is not a local `file:`
/// URI throws CFileSystemError NotSupported wrapping the CError "CLocalFileSystem
/// supports only file: URIs.".
class CLocalFileSystem : public CBase, public virtual IFileSystem {
public:
  /// Read buffer size of the streams.
  static constexpr std::size_t kBufferSize = 64 * 1024;

  P<IInOutStream> openStream(CURI const& uri, int access, int const& flags) override;
  /// True when the path names an existing file or folder.
  bool exists(CURI const& uri) override;
  /// Deletes the file; CIOError DeleteFailed with the reason when it cannot.
  void remove(CURI const& uri) override;
  /// Flushes the stream's collected writes, then fsync(2)s its file. `stream`
  /// must come from a CLocalFileSystem (any instance), else CInvalidArgError
  /// "Invalid argument passed to 'CLocalFileSystem::sync': the stream was not
  /// opened by a CLocalFileSystem." with "uri"; a closed stream throws CIOError
  /// StreamClosed; a failed write or sync CIOError WriteFailed ("Cannot write
  /// file: <reason>", "Cannot sync file: <reason>") with "uri".
  void sync(IOutStream& stream) override;
  /// rename(2)s `from` to `to`, then fsync(2)s the folder of `to` and, when it
  /// is another one, the folder of `from`. A failed rename throws CIOError
  /// MoveFailed "Cannot move file: <reason>" with {"uri": from, "to": to} and
  /// changes nothing; a failed folder sync (after the file has moved) throws
  /// CIOError MoveFailed "Cannot sync folder: <reason>" with "uri" the
  /// folder's `file:` URI. Folders can be moved too, as rename(2) allows.
  /// A file that replaces a regular file first takes that file's permission
  /// bits (and, where the process may, its owner and group), so that replacing
  /// a file with a new version does not change who may read it; where that
  /// cannot be done the move goes ahead with the moved file's own.
  void move(CURI const& from, CURI const& to) override;

  /// The local path of a `file:` URI (UTF-8); throws as openStream does for
  /// other URIs.
  static std::string localPath(CURI const& uri);
};

} // namespace tal
