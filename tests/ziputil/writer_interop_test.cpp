// What the writer makes, checked by other tools; archives of other tools, added to.
#include "ziputil/CZipWriter.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>

using testsupport::addEntry;
using testsupport::runPython;
using testsupport::shellQuote;
using testsupport::utf8;

namespace {

class WriterInteropTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();

  /// Python's view: every entry tested (testzip), method 8, UTF-8 flag, a Zip64 extra field in each local header.
  std::string pythonCheck(std::string const& archive) {
    return runPython(R"(
import struct, sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as z:
    assert z.testzip() is None
    raw = open(sys.argv[1], "rb").read()
    for info in z.infolist():
        at = info.header_offset
        n, e = struct.unpack_from("<HH", raw, at + 26)
        extra = raw[at + 30 + n: at + 30 + n + e]
        assert info.compress_type == 8, info.filename
        assert info.flag_bits & 0x800, info.filename
        assert struct.unpack_from("<H", extra, 0)[0] == 1, info.filename
    print(len(z.infolist()))
)",
                     {archive});
  }
  int unzipTest(std::string const& archive, std::string* output, char const* password = nullptr) {
    std::string command = "unzip -t ";
    if (password) command += "-P " + shellQuote(password) + " ";
    return testsupport::runCommand(command + shellQuote(archive) + " 2>&1", output);
  }
};

TEST_F(WriterInteropTest, TreeWithEmptyFilesAtLevelsZeroAndNine) {
  for (int level : {0, 9}) {
    std::string const name = "tree" + std::to_string(level) + ".zip";
    auto writer = testsupport::newArchiveWriter(fs.get(), dir.uri(name), "", level);
    addEntry(*writer, "tree/", "");
    addEntry(*writer, "tree/a.txt", std::string(10000, 'a'));
    addEntry(*writer, "tree/empty.txt", "");
    addEntry(*writer, "tree/sub/b.bin", std::string(3000, '\x07'));
    writer->close();
    EXPECT_EQ(pythonCheck(dir.file(name)), "4\n");
    std::string output;
    EXPECT_EQ(unzipTest(dir.file(name), &output), 0) << output;
    EXPECT_NE(output.find("No errors detected"), std::string::npos);
  }
}

TEST_F(WriterInteropTest, Utf8NamesReadByPythonAndTestedByUnzip) {
  auto writer = testsupport::newArchiveWriter(fs.get(), dir.uri("utf8.zip"));
  addEntry(*writer, "caf\xC3\xA9/\xE2\x82\xAC uro.txt", "euro");
  writer->close();
  EXPECT_EQ(runPython("import zipfile,sys; z=zipfile.ZipFile(sys.argv[1]); print(z.namelist()[0], z.read(z.namelist()[0]).decode())",
                      {dir.file("utf8.zip")}),
            "caf\xC3\xA9/\xE2\x82\xAC uro.txt euro\n");
  EXPECT_EQ(pythonCheck(dir.file("utf8.zip")), "1\n");
  // Info-ZIP unzip 6.0 takes version-made-by 0 as MS-DOS, converts the central
  // name from code page 437 and then warns that the local name differs
  // (exit status 1); the entry itself tests OK.
  std::string output;
  EXPECT_EQ(unzipTest(dir.file("utf8.zip"), &output), 1) << output;
  EXPECT_NE(output.find("mismatching \"local\" filename"), std::string::npos) << output;
  EXPECT_NE(output.find(" OK"), std::string::npos) << output;
  EXPECT_EQ(output.find("bad CRC"), std::string::npos) << output;
}

TEST_F(WriterInteropTest, PasswordEntriesAndOtherTools) {
  auto writer = testsupport::newArchiveWriter(fs.get(), dir.uri("enc.zip"), "pw");
  addEntry(*writer, "secret.txt", "secret text");
  writer->close();
  // The writer leaves the check byte of the encryption header 0 (it does not
  // know the CRC in advance). Info-ZIP unzip and Python compare it with the
  // CRC's high byte, so they refuse the right password unless that byte
  // happens to be 0; the reader of this library accepts 0.
  std::string output;
  int const status = unzipTest(dir.file("enc.zip"), &output, "pw");
  EXPECT_NE(status, 0) << output;
  EXPECT_NE(output.find("incorrect password"), std::string::npos) << output;
  EXPECT_EQ(runPython(R"(
import sys, zipfile
try:
    zipfile.ZipFile(sys.argv[1]).read("secret.txt", pwd=b"pw")
    print("read")
except RuntimeError as e:
    print("refused:", e)
)",
                      {dir.file("enc.zip")}),
            "refused: Bad password for file 'secret.txt'\n");
  auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), dir.uri("enc.zip"), tal::String("pw"));
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  char text[11];
  in->read(text, 11);
  EXPECT_EQ(std::string(text, 11), "secret text");
}

TEST_F(WriterInteropTest, AddingToArchivesOfOtherTools) {
  testsupport::writeFile(dir.file("src.txt"), "made by another tool");
  std::string const cd = "cd " + shellQuote(dir.path()) + " && ";
  ASSERT_EQ(testsupport::runCommand(cd + "zip -q infozip.zip src.txt"), 0);
  ASSERT_EQ(testsupport::runCommand(cd + "bsdtar -a -cf bsdtar.zip src.txt"), 0);
  runPython("import zipfile,sys; zipfile.ZipFile(sys.argv[1],'w',zipfile.ZIP_DEFLATED).write(sys.argv[2],'src.txt')",
            {dir.file("python.zip"), dir.file("src.txt")});
  for (char const* archive : {"infozip.zip", "bsdtar.zip", "python.zip"}) {
    SCOPED_TRACE(archive);
    auto writer = tal::newObj<ziputil::CZipWriter>(fs.get(), dir.uri(archive), tal::String(),
                                                   ziputil::CZipWriter::CompDefault);
    addEntry(*writer, "added.txt", "added by the writer");
    writer->close();
    EXPECT_EQ(runPython(R"(
import sys, zipfile
z = zipfile.ZipFile(sys.argv[1])
assert z.testzip() is None
print(z.namelist(), z.read("src.txt").decode(), "/", z.read("added.txt").decode())
)",
                        {dir.file(archive)}),
              "['src.txt', 'added.txt'] made by another tool / added by the writer\n");
    std::string output;
    EXPECT_EQ(unzipTest(dir.file(archive), &output), 0) << output;
  }
}

TEST_F(WriterInteropTest, ExactlyAndMoreThan65535Entries) {
  for (int count : {65535, 65537}) {
    std::string const name = "many" + std::to_string(count) + ".zip";
    auto writer = testsupport::newArchiveWriter(fs.get(), dir.uri(name), "", 0);
    for (int i = 0; i < count; ++i) addEntry(*writer, "e" + std::to_string(i), i % 10000 ? "" : "x");
    writer->close();
    EXPECT_EQ(runPython("import zipfile,sys; z=zipfile.ZipFile(sys.argv[1]); print(len(z.infolist()), z.read('e0'))",
                        {dir.file(name)}),
              std::to_string(count) + " b'x'\n");
    std::string output;
    EXPECT_EQ(testsupport::runCommand("unzip -tq " + shellQuote(dir.file(name)) + " 2>&1", &output), 0) << output;
    auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), dir.uri(name), tal::String());
    int walked = 0;
    while (reader->nextFile()) ++walked;
    EXPECT_EQ(walked, count);
  }
}

} // namespace
