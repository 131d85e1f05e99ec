// The write1 and write6 workloads: write one big entry at level 1 or 6 in
// 64 KiB pieces into a new archive, against deflating the same bytes in
// memory.
#include "WorkloadSupport.h"

#include "ziputil/CZipWriter.h"

#include <algorithm>
#include <memory>

namespace bench {

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

  addZiputilWriters(w, ctx, ctx.dir + "/w-ziputil.zip", level, [bytes, name](ziputil::CZipWriter& writer) {
    auto stream = writer.beginAddFile(entryURI(name), entryTime());
    for (std::size_t done = 0; done < bytes->size(); done += kChunk)
      stream->write(bytes->data() + done, static_cast<int>(std::min(kChunk, bytes->size() - done)), nullptr);
    stream->close();
  });
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
    w.impls.push_back(writesFile(impl, out));
  }
#if ZIPUTIL_BENCH_LIBZIP
  if (ctx.wants("libzip")) {
    std::string const out = ctx.dir + "/w-libzip.zip";
    Impl impl = inProcess("libzip", [out, bytes, name, level](long) {
      libzip::write(out, {{name, bytes->data(), bytes->size()}}, level);
    });
    w.impls.push_back(writesFile(impl, out));
  }
#endif
  if (wantPython(ctx)) {
    std::string const out = ctx.dir + "/w-python.zip";
    Impl impl = pythonImpl(ctx, "\"op\":\"write\",\"data\":" + jsonString(ctx.writeDataPath()) + ",\"out\":" +
                                    jsonString(out) + ",\"name\":" + jsonString(name) +
                                    ",\"level\":" + std::to_string(level));
    w.impls.push_back(writesFile(impl, out));
  }
  if (ctx.wants("limit-deflate"))
    w.impls.push_back(deflateLimit(level, [bytes](z_stream& z) {
      uLong crc = crc32(0, nullptr, 0);
      std::uint64_t total = 0;
      for (std::size_t done = 0; done < bytes->size();) {
        std::size_t const piece = std::min(kChunk, bytes->size() - done);
        auto* in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes->data() + done));
        crc = crc32(crc, in, static_cast<uInt>(piece));
        done += piece;
        z.next_in = in;
        z.avail_in = static_cast<uInt>(piece);
        total += deflateDiscarding(z, done == bytes->size() ? Z_FINISH : Z_NO_FLUSH);
      }
      keep(crc);
      return total;
    }));
  return w;
}

} // namespace bench
