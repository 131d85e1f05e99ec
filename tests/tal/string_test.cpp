#include "tal/String.h"

#include <gtest/gtest.h>
#include <wx/strconv.h>

#include <climits>
#include <string>
#include <vector>

namespace {

TEST(StringTest, BytesAreReadAsIso88591) {
  tal::String s("\x63\x61\x66\xE9");
  ASSERT_EQ(s.length(), 4u);
  EXPECT_EQ(static_cast<unsigned>(s[0]), 0x63u);
  EXPECT_EQ(static_cast<unsigned>(s[1]), 0x61u);
  EXPECT_EQ(static_cast<unsigned>(s[2]), 0x66u);
  EXPECT_EQ(static_cast<unsigned>(s[3]), 0xE9u);
  EXPECT_EQ(s.toUTF8(), "caf\xC3\xA9");
  EXPECT_EQ(tal::String(static_cast<char const*>(nullptr)).length(), 0u);
}

TEST(StringTest, Utf8RoundTrips) {
  std::string const text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
  tal::String s = tal::String::fromUTF8(text);
  EXPECT_EQ(s.length(), 4u);
  bool ok = false;
  EXPECT_EQ(s.toUTF8(&ok), text);
  EXPECT_TRUE(ok);
  EXPECT_EQ(tal::String::fromUTF8(std::string("\xC3")).length(), 0u); // invalid UTF-8
  EXPECT_EQ(tal::String().toUTF8(&ok), "");
  EXPECT_TRUE(ok);
}

TEST(StringTest, ALoneSurrogateCannotBeEncoded) {
  wchar_t const lone[] = {L'a', static_cast<wchar_t>(0xD800), L'b', 0};
  tal::String s(lone);
  bool ok = true;
  EXPECT_EQ(s.toUTF8(&ok), "");
  EXPECT_FALSE(ok);
}

TEST(StringTest, DecimalText) {
  EXPECT_EQ(tal::toString(-5).toUTF8(), "-5");
  EXPECT_EQ(tal::toString(0).toUTF8(), "0");
  EXPECT_EQ(tal::toString(INT_MIN).toUTF8(), "-2147483648");
  EXPECT_EQ(tal::toString(123456789012345LL).toUTF8(), "123456789012345");
}

TEST(StringTest, OrderingIsByCodeUnit) {
  tal::StringLess less;
  EXPECT_TRUE(less(tal::String("A"), tal::String("a")));
  EXPECT_FALSE(less(tal::String("a"), tal::String("A")));
  EXPECT_TRUE(less(tal::String("ab"), tal::String("b")));
}

TEST(StringTest, EveryHighByteBecomesTheSameCodePoint) {
  char bytes[129];
  for (int i = 0; i < 128; ++i) bytes[i] = static_cast<char>(0x80 + i);
  bytes[128] = '\0';
  tal::String s(bytes);
  ASSERT_EQ(s.length(), 128u);
  for (int i = 0; i < 128; ++i) EXPECT_EQ(static_cast<unsigned>(s[static_cast<std::size_t>(i)]), 0x80u + i) << i;
  // The same bytes read as UTF-8 are not text at all.
  EXPECT_EQ(tal::String::fromUTF8(std::string(bytes)).length(), 0u);
}

TEST(StringTest, AsciiLiteralsPassUnchanged) {
  tal::String s("fileSysProblem");
  EXPECT_EQ(s, tal::String(L"fileSysProblem"));
  EXPECT_EQ(s.toUTF8(), "fileSysProblem");
}

TEST(StringTest, NonAsciiRoundTripsThroughUtf8) {
  wchar_t const wide[] = {0x63, 0xE9, 0x4E2D, 0x1F600, 0};
  tal::String s(wide);
  ASSERT_EQ(s.length(), 4u);
  bool ok = false;
  std::string const utf8 = s.toUTF8(&ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(utf8, "c\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80");
  EXPECT_EQ(tal::String::fromUTF8(utf8), s);
  EXPECT_EQ(tal::String::fromUTF8(utf8.data(), 3), tal::String(L"c\u00e9"));
  EXPECT_EQ(tal::String::fromUTF8(nullptr, 0).length(), 0u);
}

TEST(StringTest, ALoneLowSurrogateOrAValueBeyondUnicodeCannotBeEncoded) {
  wchar_t const low[] = {static_cast<wchar_t>(0xDC00), 0};
  bool ok = true;
  EXPECT_EQ(tal::String(low).toUTF8(&ok), "");
  EXPECT_FALSE(ok);
  wchar_t const beyond[] = {L'x', static_cast<wchar_t>(0x110000), 0};
  ok = true;
  EXPECT_EQ(tal::String(beyond).toUTF8(&ok), "");
  EXPECT_FALSE(ok);
  EXPECT_EQ(tal::String(low).toUTF8(), ""); // the flag is optional
}

TEST(StringTest, ExtremeDecimals) {
  EXPECT_EQ(tal::toString(INT_MAX).toUTF8(), "2147483647");
  EXPECT_EQ(tal::toString(7).toUTF8(), "7");
  EXPECT_EQ(tal::toString(-1).toUTF8(), "-1");
  EXPECT_EQ(tal::toString(LLONG_MIN).toUTF8(), "-9223372036854775808");
}

TEST(StringTest, ComparisonIsCaseSensitiveAndConcatenationIsPlain) {
  EXPECT_NE(tal::String("Name.TXT"), tal::String("name.txt"));
  EXPECT_EQ(tal::String("a") + tal::String("b"), tal::String("ab"));
  EXPECT_EQ(tal::String("x").compare(tal::String("x")), 0);
  EXPECT_LT(tal::String("Z").compare(tal::String("a")), 0);
}

TEST(StringTest, AStringIsACountedObject) {
  tal::P<tal::String> p = tal::newObj<tal::String>("counted");
  EXPECT_EQ(p->getRefCount(), 1);
  tal::P<tal::String> q = p;
  EXPECT_EQ(p->getRefCount(), 2);
  tal::String copy(*p); // a copy is a new object with its own count
  EXPECT_EQ(copy.getRefCount(), 1);
  EXPECT_EQ(copy, tal::String("counted"));
  tal::String assigned;
  assigned = copy;
  EXPECT_EQ(assigned.getRefCount(), 1);
  EXPECT_EQ(assigned.toUTF8(), "counted");
  wxString const plain(L"wide");
  EXPECT_EQ(tal::String(plain).toUTF8(), "wide");
}

} // namespace

TEST(StringTest, Utf8EncodingMatchesWxWidgetsAtEveryLengthBoundary) {
  // One and the same text through toUTF8 and through wxMBConvUTF8: code
  // points at each edge of the one- to four-byte forms, and an inner NUL.
  std::wstring wide;
  for (wchar_t c : {0x1, 0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFFFD, 0xFFFF, 0x10000, 0x10FFFF}) wide += c;
  wide += L'\0';
  wide += L"tail";
  tal::String const s{wxString(wide.data(), wide.size())};
  ASSERT_EQ(s.length(), wide.size());
  wxMBConvUTF8 converter;
  wxCharBuffer const expected = converter.cWC2MB(wide.data(), wide.size(), nullptr);
  bool ok = false;
  EXPECT_EQ(s.toUTF8(&ok), std::string(expected.data(), expected.length()));
  EXPECT_TRUE(ok);
  EXPECT_EQ(tal::String::fromUTF8(s.toUTF8()), s);
}

TEST(StringTest, Utf8DecodingMatchesWxWidgetsForAsciiAndTheRest) {
  // ASCII takes a path of its own: every byte value below 0x80 (NUL among
  // them, inside and at the ends), at several lengths, and texts where one
  // byte at 0x80 or above sends the whole text through wxWidgets.
  std::string all;
  for (int c = 0; c < 0x80; ++c) all += static_cast<char>(c);
  std::vector<std::string> texts = {all, std::string(1, '\0'), std::string("a\0b", 3), "x", std::string(300, 'z')};
  texts.push_back(all + "\xC3\xA9");
  texts.push_back("\xC3\xA9" + all);
  texts.push_back("caf\xC3");        // cut short: not UTF-8
  texts.push_back(std::string("\x80")); // a lone continuation byte
  for (std::size_t length = 0; length <= all.size(); length += 7) texts.push_back(all.substr(all.size() - length));
  for (std::string const& text : texts) {
    wxString const expected = wxString::FromUTF8(text.data(), text.size());
    tal::String const got = tal::String::fromUTF8(text.data(), text.size());
    EXPECT_EQ(got.length(), expected.length()) << text.size();
    EXPECT_TRUE(got.ToStdWstring() == expected.ToStdWstring()) << text.size();
  }
}
