// ziputil::checkArchiveLayout: whether an archive's parts fit together.
#pragma once

#include "tal/Stream.h"

#include <string>
#include <vector>

namespace ziputil {

/// Addition: checks the layout of the archive at `archiveURI`, reading it
/// through `fileSystem`, so that every tool that reads it sees the same
/// entries with the same contents. Checked, as Info-ZIP unzip checks them:
/// - the end record (and the Zip64 end record and locator, where present) and
///   every central header are there whole, the central headers fill the
///   central directory exactly and their number matches the end record's;
/// - each entry's local header is there, with its signature, and agrees with
///   its central header on the name, the compression method and, unless the
///   entry was streamed (general-purpose bit 3), on the CRC-32 and both sizes
///   (Zip64 extra fields applied);
/// - the entries' records (local header, data, data descriptor), sorted by
///   offset, neither overlap (two central entries sharing local data is how a
///   small archive inflates to gigabytes) nor run into the central directory.
///
/// Returns normally when all holds (an empty file passes: it holds no
/// entries; an archive comment whose stored length runs past the end of the
/// file passes, as readers take the comment that is there). Throws tal::CError (empty context, code -1, no cause) "Damaged
/// archive: <what is wrong>." with {"uri": the archive URI's text, "offset":
/// where the problem lies, in decimal}, entries numbered from 1 in
/// central-directory order; "Not a ZIP archive: no end-of-central-directory
/// record." {"uri"} for a file without an end record; and the file system's
/// errors unchanged. Reads every local header: one small read per entry.
void checkArchiveLayout(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI);

/// Addition: an entry that checkArchiveEntries refuses.
struct EntryLayoutProblem {
  /// The entry's place in central-directory order, from 1.
  unsigned long long number = 0;
  /// Its stored name (bytes, as the central header holds them).
  std::string name;
  /// Where the problem lies in the file.
  long long offset = -1;
  /// What is wrong, about the entry: "it has no local header", "its local
  /// header is cut short", "its local header disagrees with its central header
  /// on the <name | compression method | CRC-32 | compressed size |
  /// uncompressed size | sizes (its Zip64 field lacks them)>", "its data runs
  /// into the central directory", "its record overlaps that of entry <n>",
  /// "its record runs into the central directory".
  std::string what;
};

/// Addition: checkArchiveLayout for each entry on its own, so that a reader
/// can refuse the damaged entries and read the others (as Info-ZIP unzip and
/// Python's zipfile do). The archive as a whole (end records, central
/// directory) is checked as checkArchiveLayout checks it and throws its errors
/// (the file system's errors unchanged). Returns the entries whose own record
/// is damaged or disagrees with its central header, whose record overlaps
/// another entry's (every entry of an overlapping pair: entries sharing data
/// are all refused), or runs into the central directory; in central-directory
/// order, each with the first problem found; empty when every entry passes.
std::vector<EntryLayoutProblem> checkArchiveEntries(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI);

} // namespace ziputil
