#include "ziputil/CZipReader.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

using testsupport::entryURI;
using testsupport::utf8;
using ziputil::CZipReader;

namespace {

class ReaderTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();

  tal::P<CZipReader> open(std::string const& name, std::vector<testsupport::ZipEntry> const& entries,
                          char const* password = "") {
    testsupport::makeZip(dir.file(name), entries);
    return tal::newObj<CZipReader>(fs.get(), dir.uri(name), tal::String(password));
  }
  std::string archiveText(std::string const& name) const { return utf8(dir.uri(name).toString(true)); }
  static std::string readAll(tal::IInStream& in) {
    std::string data;
    char buffer[4096];
    while (int n = in.readLax(buffer, sizeof buffer)) data.append(buffer, static_cast<std::size_t>(n));
    return data;
  }
};

void expectPlainError(tal::CError const& e, std::string const& message, tal::CProps const& props) {
  EXPECT_EQ(typeid(e), typeid(tal::CError));
  EXPECT_EQ(utf8(e.getMessage()), message);
  EXPECT_EQ(utf8(e.getContext()), "");
  EXPECT_EQ(e.getCode(), -1);
  EXPECT_EQ(e.getProps(), props);
  EXPECT_EQ(e.getCause(), nullptr);
}

TEST_F(ReaderTest, WalksEveryEntryInOrderWithSizesAndTimes) {
  auto reader = open("a.zip", {{"dir/", ""}, {"dir/a.txt", std::string(1000, 'a')}, {"b b#1.txt", "b"}});
  std::vector<std::string> names;
  std::vector<bool> folders;
  while (reader->nextFile()) {
    names.push_back(utf8(reader->getCurrentFileRelativeURI().getPath()));
    folders.push_back(reader->isCurrentFileDirectory());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"dir", "dir/a.txt", "b b#1.txt"}));
  EXPECT_EQ(folders, (std::vector<bool>{true, false, false}));
  ASSERT_TRUE(reader->tryGoToFile(entryURI("dir/a.txt")));
  EXPECT_EQ(reader->getCurrentFileUncompressedSize(), 1000);
  EXPECT_LT(reader->getCurrentFileCompressedSize(), 100);
  EXPECT_GT(reader->getCurrentFileCompressedSize(), 0);
  EXPECT_EQ(reader->getCurrentFileModifiedTimeFields(), tal::CTimeFields(2019, 12, 31, 23, 58, 58, 0.0, 0, false));
  EXPECT_NE(reader->getCurrentFileCRC32(), 0u);
  auto in = reader->openCurrentFileStream();
  EXPECT_EQ(readAll(*in), std::string(1000, 'a'));
  EXPECT_EQ(utf8(in->getURI().toString(true)), archiveText("a.zip") + "/dir/a.txt");
  in->close();
}

TEST_F(ReaderTest, EmptyArchiveNeverPositions) {
  auto reader = open("empty.zip", {});
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(reader->nextFile());
    EXPECT_TRUE(reader->getCurrentFileRelativeURI().isEmpty());
    EXPECT_EQ(reader->getCurrentFileUncompressedSize(), 0);
    EXPECT_EQ(reader->getCurrentFileCompressedSize(), 0);
    EXPECT_EQ(reader->getCurrentFileModifiedTimeFields(), tal::CTimeFields());
    EXPECT_FALSE(reader->isCurrentFileDirectory());
    EXPECT_EQ(reader->getCurrentFileCRC32(), 0u);
  }
  EXPECT_FALSE(reader->tryGoToFile(entryURI("x")));
}

TEST_F(ReaderTest, NextFileAfterTheEndDoesNotRestart) {
  auto reader = open("two.zip", {{"a", "1"}, {"b", "2"}});
  EXPECT_TRUE(reader->nextFile());
  EXPECT_TRUE(reader->nextFile());
  EXPECT_FALSE(reader->nextFile());
  EXPECT_FALSE(reader->nextFile());
  EXPECT_TRUE(reader->getCurrentFileRelativeURI().isEmpty());
}

TEST_F(ReaderTest, NotAnArchive) {
  testsupport::writeFile(dir.file("plain.txt"), std::string(300, 'x'));
  try {
    tal::newObj<CZipReader>(fs.get(), dir.uri("plain.txt"), tal::String());
    FAIL();
  } catch (tal::CError const& e) {
    expectPlainError(e, "File is not a valid ZIP archive.", tal::CProps{{"uri", dir.uri("plain.txt").toString(true)}});
  }
  testsupport::writeFile(dir.file("tiny"), "PK");
  EXPECT_THROW(tal::newObj<CZipReader>(fs.get(), dir.uri("tiny"), tal::String()), tal::CError);
}

TEST_F(ReaderTest, UnreadableArchiveGivesTheFileSystemsError) {
  try {
    tal::newObj<CZipReader>(fs.get(), dir.uri("missing.zip"), tal::String());
    FAIL();
  } catch (tal::CIOError const& e) {
    EXPECT_EQ(e.getCode(), tal::CIOError::OpenFailed);
    EXPECT_EQ(utf8(e.getMessage()), "Cannot open file: No such file or directory");
    EXPECT_EQ(e.getProps().get("uri"), dir.uri("missing.zip").toString(true));
  }
}

TEST_F(ReaderTest, MissingNameEmptiesCurrentAndNextStartsAtFirst) {
  auto reader = open("m.zip", {{"a", "1"}, {"b", "2"}});
  EXPECT_FALSE(reader->tryGoToFile(entryURI("zzz")));
  EXPECT_TRUE(reader->getCurrentFileRelativeURI().isEmpty());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "a");
  ASSERT_TRUE(reader->tryGoToFile(entryURI("\\b/")));
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "b");
  EXPECT_FALSE(reader->tryGoToFile(entryURI("B")));
  EXPECT_FALSE(reader->nextFile()); // the previous position (b, the last) was restored
}

TEST_F(ReaderTest, LocateReportsTheStoredNameAndNextContinuesAfterIt) {
  auto reader = open("l.zip", {{"/x/A.txt", "1"}, {"y", "2"}, {"z", "3"}});
  ASSERT_TRUE(reader->tryGoToFile(entryURI("x\\A.txt")));
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "x/A.txt");
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "y");
}

TEST_F(ReaderTest, MovingWhileAStreamIsOpenIsRefused) {
  auto reader = open("o.zip", {{"a", "1"}, {"b", "2"}});
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  tal::CProps props{{"uri", dir.uri("o.zip").toString(true)}};
  try {
    reader->nextFile();
    FAIL();
  } catch (tal::CError const& e) {
    expectPlainError(e, "CZipReader cannot advance to next file because the current file is still open.", props);
  }
  try {
    reader->tryGoToFile(entryURI("b"));
    FAIL();
  } catch (tal::CError const& e) {
    expectPlainError(e, "CZipReader cannot advance to another file because the current file is still open.", props);
  }
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "a");
  in->close();
  EXPECT_TRUE(reader->nextFile());
  EXPECT_TRUE(reader->tryGoToFile(entryURI("a")));
}

TEST_F(ReaderTest, CloseTwiceAndUseAfterClose) {
  auto reader = open("c.zip", {{"a", "1"}});
  ASSERT_TRUE(reader->nextFile());
  reader->close();
  reader->close();
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "a");
  for (int which = 0; which < 2; ++which) {
    try {
      which == 0 ? reader->nextFile() : reader->tryGoToFile(entryURI("a"));
      FAIL();
    } catch (tal::CIOError const& e) {
      EXPECT_EQ(e.getCode(), tal::CIOError::StreamClosed);
      EXPECT_EQ(utf8(e.getMessage()), "ZIP file already closed");
      EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", dir.uri("c.zip").toString(true)}}));
    }
  }
}

TEST_F(ReaderTest, OpenWhenNotPositioned) {
  auto reader = open("n.zip", {{"a", "1"}});
  try {
    reader->openCurrentFileStream();
    FAIL();
  } catch (tal::CError const& e) {
    expectPlainError(e, "CZipReader not positioned at a file. Cannot open stream.",
                     tal::CProps{{"uri", dir.uri("n.zip").toString(true)}});
  }
}

TEST_F(ReaderTest, ZeroDayGivesDefaultTime) {
  testsupport::makeZip(dir.file("d.zip"), {{"a", "1"}});
  testsupport::runPython(R"(
import sys
data = bytearray(open(sys.argv[1], "rb").read())
for sig, off in ((b"PK\x03\x04", 10), (b"PK\x01\x02", 12)):
    at = data.find(sig)
    data[at + off:at + off + 4] = b"\0\0\0\0"
open(sys.argv[1], "wb").write(data)
)",
                         {dir.file("d.zip")});
  auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri("d.zip"), tal::String());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileModifiedTimeFields(), tal::CTimeFields());
}

TEST_F(ReaderTest, LongestNameIsReadWhole) {
  std::string name(65535, 'n');
  name[0] = 'L';
  name[65534] = 'Z';
  auto reader = open("long.zip", {{name, "x"}, {"after", "y"}});
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), name);
  ASSERT_TRUE(reader->nextFile());
  ASSERT_TRUE(reader->tryGoToFile(entryURI(name)));
  EXPECT_EQ(reader->getCurrentFileRelativeURI().getPath().length(), 65535u);
  std::string shorter = name.substr(0, 65534);
  EXPECT_FALSE(reader->tryGoToFile(entryURI(shorter)));
}

TEST_F(ReaderTest, PasswordOpensUnencryptedEntriesToo) {
  auto reader = open("p.zip", {{"plain.txt", "plain text"}}, "secret");
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  EXPECT_EQ(readAll(*in), "plain text");
}

TEST_F(ReaderTest, OpenFailureNamesTheOpenCallThePasswordChose) {
  // The local header's signature is broken: minizip refuses to open the entry
  // (UNZ_BADZIPFILE). The reader's password alone decides which call was made.
  testsupport::makeZip(dir.file("bad.zip"), {{"plain.txt", "plain text"}});
  testsupport::runPython(R"(
import sys
data = bytearray(open(sys.argv[1], "rb").read())
data[0:4] = b"XXXX"
open(sys.argv[1], "wb").write(data)
)",
                         {dir.file("bad.zip")});
  for (char const* password : {"", "secret"}) {
    auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri("bad.zip"), tal::String(password));
    ASSERT_TRUE(reader->nextFile());
    try {
      reader->openCurrentFileStream();
      FAIL();
    } catch (tal::CFileSystemError const& e) {
      EXPECT_EQ(typeid(e), typeid(tal::CFileSystemError));
      EXPECT_EQ(e.getProblem(), tal::CFileSystemError::Unspecified);
      std::string const expected = *password ? "unzOpenCurrentFilePassword failed" : "unzOpenCurrentFile failed";
      EXPECT_EQ(utf8(e.getMessage()), expected);
      EXPECT_EQ(e.getCode(), -1);
      tal::CProps const props{{"uri", dir.uri("bad.zip").toString(true)}, {"result", "-103"}, {"fileSysProblem", "0"}};
      EXPECT_EQ(e.getProps(), props);
    }
    EXPECT_FALSE(reader->nextFile()); // no stream was handed out, so the reader may move on
  }
}

TEST_F(ReaderTest, ArchivePathsWithSpecialCharactersOnBothFileSystems) {
  std::string const name = "a b #1 %41 ?q caf\xC3\xA9.zip";
  testsupport::makeZip(dir.file(name), {{"e.txt", "content"}});
  auto local = tal::newObj<CZipReader>(fs.get(), dir.uri(name), tal::String());
  ASSERT_TRUE(local->nextFile());
  EXPECT_EQ(readAll(*local->openCurrentFileStream()), "content");
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI memoryURI(tal::String("mem"), tal::String::fromUTF8("/" + name), nullptr, nullptr, nullptr, -1, nullptr,
                      nullptr);
  memory->setFile(memoryURI, testsupport::readFile(dir.file(name)));
  auto inMemory = tal::newObj<CZipReader>(memory.get(), memoryURI, tal::String());
  ASSERT_TRUE(inMemory->tryGoToFile(entryURI("e.txt")));
  auto in = inMemory->openCurrentFileStream();
  EXPECT_EQ(readAll(*in), "content");
  EXPECT_EQ(in->getURI().getPath(), tal::String::fromUTF8("/" + name + "/e.txt"));
}

TEST_F(ReaderTest, StreamKeepsReaderAliveAndHeapOnly) {
  auto reader = open("k.zip", {{"a", "abc"}});
  ASSERT_TRUE(reader->nextFile());
  tal::P<tal::IInStream> in = reader->openCurrentFileStream();
  reader = nullptr;
  char b[3];
  in->read(b, 3);
  EXPECT_EQ(std::string(b, 3), "abc");
  in->close();
  EXPECT_THROW(CZipReader onStack(fs.get(), dir.uri("k.zip"), tal::String()), tal::CError);
}

} // namespace
