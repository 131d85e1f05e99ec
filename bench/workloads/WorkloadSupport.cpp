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

std::vector<ZiputilSite> readSites(std::string const& path, std::string const& bytes) {
  std::vector<ZiputilSite> sites;
  sites.push_back({"ziputil-local", tal::newObj<tal::CLocalFileSystem>(), nullptr, fileURI(path)});
  auto memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI const uri(tal::String("mem:/archive.zip"));
  memory->setFile(uri, bytes);
  sites.push_back({"ziputil-mem", memory, memory, uri});
  return sites;
}

std::vector<ZiputilSite> writeSites(std::string const& path) {
  std::vector<ZiputilSite> sites;
  sites.push_back({"ziputil-local", tal::newObj<tal::CLocalFileSystem>(), nullptr, fileURI(path)});
  auto memory = tal::newObj<tal::CMemoryFileSystem>();
  sites.push_back({"ziputil-mem", memory, memory, tal::CURI(tal::String("mem:/out.zip"))});
  return sites;
}

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

// ---- Python ----------------------------------------------------------------

bool wantPython(Context& ctx) { return ctx.python && ctx.wants("zipfile"); }

Impl pythonImpl(Context& ctx, std::string json) {
  Impl impl;
  impl.name = "zipfile";
  PythonPeer* python = ctx.python.get();
  impl.run = [python, json](long n) { return python->call("{" + json + ",\"n\":" + std::to_string(n) + "}"); };
  return impl;
}

// ---- zlib ------------------------------------------------------------------

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

} // namespace bench
