// The small workload: write many small entries into a new archive, against
// deflating each in memory.
#include "SmallEntries.h"
#include "WorkloadSupport.h"

#include "ziputil/CZipWriter.h"

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

  addZiputilWriters(w, ctx, ctx.dir + "/s-ziputil.zip", kSmallLevel, [text, entries](ziputil::CZipWriter& writer) {
    for (auto const& [name, offset, length] : *entries) {
      auto stream = writer.beginAddFile(entryURI(name), entryTime());
      stream->write(text->data() + offset, static_cast<int>(length), nullptr);
      stream->close();
    }
  });
  if (ctx.wants("minizip")) {
    std::string const out = ctx.dir + "/s-minizip.zip";
    Impl impl = inProcess("minizip", [out, small](long) { writeSmallWithStockMinizip(out, small); });
    w.impls.push_back(writesFile(impl, out));
  }
#if ZIPUTIL_BENCH_LIBZIP
  if (ctx.wants("libzip")) {
    std::string const out = ctx.dir + "/s-libzip.zip";
    auto list = std::make_shared<std::vector<libzip::Entry>>();
    for (auto const& [name, offset, length] : *entries) list->push_back({name, text->data() + offset, length});
    Impl impl = inProcess("libzip", [out, list](long) { libzip::write(out, *list, kSmallLevel); });
    w.impls.push_back(writesFile(impl, out));
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
    w.impls.push_back(writesFile(impl, out));
  }
  if (ctx.wants("limit-deflate"))
    w.impls.push_back(deflateLimit(kSmallLevel, [text, entries](z_stream& z) {
      std::uint64_t total = 0;
      uLong crcs = 0;
      for (auto const& [name, offset, length] : *entries) {
        keep(name);
        deflateReset(&z);
        auto* in = reinterpret_cast<Bytef*>(const_cast<char*>(text->data() + offset));
        crcs ^= crc32(crc32(0, nullptr, 0), in, static_cast<uInt>(length));
        z.next_in = in;
        z.avail_in = static_cast<uInt>(length);
        total += deflateDiscarding(z, Z_FINISH);
      }
      keep(crcs);
      return total;
    }));
  return w;
}

} // namespace bench
