#include "ziputil/CMiniZipIO.h"

#include "support/FaultyFileSystem.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <vector>

using ziputil::CMiniZipIO;

namespace {

/// Records the access and flags it is asked for, then opens in memory.
class CRecordingFileSystem : public tal::CBase, public virtual tal::IFileSystem {
public:
  tal::P<tal::IInOutStream> openStream(tal::CURI const& uri, int access, int const& flags) override {
    calls.push_back({access, flags});
    lastURI = uri;
    return memory->openStream(uri, access, flags | 2);
  }
  bool exists(tal::CURI const& uri) override { return memory->exists(uri); }
  void remove(tal::CURI const& uri) override { memory->remove(uri); }

  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<std::pair<int, int>> calls;
  tal::CURI lastURI;
};

/// A stream whose every operation can be told to throw.
class CScriptedStream : public tal::CBase, public virtual tal::IInOutStream {
public:
  bool failRead = false, failClose = false, failTell = false;
  long long length = 10, position = 0;
  int destroyed = 0;
  int* destroyedFlag = nullptr;
  ~CScriptedStream() override {
    if (destroyedFlag) *destroyedFlag = 1;
  }
  tal::CIOError error(tal::CIOError::Code code) const {
    return tal::CIOError(code, tal::String("scripted"), tal::CProps{{"uri", "mem:/s"}}, nullptr);
  }
  long long getLength() const override { return length; }
  long long getPosition() const override {
    if (failTell) throw error(tal::CIOError::SeekFailed);
    return position;
  }
  tal::CURI getURI() const override { return tal::CURI(tal::String("mem:/s")); }
  void seek(long long p) override { position = p; }
  tal::P<tal::IRangeLock> lockRange(long long, long long, LockType) override { return nullptr; }
  void close() override {
    if (failClose) throw error(tal::CIOError::Unknown);
  }
  void read(void*, int) override {}
  int readLax(void*, int size) override {
    if (failRead) throw error(tal::CIOError::ReadFailed);
    long long n = std::min<long long>(size, std::max<long long>(0, length - position));
    position += n;
    return static_cast<int>(n);
  }
  int readAvailable(void* b, int s) override { return readLax(b, s); }
  bool waitReadable(int) const override { return true; }
  bool isEndOfStream() const override { return position >= length; }
  int isEndOfStream_NonBlocking() const override { return isEndOfStream(); }
  void write(void const*, int, tal::IWriteBarrier*) override { throw error(tal::CIOError::WriteFailed); }
  void writeKeepBuffer(tal::TConstBufferSlice<unsigned char> const&, tal::IWriteBarrier*) override {}
  tal::P<tal::IWriteBarrier> createWriteBarrier(tal::IWriteBarrier*) override { return nullptr; }
  void flush() override {}
  void setLength(long long) override {}
};

class CScriptedFileSystem : public tal::CBase, public virtual tal::IFileSystem {
public:
  tal::P<CScriptedStream> stream = tal::newObj<CScriptedStream>();
  tal::P<tal::IInOutStream> openStream(tal::CURI const&, int, int const&) override {
    return tal::P<tal::IInOutStream>(stream.get());
  }
  bool exists(tal::CURI const&) override { return true; }
  void remove(tal::CURI const&) override {}
};

TEST(BridgeTest, ModesMapToAccessAndFlags) {
  tal::P<CRecordingFileSystem> fs = tal::newObj<CRecordingFileSystem>();
  CMiniZipIO io(fs.get());
  zlib_filefunc64_def* f = io.getFuncs();
  for (int mode : {5, 11, 7, 2, 1, 9, 3}) {
    voidpf handle = f->zopen64_file(f->opaque, "mem:/a%20b.zip", mode);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(f->zclose_file(f->opaque, handle), 0);
  }
  std::vector<std::pair<int, int>> expected{{1, 0}, {3, 2}, {3, 0}, {3, 0}, {1, 0}, {1, 4}, {3, 0}};
  EXPECT_EQ(fs->calls, expected);
  EXPECT_EQ(fs->lastURI.getPath().toUTF8(), "/a b.zip");
}

TEST(BridgeTest, FuncsPointerIsStableAndOpaqueIsTheObject) {
  CMiniZipIO io(nullptr);
  EXPECT_EQ(io.getFuncs(), io.getFuncs());
  EXPECT_EQ(io.getFuncs()->opaque, &io);
  EXPECT_EQ(io.getLastError(), nullptr);
}

TEST(BridgeTest, OpenFailureIsRecordedAndReturnsNull) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  CMiniZipIO io(memory.get());
  zlib_filefunc64_def* f = io.getFuncs();
  EXPECT_EQ(f->zopen64_file(f->opaque, "mem:/missing.zip", 1), nullptr);
  tal::P<tal::CError> error = io.getLastError();
  ASSERT_NE(error, nullptr);
  auto* ioError = dynamic_cast<tal::CIOError*>(error.get());
  ASSERT_NE(ioError, nullptr);
  EXPECT_EQ(ioError->getCode(), tal::CIOError::OpenFailed);
  EXPECT_EQ(error->getProps().get("uri").toUTF8(), "mem:/missing.zip");
  EXPECT_EQ(f->zopen64_file(f->opaque, "mem:/bad%zz", 1), nullptr); // the URI itself is refused
  EXPECT_NE(dynamic_cast<tal::CInvalidArgError*>(io.getLastError().get()), nullptr);
}

TEST(BridgeTest, SeekFromEndOfUnknownLengthFailsWithoutSettingTheFlag) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/u.zip"));
  memory->setFile(uri, "0123456789");
  memory->setLengthUnknown(true);
  CMiniZipIO io(memory.get());
  zlib_filefunc64_def* f = io.getFuncs();
  voidpf handle = f->zopen64_file(f->opaque, "mem:/u.zip", 1);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(f->zseek64_file(f->opaque, handle, 3, ZLIB_FILEFUNC_SEEK_SET), 0);
  EXPECT_EQ(f->zseek64_file(f->opaque, handle, 0, ZLIB_FILEFUNC_SEEK_END), -1);
  EXPECT_EQ(f->ztell64_file(f->opaque, handle), 3u);
  EXPECT_EQ(f->zerror_file(f->opaque, handle), 0);
  tal::P<tal::CError> error = io.getLastError();
  ASSERT_NE(error, nullptr);
  tal::CError const& recorded = *error;
  EXPECT_EQ(typeid(recorded), typeid(tal::CError));
  EXPECT_EQ(error->getMessage().toUTF8(), "Cannot seek from end: stream length is unknown.");
  EXPECT_EQ(error->getContext().toUTF8(), "");
  EXPECT_EQ(error->getCode(), -1);
  EXPECT_EQ(error->getProps().size(), 1u);
  EXPECT_EQ(error->getProps().get("uri").toUTF8(), "mem:/u.zip");
  EXPECT_EQ(error->getCause(), nullptr);
  EXPECT_EQ(f->zclose_file(f->opaque, handle), 0);
}

TEST(BridgeTest, SeekOrigins) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  memory->setFile(tal::CURI(tal::String("mem:/o")), "0123456789");
  CMiniZipIO io(memory.get());
  zlib_filefunc64_def* f = io.getFuncs();
  voidpf h = f->zopen64_file(f->opaque, "mem:/o", 1);
  EXPECT_EQ(f->zseek64_file(f->opaque, h, 4, ZLIB_FILEFUNC_SEEK_SET), 0);
  EXPECT_EQ(f->zseek64_file(f->opaque, h, 2, ZLIB_FILEFUNC_SEEK_CUR), 0);
  EXPECT_EQ(f->ztell64_file(f->opaque, h), 6u);
  EXPECT_EQ(f->zseek64_file(f->opaque, h, static_cast<ZPOS64_T>(-3), ZLIB_FILEFUNC_SEEK_END), 0);
  EXPECT_EQ(f->ztell64_file(f->opaque, h), 7u);
  EXPECT_EQ(f->zseek64_file(f->opaque, h, 2, 7), 0); // an unknown origin is absolute
  EXPECT_EQ(f->ztell64_file(f->opaque, h), 2u);
  char b[3];
  EXPECT_EQ(f->zread_file(f->opaque, h, b, 3), 3u);
  EXPECT_EQ(std::string(b, 3), "234");
  f->zclose_file(f->opaque, h);
}

TEST(BridgeTest, ReadAtEndAndFailingRead) {
  tal::P<CScriptedFileSystem> fs = tal::newObj<CScriptedFileSystem>();
  CMiniZipIO io(fs.get());
  zlib_filefunc64_def* f = io.getFuncs();
  voidpf h = f->zopen64_file(f->opaque, "mem:/s", 1);
  fs->stream->position = 10;
  char b[4];
  EXPECT_EQ(f->zread_file(f->opaque, h, b, 4), 0u);
  EXPECT_EQ(f->zerror_file(f->opaque, h), 0);
  EXPECT_EQ(io.getLastError(), nullptr);
  fs->stream->failRead = true;
  EXPECT_EQ(f->zread_file(f->opaque, h, b, 4), 0u);
  EXPECT_EQ(f->zerror_file(f->opaque, h), 1);
  tal::P<tal::CError> readError = io.getLastError();
  ASSERT_NE(dynamic_cast<tal::CIOError*>(readError.get()), nullptr);
  EXPECT_EQ(readError->getCode(), tal::CIOError::ReadFailed);
  fs->stream->failRead = false;
  fs->stream->position = 0;
  EXPECT_EQ(f->zread_file(f->opaque, h, b, 4), 4u); // a success clears neither the flag nor the error
  EXPECT_EQ(f->zerror_file(f->opaque, h), 1);
  EXPECT_EQ(io.getLastError()->getCode(), tal::CIOError::ReadFailed);
  EXPECT_EQ(f->zwrite_file(f->opaque, h, "x", 1), 0u); // a second failure replaces the first
  EXPECT_EQ(io.getLastError()->getCode(), tal::CIOError::WriteFailed);
  fs->stream->failTell = true;
  EXPECT_EQ(f->ztell64_file(f->opaque, h), static_cast<ZPOS64_T>(-1));
  EXPECT_EQ(io.getLastError()->getCode(), tal::CIOError::SeekFailed);
  EXPECT_EQ(f->zclose_file(f->opaque, h), 0);
}

TEST(BridgeTest, FailingCloseStillFreesTheHandleAndDropsTheStream) {
  tal::P<CScriptedFileSystem> fs = tal::newObj<CScriptedFileSystem>();
  int destroyed = 0;
  fs->stream->destroyedFlag = &destroyed;
  fs->stream->failClose = true;
  CMiniZipIO io(fs.get());
  zlib_filefunc64_def* f = io.getFuncs();
  voidpf h = f->zopen64_file(f->opaque, "mem:/s", 1);
  int const countWithHandle = fs->stream->getRefCount();
  EXPECT_EQ(f->zclose_file(f->opaque, h), -1);
  EXPECT_EQ(fs->stream->getRefCount(), countWithHandle - 1);
  EXPECT_EQ(io.getLastError()->getCode(), tal::CIOError::Unknown);
  EXPECT_EQ(io.getLastError()->getMessage().toUTF8(), "scripted");
  fs->stream = nullptr;
  EXPECT_EQ(destroyed, 1); // nothing else kept it
}

TEST(BridgeTest, KeepsTheFileSystemAlive) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  int const before = memory->getRefCount();
  {
    CMiniZipIO io(memory.get());
    EXPECT_EQ(memory->getRefCount(), before + 1);
  }
  EXPECT_EQ(memory->getRefCount(), before);
}

TEST(BridgeTest, ErrorFromFaultyStreamKeepsItsClass) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  memory->setFile(tal::CURI(tal::String("mem:/f")), "abc");
  tal::P<testsupport::CFaultyFileSystem> faulty = tal::newObj<testsupport::CFaultyFileSystem>(memory.get());
  CMiniZipIO io(faulty.get());
  zlib_filefunc64_def* f = io.getFuncs();
  voidpf h = f->zopen64_file(f->opaque, "mem:/f", 1);
  faulty->failNth(testsupport::CFaultyFileSystem::Read, 1);
  char b[2];
  EXPECT_EQ(f->zread_file(f->opaque, h, b, 2), 0u);
  tal::P<tal::CError> error = io.getLastError();
  ASSERT_NE(dynamic_cast<testsupport::CInjectedError*>(error.get()), nullptr);
  EXPECT_EQ(error->getMessage().toUTF8(), "Injected Read fault #1");
  f->zclose_file(f->opaque, h);
}

} // namespace
