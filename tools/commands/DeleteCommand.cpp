// delete: the selected entries left out of a copy of the archive that
// replaces it.
#include "CommandHelpers.h"

#include "LocalPaths.h"

#include "ziputil/CZipReader.h"

#include <cstdio>

namespace ziputil_tool {

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
  bool const ok = reportUnmatched(options, matched);
  if (doomed.empty()) {
    if (!options.quiet)
      std::fprintf(stderr, "ziputil: nothing to delete: %s is left as it was\n",
                   escapeForTerminal(shownArchive(archive)).c_str());
    return 1;
  }
  // The new archive, every entry not deleted copied as it is stored, is built
  // beside the old one and moved over it once complete.
  ziputil::CZipWriter::Options writerOptions = writerOptionsFor(true, options);
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
