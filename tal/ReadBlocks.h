// tal::CReadBlocks: the two read buffers of the framework's streams. Internal
// to libtal (not installed).
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

namespace tal {

/// Two buffers of `blockSize` bytes, each holding a range of one file, for
/// small reads: a read is served by the buffer that holds its offset, or else
/// refills the buffer used less recently, so that reads going back and forth
/// between two parts of a file (an archive's central directory and its
/// entries) each keep theirs. A range is kept with the version of the file it
/// was read at and serves only reads at that version; callers whose file does
/// not change under them pass 0 throughout. One thread at a time.
class CReadBlocks {
public:
  explicit CReadBlocks(std::size_t blockSize) : m_blockSize(blockSize) {}

  /// Whether a buffer holds the byte at `offset`, read at `version`.
  bool holds(long long offset, unsigned long long version = 0) const { return find(offset, version) != nullptr; }

  /// Copies up to `size` bytes from `offset` into `out`, never past the end of
  /// the buffer that holds `offset` at `version`. When none does, the buffer
  /// used less recently is refilled first by `fill(into, capacity, version)`,
  /// which reads up to `capacity` bytes at `offset` into `into`, returns the
  /// count and may set `version` to the one it read at (the copy then comes
  /// from it whatever `version` it set). Returns the count copied: 0 only
  /// when the fill gave nothing. When `fill` throws, that buffer holds
  /// nothing and the exception passes on.
  template <class Fill>
  std::size_t read(long long offset, unsigned long long version, void* out, std::size_t size, Fill&& fill) {
    Block* block = find(offset, version);
    if (!block) {
      block = m_blocks[0].lastUse <= m_blocks[1].lastUse ? &m_blocks[0] : &m_blocks[1];
      if (block->bytes.size() != m_blockSize) block->bytes.resize(m_blockSize);
      block->length = 0; // stays empty when the fill throws
      block->start = offset;
      block->version = version;
      block->length = fill(block->bytes.data(), m_blockSize, block->version);
      if (block->length == 0) return 0;
    }
    block->lastUse = ++m_clock;
    std::size_t const at = static_cast<std::size_t>(offset - block->start);
    std::size_t const n = std::min(size, block->length - at);
    std::memcpy(out, block->bytes.data() + at, n);
    return n;
  }

  /// Forgets what the buffers hold (their storage stays).
  void drop() {
    for (Block& block : m_blocks) block.length = 0;
  }
  /// Forgets what the buffers hold and frees their storage.
  void release() {
    for (Block& block : m_blocks) {
      block.length = 0;
      std::vector<unsigned char>().swap(block.bytes);
    }
  }

private:
  /// A range of the file as read at `version`; empty while `length` is 0.
  struct Block {
    std::vector<unsigned char> bytes;
    long long start = 0;
    std::size_t length = 0;
    unsigned long long version = 0;
    unsigned long long lastUse = 0; ///< m_clock at its last use; 0: never used
  };
  Block const* find(long long offset, unsigned long long version) const {
    for (Block const& block : m_blocks)
      if (block.length > 0 && block.version == version && offset >= block.start &&
          offset < block.start + static_cast<long long>(block.length))
        return &block;
    return nullptr;
  }
  Block* find(long long offset, unsigned long long version) {
    return const_cast<Block*>(static_cast<CReadBlocks const*>(this)->find(offset, version));
  }

  std::size_t m_blockSize;
  Block m_blocks[2];
  unsigned long long m_clock = 0;
};

} // namespace tal
