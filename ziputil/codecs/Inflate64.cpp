#include "ziputil/codecs/Inflate64.h"

#include <algorithm>

namespace ziputil {
namespace codecs {
namespace {

constexpr std::uint32_t kWindowSize = 1u << 16;
constexpr std::uint32_t kWindowMask = kWindowSize - 1;

constexpr std::uint16_t kLengthBase[29] = {3,  4,  5,  6,  7,  8,  9,  10, 11,  13,  15,  17,  19,  23, 27,
                                           31, 35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258};
constexpr std::uint8_t kLengthExtra[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                           2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr std::uint32_t kDistanceBase[32] = {1,    2,    3,    4,    5,    7,     9,     13,    17,    25,   33,
                                             49,   65,   97,   129,  193,  257,   385,   513,   769,   1025, 1537,
                                             2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577, 32769, 49153};
constexpr std::uint8_t kDistanceExtra[32] = {0, 0, 0, 0, 1, 1, 2, 2,  3,  3,  4,  4,  5,  5,  6,  6,
                                             7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13, 14, 14};
/// The order in which a dynamic block gives the code lengths' code.
constexpr std::uint8_t kLengthOrder[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};

unsigned reverseBits(unsigned code, int length) {
  unsigned reversed = 0;
  for (int i = 0; i < length; ++i, code >>= 1) reversed = (reversed << 1) | (code & 1);
  return reversed;
}

} // namespace

CInflate64::CInflate64(IByteSource& source, bool deflate64)
    : m_input(source), m_deflate64(deflate64), m_name(deflate64 ? "Deflate64" : "deflate"), m_window(kWindowSize) {}

void CInflate64::damaged(char const* what) const {
  throw DecodeError(DecodeError::Kind::Damaged, std::string(m_name) + " data is damaged: " + what);
}

void CInflate64::need(int count) {
  while (m_bitCount < count) {
    unsigned char byte = 0;
    if (!m_input.next(byte)) throwCutShort(m_name);
    m_bits |= static_cast<std::uint64_t>(byte) << m_bitCount;
    m_bitCount += 8;
  }
}

unsigned CInflate64::take(int count) {
  if (count == 0) return 0;
  need(count);
  unsigned const value = static_cast<unsigned>(m_bits & ((std::uint64_t(1) << count) - 1));
  m_bits >>= count;
  m_bitCount -= count;
  return value;
}

int CInflate64::decode(std::vector<Code> const& table) {
  unsigned char byte = 0;
  while (m_bitCount < kTableBits && m_input.next(byte)) { // near the end there may be fewer bits than a table index
    m_bits |= static_cast<std::uint64_t>(byte) << m_bitCount;
    m_bitCount += 8;
  }
  Code const code = table[m_bits & ((1u << kTableBits) - 1)];
  if (code.length == 0 || code.length > m_bitCount) {
    if (m_bitCount < kTableBits) throwCutShort(m_name);
    damaged("invalid code");
  }
  m_bits >>= code.length;
  m_bitCount -= code.length;
  return code.symbol;
}

void CInflate64::buildTable(std::vector<Code>& table, unsigned char const* lengths, int count) const {
  int counts[16] = {};
  for (int i = 0; i < count; ++i) ++counts[lengths[i]];
  counts[0] = 0;
  int left = 1;
  for (int length = 1; length < 16; ++length) {
    left = (left << 1) - counts[length];
    if (left < 0) damaged("a code is over-subscribed");
  }
  unsigned next[16] = {};
  unsigned code = 0;
  for (int length = 1; length < 16; ++length) {
    code = (code + static_cast<unsigned>(counts[length - 1])) << 1;
    next[length] = code;
  }
  table.assign(std::size_t(1) << kTableBits, Code());
  for (int symbol = 0; symbol < count; ++symbol) {
    int const length = lengths[symbol];
    if (length == 0) continue;
    Code const entry{static_cast<std::uint16_t>(symbol), static_cast<std::uint8_t>(length)};
    for (unsigned at = reverseBits(next[length]++, length); at < (1u << kTableBits); at += 1u << length)
      table[at] = entry;
  }
}

void CInflate64::useFixedTables() {
  unsigned char lengths[288];
  std::fill(lengths, lengths + 144, 8);
  std::fill(lengths + 144, lengths + 256, 9);
  std::fill(lengths + 256, lengths + 280, 7);
  std::fill(lengths + 280, lengths + 288, 8);
  buildTable(m_literals, lengths, 288);
  std::fill(lengths, lengths + 32, 5);
  buildTable(m_distances, lengths, 32);
}

void CInflate64::readDynamicTables() {
  int const literalCount = static_cast<int>(take(5)) + 257;
  int const distanceCount = static_cast<int>(take(5)) + 1;
  int const lengthCodeCount = static_cast<int>(take(4)) + 4;
  if (literalCount > 286 || distanceCount > (m_deflate64 ? 32 : 30)) damaged("a block has too many codes");
  unsigned char lengths[286 + 32] = {};
  for (int i = 0; i < lengthCodeCount; ++i) lengths[kLengthOrder[i]] = static_cast<unsigned char>(take(3));
  std::vector<Code> lengthCode;
  buildTable(lengthCode, lengths, 19);
  int const total = literalCount + distanceCount;
  std::fill(lengths, lengths + 19, 0);
  for (int at = 0; at < total;) {
    int const symbol = decode(lengthCode);
    if (symbol < 16) {
      lengths[at++] = static_cast<unsigned char>(symbol);
      continue;
    }
    unsigned char repeated = 0;
    int times = 0;
    if (symbol == 16) {
      if (at == 0) damaged("a length repeats before the first");
      repeated = lengths[at - 1];
      times = 3 + static_cast<int>(take(2));
    } else if (symbol == 17) {
      times = 3 + static_cast<int>(take(3));
    } else {
      times = 11 + static_cast<int>(take(7));
    }
    if (at + times > total) damaged("code lengths run past their count");
    std::fill(lengths + at, lengths + at + times, repeated);
    at += times;
  }
  if (lengths[256] == 0) damaged("a block has no end-of-block code");
  buildTable(m_literals, lengths, literalCount);
  buildTable(m_distances, lengths + literalCount, distanceCount);
}

void CInflate64::readBlockHeader() {
  m_lastBlock = take(1) != 0;
  switch (take(2)) {
  case 0: {
    take(m_bitCount % 8); // to the byte boundary
    unsigned const length = take(16);
    unsigned const check = take(16);
    if (length != (~check & 0xFFFF)) damaged("a stored block's length does not match its check");
    m_storedLeft = length;
    m_state = State::Stored;
    return;
  }
  case 1: useFixedTables(); break;
  case 2: readDynamicTables(); break;
  default: damaged("a block has the reserved type 3");
  }
  m_state = State::Codes;
}

std::size_t CInflate64::read(unsigned char* out, std::size_t size) {
  std::size_t produced = 0;
  auto put = [&](unsigned char byte) {
    m_window[m_windowPosition] = byte;
    m_windowPosition = (m_windowPosition + 1) & kWindowMask;
    out[produced++] = byte;
    ++m_written;
  };
  while (produced < size) {
    switch (m_state) {
    case State::Done: return produced;
    case State::Header: readBlockHeader(); break;
    case State::Stored: {
      if (m_storedLeft == 0) {
        m_state = m_lastBlock ? State::Done : State::Header;
        break;
      }
      while (m_storedLeft > 0 && produced < size && m_bitCount >= 8) { // whole bytes already taken
        put(static_cast<unsigned char>(m_bits & 0xFF));
        m_bits >>= 8;
        m_bitCount -= 8;
        --m_storedLeft;
      }
      while (m_storedLeft > 0 && produced < size) {
        if (!m_input.fill()) throwCutShort(m_name);
        std::size_t const n = std::min<std::size_t>({m_input.available(), m_storedLeft, size - produced});
        for (std::size_t i = 0; i < n; ++i) put(m_input.data()[i]);
        m_input.consume(n);
        m_storedLeft -= static_cast<std::uint32_t>(n);
      }
      break;
    }
    case State::Match: {
      std::size_t const n = std::min<std::size_t>(m_matchLeft, size - produced);
      for (std::size_t i = 0; i < n; ++i) put(m_window[(m_windowPosition - m_distance) & kWindowMask]);
      m_matchLeft -= static_cast<std::uint32_t>(n);
      if (m_matchLeft == 0) m_state = State::Codes;
      break;
    }
    case State::Codes: {
      int symbol = decode(m_literals);
      if (symbol < 256) {
        put(static_cast<unsigned char>(symbol));
        break;
      }
      if (symbol == 256) {
        m_state = m_lastBlock ? State::Done : State::Header;
        break;
      }
      symbol -= 257;
      if (symbol >= 29) damaged("invalid length code");
      std::uint32_t const length =
          m_deflate64 && symbol == 28 ? 3 + take(16) : kLengthBase[symbol] + take(kLengthExtra[symbol]);
      int const distanceSymbol = decode(m_distances);
      if (distanceSymbol >= (m_deflate64 ? 32 : 30)) damaged("invalid distance code");
      std::uint32_t const distance = kDistanceBase[distanceSymbol] + take(kDistanceExtra[distanceSymbol]);
      if (distance > m_written) damaged("invalid distance too far back");
      m_matchLeft = length;
      m_distance = distance;
      m_state = State::Match;
      break;
    }
    }
  }
  return produced;
}

std::size_t CInflate64::unusedInput() const { return static_cast<std::size_t>(m_bitCount / 8) + m_input.available(); }

std::unique_ptr<IEntryDecoder> makeInflate64Decoder(IByteSource& source) {
  return std::make_unique<CInflate64>(source, true);
}

} // namespace codecs
} // namespace ziputil
