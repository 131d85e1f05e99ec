// CParallelDeflater under contention: many workers, a memory limit that makes
// them wait for each other and for the writing thread, failures that stop
// them mid-way. Runs under ThreadSanitizer too.
#include "ziputil/CParallelDeflater.h"

#include "support/FaultyFileSystem.h"
#include "support/WriterChecks.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>

using testsupport::entryURI;
using ziputil::CParallelDeflater;
using ziputil::CZipWriter;

namespace {

/// `count` sources over memory files of 0 to 120 KiB of text, read through `fs`.
std::vector<CParallelDeflater::Source> makeSources(tal::CMemoryFileSystem* files, tal::IFileSystem* fs, int count) {
  std::mt19937 random(2024);
  std::vector<CParallelDeflater::Source> sources;
  for (int i = 0; i < count; ++i) {
    std::string data;
    std::size_t const size = random() % (120 * 1024);
    while (data.size() < size) data += "line " + std::to_string(random() % 1000) + (random() % 3 ? " of text\n" : "\n");
    data.resize(size);
    tal::CURI const uri(tal::String::fromUTF8(("mem:/in/" + std::to_string(i)).c_str()));
    files->setFile(uri, data);
    CParallelDeflater::Source source;
    source.relativeURIInArchive = entryURI("dir" + std::to_string(i % 7) + "/file" + std::to_string(i));
    source.time = tal::CTimeFields(2023, 7, 1 + i % 28, 10, 20, 30, 0.0, 0, false);
    tal::P<tal::IFileSystem> keep(fs);
    source.open = [keep, uri] {
      return tal::P<tal::IInStream>(keep->openStream(uri, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags));
    };
    sources.push_back(source);
  }
  return sources;
}

std::string sequentialArchive(tal::CMemoryFileSystem* memory, std::vector<CParallelDeflater::Source> const& sources) {
  tal::CURI const uri(tal::String("mem:/sequential.zip"));
  auto writer = testsupport::newArchiveWriter(memory, uri);
  std::vector<char> buffer(CParallelDeflater::kChunkSize);
  for (CParallelDeflater::Source const& source : sources) {
    auto out = writer->beginAddFile(source.relativeURIInArchive, source.time, source.options);
    auto in = source.open();
    while (int const n = in->readLax(buffer.data(), CParallelDeflater::kChunkSize)) out->write(buffer.data(), n, nullptr);
    in->close();
    out->close();
  }
  writer->close();
  return memory->getFile(uri);
}

/// Adds `sources` with `threads` workers holding at most `limit` bytes into a new archive in `memory`; expects
/// the archive to be `expected`, byte for byte.
void expectTheSequentialArchive(tal::CMemoryFileSystem* memory, std::vector<CParallelDeflater::Source> const& sources,
                                std::string const& expected, std::size_t limit, unsigned threads) {
  SCOPED_TRACE(std::to_string(limit) + " bytes, " + std::to_string(threads) + " threads");
  tal::CURI const uri(tal::String("mem:/parallel.zip"));
  auto writer = testsupport::newArchiveWriter(memory, uri);
  CParallelDeflater::Settings settings;
  settings.threads = threads;
  settings.maxBytesHeld = limit;
  EXPECT_EQ(CParallelDeflater(settings).addAll(*writer, sources), sources.size());
  writer->close();
  EXPECT_TRUE(memory->getFile(uri) == expected);
}

TEST(ParallelDeflaterConcurrencyTest, ManyWorkersUnderATightLimitWriteTheSequentialArchive) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<CParallelDeflater::Source> const sources = makeSources(memory.get(), memory.get(), 150);
  std::string const expected = sequentialArchive(memory.get(), sources);
  for (std::size_t limit : {std::size_t(200000), std::size_t(600000), std::size_t(64) << 20}) {
    for (unsigned threads : {2u, 6u}) {
      expectTheSequentialArchive(memory.get(), sources, expected, limit, threads);
    }
  }
}

/// `count` sources of 0 to 6 KiB of text, every 13th of 30 to 90 KiB (gathered into groups by the workers, or not).
std::vector<CParallelDeflater::Source> makeSmallSources(tal::CMemoryFileSystem* files, int count) {
  std::mt19937 random(77);
  std::vector<CParallelDeflater::Source> sources;
  for (int i = 0; i < count; ++i) {
    std::string data;
    std::size_t const size = i % 13 == 0 ? 30000 + random() % 60000 : random() % 6000;
    while (data.size() < size) data += "word " + std::to_string(random() % 500) + (random() % 4 ? " " : "\n");
    data.resize(size);
    tal::CURI const uri(tal::String::fromUTF8(("mem:/small/" + std::to_string(i)).c_str()));
    files->setFile(uri, data);
    CParallelDeflater::Source source;
    source.relativeURIInArchive = entryURI("s/" + std::to_string(i));
    source.time = tal::CTimeFields(2023, 7, 1 + i % 28, 10, 20, 30, 0.0, 0, false);
    if (i % 11 == 0) {
      source.options.method = CZipWriter::EntryOptions::Deflated;
      source.options.level = i % 10;
    }
    tal::P<tal::IFileSystem> keep(files);
    source.open = [keep, uri] {
      return tal::P<tal::IInStream>(keep->openStream(uri, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags));
    };
    sources.push_back(source);
  }
  return sources;
}

TEST(ParallelDeflaterConcurrencyTest, GroupsOfSmallEntriesUnderATightLimitWriteTheSequentialArchive) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<CParallelDeflater::Source> const sources = makeSmallSources(memory.get(), 1000);
  std::string const expected = sequentialArchive(memory.get(), sources);
  for (std::size_t limit : {std::size_t(20000), std::size_t(70000), std::size_t(250000), std::size_t(64) << 20}) {
    for (unsigned threads : {2u, 5u}) {
      expectTheSequentialArchive(memory.get(), sources, expected, limit, threads);
    }
  }
}

TEST(ParallelDeflaterConcurrencyTest, AFailureStopsEveryWorkerAndLeavesTheArchive) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<testsupport::CFaultyFileSystem> faulty = tal::newObj<testsupport::CFaultyFileSystem>(memory.get());
  std::vector<CParallelDeflater::Source> const sources = makeSources(memory.get(), faulty.get(), 120);
  tal::CURI const uri(tal::String("mem:/kept.zip"));
  {
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    testsupport::addEntry(*writer, "old", "old entry");
    writer->close();
  }
  std::string const original = memory->getFile(uri);
  for (long long n : {1LL, 17LL, 60LL, 150LL, 230LL}) {
    SCOPED_TRACE("read " + std::to_string(n));
    faulty->reset();
    faulty->failNth(testsupport::CFaultyFileSystem::Read, n);
    auto writer = tal::newObj<CZipWriter>(memory.get(), uri, tal::String(), CZipWriter::CompNormal);
    CParallelDeflater::Settings settings;
    settings.threads = 4;
    settings.maxBytesHeld = 300000;
    std::atomic<int> asked{0};
    settings.skipFailedSource = [&](std::size_t, tal::CError const&) {
      ++asked;
      return false; // not skipped: addAll fails
    };
    try {
      CParallelDeflater(settings).addAll(*writer, sources);
      ADD_FAILURE() << "no error";
    } catch (tal::CError const& e) {
      testsupport::expectSameError(e, testsupport::CFaultyFileSystem::injectedError(
                                          testsupport::CFaultyFileSystem::Read, n, tal::CURI(e.getProps().get("uri"))));
    }
    EXPECT_LE(asked.load(), 1); // not asked when the source failed after its entry began (read by the calling thread)
    EXPECT_TRUE(memory->getFile(uri) == original);
  }
}

} // namespace
