// ziputil::CZipWriter: adds entries to a ZIP archive that lives in a tal::IFileSystem.
#pragma once

#include "tal/Stream.h"
#include "ziputil/CMiniZipIO.h"

#include <zip.h>

#include <atomic>
#include <memory>

namespace ziputil {

/// Adds entries to an existing ZIP archive behind a tal::IFileSystem: the
/// archive is opened for adding (its entries are kept, new ones go after
/// them). Each entry is deflated (method 8, also at level 0) at the writer's
/// level, named in UTF-8 (flag 0x800), written with Zip64 extensions and an
/// empty comment, and encrypted when the writer has a password. Every byte
/// goes through a CMiniZipIO over the file system.
///
/// Heap-only and counted: tal::newObj<CZipWriter>(fs, uri, password, level).
/// Calling order: beginAddFile -> writes -> the entry stream's close, any
/// number of times, then close(). One entry is open at a time.
///
/// Errors: every tal::CError below has an empty context, code -1 and no cause;
/// "uri" is the archive URI's text, "result" minizip's code in decimal. When
/// minizip fails with -1 because the file system failed, the file system's own
/// error is rethrown unchanged instead.
///
/// Threads: beginAddFile and close, and the entry stream's write and close,
/// hold the writer's mutex for their whole run; several threads may add
/// entries in turn.
class CZipWriter : public tal::TRequireNewAlloc<tal::CBase> {
public:
  /// The deflate level, handed to zlib unchanged (any value -1..9 may be cast).
  enum CompLevel : std::int32_t {
    CompDefault = -1,
    CompStore = 0,
    CompFastest = 1,
    CompNormal = 6,
    CompBest = 9,
  };

  class CFileInZipOutStream;

  /// Opens the archive for adding (zipOpen2_64, APPEND_STATUS_ADDINZIP); the
  /// file must already hold a ZIP archive (see createEmptyArchive). Throws the
  /// file system's error, or CError "zipOpen2_64 failed" {"uri"}.
  CZipWriter(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password,
             CompLevel compressionLevel);
  /// Closes the archive; never throws (a failure is reported to
  /// tal::onExceptionInDestructorIgnored as "ziputil::CZipWriter").
  ~CZipWriter() override;

  /// Starts an entry named by the normalised path of `relativeURIInArchive`
  /// (UTF-8, taken as it is), with the time `time` (the empty value gives an
  /// all-zero DOS date), and returns its stream. Throws CIOError StreamClosed
  /// "ZIP file already closed" after close(); CError "Internal error:
  /// CZipWriter::beginAddFile called before previous added file was finished."
  /// while an entry is open; CInvalidArgError ("relativeURIInArchive is
  /// invalid", {"relativeURIInArchive"}) for an empty or absolute URI; CError
  /// "zipOpenNewFileInZip4_64 failed" {"uri", "result"}.
  tal::P<tal::IOutStream> beginAddFile(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time);

  /// Writes the central directory (with an empty archive comment) and releases
  /// the archive; a second call does nothing. The writer is closed afterwards
  /// even when this fails (CError "zipClose failed" {"uri", "result"}, or the
  /// file system's error). An entry still open is finished by minizip; its
  /// stream then reports the archive closed.
  void close();

private:
  /// The open archive: minizip's handle and the bridge it writes through.
  struct ArchiveState {
    explicit ArchiveState(tal::IFileSystem* fileSystem) : handle(nullptr), bridge(fileSystem) {}
    zipFile handle;
    CMiniZipIO bridge;
  };

  void checkCanBegin(tal::CURI const& relativeURIInArchive) const;
  int openEntry(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time);

  std::unique_ptr<ArchiveState> m_state;
  tal::CMutex m_mutex;
  tal::P<tal::IFileSystem> m_fileSystem;
  tal::CURI m_archiveURI;
  tal::String m_password;
  bool m_hasPassword;
  CompLevel m_level;
  bool m_entryOpen;

  friend class CFileInZipOutStream;
};

/// The output stream of one entry being added: strictly sequential, it counts
/// the bytes written and refuses seek, setLength and range locks. It keeps its
/// writer alive; closing it finishes the entry (so does dropping the last
/// reference to it).
///
/// Errors carry the entry's URI text under "uri". After close() every operation
/// but getURI and close throws CIOError StreamClosed (empty message, no
/// properties). Failures are CFileSystemError (Unspecified) from CIOError
/// WriteFailed: "zipWriteInFileInZip failed" / "zipCloseFileInZip failed"
/// {"uri", "result"}, or "Cannot write file in ZIP archive - archive has
/// already been closed" / "Cannot close file in ZIP archive - archive has
/// already been closed" {"uri"} when the writer was closed under the stream
/// (the stream is closed afterwards). The file system's own error wins when
/// minizip reports -1.
class CZipWriter::CFileInZipOutStream : public tal::CBase, public virtual tal::IOutStream {
public:
  CFileInZipOutStream(CZipWriter* const& writer, tal::CURI const& entryURI);
  /// Closes the stream; a failure goes to tal::onExceptionInDestructorIgnored
  /// as "drel::CZipWriter::CFileInZipOutStream".
  ~CFileInZipOutStream() override;

  /// Finishes the entry; the writer may then begin another even when this fails.
  void close() override;
  void write(void const* data, int size, tal::IWriteBarrier* barrier) override;
  /// write() of the slice's bytes with a null barrier.
  void writeKeepBuffer(tal::TConstBufferSlice<unsigned char> const& slice, tal::IWriteBarrier* barrier) override;
  /// flush(), then a new CDummyWriteBarrier.
  tal::P<tal::IWriteBarrier> createWriteBarrier(tal::IWriteBarrier* previous) override;
  /// Does nothing while open.
  void flush() override;
  /// Always throws CFileSystemError (NotSupported) "CZipWriter::CFileInZipOutStream
  /// does not support setLength." {"uri"}.
  void setLength(long long length) override;
  /// Equals getPosition().
  long long getLength() const override;
  /// Bytes accepted so far.
  long long getPosition() const override;
  tal::CURI getURI() const override;
  /// Always throws CFileSystemError (NotSupported) "CZipWriter::CFileInZipOutStream
  /// does not support seeking." {"uri"}.
  void seek(long long position) override;
  /// Always throws CIOError LockNotSupported.
  tal::P<tal::IRangeLock> lockRange(long long start, long long length, LockType type) override;

private:
  void checkOpen() const;
  /// CFileSystemError (Unspecified) from CIOError WriteFailed `message` with
  /// {"uri"}, and {"result"} when `result` is given.
  tal::CFileSystemError writeError(char const* message, int const* result) const;
  [[noreturn]] void throwNotSupported(char const* message) const;

  /// Marks the stream closed and lets the writer begin another entry; under the writer's mutex.
  void detach();

  /// The counted reference that keeps the writer alive while the stream is
  /// open; changed only under the writer's mutex.
  tal::P<CZipWriter> m_writer;
  /// The same writer, for reaching its mutex; valid while the stream is open.
  CZipWriter* const m_owner;
  /// Open until closed; read without the lock, so it is atomic.
  std::atomic<bool> m_open;
  tal::CURI m_uri;
  long long m_position;
};

/// Writes an empty ZIP archive (the end-of-central-directory record alone) to
/// `archiveURI`, creating the file or replacing what it held, so that a
/// CZipWriter can be opened on it. The file system's errors pass unchanged.
void createEmptyArchive(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI);

} // namespace ziputil
