// A progress line on standard error, shown only when standard error is a
// terminal (and neither -q nor -v was given): at the first entry, then at most
// five times a second.
#pragma once

#include <chrono>
#include <string>

namespace ziputil_tool {

class CProgress {
public:
  /// `allowed` false (-q, -v) shows nothing.
  CProgress(std::string verb, bool allowed);
  ~CProgress();
  CProgress(CProgress const&) = delete;
  CProgress& operator=(CProgress const&) = delete;

  /// Counts one more entry, named `name` (UTF-8, already escaped for the
  /// terminal; its first 60 characters are shown).
  void step(std::string const& name);
  /// Removes the line (before other output goes to standard error).
  void clear();

private:
  std::string m_verb;
  bool m_enabled;
  bool m_shown = false;
  long long m_count = 0;
  std::chrono::steady_clock::time_point m_last{};
};

} // namespace ziputil_tool
