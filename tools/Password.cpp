#include "Password.h"

#include "EntryNames.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <termios.h>
#include <unistd.h>

namespace ziputil_tool {

std::string readPasswordFile(std::string const& file) {
  FILE* in = file == "-" ? stdin : std::fopen(file.c_str(), "rb");
  if (!in) throw std::runtime_error("cannot read the password file " + file + ": " + std::strerror(errno));
  std::string line;
  int c;
  while ((c = std::fgetc(in)) != EOF && c != '\n') line += static_cast<char>(c);
  bool const failed = std::ferror(in) != 0;
  int const error = errno;
  if (in != stdin) std::fclose(in);
  if (failed) throw std::runtime_error("cannot read the password file " + file + ": " + std::strerror(error));
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

std::string promptPassword(std::string const& archiveShown) {
  if (!::isatty(STDIN_FILENO)) return std::string();
  std::fprintf(stderr, "Password for %s: ", escapeForTerminal(archiveShown).c_str());
  std::fflush(stderr);
  struct termios saved;
  bool const quiet = ::tcgetattr(STDIN_FILENO, &saved) == 0;
  if (quiet) {
    struct termios silent = saved;
    silent.c_lflag &= static_cast<tcflag_t>(~(ECHO | ECHONL));
    silent.c_lflag |= ICANON;
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  }
  std::string answer;
  for (;;) {
    char c;
    ssize_t const n = ::read(STDIN_FILENO, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || c == '\n') break;
    answer += c;
  }
  if (quiet) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
  std::fprintf(stderr, "\n");
  if (!answer.empty() && answer.back() == '\r') answer.pop_back();
  return answer;
}

} // namespace ziputil_tool
