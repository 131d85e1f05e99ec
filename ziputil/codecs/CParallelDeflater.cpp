#include "ziputil/CParallelDeflater.h"

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace ziputil {
namespace {

/// minizip's output buffer (zip.c's Z_BUFSIZE): deflate is fed as zip.c feeds it.
constexpr unsigned kOutputBuffer = 64 * 1024;
/// Sources at most this long are read whole as soon as they are opened, several into one group.
constexpr long long kSmallSource = CParallelDeflater::kChunkSize;
/// The input of small sources a worker gathers into one group.
constexpr std::size_t kGroupInput = 256 * 1024;
/// The most entries in one group.
constexpr std::size_t kGroupEntries = 128;
/// The most bytes handed to one write of an entry's stream.
constexpr std::size_t kWritePiece = 1 << 20;

constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

enum class State { Pending, Ready, Big, Failed };

/// The compressed bytes of a group's entries, one after another, handed from a worker to the calling thread.
struct Piece {
  std::vector<unsigned char> data;
  std::size_t room = 0; ///< bytes of the memory limit it holds
  std::size_t left = 0; ///< its entries not yet written (counted by the calling thread only)
};

/// What a worker made of one entry.
struct Slot {
  State state = State::Pending;
  std::shared_ptr<Piece> piece; ///< Ready: its bytes are piece->data[offset, offset + length)
  std::size_t offset = 0;
  std::size_t length = 0;
  unsigned long crc = 0;
  unsigned long long size = 0;
  bool text = false; ///< deflate took the data for text
  tal::P<tal::CError> error;
};

tal::P<tal::CError> errorOf(std::exception& e) { return tal::CStdExceptionError::exceptionToError(&e)->clone(); }

tal::P<tal::CError> unknownError() {
  return tal::CError(tal::String("unknown exception"), tal::String(), -1, tal::CProps(), nullptr).clone();
}

[[noreturn]] void throwZlib(char const* message, tal::CURI const& entryURI, int result) {
  tal::CProps props = tal::uriProps(entryURI);
  props["result"] = tal::toString(result);
  throw tal::CError(tal::String(message), tal::String(), -1, props, nullptr);
}

/// zlib's deflate as zip.c drives it, its output appended to a byte vector. One per worker, reset from entry to
/// entry: deflateReset gives the state deflateInit2 gives.
class CDeflater {
public:
  CDeflater() : m_stream(), m_buffer(new unsigned char[kOutputBuffer]) {}
  ~CDeflater() {
    if (m_ready) deflateEnd(&m_stream);
  }
  CDeflater(CDeflater const&) = delete;
  CDeflater& operator=(CDeflater const&) = delete;

  bool ready() const { return m_ready; }

  /// A fresh stream at `level`, as zipOpenNewFileInZip leaves it; zlib's result.
  int start(int level) {
    int result = Z_OK;
    if (m_ready && level == m_level) {
      result = deflateReset(&m_stream);
    } else {
      if (m_ready) deflateEnd(&m_stream);
      m_ready = false;
      m_stream = z_stream();
      result = deflateInit2(&m_stream, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
      m_ready = result == Z_OK;
      m_level = level;
    }
    m_stream.next_out = m_buffer.get();
    m_stream.avail_out = kOutputBuffer;
    return result;
  }

  /// zlib's bound for the compressed size of `length` bytes; with these window and memory settings it does not
  /// depend on the level. The stream must be ready.
  std::size_t bound(unsigned long long length) {
    return static_cast<std::size_t>(deflateBound(&m_stream, static_cast<uLong>(length)));
  }

  /// zipWriteInFileInZip's loop; zlib's result.
  int write(unsigned char const* data, unsigned size, std::vector<unsigned char>& out) {
    m_stream.next_in = const_cast<Bytef*>(data);
    m_stream.avail_in = size;
    while (m_stream.avail_in > 0) {
      if (m_stream.avail_out == 0) flush(out);
      int const result = deflate(&m_stream, Z_NO_FLUSH);
      if (result != Z_OK) return result;
    }
    return Z_OK;
  }

  /// zipCloseFileInZipRaw64's loop; zlib's result (Z_STREAM_END when done). `text`: deflate took the data for text.
  int finish(std::vector<unsigned char>& out, bool& text) {
    m_stream.avail_in = 0;
    int result = Z_OK;
    while (result == Z_OK) {
      if (m_stream.avail_out == 0) flush(out);
      result = deflate(&m_stream, Z_FINISH);
    }
    flush(out);
    text = m_stream.data_type == Z_TEXT;
    return result;
  }

private:
  void flush(std::vector<unsigned char>& out) {
    out.insert(out.end(), m_buffer.get(), m_buffer.get() + (kOutputBuffer - m_stream.avail_out));
    m_stream.next_out = m_buffer.get();
    m_stream.avail_out = kOutputBuffer;
  }

  z_stream m_stream;
  std::unique_ptr<unsigned char[]> m_buffer;
  bool m_ready = false;
  int m_level = 0;
};

void closeQuietly(tal::P<tal::IInStream> const& in) {
  if (!in) return;
  try {
    in->close();
  } catch (std::exception&) {
    // the error already met is the one reported
  }
}

/// One entry of the group a worker is gathering.
struct Member {
  std::size_t index = 0;
  State state = State::Pending; ///< Pending: to be compressed; Big or Failed: only to be handed over
  long long length = 0;         ///< the source's length
  std::size_t need = 0;         ///< room taken for it: zlib's bound, or its length when stored
  tal::P<tal::IInStream> in;    ///< open while it is to be read piece by piece (the group's only such entry)
  std::size_t staged = 0;       ///< its bytes in the worker's input, when read ahead
  std::size_t firstRead = 0;    ///< and the lengths readLax returned, from this one in CWorker::m_reads
  std::size_t reads = 0;
  tal::P<tal::CError> error;
};

} // namespace

/// The state the workers and the calling thread share for one addAll.
struct ParallelRun {
  ParallelRun(tal::CURI const& archiveURI, std::vector<CParallelDeflater::Source> const& sources,
              CParallelDeflater::Settings const& settings)
      : sources(sources), settings(settings), archiveURI(archiveURI), slots(sources.size()),
        settled(sources.size(), false), entryLimit(settings.maxBytesHeld / 4) {}

  std::vector<CParallelDeflater::Source> const& sources;
  CParallelDeflater::Settings const& settings;
  tal::CURI const archiveURI;
  /// Per entry: the method and level beginAddFile would use.
  std::vector<int> methods, levels;
  std::vector<Slot> slots;
  /// Per entry: it holds its room, or needs none (Big, Failed); entries before `firstUnsettled` all are.
  std::vector<bool> settled;
  std::size_t const entryLimit;

  std::mutex mutex;
  std::condition_variable written; ///< the calling thread waits here for the entry `waitingFor`
  std::condition_variable roomFreed; ///< workers wait here for room
  std::atomic<std::size_t> nextToTake{0};
  std::atomic<std::size_t> entriesSeen{0}, bytesSeen{0};
  std::size_t workers = 1;
  std::atomic<bool> stop{false};
  std::size_t firstUnsettled = 0;
  std::size_t waitingFor = kNone;
  std::size_t roomWaiters = 0;
  std::size_t held = 0;

  tal::CURI entryURI(std::size_t index) const { return archiveURI << sources[index].relativeURIInArchive; }

  /// The next entries for a worker, [first, end): about kGroupInput bytes by the lengths seen so far, fewer towards
  /// the end of the list so that the workers finish together; kNone when none are left.
  std::size_t claim(std::size_t& end) {
    if (stop.load(std::memory_order_relaxed)) return kNone;
    std::size_t const seen = entriesSeen.load(std::memory_order_relaxed);
    std::size_t const bytes = bytesSeen.load(std::memory_order_relaxed);
    std::size_t want = seen ? kGroupInput / std::max<std::size_t>(bytes / seen, 1) : 4;
    want = std::max<std::size_t>(1, std::min(want, kGroupEntries));
    std::size_t first = nextToTake.load(std::memory_order_relaxed);
    for (;;) {
      if (first >= sources.size()) return kNone;
      std::size_t const left = sources.size() - first;
      std::size_t const count = std::max<std::size_t>(1, std::min(want, left / (2 * workers)));
      if (nextToTake.compare_exchange_weak(first, first + count, std::memory_order_relaxed)) {
        end = first + count;
        return first;
      }
    }
  }

  /// A source of `length` bytes was opened.
  void seen(long long length) {
    entriesSeen.fetch_add(1, std::memory_order_relaxed);
    bytesSeen.fetch_add(static_cast<std::size_t>(length), std::memory_order_relaxed);
  }

  /// Marks `members` settled; the lock is held.
  void settle(std::vector<Member> const& members) {
    for (Member const& member : members) settled[member.index] = true;
    std::size_t const before = firstUnsettled;
    while (firstUnsettled < settled.size() && settled[firstUnsettled]) ++firstUnsettled;
    if (firstUnsettled != before && roomWaiters) roomFreed.notify_all();
  }

  /// The group `members` takes `need` bytes of room; false when stopped.
  ///
  /// Any group may take room while what is held stays within the limit less entryLimit; the group holding the
  /// first entry without room may take it up to the limit itself. A group is a run of entries next to each other
  /// in the list and is settled at once, so every group that holds room is wholly before that entry or wholly
  /// after it. Those before it are written in time and give their room back; then what is held, all taken by the
  /// first rule, leaves room for the group (need is at most entryLimit). So the entry the calling thread waits for
  /// always comes, whatever order the workers take room in.
  bool takeRoom(std::vector<Member> const& members, std::size_t need) {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      if (stop) return false;
      if (need == 0) break;
      bool first = false;
      for (Member const& member : members) first = first || member.index == firstUnsettled;
      std::size_t const limit = first ? settings.maxBytesHeld : settings.maxBytesHeld - entryLimit;
      if (held + need <= limit) break;
      ++roomWaiters;
      roomFreed.wait(lock);
      --roomWaiters;
    }
    held += need;
    settle(members);
    return true;
  }

  void giveBack(std::size_t bytes) {
    std::lock_guard<std::mutex> lock(mutex);
    held -= bytes;
    if (roomWaiters) roomFreed.notify_all();
  }

  /// Hands a group's entries to the calling thread; `need` was taken for them, `piece` (or nothing) holds instead.
  void publish(std::vector<Member> const& members, std::vector<Slot>& made, std::size_t need, Piece const* piece) {
    std::lock_guard<std::mutex> lock(mutex);
    held = held - need + (piece ? piece->room : 0);
    bool wanted = false;
    for (std::size_t i = 0; i < members.size(); ++i) {
      slots[members[i].index] = std::move(made[i]);
      wanted = wanted || members[i].index == waitingFor;
    }
    settle(members);
    if (roomWaiters && (!piece || piece->room < need)) roomFreed.notify_all();
    if (wanted) written.notify_one();
  }

  void stopWorkers() {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
    roomFreed.notify_all();
  }

  void work();
};

namespace {

/// One worker's gathering and compressing of groups of entries.
class CWorker {
public:
  explicit CWorker(ParallelRun& run)
      : m_run(run), m_input(new unsigned char[kGroupInput + static_cast<std::size_t>(CParallelDeflater::kChunkSize)]) {
    // Gathering a group allocates nothing more for these, so no entry taken is lost to a failed allocation.
    m_members.reserve(kGroupEntries + 1);
    m_made.reserve(kGroupEntries + 1);
  }

  void run() {
    Member carried;
    bool haveCarried = false;
    for (;;) {
      m_members.clear();
      m_reads.clear();
      m_staged = 0;
      std::size_t need = 0;
      while (m_members.size() < kGroupEntries) {
        Member member;
        if (haveCarried) {
          member = std::move(carried);
          carried = Member();
          haveCarried = false;
        } else {
          // A group is entries next to each other in the list (see ParallelRun::takeRoom): it ends with the range.
          if (m_next == m_end) {
            if (!m_members.empty()) break;
            m_next = m_run.claim(m_end);
            if (m_next == kNone) {
              m_next = m_end = 0;
              break;
            }
          }
          open(m_next++, member);
        }
        if (member.state != State::Pending) {
          m_members.push_back(std::move(member));
          continue;
        }
        bool const fits = need + member.need <= m_run.entryLimit;
        if (fits && member.length <= kSmallSource &&
            m_staged + static_cast<std::size_t>(member.length) <= kGroupInput) {
          readAhead(member);
          if (member.state == State::Pending) need += member.need;
          m_members.push_back(std::move(member));
          continue;
        }
        if (fits && m_staged == 0) { // read piece by piece, the group's last entry
          need += member.need;
          m_members.push_back(std::move(member));
          break;
        }
        carried = std::move(member); // starts the next group
        haveCarried = true;
        break;
      }
      if (m_members.empty()) return;
      if (!compressGroup(need)) {
        closeQuietly(carried.in);
        return;
      }
    }
  }

private:
  /// Opens entry `index`'s source and decides what becomes of it.
  void open(std::size_t index, Member& member) {
    member.index = index;
    CParallelDeflater::Source const& source = m_run.sources[index];
    try {
      member.in = source.open();
      long long length = -1;
      try {
        length = member.in->getLength();
      } catch (std::exception&) {
        // unknown: compressed by the calling thread
      }
      std::size_t need = 0;
      if (length >= 0) {
        if (m_run.methods[index] == Z_DEFLATED) {
          if (!m_deflater.ready()) {
            int const result = m_deflater.start(m_run.levels[index]);
            if (result != Z_OK) throwZlib("deflateInit2 failed", m_run.entryURI(index), result);
          }
          need = m_deflater.bound(static_cast<unsigned long long>(length));
        } else {
          need = static_cast<std::size_t>(length);
        }
      }
      if (length < 0 || need > m_run.entryLimit) {
        tal::P<tal::IInStream> const in = member.in;
        member.in = nullptr;
        in->close();
        member.state = State::Big;
        return;
      }
      member.length = length;
      member.need = need;
      m_run.seen(length);
    } catch (std::exception& e) {
      fail(member, errorOf(e));
    } catch (...) {
      fail(member, unknownError());
    }
  }

  /// Reads a small source whole into the group's input, in the pieces readLax gives for kChunkSize requests.
  void readAhead(Member& member) {
    std::size_t const firstRead = m_reads.size();
    std::size_t total = 0;
    bool tooLong = false;
    try {
      while (int const n = member.in->readLax(m_input.get() + m_staged + total, CParallelDeflater::kChunkSize)) {
        total += static_cast<std::size_t>(n);
        if (total > static_cast<std::size_t>(member.length)) {
          tooLong = true; // grown since its length was taken: the calling thread takes it
          break;
        }
        m_reads.push_back(static_cast<unsigned>(n));
      }
      tal::P<tal::IInStream> const in = member.in;
      member.in = nullptr;
      in->close();
    } catch (std::exception& e) {
      m_reads.resize(firstRead);
      fail(member, errorOf(e));
      return;
    } catch (...) {
      m_reads.resize(firstRead);
      fail(member, unknownError());
      return;
    }
    if (tooLong) {
      m_reads.resize(firstRead);
      member.state = State::Big;
      return;
    }
    member.staged = m_staged;
    member.firstRead = firstRead;
    member.reads = m_reads.size() - firstRead;
    m_staged += total;
  }

  static void fail(Member& member, tal::P<tal::CError> const& error) {
    closeQuietly(member.in);
    member.in = nullptr;
    member.state = State::Failed;
    member.error = error;
  }

  /// Takes room for the gathered group, compresses it and hands it over; false when stopped.
  bool compressGroup(std::size_t need) {
    if (!m_run.takeRoom(m_members, need)) {
      for (Member& member : m_members) closeQuietly(member.in);
      return false;
    }
    m_made.assign(m_members.size(), Slot());
    std::shared_ptr<Piece> piece;
    std::size_t ready = 0;
    try {
      piece = std::make_shared<Piece>();
      piece->data.reserve(need);
    } catch (std::exception& e) {
      for (std::size_t i = 0; i < m_members.size(); ++i)
        if (m_members[i].state == State::Pending) fail(m_members[i], errorOf(e));
    }
    for (std::size_t i = 0; i < m_members.size(); ++i) {
      Member& member = m_members[i];
      Slot& slot = m_made[i];
      slot.state = member.state;
      slot.error = member.error;
      if (member.state != State::Pending) continue;
      std::vector<unsigned char>& out = piece->data;
      std::size_t const start = out.size();
      try {
        if (!compress(member, slot, out)) {
          closeQuietly(member.in);
          return false;
        }
      } catch (std::exception& e) {
        fail(member, errorOf(e));
        slot.state = State::Failed;
        slot.error = member.error;
      } catch (...) {
        fail(member, unknownError());
        slot.state = State::Failed;
        slot.error = member.error;
      }
      if (slot.state != State::Ready) {
        out.resize(start);
        continue;
      }
      slot.piece = piece;
      slot.offset = start;
      slot.length = out.size() - start;
      ++ready;
    }
    if (ready) {
      // A copy only when it gives back much: a small group keeps its room until it is written.
      if (piece->data.capacity() - piece->data.size() > kGroupInput) piece->data.shrink_to_fit();
      piece->room = piece->data.capacity();
      piece->left = ready;
    }
    m_run.publish(m_members, m_made, need, ready ? piece.get() : nullptr);
    m_made.clear();
    return true;
  }

  /// Compresses one entry into `out`; false when stopped.
  bool compress(Member& member, Slot& slot, std::vector<unsigned char>& out) {
    std::size_t const index = member.index;
    bool const deflated = m_run.methods[index] == Z_DEFLATED;
    if (deflated) {
      int const result = m_deflater.start(m_run.levels[index]);
      if (result != Z_OK) throwZlib("deflateInit2 failed", m_run.entryURI(index), result);
    }
    uLong crc = crc32(0L, Z_NULL, 0);
    unsigned long long size = 0;
    auto take = [&](unsigned char const* bytes, unsigned n) {
      crc = crc32(crc, bytes, static_cast<uInt>(n));
      size += n;
      if (!deflated) {
        out.insert(out.end(), bytes, bytes + n);
        return;
      }
      int const result = m_deflater.write(bytes, n, out);
      if (result != Z_OK) throwZlib("deflate failed", m_run.entryURI(index), result);
    };
    if (member.in) {
      // Read piece by piece, into the group's input (nothing else is in it).
      bool tooLong = false;
      while (int const n = member.in->readLax(m_input.get(), CParallelDeflater::kChunkSize)) {
        if (size + static_cast<unsigned long long>(n) > static_cast<unsigned long long>(member.length)) {
          tooLong = true; // grown since its length was taken: the calling thread takes it
          break;
        }
        take(m_input.get(), static_cast<unsigned>(n));
        if (m_run.stop.load(std::memory_order_relaxed)) return false; // nothing of it will be written
      }
      tal::P<tal::IInStream> const in = member.in;
      member.in = nullptr;
      in->close();
      if (tooLong) {
        slot.state = State::Big;
        return true;
      }
    } else {
      unsigned char const* bytes = m_input.get() + member.staged;
      for (std::size_t i = 0; i < member.reads; ++i) {
        unsigned const n = m_reads[member.firstRead + i];
        take(bytes, n);
        bytes += n;
      }
    }
    if (deflated) {
      bool text = false;
      int const result = m_deflater.finish(out, text);
      if (result != Z_STREAM_END) throwZlib("deflate failed", m_run.entryURI(index), result);
      slot.text = text;
    }
    slot.crc = crc;
    slot.size = size;
    slot.state = State::Ready;
    return true;
  }

  ParallelRun& m_run;
  std::size_t m_next = 0, m_end = 0; ///< the entries taken and not yet opened
  CDeflater m_deflater;
  std::unique_ptr<unsigned char[]> m_input; ///< the group's small sources, read ahead; or a piece of the large one
  std::size_t m_staged = 0;
  std::vector<unsigned> m_reads;
  std::vector<Member> m_members;
  std::vector<Slot> m_made;
};

} // namespace

void ParallelRun::work() {
  tal::P<tal::CError> error;
  try {
    CWorker worker(*this);
    worker.run();
    return;
  } catch (std::exception& e) {
    error = errorOf(e); // only making the worker's buffers can fail
  } catch (...) {
    error = unknownError();
  }
  // Without its buffers, a worker fails the entries it takes, so that every entry still comes to the calling thread.
  std::vector<Member> member(1);
  std::vector<Slot> failed(1);
  std::size_t end = 0;
  for (std::size_t first = claim(end); first != kNone; first = claim(end)) {
    for (std::size_t index = first; index < end; ++index) {
      member[0].index = index;
      failed[0].state = State::Failed;
      failed[0].error = error;
      publish(member, failed, 0, nullptr);
    }
  }
}

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
        if (run.slots[index].state == State::Pending) {
          run.waitingFor = index;
          run.written.wait(lock, [&] { return run.slots[index].state != State::Pending; });
          run.waitingFor = kNone;
        }
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
