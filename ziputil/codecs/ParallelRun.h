// ziputil::parallel::ParallelRun: what the parallel deflater's workers and
// its calling thread share for one addAll: which entries each worker takes,
// the room compressed data may hold, and the hand-over of finished entries
// (internal to libziputil; not installed).
#pragma once

#include "ziputil/CParallelDeflater.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

namespace ziputil {
namespace parallel {

/// Sources at most this long are read whole as soon as they are opened, several into one group.
constexpr long long kSmallSource = CParallelDeflater::kChunkSize;
/// The input of small sources a worker gathers into one group.
constexpr std::size_t kGroupInput = 256 * 1024;
/// The most entries in one group.
constexpr std::size_t kGroupEntries = 128;

constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

/// Pending: not yet compressed; Ready: compressed in memory; Big: to be compressed by the calling thread (too
/// large for memory, of unknown length, or grown since its length was taken); Failed: its source failed.
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

/// One entry of the group a worker is gathering.
struct Member {
  std::size_t index = 0;
  State state = State::Pending; ///< Pending: to be compressed; Big or Failed: only to be handed over
  long long length = 0;         ///< the source's length
  std::size_t need = 0;         ///< room taken for it: zlib's bound, or its length when stored
  tal::P<tal::IInStream> in;    ///< open while it is to be read piece by piece (the group's only such entry)
  std::size_t staged = 0;       ///< its bytes in the worker's input, when read ahead
  std::size_t firstRead = 0;    ///< and the lengths readLax returned, from this one in the worker's list of reads
  std::size_t reads = 0;
  tal::P<tal::CError> error;
};

/// The error a worker or the calling thread hands on for an exception it caught.
tal::P<tal::CError> errorOf(std::exception& e);
tal::P<tal::CError> unknownError();
/// CError `message` {"uri": `entryURI`, "result": zlib's `result`}.
[[noreturn]] void throwZlib(char const* message, tal::CURI const& entryURI, int result);
/// Closes `in` (when not null), ignoring its failure: the error already met is the one reported.
void closeQuietly(tal::P<tal::IInStream> const& in);

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

  // ---- the workers' side ----

  /// The next entries for a worker, [first, end): about kGroupInput bytes by the lengths seen so far, fewer towards
  /// the end of the list so that the workers finish together; kNone when none are left.
  std::size_t claim(std::size_t& end);
  /// A source of `length` bytes was opened.
  void seen(long long length);
  /// The group `members` takes `need` bytes of room; false when stopped.
  bool takeRoom(std::vector<Member> const& members, std::size_t need);
  /// Hands a group's entries to the calling thread; `need` was taken for them, `piece` (or nothing) holds instead.
  void publish(std::vector<Member> const& members, std::vector<Slot>& made, std::size_t need, Piece const* piece);
  /// One worker's whole run (CDeflateWorker.cpp): groups until no entry is left or the run stops.
  void work();

  // ---- the calling thread's side ----

  /// Entry `index`'s slot once a worker has handed it over, moved out of the run.
  Slot take(std::size_t index);
  /// A written piece's room is free again.
  void giveBack(std::size_t bytes);
  /// Stops the workers: they take no more entries and leave what they wait for.
  void stopWorkers();

private:
  /// Marks `members` settled; the lock is held.
  void settle(std::vector<Member> const& members);
};

} // namespace parallel
} // namespace ziputil
