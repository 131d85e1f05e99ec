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

/// The argument that names standard input or output in place of an archive.
inline bool isStandardStream(std::string const& argument) { return argument == "-"; }

/// An archive to read: as archiveURIFromArgument, except that "-" is standard
/// input: read where it is when it is a regular file, else first copied into
/// an anonymous temporary file (one without a name, gone when the program
/// ends however it ends), both reached through /proc/self/fd. Throws
/// std::runtime_error when standard input is a terminal or cannot be read.
tal::CURI archiveURIForReading(std::string const& argument);

/// A new anonymous temporary file (in $TMPDIR, else /tmp) open for reading and
/// writing; the URI through which the file system reaches it goes to `uri`.
/// Throws std::runtime_error.
int anonymousTemporaryFile(tal::CURI& uri);

/// Messages name the file at `uri` as `shown` from now on (see shownLocation).
void rememberShownName(tal::CURI const& uri, std::string const& shown);

/// How a message names the URI whose text (toString(true)) is `uriText`:
/// the name remembered for it, else the text itself.
std::string shownLocation(std::string const& uriText);

/// How messages name an archive argument: "standard input" (or output) for "-".
std::string shownArchive(std::string const& argument, bool output = false);

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
  bool replaces = false;      ///< add: an old entry of the same name is replaced
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
