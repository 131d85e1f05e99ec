#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"

#include "support/FaultyFileSystem.h"
#include "support/StreamChecks.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <typeinfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using tal::CIOError;
using tal::CURI;
using tal::String;
using testsupport::TempDir;
using testsupport::expectIOError;

namespace {

std::string U(String const& s) { return s.toUTF8(); }

/// Expects the refusal of a URI that is not a local file.
void expectNotSupported(std::function<void()> const& call, CURI const& uri) {
  try {
    call();
    ADD_FAILURE() << "no error thrown for " << U(uri.toString(true));
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CFileSystemError));
    EXPECT_EQ(e.getProblem(), tal::CFileSystemError::NotSupported);
    EXPECT_EQ(U(e.getMessage()), "CLocalFileSystem supports only file: URIs.");
    EXPECT_EQ(U(e.getContext()), "");
    EXPECT_EQ(e.getCode(), -1);
    EXPECT_EQ(e.getProps(),
              tal::CProps({{String("uri"), uri.toString(true)}, {String("fileSysProblem"), String("6")}}));
  }
}

std::string patterned(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7 + i / 251);
  return data;
}

long long diskSize(std::string const& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

class LocalFileSystemTest : public ::testing::Test {
protected:
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  TempDir dir;
  tal::P<tal::IInOutStream> open(CURI const& uri, int access, int flags = 0) {
    return fs->openStream(uri, access, flags);
  }
};

TEST_F(LocalFileSystemTest, CreatesWritesAndReadsBack) {
  CURI uri = dir.uri("a.bin");
  auto out = open(uri, 3, 2);
  EXPECT_EQ(out->getURI(), uri);
  out->write("hello world", 11, nullptr);
  EXPECT_EQ(out->getLength(), 11);
  EXPECT_EQ(out->getPosition(), 11);
  out->close();
  EXPECT_EQ(testsupport::readFile(dir.file("a.bin")), "hello world");
  auto in = open(uri, 1);
  EXPECT_EQ(in->getLength(), 11);
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

TEST_F(LocalFileSystemTest, CreateFlagsMakeMissingFilesWithUmaskedMode) {
  mode_t const previous = ::umask(022);
  auto rw = open(dir.uri("rw.txt"), 3, 2);
  auto ro = open(dir.uri("ro.txt"), 1, 4);
  ::umask(previous);
  EXPECT_EQ(rw->getLength(), 0);
  EXPECT_EQ(ro->getLength(), 0);
  rw->close();
  ro->close();
  struct stat st;
  ASSERT_EQ(::stat(dir.file("rw.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  ASSERT_EQ(::stat(dir.file("ro.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST_F(LocalFileSystemTest, CreateFlagKeepsAnExistingFile) {
  testsupport::writeFile(dir.file("kept"), "old contents");
  auto s = open(dir.uri("kept"), 3, 2);
  EXPECT_EQ(s->getLength(), 12);
  s->write("new", 3, nullptr);
  s->close();
  EXPECT_EQ(testsupport::readFile(dir.file("kept")), "new contents");
}

TEST_F(LocalFileSystemTest, MissingFileWithoutCreateFlagFails) {
  CURI uri = dir.uri("missing #1.zip");
  expectIOError([&] { open(uri, 1); }, CIOError::OpenFailed, "Cannot open file: No such file or directory", uri);
  expectIOError([&] { open(uri, 3); }, CIOError::OpenFailed, "Cannot open file: No such file or directory", uri);
  EXPECT_NE(U(uri.toString(true)).find("missing%20%231.zip"), std::string::npos);
  EXPECT_FALSE(fs->exists(uri));
}

TEST_F(LocalFileSystemTest, FolderFailsToOpen) {
  CURI uri = dir.uri();
  expectIOError([&] { open(uri, 1); }, CIOError::OpenFailed, "Cannot open file: Is a directory", uri);
  expectIOError([&] { open(uri, 3); }, CIOError::OpenFailed, "Cannot open file: Is a directory", uri);
  expectIOError([&] { open(uri, 3, 2); }, CIOError::OpenFailed, "Cannot open file: Is a directory", uri);
}

TEST_F(LocalFileSystemTest, PathBelowARegularFileFailsToOpen) {
  CURI uri(String("file:///etc/passwd/x"));
  expectIOError([&] { open(uri, 1); }, CIOError::OpenFailed, "Cannot open file: Not a directory", uri);
  expectIOError([&] { open(uri, 3, 2); }, CIOError::OpenFailed, "Cannot open file: Not a directory", uri);
}

// The check runs in a child process that gives up root (tests may run as root, who may open anything).
TEST_F(LocalFileSystemTest, PermissionDeniedCarriesTheReason) {
  testsupport::writeFile(dir.file("secret"), "x");
  ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(dir.file("secret").c_str(), 0600), 0);
  CURI uri = dir.uri("secret");
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(fds[0]);
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(2);
    std::string report;
    try {
      fs->openStream(uri, 1, 0);
      report = "opened";
    } catch (CIOError const& e) {
      report = std::to_string(e.getCode()) + "|" + U(e.getMessage()) + "|" + U(e.getProps().get("uri"));
    }
    ssize_t written = ::write(fds[1], report.data(), report.size());
    ::_exit(written == static_cast<ssize_t>(report.size()) ? 0 : 3);
  }
  ::close(fds[1]);
  std::string report;
  char buffer[512];
  ssize_t n;
  while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0) report.append(buffer, static_cast<std::size_t>(n));
  ::close(fds[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(report, "1|Cannot open file: Permission denied|" + U(uri.toString(true)));
}

TEST_F(LocalFileSystemTest, NonFileUrisAreRefused) {
  for (char const* text : {"http://host/x", "file://otherhost/x", "mem:/x", "file:"}) {
    CURI uri{String(text)};
    expectNotSupported([&] { open(uri, 1); }, uri);
    expectNotSupported([&] { open(uri, 3, 2); }, uri);
    expectNotSupported([&] { fs->exists(uri); }, uri);
    expectNotSupported([&] { fs->remove(uri); }, uri);
    expectNotSupported([&] { fs->move(uri, dir.uri("to")); }, uri);
    expectNotSupported([&] { fs->move(dir.uri("from"), uri); }, uri);
  }
}

TEST_F(LocalFileSystemTest, LocalhostAndUpperCaseSchemeAreLocal) {
  auto s = open(CURI(String::fromUTF8("file://localhost" + dir.path() + "/l")), 3, 2);
  s->write("l", 1, nullptr);
  s->close();
  EXPECT_EQ(testsupport::readFile(dir.file("l")), "l");
  EXPECT_TRUE(fs->exists(CURI(String::fromUTF8("FILE://LOCALHOST" + dir.path() + "/l"))));
}

TEST_F(LocalFileSystemTest, OtherAccessModesAreInvalidArguments) {
  testsupport::writeFile(dir.file("f"), "x");
  for (int access : {0, 2, 4}) {
    try {
      open(dir.uri("f"), access);
      ADD_FAILURE() << access;
    } catch (tal::CInvalidArgError const& e) {
      EXPECT_EQ(U(e.getMessage()), "Invalid argument passed to 'CLocalFileSystem::openStream': access must be 1 or 3.");
      EXPECT_EQ(e.getCode(), -1);
      EXPECT_EQ(e.getProps().get("uri"), dir.uri("f").toString(true));
    }
  }
}

TEST_F(LocalFileSystemTest, ReadOnlyStreamRefusesWritesAndSetLength) {
  testsupport::writeFile(dir.file("r"), "abc");
  CURI uri = dir.uri("r");
  auto in = open(uri, 1);
  expectIOError([&] { in->write("x", 1, nullptr); }, CIOError::WriteFailed, "The stream is open for reading only",
                uri);
  expectIOError([&] { in->setLength(0); }, CIOError::SetLengthFailed, "The stream is open for reading only", uri);
  in->close();
  EXPECT_EQ(testsupport::readFile(dir.file("r")), "abc");
}

TEST_F(LocalFileSystemTest, ReadFailureCarriesTheReason) {
  // Reading this process's memory at address 0 fails in the kernel with EIO.
  CURI uri(String("file:///proc/self/mem"));
  auto s = open(uri, 1);
  char b[4];
  expectIOError([&] { s->readLax(b, 4); }, CIOError::ReadFailed, "Cannot read file: Input/output error", uri);
  expectIOError([&] { s->read(b, 4); }, CIOError::ReadFailed, "Cannot read file: Input/output error", uri);
  EXPECT_EQ(s->getPosition(), 0);
  s->close();
}

TEST_F(LocalFileSystemTest, WriteFailureSurfacesAtFlushAndAtClose) {
  // The full device accepts no byte: ENOSPC.
  CURI uri(String("file:///dev/full"));
  auto s = open(uri, 3);
  s->write("abc", 3, nullptr); // collected, not yet written
  EXPECT_EQ(s->getLength(), 3);
  expectIOError([&] { s->flush(); }, CIOError::WriteFailed, "Cannot write file: No space left on device", uri);
  EXPECT_NO_THROW(s->createWriteBarrier(nullptr)); // the failed bytes are dropped: nothing is pending
  s->write("d", 1, nullptr);
  expectIOError([&] { s->createWriteBarrier(nullptr); }, CIOError::WriteFailed,
                "Cannot write file: No space left on device", uri);
  s->write("d", 1, nullptr);
  expectIOError([&] { s->close(); }, CIOError::WriteFailed, "Cannot write file: No space left on device", uri);
  expectIOError([&] { s->getPosition(); }, CIOError::StreamClosed, "Error: stream has been closed.", uri);
}

TEST_F(LocalFileSystemTest, SetLengthFailureCarriesTheReason) {
  CURI uri = dir.uri("t");
  auto s = open(uri, 3, 2);
  expectIOError([&] { s->setLength(-1); }, CIOError::SetLengthFailed, "Cannot set file length: Invalid argument", uri);
  s->close();
  CURI full(String("file:///dev/full"));
  auto device = open(full, 3);
  expectIOError([&] { device->setLength(0); }, CIOError::SetLengthFailed, "Cannot set file length: Invalid argument",
                full);
}

std::vector<std::string> g_reports;

void recordReport(char const* className, std::exception& e, bool flag) {
  auto const* error = dynamic_cast<CIOError*>(&e);
  g_reports.push_back(std::string(className) + "|" + (flag ? "1" : "0") + "|" +
                      (error ? std::to_string(error->getCode()) : std::string("?")) + "|" + e.what());
}

TEST_F(LocalFileSystemTest, DestructorClosesAndReportsAFailureItSwallows) {
  g_reports.clear();
  tal::DestructorExceptionHandler previous = tal::setDestructorExceptionHandler(&recordReport);
  {
    auto s = open(CURI(String("file:///dev/full")), 3);
    s->write("x", 1, nullptr);
  }
  {
    auto s = open(dir.uri("ok"), 3, 2);
    s->write("fine", 4, nullptr);
  }
  tal::setDestructorExceptionHandler(previous);
  ASSERT_EQ(g_reports.size(), 1u);
  EXPECT_EQ(g_reports[0], "tal::CLocalFileSystem::CStream|1|3|Cannot write file: No space left on device");
  EXPECT_EQ(testsupport::readFile(dir.file("ok")), "fine");
}

TEST_F(LocalFileSystemTest, ReadPastEndIsUnexpectedEnd) {
  testsupport::writeFile(dir.file("short"), "abc");
  CURI uri = dir.uri("short");
  auto in = open(uri, 1);
  char buffer[8];
  expectIOError([&] { in->read(buffer, 8); }, CIOError::UnexpectedEnd, "Unexpected end of data.", uri);
  EXPECT_EQ(U(CIOError::getDefaultMessage(CIOError::UnexpectedEnd)), "Unexpected end of data.");
  in->seek(0);
  EXPECT_NO_THROW(in->read(buffer, 3));
  EXPECT_EQ(std::string(buffer, 3), "abc");
  EXPECT_NO_THROW(in->read(buffer, 0));
}

TEST_F(LocalFileSystemTest, SeekBeyondEndThenReadAndWrite) {
  testsupport::writeFile(dir.file("s"), "abc");
  CURI uri = dir.uri("s");
  auto s = open(uri, 3);
  s->seek(100);
  EXPECT_EQ(s->getPosition(), 100);
  EXPECT_TRUE(s->isEndOfStream());
  char b[8];
  EXPECT_EQ(s->readLax(b, 8), 0);
  EXPECT_EQ(s->readAvailable(b, 8), 0);
  expectIOError([&] { s->read(b, 1); }, CIOError::UnexpectedEnd, "Unexpected end of data.", uri);
  EXPECT_EQ(s->getLength(), 3);
  s->seek(6);
  s->write("z", 1, nullptr);
  EXPECT_EQ(s->getLength(), 7);
  s->close();
  EXPECT_EQ(testsupport::readFile(dir.file("s")), std::string("abc\0\0\0z", 7));
}

TEST_F(LocalFileSystemTest, NegativePositionReadsAsPastTheEnd) {
  CURI uri = dir.uri("s");
  auto s = open(uri, 3, 2);
  s->write("abc", 3, nullptr);
  s->seek(-1); // what an unsigned offset of 2^64-1 becomes
  EXPECT_EQ(s->getPosition(), -1);
  EXPECT_TRUE(s->isEndOfStream());
  char b[4];
  EXPECT_EQ(s->readLax(b, 4), 0);
  expectIOError([&] { s->write("x", 1, nullptr); }, CIOError::WriteFailed,
                "Cannot write beyond the largest file offset", uri);
  s->seek(1);
  EXPECT_EQ(s->readLax(b, 4), 2);
  EXPECT_EQ(std::string(b, 2), "bc");
}

TEST_F(LocalFileSystemTest, EverythingButGetUriAfterCloseIsStreamClosed) {
  CURI uri = dir.uri("c");
  auto s = open(uri, 3, 2);
  s->close();
  testsupport::expectClosedStreamRefusesAll(*s, uri);
  EXPECT_EQ(s->getURI(), uri);
}

TEST_F(LocalFileSystemTest, LockRangeIsNotSupported) {
  CURI uri = dir.uri("l");
  auto s = open(uri, 3, 2);
  expectIOError([&] { s->lockRange(0, 1, tal::IStreamBase::LockExclusive); }, CIOError::LockNotSupported, "", uri);
  expectIOError([&] { s->lockRange(0, 10, tal::IStreamBase::LockShared); }, CIOError::LockNotSupported, "", uri);
}

TEST_F(LocalFileSystemTest, WaitReadableAndNonBlockingEnd) {
  testsupport::writeFile(dir.file("w"), "ab");
  auto s = open(dir.uri("w"), 1);
  EXPECT_TRUE(s->waitReadable(0));
  EXPECT_TRUE(s->waitReadable(1000000));
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 0);
  EXPECT_FALSE(s->isEndOfStream());
  char b[4];
  EXPECT_EQ(s->readAvailable(b, 4), 2);
  EXPECT_EQ(std::string(b, 2), "ab");
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 1);
  EXPECT_TRUE(s->waitReadable(0));
}

TEST_F(LocalFileSystemTest, FileLargerThanTheBufferAndManySmallReads) {
  std::string const data = patterned(3 * tal::CLocalFileSystem::kBufferSize + 12345);
  auto out = open(dir.uri("big"), 3, 2);
  for (std::size_t at = 0; at < data.size(); at += 1000)
    out->write(data.data() + at, static_cast<int>(std::min<std::size_t>(1000, data.size() - at)), nullptr);
  out->close();
  ASSERT_EQ(testsupport::readFile(dir.file("big")), data);
  auto in = open(dir.uri("big"), 1);
  EXPECT_EQ(in->getLength(), static_cast<long long>(data.size()));
  std::string back;
  char small[3];
  int n;
  while ((n = in->readLax(small, 3)) > 0) {
    back.append(small, static_cast<std::size_t>(n));
    in->seek(in->getPosition()); // minizip seeks before reads
  }
  EXPECT_EQ(back, data);
  in->seek(12345); // a read larger than the buffer, starting inside a buffered range
  char one;
  in->read(&one, 1);
  std::string big(2 * tal::CLocalFileSystem::kBufferSize + 7, '\0');
  in->read(&big[0], static_cast<int>(big.size()));
  EXPECT_EQ(one, data[12345]);
  EXPECT_EQ(big, data.substr(12346, big.size()));
}

TEST_F(LocalFileSystemTest, SeekInsideTheReadBufferKeepsIt) {
  std::size_t const size = 2 * tal::CLocalFileSystem::kBufferSize;
  testsupport::writeFile(dir.file("b"), std::string(size, 'A'));
  auto in = open(dir.uri("b"), 1);
  char c;
  in->read(&c, 1);
  EXPECT_EQ(c, 'A');
  // Change the file behind the stream's back: what the stream already buffered does not change.
  int fd = ::open(dir.file("b").c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  std::string const other(size, 'B');
  ASSERT_EQ(::pwrite(fd, other.data(), other.size(), 0), static_cast<ssize_t>(size));
  ::close(fd);
  in->seek(in->getPosition());
  in->read(&c, 1);
  EXPECT_EQ(c, 'A');
  in->seek(0);
  in->read(&c, 1);
  EXPECT_EQ(c, 'A');
  in->seek(tal::CLocalFileSystem::kBufferSize - 1);
  in->read(&c, 1);
  EXPECT_EQ(c, 'A');
  in->seek(tal::CLocalFileSystem::kBufferSize + 10); // outside: read again from the file
  in->read(&c, 1);
  EXPECT_EQ(c, 'B');
}

TEST_F(LocalFileSystemTest, ReadsInTwoPartsOfAFileKeepBothBuffers) {
  std::size_t const block = tal::CLocalFileSystem::kBufferSize;
  testsupport::writeFile(dir.file("two"), std::string(4 * block, 'A'));
  auto in = open(dir.uri("two"), 3);
  auto readAt = [&](std::size_t at) {
    char c = 0;
    in->seek(static_cast<long long>(at));
    in->read(&c, 1);
    return c;
  };
  auto rewriteBehindTheStream = [&](char fill) {
    int fd = ::open(dir.file("two").c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    std::string const other(4 * block, fill);
    ASSERT_EQ(::pwrite(fd, other.data(), other.size(), 0), static_cast<ssize_t>(other.size()));
    ::close(fd);
  };
  EXPECT_EQ(readAt(0), 'A');         // first part
  EXPECT_EQ(readAt(3 * block), 'A'); // second part
  rewriteBehindTheStream('B');
  EXPECT_EQ(readAt(10), 'A'); // both parts are still buffered
  EXPECT_EQ(readAt(3 * block + 10), 'A');
  EXPECT_EQ(readAt(20), 'A');         // the first part is now the more recently used
  EXPECT_EQ(readAt(2 * block), 'B');  // a third part takes the second part's buffer
  EXPECT_EQ(readAt(30), 'A');         // the first part kept its buffer
  EXPECT_EQ(readAt(3 * block + 20), 'B'); // the second part is read again, in the buffer used less recently
  EXPECT_EQ(readAt(2 * block + 5), 'B');
  rewriteBehindTheStream('C');
  EXPECT_EQ(readAt(3 * block + 30), 'B'); // still buffered
  in->seek(static_cast<long long>(4 * block));
  in->write("!", 1, nullptr); // any write empties both buffers
  EXPECT_EQ(readAt(3 * block + 30), 'C');
  EXPECT_EQ(readAt(40), 'C');
  in->close();
}

TEST_F(LocalFileSystemTest, WritesCollectUntilFlushAndGetLengthCountsThem) {
  auto s = open(dir.uri("w"), 3, 2);
  s->write("0123456789", 10, nullptr);
  EXPECT_EQ(diskSize(dir.file("w")), 0);
  EXPECT_EQ(s->getLength(), 10);
  s->flush();
  EXPECT_EQ(testsupport::readFile(dir.file("w")), "0123456789");
  s->write("ab", 2, nullptr);
  EXPECT_EQ(testsupport::readFile(dir.file("w")), "0123456789");
  s->seek(0);
  char b[12];
  s->read(b, 12); // a read sees (and writes out) what was collected
  EXPECT_EQ(std::string(b, 12), "0123456789ab");
  EXPECT_EQ(testsupport::readFile(dir.file("w")), "0123456789ab");
  std::string const large = patterned(tal::CLocalFileSystem::kBufferSize + 1);
  s->write("x", 1, nullptr);
  s->write(large.data(), static_cast<int>(large.size()), nullptr); // too large to collect: written at once
  EXPECT_EQ(testsupport::readFile(dir.file("w")), "0123456789abx" + large);
  s->close();
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
  EXPECT_EQ(s->getPosition(), 21);
  s->setLength(8);
  s->close();
  EXPECT_EQ(testsupport::readFile(dir.file("rw")), std::string("012ab\0\0\0", 8));
}

TEST_F(LocalFileSystemTest, GoingBackIntoCollectedBytesWritesNothingUntilFlush) {
  // The way an archive writer fills in a header after the entry's data: back into what is still collected.
  auto s = open(dir.uri("patch"), 3, 2);
  std::string model = patterned(130);
  s->write(model.data(), 130, nullptr);
  s->seek(14);
  s->write("CRC_SIZES_12", 12, nullptr);
  model.replace(14, 12, "CRC_SIZES_12");
  s->seek(0);
  s->write("P", 1, nullptr); // at the very start of the collected range
  model[0] = 'P';
  s->seek(120);
  s->write("runs past the end", 17, nullptr); // starts inside, ends beyond
  model.replace(120, 17, "runs past the end");
  EXPECT_EQ(s->getPosition(), 137);
  s->write("next", 4, nullptr); // at the end again
  model += "next";
  EXPECT_EQ(s->getLength(), 141);
  EXPECT_EQ(diskSize(dir.file("patch")), 0); // nothing written yet
  s->seek(200); // past the collected range: what was collected goes out first
  s->write("gap", 3, nullptr);
  EXPECT_EQ(testsupport::readFile(dir.file("patch")), model);
  model += std::string(59, '\0') + "gap";
  s->seek(199); // just before the new collected range: written out again
  s->write("<", 1, nullptr);
  model[199] = '<';
  EXPECT_EQ(testsupport::readFile(dir.file("patch")), model.substr(0, 141) + std::string(59, '\0') + "gap");
  s->close();
  EXPECT_EQ(testsupport::readFile(dir.file("patch")), model);
}

TEST_F(LocalFileSystemTest, RandomWritesSeeksAndReadsMatchAModel) {
  // Writes anywhere (inside, across and past the collected range, small and larger than the buffer),
  // reads and length checks in between: the stream and the file always agree with a plain string.
  std::size_t const buffer = tal::CLocalFileSystem::kBufferSize;
  std::mt19937 random(20261123);
  for (int round = 0; round < 4; ++round) {
    SCOPED_TRACE(round);
    std::string const name = "model" + std::to_string(round);
    auto s = open(dir.uri(name.c_str()), 3, 2);
    std::string model;
    long long position = 0;
    for (int step = 0; step < 400; ++step) {
      std::uint32_t const choice = random() % 10;
      if (choice < 6) { // write
        std::size_t const size = random() % 4 == 0 ? random() % (2 * buffer) + 1 : random() % 300 + 1;
        std::string data = patterned(size);
        for (char& c : data) c = static_cast<char>(c + step);
        s->write(data.data(), static_cast<int>(size), nullptr);
        std::size_t const at = static_cast<std::size_t>(position);
        if (model.size() < at + size) model.resize(at + size, '\0');
        model.replace(at, size, data);
        position += static_cast<long long>(size);
      } else if (choice < 8) { // seek somewhere inside, just past the end, or a little beyond
        long long const length = static_cast<long long>(model.size());
        position = random() % 5 == 0 ? length + static_cast<long long>(random() % 100) : static_cast<long long>(random() % (length + 1));
        s->seek(position);
      } else if (choice < 9) { // read a little where we are
        std::size_t const size = random() % 200 + 1;
        std::string got(size, '\0');
        int const n = s->readLax(&got[0], static_cast<int>(size));
        std::size_t const at = static_cast<std::size_t>(position);
        std::size_t const expected = at < model.size() ? std::min(size, model.size() - at) : 0;
        ASSERT_EQ(static_cast<std::size_t>(n), expected) << step;
        ASSERT_EQ(got.substr(0, expected), model.substr(std::min(at, model.size()), expected)) << step;
        position += n;
      } else {
        ASSERT_EQ(s->getLength(), static_cast<long long>(model.size())) << step;
        ASSERT_EQ(s->getPosition(), position) << step;
      }
    }
    s->close();
    EXPECT_EQ(testsupport::readFile(dir.file(name.c_str())), model);
  }
}

TEST_F(LocalFileSystemTest, PathsWithSpacesHashPercentAndNonAscii) {
  std::string const name = "a b #1 %41 ?x caf\xC3\xA9 \xE2\x82\xAC.txt";
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

TEST_F(LocalFileSystemTest, PercentEncodedTextNamesTheDecodedPath) {
  CURI uri(String::fromUTF8("file://" + dir.path() + "/a%20b%23c%25d%C3%A9"));
  auto out = open(uri, 3, 2);
  out->write("y", 1, nullptr);
  out->close();
  EXPECT_EQ(testsupport::readFile(dir.file("a b#c%d\xC3\xA9")), "y");
  auto in = open(dir.uri("a b#c%d\xC3\xA9"), 1);
  EXPECT_EQ(in->getLength(), 1);
}

TEST_F(LocalFileSystemTest, ExistsAndRemove) {
  testsupport::writeFile(dir.file("f"), "x");
  EXPECT_TRUE(fs->exists(dir.uri("f")));
  EXPECT_TRUE(fs->exists(dir.uri()));
  EXPECT_FALSE(fs->exists(dir.uri("none")));
  fs->remove(dir.uri("f"));
  EXPECT_FALSE(fs->exists(dir.uri("f")));
  expectIOError([&] { fs->remove(dir.uri("none")); }, CIOError::DeleteFailed,
                "Cannot delete file: No such file or directory", dir.uri("none"));
  expectIOError([&] { fs->remove(dir.uri()); }, CIOError::DeleteFailed, "Cannot delete file: Is a directory",
                dir.uri());
}

TEST_F(LocalFileSystemTest, RemovedFileStaysReadableThroughAnOpenStream) {
  testsupport::writeFile(dir.file("gone"), "still here");
  auto in = open(dir.uri("gone"), 1);
  fs->remove(dir.uri("gone"));
  char b[10];
  in->read(b, 10);
  EXPECT_EQ(std::string(b, 10), "still here");
}

TEST_F(LocalFileSystemTest, WriteKeepBufferAndBarrier) {
  auto s = open(dir.uri("k"), 3, 2);
  tal::P<tal::TBuffer<unsigned char>> buffer = tal::newObj<tal::TBuffer<unsigned char>>();
  buffer->setUsed(6);
  std::memcpy(buffer->getData(), "abcdef", 6);
  s->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(buffer.get(), 1, 3), nullptr);
  s->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(nullptr, 0, 0), nullptr);
  EXPECT_EQ(diskSize(dir.file("k")), 0);
  tal::P<tal::IWriteBarrier> barrier = s->createWriteBarrier(nullptr);
  ASSERT_NE(barrier.get(), nullptr);
  EXPECT_NE(dynamic_cast<tal::CDummyWriteBarrier*>(barrier.get()), nullptr);
  EXPECT_EQ(testsupport::readFile(dir.file("k")), "bcd"); // the barrier flushed
  s->close();
}

/// Expects exactly the CInvalidArgError of CLocalFileSystem::sync refusing a stream of `uri`.
void expectForeignStreamRefused(std::function<void()> const& call, CURI const& uri) {
  try {
    call();
    ADD_FAILURE() << "no error thrown for " << U(uri.toString(true));
  } catch (tal::CInvalidArgError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CInvalidArgError));
    EXPECT_EQ(U(e.getMessage()),
              "Invalid argument passed to 'CLocalFileSystem::sync': the stream was not opened by a CLocalFileSystem.");
    EXPECT_EQ(U(e.getContext()), "");
    EXPECT_EQ(e.getCode(), -1);
    EXPECT_EQ(e.getProps(), tal::uriProps(uri));
    EXPECT_EQ(e.getCause().get(), nullptr);
  }
}

/// Expects exactly the CIOError MoveFailed of a refused rename.
void expectMoveFailed(std::function<void()> const& call, std::string const& message, CURI const& from, CURI const& to) {
  testsupport::expectIOError(call, CIOError::MoveFailed, message,
                             tal::CProps({{String("uri"), from.toString(true)}, {String("to"), to.toString(true)}}));
}

/// Runs `job` in a child process that gives up root (as the permission test above does) and returns what
/// it returned.
std::string runUnprivileged(std::function<std::string()> const& job) {
  int fds[2];
  if (::pipe(fds) != 0) return "pipe failed";
  pid_t child = ::fork();
  if (child < 0) return "fork failed";
  if (child == 0) {
    ::close(fds[0]);
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(2);
    std::string const report = job();
    ssize_t written = ::write(fds[1], report.data(), report.size());
    ::_exit(written == static_cast<ssize_t>(report.size()) ? 0 : 3);
  }
  ::close(fds[1]);
  std::string report;
  char buffer[512];
  ssize_t n;
  while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0) report.append(buffer, static_cast<std::size_t>(n));
  ::close(fds[0]);
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return "child failed: " + std::to_string(status);
  return report;
}

TEST_F(LocalFileSystemTest, SyncWritesOutCollectedBytesAndKeepsTheStreamOpen) {
  CURI uri = dir.uri("d");
  auto s = open(uri, 3, 2);
  s->write("durable", 7, nullptr);
  EXPECT_EQ(diskSize(dir.file("d")), 0); // still collected in the stream
  fs->sync(*s);
  EXPECT_EQ(testsupport::readFile(dir.file("d")), "durable");
  auto reader = open(uri, 1);
  char b[16];
  EXPECT_EQ(reader->readLax(b, 16), 7);
  EXPECT_EQ(std::string(b, 7), "durable");
  s->write(" bytes", 6, nullptr);
  EXPECT_EQ(s->getPosition(), 13);
  fs->sync(*s);
  EXPECT_EQ(testsupport::readFile(dir.file("d")), "durable bytes");
  s->setLength(4);
  fs->sync(*s);
  EXPECT_EQ(diskSize(dir.file("d")), 4);
  fs->sync(*reader); // nothing written through it: nothing to fail
  s->close();
  EXPECT_EQ(testsupport::readFile(dir.file("d")), "dura");
}

TEST_F(LocalFileSystemTest, SyncAcceptsStreamsOfAnyLocalFileSystem) {
  tal::P<tal::CLocalFileSystem> other = tal::newObj<tal::CLocalFileSystem>();
  auto s = other->openStream(dir.uri("o"), 3, 2);
  s->write("other", 5, nullptr);
  fs->sync(*s);
  EXPECT_EQ(testsupport::readFile(dir.file("o")), "other");
  tal::P<tal::IFileSystem> asInterface(fs.get());
  s->write("!", 1, nullptr);
  asInterface->sync(*s);
  EXPECT_EQ(testsupport::readFile(dir.file("o")), "other!");
}

TEST_F(LocalFileSystemTest, SyncRefusesStreamsItDidNotOpen) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  CURI memoryUri(String("mem:/x"));
  auto inMemory = memory->openStream(memoryUri, 3, 2);
  expectForeignStreamRefused([&] { fs->sync(*inMemory); }, memoryUri);
  inMemory->close();
  expectForeignStreamRefused([&] { fs->sync(*inMemory); }, memoryUri); // closed or not
  // A wrapper around a local stream is not a local stream.
  tal::P<testsupport::CFaultyFileSystem> faulty = tal::newObj<testsupport::CFaultyFileSystem>(fs.get());
  CURI uri = dir.uri("w");
  auto wrapped = faulty->openStream(uri, 3, 2);
  wrapped->write("w", 1, nullptr);
  expectForeignStreamRefused([&] { fs->sync(*wrapped); }, uri);
  EXPECT_EQ(diskSize(dir.file("w")), 0);
}

TEST_F(LocalFileSystemTest, SyncOfAClosedStreamIsStreamClosed) {
  CURI uri = dir.uri("c");
  auto s = open(uri, 3, 2);
  s->write("c", 1, nullptr);
  s->close();
  expectIOError([&] { fs->sync(*s); }, CIOError::StreamClosed, "Error: stream has been closed.", uri);
  EXPECT_EQ(testsupport::readFile(dir.file("c")), "c");
}

TEST_F(LocalFileSystemTest, SyncFailuresCarryTheReason) {
  // The full device takes no byte (ENOSPC), and cannot be synced (EINVAL).
  CURI uri(String("file:///dev/full"));
  auto s = open(uri, 3);
  s->write("abc", 3, nullptr);
  expectIOError([&] { fs->sync(*s); }, CIOError::WriteFailed, "Cannot write file: No space left on device", uri);
  expectIOError([&] { fs->sync(*s); }, CIOError::WriteFailed, "Cannot sync file: Invalid argument", uri);
  EXPECT_NO_THROW(s->close()); // the failed bytes were dropped by the first sync
}

TEST_F(LocalFileSystemTest, MoveReplacesTheTargetAndOpenStreamsKeepTheirBytes) {
  testsupport::writeFile(dir.file("new"), "new bytes");
  testsupport::writeFile(dir.file("target"), "old");
  auto onOld = open(dir.uri("target"), 1);
  auto onNew = open(dir.uri("new"), 3);
  fs->move(dir.uri("new"), dir.uri("target"));
  EXPECT_FALSE(fs->exists(dir.uri("new")));
  EXPECT_EQ(testsupport::readFile(dir.file("target")), "new bytes");
  char b[16];
  EXPECT_EQ(onOld->readLax(b, 16), 3);
  EXPECT_EQ(std::string(b, 3), "old");
  EXPECT_EQ(onOld->getLength(), 3);
  EXPECT_EQ(onNew->readLax(b, 3), 3);
  EXPECT_EQ(std::string(b, 3), "new");
  onNew->seek(9);
  onNew->write("!", 1, nullptr); // still the moved file, now under its new name
  fs->sync(*onNew);
  EXPECT_EQ(testsupport::readFile(dir.file("target")), "new bytes!");
  EXPECT_EQ(onNew->getURI(), dir.uri("new")); // a stream keeps the URI it was opened with
}

TEST_F(LocalFileSystemTest, MoveOverAFileKeepsItsPermissions) {
  testsupport::writeFile(dir.file("private"), "old secret");
  ASSERT_EQ(::chmod(dir.file("private").c_str(), 0600), 0);
  testsupport::writeFile(dir.file("replacement"), "new secret");
  ASSERT_EQ(::chmod(dir.file("replacement").c_str(), 0644), 0);
  fs->move(dir.uri("replacement"), dir.uri("private"));
  struct stat st;
  ASSERT_EQ(::stat(dir.file("private").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(testsupport::readFile(dir.file("private")), "new secret");
  testsupport::writeFile(dir.file("fresh"), "x"); // to a new name: the file keeps its own bits
  ASSERT_EQ(::chmod(dir.file("fresh").c_str(), 0640), 0);
  fs->move(dir.uri("fresh"), dir.uri("fresh-moved"));
  ASSERT_EQ(::stat(dir.file("fresh-moved").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(LocalFileSystemTest, MoveToAFreshNameAndAcrossFolders) {
  ASSERT_EQ(::mkdir(dir.file("one").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(dir.file("two").c_str(), 0755), 0);
  testsupport::writeFile(dir.file("one/a"), "a");
  fs->move(dir.uri("one/a"), dir.uri("one/b #1"));
  EXPECT_EQ(testsupport::readFile(dir.file("one/b #1")), "a");
  fs->move(dir.uri("one/b #1"), dir.uri("two/c"));
  EXPECT_FALSE(fs->exists(dir.uri("one/b #1")));
  EXPECT_EQ(testsupport::readFile(dir.file("two/c")), "a");
  fs->move(dir.uri("two/c"), dir.uri("two/c")); // onto itself: nothing changes
  EXPECT_EQ(testsupport::readFile(dir.file("two/c")), "a");
  fs->move(CURI(String::fromUTF8("file://localhost" + dir.path() + "/two/c")), dir.uri("top"));
  EXPECT_EQ(testsupport::readFile(dir.file("top")), "a");
}

TEST_F(LocalFileSystemTest, FailedMoveChangesNothing) {
  testsupport::writeFile(dir.file("target"), "untouched");
  ASSERT_EQ(::mkdir(dir.file("folder").c_str(), 0755), 0);
  CURI const missing = dir.uri("missing");
  CURI const target = dir.uri("target");
  expectMoveFailed([&] { fs->move(missing, target); }, "Cannot move file: No such file or directory", missing, target);
  EXPECT_EQ(testsupport::readFile(dir.file("target")), "untouched");
  CURI const nowhere = dir.uri("no/such/folder");
  expectMoveFailed([&] { fs->move(target, nowhere); }, "Cannot move file: No such file or directory", target, nowhere);
  CURI const folder = dir.uri("folder");
  expectMoveFailed([&] { fs->move(target, folder); }, "Cannot move file: Is a directory", target, folder);
  EXPECT_EQ(testsupport::readFile(dir.file("target")), "untouched");
  struct stat st;
  ASSERT_EQ(::stat(dir.file("folder").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}

// A folder that may be written but not read: the rename succeeds, opening the folder to sync it does not.
TEST_F(LocalFileSystemTest, FolderSyncFailureIsReportedAfterTheMove) {
  ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(dir.file("hidden").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(dir.file("open").c_str(), 0777), 0);
  ASSERT_EQ(::chmod(dir.file("open").c_str(), 0777), 0); // whatever the umask
  testsupport::writeFile(dir.file("hidden/a"), "a");
  testsupport::writeFile(dir.file("hidden/b"), "b");
  testsupport::writeFile(dir.file("hidden/c"), "c");
  ASSERT_EQ(::chmod(dir.file("hidden").c_str(), 0333), 0);
  auto attempt = [this](CURI const& from, CURI const& to) -> std::string {
    try {
      fs->move(from, to);
      return "moved";
    } catch (CIOError const& e) {
      return std::to_string(e.getCode()) + "|" + U(e.getMessage()) + "|" + U(e.getProps().get("uri")) + "|" +
             std::to_string(e.getProps().size());
    }
  };
  std::string const report = runUnprivileged([&] {
    return attempt(dir.uri("hidden/a"), dir.uri("hidden/b")) + "\n" + attempt(dir.uri("hidden/c"), dir.uri("open/c"));
  });
  ASSERT_EQ(::chmod(dir.file("hidden").c_str(), 0755), 0);
  std::string const hidden = U(dir.uri("hidden").toString(true));
  EXPECT_EQ(report, "8|Cannot sync folder: Permission denied|" + hidden + "|1\n" + // the folder of both
                        "8|Cannot sync folder: Permission denied|" + hidden + "|1"); // the folder moved from
  EXPECT_EQ(testsupport::readFile(dir.file("hidden/b")), "a"); // moved all the same
  EXPECT_FALSE(fs->exists(dir.uri("hidden/a")));
  EXPECT_EQ(testsupport::readFile(dir.file("open/c")), "c");
  EXPECT_FALSE(fs->exists(dir.uri("hidden/c")));
}

TEST(TempDirTest, MakesAUniqueFolderUnderTmpdirAndRemovesItWithItsContents) {
  TempDir base;
  char const* saved = std::getenv("TMPDIR");
  std::string const savedText = saved ? saved : "";
  ::setenv("TMPDIR", base.path().c_str(), 1);
  std::string path;
  {
    TempDir a("unit");
    TempDir b("unit");
    EXPECT_NE(a.path(), b.path());
    EXPECT_EQ(a.path().rfind(base.path() + "/unit.", 0), 0u);
    path = a.path();
    EXPECT_EQ(a.uri(), testsupport::fileURI(a.path()));
    EXPECT_EQ(U(a.uri().getScheme()), "file");
    EXPECT_EQ(U(a.uri("x y").getPath()), a.path() + "/x y");
    EXPECT_EQ(a.file("x"), a.path() + "/x");
    ASSERT_EQ(::mkdir(a.file("sub").c_str(), 0755), 0);
    testsupport::writeFile(a.file("sub/f"), "data");
  }
  if (saved)
    ::setenv("TMPDIR", savedText.c_str(), 1);
  else
    ::unsetenv("TMPDIR");
  struct stat st;
  EXPECT_NE(::stat(path.c_str(), &st), 0);
}

} // namespace
