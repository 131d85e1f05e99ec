// Helpers for writer tests: a writer over a fresh empty archive, and what
// Python's zipfile sees in an archive.
#pragma once

#include "tal/Stream.h"
#include "ziputil/CZipWriter.h"

#include <string>

namespace testsupport {

/// Creates an empty archive at `uri` and opens a writer on it.
tal::P<ziputil::CZipWriter> newArchiveWriter(tal::IFileSystem* fs, tal::CURI const& uri, char const* password = "",
                                             int level = 6);

/// Adds one entry with `data` and closes its stream.
void addEntry(ziputil::CZipWriter& writer, std::string const& name, std::string const& data,
              tal::CTimeFields const& time = tal::CTimeFields());

/// One line per entry, from Python's zipfile: "name|method|flags|size|date|extra-ids|comment-length|create-system",
/// where extra-ids are the header IDs of the local header's extra field (hex, comma-separated).
std::string describeWithPython(std::string const& archivePath);

} // namespace testsupport
