#include "Commands.h"

#include "EntryNames.h"
#include "LocalPaths.h"
#include "Progress.h"

#include "tal/Error.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace ziputil_tool {
namespace {

constexpr int kChunk = 1 << 16;

std::string utf8(tal::String const& text) { return text.toUTF8(); }

tal::P<tal::IFileSystem> localFileSystem() { return tal::P<tal::IFileSystem>(tal::newObj<tal::CLocalFileSystem>()); }

tal::P<ziputil::CZipReader> openReader(Options const& options, std::string const& archive) {
  return tal::newObj<ziputil::CZipReader>(localFileSystem().get(), archiveURIFromArgument(archive),
                                          textFromBytes(options.password));
}

std::string formatTime(tal::CTimeFields const& time) {
  if (time.isEmpty()) return "                ";
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d", time.getYear(), time.getMonth(), time.getDay(),
                time.getHour(), time.getMinute());
  return text;
}

/// Streams the current entry through `sink`; returns its CRC-32.
template <class Sink> unsigned long copyEntry(ziputil::CZipReader& reader, Sink&& sink) {
  tal::P<tal::IInStream> stream = reader.openCurrentFileStream();
  std::vector<unsigned char> buffer(kChunk);
  uLong crc = crc32(0L, Z_NULL, 0);
  while (int n = stream->readLax(buffer.data(), kChunk)) {
    crc = crc32(crc, buffer.data(), static_cast<uInt>(n));
    sink(buffer.data(), static_cast<std::size_t>(n));
  }
  stream->close();
  return crc;
}

void writeAll(int fd, unsigned char const* data, std::size_t size, std::string const& path) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

/// Writes the current entry to `path`; false (and a message) when its bytes
/// do not match the stored CRC-32.
bool extractFile(ziputil::CZipReader& reader, std::string const& path, std::string const& name) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
  unsigned long crc = 0;
  try {
    crc = copyEntry(reader, [&](unsigned char const* data, std::size_t size) { writeAll(fd, data, size, path); });
  } catch (...) {
    ::close(fd);
    throw;
  }
  if (::close(fd) != 0) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  if (crc == reader.getCurrentFileCRC32()) return true;
  std::fprintf(stderr, "ziputil: bad entry \"%s\": CRC-32 %08lx, stored %08lx\n", name.c_str(), crc,
               reader.getCurrentFileCRC32());
  return false;
}

/// Extracts the current entry under `folder`; false when it was refused or failed.
bool extractCurrent(ziputil::CZipReader& reader, std::string const& folder) {
  EntryName const entry = currentEntryName(reader);
  std::string const name = entry.shown();
  try {
    ExtractTarget target = entry.path.find('\0') != std::string::npos
                               ? ExtractTarget{std::string(), "its name holds a NUL byte"}
                               : prepareExtractTarget(folder, entry.path, entry.isDirectory);
    if (!target.refusal.empty()) {
      std::fprintf(stderr, "ziputil: refusing to extract \"%s\": %s\n", name.c_str(),
                   escapeForTerminal(target.refusal).c_str());
      return false;
    }
    return reader.isCurrentFileDirectory() || extractFile(reader, target.path, name);
  } catch (std::exception const& e) {
    reportError(e, "\"" + name + "\": ");
    return false;
  }
}

/// Reads the current entry whole and checks its CRC-32; false for a bad entry.
bool testCurrent(ziputil::CZipReader& reader) {
  std::string const name = currentEntryName(reader).shown();
  try {
    long long size = 0;
    unsigned long crc = copyEntry(reader, [&](unsigned char const*, std::size_t n) { size += static_cast<long long>(n); });
    if (crc == reader.getCurrentFileCRC32() && size == reader.getCurrentFileUncompressedSize()) return true;
    std::fprintf(stderr, "ziputil: bad entry \"%s\": CRC-32 %08lx, stored %08lx; %lld bytes, stored %lld\n",
                 name.c_str(), crc, reader.getCurrentFileCRC32(), size, reader.getCurrentFileUncompressedSize());
  } catch (std::exception const& e) {
    reportError(e, "bad entry \"" + name + "\": ");
  }
  return false;
}

tal::CTimeFields localTimeFields(long long seconds) {
  time_t t = static_cast<time_t>(seconds);
  struct tm local;
  if (!localtime_r(&t, &local)) return tal::CTimeFields();
  return tal::CTimeFields(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                          local.tm_sec, 0.0, 0, false);
}

/// A file opened for adding; closed when dropped. Opening does not wait (a
/// pipe without writer would block it).
class CInputFile {
public:
  explicit CInputFile(std::string const& path) : m_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~CInputFile() {
    if (m_fd >= 0) ::close(m_fd);
  }
  CInputFile(CInputFile const&) = delete;
  CInputFile& operator=(CInputFile const&) = delete;
  int fd() const { return m_fd; }

private:
  int m_fd;
};

void copyFileContents(int fd, tal::IOutStream& out, std::string const& path) {
  std::vector<unsigned char> buffer(kChunk);
  for (;;) {
    ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    if (n == 0) break;
    out.write(buffer.data(), static_cast<int>(n), nullptr);
  }
}

/// Adds one item; false when it was skipped because it cannot be read (the
/// input is opened before its entry begins, so a skipped file leaves no entry).
bool addItem(ziputil::CZipWriter& writer, SourceItem const& item) {
  std::unique_ptr<CInputFile> input;
  if (!item.isDirectory) {
    input = std::make_unique<CInputFile>(item.localPath);
    if (input->fd() < 0) {
      int const failure = errno;
      std::fprintf(stderr, "ziputil: skipping %s: cannot read it: %s\n", escapeForTerminal(item.localPath).c_str(),
                   std::strerror(failure));
      return false;
    }
    struct stat st;
    if (::fstat(input->fd(), &st) != 0 || !S_ISREG(st.st_mode)) { // a device or pipe may never end
      std::fprintf(stderr, "ziputil: skipping %s: not a regular file\n", escapeForTerminal(item.localPath).c_str());
      return false;
    }
  }
  tal::P<tal::IOutStream> out = writer.beginAddFile(entryURIFromPath(textFromBytes(item.entryName)),
                                                    localTimeFields(item.modifiedTime));
  if (input) copyFileContents(input->fd(), *out, item.localPath);
  out->close();
  return true;
}

std::vector<SourceItem> collectAll(std::vector<std::string> const& paths, std::string const& archivePath) {
  std::vector<SourceItem> items;
  for (std::string const& path : paths) {
    std::string name = entryNameFromArgument(path);
    std::vector<SourceItem> found = collectSources(path, name, archivePath);
    items.insert(items.end(), found.begin(), found.end());
  }
  return items;
}

std::string localPathOf(tal::CURI const& uri) { return utf8(uri.getPath()); }

} // namespace

void reportError(std::exception const& error, std::string const& prefix) {
  std::string line = prefix + error.what();
  if (auto const* e = dynamic_cast<tal::CError const*>(&error)) {
    if (e->getProps().has("uri")) line += " (" + utf8(e->getProps().get("uri")) + ")";
  }
  std::fprintf(stderr, "ziputil: %s\n", escapeForTerminal(line).c_str());
}

int listArchive(Options const& options, std::string const& archive) {
  tal::P<ziputil::CZipReader> reader = openReader(options, archive);
  while (reader->nextFile()) {
    if (options.longListing)
      std::printf("%12llu %12llu %s  ", static_cast<unsigned long long>(reader->getCurrentFileUncompressedSize()),
                  static_cast<unsigned long long>(reader->getCurrentFileCompressedSize()),
                  formatTime(reader->getCurrentFileModifiedTimeFields()).c_str());
    std::printf("%s\n", currentEntryName(*reader).shown().c_str());
  }
  reader->close();
  return 0;
}

int catEntry(Options const& options, std::string const& archive, std::string const& entry) {
  tal::P<ziputil::CZipReader> reader = openReader(options, archive);
  // ENTRY is matched against the names as list shows them (decoded, cleaned);
  // the first entry of that name counts.
  std::string const wanted = cleanEntryPath(utf8(textFromBytes(entry)));
  bool found = false;
  while (!found && reader->nextFile()) found = currentEntryName(*reader).path == wanted;
  if (!found) {
    std::fprintf(stderr, "ziputil: no entry \"%s\" in %s\n", escapeForTerminal(entry).c_str(),
                 escapeForTerminal(archive).c_str());
    return 1;
  }
  unsigned long const crc = copyEntry(*reader, [](unsigned char const* data, std::size_t size) {
    if (std::fwrite(data, 1, size, stdout) != size) throw std::runtime_error("cannot write to standard output");
  });
  int status = std::fflush(stdout) == 0 ? 0 : 1;
  if (crc != reader->getCurrentFileCRC32()) {
    std::fprintf(stderr, "ziputil: bad entry \"%s\": CRC-32 %08lx, stored %08lx\n", escapeForTerminal(entry).c_str(), crc,
                 reader->getCurrentFileCRC32());
    status = 1;
  }
  reader->close();
  return status;
}

int extractArchive(Options const& options, std::string const& archive, std::string const& folder) {
  tal::P<ziputil::CZipReader> reader = openReader(options, archive);
  makeDirectories(folder);
  CProgress progress("extracting");
  bool ok = true;
  while (reader->nextFile()) {
    progress.step(currentEntryName(*reader).shown());
    bool extracted = extractCurrent(*reader, folder);
    if (!extracted) progress.clear();
    ok = extracted && ok;
  }
  reader->close();
  return ok ? 0 : 1;
}

int testArchive(Options const& options, std::string const& archive) {
  tal::P<ziputil::CZipReader> reader = openReader(options, archive);
  CProgress progress("testing");
  long long entries = 0, bad = 0;
  while (reader->nextFile()) {
    progress.step(currentEntryName(*reader).shown());
    ++entries;
    if (!testCurrent(*reader)) {
      progress.clear();
      ++bad;
    }
  }
  reader->close();
  progress.clear();
  if (bad == 0)
    std::printf("No errors in %lld entries of %s\n", entries, escapeForTerminal(archive).c_str());
  else
    std::printf("%lld of %lld entries of %s are bad\n", bad, entries, escapeForTerminal(archive).c_str());
  return bad == 0 ? 0 : 1;
}

int addToArchive(Options const& options, std::string const& archive, std::vector<std::string> const& paths) {
  tal::CURI uri = archiveURIFromArgument(archive);
  tal::P<tal::IFileSystem> fileSystem = localFileSystem();
  std::vector<SourceItem> items = collectAll(paths, localPathOf(uri));
  bool const created = !fileSystem->exists(uri);
  if (created) ziputil::createEmptyArchive(fileSystem.get(), uri);
  tal::P<ziputil::CZipWriter> writer;
  try {
    // The new archive is written beside the old one and moved over it when
    // complete: whatever happens meanwhile, ARCHIVE is the old or the new one.
    ziputil::CZipWriter::Options writerOptions;
    writerOptions.atomicReplace = true;
    writer = tal::newObj<ziputil::CZipWriter>(fileSystem.get(), uri, textFromBytes(options.password),
                                             static_cast<ziputil::CZipWriter::CompLevel>(options.level),
                                             writerOptions);
    CProgress progress("adding");
    bool skipped = false;
    for (SourceItem const& item : items) {
      progress.step(escapeForTerminal(item.entryName));
      if (!addItem(*writer, item)) {
        progress.clear();
        skipped = true;
      }
    }
    writer->close();
    return skipped ? 1 : 0;
  } catch (...) {
    try {
      if (writer) writer->discard(); // nothing of this run reaches ARCHIVE
      if (created) fileSystem->remove(uri);
    } catch (std::exception const& e) {
      reportError(e, "while giving up: ");
    }
    throw;
  }
}

} // namespace ziputil_tool
