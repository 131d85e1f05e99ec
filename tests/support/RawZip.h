// Archives assembled byte by byte, for entries no tool writes the way a test
// needs them (methods named by number, data given as stored, extra fields).
#pragma once

#include <string>
#include <vector>

namespace testsupport {

/// One entry as stored: `data` goes into the archive as it is.
struct RawZipEntry {
  std::string name;
  int method = 0;
  int flags = 0;
  unsigned long crc = 0;
  std::string data;                ///< the stored (compressed, encrypted) bytes
  unsigned long long size = 0;     ///< the uncompressed size recorded
  std::string extra;               ///< the same extra field in the local and the central header
  int versionNeeded = 20;
};

/// A whole archive: local headers with their data, the central directory and
/// the end record (no Zip64; DOS time 2020-01-02 03:04:06).
std::string rawZip(std::vector<RawZipEntry> const& entries);

/// zlib's CRC-32 of `bytes`.
unsigned long crc32Of(std::string const& bytes);

} // namespace testsupport
