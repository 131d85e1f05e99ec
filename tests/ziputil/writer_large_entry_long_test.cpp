// One entry larger than 4 GiB written through the local file system, then
// checked by Info-ZIP unzip and Python's zipfile and read back through the reader.
#include "ziputil/CZipWriter.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <vector>

namespace {

constexpr long long kEntrySize = (4LL << 30) + 12345; // past 4 GiB
constexpr int kChunk = 4 << 20;

std::string hex8(unsigned long value) {
  char text[16];
  std::snprintf(text, sizeof text, "%08lx", value);
  return text;
}

/// Compressible but not trivial: a 64 KiB pattern with the chunk number mixed in.
void fillChunk(std::vector<unsigned char>& chunk, long long index) {
  for (std::size_t i = 0; i < chunk.size(); ++i)
    chunk[i] = static_cast<unsigned char>("ziputil large entry "[i % 20] ^ ((i >> 16) + index) % 7);
}

TEST(WriterLargeEntryTest, EntryBeyondFourGiB) {
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  tal::CURI uri = dir.uri("large.zip");
  ziputil::createEmptyArchive(fs.get(), uri);
  uLong crc = crc32(0L, Z_NULL, 0);
  {
    auto writer = tal::newObj<ziputil::CZipWriter>(fs.get(), uri, tal::String(), ziputil::CZipWriter::CompFastest);
    auto out = writer->beginAddFile(testsupport::entryURI("large.bin"), tal::CTimeFields());
    std::vector<unsigned char> chunk(kChunk);
    for (long long written = 0, index = 0; written < kEntrySize; ++index) {
      int const n = static_cast<int>(std::min<long long>(kChunk, kEntrySize - written));
      fillChunk(chunk, index);
      out->write(chunk.data(), n, nullptr);
      crc = crc32(crc, chunk.data(), static_cast<uInt>(n));
      written += n;
    }
    EXPECT_EQ(out->getPosition(), kEntrySize);
    out->close();
    writer->close();
  }
  std::string listing;
  ASSERT_EQ(testsupport::runCommand("unzip -t " + testsupport::shellQuote(dir.file("large.zip")), &listing), 0)
      << listing;
  EXPECT_NE(listing.find("testing: large.bin"), std::string::npos);
  EXPECT_NE(listing.find("No errors detected"), std::string::npos);

  auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), uri, tal::String());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileUncompressedSize(), kEntrySize);
  EXPECT_EQ(reader->getCurrentFileCRC32(), crc);
  auto in = reader->openCurrentFileStream();
  std::vector<unsigned char> buffer(kChunk);
  long long total = 0;
  uLong readCrc = crc32(0L, Z_NULL, 0);
  while (int n = in->readLax(buffer.data(), kChunk)) {
    readCrc = crc32(readCrc, buffer.data(), static_cast<uInt>(n));
    total += n;
  }
  EXPECT_EQ(total, kEntrySize);
  EXPECT_EQ(readCrc, crc);
  in->close();
  reader->close();

  EXPECT_EQ(testsupport::runPython(R"(
import sys, zipfile
info = zipfile.ZipFile(sys.argv[1]).getinfo("large.bin")
print(info.file_size, info.compress_type, "%08x" % info.CRC, info.compress_size < info.file_size // 10)
)",
                                   {dir.file("large.zip")}),
            std::to_string(kEntrySize) + " 8 " + hex8(crc) + " True\n");
  ASSERT_EQ(std::remove(dir.file("large.zip").c_str()), 0);
  EXPECT_FALSE(fs->exists(uri));
}

} // namespace
