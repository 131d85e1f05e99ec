#include "Progress.h"

#include <cstdio>

#include <unistd.h>

namespace ziputil_tool {
namespace {

/// The first `count` characters of UTF-8 `text` (never half a character).
std::string firstCharacters(std::string const& text, std::size_t count) {
  std::size_t at = 0;
  for (std::size_t seen = 0; at < text.size(); ++at) {
    bool const starts = (static_cast<unsigned char>(text[at]) & 0xc0) != 0x80;
    if (starts && seen++ == count) break;
  }
  return text.substr(0, at);
}

} // namespace

CProgress::CProgress(std::string verb, bool allowed)
    : m_verb(std::move(verb)), m_enabled(allowed && isatty(STDERR_FILENO) == 1) {}

CProgress::~CProgress() { clear(); }

void CProgress::step(std::string const& name) {
  ++m_count;
  if (!m_enabled) return;
  auto now = std::chrono::steady_clock::now();
  if (m_shown && now - m_last < std::chrono::milliseconds(200)) return; // the first step shows at once
  m_last = now;
  std::fprintf(stderr, "\r\033[K%s %lld: %s", m_verb.c_str(), m_count, firstCharacters(name, 60).c_str());
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
