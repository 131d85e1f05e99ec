#include "TempDir.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <vector>

namespace testsupport {

TempDir::TempDir(std::string const& prefix) {
  char const* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + prefix + ".XXXXXX";
  std::vector<char> text(pattern.begin(), pattern.end());
  text.push_back('\0');
  if (!mkdtemp(text.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
  m_path = text.data();
}

TempDir::~TempDir() { runCommand("rm -rf " + shellQuote(m_path)); }

tal::CURI TempDir::uri() const { return fileURI(m_path); }

tal::CURI TempDir::uri(std::string const& name) const { return fileURI(file(name)); }

tal::CURI fileURI(std::string const& path) {
  tal::String host;
  return tal::CURI(tal::String("file"), tal::String::fromUTF8(path), nullptr, nullptr, host, -1, nullptr, nullptr);
}

std::string readFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeFile(std::string const& path, std::string const& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

int runCommand(std::string const& command, std::string* output) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  char buffer[4096];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
    if (output) output->append(buffer, n);
  int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string shellQuote(std::string const& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

} // namespace testsupport
