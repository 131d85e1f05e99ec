#include "tal/MemoryFileSystem.h"

#include "support/FaultyFileSystem.h"

#include <gtest/gtest.h>

using tal::CIOError;
using tal::CURI;
using tal::String;
using testsupport::CFaultyFileSystem;
using testsupport::CInjectedError;

namespace {

std::string U(String const& s) { return s.toUTF8(); }

class MemoryFileSystemTest : public ::testing::Test {
protected:
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  CURI uri{String("mem:/dir/a.bin")};
};

TEST_F(MemoryFileSystemTest, WritesAreVisibleToOtherStreamsAtOnce) {
  auto out = fs->openStream(uri, 3, 2);
  auto in = fs->openStream(uri, 1, 0);
  out->write("abc", 3, nullptr);
  char b[3];
  in->read(b, 3);
  EXPECT_EQ(std::string(b, 3), "abc");
  EXPECT_EQ(fs->getFile(uri), "abc");
  out->close();
  in->close();
}

TEST_F(MemoryFileSystemTest, SetFileGetFileAndNormalisedNames) {
  fs->setFile(uri, "bytes");
  EXPECT_TRUE(fs->exists(CURI(String("MEM:/dir/./a.bin"))));
  EXPECT_EQ(fs->getFile(CURI(String("mem:/dir/x/../a.bin"))), "bytes");
  fs->remove(uri);
  EXPECT_FALSE(fs->exists(uri));
}

TEST_F(MemoryFileSystemTest, MissingFileErrors) {
  try {
    fs->openStream(uri, 1, 0);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::OpenFailed);
    EXPECT_EQ(U(e.getMessage()), "Cannot open file: No such file");
    EXPECT_EQ(U(e.getProps().get("uri")), "mem:/dir/a.bin");
  }
  EXPECT_FALSE(fs->exists(uri)); // a failed open leaves nothing behind
  EXPECT_THROW(fs->getFile(uri), CIOError);
  try {
    fs->remove(uri);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::DeleteFailed);
  }
  EXPECT_THROW(fs->openStream(uri, 2, 2), tal::CInvalidArgError);
}

TEST_F(MemoryFileSystemTest, StreamContract) {
  fs->setFile(uri, "0123456789");
  auto s = fs->openStream(uri, 3, 0);
  EXPECT_EQ(s->getLength(), 10);
  s->seek(8);
  char b[4];
  EXPECT_EQ(s->readLax(b, 4), 2);
  EXPECT_TRUE(s->isEndOfStream());
  s->seek(12);
  s->write("x", 1, nullptr);
  EXPECT_EQ(fs->getFile(uri), std::string("0123456789\0\0x", 13));
  s->setLength(4);
  EXPECT_EQ(fs->getFile(uri), "0123");
  s->seek(0);
  EXPECT_THROW(s->read(b, 5), CIOError);
  s->close();
  try {
    s->readLax(b, 1);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::StreamClosed);
  }
}

TEST_F(MemoryFileSystemTest, UnknownLength) {
  fs->setFile(uri, "abc");
  fs->setLengthUnknown(true);
  auto s = fs->openStream(uri, 1, 0);
  EXPECT_EQ(s->getLength(), -1);
  EXPECT_FALSE(s->isEndOfStream());
  char b[3];
  s->read(b, 3);
  EXPECT_EQ(std::string(b, 3), "abc");
}

TEST(FaultyFileSystemTest, EachOperationFailsAtItsNthCall) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  CURI uri(String("mem:/f"));
  memory->setFile(uri, "abcdef");
  struct Case {
    CFaultyFileSystem::Op op;
    CIOError::Code code;
    char const* name;
  } const cases[] = {{CFaultyFileSystem::Open, CIOError::OpenFailed, "Open"},
                     {CFaultyFileSystem::Read, CIOError::ReadFailed, "Read"},
                     {CFaultyFileSystem::Write, CIOError::WriteFailed, "Write"},
                     {CFaultyFileSystem::Seek, CIOError::SeekFailed, "Seek"},
                     {CFaultyFileSystem::Tell, CIOError::SeekFailed, "Tell"},
                     {CFaultyFileSystem::Close, CIOError::Unknown, "Close"},
                     {CFaultyFileSystem::Length, CIOError::SeekFailed, "Length"}};
  for (Case const& c : cases) {
    tal::P<CFaultyFileSystem> faulty = tal::newObj<CFaultyFileSystem>(memory.get());
    faulty->failNth(c.op, 2);
    int failures = 0;
    for (int round = 0; round < 3; ++round) {
      try {
        auto s = faulty->openStream(uri, 3, 0);
        char b[2];
        s->readLax(b, 2);
        s->write("x", 1, nullptr);
        s->seek(0);
        s->getPosition();
        s->getLength();
        s->close();
      } catch (CInjectedError const& e) {
        ++failures;
        EXPECT_EQ(e.getCode(), c.code);
        EXPECT_EQ(U(e.getMessage()), std::string("Injected ") + c.name + " fault #2");
        EXPECT_EQ(U(e.getProps().get("uri")), "mem:/f");
        EXPECT_EQ(U(e.getProps().get("injected")), std::string(c.name) + "#2");
        tal::P<tal::CError> clone = e.clone();
        EXPECT_NE(dynamic_cast<CInjectedError*>(clone.get()), nullptr);
      }
    }
    EXPECT_EQ(failures, 1) << c.name;
    EXPECT_TRUE(faulty->fired());
    EXPECT_EQ(faulty->count(c.op), 3) << c.name;
    faulty->reset();
    EXPECT_EQ(faulty->count(c.op), 0);
    EXPECT_FALSE(faulty->fired());
  }
}

TEST(FaultyFileSystemTest, FailingCloseStillClosesInnerStream) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  CURI uri(String("mem:/g"));
  memory->setFile(uri, "");
  tal::P<CFaultyFileSystem> faulty = tal::newObj<CFaultyFileSystem>(memory.get());
  auto s = faulty->openStream(uri, 3, 0);
  s->write("data", 4, nullptr);
  faulty->failNth(CFaultyFileSystem::Close, 1);
  EXPECT_THROW(s->close(), CInjectedError);
  EXPECT_EQ(memory->getFile(uri), "data");
  EXPECT_THROW(s->readLax(nullptr, 0), CIOError); // inner stream is closed
}

} // namespace
