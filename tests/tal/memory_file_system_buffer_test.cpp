// CMemoryFileSystem's read buffer: small reads come from a buffer of the
// stream's own, yet a read that starts after a write or setLength (through any
// stream of the file) has returned gets the file's current bytes.
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <string>

using tal::CURI;
using tal::String;

namespace {

class MemoryFileSystemBufferTest : public ::testing::Test {
protected:
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  CURI uri{String("mem:/b.bin")};

  std::string readAt(tal::IInStream& in, long long at, int size) {
    in.seek(at);
    std::string b(static_cast<std::size_t>(size), '\0');
    int n = in.readLax(&b[0], size);
    b.resize(static_cast<std::size_t>(n));
    return b;
  }
};

TEST_F(MemoryFileSystemBufferTest, AnotherStreamsWriteInsideTheBufferedRangeIsSeenAtOnce) {
  fs->setFile(uri, std::string(100000, 'a'));
  auto in = fs->openStream(uri, 1, 0);
  auto out = fs->openStream(uri, 3, 0);
  EXPECT_EQ(readAt(*in, 0, 1), "a"); // fills the buffer with bytes 0 to 65535
  out->seek(10);
  out->write("XYZ", 3, nullptr);
  EXPECT_EQ(readAt(*in, 9, 5), "aXYZa");
  out->seek(65535);
  out->write("Q", 1, nullptr);
  EXPECT_EQ(readAt(*in, 65534, 3), "aQa"); // across the buffer's end
  EXPECT_EQ(readAt(*in, 11, 1), "Y");
}

TEST_F(MemoryFileSystemBufferTest, ReadsInTwoPartsSeeWritesToEitherPart) {
  // Reads going back and forth between two parts of the file (each part buffered on its own), and a
  // third part, while another stream writes into each of them: every read gets the current bytes.
  fs->setFile(uri, std::string(300000, 'a'));
  auto in = fs->openStream(uri, 1, 0);
  auto out = fs->openStream(uri, 3, 0);
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    char const mark = static_cast<char>('A' + round);
    EXPECT_EQ(readAt(*in, 100, 1), std::string(1, round == 0 ? 'a' : static_cast<char>(mark - 1)));
    EXPECT_EQ(readAt(*in, 200000, 1), std::string(1, round == 0 ? 'a' : static_cast<char>(mark - 1)));
    out->seek(100);
    out->write(&mark, 1, nullptr);
    EXPECT_EQ(readAt(*in, 99, 3), std::string("a") + mark + "a"); // the first part's change
    EXPECT_EQ(readAt(*in, 200000, 1), std::string(1, round == 0 ? 'a' : static_cast<char>(mark - 1)));
    out->seek(200000);
    out->write(&mark, 1, nullptr);
    EXPECT_EQ(readAt(*in, 200000, 2), std::string(1, mark) + "a"); // the second part's change
    EXPECT_EQ(readAt(*in, 100, 1), std::string(1, mark));
    EXPECT_EQ(readAt(*in, 150000, 1), "a"); // a third part
    EXPECT_EQ(readAt(*in, 200000, 1), std::string(1, mark));
    EXPECT_EQ(readAt(*in, 100, 1), std::string(1, mark));
  }
}

TEST_F(MemoryFileSystemBufferTest, GrowthAndTruncationByAnotherStreamAreSeen) {
  fs->setFile(uri, "0123456789");
  auto in = fs->openStream(uri, 1, 0);
  auto out = fs->openStream(uri, 3, 0);
  EXPECT_EQ(readAt(*in, 5, 100), "56789");
  EXPECT_EQ(readAt(*in, 10, 1), ""); // at the end
  out->seek(10);
  out->write("ab", 2, nullptr);
  EXPECT_EQ(readAt(*in, 10, 5), "ab");
  EXPECT_EQ(in->getLength(), 12);
  out->setLength(4);
  EXPECT_EQ(readAt(*in, 2, 5), "23");
  EXPECT_EQ(readAt(*in, 6, 1), "");
  EXPECT_TRUE(in->isEndOfStream());
}

TEST_F(MemoryFileSystemBufferTest, OwnWritesAreReadBack) {
  auto s = fs->openStream(uri, 3, 2);
  s->write("hello world", 11, nullptr);
  EXPECT_EQ(readAt(*s, 0, 5), "hello");
  s->seek(6);
  s->write("WORLD", 5, nullptr);
  EXPECT_EQ(readAt(*s, 0, 11), "hello WORLD");
  s->setLength(5);
  EXPECT_EQ(readAt(*s, 0, 11), "hello");
}

TEST_F(MemoryFileSystemBufferTest, ReplacedFileLeavesOpenStreamsTheirBytes) {
  fs->setFile(uri, "old bytes");
  auto in = fs->openStream(uri, 1, 0);
  EXPECT_EQ(readAt(*in, 0, 3), "old");
  fs->setFile(uri, "new bytes");
  EXPECT_EQ(readAt(*in, 4, 5), "bytes");
  EXPECT_EQ(readAt(*in, 0, 3), "old");
  auto fresh = fs->openStream(uri, 1, 0);
  EXPECT_EQ(readAt(*fresh, 0, 3), "new");
}

TEST_F(MemoryFileSystemBufferTest, ByteByByteWalkMatchesOneBigRead) {
  std::string data;
  for (int i = 0; i < 300000; ++i) data += static_cast<char>((i * 7) ^ (i >> 9));
  fs->setFile(uri, data);
  auto in = fs->openStream(uri, 1, 0);
  std::string back;
  char c;
  while (in->readLax(&c, 1) == 1) back += c;
  EXPECT_EQ(back, data);
  // Backwards, in steps that leave and re-enter the buffer.
  for (long long at = 299999; at >= 0; at -= 70001) EXPECT_EQ(readAt(*in, at, 1), data.substr(static_cast<std::size_t>(at), 1));
  EXPECT_EQ(readAt(*in, 1000, 200000), data.substr(1000, 200000));
}

TEST_F(MemoryFileSystemBufferTest, LargeFilesGrowShrinkAndZeroFillGaps) {
  // Past 1 MiB a file's bytes move to a growing mapping; what was cut off never comes back.
  std::string data;
  for (int i = 0; i < 5 * 1024 * 1024 + 17; ++i) data += static_cast<char>(i % 251);
  auto s = fs->openStream(uri, 3, 2);
  for (std::size_t at = 0; at < data.size(); at += 10000)
    s->write(data.data() + at, static_cast<int>(std::min<std::size_t>(10000, data.size() - at)), nullptr);
  EXPECT_EQ(fs->getFile(uri), data);
  s->setLength(3 * 1024 * 1024);
  s->seek(4 * 1024 * 1024);
  s->write("Z", 1, nullptr);
  std::string expected = data.substr(0, 3 * 1024 * 1024) + std::string(1024 * 1024, '\0') + "Z";
  EXPECT_EQ(fs->getFile(uri), expected);
  s->setLength(6 * 1024 * 1024);
  expected += std::string(6 * 1024 * 1024 - expected.size(), '\0');
  EXPECT_EQ(fs->getFile(uri), expected);
  EXPECT_EQ(readAt(*s, 3 * 1024 * 1024 - 2, 4), data.substr(3 * 1024 * 1024 - 2, 2) + std::string(2, '\0'));
  s->setLength(10);
  EXPECT_EQ(fs->getFile(uri), data.substr(0, 10));
  s->close();
  fs->setFile(uri, data);
  EXPECT_EQ(fs->getFile(uri), data);
}

} // namespace
