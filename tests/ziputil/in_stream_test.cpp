#include "ziputil/CZipReader.h"

#include "support/StreamChecks.h"
#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

using testsupport::entryURI;
using testsupport::utf8;
using ziputil::CZipReader;

namespace {

class InStreamTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI archive{tal::String("mem:/in.zip")};
  tal::P<CZipReader> reader;

  tal::P<tal::IInStream> openEntry(std::vector<testsupport::ZipEntry> const& entries, std::string const& name,
                                   bool stored = false) {
    testsupport::makeZip(dir.file("in.zip"), entries, stored);
    fs->setFile(archive, testsupport::readFile(dir.file("in.zip")));
    reader = tal::newObj<CZipReader>(fs.get(), archive, tal::String());
    EXPECT_TRUE(reader->tryGoToFile(entryURI(name)));
    return reader->openCurrentFileStream();
  }
  std::string entryText(std::string const& name) const { return "mem:/in.zip/" + name; }
};

TEST_F(InStreamTest, SizeZeroOrNegative) {
  auto in = openEntry({{"a", "abc"}}, "a");
  char b[4];
  EXPECT_EQ(in->readLax(b, 0), 0);
  EXPECT_EQ(in->readLax(b, -5), 0);
  EXPECT_EQ(in->getPosition(), 0);
  in->read(b, 0);
  try {
    in->read(b, -1);
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(e.getProblem(), tal::CFileSystemError::Unspecified);
    EXPECT_EQ(e.getCode(), tal::CIOError::UnexpectedEnd);
    EXPECT_EQ(utf8(e.getMessage()), utf8(tal::CIOError::getDefaultMessage(tal::CIOError::UnexpectedEnd)));
  }
  in->read(b, 3);
  EXPECT_EQ(std::string(b, 3), "abc");
  EXPECT_TRUE(in->isEndOfStream());
  EXPECT_EQ(in->isEndOfStream_NonBlocking(), 1);
}

TEST_F(InStreamTest, ShortEntryLowersTheLength) {
  // A stored entry whose central directory promises 4 more bytes than it holds.
  testsupport::makeZip(dir.file("in.zip"), {{"short", "12345678"}}, true);
  testsupport::runPython(R"(
import sys, struct
data = bytearray(open(sys.argv[1], "rb").read())
at = data.find(b"PK\x01\x02")
size = struct.unpack_from("<I", data, at + 24)[0]
struct.pack_into("<I", data, at + 24, size + 4)
at = data.find(b"PK\x03\x04")
struct.pack_into("<I", data, at + 22, size + 4)
open(sys.argv[1], "wb").write(data)
)",
                         {dir.file("in.zip")});
  fs->setFile(archive, testsupport::readFile(dir.file("in.zip")));
  reader = tal::newObj<CZipReader>(fs.get(), archive, tal::String());
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  EXPECT_EQ(in->getLength(), 12);
  char b[12];
  int n = in->readLax(b, 12);
  EXPECT_LT(n, 12);
  EXPECT_EQ(in->getLength(), in->getPosition());
  EXPECT_TRUE(in->isEndOfStream());
  auto again = reader;
  in->close();
  ASSERT_TRUE(reader->tryGoToFile(entryURI("short")));
  auto second = reader->openCurrentFileStream();
  try {
    second->read(b, 12);
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(e.getCode(), tal::CIOError::UnexpectedEnd);
    EXPECT_EQ(e.getProps().get("uri").toUTF8(), entryText("short"));
    EXPECT_EQ(e.getProps().get("fileSysProblem").toUTF8(), "0");
  }
}

TEST_F(InStreamTest, FreshEmptyEntryIsAtEnd) {
  auto in = openEntry({{"e", ""}}, "e");
  EXPECT_TRUE(in->isEndOfStream());
  EXPECT_EQ(in->getLength(), 0);
}

TEST_F(InStreamTest, SeekIsNeverSupported) {
  auto in = openEntry({{"s", "abc"}}, "s");
  for (long long target : {in->getPosition(), 0LL, 2LL}) {
    try {
      in->seek(target);
      FAIL();
    } catch (tal::CFileSystemError const& e) {
      EXPECT_EQ(e.getProblem(), tal::CFileSystemError::NotSupported);
      EXPECT_EQ(utf8(e.getMessage()), "CZipReader::CFileInZipInStream does not support seeking.");
      EXPECT_EQ(e.getCode(), -1);
      EXPECT_EQ(utf8(e.getContext()), "");
      EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", tal::String::fromUTF8(entryText("s"))}, {"fileSysProblem", "6"}}));
    }
  }
}

TEST_F(InStreamTest, LockRangeAndWaitReadable) {
  auto in = openEntry({{"l", "abc"}}, "l");
  EXPECT_TRUE(in->waitReadable(0));
  EXPECT_TRUE(in->waitReadable(1000000));
  testsupport::expectIOError([&] { in->lockRange(0, 1, tal::IStreamBase::LockShared); },
                             tal::CIOError::LockNotSupported, "", tal::CProps());
}

TEST_F(InStreamTest, AfterCloseEverythingButGetUriAndCloseThrows) {
  auto in = openEntry({{"c", "abc"}}, "c");
  in->close();
  in->close();
  EXPECT_EQ(utf8(in->getURI().toString(true)), entryText("c"));
  char b[1];
  auto expectClosed = [](std::function<void()> const& call) {
    testsupport::expectIOError(call, tal::CIOError::StreamClosed, "Error: stream has been closed.", tal::CProps());
  };
  expectClosed([&] { in->readLax(b, 1); });
  expectClosed([&] { in->read(b, 1); });
  expectClosed([&] { in->readAvailable(b, 1); });
  expectClosed([&] { in->waitReadable(0); });
  expectClosed([&] { in->isEndOfStream(); });
  expectClosed([&] { in->isEndOfStream_NonBlocking(); });
  expectClosed([&] { in->getLength(); });
  expectClosed([&] { in->getPosition(); });
  expectClosed([&] { in->seek(0); });
  expectClosed([&] { in->lockRange(0, 1, tal::IStreamBase::LockShared); });
}

TEST_F(InStreamTest, ReaderClosedUnderTheStream) {
  auto in = openEntry({{"r", "abc"}}, "r");
  reader->close();
  char b[1];
  try {
    in->readLax(b, 1);
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(e.getProblem(), tal::CFileSystemError::Unspecified);
    EXPECT_EQ(e.getCode(), tal::CIOError::StreamClosed);
    EXPECT_EQ(utf8(e.getMessage()), "Cannot read file in ZIP archive - archive has already been closed");
    EXPECT_EQ(e.getProps().get("uri").toUTF8(), entryText("r"));
  }
  in->close(); // already closed: nothing
  EXPECT_THROW(in->getPosition(), tal::CIOError);
}

TEST_F(InStreamTest, CloseAfterReaderClosed) {
  auto in = openEntry({{"r", "abc"}}, "r");
  reader->close();
  try {
    in->close();
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(e.getCode(), tal::CIOError::ReadFailed);
    EXPECT_EQ(utf8(e.getMessage()), "Cannot close file in ZIP archive - archive has already been closed");
    EXPECT_EQ(e.getProps().get("uri").toUTF8(), entryText("r"));
  }
  in->close();
  EXPECT_EQ(utf8(in->getURI().toString(true)), entryText("r"));
}

TEST_F(InStreamTest, CorruptDataGivesReadFailed) {
  std::string data;
  for (int i = 0; i < 20000; ++i) data += static_cast<char>((i * 7919) % 251);
  testsupport::makeZip(dir.file("in.zip"), {{"bad", data}});
  std::string bytes = testsupport::readFile(dir.file("in.zip"));
  for (std::size_t i = 60; i < 200; ++i) bytes[i] = static_cast<char>(bytes[i] ^ 0x55);
  fs->setFile(archive, bytes);
  reader = tal::newObj<CZipReader>(fs.get(), archive, tal::String());
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  std::string buffer(20000, '\0');
  try {
    in->read(&buffer[0], 20000);
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(e.getCode(), tal::CIOError::ReadFailed);
    EXPECT_EQ(utf8(e.getMessage()), "unzReadCurrentFile failed");
    EXPECT_EQ(e.getProps().get("uri").toUTF8(), entryText("bad"));
    EXPECT_EQ(e.getProps().get("result").toUTF8(), "-3"); // Z_DATA_ERROR
  }
}

TEST_F(InStreamTest, DestructorOfOpenStreamReleasesTheEntry) {
  {
    auto in = openEntry({{"a", "abc"}, {"b", "def"}}, "a");
  }
  EXPECT_TRUE(reader->nextFile());
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "b");
}

} // namespace
