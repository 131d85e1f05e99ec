// A file system for tests that wraps another and fails a chosen I/O call:
// the nth call of one operation, counted across all its streams, throws.
#pragma once

#include "tal/Stream.h"

#include <atomic>

namespace testsupport {

/// The error a CFaultyFileSystem throws: its own class, so a test can tell it
/// from any other. Code by operation (Open -> OpenFailed, Read -> ReadFailed,
/// Write -> WriteFailed, Seek/Tell/Length -> SeekFailed, Close -> Unknown,
/// Sync -> WriteFailed, Move -> MoveFailed),
/// message "Injected <op> fault #<n>", properties {"uri": the stream's URI
/// text, "injected": "<op>#<n>"}.
class CInjectedError : public tal::CIOError {
public:
  CInjectedError(Code code, tal::String const& message, tal::CProps const& props);
  tal::P<tal::CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

/// Streams it opens forward every operation to the inner stream. Counted (and so failable): read, readLax and
/// readAvailable as Read; write and writeKeepBuffer as Write; seek as Seek; getPosition as Tell; getLength as
/// Length; close as Close (a failing close still closes the inner stream). A failing call does not reach
/// the inner stream, except close. The file system's own sync and move count as Sync and Move; a failing one
/// does not reach the inner file system. Counters are atomic: streams may be used from several threads.
class CFaultyFileSystem : public tal::CBase, public virtual tal::IFileSystem {
public:
  /// Tell is getPosition, Length is getLength; Sync and Move are the file system's sync and move.
  enum Op { Open, Read, Write, Seek, Tell, Close, Length, Sync, Move, OpCount };

  explicit CFaultyFileSystem(tal::IFileSystem* inner);

  /// Arms a fault: the nth call (1-based, counted since the last reset) of `op`
  /// throws a CInjectedError; 0 disarms.
  void failNth(Op op, long long n);
  /// Calls of `op` since the last reset.
  long long count(Op op) const;
  /// Clears the counts and the armed fault.
  void reset();
  /// Whether the armed fault has fired.
  bool fired() const;

  static char const* opName(Op op);
  /// The error the fault of `op` number `n` on `uri` throws.
  static CInjectedError injectedError(Op op, long long n, tal::CURI const& uri);

  /// Counts a call of `op`; throws when it is the armed one.
  void count(Op op, tal::CURI const& uri);

  /// Counts an Open (failing before the inner file system is asked), then wraps the inner stream.
  tal::P<tal::IInOutStream> openStream(tal::CURI const& uri, int access, int const& flags) override;
  bool exists(tal::CURI const& uri) override;
  void remove(tal::CURI const& uri) override;
  /// Counts a Sync (on the stream's URI), then syncs the inner stream of a stream this file system opened
  /// through the inner file system; any other stream is handed to the inner file system as it is.
  void sync(tal::IOutStream& stream) override;
  /// Counts a Move (on `from`), then moves through the inner file system.
  void move(tal::CURI const& from, tal::CURI const& to) override;

private:
  tal::P<tal::IFileSystem> m_inner;
  std::atomic<long long> m_counts[OpCount];
  std::atomic<int> m_armedOp{-1};
  std::atomic<long long> m_armedN{0};
  std::atomic<bool> m_fired{false};
};

} // namespace testsupport
