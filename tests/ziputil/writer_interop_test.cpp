// What the writer makes, checked by other tools; archives of other tools, added to.
#include "ziputil/CZipWriter.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <vector>

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
  addEntry(*writer, "\xE6\x97\xA5\xE6\x9C\xAC #2.txt", std::string(5000, 'j'));
  addEntry(*writer, "plain.txt", "");
  writer->close();
  EXPECT_EQ(runPython("import zipfile,sys; z=zipfile.ZipFile(sys.argv[1]);"
                      " print(z.namelist()[0], z.read(z.namelist()[0]).decode())",
                      {dir.file("utf8.zip")}),
            "caf\xC3\xA9/\xE2\x82\xAC uro.txt euro\n");
  EXPECT_EQ(pythonCheck(dir.file("utf8.zip")), "3\n");
  // Info-ZIP unzip 6.0 takes version-made-by 0 as MS-DOS, converts the central
  // names from code page 437 and then warns that the local names differ
  // (exit status 1); every entry itself tests OK.
  std::string output;
  EXPECT_EQ(unzipTest(dir.file("utf8.zip"), &output), 1) << output;
  EXPECT_NE(output.find("mismatching \"local\" filename"), std::string::npos) << output;
  int ok = 0;
  for (std::size_t at = output.find("   OK"); at != std::string::npos; at = output.find("   OK", at + 1)) ++ok;
  EXPECT_EQ(ok, 3) << output;
  EXPECT_EQ(output.find("bad CRC"), std::string::npos) << output;
  EXPECT_NE(output.find("At least one warning-error was detected"), std::string::npos) << output; // warnings only
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

TEST_F(WriterInteropTest, PasswordCheckByteIsZero) {
  // Data whose CRC's high byte happens to be 0 matches the zero check byte: other tools then take the password.
  std::string lucky;
  for (int i = 0;; ++i) {
    lucky = "lucky data " + std::to_string(i);
    if ((crc32(0, reinterpret_cast<Bytef const*>(lucky.data()), static_cast<uInt>(lucky.size())) >> 24) == 0) break;
  }
  std::string const unlucky = "secret text";
  ASSERT_NE(crc32(0, reinterpret_cast<Bytef const*>(unlucky.data()), static_cast<uInt>(unlucky.size())) >> 24, 0u);
  auto writer = testsupport::newArchiveWriter(fs.get(), dir.uri("check.zip"), "pw");
  addEntry(*writer, "lucky.txt", lucky);
  addEntry(*writer, "unlucky.txt", unlucky);
  writer->close();
  // The decrypted 12-byte encryption header ends in the two high bytes of crcForCrypting: 0 and 0.
  EXPECT_EQ(runPython(R"(
import sys, zipfile
z = zipfile.ZipFile(sys.argv[1])
raw = open(sys.argv[1], "rb").read()
for info in z.infolist():
    n, e = __import__("struct").unpack_from("<HH", raw, info.header_offset + 26)
    start = info.header_offset + 30 + n + e
    header = zipfile._ZipDecrypter(b"pw")(raw[start:start + 12])
    try:
        text = z.read(info.filename, pwd=b"pw").decode()
    except RuntimeError as error:
        text = "refused"
    print(info.filename, header[10], header[11], text)
)",
                      {dir.file("check.zip")}),
            "lucky.txt 0 0 " + lucky + "\nunlucky.txt 0 0 refused\n");
  std::string output;
  EXPECT_NE(unzipTest(dir.file("check.zip"), &output, "pw"), 0) << output;
  EXPECT_NE(output.find("testing: lucky.txt"), std::string::npos) << output;
  EXPECT_NE(output.find("OK"), std::string::npos) << output;
  EXPECT_NE(output.find("unlucky.txt"), std::string::npos) << output;
  EXPECT_NE(output.find("incorrect password"), std::string::npos) << output;
  // The reader of this library reads both.
  auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), dir.uri("check.zip"), tal::String("pw"));
  for (std::string const& expected : {lucky, unlucky}) {
    ASSERT_TRUE(reader->nextFile());
    auto in = reader->openCurrentFileStream();
    std::string data(expected.size(), '\0');
    in->read(&data[0], static_cast<int>(data.size()));
    EXPECT_EQ(data, expected);
    in->close();
  }
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
    auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), dir.uri(archive), tal::String());
    std::vector<std::string> seen;
    while (reader->nextFile()) {
      auto in = reader->openCurrentFileStream();
      std::string data(static_cast<std::size_t>(reader->getCurrentFileUncompressedSize()), '\0');
      in->read(&data[0], static_cast<int>(data.size()));
      in->close();
      seen.push_back(utf8(reader->getCurrentFileRelativeURI().getPath()) + "=" + data);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"src.txt=made by another tool", "added.txt=added by the writer"}));
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
