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

} // namespace
