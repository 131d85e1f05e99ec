// The version macros, the running library's version and the project's
// version in CMakeLists.txt are one and the same.
#include "ziputil/Version.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

// The VERSION of project(ziputil ...) in the top CMakeLists.txt, or "".
std::string projectVersion() {
  std::ifstream in(std::string(ZIPUTIL_TEST_SOURCE_DIR) + "/../CMakeLists.txt");
  std::stringstream text;
  text << in.rdbuf();
  std::string const s = text.str();
  std::string const key = "project(ziputil VERSION ";
  size_t const at = s.find(key);
  if (at == std::string::npos) return "";
  size_t const begin = at + key.size();
  size_t const end = s.find_first_not_of("0123456789.", begin);
  return end == std::string::npos ? "" : s.substr(begin, end - begin);
}

TEST(VersionTest, MacrosSpellTheProjectVersion) {
  std::string const expected = projectVersion();
  ASSERT_EQ(std::count(expected.begin(), expected.end(), '.'), 2) << "project(ziputil VERSION '" << expected << "'";
  EXPECT_EQ(ZIPUTIL_VERSION_STRING, expected);
  EXPECT_EQ(std::to_string(ZIPUTIL_VERSION_MAJOR) + "." + std::to_string(ZIPUTIL_VERSION_MINOR) + "." +
                std::to_string(ZIPUTIL_VERSION_PATCH),
            expected);
}

TEST(VersionTest, RunningLibraryAgreesWithTheHeader) {
  char const* running = ziputil::versionString();
  ASSERT_NE(running, nullptr);
  EXPECT_STREQ(running, ZIPUTIL_VERSION_STRING);
  EXPECT_EQ(ziputil::versionString(), running);  // static storage: the same text every time
}

TEST(VersionTest, ComesFromTheSharedLibraryOfThatVersion) {
  // The function lives in libziputil.so, whose file carries the full version
  // (libziputil.so.MAJOR is a link to libziputil.so.MAJOR.MINOR.PATCH).
  Dl_info info{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&ziputil::versionString), &info), 0);
  ASSERT_NE(info.dli_fname, nullptr);
  char resolved[PATH_MAX];
  ASSERT_NE(realpath(info.dli_fname, resolved), nullptr) << info.dli_fname;
  std::string const file(resolved);
  std::string const expected = std::string("/libziputil.so.") + ZIPUTIL_VERSION_STRING;
  ASSERT_GE(file.size(), expected.size());
  EXPECT_EQ(file.substr(file.size() - expected.size()), expected) << file;
}

}  // namespace
