// Several threads adding entries through one writer take turns.
#include "ziputil/CZipWriter.h"

#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>
#include <vector>

using testsupport::entryURI;
using testsupport::utf8;

namespace {

TEST(WriterConcurrencyTest, ThreadsTakeTurnsAndEveryEntryArrivesIntact) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/shared.zip"));
  auto writer = testsupport::newArchiveWriter(fs.get(), uri, "", 1);
  constexpr int kThreads = 4;
  constexpr int kEntriesEach = 25;
  std::atomic<int> retries{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEntriesEach; ++i) {
        std::string const name = "t" + std::to_string(t) + "/e" + std::to_string(i);
        tal::P<tal::IOutStream> out;
        while (!out) {
          try {
            out = writer->beginAddFile(entryURI(name), tal::CTimeFields());
          } catch (tal::CError const& e) {
            if (utf8(e.getMessage()) !=
                "Internal error: CZipWriter::beginAddFile called before previous added file was finished.")
              throw;
            EXPECT_EQ(typeid(e), typeid(tal::CError));
            EXPECT_EQ(e.getCode(), -1);
            EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", uri.toString(true)}}));
            ++retries;
            tal::threadYield(true);
          }
        }
        if (t == 0 && i == 0) {
          while (retries.load() == 0) tal::threadYield(true); // hold the entry open until another thread meets it
        }
        std::string const data(1000 + i, static_cast<char>('a' + t));
        for (std::size_t at = 0; at < data.size(); at += 100)
          out->write(data.data() + at, static_cast<int>(std::min<std::size_t>(100, data.size() - at)), nullptr);
        out->close();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  writer->close();
  auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), uri, tal::String());
  std::map<std::string, std::string> entries;
  while (reader->nextFile()) {
    auto in = reader->openCurrentFileStream();
    std::string data(static_cast<std::size_t>(reader->getCurrentFileUncompressedSize()), '\0');
    in->read(&data[0], static_cast<int>(data.size()));
    in->close();
    entries[utf8(reader->getCurrentFileRelativeURI().getPath())] = data;
  }
  ASSERT_EQ(entries.size(), static_cast<std::size_t>(kThreads * kEntriesEach));
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kEntriesEach; ++i)
      EXPECT_EQ(entries["t" + std::to_string(t) + "/e" + std::to_string(i)],
                std::string(1000 + i, static_cast<char>('a' + t)));
  EXPECT_GT(retries.load(), 0);
}

TEST(WriterConcurrencyTest, CloseRacingWritesLeavesAValidArchive) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/race.zip"));
  auto writer = testsupport::newArchiveWriter(fs.get(), uri, "", 1);
  auto out = writer->beginAddFile(entryURI("racing"), tal::CTimeFields());
  std::atomic<long long> written{0};
  std::thread feeder([&] {
    try {
      for (;;) {
        out->write("0123456789", 10, nullptr);
        written += 10;
      }
    } catch (tal::CError const&) {
      // the archive closed under the stream
    }
  });
  while (written.load() < 1000) tal::threadYield(true);
  writer->close();
  feeder.join();
  auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), uri, tal::String());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileUncompressedSize(), written.load());
}

} // namespace
