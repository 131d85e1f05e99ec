#include "tal/LocalFileSystem.h"

#include "tal/PositionalStream.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tal {
namespace {

[[noreturn]] void throwSystemError(CIOError::Code code, char const* what, int error, CURI const& uri) {
  throw CIOError(code, String(what) + String(": ") + String(std::strerror(error)), uriProps(uri), nullptr);
}

/// An open POSIX file descriptor.
class CLocalFile : public CBase, public virtual IPositionalFile {
public:
  CLocalFile(int fd, CURI const& uri) : m_fd(fd), m_uri(uri) {}
  ~CLocalFile() override {
    if (m_fd >= 0) ::close(m_fd);
  }

  std::size_t readAt(long long offset, void* buffer, std::size_t size) override {
    for (;;) {
      ssize_t n = ::pread(m_fd, buffer, size, static_cast<off_t>(offset));
      if (n >= 0) return static_cast<std::size_t>(n);
      if (errno != EINTR) throwSystemError(CIOError::ReadFailed, "Cannot read file", errno, m_uri);
    }
  }

  void writeAt(long long offset, void const* data, std::size_t size) override {
    auto const* bytes = static_cast<unsigned char const*>(data);
    while (size > 0) {
      ssize_t n = ::pwrite(m_fd, bytes, size, static_cast<off_t>(offset));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throwSystemError(CIOError::WriteFailed, "Cannot write file", n < 0 ? errno : EIO, m_uri);
      bytes += n;
      offset += n;
      size -= static_cast<std::size_t>(n);
    }
    startWriteback(offset);
  }

  long long size() override {
    struct stat st;
    if (::fstat(m_fd, &st) != 0) throwSystemError(CIOError::SeekFailed, "Cannot read file length", errno, m_uri);
    return static_cast<long long>(st.st_size);
  }

  void truncate(long long length) override {
    if (length < 0 || ::ftruncate(m_fd, static_cast<off_t>(length)) != 0)
      throwSystemError(CIOError::SetLengthFailed, "Cannot set file length", length < 0 ? EINVAL : errno, m_uri);
  }

  void sync() override {
    while (::fsync(m_fd) != 0)
      if (errno != EINTR) throwSystemError(CIOError::WriteFailed, "Cannot sync file", errno, m_uri);
  }

  void closeFile() override {
    int fd = m_fd;
    m_fd = -1;
    if (::close(fd) != 0) throwSystemError(CIOError::Unknown, "Cannot close file", errno, m_uri);
  }

private:
  /// Has the kernel start writing what was written up to `end` once kWritebackStep bytes more are there, so that a
  /// sync at the end of a long write (a new archive's, before it is moved into place) waits for the last of it only.
  /// Advisory: a failure shows at the sync.
  void startWriteback(long long end) {
#ifdef SYNC_FILE_RANGE_WRITE
    if (end < m_writebackFrom + kWritebackStep) return;
    ::sync_file_range(m_fd, static_cast<off_t>(m_writebackFrom), static_cast<off_t>(end - m_writebackFrom),
                      SYNC_FILE_RANGE_WRITE);
    m_writebackFrom = end;
#else
    (void)end;
#endif
  }

  static constexpr long long kWritebackStep = 8 << 20;
  int m_fd;
  CURI m_uri;
  long long m_writebackFrom = 0;
};

/// Tags the streams of every CLocalFileSystem: any of them can sync any local file.
char const kLocalStreamTag = 0;

/// The folder holding `path` (an absolute path; "/" for files at the root).
std::string folderOf(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::size_t const slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

/// Makes the entries of the folder `path` durable; `uri` is a URI of it on the host of `near`.
void syncFolder(std::string const& path, CURI const& near) {
  String const host = near.getHost();
  CURI const uri(String("file"), String::fromUTF8(path), nullptr, nullptr, host, -1, nullptr, nullptr);
  int fd;
  do fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  while (fd < 0 && errno == EINTR);
  if (fd < 0) throwSystemError(CIOError::MoveFailed, "Cannot sync folder", errno, uri);
  int failure = 0;
  while (::fsync(fd) != 0) {
    if (errno != EINTR) {
      failure = errno;
      break;
    }
  }
  ::close(fd);
  if (failure != 0) throwSystemError(CIOError::MoveFailed, "Cannot sync folder", failure, uri);
}

int openFlags(int access, int flags, CURI const& uri) {
  int result = O_CLOEXEC;
  if (access == IFileSystem::AccessRead)
    result |= O_RDONLY;
  else if (access == IFileSystem::AccessReadWrite)
    result |= O_RDWR;
  else
    throw CInvalidArgError(String("CLocalFileSystem::openStream"), String("access must be 1 or 3"), uriProps(uri));
  if (flags & (IFileSystem::OpenCreate | IFileSystem::OpenCreateForRead)) result |= O_CREAT;
  return result;
}

} // namespace

std::string CLocalFileSystem::localPath(CURI const& uri) {
  bool const local = uri.getScheme().IsSameAs(L"file", false) &&
                     (uri.getHost().empty() || uri.getHost().IsSameAs(L"localhost", false));
  if (!local || uri.getPath().empty()) {
    CError refusal(String("CLocalFileSystem supports only file: URIs."), String(), -1, uriProps(uri), nullptr);
    throw CFileSystemError(CFileSystemError::NotSupported, refusal);
  }
  return uri.getPath().toUTF8();
}

P<IInOutStream> CLocalFileSystem::openStream(CURI const& uri, int access, int const& flags) {
  std::string const path = localPath(uri);
  int const fd = ::open(path.c_str(), openFlags(access, flags, uri), 0666);
  if (fd < 0) throwSystemError(CIOError::OpenFailed, "Cannot open file", errno, uri);
  P<CLocalFile> file = P<CLocalFile>::adopt(new CLocalFile(fd, uri));
  struct stat st;
  if (::fstat(fd, &st) != 0) throwSystemError(CIOError::OpenFailed, "Cannot open file", errno, uri);
  if (S_ISDIR(st.st_mode)) throwSystemError(CIOError::OpenFailed, "Cannot open file", EISDIR, uri);
  P<IPositionalFile> positional(file.get());
  return P<IInOutStream>::adopt(
      new CPositionalStream(positional, uri, access == AccessReadWrite, kBufferSize, "tal::CLocalFileSystem::CStream",
                            &kLocalStreamTag));
}

bool CLocalFileSystem::exists(CURI const& uri) {
  struct stat st;
  return ::stat(localPath(uri).c_str(), &st) == 0;
}

void CLocalFileSystem::remove(CURI const& uri) {
  if (::unlink(localPath(uri).c_str()) != 0) throwSystemError(CIOError::DeleteFailed, "Cannot delete file", errno, uri);
}

void CLocalFileSystem::sync(IOutStream& stream) {
  auto* const positional = dynamic_cast<CPositionalStream*>(&stream);
  if (!positional || !positional->isOwnedBy(&kLocalStreamTag))
    throw CInvalidArgError(String("CLocalFileSystem::sync"), String("the stream was not opened by a CLocalFileSystem"),
                           uriProps(stream.getURI()));
  positional->sync();
}

void CLocalFileSystem::move(CURI const& from, CURI const& to) {
  std::string const fromPath = localPath(from);
  std::string const toPath = localPath(to);
  struct stat replaced;
  if (::stat(toPath.c_str(), &replaced) == 0 && S_ISREG(replaced.st_mode)) {
    // Best effort: a replacement keeps who may read and write the file.
    if (::chown(fromPath.c_str(), replaced.st_uid, replaced.st_gid) != 0) { /* not permitted: keep our own */ }
    if (::chmod(fromPath.c_str(), replaced.st_mode & 07777) != 0) { /* keep the moved file's own bits */ }
  }
  if (::rename(fromPath.c_str(), toPath.c_str()) != 0) {
    int const error = errno;
    CProps props = uriProps(from);
    props[String("to")] = to.toString(true);
    throw CIOError(CIOError::MoveFailed, String("Cannot move file: ") + String(std::strerror(error)), props, nullptr);
  }
  std::string const toFolder = folderOf(toPath);
  std::string const fromFolder = folderOf(fromPath);
  syncFolder(toFolder, to);
  if (fromFolder != toFolder) syncFolder(fromFolder, from);
}

} // namespace tal
