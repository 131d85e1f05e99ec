#include "ziputil/codecs/ParallelRun.h"

#include <algorithm>

namespace ziputil {
namespace parallel {

tal::P<tal::CError> errorOf(std::exception& e) { return tal::CStdExceptionError::exceptionToError(&e)->clone(); }

tal::P<tal::CError> unknownError() {
  return tal::CError(tal::String("unknown exception"), tal::String(), -1, tal::CProps(), nullptr).clone();
}

void throwZlib(char const* message, tal::CURI const& entryURI, int result) {
  tal::CProps props = tal::uriProps(entryURI);
  props["result"] = tal::toString(result);
  throw tal::CError(tal::String(message), tal::String(), -1, props, nullptr);
}

void closeQuietly(tal::P<tal::IInStream> const& in) {
  if (!in) return;
  try {
    in->close();
  } catch (std::exception&) {
    // the error already met is the one reported
  }
}

std::size_t ParallelRun::claim(std::size_t& end) {
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

void ParallelRun::seen(long long length) {
  entriesSeen.fetch_add(1, std::memory_order_relaxed);
  bytesSeen.fetch_add(static_cast<std::size_t>(length), std::memory_order_relaxed);
}

/// Any group may take room while what is held stays within the limit less entryLimit; the group holding the
/// first entry without room may take it up to the limit itself. A group is a run of entries next to each other
/// in the list and is settled at once, so every group that holds room is wholly before that entry or wholly
/// after it. Those before it are written in time and give their room back; then what is held, all taken by the
/// first rule, leaves room for the group (need is at most entryLimit). So the entry the calling thread waits for
/// always comes, whatever order the workers take room in.
bool ParallelRun::takeRoom(std::vector<Member> const& members, std::size_t need) {
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

void ParallelRun::publish(std::vector<Member> const& members, std::vector<Slot>& made, std::size_t need,
                          Piece const* piece) {
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

Slot ParallelRun::take(std::size_t index) {
  std::unique_lock<std::mutex> lock(mutex);
  if (slots[index].state == State::Pending) {
    waitingFor = index;
    written.wait(lock, [&] { return slots[index].state != State::Pending; });
    waitingFor = kNone;
  }
  return std::move(slots[index]);
}

void ParallelRun::giveBack(std::size_t bytes) {
  std::lock_guard<std::mutex> lock(mutex);
  held -= bytes;
  if (roomWaiters) roomFreed.notify_all();
}

void ParallelRun::stopWorkers() {
  std::lock_guard<std::mutex> lock(mutex);
  stop = true;
  roomFreed.notify_all();
}

void ParallelRun::settle(std::vector<Member> const& members) {
  for (Member const& member : members) settled[member.index] = true;
  std::size_t const before = firstUnsettled;
  while (firstUnsettled < settled.size() && settled[firstUnsettled]) ++firstUnsettled;
  if (firstUnsettled != before && roomWaiters) roomFreed.notify_all();
}

} // namespace parallel
} // namespace ziputil
