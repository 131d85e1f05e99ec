#include "ziputil/CParallelDeflater.h"

#include <zlib.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace ziputil {
namespace {

/// minizip's output buffer (zip.c's Z_BUFSIZE): deflate is fed as zip.c feeds it.
constexpr unsigned kOutputBuffer = 64 * 1024;

enum class State { Pending, Ready, Big, Failed };

/// What a worker made of one entry.
struct Slot {
  State state = State::Pending;
  std::vector<std::string> data; ///< the compressed bytes, in zip.c's 64 KiB pieces
  std::size_t reserved = 0;      ///< bytes of the memory limit this entry holds
  unsigned long crc = 0;
  unsigned long long size = 0;
  bool text = false; ///< deflate took the data for text
  tal::P<tal::CError> error;
};

tal::P<tal::CError> errorOf(std::exception& e) { return tal::CStdExceptionError::exceptionToError(&e)->clone(); }

[[noreturn]] void throwZlib(char const* message, tal::CURI const& entryURI, int result) {
  tal::CProps props = tal::uriProps(entryURI);
  props["result"] = tal::toString(result);
  throw tal::CError(tal::String(message), tal::String(), -1, props, nullptr);
}

/// zlib's deflate as zip.c drives it, into memory.
class CDeflater {
public:
  CDeflater(int level, tal::CURI const& entryURI) : m_uri(entryURI), m_stream() {
    int const result = deflateInit2(&m_stream, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    if (result != Z_OK) throwZlib("deflateInit2 failed", m_uri, result);
  }
  ~CDeflater() { deflateEnd(&m_stream); }
  CDeflater(CDeflater const&) = delete;
  CDeflater& operator=(CDeflater const&) = delete;

  std::size_t bound(unsigned long long length) {
    return static_cast<std::size_t>(deflateBound(&m_stream, static_cast<uLong>(length))) + kOutputBuffer;
  }

  /// zipWriteInFileInZip's loop.
  void write(unsigned char const* data, unsigned size, std::vector<std::string>& out) {
    m_stream.next_in = const_cast<Bytef*>(data);
    m_stream.avail_in = size;
    while (m_stream.avail_in > 0) {
      makeRoom(out);
      int const result = deflate(&m_stream, Z_NO_FLUSH);
      if (result != Z_OK) throwZlib("deflate failed", m_uri, result);
    }
  }

  /// zipCloseFileInZipRaw64's loop; true when deflate took the data for text.
  bool finish(std::vector<std::string>& out) {
    m_stream.avail_in = 0;
    int result = Z_OK;
    while (result == Z_OK) {
      makeRoom(out);
      result = deflate(&m_stream, Z_FINISH);
    }
    if (result != Z_STREAM_END) throwZlib("deflate failed", m_uri, result);
    if (m_stream.avail_out < kOutputBuffer) {
      flush(out);
      out.back().shrink_to_fit(); // the last piece is held as long as the others
    }
    return m_stream.data_type == Z_TEXT;
  }

private:
  void makeRoom(std::vector<std::string>& out) {
    if (m_stream.avail_out != 0) return;
    if (m_started) flush(out);
    m_started = true;
    m_buffer.resize(kOutputBuffer);
    m_stream.next_out = reinterpret_cast<Bytef*>(&m_buffer[0]);
    m_stream.avail_out = kOutputBuffer;
  }
  void flush(std::vector<std::string>& out) {
    m_buffer.resize(kOutputBuffer - m_stream.avail_out);
    out.push_back(std::move(m_buffer));
    m_buffer.clear();
    m_stream.avail_out = 0;
  }

  tal::CURI m_uri;
  z_stream m_stream;
  std::string m_buffer;
  bool m_started = false;
};

void closeQuietly(tal::P<tal::IInStream> const& in) {
  if (!in) return;
  try {
    in->close();
  } catch (std::exception&) {
    // the error already met is the one reported
  }
}

} // namespace

/// The state the workers and the calling thread share for one addAll.
struct ParallelRun {
  ParallelRun(CZipWriter& writer, std::vector<CParallelDeflater::Source> const& sources,
              CParallelDeflater::Settings const& settings)
      : writer(writer), sources(sources), settings(settings), slots(sources.size()),
        entryLimit(settings.maxBytesHeld / 4) {}

  CZipWriter& writer;
  std::vector<CParallelDeflater::Source> const& sources;
  /// Per entry: the method and level beginAddFile would use, and the entry's URI.
  std::vector<int> methods, levels;
  std::vector<tal::CURI> entryURIs;
  CParallelDeflater::Settings const& settings;
  std::vector<Slot> slots;
  std::size_t const entryLimit;

  std::mutex mutex;
  std::condition_variable changed;
  std::size_t nextToTake = 0;
  std::size_t nextTurn = 0; ///< the entry whose turn it is to take room (room is taken in order)
  std::size_t held = 0;
  bool stop = false;

  /// Entry `index` takes `bytes` of room in its turn; false when stopped.
  bool takeRoom(std::size_t index, std::size_t bytes) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return stop || (nextTurn == index && held + bytes <= settings.maxBytesHeld); });
    if (stop) return false;
    held += bytes;
    ++nextTurn;
    changed.notify_all();
    return true;
  }

  void giveBack(std::size_t bytes) {
    std::lock_guard<std::mutex> lock(mutex);
    held -= bytes;
    changed.notify_all();
  }

  void publish(std::size_t index, Slot&& slot) {
    std::lock_guard<std::mutex> lock(mutex);
    slots[index] = std::move(slot);
    changed.notify_all();
  }

  void work() {
    for (;;) {
      std::size_t index = 0;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (stop || nextToTake >= sources.size()) return;
        index = nextToTake++;
      }
      compress(index);
    }
  }

  void compress(std::size_t index) {
    CParallelDeflater::Source const& source = sources[index];
    int const method = methods[index];
    int const level = levels[index];
    Slot slot;
    bool turnTaken = false;
    tal::P<tal::IInStream> in;
    try {
      in = source.open();
      long long length = -1;
      try {
        length = in->getLength();
      } catch (std::exception&) {
        // unknown: compressed by the calling thread
      }
      std::unique_ptr<CDeflater> deflater;
      tal::CURI const& entryURI = entryURIs[index];
      if (method == Z_DEFLATED) deflater = std::make_unique<CDeflater>(level, entryURI);
      std::size_t const need =
          length < 0 ? 0 : deflater ? deflater->bound(static_cast<unsigned long long>(length)) : static_cast<std::size_t>(length);
      if (length < 0 || need > entryLimit) {
        in->close();
        in = nullptr;
        turnTaken = true;
        if (!takeRoom(index, 0)) return;
        slot.state = State::Big;
        publish(index, std::move(slot));
        return;
      }
      turnTaken = true;
      if (!takeRoom(index, need)) {
        closeQuietly(in);
        return;
      }
      slot.reserved = need;
      std::string buffer(static_cast<std::size_t>(CParallelDeflater::kChunkSize), '\0');
      auto* bytes = reinterpret_cast<unsigned char*>(&buffer[0]);
      uLong crc = crc32(0L, Z_NULL, 0);
      bool tooLong = false;
      bool stopped = false;
      while (int const n = in->readLax(&buffer[0], CParallelDeflater::kChunkSize)) {
        slot.size += static_cast<unsigned long long>(n);
        if (slot.size > static_cast<unsigned long long>(length)) {
          tooLong = true; // grown since its length was taken: the calling thread takes it
          break;
        }
        crc = crc32(crc, bytes, static_cast<uInt>(n));
        if (deflater)
          deflater->write(bytes, static_cast<unsigned>(n), slot.data);
        else
          slot.data.emplace_back(buffer, 0, static_cast<std::size_t>(n));
        {
          std::lock_guard<std::mutex> lock(mutex);
          stopped = stop;
        }
        if (stopped) break; // the calling thread has given up: nothing of this entry will be written
      }
      in->close();
      in = nullptr;
      if (stopped) return;
      if (tooLong) {
        giveBack(slot.reserved);
        Slot big;
        big.state = State::Big;
        publish(index, std::move(big));
        return;
      }
      if (deflater) slot.text = deflater->finish(slot.data);
      slot.crc = crc;
      std::size_t actual = 0;
      for (std::string const& piece : slot.data) actual += piece.capacity();
      if (actual < slot.reserved) {
        giveBack(slot.reserved - actual);
        slot.reserved = actual;
      }
      slot.state = State::Ready;
      publish(index, std::move(slot));
    } catch (std::exception& e) {
      fail(index, errorOf(e), slot.reserved, turnTaken, in);
    } catch (...) {
      fail(index, tal::CError(tal::String("unknown exception"), tal::String(), -1, tal::CProps(), nullptr).clone(),
           slot.reserved, turnTaken, in);
    }
  }

  void fail(std::size_t index, tal::P<tal::CError> const& error, std::size_t reserved, bool turnTaken,
            tal::P<tal::IInStream> const& in) {
    closeQuietly(in);
    if (reserved) giveBack(reserved);
    if (!turnTaken && !takeRoom(index, 0)) return;
    Slot failed;
    failed.state = State::Failed;
    failed.error = error;
    publish(index, std::move(failed));
  }

  void stopWorkers() {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
    changed.notify_all();
  }
};

namespace {

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

CParallelDeflater::CParallelDeflater() : CParallelDeflater(Settings()) {}

CParallelDeflater::CParallelDeflater(Settings const& settings) : m_settings(settings) {}

std::size_t CParallelDeflater::addAll(CZipWriter& writer, std::vector<Source> const& sources) {
  {
    // What beginAddFile would refuse before writing anything is refused before anything is written.
    tal::CMutexLock lock(writer.m_mutex);
    for (Source const& source : sources) {
      writer.checkCanBegin(source.relativeURIInArchive);
      CZipWriter::EntryOptions const& options = source.options;
      if (options.method == CZipWriter::EntryOptions::Deflated && (options.level < -1 || options.level > 9)) {
        tal::CProps props;
        props["level"] = tal::toString(options.level);
        throw tal::CInvalidArgError(tal::String("CZipWriter::beginAddFile"), tal::String("level is invalid"), props);
      }
    }
  }
  ParallelRun run(writer, sources, m_settings);
  for (Source const& source : sources) {
    int method = Z_DEFLATED;
    int level = 0;
    writer.entryMethod(&source.options, method, level);
    run.methods.push_back(method);
    run.levels.push_back(level);
    run.entryURIs.push_back(writer.m_archiveURI << source.relativeURIInArchive);
  }
  CWorkers workers(run);
  unsigned threads = m_settings.threads ? m_settings.threads : std::thread::hardware_concurrency();
  workers.start(std::max(1u, std::min<unsigned>(threads, static_cast<unsigned>(std::max<std::size_t>(sources.size(), 1)))));

  std::size_t written = 0;
  tal::P<tal::IOutStream> out; // the entry being written, abandoned when anything fails
  // A failure: the workers stop, the writer gives up everything, and the error goes to the caller.
  auto giveUp = [&](tal::CError& error) {
    workers.join();
    writer.abandonEntry(out);
    try {
      writer.discard();
    } catch (std::exception& e) {
      error.setProp(tal::String("rollbackError"), tal::String::fromUTF8(e.what()));
    }
  };
  auto sourceFailed = [&](std::size_t index, tal::P<tal::CError> const& error) {
    if (m_settings.skipFailedSource && m_settings.skipFailedSource(index, *error)) return;
    giveUp(*error);
    error->throwClone();
  };
  try {
    for (std::size_t index = 0; index < sources.size(); ++index) {
      Slot slot;
      {
        std::unique_lock<std::mutex> lock(run.mutex);
        run.changed.wait(lock, [&] { return run.slots[index].state != State::Pending; });
        slot = std::move(run.slots[index]);
      }
      Source const& source = sources[index];
      if (slot.state == State::Failed) {
        sourceFailed(index, slot.error);
        continue;
      }
      if (slot.state == State::Ready) {
        CZipWriter::RawClose raw;
        raw.crc32 = slot.crc;
        raw.uncompressedSize = slot.size;
        raw.internalAttributes = slot.text ? 1 : 0;
        out = writer.beginEntry(source.relativeURIInArchive, source.time, &source.options, &raw);
        for (std::string& piece : slot.data) {
          out->write(piece.data(), static_cast<int>(piece.size()), nullptr);
          std::string().swap(piece);
        }
        out->close();
        out = nullptr;
        run.giveBack(slot.reserved);
        ++written;
        continue;
      }
      // Too large for memory: compressed here, through the sequential path. Until its first bytes are read,
      // a failing source leaves nothing of its entry in the archive.
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
        continue;
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
  workers.join();
  return written;
}

} // namespace ziputil
