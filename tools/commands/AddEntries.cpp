#include "AddEntries.h"

#include "EntryNames.h"
#include "Fd.h"
#include "Progress.h"

#include "tal/Error.h"
#include "ziputil/CParallelDeflater.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace ziputil_tool {

tal::CURI entryURIOf(SourceItem const& item) { return entryURIFromPath(textFromBytes(item.entryName)); }

tal::CTimeFields localTimeFields(long long seconds) {
  time_t t = static_cast<time_t>(seconds);
  struct tm local;
  if (!localtime_r(&t, &local)) return tal::CTimeFields();
  return tal::CTimeFields(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                          local.tm_sec, 0.0, 0, false);
}

namespace {

constexpr int kChunk = 1 << 16;

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

void skipping(SourceItem const& item, std::string const& why) {
  std::fprintf(stderr, "ziputil: skipping %s: %s\n", escapeForTerminal(item.localPath).c_str(), why.c_str());
}

/// The codes of the errors a source of a parallel add throws.
enum SourceFailure : long long {
  SourceSkipped = 1,    ///< cannot be opened, or not a regular file: named and left out
  SourceReadFailed = 2, ///< opened, but reading failed: the whole add fails
};

/// strerror's text for `error`, safe in any thread.
std::string errorText(int error) {
  char buffer[256];
  return ::strerror_r(error, buffer, sizeof buffer); // the GNU form: returns the text
}

/// The target of the symbolic link at `path`; false when it cannot be read.
bool readLinkTarget(std::string const& path, std::string& target) {
  std::vector<char> buffer(256);
  for (;;) {
    ssize_t const n = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (n < 0) return false;
    if (static_cast<std::size_t>(n) < buffer.size()) {
      target.assign(buffer.data(), static_cast<std::size_t>(n));
      return true;
    }
    buffer.resize(buffer.size() * 2);
  }
}

/// An item to add, opened: the file and its length, or the link's target
/// (nothing for a folder).
struct OpenedItem {
  CFd file;
  long long length = 0;
  std::string linkTarget;
};

/// Opens `item` to add it; "", or why it is skipped. Safe in any thread.
std::string openItem(SourceItem const& item, OpenedItem& opened) {
  if (item.kind == SourceItem::SymbolicLink) {
    if (!readLinkTarget(item.localPath, opened.linkTarget)) {
      int const failure = errno;
      return "cannot read the link: " + errorText(failure);
    }
  } else if (item.kind == SourceItem::File) {
    // Never through a symbolic link put in place of the file since it was
    // listed; without waiting (a pipe without writer would block the open).
    opened.file.reset(::open(item.localPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    if (opened.file.get() < 0) {
      int const failure = errno;
      return "cannot read it: " + errorText(failure);
    }
    struct stat st;
    if (::fstat(opened.file.get(), &st) != 0 || !S_ISREG(st.st_mode)) // a device or pipe may never end
      return "not a regular file";
    opened.length = static_cast<long long>(st.st_size);
  }
  return std::string();
}

/// The entry options for `item`: its mode, whether it is a link, and how its
/// bytes are stored (level 0 stores them).
ziputil::CZipWriter::EntryOptions entryOptionsFor(Options const& options, SourceItem const& item) {
  ziputil::CZipWriter::EntryOptions entry;
  entry.unixMode = static_cast<int>(item.mode & 0177777);
  entry.symbolicLink = item.kind == SourceItem::SymbolicLink;
  if (item.kind == SourceItem::Directory || options.method == "store" ||
      (options.method == "deflate" && options.level == 0)) {
    entry.method = ziputil::CZipWriter::EntryOptions::Stored;
  } else if (options.method == "zstd") {
    entry.method = ziputil::CZipWriter::EntryOptions::Zstd;
    entry.level = options.levelGiven ? options.level : -1;
  }
  return entry;
}

/// Adds one item; false when it was skipped because it cannot be read (the
/// input is opened or read before its entry begins, so a skipped file leaves
/// no entry).
bool addItem(Options const& options, ziputil::CZipWriter& writer, SourceItem const& item) {
  OpenedItem opened;
  std::string const skipped = openItem(item, opened);
  if (!skipped.empty()) {
    skipping(item, skipped);
    return false;
  }
  tal::P<tal::IOutStream> out = writer.beginAddFile(entryURIOf(item), localTimeFields(item.modifiedTime),
                                                    entryOptionsFor(options, item));
  if (opened.file.get() >= 0) copyFileContents(opened.file.get(), *out, item.localPath);
  if (!opened.linkTarget.empty())
    out->write(opened.linkTarget.data(), static_cast<int>(opened.linkTarget.size()), nullptr);
  out->close();
  return true;
}

/// The verbose line for an added item.
void reportAdded(Options const& options, SourceItem const& item, FILE* messages) {
  if (options.verbose)
    std::fprintf(messages, "%s: %s\n", item.replaces ? "replacing" : "adding", escapeForTerminal(item.entryName).c_str());
}

/// The entries `items` written through `writer` one after another.
int writeEntriesInTurn(Options const& options, ziputil::CZipWriter& writer, std::vector<SourceItem> const& items,
                       FILE* messages) {
  CProgress progress("adding", !options.quiet && !options.verbose);
  bool skipped = false;
  for (SourceItem const& item : items) {
    progress.step(escapeForTerminal(item.entryName));
    if (!addItem(options, writer, item)) {
      progress.clear();
      skipped = true;
    } else {
      reportAdded(options, item, messages);
    }
  }
  progress.clear();
  writer.close();
  return skipped ? 1 : 0;
}

[[noreturn]] void throwSourceFailure(SourceFailure code, std::string const& message) {
  throw tal::CError(textFromBytes(message), "ziputil", code, tal::CProps(), nullptr);
}

/// The bytes of an open local file (or of a link's target, held in memory),
/// for CParallelDeflater.
class CSourceInStream : public tal::CBase, public virtual tal::IInStream {
public:
  /// Takes over `fd` (the file at `path`, `length` bytes long).
  CSourceInStream(int fd, std::string path, long long length)
      : m_input(fd), m_path(std::move(path)), m_length(length) {}
  /// The bytes `data`.
  explicit CSourceInStream(std::string data)
      : m_data(std::move(data)), m_length(static_cast<long long>(m_data.size())) {}

  void read(void* buffer, int size) override {
    if (readLax(buffer, size) != size)
      throw tal::CIOError(tal::CIOError::UnexpectedEnd, textFromBytes("unexpected end of " + m_path), tal::CProps(), nullptr);
  }
  int readLax(void* buffer, int size) override {
    checkOpen();
    if (size <= 0) return 0;
    if (m_input.get() < 0) {
      std::size_t const have = m_data.size() - static_cast<std::size_t>(m_position);
      std::size_t const n = std::min(have, static_cast<std::size_t>(size));
      std::memcpy(buffer, m_data.data() + m_position, n);
      m_position += static_cast<long long>(n);
      return static_cast<int>(n);
    }
    int got = 0;
    auto* out = static_cast<unsigned char*>(buffer);
    while (got < size) {
      ssize_t const n = ::read(m_input.get(), out + got, static_cast<std::size_t>(size - got));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        int const failure = errno;
        throwSourceFailure(SourceReadFailed, "cannot read " + m_path + ": " + errorText(failure));
      }
      if (n == 0) break;
      got += static_cast<int>(n);
    }
    m_position += got;
    return got;
  }
  int readAvailable(void* buffer, int size) override { return readLax(buffer, size); }
  bool waitReadable(int) const override { return true; }
  bool isEndOfStream() const override { return m_position >= m_length; }
  int isEndOfStream_NonBlocking() const override { return isEndOfStream() ? 1 : 0; }
  long long getLength() const override { return m_length; }
  long long getPosition() const override { return m_position; }
  tal::CURI getURI() const override { return tal::CURI(); }
  void seek(long long) override {
    throw tal::CIOError(tal::CIOError::SeekFailed, textFromBytes("cannot seek in " + m_path), tal::CProps(), nullptr);
  }
  tal::P<tal::IRangeLock> lockRange(long long, long long, LockType) override {
    throw tal::CIOError(tal::CIOError::LockNotSupported, textFromBytes("cannot lock " + m_path), tal::CProps(), nullptr);
  }
  void close() override {
    m_closed = true;
    m_input.close();
  }

private:
  void checkOpen() const {
    if (m_closed) throw tal::CIOError(tal::CIOError::StreamClosed, tal::String(), tal::CProps(), nullptr);
  }
  CFd m_input;
  std::string m_path;
  std::string m_data;
  long long m_length = 0;
  long long m_position = 0;
  bool m_closed = false;
};

/// Opens the bytes of `item` as addItem reads them; throws a SourceSkipped
/// error with the reason when it cannot be read.
tal::P<tal::IInStream> openSource(SourceItem const& item) {
  OpenedItem opened;
  std::string const skipped = openItem(item, opened);
  if (!skipped.empty()) throwSourceFailure(SourceSkipped, skipped);
  if (opened.file.get() >= 0)
    return tal::newObj<CSourceInStream>(opened.file.release(), item.localPath, opened.length);
  return tal::newObj<CSourceInStream>(opened.linkTarget); // a link's target; nothing for a folder
}

/// The entries `items` written through `writer` by a CParallelDeflater
/// (options.jobs workers): byte for byte what writeEntriesInTurn writes.
int writeEntriesAtOnce(Options const& options, ziputil::CZipWriter& writer, std::vector<SourceItem> const& items,
                       FILE* messages) {
  CProgress progress("adding", !options.quiet && !options.verbose);
  std::mutex progressLock;
  std::vector<ziputil::CParallelDeflater::Source> sources;
  sources.reserve(items.size());
  for (SourceItem const& item : items) {
    ziputil::CParallelDeflater::Source source;
    source.relativeURIInArchive = entryURIOf(item);
    source.time = localTimeFields(item.modifiedTime);
    source.options = entryOptionsFor(options, item);
    source.open = [&item, &progress, &progressLock]() {
      {
        std::lock_guard<std::mutex> hold(progressLock);
        progress.step(escapeForTerminal(item.entryName));
      }
      return openSource(item);
    };
    sources.push_back(std::move(source));
  }
  std::vector<bool> skipped(items.size(), false);
  ziputil::CParallelDeflater::Settings settings;
  settings.threads = options.jobs;
  settings.skipFailedSource = [&](std::size_t index, tal::CError const& error) {
    if (error.getCode() != SourceSkipped || error.getContext() != tal::String("ziputil")) return false;
    std::lock_guard<std::mutex> hold(progressLock);
    progress.clear();
    skipping(items[index], error.what());
    skipped[index] = true;
    return true;
  };
  ziputil::CParallelDeflater deflater(settings);
  deflater.addAll(writer, sources);
  progress.clear();
  writer.close();
  bool anySkipped = false;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (skipped[i])
      anySkipped = true;
    else
      reportAdded(options, items[i], messages);
  }
  return anySkipped ? 1 : 0;
}

} // namespace

int writeEntries(Options const& options, ziputil::CZipWriter& writer, std::vector<SourceItem> const& items,
                 FILE* messages) {
  // CParallelDeflater deflates: zstd entries are written one after another
  if (options.jobs == 1 || options.method == "zstd") return writeEntriesInTurn(options, writer, items, messages);
  return writeEntriesAtOnce(options, writer, items, messages);
}

} // namespace ziputil_tool
