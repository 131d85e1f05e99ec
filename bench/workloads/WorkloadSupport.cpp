#include "WorkloadSupport.h"

#include "tal/LocalFileSystem.h"

#include <sys/stat.h>

#include <cstdio>

namespace bench {

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

namespace {

/// ziputil-local: the local file system, the archive at `path`.
std::shared_ptr<ZiputilSite> localSite(std::string const& path) {
  return std::make_shared<ZiputilSite>(
      ZiputilSite{"ziputil-local", tal::newObj<tal::CLocalFileSystem>(), nullptr, fileURI(path)});
}

/// ziputil-mem: a new memory file system, the archive at `uri` in it.
std::shared_ptr<ZiputilSite> memorySite(char const* uri) {
  auto memory = tal::newObj<tal::CMemoryFileSystem>();
  return std::make_shared<ZiputilSite>(ZiputilSite{"ziputil-mem", memory, memory, tal::CURI(tal::String(uri))});
}

} // namespace

std::vector<std::shared_ptr<ZiputilSite>> readSites(Context const& ctx, std::string const& path,
                                                    std::string const& bytes) {
  std::vector<std::shared_ptr<ZiputilSite>> sites;
  if (ctx.wants("ziputil-local")) sites.push_back(localSite(path));
  if (ctx.wants("ziputil-mem")) {
    sites.push_back(memorySite("mem:/archive.zip"));
    sites.back()->memory->setFile(sites.back()->archive, bytes);
  }
  return sites;
}

void addZiputilWriters(Workload& w, Context const& ctx, std::string const& path, int level,
                       std::function<void(ziputil::CZipWriter& writer)> const& addEntries) {
  std::vector<std::shared_ptr<ZiputilSite>> sites;
  if (ctx.wants("ziputil-local")) sites.push_back(localSite(path));
  if (ctx.wants("ziputil-mem")) sites.push_back(memorySite("mem:/out.zip"));
  for (auto const& s : sites) {
    Impl impl = inProcess(s->name, [s, level, addEntries](long) {
      ziputil::createEmptyArchive(s->fs.get(), s->archive);
      auto writer = tal::newObj<ziputil::CZipWriter>(s->fs.get(), s->archive, tal::String(),
                                                     static_cast<ziputil::CZipWriter::CompLevel>(level));
      addEntries(*writer);
      writer->close();
    });
    impl.prepare = [s, path] {
      if (s->memory) {
        s->memory = tal::newObj<tal::CMemoryFileSystem>();
        s->fs = s->memory;
      } else {
        std::remove(path.c_str());
      }
    };
    impl.detail = [s, path] {
      if (!s->memory) return fileSizeOf(path);
      return formatBytes(static_cast<double>(s->memory->getFile(s->archive).size())) + " written";
    };
    w.impls.push_back(impl);
  }
}

// ---- stock minizip ---------------------------------------------------------

UnzHandle openUnz(std::string const& path) {
  UnzHandle unz(unzOpen64(path.c_str()));
  expect(unz != nullptr, "minizip cannot open " + path);
  return unz;
}

namespace {

zip_fileinfo zipInfo() {
  zip_fileinfo info = {};
  info.tmz_date.tm_year = 2024;
  info.tmz_date.tm_mon = 4;
  info.tmz_date.tm_mday = 1;
  info.tmz_date.tm_hour = 12;
  return info;
}

} // namespace

void openStockEntry(zipFile zip, std::string const& name, int level) {
  zip_fileinfo const info = zipInfo();
  int const result = zipOpenNewFileInZip4_64(zip, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                                             level, 0, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY, nullptr, 0, 0, 0x800, 1);
  expect(result == ZIP_OK, "minizip cannot open entry " + name);
}

// ---- rows ------------------------------------------------------------------

Impl writesFile(Impl impl, std::string const& path) {
  impl.prepare = [path] { std::remove(path.c_str()); };
  impl.detail = [path] { return fileSizeOf(path); };
  return impl;
}

// ---- Python ----------------------------------------------------------------

bool wantPython(Context& ctx) { return ctx.python && ctx.wants("zipfile"); }

Impl pythonImpl(Context& ctx, std::string json) {
  Impl impl;
  impl.name = "zipfile";
  PythonPeer* python = ctx.python.get();
  impl.run = [python, json](long n) { return python->call("{" + json + ",\"n\":" + std::to_string(n) + "}"); };
  return impl;
}

// ---- the limits ------------------------------------------------------------

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

std::uint64_t deflateDiscarding(z_stream& z, int flush) {
  static unsigned char buffer[kChunk];
  std::uint64_t total = 0;
  int r;
  do {
    z.next_out = buffer;
    z.avail_out = kChunk;
    r = deflate(&z, flush);
    total += kChunk - z.avail_out;
  } while (z.avail_out == 0 || (flush == Z_FINISH && r != Z_STREAM_END));
  return total;
}

Impl deflateLimit(int level, std::function<std::uint64_t(z_stream& z)> deflateAll) {
  auto compressed = std::make_shared<std::uint64_t>(0);
  Impl impl = inProcess("limit-deflate", [level, deflateAll, compressed](long) {
    z_stream z = {};
    expect(deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) == Z_OK, "deflateInit2 failed");
    std::uint64_t const total = deflateAll(z);
    deflateEnd(&z);
    *compressed = total;
  });
  impl.detail = [compressed] { return formatBytes(static_cast<double>(*compressed)) + " deflated"; };
  return impl;
}

} // namespace bench
