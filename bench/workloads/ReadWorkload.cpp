// The read workload: read one big deflated entry in 64 KiB pieces, against
// inflating its compressed bytes in memory with zlib (and with ISA-L in a
// build that reads with it).
#include "WorkloadSupport.h"

#include "ziputil/CZipReader.h"

#if ZIPUTIL_BENCH_ISAL
#include <isa-l/crc.h>
#include <isa-l/igzip_lib.h>
#endif

#include <cstdio>
#include <memory>

namespace bench {

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

  for (auto const& s : readSites(ctx, path, *bytes)) {
    w.impls.push_back(inProcess(s->name, [s, name, size](long) {
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

} // namespace bench
