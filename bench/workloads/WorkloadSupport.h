// What several workloads share: the size of their read and write pieces,
// their checks, ziputil over the local and the memory file system, stock
// minizip's handles and entry settings, libzip (in a build with it), the rows
// that write a file, the Python peer's rows, and the limits' pieces (zlib and
// the central directory parse).
#pragma once

#include "Harness.h"
#include "Workloads.h"
#include "ZipData.h"
#if ZIPUTIL_BENCH_LIBZIP
#include "LibzipPeer.h"
#endif

#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipWriter.h"

#include <unzip.h>
#include <zip.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

/// The size of the pieces the workloads read and write, and of their buffers.
constexpr std::size_t kChunk = 64 * 1024;

/// Keeps the compiler from dropping or hoisting the computation of `value`.
template <class T> inline void keep(T const& value) { asm volatile("" : : "r,m"(value) : "memory"); }

/// Throws std::runtime_error(`what`) unless `ok`.
inline void expect(bool ok, std::string const& what) {
  if (!ok) throw std::runtime_error(what);
}

/// `n` with a comma between thousands ("100,000").
std::string withCommas(std::size_t n);

/// The size of the file at `path` as a detail ("1.20 MB written"); empty when
/// there is no such file.
std::string fileSizeOf(std::string const& path);

// ---- ziputil ---------------------------------------------------------------

/// The URI of the local file at `path`.
tal::CURI fileURI(std::string const& path);
/// The relative URI of the entry `name` in an archive.
tal::CURI entryURI(std::string const& name);
/// The time the write workloads give their entries: 2024-05-01 12:00:00.
tal::CTimeFields entryTime();

/// ziputil over one of the two file systems, holding an archive.
struct ZiputilSite {
  /// The row's name: "ziputil-local" or "ziputil-mem".
  char const* name;
  tal::P<tal::IFileSystem> fs;
  /// Set for the memory file system (the same object as `fs`), null for the local one.
  tal::P<tal::CMemoryFileSystem> memory;
  tal::CURI archive;
};

/// The sites `ctx` wants reading the archive at `path` (whose bytes are
/// `bytes`), in this order: ziputil-local, the local file system on `path`;
/// ziputil-mem, a memory file system holding a copy of `bytes`.
std::vector<std::shared_ptr<ZiputilSite>> readSites(Context const& ctx, std::string const& path,
                                                    std::string const& bytes);

/// Adds to `w` the ziputil rows `ctx` wants that write a new archive at
/// `level`: ziputil-local on the local disk at `path`, then ziputil-mem in a
/// memory file system. Each run makes an empty archive, opens a CZipWriter on
/// it, hands the writer to `addEntries` and closes it. Before each run the
/// old archive goes (in memory, with the whole file system); the row's detail
/// is the size written.
void addZiputilWriters(Workload& w, Context const& ctx, std::string const& path, int level,
                       std::function<void(ziputil::CZipWriter& writer)> const& addEntries);

// ---- stock minizip ---------------------------------------------------------

struct UnzCloser {
  void operator()(void* unz) const { unzClose(unz); }
};
/// A stock minizip reader, closed with unzClose.
using UnzHandle = std::unique_ptr<void, UnzCloser>;

/// Opens the archive at `path` with stock minizip; throws when it cannot.
UnzHandle openUnz(std::string const& path);

/// Opens an entry `name` in `zip` the way the library's writer does: deflated
/// at `level`, raw deflate stream, UTF-8 name flag, Zip64 extra fields, dated
/// 2024-05-01 12:00. Throws when minizip refuses.
void openStockEntry(zipFile zip, std::string const& name, int level);

// ---- rows ------------------------------------------------------------------

/// `impl`, a row whose runs write the file at `path`: the file is removed
/// before each run, and its size is the row's detail.
Impl writesFile(Impl impl, std::string const& path);

// ---- Python ----------------------------------------------------------------

/// True when the Python peer is running and `ctx` wants the zipfile rows.
bool wantPython(Context& ctx);

/// The zipfile row: each run sends the JSON members `json` (with "n" added) to
/// the Python peer. Only when wantPython(ctx).
Impl pythonImpl(Context& ctx, std::string json);

// ---- the limits ------------------------------------------------------------

/// The zlib limit's work on one entry: inflates `compressed` through `z` (just
/// initialised or reset) in kChunk pieces with the CRC-32 of the output, which
/// must be the entry's; returns the bytes inflated.
std::uint64_t inflateEntry(z_stream& z, std::string const& compressed, CentralEntry const& entry);

/// Adds to `w` the rows limit-parse and limit-read that `ctx` wants: each
/// operation finds the central directory of the archive, in its bytes `bytes`
/// held in memory (limit-parse) or read from the file at `path` into a new
/// buffer (limit-read: open, two preads, close), and hands it to `use(cd)`.
/// Each row keeps its own copy of `use`; `bytes` must outlive the workload.
template <class Use>
void addCentralDirectoryLimits(Workload& w, Context const& ctx, std::string const& path, std::string const& bytes,
                               Use use) {
  if (ctx.wants("limit-parse")) {
    std::string const* file = &bytes;
    w.impls.push_back(inProcess("limit-parse", [file, use](long n) mutable {
      for (long i = 0; i < n; ++i) {
        CentralDirectory cd;
        keep(file);
        expect(findCentralDirectory(reinterpret_cast<unsigned char const*>(file->data()), file->size(), cd),
               "no central directory");
        use(cd);
      }
    }));
  }
  if (ctx.wants("limit-read"))
    w.impls.push_back(inProcess("limit-read", [path, use](long n) mutable {
      for (long i = 0; i < n; ++i) {
        std::string buffer;
        CentralDirectory cd;
        readCentralDirectory(path, buffer, cd);
        use(cd);
      }
    }));
}

/// The zlib limits' deflate: deflates the input `z` holds with `flush` in
/// kChunk pieces of output, thrown away, until the input is used up (and, with
/// Z_FINISH, the stream has ended); returns the bytes of output.
std::uint64_t deflateDiscarding(z_stream& z, int flush);

/// The limit-deflate row: each run opens a raw deflate stream at `level`
/// (window and memory as the writers use them), hands it to `deflateAll`,
/// which deflates in memory what the workload writes, throws the output away
/// and returns its size, and ends the stream; the row's detail is the last
/// run's size.
Impl deflateLimit(int level, std::function<std::uint64_t(z_stream& z)> deflateAll);

} // namespace bench
