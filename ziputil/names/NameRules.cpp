#include "ziputil/names/NameRules.h"

#include <wx/strconv.h>

#include <array>
#include <cstring>
#include <exception>
#include <type_traits>

namespace ziputil {
namespace {

/// The rule for stored names and decoded text alike, on code units of any width:
/// printable ASCII but backslash and colon (control and non-ASCII units, a zero
/// too, take the full way), not empty, no slash or blank at either end.
template <class Unit> bool needsNoCleaning(Unit const* text, std::size_t length) noexcept {
  static auto const plain = [] {
    std::array<bool, 128> table{};
    for (int c = 0x20; c <= 0x7e; ++c) table[static_cast<std::size_t>(c)] = c != '\\' && c != ':';
    return table;
  }();
  using Code = std::make_unsigned_t<Unit>;
  if (length == 0) return false;
  Code const first = static_cast<Code>(text[0]), last = static_cast<Code>(text[length - 1]);
  if (first == '/' || first == ' ' || last == '/' || last == ' ') return false;
  for (std::size_t i = 0; i < length; ++i) {
    Code const c = static_cast<Code>(text[i]);
    if (c >= 128 || !plain[c]) return false;
  }
  return true;
}

tal::CURI relativeURI(tal::String const& path) {
  return tal::CURI(tal::String(), path, nullptr, nullptr, nullptr, -1, nullptr, nullptr);
}

} // namespace

tal::CURI cleanedEntryURI(tal::String const& pathInArchive) {
  if (textNeedsNoCleaning(pathInArchive)) return relativeURI(pathInArchive);
  wxString path(pathInArchive);
  path.Replace(L"\\", L"/");
  while (path.StartsWith(L"/")) path.erase(0, 1);
  while (path.EndsWith(L"/")) path.RemoveLast();
  path.Replace(L":", L"");
  path.Trim(true);
  path.Trim(false);
  if (path.empty()) path = L"_";
  return relativeURI(tal::String(path));
}

int compareStoredNames(char const* name1, char const* name2) {
  // The keys are UTF-8, whose byte order is the order of the code points the cleaned paths hold.
  std::string key1, key2;
  if (!storedNameKey(name1, key1) || !storedNameKey(name2, key2)) return std::strcmp(name1, name2);
  int const order = key1.compare(key2);
  return order == 0 ? 0 : order < 0 ? -1 : 1;
}

bool storedNameKey(char const* name, std::string& key) noexcept {
  bool cleaned = false;
  if (!nameComparisonKey(name, key, cleaned)) return false;
  if (!cleaned) key.assign(name);
  return true;
}

bool nameComparisonKey(std::string_view name, std::string& key, bool& cleaned) noexcept {
  try {
    cleaned = !nameNeedsNoCleaning(name);
    if (!cleaned) return true;
    std::string const text(name); // a C string for wxWidgets' decoding
    wxMBConvUTF8 converter;
    key = cleanedEntryURI(tal::String(wxString(text.c_str(), converter))).getPath().toUTF8();
    return true;
  } catch (std::exception&) {
    return false;
  }
}

bool nameComparisonKey(char const* name, std::string& key, bool& cleaned) noexcept {
  return nameComparisonKey(std::string_view(name), key, cleaned);
}

bool nameNeedsNoCleaning(std::string_view name) noexcept { return needsNoCleaning(name.data(), name.size()); }

bool nameNeedsNoCleaning(char const* name) noexcept { return nameNeedsNoCleaning(std::string_view(name)); }

bool textNeedsNoCleaning(tal::String const& text) noexcept { return needsNoCleaning(text.wx_str(), text.length()); }

} // namespace ziputil
