// ziputil::EntryInfo: everything the reader reports about one entry, as a value.
#pragma once

#include "tal/String.h"
#include "ziputil/Encryption.h"

#include <string>

namespace ziputil {

class CZipReader;

/// Addition: one entry of an archive as a plain value, filled from the
/// reader's getters for its current entry.
struct EntryInfo {
  /// The cleaned name in UTF-8 (the path of getCurrentFileRelativeURI), what
  /// lookups by name compare with. A folder entry's name has no trailing "/".
  std::string name;
  /// The name's bytes exactly as stored in the central directory.
  std::string rawName;
  /// Whether the stored name is flagged as UTF-8 (general-purpose bit 11).
  bool nameIsUTF8 = false;
  bool isDirectory = false;
  bool isSymbolicLink = false;
  bool isEncrypted = false;
  long long size = 0;           ///< uncompressed bytes
  long long compressedSize = 0; ///< stored bytes (with an encryption header)
  unsigned long crc32 = 0;
  int method = 0;               ///< 0 stored, 8 deflated, others as stored (99 for WinZip AES)
  int realMethod = 0;           ///< the data's method: inside a WinZip AES entry, the one it names
  Encryption encryption = Encryption::None;
  tal::CTimeFields modified;    ///< empty when the stored DOS date is invalid
  int unixMode = -1;            ///< st_mode when made by Unix, else -1
  unsigned long externalAttributes = 0;
  int versionMadeBy = 0;
  std::string comment;
  std::string extraField;
};

/// Addition: the reader's current entry as an EntryInfo. Throws CError
/// "CZipReader not positioned at a file." when the reader is not positioned,
/// and what the comment and extra-field getters throw.
EntryInfo describeCurrentEntry(CZipReader const& reader);

} // namespace ziputil
