// tal::CURI: RFC 3986 parsing, printing, normalisation and reference resolution.
//
// Components are held decoded. Parsing splits the text by the generic syntax
// (RFC 3986 appendix B) and percent-decodes each component (the decoded bytes
// are read as UTF-8, a byte outside a UTF-8 sequence as ISO-8859-1); printing
// percent-encodes, per component, every character that would otherwise be
// misread, so CURI(u.toString(true)) == u.
#include "tal/Error.h"
#include "tal/String.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>

namespace tal {
namespace {

enum Kind : std::int32_t { kEmpty = 0, kParsed = 1, kBuilt = 2 };

/// The text a URI was parsed from, shared by its copies.
class CURISource : public CBase {
public:
  explicit CURISource(String const& text) : m_text(text) {}
  String m_text;
};

// ---- character classes (RFC 3986 section 2 and 3) ----------------------------

// ASCII only, whatever the C locale says about other bytes.
bool isAlpha(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
bool isAlnum(unsigned char c) { return isAlpha(c) || isDigit(c); }

bool isUnreserved(unsigned char c) { return isAlnum(c) || c == '-' || c == '.' || c == '_' || c == '~'; }

bool isSubDelim(unsigned char c) {
  switch (c) {
  case '!': case '$': case '&': case '\'': case '(': case ')': case '*': case '+': case ',': case ';': case '=':
    return true;
  default:
    return false;
  }
}

bool isPchar(unsigned char c) { return isUnreserved(c) || isSubDelim(c) || c == ':' || c == '@'; }

/// Which characters a component may carry unencoded.
enum class Component { User, Password, Host, IpLiteral, Path, FirstSegmentOfSchemelessPath, QueryOrFragment };

bool allowedIn(Component component, unsigned char c) {
  switch (component) {
  case Component::User:
    return isUnreserved(c) || isSubDelim(c);
  case Component::Password:
    return isUnreserved(c) || isSubDelim(c) || c == ':';
  case Component::Host:
    return isUnreserved(c) || isSubDelim(c);
  case Component::IpLiteral:
    return isUnreserved(c) || isSubDelim(c) || c == ':';
  case Component::Path:
    return isPchar(c) || c == '/';
  case Component::FirstSegmentOfSchemelessPath:
    return (isPchar(c) && c != ':') || c == '/';
  case Component::QueryOrFragment:
    return isPchar(c) || c == '/' || c == '?';
  }
  return false;
}

// ---- encoding and decoding ---------------------------------------------------

// The bytes of a component are UTF-8, extended so that every code unit a String can hold survives a round trip:
// a lone surrogate gets its three-byte form and values above U+10FFFF the original longer forms (up to seven bytes
// for values above 0x7FFFFFFF). Decoding takes each well-formed (shortest-form) sequence of that kind as one code
// unit and every other byte as the code point of the same value (ISO-8859-1), so textOf(utf8Of(t)) == t always.

void appendUtf8(std::string& out, std::uint32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
    return;
  }
  int n = c < 0x800 ? 2 : c < 0x10000 ? 3 : c < 0x200000 ? 4 : c < 0x4000000 ? 5 : c < 0x80000000u ? 6 : 7;
  std::uint64_t value = c;
  out += static_cast<char>(((0xFF00u >> n) & 0xFFu) | static_cast<unsigned>(value >> (6 * (n - 1))));
  for (int shift = 6 * (n - 2); shift >= 0; shift -= 6) out += static_cast<char>(0x80u | ((value >> shift) & 0x3Fu));
}

std::string utf8Of(String const& text) {
  std::string out;
  for (wchar_t unit : text.ToStdWstring()) appendUtf8(out, static_cast<std::uint32_t>(unit));
  return out;
}

/// The length of the sequence led by `lead` (2 to 7), or 0 when it cannot lead one.
int sequenceLength(unsigned char lead) {
  int n = 0;
  while (n < 8 && (lead & (0x80u >> n))) ++n;
  return n >= 2 && n <= 7 ? n : 0;
}

/// Decodes the sequence at `bytes[at]`; false when it is not a well-formed shortest-form sequence.
bool decodeSequence(std::string const& bytes, std::size_t at, int n, std::uint64_t& value) {
  static std::uint64_t const kMinimum[] = {0, 0, 0x80, 0x800, 0x10000, 0x200000, 0x4000000, 0x80000000u};
  if (n == 0 || bytes.size() - at < static_cast<std::size_t>(n)) return false;
  value = static_cast<unsigned char>(bytes[at]) & (0x7Fu >> n);
  for (int k = 1; k < n; ++k) {
    unsigned char c = static_cast<unsigned char>(bytes[at + k]);
    if ((c & 0xC0u) != 0x80u) return false;
    value = (value << 6) | (c & 0x3Fu);
  }
  return value >= kMinimum[n] && value <= 0xFFFFFFFFu;
}

String textOf(std::string const& bytes) {
  std::wstring text;
  for (std::size_t i = 0; i < bytes.size();) {
    unsigned char lead = static_cast<unsigned char>(bytes[i]);
    int n = lead < 0x80 ? 1 : sequenceLength(lead);
    std::uint64_t value = lead;
    if (n != 1 && !decodeSequence(bytes, i, n, value)) {
      n = 1;
      value = lead;
    }
    text += static_cast<wchar_t>(static_cast<std::uint32_t>(value));
    i += static_cast<std::size_t>(n);
  }
  return String(wxString(text.data(), text.size()));
}

void appendEncoded(std::string& out, std::string const& bytes, Component component) {
  static char const kHex[] = "0123456789ABCDEF";
  for (unsigned char c : bytes) {
    if (allowedIn(component, c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
}

/// The path's text form. A path that would be misread is encoded so that it
/// parses back to itself: a colon in the first segment of a scheme-less
/// relative path, and "//" at the start of a path without authority.
void appendPath(std::string& out, std::string const& path, bool hasScheme, bool hasAuthority) {
  std::size_t start = 0;
  if (!hasAuthority && path.compare(0, 2, "//") == 0) {
    out += "/%2F";
    start = 2;
  }
  std::size_t firstSlash = path.find('/', start);
  std::string first = path.substr(start, firstSlash == std::string::npos ? std::string::npos : firstSlash - start);
  bool guardColon = !hasScheme && !hasAuthority && start == 0;
  appendEncoded(out, first, guardColon ? Component::FirstSegmentOfSchemelessPath : Component::Path);
  if (firstSlash != std::string::npos) appendEncoded(out, path.substr(firstSlash), Component::Path);
}

/// The host's text form. A host of the form "[...]" (an IP literal, which may hold colons) keeps its brackets;
/// in any other host '[', ']' and ':' are encoded so that they are not read as an IP literal or a port.
void appendHost(std::string& out, std::string const& host) {
  bool literal = host.size() >= 2 && host.front() == '[' && host.back() == ']' &&
                 host.find_first_of("[]", 1) == host.size() - 1;
  if (!literal) {
    appendEncoded(out, host, Component::Host);
    return;
  }
  out += '[';
  appendEncoded(out, host.substr(1, host.size() - 2), Component::IpLiteral);
  out += ']';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

[[noreturn]] void throwInvalid(String const& text, char const* reason) {
  CProps props;
  props["uri"] = text;
  throw CInvalidArgError(String("CURI::CURI"), String("uriText is not a valid URI (") + String(reason) + String(")"),
                         props);
}

String decode(std::string const& encoded, String const& whole) {
  std::string bytes;
  bytes.reserve(encoded.size());
  for (std::size_t i = 0; i < encoded.size(); ++i) {
    if (encoded[i] != '%') {
      bytes += encoded[i];
      continue;
    }
    int hi = i + 2 < encoded.size() ? hexValue(encoded[i + 1]) : -1;
    int lo = hi < 0 ? -1 : hexValue(encoded[i + 2]);
    if (hi < 0 || lo < 0) throwInvalid(whole, "malformed percent-escape");
    bytes += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return textOf(bytes);
}

// ---- dot segments (RFC 3986 section 5.2.4) -----------------------------------

/// Whether `path` has a segment "." or "..", the only segments removeDotSegments changes.
bool hasDotSegment(String const& path) {
  std::size_t const n = path.length();
  wxStringCharType const* const p = path.wx_str();
  for (std::size_t i = 0; i < n; ++i) {
    if (p[i] != L'.' || (i > 0 && p[i - 1] != L'/')) continue;
    std::size_t end = i + 1;
    if (end < n && p[end] == L'.') ++end;
    if (end == n || p[end] == L'/') return true;
  }
  return false;
}

/// RFC 3986 remove_dot_segments, except that a relative path stays relative: "a/../b" gives "b", not "/b".
String removeDotSegments(String const& path) {
  // Most paths (every entry name that needed no cleaning) have no dot segment; they come out as they went in.
  if (!hasDotSegment(path)) return path;
  std::size_t const npos = std::wstring::npos;
  std::wstring in = path.ToStdWstring();
  std::wstring out;
  while (!in.empty()) {
    if (in.compare(0, 3, L"../") == 0) {
      in.erase(0, 3);
    } else if (in.compare(0, 2, L"./") == 0) {
      in.erase(0, 2);
    } else if (in.compare(0, 3, L"/./") == 0) {
      in.erase(0, 2);
    } else if (in == L"/.") {
      in = L"/";
    } else if ((in.compare(0, 4, L"/../") == 0 || in == L"/..") && !out.empty() && out.find(L'/') == npos) {
      // ".." after the first segment of a relative path: drop both and keep the path relative.
      in = in.size() == 3 ? std::wstring() : in.substr(4);
      out.clear();
    } else if (in.compare(0, 4, L"/../") == 0 || in == L"/..") {
      in = in.size() == 3 ? std::wstring(L"/") : in.substr(3);
      std::size_t last = out.rfind(L'/');
      out.erase(last == npos ? 0 : last);
    } else if (in == L"." || in == L"..") {
      in.clear();
    } else {
      std::size_t next = in.find(L'/', in[0] == L'/' ? 1 : 0);
      std::size_t n = next == std::wstring::npos ? in.size() : next;
      out += in.substr(0, n);
      in.erase(0, n);
    }
  }
  return String(wxString(out.data(), out.size()));
}

bool isSchemeText(std::string const& text) {
  if (text.empty() || !isAlpha(static_cast<unsigned char>(text[0]))) return false;
  for (unsigned char c : text)
    if (!isAlnum(c) && c != '+' && c != '-' && c != '.') return false;
  return true;
}

} // namespace

/// Splits and decodes the text form of a URI into a CURI's fields.
class CURIParser {
public:
  CURIParser(CURI& uri, String const& text) : m_uri(uri), m_text(text), m_bytes(utf8Of(text)) {}

  void parse() {
    std::string rest = m_bytes;
    std::size_t hash = rest.find('#');
    if (hash != std::string::npos) {
      m_uri.m_hasFragment = true;
      m_uri.m_fragment = decode(rest.substr(hash + 1), m_text);
      rest.erase(hash);
    }
    std::size_t question = rest.find('?');
    if (question != std::string::npos) {
      m_uri.m_hasQuery = true;
      m_uri.m_query = decode(rest.substr(question + 1), m_text);
      rest.erase(question);
    }
    std::size_t colon = rest.find(':');
    if (colon != std::string::npos && rest.find('/') > colon && isSchemeText(rest.substr(0, colon))) {
      m_uri.m_hasScheme = true;
      m_uri.m_scheme = textOf(rest.substr(0, colon));
      rest.erase(0, colon + 1);
    }
    if (rest.compare(0, 2, "//") == 0) {
      std::size_t end = rest.find('/', 2);
      parseAuthority(rest.substr(2, end == std::string::npos ? std::string::npos : end - 2));
      rest.erase(0, end == std::string::npos ? rest.size() : end);
    }
    m_uri.m_path = decode(rest, m_text);
  }

private:
  void parseAuthority(std::string authority) {
    m_uri.m_hasAuthority = true;
    std::size_t at = authority.rfind('@');
    if (at != std::string::npos) {
      std::string userinfo = authority.substr(0, at);
      authority.erase(0, at + 1);
      std::size_t colon = userinfo.find(':');
      m_uri.m_hasUser = true;
      m_uri.m_user = decode(userinfo.substr(0, colon), m_text);
      if (colon != std::string::npos) {
        m_uri.m_hasPassword = true;
        m_uri.m_password = decode(userinfo.substr(colon + 1), m_text);
      }
    }
    std::size_t hostEnd = 0;
    if (!authority.empty() && authority[0] == '[') {
      hostEnd = authority.find(']');
      if (hostEnd == std::string::npos) throwInvalid(m_text, "unclosed IP literal");
      ++hostEnd;
    } else {
      hostEnd = std::min(authority.find(':'), authority.size());
    }
    m_uri.m_host = decode(authority.substr(0, hostEnd), m_text);
    parsePort(authority.substr(hostEnd));
  }

  void parsePort(std::string const& text) {
    if (text.empty()) return;
    if (text[0] != ':') throwInvalid(m_text, "invalid authority");
    std::string digits = text.substr(1);
    if (digits.empty()) return;
    long long port = 0;
    for (unsigned char c : digits) {
      if (!isDigit(c) || port > (std::numeric_limits<long long>::max() - (c - '0')) / 10)
        throwInvalid(m_text, "invalid port");
      port = port * 10 + (c - '0');
    }
    m_uri.m_port = port;
  }

  CURI& m_uri;
  String const& m_text;
  std::string m_bytes;
};

CURI::CURI()
    : m_kind(kEmpty), m_hasScheme(false), m_hasAuthority(false), m_hasUser(false), m_hasPassword(false),
      m_port(-1), m_hasQuery(false), m_hasFragment(false) {}

CURI::CURI(String const& text) : CURI() {
  CURIParser(*this, text).parse();
  m_kind = kParsed;
  m_shared = P<CBase>::adopt(new CURISource(text));
}

CURI::CURI(CURI const& other, String const* fragment) : CURI(other) {
  if (!fragment) return;
  m_shared = nullptr; // the source text no longer describes this URI
  m_kind = kBuilt;
  m_hasFragment = true;
  m_fragment = *fragment;
}

CURI::CURI(String const& scheme, String const& path, TConstOptRef<String> user, TConstOptRef<String> password,
           TConstOptRef<String> host, long long port, TConstOptRef<String> query, TConstOptRef<String> fragment)
    : CURI() {
  if (!scheme.empty() && !isSchemeText(utf8Of(scheme))) {
    CProps props;
    props["scheme"] = scheme;
    throw CInvalidArgError(String("CURI::CURI"), String("scheme is not a valid URI scheme"), props);
  }
  m_kind = kBuilt;
  m_hasScheme = !scheme.empty();
  m_scheme = scheme;
  m_hasUser = user.isPresent() || password.isPresent(); // userinfo has no password without a user part
  if (user.isPresent()) m_user = user.get();
  m_hasPassword = password.isPresent();
  if (m_hasPassword) m_password = password.get();
  if (host.isPresent()) m_host = host.get();
  m_port = port < 0 ? -1 : port;
  m_hasAuthority = host.isPresent() || m_hasUser || m_hasPassword || m_port >= 0;
  // Beside an authority a path is empty or absolute; "/" is put before any other.
  m_path = m_hasAuthority && !path.empty() && path[0] != L'/' ? String(String(L"/") + path) : path;
  m_hasQuery = query.isPresent();
  if (m_hasQuery) m_query = query.get();
  m_hasFragment = fragment.isPresent();
  if (m_hasFragment) m_fragment = fragment.get();
}

CURI CURI::fromPath(String&& path) {
  CURI uri;
  uri.m_kind = kBuilt;
  uri.m_path.swap(path);
  return uri;
}

CURI& CURI::assignPath(String& path) {
  m_shared = nullptr;
  m_kind = kBuilt;
  m_hasScheme = false;
  m_scheme.clear();
  m_hasAuthority = false;
  m_hasUser = false;
  m_user.clear();
  m_hasPassword = false;
  m_password.clear();
  m_host.clear();
  m_port = -1;
  m_path.swap(path);
  m_hasQuery = false;
  m_query.clear();
  m_hasFragment = false;
  m_fragment.clear();
  return *this;
}

CURI::CURI(CURI const& other)
    : CBase(), m_shared(other.m_shared), m_kind(other.m_kind), m_hasScheme(other.m_hasScheme),
      m_scheme(other.m_scheme), m_hasAuthority(other.m_hasAuthority), m_hasUser(other.m_hasUser),
      m_user(other.m_user), m_hasPassword(other.m_hasPassword), m_password(other.m_password), m_host(other.m_host),
      m_port(other.m_port), m_path(other.m_path), m_hasQuery(other.m_hasQuery), m_query(other.m_query),
      m_hasFragment(other.m_hasFragment), m_fragment(other.m_fragment) {}

CURI& CURI::operator=(CURI&& other) noexcept {
  std::swap(m_shared, other.m_shared);
  m_kind = other.m_kind;
  m_hasScheme = other.m_hasScheme;
  m_scheme.swap(other.m_scheme);
  m_hasAuthority = other.m_hasAuthority;
  m_hasUser = other.m_hasUser;
  m_user.swap(other.m_user);
  m_hasPassword = other.m_hasPassword;
  m_password.swap(other.m_password);
  m_host.swap(other.m_host);
  m_port = other.m_port;
  m_path.swap(other.m_path);
  m_hasQuery = other.m_hasQuery;
  m_query.swap(other.m_query);
  m_hasFragment = other.m_hasFragment;
  m_fragment.swap(other.m_fragment);
  return *this;
}

CURI& CURI::operator=(CURI const& other) {
  m_shared = other.m_shared; // P<> takes the new reference before releasing the old one
  m_kind = other.m_kind;
  m_hasScheme = other.m_hasScheme;
  m_scheme = other.m_scheme;
  m_hasAuthority = other.m_hasAuthority;
  m_hasUser = other.m_hasUser;
  m_user = other.m_user;
  m_hasPassword = other.m_hasPassword;
  m_password = other.m_password;
  m_host = other.m_host;
  m_port = other.m_port;
  m_path = other.m_path;
  m_hasQuery = other.m_hasQuery;
  m_query = other.m_query;
  m_hasFragment = other.m_hasFragment;
  m_fragment = other.m_fragment;
  return *this;
}

CURI::~CURI() = default;

String CURI::toString(bool encoded) const {
  auto put = [encoded](std::string& out, String const& text, Component component) {
    if (encoded)
      appendEncoded(out, utf8Of(text), component);
    else
      out += utf8Of(text);
  };
  std::string out;
  if (m_hasScheme) out += utf8Of(m_scheme) + ":";
  if (m_hasAuthority) {
    out += "//";
    if (m_hasUser) {
      put(out, m_user, Component::User);
      if (m_hasPassword) {
        out += ':';
        put(out, m_password, Component::Password);
      }
      out += '@';
    }
    if (encoded)
      appendHost(out, utf8Of(m_host));
    else
      out += utf8Of(m_host);
    if (m_port >= 0) out += ":" + std::to_string(m_port);
  }
  if (encoded)
    appendPath(out, utf8Of(m_path), m_hasScheme, m_hasAuthority);
  else
    out += utf8Of(m_path);
  if (m_hasQuery) {
    out += '?';
    put(out, m_query, Component::QueryOrFragment);
  }
  if (m_hasFragment) {
    out += '#';
    put(out, m_fragment, Component::QueryOrFragment);
  }
  return textOf(out);
}

bool CURI::isEmpty() const {
  return !m_hasScheme && !m_hasAuthority && m_path.empty() && !m_hasQuery && !m_hasFragment;
}

bool CURI::isAbsolute() const { return m_hasScheme; }

CURI CURI::toNormalized() const {
  CURI result(*this);
  result.m_shared = nullptr;
  result.m_kind = kBuilt;
  result.m_scheme = m_scheme.Lower();
  if (!(m_host.StartsWith("[") && m_host.Contains("%"))) result.m_host = m_host.Lower();
  result.m_path = removeDotSegments(m_path);
  return result;
}

CURI CURI::resolve(CURI const& relative) const {
  CURI target(relative);
  target.m_shared = nullptr;
  target.m_kind = kBuilt;
  if (relative.m_hasScheme) {
    target.m_path = removeDotSegments(relative.m_path);
    return target;
  }
  target.m_hasScheme = m_hasScheme;
  target.m_scheme = m_scheme;
  if (relative.m_hasAuthority) {
    target.m_path = removeDotSegments(relative.m_path);
    return target;
  }
  target.m_hasAuthority = m_hasAuthority;
  target.m_hasUser = m_hasUser;
  target.m_user = m_user;
  target.m_hasPassword = m_hasPassword;
  target.m_password = m_password;
  target.m_host = m_host;
  target.m_port = m_port;
  if (relative.m_path.empty()) {
    target.m_path = m_path;
    if (!relative.m_hasQuery) {
      target.m_hasQuery = m_hasQuery;
      target.m_query = m_query;
    }
  } else if (relative.m_path[0] == L'/') { // not empty here
    target.m_path = removeDotSegments(relative.m_path);
  } else if (m_hasAuthority && m_path.empty()) {
    target.m_path = removeDotSegments(String(L"/") + relative.m_path);
  } else {
    int slash = m_path.Find(L'/', true);
    String merged = slash == wxNOT_FOUND ? String() : String(m_path.Left(static_cast<std::size_t>(slash) + 1));
    target.m_path = removeDotSegments(merged + relative.m_path);
  }
  return target;
}

CURI CURI::operator<<(CURI const& relative) const {
  if (relative.m_hasScheme) return resolve(relative);
  CURI container(*this);
  if ((container.m_path.empty() || container.m_path.Last() != L'/') &&
      (!container.m_path.empty() || container.m_hasAuthority))
    container.m_path += L'/';
  return container.resolve(relative);
}

bool CURI::operator==(CURI const& other) const {
  return m_hasScheme == other.m_hasScheme && m_scheme == other.m_scheme && m_hasAuthority == other.m_hasAuthority &&
         m_hasUser == other.m_hasUser && m_user == other.m_user && m_hasPassword == other.m_hasPassword &&
         m_password == other.m_password && m_host == other.m_host && m_port == other.m_port &&
         m_path == other.m_path && m_hasQuery == other.m_hasQuery && m_query == other.m_query &&
         m_hasFragment == other.m_hasFragment && m_fragment == other.m_fragment;
}

} // namespace tal
