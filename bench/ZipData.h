// Test data for the benchmarks: compressible text, archives written with
// stock minizip, and a bare central-directory parser (the "parse" limit).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace bench {

/// `size` bytes of text-like data (words, numbers, line breaks) that deflate
/// shrinks to roughly a third; the same `seed` gives the same bytes.
std::string makeText(std::size_t size, std::uint32_t seed);

/// The name of entry `index` of the many-entries archive ("dNNN/entryNNNNNN.txt").
std::string manyEntriesName(std::size_t index);
/// Writes an archive of `count` small stored entries named manyEntriesName(i)
/// with stock minizip.
void writeManyEntriesArchive(std::string const& path, std::size_t count);
/// Writes an archive holding one entry `name` with `data` deflated at `level`,
/// with stock minizip.
void writeOneEntryArchive(std::string const& path, std::string const& name, std::string const& data, int level);

/// Reads a whole file; throws std::runtime_error when it cannot.
std::string readFile(std::string const& path);
/// Writes a whole file; throws std::runtime_error when it cannot.
void writeFile(std::string const& path, std::string const& bytes);

/// Little-endian fields.
inline std::uint16_t le16(unsigned char const* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
inline std::uint32_t le32(unsigned char const* p) {
  return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
         (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
inline std::uint64_t le64(unsigned char const* p) {
  return static_cast<std::uint64_t>(le32(p)) | (static_cast<std::uint64_t>(le32(p + 4)) << 32);
}

/// Where an archive's central directory lies in the archive's bytes.
struct CentralDirectory {
  unsigned char const* begin = nullptr;
  unsigned char const* end = nullptr;
  std::uint64_t count = 0;
};

/// Finds the end record (and the Zip64 end record when the end record points
/// to it) in an archive held in memory; false when there is none or it points
/// outside the bytes.
bool findCentralDirectory(unsigned char const* file, std::size_t size, CentralDirectory& cd);

/// Reads an archive's central directory from the file at `path` the way a
/// reader must: its last bytes (the end records), then the directory itself,
/// into `buffer` (one pread each, the buffer's storage reused); `cd` then
/// points into `buffer`. Throws std::runtime_error when the file cannot be
/// read or has no end record.
void readCentralDirectory(std::string const& path, std::string& buffer, CentralDirectory& cd);

/// Lists the central directory of the archive at `path` as a plain reader of
/// the file does: through stdio, each central header read in turn with its
/// name (into a new std::string) and what follows it; adds each name's length
/// and uncompressed size to `total` and returns the number of entries. Throws
/// std::runtime_error when the file cannot be read or a header is malformed.
std::uint64_t listCentralDirectoryWithStdio(std::string const& path, std::uint64_t& total);

/// One central header, as the walk sees it.
struct CentralEntry {
  char const* name;
  std::size_t nameLength;
  std::uint64_t uncompressedSize;
  std::uint64_t compressedSize;
  std::uint64_t localHeaderOffset;
  std::uint32_t crc;
  std::uint16_t method;
};

/// The fixed fields of the central header at `p` (46 bytes); the name is not set.
inline CentralEntry centralEntryFields(unsigned char const* p) {
  CentralEntry e;
  e.name = nullptr;
  e.nameLength = le16(p + 28);
  e.method = le16(p + 10);
  e.crc = le32(p + 16);
  e.compressedSize = le32(p + 20);
  e.uncompressedSize = le32(p + 24);
  e.localHeaderOffset = le32(p + 42);
  return e;
}

/// Takes the sizes and the offset that the fixed fields leave at 0xffffffff
/// from the Zip64 extra field among the `length` bytes of extra fields at `x`.
inline void applyZip64Extra(CentralEntry& e, unsigned char const* x, std::size_t length) {
  if (e.uncompressedSize != 0xffffffffu && e.compressedSize != 0xffffffffu && e.localHeaderOffset != 0xffffffffu)
    return;
  unsigned char const* const xEnd = x + length;
  while (xEnd - x >= 4) {
    std::size_t const size = le16(x + 2);
    if (le16(x) == 0x0001) {
      unsigned char const* v = x + 4;
      unsigned char const* const vEnd = v + size;
      if (e.uncompressedSize == 0xffffffffu && vEnd - v >= 8) e.uncompressedSize = le64(v), v += 8;
      if (e.compressedSize == 0xffffffffu && vEnd - v >= 8) e.compressedSize = le64(v), v += 8;
      if (e.localHeaderOffset == 0xffffffffu && vEnd - v >= 8) e.localHeaderOffset = le64(v);
      return;
    }
    x += 4 + size;
  }
}

/// Walks the central headers in order, reading the fixed fields, the Zip64
/// extra field where a size or offset needs it, and the name; calls
/// `visit(entry)` for each until it returns false. Returns false on a
/// malformed header.
template <class Visit> bool walkCentralDirectory(CentralDirectory const& cd, Visit&& visit) {
  unsigned char const* p = cd.begin;
  for (std::uint64_t i = 0; i < cd.count; ++i) {
    if (cd.end - p < 46 || le32(p) != 0x02014b50u) return false;
    CentralEntry e = centralEntryFields(p);
    std::size_t const extraLength = le16(p + 30), commentLength = le16(p + 32);
    std::size_t const total = 46 + e.nameLength + extraLength + commentLength;
    if (static_cast<std::size_t>(cd.end - p) < total) return false;
    e.name = reinterpret_cast<char const*>(p + 46);
    applyZip64Extra(e, p + 46 + e.nameLength, extraLength);
    if (!visit(static_cast<CentralEntry const&>(e))) return true;
    p += total;
  }
  return true;
}

/// The compressed bytes of the entry `name` of an archive held in memory;
/// throws std::runtime_error when it is missing.
std::string entryCompressedBytes(std::string const& archive, std::string const& name, CentralEntry& entry);

} // namespace bench
