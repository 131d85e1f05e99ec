// A file descriptor that the program's code owns.
#pragma once

#include <cerrno>
#include <unistd.h>

namespace ziputil_tool {

/// Holds an open file descriptor, or none (-1), and closes it when dropped.
class CFd {
public:
  /// Takes over `fd` (-1: none).
  explicit CFd(int fd = -1) : m_fd(fd) {}
  ~CFd() {
    if (m_fd >= 0) ::close(m_fd);
  }
  CFd(CFd const&) = delete;
  CFd& operator=(CFd const&) = delete;
  /// The descriptor, or -1.
  int get() const { return m_fd; }
  /// Closes the descriptor held, if any, and takes over `fd`.
  void reset(int fd) {
    close();
    m_fd = fd;
  }
  /// Gives the descriptor up without closing it; returns it.
  int release() {
    int const fd = m_fd;
    m_fd = -1;
    return fd;
  }
  /// Closes now; the close's errno, or 0.
  int close() {
    int const fd = m_fd;
    m_fd = -1;
    return fd >= 0 && ::close(fd) != 0 ? errno : 0;
  }

private:
  int m_fd;
};

} // namespace ziputil_tool
