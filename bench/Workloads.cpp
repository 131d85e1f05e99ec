#include "Workloads.h"

#include "ZipData.h"
#if ZIPUTIL_BENCH_LIBZIP
#include "LibzipPeer.h"
#endif

#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

#include <unzip.h>
#include <zip.h>
#include <zlib.h>
#if ZIPUTIL_BENCH_ISAL
#include <isa-l/crc.h>
#include <isa-l/igzip_lib.h>
#endif

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <tuple>
#include <unordered_map>

namespace bench {

namespace {

constexpr std::size_t kChunk = 64 * 1024;
/// The level of the many-small-entries workload.
constexpr int kSmallLevel = 6;

/// Keeps the compiler from dropping or hoisting the computation of `value`.
template <class T> inline void keep(T const& value) { asm volatile("" : : "r,m"(value) : "memory"); }

void expect(bool ok, std::string const& what) {
  if (!ok) throw std::runtime_error(what);
}

std::string withCommas(std::size_t n) {
  std::string digits = std::to_string(n), text;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i && (digits.size() - i) % 3 == 0) text += ',';
    text += digits[i];
  }
  return text;
}

std::string fileSizeOf(std::string const& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? formatBytes(static_cast<double>(st.st_size)) + " written" : std::string();
}

// ---- ziputil ---------------------------------------------------------------

tal::CURI fileURI(std::string const& path) {
  return tal::CURI(tal::String("file"), tal::String::fromUTF8(path), nullptr, nullptr, tal::String(), -1, nullptr,
                   nullptr);
}

tal::CURI entryURI(std::string const& name) {
  return tal::CURI(tal::String(), tal::String::fromUTF8(name), nullptr, nullptr, nullptr, -1, nullptr, nullptr);
}

tal::CTimeFields entryTime() { return tal::CTimeFields(2024, 5, 1, 12, 0, 0, 0.0, 0, false); }

/// ziputil over one of the two file systems, holding an archive.
struct ZiputilSite {
  char const* name;
  tal::P<tal::IFileSystem> fs;
  tal::P<tal::CMemoryFileSystem> memory; // set for the memory file system
  tal::CURI archive;
};

/// The two sites reading the archive at `path` (whose bytes are `bytes`).
std::vector<ZiputilSite> readSites(std::string const& path, std::string const& bytes) {
  std::vector<ZiputilSite> sites;
  sites.push_back({"ziputil-local", tal::newObj<tal::CLocalFileSystem>(), nullptr, fileURI(path)});
  auto memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI const uri(tal::String("mem:/archive.zip"));
  memory->setFile(uri, bytes);
  sites.push_back({"ziputil-mem", memory, memory, uri});
  return sites;
}

/// The two sites writing a new archive (at `path` on the local disk).
std::vector<ZiputilSite> writeSites(std::string const& path) {
  std::vector<ZiputilSite> sites;
  sites.push_back({"ziputil-local", tal::newObj<tal::CLocalFileSystem>(), nullptr, fileURI(path)});
  auto memory = tal::newObj<tal::CMemoryFileSystem>();
  sites.push_back({"ziputil-mem", memory, memory, tal::CURI(tal::String("mem:/out.zip"))});
  return sites;
}

/// Before each write: no old output (and, in memory, a fresh file system).
std::function<void()> clearSite(std::shared_ptr<ZiputilSite> const& site, std::string const& path) {
  return [site, path] {
    if (site->memory) {
      site->memory = tal::newObj<tal::CMemoryFileSystem>();
      site->fs = site->memory;
    } else {
      std::remove(path.c_str());
    }
  };
}

std::function<std::string()> siteSize(std::shared_ptr<ZiputilSite> const& site, std::string const& path) {
  return [site, path] {
    if (!site->memory) return fileSizeOf(path);
    return formatBytes(static_cast<double>(site->memory->getFile(site->archive).size())) + " written";
  };
}

// ---- stock minizip ---------------------------------------------------------

struct UnzCloser {
  void operator()(void* unz) const { unzClose(unz); }
};
using UnzHandle = std::unique_ptr<void, UnzCloser>;

UnzHandle openUnz(std::string const& path) {
  UnzHandle unz(unzOpen64(path.c_str()));
  expect(unz != nullptr, "minizip cannot open " + path);
  return unz;
}

zip_fileinfo zipInfo() {
  zip_fileinfo info = {};
  info.tmz_date.tm_year = 2024;
  info.tmz_date.tm_mon = 4;
  info.tmz_date.tm_mday = 1;
  info.tmz_date.tm_hour = 12;
  return info;
}

/// Opens an entry the way the library's writer does: deflated, raw deflate
/// stream, UTF-8 name flag, Zip64 extra fields.
void openStockEntry(zipFile zip, std::string const& name, int level) {
  zip_fileinfo const info = zipInfo();
  int const result = zipOpenNewFileInZip4_64(zip, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                                             level, 0, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY, nullptr, 0, 0, 0x800, 1);
  expect(result == ZIP_OK, "minizip cannot open entry " + name);
}

// ---- Python ----------------------------------------------------------------

/// An implementation that sends `json` (with "n" added) to the Python peer.
Impl pythonImpl(Context& ctx, std::string json) {
  Impl impl;
  impl.name = "zipfile";
  PythonPeer* python = ctx.python.get();
  impl.run = [python, json](long n) { return python->call("{" + json + ",\"n\":" + std::to_string(n) + "}"); };
  return impl;
}

bool wantPython(Context& ctx) { return ctx.python && ctx.wants("zipfile"); }

// ---- lookups ---------------------------------------------------------------

Workload makeFind(Context& ctx, bool present) {
  Workload w;
  w.key = present ? "find" : "missing";
  std::size_t const count = ctx.manyCount();
  std::string const name = present ? manyEntriesName(count - 8) : std::string("d999/absent.txt");
  w.title = std::string(present ? "look up a name near the end (\"" + name + "\")" : "look up a missing name") +
            " in a " + withCommas(count) + "-entry archive; one reader, many lookups";
  w.notes.push_back("ziputil: tryGoToFile; minizip: unzLocateFile; libzip: zip_name_locate; zipfile: getinfo");
  w.calibrate = true;
  w.opName = "lookup";
  std::string const& path = ctx.manyArchive();
  std::string const& bytes = ctx.manyBytes();
  long const wanted = present ? 1 : 0;

  for (auto& site : readSites(path, bytes)) {
    if (!ctx.wants(site.name)) continue;
    auto reader = tal::newObj<ziputil::CZipReader>(site.fs.get(), site.archive, tal::String());
    auto entry = std::make_shared<tal::CURI>(entryURI(name));
    w.impls.push_back(inProcess(site.name, [reader, entry, wanted](long n) {
      long found = 0;
      for (long i = 0; i < n; ++i) found += reader->tryGoToFile(*entry) ? 1 : 0;
      expect(found == wanted * n, "tryGoToFile gave the wrong answer");
    }));
  }
  if (ctx.wants("minizip")) {
    auto unz = std::make_shared<UnzHandle>(openUnz(path));
    w.impls.push_back(inProcess("minizip", [unz, name, wanted](long n) {
      long found = 0;
      for (long i = 0; i < n; ++i) found += unzLocateFile(unz->get(), name.c_str(), 1) == UNZ_OK ? 1 : 0;
      expect(found == wanted * n, "unzLocateFile gave the wrong answer");
    }));
  }
#if ZIPUTIL_BENCH_LIBZIP
  if (ctx.wants("libzip")) {
    auto archive = std::make_shared<libzip::Archive>(path);
    w.impls.push_back(inProcess("libzip", [archive, name, wanted](long n) {
      long found = 0;
      for (long i = 0; i < n; ++i) found += archive->locate(name) ? 1 : 0;
      expect(found == wanted * n, "zip_name_locate gave the wrong answer");
    }));
  }
#endif
  if (wantPython(ctx))
    w.impls.push_back(pythonImpl(ctx, "\"op\":\"find\",\"archive\":" + jsonString(path) + ",\"name\":" +
                                          jsonString(name) + ",\"present\":" + (present ? "true" : "false")));
  auto const* file = reinterpret_cast<unsigned char const*>(bytes.data());
  CentralDirectory cd;
  expect(findCentralDirectory(file, bytes.size(), cd), "no central directory");
  if (ctx.wants("limit-hash")) {
    auto index = std::make_shared<std::unordered_map<std::string, std::uint64_t>>();
    walkCentralDirectory(cd, [&](CentralEntry const& e) {
      index->emplace(std::string(e.name, e.nameLength), e.localHeaderOffset);
      return true;
    });
    w.impls.push_back(inProcess("limit-hash", [index, name, wanted](long n) {
      long found = 0;
      for (long i = 0; i < n; ++i) {
        keep(name);
        found += index->find(name) != index->end() ? 1 : 0;
      }
      expect(found == wanted * n, "the hash table gave the wrong answer");
    }));
  }
  if (ctx.wants("limit-scan")) {
    w.impls.push_back(inProcess("limit-scan", [cd, name, wanted](long n) {
      long found = 0;
      for (long i = 0; i < n; ++i) {
        keep(name);
        walkCentralDirectory(cd, [&](CentralEntry const& e) {
          if (e.nameLength != name.size() || std::memcmp(e.name, name.data(), name.size()) != 0) return true;
          ++found;
          return false;
        });
      }
      expect(found == wanted * n, "the scan gave the wrong answer");
    }));
  }
  w.notes.push_back("limit-hash: std::unordered_map<std::string, offset>::find of the name; limit-scan: a walk of "
                    "the central directory bytes in memory comparing names (what a linear lookup cannot beat)");
  return w;
}

/// The limits' lookup: walks the directory's headers to `name`.
void findInCentralDirectory(CentralDirectory const& cd, std::string const& name) {
  bool found = false;
  walkCentralDirectory(cd, [&](CentralEntry const& e) {
    found = e.nameLength == name.size() && std::memcmp(e.name, name.data(), name.size()) == 0;
    return !found;
  });
  expect(found, "the parse did not find the name");
}

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

Workload makeOpen(Context& ctx) {
  Workload w;
  w.key = "open";
  std::size_t const count = ctx.manyCount();
  std::string const name = manyEntriesName(count - 8);
  w.title = "open a " + withCommas(count) + "-entry archive, look up a name near the end, close";
  w.notes.push_back("limit-parse: find the end record and walk the central directory bytes in memory to the name; "
                    "limit-read: the same after reading the end records and the directory from the file into a new "
                    "buffer (open, two preads, close)");
  w.calibrate = true;
  w.opName = "open";
  std::string const& path = ctx.manyArchive();
  std::string const& bytes = ctx.manyBytes();

  for (auto& site : readSites(path, bytes)) {
    if (!ctx.wants(site.name)) continue;
    auto s = std::make_shared<ZiputilSite>(site);
    auto entry = std::make_shared<tal::CURI>(entryURI(name));
    w.impls.push_back(inProcess(site.name, [s, entry](long n) {
      for (long i = 0; i < n; ++i) {
        auto reader = tal::newObj<ziputil::CZipReader>(s->fs.get(), s->archive, tal::String());
        expect(reader->tryGoToFile(*entry), "tryGoToFile did not find the name");
        reader->close();
      }
    }));
  }
  if (ctx.wants("minizip"))
    w.impls.push_back(inProcess("minizip", [path, name](long n) {
      for (long i = 0; i < n; ++i) {
        UnzHandle unz = openUnz(path);
        expect(unzLocateFile(unz.get(), name.c_str(), 1) == UNZ_OK, "unzLocateFile did not find the name");
      }
    }));
#if ZIPUTIL_BENCH_LIBZIP
  if (ctx.wants("libzip"))
    w.impls.push_back(inProcess("libzip", [path, name](long n) {
      for (long i = 0; i < n; ++i) libzip::openAndLocate(path, name);
    }));
#endif
  if (wantPython(ctx))
    w.impls.push_back(
        pythonImpl(ctx, "\"op\":\"open\",\"archive\":" + jsonString(path) + ",\"name\":" + jsonString(name)));
  if (ctx.wants("limit-parse")) {
    std::string const* file = &bytes;
    w.impls.push_back(inProcess("limit-parse", [file, name](long n) {
      for (long i = 0; i < n; ++i) {
        CentralDirectory cd;
        keep(file);
        expect(findCentralDirectory(reinterpret_cast<unsigned char const*>(file->data()), file->size(), cd),
               "no central directory");
        findInCentralDirectory(cd, name);
      }
    }));
  }
  if (ctx.wants("limit-read"))
    w.impls.push_back(inProcess("limit-read", [path, name](long n) {
      for (long i = 0; i < n; ++i) {
        std::string buffer;
        CentralDirectory cd;
        readCentralDirectory(path, buffer, cd);
        findInCentralDirectory(cd, name);
      }
    }));
  return w;
}

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

  for (auto& site : readSites(path, bytes)) {
    if (!ctx.wants(site.name)) continue;
    auto s = std::make_shared<ZiputilSite>(site);
    w.impls.push_back(inProcess(site.name, [s, count](long n) {
      for (long i = 0; i < n; ++i) {
        auto reader = tal::newObj<ziputil::CZipReader>(s->fs.get(), s->archive, tal::String());
        std::size_t seen = 0;
        long long total = 0;
        while (reader->nextFile()) {
          std::string const name = reader->getCurrentFileRelativeURI().getPath().toUTF8();
          total += static_cast<long long>(name.size()) + reader->getCurrentFileUncompressedSize();
          ++seen;
        }
        reader->close();
        keep(total);
        expect(seen == count, "the walk missed entries");
      }
    }));
  }
  if (ctx.wants("ziputil-raw")) {
    // The walk without a URI per entry: what the reader's own work costs.
    auto fs = tal::newObj<tal::CLocalFileSystem>();
    tal::CURI const archive = fileURI(path);
    w.impls.push_back(inProcess("ziputil-raw", [fs, archive, count](long n) {
      for (long i = 0; i < n; ++i) {
        auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), archive, tal::String());
        std::size_t seen = 0;
        long long total = 0;
        while (reader->nextFile()) {
          total += static_cast<long long>(reader->getCurrentFileRawName().size()) +
                   reader->getCurrentFileUncompressedSize();
          ++seen;
        }
        reader->close();
        keep(total);
        expect(seen == count, "the walk missed entries");
      }
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
  if (ctx.wants("limit-parse")) {
    std::string const* file = &bytes;
    w.impls.push_back(inProcess("limit-parse", [file, count](long n) {
      std::string name;
      for (long i = 0; i < n; ++i) {
        CentralDirectory cd;
        keep(file);
        expect(findCentralDirectory(reinterpret_cast<unsigned char const*>(file->data()), file->size(), cd),
               "no central directory");
        listCentralDirectory(cd, name, count);
      }
    }));
  }
  if (ctx.wants("limit-read"))
    w.impls.push_back(inProcess("limit-read", [path, count](long n) {
      std::string name;
      for (long i = 0; i < n; ++i) {
        std::string buffer;
        CentralDirectory cd;
        readCentralDirectory(path, buffer, cd);
        listCentralDirectory(cd, name, count);
      }
    }));
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

// ---- one big entry -----------------------------------------------------------

/// The zlib limit's work on one entry: inflates `compressed` through `z` (just
/// initialised or reset) in kChunk pieces with the CRC-32 of the output, which
/// must be the entry's; returns the bytes inflated.
std::uint64_t inflateEntry(z_stream& z, std::string const& compressed, CentralEntry const& entry) {
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  z.avail_in = static_cast<uInt>(compressed.size());
  static unsigned char buffer[kChunk];
  uLong crc = crc32(0, nullptr, 0);
  std::uint64_t total = 0;
  int r = Z_OK;
  while (r == Z_OK) {
    z.next_out = buffer;
    z.avail_out = kChunk;
    r = inflate(&z, Z_NO_FLUSH);
    uInt const got = static_cast<uInt>(kChunk - z.avail_out);
    crc = crc32(crc, buffer, got);
    total += got;
  }
  expect(r == Z_STREAM_END && crc == entry.crc, "inflate failed");
  return total;
}

Workload makeRead(Context& ctx) {
  Workload w;
  w.key = "read";
  std::size_t const size = ctx.readSize();
  std::string const name = "big.txt";
  std::string const path = ctx.dir + "/big.zip";
  {
    std::string const data = makeText(size, 3);
    writeOneEntryArchive(path, name, data, 6);
  }
  auto bytes = std::make_shared<std::string>(readFile(path));
  w.title = "read one " + formatBytes(static_cast<double>(size)) + " entry deflated at level 6 (" +
            formatBytes(static_cast<double>(bytes->size())) + " archive), 64 KiB reads";
  w.notes.push_back("limit-inflate: zlib inflate + CRC-32 of the compressed bytes in memory, 64 KiB output pieces");
#if ZIPUTIL_BENCH_ISAL
  w.notes.push_back("limit-isal: ISA-L inflate + CRC-32 of the same bytes in memory, 64 KiB output pieces (the "
                    "decoder ziputil reads with in this build)");
#endif
  w.notes.push_back("every row checks the CRC-32 (minizip at unzCloseCurrentFile, libzip and zipfile at the end)");
  w.bytesPerOp = static_cast<double>(size);

  for (auto& site : readSites(path, *bytes)) {
    if (!ctx.wants(site.name)) continue;
    auto s = std::make_shared<ZiputilSite>(site);
    w.impls.push_back(inProcess(site.name, [s, name, size](long) {
      auto reader = tal::newObj<ziputil::CZipReader>(s->fs.get(), s->archive, tal::String());
      expect(reader->tryGoToFile(entryURI(name)), "no entry " + name);
      auto in = reader->openCurrentFileStream();
      static char buffer[kChunk];
      std::size_t total = 0;
      while (int n = in->readLax(buffer, static_cast<int>(kChunk))) total += static_cast<std::size_t>(n);
      in->close();
      reader->close();
      expect(total == size, "short read");
    }));
  }
  if (ctx.wants("minizip"))
    w.impls.push_back(inProcess("minizip", [path, name, size](long) {
      UnzHandle unz = openUnz(path);
      expect(unzLocateFile(unz.get(), name.c_str(), 1) == UNZ_OK && unzOpenCurrentFile(unz.get()) == UNZ_OK,
             "minizip cannot open " + name);
      static char buffer[kChunk];
      std::size_t total = 0;
      int n;
      while ((n = unzReadCurrentFile(unz.get(), buffer, kChunk)) > 0) total += static_cast<std::size_t>(n);
      expect(n == 0 && unzCloseCurrentFile(unz.get()) == UNZ_OK && total == size, "minizip read failed");
    }));
#if ZIPUTIL_BENCH_LIBZIP
  if (ctx.wants("libzip"))
    w.impls.push_back(inProcess("libzip", [path, name, size](long) {
      expect(libzip::read(path, name) == size, "libzip: short read");
    }));
#endif
  if (wantPython(ctx))
    w.impls.push_back(pythonImpl(ctx, "\"op\":\"read\",\"archive\":" + jsonString(path) + ",\"name\":" +
                                          jsonString(name) + ",\"size\":" + std::to_string(size)));
  if (ctx.wants("limit-inflate")) {
    CentralEntry entry{};
    auto compressed = std::make_shared<std::string>(entryCompressedBytes(*bytes, name, entry));
    w.impls.push_back(inProcess("limit-inflate", [compressed, entry](long) {
      z_stream z = {};
      expect(inflateInit2(&z, -MAX_WBITS) == Z_OK, "inflateInit2 failed");
      std::uint64_t const total = inflateEntry(z, *compressed, entry);
      inflateEnd(&z);
      expect(total == entry.uncompressedSize, "inflate failed");
    }));
  }
#if ZIPUTIL_BENCH_ISAL
  if (ctx.wants("limit-isal")) {
    CentralEntry entry{};
    auto compressed = std::make_shared<std::string>(entryCompressedBytes(*bytes, name, entry));
    w.impls.push_back(inProcess("limit-isal", [compressed, entry](long) {
      auto state = std::make_unique<inflate_state>();
      isal_inflate_init(state.get());
      state->crc_flag = ISAL_DEFLATE;
      state->next_in = reinterpret_cast<std::uint8_t*>(const_cast<char*>(compressed->data()));
      state->avail_in = static_cast<std::uint32_t>(compressed->size());
      static unsigned char buffer[kChunk];
      std::uint32_t crc = 0;
      std::uint64_t total = 0;
      int r = ISAL_DECOMP_OK;
      while (r >= 0 && state->block_state != ISAL_BLOCK_FINISH) {
        state->next_out = buffer;
        state->avail_out = kChunk;
        r = isal_inflate(state.get());
        std::uint32_t const got = static_cast<std::uint32_t>(kChunk - state->avail_out);
        crc = crc32_gzip_refl(crc, buffer, got);
        total += got;
        if (got == 0 && state->block_state != ISAL_BLOCK_FINISH) break;
      }
      expect(state->block_state == ISAL_BLOCK_FINISH && total == entry.uncompressedSize && crc == entry.crc,
             "ISA-L inflate failed");
    }));
  }
#endif
  w.cleanup = [path] { std::remove(path.c_str()); };
  return w;
}

Workload makeWrite(Context& ctx, int level) {
  Workload w;
  w.key = "write" + std::to_string(level);
  std::string const& data = ctx.writeData();
  std::size_t const size = data.size();
  std::string const name = "big.txt";
  w.title = "write one " + formatBytes(static_cast<double>(size)) + " entry at level " + std::to_string(level) +
            ", 64 KiB writes, into a new archive";
  w.notes.push_back("limit-deflate: zlib deflate + CRC-32 in memory, 64 KiB pieces in, output thrown away; libzip "
                    "takes the data as one buffer and writes it at zip_close (to a temporary file it renames)");
  w.bytesPerOp = static_cast<double>(size);
  std::string const* bytes = &data;

  for (auto& site : writeSites(ctx.dir + "/w-ziputil.zip")) {
    if (!ctx.wants(site.name)) continue;
    auto s = std::make_shared<ZiputilSite>(site);
    std::string const out = ctx.dir + "/w-ziputil.zip";
    Impl impl = inProcess(site.name, [s, bytes, name, level](long) {
      ziputil::createEmptyArchive(s->fs.get(), s->archive);
      auto writer = tal::newObj<ziputil::CZipWriter>(s->fs.get(), s->archive, tal::String(),
                                                     static_cast<ziputil::CZipWriter::CompLevel>(level));
      auto stream = writer->beginAddFile(entryURI(name), entryTime());
      for (std::size_t done = 0; done < bytes->size(); done += kChunk)
        stream->write(bytes->data() + done, static_cast<int>(std::min(kChunk, bytes->size() - done)), nullptr);
      stream->close();
      writer->close();
    });
    impl.prepare = clearSite(s, out);
    impl.detail = siteSize(s, out);
    w.impls.push_back(impl);
  }
  if (ctx.wants("minizip")) {
    std::string const out = ctx.dir + "/w-minizip.zip";
    Impl impl = inProcess("minizip", [out, bytes, name, level](long) {
      zipFile zip = zipOpen64(out.c_str(), APPEND_STATUS_CREATE);
      expect(zip != nullptr, "minizip cannot create " + out);
      openStockEntry(zip, name, level);
      for (std::size_t done = 0; done < bytes->size(); done += kChunk)
        expect(zipWriteInFileInZip(zip, bytes->data() + done,
                                   static_cast<unsigned>(std::min(kChunk, bytes->size() - done))) == ZIP_OK,
               "zipWriteInFileInZip failed");
      expect(zipCloseFileInZip(zip) == ZIP_OK && zipClose(zip, nullptr) == ZIP_OK, "minizip cannot close " + out);
    });
    impl.prepare = [out] { std::remove(out.c_str()); };
    impl.detail = [out] { return fileSizeOf(out); };
    w.impls.push_back(impl);
  }
#if ZIPUTIL_BENCH_LIBZIP
  if (ctx.wants("libzip")) {
    std::string const out = ctx.dir + "/w-libzip.zip";
    Impl impl = inProcess("libzip", [out, bytes, name, level](long) {
      libzip::write(out, {{name, bytes->data(), bytes->size()}}, level);
    });
    impl.prepare = [out] { std::remove(out.c_str()); };
    impl.detail = [out] { return fileSizeOf(out); };
    w.impls.push_back(impl);
  }
#endif
  if (wantPython(ctx)) {
    std::string const out = ctx.dir + "/w-python.zip";
    Impl impl = pythonImpl(ctx, "\"op\":\"write\",\"data\":" + jsonString(ctx.writeDataPath()) + ",\"out\":" +
                                    jsonString(out) + ",\"name\":" + jsonString(name) +
                                    ",\"level\":" + std::to_string(level));
    impl.prepare = [out] { std::remove(out.c_str()); };
    impl.detail = [out] { return fileSizeOf(out); };
    w.impls.push_back(impl);
  }
  if (ctx.wants("limit-deflate")) {
    auto compressed = std::make_shared<std::uint64_t>(0);
    Impl impl = inProcess("limit-deflate", [bytes, level, compressed](long) {
      z_stream z = {};
      expect(deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) == Z_OK, "deflateInit2 failed");
      static unsigned char buffer[kChunk];
      uLong crc = crc32(0, nullptr, 0);
      std::uint64_t total = 0;
      for (std::size_t done = 0; done < bytes->size();) {
        std::size_t const piece = std::min(kChunk, bytes->size() - done);
        auto* in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes->data() + done));
        crc = crc32(crc, in, static_cast<uInt>(piece));
        done += piece;
        z.next_in = in;
        z.avail_in = static_cast<uInt>(piece);
        int const flush = done == bytes->size() ? Z_FINISH : Z_NO_FLUSH;
        int r;
        do {
          z.next_out = buffer;
          z.avail_out = kChunk;
          r = deflate(&z, flush);
          total += kChunk - z.avail_out;
        } while (z.avail_out == 0 || (flush == Z_FINISH && r != Z_STREAM_END));
      }
      deflateEnd(&z);
      keep(crc);
      *compressed = total;
    });
    impl.detail = [compressed] { return formatBytes(static_cast<double>(*compressed)) + " deflated"; };
    w.impls.push_back(impl);
  }
  return w;
}

// ---- many small entries ------------------------------------------------------

/// The small entries: names and slices of one text, the same for every workload that uses them.
struct SmallEntries {
  std::shared_ptr<std::string> text;
  std::shared_ptr<std::vector<std::tuple<std::string, std::size_t, std::size_t>>> entries; ///< name, offset, length
  std::string manifest; ///< "offset length name" lines, for the Python peer
  std::size_t totalBytes = 0;
};

SmallEntries smallEntries(std::size_t count) {
  SmallEntries small;
  small.text = std::make_shared<std::string>(makeText(1 << 20, 5));
  small.entries = std::make_shared<std::vector<std::tuple<std::string, std::size_t, std::size_t>>>();
  std::uint32_t state = 12345;
  for (std::size_t i = 0; i < count; ++i) {
    state = state * 1664525u + 1013904223u;
    std::size_t const length = 256 + (state >> 8) % 3841;
    std::size_t const offset = (i * 7919) % (small.text->size() - 4097);
    char name[64];
    std::snprintf(name, sizeof name, "d%02zu/f%05zu.txt", i / 500, i);
    small.entries->emplace_back(name, offset, length);
    small.manifest += std::to_string(offset) + " " + std::to_string(length) + " " + name + "\n";
    small.totalBytes += length;
  }
  return small;
}

/// Writes the small entries to a new archive at `path` with stock minizip at kSmallLevel.
void writeSmallWithStockMinizip(std::string const& path, SmallEntries const& small) {
  zipFile zip = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
  expect(zip != nullptr, "minizip cannot create " + path);
  for (auto const& [name, offset, length] : *small.entries) {
    openStockEntry(zip, name, kSmallLevel);
    expect(zipWriteInFileInZip(zip, small.text->data() + offset, static_cast<unsigned>(length)) == ZIP_OK &&
               zipCloseFileInZip(zip) == ZIP_OK,
           "minizip cannot write " + name);
  }
  expect(zipClose(zip, nullptr) == ZIP_OK, "minizip cannot close " + path);
}

Workload makeSmall(Context& ctx) {
  Workload w;
  w.key = "small";
  std::size_t const count = ctx.smallCount();
  SmallEntries const small = smallEntries(count);
  auto const& text = small.text;
  auto const& entries = small.entries;
  std::string const& manifest = small.manifest;
  std::size_t const totalBytes = small.totalBytes;
  w.title = "write " + withCommas(count) + " small entries (" + formatBytes(static_cast<double>(totalBytes)) +
            ", 256 B to 4 KiB each) at level " + std::to_string(kSmallLevel) + " into a new archive";
  w.notes.push_back("limit-deflate: per entry deflateReset + deflate + CRC-32 in memory, output thrown away");
  w.itemsPerOp = static_cast<double>(count);
  w.bytesPerOp = static_cast<double>(totalBytes);

  for (auto& site : writeSites(ctx.dir + "/s-ziputil.zip")) {
    if (!ctx.wants(site.name)) continue;
    auto s = std::make_shared<ZiputilSite>(site);
    std::string const out = ctx.dir + "/s-ziputil.zip";
    Impl impl = inProcess(site.name, [s, text, entries](long) {
      ziputil::createEmptyArchive(s->fs.get(), s->archive);
      auto writer = tal::newObj<ziputil::CZipWriter>(s->fs.get(), s->archive, tal::String(),
                                                     static_cast<ziputil::CZipWriter::CompLevel>(kSmallLevel));
      for (auto const& [name, offset, length] : *entries) {
        auto stream = writer->beginAddFile(entryURI(name), entryTime());
        stream->write(text->data() + offset, static_cast<int>(length), nullptr);
        stream->close();
      }
      writer->close();
    });
    impl.prepare = clearSite(s, out);
    impl.detail = siteSize(s, out);
    w.impls.push_back(impl);
  }
  if (ctx.wants("minizip")) {
    std::string const out = ctx.dir + "/s-minizip.zip";
    Impl impl = inProcess("minizip", [out, small](long) { writeSmallWithStockMinizip(out, small); });
    impl.prepare = [out] { std::remove(out.c_str()); };
    impl.detail = [out] { return fileSizeOf(out); };
    w.impls.push_back(impl);
  }
#if ZIPUTIL_BENCH_LIBZIP
  if (ctx.wants("libzip")) {
    std::string const out = ctx.dir + "/s-libzip.zip";
    auto list = std::make_shared<std::vector<libzip::Entry>>();
    for (auto const& [name, offset, length] : *entries) list->push_back({name, text->data() + offset, length});
    Impl impl = inProcess("libzip", [out, list](long) { libzip::write(out, *list, kSmallLevel); });
    impl.prepare = [out] { std::remove(out.c_str()); };
    impl.detail = [out] { return fileSizeOf(out); };
    w.impls.push_back(impl);
  }
#endif
  if (wantPython(ctx)) {
    std::string const dataPath = ctx.dir + "/small.txt", manifestPath = ctx.dir + "/small.manifest";
    writeFile(dataPath, *text);
    writeFile(manifestPath, manifest);
    std::string const out = ctx.dir + "/s-python.zip";
    Impl impl = pythonImpl(ctx, "\"op\":\"small\",\"data\":" + jsonString(dataPath) + ",\"manifest\":" +
                                    jsonString(manifestPath) + ",\"out\":" + jsonString(out) +
                                    ",\"level\":" + std::to_string(kSmallLevel));
    impl.prepare = [out] { std::remove(out.c_str()); };
    impl.detail = [out] { return fileSizeOf(out); };
    w.impls.push_back(impl);
  }
  if (ctx.wants("limit-deflate")) {
    auto compressed = std::make_shared<std::uint64_t>(0);
    Impl impl = inProcess("limit-deflate", [text, entries, compressed](long) {
      z_stream z = {};
      expect(deflateInit2(&z, kSmallLevel, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) == Z_OK, "deflateInit2 failed");
      static unsigned char buffer[kChunk];
      std::uint64_t total = 0;
      uLong crcs = 0;
      for (auto const& [name, offset, length] : *entries) {
        keep(name);
        deflateReset(&z);
        auto* in = reinterpret_cast<Bytef*>(const_cast<char*>(text->data() + offset));
        crcs ^= crc32(crc32(0, nullptr, 0), in, static_cast<uInt>(length));
        z.next_in = in;
        z.avail_in = static_cast<uInt>(length);
        int r;
        do {
          z.next_out = buffer;
          z.avail_out = kChunk;
          r = deflate(&z, Z_FINISH);
          total += kChunk - z.avail_out;
        } while (r != Z_STREAM_END);
      }
      deflateEnd(&z);
      keep(crcs);
      *compressed = total;
    });
    impl.detail = [compressed] { return formatBytes(static_cast<double>(*compressed)) + " deflated"; };
    w.impls.push_back(impl);
  }
  return w;
}

Workload makeReadMany(Context& ctx) {
  Workload w;
  w.key = "readmany";
  std::size_t const count = ctx.smallCount();
  SmallEntries const small = smallEntries(count);
  std::string const path = ctx.dir + "/many-small.zip";
  writeSmallWithStockMinizip(path, small);
  auto bytes = std::make_shared<std::string>(readFile(path));
  std::uint64_t const total = small.totalBytes;
  w.title = "read every entry of a " + withCommas(count) + "-entry archive of small entries deflated at level " +
            std::to_string(kSmallLevel) + " (" + formatBytes(static_cast<double>(total)) + ", written by stock minizip)";
  w.notes.push_back("ziputil: nextFile, openCurrentFileStream, readLax; minizip: unzGoToNextFile, unzOpenCurrentFile, "
                    "unzReadCurrentFile; libzip: zip_fopen_index, zip_fread; zipfile: infolist, open, read");
  w.notes.push_back("limit-inflate: per entry inflateReset + inflate + CRC-32 of the compressed bytes in memory");
  w.itemsPerOp = static_cast<double>(count);
  w.bytesPerOp = static_cast<double>(total);

  for (auto& site : readSites(path, *bytes)) {
    if (!ctx.wants(site.name)) continue;
    auto s = std::make_shared<ZiputilSite>(site);
    w.impls.push_back(inProcess(site.name, [s, total](long) {
      auto reader = tal::newObj<ziputil::CZipReader>(s->fs.get(), s->archive, tal::String());
      static char buffer[kChunk];
      std::uint64_t read = 0;
      while (reader->nextFile()) {
        auto in = reader->openCurrentFileStream();
        while (int n = in->readLax(buffer, static_cast<int>(kChunk))) read += static_cast<std::uint64_t>(n);
        in->close();
      }
      reader->close();
      expect(read == total, "short read");
    }));
  }
  if (ctx.wants("minizip"))
    w.impls.push_back(inProcess("minizip", [path, total](long) {
      UnzHandle unz = openUnz(path);
      static char buffer[kChunk];
      std::uint64_t read = 0;
      for (int r = unzGoToFirstFile(unz.get()); r == UNZ_OK; r = unzGoToNextFile(unz.get())) {
        expect(unzOpenCurrentFile(unz.get()) == UNZ_OK, "minizip cannot open an entry");
        int n;
        while ((n = unzReadCurrentFile(unz.get(), buffer, kChunk)) > 0) read += static_cast<std::uint64_t>(n);
        expect(n == 0 && unzCloseCurrentFile(unz.get()) == UNZ_OK, "minizip read failed");
      }
      expect(read == total, "short read");
    }));
#if ZIPUTIL_BENCH_LIBZIP
  if (ctx.wants("libzip"))
    w.impls.push_back(inProcess("libzip", [path, total](long) {
      expect(libzip::readAll(path) == total, "libzip: short read");
    }));
#endif
  if (wantPython(ctx))
    w.impls.push_back(pythonImpl(ctx, "\"op\":\"readall\",\"archive\":" + jsonString(path) + ",\"size\":" +
                                          std::to_string(total)));
  if (ctx.wants("limit-inflate")) {
    // Every entry's compressed bytes, found once: the central headers lead to the local ones.
    auto pieces = std::make_shared<std::vector<std::pair<std::string, CentralEntry>>>();
    CentralDirectory cd;
    auto const* file = reinterpret_cast<unsigned char const*>(bytes->data());
    expect(findCentralDirectory(file, bytes->size(), cd), "no central directory");
    walkCentralDirectory(cd, [&](CentralEntry const& e) {
      unsigned char const* local = file + e.localHeaderOffset;
      std::size_t const start = e.localHeaderOffset + 30 + le16(local + 26) + le16(local + 28);
      pieces->emplace_back(bytes->substr(start, e.compressedSize), e);
      return true;
    });
    w.impls.push_back(inProcess("limit-inflate", [pieces, total](long) {
      z_stream z = {};
      expect(inflateInit2(&z, -MAX_WBITS) == Z_OK, "inflateInit2 failed");
      std::uint64_t read = 0;
      for (auto const& [compressed, entry] : *pieces) {
        inflateReset(&z);
        read += inflateEntry(z, compressed, entry);
      }
      inflateEnd(&z);
      expect(read == total, "short inflate");
    }));
  }
  return w;
}

// ---- the program's add -----------------------------------------------------

Workload makeAdd(Context& ctx) {
  Workload w;
  w.key = "add";
  std::size_t const files = ctx.addFiles();
  std::string const tree = ctx.dir + "/tree";
  std::size_t totalBytes = 0;
  mkdir(tree.c_str(), 0755);
  std::uint32_t state = 777;
  for (std::size_t i = 0; i < files; ++i) {
    std::string const folder = tree + "/s" + std::to_string(i / 100);
    if (i % 100 == 0) mkdir(folder.c_str(), 0755);
    state = state * 1664525u + 1013904223u;
    std::size_t const length = 256 + (state >> 8) % 7937;
    writeFile(folder + "/file" + std::to_string(i) + ".txt", makeText(length, static_cast<std::uint32_t>(i)));
    totalBytes += length;
  }
  w.title = "add a folder of " + withCommas(files) + " files in " + withCommas((files + 99) / 100) + " folders (" +
            formatBytes(static_cast<double>(totalBytes)) + ") at level 6 to a new archive, program against program";
  w.notes.push_back("ziputil-add: `ziputil add --level 6 A.zip tree` (" + (ctx.tool.empty() ? "no program" : ctx.tool) +
                    "), one file per processor at once; ziputil-add-j1: the same with `-j 1`, one file after "
                    "another; zip-r: `zip -r -q -6 A.zip tree`; cpu is the child's user + system time");
  w.notes.push_back("ziputil add writes the new archive beside the old one, syncs it and moves it over; zip -r does "
                    "not sync");
  w.itemsPerOp = static_cast<double>(files);
  w.itemName = "file";
  w.bytesPerOp = static_cast<double>(totalBytes);

  auto program = [dir = ctx.dir](std::string label, std::vector<std::string> argv, std::string out) {
    Impl impl;
    impl.name = label;
    std::string const err = dir + "/" + label + ".err";
    impl.run = [dir, argv, err](long) {
      ProgramRun const run = runProgram(argv, dir, err);
      if (run.status != 0) {
        std::string message;
        try {
          message = readFile(err);
        } catch (std::exception const&) {
        }
        throw std::runtime_error(argv[0] + " exited with " + std::to_string(run.status) + ": " + message);
      }
      return run.times;
    };
    std::string const path = dir + "/" + out;
    impl.prepare = [path] { std::remove(path.c_str()); };
    impl.detail = [path] { return fileSizeOf(path); };
    return impl;
  };
  if (!ctx.tool.empty() && ctx.wants("ziputil-add"))
    w.impls.push_back(program("ziputil-add", {ctx.tool, "add", "--level", "6", "a-ziputil.zip", "tree"}, "a-ziputil.zip"));
  if (!ctx.tool.empty() && ctx.wants("ziputil-add-j1"))
    w.impls.push_back(program("ziputil-add-j1", {ctx.tool, "add", "--level", "6", "-j", "1", "a-ziputil-j1.zip", "tree"},
                              "a-ziputil-j1.zip"));
  if (ctx.wants("zip-r")) w.impls.push_back(program("zip-r", {"zip", "-r", "-q", "-6", "a-zip.zip", "tree"}, "a-zip.zip"));
  return w;
}

} // namespace

bool Context::wants(std::string const& impl) const {
  for (auto const& s : skip)
    if (impl == s || impl.rfind(s + "-", 0) == 0) return false;
  return true;
}

std::size_t Context::scaled(double full, std::size_t least) const {
  return std::max(least, static_cast<std::size_t>(full * scale + 0.5));
}

std::string const& Context::manyArchive() {
  if (m_manyPath.empty()) {
    std::string const path = dir + "/many.zip";
    writeManyEntriesArchive(path, manyCount());
    m_manyPath = path;
  }
  return m_manyPath;
}

std::string const& Context::manyBytes() {
  if (m_manyBytes.empty()) m_manyBytes = readFile(manyArchive());
  return m_manyBytes;
}

std::string const& Context::writeData() {
  if (m_writeData.empty()) m_writeData = makeText(writeSize(), 11);
  return m_writeData;
}

std::string const& Context::writeDataPath() {
  if (m_writeDataPath.empty()) {
    std::string const path = dir + "/write.txt";
    writeFile(path, writeData());
    m_writeDataPath = path;
  }
  return m_writeDataPath;
}

std::vector<WorkloadInfo> allWorkloads() {
  return {
      {"find", "tryGoToFile of a name near the end of a 100,000-entry archive (per lookup)",
       [](Context& c) { return makeFind(c, true); }},
      {"missing", "the same with a name that is not there", [](Context& c) { return makeFind(c, false); }},
      {"open", "open the 100,000-entry archive plus the first lookup", makeOpen},
      {"walk", "open, list every name and size of 100,000 entries, close", makeWalk},
      {"read", "read one 256 MiB deflated entry (MB/s)", makeRead},
      {"write1", "write one 128 MiB entry at level 1 (MB/s)", [](Context& c) { return makeWrite(c, 1); }},
      {"write6", "write one 128 MiB entry at level 6 (MB/s)", [](Context& c) { return makeWrite(c, 6); }},
      {"small", "write 10,000 small entries at level 6", makeSmall},
      {"readmany", "read every entry of a 10,000-entry archive of small entries", makeReadMany},
      {"add", "`ziputil add` of a folder of 10,000 files, at once and one after another, against `zip -r`", makeAdd},
      {"deflater", "CParallelDeflater against one entry after another: 200 text files, CPU of the process and of "
                   "the calling thread", makeDeflater},
  };
}

} // namespace bench
