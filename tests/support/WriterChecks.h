// Checks shared by the writer's integrity and fault tests: errors compared
// field by field, the folder around an archive, and what other tools make of
// an archive.
#pragma once

#include "tal/Error.h"

#include <functional>
#include <string>
#include <vector>

namespace testsupport {

/// Expects `actual` to be `expected` exactly: the same class, code, message,
/// context and properties, and no cause.
void expectSameError(tal::CError const& actual, tal::CError const& expected);
/// Expects `call` to throw a tal::CError that is `expected` exactly, as above.
void expectThrowsSame(std::function<void()> const& call, tal::CError const& expected);

/// What tal's destructor exception handler was told while `call` ran: "<class>;"
/// per report in `classes`, "<what()>;" in `messages`. The handler in place
/// before is put back afterwards.
struct DestructorReports {
  std::string classes, messages;
};
DestructorReports destructorReportsOf(std::function<void()> const& call);

/// Whether `text` is the URI text of a copy a CZipWriter makes beside the archive whose URI text is
/// `archive` when replacing it atomically: the archive's text and ".tmp-" and 16 lowercase hex digits.
bool isCopyOf(std::string const& text, std::string const& archive);

/// The names of the files in a local folder, sorted.
std::vector<std::string> listFolder(std::string const& path);

/// Runs `7z t` on an archive (with -p<password> when one is given; standard
/// input is empty, so 7z cannot wait for a password); returns its exit status,
/// and its output in `output`.
int sevenZipTest(std::string const& archive, std::string* output, std::string const& password = std::string());

/// Python's zipfile on each archive: one line per archive, "<names, comma-separated> <testzip() result>"
/// (so "a,b None" when every entry's CRC checks out), or "error <exception class>" when it cannot read it.
std::vector<std::string> pythonVerdicts(std::vector<std::string> const& archives);

} // namespace testsupport
