#include "support/FaultyFileSystem.h"
#include "support/TempDir.h"

#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <functional>
#include <typeinfo>

using tal::CIOError;
using tal::CURI;
using tal::String;
using testsupport::CFaultyFileSystem;
using testsupport::CInjectedError;

namespace {

std::string U(String const& s) { return s.toUTF8(); }

struct OpCase {
  CFaultyFileSystem::Op op;
  CIOError::Code code;
  char const* name;
};

OpCase const kCases[] = {{CFaultyFileSystem::Open, CIOError::OpenFailed, "Open"},
                         {CFaultyFileSystem::Read, CIOError::ReadFailed, "Read"},
                         {CFaultyFileSystem::Write, CIOError::WriteFailed, "Write"},
                         {CFaultyFileSystem::Seek, CIOError::SeekFailed, "Seek"},
                         {CFaultyFileSystem::Tell, CIOError::SeekFailed, "Tell"},
                         {CFaultyFileSystem::Close, CIOError::Unknown, "Close"},
                         {CFaultyFileSystem::Length, CIOError::SeekFailed, "Length"},
                         {CFaultyFileSystem::Sync, CIOError::WriteFailed, "Sync"},
                         {CFaultyFileSystem::Move, CIOError::MoveFailed, "Move"}};

/// Expects exactly the injected error of `op` number `n` on `uri`.
void expectInjected(CInjectedError const& e, OpCase const& c, long long n, std::string const& uri) {
  std::string const number = std::to_string(n);
  EXPECT_EQ(typeid(e), typeid(CInjectedError));
  EXPECT_EQ(e.getCode(), c.code);
  EXPECT_EQ(U(e.getMessage()), std::string("Injected ") + c.name + " fault #" + number);
  EXPECT_EQ(U(e.getContext()), "IO");
  EXPECT_EQ(e.getProps(), tal::CProps({{String("uri"), String::fromUTF8(uri)},
                                       {String("injected"), String::fromUTF8(c.name + ("#" + number))}}));
  EXPECT_EQ(e.getCause().get(), nullptr);
}

class FaultyFileSystemTest : public ::testing::Test {
protected:
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<CFaultyFileSystem> faulty = tal::newObj<CFaultyFileSystem>(memory.get());
  CURI uri{String("mem:/f")};

  void SetUp() override { memory->setFile(uri, "abcdef"); }

  /// One call of every counted operation, in a fixed order, on a new stream.
  void oneRound() {
    auto s = faulty->openStream(uri, 3, 0);
    char b[2];
    s->readLax(b, 2);
    s->write("x", 1, nullptr);
    faulty->sync(*s);
    s->seek(0);
    s->getPosition();
    s->getLength();
    s->close();
    faulty->move(uri, uri);
  }
};

TEST_F(FaultyFileSystemTest, EachOperationFailsAtItsNthCallOnly) {
  for (OpCase const& c : kCases) {
    for (long long n : {1, 2, 3}) {
      SCOPED_TRACE(std::string(c.name) + " #" + std::to_string(n));
      faulty->reset();
      faulty->failNth(c.op, n);
      int failures = 0;
      for (int round = 0; round < 4; ++round) {
        EXPECT_EQ(faulty->fired(), failures > 0);
        try {
          oneRound();
        } catch (CInjectedError const& e) {
          ++failures;
          expectInjected(e, c, n, "mem:/f");
        }
      }
      EXPECT_EQ(failures, 1);
      EXPECT_TRUE(faulty->fired());
      EXPECT_EQ(faulty->count(c.op), 4);
    }
  }
}

TEST_F(FaultyFileSystemTest, CountsEveryCallOfEachOperationAcrossStreams) {
  EXPECT_FALSE(faulty->fired());
  auto a = faulty->openStream(uri, 3, 0);
  auto b = faulty->openStream(uri, 1, 0);
  char buffer[4];
  a->read(buffer, 1);
  b->readLax(buffer, 1);
  b->readAvailable(buffer, 1);
  a->write("w", 1, nullptr);
  a->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(nullptr, 0, 0), nullptr);
  a->seek(0);
  b->seek(1);
  b->seek(2);
  a->getPosition();
  a->getLength();
  b->getLength();
  faulty->sync(*a);
  faulty->sync(*b);
  faulty->sync(*a);
  faulty->move(uri, CURI(String("mem:/g")));
  faulty->move(CURI(String("mem:/g")), uri);
  // Not counted: they are not I/O calls a fault can be armed on.
  a->flush();
  a->createWriteBarrier(nullptr);
  a->setLength(6);
  a->waitReadable(0);
  a->isEndOfStream();
  a->isEndOfStream_NonBlocking();
  a->getURI();
  faulty->exists(uri);
  a->close();
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Open), 2);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Read), 3);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Write), 2);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Seek), 3);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Tell), 1);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Length), 2);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Close), 1);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Sync), 3);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Move), 2);
  EXPECT_FALSE(faulty->fired());
  faulty->reset();
  for (OpCase const& c : kCases) EXPECT_EQ(faulty->count(c.op), 0) << c.name;
}

TEST_F(FaultyFileSystemTest, ZeroDisarmsAndResetClearsAnArmedFault) {
  faulty->failNth(CFaultyFileSystem::Read, 0);
  for (int round = 0; round < 3; ++round) EXPECT_NO_THROW(oneRound());
  EXPECT_FALSE(faulty->fired());
  faulty->failNth(CFaultyFileSystem::Read, 5);
  faulty->reset();
  for (int round = 0; round < 6; ++round) EXPECT_NO_THROW(oneRound());
  EXPECT_FALSE(faulty->fired());
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Read), 6);
  faulty->failNth(CFaultyFileSystem::Read, 3); // already past: never fires
  EXPECT_NO_THROW(oneRound());
  EXPECT_FALSE(faulty->fired());
}

TEST_F(FaultyFileSystemTest, RearmingMovesTheFault) {
  faulty->failNth(CFaultyFileSystem::Write, 1);
  faulty->failNth(CFaultyFileSystem::Seek, 2);
  EXPECT_NO_THROW(oneRound());
  EXPECT_THROW(oneRound(), CInjectedError);
  EXPECT_TRUE(faulty->fired());
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Seek), 2);
}

TEST_F(FaultyFileSystemTest, FailedOpenOpensNothing) {
  CURI fresh(String("mem:/new"));
  faulty->failNth(CFaultyFileSystem::Open, 1);
  try {
    faulty->openStream(fresh, 3, 2);
    FAIL();
  } catch (CInjectedError const& e) {
    expectInjected(e, kCases[0], 1, "mem:/new");
  }
  EXPECT_FALSE(memory->exists(fresh));
  faulty->openStream(fresh, 3, 2)->close();
  EXPECT_TRUE(memory->exists(fresh));
}

TEST_F(FaultyFileSystemTest, FailedCallsDoNotReachTheInnerStream) {
  auto s = faulty->openStream(uri, 3, 0);
  char b[3];
  faulty->failNth(CFaultyFileSystem::Read, 1);
  EXPECT_THROW(s->read(b, 3), CInjectedError);
  EXPECT_EQ(s->getPosition(), 0);
  faulty->failNth(CFaultyFileSystem::Write, 1);
  EXPECT_THROW(s->write("zzz", 3, nullptr), CInjectedError);
  EXPECT_EQ(memory->getFile(uri), "abcdef");
  faulty->failNth(CFaultyFileSystem::Seek, 1);
  EXPECT_THROW(s->seek(4), CInjectedError);
  s->read(b, 3);
  EXPECT_EQ(std::string(b, 3), "abc");
}

TEST_F(FaultyFileSystemTest, ForwardsResultsAndInnerErrors) {
  auto s = faulty->openStream(uri, 1, 0);
  EXPECT_EQ(s->getURI(), uri);
  EXPECT_EQ(s->getLength(), 6);
  EXPECT_TRUE(s->waitReadable(0));
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 0);
  s->seek(4);
  char b[4];
  EXPECT_EQ(s->readLax(b, 4), 2);
  EXPECT_EQ(std::string(b, 2), "ef");
  EXPECT_TRUE(s->isEndOfStream());
  EXPECT_EQ(s->getPosition(), 6);
  try {
    s->write("x", 1, nullptr);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(typeid(e), typeid(CIOError));
    EXPECT_EQ(e.getCode(), CIOError::WriteFailed);
  }
  try {
    s->lockRange(0, 1, tal::IStreamBase::LockShared);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::LockNotSupported);
  }
  try {
    faulty->openStream(CURI(String("mem:/missing")), 1, 0);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(typeid(e), typeid(CIOError));
    EXPECT_EQ(U(e.getMessage()), "Cannot open file: No such file");
  }
  EXPECT_TRUE(faulty->exists(uri));
  faulty->remove(uri);
  EXPECT_FALSE(memory->exists(uri));
  EXPECT_THROW(faulty->remove(uri), CIOError);
}

TEST_F(FaultyFileSystemTest, FailingCloseStillClosesTheInnerStream) {
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> local = tal::newObj<tal::CLocalFileSystem>();
  tal::P<CFaultyFileSystem> overLocal = tal::newObj<CFaultyFileSystem>(local.get());
  auto s = overLocal->openStream(dir.uri("f"), 3, 2);
  s->write("data", 4, nullptr); // collected in the local stream's buffer
  overLocal->failNth(CFaultyFileSystem::Close, 1);
  try {
    s->close();
    FAIL();
  } catch (CInjectedError const& e) {
    expectInjected(e, kCases[5], 1, U(dir.uri("f").toString(true)));
  }
  EXPECT_EQ(testsupport::readFile(dir.file("f")), "data"); // the inner close flushed
  try {
    s->readLax(nullptr, 0);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(e.getCode(), CIOError::StreamClosed);
  }
  EXPECT_EQ(overLocal->count(CFaultyFileSystem::Close), 1);
}

TEST_F(FaultyFileSystemTest, SyncReachesTheInnerStreamUnlessItFails) {
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> local = tal::newObj<tal::CLocalFileSystem>();
  tal::P<CFaultyFileSystem> overLocal = tal::newObj<CFaultyFileSystem>(local.get());
  CURI const file = dir.uri("s");
  auto s = overLocal->openStream(file, 3, 2);
  s->write("data", 4, nullptr); // collected in the local stream's buffer
  overLocal->failNth(CFaultyFileSystem::Sync, 1);
  try {
    overLocal->sync(*s);
    FAIL();
  } catch (CInjectedError const& e) {
    expectInjected(e, kCases[7], 1, U(file.toString(true)));
  }
  EXPECT_EQ(testsupport::readFile(dir.file("s")), ""); // the inner stream was not flushed
  overLocal->sync(*s); // the wrapper hands the local file system its own stream
  EXPECT_EQ(testsupport::readFile(dir.file("s")), "data");
  EXPECT_EQ(overLocal->count(CFaultyFileSystem::Sync), 2);
  s->close();
  try {
    overLocal->sync(*s);
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(typeid(e), typeid(CIOError));
    EXPECT_EQ(e.getCode(), CIOError::StreamClosed);
  }
  EXPECT_EQ(overLocal->count(CFaultyFileSystem::Sync), 3);
}

TEST_F(FaultyFileSystemTest, SyncHandsOtherStreamsToTheInnerFileSystemAsTheyAre) {
  auto own = memory->openStream(uri, 3, 0); // opened by the inner file system itself
  EXPECT_NO_THROW(faulty->sync(*own));
  tal::P<tal::CMemoryFileSystem> other = tal::newObj<tal::CMemoryFileSystem>();
  auto foreign = other->openStream(CURI(String("mem:/o")), 3, 2);
  try {
    faulty->sync(*foreign);
    FAIL();
  } catch (tal::CInvalidArgError const& e) {
    EXPECT_EQ(U(e.getMessage()), "Invalid argument passed to 'CMemoryFileSystem::sync': the stream was not opened by "
                                 "this CMemoryFileSystem.");
  }
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Sync), 2);
}

TEST_F(FaultyFileSystemTest, FailedMoveLeavesTheFileWhereItWas) {
  CURI const to(String("mem:/moved"));
  memory->setFile(to, "old");
  faulty->failNth(CFaultyFileSystem::Move, 2);
  faulty->move(uri, to);
  EXPECT_EQ(memory->getFile(to), "abcdef");
  EXPECT_FALSE(memory->exists(uri));
  memory->setFile(uri, "second");
  try {
    faulty->move(uri, to);
    FAIL();
  } catch (CInjectedError const& e) {
    expectInjected(e, kCases[8], 2, "mem:/f");
  }
  EXPECT_EQ(memory->getFile(uri), "second");
  EXPECT_EQ(memory->getFile(to), "abcdef");
  EXPECT_TRUE(faulty->fired());
  try {
    faulty->move(CURI(String("mem:/missing")), to); // the inner file system's own error, unchanged
    FAIL();
  } catch (CIOError const& e) {
    EXPECT_EQ(typeid(e), typeid(CIOError));
    EXPECT_EQ(e.getCode(), CIOError::MoveFailed);
    EXPECT_EQ(U(e.getMessage()), "Cannot move file: No such file");
  }
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Move), 3);
}

TEST_F(FaultyFileSystemTest, InjectedErrorsCloneAndRethrowAsTheirOwnClass) {
  CInjectedError const e = CFaultyFileSystem::injectedError(CFaultyFileSystem::Length, 7, uri);
  expectInjected(e, kCases[6], 7, "mem:/f");
  tal::P<tal::CError> clone = e.clone();
  auto const* copy = dynamic_cast<CInjectedError const*>(clone.get());
  ASSERT_NE(copy, nullptr);
  expectInjected(*copy, kCases[6], 7, "mem:/f");
  try {
    clone->throwClone();
  } catch (CInjectedError const& thrown) {
    expectInjected(thrown, kCases[6], 7, "mem:/f");
  }
  try {
    static_cast<tal::CError const&>(e).throwClone();
  } catch (tal::CIOError const& thrown) {
    EXPECT_EQ(typeid(thrown), typeid(CInjectedError));
  }
}

TEST_F(FaultyFileSystemTest, OperationNames) {
  EXPECT_STREQ(CFaultyFileSystem::opName(CFaultyFileSystem::Open), "Open");
  EXPECT_STREQ(CFaultyFileSystem::opName(CFaultyFileSystem::Tell), "Tell");
  EXPECT_STREQ(CFaultyFileSystem::opName(CFaultyFileSystem::Length), "Length");
  EXPECT_STREQ(CFaultyFileSystem::opName(CFaultyFileSystem::Sync), "Sync");
  EXPECT_STREQ(CFaultyFileSystem::opName(CFaultyFileSystem::Move), "Move");
  EXPECT_EQ(CFaultyFileSystem::Length, 6); // the original operations keep their numbers
  EXPECT_EQ(CFaultyFileSystem::OpCount, 9);
}

} // namespace
