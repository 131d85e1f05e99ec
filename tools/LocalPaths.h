// Local-file helpers of the ziputil program: turning command-line paths into
// URIs and entry names, walking folders, and creating them.
#pragma once

#include "tal/String.h"

#include <string>
#include <vector>

namespace ziputil_tool {

/// Text from bytes a user typed or a file system returned: UTF-8 when valid,
/// otherwise ISO-8859-1, so that no byte string is lost.
tal::String textFromBytes(std::string const& bytes);

/// The `file:` URI of a local path (made absolute against the working folder);
/// text that starts with "file:" is parsed as a URI instead. Any character may
/// appear in a path: it is held as the URI's path, never read as URI syntax.
tal::CURI archiveURIFromArgument(std::string const& argument);

/// A relative URI whose path is exactly `path` (no URI syntax is interpreted).
tal::CURI entryURIFromPath(tal::String const& path);

/// The entry name for a path given on the command line: leading "./" and "/"
/// removed. Empty when nothing is left.
std::string entryNameFromArgument(std::string path);

/// One local file, folder or symbolic link to add, with the entry name it gets.
struct SourceItem {
  enum Kind { File, Directory, SymbolicLink };
  std::string localPath;
  std::string entryName; ///< ends with "/" for a folder
  Kind kind = File;
  bool isDirectory = false;
  long long modifiedTime = 0; ///< seconds since the epoch
  unsigned mode = 0;          ///< st_mode as found (type and permission bits)
};

/// Lists `path` and, for a folder, everything below it (sorted by name, folders
/// before their contents). Symbolic links are listed as links and never
/// followed, also when `path` itself is one, so a loop of links cannot make
/// the walk go on forever. Files identical to `skipPath` (the archive being
/// written) are left out. Throws std::runtime_error when `path` cannot be read.
std::vector<SourceItem> collectSources(std::string const& path, std::string const& entryName,
                                       std::string const& skipPath);

/// Creates `path` and its missing parents as folders.
void makeDirectories(std::string const& path);

} // namespace ziputil_tool
