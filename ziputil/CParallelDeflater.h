// ziputil::CParallelDeflater: adds many entries to a CZipWriter, compressing
// several at once in worker threads.
#pragma once

#include "ziputil/CZipWriter.h"

#include <cstddef>
#include <functional>
#include <vector>

namespace ziputil {

/// Addition beside CZipWriter: adds a list of entries to a writer, deflating
/// several of them at once in worker threads, and writes them in the list's
/// order, each exactly as CZipWriter::beginAddFile with the same name, time
/// and EntryOptions followed by writes of the source's bytes would have (the
/// same headers, flags and attributes, the same deflate output: zlib's raw
/// deflate at the entry's level, window bits -MAX_WBITS, memLevel 8, the
/// default strategy, fed as minizip feeds it). So an archive made this way is
/// byte for byte the archive a sequential add makes, except where a password
/// encrypts the entries (the encryption header is random). One caveat of
/// zlib's: at level 0, deflate's stored blocks depend on how the input was
/// cut into writes; the identity then holds for a sequential add that writes
/// the source's bytes in the pieces its readLax returns for requests of
/// kChunkSize bytes.
///
/// How: each worker takes the next few entries of the list (as many as make
/// about 256 KiB by the lengths seen so far, fewer towards the end), opens
/// their sources in order and compresses them into memory (the CRC-32
/// alongside). A source of at most kChunkSize bytes is read whole as soon as
/// it is opened and closed; such sources, up to 256 KiB of them (and up to
/// 128 entries), make one group, compressed one after another into one
/// buffer and handed to the calling thread at once; a longer source is a
/// group of its own, read piece by piece. The calling thread writes the
/// finished entries in order with the writer's raw mode
/// (zipOpenNewFileInZip4_64 with raw 1, zipCloseFileInZipRaw64), with the
/// writer's password when it has one, and sleeps only while the entry it is
/// to write next is not done. Entries too large for memory are compressed by
/// the calling thread itself, through beginAddFile, while the workers go on
/// with the following entries.
///
/// Memory: compressed data held at once stays within Settings::maxBytesHeld.
/// An entry is compressed in memory when zlib's bound for its compressed
/// size (deflateBound; its size for a stored entry) is at most a quarter of
/// that limit. A group takes room for the sum of its entries' bounds (at most
/// that quarter) before it is compressed, keeps it (or, when that leaves more
/// than 256 KiB unused, what its compressed bytes take) and gives it back once
/// its last entry is written. Groups take room
/// in any order while a quarter of the limit stays free; that quarter is for
/// the group holding the first entry of the list without room, so the entry
/// the calling thread waits for always gets it. Besides, each worker holds
/// 320 KiB of input (the small sources of its group, or a kChunkSize piece of
/// a longer one), a 64 KiB output buffer and zlib's deflate state (about
/// 270 KiB at memLevel 8), all kept from entry to entry, and at most one
/// source open ahead of its group. A source whose length cannot be known
/// (getLength throws) or that turns out longer than its length is opened a
/// second time, by the calling thread.
///
/// Not counted and not shared: one object per call site, used by one thread.
class CParallelDeflater {
public:
  /// Input read per call of a source's readLax.
  static constexpr int kChunkSize = 64 * 1024;

  /// One entry to add.
  struct Source {
    tal::CURI relativeURIInArchive;
    tal::CTimeFields time;
    CZipWriter::EntryOptions options;
    /// Opens the entry's data; called from a worker thread (and perhaps once
    /// more from the calling thread, see above). Its stream is read to its
    /// end (readLax until 0) and closed in the thread that opened it.
    std::function<tal::P<tal::IInStream>()> open;
  };

  struct Settings {
    /// Worker threads; 0: std::thread::hardware_concurrency() (at least 1).
    unsigned threads = 0;
    /// The most compressed data held in memory at once, in bytes.
    std::size_t maxBytesHeld = std::size_t(64) << 20;
    /// Asked, in the calling thread and in the list's order, when a source
    /// fails (its open, read or close throws) before any of its entry's bytes
    /// reached the archive: true skips the entry (nothing of it is written)
    /// and addAll goes on; false, or no function (the default), fails addAll
    /// as below. Gets the entry's index in the list and the source's error.
    std::function<bool(std::size_t index, tal::CError const& error)> skipFailedSource;
  };

  CParallelDeflater();
  explicit CParallelDeflater(Settings const& settings);

  /// Adds `sources` to `writer` in order (see the class comment); returns the
  /// number of entries written (those not skipped). The writer must have no
  /// entry open and stays open afterwards.
  ///
  /// Errors: before anything is written, an entry whose options name a level
  /// outside -1..9 throws beginAddFile's CInvalidArgError ("level is
  /// invalid", {"level"}), an entry whose options ask for EntryOptions::Zstd
  /// CInvalidArgError ("zstd entries are written by CZipWriter::beginAddFile,
  /// not here", {"name"}: the entry's name) and a closed writer
  /// beginAddFile's "ZIP file already closed" CIOError; nothing is changed
  /// then. A writer with Options::encryption AES gets AES entries, encrypted
  /// in the calling thread as they are written. Any later failure stops the
  /// workers, discards the writer (CZipWriter::discard: the archive is left as
  /// it was when the writer was opened, and the writer is closed) and throws
  /// that failure unchanged: a source's error as the source threw it (a
  /// tal::CError keeps its class, code, message and properties; another
  /// std::exception arrives as tal's CStdExceptionError conversion), the
  /// writer's errors as the writer documents them, or a CError
  /// "deflateInit2 failed" / "deflate failed" {"uri": the entry's URI,
  /// "result"} when zlib fails. When discarding fails too, its message is
  /// added to the error as "rollbackError". The first failure in the list's
  /// order is the one thrown.
  std::size_t addAll(CZipWriter& writer, std::vector<Source> const& sources);

private:
  struct InOrder; ///< the calling thread's writing of the entries, in order
  Settings m_settings;
};

} // namespace ziputil
