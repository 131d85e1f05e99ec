// The writer's options and per-entry options, checked with the tools users
// check archives with: Info-ZIP unzip (-t and -Z), Python's zipfile, 7-Zip and
// bsdtar, and this library's reader.
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"

#include <gtest/gtest.h>

using testsupport::entryURI;
using testsupport::runCommand;
using testsupport::runPython;
using testsupport::shellQuote;
using testsupport::utf8;
using ziputil::CZipWriter;

namespace {

tal::CTimeFields const kTime(2022, 7, 8, 9, 10, 12, 0.0, 0, false);

class WriterOptionsTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();

  tal::P<CZipWriter> writer(std::string const& name, CZipWriter::Options const& options, char const* password = "") {
    ziputil::createEmptyArchive(fs.get(), dir.uri(name));
    return tal::newObj<CZipWriter>(fs.get(), dir.uri(name), tal::String(password), CZipWriter::CompNormal, options);
  }
  static void add(CZipWriter& writer, std::string const& name, std::string const& data,
                  CZipWriter::EntryOptions const& options) {
    auto out = writer.beginAddFile(entryURI(name), kTime, options);
    if (!data.empty()) out->write(data.data(), static_cast<int>(data.size()), nullptr);
    out->close();
  }
  int run(std::string const& command, std::string* output) {
    output->clear();
    return runCommand("cd " + shellQuote(dir.path()) + " && " + command + " 2>&1", output);
  }
};

TEST_F(WriterOptionsTest, UnixModesLinksFoldersCommentsAndStoredEntriesReachEveryTool) {
  CZipWriter::Options options;
  options.madeByUnix = true;
  options.archiveComment = "made for the tools";
  auto w = writer("unix.zip", options);
  CZipWriter::EntryOptions file;
  file.unixMode = 0100640;
  file.comment = "a comment";
  add(*w, "caf\xC3\xA9 #1.txt", std::string(3000, 'c'), file);
  CZipWriter::EntryOptions stored;
  stored.method = CZipWriter::EntryOptions::Stored;
  add(*w, "stored.bin", "stored as it is", stored);
  CZipWriter::EntryOptions link;
  link.symbolicLink = true;
  add(*w, "link", "stored.bin", link);
  add(*w, "folder/", "", CZipWriter::EntryOptions());
  CZipWriter::EntryOptions fast;
  fast.method = CZipWriter::EntryOptions::Deflated;
  fast.level = 1;
  add(*w, "folder/fast.txt", std::string(5000, 'f'), fast);
  w->close();

  std::string output;
  EXPECT_EQ(run("unzip -t unix.zip", &output), 0) << output;
  EXPECT_EQ(output.find("mismatching"), std::string::npos) << output;
  EXPECT_NE(output.find("caf\xC3\xA9 #1.txt"), std::string::npos) << output; // the name as UTF-8
  EXPECT_EQ(run("unzip -Z unix.zip", &output), 0) << output;
  EXPECT_NE(output.find("-rw-r-----  3.0 unx     3000"), std::string::npos) << output;
  EXPECT_NE(output.find("lrwxrwxrwx  3.0 unx       10"), std::string::npos) << output;
  EXPECT_NE(output.find("drwxr-xr-x  3.0 unx"), std::string::npos) << output;
  EXPECT_NE(output.find("-rw-r--r--  3.0 unx       15 b- stor"), std::string::npos) << output;
  EXPECT_EQ(runPython(R"(
import sys, zipfile
z = zipfile.ZipFile(sys.argv[1])
print(z.testzip(), repr(z.comment))
for i in z.infolist():
    print(i.filename, i.create_system, oct(i.external_attr >> 16), i.compress_type, repr(i.comment))
)",
                      {dir.file("unix.zip")}),
            "None b'made for the tools'\n"
            "caf\xC3\xA9 #1.txt 3 0o100640 8 b'a comment'\n"
            "stored.bin 3 0o100644 0 b''\n"
            "link 3 0o120777 8 b''\n"
            "folder/ 3 0o40755 8 b''\n"
            "folder/fast.txt 3 0o100644 8 b''\n");
  EXPECT_EQ(run("7z t unix.zip", &output), 0) << output;
  EXPECT_NE(output.find("Everything is Ok"), std::string::npos) << output;
  EXPECT_EQ(output.find("Warning"), std::string::npos) << output;
  EXPECT_EQ(run("bsdtar -tvf unix.zip", &output), 0) << output;
  EXPECT_NE(output.find("lrwxrwxrwx"), std::string::npos) << output;
  EXPECT_NE(output.find("link -> stored.bin"), std::string::npos) << output;
  EXPECT_NE(output.find("-rw-r-----"), std::string::npos) << output;

  auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), dir.uri("unix.zip"), tal::String());
  EXPECT_EQ(reader->getArchiveComment(), "made for the tools");
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileUnixMode(), 0100640);
  EXPECT_EQ(reader->getCurrentFileComment(), "a comment");
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileMethod(), 0);
  ASSERT_TRUE(reader->nextFile());
  EXPECT_TRUE(reader->isCurrentFileSymbolicLink());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_TRUE(reader->isCurrentFileDirectory());
  EXPECT_EQ(reader->getCurrentFileExternalAttributes(), (040755ul << 16) | 0x10);
}

TEST_F(WriterOptionsTest, InteroperableEncryptionOpensWithTheRightPasswordEverywhere) {
  CZipWriter::Options options;
  options.madeByUnix = true;
  options.interoperableEncryption = true;
  auto w = writer("secret.zip", options, "pass word");
  add(*w, "deflated.txt", std::string(4000, 'd') + "end", CZipWriter::EntryOptions());
  CZipWriter::EntryOptions stored;
  stored.method = CZipWriter::EntryOptions::Stored;
  add(*w, "stored.txt", "stored secret", stored);
  w->close();

  auto raw = testsupport::parseArchive(testsupport::readFile(dir.file("secret.zip")));
  ASSERT_EQ(raw.size(), 2u);
  EXPECT_EQ(raw[0].centralFlags & 0x809, 0x809); // encrypted, streamed, UTF-8
  std::string output;
  EXPECT_EQ(run("unzip -P 'pass word' -t secret.zip", &output), 0) << output;
  EXPECT_NE(run("unzip -P 'wrong' -t secret.zip", &output), 0) << output;
  EXPECT_EQ(runPython(R"(
import sys, zipfile
z = zipfile.ZipFile(sys.argv[1])
z.setpassword(b"pass word")
print(len(z.read("deflated.txt")), z.read("stored.txt"), z.testzip())
)",
                      {dir.file("secret.zip")}),
            "4003 b'stored secret' None\n");
  EXPECT_EQ(run("7z t '-ppass word' secret.zip", &output), 0) << output;
  EXPECT_NE(output.find("Everything is Ok"), std::string::npos) << output;
  EXPECT_EQ(run("bsdtar --passphrase 'pass word' -xOf secret.zip stored.txt", &output), 0) << output;
  EXPECT_EQ(output, "stored secret");

  auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), dir.uri("secret.zip"), tal::String("pass word"));
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  std::string data(4003, '\0');
  in->read(&data[0], 4003);
  EXPECT_EQ(data, std::string(4000, 'd') + "end");
  in->close();
}

TEST_F(WriterOptionsTest, TheArchiveCommentIsKeptReplacedOrEmptied) {
  for (int choice = 0; choice < 3; ++choice) {
    std::string const name = "comment" + std::to_string(choice) + ".zip";
    runPython(R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1], "w") as z:
    z.writestr("old.txt", b"old")
    z.comment = b"the old comment"
)",
              {dir.file(name)});
    CZipWriter::Options options;
    if (choice == 1) options.keepArchiveComment = true;
    if (choice == 2) options.archiveComment = "a new one";
    auto w = tal::newObj<CZipWriter>(fs.get(), dir.uri(name), tal::String(), CZipWriter::CompNormal, options);
    testsupport::addEntry(*w, "new.txt", "new");
    w->close();
    auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), dir.uri(name), tal::String());
    EXPECT_EQ(reader->getArchiveComment(), choice == 0 ? "" : choice == 1 ? "the old comment" : "a new one");
    EXPECT_EQ(reader->getEntryCount(), 2);
  }
}

TEST_F(WriterOptionsTest, TheDefaultsStayThoseOfThePlainConstructor) {
  auto plain = testsupport::newArchiveWriter(fs.get(), dir.uri("plain.zip"), "pw", 6);
  testsupport::addEntry(*plain, "a.txt", "text", kTime);
  plain->close();
  auto w = writer("options.zip", CZipWriter::Options(), "pw");
  auto out = w->beginAddFile(entryURI("a.txt"), kTime, CZipWriter::EntryOptions());
  out->write("text", 4, nullptr);
  out->close();
  w->close();
  auto a = testsupport::parseArchive(testsupport::readFile(dir.file("plain.zip")));
  auto b = testsupport::parseArchive(testsupport::readFile(dir.file("options.zip")));
  ASSERT_EQ(a.size(), 1u);
  ASSERT_EQ(b.size(), 1u);
  EXPECT_EQ(b[0].versionMadeBy, 0);
  EXPECT_EQ(b[0].centralFlags, a[0].centralFlags);
  EXPECT_EQ(b[0].centralMethod, 8);
  EXPECT_EQ(b[0].externalAttributes, 0u);
  EXPECT_EQ(b[0].crc, a[0].crc);
  EXPECT_EQ(b[0].compressedSize, a[0].compressedSize);
}

TEST_F(WriterOptionsTest, AnInvalidLevelIsRefusedBeforeAnythingIsWritten) {
  auto w = writer("level.zip", CZipWriter::Options());
  CZipWriter::EntryOptions options;
  options.method = CZipWriter::EntryOptions::Deflated;
  options.level = 10;
  try {
    w->beginAddFile(entryURI("a"), kTime, options);
    FAIL();
  } catch (tal::CInvalidArgError const& e) {
    EXPECT_EQ(utf8(e.getMessage()), "Invalid argument passed to 'CZipWriter::beginAddFile': level is invalid.");
    EXPECT_EQ(e.getProps(), (tal::CProps{{"level", "10"}}));
  }
  testsupport::addEntry(*w, "b", "still open"); // the writer is unharmed
  w->close();
  EXPECT_EQ(runPython("import sys,zipfile; print(zipfile.ZipFile(sys.argv[1]).namelist())", {dir.file("level.zip")}),
            "['b']\n");
}

} // namespace
