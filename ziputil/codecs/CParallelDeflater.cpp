// The parallel deflater's calling thread: it checks the list, starts the
// workers (CDeflateWorker.cpp) and writes their entries in the list's order.
#include "ziputil/CParallelDeflater.h"

#include "ziputil/codecs/ParallelRun.h"

#include <zlib.h>

#include <algorithm>
#include <string>
#include <thread>

namespace ziputil {

using parallel::closeQuietly;
using parallel::errorOf;
using parallel::ParallelRun;
using parallel::Slot;
using parallel::State;

namespace {

/// The most bytes handed to one write of an entry's stream.
constexpr std::size_t kWritePiece = 1 << 20;

/// Joins the workers on every way out of addAll.
class CWorkers {
public:
  explicit CWorkers(ParallelRun& run) : m_run(run) {}
  ~CWorkers() { join(); }
  CWorkers(CWorkers const&) = delete;
  CWorkers& operator=(CWorkers const&) = delete;
  void start(unsigned count) {
    for (unsigned i = 0; i < count; ++i) m_threads.emplace_back([this] { m_run.work(); });
  }
  void join() {
    m_run.stopWorkers();
    for (std::thread& thread : m_threads)
      if (thread.joinable()) thread.join();
  }

private:
  ParallelRun& m_run;
  std::vector<std::thread> m_threads;
};

} // namespace

/// The calling thread's writing of one addAll's entries, in the list's order.
struct CParallelDeflater::InOrder {
  CZipWriter& writer;
  std::vector<Source> const& sources;
  Settings const& settings;
  ParallelRun& run;
  CWorkers& workers;
  tal::P<tal::IOutStream> out; ///< the entry being written, abandoned when anything fails
  std::size_t written = 0;

  /// What beginAddFile would refuse before writing anything is refused before anything is written.
  static void checkSources(CZipWriter& writer, std::vector<Source> const& sources) {
    tal::CMutexLock lock(writer.m_mutex);
    for (Source const& source : sources) {
      writer.checkCanBegin(source.relativeURIInArchive);
      CZipWriter::EntryOptions const& options = source.options;
      if (options.method == CZipWriter::EntryOptions::Zstd) { // the workers deflate: zstd would be mislabelled
        tal::CProps props;
        props["name"] = source.relativeURIInArchive.toNormalized().getPath();
        throw tal::CInvalidArgError(tal::String("CParallelDeflater::addAll"),
                                    tal::String("zstd entries are written by CZipWriter::beginAddFile, not here"),
                                    props);
      }
      if (options.method == CZipWriter::EntryOptions::Deflated && (options.level < -1 || options.level > 9)) {
        tal::CProps props;
        props["level"] = tal::toString(options.level);
        throw tal::CInvalidArgError(tal::String("CZipWriter::beginAddFile"), tal::String("level is invalid"), props);
      }
    }
  }

  /// Writes every entry; on any failure gives up and throws it.
  void writeAll() {
    try {
      for (std::size_t index = 0; index < sources.size(); ++index) {
        Slot slot = run.take(index);
        if (slot.state == State::Failed)
          sourceFailed(index, slot.error);
        else if (slot.state == State::Ready)
          writeCompressed(sources[index], slot);
        else
          writeFromSource(index, sources[index]);
      }
    } catch (tal::CError& e) {
      writer.abandonEntry(out);
      if (writer.m_state) giveUp(e);
      throw;
    } catch (std::exception& e) {
      writer.abandonEntry(out);
      if (writer.m_state) {
        tal::P<tal::CError> const error = errorOf(e);
        giveUp(*error);
        error->throwClone();
      }
      throw;
    }
  }

private:
  /// A failure: the workers stop, the writer gives up everything, and the error goes to the caller.
  void giveUp(tal::CError& error) {
    workers.join();
    writer.abandonEntry(out);
    try {
      writer.discard();
    } catch (std::exception& e) {
      error.setProp(tal::String("rollbackError"), tal::String::fromUTF8(e.what()));
    }
  }

  /// Entry `index`'s source failed before any of its bytes were written: skipped, or the end of addAll.
  void sourceFailed(std::size_t index, tal::P<tal::CError> const& error) {
    if (settings.skipFailedSource && settings.skipFailedSource(index, *error)) return;
    giveUp(*error);
    error->throwClone();
  }

  /// An entry a worker compressed: written raw, with its CRC-32 and size.
  void writeCompressed(Source const& source, Slot& slot) {
    CZipWriter::RawClose raw;
    raw.crc32 = slot.crc;
    raw.uncompressedSize = slot.size;
    raw.internalAttributes = slot.text ? 1 : 0;
    out = writer.beginEntry(source.relativeURIInArchive, source.time, &source.options, &raw);
    unsigned char const* bytes = slot.piece->data.data() + slot.offset;
    for (std::size_t left = slot.length; left > 0;) {
      std::size_t const n = std::min(left, kWritePiece);
      out->write(bytes, static_cast<int>(n), nullptr);
      bytes += n;
      left -= n;
    }
    out->close();
    out = nullptr;
    if (--slot.piece->left == 0) {
      std::size_t const room = slot.piece->room;
      std::vector<unsigned char>().swap(slot.piece->data);
      run.giveBack(room);
    }
    ++written;
  }

  /// An entry too large for memory: compressed here, through the sequential path. Until its first bytes are
  /// read, a failing source leaves nothing of its entry in the archive.
  void writeFromSource(std::size_t index, Source const& source) {
    tal::P<tal::IInStream> in;
    std::string buffer(static_cast<std::size_t>(kChunkSize), '\0');
    int n = 0;
    try {
      in = source.open();
      n = in->readLax(&buffer[0], kChunkSize);
      if (n == 0) {
        in->close();
        in = nullptr;
      }
    } catch (std::exception& e) {
      closeQuietly(in);
      sourceFailed(index, errorOf(e));
      return;
    }
    out = writer.beginAddFile(source.relativeURIInArchive, source.time, source.options);
    while (n > 0) {
      out->write(buffer.data(), n, nullptr);
      try {
        n = in->readLax(&buffer[0], kChunkSize);
        if (n == 0) {
          in->close();
          in = nullptr;
        }
      } catch (std::exception& e) {
        tal::P<tal::CError> const error = errorOf(e);
        closeQuietly(in);
        giveUp(*error);
        error->throwClone();
      }
    }
    out->close();
    out = nullptr;
    ++written;
  }
};

CParallelDeflater::CParallelDeflater() : CParallelDeflater(Settings()) {}

CParallelDeflater::CParallelDeflater(Settings const& settings) : m_settings(settings) {}

std::size_t CParallelDeflater::addAll(CZipWriter& writer, std::vector<Source> const& sources) {
  InOrder::checkSources(writer, sources);
  ParallelRun run(writer.m_archiveURI, sources, m_settings);
  run.methods.reserve(sources.size());
  run.levels.reserve(sources.size());
  for (Source const& source : sources) {
    int method = Z_DEFLATED;
    int level = 0;
    writer.entryMethod(&source.options, method, level);
    run.methods.push_back(method);
    run.levels.push_back(level);
  }
  CWorkers workers(run);
  unsigned threads = m_settings.threads ? m_settings.threads : std::thread::hardware_concurrency();
  threads = std::max(1u, std::min<unsigned>(threads, static_cast<unsigned>(std::max<std::size_t>(sources.size(), 1))));
  run.workers = threads;
  workers.start(threads);

  InOrder inOrder{writer, sources, m_settings, run, workers, nullptr, 0};
  inOrder.writeAll();
  workers.join();
  return inOrder.written;
}

} // namespace ziputil
