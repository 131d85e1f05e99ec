// test: every entry read whole and checked, the bad ones named.
#include "CommandHelpers.h"

#include "LocalPaths.h"
#include "Progress.h"

#include <cstdio>

namespace ziputil_tool {
namespace {

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

} // namespace

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

} // namespace ziputil_tool
