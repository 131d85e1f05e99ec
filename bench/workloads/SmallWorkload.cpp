// The small workload: write many small entries into a new archive, against
// deflating each in memory.
#include "SmallEntries.h"
#include "WorkloadSupport.h"

#include "ziputil/CZipWriter.h"

#include <cstdio>
#include <memory>

namespace bench {

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

} // namespace bench
