// libFuzzer target for the archive reader: the input is an archive held in a
// tal::CMemoryFileSystem, checked with checkArchiveLayout and read twice with
// a CZipReader (without a password and verifying every entry, then with the
// password "fuzz" and without verification): every entry described, opened
// and read to its end (at most 1 MiB per entry, 2 MiB per pass, then 4 KiB
// per entry), a few names looked up, an entry stream left open over the
// reader's close, everything closed.
//
// Errors are what hostile input should give: every std::exception (tal::CError
// among them) is caught. Anything else is a finding: a crash, a sanitizer
// report, a leak, an exception of another kind, a hang or runaway memory.
#include "tal/Error.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/ArchiveCheck.h"
#include "ziputil/CZipReader.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

namespace {

using ziputil::CZipReader;

constexpr long long kEntryReadLimit = 1 << 20; // bytes read from one entry: a bomb cannot stall the fuzzer
constexpr long long kPassReadLimit = 2 << 20;  // bytes read from all entries of one pass
constexpr long long kLookupReadLimit = 64 << 10;
constexpr int kEntryLimit = 20000;

/// Keeps the getters' results alive so that the calls are not optimised away.
volatile std::size_t g_sink;
void sink(std::size_t value) { g_sink = g_sink + value; }

/// An expected error: its text is built from the archive's bytes, so it is formatted too.
void expected(std::exception const& e) { sink(std::strlen(e.what())); }

/// Runs `body`; an error it throws is expected. True when it returned normally.
template <class F> bool attempt(F&& body) {
  try {
    body();
    return true;
  } catch (std::exception const& e) {
    expected(e);
    return false;
  }
}

/// Destructors report the errors they swallow; under the fuzzer those are expected too.
void quietDestructorHandler(char const*, std::exception& e, bool) { expected(e); }

tal::CURI entryName(char const* path) {
  return tal::CURI(tal::String(), tal::String::fromUTF8(path, std::strlen(path)), nullptr, nullptr, nullptr, -1,
                   nullptr, nullptr);
}

void describe(CZipReader const& reader) {
  tal::CURI const uri = reader.getCurrentFileRelativeURI();
  sink(uri.toString(true).length());
  sink(uri.toString(false).toUTF8().size());
  sink(static_cast<std::size_t>(reader.getCurrentFileUncompressedSize()));
  sink(static_cast<std::size_t>(reader.getCurrentFileCompressedSize()));
  tal::CTimeFields const time = reader.getCurrentFileModifiedTimeFields();
  sink(static_cast<std::size_t>(time.isEmpty() ? 0 : time.getYear() + time.getMonth() + time.getDay() +
                                                      time.getHour() + time.getMinute() + time.getSecond()));
  sink(reader.isCurrentFileDirectory() ? 1 : 0);
  sink(reader.getCurrentFileCRC32());
  sink(static_cast<std::size_t>(reader.getCurrentFileMethod()));
  std::string const raw = reader.getCurrentFileRawName();
  sink(tal::String::fromUTF8(raw).length());
  sink(reader.isCurrentFileNameUTF8() ? 1 : 0);
  sink(reader.isCurrentFileEncrypted() ? 1 : 0);
  sink(static_cast<std::size_t>(reader.getCurrentFileVersionMadeBy()));
  sink(reader.getCurrentFileExternalAttributes());
  sink(static_cast<std::size_t>(reader.getCurrentFileUnixMode()));
  sink(reader.isCurrentFileSymbolicLink() ? 1 : 0);
  attempt([&] { sink(reader.getCurrentFileComment().size()); });
  attempt([&] { sink(reader.getCurrentFileExtraField().size()); });
}

void describeArchive(CZipReader const& reader) {
  sink(static_cast<std::size_t>(reader.getEntryCount()));
  attempt([&] { sink(reader.getArchiveComment().size()); });
}

/// Reads `in` to its end or to `limit` bytes in chunks of varying sizes; returns the bytes read.
long long drain(tal::IInStream& in, long long limit, std::size_t variant) {
  static char buffer[65536];
  static int const kChunks[] = {4096, 1, 65536, 7, 1000};
  constexpr std::size_t kChunkCount = sizeof kChunks / sizeof kChunks[0];
  long long total = 0;
  for (std::size_t call = variant; total < limit; ++call) {
    int const want = static_cast<int>(std::min<long long>(kChunks[call % kChunkCount], limit - total));
    int const got = call % 3 == 0 ? in.readAvailable(buffer, want) : in.readLax(buffer, want);
    total += got;
    if (got < want) break;
  }
  sink(static_cast<std::size_t>(in.getPosition() + in.getLength()));
  sink(in.isEndOfStream() ? 1 : 0);
  sink(static_cast<std::size_t>(in.isEndOfStream_NonBlocking()));
  return total;
}

/// Opens the current entry and reads it; returns the bytes read. With `all`,
/// also the stream's other calls (they throw; kept to a few entries per input,
/// as throwing is slow under the sanitizers).
long long readEntry(CZipReader& reader, long long limit, std::size_t variant, bool all) {
  tal::P<tal::IInStream> in;
  if (!attempt([&] { in = reader.openCurrentFileStream(); })) return 0;
  long long total = 0;
  if (!attempt([&] { total = drain(*in, limit, variant); }) && all) {
    char byte;
    attempt([&] { in->readLax(&byte, 1); }); // a failed entry keeps failing
  }
  sink(in->getURI().toString(true).length());
  if (all) {
    attempt([&] { in->seek(0); });
    attempt([&] { in->lockRange(0, 1, tal::IStreamBase::LockShared); });
  }
  attempt([&] { in->close(); });
  attempt([&] { in->close(); });
  return total;
}

void readArchive(tal::IFileSystem* fs, tal::CURI const& uri, tal::String const& password, bool verify,
                 std::size_t variant) {
  CZipReader::Options options;
  options.verifyEntries = verify;
  tal::P<CZipReader> reader;
  if (!attempt([&] { reader = tal::newObj<CZipReader>(fs, uri, password, options); })) return;

  describeArchive(*reader);
  describe(*reader);                                  // not positioned yet
  attempt([&] { reader->openCurrentFileStream(); }); // nor here
  std::vector<tal::CURI> names;
  attempt([&] {
    long long budget = kPassReadLimit;
    for (int i = 0; i < kEntryLimit && reader->nextFile(); ++i) {
      describe(*reader);
      if (names.size() < 2) names.push_back(reader->getCurrentFileRelativeURI());
      long long const limit = std::min(kEntryReadLimit, std::max(budget, 4096LL));
      budget -= readEntry(*reader, limit, variant + static_cast<std::size_t>(i), i < 2);
    }
    describe(*reader);
    reader->nextFile(); // past the end
  });

  names.push_back(entryName("no such entry.txt"));
  names.push_back(entryName("./dir\\sub/../_"));
  for (tal::CURI const& name : names) {
    attempt([&] {
      if (!reader->tryGoToFile(name)) return;
      describe(*reader);
      readEntry(*reader, kLookupReadLimit, variant, false);
    });
  }

  // An entry stream still open when the reader closes finds the archive gone.
  tal::P<tal::IInStream> open;
  attempt([&] {
    if (!names.empty() && reader->tryGoToFile(names.front())) open = reader->openCurrentFileStream();
  });
  attempt([&] { reader->close(); });
  if (open) {
    char byte;
    attempt([&] { open->readLax(&byte, 1); });
    attempt([&] { open->close(); });
  }
  attempt([&] { reader->nextFile(); });
  describeArchive(*reader);
  describe(*reader); // closed while positioned: nothing is current any more
  attempt([&] { reader->openCurrentFileStream(); });
  attempt([&] { reader->close(); });
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tal::setDestructorExceptionHandler(&quietDestructorHandler);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI const uri(tal::String("mem:/fuzz.zip"));
  fs->setFile(uri, std::string(reinterpret_cast<char const*>(data), size));

  attempt([&] { ziputil::checkArchiveLayout(fs.get(), uri); });
  readArchive(fs.get(), uri, tal::String(), true, size);
  readArchive(fs.get(), uri, tal::String("fuzz"), false, size / 2);
  return 0;
}
