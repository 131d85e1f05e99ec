// tal::CURI: RFC 3986 parsing, printing, normalisation and reference resolution.
//
// Components are held decoded. Parsing splits the text by the generic syntax
// (RFC 3986 appendix B) and percent-decodes each component (the decoded bytes
// are read as UTF-8); printing percent-encodes, per component, every character
// that would otherwise be misread, so CURI(u.toString(true)) == u.
#include "tal/Error.h"
#include "tal/String.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

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

bool isUnreserved(unsigned char c) { return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~'; }

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
enum class Component { User, Password, Host, Path, FirstSegmentOfSchemelessPath, QueryOrFragment };

bool allowedIn(Component component, unsigned char c) {
  switch (component) {
  case Component::User:
    return isUnreserved(c) || isSubDelim(c);
  case Component::Password:
    return isUnreserved(c) || isSubDelim(c) || c == ':';
  case Component::Host:
    return isUnreserved(c) || isSubDelim(c) || c == '[' || c == ']' || c == ':';
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

std::string utf8Of(String const& text) { return text.toUTF8(); }

String textOf(std::string const& bytes) {
  if (bytes.empty()) return String();
  String text = String::fromUTF8(bytes);
  return text.empty() ? String(bytes.c_str()) : text; // not UTF-8: keep each byte as a code point
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

String removeDotSegments(String const& path) {
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
    } else if (in.compare(0, 4, L"/../") == 0 || in == L"/..") {
      in = in.size() == 3 ? std::wstring(L"/") : in.substr(3);
      std::size_t last = out.rfind(L'/');
      out.erase(last == std::wstring::npos ? 0 : last);
    } else if (in == L"." || in == L"..") {
      in.clear();
    } else {
      std::size_t next = in.find(L'/', in[0] == L'/' ? 1 : 0);
      std::size_t n = next == std::wstring::npos ? in.size() : next;
      out += in.substr(0, n);
      in.erase(0, n);
    }
  }
  return String(wxString(out));
}

bool isSchemeText(std::string const& text) {
  if (text.empty() || !std::isalpha(static_cast<unsigned char>(text[0]))) return false;
  for (unsigned char c : text)
    if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return false;
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
    if (digits.size() > 9) throwInvalid(m_text, "invalid port");
    for (unsigned char c : digits)
      if (!std::isdigit(c)) throwInvalid(m_text, "invalid port");
    m_uri.m_port = std::stoll(digits);
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
  m_hasFragment = true;
  m_fragment = *fragment;
}

CURI::CURI(String const& scheme, String const& path, TConstOptRef<String> user, TConstOptRef<String> password,
           TConstOptRef<String> host, long long port, TConstOptRef<String> query, TConstOptRef<String> fragment)
    : CURI() {
  m_kind = kBuilt;
  m_hasScheme = !scheme.empty();
  m_scheme = scheme;
  m_hasUser = user.isPresent();
  if (m_hasUser) m_user = user.get();
  m_hasPassword = password.isPresent();
  if (m_hasPassword) m_password = password.get();
  if (host.isPresent()) m_host = host.get();
  m_port = port < 0 ? -1 : port;
  m_hasAuthority = host.isPresent() || m_hasUser || m_hasPassword || m_port >= 0;
  m_path = path;
  m_hasQuery = query.isPresent();
  if (m_hasQuery) m_query = query.get();
  m_hasFragment = fragment.isPresent();
  if (m_hasFragment) m_fragment = fragment.get();
}

CURI::CURI(CURI const& other)
    : CBase(), m_shared(other.m_shared), m_kind(other.m_kind), m_hasScheme(other.m_hasScheme),
      m_scheme(other.m_scheme), m_hasAuthority(other.m_hasAuthority), m_hasUser(other.m_hasUser),
      m_user(other.m_user), m_hasPassword(other.m_hasPassword), m_password(other.m_password), m_host(other.m_host),
      m_port(other.m_port), m_path(other.m_path), m_hasQuery(other.m_hasQuery), m_query(other.m_query),
      m_hasFragment(other.m_hasFragment), m_fragment(other.m_fragment) {}

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
    put(out, m_host, Component::Host);
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
  } else if (relative.m_path.StartsWith("/")) {
    target.m_path = removeDotSegments(relative.m_path);
  } else if (m_hasAuthority && m_path.empty()) {
    target.m_path = removeDotSegments(String("/") + relative.m_path);
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
  if (!container.m_path.EndsWith("/") && (!container.m_path.empty() || container.m_hasAuthority))
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
