#include "tal/LocalFileSystem.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sys/stat.h>

using tal::CIOError;
using tal::CURI;
using tal::String;
using testsupport::TempDir;

namespace {

std::string U(String const& s) { return s.toUTF8(); }

class LocalFileSystemTest : public ::testing::Test {
protected:
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  TempDir dir;
  tal::P<tal::IInOutStream> open(CURI const& uri, int access, int flags = 0) { return fs->openStream(uri, access, flags); }
};

TEST_F(LocalFileSystemTest, CreatesWritesAndReadsBack) {
  CURI uri = dir.uri("a.bin");
  auto out = open(uri, 3, 2);
  out->write("hello world", 11, nullptr);
  EXPECT_EQ(out->getLength(), 11);
  EXPECT_EQ(out->getPosition(), 11);
  out->close();
  EXPECT_EQ(testsupport::readFile(dir.file("a.bin")), "hello world");
  auto in = open(uri, 1);
  char buffer[16] = {};
  in->read(buffer, 5);
  EXPECT_EQ(std::string(buffer, 5), "hello");
  EXPECT_EQ(in->readLax(buffer, 16), 6);
  EXPECT_EQ(std::string(buffer, 6), " world");
  EXPECT_EQ(in->readLax(buffer, 16), 0);
  EXPECT_TRUE(in->isEndOfStream());
  EXPECT_EQ(in->isEndOfStream_NonBlocking(), 1);
  in->close();
}

TEST_F(LocalFileSystemTest, CreateForReadFlag) {
  auto s = open(dir.uri("made.txt"), 1, 4);
  EXPECT_EQ(s->getLength(), 0);
  s->close();
  struct stat st;
  EXPECT_EQ(stat(dir.file("made.txt").c_str(), &st), 0);
}

TEST_F(LocalFileSystemTest, MissingFileFailsWithReasonAndUri) {
  CURI uri = dir.uri("missing #1.zip");
  try {
    open(uri, 1);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::OpenFailed);
    EXPECT_EQ(U(e.getMessage()), "Cannot open file: No such file or directory");
    EXPECT_EQ(U(e.getContext()), "IO");
    EXPECT_EQ(e.getProps().size(), 1u);
    EXPECT_EQ(e.getProps().get("uri"), uri.toString(true));
    EXPECT_NE(U(uri.toString(true)).find("missing%20%231.zip"), std::string::npos);
  }
}

TEST_F(LocalFileSystemTest, DirectoryAndNotADirectoryFailToOpen) {
  try {
    open(CURI(String::fromUTF8("file://" + dir.path())), 1);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::OpenFailed);
    EXPECT_EQ(U(e.getMessage()), "Cannot open file: Is a directory");
  }
  testsupport::writeFile(dir.file("plain"), "x");
  try {
    open(dir.uri("plain/x"), 3, 2);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::OpenFailed);
    EXPECT_EQ(U(e.getMessage()), "Cannot open file: Not a directory");
  }
}

TEST_F(LocalFileSystemTest, NonFileUriIsRefused) {
  for (char const* text : {"http://host/x", "file://otherhost/x", "mem:/x"}) {
    try {
      open(CURI(String(text)), 1);
      FAIL() << text;
    } catch (tal::CFileSystemError const& e) {
      EXPECT_EQ(e.getProblem(), tal::CFileSystemError::NotSupported);
      EXPECT_EQ(U(e.getMessage()), "CLocalFileSystem supports only local file: URIs.");
      EXPECT_EQ(e.getCode(), -1);
      EXPECT_EQ(U(e.getProps().get("uri")), text);
      EXPECT_EQ(U(e.getProps().get("fileSysProblem")), "6");
    }
  }
  EXPECT_NO_THROW(open(CURI(String::fromUTF8("file://localhost" + dir.path() + "/l")), 3, 2)->close());
}

TEST_F(LocalFileSystemTest, ReadOnlyStreamRefusesWrites) {
  testsupport::writeFile(dir.file("r"), "abc");
  auto in = open(dir.uri("r"), 1);
  try {
    in->write("x", 1, nullptr);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::WriteFailed);
    EXPECT_EQ(U(e.getMessage()), "The stream is open for reading only");
  }
  EXPECT_THROW(in->setLength(0), CIOError);
}

TEST_F(LocalFileSystemTest, ReadPastEndIsUnexpectedEnd) {
  testsupport::writeFile(dir.file("short"), "abc");
  auto in = open(dir.uri("short"), 1);
  char buffer[8];
  try {
    in->read(buffer, 8);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::UnexpectedEnd);
    EXPECT_EQ(U(e.getMessage()), U(CIOError::getDefaultMessage(CIOError::UnexpectedEnd)));
    EXPECT_EQ(e.getProps().get("uri"), dir.uri("short").toString(true));
  }
  in->seek(100);
  EXPECT_EQ(in->readLax(buffer, 8), 0);
  EXPECT_EQ(in->getPosition(), 100);
}

TEST_F(LocalFileSystemTest, NegativePositionReadsAsPastTheEnd) {
  auto s = open(dir.uri("s"), 3, 2);
  s->write("abc", 3, nullptr);
  s->seek(-1);
  EXPECT_EQ(s->getPosition(), -1);
  char b[4];
  EXPECT_EQ(s->readLax(b, 4), 0);
  try {
    s->write("x", 1, nullptr);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::WriteFailed);
    EXPECT_EQ(U(e.getMessage()), "Cannot write beyond the largest file offset");
  }
  s->seek(1);
  EXPECT_EQ(s->readLax(b, 4), 2);
}

TEST_F(LocalFileSystemTest, EverythingAfterCloseIsStreamClosed) {
  auto s = open(dir.uri("c"), 3, 2);
  s->close();
  char b[1];
  auto expectClosed = [&](auto&& call) {
    try {
      call();
      ADD_FAILURE();
    } catch (CIOError const& e) {
      EXPECT_EQ(e.getCode(), CIOError::StreamClosed);
      EXPECT_EQ(U(e.getMessage()), "Error: stream has been closed.");
      EXPECT_EQ(e.getProps().get("uri"), dir.uri("c").toString(true));
    }
  };
  expectClosed([&] { s->readLax(b, 1); });
  expectClosed([&] { s->read(b, 1); });
  expectClosed([&] { s->write(b, 1, nullptr); });
  expectClosed([&] { s->seek(0); });
  expectClosed([&] { s->getLength(); });
  expectClosed([&] { s->getPosition(); });
  expectClosed([&] { s->flush(); });
  expectClosed([&] { s->close(); });
  expectClosed([&] { s->waitReadable(0); });
  expectClosed([&] { s->lockRange(0, 1, tal::IStreamBase::LockShared); });
  EXPECT_EQ(s->getURI(), dir.uri("c"));
}

TEST_F(LocalFileSystemTest, LockRangeIsNotSupported) {
  auto s = open(dir.uri("l"), 3, 2);
  try {
    s->lockRange(0, 1, tal::IStreamBase::LockExclusive);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::LockNotSupported);
    EXPECT_EQ(U(e.getMessage()), "");
  }
}

TEST_F(LocalFileSystemTest, LargeFileAndManySmallReads) {
  std::string data;
  for (int i = 0; i < 300000; ++i) data += static_cast<char>(i * 7 + i / 256);
  auto out = open(dir.uri("big"), 3, 2);
  for (std::size_t at = 0; at < data.size(); at += 1000)
    out->write(data.data() + at, static_cast<int>(std::min<std::size_t>(1000, data.size() - at)), nullptr);
  out->close();
  ASSERT_EQ(testsupport::readFile(dir.file("big")), data);
  auto in = open(dir.uri("big"), 1);
  std::string back;
  char small[3];
  int n;
  while ((n = in->readLax(small, 3)) > 0) {
    back.append(small, static_cast<std::size_t>(n));
    in->seek(in->getPosition()); // minizip seeks before reads: free and harmless
  }
  EXPECT_EQ(back, data);
  in->seek(123457);
  std::string big(200000, '\0');
  in->read(&big[0], 100000);
  EXPECT_EQ(big.substr(0, 100000), data.substr(123457, 100000));
}

TEST_F(LocalFileSystemTest, WritesAfterSeekAndReadsSeeThem) {
  auto s = open(dir.uri("rw"), 3, 2);
  s->write("0123456789", 10, nullptr);
  s->seek(3);
  s->write("abc", 3, nullptr);
  s->seek(0);
  char b[10];
  s->read(b, 10);
  EXPECT_EQ(std::string(b, 10), "012abc6789");
  s->seek(20);
  s->write("z", 1, nullptr);
  EXPECT_EQ(s->getLength(), 21);
  s->setLength(5);
  EXPECT_EQ(s->getLength(), 5);
  s->close();
  EXPECT_EQ(testsupport::readFile(dir.file("rw")), "012ab");
}

TEST_F(LocalFileSystemTest, PathsWithSpecialCharacters) {
  std::string name = "a b #1 %41 ?x caf\xC3\xA9.txt";
  CURI uri = dir.uri(name);
  auto out = open(uri, 3, 2);
  out->write("x", 1, nullptr);
  out->close();
  EXPECT_EQ(testsupport::readFile(dir.file(name)), "x");
  EXPECT_TRUE(fs->exists(uri));
  EXPECT_TRUE(fs->exists(CURI(uri.toString(true))));
  fs->remove(uri);
  EXPECT_FALSE(fs->exists(uri));
}

TEST_F(LocalFileSystemTest, RemoveMissingFails) {
  try {
    fs->remove(dir.uri("none"));
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::DeleteFailed);
    EXPECT_EQ(U(e.getMessage()), "Cannot delete file: No such file or directory");
  }
}

TEST_F(LocalFileSystemTest, WriteKeepBufferAndBarrier) {
  auto s = open(dir.uri("k"), 3, 2);
  tal::P<tal::TBuffer<unsigned char>> buffer = tal::newObj<tal::TBuffer<unsigned char>>();
  buffer->setUsed(6);
  std::memcpy(buffer->getData(), "abcdef", 6);
  s->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(buffer.get(), 1, 3), nullptr);
  s->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(nullptr, 0, 0), nullptr);
  tal::P<tal::IWriteBarrier> barrier = s->createWriteBarrier(nullptr);
  EXPECT_NE(barrier.get(), nullptr);
  EXPECT_EQ(testsupport::readFile(dir.file("k")), "bcd"); // the barrier flushed
  s->close();
}

} // namespace
