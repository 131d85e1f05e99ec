// ziputil::CZipFile: the common tasks on one archive in a few lines.
#pragma once

#include "tal/Stream.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"
#include "ziputil/Encryption.h"
#include "ziputil/EntryInfo.h"

#include <exception>
#include <string>
#include <string_view>
#include <vector>

namespace ziputil {

/// Addition: how CZipFile::open opens an archive.
enum class ZipFileMode : std::int32_t {
  Read,    ///< an existing archive, for reading
  Create,  ///< a new archive; refused when the file exists
  Replace, ///< a new archive that replaces the file, if any, when closed
  Append,  ///< adds to an existing archive, or creates it when missing
};

/// Addition: the choices CZipFile::open offers.
struct ZipFileOptions {
  /// The password (UTF-8) for reading encrypted entries, or for encrypting
  /// every entry written; empty for none.
  std::string password;
  /// How entries written with a password are encrypted: WinZip AES-256 by
  /// default (7-Zip, WinZip, bsdtar and this library read it), or
  /// Encryption::Traditional for readers that know only the traditional
  /// cipher, which is weak (Info-ZIP unzip 6.0, Python's zipfile); see
  /// CZipWriter::Options::encryption.
  Encryption encryption = Encryption::Aes256;
  /// The deflate level of entries written (-1 to 9; 0 still deflates, as
  /// CZipWriter does: ask for EntryOptions::Stored to store).
  int level = 6;
  /// Reading: every entry is checked against its stored size and CRC-32 when
  /// read to its end (CZipReader::Options::verifyEntries).
  bool verifyEntries = true;
  /// Append: the archive is changed through a copy that replaces it at close
  /// (CZipWriter::Options::atomicReplace); false adds in place.
  bool atomic = true;
};

/// Addition: an archive opened for reading or for writing, with names as UTF-8
/// text, on top of CZipReader and CZipWriter (which stay available for
/// everything else, see reader() and writer()). In the spirit of a scripting
/// language's zip module: open, list or read entries by name, add entries from
/// memory or from local files, close.
///
///     auto zip = ziputil::CZipFile::open("docs.zip");
///     for (ziputil::EntryInfo const& entry : zip->entries())
///       std::cout << entry.name << ' ' << zip->read(entry.name).size() << '\n';
///
///     auto out = ziputil::CZipFile::open("new.zip", ziputil::ZipFileMode::Create);
///     out->add("notes/café #1.txt", "hello\n");
///     out->addFile("report.pdf", "/home/me/report.pdf");
///     out->close();
///
/// Names are entry names in UTF-8, never URI syntax (see entryURI); lookups
/// compare them as the reader does (after cleaning; first entry of a name wins).
///
/// Writing: entries are recorded as made by Unix with their modes, an
/// encrypted entry's header is the one other tools accept
/// (CZipWriter::Options madeByUnix and interoperableEncryption), the archive
/// comment of an existing archive is kept. Create writes the new file in place
/// (a failure, discard() or an exception leaving the owner's scope removes it
/// again); Replace writes a sibling "<archive>.tmp-<16 hex digits>" and, at
/// close(), makes it durable (IFileSystem::sync) and moves it over the archive
/// (IFileSystem::move), so the old file stays whole until the new one is
/// complete; Append goes through CZipWriter's atomic replace by default.
///
/// Writing is all or nothing: when adding an entry fails once the entry has
/// begun (its source, its bytes, or the archive's file system failing, also
/// through a stream from openNewEntry()), everything this object wrote is
/// given up as discard() does, the object is closed, and its first close()
/// throws that failure again. A failure before anything was written (a bad
/// name, a local file that cannot be opened) changes nothing.
///
/// Errors: the tal error family as the classes below throw them (the file
/// system's own errors included), each with its message followed by
/// " (<place>)": the archive's local path for `file:` URIs, else its URI text,
/// and ": <entry name>" for operations on one entry; class, context, code,
/// properties and cause are kept. What this class adds:
/// - CFileSystemError AlreadyExists from CError "The ZIP archive already
///   exists." {"uri"} (Create on an existing file);
/// - CFileSystemError NotFound from CError "No such entry in the ZIP archive."
///   {"uri", "name"};
/// - CError "The ZIP archive is open for reading." / "The ZIP archive is open
///   for writing." {"uri"} for an operation of the other kind;
/// - CIOError StreamClosed "ZIP file already closed" {"uri"} after close();
/// - CInvalidArgError for a name that is not UTF-8 or empty (entryURI), a local
///   path that is empty, a file to add that is neither a regular file nor a
///   folder ("path is not a regular file or folder", {"path"}), a level outside
///   -1..9 ("level is invalid", {"level"}).
///
/// Threads: every operation holds the object's mutex for its whole run. An
/// entry stream from openEntry() or openNewEntry() must be closed before the
/// next operation on the same object (the reader or writer refuses to move on
/// while one is open).
///
/// Heap-only and counted; the destructor of an object still open closes it
/// (committing what was written) unless an exception is leaving the scope that
/// opened it, in which case it discards what was written; it never throws
/// (failures go to tal::onExceptionInDestructorIgnored as "ziputil::CZipFile").
class CZipFile : public tal::TRequireNewAlloc<tal::CBase> {
public:
  /// Opens the archive at a local path (relative to the working folder) in a
  /// tal::CLocalFileSystem.
  static tal::P<CZipFile> open(std::string_view localPath, ZipFileMode mode = ZipFileMode::Read,
                               ZipFileOptions const& options = ZipFileOptions());
  /// Opens the archive at `archiveURI` in `fileSystem`.
  static tal::P<CZipFile> open(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI,
                               ZipFileMode mode = ZipFileMode::Read, ZipFileOptions const& options = ZipFileOptions());

  CZipFile(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, ZipFileMode mode, ZipFileOptions const& options);
  ~CZipFile() override;

  // Reading

  /// Every entry in central-directory order.
  std::vector<EntryInfo> entries();
  /// Whether an entry has this name.
  bool contains(std::string_view name);
  /// The entry of this name.
  EntryInfo info(std::string_view name);
  /// The entry's bytes, whole, checked (unless verifyEntries is off). Meant
  /// for entries that fit in memory: the result is as large as the entry.
  std::string read(std::string_view name);
  /// The entry as a stream (checked at its end unless verifyEntries is off).
  tal::P<tal::IInStream> openEntry(std::string_view name);

  // Writing

  /// Adds an entry holding `data`, with `time` (now when empty) and `options`.
  void add(std::string_view name, std::string_view data,
           CZipWriter::EntryOptions const& options = CZipWriter::EntryOptions(),
           tal::CTimeFields const& time = tal::CTimeFields());
  /// Adds the local file (followed when a symbolic link) under `name`, with its
  /// modification time and mode; a folder gives a folder entry (its contents
  /// are not added).
  void addFile(std::string_view name, std::string_view localPath);
  /// Adds a folder entry ("<name>/", no data), with the time now.
  void addDirectory(std::string_view name);
  /// Starts an entry and returns its stream (see CZipWriter::beginAddFile).
  tal::P<tal::IOutStream> openNewEntry(std::string_view name,
                                       CZipWriter::EntryOptions const& options = CZipWriter::EntryOptions(),
                                       tal::CTimeFields const& time = tal::CTimeFields());

  /// Finishes: a reader is closed; a writer writes the central directory and,
  /// for Replace, moves the new file over the archive. The object is closed
  /// afterwards even when this fails (what was written is then given up, as
  /// discard() does). A second call does nothing. After a failure gave up
  /// what was written (see below), the first call throws that failure again.
  void close();
  /// Gives up what was written (Create: the file is removed; Replace: the old
  /// file stays; Append: the archive is put back) and closes the object. Does
  /// nothing for a reader but close it.
  void discard();

  /// The archive's URI.
  tal::CURI const& getURI() const { return m_uri; }
  /// The reader underneath (Read), else null; null after close().
  tal::P<CZipReader> reader() const { return m_reader; }
  /// The writer underneath (Create, Replace, Append), else null; null after close().
  tal::P<CZipWriter> writer() const { return m_writer; }

private:
  enum class Kind { Reading, Writing };
  void openWriter(ZipFileMode mode, ZipFileOptions const& options);
  void checkOpen(Kind kind) const;
  /// Positions the reader at `name` or throws NotFound.
  void goTo(std::string_view name);
  tal::P<tal::IOutStream> beginEntry(std::string_view name, CZipWriter::EntryOptions const& options,
                                     tal::CTimeFields const& time);
  /// close() (`commit`) or discard().
  void end(bool commit);
  void finishWriting();
  void giveUpWriting() noexcept;
  /// After a writing operation failed: when its entry `out` was begun, gives
  /// up everything written (the object is closed, and its first close() throws
  /// the failure again); rethrows the failure with its place.
  [[noreturn]] void failWriting(std::string_view name, tal::P<tal::IOutStream>& out);
  /// Rethrows the exception in flight with " (<place>[: <name>])" added to a CError's message.
  [[noreturn]] void rethrowWithPlace(std::string_view name) const;

  tal::CMutex m_mutex;
  tal::P<tal::IFileSystem> m_fileSystem;
  tal::CURI m_uri;
  /// The file the writer writes (the archive, or the sibling Replace moves over it).
  tal::CURI m_target;
  bool m_removeTargetOnFailure = false;
  bool m_moveTargetAtClose = false;
  tal::P<CZipReader> m_reader;
  tal::P<CZipWriter> m_writer;
  int m_uncaughtAtOpen;
  /// The failure that gave up the writing, until close() or discard().
  std::exception_ptr m_gaveUpFor;
};

} // namespace ziputil
