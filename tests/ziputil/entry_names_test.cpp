#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using ziputil::CZipReader;

namespace {

std::string clean(tal::String const& name) {
  tal::CURI uri = CZipReader::ZipStuff::pathInArchiveToSafeURI(name);
  EXPECT_FALSE(uri.isAbsolute());
  EXPECT_FALSE(uri.hasAuthority());
  return uri.getPath().toUTF8();
}

int compare(char const* a, char const* b) { return CZipReader::ZipStuff::compareFileNames(nullptr, a, b); }

TEST(EntryNamesTest, EmptyAndSlashOnlyAndBlankNamesBecomeUnderscore) {
  EXPECT_EQ(clean(tal::String("")), "_");
  EXPECT_EQ(clean(tal::String("/")), "_");
  EXPECT_EQ(clean(tal::String("///")), "_");
  EXPECT_EQ(clean(tal::String("  ")), "_");
}

TEST(EntryNamesTest, UncPathBecomesRelative) { EXPECT_EQ(clean(tal::String("\\\\server\\share\\x")), "server/share/x"); }

TEST(EntryNamesTest, ColonsAreRemoved) {
  EXPECT_EQ(clean(tal::String("a:b")), "ab");
  EXPECT_EQ(clean(tal::String("C:")), "C");
  EXPECT_EQ(clean(tal::String("C:\\dir\\f.txt")), "C/dir/f.txt");
}

TEST(EntryNamesTest, BlanksTrimmedAfterSlashesStripped) {
  EXPECT_EQ(clean(tal::String(" a ")), "a");
  EXPECT_EQ(clean(tal::String("/ a /")), "a");
  EXPECT_EQ(clean(tal::String(" /a/ ")), "/a/");
}

TEST(EntryNamesTest, DotSegmentsAndInnerSlashesStay) {
  EXPECT_EQ(clean(tal::String("../x")), "../x");
  EXPECT_EQ(clean(tal::String("a//b/./c")), "a//b/./c");
}

TEST(EntryNamesTest, SpecialCharactersAreHeldAsPathText) {
  tal::String name = tal::String::fromUTF8("dir/a b#1?%41 caf\xC3\xA9.txt");
  tal::CURI uri = CZipReader::ZipStuff::pathInArchiveToSafeURI(name);
  EXPECT_EQ(uri.getPath(), name);
  EXPECT_FALSE(uri.hasQuery());
  EXPECT_FALSE(uri.hasFragment());
  EXPECT_EQ(tal::CURI(uri.toString(true)), uri);
}

TEST(EntryNamesTest, ComparisonAfterCleaning) {
  EXPECT_EQ(compare("a\\b", "a/b"), 0);
  EXPECT_EQ(compare("a", "b"), -1);
  EXPECT_EQ(compare("b", "a"), 1);
  EXPECT_EQ(compare("A", "a"), -1);
  EXPECT_EQ(compare("Dir\\File.txt", "/Dir/File.txt"), 0);
  EXPECT_EQ(compare("/Dir/File.txt", "Dir/File.txt/"), 0);
  EXPECT_NE(compare("dir/file.txt", "Dir/File.txt"), 0);
  EXPECT_EQ(compare("ab", "abc"), -1);
  EXPECT_EQ(compare("abc", "ab"), 1);
  EXPECT_EQ(compare("caf\xC3\xA9", "caf\xC3\xA9"), 0);
  EXPECT_EQ(compare("", "/"), 0);
}

/// The cleaning rules one after another on code points: backslashes become
/// slashes, leading and trailing slashes go, colons go, blanks (ASCII white
/// space) are trimmed at both ends, and nothing left becomes "_".
std::wstring cleanStepByStep(std::wstring path) {
  for (wchar_t& c : path)
    if (c == L'\\') c = L'/';
  while (!path.empty() && path.front() == L'/') path.erase(0, 1);
  while (!path.empty() && path.back() == L'/') path.pop_back();
  std::wstring kept;
  for (wchar_t c : path)
    if (c != L':') kept += c;
  auto blank = [](wchar_t c) { return c == L' ' || (c >= L'\t' && c <= L'\r'); };
  while (!kept.empty() && blank(kept.back())) kept.pop_back();
  std::size_t start = 0;
  while (start < kept.size() && blank(kept[start])) ++start;
  kept.erase(0, start);
  return kept.empty() ? std::wstring(L"_") : kept;
}

TEST(EntryNamesTest, CleaningMatchesTheRulesForNamesThatNeedItAndNamesThatDoNot) {
  // Names from characters that each rule touches and characters none does;
  // many come out unchanged, which cleaning answers without rebuilding them.
  wchar_t const pieces[] = {L'a', L'Z', L'.', L'/', L'\\', L':', L' ', L'\t', L'~', L'#', 0xE9, 0x3000, 0x1F600};
  std::mt19937 random(11);
  int unchanged = 0;
  for (int round = 0; round < 20000; ++round) {
    std::wstring name;
    for (int length = static_cast<int>(random() % 8); length > 0; --length) name += pieces[random() % 13];
    std::wstring const expected = cleanStepByStep(name);
    if (expected == name) ++unchanged;
    tal::CURI const uri = CZipReader::ZipStuff::pathInArchiveToSafeURI(tal::String(wxString(name.data(), name.size())));
    EXPECT_TRUE(uri.getPath().ToStdWstring() == expected) << round;
    EXPECT_EQ(uri, tal::CURI(tal::String(), tal::String(wxString(expected.data(), expected.size())), nullptr, nullptr,
                             nullptr, -1, nullptr, nullptr))
        << round;
  }
  EXPECT_GT(unchanged, 2000);
}

} // namespace
