#include "LocalPaths.h"

#include "ziputil/Names.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <cstdlib>
#include <map>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ziputil_tool {
namespace {

std::runtime_error systemError(std::string const& what, std::string const& path) {
  return std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

std::string currentDirectory() {
  std::vector<char> buffer(4096);
  while (!getcwd(buffer.data(), buffer.size())) {
    if (errno != ERANGE) throw systemError("cannot read the working folder", ".");
    buffer.resize(buffer.size() * 2);
  }
  return buffer.data();
}

std::vector<std::string> splitSegments(std::string const& path) {
  std::vector<std::string> segments;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string segment = path.substr(start, end - start);
    if (!segment.empty() && segment != ".") segments.push_back(segment);
    start = end + 1;
  }
  return segments;
}

std::vector<std::string> sortedChildren(std::string const& folder) {
  DIR* dir = opendir(folder.c_str());
  if (!dir) throw systemError("cannot read folder", folder);
  std::vector<std::string> names;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

bool sameFile(struct stat const& a, struct stat const& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

void collectInto(std::vector<SourceItem>& items, std::string const& path, std::string const& entryName,
                 struct stat const* skip) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) throw systemError("cannot read", path);
  if (skip && sameFile(st, *skip)) return;
  SourceItem item;
  item.localPath = path;
  item.entryName = entryName;
  item.kind = S_ISDIR(st.st_mode) ? SourceItem::Directory
              : S_ISLNK(st.st_mode) ? SourceItem::SymbolicLink
                                    : SourceItem::File;
  item.isDirectory = item.kind == SourceItem::Directory;
  item.modifiedTime = static_cast<long long>(st.st_mtime);
  item.mode = static_cast<unsigned>(st.st_mode);
  if (!item.isDirectory) {
    items.push_back(item);
    return;
  }
  std::string prefix = entryName.empty() || entryName.back() == '/' ? entryName : entryName + "/";
  if (!prefix.empty()) {
    item.entryName = prefix;
    items.push_back(item);
  }
  for (std::string const& child : sortedChildren(path)) collectInto(items, path + "/" + child, prefix + child, skip);
}

} // namespace

tal::String textFromBytes(std::string const& bytes) { return ziputil::textFromBytes(bytes); }

tal::CURI entryURIFromPath(tal::String const& path) {
  return tal::CURI(tal::String(), path, nullptr, nullptr, nullptr, -1, nullptr, nullptr);
}

namespace {
tal::CURI uriOfArgument(std::string const& argument) {
  if (argument.rfind("file:", 0) == 0) return tal::CURI(textFromBytes(argument));
  std::string path = !argument.empty() && argument[0] == '/' ? argument : currentDirectory() + "/" + argument;
  tal::String host;
  return tal::CURI(tal::String("file"), textFromBytes(path), nullptr, nullptr, host, -1, nullptr, nullptr);
}
} // namespace

tal::CURI archiveURIFromArgument(std::string const& argument) {
  tal::CURI uri = uriOfArgument(argument);
  rememberShownName(uri, argument); // messages name it as the user typed it
  return uri;
}

namespace {
std::map<std::string, std::string>& shownNames() {
  static std::map<std::string, std::string> names;
  return names;
}
} // namespace

void rememberShownName(tal::CURI const& uri, std::string const& shown) {
  shownNames()[uri.toString(true).toUTF8()] = shown;
}

std::string shownLocation(std::string const& uriText) {
  auto const found = shownNames().find(uriText);
  if (found != shownNames().end()) return found->second;
  if (uriText.rfind("file:", 0) == 0) { // another local file (an archive's new copy): its path
    try {
      tal::CURI const uri(tal::String::fromUTF8(uriText));
      std::string const path = uri.getPath().toUTF8();
      if (!path.empty()) return path;
    } catch (std::exception const&) { // not a URI after all: shown as it is
    }
  }
  return uriText;
}

int anonymousTemporaryFile(tal::CURI& uri) {
  char const* folder = std::getenv("TMPDIR");
  std::string const where = folder && *folder ? folder : "/tmp";
  int fd = ::open(where.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) { // no O_TMPFILE there
    std::string name = where + "/ziputil-XXXXXX";
    fd = ::mkostemp(&name[0], O_CLOEXEC);
    if (fd >= 0) ::unlink(name.c_str());
  }
  if (fd < 0) throw systemError("cannot create a temporary file in", where);
  uri = uriOfArgument("/proc/self/fd/" + std::to_string(fd));
  return fd;
}

tal::CURI archiveURIForReading(std::string const& argument) {
  if (!isStandardStream(argument)) return archiveURIFromArgument(argument);
  if (::isatty(STDIN_FILENO)) throw std::runtime_error("will not read an archive from a terminal");
  struct stat st;
  if (::fstat(STDIN_FILENO, &st) == 0 && S_ISREG(st.st_mode)) {
    tal::CURI uri = uriOfArgument("/proc/self/fd/" + std::to_string(STDIN_FILENO));
    rememberShownName(uri, "standard input");
    return uri;
  }
  tal::CURI uri;
  int const fd = anonymousTemporaryFile(uri); // open until the program ends
  rememberShownName(uri, "standard input");
  std::vector<char> buffer(1 << 16);
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw systemError("cannot read", "standard input");
    if (n == 0) break;
    for (ssize_t done = 0; done < n;) {
      ssize_t const w = ::write(fd, buffer.data() + done, static_cast<std::size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w < 0) throw systemError("cannot copy standard input to", "a temporary file");
      done += w;
    }
  }
  return uri;
}

std::string shownArchive(std::string const& argument, bool output) {
  if (!isStandardStream(argument)) return argument;
  return output ? "standard output" : "standard input";
}

std::string entryNameFromArgument(std::string path) {
  for (;;) {
    if (path.rfind("./", 0) == 0)
      path.erase(0, 2);
    else if (!path.empty() && path[0] == '/')
      path.erase(0, 1);
    else
      return path == "." ? std::string() : path;
  }
}

std::vector<SourceItem> collectSources(std::string const& path, std::string const& entryName,
                                       std::string const& skipPath) {
  struct stat skip;
  bool haveSkip = stat(skipPath.c_str(), &skip) == 0;
  std::vector<SourceItem> items;
  collectInto(items, path, entryName, haveSkip ? &skip : nullptr);
  return items;
}

void makeDirectories(std::string const& path) {
  std::string current = !path.empty() && path[0] == '/' ? "" : ".";
  for (std::string const& segment : splitSegments(path)) {
    current += "/" + segment;
    if (mkdir(current.c_str(), 0777) != 0 && errno != EEXIST) throw systemError("cannot create folder", current);
  }
}

} // namespace ziputil_tool
