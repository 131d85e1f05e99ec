// cat: the bytes of one entry to standard output.
#include "CommandHelpers.h"

#include "LocalPaths.h"

#include "tal/Error.h"

#include <cstdio>
#include <stdexcept>

namespace ziputil_tool {

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

} // namespace ziputil_tool
