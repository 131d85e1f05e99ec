// ziputil::CentralDirectory: an archive's central directory held in memory, so
// that the reader walks and looks up entries without minizip's reads of each
// field (internal to libziputil; not installed).
#pragma once

#include "tal/Error.h"
#include "tal/Stream.h"
#include "tal/String.h"

#include "ziputil/minizip/unzip.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ziputil {

/// The central headers of an archive, read whole, each described exactly as
/// minizip's unzGoToFirstFile/unzGoToNextFile/unzGoToFilePos64 describe it
/// (the same unz_file_info64, Zip64 extra fields applied by minizip's rules,
/// the same name bytes) and at the same unz64_file_pos.
///
/// load() hands out a directory only for an archive that minizip walks
/// without any failure, to its last entry, and in the same place: end records
/// and every central header whole and consistent (readArchiveLayout), every
/// extra field read inside the file, and minizip's own view of where the
/// directory starts and how many entries it holds agreeing. For anything else
/// it gives null and the reader keeps asking minizip, whose answers (failures
/// included) then stay exactly as they were. So it does, without reading the
/// directory, when the directory and the end records after it take 4 GiB or
/// more (header offsets are held in 32 bits).
class CentralDirectory {
public:
  /// Reads the directory through `stream` (the stream minizip reads the
  /// archive through; its position is left anywhere, as minizip seeks before
  /// every read) and checks it against `handle` (just opened, not yet moved).
  /// Null when the archive does not qualify or a read fails; a failure of the
  /// stream is handed back in `readFailure` (null otherwise).
  static std::unique_ptr<CentralDirectory> load(tal::IInStream& stream, tal::CURI const& uri, unzFile handle,
                                                tal::P<tal::CError>& readFailure);

  std::size_t size() const { return m_headers.size(); }
  /// The entry's description and name bytes, as minizip gives them.
  void describe(std::size_t ordinal, unz_file_info64& info) const;
  std::string_view storedName(std::size_t ordinal) const;
  /// The entry's central extra field and comment bytes.
  std::string_view extraField(std::size_t ordinal) const;
  std::string_view comment(std::size_t ordinal) const;
  /// Where minizip's unzGoToFilePos64 finds the entry.
  unz64_file_pos position(std::size_t ordinal) const;

  /// The ordinal of the first entry whose comparison key (storedNameKey,
  /// names/NameRules.h) is `key`, or of the first entry without a key whose
  /// stored name (up to its first zero byte) is `rawName`; -1 when none. The
  /// index is built at the first call.
  long long find(std::string_view key, std::string_view rawName);

private:
  std::string_view keyOf(std::uint32_t ordinal) const;
  void buildIndex();

  std::string m_bytes;                 ///< from the first central header to the end of the file
  std::uint64_t m_directoryOffset = 0; ///< minizip's offset of the first central header
  std::vector<std::uint32_t> m_headers; ///< where each central header starts in m_bytes
  bool m_indexed = false;
  /// Open addressing: ordinal + 1 of the first entry of each key, 0 for free.
  std::vector<std::uint32_t> m_slots;
  /// The keys of entries whose key is not their stored name (cleaning changes
  /// it, or a zero byte ends it early), by ordinal.
  std::unordered_map<std::uint32_t, std::string> m_cleanedKeys;
  /// Entries whose name has no key, by stored name: the first of each.
  std::unordered_map<std::string, std::uint32_t> m_byRawName;
  /// Whether an entry's key is in m_cleanedKeys rather than its stored name.
  std::vector<bool> m_ownKey;
};

} // namespace ziputil
