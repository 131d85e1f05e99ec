// ziputil::NameRules: how a stored entry name becomes the name the library
// shows and compares (internal to libziputil; not installed). The reader's
// ZipStuff::pathInArchiveToSafeURI and compareFileNames are these rules, and
// the central directory's name index keys entries by them.
#pragma once

#include "tal/String.h"

#include <string>
#include <string_view>

namespace ziputil {

/// An entry name made safe as a relative URI's path: backslashes become
/// slashes, slashes at either end and colons are dropped, blanks at either end
/// are trimmed, and what is left empty becomes "_". Nothing is read as URI
/// syntax.
tal::CURI cleanedEntryURI(tal::String const& pathInArchive);

/// Orders two stored names (C strings, UTF-8 expected) by their cleaned paths
/// as UTF-8, the code points' order; names that cannot be decoded or cleaned
/// are compared as bytes. -1, 0 or 1.
int compareStoredNames(char const* name1, char const* name2);

/// What compareStoredNames compares of a stored name (a C string): its cleaned
/// path as UTF-8 in `key`. False when decoding or cleaning fails (the name is
/// then compared as bytes).
bool storedNameKey(char const* name, std::string& key) noexcept;

/// The same as storedNameKey, except that `cleaned` is false when the name
/// needs no cleaning: its key is then the name itself and `key` is untouched.
bool nameComparisonKey(char const* name, std::string& key, bool& cleaned) noexcept;
/// The same for a name's bytes, which hold no zero byte.
bool nameComparisonKey(std::string_view name, std::string& key, bool& cleaned) noexcept;

/// Whether cleaning leaves the stored name (a C string) as it is: printable
/// ASCII without backslash or colon, not empty, neither starting nor ending
/// with a slash or a blank.
bool nameNeedsNoCleaning(char const* name) noexcept;
/// The same for a name's bytes; a zero byte among them needs the full way.
bool nameNeedsNoCleaning(std::string_view name) noexcept;
/// The same rule for decoded text: whether cleanedEntryURI leaves `text` as it is.
bool textNeedsNoCleaning(tal::String const& text) noexcept;

} // namespace ziputil
