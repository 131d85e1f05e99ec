#include "EntryNames.h"

#include "ziputil/CZipReader.h"

#include <cstdio>

namespace ziputil_tool {
namespace {

/// Code page 437, bytes 0x80-0xff.
char32_t const kCP437High[128] = {
    0x00c7, 0x00fc, 0x00e9, 0x00e2, 0x00e4, 0x00e0, 0x00e5, 0x00e7, 0x00ea, 0x00eb, 0x00e8, 0x00ef, 0x00ee,
    0x00ec, 0x00c4, 0x00c5, 0x00c9, 0x00e6, 0x00c6, 0x00f4, 0x00f6, 0x00f2, 0x00fb, 0x00f9, 0x00ff, 0x00d6,
    0x00dc, 0x00a2, 0x00a3, 0x00a5, 0x20a7, 0x0192, 0x00e1, 0x00ed, 0x00f3, 0x00fa, 0x00f1, 0x00d1, 0x00aa,
    0x00ba, 0x00bf, 0x2310, 0x00ac, 0x00bd, 0x00bc, 0x00a1, 0x00ab, 0x00bb, 0x2591, 0x2592, 0x2593, 0x2502,
    0x2524, 0x2561, 0x2562, 0x2556, 0x2555, 0x2563, 0x2551, 0x2557, 0x255d, 0x255c, 0x255b, 0x2510, 0x2514,
    0x2534, 0x252c, 0x251c, 0x2500, 0x253c, 0x255e, 0x255f, 0x255a, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550,
    0x256c, 0x2567, 0x2568, 0x2564, 0x2565, 0x2559, 0x2558, 0x2552, 0x2553, 0x256b, 0x256a, 0x2518, 0x250c,
    0x2588, 0x2584, 0x258c, 0x2590, 0x2580, 0x03b1, 0x00df, 0x0393, 0x03c0, 0x03a3, 0x03c3, 0x00b5, 0x03c4,
    0x03a6, 0x0398, 0x03a9, 0x03b4, 0x221e, 0x03c6, 0x03b5, 0x2229, 0x2261, 0x00b1, 0x2265, 0x2264, 0x2320,
    0x2321, 0x00f7, 0x2248, 0x00b0, 0x2219, 0x00b7, 0x221a, 0x207f, 0x00b2, 0x25a0, 0x00a0,
};

void appendUTF8(std::string& out, char32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xc0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3f));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xe0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
    out += static_cast<char>(0x80 | (code & 0x3f));
  } else {
    out += static_cast<char>(0xf0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3f));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
    out += static_cast<char>(0x80 | (code & 0x3f));
  }
}

/// The length of the well-formed UTF-8 sequence at `text[at]`, with its code
/// point in `code`; 0 when the bytes there are not one.
std::size_t sequenceAt(std::string const& text, std::size_t at, char32_t& code) {
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char const lead = byte(at);
  if (lead < 0x80) {
    code = lead;
    return 1;
  }
  std::size_t length;
  char32_t least;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
    least = 0x80;
    code = lead & 0x1f;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    least = 0x800;
    code = lead & 0x0f;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    least = 0x10000;
    code = lead & 0x07;
  } else {
    return 0;
  }
  if (text.size() - at < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    unsigned char const next = byte(at + i);
    if ((next & 0xc0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3f);
  }
  if (code < least || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) return 0;
  return length;
}

} // namespace

bool isValidUTF8(std::string const& bytes) {
  char32_t code = 0;
  for (std::size_t at = 0; at < bytes.size();) {
    std::size_t const length = sequenceAt(bytes, at, code);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string utf8FromCP437(std::string const& bytes) {
  std::string out;
  out.reserve(bytes.size() * 2);
  for (char c : bytes) {
    unsigned char const byte = static_cast<unsigned char>(c);
    appendUTF8(out, byte < 0x80 ? static_cast<char32_t>(byte) : kCP437High[byte - 0x80]);
  }
  return out;
}

std::string decodeEntryName(std::string const& raw, bool flaggedUTF8) {
  if (isValidUTF8(raw)) return raw;
  if (!flaggedUTF8) return utf8FromCP437(raw);
  // Flagged as UTF-8 but broken: the valid parts stay, each stray byte becomes U+FFFD.
  std::string out;
  char32_t code = 0;
  for (std::size_t at = 0; at < raw.size();) {
    std::size_t const length = sequenceAt(raw, at, code);
    if (length == 0) {
      appendUTF8(out, 0xfffd);
      at += 1;
    } else {
      out.append(raw, at, length);
      at += length;
    }
  }
  return out;
}

std::string cleanEntryPath(std::string const& decoded) {
  tal::String const text = tal::String::fromUTF8(decoded);
  if (text.empty() && !decoded.empty()) return "_"; // not reached for valid UTF-8
  return ziputil::CZipReader::ZipStuff::pathInArchiveToSafeURI(text).getPath().toUTF8();
}

std::string EntryName::shown() const { return escapeForTerminal(isDirectory ? path + "/" : path); }

EntryName currentEntryName(ziputil::CZipReader const& reader) {
  EntryName name;
  // The name ends at a NUL byte, as the library's name of the entry does.
  std::string raw = reader.getCurrentFileRawName();
  std::size_t const end = raw.find('\0');
  if (end != std::string::npos) raw.resize(end);
  name.path = cleanEntryPath(decodeEntryName(raw, reader.isCurrentFileNameUTF8()));
  name.isDirectory = reader.isCurrentFileDirectory();
  return name;
}

std::string escapeForTerminal(std::string const& text) {
  std::string out;
  out.reserve(text.size());
  char32_t code = 0;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t const length = sequenceAt(text, at, code);
    char escaped[16];
    if (length == 0) {
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(text[at]));
      out += escaped;
      at += 1;
      continue;
    }
    if (code < 0x20) {
      out += '^';
      out += static_cast<char>(code + 0x40);
    } else if (code == 0x7f) {
      out += "^?";
    } else if (code >= 0x80 && code <= 0x9f) {
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(code));
      out += escaped;
    } else {
      out.append(text, at, length);
    }
    at += length;
  }
  return out;
}

} // namespace ziputil_tool
