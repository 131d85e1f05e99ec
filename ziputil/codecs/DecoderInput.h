// What the entry decoders share: the compressed bytes taken from their source
// in pieces, and the error for data that ends before the method's end.
// Internal to the codecs.
#pragma once

#include "ziputil/codecs/EntryDecoder.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace ziputil {
namespace codecs {

/// The source's bytes, taken in pieces of at most 64 KiB.
class CDecoderInput {
public:
  explicit CDecoderInput(IByteSource& source) : m_source(source), m_buffer(kPiece) {}

  /// Whether bytes are at hand, taking the next piece when none are; false
  /// once the source has ended.
  bool fill() {
    if (m_position < m_end) return true;
    if (m_ended) return false;
    m_position = 0;
    m_end = m_source.read(m_buffer.data(), m_buffer.size());
    if (m_end == 0) m_ended = true;
    return m_end != 0;
  }
  unsigned char const* data() const { return m_buffer.data() + m_position; }
  std::size_t available() const { return m_end - m_position; }
  void consume(std::size_t count) { m_position += count; }
  /// The next byte; false at the source's end.
  bool next(unsigned char& byte) {
    if (!fill()) return false;
    byte = m_buffer[m_position++];
    return true;
  }

private:
  static constexpr std::size_t kPiece = 64 * 1024;
  IByteSource& m_source;
  std::vector<unsigned char> m_buffer;
  std::size_t m_position = 0;
  std::size_t m_end = 0;
  bool m_ended = false;
};

/// DecodeError Damaged: "<method> data ends before its end".
[[noreturn]] inline void throwCutShort(char const* method) {
  throw DecodeError(DecodeError::Kind::Damaged, std::string(method) + " data ends before its end");
}

/// Whole MiB, rounded up, as text.
inline std::string mebibytes(unsigned long long bytes) { return std::to_string((bytes + (1 << 20) - 1) >> 20); }

// The decoders of each method (one file each).
std::unique_ptr<IEntryDecoder> makeInflateDecoder(IByteSource& source);
std::unique_ptr<IEntryDecoder> makeInflate64Decoder(IByteSource& source);
std::unique_ptr<IEntryDecoder> makeBzip2Decoder(IByteSource& source);
std::unique_ptr<IEntryDecoder> makeLzmaDecoder(IByteSource& source, std::uint64_t uncompressedSize, int flags,
                                               DecoderLimits const& limits);
std::unique_ptr<IEntryDecoder> makeXzDecoder(IByteSource& source, DecoderLimits const& limits);
std::unique_ptr<IEntryDecoder> makeZstdDecoder(IByteSource& source, DecoderLimits const& limits);

} // namespace codecs
} // namespace ziputil
