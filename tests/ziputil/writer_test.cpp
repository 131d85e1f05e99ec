#include "ziputil/CZipWriter.h"

#include "support/FaultyFileSystem.h"
#include "support/TempDir.h"
#include "support/WriterChecks.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <sstream>

using testsupport::addEntry;
using testsupport::entryURI;
using testsupport::utf8;
using ziputil::CZipReader;
using ziputil::CZipWriter;

namespace {

class WriterTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  tal::CURI uri = dir.uri("w.zip");
  std::string uriText() const { return utf8(uri.toString(true)); }
  std::vector<std::string> describe() {
    std::istringstream lines(testsupport::describeWithPython(dir.file("w.zip")));
    std::vector<std::string> result;
    for (std::string line; std::getline(lines, line);) result.push_back(line);
    return result;
  }
};

TEST_F(WriterTest, SecondCloseIsQuietAndBeginAfterCloseIsStreamClosedFirst) {
  auto writer = testsupport::newArchiveWriter(fs.get(), uri);
  auto open = writer->beginAddFile(entryURI("a"), tal::CTimeFields());
  writer->close();
  writer->close();
  try {
    writer->beginAddFile(entryURI("b"), tal::CTimeFields()); // an entry is still "open": the closed check comes first
    FAIL();
  } catch (tal::CIOError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CIOError));
    EXPECT_EQ(e.getCode(), tal::CIOError::StreamClosed);
    EXPECT_EQ(utf8(e.getMessage()), "ZIP file already closed");
    EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", uri.toString(true)}}));
    EXPECT_EQ(utf8(e.getContext()), "IO");
    EXPECT_EQ(e.getCause(), nullptr);
  }
  writer->close(); // still quiet
}

TEST_F(WriterTest, DestructorReportsAFailedCloseAndDoesNotThrow) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<testsupport::CFaultyFileSystem> faulty = tal::newObj<testsupport::CFaultyFileSystem>(memory.get());
  tal::CURI const archive(tal::String("mem:/dtor.zip"));
  auto writer = testsupport::newArchiveWriter(faulty.get(), archive);
  addEntry(*writer, "a", "a");
  faulty->reset();
  faulty->failNth(testsupport::CFaultyFileSystem::Close, 1); // the archive stream's close at zipClose
  auto const reports = testsupport::destructorReportsOf([&] { EXPECT_NO_THROW(writer = nullptr); });
  EXPECT_TRUE(faulty->fired());
  EXPECT_EQ(reports.classes, "ziputil::CZipWriter;");
  EXPECT_EQ(reports.messages,
            utf8(testsupport::CFaultyFileSystem::injectedError(testsupport::CFaultyFileSystem::Close, 1, archive)
                     .getMessage()) +
                ";");
}

TEST_F(WriterTest, OneEntryAtATime) {
  auto writer = testsupport::newArchiveWriter(fs.get(), uri);
  auto first = writer->beginAddFile(entryURI("first"), tal::CTimeFields());
  first->write("1234", 4, nullptr);
  try {
    writer->beginAddFile(entryURI("second"), tal::CTimeFields());
    FAIL();
  } catch (tal::CError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CError));
    EXPECT_EQ(utf8(e.getMessage()),
              "Internal error: CZipWriter::beginAddFile called before previous added file was finished.");
    EXPECT_EQ(e.getCode(), -1);
    EXPECT_EQ(utf8(e.getContext()), "");
    EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", uri.toString(true)}}));
  }
  first->write("5678", 4, nullptr); // the open entry is untouched
  first->close();
  addEntry(*writer, "second", "2");
  writer->close();
  EXPECT_EQ(testsupport::runPython("import zipfile,sys; z=zipfile.ZipFile(sys.argv[1]);"
                                   " print(z.read('first').decode(), z.read('second').decode())",
                                   {dir.file("w.zip")}),
            "12345678 2\n");
}

TEST_F(WriterTest, EmptyOrAbsoluteNameIsRefusedBeforeMinizip) {
  auto writer = testsupport::newArchiveWriter(fs.get(), uri);
  for (tal::CURI const& bad : {tal::CURI(), tal::CURI(tal::String("file:///x")), tal::CURI(tal::String("a:b"))}) {
    try {
      writer->beginAddFile(bad, tal::CTimeFields());
      FAIL();
    } catch (tal::CInvalidArgError const& e) {
      EXPECT_EQ(utf8(e.getMessage()),
                "Invalid argument passed to 'CZipWriter::beginAddFile': relativeURIInArchive is invalid.");
      EXPECT_EQ(e.getCode(), -1);
      EXPECT_EQ(e.getProps(), (tal::CProps{{"relativeURIInArchive", bad.toString(true)}}));
    }
  }
  addEntry(*writer, "ok", "fine"); // the writer stayed open and idle
  writer->close();
  EXPECT_EQ(describe().size(), 1u);
}

TEST_F(WriterTest, DotSegmentsAreNormalised) {
  auto writer = testsupport::newArchiveWriter(fs.get(), uri);
  addEntry(*writer, "a/./b/../c.txt", "x");
  addEntry(*writer, "dir\\back slash #1.txt", "y");
  writer->close();
  auto lines = describe();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].substr(0, lines[0].find('|')), "a/c.txt");
  EXPECT_EQ(lines[1].substr(0, lines[1].find('|')), "dir\\back slash #1.txt");
}

TEST_F(WriterTest, TimesAndHeaderFields) {
  auto writer = testsupport::newArchiveWriter(fs.get(), uri, "", 0);
  addEntry(*writer, "dated", "d", tal::CTimeFields(2015, 3, 7, 14, 5, 9, 0.0, 0, false));
  addEntry(*writer, "undated", "u");
  addEntry(*writer, "caf\xC3\xA9/empty", "");
  writer->close();
  // name|method|flags|size|date|local extra ids|comment length|create system. An empty time leaves
  // minizip's date fields all zero; its DOS encoding counts months from 1, so the stored date reads
  // 1980-01-00. The DOS time keeps even seconds only: 09 is stored as 08.
  EXPECT_EQ(describe(), (std::vector<std::string>{"dated|8|800|1|2015-03-07 14:05:08|0001|0|0",
                                                  "undated|8|800|1|1980-01-00 00:00:00|0001|0|0",
                                                  "caf\xC3\xA9/empty|8|800|0|1980-01-00 00:00:00|0001|0|0"}));
}

TEST_F(WriterTest, ReaderSeesTheTimeFieldsWritten) {
  auto writer = testsupport::newArchiveWriter(fs.get(), uri);
  addEntry(*writer, "t", "t", tal::CTimeFields(2015, 3, 7, 14, 5, 10, 0.0, 0, false));
  writer->close();
  auto reader = tal::newObj<CZipReader>(fs.get(), uri, tal::String());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileModifiedTimeFields(), tal::CTimeFields(2015, 3, 7, 14, 5, 10, 0.0, 0, false));
}

TEST_F(WriterTest, PasswordEncryptsEveryEntryAndEmptyPasswordNone) {
  {
    auto writer = testsupport::newArchiveWriter(fs.get(), uri, "pw");
    addEntry(*writer, "a", "secret a");
    addEntry(*writer, "b", "");
    writer->close();
  }
  for (std::string const& line : describe()) EXPECT_NE(line.find("|801|"), std::string::npos) << line;
  {
    auto writer = testsupport::newArchiveWriter(fs.get(), uri, "");
    addEntry(*writer, "c", "open");
    writer->close();
  }
  for (std::string const& line : describe()) EXPECT_NE(line.find("|800|"), std::string::npos) << line;
}

TEST_F(WriterTest, AddsToAnExistingArchiveAndDropsItsComment) {
  testsupport::runPython(R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1], "w") as z:
    z.comment = b"old comment"
    z.writestr("old.txt", "old")
)",
                         {dir.file("w.zip")});
  auto writer = tal::newObj<CZipWriter>(fs.get(), uri, tal::String(), CZipWriter::CompBest);
  addEntry(*writer, "new.txt", "new");
  writer->close();
  EXPECT_EQ(testsupport::runPython(R"(
import sys, zipfile
z = zipfile.ZipFile(sys.argv[1])
print(z.namelist(), z.read("old.txt"), z.read("new.txt"), repr(z.comment))
)",
                                   {dir.file("w.zip")}),
            "['old.txt', 'new.txt'] b'old' b'new' b''\n");
}

TEST_F(WriterTest, OpeningSomethingElseThanAnArchiveFails) {
  testsupport::writeFile(dir.file("w.zip"), "not an archive at all, just text");
  try {
    tal::newObj<CZipWriter>(fs.get(), uri, tal::String(), CZipWriter::CompDefault);
    FAIL();
  } catch (tal::CError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CError));
    EXPECT_EQ(utf8(e.getMessage()), "zipOpen2_64 failed");
    EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", uri.toString(true)}}));
  }
  EXPECT_EQ(testsupport::readFile(dir.file("w.zip")), "not an archive at all, just text");
  try {
    tal::newObj<CZipWriter>(fs.get(), dir.uri("missing.zip"), tal::String(), CZipWriter::CompDefault);
    FAIL();
  } catch (tal::CIOError const& e) { // the file system's own error
    EXPECT_EQ(e.getCode(), tal::CIOError::OpenFailed);
    EXPECT_EQ(e.getProps().get("uri"), dir.uri("missing.zip").toString(true));
  }
}

TEST_F(WriterTest, ClosingTheWriterUnderAnOpenStream) {
  auto writer = testsupport::newArchiveWriter(fs.get(), uri);
  auto out = writer->beginAddFile(entryURI("open"), tal::CTimeFields());
  out->write("abc", 3, nullptr);
  writer->close();
  try {
    out->write("d", 1, nullptr);
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(e.getProblem(), tal::CFileSystemError::Unspecified);
    EXPECT_EQ(e.getCode(), tal::CIOError::WriteFailed);
    EXPECT_EQ(utf8(e.getMessage()), "Cannot write file in ZIP archive - archive has already been closed");
    EXPECT_EQ(utf8(e.getProps().get("uri")), uriText() + "/open");
  }
  EXPECT_THROW(out->write("d", 1, nullptr), tal::CIOError); // now a plain StreamClosed
  out->close();
  EXPECT_EQ(testsupport::runPython("import zipfile,sys; print(zipfile.ZipFile(sys.argv[1]).read('open'))",
                                   {dir.file("w.zip")}),
            "b'abc'\n"); // the archive was completed
  auto writer2 = testsupport::newArchiveWriter(fs.get(), uri);
  auto out2 = writer2->beginAddFile(entryURI("x"), tal::CTimeFields());
  writer2->close();
  try {
    out2->close();
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(utf8(e.getMessage()), "Cannot close file in ZIP archive - archive has already been closed");
    EXPECT_EQ(e.getCode(), tal::CIOError::WriteFailed);
  }
  out2->close();
}

TEST_F(WriterTest, DestructorCompletesTheArchive) {
  {
    auto writer = testsupport::newArchiveWriter(fs.get(), uri);
    auto out = writer->beginAddFile(entryURI("kept"), tal::CTimeFields());
    out->write("kept", 4, nullptr);
  }
  EXPECT_EQ(testsupport::runPython("import zipfile,sys; print(zipfile.ZipFile(sys.argv[1]).read('kept'))",
                                   {dir.file("w.zip")}),
            "b'kept'\n");
  EXPECT_THROW(CZipWriter onStack(fs.get(), uri, tal::String(), CZipWriter::CompDefault), tal::CError);
}

TEST_F(WriterTest, CreateEmptyArchiveReplacesTheFile) {
  testsupport::writeFile(dir.file("w.zip"), std::string(1000, 'z'));
  ziputil::createEmptyArchive(fs.get(), uri);
  std::string bytes = testsupport::readFile(dir.file("w.zip"));
  ASSERT_EQ(bytes.size(), 22u);
  EXPECT_EQ(bytes.substr(0, 4), "PK\x05\x06");
  EXPECT_EQ(bytes.substr(4), std::string(18, '\0'));
  auto reader = tal::newObj<CZipReader>(fs.get(), uri, tal::String());
  EXPECT_FALSE(reader->nextFile());
  EXPECT_THROW(ziputil::createEmptyArchive(fs.get(), dir.uri("no/such/dir.zip")), tal::CIOError);
}

/// Raw deflate of `data` as zlib makes it with the writer's parameters (window bits -15, memory level 8, default
/// strategy) at `level`.
std::string rawDeflate(std::string const& data, int level) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string result(deflateBound(&stream, static_cast<uLong>(data.size())) + 16, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(&result[0]);
  stream.avail_out = static_cast<uInt>(result.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  result.resize(stream.total_out);
  deflateEnd(&stream);
  return result;
}

/// Whether `data` is raw deflate data made of stored blocks only (as zlib makes at level 0) that inflates to
/// `expected`.
bool inflatesToStoredBlocks(std::string const& data, std::string const& expected) {
  std::size_t at = 0;
  for (bool last = false; !last;) { // stored blocks are byte-aligned: header byte, LEN, NLEN, bytes
    if (at + 5 > data.size()) return false;
    unsigned char const header = static_cast<unsigned char>(data[at]);
    if ((header >> 1 & 3) != 0) return false;
    last = header & 1;
    std::size_t const length = static_cast<unsigned char>(data[at + 1]) | static_cast<unsigned char>(data[at + 2]) << 8;
    at += 5 + length;
  }
  if (at != data.size()) return false;
  z_stream stream{};
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) return false;
  std::string result(expected.size() + 1, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(&result[0]);
  stream.avail_out = static_cast<uInt>(result.size());
  int const status = inflate(&stream, Z_FINISH);
  result.resize(stream.total_out);
  inflateEnd(&stream);
  return status == Z_STREAM_END && result == expected;
}

/// Text that compresses differently at every level.
std::string wordySample() {
  static char const* const words[] = {"alpha ", "beta ", "gamma ", "delta ", "epsilon ", "zeta ", "eta ", "theta "};
  std::string text;
  unsigned state = 12345;
  while (text.size() < 40000) {
    state = state * 1103515245u + 12345u;
    text += words[(state >> 16) % 8];
    if ((state >> 8) % 5 == 0) text += std::to_string(state % 1000);
  }
  return text;
}

TEST_F(WriterTest, HeadersCarryTheFixedEntryParameters) {
  std::string const sample = wordySample();
  auto writer = testsupport::newArchiveWriter(fs.get(), uri, "", 0);
  addEntry(*writer, "dated", sample, tal::CTimeFields(2015, 3, 7, 14, 5, 9, 0.0, 0, false));
  addEntry(*writer, "undated", "");
  writer->close();
  std::uint16_t archiveComment = 99;
  auto const entries = testsupport::parseArchive(testsupport::readFile(dir.file("w.zip")), &archiveComment);
  EXPECT_EQ(archiveComment, 0);
  ASSERT_EQ(entries.size(), 2u);
  for (auto const& entry : entries) {
    SCOPED_TRACE(entry.name);
    EXPECT_EQ(entry.versionMadeBy, 0);
    EXPECT_EQ(entry.localFlags, 0x800);   // UTF-8 names, no encryption, no data descriptor
    EXPECT_EQ(entry.centralFlags, 0x800);
    EXPECT_EQ(entry.localMethod, 8);      // deflated also at level 0
    EXPECT_EQ(entry.centralMethod, 8);
    ASSERT_FALSE(entry.localExtraIds.empty());
    EXPECT_EQ(entry.localExtraIds[0], 0x0001); // Zip64 extra field in every local header
    EXPECT_EQ(entry.commentLength, 0);
    EXPECT_EQ(entry.internalAttributes, 0);
    EXPECT_EQ(entry.externalAttributes, 0u);
    EXPECT_EQ(entry.localTime, entry.centralTime);
    EXPECT_EQ(entry.localDate, entry.centralDate);
  }
  // 2015-03-07 14:05:09: tm_year 2015, tm_mon 2, tm_mday 7, tm_hour 14, tm_min 5, tm_sec 9; minizip stores the
  // month as tm_mon + 1 and the seconds halved.
  EXPECT_EQ(entries[0].localTime, (14 << 11) | (5 << 5) | (9 / 2));
  EXPECT_EQ(entries[0].localDate, ((2015 - 1980) << 9) | (3 << 5) | 7);
  // A default time leaves every tm field zero: DOS time 0, and a date whose only bit is minizip's tm_mon + 1.
  EXPECT_EQ(entries[1].localTime, 0);
  EXPECT_EQ(entries[1].localDate, 1 << 5);
  // Level 0 with method 8: deflate data made of stored blocks only.
  EXPECT_TRUE(inflatesToStoredBlocks(entries[0].data, sample));
  EXPECT_EQ(entries[0].uncompressedSize, sample.size());
  EXPECT_TRUE(inflatesToStoredBlocks(entries[1].data, ""));
}

TEST_F(WriterTest, LevelReachesZlibUnchanged) {
  std::string const sample = wordySample();
  ASSERT_NE(rawDeflate(sample, 1), rawDeflate(sample, 9)); // the sample tells the levels apart
  ASSERT_NE(rawDeflate(sample, 1), rawDeflate(sample, 6));
  for (int level : {-1, 0, 1, 2, 6, 9}) {
    SCOPED_TRACE(level);
    auto writer = testsupport::newArchiveWriter(fs.get(), uri, "", level);
    addEntry(*writer, "sample.txt", sample);
    writer->close();
    auto const entries = testsupport::parseArchive(testsupport::readFile(dir.file("w.zip")));
    ASSERT_EQ(entries.size(), 1u);
    if (level == 0) {
      EXPECT_TRUE(inflatesToStoredBlocks(entries[0].data, sample));
    } else {
      std::string const expected = rawDeflate(sample, level);
      EXPECT_EQ(entries[0].data.size(), expected.size());
      EXPECT_TRUE(entries[0].data == expected);
    }
    EXPECT_EQ(entries[0].crc,
              crc32(0, reinterpret_cast<Bytef const*>(sample.data()), static_cast<uInt>(sample.size())));
  }
}

TEST_F(WriterTest, PasswordAddsTheEncryptionFlagAndHeader) {
  std::string const sample = wordySample();
  auto writer = testsupport::newArchiveWriter(fs.get(), uri, "pw", 6);
  addEntry(*writer, "secret", sample);
  addEntry(*writer, "empty", "");
  writer->close();
  auto const entries = testsupport::parseArchive(testsupport::readFile(dir.file("w.zip")));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].localFlags, 0x801);
  EXPECT_EQ(entries[0].centralFlags, 0x801);
  EXPECT_EQ(entries[1].localFlags, 0x801); // also an empty entry is encrypted
  // The 12-byte encryption header comes before the encrypted deflate data.
  EXPECT_EQ(entries[0].compressedSize, rawDeflate(sample, 6).size() + 12);
  EXPECT_FALSE(entries[0].data.substr(12) == rawDeflate(sample, 6));
  EXPECT_EQ(entries[1].compressedSize, rawDeflate("", 6).size() + 12);
}

TEST_F(WriterTest, InvalidNameDoesNotReachTheArchive) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<testsupport::CFaultyFileSystem> counting = tal::newObj<testsupport::CFaultyFileSystem>(memory.get());
  tal::CURI const archive(tal::String("mem:/invalid.zip"));
  auto writer = testsupport::newArchiveWriter(counting.get(), archive);
  std::string const before = memory->getFile(archive);
  counting->reset();
  for (tal::CURI const& bad :
       {tal::CURI(), tal::CURI(tal::String("mem:/other.zip")), tal::CURI(tal::String("x:rel"))}) {
    try {
      writer->beginAddFile(bad, tal::CTimeFields());
      FAIL() << utf8(bad.toString(true));
    } catch (tal::CInvalidArgError const& e) {
      EXPECT_EQ(typeid(e), typeid(tal::CInvalidArgError));
      EXPECT_EQ(utf8(e.getContext()), "");
      EXPECT_EQ(e.getCause(), nullptr);
    }
  }
  for (int op = 0; op < testsupport::CFaultyFileSystem::OpCount; ++op)
    EXPECT_EQ(counting->count(static_cast<testsupport::CFaultyFileSystem::Op>(op)), 0) << op; // minizip not called
  // A rooted relative reference is not absolute: it is taken, and its leading slash is kept.
  addEntry(*writer, "/rooted/x", "r");
  writer->close();
  auto const entries = testsupport::parseArchive(memory->getFile(archive));
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, "/rooted/x");
}

TEST_F(WriterTest, OpeningAMissingFileGivesTheFileSystemsError) {
  tal::CURI const missing = dir.uri("missing.zip");
  std::string expected;
  try {
    fs->openStream(missing, 3, 0); // what the bridge asks for
    FAIL();
  } catch (tal::CError const& e) {
    expected = std::string(typeid(e).name()) + "|" + std::to_string(e.getCode()) + "|" + utf8(e.getMessage()) + "|" +
               utf8(e.getProps().get("uri"));
  }
  try {
    tal::newObj<CZipWriter>(fs.get(), missing, tal::String(), CZipWriter::CompDefault);
    FAIL();
  } catch (tal::CError const& e) {
    EXPECT_EQ(std::string(typeid(e).name()) + "|" + std::to_string(e.getCode()) + "|" + utf8(e.getMessage()) + "|" +
                  utf8(e.getProps().get("uri")),
              expected);
  }
  EXPECT_FALSE(fs->exists(missing)); // not created
}

struct RoundTripCase {
  bool memory;
  char const* password;
  int level;
};

class WriterRoundTripTest : public ::testing::TestWithParam<RoundTripCase> {};

TEST_P(WriterRoundTripTest, ReaderReadsBackExactly) {
  testsupport::TempDir dir;
  tal::P<tal::IFileSystem> fs;
  tal::CURI uri;
  if (GetParam().memory) {
    fs = tal::P<tal::IFileSystem>(tal::newObj<tal::CMemoryFileSystem>());
    uri = tal::CURI(tal::String("mem:/round trip #1.zip"));
  } else {
    fs = tal::P<tal::IFileSystem>(tal::newObj<tal::CLocalFileSystem>());
    uri = dir.uri("round trip #1.zip");
  }
  std::string big;
  for (int i = 0; i < 300000; ++i) big += static_cast<char>((i * 31) ^ (i >> 5));
  std::vector<std::pair<std::string, std::string>> const entries{
      {"docs/readme.txt", "hello"},
      {"empty", ""},
      {"sp ace #1?%41.bin", big},
      {"caf\xC3\xA9/\xE2\x82\xAC.txt", "euro"}};
  tal::CTimeFields const time(2024, 2, 29, 23, 59, 58, 0.0, 0, false);
  {
    auto writer = testsupport::newArchiveWriter(fs.get(), uri, GetParam().password, GetParam().level);
    for (auto const& [name, data] : entries) {
      auto out = writer->beginAddFile(entryURI(name), time);
      for (std::size_t at = 0; at < data.size(); at += 7000)
        out->write(data.data() + at, static_cast<int>(std::min<std::size_t>(7000, data.size() - at)), nullptr);
      EXPECT_EQ(out->getPosition(), static_cast<long long>(data.size()));
      out->close();
    }
    writer->close();
  }
  auto reader = tal::newObj<CZipReader>(fs.get(), uri, tal::String(GetParam().password));
  for (auto const& [name, data] : entries) {
    ASSERT_TRUE(reader->nextFile());
    EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), name);
    EXPECT_EQ(reader->getCurrentFileUncompressedSize(), static_cast<long long>(data.size()));
    EXPECT_EQ(reader->getCurrentFileModifiedTimeFields(), time);
    auto in = reader->openCurrentFileStream();
    std::string back(data.size(), '\0');
    if (!back.empty()) in->read(&back[0], static_cast<int>(back.size()));
    EXPECT_TRUE(in->isEndOfStream());
    EXPECT_EQ(back, data) << name;
    in->close();
  }
  EXPECT_FALSE(reader->nextFile());
  if (*GetParam().password) {
    // The encryption header is random, and the reader accepts three of the 256 values of its check byte, so now and
    // then a wrong password gets past the open; it never gives back the entry's bytes.
    auto wrong = tal::newObj<CZipReader>(fs.get(), uri, tal::String("wrong"));
    ASSERT_TRUE(wrong->nextFile());
    tal::P<tal::IInStream> in;
    try {
      in = wrong->openCurrentFileStream();
    } catch (tal::CFileSystemError const& e) {
      EXPECT_EQ(utf8(e.getMessage()), "unzOpenCurrentFilePassword failed");
      EXPECT_EQ(utf8(e.getProps().get("result")), "-106");
    }
    if (in) {
      std::string const& expected = entries[0].second;
      std::string back(expected.size(), '\0');
      bool failed = false;
      try {
        in->read(&back[0], static_cast<int>(back.size()));
        in->close();
      } catch (tal::CError const&) {
        failed = true;
      }
      EXPECT_TRUE(failed || back != expected) << "a wrong password read the entry";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, WriterRoundTripTest,
                         ::testing::Values(RoundTripCase{false, "", 6}, RoundTripCase{true, "", 0},
                                           RoundTripCase{false, "pass word", 9}, RoundTripCase{true, "pw", 1}),
                         [](auto const& info) {
                           return std::string(info.param.memory ? "Memory" : "Local") +
                                  (*info.param.password ? "Password" : "Plain") + std::to_string(info.param.level);
                         });

} // namespace
