#include "ziputil/Names.h"

#include "tal/Error.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <unistd.h>

namespace ziputil {
namespace {

std::string workingFolder() {
  std::vector<char> buffer(4096);
  while (!getcwd(buffer.data(), buffer.size())) {
    if (errno != ERANGE) {
      throw tal::CIOError(tal::CIOError::Unknown,
                          tal::String::fromUTF8(std::string("Cannot read the working folder: ") + std::strerror(errno)),
                          tal::CProps(), nullptr);
    }
    buffer.resize(buffer.size() * 2);
  }
  return buffer.data();
}

} // namespace

tal::CURI entryURI(std::string_view name) {
  if (name.empty()) throw tal::CInvalidArgError(tal::String("ziputil::entryURI"), tal::String("name is empty"), {});
  tal::String path = tal::String::fromUTF8(name.data(), name.size());
  if (path.empty()) {
    tal::CProps props;
    props[tal::String("name")] = textFromBytes(name); // not UTF-8: ISO-8859-1
    throw tal::CInvalidArgError(tal::String("ziputil::entryURI"), tal::String("name is not valid UTF-8"), props);
  }
  return tal::CURI(tal::String(), path, nullptr, nullptr, nullptr, -1, nullptr, nullptr);
}

tal::String textFromBytes(std::string_view bytes) {
  tal::String text = tal::String::fromUTF8(bytes.data(), bytes.size());
  if (text.empty() && !bytes.empty())
    for (char c : bytes) text += static_cast<wchar_t>(static_cast<unsigned char>(c));
  return text;
}

std::string entryName(tal::CURI const& uri) { return uri.getPath().toUTF8(); }

tal::CURI localFileURI(std::string_view path) {
  if (path.empty()) throw tal::CInvalidArgError(tal::String("ziputil::localFileURI"), tal::String("path is empty"), {});
  std::string absolute = path.front() == '/' ? std::string(path) : workingFolder() + "/" + std::string(path);
  tal::String host;
  return tal::CURI(tal::String("file"), textFromBytes(absolute), nullptr, nullptr, host, -1, nullptr, nullptr);
}

} // namespace ziputil
