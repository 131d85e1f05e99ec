// A temporary folder for tests, removed with everything in it on destruction,
// and small helpers for local files and shell commands.
#pragma once

#include "tal/String.h"

#include <string>

namespace testsupport {

class TempDir {
public:
  /// Creates a unique folder under $TMPDIR (or /tmp) whose name starts with `prefix`.
  explicit TempDir(std::string const& prefix = "ziputil-test");
  ~TempDir();
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;

  /// The folder's local path (UTF-8, no trailing slash).
  std::string const& path() const { return m_path; }
  /// The folder's `file:` URI.
  tal::CURI uri() const;
  /// The local path of `name` inside the folder.
  std::string file(std::string const& name) const { return m_path + "/" + name; }
  /// The `file:` URI of `name` (UTF-8 text) inside the folder.
  tal::CURI uri(std::string const& name) const;

private:
  std::string m_path;
};

/// The `file:` URI of a local path (UTF-8 text), built from its components.
tal::CURI fileURI(std::string const& path);
/// The whole contents of a local file; throws std::runtime_error when unreadable.
std::string readFile(std::string const& path);
void writeFile(std::string const& path, std::string const& bytes);
/// Runs a shell command; returns its exit status, and its standard output in `output` when given.
int runCommand(std::string const& command, std::string* output = nullptr);
/// Quotes text for the shell.
std::string shellQuote(std::string const& text);

} // namespace testsupport
