#include "CommandHelpers.h"

#include "LocalPaths.h"
#include "Password.h"

#include "tal/Error.h"
#include "tal/LocalFileSystem.h"

#include <cstdio>
#include <fnmatch.h>

namespace ziputil_tool {

std::string utf8(tal::String const& text) { return text.toUTF8(); }

tal::P<tal::IFileSystem> localFileSystem() { return tal::P<tal::IFileSystem>(tal::newObj<tal::CLocalFileSystem>()); }

std::function<std::string()> passwordPrompt(Options const& options, std::string const& archive) {
  if (!options.password.empty() || isStandardStream(archive)) return nullptr;
  return [archive]() { return promptPassword(archive); };
}

void reportBadEntry(CEntryReader const& entries, std::string const& shownName, std::exception const& error) {
  std::fprintf(stderr, "ziputil: bad entry \"%s\": %s\n", shownName.c_str(),
               escapeForTerminal(entries.describeFailure(error)).c_str());
}

void reportError(std::exception const& error, std::string const& prefix) {
  std::string line = prefix + error.what();
  if (auto const* e = dynamic_cast<tal::CError const*>(&error)) {
    if (e->getProps().has("uri")) {
      // Local files are named as the user typed them (or by their paths), never as URIs.
      std::string const uri = utf8(e->getProps().get("uri"));
      std::string const shown = shownLocation(uri);
      for (std::size_t at = 0; !uri.empty() && (at = line.find(uri, at)) != std::string::npos; at += shown.size())
        line.replace(at, uri.size(), shown);
      line += " (" + shown + ")";
    }
  }
  std::fprintf(stderr, "ziputil: %s\n", escapeForTerminal(line).c_str());
}

bool timeFromFields(tal::CTimeFields const& fields, time_t& time) {
  if (fields.isEmpty()) return false;
  struct tm local {};
  local.tm_year = fields.getYear() - 1900;
  local.tm_mon = fields.getMonth() - 1;
  local.tm_mday = fields.getDay();
  local.tm_hour = fields.getHour();
  local.tm_min = fields.getMinute();
  local.tm_sec = fields.getSecond();
  local.tm_isdst = -1;
  time = mktime(&local);
  return time != static_cast<time_t>(-1);
}

bool selected(Options const& options, EntryName const& entry, std::vector<bool>& matched) {
  auto matches = [&](std::string const& pattern) {
    return ::fnmatch(pattern.c_str(), entry.path.c_str(), 0) == 0 ||
           (entry.isDirectory && ::fnmatch(pattern.c_str(), (entry.path + "/").c_str(), 0) == 0);
  };
  for (std::string const& pattern : options.excludes)
    if (matches(pattern)) return false;
  if (options.patterns.empty()) return true;
  bool any = false;
  for (std::size_t i = 0; i < options.patterns.size(); ++i)
    if (matches(options.patterns[i])) any = matched[i] = true;
  return any;
}

bool reportUnmatched(Options const& options, std::vector<bool> const& matched) {
  bool all = true;
  for (std::size_t i = 0; i < options.patterns.size(); ++i) {
    if (matched[i]) continue;
    std::fprintf(stderr, "ziputil: no entry matches \"%s\"\n", escapeForTerminal(options.patterns[i]).c_str());
    all = false;
  }
  return all;
}

ziputil::CZipWriter::Options writerOptionsFor(bool atomic, Options const& options) {
  ziputil::CZipWriter::Options writerOptions;
  writerOptions.encryption = options.encryption; // with a password: AES-256 unless asked otherwise
  writerOptions.atomicReplace = atomic;
  writerOptions.madeByUnix = true;              // modes and links kept; UTF-8 names read as such
  writerOptions.interoperableEncryption = true; // other tools accept a traditional password
  writerOptions.keepArchiveComment = true;
  return writerOptions;
}

} // namespace ziputil_tool
