// The readmany workload: read every entry of an archive of many small
// entries (written by stock minizip), against inflating each entry's
// compressed bytes in memory.
#include "SmallEntries.h"
#include "WorkloadSupport.h"

#include "ziputil/CZipReader.h"

#include <memory>
#include <utility>

namespace bench {

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

  for (auto const& s : readSites(ctx, path, *bytes)) {
    w.impls.push_back(inProcess(s->name, [s, total](long) {
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

} // namespace bench
