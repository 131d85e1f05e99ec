// ziputil::CZipWriter: adds entries to a ZIP archive that lives in a tal::IFileSystem.
#pragma once

#include "tal/Stream.h"
#include "ziputil/CMiniZipIO.h"
#include "ziputil/Encryption.h"

#include "ziputil/minizip/zip.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ziputil {

class CZipReader;
class CParallelDeflater;
class CEntryEncoding;

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
///
/// The archive's file is opened once, through the bridge, for reading and
/// writing without creating it (access 3, flags 0).
///
/// What survives a failure:
/// - A failed beginAddFile leaves the writer open and idle, ready for another
///   beginAddFile, and throws the error documented for it (the file system's
///   own error, unchanged, where it failed). Nothing of the entry stays in the
///   archive: the next entry begins where this one would have begun.
/// - A failed write of the entry stream leaves the stream open and its
///   position unchanged, and throws the file system's error unchanged. The
///   entry cannot be finished any more (addition): its close() takes it back
///   out of the archive and throws that first failure again; the writer is
///   then idle and other entries can be added. close() of the writer with
///   such an entry still open leaves it out too. A failed close() of the
///   entry stream takes the entry back likewise.
/// - A failed close() (or the destructor's close) puts the file back as it
///   was when the writer was opened, and the writer is closed.
/// - Only when putting back itself fails (the file system failing again) does
///   the thrown error carry more: the message of that second failure as the
///   property "rollbackError" (addition). The archive may then be damaged.
///   When an entry cannot be taken back (seeking back to its start fails),
///   the writer puts the whole file back instead and is closed.
/// A failure that minizip itself would pass over (a file-system call failing
/// under a call that minizip reports as successful) is a failure all the same.
///
/// Integrity (additions):
/// - Before the first byte is written, the constructor reads the archive's end
///   record and every central header whole; an archive that minizip opens but
///   whose end or central directory is cut short or damaged is refused with
///   CError "Damaged archive: <what>." {"uri", "offset"} (a non-empty file
///   without an end record: "Not a ZIP archive: no end-of-central-directory
///   record." {"uri"}; a file minizip cannot open at all still gives
///   "zipOpen2_64 failed"), and a failure of the file system while minizip
///   reads it is thrown even where minizip would carry on. The file is
///   untouched then.
/// - Putting the file back works from a copy, kept in memory from
///   construction, of the file's bytes from the old central directory on (the
///   central directory, end records and comment); a process killed meanwhile
///   cannot put anything back: use Options::atomicReplace when that matters.
///   Options::allOrNothing makes one writer, from construction to close(), one
///   transaction.
/// - close() cuts off whatever the old central directory and comment left
///   behind the new end record.
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

  /// Addition: how the writer commits.
  struct Options {
    /// false (the default): entries are added to the archive in place; a
    /// failed entry is taken back, a failed close() puts the file back (see
    /// above).
    ///
    /// true: the archive is never changed in place, and the writer is all or
    /// nothing (see allOrNothing). The constructor checks the
    /// archive's end and central directory (so that a file minizip could not
    /// open either is refused with the "Damaged archive" and "Not a ZIP
    /// archive" errors, not "zipOpen2_64 failed"), copies the whole archive to
    /// a new sibling file "<archive>.tmp-<16 hex digits>" (created; it must not
    /// exist) and makes the copy durable (IFileSystem::sync), and entries are
    /// added to that copy. close() writes its central directory, makes it
    /// durable (IFileSystem::sync on the stream that wrote it) and moves it
    /// over the archive (IFileSystem::move).
    /// So at every instant, whatever happens to the process or the machine, the
    /// file at the archive's URI is either the old archive or the complete new
    /// one. Any failure, including a file system without sync or move (their
    /// NotSupported errors), removes the copy and leaves the archive untouched;
    /// a process killed meanwhile leaves the copy behind. Costs a copy of the
    /// archive (its size again in bytes written, and the same free space);
    /// prefer it for archives that must survive crashes and full disks, the
    /// default for large archives that other copies already protect. Errors
    /// about the copy carry the copy's URI.
    bool atomicReplace = false;

    /// false (the default): a failed entry is taken back alone, and the writer
    /// goes on (see the class comment). true: the writer is one transaction
    /// from construction to close(): any failure after it may have changed the
    /// file (of beginAddFile, the entry stream's write or close, copyFileFrom,
    /// close()) puts the file back as it was when the writer was opened (in
    /// place) or removes the copy (atomicReplace), and closes the writer;
    /// entries finished before the failure are gone with it. The failing call
    /// throws its documented error; the first close() afterwards throws that
    /// error again (nothing was committed), later calls do nothing, and
    /// discard() does nothing. atomicReplace and omitEntry imply it.
    bool allOrNothing = false;

    /// false (the default): entries are recorded as made by MS-DOS (version
    /// made by 0) with external attributes 0. true: as made by Unix (version
    /// made by 0x031E), with the entry's Unix mode in the high 16 bits of the
    /// external attributes (EntryOptions::unixMode, else 0100644 for a file,
    /// 040755 for a folder entry, 0120777 for a symbolic link). Other tools,
    /// Info-ZIP unzip among them, then take the UTF-8 names as UTF-8 and
    /// restore the modes.
    bool madeByUnix = false;

    /// false (the default): close() writes the archive comment
    /// `archiveComment` (empty unless set). true: the comment the archive had
    /// when the writer opened it is kept.
    bool keepArchiveComment = false;
    std::string archiveComment;

    /// false (the default): an encrypted entry's header ends in the check
    /// byte 0, which only this library accepts. true: entries are written as
    /// streamed (general-purpose bit 3, followed by a data descriptor), and the
    /// encryption header's check byte is the high byte of the entry's DOS
    /// time, which Info-ZIP unzip, Python, 7-Zip and bsdtar check.
    bool interoperableEncryption = false;

    /// Addition: the encryption of the entries when the writer has a
    /// password. Traditional (the default; None means the same): PKWARE's
    /// cipher, through minizip, as beginAddFile describes. Aes128, Aes192 or
    /// Aes256: WinZip AES (AE-2: the entry's CRC-32 field holds 0, and a
    /// 10-byte HMAC-SHA1 code after the data authenticates it), which 7-Zip,
    /// WinZip, bsdtar and this library's reader read, Info-ZIP unzip 6.0 and
    /// Python's zipfile do not. The writer then compresses (deflate, or zstd
    /// with EntryOptions::Zstd) and encrypts each entry itself, with a salt
    /// from the system's random source (getrandom), and minizip stores the
    /// result raw: method 99 with the AES extra field (0x9901) in the local and
    /// central headers, general-purpose bit 0 set. Folder entries (names
    /// ending in "/") are not encrypted. interoperableEncryption does not apply
    /// to AES entries. A failure of the random source or of libcrypto when an
    /// entry begins throws CError with its message, and nothing is written.
    Encryption encryption = Encryption::Traditional;

    /// Addition: old entries to leave out of the new archive, for deleting
    /// entries and for replacing an entry by a new one of the same name. When
    /// set, the writer works as with atomicReplace (whatever that says), but
    /// the copy beside the archive starts empty: the constructor walks the
    /// old archive with a CZipReader (no password needed) and copies every
    /// entry for which omitEntry(reader) returns false, in order, with
    /// copyFileFrom: its stored bytes (never decompressed or decrypted) and
    /// its metadata, unchanged. The reader is positioned at the entry; the
    /// function may use its getters but must not move it. New entries then go
    /// after the copied ones, and close() moves the new archive over the old
    /// one. keepArchiveComment keeps the old archive's comment. Besides the
    /// errors of the archive checks above, the copies (copyFileFrom) and the
    /// reader, a walk that does not reach every entry the central directory
    /// lists throws CError "Damaged archive: the central directory lists <n>
    /// entries, but <m> could be read." {"uri"}, and a failure of the file
    /// system that minizip passed over while reading the old archive is
    /// thrown all the same. Every failure (of the file system, of the old
    /// archive's entries, or thrown by omitEntry, which passes unchanged)
    /// removes the copy and leaves the archive untouched. Empty (the default):
    /// nothing is left out and the writer works as the other options say. See
    /// omitNamed.
    std::function<bool(CZipReader& reader)> omitEntry;
  };

  /// Addition: an omitEntry function that leaves out every entry whose name
  /// matches one of `names` as tryGoToFile matches (both names cleaned,
  /// case-sensitive), duplicates included. When `omitted` is given, the
  /// stored names of the entries left out are appended to it, in order.
  static std::function<bool(CZipReader& reader)> omitNamed(std::vector<tal::CURI> const& names,
                                                           std::shared_ptr<std::vector<std::string>> omitted = nullptr);

  /// Addition: an entry whose data is given exactly as an archive stores it.
  struct RawEntry {
    /// The stored name, as bytes (not a URI: nothing is cleaned or
    /// normalised); not empty, at most 65,535 bytes.
    std::string name;
    /// The MS-DOS date and time (date in the high 16 bits); 0 takes `time`
    /// instead, as beginAddFile does.
    unsigned long dosDate = 0;
    tal::CTimeFields time;
    /// The compression method as stored: 0 stored, 8 deflated, or any other
    /// (0 to 65535): the data is never looked at.
    int method = 8;
    /// General-purpose flags. Kept: bit 0 (the data is encrypted: it starts
    /// with its 12-byte encryption header), bits 1-2 (deflate's option), bit 3
    /// (a data descriptor follows the data) and bit 11 (UTF-8 name); the
    /// others are dropped.
    int flags = 0x800;
    /// The CRC-32 and size of the uncompressed data.
    unsigned long crc32 = 0;
    unsigned long long uncompressedSize = 0;
    unsigned long internalAttributes = 0;
    unsigned long externalAttributes = 0;
    /// Version made by, whole (the high byte names the system).
    int versionMadeBy = 0;
    std::string comment;
    /// Extra fields of the local and the central header (bytes). A Zip64
    /// record (header ID 1) in them is dropped: the writer writes its own.
    std::string localExtraField;
    std::string centralExtraField;
  };

  /// Addition: starts an entry whose data, written to the returned stream, is
  /// already in its stored form (minizip's raw mode: zipOpenNewFileInZip4_64
  /// with raw 1, closed by zipCloseFileInZipRaw64 with the entry's CRC-32 and
  /// size). Nothing is compressed, checked or encrypted: the writer's level
  /// and password do not apply, and the writer's Options (madeByUnix,
  /// interoperableEncryption) do not change the entry's fields. Written with
  /// Zip64 extensions like every entry. The stream is a CFileInZipOutStream
  /// with that stream's behaviour and errors ("zipCloseFileInZipRaw64 failed"
  /// where the other says "zipCloseFileInZip failed"), and the integrity
  /// rules apply as to beginAddFile. Throws as beginAddFile when closed or an
  /// entry is open; CInvalidArgError for function "CZipWriter::beginAddRawFile"
  /// with "name is invalid" {"name"} (empty, longer than 65,535 bytes, or
  /// holding a NUL byte), "method is invalid" {"method"} (outside 0 to
  /// 65,535), "comment is invalid" {"comment"} (longer than 65,535 bytes, or
  /// holding a NUL byte) or "extra field is invalid" {} (longer than 65,535
  /// bytes, or longer than 65,515 locally where the writer adds its Zip64
  /// record); CError "zipOpenNewFileInZip4_64 failed" {"uri", "result"}.
  tal::P<tal::IOutStream> beginAddRawFile(RawEntry const& entry);

  /// Addition: copies the entry at which `reader` stands into this archive
  /// as it is stored: its name (stored bytes), DOS date, method, flags,
  /// CRC-32, sizes, internal and external attributes, version made by,
  /// comment and extra fields (less their Zip64 records) go to
  /// beginAddRawFile, and the bytes of reader.openCurrentFileRawStream() to
  /// its stream. An encrypted entry is copied encrypted, without a password.
  /// An entry stored with a DOS date of 0 is written with minizip's date of an
  /// empty time (0x00200000). Throws what those calls throw; when the reader
  /// fails under the unfinished entry, the entry is taken back as after the
  /// writer's own failures (and the writer gives up with allOrNothing); the
  /// reader is positioned as before, its raw stream closed.
  /// Entries of any method are copied, also those this library cannot read.
  void copyFileFrom(CZipReader& reader);

  /// Addition: what beginAddFile may choose for one entry.
  struct EntryOptions {
    enum Method : std::int32_t {
      WriterDefault, ///< deflated at the writer's level, as beginAddFile without options
      Stored,        ///< method 0: the bytes as they are
      Deflated,      ///< method 8 at `level`
      /// Addition: method 93, zstd, at `level` (1 to 22; -1 for zstd's default,
      /// 3): usually faster and smaller than deflate, read by 7-Zip, WinZip,
      /// libzip and this library's reader, not by Info-ZIP unzip 6.0 or
      /// Python's zipfile before 3.14. The writer compresses the data itself
      /// and minizip stores it raw, with the data's CRC-32.
      Zstd,
    };
    Method method = WriterDefault;
    /// The deflate level (-1 to 9) when `method` is Deflated; zstd's (-1, 1
    /// to 22) when it is Zstd.
    int level = -1;
    /// The Unix mode (st_mode: type and permission bits) recorded for the
    /// entry when the writer is madeByUnix; -1 for the default of its kind.
    int unixMode = -1;
    /// The entry is a symbolic link: the bytes written are its target. Recorded
    /// with mode 0120777 (or `unixMode`) when the writer is madeByUnix.
    bool symbolicLink = false;
    /// The entry comment (bytes; UTF-8 recommended).
    std::string comment;
  };

  /// Opens the archive for adding (zipOpen2_64, APPEND_STATUS_ADDINZIP); the
  /// file must already hold a ZIP archive (see createEmptyArchive). Throws the
  /// file system's error, or CError "zipOpen2_64 failed" {"uri"}.
  CZipWriter(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password,
             CompLevel compressionLevel);
  /// Addition: as the constructor above, with `options` (see Options).
  CZipWriter(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password,
             CompLevel compressionLevel, Options const& options);
  /// Closes the archive; never throws (a failure is reported to
  /// tal::onExceptionInDestructorIgnored as "ziputil::CZipWriter").
  ~CZipWriter() override;

  /// Starts an entry named by the normalised path of `relativeURIInArchive`
  /// (UTF-8, taken as it is), with the time `time` (the empty value leaves
  /// minizip's date fields zero, which it stores as the DOS date 0x00200000,
  /// 1980-01-00 00:00:00: give a real time for archives other tools check),
  /// and returns its stream. Throws CIOError StreamClosed
  /// "ZIP file already closed" after close(); CError "Internal error:
  /// CZipWriter::beginAddFile called before previous added file was finished."
  /// while an entry is open; CInvalidArgError ("relativeURIInArchive is
  /// invalid", {"relativeURIInArchive"}) for an empty or absolute URI; CError
  /// "zipOpenNewFileInZip4_64 failed" {"uri", "result"}.
  tal::P<tal::IOutStream> beginAddFile(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time);
  /// Addition: as beginAddFile above, with `options` for this entry (see
  /// EntryOptions). A folder entry is a name ending in "/" with no data.
  /// Besides the errors above, a level outside -1..9 for Deflated, or
  /// outside -1 and 1..22 for Zstd, throws CInvalidArgError ("level is
  /// invalid", {"level"}).
  tal::P<tal::IOutStream> beginAddFile(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time,
                                       EntryOptions const& options);

  /// Writes the central directory (with an empty archive comment) and releases
  /// the archive; a second call does nothing. The writer is closed afterwards
  /// even when this fails (CError "zipClose failed" {"uri", "result"}, or the
  /// file system's error), and the file is then put back as it was when the
  /// writer was opened. An entry still open is finished by minizip (unless a
  /// write of it failed: it is left out); its stream then reports the archive
  /// closed. With Options::allOrNothing, the first call after the writer gave
  /// up throws the failure that made it give up.
  void close();

  /// Addition: gives up everything this writer did and closes it: in place,
  /// the file is put back as it was when the writer was opened; with
  /// Options::atomicReplace, the copy is removed and the archive was never
  /// touched. An entry stream still open then reports the archive closed. A
  /// second call, or a call after close() or after the writer gave up, does
  /// nothing. Throws the file system's error when putting the file back fails
  /// (the writer is closed all the same).
  void discard();

private:
  /// The open archive: minizip's handle, the bridge it writes through, and
  /// what undoing the writer's changes needs (writing/WriterState.h).
  struct ArchiveState;

  void open(Options const& options);
  void openInPlace(ArchiveState& state);
  void openCopy(ArchiveState& state);
  /// Opens minizip on state.target; throws as the constructor documents.
  void openMinizip(ArchiveState& state);
  void checkCanBegin(tal::CURI const& relativeURIInArchive) const;
  /// What closing an entry written raw needs, and the internal attributes it
  /// starts with.
  struct RawClose {
    unsigned long crc32 = 0;
    unsigned long long uncompressedSize = 0;
    unsigned long internalAttributes = 0;
  };
  /// With `raw`, the entry is begun exactly as beginAddFile begins it, but in
  /// raw mode: its data comes compressed (CParallelDeflater), and the writer's
  /// password still encrypts it.
  tal::P<tal::IOutStream> beginEntry(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time,
                                     EntryOptions const* options, RawClose const* raw = nullptr);
  int openEntry(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time, EntryOptions const* options,
                RawClose const* raw, CEntryEncoding const* encoding);
  /// The encoding of an entry the writer compresses or encrypts itself (zstd,
  /// WinZip AES), or null for minizip's own entries.
  std::unique_ptr<CEntryEncoding> encodingFor(std::string const& name, EntryOptions const* options,
                                              RawClose const* raw) const;
  /// The method and level beginAddFile uses for an entry with `options`.
  void entryMethod(EntryOptions const* options, int& method, int& level) const;
  tal::P<CFileInZipOutStream> beginRaw(RawEntry const& entry);
  /// Marks `stream`, an entry stream of this writer, closed without finishing
  /// its entry (which discard() or a rollback then undoes), and drops it.
  void abandonEntry(tal::P<tal::IOutStream>& stream);
  /// Builds the copy without the entries Options::omitEntry leaves out.
  void openRebuilt(std::unique_ptr<ArchiveState> state);
  /// Cuts the target at minizip's write position: what lies beyond is the old
  /// central directory, end records and comment, which close() writes anew.
  void cutOldTail();
  /// Under the mutex, after a minizip call on the open archive (`before` is
  /// the bridge's last error before the call): whether it succeeded with no
  /// file-system call failing underneath.
  bool succeeded(int result, tal::P<tal::CError> const& before) const;
  /// After such a call that did not succeed: its failure (see writeFailure).
  tal::P<tal::CError> failureOf(int result, tal::P<tal::CError> const& before, tal::CError const& fallback) const;
  /// Records where the next entry begins; throws (nothing written) when that fails.
  void markEntry();
  /// Takes minizip and the file back to where the entry began; false when the
  /// seek back failed.
  bool undoEntry() noexcept;
  /// After the entry failed with `error`: takes it back (or, all or nothing,
  /// or when that fails, puts the whole file back and closes the writer), and
  /// throws `error`.
  [[noreturn]] void failEntry(tal::P<tal::CError> const& error);
  /// Puts the whole file back, closes the writer and throws `error`, adding
  /// "rollbackError" when putting back fails; unless `closing`, the writer's
  /// next close() throws `error` again.
  [[noreturn]] void rollBackAndThrow(tal::P<tal::CError> const& error, bool closing = false);
  /// Puts the file back as it was (in place) or removes the copy (atomic).
  void undoChanges(ArchiveState& state);

  std::unique_ptr<ArchiveState> m_state;
  tal::CMutex m_mutex;
  tal::P<tal::IFileSystem> m_fileSystem;
  tal::CURI m_archiveURI;
  Options m_options;
  tal::String m_password;
  bool m_hasPassword;
  CompLevel m_level;
  bool m_entryOpen;
  /// Every failure gives up the whole writer (Options::allOrNothing, atomicReplace, omitEntry).
  bool m_allOrNothing = false;
  /// The failure that made the writer give up, until a close() has thrown it again.
  tal::P<tal::CError> m_gaveUpFor;

  friend class CFileInZipOutStream;
  friend class CParallelDeflater;
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
  /// Runs `encode` on m_encoding with a sink that writes raw through minizip;
  /// `result` is the first failing write's (ZIP_OK until then), after which
  /// nothing more is written. An encoder's own failure spoils the entry as a
  /// failed write does, and is thrown.
  using RawSink = std::function<void(unsigned char const*, std::size_t)>;
  void writeEncoded(CZipWriter& writer, std::function<void(CEntryEncoding&, RawSink const&)> const& encode,
                    int& result);

  /// The counted reference that keeps the writer alive while the stream is
  /// open; changed only under the writer's mutex.
  tal::P<CZipWriter> m_writer;
  /// The same writer, for reaching its mutex; valid while the stream is open.
  CZipWriter* const m_owner;
  /// Open until closed; read without the lock, so it is atomic.
  std::atomic<bool> m_open;
  tal::CURI m_uri;
  long long m_position;
  /// Set for an entry written raw: closed by zipCloseFileInZipRaw64 with these.
  bool m_raw = false;
  unsigned long m_rawCRC = 0;
  unsigned long long m_rawSize = 0;
  /// Set for an entry the writer encodes itself (see CZipWriter::encodingFor);
  /// written raw, closed by zipCloseFileInZipRaw64.
  std::unique_ptr<CEntryEncoding> m_encoding;

  friend class CZipWriter;
};

/// Writes an empty ZIP archive (the end-of-central-directory record alone) to
/// `archiveURI`, creating the file or replacing what it held, so that a
/// CZipWriter can be opened on it. The file system's errors pass unchanged.
void createEmptyArchive(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI);

} // namespace ziputil
