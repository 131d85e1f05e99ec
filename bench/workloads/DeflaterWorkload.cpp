// The deflater workload: where CParallelDeflater's work goes. 200 text files
// of 64 KiB to 1 MiB, deflated at level 6 into an archive in memory, by the
// parallel deflater and one entry after another through beginAddFile. The
// figures that matter are CPU times: the parallel run should cost about what
// the sequential one costs, and leave the calling thread (which only writes)
// with a small part of it, so that on N idle cores it takes about 1/N of the
// time.
#include "Workloads.h"

#include "tal/MemoryFileSystem.h"
#include "ziputil/CParallelDeflater.h"
#include "ziputil/CZipWriter.h"

#include <sys/resource.h>

#include <memory>
#include <random>
#include <stdexcept>
#include <thread>

namespace bench {
namespace {

/// The calling thread's CPU time, in seconds.
double threadCpuNow() {
  rusage usage;
  getrusage(RUSAGE_THREAD, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

/// What the implementations share: the sources and the archive each run writes.
struct DeflaterRun {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<ziputil::CParallelDeflater::Source> sources;
  std::uint64_t bytes = 0;
  /// The archive the sequential run wrote, which the parallel run must equal.
  std::string sequential;

  /// Writes all sources into a new archive at `uri`; the calling thread's CPU time goes to `callerCpu`.
  void write(tal::CURI const& uri, unsigned threads, double& callerCpu) {
    double const start = threadCpuNow();
    ziputil::createEmptyArchive(memory.get(), uri);
    auto writer = tal::newObj<ziputil::CZipWriter>(memory.get(), uri, tal::String(), ziputil::CZipWriter::CompNormal);
    if (threads > 0) {
      ziputil::CParallelDeflater::Settings settings;
      settings.threads = threads;
      if (ziputil::CParallelDeflater(settings).addAll(*writer, sources) != sources.size())
        throw std::runtime_error("the parallel deflater left entries out");
    } else {
      std::vector<char> buffer(ziputil::CParallelDeflater::kChunkSize);
      for (ziputil::CParallelDeflater::Source const& source : sources) {
        auto out = writer->beginAddFile(source.relativeURIInArchive, source.time);
        auto in = source.open();
        while (int const n = in->readLax(buffer.data(), static_cast<int>(buffer.size()))) out->write(buffer.data(), n, nullptr);
        in->close();
        out->close();
      }
    }
    writer->close();
    callerCpu = threadCpuNow() - start;
  }
};

} // namespace

Workload makeDeflater(Context& ctx) {
  static char const* const kWords[] = {"archive", "entry", "deflate", "the", "of", "window", "stream", "zip",
                                       "central", "directory", "header", "a", "lorem", "ipsum", "dolor", "sit"};
  auto run = std::make_shared<DeflaterRun>();
  std::size_t const files = ctx.scaled(200, 10);
  std::mt19937 random(11);
  for (std::size_t i = 0; i < files; ++i) {
    std::size_t const size = 65536 + random() % (1048576 - 65536 + 1);
    std::string text;
    while (text.size() < size) {
      text += kWords[random() % 16];
      text += random() % 9 ? ' ' : '\n';
      if (random() % 50 == 0) text += std::to_string(random());
    }
    text.resize(size);
    run->bytes += size;
    std::string const name = "folder/f" + std::to_string(i) + ".txt";
    tal::CURI const uri(tal::String::fromUTF8(("mem:/" + name).c_str()));
    run->memory->setFile(uri, text);
    ziputil::CParallelDeflater::Source source;
    source.relativeURIInArchive =
        tal::CURI(tal::String(), tal::String::fromUTF8(name.c_str()), nullptr, nullptr, nullptr, -1, nullptr, nullptr);
    source.time = tal::CTimeFields(2024, 1, 1, 0, 0, 0, 0.0, 0, false);
    tal::P<tal::IFileSystem> fs(run->memory.get());
    source.open = [fs, uri] {
      return tal::P<tal::IInStream>(fs->openStream(uri, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags));
    };
    run->sources.push_back(source);
  }

  Workload w;
  w.key = "deflater";
  w.title = "CParallelDeflater: " + std::to_string(files) + " text files of 64 KiB to 1 MiB (" +
            formatBytes(static_cast<double>(run->bytes)) + ") at level 6 into an archive in memory";
  unsigned const cores = std::max(1u, std::thread::hardware_concurrency());
  w.notes.push_back("ziputil-parallel: CParallelDeflater::addAll with one worker per processor (" +
                    std::to_string(cores) + "); ziputil-sequential: beginAddFile, write, close for each file");
  w.notes.push_back("CPU: the whole process's; the detail gives the calling thread's share (it only writes), and "
                    "the wall time on N idle cores would be about max(caller, CPU / N)");
  w.itemsPerOp = static_cast<double>(files);
  w.itemName = "file";
  w.bytesPerOp = static_cast<double>(run->bytes);
  for (bool const parallel : {true, false}) {
    std::string const name = parallel ? "ziputil-parallel" : "ziputil-sequential";
    if (!ctx.wants(name)) continue;
    auto callerCpu = std::make_shared<double>(0);
    tal::CURI const uri(tal::String(parallel ? "mem:/parallel.zip" : "mem:/sequential.zip"));
    Impl impl = inProcess(name, [run, uri, parallel, cores, callerCpu](long) {
      run->write(uri, parallel ? cores : 0, *callerCpu);
      std::string const archive = run->memory->getFile(uri);
      if (!parallel) run->sequential = archive;
      if (parallel && !run->sequential.empty() && archive != run->sequential)
        throw std::runtime_error("the parallel archive differs from the sequential one");
    });
    impl.detail = [callerCpu] { return "calling thread " + formatSeconds(*callerCpu) + " CPU (last round)"; };
    w.impls.push_back(impl);
  }
  return w;
}

} // namespace bench
