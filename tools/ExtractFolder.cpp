#include "ExtractFolder.h"

#include "EntryNames.h"
#include "Fd.h"
#include "LocalPaths.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ziputil_tool {
namespace {

std::runtime_error systemError(std::string const& what, std::string const& path, int error) {
  return std::runtime_error(what + " " + path + ": " + std::strerror(error));
}

// The temporary file being written, removed when a signal ends the program.
volatile sig_atomic_t g_temporaryFolder = -1;
char g_temporaryName[64];

extern "C" void removeTemporaryAndDie(int signal) {
  int const folder = g_temporaryFolder;
  if (folder >= 0) ::unlinkat(folder, g_temporaryName, 0);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void removeTemporaryOnSignals() {
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction current;
    if (::sigaction(signal, nullptr, &current) != 0 || current.sa_handler == SIG_IGN) continue;
    struct sigaction action {};
    action.sa_handler = removeTemporaryAndDie;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
  }
}

void setTemporary(int folder, std::string const& name) {
  g_temporaryFolder = -1;
  std::snprintf(g_temporaryName, sizeof g_temporaryName, "%s", name.c_str());
  g_temporaryFolder = folder;
}

void clearTemporary() { g_temporaryFolder = -1; }

void writeAll(int fd, unsigned char const* data, std::size_t size, std::string const& path) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw systemError("cannot write", path, errno);
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

} // namespace

char const* const CExtractFolder::kKept = "kept";

CExtractFolder::CExtractFolder(std::string root, Overwrite overwrite)
    : m_root(std::move(root)), m_overwrite(overwrite), m_rootFd(-1) {
  makeDirectories(m_root);
  m_rootFd = ::open(m_root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_rootFd < 0) throw systemError("cannot open folder", m_root, errno);
  mode_t const mask = ::umask(0);
  ::umask(mask);
  m_fileMode = 0666 & ~mask;
  std::random_device seed;
  m_random.seed((static_cast<std::uint64_t>(seed()) << 32) ^ seed() ^ static_cast<std::uint64_t>(::getpid()));
  removeTemporaryOnSignals();
}

CExtractFolder::~CExtractFolder() {
  if (m_rootFd >= 0) ::close(m_rootFd);
}

std::string CExtractFolder::splitEntryPath(std::string const& path, std::vector<std::string>& segments) {
  segments.clear();
  if (path.find('\0') != std::string::npos) return "its name holds a NUL byte";
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string segment = path.substr(start, end - start);
    if (segment == "..") return "its path leaves the target folder";
    if (!segment.empty() && segment != ".") segments.push_back(segment);
    start = end + 1;
  }
  if (segments.empty()) return "its path names no file";
  return std::string();
}

std::string CExtractFolder::localPath(std::vector<std::string> const& segments, std::size_t count) const {
  std::string path = m_root;
  for (std::size_t i = 0; i < count; ++i) path += "/" + segments[i];
  return path;
}

int CExtractFolder::openFolders(std::vector<std::string> const& segments, std::size_t count, std::string& refusal) {
  int folder = ::dup(m_rootFd);
  if (folder < 0) throw systemError("cannot open folder", m_root, errno);
  for (std::size_t i = 0; i < count; ++i) {
    CFd parent(folder);
    char const* name = segments[i].c_str();
    int next = -1;
    for (int attempt = 0; next < 0; ++attempt) {
      next = ::openat(parent.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (next >= 0) break;
      int const error = errno;
      std::string const path = localPath(segments, i + 1);
      if (error == ENOENT && attempt < 8) { // missing: create it, then open what is there
        if (::mkdirat(parent.get(), name, 0777) != 0 && errno != EEXIST)
          throw systemError("cannot create folder", path, errno);
        continue;
      }
      if (error == ELOOP || error == ENOTDIR) {
        struct stat st;
        bool const link = ::fstatat(parent.get(), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
        refusal = link ? "it would be written through the symbolic link " + path : path + " is not a folder";
        return -1;
      }
      throw systemError("cannot open folder", path, error);
    }
    folder = next;
  }
  return folder;
}

std::string CExtractFolder::makeFolder(std::vector<std::string> const& segments, Metadata const& metadata) {
  std::string refusal;
  CFd folder(openFolders(segments, segments.size(), refusal));
  if (folder.get() >= 0 && (metadata.mode >= 0 || metadata.hasTime)) m_folders.push_back({segments, metadata});
  return refusal;
}

bool CExtractFolder::makeTemporary(int folder, std::string& name, std::function<bool(char const*)> const& make) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    char text[32];
    std::snprintf(text, sizeof text, ".ziputil-%012llx",
                  static_cast<unsigned long long>(m_random() & 0xffffffffffffULL));
    name = text;
    setTemporary(folder, name); // before it exists: a signal meanwhile removes nothing of anyone else's
    if (make(text)) return true;
    int const error = errno;
    clearTemporary();
    if (error != EEXIST) {
      errno = error;
      return false;
    }
  }
  errno = EEXIST;
  return false;
}

void CExtractFolder::placeTemporary(int folder, std::string const& temporary, std::string const& leaf,
                                    std::string const& path, std::function<struct stat()> const& finish) {
  struct stat written {};
  try {
    written = finish();
    if (::renameat(folder, temporary.c_str(), folder, leaf.c_str()) != 0)
      throw systemError("cannot create", path, errno);
  } catch (...) {
    ::unlinkat(folder, temporary.c_str(), 0);
    clearTemporary();
    throw;
  }
  clearTemporary();
  m_written[{written.st_dev, written.st_ino}] = path;
}

std::string CExtractFolder::checkTarget(int folder, std::string const& leaf, std::string const& path,
                                        bool allowLink, bool& replacing) {
  replacing = false;
  struct stat existing;
  if (::fstatat(folder, leaf.c_str(), &existing, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) throw systemError("cannot read", path, errno);
    return std::string();
  }
  if (S_ISLNK(existing.st_mode) && !allowLink) return path + " is a symbolic link";
  if (S_ISDIR(existing.st_mode)) return path + " is a folder";
  if (!S_ISREG(existing.st_mode) && !S_ISLNK(existing.st_mode)) return path + " is not a regular file";
  auto const earlier = m_written.find({existing.st_dev, existing.st_ino});
  if (earlier != m_written.end()) return "another entry was already extracted to " + earlier->second;
  if (m_overwrite == Overwrite::Never) return kKept;
  if (m_overwrite == Overwrite::Refuse)
    return path + " exists (-o replaces it, -n keeps it without a word)";
  replacing = true;
  return std::string();
}

int CExtractFolder::openTarget(std::vector<std::string> const& segments, bool allowLink, std::string& path,
                               bool& replacing, std::string& refusal) {
  CFd folder(openFolders(segments, segments.size() - 1, refusal));
  if (folder.get() < 0) return -1;
  path = localPath(segments, segments.size());
  refusal = checkTarget(folder.get(), segments.back(), path, allowLink, replacing);
  if (!refusal.empty()) return -1;
  return folder.release();
}

std::string CExtractFolder::writeFile(std::vector<std::string> const& segments, Metadata const& metadata,
                                      std::function<void(Sink const&)> const& fill) {
  std::string refusal, path;
  bool replacing = false;
  CFd folder(openTarget(segments, false, path, replacing, refusal));
  if (folder.get() < 0) return refusal;

  std::string temporary;
  CFd file;
  auto const create = [&](char const* name) {
    file.reset(::openat(folder.get(), name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return file.get() >= 0;
  };
  if (!makeTemporary(folder.get(), temporary, create))
    throw systemError("cannot create a temporary file for", path, errno);
  placeTemporary(folder.get(), temporary, segments.back(), path, [&]() {
    fill([&](unsigned char const* data, std::size_t size) { writeAll(file.get(), data, size, path); });
    mode_t const mode = metadata.mode >= 0 ? static_cast<mode_t>(metadata.mode) & 0777 : m_fileMode;
    if (::fchmod(file.get(), mode) != 0) throw systemError("cannot set the permissions of", path, errno);
    if (metadata.hasTime) {
      struct timespec const times[2] = {{metadata.time, 0}, {metadata.time, 0}};
      if (::futimens(file.get(), times) != 0) throw systemError("cannot set the time of", path, errno);
    }
    if (replacing && ::fsync(file.get()) != 0) throw systemError("cannot write", path, errno); // old or new, never neither
    struct stat written;
    if (::fstat(file.get(), &written) != 0) throw systemError("cannot read", path, errno);
    if (int const error = file.close()) throw systemError("cannot write", path, error);
    return written;
  });
  return std::string();
}

std::string CExtractFolder::linkTargetRefusal(std::vector<std::string> const& segments, std::string const& target) {
  if (target.empty()) return "its link target is empty";
  if (target.find('\0') != std::string::npos) return "its link target holds a NUL byte";
  if (target[0] == '/') return "its link target " + target + " is an absolute path";
  // The link's own folders were made by this run or checked to be folders
  // (never links), so leading ".." climb them; after a name, ".." could
  // leave a link to anywhere.
  std::size_t depth = segments.size() - 1;
  bool named = false;
  std::size_t start = 0;
  while (start <= target.size()) {
    std::size_t end = target.find('/', start);
    if (end == std::string::npos) end = target.size();
    std::string const segment = target.substr(start, end - start);
    start = end + 1;
    if (segment.empty() || segment == ".") continue;
    if (segment != "..") {
      named = true;
      continue;
    }
    if (named) return "its link target " + target + " has \"..\" after a name";
    if (depth == 0) return "its link target " + target + " leads outside the target folder";
    --depth;
  }
  return std::string();
}

std::string CExtractFolder::writeLink(std::vector<std::string> const& segments, std::string const& target,
                                      Metadata const& metadata) {
  std::string refusal = linkTargetRefusal(segments, target);
  if (!refusal.empty()) return refusal;
  std::string path;
  bool replacing = false;
  CFd folder(openTarget(segments, true, path, replacing, refusal));
  if (folder.get() < 0) return refusal;

  std::string temporary;
  auto const create = [&](char const* name) { return ::symlinkat(target.c_str(), folder.get(), name) == 0; };
  if (!makeTemporary(folder.get(), temporary, create))
    throw systemError("cannot create the symbolic link", path, errno);
  placeTemporary(folder.get(), temporary, segments.back(), path, [&]() {
    if (metadata.hasTime) {
      struct timespec const times[2] = {{metadata.time, 0}, {metadata.time, 0}};
      if (::utimensat(folder.get(), temporary.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        throw systemError("cannot set the time of", path, errno);
    }
    struct stat written;
    if (::fstatat(folder.get(), temporary.c_str(), &written, AT_SYMLINK_NOFOLLOW) != 0)
      throw systemError("cannot read", path, errno);
    return written;
  });
  return std::string();
}

bool CExtractFolder::finish() {
  std::stable_sort(m_folders.begin(), m_folders.end(), [](PendingFolder const& a, PendingFolder const& b) {
    return a.segments.size() > b.segments.size();
  });
  bool ok = true;
  for (PendingFolder const& pending : m_folders) {
    std::string const path = localPath(pending.segments, pending.segments.size());
    std::string refusal;
    try {
      CFd folder(openFolders(pending.segments, pending.segments.size(), refusal));
      if (folder.get() < 0) throw std::runtime_error("cannot set the mode and time of " + path + ": " + refusal);
      if (pending.metadata.mode >= 0 && ::fchmod(folder.get(), static_cast<mode_t>(pending.metadata.mode) & 0777) != 0)
        throw systemError("cannot set the permissions of", path, errno);
      if (pending.metadata.hasTime) {
        struct timespec const times[2] = {{pending.metadata.time, 0}, {pending.metadata.time, 0}};
        if (::futimens(folder.get(), times) != 0) throw systemError("cannot set the time of", path, errno);
      }
    } catch (std::exception const& e) {
      std::fprintf(stderr, "ziputil: %s\n", escapeForTerminal(e.what()).c_str());
      ok = false;
    }
  }
  m_folders.clear();
  return ok;
}

} // namespace ziputil_tool
