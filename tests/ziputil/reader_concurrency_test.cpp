// Threads sharing one reader and its entry stream: every minizip call is
// serialised by the reader's mutex.
#include "ziputil/CZipReader.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using testsupport::entryURI;
using testsupport::utf8;
using ziputil::CZipReader;

namespace {

std::string pattern(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>('a' + (i / 4) % 26); // 4-byte runs
  return data;
}

class ReaderConcurrencyTest : public ::testing::Test {
protected:
  void SetUp() override {
    testsupport::TempDir dir;
    testsupport::makeZip(dir.file("c.zip"), {{"big", pattern(400000)}, {"x", "x"}, {"y", "y"}});
    fs->setFile(uri, testsupport::readFile(dir.file("c.zip")));
    reader = tal::newObj<CZipReader>(fs.get(), uri, tal::String());
  }
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri{tal::String("mem:/c.zip")};
  tal::P<CZipReader> reader;
};

TEST_F(ReaderConcurrencyTest, ThreadsReadingOneStreamGetEveryByteOnce) {
  ASSERT_TRUE(reader->tryGoToFile(entryURI("big")));
  tal::P<tal::IInStream> in = reader->openCurrentFileStream();
  std::atomic<long long> total{0};
  std::atomic<int> badChunks{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      char chunk[4];
      while (int n = in->readLax(chunk, 4)) {
        total += n;
        // Chunks of 4 from a stream of 4-byte runs are whole runs when reads do not interleave.
        if (n != 4 || chunk[1] != chunk[0] || chunk[2] != chunk[0] || chunk[3] != chunk[0]) ++badChunks;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(total.load(), 400000);
  EXPECT_EQ(badChunks.load(), 0);
  in->close();
}

TEST_F(ReaderConcurrencyTest, MovingWhileAnotherThreadReadsIsRefusedCleanly) {
  ASSERT_TRUE(reader->tryGoToFile(entryURI("big")));
  tal::P<tal::IInStream> in = reader->openCurrentFileStream();
  std::atomic<bool> done{false};
  std::atomic<int> refusals{0};
  std::thread mover([&] {
    while (!done) {
      try {
        reader->nextFile();
      } catch (tal::CError const& e) {
        if (utf8(e.getMessage()) == "CZipReader cannot advance to next file because the current file is still open.")
          ++refusals;
      }
    }
  });
  while (refusals.load() == 0) tal::threadYield(true); // the mover is at work
  std::string data;
  char buffer[1000];
  while (int n = in->readLax(buffer, sizeof buffer)) data.append(buffer, static_cast<std::size_t>(n));
  done = true;
  mover.join();
  EXPECT_EQ(data, pattern(400000));
  EXPECT_GT(refusals.load(), 0);
  in->close();
  EXPECT_TRUE(reader->nextFile());
}

TEST_F(ReaderConcurrencyTest, CloseRacingReadsLeavesEverythingConsistent) {
  ASSERT_TRUE(reader->tryGoToFile(entryURI("big")));
  tal::P<tal::IInStream> in = reader->openCurrentFileStream();
  std::atomic<long long> total{0};
  std::atomic<int> closedErrors{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      char chunk[512];
      try {
        while (int n = in->readLax(chunk, sizeof chunk)) total += n;
      } catch (tal::CError const& e) { // the archive closed under the stream, or the stream closed
        if (e.getCode() == tal::CIOError::StreamClosed) ++closedErrors;
      }
    });
  }
  threads.emplace_back([&] { reader->close(); });
  for (auto& thread : threads) thread.join();
  EXPECT_LE(total.load(), 400000);
  EXPECT_TRUE(total.load() == 400000 || closedErrors.load() > 0);
  if (closedErrors.load() > 0) {
    EXPECT_NO_THROW(in->close()); // a read found the archive closed and closed the stream
  } else {
    EXPECT_THROW(in->close(), tal::CFileSystemError); // every read came first: the archive closed under the stream
  }
  EXPECT_NO_THROW(in->close());
}

TEST_F(ReaderConcurrencyTest, ManyReadersOnOneFileSystem) {
  std::vector<std::thread> threads;
  std::atomic<int> ok{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      auto own = tal::newObj<CZipReader>(fs.get(), uri, tal::String());
      int count = 0;
      while (own->nextFile()) ++count;
      own->close();
      if (count == 3) ++ok;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(ok.load(), 4);
}

} // namespace

namespace {

/// After a positioning, the entry's URI is built at the first getter that asks
/// for it; threads asking at once all get it whole.
TEST_F(ReaderConcurrencyTest, GettersOnSeveralThreadsAfterALookupAgree) {
  for (char const* name : {"x", "big", "y"}) {
    ASSERT_TRUE(reader->tryGoToFile(entryURI(name)));
    std::vector<std::string> seen(4);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < seen.size(); ++t)
      threads.emplace_back([&, t] { seen[t] = utf8(reader->getCurrentFileRelativeURI().toString(true)); });
    for (auto& thread : threads) thread.join();
    for (std::string const& text : seen) EXPECT_EQ(text, name);
  }
}

} // namespace
