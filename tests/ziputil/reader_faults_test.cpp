// Every I/O call a full walk-and-read makes fails in turn; the caller must see
// the file system's own error (or, where minizip reports another code than -1,
// the reader's documented error), or, where minizip absorbs the failure, get
// every byte right; and the reader must stay closable.
#include "ziputil/CZipReader.h"

#include "support/FaultyFileSystem.h"
#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

using testsupport::CFaultyFileSystem;
using testsupport::CInjectedError;
using testsupport::entryURI;
using testsupport::utf8;
using ziputil::CZipReader;

namespace {

std::map<std::string, std::string> const kEntries{
    {"a.txt", std::string(3000, 'a')}, {"dir/b.bin", std::string(70000, 'b')}, {"c.txt", "c"}};

/// Messages the reader and its stream may throw themselves when minizip maps
/// an I/O failure to a code other than -1. "File is not a valid ZIP archive."
/// is not among them: when unzOpen2_64 returns null the bridge's stored error
/// always wins, whatever minizip made of the failure.
std::set<std::string> const kReaderMessages{"unzGoToFirstFile2 failed",  "unzGoToNextFile2 failed",
                                            "unzLocateFile failed",      "unzOpenCurrentFile failed",
                                            "unzReadCurrentFile failed", "unzClose failed"};

class ReaderFaultsTest : public ::testing::TestWithParam<CFaultyFileSystem::Op> {
protected:
  void SetUp() override {
    testsupport::TempDir dir;
    std::vector<testsupport::ZipEntry> entries(kEntries.begin(), kEntries.end());
    testsupport::makeZip(dir.file("f.zip"), entries);
    memory->setFile(uri, testsupport::readFile(dir.file("f.zip")));
  }

  /// Walks, reads every entry, locates one and reads it again, closes.
  void fullRun(tal::P<CZipReader>& reader) {
    reader = tal::newObj<CZipReader>(faulty.get(), uri, tal::String());
    std::map<std::string, std::string> seen;
    while (reader->nextFile()) {
      auto in = reader->openCurrentFileStream();
      std::string data(static_cast<std::size_t>(reader->getCurrentFileUncompressedSize()), '\0');
      if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
      in->close();
      seen[utf8(reader->getCurrentFileRelativeURI().getPath())] = data;
    }
    ASSERT_TRUE(reader->tryGoToFile(entryURI("dir/b.bin")));
    auto in = reader->openCurrentFileStream();
    char buffer[100];
    EXPECT_EQ(in->readLax(buffer, 100), 100);
    in->close();
    reader->close();
    EXPECT_EQ(seen, kEntries);
  }

  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<CFaultyFileSystem> faulty = tal::newObj<CFaultyFileSystem>(memory.get());
  tal::CURI uri{tal::String("mem:/faults.zip")};
};

TEST_P(ReaderFaultsTest, EveryCallFailsInTurn) {
  CFaultyFileSystem::Op const op = GetParam();
  int injectedSeen = 0, readerErrors = 0, silent = 0;
  for (long long n = 1;; ++n) {
    faulty->reset();
    faulty->failNth(op, n);
    tal::P<CZipReader> reader;
    bool threw = false;
    try {
      fullRun(reader);
    } catch (CInjectedError const& e) {
      threw = true;
      ++injectedSeen;
      CInjectedError const expected = CFaultyFileSystem::injectedError(op, n, uri);
      EXPECT_EQ(e.getCode(), expected.getCode());
      EXPECT_EQ(e.getMessage(), expected.getMessage());
      EXPECT_EQ(e.getProps(), expected.getProps());
      EXPECT_EQ(utf8(e.getContext()), "IO");
    } catch (tal::CError const& e) {
      threw = true;
      ++readerErrors;
      EXPECT_EQ(kReaderMessages.count(utf8(e.getMessage())), 1u) << utf8(e.getMessage()) << " at " << n;
      EXPECT_NE(utf8(e.getProps().get("result")), "-1") << utf8(e.getMessage()) << " at " << n;
    }
    if (!faulty->fired()) {
      EXPECT_FALSE(threw);
      break;
    }
    if (!threw) ++silent;
    if (reader) {
      try {
        reader->close();
      } catch (CInjectedError const&) {
      }
      EXPECT_NO_THROW(reader->close()); // closed for good
    }
    ASSERT_LT(n, 10000);
  }
  // Some failures are absorbed by minizip itself, and then the run completed
  // with every byte right (fullRun checks): a failed read or seek while it
  // looks for a ZIP64 end record (it falls back to the classic one).
  EXPECT_GT(injectedSeen, 0) << CFaultyFileSystem::opName(op);
  if (op == CFaultyFileSystem::Open || op == CFaultyFileSystem::Close) {
    EXPECT_EQ(silent, 0) << CFaultyFileSystem::opName(op);
  }
  RecordProperty("injected", injectedSeen);
  RecordProperty("readerErrors", readerErrors);
  RecordProperty("silent", silent);
}

INSTANTIATE_TEST_SUITE_P(Ops, ReaderFaultsTest,
                         ::testing::Values(CFaultyFileSystem::Open, CFaultyFileSystem::Read, CFaultyFileSystem::Seek,
                                           CFaultyFileSystem::Tell, CFaultyFileSystem::Close,
                                           CFaultyFileSystem::Length),
                         [](auto const& info) { return std::string(CFaultyFileSystem::opName(info.param)); });

} // namespace
