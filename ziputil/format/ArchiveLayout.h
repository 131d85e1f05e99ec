// ziputil::readArchiveLayout: where an archive's end records and central
// directory lie, read and checked whole (internal to libziputil; not installed).
#pragma once

#include "tal/Error.h"
#include "tal/Stream.h"
#include "ziputil/ArchiveCheck.h"

#include <string>
#include <vector>

namespace ziputil {

/// An archive's end and central directory, as minizip's writer finds them.
struct ArchiveLayout {
  /// The file's length in bytes.
  long long fileLength = 0;
  /// Bytes in front of the archive (a self-extracting stub): the difference
  /// between where the central directory lies and where the end record says.
  long long prefixLength = 0;
  /// Absolute offset of the first central header (the end record's offset
  /// plus prefixLength); minizip writes new entries from here on.
  long long centralStart = 0;
  /// Size of the central directory in bytes, as the end record states it.
  long long centralSize = 0;
  /// Where the end record that counts begins (the Zip64 one when minizip uses it).
  long long endRecordStart = 0;
  /// The number of entries the end record states.
  unsigned long long declaredCount = 0;
  /// Central headers found in the central directory (readArchiveDirectory).
  unsigned long long entryCount = 0;
  /// Whether the archive has a Zip64 end record (found as minizip finds it).
  bool zip64 = false;
  /// Whether the file holds no archive at all: it is empty (minizip adds to
  /// an empty file as to an archive without entries).
  bool empty = false;
};

/// What a central header says of its entry (Zip64 extra fields applied).
struct CentralEntry {
  std::string name;              ///< the stored name's bytes
  unsigned method = 0;
  unsigned flags = 0;            ///< general-purpose bits
  unsigned long crc = 0;
  unsigned long long compressedSize = 0;
  unsigned long long uncompressedSize = 0;
  long long localOffset = 0;     ///< absolute offset of the local header (prefix included)
};

/// Reads the end record (and the Zip64 end record and locator, when minizip
/// would use them) and every central header of the archive in `stream`, and
/// checks that each is there whole: the records are not cut short, the
/// central directory lies inside the file, each central header has its
/// signature, its names and fields fit, the headers fill the directory
/// exactly and their number matches the end record, and each local header
/// offset lies before the directory. The end record is looked for as minizip
/// looks for it: the last signature within the file's last 65,535 bytes.
///
/// Returns the layout and, in `tail`, the bytes from centralStart to the end
/// of the file; with `entries`, also what each central header says, in
/// central-directory order. Throws the stream's own errors unchanged, and for damage a
/// tal::CError (empty context, code -1, no cause) "Damaged archive: <what is
/// wrong>." with {"uri": uri's text, "offset": where the problem lies, in decimal}.
/// A file without any end record is not an archive: "Not a ZIP archive: no
/// end-of-central-directory record." {"uri"}; an empty file gives an empty layout.
/// With `commentMayBeCutShort`, an archive comment whose stored length runs
/// past the end of the file is accepted (readers take what is there).
ArchiveLayout readArchiveLayout(tal::IInStream& stream, tal::CURI const& uri, std::string& tail,
                                std::vector<CentralEntry>* entries = nullptr, bool commentMayBeCutShort = false);
/// readArchiveLayout's first half: finds and checks the end records, reading
/// no more than the file's last 65,535 bytes and a Zip64 end record. Every
/// field of the layout is set but entryCount, which stays 0. Throws as
/// readArchiveLayout does.
ArchiveLayout readArchiveEnd(tal::IInStream& stream, tal::CURI const& uri, bool commentMayBeCutShort = false);
/// readArchiveLayout's second half, for a layout from readArchiveEnd: reads
/// the bytes from centralStart to the end of the file into `tail`, checks
/// every central header and sets layout.entryCount. Throws as
/// readArchiveLayout does.
void readArchiveDirectory(tal::IInStream& stream, tal::CURI const& uri, ArchiveLayout& layout, std::string& tail,
                          std::vector<CentralEntry>* entries = nullptr);

/// The archive comment: the bytes after the end-of-central-directory record,
/// as many as its comment length says or, when that runs past the end of the
/// file, as many as there are. Throws as readArchiveEnd does for a file
/// without an end record, and the stream's own errors.
std::string readArchiveComment(tal::IInStream& stream, tal::CURI const& uri);

/// Whether `error` is one that readArchiveLayout or checkArchiveRecords make
/// themselves (damage, no end record, a stream without a length) rather than
/// a failure of the stream they read.
bool isLayoutError(tal::CError const& error);

/// readArchiveLayout, then the local records: each entry's local header must
/// be there whole, with its signature, and agree with its central header on
/// the name and the compression method, and, unless the entry was streamed
/// (general-purpose bit 3), on the CRC-32 and both sizes; and the entries'
/// records (local header, data and data descriptor), sorted by offset, must
/// neither overlap nor run into the central directory. Throws as
/// readArchiveLayout does; entries are numbered from 1 in central-directory
/// order in the messages. An archive comment cut short is accepted.
void checkArchiveRecords(tal::IInStream& stream, tal::CURI const& uri);

/// checkArchiveRecords for each entry on its own: the archive's end records
/// and central directory are checked as there (and throw as there); the
/// entries whose local record is damaged, disagrees with the central header,
/// overlaps another entry's record or runs into the central directory are
/// returned, in central-directory order, each with the first problem found.
std::vector<EntryLayoutProblem> findEntryLayoutProblems(tal::IInStream& stream, tal::CURI const& uri);

} // namespace ziputil
