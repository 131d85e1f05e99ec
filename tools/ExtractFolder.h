// The folder an extract run writes into, and how entries land in it safely.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <ctime>

#include <cstddef>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace ziputil_tool {

/// What extraction does with a file or symbolic link already at a target.
enum class Overwrite {
  Refuse, ///< keep it and refuse the entry (the default)
  Never,  ///< keep it and pass over the entry without a word (-n)
  Always, ///< replace it (-o), through the same temporary file and rename
};

/// Holds the target folder open and reaches everything below it from that
/// descriptor, one folder at a time (openat with O_NOFOLLOW | O_DIRECTORY,
/// mkdirat, renameat, unlinkat): a folder replaced by a symbolic link while
/// the run goes on cannot send a write elsewhere.
///
/// A file entry is written to a new temporary file in its destination folder
/// and renamed over the target only once it has been read whole and checked,
/// so an entry that cannot be read leaves an existing file as it was and no
/// partial file behind. Renaming replaces the folder entry: another hard link
/// to a file it replaces keeps that file's bytes. An existing file (or, for a
/// link entry, an existing link) is replaced only with Overwrite::Always.
/// An existing target that is not a regular file (a folder, a symbolic link, a FIFO, a device, a socket)
/// is refused without being opened, and so is a target that an earlier entry
/// of the same run has written.
///
/// Entries made on Unix get their permission bits back (never the
/// set-user-id, set-group-id and sticky bits); others get 0666 (files) or 0777
/// (folders) less the umask. Files and symbolic links get their modification
/// times when written, folders theirs (and their modes) in finish(), after
/// everything below them was written.
///
/// Refusals come back as text; failures of the local file system throw
/// std::runtime_error; whatever the entry's reader throws passes through
/// (the temporary file removed).
class CExtractFolder {
public:
  /// Creates `root` with its missing parents and opens it.
  CExtractFolder(std::string root, Overwrite overwrite);

  /// What writeFile and writeLink return for an entry passed over because its
  /// target exists and Overwrite::Never keeps it.
  static char const* const kKept;
  ~CExtractFolder();
  CExtractFolder(CExtractFolder const&) = delete;
  CExtractFolder& operator=(CExtractFolder const&) = delete;

  /// Splits a cleaned entry path into its segments ("." and empty segments
  /// dropped); returns why it is refused, or "" when it may be extracted.
  static std::string splitEntryPath(std::string const& path, std::vector<std::string>& segments);

  /// What an entry carries beside its bytes.
  struct Metadata {
    int mode = -1;         ///< Unix mode (st_mode) when the entry has one, else -1
    bool hasTime = false;  ///< whether `time` holds the modification time
    time_t time = 0;
  };

  /// Creates the folders of `segments`; their mode and time are set by
  /// finish(). Returns a refusal, or "".
  std::string makeFolder(std::vector<std::string> const& segments, Metadata const& metadata);

  using Sink = std::function<void(unsigned char const*, std::size_t)>;
  /// Writes the file at `segments`: `fill` gets a sink for the entry's bytes
  /// and must throw when the entry turns out bad. Returns a refusal, or "".
  std::string writeFile(std::vector<std::string> const& segments, Metadata const& metadata,
                        std::function<void(Sink const&)> const& fill);

  /// Creates the symbolic link at `segments` pointing to `target` (made under
  /// a temporary name, then renamed into place). A target that could lead
  /// outside the folder is refused: see linkTargetRefusal. Returns a refusal,
  /// or "".
  std::string writeLink(std::vector<std::string> const& segments, std::string const& target,
                        Metadata const& metadata);

  /// Why a link at `segments` with `target` is refused, or "": an empty or
  /// absolute target, one that climbs above the folder, or one with ".."
  /// after a name (that name may itself be a link, which ".." would leave
  /// from wherever it points).
  static std::string linkTargetRefusal(std::vector<std::string> const& segments, std::string const& target);

  /// Sets the modes and times of the folders made by makeFolder, deepest
  /// first. Failures are named on standard error; false when there was one.
  bool finish();

  /// The local path of `segments` below the folder, for messages.
  std::string localPath(std::vector<std::string> const& segments, std::size_t count) const;

private:
  /// Opens the folders of segments[0, count) below the root, creating the
  /// missing ones; -1 with `refusal` set when one is not a folder.
  int openFolders(std::vector<std::string> const& segments, std::size_t count, std::string& refusal);
  /// Makes a file or symbolic link in `folder` under a new temporary name
  /// (".ziputil-" and 12 random hex digits, another while one is taken):
  /// `make` gets the name and returns whether it made it (errno set when
  /// not). The name goes to `name` and is removed should a signal end the
  /// program before placeTemporary is done with it. False, errno set, when
  /// nothing could be made.
  bool makeTemporary(int folder, std::string& name, std::function<bool(char const*)> const& make);
  /// Finishes the temporary `temporary` in `folder` with `finish` (which
  /// returns its status), renames it over the target `leaf` (whose local
  /// path is `path`) and records the target as written by this run. When
  /// anything fails, the temporary is removed and the error passes through.
  void placeTemporary(int folder, std::string const& temporary, std::string const& leaf, std::string const& path,
                      std::function<struct stat()> const& finish);
  /// Checks the existing target `leaf` in `folder`: "" when it may be
  /// replaced or does not exist (`replacing` set accordingly), else a refusal.
  std::string checkTarget(int folder, std::string const& leaf, std::string const& path, bool allowLink,
                          bool& replacing);
  /// Opens the folder of the target segments.back() (openFolders) and checks
  /// the target there (checkTarget): the folder's descriptor, with `path` the
  /// target's local path, or -1 with `refusal` set.
  int openTarget(std::vector<std::string> const& segments, bool allowLink, std::string& path, bool& replacing,
                 std::string& refusal);

  struct PendingFolder {
    std::vector<std::string> segments;
    Metadata metadata;
  };
  std::vector<PendingFolder> m_folders;

  std::string m_root;
  Overwrite m_overwrite;
  int m_rootFd;
  mode_t m_fileMode;
  std::mt19937_64 m_random;
  /// The files this run has written (device, inode) and their paths.
  std::map<std::pair<dev_t, ino_t>, std::string> m_written;
};

} // namespace ziputil_tool
