// Every I/O call of adding an entry to an existing archive fails in turn: the
// call that met the failure throws the file system's own error (or, where
// minizip reports another code than -1, the writer's documented error), the
// writer stays closable, and what the archive holds afterwards is recorded.
#include "ziputil/CZipWriter.h"

#include "support/FaultyFileSystem.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>

#include <set>

using testsupport::CFaultyFileSystem;
using testsupport::CInjectedError;
using testsupport::entryURI;
using testsupport::utf8;

namespace {

std::set<std::string> const kWriterMessages{"zipOpen2_64 failed", "zipOpenNewFileInZip4_64 failed",
                                            "zipWriteInFileInZip failed", "zipCloseFileInZip failed",
                                            "zipClose failed"};

/// What a reader finds in the archive: -1 when it cannot be opened or walked,
/// else the number of entries whose bytes are what was written.
int intactEntries(tal::IFileSystem* fs, tal::CURI const& uri) {
  try {
    auto reader = tal::newObj<ziputil::CZipReader>(fs, uri, tal::String());
    int intact = 0;
    while (reader->nextFile()) {
      std::string const name = utf8(reader->getCurrentFileRelativeURI().getPath());
      auto in = reader->openCurrentFileStream();
      std::string data(static_cast<std::size_t>(reader->getCurrentFileUncompressedSize()), '\0');
      if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
      in->close();
      if (data == std::string(name == "new" ? 50000 : 20000, name[0])) ++intact;
    }
    return intact;
  } catch (tal::CError const&) {
    return -1;
  }
}

class WriterFaultsTest : public ::testing::TestWithParam<CFaultyFileSystem::Op> {
protected:
  void SetUp() override {
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    testsupport::addEntry(*writer, "a", std::string(20000, 'a'));
    testsupport::addEntry(*writer, "b", std::string(20000, 'b'));
    writer->close();
    original = memory->getFile(uri);
  }

  void addOne(tal::P<ziputil::CZipWriter>& writer) {
    writer = tal::newObj<ziputil::CZipWriter>(faulty.get(), uri, tal::String(), ziputil::CZipWriter::CompFastest);
    auto out = writer->beginAddFile(entryURI("new"), tal::CTimeFields(2020, 1, 2, 3, 4, 6, 0.0, 0, false));
    std::string const data(50000, 'n');
    for (int at = 0; at < 50000; at += 5000) out->write(data.data() + at, 5000, nullptr);
    out->close();
    writer->close();
  }

  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<CFaultyFileSystem> faulty = tal::newObj<CFaultyFileSystem>(memory.get());
  tal::CURI uri{tal::String("mem:/faults.zip")};
  std::string original;
};

TEST_P(WriterFaultsTest, EveryCallFailsInTurn) {
  CFaultyFileSystem::Op const op = GetParam();
  int injected = 0, writerErrors = 0, laterFileSystemErrors = 0, silent = 0, untouched = 0, oldEntriesIntact = 0, unreadable = 0;
  for (long long n = 1;; ++n) {
    memory->setFile(uri, original);
    faulty->reset();
    faulty->failNth(op, n);
    tal::P<ziputil::CZipWriter> writer;
    bool threw = false;
    try {
      addOne(writer);
    } catch (CInjectedError const& e) {
      threw = true;
      ++injected;
      CInjectedError const expected = CFaultyFileSystem::injectedError(op, n, uri);
      EXPECT_EQ(e.getCode(), expected.getCode());
      EXPECT_EQ(e.getMessage(), expected.getMessage());
      EXPECT_EQ(e.getProps(), expected.getProps());
    } catch (tal::CError const& e) {
      threw = true;
      if (kWriterMessages.count(utf8(e.getMessage()))) {
        ++writerErrors; // minizip reported another code than -1
        EXPECT_NE(utf8(e.getProps().get("result")), "-1") << utf8(e.getMessage()) << " at " << n;
      } else {
        // A later failure of the file system, caused by the injected one (a
        // failed tell makes minizip seek to offset 2^64-1 and write there): the
        // newest failure wins, and it is still the file system's own error.
        ++laterFileSystemErrors;
        EXPECT_NE(dynamic_cast<tal::CIOError const*>(&e), nullptr) << utf8(e.getMessage()) << " at " << n;
        EXPECT_EQ(e.getProps().get("uri"), uri.toString(true)) << utf8(e.getMessage()) << " at " << n;
      }
    }
    bool const fired = faulty->fired();
    if (writer) {
      try {
        writer->close();
      } catch (tal::CError const&) {
      }
      EXPECT_NO_THROW(writer->close()); // closed for good
    }
    if (!fired) {
      EXPECT_FALSE(threw);
      EXPECT_EQ(intactEntries(memory.get(), uri), 3);
      break;
    }
    int const intact = intactEntries(memory.get(), uri);
    if (!threw) {
      ++silent; // minizip absorbed the failure (a probe for a ZIP64 end record): nothing may be lost
      EXPECT_EQ(intact, 3) << "at " << n;
    }
    if (memory->getFile(uri) == original) ++untouched;
    if (intact >= 2) ++oldEntriesIntact;
    if (intact < 0) ++unreadable;
    ASSERT_LT(n, 10000);
  }
  RecordProperty("injected", injected);
  RecordProperty("writerErrors", writerErrors);
  RecordProperty("laterFileSystemErrors", laterFileSystemErrors);
  RecordProperty("silent", silent);
  RecordProperty("untouched", untouched);
  RecordProperty("oldEntriesIntact", oldEntriesIntact);
  RecordProperty("unreadable", unreadable);
  if (op == CFaultyFileSystem::Close) {
    EXPECT_GT(injected + silent, 0);
  } else {
    EXPECT_GT(injected, 0) << CFaultyFileSystem::opName(op);
  }
}

INSTANTIATE_TEST_SUITE_P(Ops, WriterFaultsTest,
                         ::testing::Values(CFaultyFileSystem::Open, CFaultyFileSystem::Read, CFaultyFileSystem::Write,
                                           CFaultyFileSystem::Seek, CFaultyFileSystem::Tell, CFaultyFileSystem::Close,
                                           CFaultyFileSystem::Length),
                         [](auto const& info) { return std::string(CFaultyFileSystem::opName(info.param)); });

} // namespace
