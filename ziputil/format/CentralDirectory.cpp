#include "ziputil/format/CentralDirectory.h"

#include "ziputil/format/ArchiveLayout.h"
#include "ziputil/names/NameRules.h"

#include "tal/Error.h"

#include <wx/strconv.h>

#include <array>
#include <cstring>
#include <functional>
#include <limits>
#include <type_traits>

namespace ziputil {
namespace {

constexpr std::size_t kCentralHeaderSize = 46;
constexpr std::uint64_t kMaxU32 = 0xffffffffu;

/// Reads minizip's way: little-endian fields from a cursor that must stay inside the bytes.
class Cursor {
public:
  Cursor(std::string const& bytes, std::uint64_t at) : m_bytes(bytes), m_at(at) {}
  bool read(unsigned width, std::uint64_t& value) {
    if (m_at > m_bytes.size() || m_bytes.size() - m_at < width) return false;
    value = 0;
    for (unsigned i = 0; i < width; ++i)
      value |= static_cast<std::uint64_t>(static_cast<unsigned char>(m_bytes[m_at + i])) << (8 * i);
    m_at += width;
    return true;
  }
  void skip(std::uint64_t count) { m_at += count; }

private:
  std::string const& m_bytes;
  std::uint64_t m_at;
};

std::uint64_t little(std::string const& bytes, std::uint64_t at, unsigned width) {
  std::uint64_t value = 0;
  Cursor(bytes, at).read(width, value);
  return value;
}

/// minizip's conversion of a DOS date and time.
void dosDateToTmuDate(std::uint64_t dosDate, tm_unz& date) {
  std::uint64_t const day = dosDate >> 16;
  date.tm_mday = static_cast<int>(day & 0x1f);
  date.tm_mon = static_cast<int>(((day & 0x1E0) / 0x20) - 1);
  date.tm_year = static_cast<int>(((day & 0x0FE00) / 0x0200) + 1980);
  date.tm_hour = static_cast<int>((dosDate & 0xF800) / 0x800);
  date.tm_min = static_cast<int>((dosDate & 0x7E0) / 0x20);
  date.tm_sec = static_cast<int>(2 * (dosDate & 0x1f));
}

/// The central header at `at`, as minizip's unz64local_GetCurrentFileInfoInternal
/// reads it: the fixed fields, then the extra field walked block by block
/// with the Zip64 values taken from the first bytes of a 0x0001 block. False
/// when minizip would read outside the file doing so (it would then fail).
bool parseHeader(std::string const& bytes, std::uint64_t at, unz_file_info64& info) {
  if (at > bytes.size() || bytes.size() - at < kCentralHeaderSize) return false;
  unsigned char const* h = reinterpret_cast<unsigned char const*>(bytes.data()) + at;
  auto u16 = [h](unsigned i) { return static_cast<uLong>(h[i] | (h[i + 1] << 8)); };
  auto u32 = [h](unsigned i) {
    return static_cast<uLong>(h[i]) | (static_cast<uLong>(h[i + 1]) << 8) | (static_cast<uLong>(h[i + 2]) << 16) |
           (static_cast<uLong>(h[i + 3]) << 24);
  };
  info.version = u16(4);
  info.version_needed = u16(6);
  info.flag = u16(8);
  info.compression_method = u16(10);
  info.dosDate = u32(12);
  dosDateToTmuDate(info.dosDate, info.tmu_date);
  info.crc = u32(16);
  info.compressed_size = u32(20);
  info.uncompressed_size = u32(24);
  info.size_filename = u16(28);
  info.size_file_extra = u16(30);
  info.size_file_comment = u16(32);
  info.disk_num_start = u16(34);
  info.internal_fa = u16(36);
  info.external_fa = u32(38);
  std::uint64_t localOffset = u32(42);
  Cursor extra(bytes, at + kCentralHeaderSize + info.size_filename);
  for (std::uint64_t done = 0; done < info.size_file_extra;) {
    std::uint64_t id = 0, size = 0;
    if (!extra.read(2, id) || !extra.read(2, size)) return false;
    if (id == 0x0001) {
      std::uint64_t value = 0;
      if (info.uncompressed_size == kMaxU32) {
        if (!extra.read(8, value)) return false;
        info.uncompressed_size = value;
      }
      if (info.compressed_size == kMaxU32) {
        if (!extra.read(8, value)) return false;
        info.compressed_size = value;
      }
      if (localOffset == kMaxU32) {
        if (!extra.read(8, localOffset)) return false;
      }
      if (info.disk_num_start == 0xffff) {
        if (!extra.read(4, value)) return false;
        info.disk_num_start = value;
      }
    } else {
      extra.skip(size);
    }
    done += 4 + size;
  }
  return true;
}

} // namespace

namespace {

std::size_t hashOf(std::string_view key) { return std::hash<std::string_view>()(key); }

} // namespace

std::unique_ptr<CentralDirectory> CentralDirectory::load(tal::IInStream& stream, tal::CURI const& uri,
                                                         unzFile handle, tal::P<tal::CError>& readFailure) {
  auto directory = std::make_unique<CentralDirectory>();
  ArchiveLayout layout;
  try {
    layout = readArchiveEnd(stream, uri);
    // Header offsets are held in 32 bits (the index's size per entry): a larger directory keeps
    // minizip's walk, and is not read into memory first.
    if (layout.fileLength - layout.centralStart > std::numeric_limits<std::uint32_t>::max()) return nullptr;
    readArchiveDirectory(stream, uri, layout, directory->m_bytes);
  } catch (tal::CError& e) {
    // Damage is minizip's to meet in its own time; anything else is the stream's failure.
    if (!isLayoutError(e)) readFailure = e.clone();
    return nullptr;
  } catch (std::exception& e) {
    readFailure = tal::CStdExceptionError::exceptionToError(&e);
    return nullptr;
  }
  if (layout.empty) return nullptr;
  directory->m_directoryOffset = static_cast<std::uint64_t>(layout.centralStart - layout.prefixLength);
  // minizip must see the same directory: the same start and the same count.
  unz_global_info64 global;
  if (unzGetGlobalInfo64(handle, &global) != UNZ_OK) return nullptr;
  bool const countAgrees = global.number_entry == layout.entryCount ||
                           (!layout.zip64 && layout.entryCount > 0xffff && global.number_entry == (layout.entryCount & 0xffff));
  if (!countAgrees) return nullptr;
  unz64_file_pos first;
  if (layout.entryCount > 0) {
    if (unzGetFilePos64(handle, &first) != UNZ_OK || first.num_of_file != 0 ||
        first.pos_in_zip_directory != directory->m_directoryOffset)
      return nullptr;
  }
  directory->m_headers.reserve(static_cast<std::size_t>(layout.entryCount));
  std::uint64_t at = 0;
  unz_file_info64 info;
  for (unsigned long long i = 0; i < layout.entryCount; ++i) {
    if (!parseHeader(directory->m_bytes, at, info)) return nullptr;
    directory->m_headers.push_back(static_cast<std::uint32_t>(at));
    at += kCentralHeaderSize + info.size_filename + info.size_file_extra + info.size_file_comment;
  }
  return directory;
}

void CentralDirectory::describe(std::size_t ordinal, unz_file_info64& info) const {
  parseHeader(m_bytes, m_headers[ordinal], info); // checked by load()
}

std::string_view CentralDirectory::storedName(std::size_t ordinal) const {
  unsigned char const* header = reinterpret_cast<unsigned char const*>(m_bytes.data()) + m_headers[ordinal];
  return std::string_view(reinterpret_cast<char const*>(header) + kCentralHeaderSize,
                          static_cast<std::size_t>(header[28] | (header[29] << 8)));
}

std::string_view CentralDirectory::extraField(std::size_t ordinal) const {
  std::uint64_t const at = m_headers[ordinal];
  return std::string_view(m_bytes).substr(at + kCentralHeaderSize + little(m_bytes, at + 28, 2),
                                          little(m_bytes, at + 30, 2));
}

std::string_view CentralDirectory::comment(std::size_t ordinal) const {
  std::uint64_t const at = m_headers[ordinal];
  return std::string_view(m_bytes).substr(
      at + kCentralHeaderSize + little(m_bytes, at + 28, 2) + little(m_bytes, at + 30, 2), little(m_bytes, at + 32, 2));
}

unz64_file_pos CentralDirectory::position(std::size_t ordinal) const {
  unz64_file_pos position;
  position.pos_in_zip_directory = m_directoryOffset + m_headers[ordinal];
  position.num_of_file = ordinal;
  return position;
}

std::string_view CentralDirectory::keyOf(std::uint32_t ordinal) const {
  if (m_ownKey[ordinal]) return m_cleanedKeys.find(ordinal)->second;
  return storedName(ordinal);
}

void CentralDirectory::buildIndex() {
  std::size_t slots = 16;
  while (slots < 2 * m_headers.size()) slots *= 2;
  m_slots.assign(slots, 0);
  m_ownKey.assign(m_headers.size(), false);
  std::string key;
  for (std::uint32_t i = 0; i < m_headers.size(); ++i) {
    std::string_view const stored = storedName(i);
    std::string_view const name = stored.substr(0, stored.find('\0')); // the C string the key rules see
    bool cleaned = false;
    if (!nameComparisonKey(name, key, cleaned)) {
      m_byRawName.emplace(std::string(name), i); // the first of a name stays
      continue;
    }
    if (!cleaned && name.size() != stored.size()) { // a zero byte ends the name early: the key is what precedes it
      cleaned = true;
      key.assign(name);
    }
    if (cleaned) {
      m_cleanedKeys.emplace(i, key);
      m_ownKey[i] = true;
    }
    std::string_view const own = keyOf(i);
    for (std::size_t s = hashOf(own) & (slots - 1);; s = (s + 1) & (slots - 1)) {
      if (m_slots[s] == 0) {
        m_slots[s] = i + 1;
        break;
      }
      if (keyOf(m_slots[s] - 1) == own) break; // the first entry of a key wins
    }
  }
  m_indexed = true;
}

long long CentralDirectory::find(std::string_view key, std::string_view rawName) {
  if (!m_indexed) buildIndex();
  long long found = -1;
  std::size_t const mask = m_slots.size() - 1;
  for (std::size_t s = hashOf(key) & mask; m_slots[s] != 0; s = (s + 1) & mask) {
    if (keyOf(m_slots[s] - 1) == key) {
      found = m_slots[s] - 1;
      break;
    }
  }
  if (!m_byRawName.empty()) {
    auto const raw = m_byRawName.find(std::string(rawName));
    if (raw != m_byRawName.end() && (found < 0 || raw->second < found)) found = raw->second;
  }
  return found;
}

} // namespace ziputil
