#include "Commands.h"

#include "EntryNames.h"
#include "EntryReader.h"
#include "ExtractFolder.h"
#include "LocalPaths.h"
#include "Progress.h"

#include "tal/Error.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

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

/// Reports a bad entry: one line naming it and what is wrong.
void reportBadEntry(CEntryReader const& entries, std::string const& shownName, std::exception const& error) {
  std::fprintf(stderr, "ziputil: bad entry \"%s\": %s\n", shownName.c_str(),
               escapeForTerminal(entries.describeFailure(error)).c_str());
}

std::string formatTime(tal::CTimeFields const& time) {
  if (time.isEmpty()) return "                ";
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d", time.getYear(), time.getMonth(), time.getDay(),
                time.getHour(), time.getMinute());
  return text;
}

/// Extracts the current entry into `folder`; false when it was refused or failed.
bool extractCurrent(CEntryReader& entries, CExtractFolder& folder) {
  EntryName const entry = currentEntryName(entries.reader());
  std::string const name = entry.shown();
  try {
    std::vector<std::string> segments;
    std::string refusal = CExtractFolder::splitEntryPath(entry.path, segments);
    if (refusal.empty())
      refusal = entry.isDirectory ? folder.makeFolder(segments)
                                  : folder.writeFile(segments, [&](CExtractFolder::Sink const& sink) {
                                      entries.copyCurrent(sink);
                                    });
    if (refusal.empty()) return true;
    std::fprintf(stderr, "ziputil: refusing to extract \"%s\": %s\n", name.c_str(),
                 escapeForTerminal(refusal).c_str());
  } catch (tal::CError const& e) { // the entry cannot be read
    reportBadEntry(entries, name, e);
  } catch (std::exception const& e) { // the local file system failed
    reportError(e, "cannot extract \"" + name + "\": ");
  }
  return false;
}

/// Reads the current entry whole (the reader checks it); false for a bad entry.
bool testCurrent(CEntryReader& entries) {
  std::string const name = currentEntryName(entries.reader()).shown();
  try {
    entries.copyCurrent([](unsigned char const*, std::size_t) {});
    return true;
  } catch (std::exception const& e) {
    reportBadEntry(entries, name, e);
    return false;
  }
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
  CEntryReader entries(archiveURIFromArgument(archive), options.password);
  // ENTRY is matched against the names as list shows them (decoded, cleaned);
  // the first entry of that name counts.
  std::string const wanted = cleanEntryPath(utf8(textFromBytes(entry)));
  bool found = false;
  while (!found && entries.nextFile()) found = currentEntryName(entries.reader()).path == wanted;
  if (!found) {
    std::fprintf(stderr, "ziputil: no entry \"%s\" in %s\n", escapeForTerminal(entry).c_str(),
                 escapeForTerminal(archive).c_str());
    return 1;
  }
  int status = 0;
  try {
    entries.copyCurrent([](unsigned char const* data, std::size_t size) {
      if (std::fwrite(data, 1, size, stdout) != size) throw std::runtime_error("cannot write to standard output");
    });
  } catch (tal::CError const& e) { // the entry's bytes went out as far as they could be read
    std::fflush(stdout);
    reportBadEntry(entries, currentEntryName(entries.reader()).shown(), e);
    status = 1;
  }
  if (std::fflush(stdout) != 0) status = 1;
  entries.close();
  return status;
}

int extractArchive(Options const& options, std::string const& archive, std::string const& folder) {
  CEntryReader entries(archiveURIFromArgument(archive), options.password);
  CExtractFolder target(folder);
  CProgress progress("extracting");
  bool ok = true;
  while (entries.nextFile()) {
    progress.step(currentEntryName(entries.reader()).shown());
    bool extracted = extractCurrent(entries, target);
    if (!extracted) progress.clear();
    ok = extracted && ok;
  }
  entries.close();
  return ok ? 0 : 1;
}

int testArchive(Options const& options, std::string const& archive) {
  CEntryReader entries(archiveURIFromArgument(archive), options.password);
  CProgress progress("testing");
  long long count = 0, bad = 0;
  while (entries.nextFile()) {
    progress.step(currentEntryName(entries.reader()).shown());
    ++count;
    if (!testCurrent(entries)) {
      progress.clear();
      ++bad;
    }
  }
  entries.close();
  progress.clear();
  if (bad == 0)
    std::printf("No errors in %lld entries of %s\n", count, escapeForTerminal(archive).c_str());
  else
    std::printf("%lld of %lld entries of %s are bad\n", bad, count, escapeForTerminal(archive).c_str());
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
