// The small entries that the small workload writes and the readmany workload
// reads: names and slices of one text, the same for both.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace bench {

/// The level the small entries are deflated at.
constexpr int kSmallLevel = 6;

struct SmallEntries {
  /// 1 MiB of text that every entry is a slice of.
  std::shared_ptr<std::string> text;
  std::shared_ptr<std::vector<std::tuple<std::string, std::size_t, std::size_t>>> entries; ///< name, offset, length
  std::string manifest; ///< "offset length name" lines, for the Python peer
  std::size_t totalBytes = 0;
};

/// `count` entries of 256 B to 4 KiB named "dNN/fNNNNN.txt"; the same `count`
/// gives the same entries.
SmallEntries smallEntries(std::size_t count);

/// Writes the small entries to a new archive at `path` with stock minizip at
/// kSmallLevel; throws when minizip fails.
void writeSmallWithStockMinizip(std::string const& path, SmallEntries const& small);

} // namespace bench
