// ziputil::CZipReader: reads a ZIP archive that lives in a tal::IFileSystem.
#pragma once

#include "tal/Buffer.h"
#include "tal/Stream.h"
#include "ziputil/CMiniZipIO.h"
#include "ziputil/Encryption.h"

#include "ziputil/minizip/unzip.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace ziputil {

class CentralDirectory;
class CEntryDecoding;
namespace codecs {
class DecodeError;
}

/// Opens one ZIP archive through a tal::IFileSystem, walks its entries in
/// central-directory order or jumps to a named one, describes the current
/// entry, and opens it as a tal::IInStream. Every byte of the archive passes
/// through a CMiniZipIO over the file system.
///
/// Heap-only and counted: create it with tal::newObj<CZipReader>(fs, uri, password).
///
/// Calling order: construct; any number of nextFile() / tryGoToFile(); after a
/// true result the getters describe that entry and openCurrentFileStream() may
/// be called; the entry stream must be closed before the reader moves on;
/// close() (or the destructor) ends the archive.
///
/// Errors: every tal::CError below has an empty context, code -1 and no cause;
/// "uri" is the archive URI's text (toString(true)), "result" minizip's code in
/// decimal. When minizip fails with -1 because the file system failed, the file
/// system's own error is rethrown unchanged instead.
///
/// Threads: nextFile, tryGoToFile and close, and the entry stream's reads and
/// close, hold the reader's mutex for their whole duration. openCurrentFileStream
/// and the getters take no lock: do not run them concurrently with positioning
/// or closing.
class CZipReader : public tal::TRequireNewAlloc<tal::CBase> {
public:
  /// The open archive's minizip state, and the entry-name rules.
  struct ZipStuff {
    explicit ZipStuff(tal::IFileSystem* fileSystem) : handle(nullptr), io(fileSystem), fileInfo() {}

    unzFile handle;              ///< from unzOpen2_64
    CMiniZipIO io;               ///< the bridge minizip reads through
    unz_file_info64 fileInfo;    ///< the current entry, filled when positioning

    /// The cleaned, relative URI of a stored entry name: backslashes become
    /// "/", leading and trailing slashes go, colons are removed, blanks are
    /// trimmed (right, then left), and an empty result becomes "_". Dot
    /// segments and inner slashes stay. Never rejects a name.
    static tal::CURI pathInArchiveToSafeURI(tal::String const& pathInArchive);
    /// minizip's name comparer: 0 when two UTF-8 names are equal after
    /// pathInArchiveToSafeURI (case-sensitive), else -1 or 1. Falls back to
    /// strcmp of the raw bytes when decoding or cleaning throws. Never throws.
    static int compareFileNames(void* file, const char* name1, const char* name2);
  };

  class CFileInZipInStream;

  /// Addition: what the reader checks.
  struct Options {
    /// When true, every entry stream checks the entry when a read reaches its
    /// end (the read that returns the entry's last stored byte, or returns
    /// short): that read throws CFileSystemError (Unspecified) from CIOError
    /// ReadFailed {"uri": the entry's URI text} when the entry holds fewer
    /// bytes than its stored size ("ZIP entry is shorter than its stored
    /// size: <n> of <size> bytes"), when its data goes on past the stored size
    /// or its deflate stream does not end there ("ZIP entry's data does not
    /// end at its stored size of <size> bytes"), or when its bytes do not match
    /// the stored CRC-32 ("ZIP entry's CRC-32 does not match: computed
    /// <8 hex digits>, stored <8 hex digits>"). Every later read throws the
    /// same error. Off by default: the entry stream then hands out what minizip
    /// decompresses, up to the stored size, unchecked.
    bool verifyEntries = false;
    /// The largest dictionary or window an entry's method may ask for
    /// (LZMA's and xz's dictionaries, zstd's window): an entry that asks for
    /// more is refused when it is opened, before anything is allocated (see
    /// openCurrentFileStream). 128 MiB (the default) takes everything xz -9e,
    /// 7-Zip's ultra settings and zstd up to level 22 write. Reading one
    /// entry then needs at most this plus a fixed amount per method: Deflate64
    /// about 200 KiB, bzip2 3.8 MiB, LZMA up to 6 MiB of probabilities, xz
    /// 1 MiB, zstd 256 KiB; stored and deflated entries need no dictionary.
    unsigned long long maxDecoderWindow = 128ULL << 20;
  };

  /// Opens the archive (unzOpen2_64 through the bridge); does not position it.
  /// Throws the file system's error when the archive cannot be read, else
  /// CError "File is not a valid ZIP archive." {"uri"}. A non-empty `password`
  /// is used for every entry opened.
  CZipReader(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password);
  /// Addition: as the constructor above, with `options` (see Options).
  CZipReader(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password,
             Options const& options);
  /// Closes the archive; never throws (a failure is reported to
  /// tal::onExceptionInDestructorIgnored as "ziputil::CZipReader").
  ~CZipReader() override;

  /// Moves to the next entry (the first on the first call): true when
  /// positioned, false at the end (the current URI is then empty). Throws
  /// CIOError StreamClosed "ZIP file already closed" after close(), CError
  /// "CZipReader cannot advance to next file because the current file is still
  /// open." while an entry stream is open, and "unzGoToFirstFile2 failed" /
  /// "unzGoToNextFile2 failed" {"uri", "result"} on other failures.
  bool nextFile();
  /// Moves to the first entry whose cleaned name equals the cleaned path of
  /// `relativeURI`: true when found; false (current URI empty) when not.
  /// Throws as nextFile, with "CZipReader cannot advance to another file
  /// because the current file is still open." and "unzLocateFile failed".
  bool tryGoToFile(tal::CURI const& relativeURI);
  /// Opens the current entry for reading (with the password when the reader
  /// has one). Throws CError "CZipReader not positioned at a file. Cannot open
  /// stream." when not positioned, and CFileSystemError (Unspecified) from
  /// CError "unzOpenCurrentFilePassword failed" / "unzOpenCurrentFile failed"
  /// {"uri", "result"} when minizip refuses: among others with result -106
  /// (ZIPUTIL_UNZ_BADPASSWORD) for a wrong password and -107
  /// (ZIPUTIL_UNZ_BADMETHOD) for an entry compressed with another method than
  /// stored or deflated, which is never handed out as raw bytes. Takes no lock.
  ///
  /// Addition: entries of the methods Deflate64 (9), bzip2 (12), LZMA (14),
  /// zstd (93, and the older 20) and xz (95), and WinZip AES entries (method
  /// 99, AE-1 and AE-2, 128 to 256-bit keys, holding any of these methods or
  /// stored or deflated data), with or without traditional encryption, are
  /// decoded by the library (stored and deflated entries stay minizip's, as
  /// above). Their streams behave as every entry stream, and:
  /// - a WinZip AES entry without a password gives result -102
  ///   (UNZ_PARAMERROR) and a wrong one -106 (ZIPUTIL_UNZ_BADPASSWORD), as
  ///   traditional encryption does; its authentication code is always checked
  ///   when its stored data has been read to its end, and the read that gets
  ///   there throws CFileSystemError (Unspecified) from CIOError ReadFailed
  ///   "ZIP entry's WinZip AES authentication code does not match: its
  ///   encrypted data was changed or damaged" {"uri": the entry's URI text}
  ///   when it does not match;
  /// - data the method cannot decode throws the same error class with
  ///   "ZIP entry cannot be read: <what the decoder found>", at the open
  ///   (a dictionary or window above Options::maxDecoderWindow, a header that
  ///   cannot be read) or at the read that meets it; every later read throws
  ///   it again;
  /// - Options::verifyEntries checks sizes, the CRC-32 (not for AE-2 entries,
  ///   which store none) and that the compressed data ends where the method's
  ///   data ends, with verifyEntries' messages.
  /// Other methods (PPMd, ...) still give -107.
  tal::P<tal::IInStream> openCurrentFileStream();

  /// The current entry's cleaned relative URI; empty when not positioned.
  tal::CURI getCurrentFileRelativeURI() const;
  /// Sizes in bytes; 0 when not positioned.
  long long getCurrentFileUncompressedSize() const;
  long long getCurrentFileCompressedSize() const;
  /// The entry's modification time; empty when not positioned or when the
  /// stored day of month is outside 1..31.
  tal::CTimeFields getCurrentFileModifiedTimeFields() const;
  /// True when the current entry's stored name ends with "/" or "\" (a folder
  /// entry; the relative URI has lost that slash). False when not positioned.
  bool isCurrentFileDirectory() const;
  /// The CRC-32 stored for the current entry; 0 when not positioned.
  unsigned long getCurrentFileCRC32() const;
  /// Addition: the current entry's compression method as stored (0 stored,
  /// 8 deflated, anything else cannot be read); -1 when not positioned.
  int getCurrentFileMethod() const;
  /// Addition: the method of the current entry's data: for a WinZip AES entry
  /// (stored method 99) the method its extra field names, for others the
  /// stored method; -1 when not positioned. Reads the extra field as
  /// getCurrentFileExtraField does (and throws as it does); an AES entry
  /// without a readable AES field gives 99.
  int getCurrentFileRealMethod() const;
  /// Addition: how the current entry is encrypted: None without general-purpose
  /// bit 0; AES with the key size its extra field names for a WinZip AES
  /// entry; Traditional otherwise. None when not positioned. Reads the extra
  /// field of AES entries as getCurrentFileRealMethod does.
  Encryption getCurrentFileEncryption() const;
  /// Addition: the current entry's name exactly as stored, as bytes (whatever
  /// its encoding; the relative URI always decodes it as UTF-8); empty when
  /// not positioned.
  std::string getCurrentFileRawName() const;
  /// Addition: whether the current entry's UTF-8 flag (general-purpose bit
  /// 11) is set, which says its stored name is UTF-8; without it the name's
  /// encoding is the writer's (often code page 437). False when not positioned.
  bool isCurrentFileNameUTF8() const;
  /// Addition: whether the current entry is encrypted (general-purpose bit 0).
  /// False when not positioned.
  bool isCurrentFileEncrypted() const;
  /// Addition: the current entry's "version made by" field, whole: the high
  /// byte names the system that wrote it (0 MS-DOS, 3 Unix, ...), the low byte
  /// the format version. -1 when not positioned.
  int getCurrentFileVersionMadeBy() const;
  /// Addition: the current entry's external file attributes as stored (their
  /// meaning depends on the system that made the entry). 0 when not positioned.
  unsigned long getCurrentFileExternalAttributes() const;
  /// Addition: the Unix mode (type and permission bits, as st_mode) carried in
  /// the high 16 bits of the external attributes when the entry was made by
  /// Unix (version made by 3) and those bits are not all zero; -1 otherwise,
  /// and when not positioned.
  int getCurrentFileUnixMode() const;
  /// Addition: whether the current entry is a symbolic link: made by Unix
  /// with the link type in its mode. Its contents are then the link's target.
  /// False when not positioned.
  bool isCurrentFileSymbolicLink() const;
  /// Addition: the current entry's comment and its central extra field, as
  /// stored (bytes). Empty when not positioned. They are read from the archive
  /// when asked for, under the reader's mutex, so that a read of an entry
  /// stream on another thread is not disturbed. Throw as nextFile does when
  /// minizip fails ("unzGetCurrentFileInfo64 failed" {"uri", "result"}).
  std::string getCurrentFileComment() const;
  std::string getCurrentFileExtraField() const;
  /// Addition: leaves the current entry (not positioned afterwards) so that
  /// the next nextFile() moves to the first entry again. Throws as nextFile
  /// does after close() and while an entry stream is open ("CZipReader cannot
  /// go back to the first file because the current file is still open.").
  void rewind();
  /// Addition: the number of entries as the end record states it (an archive
  /// of more than 65,535 entries without a Zip64 end record states only the
  /// low 16 bits of it; nextFile walks them all). -1 after close().
  long long getEntryCount() const;
  /// Addition: the archive comment as stored (bytes); empty after close().
  /// Reads from the archive under the reader's mutex; throws as
  /// getCurrentFileComment does ("unzGetGlobalComment failed").
  std::string getArchiveComment() const;

  /// Closes the archive; a second call does nothing. The current relative URI
  /// stays; every other getter gives its value for "not positioned", and
  /// openCurrentFileStream throws CIOError StreamClosed "ZIP file already
  /// closed" {"uri"}. The archive counts as closed even when unzClose fails ("unzClose failed" {"uri", "result"}, or
  /// the file system's error). An entry stream still open finds the archive closed.
  void close();

  // ---- Additions: the current entry as stored, for copying it unchanged ----

  /// Addition: opens the current entry's data exactly as the archive stores
  /// it (minizip's raw mode): compressed, and with its 12-byte encryption
  /// header and encrypted bytes when it is encrypted; no password is needed
  /// and the reader's is not used. The stream is a CFileInZipInStream of
  /// getCurrentFileCompressedSize() bytes, with that stream's behaviour and
  /// errors, never checked against the CRC-32 (Options::verifyEntries does not
  /// apply to it); the reader refuses to move on until it is closed. Throws
  /// as openCurrentFileStream for a reader not positioned or closed; CError
  /// "CZipReader cannot open the current file because its stream is still
  /// open." {"uri"} while an entry stream is open; CFileSystemError
  /// (Unspecified) from CError "unzOpenCurrentFile2 failed" {"uri", "result"}
  /// when minizip refuses (a local header that is not there, say), or the file
  /// system's error, which wins over minizip's code. Entries of every method
  /// open, also those openCurrentFileStream refuses. Holds the reader's mutex
  /// while it opens.
  tal::P<tal::IInStream> openCurrentFileRawStream();
  /// Addition: the current entry's general-purpose flags as stored in its
  /// central header (bit 0 encrypted, bits 1-2 deflate's option, bit 3 sizes
  /// in a data descriptor, bit 11 UTF-8 name); 0 when not positioned.
  int getCurrentFileFlags() const;
  /// Addition: the current entry's MS-DOS date and time as stored (date in
  /// the high 16 bits); 0 when not positioned.
  unsigned long getCurrentFileDosDate() const;
  /// Addition: the current entry's internal file attributes as stored (bit 0:
  /// the writer took the data for text); 0 when not positioned.
  unsigned long getCurrentFileInternalAttributes() const;
  /// Addition: the extra field of the current entry's local header, as stored
  /// (bytes), read from the archive under the reader's mutex (also while the
  /// entry's stream is open). Empty when not positioned or after close().
  /// Throws CError "unzGetLocalExtrafield failed" {"uri", "result"} (or the
  /// file system's error) when it cannot be read.
  std::string getCurrentFileLocalExtraField() const;
  /// Addition: the last failure of the file system that the reader's minizip
  /// calls met, also one that minizip passed over (looking for the end
  /// records, or probing past the last entry), as the file system threw it;
  /// null when there was none, and after close().
  tal::P<tal::CError> getLastIOError() const;

private:
  bool isPositioned() const { return m_positioned; }
  /// Whether the current entry's information is at hand: positioned, and the archive still open.
  bool hasEntryInfo() const { return isPositioned() && m_zipStuff; }
  void checkCanMove(char const* stillOpenMessage) const;
  /// Clears the entry information and the name buffer: the whole buffer,
  /// though only the bytes the last positioning may have written need it.
  void clearEntry();
  /// Notes how much of the name buffer the positioning that returned `result` wrote.
  void noteNameWritten(int result);
  /// Where each entry's name, as compareFileNames compares it, first occurs:
  /// built by one walk at the first tryGoToFile, so that a lookup costs a hash
  /// find instead of a comparison with every entry.
  struct NameIndex;
  void buildIndex();
  /// The indexed answer for `name`: true with `found` set when found, true
  /// with `found` null when surely absent, false when the index cannot tell
  /// (the walk that built it stopped early): the linear locate decides.
  bool lookUp(std::string const& name, unz64_file_pos const*& found) const;
  /// Takes the entry minizip has just positioned at as the current one.
  bool takeCurrentEntry();
  /// Not positioned any more (the URI empty).
  void leaveEntry();
  tal::CURI const& currentURI() const;
  /// Whether the central directory is held in memory (loaded at the first
  /// positioning); positioning then reads it instead of moving minizip, which
  /// is brought to the current entry only when it must read (catchUpMinizip).
  bool useDirectory();
  /// Takes the directory's entry `ordinal` as the current one.
  bool takeDirectoryEntry(std::size_t ordinal);
  /// The ordinal tryGoToFile finds for the searched UTF-8 name (without zero
  /// bytes), or -1.
  long long findInDirectory(std::string const& name);
  /// Moves minizip to the current entry when positioning left it behind;
  /// minizip's result.
  int catchUpMinizip() const;
  [[noreturn]] void throwFailure(int result, char const* message) const;
  /// Throws the failure of opening the current entry with minizip's `result`.
  [[noreturn]] void throwEntryOpenFailure(int result) const;
  /// openCurrentFileStream for the entries the library decodes itself.
  tal::P<tal::IInStream> openDecodedStream();
  /// The current entry's comment (`comment` true) or central extra field.
  std::string readEntryText(bool comment) const;

  std::unique_ptr<ZipStuff> m_zipStuff;
  Options m_options;
  mutable tal::CMutex m_mutex;
  tal::P<tal::IFileSystem> m_fileSystem;
  tal::CURI m_archiveURI;
  tal::String m_password;
  bool m_hasPassword;
  bool m_atFirst;
  bool m_streamOpen;
  tal::TBuffer<char> m_nameBuffer;
  /// Bytes of the name buffer that may be non-zero.
  std::size_t m_nameUsed;
  std::unique_ptr<NameIndex> m_index;
  std::unique_ptr<CentralDirectory> m_directory;
  bool m_directoryLoaded = false;
  /// The current (or last) entry's ordinal in m_directory.
  std::size_t m_ordinal = 0;
  /// Whether minizip still stands at another entry than m_ordinal.
  mutable bool m_minizipBehind = false;
  /// The current entry's URI; while m_uriPending, it is still to be built from
  /// the directory's entry m_ordinal (currentURI() does that, once).
  mutable tal::CURI m_currentRelativeURI;
  mutable std::atomic<bool> m_uriPending{false};
  mutable std::mutex m_uriMutex;
  /// Scratch text for building the URI's path (see setURIOfStoredName), kept
  /// under the same rules as m_currentRelativeURI.
  mutable tal::String m_spareURIPath;
  bool m_positioned = false;
  /// The name tryGoToFile looks for, as UTF-8 (kept for its storage).
  std::string m_searchedName;

  friend class CFileInZipInStream;
};

/// The input stream of one archive entry: its uncompressed bytes in order,
/// read with unzReadCurrentFile under the reader's mutex. It cannot seek or
/// lock. It keeps its reader alive; closing it lets the reader move on.
///
/// Errors carry the entry's full URI text under "uri". After close() every
/// operation but getURI and close throws CIOError StreamClosed (empty message,
/// no properties). When the reader's archive was closed under the stream, a
/// read throws CFileSystemError (Unspecified) from CIOError StreamClosed
/// "Cannot read file in ZIP archive - archive has already been closed" and the
/// stream closes; close() then throws the same with code ReadFailed and
/// "Cannot close file in ZIP archive - archive has already been closed".
class CZipReader::CFileInZipInStream : public tal::CBase, public virtual tal::IInStream {
public:
  CFileInZipInStream(CZipReader* const& reader, tal::CURI const& entryURI, long long const& length);
  /// Closes the stream; a failure goes to tal::onExceptionInDestructorIgnored
  /// as "drel::CZipReader::CFileInZipInStream".
  ~CFileInZipInStream() override;

  /// Exactly `size` bytes, or CFileSystemError (Unspecified) from CIOError
  /// UnexpectedEnd {"uri"}; the bytes read stay consumed.
  void read(void* buffer, int size) override;
  /// Up to `size` bytes (0 for size <= 0, without calling minizip); a short
  /// count marks the end (getLength() becomes getPosition()). minizip failures
  /// throw CFileSystemError (Unspecified) from CIOError ReadFailed
  /// "unzReadCurrentFile failed" {"uri", "result"}, or the file system's error.
  int readLax(void* buffer, int size) override;
  int readAvailable(void* buffer, int size) override;
  /// True at once.
  bool waitReadable(int timeout) const override;
  bool isEndOfStream() const override;
  int isEndOfStream_NonBlocking() const override;
  /// The entry's uncompressed size (lowered at a short read).
  long long getLength() const override;
  long long getPosition() const override;
  /// The entry's full URI; works after close.
  tal::CURI getURI() const override;
  /// Always throws CFileSystemError (NotSupported) from CError
  /// "CZipReader::CFileInZipInStream does not support seeking." {"uri"}.
  void seek(long long position) override;
  /// Always throws CIOError LockNotSupported.
  tal::P<tal::IRangeLock> lockRange(long long start, long long length, LockType type) override;
  /// Releases the entry in minizip (a CRC mismatch is not raised); a second
  /// call does nothing.
  void close() override;

private:
  void checkOpen() const;
  /// Marks the stream closed and lets the reader move on.
  void detach();
  /// Makes the stream check the entry against its stored CRC-32 and size.
  void verifyAgainst(unsigned long crc, unsigned long long size);
  /// Makes the stream read through `decoding` (the entry's stored bytes
  /// decoded by the library), handing out at most `size` bytes; `checkCRC`
  /// false for entries without a CRC-32 (AE-2).
  void decodeWith(std::unique_ptr<CEntryDecoding> decoding, unsigned long long size, bool checkCRC);
  /// readLax's reading through m_decoding, under the reader's mutex.
  int readDecoded(unsigned char* buffer, int size);
  /// Turns a decoder's failure into the stream's (sticky) error.
  [[noreturn]] void throwDecodeFailure(codecs::DecodeError const& failure);
  /// Under the reader's mutex, once a read has reached the entry's end.
  void verifyEnd(ZipStuff& stuff);
  [[noreturn]] void throwVerifyFailure(std::string const& message);

  /// The counted reference that keeps the reader alive while the stream is
  /// open; changed only under the reader's mutex.
  tal::P<CZipReader> m_reader;
  /// The same reader, for reaching its mutex; valid while the stream is open.
  CZipReader* const m_owner;
  /// Open until closed; read without the lock, so it is atomic.
  std::atomic<bool> m_open;
  tal::CURI m_uri;
  long long m_length;
  long long m_position;
  /// Checking (see CZipReader::Options::verifyEntries).
  bool m_verify = false;
  bool m_verified = false;
  unsigned long m_storedCRC = 0;
  unsigned long long m_storedSize = 0; ///< as stored: may be 2^63 or more

  unsigned long m_crc = 0;
  tal::P<tal::CError> m_verifyError;
  /// Set for the entries the library decodes itself (see openCurrentFileStream).
  std::unique_ptr<CEntryDecoding> m_decoding;
  unsigned long long m_decodedLimit = 0; ///< the stored size: no more is handed out
  bool m_checkCRC = true;

  friend class CZipReader;
};

} // namespace ziputil
