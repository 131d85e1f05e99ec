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

}  // namespace
