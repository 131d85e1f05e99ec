#include "tal/LocalFileSystem.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

constexpr int kThreads = 6;

// One file system object serves many threads, each with its own streams.
TEST(LocalFileSystemConcurrencyTest, ThreadsShareOneFileSystem) {
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  testsupport::TempDir dir;
  std::string const shared(200000, 's');
  testsupport::writeFile(dir.file("shared"), shared);
  std::vector<int> ok(kThreads, 0);
  tal::CURI const sharedURI = dir.uri("shared");
  std::vector<tal::CURI> ownURIs;
  for (int t = 0; t < kThreads; ++t) ownURIs.push_back(dir.uri("own " + std::to_string(t)));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      tal::CURI const& own = ownURIs[t];
      for (int round = 0; round < 20; ++round) {
        std::string const text(1000 + round, static_cast<char>('a' + t));
        auto out = fs->openStream(own, 3, 2);
        out->write(text.data(), static_cast<int>(text.size()), nullptr);
        out->close();
        auto in = fs->openStream(sharedURI, 1, 0);
        std::string back(shared.size(), '\0');
        in->read(&back[0], static_cast<int>(back.size()));
        in->close();
        auto check = fs->openStream(own, 1, 0);
        std::string mine(text.size(), '\0');
        check->read(&mine[0], static_cast<int>(mine.size()));
        check->close();
        if (back == shared && mine == text && fs->exists(own)) ++ok[t];
      }
      fs->remove(own);
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(ok[t], 20) << t;
    EXPECT_FALSE(fs->exists(ownURIs[t]));
  }
}

} // namespace
