// The find and missing workloads: one open reader, many lookups of a name
// near the end of the many-entries archive (find) or of a name that is not
// there (missing), against a hash table and a scan of the central directory
// bytes in memory.
#include "WorkloadSupport.h"

#include "ziputil/CZipReader.h"

#include <cstring>
#include <memory>
#include <unordered_map>

namespace bench {

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

  for (auto const& site : readSites(ctx, path, bytes)) {
    auto reader = tal::newObj<ziputil::CZipReader>(site->fs.get(), site->archive, tal::String());
    auto entry = std::make_shared<tal::CURI>(entryURI(name));
    w.impls.push_back(inProcess(site->name, [reader, entry, wanted](long n) {
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

} // namespace bench
