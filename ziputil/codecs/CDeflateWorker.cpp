// The parallel deflater's workers: each gathers groups of entries, compresses
// them into memory and hands them to the calling thread (ParallelRun.h).
#include "ziputil/codecs/CDeflater.h"
#include "ziputil/codecs/ParallelRun.h"

#include <zlib.h>

namespace ziputil {
namespace parallel {
namespace {

/// One worker's gathering and compressing of groups of entries.
class CDeflateWorker {
public:
  explicit CDeflateWorker(ParallelRun& run)
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
    CDeflateWorker worker(*this);
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

} // namespace parallel
} // namespace ziputil
