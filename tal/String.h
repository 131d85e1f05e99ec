// Strings, URIs and time fields: tal::String, toString, tal::CURI, tal::CTimeFields.
#pragma once

#include "tal/Object.h"

#include <wx/string.h>

#include <cstdint>
#include <string>

namespace tal {

/// The system's text: a wide-character string (one code point per element)
/// that is also a counted object.
class String : public wxString, public CBase {
public:
  String() = default;
  /// Converts NUL-terminated bytes as ISO-8859-1: each byte becomes the code
  /// point of the same value (unlike wxString, which uses the C locale).
  String(char const* text);
  String(wchar_t const* text) : wxString(text) {}
  String(wxString const& text) : wxString(text) {}
  String(String const& other) : wxString(other), CBase() {}
  String& operator=(String const& other) {
    wxString::operator=(other);
    return *this;
  }
  String& operator=(wxString const& other) {
    wxString::operator=(other);
    return *this;
  }

  /// Decodes UTF-8 bytes; invalid UTF-8 gives the empty string.
  static String fromUTF8(char const* utf8, std::size_t length);
  static String fromUTF8(std::string const& utf8) { return fromUTF8(utf8.data(), utf8.size()); }
  /// Encodes as UTF-8 (wxMBConvUTF8, default options). Text that cannot be
  /// encoded (a lone surrogate, say) gives the empty string and `ok` false.
  std::string toUTF8(bool* ok = nullptr) const;
};

/// Orders strings by code unit, case-sensitively (wxString::compare).
struct StringLess {
  bool operator()(String const& a, String const& b) const { return a.compare(b) < 0; }
};

/// `value` in decimal ("%d").
String toString(int value);
/// `value` in decimal ("%lld").
String toString(long long value);

/// An optional read-only reference: absent, or referring to a caller-owned value.
template <class T> class TConstOptRef {
public:
  TConstOptRef() noexcept : m_p(nullptr) {}
  TConstOptRef(std::nullptr_t) noexcept : m_p(nullptr) {}
  TConstOptRef(T const& value) noexcept : m_p(&value) {}
  bool isPresent() const noexcept { return m_p != nullptr; }
  T const& get() const noexcept { return *m_p; }
  T const* ptr() const noexcept { return m_p; }

private:
  T const* m_p;
};

/// A URI (RFC 3986) held as decoded components: scheme, authority (user,
/// password, host, port), path, query and fragment. The path is the text a
/// user means ("dir/a b#1.txt"); percent-encoding happens only when printing
/// (toString) and decoding only when parsing, so CURI(u.toString(true)) == u.
class CURI : public CBase {
public:
  /// The empty URI (isEmpty() is true).
  CURI();
  /// Parses the text form of a URI (leniently: characters the grammar does not
  /// allow, such as spaces, are taken as they are). Throws CInvalidArgError for
  /// a malformed percent-escape, an invalid port, or an IP literal that is
  /// unclosed or followed by anything but a port.
  explicit CURI(String const& text);
  /// An exact copy of `other`; a non-null `fragment` replaces its fragment.
  CURI(CURI const& other, String const* fragment);
  /// Builds a URI from components. An empty scheme gives a relative reference;
  /// absent optional parts are undefined (a present but empty host still gives
  /// an authority); a negative port means none. The path is taken as it is,
  /// except that beside an authority a non-empty path not starting with "/"
  /// gets one; a password without a user gives an empty user. Throws
  /// CInvalidArgError when a non-empty scheme is not a valid scheme.
  CURI(String const& scheme, String const& path, TConstOptRef<String> user, TConstOptRef<String> password,
       TConstOptRef<String> host, long long port, TConstOptRef<String> query, TConstOptRef<String> fragment);
  /// Addition: the relative reference whose only component is `path`, equal
  /// to CURI(String(), path, nullptr, nullptr, nullptr, -1, nullptr, nullptr);
  /// the text is moved, not copied (`path` is left empty).
  static CURI fromPath(String&& path);
  /// Addition: makes this URI CURI::fromPath(path) in place, without building
  /// another URI; `path` receives this URI's previous path, so that a caller
  /// replacing paths over and over reuses the same two texts' storage.
  CURI& assignPath(String& path);
  CURI(CURI const& other);
  CURI& operator=(CURI const& other);
  /// Addition: takes `other`'s components (it is left a valid URI of
  /// unspecified value); equal in effect to the copy.
  CURI& operator=(CURI&& other) noexcept;
  ~CURI() override;

  /// The text form. With `encoded` true (what the system uses everywhere)
  /// every character that would otherwise be misread is percent-encoded
  /// (non-ASCII as UTF-8 bytes); with false, components are printed decoded.
  String toString(bool encoded) const;
  /// True for the default-constructed URI (no component at all).
  bool isEmpty() const;
  /// True when the URI has a scheme.
  bool isAbsolute() const;
  /// Normalised copy: scheme and host lower-cased, dot segments removed (a
  /// relative path stays relative: "a/../b" gives "b", "../x" gives "x"),
  /// everything else (default ports included) kept as given.
  CURI toNormalized() const;
  /// `relative` resolved against this URI taken as a container (as if its path
  /// ended in "/"): "file:///data/a.zip" << "docs/x.txt" is
  /// "file:///data/a.zip/docs/x.txt". An absolute `relative` replaces the base.
  CURI operator<<(CURI const& relative) const;
  /// Plain RFC 3986 reference resolution (section 5.2) of `relative` against this base.
  CURI resolve(CURI const& relative) const;

  bool operator==(CURI const& other) const;
  bool operator!=(CURI const& other) const { return !(*this == other); }

  String const& getScheme() const { return m_scheme; }
  bool hasAuthority() const { return m_hasAuthority; }
  bool hasUser() const { return m_hasUser; }
  String const& getUser() const { return m_user; }
  bool hasPassword() const { return m_hasPassword; }
  String const& getPassword() const { return m_password; }
  String const& getHost() const { return m_host; }
  /// -1 when no port is given.
  long long getPort() const { return m_port; }
  String const& getPath() const { return m_path; }
  bool hasQuery() const { return m_hasQuery; }
  String const& getQuery() const { return m_query; }
  bool hasFragment() const { return m_hasFragment; }
  String const& getFragment() const { return m_fragment; }

  /// The immutable record shared by copies (the parsed source text, if any).
  IBase const* getSharedComponents() const { return m_shared.get(); }

private:
  P<CBase> m_shared;
  std::int32_t m_kind;
  bool m_hasScheme;
  String m_scheme;
  bool m_hasAuthority;
  bool m_hasUser;
  String m_user;
  bool m_hasPassword;
  String m_password;
  String m_host;
  long long m_port;
  String m_path;
  bool m_hasQuery;
  String m_query;
  bool m_hasFragment;
  String m_fragment;

  friend class CURIParser;
};

/// A broken-down calendar time. The default value is the empty one ("no time
/// given"); the system reads and writes year, month (1-12), day (1-31), hour,
/// minute and second.
class CTimeFields : public CBase {
public:
  CTimeFields();
  /// `fraction` is the fractional second (0.0 for whole seconds);
  /// `utcOffsetMinutes` and `hasUtcOffset` say how the time relates to UTC
  /// (0 and false: local time of unknown zone).
  CTimeFields(int year, int month, int day, int hour, int minute, int second, double fraction, int utcOffsetMinutes,
              bool hasUtcOffset);
  CTimeFields(CTimeFields const& other);
  CTimeFields& operator=(CTimeFields const& other);

  bool operator==(CTimeFields const& other) const;
  bool operator!=(CTimeFields const& other) const { return !(*this == other); }
  /// True for the default (empty) value.
  bool isEmpty() const { return *this == CTimeFields(); }

  int getYear() const { return m_year; }
  int getMonth() const { return m_month; }
  int getDay() const { return m_day; }
  /// Day of the week (0 = Sunday) when known, else -1; the system never sets it.
  int getWeekDay() const { return m_weekDay; }
  int getHour() const { return m_hour; }
  int getMinute() const { return m_minute; }
  int getSecond() const { return m_second; }
  double getFraction() const { return m_fraction; }
  int getUtcOffsetMinutes() const { return m_utcOffsetMinutes; }
  bool hasUtcOffset() const { return m_hasUtcOffset; }

private:
  int m_year;
  int m_month;
  int m_day;
  int m_weekDay;
  int m_hour;
  int m_minute;
  int m_second;
  double m_fraction;
  int m_utcOffsetMinutes;
  bool m_hasUtcOffset;
};

} // namespace tal
