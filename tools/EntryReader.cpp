#include "EntryReader.h"

#include "LocalPaths.h"

#include "tal/Error.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/ArchiveCheck.h"

#include <cstring>
#include <vector>

namespace ziputil_tool {
namespace {

constexpr int kChunk = 1 << 16;

} // namespace

CEntryReader::CEntryReader(tal::CURI const& archiveURI, std::string const& password) {
  tal::P<tal::IFileSystem> fileSystem(tal::newObj<tal::CLocalFileSystem>());
  ziputil::checkArchiveLayout(fileSystem.get(), archiveURI);
  ziputil::CZipReader::Options checking;
  checking.verifyEntries = true;
  tal::String const text = textFromBytes(password);
  m_checked = tal::newObj<ziputil::CZipReader>(fileSystem.get(), archiveURI, text, checking);
}

bool CEntryReader::nextFile() { return m_checked->nextFile(); }

void CEntryReader::close() { m_checked->close(); }

void CEntryReader::copyCurrent(std::function<void(unsigned char const*, std::size_t)> const& sink) {
  tal::P<tal::IInStream> stream = m_checked->openCurrentFileStream();
  std::vector<unsigned char> buffer(kChunk);
  while (int n = stream->readLax(buffer.data(), kChunk)) sink(buffer.data(), static_cast<std::size_t>(n));
  stream->close();
}

std::string CEntryReader::describeFailure(std::exception const& error) const {
  if (auto const* e = dynamic_cast<tal::CError const*>(&error)) {
    if (e->getProps().has("result")) {
      std::string const result = e->getProps().get("result").toUTF8();
      if (result == "-106") return "wrong password";
      if (result == "-102" && std::strcmp(error.what(), "unzOpenCurrentFile failed") == 0)
        return "the entry is encrypted: give its password with --password";
      if (result == "-107")
        return "compression method " + std::to_string(m_checked->getCurrentFileMethod()) +
               " is not supported (only stored and deflated entries can be read)";
    }
  }
  return error.what();
}

} // namespace ziputil_tool
