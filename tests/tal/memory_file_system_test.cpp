#include "tal/MemoryFileSystem.h"

#include "support/StreamChecks.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <typeinfo>
#include <vector>

using tal::CIOError;
using tal::CURI;
using tal::String;

namespace {

std::string U(String const& s) { return s.toUTF8(); }

/// Expects `call` to throw exactly a CIOError with `code`, `message`, context "IO", no cause and the single
/// property "uri" = `uri`.
void expectIOError(std::function<void()> const& call, CIOError::Code code, std::string const& message,
                   std::string const& uri) {
  testsupport::expectIOError(call, code, message, tal::CProps({{String("uri"), String::fromUTF8(uri)}}));
}

std::string patterned(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 13 + i / 253);
  return data;
}

class MemoryFileSystemTest : public ::testing::Test {
protected:
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  CURI uri{String("mem:/dir/a.bin")};
};

TEST_F(MemoryFileSystemTest, CreatesWritesAndReadsBack) {
  auto out = fs->openStream(uri, 3, 2);
  EXPECT_EQ(out->getURI(), uri);
  EXPECT_EQ(out->getLength(), 0);
  out->write("hello world", 11, nullptr);
  EXPECT_EQ(out->getLength(), 11);
  EXPECT_EQ(out->getPosition(), 11);
  out->close();
  EXPECT_EQ(fs->getFile(uri), "hello world");
  auto in = fs->openStream(uri, 1, 0);
  char b[16];
  in->read(b, 5);
  EXPECT_EQ(std::string(b, 5), "hello");
  EXPECT_EQ(in->readLax(b, 16), 6);
  EXPECT_EQ(std::string(b, 6), " world");
  EXPECT_TRUE(in->isEndOfStream());
  EXPECT_EQ(in->isEndOfStream_NonBlocking(), 1);
  EXPECT_EQ(in->readLax(b, 16), 0);
}

TEST_F(MemoryFileSystemTest, CreateFlagsMakeMissingFilesAndKeepExistingOnes) {
  auto rw = fs->openStream(CURI(String("mem:/rw")), 3, 2);
  auto ro = fs->openStream(CURI(String("mem:/ro")), 1, 4);
  EXPECT_EQ(rw->getLength(), 0);
  EXPECT_EQ(ro->getLength(), 0);
  EXPECT_TRUE(fs->exists(CURI(String("mem:/rw"))));
  EXPECT_EQ(fs->getFile(CURI(String("mem:/ro"))), "");
  fs->setFile(uri, "old");
  auto kept = fs->openStream(uri, 3, 2);
  EXPECT_EQ(kept->getLength(), 3);
  kept->write("n", 1, nullptr);
  EXPECT_EQ(fs->getFile(uri), "nld");
}

TEST_F(MemoryFileSystemTest, WritesAreVisibleToOtherStreamsAtOnce) {
  auto out = fs->openStream(uri, 3, 2);
  auto in = fs->openStream(uri, 1, 0);
  out->write("abc", 3, nullptr);
  char b[3];
  in->read(b, 3);
  EXPECT_EQ(std::string(b, 3), "abc");
  EXPECT_EQ(fs->getFile(uri), "abc");
  EXPECT_EQ(in->getLength(), 3);
}

TEST_F(MemoryFileSystemTest, NamesAreComparedInNormalisedForm) {
  fs->setFile(uri, "bytes");
  EXPECT_TRUE(fs->exists(CURI(String("MEM:/dir/./a.bin"))));
  EXPECT_EQ(fs->getFile(CURI(String("mem:/dir/x/../a.bin"))), "bytes");
  EXPECT_FALSE(fs->exists(CURI(String("other:/dir/a.bin"))));
  EXPECT_FALSE(fs->exists(CURI(String("mem:/dir/A.bin"))));
  fs->remove(CURI(String("mem:/dir/./a.bin")));
  EXPECT_FALSE(fs->exists(uri));
}

TEST_F(MemoryFileSystemTest, AnySchemeAndAnyCharactersName) {
  CURI odd(String::fromUTF8("mem:/a%20b%23c%25d%C3%A9"));
  EXPECT_EQ(U(odd.getPath()), "/a b#c%d\xC3\xA9");
  auto out = fs->openStream(odd, 3, 2);
  out->write("x", 1, nullptr);
  out->close();
  EXPECT_EQ(fs->getFile(CURI(odd.toString(true))), "x");
  fs->setFile(CURI(String("file:///tmp/not-on-disk")), "y");
  EXPECT_EQ(fs->getFile(CURI(String("file:///tmp/not-on-disk"))), "y");
}

TEST_F(MemoryFileSystemTest, MissingFileErrors) {
  expectIOError([&] { fs->openStream(uri, 1, 0); }, CIOError::OpenFailed, "Cannot open file: No such file",
                "mem:/dir/a.bin");
  expectIOError([&] { fs->openStream(uri, 3, 0); }, CIOError::OpenFailed, "Cannot open file: No such file",
                "mem:/dir/a.bin");
  EXPECT_FALSE(fs->exists(uri)); // a failed open leaves nothing behind
  expectIOError([&] { fs->getFile(uri); }, CIOError::OpenFailed, "Cannot open file: No such file", "mem:/dir/a.bin");
  expectIOError([&] { fs->remove(uri); }, CIOError::DeleteFailed, "Cannot delete file: No such file",
                "mem:/dir/a.bin");
}

TEST_F(MemoryFileSystemTest, OtherAccessModesAreInvalidArguments) {
  for (int access : {0, 2, 4}) {
    try {
      fs->openStream(uri, access, 2);
      ADD_FAILURE() << access;
    } catch (tal::CInvalidArgError const& e) {
      EXPECT_EQ(U(e.getMessage()),
                "Invalid argument passed to 'CMemoryFileSystem::openStream': access must be 1 or 3.");
      EXPECT_EQ(U(e.getProps().get("uri")), "mem:/dir/a.bin");
    }
  }
  EXPECT_FALSE(fs->exists(uri));
}

TEST_F(MemoryFileSystemTest, ReadOnlyStreamRefusesWritesAndSetLength) {
  fs->setFile(uri, "abc");
  auto in = fs->openStream(uri, 1, 0);
  expectIOError([&] { in->write("x", 1, nullptr); }, CIOError::WriteFailed, "The stream is open for reading only",
                "mem:/dir/a.bin");
  expectIOError([&] { in->setLength(0); }, CIOError::SetLengthFailed, "The stream is open for reading only",
                "mem:/dir/a.bin");
  EXPECT_EQ(fs->getFile(uri), "abc");
}

TEST_F(MemoryFileSystemTest, ReadPastEndIsUnexpectedEnd) {
  fs->setFile(uri, "abc");
  auto in = fs->openStream(uri, 1, 0);
  char b[8];
  expectIOError([&] { in->read(b, 8); }, CIOError::UnexpectedEnd, "Unexpected end of data.", "mem:/dir/a.bin");
  in->seek(0);
  in->read(b, 3);
  EXPECT_EQ(std::string(b, 3), "abc");
}

TEST_F(MemoryFileSystemTest, SeekBeyondEndThenReadAndWrite) {
  fs->setFile(uri, "0123456789");
  auto s = fs->openStream(uri, 3, 0);
  EXPECT_EQ(s->getLength(), 10);
  s->seek(8);
  char b[4];
  EXPECT_EQ(s->readLax(b, 4), 2);
  EXPECT_TRUE(s->isEndOfStream());
  s->seek(12);
  EXPECT_EQ(s->readAvailable(b, 4), 0);
  expectIOError([&] { s->read(b, 1); }, CIOError::UnexpectedEnd, "Unexpected end of data.", "mem:/dir/a.bin");
  s->write("x", 1, nullptr);
  EXPECT_EQ(fs->getFile(uri), std::string("0123456789\0\0x", 13));
  s->setLength(4);
  EXPECT_EQ(fs->getFile(uri), "0123");
  s->setLength(6);
  EXPECT_EQ(fs->getFile(uri), std::string("0123\0\0", 6));
  expectIOError([&] { s->setLength(-1); }, CIOError::SetLengthFailed, "Cannot set file length: Negative length",
                "mem:/dir/a.bin");
}

TEST_F(MemoryFileSystemTest, NegativePositionReadsAsPastTheEnd) {
  fs->setFile(uri, "abc");
  auto s = fs->openStream(uri, 3, 0);
  s->seek(-1);
  EXPECT_EQ(s->getPosition(), -1);
  EXPECT_TRUE(s->isEndOfStream());
  char b[4];
  EXPECT_EQ(s->readLax(b, 4), 0);
  expectIOError([&] { s->write("x", 1, nullptr); }, CIOError::WriteFailed,
                "Cannot write beyond the largest file offset", "mem:/dir/a.bin");
  EXPECT_EQ(fs->getFile(uri), "abc");
}

TEST_F(MemoryFileSystemTest, EverythingButGetUriAfterCloseIsStreamClosed) {
  fs->setFile(uri, "abc");
  auto s = fs->openStream(uri, 3, 0);
  s->close();
  testsupport::expectClosedStreamRefusesAll(*s, uri);
  EXPECT_EQ(s->getURI(), uri);
  EXPECT_EQ(fs->getFile(uri), "abc");
}

TEST_F(MemoryFileSystemTest, LockRangeIsNotSupported) {
  auto s = fs->openStream(uri, 3, 2);
  expectIOError([&] { s->lockRange(0, 1, tal::IStreamBase::LockExclusive); }, CIOError::LockNotSupported, "",
                "mem:/dir/a.bin");
}

TEST_F(MemoryFileSystemTest, WaitReadableWriteKeepBufferAndBarrier) {
  auto s = fs->openStream(uri, 3, 2);
  EXPECT_TRUE(s->waitReadable(0));
  tal::P<tal::TBuffer<unsigned char>> buffer = tal::newObj<tal::TBuffer<unsigned char>>();
  buffer->setUsed(6);
  std::memcpy(buffer->getData(), "abcdef", 6);
  s->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(buffer.get(), 2, 4), nullptr);
  s->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(nullptr, 0, 0), nullptr);
  tal::P<tal::IWriteBarrier> barrier = s->createWriteBarrier(nullptr);
  EXPECT_NE(dynamic_cast<tal::CDummyWriteBarrier*>(barrier.get()), nullptr);
  EXPECT_EQ(fs->getFile(uri), "cdef");
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 1);
  s->seek(1);
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 0);
}

TEST_F(MemoryFileSystemTest, RemoveAndReplaceLeaveOpenStreamsTheirBytes) {
  fs->setFile(uri, "first");
  auto before = fs->openStream(uri, 3, 0);
  fs->setFile(uri, "second");
  char b[6];
  before->read(b, 5);
  EXPECT_EQ(std::string(b, 5), "first");
  auto again = fs->openStream(uri, 1, 0);
  fs->remove(uri);
  EXPECT_FALSE(fs->exists(uri));
  again->read(b, 6);
  EXPECT_EQ(std::string(b, 6), "second");
  before->write("!", 1, nullptr); // writes into the replaced bytes, which nobody else can reach
  EXPECT_FALSE(fs->exists(uri));
}

TEST_F(MemoryFileSystemTest, UnknownLength) {
  fs->setFile(uri, "abc");
  auto known = fs->openStream(uri, 1, 0);
  fs->setLengthUnknown(true);
  auto s = fs->openStream(uri, 1, 0);
  EXPECT_EQ(s->getLength(), -1);
  EXPECT_EQ(known->getLength(), 3);
  EXPECT_FALSE(s->isEndOfStream());
  char b[4];
  s->read(b, 3);
  EXPECT_EQ(std::string(b, 3), "abc");
  EXPECT_EQ(s->readLax(b, 4), 0);
  fs->setLengthUnknown(false);
  EXPECT_EQ(fs->openStream(uri, 1, 0)->getLength(), 3);
}

TEST_F(MemoryFileSystemTest, LargeFileAndManySmallReads) {
  std::string const data = patterned(300000);
  auto out = fs->openStream(uri, 3, 2);
  for (std::size_t at = 0; at < data.size(); at += 4096)
    out->write(data.data() + at, static_cast<int>(std::min<std::size_t>(4096, data.size() - at)), nullptr);
  out->close();
  ASSERT_EQ(fs->getFile(uri), data);
  auto in = fs->openStream(uri, 1, 0);
  std::string back;
  char small[4];
  int n;
  while ((n = in->readLax(small, 4)) > 0) back.append(small, static_cast<std::size_t>(n));
  EXPECT_EQ(back, data);
  in->seek(1000);
  std::string big(200000, '\0');
  in->read(&big[0], 200000);
  EXPECT_EQ(big, data.substr(1000, 200000));
}

/// Expects exactly the CInvalidArgError of CMemoryFileSystem::sync refusing a stream of `uri`.
void expectForeignStreamRefused(std::function<void()> const& call, std::string const& uri) {
  try {
    call();
    ADD_FAILURE() << "no error thrown for " << uri;
  } catch (tal::CInvalidArgError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CInvalidArgError));
    EXPECT_EQ(U(e.getMessage()), "Invalid argument passed to 'CMemoryFileSystem::sync': the stream was not opened by "
                                 "this CMemoryFileSystem.");
    EXPECT_EQ(U(e.getContext()), "");
    EXPECT_EQ(e.getCode(), -1);
    EXPECT_EQ(e.getProps(), tal::CProps({{String("uri"), String::fromUTF8(uri)}}));
    EXPECT_EQ(e.getCause().get(), nullptr);
  }
}

TEST_F(MemoryFileSystemTest, SyncOfAnOpenStreamChangesNothing) {
  auto s = fs->openStream(uri, 3, 2);
  s->write("abc", 3, nullptr);
  fs->sync(*s);
  EXPECT_EQ(fs->getFile(uri), "abc");
  EXPECT_EQ(s->getPosition(), 3);
  s->write("d", 1, nullptr); // still open
  auto reader = fs->openStream(uri, 1, 0);
  fs->sync(*reader);
  char b[4];
  reader->read(b, 4);
  EXPECT_EQ(std::string(b, 4), "abcd");
}

TEST_F(MemoryFileSystemTest, SyncRefusesClosedAndForeignStreams) {
  auto s = fs->openStream(uri, 3, 2);
  s->close();
  expectIOError([&] { fs->sync(*s); }, CIOError::StreamClosed, "Error: stream has been closed.", "mem:/dir/a.bin");
  tal::P<tal::CMemoryFileSystem> other = tal::newObj<tal::CMemoryFileSystem>();
  auto foreign = other->openStream(CURI(String("mem:/other")), 3, 2);
  expectForeignStreamRefused([&] { fs->sync(*foreign); }, "mem:/other");
  EXPECT_NO_THROW(other->sync(*foreign));
  foreign->close();
  expectForeignStreamRefused([&] { fs->sync(*foreign); }, "mem:/other"); // closed or not
}

TEST_F(MemoryFileSystemTest, MoveReplacesTheTargetAndOpenStreamsKeepTheirBytes) {
  CURI const from(String("mem:/new"));
  fs->setFile(from, "new bytes");
  fs->setFile(uri, "old");
  auto onOld = fs->openStream(uri, 1, 0);
  auto onNew = fs->openStream(from, 3, 0);
  fs->move(from, CURI(String("MEM:/dir/./a.bin"))); // names compare in normalised form
  EXPECT_FALSE(fs->exists(from));
  EXPECT_EQ(fs->getFile(uri), "new bytes");
  char b[16];
  EXPECT_EQ(onOld->readLax(b, 16), 3);
  EXPECT_EQ(std::string(b, 3), "old");
  onNew->seek(9);
  onNew->write("!", 1, nullptr); // the moved file, under its new name
  EXPECT_EQ(fs->getFile(uri), "new bytes!");
  auto again = fs->openStream(uri, 1, 0);
  EXPECT_EQ(again->getLength(), 10);
}

TEST_F(MemoryFileSystemTest, MoveToAFreshNameAndOntoItself) {
  fs->setFile(uri, "x");
  CURI const to(String("mem:/elsewhere/b"));
  fs->move(uri, to);
  EXPECT_FALSE(fs->exists(uri));
  EXPECT_EQ(fs->getFile(to), "x");
  fs->move(to, CURI(String("mem:/elsewhere/./b")));
  EXPECT_EQ(fs->getFile(to), "x");
  tal::P<tal::IFileSystem> asInterface(fs.get());
  asInterface->move(to, uri);
  EXPECT_EQ(fs->getFile(uri), "x");
  EXPECT_FALSE(fs->exists(to));
}

TEST_F(MemoryFileSystemTest, MoveOfAMissingFileChangesNothing) {
  fs->setFile(uri, "untouched");
  expectIOError([&] { fs->move(CURI(String("mem:/missing")), uri); }, CIOError::MoveFailed,
                "Cannot move file: No such file", "mem:/missing");
  EXPECT_EQ(fs->getFile(uri), "untouched");
  EXPECT_FALSE(fs->exists(CURI(String("mem:/missing"))));
  expectIOError([&] { fs->move(CURI(String("mem:/missing")), CURI(String("mem:/fresh"))); }, CIOError::MoveFailed,
                "Cannot move file: No such file", "mem:/missing");
  EXPECT_FALSE(fs->exists(CURI(String("mem:/fresh"))));
}

/// A file system that implements only the original operations.
class CBareFileSystem : public tal::CBase, public virtual tal::IFileSystem {
public:
  tal::P<tal::IInOutStream> openStream(CURI const& uri, int, int const&) override {
    throw CIOError(CIOError::OpenFailed, String(), tal::uriProps(uri), nullptr);
  }
  bool exists(CURI const&) override { return false; }
  void remove(CURI const& uri) override {
    throw CIOError(CIOError::DeleteFailed, String(), tal::uriProps(uri), nullptr);
  }
};

/// Expects exactly the refusal of the default implementation of `operation` for `uri`.
void expectDefaultRefusal(std::function<void()> const& call, std::string const& operation, std::string const& uri) {
  try {
    call();
    ADD_FAILURE() << "no error thrown by " << operation;
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CFileSystemError));
    EXPECT_EQ(e.getProblem(), tal::CFileSystemError::NotSupported);
    EXPECT_EQ(U(e.getMessage()), "This file system does not support " + operation + ".");
    EXPECT_EQ(U(e.getContext()), "");
    EXPECT_EQ(e.getCode(), -1);
    EXPECT_EQ(e.getProps(),
              tal::CProps({{String("uri"), String::fromUTF8(uri)}, {String("fileSysProblem"), String("6")}}));
    EXPECT_EQ(e.getCause().get(), nullptr);
  }
}

TEST_F(MemoryFileSystemTest, DefaultSyncAndMoveAreNotSupported) {
  tal::P<tal::IFileSystem> bare(tal::newObj<CBareFileSystem>());
  auto s = fs->openStream(uri, 3, 2);
  s->write("abc", 3, nullptr);
  expectDefaultRefusal([&] { bare->sync(*s); }, "sync", "mem:/dir/a.bin");
  s->close();
  expectDefaultRefusal([&] { bare->sync(*s); }, "sync", "mem:/dir/a.bin");
  expectDefaultRefusal([&] { bare->move(CURI(String("x:/a b")), CURI(String("x:/b"))); }, "move", "x:/a%20b");
  EXPECT_EQ(fs->getFile(uri), "abc");
}

std::vector<std::string> g_reports;

void recordReport(char const* className, std::exception& e, bool) {
  g_reports.push_back(std::string(className) + "|" + e.what());
}

TEST_F(MemoryFileSystemTest, DestructorClosesQuietly) {
  g_reports.clear();
  tal::DestructorExceptionHandler previous = tal::setDestructorExceptionHandler(&recordReport);
  {
    auto s = fs->openStream(uri, 3, 2);
    s->write("kept", 4, nullptr);
  }
  tal::setDestructorExceptionHandler(previous);
  EXPECT_TRUE(g_reports.empty());
  EXPECT_EQ(fs->getFile(uri), "kept");
}

} // namespace
