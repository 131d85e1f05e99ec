// ziputil::checkArchiveLayout: whether an archive's parts fit together.
#pragma once

#include "tal/Stream.h"

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
/// entries). Throws tal::CError (empty context, code -1, no cause) "Damaged
/// archive: <what is wrong>." with {"uri": the archive URI's text, "offset":
/// where the problem lies, in decimal}, entries numbered from 1 in
/// central-directory order; "Not a ZIP archive: no end-of-central-directory
/// record." {"uri"} for a file without an end record; and the file system's
/// errors unchanged. Reads every local header: one small read per entry.
void checkArchiveLayout(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI);

} // namespace ziputil
