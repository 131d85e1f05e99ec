#include "Progress.h"

#include <cstdio>

#include <unistd.h>

namespace ziputil_tool {

CProgress::CProgress(std::string verb)
    : m_verb(std::move(verb)), m_enabled(isatty(STDERR_FILENO) == 1) {}

CProgress::~CProgress() { clear(); }

void CProgress::step(std::string const& name) {
  ++m_count;
  if (!m_enabled) return;
  auto now = std::chrono::steady_clock::now();
  if (m_shown && now - m_last < std::chrono::milliseconds(200)) return; // the first step shows at once
  m_last = now;
  std::fprintf(stderr, "\r\033[K%s %lld: %.60s", m_verb.c_str(), m_count, name.c_str());
  std::fflush(stderr);
  m_shown = true;
}

void CProgress::clear() {
  if (!m_shown) return;
  std::fprintf(stderr, "\r\033[K");
  std::fflush(stderr);
  m_shown = false;
}

} // namespace ziputil_tool
