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

#include <cstdint>
#include <vector>

namespace testsupport {

/// One entry as its headers store it, read straight from the archive's bytes.
struct RawEntry {
  std::string name;
  std::uint16_t versionMadeBy = 0;
  std::uint16_t localFlags = 0, centralFlags = 0;
  std::uint16_t localMethod = 0, centralMethod = 0;
  std::uint16_t localTime = 0, localDate = 0, centralTime = 0, centralDate = 0;
  std::vector<std::uint16_t> localExtraIds, centralExtraIds; // header IDs of the extra fields
  std::uint16_t commentLength = 0;
  std::uint16_t internalAttributes = 0;
  std::uint32_t externalAttributes = 0;
  std::uint32_t crc = 0;
  std::uint64_t compressedSize = 0, uncompressedSize = 0;
  std::string data; // the stored (compressed, perhaps encrypted) bytes
};

/// The entries of an archive of less than 4 GiB, walked through its central directory; the archive comment's
/// length goes to `commentLength` when given. Throws std::runtime_error on a malformed archive.
std::vector<RawEntry> parseArchive(std::string const& bytes, std::uint16_t* commentLength = nullptr);

} // namespace testsupport
