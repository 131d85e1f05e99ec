// Entry names as the ziputil program shows and uses them: decoded from the
// bytes stored in the archive, cleaned into safe relative paths, and escaped
// before they reach a terminal.
#pragma once

#include <string>

namespace ziputil {
class CZipReader;
}

namespace ziputil_tool {

/// Whether `bytes` is well-formed UTF-8 (shortest forms only, no surrogates,
/// nothing past U+10FFFF).
bool isValidUTF8(std::string const& bytes);

/// The UTF-8 form of bytes in code page 437 (the original IBM PC set that
/// ZIP writers used before the UTF-8 flag existed). Bytes below 0x80 are ASCII.
std::string utf8FromCP437(std::string const& bytes);

/// A stored entry name as UTF-8: the bytes themselves when they are valid
/// UTF-8; otherwise, without the UTF-8 flag, their code page 437 reading (the
/// name came from a writer that did not use UTF-8), and with the flag, the
/// valid parts with U+FFFD for each byte that does not fit.
std::string decodeEntryName(std::string const& raw, bool flaggedUTF8);

/// The cleaned relative path of a decoded name, by the library's rules for
/// safe relative paths (ziputil::CZipReader::ZipStuff::pathInArchiveToSafeURI):
/// "\" becomes "/", leading and trailing slashes, colons and surrounding blanks
/// go, an empty result becomes "_". Dot segments stay: callers check them.
std::string cleanEntryPath(std::string const& decoded);

/// The current entry of `reader`: its cleaned path (UTF-8: the stored name up
/// to its first NUL byte, as the library names the entry, decoded and cleaned)
/// and whether it is a folder entry.
struct EntryName {
  std::string path;
  bool isDirectory = false;
  /// The path with "/" after a folder entry, escaped for the terminal.
  std::string shown() const;
};
EntryName currentEntryName(ziputil::CZipReader const& reader);

/// `text` with every control character made visible: bytes 0x00-0x1f as
/// "^@".."^_" (a newline is "^J"), 0x7f as "^?", and the C1 controls
/// U+0080..U+009F as "\u0080".."\u009f". Bytes that are not valid UTF-8 are
/// shown as "\xNN". Everything else is kept as it is.
std::string escapeForTerminal(std::string const& text);

} // namespace ziputil_tool
