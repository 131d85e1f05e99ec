#include "Commands.h"

#include "EntryNames.h"
#include "EntryReader.h"
#include "ExtractFolder.h"
#include "Fd.h"
#include "LocalPaths.h"
#include "Password.h"
#include "Progress.h"

#include "tal/Error.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/CParallelDeflater.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fnmatch.h>
#include <mutex>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace ziputil_tool {
namespace {

constexpr int kChunk = 1 << 16;

std::string utf8(tal::String const& text) { return text.toUTF8(); }

tal::P<tal::IFileSystem> localFileSystem() { return tal::P<tal::IFileSystem>(tal::newObj<tal::CLocalFileSystem>()); }

tal::P<ziputil::CZipReader> openReader(Options const& options, std::string const& archive) {
  return tal::newObj<ziputil::CZipReader>(localFileSystem().get(), archiveURIForReading(archive),
                                          textFromBytes(options.password));
}

/// Asks on the terminal for the password of `archive` when an encrypted entry
/// is met and none was given (see CEntryReader).
std::function<std::string()> passwordPrompt(Options const& options, std::string const& archive) {
  if (!options.password.empty() || isStandardStream(archive)) return nullptr;
  return [archive]() { return promptPassword(archive); };
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

/// The local time_t of `time` (local time fields); false when it has none.
bool timeFromFields(tal::CTimeFields const& fields, time_t& time) {
  if (fields.isEmpty()) return false;
  struct tm local {};
  local.tm_year = fields.getYear() - 1900;
  local.tm_mon = fields.getMonth() - 1;
  local.tm_mday = fields.getDay();
  local.tm_hour = fields.getHour();
  local.tm_min = fields.getMinute();
  local.tm_sec = fields.getSecond();
  local.tm_isdst = -1;
  time = mktime(&local);
  return time != static_cast<time_t>(-1);
}

CExtractFolder::Metadata currentMetadata(ziputil::CZipReader const& reader) {
  CExtractFolder::Metadata metadata;
  metadata.mode = reader.getCurrentFileUnixMode();
  metadata.hasTime = timeFromFields(reader.getCurrentFileModifiedTimeFields(), metadata.time);
  return metadata;
}

constexpr std::size_t kLongestLinkTarget = 4095;

/// The target of the current entry, a symbolic link: its bytes.
std::string readLinkTarget(CEntryReader& entries) {
  std::string target;
  entries.copyCurrent([&](unsigned char const* data, std::size_t size) {
    if (target.size() + size > kLongestLinkTarget) throw std::length_error("its link target is too long");
    target.append(reinterpret_cast<char const*>(data), size);
  });
  return target;
}

/// Extracts the current entry into `folder`; false when it was refused or failed.
bool extractCurrent(Options const& options, CEntryReader& entries, CExtractFolder& folder) {
  EntryName const entry = currentEntryName(entries.reader());
  std::string const name = entry.shown();
  try {
    if (std::string const* problem = entries.currentProblem()) // nothing of it is written, a folder neither
      throw tal::CError(tal::String::fromUTF8(*problem), tal::String(), -1, tal::CProps(), nullptr);
    std::vector<std::string> segments;
    std::string refusal = CExtractFolder::splitEntryPath(entry.path, segments);
    CExtractFolder::Metadata const metadata = currentMetadata(entries.reader());
    if (refusal.empty()) {
      if (entry.isDirectory) {
        refusal = folder.makeFolder(segments, metadata);
      } else if (entries.reader().isCurrentFileSymbolicLink()) {
        std::string target;
        try {
          target = readLinkTarget(entries);
        } catch (std::length_error const& e) {
          refusal = e.what();
        }
        if (refusal.empty()) refusal = folder.writeLink(segments, target, metadata);
      } else {
        refusal = folder.writeFile(segments, metadata, [&](CExtractFolder::Sink const& sink) {
          entries.copyCurrent(sink);
        });
      }
    }
    if (refusal.empty() || refusal == CExtractFolder::kKept) {
      if (options.verbose) std::printf("%s: %s\n", refusal.empty() ? "extracting" : "keeping", name.c_str());
      return true;
    }
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
  if (options.level == 0 || item.kind == SourceItem::Directory)
    entry.method = ziputil::CZipWriter::EntryOptions::Stored;
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
  tal::P<tal::IOutStream> out = writer.beginAddFile(entryURIFromPath(textFromBytes(item.entryName)),
                                                    localTimeFields(item.modifiedTime),
                                                    entryOptionsFor(options, item));
  if (opened.file.get() >= 0) copyFileContents(opened.file.get(), *out, item.localPath);
  if (!opened.linkTarget.empty())
    out->write(opened.linkTarget.data(), static_cast<int>(opened.linkTarget.size()), nullptr);
  out->close();
  return true;
}

/// The entry URI of `item`.
tal::CURI entryURIOf(SourceItem const& item) { return entryURIFromPath(textFromBytes(item.entryName)); }

/// Whether the local file of `item` is newer than the current entry of
/// `reader`, both taken at the DOS time's resolution of 2 seconds (the entry
/// keeps no finer time). An entry without a time is older than any file.
bool newerThanEntry(SourceItem const& item, ziputil::CZipReader const& reader) {
  time_t entryTime;
  if (!timeFromFields(reader.getCurrentFileModifiedTimeFields(), entryTime)) return true;
  tal::CTimeFields const fileFields = localTimeFields(item.modifiedTime);
  tal::CTimeFields const truncated(fileFields.getYear(), fileFields.getMonth(), fileFields.getDay(),
                                   fileFields.getHour(), fileFields.getMinute(),
                                   fileFields.getSecond() - fileFields.getSecond() % 2, 0.0, 0, false);
  time_t fileTime;
  if (!timeFromFields(truncated, fileTime)) return true;
  return fileTime > entryTime;
}

/// What add does with an archive: the entries to add, in order, and the old
/// entries they replace.
struct AddPlan {
  std::vector<SourceItem> items;
  /// The names of old entries that new entries replace (left out of the copy).
  std::vector<tal::CURI> replaced;
  /// Sources left as they are by -u: their entries are not older.
  std::vector<std::string> unchanged;
};

/// Decides what goes into the archive for the sources found on the command
/// line. A name given twice is added once (the first source counts). Where
/// `existing` (the archive added to, or null) has an entry of the same name,
/// as its lookups compare names, the new entry replaces it; with -u only when
/// the file is newer than the entry, else the source is left out.
AddPlan planEntries(Options const& options, std::vector<SourceItem> const& sources,
                    ziputil::CZipReader* existing) {
  AddPlan plan;
  std::set<std::string> seen;
  for (SourceItem const& source : sources) {
    if (!seen.insert(cleanEntryPath(utf8(textFromBytes(source.entryName)))).second) continue;
    SourceItem item = source;
    if (existing) {
      tal::CURI const uri = entryURIOf(item);
      if (existing->tryGoToFile(uri)) {
        if (options.update && !newerThanEntry(item, *existing)) {
          plan.unchanged.push_back(item.entryName);
          continue;
        }
        item.replaces = true;
        plan.replaced.push_back(uri);
      }
    }
    plan.items.push_back(item);
  }
  return plan;
}

/// The paths listed in `file` ("-": standard input), one a line; empty lines
/// are passed over. Throws std::runtime_error when it cannot be read.
std::vector<std::string> readPathList(std::string const& file) {
  FILE* in = file == "-" ? stdin : std::fopen(file.c_str(), "rb");
  if (!in) throw std::runtime_error("cannot read the list " + file + ": " + std::strerror(errno));
  std::vector<std::string> paths;
  std::string line;
  int c;
  while ((c = std::fgetc(in)) != EOF) {
    if (c != '\n') {
      line += static_cast<char>(c);
      continue;
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) paths.push_back(line);
    line.clear();
  }
  if (!line.empty()) paths.push_back(line);
  bool const failed = std::ferror(in) != 0;
  int const error = errno;
  if (in != stdin) std::fclose(in);
  if (failed) throw std::runtime_error("cannot read the list " + file + ": " + std::strerror(error));
  return paths;
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
    if (e->getProps().has("uri")) {
      // Local files are named as the user typed them (or by their paths), never as URIs.
      std::string const uri = utf8(e->getProps().get("uri"));
      std::string const shown = shownLocation(uri);
      for (std::size_t at = 0; !uri.empty() && (at = line.find(uri, at)) != std::string::npos; at += shown.size())
        line.replace(at, uri.size(), shown);
      line += " (" + shown + ")";
    }
  }
  std::fprintf(stderr, "ziputil: %s\n", escapeForTerminal(line).c_str());
}

namespace {

/// A decimal number of up to 128 bits.
std::string decimal(unsigned __int128 value) {
  std::string digits;
  do {
    digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(value % 10)));
    value /= 10;
  } while (value != 0);
  return digits;
}

/// How much smaller the compressed bytes are, in whole percent ("-" and more
/// when they grew), as Info-ZIP lists it.
std::string ratio(unsigned __int128 size, unsigned __int128 compressed) {
  if (size == 0) return "0%";
  long double const saved = 100.0L * (static_cast<long double>(size) - static_cast<long double>(compressed)) /
                            static_cast<long double>(size);
  char text[32];
  std::snprintf(text, sizeof text, "%.0Lf%%", saved);
  return text;
}

/// The mode as ls shows it ("-rw-r--r--"), or blanks when the entry has none.
std::string modeText(int mode) {
  if (mode < 0) return "          ";
  char type = '-';
  switch (mode & S_IFMT) {
  case S_IFDIR: type = 'd'; break;
  case S_IFLNK: type = 'l'; break;
  case S_IFIFO: type = 'p'; break;
  case S_IFCHR: type = 'c'; break;
  case S_IFBLK: type = 'b'; break;
  case S_IFSOCK: type = 's'; break;
  default: break;
  }
  std::string text(1, type);
  char const* const letters = "rwxrwxrwx";
  for (int bit = 0; bit < 9; ++bit) text += (mode & (0400 >> bit)) ? letters[bit] : '-';
  if (mode & S_ISUID) text[3] = (mode & S_IXUSR) ? 's' : 'S';
  if (mode & S_ISGID) text[6] = (mode & S_IXGRP) ? 's' : 'S';
  if (mode & S_ISVTX) text[9] = (mode & S_IXOTH) ? 't' : 'T';
  return text;
}

std::string methodName(int method) {
  switch (method) {
  case 0: return "stored";
  case 8: return "deflated";
  case 9: return "deflate64";
  case 12: return "bzip2";
  case 14: return "lzma";
  case 93: return "zstd";
  case 95: return "xz";
  default: return "method " + std::to_string(method);
  }
}

/// `bytes` as a JSON string (quoted): valid UTF-8 kept, each byte that is not
/// part of it U+FFFD, control characters escaped.
std::string jsonString(std::string const& bytes) {
  std::string const text = isValidUTF8(bytes) ? bytes : decodeEntryName(bytes, true);
  std::string out = "\"";
  for (char c : text) {
    unsigned char const u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20 || u == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string hexBytes(std::string const& bytes) {
  std::string out;
  char pair[4];
  for (char c : bytes) {
    std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(c));
    out += pair;
  }
  return out;
}

constexpr std::size_t kLongestListedTarget = 4095;

/// The target of the current entry, a symbolic link, when it can be read
/// (not encrypted without a password, not too long); false otherwise.
bool currentLinkTarget(ziputil::CZipReader& reader, std::string& target) {
  try {
    tal::P<tal::IInStream> in = reader.openCurrentFileStream();
    char buffer[kLongestListedTarget + 1];
    std::size_t have = 0;
    while (have < sizeof buffer) {
      int const n = in->readLax(buffer + have, static_cast<int>(sizeof buffer - have));
      if (n <= 0) break;
      have += static_cast<std::size_t>(n);
    }
    in->close();
    if (have > kLongestListedTarget) return false;
    target.assign(buffer, have);
    return true;
  } catch (std::exception const&) {
    return false;
  }
}

/// One JSON object (one line) describing the current entry.
void printJsonEntry(ziputil::CZipReader& reader) {
  EntryName const entry = currentEntryName(reader);
  tal::CTimeFields const time = reader.getCurrentFileModifiedTimeFields();
  int const mode = reader.getCurrentFileUnixMode();
  int const madeBy = reader.getCurrentFileVersionMadeBy();
  bool const link = reader.isCurrentFileSymbolicLink();
  std::string json = "{\"name\":" + jsonString(entry.path + (entry.isDirectory ? "/" : ""));
  json += ",\"rawName\":" + jsonString(reader.getCurrentFileRawName());
  json += ",\"nameUTF8\":" + std::string(reader.isCurrentFileNameUTF8() ? "true" : "false");
  json += ",\"directory\":" + std::string(entry.isDirectory ? "true" : "false");
  json += ",\"size\":" + decimal(static_cast<unsigned long long>(reader.getCurrentFileUncompressedSize()));
  json += ",\"compressedSize\":" + decimal(static_cast<unsigned long long>(reader.getCurrentFileCompressedSize()));
  json += ",\"method\":" + std::to_string(reader.getCurrentFileMethod());
  json += ",\"methodName\":" + jsonString(methodName(reader.getCurrentFileMethod()));
  char crc[16];
  std::snprintf(crc, sizeof crc, "%08lx", reader.getCurrentFileCRC32());
  json += ",\"crc32\":\"" + std::string(crc) + "\"";
  if (time.isEmpty()) {
    json += ",\"time\":null";
  } else {
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", time.getYear(), time.getMonth(), time.getDay(),
                  time.getHour(), time.getMinute(), time.getSecond());
    json += ",\"time\":\"" + std::string(text) + "\"";
  }
  json += ",\"versionMadeBy\":" + std::to_string(madeBy);
  json += ",\"system\":" + std::to_string(madeBy < 0 ? -1 : madeBy >> 8);
  json += ",\"externalAttributes\":" + std::to_string(reader.getCurrentFileExternalAttributes());
  json += ",\"mode\":" + (mode < 0 ? std::string("null") : std::to_string(mode));
  json += ",\"modeText\":" + (mode < 0 ? std::string("null") : jsonString(modeText(mode)));
  json += ",\"link\":" + std::string(link ? "true" : "false");
  std::string target;
  if (link && currentLinkTarget(reader, target)) json += ",\"target\":" + jsonString(target);
  json += ",\"encrypted\":" + std::string(reader.isCurrentFileEncrypted() ? "true" : "false");
  json += ",\"comment\":" + jsonString(reader.getCurrentFileComment());
  json += ",\"extra\":\"" + hexBytes(reader.getCurrentFileExtraField()) + "\"}";
  std::printf("%s\n", json.c_str());
}

char const kListRule[] = "------------ ------------ ----- ---------------- ---------- ----";

} // namespace

int listArchive(Options const& options, std::string const& archive) {
  tal::P<ziputil::CZipReader> reader = openReader(options, archive);
  bool const longForm = options.longListing || options.verbose;
  bool const framed = longForm && !options.quiet && !options.json;
  if (framed) std::printf("        Size   Compressed Ratio Date       Time  Mode       Name\n%s\n", kListRule);
  unsigned __int128 totalSize = 0, totalCompressed = 0;
  unsigned long long count = 0;
  while (reader->nextFile()) {
    ++count;
    if (options.json) {
      printJsonEntry(*reader);
      continue;
    }
    unsigned long long const size = static_cast<unsigned long long>(reader->getCurrentFileUncompressedSize());
    unsigned long long const compressed = static_cast<unsigned long long>(reader->getCurrentFileCompressedSize());
    totalSize += size;
    totalCompressed += compressed;
    if (longForm)
      std::printf("%12s %12s %5s %s %s ", decimal(size).c_str(), decimal(compressed).c_str(),
                  ratio(size, compressed).c_str(), formatTime(reader->getCurrentFileModifiedTimeFields()).c_str(),
                  modeText(reader->getCurrentFileUnixMode()).c_str());
    std::printf("%s\n", currentEntryName(*reader).shown().c_str());
  }
  reader->close();
  if (framed)
    std::printf("%s\n%12s %12s %5s %27s %llu %s\n", kListRule, decimal(totalSize).c_str(),
                decimal(totalCompressed).c_str(), ratio(totalSize, totalCompressed).c_str(), "", count,
                count == 1 ? "entry" : "entries");
  return 0;
}

int catEntry(Options const& options, std::string const& archive, std::string const& entry) {
  CEntryReader entries(archiveURIForReading(archive), options.password, passwordPrompt(options, archive));
  // ENTRY is matched against the names as list shows them (decoded, cleaned);
  // the first entry of that name counts.
  std::string const wanted = cleanEntryPath(utf8(textFromBytes(entry)));
  bool found = false;
  while (!found && entries.nextFile()) found = currentEntryName(entries.reader()).path == wanted;
  if (!found) {
    std::fprintf(stderr, "ziputil: no entry \"%s\" in %s\n", escapeForTerminal(entry).c_str(),
                 escapeForTerminal(shownArchive(archive)).c_str());
    return 1;
  }
  int status = 0;
  std::string const shown = currentEntryName(entries.reader()).shown();
  unsigned long long written = 0;
  try {
    entries.copyCurrent([&](unsigned char const* data, std::size_t size) {
      if (std::fwrite(data, 1, size, stdout) != size) throw std::runtime_error("cannot write to standard output");
      written += size;
    });
  } catch (tal::CError const& e) { // the entry's bytes went out as far as they could be read
    std::fflush(stdout);
    reportBadEntry(entries, currentEntryName(entries.reader()).shown(), e);
    status = 1;
  }
  if (std::fflush(stdout) != 0) status = 1;
  entries.close();
  if (options.verbose && status == 0)
    std::fprintf(stderr, "ziputil: %s: %llu bytes\n", shown.c_str(), written);
  return status;
}

/// Whether the current entry is selected by the operands and exclusions;
/// marks the operand patterns that matched.
bool selected(Options const& options, EntryName const& entry, std::vector<bool>& matched) {
  auto matches = [&](std::string const& pattern) {
    return ::fnmatch(pattern.c_str(), entry.path.c_str(), 0) == 0 ||
           (entry.isDirectory && ::fnmatch(pattern.c_str(), (entry.path + "/").c_str(), 0) == 0);
  };
  for (std::string const& pattern : options.excludes)
    if (matches(pattern)) return false;
  if (options.patterns.empty()) return true;
  bool any = false;
  for (std::size_t i = 0; i < options.patterns.size(); ++i)
    if (matches(options.patterns[i])) any = matched[i] = true;
  return any;
}

int extractArchive(Options const& options, std::string const& archive) {
  CEntryReader entries(archiveURIForReading(archive), options.password, passwordPrompt(options, archive));
  CExtractFolder target(options.folder, options.overwrite);
  CProgress progress("extracting", !options.quiet && !options.verbose);
  std::vector<bool> matched(options.patterns.size(), false);
  bool ok = true;
  while (entries.nextFile()) {
    EntryName const entry = currentEntryName(entries.reader());
    if (!selected(options, entry, matched)) continue;
    progress.step(entry.shown());
    bool extracted = extractCurrent(options, entries, target);
    if (!extracted) progress.clear();
    ok = extracted && ok;
  }
  progress.clear();
  ok = target.finish() && ok; // folders last: writing into them changed their times
  entries.close();
  for (std::size_t i = 0; i < options.patterns.size(); ++i) {
    if (matched[i]) continue;
    std::fprintf(stderr, "ziputil: no entry matches \"%s\"\n", escapeForTerminal(options.patterns[i]).c_str());
    ok = false;
  }
  return ok ? 0 : 1;
}

int testArchive(Options const& options, std::string const& archive) {
  CEntryReader entries(archiveURIForReading(archive), options.password, passwordPrompt(options, archive));
  CProgress progress("testing", !options.quiet && !options.verbose);
  long long count = 0, bad = 0;
  while (entries.nextFile()) {
    progress.step(currentEntryName(entries.reader()).shown());
    ++count;
    if (!testCurrent(entries)) {
      progress.clear();
      ++bad;
    } else if (options.verbose) {
      std::printf("testing: %s OK\n", currentEntryName(entries.reader()).shown().c_str());
    }
  }
  entries.close();
  progress.clear();
  if (!options.quiet && bad == 0)
    std::printf("No errors in %lld entries of %s\n", count, escapeForTerminal(shownArchive(archive)).c_str());
  else if (!options.quiet)
    std::printf("%lld of %lld entries of %s are bad\n", bad, count, escapeForTerminal(shownArchive(archive)).c_str());
  return bad == 0 ? 0 : 1;
}

namespace {

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

/// The entries `items` written through `writer`; the exit status (1 when an
/// input was skipped). Lines of -v go to `messages`.
int writeEntries(Options const& options, ziputil::CZipWriter& writer, std::vector<SourceItem> const& items,
                 FILE* messages) {
  if (options.jobs == 1) return writeEntriesInTurn(options, writer, items, messages);
  return writeEntriesAtOnce(options, writer, items, messages);
}

ziputil::CZipWriter::Options writerOptionsFor(bool atomic) {
  ziputil::CZipWriter::Options writerOptions;
  writerOptions.atomicReplace = atomic;
  writerOptions.madeByUnix = true;              // modes and links kept; UTF-8 names read as such
  writerOptions.interoperableEncryption = true; // other tools accept the password
  writerOptions.keepArchiveComment = true;
  return writerOptions;
}

/// A new archive of `paths` written to standard output: built in an anonymous
/// temporary file, then copied out whole.
int addToStandardOutput(Options const& options, std::vector<std::string> const& paths) {
  if (::isatty(STDOUT_FILENO)) throw std::runtime_error("will not write an archive to a terminal");
  std::vector<SourceItem> const items = planEntries(options, collectAll(paths, std::string()), nullptr).items;
  tal::CURI uri;
  int const fd = anonymousTemporaryFile(uri);
  CFd const closer(fd); // closed when done
  rememberShownName(uri, "the archive for standard output");
  tal::P<tal::IFileSystem> fileSystem = localFileSystem();
  ziputil::createEmptyArchive(fileSystem.get(), uri);
  int status;
  {
    tal::P<ziputil::CZipWriter> writer = tal::newObj<ziputil::CZipWriter>(
        fileSystem.get(), uri, textFromBytes(options.password),
        static_cast<ziputil::CZipWriter::CompLevel>(options.level), writerOptionsFor(false));
    status = writeEntries(options, *writer, items, stderr);
  }
  std::vector<unsigned char> buffer(kChunk);
  for (off_t at = 0;;) {
    ssize_t n = ::pread(fd, buffer.data(), buffer.size(), at);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error(std::string("cannot read the new archive: ") + std::strerror(errno));
    if (n == 0) break;
    at += n;
    if (std::fwrite(buffer.data(), 1, static_cast<std::size_t>(n), stdout) != static_cast<std::size_t>(n))
      throw std::runtime_error(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
  if (std::fflush(stdout) != 0)
    throw std::runtime_error(std::string("cannot write to standard output: ") + std::strerror(errno));
  return status;
}

std::vector<std::string> pathsToAdd(Options const& options, std::vector<std::string> const& paths) {
  std::vector<std::string> allPaths = paths;
  for (std::string const& list : options.filesFrom) {
    std::vector<std::string> listed = readPathList(list);
    allPaths.insert(allPaths.end(), listed.begin(), listed.end());
  }
  if (allPaths.empty()) throw std::runtime_error("nothing to add: the lists name no path");
  return allPaths;
}

} // namespace

namespace {

/// What add does with the archive at `uri` (see planEntries), looked up with
/// a reader on it. When the archive cannot be read, `readError` gets the
/// reader's error and the plan adds every source: the writer, which checks
/// the archive on its own, is then expected to refuse it with its own error.
AddPlan planAdd(Options const& options, tal::IFileSystem* fileSystem, tal::CURI const& uri,
                std::vector<SourceItem> const& sources, tal::P<tal::CError>& readError) {
  if (fileSystem->exists(uri)) {
    try {
      tal::P<ziputil::CZipReader> reader = tal::newObj<ziputil::CZipReader>(fileSystem, uri, tal::String());
      AddPlan plan = planEntries(options, sources, reader.get());
      reader->close();
      return plan;
    } catch (tal::CError const& e) {
      readError = e.clone();
    }
  }
  return planEntries(options, sources, nullptr);
}

} // namespace

int addToArchive(Options const& options, std::string const& archive, std::vector<std::string> const& paths) {
  if (isStandardStream(archive)) return addToStandardOutput(options, pathsToAdd(options, paths));
  tal::CURI uri = archiveURIFromArgument(archive);
  tal::P<tal::IFileSystem> fileSystem = localFileSystem();
  tal::P<tal::CError> readError;
  AddPlan const plan = planAdd(options, fileSystem.get(), uri,
                               collectAll(pathsToAdd(options, paths), localPathOf(uri)), readError);
  for (std::string const& name : plan.unchanged)
    if (options.verbose) std::printf("unchanged: %s\n", escapeForTerminal(name).c_str());
  bool const created = !fileSystem->exists(uri);
  if (created) ziputil::createEmptyArchive(fileSystem.get(), uri);
  tal::P<ziputil::CZipWriter> writer;
  try {
    // The new archive is written beside the old one and moved over it when
    // complete: whatever happens meanwhile, ARCHIVE is the old or the new one.
    // Old entries that new ones replace are left out of it; the others are
    // copied as they are stored.
    ziputil::CZipWriter::Options writerOptions = writerOptionsFor(true);
    if (!plan.replaced.empty()) writerOptions.omitEntry = ziputil::CZipWriter::omitNamed(plan.replaced);
    writer = tal::newObj<ziputil::CZipWriter>(fileSystem.get(), uri, textFromBytes(options.password),
                                             static_cast<ziputil::CZipWriter::CompLevel>(options.level),
                                             writerOptions);
    if (readError) readError->throwClone(); // the writer took an archive that its entries' lookup did not
    return writeEntries(options, *writer, plan.items, stdout);
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

int deleteFromArchive(Options const& options, std::string const& archive) {
  tal::CURI const uri = archiveURIFromArgument(archive);
  tal::P<tal::IFileSystem> fileSystem = localFileSystem();
  std::vector<bool> matched(options.patterns.size(), false);
  std::vector<std::string> doomed;
  {
    tal::P<ziputil::CZipReader> reader = tal::newObj<ziputil::CZipReader>(fileSystem.get(), uri, tal::String());
    while (reader->nextFile()) {
      EntryName const entry = currentEntryName(*reader);
      if (selected(options, entry, matched)) doomed.push_back(entry.shown());
    }
    reader->close();
  }
  bool ok = true;
  for (std::size_t i = 0; i < options.patterns.size(); ++i) {
    if (matched[i]) continue;
    std::fprintf(stderr, "ziputil: no entry matches \"%s\"\n", escapeForTerminal(options.patterns[i]).c_str());
    ok = false;
  }
  if (doomed.empty()) {
    if (!options.quiet)
      std::fprintf(stderr, "ziputil: nothing to delete: %s is left as it was\n",
                   escapeForTerminal(shownArchive(archive)).c_str());
    return 1;
  }
  // The new archive, every entry not deleted copied as it is stored, is built
  // beside the old one and moved over it once complete.
  ziputil::CZipWriter::Options writerOptions = writerOptionsFor(true);
  writerOptions.omitEntry = [&options](ziputil::CZipReader& reader) {
    std::vector<bool> ignored(options.patterns.size(), false);
    return selected(options, currentEntryName(reader), ignored);
  };
  tal::P<ziputil::CZipWriter> writer;
  try {
    writer = tal::newObj<ziputil::CZipWriter>(fileSystem.get(), uri, tal::String(), ziputil::CZipWriter::CompNormal,
                                             writerOptions);
    writer->close();
  } catch (...) {
    try {
      if (writer) writer->discard();
    } catch (std::exception const& e) {
      reportError(e, "while giving up: ");
    }
    throw;
  }
  if (options.verbose)
    for (std::string const& name : doomed) std::printf("deleting: %s\n", name.c_str());
  if (!options.quiet)
    std::printf("%zu %s deleted from %s\n", doomed.size(), doomed.size() == 1 ? "entry" : "entries",
                escapeForTerminal(shownArchive(archive)).c_str());
  return ok ? 0 : 1;
}

} // namespace ziputil_tool
