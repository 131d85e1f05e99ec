// ziputil::codecs::CInflate64: the library's own inflater for Deflate64
// (PKWARE's "enhanced deflate", method 9), which zlib does not decode. It also
// decodes plain deflate, against which its tests check it. Internal.
#pragma once

#include "ziputil/codecs/DecoderInput.h"

#include <cstdint>
#include <vector>

namespace ziputil {
namespace codecs {

/// Decodes one deflate or Deflate64 stream pulled from a source, handing out
/// its bytes in pieces of any size. Deflate64 differs from deflate in three
/// places: a 64 KiB window, length code 285 meaning 3 plus 16 extra bits (up
/// to 65,538), and distance codes 30 and 31 (32,769 and 49,153, 14 extra
/// bits). Memory: a 64 KiB window and two 32 KiB decoding tables (about 200 KiB).
/// Every malformed stream (codes over-subscribed or missing, a distance
/// before the start, a stored block whose length check fails, a stream that
/// ends early) throws DecodeError Damaged; the decoder never reads or writes
/// outside its buffers and always consumes input or produces output.
class CInflate64 : public IEntryDecoder {
public:
  CInflate64(IByteSource& source, bool deflate64);

  std::size_t read(unsigned char* out, std::size_t size) override;
  std::size_t unusedInput() const override;

private:
  struct Code {
    std::uint16_t symbol = 0;
    std::uint8_t length = 0; ///< 0: no code has these bits
  };
  static constexpr int kTableBits = 15;

  /// Builds the decoding table of a code from its symbols' lengths.
  void buildTable(std::vector<Code>& table, unsigned char const* lengths, int count) const;
  /// Ensures `count` bits (at most 32) are in m_bits; throws at the source's end.
  void need(int count);
  unsigned take(int count);
  int decode(std::vector<Code> const& table);
  void readBlockHeader();
  void readDynamicTables();
  void useFixedTables();
  [[noreturn]] void damaged(char const* what) const;

  CDecoderInput m_input;
  bool const m_deflate64;
  char const* const m_name;
  std::uint64_t m_bits = 0;
  int m_bitCount = 0;

  enum class State { Header, Stored, Codes, Match, Done };
  State m_state = State::Header;
  bool m_lastBlock = false;
  std::uint32_t m_storedLeft = 0;
  std::uint32_t m_matchLeft = 0;
  std::uint32_t m_distance = 0;

  std::vector<unsigned char> m_window;
  std::uint32_t m_windowPosition = 0;
  std::uint64_t m_written = 0; ///< bytes decoded so far, for distances before the start

  std::vector<Code> m_literals;
  std::vector<Code> m_distances;
};

} // namespace codecs
} // namespace ziputil
