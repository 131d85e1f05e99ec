// Reading deflated entries gives what zlib gives, damaged data included: the
// bytes delivered before the error, the read that fails and its result code.
// The reference is zlib itself, driven the way minizip's unzReadCurrentFile
// drives it (16 KiB chunks of compressed data, output capped at the entry's
// remaining size). The reader is checked in every build; the ISA-L decoder
// (built with ZIPUTIL_WITH_ISAL) is also checked on its own, over many more
// cases than the reader tests run.
#include "ziputil/CZipReader.h"

#include "support/StreamChecks.h"
#include "support/ZipFixtures.h"
#include "tal/MemoryFileSystem.h"

#ifdef ZIPUTIL_INFLATE_ISAL
#include "ziputil/codecs/InflateIsal.h"
#endif

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using ziputil::CZipReader;

namespace {

// ---- test data ------------------------------------------------------------

std::string sampleText(std::size_t size, unsigned seed) {
  // Words and numbers: compresses with matches of every length and distance.
  std::mt19937 rng(seed);
  static char const* const words[] = {"alpha ", "beta ", "gamma ", "delta\n", "epsilon ", "zeta, ", "eta ",
                                      "theta ", "iota ", "kappa. "};
  std::string text;
  while (text.size() < size) {
    if (rng() % 5 == 0)
      text += std::to_string(rng() % 100000);
    else
      text += words[rng() % 10];
    if (rng() % 97 == 0) text += static_cast<char>(rng() & 0xff);
  }
  text.resize(size);
  return text;
}

std::string deflateRaw(std::string const& data, int level, std::string const& dictionary = std::string()) {
  z_stream z{};
  EXPECT_EQ(deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY), Z_OK);
  if (!dictionary.empty())
    deflateSetDictionary(&z, reinterpret_cast<Bytef const*>(dictionary.data()), static_cast<uInt>(dictionary.size()));
  std::string out(deflateBound(&z, data.size()) + 64, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(&out[0]);
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

unsigned long crcOf(std::string const& data) {
  return crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<Bytef const*>(data.data()), static_cast<uInt>(data.size()));
}

// A stored (type 0) deflate block.
std::string storedBlock(std::string const& data, bool last, bool badLength = false) {
  std::string b;
  b += static_cast<char>(last ? 1 : 0);
  auto len = static_cast<uint16_t>(data.size());
  auto nlen = static_cast<uint16_t>(~len ^ (badLength ? 1 : 0));
  b += static_cast<char>(len & 0xff);
  b += static_cast<char>(len >> 8);
  b += static_cast<char>(nlen & 0xff);
  b += static_cast<char>(nlen >> 8);
  return b + data;
}

// ---- minizip's read loop, over any inflate -------------------------------

struct InflateApi {
  int (*init)(z_streamp, int);
  int (*inflate)(z_streamp, int);
  int (*end)(z_streamp);
  bool isal;
};

int zlibInit(z_streamp s, int bits) { return inflateInit2(s, bits); }
int zlibInflate(z_streamp s, int flush) { return inflate(s, flush); }
int zlibEnd(z_streamp s) { return inflateEnd(s); }
InflateApi const zlibApi{zlibInit, zlibInflate, zlibEnd, false};
#ifdef ZIPUTIL_INFLATE_ISAL
InflateApi const isalApi{ziputil_inflateIsalInit2, ziputil_inflateIsal, ziputil_inflateIsalEnd, true};
#endif

// The deflate branch of unzReadCurrentFile, statement for statement.
class EntryRead {
public:
  EntryRead(InflateApi const& api, std::string compressed, unsigned long long uncompressedSize)
      : m_api(api), m_data(std::move(compressed)), m_restCompressed(m_data.size()),
        m_restUncompressed(uncompressedSize), m_buffer(16384) {
    EXPECT_EQ(m_api.init(&m_stream, -MAX_WBITS), Z_OK);
#ifdef ZIPUTIL_INFLATE_ISAL
    if (m_api.isal) ziputil_inflateIsalSetSource(&m_stream, readAgain, this, m_data.size());
#endif
  }
  ~EntryRead() { m_api.end(&m_stream); }

  int read(char* buf, unsigned len) {
    int err = Z_OK;
    unsigned iRead = 0;
    if (len == 0) return 0;
    m_stream.next_out = reinterpret_cast<Bytef*>(buf);
    m_stream.avail_out = len;
    if (len > m_restUncompressed) m_stream.avail_out = static_cast<uInt>(m_restUncompressed);
    while (m_stream.avail_out > 0) {
      if (m_stream.avail_in == 0 && m_restCompressed > 0) {
        unsigned n = m_restCompressed < 16384 ? static_cast<unsigned>(m_restCompressed) : 16384u;
        std::memcpy(m_buffer.data(), m_data.data() + m_pos, n);
        m_pos += n;
        m_restCompressed -= n;
        m_stream.next_in = m_buffer.data();
        m_stream.avail_in = n;
        ++chunksRead;
      }
      uLong before = m_stream.total_out;
      err = m_api.inflate(&m_stream, Z_SYNC_FLUSH);
      if (err >= 0 && m_stream.msg != nullptr) err = Z_DATA_ERROR;
      uLong out = m_stream.total_out - before;
      m_restUncompressed -= out;
      iRead += static_cast<unsigned>(out);
      if (err == Z_STREAM_END) return iRead == 0 ? 0 : static_cast<int>(iRead);
      if (err != Z_OK) break;
    }
    if (err == Z_OK) return static_cast<int>(iRead);
    return err;
  }

  int chunksRead = 0;

private:
  static int readAgain(void* opaque, unsigned long long offset, void* buf, unsigned len) {
    auto* self = static_cast<EntryRead*>(opaque);
    if (offset + len > self->m_data.size()) return -1;
    std::memcpy(buf, self->m_data.data() + offset, len);
    return 0;
  }

  InflateApi m_api;
  std::string m_data;
  std::size_t m_pos = 0;
  unsigned long long m_restCompressed;
  unsigned long long m_restUncompressed;
  std::vector<Bytef> m_buffer;
  z_stream m_stream{};
};

// What a sequence of reads gives: each read's result, the bytes delivered by
// successful reads, and the bytes a failing read left in the buffer.
struct Outcome {
  std::vector<int> results;
  std::string delivered;
  std::string failedReadBytes;
  bool operator==(Outcome const& o) const {
    return results == o.results && delivered == o.delivered && failedReadBytes == o.failedReadBytes;
  }
};

std::ostream& operator<<(std::ostream& os, Outcome const& o) {
  os << o.results.size() << " reads, " << o.delivered.size() << " bytes, last result "
     << (o.results.empty() ? 0 : o.results.back());
  return os;
}

// Reads with the sizes in `sizes` (cycled) until a read gives 0 or fails, and
// once more after that.
Outcome readAll(InflateApi const& api, std::string const& compressed, unsigned long long size,
                std::vector<unsigned> const& sizes) {
  Outcome o;
  EntryRead entry(api, compressed, size);
  int after = 0;
  for (std::size_t i = 0; i < 100000 && after < 2; ++i) {
    unsigned len = sizes[i % sizes.size()];
    std::string buf(len, '\x5a');
    int r = entry.read(&buf[0], len);
    o.results.push_back(r);
    if (r > 0) o.delivered.append(buf.data(), static_cast<std::size_t>(r));
    if (r < 0 && after == 0) {
      std::size_t k = buf.find_last_not_of('\x5a');
      o.failedReadBytes = buf.substr(0, k == std::string::npos ? 0 : k + 1);
    }
    if (r <= 0) ++after;
  }
  return o;
}

std::vector<std::vector<unsigned>> const readSizes{{1}, {7}, {100}, {4096}, {16384}, {65536}, {1u << 20}, {3, 5000, 65536, 1}};

// ---- the reader over a hand-made archive ---------------------------------

void put16(std::string& s, unsigned v) {
  s += static_cast<char>(v & 0xff);
  s += static_cast<char>((v >> 8) & 0xff);
}
void put32(std::string& s, unsigned long v) {
  put16(s, static_cast<unsigned>(v & 0xffff));
  put16(s, static_cast<unsigned>((v >> 16) & 0xffff));
}

// One deflated entry "e" holding `compressed`, declared with `size` and `crc`.
std::string archiveWith(std::string const& compressed, unsigned long size, unsigned long crc) {
  // The fields both headers share, from the flags to the extra field's length.
  auto putShared = [&](std::string& zip) {
    put16(zip, 0);
    put16(zip, 8);
    put32(zip, 0x4f9f0000);
    put32(zip, crc);
    put32(zip, static_cast<unsigned long>(compressed.size()));
    put32(zip, size);
    put16(zip, 1);
    put16(zip, 0);
  };
  std::string zip;
  put32(zip, 0x04034b50);
  put16(zip, 20);
  putShared(zip);
  zip += "e";
  zip += compressed;
  std::size_t central = zip.size();
  put32(zip, 0x02014b50);
  put16(zip, 20);
  put16(zip, 20);
  putShared(zip);
  put16(zip, 0);
  put16(zip, 0);
  put16(zip, 0);
  put32(zip, 0);
  put32(zip, 0);
  zip += "e";
  std::size_t centralSize = zip.size() - central;
  put32(zip, 0x06054b50);
  put16(zip, 0);
  put16(zip, 0);
  put16(zip, 1);
  put16(zip, 1);
  put32(zip, static_cast<unsigned long>(centralSize));
  put32(zip, static_cast<unsigned long>(central));
  put16(zip, 0);
  return zip;
}

// The same reads through CZipReader: a failed read's "result" stands for the
// result code, and the error itself is checked in full.
Outcome readThroughReader(std::string const& compressed, unsigned long size, std::vector<unsigned> const& sizes) {
  auto fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/c.zip"));
  fs->setFile(uri, archiveWith(compressed, size, 0));
  auto reader = tal::newObj<CZipReader>(fs.get(), uri, tal::String());
  EXPECT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  Outcome o;
  int after = 0;
  for (std::size_t i = 0; i < 100000 && after < 2; ++i) {
    unsigned len = sizes[i % sizes.size()];
    std::string buf(len, '\x5a');
    int r = 0;
    try {
      r = in->readLax(&buf[0], static_cast<int>(len));
    } catch (tal::CFileSystemError const& e) {
      EXPECT_EQ(e.getProblem(), tal::CFileSystemError::Unspecified);
      EXPECT_EQ(e.getCode(), tal::CIOError::ReadFailed);
      EXPECT_EQ(testsupport::utf8(e.getMessage()), "unzReadCurrentFile failed");
      EXPECT_EQ(testsupport::utf8(e.getContext()), "IO");
      EXPECT_EQ(e.getProps().get("uri").toUTF8(), "mem:/c.zip/e");
      r = std::stoi(e.getProps().get("result").toUTF8());
      EXPECT_LT(r, 0);
    }
    o.results.push_back(r);
    if (r > 0) o.delivered.append(buf.data(), static_cast<std::size_t>(r));
    if (r < 0 && after == 0) {
      std::size_t k = buf.find_last_not_of('\x5a');
      o.failedReadBytes = buf.substr(0, k == std::string::npos ? 0 : k + 1);
    }
    if (r <= 0) ++after;
  }
  in->close();
  reader->close();
  return o;
}

// ---- damaged streams -----------------------------------------------------

struct Damaged {
  std::string name;
  std::string compressed;
  unsigned long size; // declared uncompressed size
};

std::string const& text() {
  static std::string const t = sampleText(300000, 7);
  return t;
}

std::vector<Damaged> damagedStreams(std::size_t flips) {
  std::vector<Damaged> cases;
  std::string const& data = text();
  auto size = static_cast<unsigned long>(data.size());
  for (int level : {1, 6, 9}) {
    std::string good = deflateRaw(data, level);
    cases.push_back({"level " + std::to_string(level) + " intact", good, size});
    cases.push_back({"level " + std::to_string(level) + " declared short", good, size - 1000});
    cases.push_back({"level " + std::to_string(level) + " declared long", good, size + 1000});
    for (std::size_t i = 0; i < flips; ++i) {
      std::size_t bit = (i * 2654435761u) % (good.size() * 8);
      std::string bad = good;
      bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ (1 << (bit % 8)));
      cases.push_back({"level " + std::to_string(level) + " bit " + std::to_string(bit) + " flipped", bad, size});
    }
    for (std::size_t cut : {std::size_t(0), std::size_t(1), std::size_t(2), std::size_t(100), good.size() / 3,
                            good.size() / 2 + 1, good.size() - 2, good.size() - 1}) {
      cases.push_back({"level " + std::to_string(level) + " cut at " + std::to_string(cut), good.substr(0, cut), size});
    }
  }
  std::string const a = data.substr(0, 40000), b = data.substr(40000, 30000);
  // A second block of the reserved type 3 after a stored block.
  cases.push_back({"invalid block type", storedBlock(a, false) + std::string(1, '\x07') + std::string(50, 'x'),
                   static_cast<unsigned long>(a.size() + 100)});
  cases.push_back({"invalid block type first", std::string(1, '\x07') + std::string(50, 'x'), 100});
  // A stored block whose length and its complement disagree.
  cases.push_back({"stored length mismatch", storedBlock(a, false) + storedBlock(b, true, true),
                   static_cast<unsigned long>(a.size() + b.size())});
  cases.push_back({"stored blocks intact", storedBlock(a, false) + storedBlock(b, true),
                   static_cast<unsigned long>(a.size() + b.size())});
  cases.push_back({"stored block cut", (storedBlock(a, false) + storedBlock(b, true)).substr(0, 50000),
                   static_cast<unsigned long>(a.size() + b.size())});
  // Matches into a preset dictionary that the reader does not have.
  std::string dictionary = data.substr(100000, 30000);
  cases.push_back({"distance too far back", deflateRaw(data.substr(100000, 60000), 6, dictionary), 60000});
  // After a stored block, a fixed-Huffman block whose first match reaches back past the start.
  {
    std::string s = storedBlock("abc", false);
    // Fixed block, final: bits 1 (BFINAL), 01 (fixed), then length code 257 (len 3) = 0000001,
    // distance code 5 (distance 7..8) = 00101 + 1 extra bit: the distance exceeds the 3 bytes written.
    uint32_t acc = 0;
    int n = 0;
    auto bits = [&](uint32_t v, int count, bool msbFirst) {
      for (int k = 0; k < count; ++k) {
        uint32_t bit = msbFirst ? (v >> (count - 1 - k)) & 1 : (v >> k) & 1;
        acc |= bit << n++;
      }
    };
    bits(1, 1, false);
    bits(1, 2, false);
    bits(1, 7, true);
    bits(5, 5, true);
    bits(1, 1, false);
    bits(0, 7, true); // end of block
    std::string tail;
    for (int k = 0; k < n; k += 8) tail += static_cast<char>((acc >> k) & 0xff);
    cases.push_back({"distance past the start", s + tail, 20});
  }
  cases.push_back({"empty stream", std::string(), 10});
  cases.push_back({"empty final block", std::string("\x03\x00", 2), 0});
  return cases;
}

} // namespace

TEST(InflateCompatTest, ReaderGivesZlibsOutcomeForDamagedData) {
  for (Damaged const& c : damagedStreams(40)) {
    for (auto const& sizes : {readSizes[0], readSizes[3], readSizes[5], readSizes[7]}) {
      if (sizes[0] == 1 && c.compressed.size() > 60000 && c.name.find("bit") == std::string::npos) continue;
      Outcome expected = readAll(zlibApi, c.compressed, c.size, sizes);
      Outcome actual = readThroughReader(c.compressed, c.size, sizes);
      EXPECT_EQ(actual, expected) << c.name << ", reads of " << sizes[0];
    }
  }
}

TEST(InflateCompatTest, ReferenceCoversEveryKindOfDamage) {
  // The cases above reach every outcome the reader must reproduce.
  bool dataError = false, bufError = false, shortRead = false, fullRead = false;
  for (Damaged const& c : damagedStreams(40)) {
    Outcome o = readAll(zlibApi, c.compressed, c.size, {65536});
    int last = o.results.size() >= 2 ? o.results[o.results.size() - 2] : 0;
    dataError |= last == Z_DATA_ERROR;
    bufError |= last == Z_BUF_ERROR;
    shortRead |= last == 0 && o.delivered.size() < c.size;
    fullRead |= last == 0 && o.delivered.size() == c.size;
  }
  EXPECT_TRUE(dataError);
  EXPECT_TRUE(bufError);
  EXPECT_TRUE(shortRead);
  EXPECT_TRUE(fullRead);
}

TEST(InflateCompatTest, VerificationReportsZlibsCrc) {
  // A stored block's byte changed: the data inflates, and the check names the CRC of what zlib delivers.
  std::string const& data = text();
  std::string a = data.substr(0, 20000);
  std::string compressed = storedBlock(a, true);
  unsigned long stored = crcOf(a);
  compressed[500] = static_cast<char>(compressed[500] ^ 0x20);
  std::string changed = a;
  changed[495] = static_cast<char>(changed[495] ^ 0x20);
  auto fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/v.zip"));
  fs->setFile(uri, archiveWith(compressed, static_cast<unsigned long>(a.size()), stored));
  CZipReader::Options options;
  options.verifyEntries = true;
  auto reader = tal::newObj<CZipReader>(fs.get(), uri, tal::String(), options);
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  std::string buf(a.size() + 10, '\0');
  char expected[128];
  std::snprintf(expected, sizeof expected, "ZIP entry's CRC-32 does not match: computed %08lx, stored %08lx",
                crcOf(changed), stored);
  try {
    while (in->readLax(&buf[0], 4096) > 0) {
    }
    FAIL() << "no error";
  } catch (tal::CError const& e) {
    EXPECT_EQ(testsupport::utf8(e.getMessage()), expected);
  }
}

#ifdef ZIPUTIL_INFLATE_ISAL

// zlib's message for a stream, inflated whole.
std::string zlibMessage(std::string const& compressed) {
  z_stream z{};
  inflateInit2(&z, -MAX_WBITS);
  std::vector<Bytef> out(1 << 20);
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  z.avail_in = static_cast<uInt>(compressed.size());
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(out.size());
  inflate(&z, Z_SYNC_FLUSH);
  std::string message = z.msg == nullptr ? "" : z.msg;
  inflateEnd(&z);
  return message;
}

bool isRefusedCodeSet(std::string const& message) {
  return message == "invalid literal/lengths set" || message == "invalid distances set" ||
         message == "invalid code lengths set";
}

TEST(InflateIsalTest, CrcMatchesZlib) {
  std::string const& data = text();
  for (std::size_t len : {std::size_t(0), std::size_t(1), std::size_t(15), std::size_t(4096), data.size()}) {
    unsigned long z = crc32(12345, reinterpret_cast<Bytef const*>(data.data()), static_cast<uInt>(len));
    unsigned long i = ziputil_crc32Isal(12345, reinterpret_cast<Bytef const*>(data.data()), static_cast<uInt>(len));
    EXPECT_EQ(i, z) << len;
  }
  EXPECT_EQ(ziputil_crc32Isal(77, Z_NULL, 0), crc32(77, Z_NULL, 0));
}

TEST(InflateIsalTest, SameOutcomeAsZlibForEveryDamageAndReadSize) {
  std::size_t compared = 0, mismatches = 0;
  for (Damaged const& c : damagedStreams(250)) {
    for (auto const& sizes : readSizes) {
      if (sizes[0] == 1 && c.compressed.size() > 60000) continue;
      Outcome expected = readAll(zlibApi, c.compressed, c.size, sizes);
      Outcome actual = readAll(isalApi, c.compressed, c.size, sizes);
      ++compared;
      if (actual == expected) continue;
      // The one known difference: a damaged dynamic block header whose Huffman code zlib
      // refuses as incomplete or over-subscribed, and which ISA-L decodes.
      EXPECT_TRUE(isRefusedCodeSet(zlibMessage(c.compressed))) << c.name << ", reads of " << sizes[0];
      ++mismatches;
    }
  }
  EXPECT_GT(compared, 5000u);
  EXPECT_LE(mismatches, 8u);
}

TEST(InflateIsalTest, ValidDataNeedsNoSecondRead) {
  // Intact data is inflated by ISA-L alone: the compressed bytes are read once.
  std::string const& data = text();
  std::string good = deflateRaw(data, 6);
  EntryRead entry(isalApi, good, data.size());
  std::string out(data.size(), '\0');
  std::size_t got = 0;
  int r;
  while ((r = entry.read(&out[got], 65536)) > 0) got += static_cast<std::size_t>(r);
  EXPECT_EQ(r, 0);
  EXPECT_EQ(out, data);
  EXPECT_EQ(entry.chunksRead, static_cast<int>((good.size() + 16383) / 16384));
}

TEST(InflateIsalTest, SourceFailureGivesErrnoAndIsRetried) {
  std::string const& data = text();
  std::string bad = deflateRaw(data, 6);
  bad.resize(bad.size() / 2);
  struct Source {
    std::string bytes;
    int failures = 1;
  } source{bad};
  z_stream z{};
  ASSERT_EQ(ziputil_inflateIsalInit2(&z, -MAX_WBITS), Z_OK);
  ziputil_inflateIsalSetSource(
      &z,
      [](void* opaque, unsigned long long offset, void* buf, unsigned len) {
        auto* s = static_cast<Source*>(opaque);
        if (s->failures > 0) {
          --s->failures;
          return -1;
        }
        std::memcpy(buf, s->bytes.data() + offset, len);
        return 0;
      },
      &source, bad.size());
  std::string out(data.size(), '\0');
  z.next_in = reinterpret_cast<Bytef*>(&bad[0]);
  z.avail_in = static_cast<uInt>(bad.size());
  z.next_out = reinterpret_cast<Bytef*>(&out[0]);
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(ziputil_inflateIsal(&z, Z_SYNC_FLUSH), Z_OK); // the input taken, all bytes but the last handed out
  uLong first = z.total_out;
  EXPECT_GT(first, 0u);
  z.avail_in = 0;
  EXPECT_EQ(ziputil_inflateIsal(&z, Z_SYNC_FLUSH), Z_ERRNO); // zlib must read again, and the source fails
  EXPECT_EQ(z.total_out, first);
  int r = ziputil_inflateIsal(&z, Z_SYNC_FLUSH);
  EXPECT_TRUE(r == Z_OK || r == Z_BUF_ERROR) << r;
  EXPECT_EQ(out.substr(0, z.total_out), data.substr(0, z.total_out));
  EXPECT_EQ(ziputil_inflateIsal(&z, Z_SYNC_FLUSH), Z_BUF_ERROR); // cut short: zlib's answer
  EXPECT_EQ(ziputil_inflateIsalEnd(&z), Z_OK);
}

TEST(InflateIsalTest, OnlyRawDeflateIsSupported) {
  z_stream z{};
  EXPECT_EQ(ziputil_inflateIsalInit2(&z, MAX_WBITS), Z_STREAM_ERROR);
  EXPECT_EQ(ziputil_inflateIsalInit2(nullptr, -MAX_WBITS), Z_STREAM_ERROR);
  EXPECT_EQ(ziputil_inflateIsal(nullptr, Z_SYNC_FLUSH), Z_STREAM_ERROR);
  EXPECT_EQ(ziputil_inflateIsalEnd(nullptr), Z_STREAM_ERROR);
}

#endif
