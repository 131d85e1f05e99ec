#include "ziputil/CZipWriter.h"

#include "support/FaultyFileSystem.h"
#include "support/StreamChecks.h"
#include "support/WriterChecks.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>

#include <cstring>

using testsupport::entryURI;
using testsupport::utf8;

namespace {

class OutStreamTest : public ::testing::Test {
protected:
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri{tal::String("mem:/out.zip")};
  tal::P<ziputil::CZipWriter> writer = testsupport::newArchiveWriter(fs.get(), uri);
  tal::P<tal::IOutStream> out = writer->beginAddFile(entryURI("dir/e #1.txt"), tal::CTimeFields());
  std::string const entryText = "mem:/out.zip/dir/e%20%231.txt";

  std::string entryBytes(std::string const& name) {
    auto reader = tal::newObj<ziputil::CZipReader>(fs.get(), uri, tal::String());
    EXPECT_TRUE(reader->tryGoToFile(entryURI(name)));
    auto in = reader->openCurrentFileStream();
    std::string data(static_cast<std::size_t>(reader->getCurrentFileUncompressedSize()), '\0');
    if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
    return data;
  }
};

void expectNotSupported(tal::CFileSystemError const& e, std::string const& message, std::string const& uri) {
  EXPECT_EQ(e.getProblem(), tal::CFileSystemError::NotSupported);
  EXPECT_EQ(utf8(e.getMessage()), message);
  EXPECT_EQ(e.getCode(), -1);
  EXPECT_EQ(utf8(e.getContext()), "");
  EXPECT_EQ(utf8(e.getProps().get("uri")), uri);
  EXPECT_EQ(e.getProps().size(), 2u); // uri and fileSysProblem
}

TEST_F(OutStreamTest, PositionAndLengthCountSuccessfulWrites) {
  EXPECT_EQ(out->getPosition(), 0);
  EXPECT_EQ(out->getLength(), 0);
  out->write("abc", 3, nullptr);
  out->write("defg", 4, nullptr);
  EXPECT_EQ(out->getPosition(), 7);
  EXPECT_EQ(out->getLength(), 7);
  EXPECT_EQ(utf8(out->getURI().toString(true)), entryText);
  out->close();
  writer->close();
  EXPECT_EQ(entryBytes("dir/e #1.txt"), "abcdefg");
}

TEST_F(OutStreamTest, SeekAndSetLengthAreRefused) {
  out->write("abc", 3, nullptr);
  for (long long target : {out->getPosition(), 0LL}) {
    try {
      out->seek(target);
      FAIL();
    } catch (tal::CFileSystemError const& e) {
      expectNotSupported(e, "CZipWriter::CFileInZipOutStream does not support seeking.", entryText);
    }
  }
  for (long long length : {0LL, 3LL, 100LL}) {
    try {
      out->setLength(length);
      FAIL();
    } catch (tal::CFileSystemError const& e) {
      expectNotSupported(e, "CZipWriter::CFileInZipOutStream does not support setLength.", entryText);
    }
  }
  testsupport::expectIOError([&] { out->lockRange(0, 1, tal::IStreamBase::LockExclusive); },
                             tal::CIOError::LockNotSupported, "", tal::CProps());
  EXPECT_EQ(out->getPosition(), 3);
}

TEST_F(OutStreamTest, BarriersAndKeepBufferWrites) {
  tal::P<tal::IWriteBarrier> first = out->createWriteBarrier(nullptr);
  tal::P<tal::IWriteBarrier> second = out->createWriteBarrier(first.get());
  ASSERT_NE(first, nullptr);
  EXPECT_NE(first.get(), second.get());
  EXPECT_NE(dynamic_cast<tal::CDummyWriteBarrier*>(first.get()), nullptr);
  tal::P<tal::TBuffer<unsigned char>> buffer = tal::newObj<tal::TBuffer<unsigned char>>();
  buffer->setUsed(6);
  std::memcpy(buffer->getData(), "abcdef", 6);
  out->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(buffer.get(), 2, 3), first.get());
  out->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(), nullptr); // empty slice: a write of length 0
  out->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(nullptr, 0, 0), nullptr);
  EXPECT_EQ(out->getPosition(), 3);
  out->flush();
  out->close();
  writer->close();
  EXPECT_EQ(entryBytes("dir/e #1.txt"), "cde");
}

TEST_F(OutStreamTest, AfterCloseEverythingButGetUriAndCloseIsStreamClosed) {
  out->close();
  out->close();
  EXPECT_EQ(utf8(out->getURI().toString(true)), entryText);
  auto expectClosed = [](std::function<void()> const& call) {
    testsupport::expectIOError(call, tal::CIOError::StreamClosed, "Error: stream has been closed.", tal::CProps());
  };
  expectClosed([&] { out->write("x", 1, nullptr); });
  expectClosed([&] { out->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(), nullptr); });
  expectClosed([&] { out->createWriteBarrier(nullptr); });
  expectClosed([&] { out->flush(); });
  expectClosed([&] { out->setLength(0); });
  expectClosed([&] { out->getLength(); });
  expectClosed([&] { out->getPosition(); });
  expectClosed([&] { out->seek(0); });
  expectClosed([&] { out->lockRange(0, 1, tal::IStreamBase::LockShared); });
}

TEST_F(OutStreamTest, DroppingAnUnclosedStreamFinishesTheEntry) {
  out->write("dropped", 7, nullptr);
  out = nullptr;
  auto next = writer->beginAddFile(entryURI("next"), tal::CTimeFields()); // the entry was finished
  next->close();
  writer->close();
  EXPECT_EQ(entryBytes("dir/e #1.txt"), "dropped");
}

TEST_F(OutStreamTest, FailureInTheDestructorIsReportedNotThrown) {
  struct Seen {
    static void handler(char const* className, std::exception& e, bool) {
      classes() += className;
      messages() += e.what();
    }
    static std::string& classes() {
      static std::string s;
      return s;
    }
    static std::string& messages() {
      static std::string s;
      return s;
    }
  };
  auto previous = tal::setDestructorExceptionHandler(&Seen::handler);
  writer->close(); // the archive closes under the stream: the stream's close will fail
  out = nullptr;
  tal::setDestructorExceptionHandler(previous);
  EXPECT_EQ(Seen::classes(), "drel::CZipWriter::CFileInZipOutStream");
  EXPECT_EQ(Seen::messages(), "Cannot close file in ZIP archive - archive has already been closed");
}

/// A writer over a file system that counts and fails I/O calls.
class FaultyOutStreamTest : public ::testing::Test {
protected:
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<testsupport::CFaultyFileSystem> faulty = tal::newObj<testsupport::CFaultyFileSystem>(memory.get());
  tal::CURI uri{tal::String("mem:/faulty.zip")};
  tal::P<ziputil::CZipWriter> writer = testsupport::newArchiveWriter(faulty.get(), uri, "", 0);
  tal::P<tal::IOutStream> out = writer->beginAddFile(entryURI("e"), tal::CTimeFields());
};

TEST_F(FaultyOutStreamTest, FailedWriteLeavesTheStreamOpenWithPositionAndLengthUnchanged) {
  out->write("0123456789", 10, nullptr);
  // At level 0 minizip hands its 64 KiB buffer to the file system once it is full: that write fails.
  long long const failing = faulty->count(testsupport::CFaultyFileSystem::Write) + 1;
  faulty->failNth(testsupport::CFaultyFileSystem::Write, failing);
  auto const expected = testsupport::CFaultyFileSystem::injectedError(testsupport::CFaultyFileSystem::Write, failing, uri);
  std::string const chunk(10000, 'b');
  long long before = -1;
  bool failed = false;
  for (int i = 0; i < 100 && !failed; ++i) {
    before = out->getPosition();
    try {
      out->write(chunk.data(), static_cast<int>(chunk.size()), nullptr);
    } catch (tal::CError const& e) { // the file system's own error, unchanged
      failed = true;
      testsupport::expectSameError(e, expected);
    }
  }
  ASSERT_TRUE(failed);
  EXPECT_GT(before, 10);
  EXPECT_TRUE(faulty->fired());
  // Still open, where it was.
  EXPECT_EQ(out->getPosition(), before);
  EXPECT_EQ(out->getLength(), before);
  EXPECT_NO_THROW(out->flush());
  // The entry cannot be finished: its close takes it back and reports the failure again.
  try {
    out->close();
    ADD_FAILURE() << "the entry's close succeeded";
  } catch (tal::CError const& e) {
    testsupport::expectSameError(e, expected);
  }
  EXPECT_THROW(out->getPosition(), tal::CIOError); // closed now
  testsupport::addEntry(*writer, "f", "after");
  writer->close();
  auto reader = tal::newObj<ziputil::CZipReader>(memory.get(), uri, tal::String());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "f");
  EXPECT_FALSE(reader->nextFile());
}

TEST_F(FaultyOutStreamTest, BarriersAndFlushWriteNothing) {
  out->write("abc", 3, nullptr);
  long long const writes = faulty->count(testsupport::CFaultyFileSystem::Write);
  long long const seeks = faulty->count(testsupport::CFaultyFileSystem::Seek);
  tal::P<tal::IWriteBarrier> first = out->createWriteBarrier(nullptr);
  tal::P<tal::IWriteBarrier> second = out->createWriteBarrier(nullptr);
  out->flush();
  EXPECT_NE(first.get(), second.get());
  EXPECT_NE(dynamic_cast<tal::CDummyWriteBarrier*>(second.get()), nullptr);
  EXPECT_EQ(faulty->count(testsupport::CFaultyFileSystem::Write), writes);
  EXPECT_EQ(faulty->count(testsupport::CFaultyFileSystem::Seek), seeks);
  out->close();
  writer->close();
}

TEST_F(OutStreamTest, EmptySliceStillReachesTheArchive) {
  // The empty slice goes to write (and so to minizip) like any other: once the archive is closed it fails
  // as a write does.
  writer->close();
  try {
    out->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(), nullptr);
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(e.getProblem(), tal::CFileSystemError::Unspecified);
    EXPECT_EQ(e.getCode(), tal::CIOError::WriteFailed);
    EXPECT_EQ(utf8(e.getMessage()), "Cannot write file in ZIP archive - archive has already been closed");
    EXPECT_EQ(utf8(e.getContext()), "IO");
    EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", tal::String(entryText.c_str())}, {"fileSysProblem", "0"}}));
  }
  EXPECT_NO_THROW(out->close()); // the failed write closed the stream: close is quiet
}

TEST_F(OutStreamTest, CloseAfterTheArchiveClosedReportsItOnce) {
  out->write("x", 1, nullptr);
  writer->close();
  try {
    out->close();
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(e.getProblem(), tal::CFileSystemError::Unspecified);
    EXPECT_EQ(e.getCode(), tal::CIOError::WriteFailed);
    EXPECT_EQ(utf8(e.getMessage()), "Cannot close file in ZIP archive - archive has already been closed");
    EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", tal::String(entryText.c_str())}, {"fileSysProblem", "0"}}));
  }
  EXPECT_NO_THROW(out->close());
  EXPECT_THROW(out->write("y", 1, nullptr), tal::CIOError);
  EXPECT_EQ(entryBytes("dir/e #1.txt"), "x"); // the writer's close finished the entry
}

} // namespace
