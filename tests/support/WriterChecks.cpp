#include "WriterChecks.h"

#include "TempDir.h"
#include "ZipFixtures.h"
#include "tal/Object.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace testsupport {

namespace {

std::string propsText(tal::CProps const& props) {
  std::string text;
  for (auto const& [key, value] : props.items()) text += "{" + key.toUTF8() + ": " + value.toUTF8() + "} ";
  return text;
}

} // namespace

void expectSameError(tal::CError const& actual, tal::CError const& expected) {
  EXPECT_EQ(std::string(typeid(actual).name()), std::string(typeid(expected).name()));
  EXPECT_EQ(actual.getCode(), expected.getCode());
  EXPECT_EQ(actual.getMessage().toUTF8(), expected.getMessage().toUTF8());
  EXPECT_EQ(actual.getContext().toUTF8(), expected.getContext().toUTF8());
  EXPECT_EQ(propsText(actual.getProps()), propsText(expected.getProps()));
  EXPECT_TRUE(actual.getProps() == expected.getProps());
  EXPECT_EQ(actual.getCause().get(), nullptr);
}

void expectThrowsSame(std::function<void()> const& call, tal::CError const& expected) {
  try {
    call();
    ADD_FAILURE() << "succeeded; expected: " << expected.getMessage().toUTF8();
  } catch (tal::CError const& e) {
    expectSameError(e, expected);
  }
}

namespace {
DestructorReports* reports = nullptr;
void recordReport(char const* className, std::exception& e, bool) {
  reports->classes += className;
  reports->classes += ";";
  reports->messages += e.what();
  reports->messages += ";";
}
} // namespace

DestructorReports destructorReportsOf(std::function<void()> const& call) {
  DestructorReports seen;
  reports = &seen;
  auto const previous = tal::setDestructorExceptionHandler(&recordReport);
  call();
  tal::setDestructorExceptionHandler(previous);
  reports = nullptr;
  return seen;
}

bool isCopyOf(std::string const& text, std::string const& archive) {
  std::string const marker = ".tmp-";
  if (text.size() != archive.size() + marker.size() + 16 || text.compare(0, archive.size(), archive) != 0 ||
      text.compare(archive.size(), marker.size(), marker) != 0)
    return false;
  return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(archive.size() + marker.size()), text.end(),
                     [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::vector<std::string> listFolder(std::string const& path) {
  std::vector<std::string> names;
  for (auto const& entry : std::filesystem::directory_iterator(path)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

int sevenZipTest(std::string const& archive, std::string* output, std::string const& password) {
  std::string command = "/usr/bin/7z t ";
  if (!password.empty()) command += "-p" + shellQuote(password) + " ";
  return runCommand(command + shellQuote(archive) + " </dev/null 2>&1", output);
}

std::vector<std::string> pythonVerdicts(std::vector<std::string> const& archives) {
  std::string const output = runPython(R"(
import sys, zipfile
for path in sys.argv[1:]:
    try:
        with zipfile.ZipFile(path) as z:
            print(",".join(z.namelist()), z.testzip())
    except Exception as e:
        print("error", type(e).__name__)
)",
                                       archives);
  std::vector<std::string> lines;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

} // namespace testsupport
