// Where CParallelDeflater's work goes, on a folder-like set of files: 200 text
// files of 64 KiB to 1 MiB at level 6. The compression leaves the calling
// thread (which only writes) for the workers, and costs about the CPU time of
// a sequential add in all, so on N idle cores the add takes about 1/N of the
// sequential time. CPU times are compared, not wall times: the machine may be
// shared. Each figure is printed for the record.
#include "ziputil/CParallelDeflater.h"

#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <random>

using testsupport::entryURI;
using ziputil::CParallelDeflater;
using ziputil::CZipWriter;

namespace {

double cpuSeconds(int who) {
  rusage usage;
  getrusage(who, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

TEST(ParallelDeflaterSpeedTest, CompressionLeavesTheCallingThreadAtNoExtraCost) {
  static char const* const kWords[] = {"archive", "entry", "deflate", "the", "of", "window", "stream", "zip",
                                       "central", "directory", "header", "a", "lorem", "ipsum", "dolor", "sit"};
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::mt19937 random(11);
  std::vector<CParallelDeflater::Source> sources;
  unsigned long long total = 0;
  for (int i = 0; i < 200; ++i) {
    std::size_t const size = 65536 + random() % (1048576 - 65536 + 1);
    std::string text;
    while (text.size() < size) {
      text += kWords[random() % 16];
      text += random() % 9 ? ' ' : '\n';
      if (random() % 50 == 0) text += std::to_string(random());
    }
    text.resize(size);
    total += size;
    tal::CURI const uri(tal::String::fromUTF8(("mem:/folder/f" + std::to_string(i) + ".txt").c_str()));
    memory->setFile(uri, text);
    CParallelDeflater::Source source;
    source.relativeURIInArchive = entryURI("folder/f" + std::to_string(i) + ".txt");
    source.time = tal::CTimeFields(2024, 1, 1, 0, 0, 0, 0.0, 0, false);
    tal::P<tal::IFileSystem> fs(memory.get());
    source.open = [fs, uri] {
      return tal::P<tal::IInStream>(fs->openStream(uri, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags));
    };
    sources.push_back(source);
  }
  std::string archives[2];
  double processCpu[2] = {}, callerCpu[2] = {}, wall[2] = {};
  for (int parallel = 0; parallel < 2; ++parallel) {
    tal::CURI const uri(tal::String(parallel ? "mem:/parallel.zip" : "mem:/sequential.zip"));
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    double const process0 = cpuSeconds(RUSAGE_SELF), caller0 = cpuSeconds(RUSAGE_THREAD);
    auto const start = std::chrono::steady_clock::now();
    if (parallel) {
      CParallelDeflater::Settings settings;
      settings.threads = 2;
      EXPECT_EQ(CParallelDeflater(settings).addAll(*writer, sources), sources.size());
    } else {
      std::vector<char> buffer(CParallelDeflater::kChunkSize);
      for (CParallelDeflater::Source const& source : sources) {
        auto out = writer->beginAddFile(source.relativeURIInArchive, source.time);
        auto in = source.open();
        while (int const n = in->readLax(buffer.data(), CParallelDeflater::kChunkSize)) out->write(buffer.data(), n, nullptr);
        in->close();
        out->close();
      }
    }
    writer->close();
    wall[parallel] = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    processCpu[parallel] = cpuSeconds(RUSAGE_SELF) - process0;
    callerCpu[parallel] = cpuSeconds(RUSAGE_THREAD) - caller0;
    archives[parallel] = memory->getFile(uri);
  }
  EXPECT_TRUE(archives[0] == archives[1]);
  double const idle2 = std::max(callerCpu[1], processCpu[1] / 2);
  std::printf("%.1f MiB: sequential %.2f s CPU (%.2f s wall); parallel %.2f s CPU, %.2f s of it on the calling thread "
              "(%.2f s wall); on 2 idle cores about %.2f s: %.2fx\n",
              static_cast<double>(total) / 1048576.0, processCpu[0], wall[0], processCpu[1], callerCpu[1], wall[1],
              idle2, processCpu[0] / idle2);
  EXPECT_LT(callerCpu[1], processCpu[0] * 0.1);   // the calling thread only writes
  EXPECT_LT(processCpu[1], processCpu[0] * 1.15); // and the work costs what it cost
}

} // namespace
