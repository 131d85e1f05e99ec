// tal::CMemoryFileSystem: files held in memory.
#pragma once

#include "tal/Stream.h"

#include <map>
#include <string>

namespace tal {

/// Files held in memory, reachable by whoever holds this file system. Any URI
/// names a file; "mem:" URIs such as "mem:/archive.zip" are the suggested
/// form. Two URIs name the same file when their normalised text forms are
/// equal ("mem:/a/./b" and "MEM:/a/b" are one file). Streams write directly to
/// the file's bytes, so what one stream writes the others see at once: a read
/// that starts after another stream's write has returned gets the written
/// bytes. Reads of less than 64 KiB are served from one of two 64 KiB read
/// buffers of the stream's own (the one used less recently is refilled, from
/// the position read), and only while the file has not changed since it was
/// filled (each file counts its changes; the check takes no lock), so many
/// small reads cost one copy under the file's lock. Safe under
/// concurrent use: the file table and each file's bytes have their own locks
/// (one thread at a time per stream).
///
/// openStream: access 1 reads, 3 reads and writes (any other access is a
/// CInvalidArgError); flags 2 or 4 create a missing file, otherwise a missing
/// file throws CIOError OpenFailed "Cannot open file: No such file" with
/// "uri". Streams keep the CLocalFileSystem contract (reads and writes at any
/// position, UnexpectedEnd, WriteFailed on read-only streams and negative
/// positions, LockNotSupported, StreamClosed after close); their destructor
/// reports a swallowed failure as "tal::CMemoryFileSystem::CStream".
class CMemoryFileSystem : public CBase, public virtual IFileSystem {
public:
  CMemoryFileSystem();
  ~CMemoryFileSystem() override;

  P<IInOutStream> openStream(CURI const& uri, int access, int const& flags) override;
  bool exists(CURI const& uri) override;
  /// Deletes the file; open streams keep its bytes. CIOError DeleteFailed when missing.
  void remove(CURI const& uri) override;
  /// Checks that `stream` is open and was opened by this file system, and does
  /// nothing more: memory is as durable as it gets. A stream of another file
  /// system (or of another CMemoryFileSystem) throws CInvalidArgError "Invalid
  /// argument passed to 'CMemoryFileSystem::sync': the stream was not opened by
  /// this CMemoryFileSystem." with "uri"; a closed one CIOError StreamClosed.
  void sync(IOutStream& stream) override;
  /// Under the file table's lock, `to` becomes the name of from's file and
  /// `from` names nothing; a file `to` named before is dropped from the table,
  /// and streams open on either file keep their bytes. Moving a file onto its
  /// own name changes nothing. A missing `from` throws CIOError MoveFailed
  /// "Cannot move file: No such file" with {"uri": from} and changes nothing.
  void move(CURI const& from, CURI const& to) override;

  /// Creates or replaces a file; streams already open keep the bytes they had.
  void setFile(CURI const& uri, std::string bytes);
  /// A copy of a file's bytes; CIOError OpenFailed "Cannot open file: No such file" with "uri" when missing.
  std::string getFile(CURI const& uri) const;
  /// With true, streams opened afterwards report getLength() == -1 (unknown),
  /// which makes seeking from the end impossible for their users.
  void setLengthUnknown(bool unknown);

  class CFile;

private:
  P<CFile> find(CURI const& uri) const;

  mutable CMutex m_mutex;
  std::map<std::string, P<CFile>> m_files;
  bool m_lengthUnknown = false;
};

} // namespace tal
