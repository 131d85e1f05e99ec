#include "tal/String.h"

#include <wx/strconv.h>

namespace tal {

String::String(char const* text) : CBase() {
  // Each byte is the code point of the same value. Done here rather than with
  // wxConvISO8859_1, which wxWidgets builds lazily without a lock.
  if (!text) return;
  std::wstring wide;
  for (char const* p = text; *p; ++p) wide += static_cast<wchar_t>(static_cast<unsigned char>(*p));
  wxString::operator=(wide);
}

String String::fromUTF8(char const* utf8, std::size_t length) {
  if (!utf8 || length == 0) return String();
  // ASCII (most names and paths): each byte is its code point, without wxWidgets' converter.
  unsigned char seen = 0;
  for (std::size_t i = 0; i < length; ++i) seen |= static_cast<unsigned char>(utf8[i]);
  if (seen < 0x80) {
    std::wstring wide(length, L'\0');
    for (std::size_t i = 0; i < length; ++i) wide[i] = static_cast<wchar_t>(utf8[i]);
    String text;
    text.wxString::operator=(std::move(wide));
    return text;
  }
  return String(wxString::FromUTF8(utf8, length));
}

std::string String::toUTF8(bool* ok) const {
  // UTF-8 as wxMBConvUTF8 writes it, in one allocation: the first pass sizes
  // the result and refuses what has no UTF-8 form (surrogates, values past
  // U+10FFFF), the second writes it.
  std::size_t const count = length();
  wxStringCharType const* const text = wx_str();
  std::uint32_t seen = 0;
  for (std::size_t i = 0; i < count; ++i) seen |= static_cast<std::uint32_t>(text[i]);
  if (seen < 0x80) { // ASCII: each code point is its byte
    std::string ascii(count, '\0');
    for (std::size_t i = 0; i < count; ++i) ascii[i] = static_cast<char>(text[i]);
    if (ok) *ok = true;
    return ascii;
  }
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < count; ++i) {
    auto const code = static_cast<std::uint32_t>(text[i]);
    if ((code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) {
      if (ok) *ok = false;
      return std::string();
    }
    bytes += code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
  }
  std::string utf8(bytes, '\0');
  char* out = &utf8[0];
  for (std::size_t i = 0; i < count; ++i) {
    auto const code = static_cast<std::uint32_t>(text[i]);
    if (code < 0x80) {
      *out++ = static_cast<char>(code);
    } else if (code < 0x800) {
      *out++ = static_cast<char>(0xC0 | (code >> 6));
      *out++ = static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      *out++ = static_cast<char>(0xE0 | (code >> 12));
      *out++ = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out++ = static_cast<char>(0x80 | (code & 0x3F));
    } else {
      *out++ = static_cast<char>(0xF0 | (code >> 18));
      *out++ = static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      *out++ = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out++ = static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  if (ok) *ok = true;
  return utf8;
}

String toString(int value) { return String(wxString::Format(L"%d", value)); }

String toString(long long value) { return String(wxString::Format(L"%lld", value)); }

// ---- CTimeFields ------------------------------------------------------------

CTimeFields::CTimeFields()
    : m_year(0), m_month(0), m_day(0), m_weekDay(-1), m_hour(0), m_minute(0), m_second(0), m_fraction(0.0),
      m_utcOffsetMinutes(0), m_hasUtcOffset(false) {}

CTimeFields::CTimeFields(int year, int month, int day, int hour, int minute, int second, double fraction,
                         int utcOffsetMinutes, bool hasUtcOffset)
    : m_year(year), m_month(month), m_day(day), m_weekDay(-1), m_hour(hour), m_minute(minute), m_second(second),
      m_fraction(fraction), m_utcOffsetMinutes(utcOffsetMinutes), m_hasUtcOffset(hasUtcOffset) {}

CTimeFields::CTimeFields(CTimeFields const& other) = default;

CTimeFields& CTimeFields::operator=(CTimeFields const& other) = default;

bool CTimeFields::operator==(CTimeFields const& other) const {
  return m_year == other.m_year && m_month == other.m_month && m_day == other.m_day &&
         m_weekDay == other.m_weekDay && m_hour == other.m_hour && m_minute == other.m_minute &&
         m_second == other.m_second && m_fraction == other.m_fraction &&
         m_utcOffsetMinutes == other.m_utcOffsetMinutes && m_hasUtcOffset == other.m_hasUtcOffset;
}

} // namespace tal
