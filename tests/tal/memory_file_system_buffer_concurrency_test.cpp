// CMemoryFileSystem's buffered reads under concurrent writers: a read never
// returns a record torn by a write, and never goes back to bytes that a write
// which returned before the read started has replaced.
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr int kRecords = 64;
constexpr int kRecordSize = 16;

TEST(MemoryFileSystemBufferConcurrencyTest, ReadersSeeWholeRecordsThatNeverGoBack) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/records"));
  fs->setFile(uri, std::string(kRecords * kRecordSize, '\0'));
  std::atomic<unsigned char> published[kRecords];
  for (auto& p : published) p.store(0);
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::thread writer([&] {
    auto out = fs->openStream(uri, 3, 0);
    for (int round = 1; round < 200; ++round) {
      for (int r = 0; r < kRecords; ++r) {
        char record[kRecordSize];
        std::memset(record, round, sizeof record);
        out->seek(static_cast<long long>(r) * kRecordSize);
        out->write(record, kRecordSize, nullptr); // one write: the record changes whole
        published[r].store(static_cast<unsigned char>(round));
      }
    }
    out->close();
    stop.store(true);
  });
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&, t] {
      auto in = fs->openStream(uri, 1, 0);
      int r = t;
      while (!stop.load()) {
        r = (r + 7) % kRecords;
        unsigned char before = published[r].load();
        unsigned char record[kRecordSize];
        in->seek(static_cast<long long>(r) * kRecordSize);
        in->read(record, kRecordSize);
        for (int i = 1; i < kRecordSize; ++i)
          if (record[i] != record[0]) ++failures; // torn
        if (record[0] < before) ++failures; // older than a write that had returned
      }
      in->close();
    });
  }
  writer.join();
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(failures.load(), 0);
}

} // namespace
