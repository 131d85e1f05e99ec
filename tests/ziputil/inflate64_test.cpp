// The library's own inflater (codecs/Inflate64), checked in its plain deflate
// mode against zlib on many streams, and on damaged and cut streams. Its
// Deflate64 mode reads 7-Zip's archives in reader_methods_test.
#include "ziputil/codecs/Inflate64.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <stdexcept>

using ziputil::codecs::CInflate64;
using ziputil::codecs::DecodeError;

namespace {

/// Bytes from a string, in pieces of a chosen size; throws a test's own
/// exception after `failAfter` bytes.
class CStringSource : public ziputil::codecs::IByteSource {
public:
  struct Failure {};
  CStringSource(std::string data, std::size_t piece, std::size_t failAfter = std::string::npos)
      : m_data(std::move(data)), m_piece(piece), m_failAfter(failAfter) {}
  std::size_t read(unsigned char* buffer, std::size_t size) override {
    if (m_at >= m_failAfter) throw Failure();
    std::size_t const n = std::min({size, m_piece, m_data.size() - m_at, m_failAfter - m_at});
    std::copy(m_data.begin() + static_cast<std::ptrdiff_t>(m_at), m_data.begin() + static_cast<std::ptrdiff_t>(m_at + n),
              buffer);
    m_at += n;
    return n;
  }

private:
  std::string m_data;
  std::size_t m_piece;
  std::size_t m_failAfter;
  std::size_t m_at = 0;
};

std::string deflateRaw(std::string const& data, int level, int strategy) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, -MAX_WBITS, 8, strategy), Z_OK);
  std::string out(deflateBound(&stream, data.size()) + 16, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

std::string inflateAll(CInflate64& inflater, std::size_t piece) {
  std::string out;
  std::string buffer(piece, '\0');
  while (std::size_t n = inflater.read(reinterpret_cast<unsigned char*>(&buffer[0]), piece)) out.append(buffer, 0, n);
  EXPECT_EQ(inflater.read(reinterpret_cast<unsigned char*>(&buffer[0]), piece), 0u); // and again at the end
  return out;
}

std::string sample(std::mt19937& random, std::size_t size) {
  std::string data;
  switch (random() % 4) {
  case 0: // random bytes
    while (data.size() < size) data += static_cast<char>(random());
    break;
  case 1: // few symbols
    while (data.size() < size) data += static_cast<char>('a' + random() % 4);
    break;
  case 2: // words
    while (data.size() < size) data += std::string("token") + std::to_string(random() % 50) + ' ';
    break;
  default: // long runs, and repeats from far back
    while (data.size() < size) {
      if (data.size() > 40000 && random() % 3 == 0)
        data += data.substr(data.size() - 32768 + random() % 1000, 300 + random() % 3000);
      else
        data += std::string(1 + random() % 400, static_cast<char>(random()));
    }
    break;
  }
  data.resize(size);
  return data;
}

TEST(Inflate64Test, DecodesWhatZlibDeflatesAtEveryLevelAndStrategy) {
  std::mt19937 random(42);
  std::size_t const sizes[] = {0, 1, 2, 100, 32768, 32769, 65536, 70000, 300000};
  int const strategies[] = {Z_DEFAULT_STRATEGY, Z_FILTERED, Z_HUFFMAN_ONLY, Z_RLE, Z_FIXED};
  int cases = 0;
  for (std::size_t size : sizes) {
    for (int level : {0, 1, 6, 9}) {
      for (int strategy : strategies) {
        std::string const data = sample(random, size);
        std::string const packed = deflateRaw(data, level, strategy);
        std::size_t const piece = 1 + random() % 9000;
        CStringSource source(packed + "tail", 1 + random() % 5000);
        CInflate64 inflater(source, false);
        ASSERT_EQ(inflateAll(inflater, piece), data) << size << " " << level << " " << strategy;
        // what was taken beyond the stream, plus what the source still holds, is the tail
        unsigned char rest[16];
        std::size_t const left = source.read(rest, sizeof rest);
        EXPECT_EQ(inflater.unusedInput() + left, 4u) << size << " " << level << " " << strategy;
        ++cases;
      }
    }
  }
  EXPECT_EQ(cases, 9 * 4 * 5);
}

TEST(Inflate64Test, AStreamCutAnywhereIsDamagedNeverShortSuccess) {
  std::mt19937 random(5);
  std::string const data = sample(random, 50000);
  std::string const packed = deflateRaw(data, 6, Z_DEFAULT_STRATEGY);
  for (std::size_t cut = 0; cut < packed.size(); cut += 1 + cut / 7) {
    CStringSource source(packed.substr(0, cut), 4096);
    CInflate64 inflater(source, false);
    try {
      inflateAll(inflater, 1000);
      FAIL() << "a stream cut at " << cut << " of " << packed.size() << " decoded";
    } catch (DecodeError const& e) {
      EXPECT_EQ(e.kind(), DecodeError::Kind::Damaged);
      EXPECT_STREQ(e.what(), "deflate data ends before its end");
    }
  }
}

TEST(Inflate64Test, DamagedStreamsAreRefusedByName) {
  struct Case {
    std::string stream;
    char const* message;
  };
  Case const cases[] = {
      {std::string("\x07", 1), "deflate data is damaged: a block has the reserved type 3"},
      {std::string("\x01\x05\x00\xFF\xFF", 5), "deflate data is damaged: a stored block's length does not match its check"},
      // a fixed block whose first code is a match 1 byte back, before anything was written
      {std::string("\x03\x02", 2) + std::string(8, '\0'), "deflate data is damaged: invalid distance too far back"},
  };
  for (Case const& c : cases) {
    CStringSource source(c.stream, 100);
    CInflate64 inflater(source, false);
    try {
      inflateAll(inflater, 100);
      FAIL() << c.message;
    } catch (DecodeError const& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
}

TEST(Inflate64Test, RandomBytesNeverCrashOrHang) {
  std::mt19937 random(9);
  int refused = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string garbage(1 + random() % 600, '\0');
    for (char& c : garbage) c = static_cast<char>(random());
    CStringSource source(garbage, 1 + random() % 64);
    CInflate64 inflater(source, i % 2 == 0);
    try {
      std::string const out = inflateAll(inflater, 4096);
      EXPECT_LE(out.size(), garbage.size() * 65538 * 8); // bounded by the input, whatever it is
    } catch (DecodeError const&) {
      ++refused;
    }
  }
  EXPECT_GT(refused, 1500); // most random streams break the format
}

TEST(Inflate64Test, TheSourcesOwnFailurePassesUnchanged) {
  std::mt19937 random(3);
  std::string const packed = deflateRaw(sample(random, 100000), 6, Z_DEFAULT_STRATEGY);
  CStringSource source(packed, 1000, packed.size() / 2);
  CInflate64 inflater(source, false);
  EXPECT_THROW(inflateAll(inflater, 4096), CStringSource::Failure);
}

} // namespace
