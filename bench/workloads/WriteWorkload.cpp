// The write1 and write6 workloads: write one big entry at level 1 or 6 in
// 64 KiB pieces into a new archive, against deflating the same bytes in
// memory.
#include "WorkloadSupport.h"

#include "ziputil/CZipWriter.h"

#include <algorithm>
#include <cstdio>
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

} // namespace bench
