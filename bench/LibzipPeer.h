// libzip as one of the benchmarks' peers. Its header is also called zip.h, as
// minizip's is, so only LibzipPeer.cpp includes it; nothing here names its types.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench::libzip {

/// An archive open for reading (zip_open with ZIP_RDONLY).
class Archive {
public:
  explicit Archive(std::string const& path);
  ~Archive();
  Archive(Archive const&) = delete;
  Archive& operator=(Archive const&) = delete;

  /// zip_name_locate with default flags (libzip's hash table).
  bool locate(std::string const& name);

private:
  void* m_zip;
};

std::string version();

/// zip_open, zip_name_locate, zip_discard; throws when the name is missing.
void openAndLocate(std::string const& path, std::string const& name);
/// Opens the archive, zip_stat_index's every entry (name and size), discards
/// it; returns the number of entries.
std::uint64_t walk(std::string const& path);
/// Reads the entry `name` through zip_fread in 64 KiB pieces (libzip checks
/// the CRC-32); returns the bytes read.
std::uint64_t read(std::string const& path, std::string const& name);
/// Reads every entry in order through zip_fopen_index and zip_fread in 64 KiB
/// pieces; returns the bytes read.
std::uint64_t readAll(std::string const& path);

/// An entry to write: name and bytes (which must stay valid until the write ends).
struct Entry {
  std::string name;
  char const* data;
  std::size_t size;
};
/// Creates `path` (replacing it) with `entries` deflated at `level`; libzip
/// writes everything at zip_close.
void write(std::string const& path, std::vector<Entry> const& entries, int level);

} // namespace bench::libzip
