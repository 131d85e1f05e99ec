// What the reader reports of each entry beyond its name, sizes and time, for
// archives made by other tools: system and mode, symbolic links, comments,
// extra fields, encryption, and the archive's count and comment.
#include "ziputil/CZipReader.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using testsupport::utf8;
using ziputil::CZipReader;

namespace {

class ReaderMetadataTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();

  tal::P<CZipReader> open(std::string const& name) {
    return tal::newObj<CZipReader>(fs.get(), dir.uri(name), tal::String());
  }
  static std::string contents(CZipReader& reader) {
    auto in = reader.openCurrentFileStream();
    std::string data(static_cast<std::size_t>(reader.getCurrentFileUncompressedSize()), '\0');
    if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
    in->close();
    return data;
  }
};

TEST_F(ReaderMetadataTest, NothingIsReportedWhenNotPositioned) {
  testsupport::makeZip(dir.file("one.zip"), {{"a.txt", "a"}});
  auto reader = open("one.zip");
  EXPECT_FALSE(reader->isCurrentFileEncrypted());
  EXPECT_EQ(reader->getCurrentFileVersionMadeBy(), -1);
  EXPECT_EQ(reader->getCurrentFileExternalAttributes(), 0u);
  EXPECT_EQ(reader->getCurrentFileUnixMode(), -1);
  EXPECT_FALSE(reader->isCurrentFileSymbolicLink());
  EXPECT_EQ(reader->getCurrentFileComment(), "");
  EXPECT_EQ(reader->getCurrentFileExtraField(), "");
  EXPECT_EQ(reader->getEntryCount(), 1);
  ASSERT_TRUE(reader->nextFile());
  EXPECT_FALSE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileVersionMadeBy(), -1);
  reader->close();
  EXPECT_EQ(reader->getEntryCount(), -1);
  EXPECT_EQ(reader->getArchiveComment(), "");
}

TEST_F(ReaderMetadataTest, ClosingWhilePositionedLeavesOnlyTheURI) {
  testsupport::makeZip(dir.file("one.zip"), {{"a.txt", "abc"}});
  auto reader = open("one.zip");
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileUncompressedSize(), 3);
  reader->close();
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "a.txt"); // the URI stays
  EXPECT_EQ(reader->getCurrentFileUncompressedSize(), 0);
  EXPECT_EQ(reader->getCurrentFileCompressedSize(), 0);
  EXPECT_TRUE(reader->getCurrentFileModifiedTimeFields().isEmpty());
  EXPECT_EQ(reader->getCurrentFileCRC32(), 0u);
  EXPECT_EQ(reader->getCurrentFileMethod(), -1);
  EXPECT_EQ(reader->getCurrentFileRawName(), "");
  EXPECT_FALSE(reader->isCurrentFileNameUTF8());
  EXPECT_FALSE(reader->isCurrentFileEncrypted());
  EXPECT_EQ(reader->getCurrentFileUnixMode(), -1);
  EXPECT_EQ(reader->getCurrentFileComment(), "");
  try {
    reader->openCurrentFileStream();
    FAIL();
  } catch (tal::CIOError const& e) {
    EXPECT_EQ(e.getCode(), tal::CIOError::StreamClosed);
    EXPECT_EQ(utf8(e.getMessage()), "ZIP file already closed");
    EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", dir.uri("one.zip").toString(true)}}));
  }
}

TEST_F(ReaderMetadataTest, ModesCommentsAndExtraFieldsWrittenByPython) {
  testsupport::runPython(R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1], "w") as z:
    info = zipfile.ZipInfo("private.txt", (2021, 2, 3, 4, 5, 6))
    info.create_system = 3
    info.external_attr = 0o100600 << 16
    info.comment = b"entry comment \xff"
    info.extra = b"\x99\x99\x04\x00abcd"
    z.writestr(info, b"private")
    link = zipfile.ZipInfo("link", (2021, 2, 3, 4, 5, 6))
    link.create_system = 3
    link.external_attr = 0o120777 << 16
    z.writestr(link, b"private.txt")
    dos = zipfile.ZipInfo("dos.txt")
    dos.create_system = 0
    dos.external_attr = 0x20
    z.writestr(dos, b"dos")
    z.comment = b"archive comment"
)",
                         {dir.file("python.zip")});
  auto reader = open("python.zip");
  EXPECT_EQ(reader->getEntryCount(), 3);
  EXPECT_EQ(reader->getArchiveComment(), "archive comment");
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileVersionMadeBy() >> 8, 3);
  EXPECT_EQ(reader->getCurrentFileUnixMode(), 0100600);
  EXPECT_EQ(reader->getCurrentFileExternalAttributes(), 0100600ul << 16);
  EXPECT_FALSE(reader->isCurrentFileSymbolicLink());
  EXPECT_FALSE(reader->isCurrentFileEncrypted());
  EXPECT_EQ(reader->getCurrentFileComment(), "entry comment \xff");
  EXPECT_EQ(reader->getCurrentFileExtraField(), std::string("\x99\x99\x04\x00" "abcd", 8));
  EXPECT_EQ(reader->getCurrentFileMethod(), 0);
  EXPECT_EQ(contents(*reader), "private"); // reading the extra fields left the entry readable
  ASSERT_TRUE(reader->nextFile());
  EXPECT_TRUE(reader->isCurrentFileSymbolicLink());
  EXPECT_EQ(reader->getCurrentFileUnixMode(), 0120777);
  EXPECT_EQ(contents(*reader), "private.txt");
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileVersionMadeBy() >> 8, 0);
  EXPECT_EQ(reader->getCurrentFileUnixMode(), -1); // not made by Unix
  EXPECT_EQ(reader->getCurrentFileExternalAttributes(), 0x20u);
  EXPECT_FALSE(reader->isCurrentFileSymbolicLink());
  EXPECT_EQ(reader->getCurrentFileComment(), "");
}

TEST_F(ReaderMetadataTest, ModesAndLinksStoredByInfoZip) {
  ASSERT_EQ(::mkdir(dir.file("src").c_str(), 0755), 0);
  testsupport::writeFile(dir.file("src/mode640.txt"), "six four oh");
  ASSERT_EQ(::chmod(dir.file("src/mode640.txt").c_str(), 0640), 0);
  ASSERT_EQ(::symlink("mode640.txt", dir.file("src/link").c_str()), 0);
  std::string output;
  ASSERT_EQ(testsupport::runCommand("cd " + testsupport::shellQuote(dir.path()) + " && zip -q -r -y info.zip src", &output),
            0);
  auto reader = open("info.zip");
  int seen = 0;
  while (reader->nextFile()) {
    std::string const name = utf8(reader->getCurrentFileRelativeURI().getPath());
    EXPECT_EQ(reader->getCurrentFileVersionMadeBy() >> 8, 3) << name;
    if (name == "src/mode640.txt") {
      EXPECT_EQ(reader->getCurrentFileUnixMode(), 0100640);
      EXPECT_FALSE(reader->isCurrentFileSymbolicLink());
      ++seen;
    } else if (name == "src/link") {
      EXPECT_TRUE(reader->isCurrentFileSymbolicLink());
      EXPECT_EQ(contents(*reader), "mode640.txt");
      ++seen;
    } else if (name == "src") {
      EXPECT_EQ(reader->getCurrentFileUnixMode() & 0170000, 0040000);
      ++seen;
    }
  }
  EXPECT_EQ(seen, 3);
}

TEST_F(ReaderMetadataTest, EncryptedEntriesAreReportedAsSuch) {
  auto writer = testsupport::newArchiveWriter(fs.get(), dir.uri("secret.zip"), "pw", 6);
  testsupport::addEntry(*writer, "s.txt", "secret");
  writer->close();
  auto reader = open("secret.zip");
  ASSERT_TRUE(reader->nextFile());
  EXPECT_TRUE(reader->isCurrentFileEncrypted());
  EXPECT_EQ(reader->getCurrentFileVersionMadeBy(), 0); // what the writer stores by default
  EXPECT_EQ(reader->getCurrentFileUnixMode(), -1);
}

} // namespace
