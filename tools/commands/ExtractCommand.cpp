// extract: the selected entries written below a folder (see CExtractFolder).
#include "CommandHelpers.h"

#include "ExtractFolder.h"
#include "LocalPaths.h"
#include "Progress.h"

#include "tal/Error.h"

#include <cstdio>
#include <stdexcept>

namespace ziputil_tool {
namespace {

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

} // namespace

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
  ok = reportUnmatched(options, matched) && ok;
  return ok ? 0 : 1;
}

} // namespace ziputil_tool
