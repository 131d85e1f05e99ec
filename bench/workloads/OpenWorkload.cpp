// The open workload: open the many-entries archive, look up a name near its
// end, close; against finding the name in the central directory bytes, in
// memory or just read from the file.
#include "WorkloadSupport.h"

#include "ziputil/CZipReader.h"

#include <cstring>
#include <memory>

namespace bench {

namespace {

/// The limits' lookup: walks the directory's headers to `name`.
void findInCentralDirectory(CentralDirectory const& cd, std::string const& name) {
  bool found = false;
  walkCentralDirectory(cd, [&](CentralEntry const& e) {
    found = e.nameLength == name.size() && std::memcmp(e.name, name.data(), name.size()) == 0;
    return !found;
  });
  expect(found, "the parse did not find the name");
}

} // namespace

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

  for (auto const& s : readSites(ctx, path, bytes)) {
    auto entry = std::make_shared<tal::CURI>(entryURI(name));
    w.impls.push_back(inProcess(s->name, [s, entry](long n) {
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
  addCentralDirectoryLimits(w, ctx, path, bytes,
                            [name](CentralDirectory const& cd) { findInCentralDirectory(cd, name); });
  return w;
}

} // namespace bench
