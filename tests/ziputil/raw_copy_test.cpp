// Entries copied as they are stored: the reader's raw stream and getters, the
// writer's raw entries, copyFileFrom, and archives rebuilt without some of
// their entries (deleting and replacing), checked field by field against the
// archive's own bytes and by Python's zipfile, Info-ZIP unzip and 7-Zip.
#include "ziputil/CZipWriter.h"

#include "support/FaultyFileSystem.h"
#include "support/StreamChecks.h"
#include "support/TempDir.h"
#include "support/TestFileSystems.h"
#include "support/WriterChecks.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <memory>
#include <set>
#include <sstream>

using testsupport::entryURI;
using testsupport::shellQuote;
using testsupport::utf8;
using ziputil::CZipReader;
using ziputil::CZipWriter;

namespace {

/// Python writes an archive with a bit of everything: stored and deflated
/// entries, comments, extra fields, Unix modes, internal attributes, a folder,
/// UTF-8 names and the archive comment; and, to an unseekable file, entries
/// followed by data descriptors (general-purpose bit 3).
void makeVarietyArchives(std::string const& seekable, std::string const& streamed) {
  testsupport::runPython(R"(
import sys, zipfile, random
random.seed(7)
words = [b"alpha", b"beta", b"gamma", b"delta", b"\n", b"epsilon"]
text = b" ".join(random.choice(words) for _ in range(40000))
noise = bytes(random.getrandbits(8) for _ in range(30000))
with zipfile.ZipFile(sys.argv[1], "w") as z:
    z.comment = b"the archive's comment"
    i = zipfile.ZipInfo("stored.txt", (2021, 2, 3, 4, 5, 6))
    i.compress_type = zipfile.ZIP_STORED
    i.comment = b"an entry comment"
    i.create_system = 3
    i.external_attr = 0o100640 << 16
    z.writestr(i, text[:5000])
    i = zipfile.ZipInfo("deflated.txt", (2022, 12, 31, 23, 59, 58))
    i.compress_type = zipfile.ZIP_DEFLATED
    i.extra = b"\xfe\xca\x04\x00abcd"
    i.internal_attr = 1
    z.writestr(i, text, compresslevel=9)
    z.writestr(zipfile.ZipInfo("folder/", (2020, 1, 1, 0, 0, 0)), b"")
    i = zipfile.ZipInfo("caf\u00e9/na\u00efve #1.bin", (2019, 6, 7, 8, 9, 10))
    i.compress_type = zipfile.ZIP_DEFLATED
    z.writestr(i, noise, compresslevel=1)
    z.writestr(zipfile.ZipInfo("empty", (2018, 1, 1, 0, 0, 0)), b"")

class Unseekable:
    def __init__(self, f): self.f = f
    def write(self, b): return self.f.write(b)
    def flush(self): self.f.flush()
    def tell(self): raise OSError("unseekable")
with open(sys.argv[2], "wb") as f:
    with zipfile.ZipFile(Unseekable(f), "w", zipfile.ZIP_DEFLATED) as z:
        with z.open(zipfile.ZipInfo("streamed.txt", (2023, 3, 4, 5, 6, 8)), "w") as e:
            e.write(text[:20000])
        with z.open(zipfile.ZipInfo("streamed-stored", (2023, 3, 4, 5, 6, 8)), "w") as e:
            e.write(b"as it is")
)",
                         {seekable, streamed});
}

/// A ziputil archive with encrypted entries (both kinds of check byte) and Unix modes.
void makeEncryptedArchive(tal::IFileSystem* fs, tal::CURI const& uri, bool interoperable) {
  ziputil::createEmptyArchive(fs, uri);
  CZipWriter::Options options;
  options.madeByUnix = true;
  options.interoperableEncryption = interoperable;
  auto writer = tal::newObj<CZipWriter>(fs, uri, tal::String("secret"), CZipWriter::CompNormal, options);
  tal::CTimeFields const time(2024, 5, 6, 7, 8, 10, 0.0, 0, false);
  std::string text;
  for (int i = 0; i < 3000; ++i) text += "line " + std::to_string(i) + "\n";
  auto out = writer->beginAddFile(entryURI("secret.txt"), time);
  out->write(text.data(), static_cast<int>(text.size()), nullptr);
  out->close();
  CZipWriter::EntryOptions stored;
  stored.method = CZipWriter::EntryOptions::Stored;
  stored.unixMode = 0100600;
  stored.comment = "stored and encrypted";
  out = writer->beginAddFile(entryURI("stored.bin"), time, stored);
  out->write("0123456789", 10, nullptr);
  out->close();
  writer->close();
}

std::string withoutZip64(std::string const& extra) {
  std::string kept;
  std::size_t at = 0;
  while (at + 4 <= extra.size()) {
    unsigned const id = static_cast<unsigned char>(extra[at]) | static_cast<unsigned char>(extra[at + 1]) << 8;
    std::size_t const size = static_cast<unsigned char>(extra[at + 2]) | static_cast<unsigned char>(extra[at + 3]) << 8;
    if (id != 1) kept.append(extra, at, 4 + size);
    at += 4 + size;
  }
  return kept;
}

std::vector<std::uint16_t> withoutZip64(std::vector<std::uint16_t> ids) {
  ids.erase(std::remove(ids.begin(), ids.end(), std::uint16_t(1)), ids.end());
  return ids;
}

/// Everything the reader reports of each entry, as one line per entry.
std::vector<std::string> describe(tal::IFileSystem* fs, tal::CURI const& uri, std::string* comment = nullptr) {
  auto reader = tal::newObj<CZipReader>(fs, uri, tal::String());
  std::vector<std::string> lines;
  while (reader->nextFile()) {
    std::ostringstream line;
    line << reader->getCurrentFileRawName() << '|' << reader->getCurrentFileMethod() << '|' << std::hex
         << reader->getCurrentFileFlags() << '|' << reader->getCurrentFileDosDate() << '|'
         << reader->getCurrentFileCRC32() << '|' << std::dec << reader->getCurrentFileUncompressedSize() << '|'
         << reader->getCurrentFileCompressedSize() << '|' << reader->getCurrentFileInternalAttributes() << '|'
         << std::oct << reader->getCurrentFileExternalAttributes() << '|' << std::hex
         << reader->getCurrentFileVersionMadeBy() << '|' << reader->getCurrentFileComment() << '|'
         << withoutZip64(reader->getCurrentFileExtraField()) << '|'
         << withoutZip64(reader->getCurrentFileLocalExtraField()) << '|';
    auto in = reader->openCurrentFileRawStream();
    std::string data(static_cast<std::size_t>(in->getLength()), '\0');
    if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
    EXPECT_EQ(in->readLax(&data[0], 1), 0);
    in->close();
    line << std::hex << crc32(0, reinterpret_cast<Bytef const*>(data.data()), static_cast<uInt>(data.size()));
    lines.push_back(line.str());
  }
  if (comment) *comment = reader->getArchiveComment();
  return lines;
}

/// The archive's entries as its own bytes say, for comparing with a copy:
/// every field but the Zip64 extra records, the local header's offset and the
/// version needed, which the copy's writer chooses.
std::vector<std::string> headers(std::string const& bytes) {
  std::vector<std::string> lines;
  for (testsupport::RawEntry const& e : testsupport::parseArchive(bytes)) {
    std::ostringstream line;
    line << e.name << '|' << e.versionMadeBy << '|' << e.localFlags << '|' << e.centralFlags << '|' << e.localMethod
         << '|' << e.centralMethod << '|' << e.localTime << '|' << e.localDate << '|' << e.centralTime << '|'
         << e.centralDate << '|' << e.commentLength << '|' << e.internalAttributes << '|' << e.externalAttributes
         << '|' << e.crc << '|' << e.compressedSize << '|' << e.uncompressedSize << '|';
    for (auto id : withoutZip64(e.localExtraIds)) line << id << ',';
    line << '|';
    for (auto id : withoutZip64(e.centralExtraIds)) line << id << ',';
    line << '|' << crc32(0, reinterpret_cast<Bytef const*>(e.data.data()), static_cast<uInt>(e.data.size()));
    lines.push_back(line.str());
  }
  return lines;
}

/// Copies every entry of `from` into a new archive `to`.
void copyAll(tal::IFileSystem* fs, tal::CURI const& from, tal::CURI const& to) {
  ziputil::createEmptyArchive(fs, to);
  auto reader = tal::newObj<CZipReader>(fs, from, tal::String());
  CZipWriter::Options options;
  options.archiveComment = reader->getArchiveComment();
  auto writer = tal::newObj<CZipWriter>(fs, to, tal::String(), CZipWriter::CompNormal, options);
  while (reader->nextFile()) writer->copyFileFrom(*reader);
  writer->close();
  reader->close();
}

class RawCopyTest : public ::testing::Test {
protected:
  testsupport::TempDir dir{"ziputil-raw"};
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();

  void expectOthersAccept(std::string const& name, std::string const& password = std::string()) {
    std::string output;
    std::string const pw = password.empty() ? std::string() : " -P " + shellQuote(password);
    EXPECT_EQ(testsupport::runCommand("unzip -tq" + pw + " " + shellQuote(dir.file(name)) + " 2>&1", &output), 0)
        << output;
    EXPECT_EQ(testsupport::sevenZipTest(dir.file(name), &output, password), 0) << output;
  }
};

TEST_F(RawCopyTest, CopiedEntriesKeepEveryFieldAndByteOfTheirStoredForm) {
  makeVarietyArchives(dir.file("variety.zip"), dir.file("streamed.zip"));
  makeEncryptedArchive(fs.get(), dir.uri("sealed.zip"), true);
  makeEncryptedArchive(fs.get(), dir.uri("sealed0.zip"), false);
  for (std::string const name : {"variety", "streamed", "sealed", "sealed0"}) {
    SCOPED_TRACE(name);
    tal::CURI const from = dir.uri(name + ".zip");
    tal::CURI const to = dir.uri(name + "-copy.zip");
    copyAll(fs.get(), from, to);
    std::string fromComment, toComment;
    std::vector<std::string> const original = describe(fs.get(), from, &fromComment);
    EXPECT_EQ(describe(fs.get(), to, &toComment), original);
    EXPECT_EQ(toComment, fromComment);
    EXPECT_EQ(headers(testsupport::readFile(dir.file(name + "-copy.zip"))),
              headers(testsupport::readFile(dir.file(name + ".zip"))));
    EXPECT_GE(original.size(), 2u);
  }
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("variety-copy.zip"), dir.file("streamed-copy.zip")}),
            (std::vector<std::string>{"stored.txt,deflated.txt,folder/,café/naïve #1.bin,empty None",
                                      "streamed.txt,streamed-stored None"}));
  expectOthersAccept("variety-copy.zip");
  expectOthersAccept("streamed-copy.zip");
  expectOthersAccept("sealed-copy.zip", "secret"); // the check byte from the time still fits: bit 3 and the date came along
  // The encrypted copies open with the password, in this reader too.
  for (std::string const name : {"sealed-copy.zip", "sealed0-copy.zip"}) {
    CZipReader::Options verify;
    verify.verifyEntries = true;
    auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri(name), tal::String("secret"), verify);
    ASSERT_TRUE(reader->tryGoToFile(entryURI("stored.bin")));
    EXPECT_TRUE(reader->isCurrentFileEncrypted());
    EXPECT_EQ(reader->getCurrentFileUnixMode(), 0100600);
    auto in = reader->openCurrentFileStream();
    char data[11] = {};
    EXPECT_EQ(in->readLax(data, 11), 10);
    EXPECT_STREQ(data, "0123456789");
    in->close();
  }
}

TEST_F(RawCopyTest, EntriesOfOtherMethodsAreCopiedAndDeletedByteForByte) {
  testsupport::runPython(R"(
import sys, zipfile
text = b"".join(b"line %d of the text\n" % i for i in range(20000))
with zipfile.ZipFile(sys.argv[1], "w") as z:
    z.writestr("bzip2.txt", text, compress_type=zipfile.ZIP_BZIP2)
    z.writestr("lzma.txt", text[:50000], compress_type=zipfile.ZIP_LZMA)
    z.writestr("deflated.txt", text[:30000], compress_type=zipfile.ZIP_DEFLATED)
)",
                         {dir.file("methods.zip")});
  copyAll(fs.get(), dir.uri("methods.zip"), dir.uri("methods-copy.zip"));
  std::vector<std::string> const original = describe(fs.get(), dir.uri("methods.zip"));
  ASSERT_EQ(original.size(), 3u);
  EXPECT_EQ(original[0].substr(0, 13), "bzip2.txt|12|");
  EXPECT_EQ(original[1].substr(0, 12), "lzma.txt|14|");
  EXPECT_EQ(describe(fs.get(), dir.uri("methods-copy.zip")), original);
  // Deleting the deflated entry keeps the others, which only other tools can check.
  CZipWriter::Options options;
  options.omitEntry = CZipWriter::omitNamed({entryURI("deflated.txt")});
  tal::newObj<CZipWriter>(fs.get(), dir.uri("methods.zip"), tal::String(), CZipWriter::CompNormal, options)->close();
  EXPECT_EQ(describe(fs.get(), dir.uri("methods.zip")), std::vector<std::string>(original.begin(), original.begin() + 2));
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("methods.zip"), dir.file("methods-copy.zip")}),
            (std::vector<std::string>{"bzip2.txt,lzma.txt None", "bzip2.txt,lzma.txt,deflated.txt None"}));
  std::string output;
  EXPECT_EQ(testsupport::sevenZipTest(dir.file("methods.zip"), &output), 0) << output;
}

TEST_F(RawCopyTest, RawStreamGivesTheStoredBytesAndHoldsTheReader) {
  makeEncryptedArchive(fs.get(), dir.uri("sealed.zip"), true);
  std::vector<testsupport::RawEntry> const stored = testsupport::parseArchive(testsupport::readFile(dir.file("sealed.zip")));
  auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri("sealed.zip"), tal::String());
  for (testsupport::RawEntry const& entry : stored) {
    ASSERT_TRUE(reader->nextFile());
    EXPECT_EQ(reader->getCurrentFileFlags(), entry.centralFlags);
    EXPECT_EQ(reader->getCurrentFileDosDate(), static_cast<unsigned long>(entry.centralDate) << 16 | entry.centralTime);
    EXPECT_EQ(reader->getCurrentFileInternalAttributes(), entry.internalAttributes);
    auto in = reader->openCurrentFileRawStream();
    EXPECT_EQ(in->getLength(), static_cast<long long>(entry.compressedSize));
    EXPECT_EQ(utf8(in->getURI().toString(true)), utf8((dir.uri("sealed.zip") << entryURI(entry.name)).toString(true)));
    std::string data(entry.data.size(), '\0');
    in->read(&data[0], static_cast<int>(data.size())); // with the 12-byte encryption header
    EXPECT_EQ(data, entry.data);
    EXPECT_TRUE(in->isEndOfStream());
    try {
      reader->nextFile();
      ADD_FAILURE() << "moved on under an open raw stream";
    } catch (tal::CError const& e) {
      testsupport::expectSameError(
          e, tal::CError(tal::String("CZipReader cannot advance to next file because the current file is still open."),
                         tal::String(), -1, tal::uriProps(dir.uri("sealed.zip")), nullptr));
    }
    try {
      reader->openCurrentFileRawStream();
      ADD_FAILURE() << "a second raw stream opened";
    } catch (tal::CError const& e) {
      testsupport::expectSameError(
          e, tal::CError(tal::String("CZipReader cannot open the current file because its stream is still open."),
                         tal::String(), -1, tal::uriProps(dir.uri("sealed.zip")), nullptr));
    }
    EXPECT_EQ(reader->getCurrentFileLocalExtraField().substr(0, 4), std::string("\x01\x00\x10\x00", 4)); // minizip's Zip64 record, read while the stream is open
    in->close();
  }
  EXPECT_FALSE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileFlags(), 0);
  EXPECT_EQ(reader->getCurrentFileDosDate(), 0ul);
  EXPECT_EQ(reader->getCurrentFileInternalAttributes(), 0ul);
  EXPECT_EQ(reader->getCurrentFileLocalExtraField(), "");
  try {
    reader->openCurrentFileRawStream();
    ADD_FAILURE() << "opened while not positioned";
  } catch (tal::CError const& e) {
    testsupport::expectSameError(e, tal::CError(tal::String("CZipReader not positioned at a file. Cannot open stream."),
                                                tal::String(), -1, tal::uriProps(dir.uri("sealed.zip")), nullptr));
  }
}

TEST_F(RawCopyTest, Zip64SizesKeepTheSystemThatMadeTheEntry) {
  // An entry of 5 GiB (as its raw sizes say) needs Zip64 sizes in its central header: the version needed
  // becomes 4.5, and the high byte of version made by still names Unix.
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI const uri(tal::String("mem:/zip64.zip"));
  auto writer = testsupport::newArchiveWriter(memory.get(), uri);
  CZipWriter::RawEntry entry;
  entry.name = "huge.bin";
  entry.method = 8;
  entry.crc32 = 0x12345678;
  entry.uncompressedSize = 5ULL << 30;
  entry.versionMadeBy = 0x031E;
  entry.externalAttributes = 0100644UL << 16;
  auto out = writer->beginAddRawFile(entry);
  out->write("\x03\x00", 2, nullptr);
  out->close();
  writer->close();
  std::string const bytes = memory->getFile(uri);
  std::size_t const central = bytes.rfind(std::string("PK\x01\x02", 4));
  ASSERT_NE(central, std::string::npos);
  auto field = [&](std::size_t at) {
    return static_cast<unsigned>(static_cast<unsigned char>(bytes[at])) |
           static_cast<unsigned>(static_cast<unsigned char>(bytes[at + 1])) << 8;
  };
  EXPECT_EQ(field(central + 4), 0x032Du); // made by Unix, version 4.5
  EXPECT_EQ(field(central + 6), 45u);     // needed: 4.5
}

TEST_F(RawCopyTest, RawEntryArgumentsAreCheckedBeforeAnythingIsWritten) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI const uri(tal::String("mem:/raw.zip"));
  auto writer = testsupport::newArchiveWriter(memory.get(), uri);
  std::string const before = memory->getFile(uri);
  auto expectRefused = [&](CZipWriter::RawEntry const& entry, char const* detail, tal::CProps const& props) {
    try {
      writer->beginAddRawFile(entry);
      ADD_FAILURE() << detail;
    } catch (tal::CError const& e) {
      testsupport::expectSameError(
          e, tal::CInvalidArgError(tal::String("CZipWriter::beginAddRawFile"), tal::String(detail), props));
    }
  };
  CZipWriter::RawEntry entry;
  expectRefused(entry, "name is invalid", tal::CProps{{"name", tal::String()}});
  entry.name = std::string(65536, 'n');
  expectRefused(entry, "name is invalid", tal::CProps{{"name", tal::String::fromUTF8(entry.name.c_str())}});
  entry.name = "n";
  entry.method = 65536;
  expectRefused(entry, "method is invalid", tal::CProps{{"method", tal::String("65536")}});
  entry.method = -1;
  expectRefused(entry, "method is invalid", tal::CProps{{"method", tal::String("-1")}});
  entry.method = 0;
  entry.comment = std::string(65536, 'c');
  expectRefused(entry, "comment is invalid", tal::CProps{{"comment", tal::String::fromUTF8(entry.comment.c_str())}});
  entry.comment.clear();
  entry.localExtraField = std::string(65516, 'x');
  expectRefused(entry, "extra field is invalid", tal::CProps());
  entry.localExtraField.clear();
  EXPECT_EQ(memory->getFile(uri), before);
  // A stored entry written raw, and one whose Zip64 record is dropped for the writer's own.
  entry.crc32 = crc32(0, reinterpret_cast<Bytef const*>("raw"), 3);
  entry.uncompressedSize = 3;
  entry.dosDate = 0x58A60000UL; // 2024-05-06 00:00:00
  entry.localExtraField = std::string("\x01\x00\x04\x00zzzz\xfe\xca\x01\x00q", 13);
  auto out = writer->beginAddRawFile(entry);
  testsupport::expectSameError(
      [&]() -> tal::CError {
        try {
          writer->beginAddRawFile(entry);
        } catch (tal::CError const& e) {
          return *e.clone();
        }
        return tal::CError(tal::String("none"), tal::String(), -1, tal::CProps(), nullptr);
      }(),
      tal::CError(tal::String("Internal error: CZipWriter::beginAddFile called before previous added file was finished."),
                  tal::String(), -1, tal::uriProps(uri), nullptr));
  out->write("raw", 3, nullptr);
  EXPECT_EQ(out->getPosition(), 3);
  out->close();
  writer->close();
  std::vector<testsupport::RawEntry> const written = testsupport::parseArchive(memory->getFile(uri));
  ASSERT_EQ(written.size(), 1u);
  EXPECT_EQ(written[0].data, "raw");
  EXPECT_EQ(written[0].centralMethod, 0);
  EXPECT_EQ(written[0].crc, entry.crc32);
  EXPECT_EQ(written[0].centralFlags, 0x800);
  EXPECT_EQ(written[0].centralDate, 0x58A6);
  EXPECT_EQ(written[0].localDate, 0x58A6);
  EXPECT_EQ(written[0].localExtraIds, (std::vector<std::uint16_t>{0xcafe, 1}));
  CZipReader::Options verify;
  verify.verifyEntries = true;
  auto reader = tal::newObj<CZipReader>(memory.get(), uri, tal::String(), verify);
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  char data[4] = {};
  EXPECT_EQ(in->readLax(data, 4), 3);
  EXPECT_STREQ(data, "raw");
  in->close();
}

/// An archive of five entries, "b" twice, with a comment.
class RawDeleteTest : public RawCopyTest {
protected:
  void SetUp() override {
    CZipWriter::Options options;
    options.madeByUnix = true;
    options.archiveComment = "kept?";
    ziputil::createEmptyArchive(fs.get(), uri);
    auto writer = tal::newObj<CZipWriter>(fs.get(), uri, tal::String(), CZipWriter::CompNormal, options);
    tal::CTimeFields const time(2024, 1, 2, 3, 4, 6, 0.0, 0, false);
    for (std::string const name : {"a", "b", "dir/c d.txt", "b", "e"}) {
      CZipWriter::EntryOptions entry;
      entry.comment = "about " + name;
      entry.method = name == "e" ? CZipWriter::EntryOptions::Stored : CZipWriter::EntryOptions::WriterDefault;
      auto out = writer->beginAddFile(entryURI(name), time, entry);
      std::string const data(30000 + name.size(), name[0]);
      out->write(data.data(), static_cast<int>(data.size()), nullptr);
      out->close();
    }
    writer->close();
    original = testsupport::readFile(dir.file("d.zip"));
  }

  /// The original's lines (headers and reader getters) without those at `indexes`.
  template <typename T>
  static std::vector<T> without(std::vector<T> lines, std::set<std::size_t> const& indexes) {
    std::vector<T> kept;
    for (std::size_t i = 0; i < lines.size(); ++i)
      if (!indexes.count(i)) kept.push_back(lines[i]);
    return kept;
  }

  tal::CURI uri = dir.uri("d.zip");
  std::string original;
};

TEST_F(RawDeleteTest, DeletingKeepsEveryOtherEntryAsItWas) {
  std::vector<std::string> const before = describe(fs.get(), uri);
  std::vector<std::string> const beforeHeaders = headers(original);
  auto omitted = std::make_shared<std::vector<std::string>>();
  CZipWriter::Options options;
  options.keepArchiveComment = true;
  options.omitEntry = CZipWriter::omitNamed({entryURI("b"), entryURI("/dir\\c d.txt"), entryURI("missing")}, omitted);
  auto writer = tal::newObj<CZipWriter>(fs.get(), uri, tal::String(), CZipWriter::CompNormal, options);
  EXPECT_EQ(testsupport::readFile(dir.file("d.zip")), original); // nothing changes before close
  EXPECT_EQ(testsupport::listFolder(dir.path()).size(), 2u);      // the archive and its copy
  writer->close();
  EXPECT_EQ(*omitted, (std::vector<std::string>{"b", "dir/c d.txt", "b"}));
  std::string comment;
  EXPECT_EQ(describe(fs.get(), uri, &comment), without(before, {1, 2, 3}));
  EXPECT_EQ(comment, "kept?");
  EXPECT_EQ(headers(testsupport::readFile(dir.file("d.zip"))), without(beforeHeaders, {1, 2, 3}));
  EXPECT_EQ(testsupport::listFolder(dir.path()), (std::vector<std::string>{"d.zip"}));
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("d.zip")}), (std::vector<std::string>{"a,e None"}));
  expectOthersAccept("d.zip");
}

TEST_F(RawDeleteTest, ReplacingPutsTheNewEntryAfterTheOthers) {
  std::vector<std::string> const before = describe(fs.get(), uri);
  CZipWriter::Options options;
  options.madeByUnix = true;
  options.omitEntry = CZipWriter::omitNamed({entryURI("a")});
  auto writer = tal::newObj<CZipWriter>(fs.get(), uri, tal::String(), CZipWriter::CompNormal, options);
  testsupport::addEntry(*writer, "a", "the new a", tal::CTimeFields(2025, 1, 1, 0, 0, 0, 0.0, 0, false));
  writer->close();
  std::string comment = "?";
  std::vector<std::string> const after = describe(fs.get(), uri, &comment);
  ASSERT_EQ(after.size(), 5u);
  EXPECT_EQ(std::vector<std::string>(after.begin(), after.begin() + 4), without(before, {0}));
  EXPECT_EQ(after[4].substr(0, 2), "a|");
  EXPECT_EQ(comment, ""); // the options' comment, as for any writer
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("d.zip")}), (std::vector<std::string>{"b,dir/c d.txt,b,e,a None"}));
  expectOthersAccept("d.zip");
}

TEST_F(RawDeleteTest, OmitFunctionErrorsPassUnchangedAndLeaveTheArchive) {
  CZipWriter::Options options;
  tal::CIOError const thrown(tal::CIOError::ReadFailed, tal::String("from the caller"), tal::CProps{{"k", tal::String("v")}},
                             nullptr);
  int seen = 0;
  options.omitEntry = [&](CZipReader& reader) -> bool {
    if (++seen == 3) throw thrown;
    return reader.getCurrentFileRawName() == "a";
  };
  try {
    tal::newObj<CZipWriter>(fs.get(), uri, tal::String(), CZipWriter::CompNormal, options);
    ADD_FAILURE() << "no error";
  } catch (tal::CError const& e) {
    testsupport::expectSameError(e, thrown);
  }
  EXPECT_EQ(testsupport::readFile(dir.file("d.zip")), original);
  EXPECT_EQ(testsupport::listFolder(dir.path()), (std::vector<std::string>{"d.zip"}));
}

/// Every I/O call of deleting an entry fails in turn: the caller gets the
/// injected error unchanged, the archive keeps its bytes, and no copy stays.
TEST(RawDeleteFaultsTest, EveryFailureLeavesTheOldArchive) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<testsupport::CRecordingFileSystem> recording = tal::newObj<testsupport::CRecordingFileSystem>(memory.get());
  tal::P<testsupport::CFaultyFileSystem> faulty = tal::newObj<testsupport::CFaultyFileSystem>(recording.get());
  tal::CURI const uri(tal::String("mem:/delete.zip"));
  {
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    testsupport::addEntry(*writer, "a", std::string(20000, 'a'));
    testsupport::addEntry(*writer, "b", std::string(20000, 'b'));
    testsupport::addEntry(*writer, "c", std::string(70000, 'c'));
    writer->close();
  }
  std::string const original = memory->getFile(uri);
  using Op = testsupport::CFaultyFileSystem::Op;
  std::string expected;
  int faults = 0;
  for (Op op : {Op::Open, Op::Read, Op::Write, Op::Seek, Op::Tell, Op::Close, Op::Length, Op::Sync, Op::Move}) {
    for (long long n = 1;; ++n) {
      memory->setFile(uri, original);
      recording->clear();
      faulty->reset();
      faulty->failNth(op, n);
      bool threw = false;
      try {
        CZipWriter::Options options;
        options.omitEntry = CZipWriter::omitNamed({entryURI("b")});
        auto writer = tal::newObj<CZipWriter>(faulty.get(), uri, tal::String(), CZipWriter::CompNormal, options);
        testsupport::addEntry(*writer, "d", std::string(1000, 'd'));
        writer->close();
      } catch (tal::CError const& e) {
        threw = true;
        EXPECT_EQ(typeid(e), typeid(testsupport::CInjectedError)) << e.what() << " at " << n;
        tal::CURI const where(e.getProps().get("uri"));
        testsupport::expectSameError(e, testsupport::CFaultyFileSystem::injectedError(op, n, where));
      }
      bool const fired = faulty->fired();
      faulty->failNth(op, 0);
      std::set<std::string> left = recording->existing();
      left.erase(utf8(uri.toString(true)));
      if (!fired) {
        EXPECT_FALSE(threw);
        expected = memory->getFile(uri);
        EXPECT_TRUE(left.empty());
        break;
      }
      ++faults;
      EXPECT_TRUE(threw) << testsupport::CFaultyFileSystem::opName(op) << " " << n;
      EXPECT_EQ(memory->getFile(uri), original) << testsupport::CFaultyFileSystem::opName(op) << " " << n;
      EXPECT_TRUE(left.empty()) << testsupport::CFaultyFileSystem::opName(op) << " " << n;
    }
  }
  EXPECT_GT(faults, 50);
  std::vector<testsupport::RawEntry> const kept = testsupport::parseArchive(expected);
  ASSERT_EQ(kept.size(), 3u);
  EXPECT_EQ(kept[0].name + kept[1].name + kept[2].name, "acd");
  std::vector<testsupport::RawEntry> const old = testsupport::parseArchive(original);
  EXPECT_EQ(kept[0].data, old[0].data);
  EXPECT_EQ(kept[1].data, old[2].data);
  testsupport::TempDir dir("ziputil-delete");
  testsupport::writeFile(dir.file("after.zip"), expected);
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("after.zip")}), (std::vector<std::string>{"a,c,d None"}));
}

}  // namespace
