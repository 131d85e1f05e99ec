// File systems for writer tests that wrap another one: one without sync and
// move, one whose disk fills up, one that keeps failing once a fault has
// fired, and one that remembers every file it opened.
#pragma once

#include "support/FaultyFileSystem.h"
#include "tal/Stream.h"

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace testsupport {

/// Forwards openStream, exists and remove (and sync when asked to) to the
/// inner file system and nothing else: the missing operations keep
/// IFileSystem's default, which refuses them (CFileSystemError NotSupported).
/// Streams are the inner file system's own.
class CBasicFileSystem : public tal::CBase, public virtual tal::IFileSystem {
public:
  explicit CBasicFileSystem(tal::IFileSystem* inner, bool forwardSync = false);

  tal::P<tal::IInOutStream> openStream(tal::CURI const& uri, int access, int const& flags) override;
  bool exists(tal::CURI const& uri) override;
  void remove(tal::CURI const& uri) override;
  void sync(tal::IOutStream& stream) override;

private:
  tal::P<tal::IFileSystem> m_inner;
  bool m_forwardSync;
};

/// A disk with `room` bytes free. Every file's length counts against it:
/// a write (or setLength) that makes a file longer takes the growth from the
/// room left, overwriting bytes a file already has takes nothing, and making a
/// file shorter, removing it, or moving another file over it gives the room
/// back. A write that needs more than is left writes the bytes that fit and
/// then throws CIOError WriteFailed "No space left on device" {"uri"}; so does
/// a setLength that needs more (it changes nothing then). Streams of the
/// inner file system must see each other's writes (as CMemoryFileSystem's do).
class CDiskFullFileSystem : public tal::CBase, public virtual tal::IFileSystem {
public:
  CDiskFullFileSystem(tal::IFileSystem* inner, long long room);

  /// The room left, in bytes.
  long long room() const;
  /// The least room there was at any time since construction.
  long long lowestRoom() const;
  /// How often a write or setLength was refused.
  int refusals() const { return m_refusals.load(); }
  /// The error a refused write throws.
  static tal::CIOError diskFullError(tal::CURI const& uri);

  tal::P<tal::IInOutStream> openStream(tal::CURI const& uri, int access, int const& flags) override;
  bool exists(tal::CURI const& uri) override;
  void remove(tal::CURI const& uri) override;
  void sync(tal::IOutStream& stream) override;
  void move(tal::CURI const& from, tal::CURI const& to) override;

  /// Used by its streams: a write of `size` bytes of `data`, and a setLength,
  /// on the inner stream `inner`, within the room left.
  void write(tal::IInOutStream& inner, void const* data, int size, tal::IWriteBarrier* barrier);
  void setLength(tal::IInOutStream& inner, long long newLength);

private:
  long long lengthOf(tal::CURI const& uri);
  /// Takes `growth` bytes (given back when negative) from the room; under the lock.
  void take(long long growth);

  tal::P<tal::IFileSystem> m_inner;
  mutable std::mutex m_mutex;
  long long m_room;
  long long m_lowestRoom;
  std::atomic<int> m_refusals{0};
};

/// Wraps a CFaultyFileSystem: once its armed fault has fired, the operations
/// chosen here keep failing on every file (the fault was a device going away,
/// say). They throw CIOError (OpenFailed, WriteFailed or DeleteFailed)
/// "Device gone: <op>" {"uri"}. Sync and move are forwarded.
class CBrokenAfterFaultFileSystem : public tal::CBase, public virtual tal::IFileSystem {
public:
  enum Breaks { BreakOpen = 1, BreakWrite = 2, BreakRemove = 4 };

  CBrokenAfterFaultFileSystem(CFaultyFileSystem* faulty, int breaks);

  /// How many calls failed because of the breakage.
  int failures() const { return m_failures.load(); }
  /// Throws the breakage error for `op` ("open", "write", "remove") when broken.
  void check(Breaks which, char const* op, tal::CURI const& uri);

  tal::P<tal::IInOutStream> openStream(tal::CURI const& uri, int access, int const& flags) override;
  bool exists(tal::CURI const& uri) override;
  void remove(tal::CURI const& uri) override;
  void sync(tal::IOutStream& stream) override;
  void move(tal::CURI const& from, tal::CURI const& to) override;

private:
  tal::P<CFaultyFileSystem> m_faulty;
  int m_breaks;
  std::atomic<int> m_failures{0};
};

/// Forwards everything to the inner file system and remembers the URI text of
/// every file opened through it, so a test can check afterwards which of them
/// still exist. Streams are the inner file system's own.
class CRecordingFileSystem : public tal::CBase, public virtual tal::IFileSystem {
public:
  explicit CRecordingFileSystem(tal::IFileSystem* inner);

  /// The URIs opened so far (toString(true) text, as opened).
  std::set<std::string> opened() const;
  /// Of those, the ones that exist in the inner file system now.
  std::set<std::string> existing() const;
  /// Every openStream call so far, in order: "<uri> access <access> flags <flags>".
  std::vector<std::string> openCalls() const;
  void clear();

  tal::P<tal::IInOutStream> openStream(tal::CURI const& uri, int access, int const& flags) override;
  bool exists(tal::CURI const& uri) override;
  void remove(tal::CURI const& uri) override;
  void sync(tal::IOutStream& stream) override;
  void move(tal::CURI const& from, tal::CURI const& to) override;

private:
  tal::P<tal::IFileSystem> m_inner;
  mutable std::mutex m_mutex;
  std::map<std::string, tal::CURI> m_opened;
  std::vector<std::string> m_openCalls;
};

} // namespace testsupport
