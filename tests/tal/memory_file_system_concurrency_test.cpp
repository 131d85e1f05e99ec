#include "tal/MemoryFileSystem.h"

#include "support/FaultyFileSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

constexpr int kThreads = 8;

template <class F> void runThreads(int count, F const& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back([&body, t] { body(t); });
  for (auto& thread : threads) thread.join();
}

TEST(MemoryFileSystemConcurrencyTest, ThreadsCreateWriteAndReadTheirOwnAndSharedFiles) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI shared(tal::String("mem:/shared"));
  fs->setFile(shared, std::string(4096, 's'));
  std::vector<int> ok(kThreads, 0);
  runThreads(kThreads, [&](int t) {
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
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(ok[t], 50);
}

TEST(MemoryFileSystemConcurrencyTest, WritersOfDisjointRangesOfOneFileLoseNothing) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/one"));
  fs->setFile(uri, "");
  constexpr int kChunk = 1000;
  runThreads(kThreads, [&](int t) {
    auto s = fs->openStream(uri, 3, 0);
    // Each thread fills its own range byte by byte, from the end backwards, so the file grows concurrently.
    for (int i = kChunk - 1; i >= 0; --i) {
      s->seek(static_cast<long long>(t) * kChunk + i);
      char c = static_cast<char>('A' + t);
      s->write(&c, 1, nullptr);
    }
    s->close();
  });
  std::string expected;
  for (int t = 0; t < kThreads; ++t) expected += std::string(kChunk, static_cast<char>('A' + t));
  EXPECT_EQ(fs->getFile(uri), expected);
}

TEST(MemoryFileSystemConcurrencyTest, ReplacingRemovingAndReadingSeeWholeFiles) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/churn"));
  std::atomic<int> torn{0};
  runThreads(kThreads, [&](int t) {
    for (int round = 0; round < 200; ++round) {
      switch ((t + round) % 4) {
      case 0:
        fs->setFile(uri, std::string(64 + round, static_cast<char>('a' + t)));
        break;
      case 1:
        try {
          fs->remove(uri);
        } catch (tal::CIOError const& e) {
          if (e.getCode() != tal::CIOError::DeleteFailed) ++torn;
        }
        break;
      default:
        try {
          std::string bytes = fs->getFile(uri);
          if (bytes.empty() || bytes.find_first_not_of(bytes[0]) != std::string::npos) ++torn;
        } catch (tal::CIOError const& e) {
          if (e.getCode() != tal::CIOError::OpenFailed) ++torn;
        }
        fs->exists(uri);
      }
    }
  });
  EXPECT_EQ(torn.load(), 0);
}

TEST(MemoryFileSystemConcurrencyTest, FaultyFileSystemCountsCallsFromAllThreads) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/counted"));
  memory->setFile(uri, std::string(1000, 'c'));
  tal::P<testsupport::CFaultyFileSystem> faulty = tal::newObj<testsupport::CFaultyFileSystem>(memory.get());
  faulty->failNth(testsupport::CFaultyFileSystem::Read, 500);
  std::atomic<int> injected{0};
  runThreads(kThreads, [&](int) {
    auto s = faulty->openStream(uri, 1, 0);
    for (int i = 0; i < 100; ++i) {
      char c;
      try {
        s->readLax(&c, 1);
      } catch (testsupport::CInjectedError const&) {
        ++injected;
      }
    }
    s->close();
  });
  EXPECT_EQ(injected.load(), 1);
  EXPECT_TRUE(faulty->fired());
  EXPECT_EQ(faulty->count(testsupport::CFaultyFileSystem::Read), kThreads * 100);
  EXPECT_EQ(faulty->count(testsupport::CFaultyFileSystem::Open), kThreads);
  EXPECT_EQ(faulty->count(testsupport::CFaultyFileSystem::Close), kThreads);
}

} // namespace
