#include "tal/String.h"

#include <gtest/gtest.h>

#include <climits>

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

TEST(TimeFieldsTest, EmptyValueAndComparison) {
  tal::CTimeFields empty;
  EXPECT_TRUE(empty.isEmpty());
  tal::CTimeFields t(2015, 3, 7, 14, 5, 9, 0.0, 0, false);
  EXPECT_FALSE(t.isEmpty());
  EXPECT_TRUE(t != empty);
  tal::CTimeFields copy(t);
  EXPECT_TRUE(copy == t);
  EXPECT_EQ(copy.getYear(), 2015);
  EXPECT_EQ(copy.getMonth(), 3);
  EXPECT_EQ(copy.getDay(), 7);
  EXPECT_EQ(copy.getHour(), 14);
  EXPECT_EQ(copy.getMinute(), 5);
  EXPECT_EQ(copy.getSecond(), 9);
  tal::CTimeFields assigned;
  assigned = t;
  EXPECT_FALSE(assigned != t);
  EXPECT_TRUE(tal::CTimeFields(2015, 3, 7, 14, 5, 10, 0.0, 0, false) != t);
}

TEST(TimeFieldsTest, MinizipMonthZeroIsMonthOne) {
  int const minizipMonth = 0; // January, counted from 0
  tal::CTimeFields t(2020, minizipMonth + 1, 1, 0, 0, 0, 0.0, 0, false);
  EXPECT_EQ(t.getMonth(), 1);
  EXPECT_EQ(t.getMonth() - 1, minizipMonth); // written back
}

} // namespace
