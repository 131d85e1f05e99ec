// tal::CLocalFileSystem: `file:` URIs onto the operating system's files.
#pragma once

#include "tal/Stream.h"

namespace tal {

/// The local disk. A URI names a file by its `file:` scheme and decoded path
/// ("file:///tmp/a%20b.zip" is the file "/tmp/a b.zip"); the host must be
/// empty or "localhost". The path text is handed to the operating system as
/// UTF-8.
///
/// openStream: access 1 opens for reading, 3 for reading and writing; flags 2
/// or 4 create a missing file. Streams are buffered (reads fill 64 KiB; writes
/// collect until flush, close, a read, a seek-and-write elsewhere or
/// setLength), and a seek that stays inside the read buffer keeps it. seek()
/// accepts any position: past the end (negative positions included, read as
/// offsets of 2^63 and more) reads give nothing and writes extend the file
/// (WriteFailed for a negative position). One
/// thread at a time may use a stream; the file system itself may be used from
/// any number of threads.
///
/// Failures throw CIOError with the fitting code (OpenFailed, ReadFailed,
/// WriteFailed, SeekFailed, SetLengthFailed, DeleteFailed, UnexpectedEnd,
/// StreamClosed), the operating system's reason in the message ("Cannot open
/// file: No such file or directory") and the URI text under "uri". A URI that
/// is not a local `file:` URI throws CFileSystemError NotSupported.
class CLocalFileSystem : public CBase, public virtual IFileSystem {
public:
  /// Read buffer size of the streams.
  static constexpr std::size_t kBufferSize = 64 * 1024;

  P<IInOutStream> openStream(CURI const& uri, int access, int const& flags) override;
  /// True when the path names an existing file or folder.
  bool exists(CURI const& uri) override;
  /// Deletes the file; CIOError DeleteFailed with the reason when it cannot.
  void remove(CURI const& uri) override;

  /// The local path of a `file:` URI (UTF-8); throws as openStream does for
  /// other URIs.
  static std::string localPath(CURI const& uri);
};

} // namespace tal
