#include "ZipFixtures.h"

#include "TempDir.h"

#include <stdexcept>

namespace testsupport {

namespace {

/// The interpreter that "python3" names, resolved once: a version manager's
/// shim in front of it costs a second or more per start.
std::string const& pythonInterpreter() {
  static std::string const interpreter = [] {
    std::string path;
    if (runCommand("python3 -c 'import sys; print(sys.executable, end=\"\")'", &path) != 0 || path.empty())
      return std::string("python3");
    return shellQuote(path);
  }();
  return interpreter;
}

} // namespace

std::string runPython(std::string const& program, std::vector<std::string> const& arguments) {
  TempDir dir("ziputil-python");
  writeFile(dir.file("program.py"), program);
  std::string command = pythonInterpreter() + " " + shellQuote(dir.file("program.py"));
  for (std::string const& argument : arguments) command += " " + shellQuote(argument);
  std::string output;
  if (runCommand(command, &output) != 0) throw std::runtime_error("python program failed: " + command);
  return output;
}

void makeZip(std::string const& path, std::vector<ZipEntry> const& entries, bool stored) {
  TempDir dir("ziputil-entries");
  std::vector<std::string> arguments{path, stored ? "stored" : "deflated"};
  for (std::size_t i = 0; i < entries.size(); ++i) {
    std::string const file = dir.file(std::to_string(i));
    writeFile(file, entries[i].second);
    arguments.push_back(entries[i].first);
    arguments.push_back(file);
  }
  runPython(R"(
import sys, zipfile
path, method, rest = sys.argv[1], sys.argv[2], sys.argv[3:]
compression = zipfile.ZIP_STORED if method == "stored" else zipfile.ZIP_DEFLATED
with zipfile.ZipFile(path, "w", compression) as z:
    for name, source in zip(rest[0::2], rest[1::2]):
        info = zipfile.ZipInfo(name, date_time=(2019, 12, 31, 23, 58, 58))
        info.compress_type = compression
        z.writestr(info, open(source, "rb").read())
)",
            arguments);
}

tal::CURI entryURI(std::string const& path) {
  return tal::CURI(tal::String(), tal::String::fromUTF8(path), nullptr, nullptr, nullptr, -1, nullptr, nullptr);
}

std::string utf8(tal::String const& text) { return text.toUTF8(); }

} // namespace testsupport
