// CZipWriter::ArchiveState: what a writer holds while its archive is open
// (internal to libziputil; not installed).
#pragma once

#include "ziputil/CZipWriter.h"
#include "ziputil/bridge/MiniZipExtras.h"

#include <string>

namespace ziputil {

/// The open archive: minizip's handle, the bridge it writes through, and what
/// undoing the writer's changes needs. Used under the writer's mutex only.
struct CZipWriter::ArchiveState {
  explicit ArchiveState(tal::IFileSystem* fileSystem) : handle(nullptr), bridge(fileSystem) {}
  zipFile handle; ///< null once minizip has let go of it
  CMiniZipIO bridge;
  /// The file minizip writes: the archive, or its copy when replacing atomically.
  tal::CURI target;
  bool atomic = false;
  /// In place: the file's length at construction, and its bytes from
  /// tailOffset (the old central directory) to the end.
  long long oldLength = 0;
  long long tailOffset = 0;
  std::string tail;
  /// Where the entry being written (or the last one) began.
  ziputil_zipMark entryMark{};
  /// The first failed write of the open entry, which can no longer be finished.
  tal::P<tal::CError> entryFailure;
};

} // namespace ziputil
