#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>

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

} // namespace
