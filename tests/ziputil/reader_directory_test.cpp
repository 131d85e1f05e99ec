// The reader walks and looks up entries from the central directory held in
// memory: every entry must be described exactly as minizip describes it, and
// the archive's bytes are read once for the whole walk.
#include "ziputil/CZipReader.h"

#include "support/FaultyFileSystem.h"
#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "tal/LocalFileSystem.h"

#include <gtest/gtest.h>

#include <unzip.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <vector>

using testsupport::entryURI;
using testsupport::runCommand;
using testsupport::runPython;
using testsupport::shellQuote;
using testsupport::utf8;
using ziputil::CZipReader;

namespace {

/// What minizip itself (its own stdio file functions) reports for each entry,
/// and what the reader reports, field by field.
struct Described {
  std::string name, comment, extra;
  unsigned long version = 0, flag = 0, method = 0, crc = 0, externalAttributes = 0;
  unsigned long long compressed = 0, uncompressed = 0;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  bool operator==(Described const& o) const {
    return name == o.name && comment == o.comment && extra == o.extra && version == o.version &&
           method == o.method && crc == o.crc && externalAttributes == o.externalAttributes &&
           compressed == o.compressed && uncompressed == o.uncompressed && year == o.year && month == o.month &&
           day == o.day && hour == o.hour && minute == o.minute && second == o.second &&
           ((flag & 1) != 0) == ((o.flag & 1) != 0) && ((flag & 0x800) != 0) == ((o.flag & 0x800) != 0);
  }
};

std::ostream& operator<<(std::ostream& out, Described const& d) {
  return out << d.name << " v" << d.version << " m" << d.method << " crc" << d.crc << " " << d.compressed << "/"
             << d.uncompressed << " attr" << d.externalAttributes << " " << d.year << "-" << d.month << "-" << d.day
             << " " << d.hour << ":" << d.minute << ":" << d.second << " flag" << d.flag << " comment[" << d.comment
             << "] extra" << d.extra.size();
}

std::vector<Described> minizipWalk(std::string const& path) {
  std::vector<Described> result;
  unzFile file = unzOpen64(path.c_str());
  if (!file) throw std::runtime_error("minizip cannot open " + path);
  for (int err = unzGoToFirstFile(file); err == UNZ_OK; err = unzGoToNextFile(file)) {
    unz_file_info64 info;
    std::vector<char> name(65536), comment(65536), extra(65536);
    if (unzGetCurrentFileInfo64(file, &info, name.data(), name.size(), extra.data(), extra.size(), comment.data(),
                                comment.size()) != UNZ_OK)
      throw std::runtime_error("minizip cannot describe an entry");
    Described d;
    d.name.assign(name.data(), info.size_filename);
    d.comment.assign(comment.data(), info.size_file_comment);
    d.extra.assign(extra.data(), info.size_file_extra);
    d.version = info.version;
    d.flag = info.flag;
    d.method = info.compression_method;
    d.crc = info.crc;
    d.externalAttributes = info.external_fa;
    d.compressed = info.compressed_size;
    d.uncompressed = info.uncompressed_size;
    d.year = static_cast<int>(info.tmu_date.tm_year);
    d.month = static_cast<int>(info.tmu_date.tm_mon) + 1;
    d.day = static_cast<int>(info.tmu_date.tm_mday);
    d.hour = static_cast<int>(info.tmu_date.tm_hour);
    d.minute = static_cast<int>(info.tmu_date.tm_min);
    d.second = static_cast<int>(info.tmu_date.tm_sec);
    result.push_back(d);
  }
  unzClose(file);
  return result;
}

Described describe(CZipReader& reader) {
  Described d;
  d.name = reader.getCurrentFileRawName();
  d.comment = reader.getCurrentFileComment();
  d.extra = reader.getCurrentFileExtraField();
  d.version = static_cast<unsigned long>(reader.getCurrentFileVersionMadeBy());
  d.flag = (reader.isCurrentFileEncrypted() ? 1u : 0u) | (reader.isCurrentFileNameUTF8() ? 0x800u : 0u);
  d.method = static_cast<unsigned long>(reader.getCurrentFileMethod());
  d.crc = reader.getCurrentFileCRC32();
  d.externalAttributes = reader.getCurrentFileExternalAttributes();
  d.compressed = static_cast<unsigned long long>(reader.getCurrentFileCompressedSize());
  d.uncompressed = static_cast<unsigned long long>(reader.getCurrentFileUncompressedSize());
  tal::CTimeFields const t = reader.getCurrentFileModifiedTimeFields();
  d.year = t.getYear();
  d.month = t.getMonth();
  d.day = t.getDay();
  d.hour = t.getHour();
  d.minute = t.getMinute();
  d.second = t.getSecond();
  return d;
}

class ReaderDirectoryTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();

  /// Walks the archive with the reader and with stock minizip, and looks every
  /// name up: the same descriptions, in the same order, and each entry's bytes.
  void expectSameAsMinizip(std::string const& name) {
    SCOPED_TRACE(name);
    std::vector<Described> const expected = minizipWalk(dir.file(name));
    auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri(name), tal::String());
    std::vector<Described> walked;
    while (reader->nextFile()) walked.push_back(describe(*reader));
    ASSERT_EQ(walked.size(), expected.size());
    for (std::size_t i = 0; i < walked.size(); ++i) EXPECT_EQ(walked[i], expected[i]) << "entry " << i;
    for (Described const& entry : expected) {
      ASSERT_TRUE(reader->tryGoToFile(entryURI(entry.name)));
      Described const found = describe(*reader);
      if (found.name == entry.name) { // a duplicate name finds its first entry
        EXPECT_EQ(found, entry);
      }
      auto in = reader->openCurrentFileStream();
      std::string data(static_cast<std::size_t>(found.uncompressed), '\0');
      if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
      in->close();
    }
  }
};

TEST_F(ReaderDirectoryTest, EveryToolsArchiveIsDescribedAsMinizipDescribesIt) {
  std::string const folder = dir.file("in");
  runCommand("mkdir -p " + shellQuote(folder + "/sub") + " && printf 'hello\\n' >" + shellQuote(folder + "/a.txt") +
             " && head -c 100000 /dev/zero >" + shellQuote(folder + "/sub/zeros") + " && ln -s a.txt " +
             shellQuote(folder + "/link"));
  // Info-ZIP zip: extra fields (UT, ux), a symbolic link, folders, comments.
  ASSERT_EQ(runCommand("cd " + shellQuote(folder) + " && zip -qry " + shellQuote(dir.file("infozip.zip")) +
                       " . && printf 'entry comment\\n' | zip -qc " + shellQuote(dir.file("infozip.zip")) + " a.txt"),
            0);
  // Python: Zip64 extra fields forced on small entries, a comment, a stored entry, a UTF-8 name.
  runPython(R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_DEFLATED) as z:
    with z.open('forced64.txt', 'w', force_zip64=True) as f:
        f.write(b'zip64 on a small entry')
    i = zipfile.ZipInfo('caf\u00e9.txt', (2001, 2, 3, 4, 5, 6))
    i.comment = b'commented'
    z.writestr(i, b'accent')
    z.writestr(zipfile.ZipInfo('stored.bin'), b'as it is')
    z.comment = b'archive comment'
)",
            {dir.file("python.zip")});
  // bsdtar and 7-Zip.
  ASSERT_EQ(runCommand("cd " + shellQuote(folder) + " && bsdtar -a -cf " + shellQuote(dir.file("bsdtar.zip")) + " ."), 0);
  ASSERT_EQ(runCommand("cd " + shellQuote(folder) + " && 7z a -tzip " + shellQuote(dir.file("7z.zip")) +
                       " . >/dev/null"),
            0);
  // A self-extracting stub in front of the archive: offsets are shifted by its length.
  ASSERT_EQ(runCommand("printf 'STUB%.0s' $(seq 100) | cat - " + shellQuote(dir.file("python.zip")) + " >" +
                       shellQuote(dir.file("stub.zip"))),
            0);
  for (char const* name : {"infozip.zip", "python.zip", "bsdtar.zip", "7z.zip", "stub.zip"}) expectSameAsMinizip(name);
}

TEST_F(ReaderDirectoryTest, AWalkAndItsLookupsReadTheArchiveOnce) {
  std::vector<testsupport::ZipEntry> entries;
  for (int i = 0; i < 3000; ++i) entries.push_back({"dir" + std::to_string(i % 7) + "/entry" + std::to_string(i), std::to_string(i)});
  runPython(R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_DEFLATED) as z:
    for i in range(3000):
        z.writestr('dir%d/entry%d' % (i % 7, i), str(i))
)",
            {dir.file("many.zip")});
  auto faulty = tal::newObj<testsupport::CFaultyFileSystem>(fs.get());
  auto reader = tal::newObj<CZipReader>(faulty.get(), dir.uri("many.zip"), tal::String());
  long long const atOpen = faulty->count(testsupport::CFaultyFileSystem::Read);
  int walked = 0;
  while (reader->nextFile()) {
    EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), entries[static_cast<std::size_t>(walked)].first);
    ++walked;
  }
  EXPECT_EQ(walked, 3000);
  long long const afterWalk = faulty->count(testsupport::CFaultyFileSystem::Read);
  EXPECT_LE(afterWalk - atOpen, 8) << "the walk read piece by piece";
  for (auto const& entry : entries) ASSERT_TRUE(reader->tryGoToFile(entryURI(entry.first)));
  EXPECT_FALSE(reader->tryGoToFile(entryURI("dir1/missing")));
  EXPECT_EQ(faulty->count(testsupport::CFaultyFileSystem::Read), afterWalk) << "lookups read the archive again";
  // Opening an entry brings minizip to it, and nextFile continues after it.
  ASSERT_TRUE(reader->tryGoToFile(entryURI("dir2/entry1234")));
  auto in = reader->openCurrentFileStream();
  char text[8] = {};
  EXPECT_EQ(in->readLax(text, sizeof text), 4);
  EXPECT_EQ(std::string(text), "1234");
  in->close();
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "dir3/entry1235");
  reader->close();
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "dir3/entry1235"); // the URI stays after close
}


/// An archive of more than 4 GiB that exists only as a rule for its bytes: one
/// stored entry "hello\n" at the start, then `kEntries` central headers that all
/// point to it, named "f00000000", "f00000001", ..., each with a 65,535-byte
/// extra field (one block of an unknown kind) and a 65,535-byte comment, then a
/// Zip64 end record, its locator and an end record. The central directory alone
/// takes more than 4 GiB. Counts the bytes read.
class CHugeDirectoryArchive : public tal::CBase, public virtual tal::IInOutStream {
public:
  static constexpr long long kEntries = 32800;
  static constexpr long long kNameSize = 9;
  static constexpr long long kFieldSize = 65535;
  static constexpr long long kLocalSize = 30 + kNameSize + 6;
  static constexpr long long kHeaderSize = 46 + kNameSize + 2 * kFieldSize;
  static constexpr long long kDirectorySize = kEntries * kHeaderSize;
  static constexpr long long kLength = kLocalSize + kDirectorySize + 56 + 20 + 22;

  explicit CHugeDirectoryArchive(tal::CURI uri) : m_uri(std::move(uri)) {
    static_assert(kDirectorySize > 0xffffffffLL, "the directory must not fit in 32 bits");
    unsigned long const crc = crc32(0, reinterpret_cast<Bytef const*>("hello\n"), 6);
    m_local = le(0x04034b50, 4) + le(10, 2) + le(0, 2) + le(0, 2) + le(0, 2) + le(0x5821, 2) + le(crc, 4) + le(6, 4) +
              le(6, 4) + le(kNameSize, 2) + le(0, 2) + name(0) + "hello\n";
    m_headerStart = le(0x02014b50, 4) + le(0x0314, 2) + le(10, 2) + le(0, 2) + le(0, 2) + le(0, 2) + le(0x5821, 2) +
                    le(crc, 4) + le(6, 4) + le(6, 4) + le(kNameSize, 2) + le(kFieldSize, 2) + le(kFieldSize, 2) +
                    le(0, 2) + le(0, 2) + le(0, 4) + le(0, 4);
    m_end = le(0x06064b50, 4) + le(44, 8) + le(45, 2) + le(45, 2) + le(0, 4) + le(0, 4) + le(kEntries, 8) +
            le(kEntries, 8) + le(kDirectorySize, 8) + le(kLocalSize, 8) + le(0x07064b50, 4) + le(0, 4) +
            le(kLocalSize + kDirectorySize, 8) + le(1, 4) + le(0x06054b50, 4) + le(0, 2) + le(0, 2) +
            le(kEntries, 2) + le(kEntries, 2) + le(0xffffffff, 4) + le(kLocalSize, 4) + le(0, 2);
  }

  static std::string name(long long ordinal) {
    char text[24];
    std::snprintf(text, sizeof text, "f%08lld", ordinal);
    return text;
  }
  long long bytesRead() const { return m_bytesRead; }

  long long getLength() const override { return kLength; }
  long long getPosition() const override { return m_position; }
  tal::CURI getURI() const override { return m_uri; }
  void seek(long long position) override { m_position = position; }
  tal::P<tal::IRangeLock> lockRange(long long, long long, LockType) override { return nullptr; }
  void close() override {}
  void read(void* buffer, int size) override {
    if (readLax(buffer, size) != size)
      throw tal::CIOError(tal::CIOError::UnexpectedEnd, tal::String(), tal::CProps(), nullptr);
  }
  int readLax(void* buffer, int size) override {
    char* out = static_cast<char*>(buffer);
    int done = 0;
    while (done < size && m_position < kLength) {
      long long const n = fill(m_position, out + done, size - done);
      m_position += n;
      done += static_cast<int>(n);
    }
    m_bytesRead += done;
    return done;
  }
  int readAvailable(void* buffer, int size) override { return readLax(buffer, size); }
  bool waitReadable(int) const override { return true; }
  bool isEndOfStream() const override { return m_position >= kLength; }
  int isEndOfStream_NonBlocking() const override { return isEndOfStream() ? 1 : 0; }
  void write(void const*, int, tal::IWriteBarrier*) override { refuse(); }
  void writeKeepBuffer(tal::TConstBufferSlice<unsigned char> const&, tal::IWriteBarrier*) override { refuse(); }
  tal::P<tal::IWriteBarrier> createWriteBarrier(tal::IWriteBarrier*) override { return nullptr; }
  void flush() override {}
  void setLength(long long) override { refuse(); }

private:
  static std::string le(unsigned long long value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) text += static_cast<char>((value >> (8 * i)) & 0xff);
    return text;
  }
  [[noreturn]] static void refuse() {
    throw tal::CIOError(tal::CIOError::WriteFailed, tal::String("read-only"), tal::CProps(), nullptr);
  }
  static long long copy(std::string const& from, long long at, char* out, long long room) {
    long long const n = std::min(room, static_cast<long long>(from.size()) - at);
    std::memcpy(out, from.data() + at, static_cast<std::size_t>(n));
    return n;
  }
  /// Writes the bytes from `at` on, up to `room` of them but not past the part `at` lies in; returns how many.
  long long fill(long long at, char* out, long long room) const {
    if (at < kLocalSize) return copy(m_local, at, out, room);
    at -= kLocalSize;
    if (at >= kDirectorySize) return copy(m_end, at - kDirectorySize, out, room);
    long long const ordinal = at / kHeaderSize;
    long long offset = at % kHeaderSize;
    if (offset < 46) return copy(m_headerStart, offset, out, room);
    offset -= 46;
    if (offset < kNameSize) return copy(name(ordinal), offset, out, room);
    offset -= kNameSize;
    if (offset < 4) return copy(le(0xcafe, 2) + le(kFieldSize - 4, 2), offset, out, room);
    bool const inExtra = offset < kFieldSize; // else in the comment
    long long const n = std::min(room, (inExtra ? kFieldSize : 2 * kFieldSize) - offset);
    std::memset(out, inExtra ? 0 : 'c', static_cast<std::size_t>(n));
    return n;
  }

  tal::CURI m_uri;
  std::string m_local, m_headerStart, m_end;
  long long m_position = 0;
  long long m_bytesRead = 0;
};

/// Opens every URI as the one huge archive.
class CHugeDirectoryFileSystem : public tal::CBase, public virtual tal::IFileSystem {
public:
  tal::P<tal::IInOutStream> openStream(tal::CURI const& uri, int, int const&) override {
    opened = tal::newObj<CHugeDirectoryArchive>(uri);
    return opened;
  }
  bool exists(tal::CURI const&) override { return true; }
  void remove(tal::CURI const&) override {}
  tal::P<CHugeDirectoryArchive> opened;
};

TEST(ReaderHugeDirectoryTest, ADirectoryOf4GiBOrMoreIsWalkedByMinizipWithoutBeingReadIntoMemory) {
  auto fileSystem = tal::newObj<CHugeDirectoryFileSystem>();
  auto reader = tal::newObj<CZipReader>(fileSystem.get(), tal::CURI::fromPath(tal::String("/huge.zip")), tal::String());
  long long walked = 0;
  while (reader->nextFile()) {
    if (walked % 4099 == 0 || walked == CHugeDirectoryArchive::kEntries - 1) {
      EXPECT_EQ(reader->getCurrentFileRawName(), CHugeDirectoryArchive::name(walked));
      EXPECT_EQ(reader->getCurrentFileUncompressedSize(), 6);
      EXPECT_EQ(reader->getCurrentFileComment(), std::string(CHugeDirectoryArchive::kFieldSize, 'c'));
    }
    ++walked;
  }
  EXPECT_EQ(walked, CHugeDirectoryArchive::kEntries);
  // Lookups find the first, a middle and the last entry; a name not there is not found.
  for (long long ordinal : {0LL, 17LL, CHugeDirectoryArchive::kEntries - 1}) {
    ASSERT_TRUE(reader->tryGoToFile(entryURI(CHugeDirectoryArchive::name(ordinal)))) << ordinal;
    EXPECT_EQ(reader->getCurrentFileRawName(), CHugeDirectoryArchive::name(ordinal));
  }
  auto in = reader->openCurrentFileStream();
  char text[8] = {};
  EXPECT_EQ(in->readLax(text, sizeof text), 6);
  EXPECT_EQ(std::string(text), "hello\n");
  in->close();
  EXPECT_FALSE(reader->nextFile()); // the last entry was opened
  EXPECT_FALSE(reader->tryGoToFile(entryURI("f99999999")));
  ASSERT_TRUE(reader->tryGoToFile(entryURI(CHugeDirectoryArchive::name(18))));
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileRawName(), CHugeDirectoryArchive::name(19));
  reader->close();
  // Far less than the directory's 4 GiB was read: its headers piece by piece, the comments asked for.
  EXPECT_LT(fileSystem->opened->bytesRead(), 1LL << 30);
}

} // namespace
