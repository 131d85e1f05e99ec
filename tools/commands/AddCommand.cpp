// add: local files, folders and symbolic links added to an archive (created
// when missing, else rewritten beside it and moved over it), or written as a
// new archive to standard output. What goes in is decided here; AddEntries
// writes it.
#include "AddEntries.h"
#include "CommandHelpers.h"

#include "Fd.h"

#include "tal/Error.h"
#include "ziputil/CZipReader.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>
#include <unistd.h>

namespace ziputil_tool {
namespace {

constexpr int kChunk = 1 << 16;

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
        static_cast<ziputil::CZipWriter::CompLevel>(options.level), writerOptionsFor(false, options));
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
    ziputil::CZipWriter::Options writerOptions = writerOptionsFor(true, options);
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

} // namespace ziputil_tool
