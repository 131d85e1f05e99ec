// Archives for reader tests, made at test time by other tools (Python's
// zipfile, Info-ZIP zip, bsdtar), and small helpers around them.
#pragma once

#include "tal/String.h"

#include <string>
#include <utility>
#include <vector>

namespace testsupport {

/// Runs a Python 3 program (text) with arguments; throws std::runtime_error
/// when it fails. Returns its standard output.
std::string runPython(std::string const& program, std::vector<std::string> const& arguments = {});

/// One entry for makeZip: a name and its bytes.
using ZipEntry = std::pair<std::string, std::string>;

/// Writes an archive with Python's zipfile: deflated unless `stored`; every
/// entry dated 2019-12-31 23:58:58.
void makeZip(std::string const& path, std::vector<ZipEntry> const& entries, bool stored = false);

/// A relative entry URI whose path is exactly `path` (UTF-8).
tal::CURI entryURI(std::string const& path);

/// UTF-8 text of a tal::String.
std::string utf8(tal::String const& text);

} // namespace testsupport
