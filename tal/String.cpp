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
  return String(wxString::FromUTF8(utf8, length));
}

std::string String::toUTF8(bool* ok) const {
  if (empty()) {
    if (ok) *ok = true;
    return std::string();
  }
  // Surrogates and values past U+10FFFF are not characters: UTF-8 has no form for them.
  for (wxUniChar c : *this) {
    wxUint32 const code = c.GetValue();
    if ((code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) {
      if (ok) *ok = false;
      return std::string();
    }
  }
  wxMBConvUTF8 converter;
  wxCharBuffer const buffer = converter.cWC2MB(wc_str(), length(), nullptr);
  bool const converted = buffer.data() != nullptr && buffer.length() > 0;
  if (ok) *ok = converted;
  return converted ? std::string(buffer.data(), buffer.length()) : std::string();
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
