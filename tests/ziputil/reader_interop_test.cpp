// Archives made by other tools, read back through the reader.
#include "ziputil/CZipReader.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "tal/LocalFileSystem.h"

#include <gtest/gtest.h>

#include <map>

using testsupport::entryURI;
using testsupport::shellQuote;
using testsupport::utf8;
using ziputil::CZipReader;

namespace {

class ReaderInteropTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();

  void SetUp() override {
    files = {{"tree/a.txt", std::string(5000, 'a') + "end"},
             {"tree/empty.txt", ""},
             {"tree/sub/b #1.bin", binary()},
             {"tree/sub/caf\xC3\xA9.txt", "caf\xC3\xA9"}};
    for (auto const& [name, data] : files) {
      testsupport::runCommand("mkdir -p " + shellQuote(dir.file(name.substr(0, name.rfind('/')))));
      testsupport::writeFile(dir.file(name), data);
    }
  }
  static std::string binary() {
    std::string data;
    for (int i = 0; i < 70000; ++i) data += static_cast<char>((i * 131) ^ (i >> 7));
    return data;
  }
  void run(std::string const& command) { ASSERT_EQ(testsupport::runCommand("cd " + shellQuote(dir.path()) + " && " + command + " >/dev/null 2>&1"), 0) << command; }

  /// Every entry of the archive, name -> bytes (folders -> "/").
  std::map<std::string, std::string> readAll(std::string const& archive, char const* password = "") {
    auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri(archive), tal::String(password));
    std::map<std::string, std::string> entries;
    while (reader->nextFile()) {
      std::string name = utf8(reader->getCurrentFileRelativeURI().getPath());
      if (reader->isCurrentFileDirectory()) {
        entries[name] = "/";
        continue;
      }
      auto in = reader->openCurrentFileStream();
      std::string data;
      char buffer[8192];
      while (int n = in->readLax(buffer, sizeof buffer)) data.append(buffer, static_cast<std::size_t>(n));
      EXPECT_EQ(static_cast<long long>(data.size()), reader->getCurrentFileUncompressedSize()) << name;
      in->close();
      entries[name] = data;
    }
    return entries;
  }
  void expectFiles(std::map<std::string, std::string> const& entries) {
    for (auto const& [name, data] : files) {
      auto it = entries.find(name);
      ASSERT_NE(it, entries.end()) << name;
      EXPECT_EQ(it->second, data) << name;
    }
  }
  std::map<std::string, std::string> files;
};

TEST_F(ReaderInteropTest, InfoZipZip) {
  run("zip -q -r infozip.zip tree");
  auto entries = readAll("infozip.zip");
  expectFiles(entries);
  EXPECT_EQ(entries["tree"], "/");
  EXPECT_EQ(entries["tree/sub"], "/");
}

TEST_F(ReaderInteropTest, InfoZipFromStdinUsesDataDescriptors) {
  run("cat tree/sub/'b #1.bin' | zip -q piped.zip -");
  auto entries = readAll("piped.zip");
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries["-"], files["tree/sub/b #1.bin"]);
}

TEST_F(ReaderInteropTest, InfoZipNamesFromPipe) {
  run("find tree -type f | sort | zip -q names.zip -@");
  auto entries = readAll("names.zip");
  EXPECT_EQ(entries.size(), files.size());
  expectFiles(entries);
}

TEST_F(ReaderInteropTest, InfoZipPassword) {
  run("zip -q -r -P 'pa ss' enc.zip tree");
  expectFiles(readAll("enc.zip", "pa ss"));
  // The encryption header checks one byte, so about 1 wrong password in 100 gets past the open (it
  // then never reads the entry's bytes). Of three wrong passwords at least one is refused exactly.
  int refused = 0;
  for (char const* wrong : {"wrong", "Wrong", "pa  ss"}) {
    auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri("enc.zip"), tal::String(wrong));
    ASSERT_TRUE(reader->tryGoToFile(entryURI("tree/a.txt")));
    try {
      auto in = reader->openCurrentFileStream();
      std::string data(5003, '\0');
      try {
        in->read(&data[0], 5003);
      } catch (tal::CError const&) {
      }
      EXPECT_NE(data, files["tree/a.txt"]) << wrong;
    } catch (tal::CFileSystemError const& e) {
      ++refused;
      EXPECT_EQ(e.getProblem(), tal::CFileSystemError::Unspecified);
      EXPECT_EQ(utf8(e.getMessage()), "unzOpenCurrentFilePassword failed");
      EXPECT_EQ(e.getCode(), -1);
      EXPECT_EQ(utf8(e.getProps().get("result")), "-106");
      EXPECT_EQ(e.getProps().get("uri"), dir.uri("enc.zip").toString(true));
    }
  }
  EXPECT_GE(refused, 1);
  auto noPassword = tal::newObj<CZipReader>(fs.get(), dir.uri("enc.zip"), tal::String());
  ASSERT_TRUE(noPassword->tryGoToFile(entryURI("tree/a.txt")));
  try {
    noPassword->openCurrentFileStream();
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(utf8(e.getMessage()), "unzOpenCurrentFile failed");
    EXPECT_EQ(utf8(e.getProps().get("result")), "-102");
  }
}

TEST_F(ReaderInteropTest, Bsdtar) {
  run("bsdtar -a -cf tar.zip tree");
  expectFiles(readAll("tar.zip"));
}

TEST_F(ReaderInteropTest, SevenZip) {
  run("7z a -tzip -bd seven.zip tree");
  expectFiles(readAll("seven.zip"));
}

TEST_F(ReaderInteropTest, PythonStoredDeflatedZip64AndStreamed) {
  testsupport::runPython(R"(
import os, sys, zipfile
os.chdir(sys.argv[1])
names = [os.path.join(r, f) for r, _, fs in os.walk("tree") for f in fs]
with zipfile.ZipFile("stored.zip", "w", zipfile.ZIP_STORED) as z:
    for n in names: z.write(n)
with zipfile.ZipFile("zip64.zip", "w", zipfile.ZIP_DEFLATED) as z:
    for n in names:
        with open(n, "rb") as src, z.open(n, "w", force_zip64=True) as dst: dst.write(src.read())

class Unseekable:
    def __init__(self, f): self.f = f
    def write(self, b): return self.f.write(b)
    def flush(self): self.f.flush()
with open("streamed.zip", "wb") as raw:
    with zipfile.ZipFile(Unseekable(raw), "w", zipfile.ZIP_DEFLATED) as z:
        for n in names: z.write(n)
)",
                         {dir.path()});
  for (char const* archive : {"stored.zip", "zip64.zip", "streamed.zip"}) {
    SCOPED_TRACE(archive);
    expectFiles(readAll(archive));
  }
}

TEST_F(ReaderInteropTest, OddNamesAreCleanedAndFound) {
  testsupport::makeZip(dir.file("odd.zip"), {{"\\win\\path.txt", "1"}, {"/abs/x", "2"}, {"C:\\drive.txt", "3"},
                                              {"  padded  ", "4"}, {"dir/", ""}, {"", "6"}});
  auto entries = readAll("odd.zip");
  EXPECT_EQ(entries["win/path.txt"], "1");
  EXPECT_EQ(entries["abs/x"], "2");
  EXPECT_EQ(entries["C/drive.txt"], "3");
  EXPECT_EQ(entries["padded"], "4");
  EXPECT_EQ(entries["dir"], "/");
  EXPECT_EQ(entries["_"], "6");
  auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri("odd.zip"), tal::String());
  EXPECT_TRUE(reader->tryGoToFile(entryURI("/win/path.txt")));
  EXPECT_TRUE(reader->tryGoToFile(entryURI("C:/drive.txt")));
  EXPECT_TRUE(reader->tryGoToFile(entryURI(" padded")));
}

} // namespace
