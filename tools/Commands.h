// The ziputil program's commands. Each returns the process exit status
// (0 success, 1 failure) and reports problems on standard error; library
// errors other than per-entry ones propagate to the caller as exceptions.
// Each command is defined in commands/, in a file named after it.
#pragma once

#include "ExtractFolder.h"

#include "ziputil/Encryption.h"

#include <string>
#include <vector>

namespace ziputil_tool {

/// Options shared by the commands.
struct Options {
  std::string password;
  bool longListing = false;
  /// list: one JSON object per entry.
  bool json = false;
  int level = 6;
  /// add: whether --level was given (zstd's default level is its own).
  bool levelGiven = false;
  /// add --method: "deflate" (the default), "store" or "zstd".
  std::string method = "deflate";
  /// add --encryption: how entries are encrypted when there is a password.
  ziputil::Encryption encryption = ziputil::Encryption::Aes256;
  /// extract: where to (-d), which entries (operands, shell patterns), which not (-x).
  std::string folder = ".";
  std::vector<std::string> patterns;
  std::vector<std::string> excludes;
  Overwrite overwrite = Overwrite::Refuse;
  /// -q: only errors (and the data asked for); -v: a line per entry.
  bool quiet = false;
  bool verbose = false;
  /// add: files naming more paths, one a line ("-" for standard input).
  std::vector<std::string> filesFrom;
  /// add -u: only files newer than their entries, and new files.
  bool update = false;
  /// add: files compressed at once; 0: one per processor, 1: one after another.
  unsigned jobs = 0;
};

int listArchive(Options const& options, std::string const& archive);
int catEntry(Options const& options, std::string const& archive, std::string const& entry);
/// Extracts the entries that match options.patterns (all when there are none)
/// and none of options.excludes into options.folder.
int extractArchive(Options const& options, std::string const& archive);
/// Adds `paths` and those listed in options.filesFrom.
int addToArchive(Options const& options, std::string const& archive, std::vector<std::string> const& paths);
int testArchive(Options const& options, std::string const& archive);
/// Removes the entries that match options.patterns (names or shell patterns,
/// as extract selects them); the rest is copied as it is stored.
int deleteFromArchive(Options const& options, std::string const& archive);

/// One line on standard error for an error: its message, then the URI it
/// concerns (its "uri" property) in parentheses when it has one.
void reportError(std::exception const& error, std::string const& prefix = std::string());

} // namespace ziputil_tool
