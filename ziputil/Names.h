// Entry names and local paths as plain text, and the URIs the archive classes take.
#pragma once

#include "tal/String.h"

#include <string>
#include <string_view>

namespace ziputil {

/// Addition: the relative URI whose path is exactly `name`, an entry name in
/// UTF-8. Nothing in the name is read as URI syntax: "#", "?", "%", ":" and
/// blanks are ordinary characters ("docs/report #1.txt" names that file, not
/// "docs/report" with a fragment). Throws CInvalidArgError ("name is not valid
/// UTF-8", {"name"}: the bytes taken as ISO-8859-1) when `name` is not UTF-8,
/// and ("name is empty", {}) for an empty name.
tal::CURI entryURI(std::string_view name);

/// Addition: the path of `uri` as UTF-8 text, the inverse of entryURI for the
/// URIs the reader reports (an entry's cleaned name).
std::string entryName(tal::CURI const& uri);

/// Addition: text from bytes a user typed or a file system gave: UTF-8 when
/// valid, else each byte as the ISO-8859-1 character of that number, so that
/// no byte string is lost.
tal::String textFromBytes(std::string_view bytes);

/// Addition: the `file:` URI of a local path, made absolute against the working
/// folder when it is relative. The path is taken byte for byte (UTF-8 expected;
/// other bytes are kept as ISO-8859-1 characters); nothing in it is read as URI
/// syntax. Throws CInvalidArgError ("path is empty", {}) for an empty path, and
/// CIOError (Unknown, "Cannot read the working folder: <reason>") when a
/// relative path meets a working folder that cannot be read.
tal::CURI localFileURI(std::string_view path);

} // namespace ziputil
