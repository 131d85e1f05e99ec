// The walk workload: open the many-entries archive, list every name and
// size, close; against listing the central directory bytes, in memory, just
// read from the file, or read header by header through stdio.
#include "WorkloadSupport.h"

#include "tal/LocalFileSystem.h"
#include "ziputil/CZipReader.h"

#include <cstring>
#include <memory>

namespace bench {

namespace {

/// The limits' listing: every header's name copied into `name`, its size read.
void listCentralDirectory(CentralDirectory const& cd, std::string& name, std::size_t count) {
  std::size_t seen = 0;
  std::uint64_t total = 0;
  walkCentralDirectory(cd, [&](CentralEntry const& e) {
    name.assign(e.name, e.nameLength);
    total += name.size() + e.uncompressedSize;
    ++seen;
    return true;
  });
  keep(total);
  expect(seen == count, "the parse missed entries");
}

/// One walk with a reader: opens the archive, takes every entry's name length
/// (as `nameLength(reader)` gives it) and uncompressed size, closes; expects
/// `count` entries.
template <class NameLength>
void walkWithReader(tal::IFileSystem* fs, tal::CURI const& archive, std::size_t count, NameLength nameLength) {
  auto reader = tal::newObj<ziputil::CZipReader>(fs, archive, tal::String());
  std::size_t seen = 0;
  long long total = 0;
  while (reader->nextFile()) {
    total += static_cast<long long>(nameLength(*reader)) + reader->getCurrentFileUncompressedSize();
    ++seen;
  }
  reader->close();
  keep(total);
  expect(seen == count, "the walk missed entries");
}

} // namespace

Workload makeWalk(Context& ctx) {
  Workload w;
  w.key = "walk";
  std::size_t const count = ctx.manyCount();
  w.title = "open a " + withCommas(count) + "-entry archive, list every name and size, close";
  w.notes.push_back("ziputil: nextFile, getCurrentFileRelativeURI().getPath().toUTF8(), getCurrentFileUncompressedSize;"
                    " ziputil-raw (local): getCurrentFileRawName instead of the URI; minizip: unzGetCurrentFileInfo64,"
                    " unzGoToNextFile; libzip: zip_stat_index; zipfile: infolist");
  w.notes.push_back("limit-parse: find the end record and walk the central directory bytes in memory, copying each "
                    "name into a std::string; limit-read: the same after reading the end records and the directory "
                    "from the file into a new buffer (open, two preads, close), the least any reader of the file does; "
                    "limit-stdio: a plain parse of the file, each central header and its name read in turn through "
                    "stdio (fopen, fread, a new std::string per name)");
  w.calibrate = true;
  w.opName = "walk";
  w.itemsPerOp = static_cast<double>(count);
  std::string const& path = ctx.manyArchive();
  std::string const& bytes = ctx.manyBytes();

  for (auto const& s : readSites(ctx, path, bytes)) {
    w.impls.push_back(inProcess(s->name, [s, count](long n) {
      for (long i = 0; i < n; ++i)
        walkWithReader(s->fs.get(), s->archive, count, [](ziputil::CZipReader& reader) {
          std::string const name = reader.getCurrentFileRelativeURI().getPath().toUTF8();
          return name.size();
        });
    }));
  }
  if (ctx.wants("ziputil-raw")) {
    // The walk without a URI per entry: what the reader's own work costs.
    auto fs = tal::newObj<tal::CLocalFileSystem>();
    tal::CURI const archive = fileURI(path);
    w.impls.push_back(inProcess("ziputil-raw", [fs, archive, count](long n) {
      for (long i = 0; i < n; ++i)
        walkWithReader(fs.get(), archive, count,
                       [](ziputil::CZipReader& reader) { return reader.getCurrentFileRawName().size(); });
    }));
  }
  if (ctx.wants("minizip"))
    w.impls.push_back(inProcess("minizip", [path, count](long n) {
      for (long i = 0; i < n; ++i) {
        UnzHandle unz = openUnz(path);
        std::size_t seen = 0;
        unsigned long long total = 0;
        char name[512];
        for (int r = unzGoToFirstFile(unz.get()); r == UNZ_OK; r = unzGoToNextFile(unz.get())) {
          unz_file_info64 info;
          expect(unzGetCurrentFileInfo64(unz.get(), &info, name, sizeof name, nullptr, 0, nullptr, 0) == UNZ_OK,
                 "unzGetCurrentFileInfo64 failed");
          total += std::strlen(name) + info.uncompressed_size;
          ++seen;
        }
        keep(total);
        expect(seen == count, "the walk missed entries");
      }
    }));
#if ZIPUTIL_BENCH_LIBZIP
  if (ctx.wants("libzip"))
    w.impls.push_back(inProcess("libzip", [path, count](long n) {
      for (long i = 0; i < n; ++i) expect(libzip::walk(path) == count, "the walk missed entries");
    }));
#endif
  if (wantPython(ctx))
    w.impls.push_back(
        pythonImpl(ctx, "\"op\":\"walk\",\"archive\":" + jsonString(path) + ",\"count\":" + std::to_string(count)));
  // The names are copied into one string that each row keeps.
  addCentralDirectoryLimits(w, ctx, path, bytes, [count, name = std::string()](CentralDirectory const& cd) mutable {
    listCentralDirectory(cd, name, count);
  });
  if (ctx.wants("limit-stdio"))
    w.impls.push_back(inProcess("limit-stdio", [path, count](long n) {
      for (long i = 0; i < n; ++i) {
        std::uint64_t total = 0;
        expect(listCentralDirectoryWithStdio(path, total) == count, "the walk missed entries");
        keep(total);
      }
    }));
  return w;
}

} // namespace bench
