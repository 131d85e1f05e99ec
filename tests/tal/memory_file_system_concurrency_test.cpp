#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(MemoryFileSystemConcurrencyTest, ThreadsCreateWriteAndReadTheirOwnAndSharedFiles) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI shared(tal::String("mem:/shared"));
  fs->setFile(shared, std::string(4096, 's'));
  std::vector<std::thread> threads;
  std::vector<int> ok(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      tal::CURI own(tal::String("mem:/own/") + tal::toString(t));
      for (int round = 0; round < 50; ++round) {
        auto out = fs->openStream(own, 3, 2);
        std::string text(100 + round, static_cast<char>('a' + t));
        out->write(text.data(), static_cast<int>(text.size()), nullptr);
        out->close();
        auto in = fs->openStream(shared, 1, 0);
        std::string back(4096, '\0');
        in->read(&back[0], 4096);
        in->close();
        if (fs->getFile(own).substr(0, text.size()) == text && back == std::string(4096, 's')) ++ok[t];
        auto writer = fs->openStream(shared, 3, 0);
        writer->seek(t * 10);
        writer->write("ssssssssss", 10, nullptr);
        writer->close();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 8; ++t) EXPECT_EQ(ok[t], 50);
}

} // namespace
