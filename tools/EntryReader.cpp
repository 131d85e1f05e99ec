#include "EntryReader.h"

#include "LocalPaths.h"

#include "tal/Error.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/ArchiveCheck.h"
#include "ziputil/Methods.h"

#include <cstring>
#include <utility>
#include <vector>

namespace ziputil_tool {
namespace {

constexpr int kChunk = 1 << 16;

} // namespace

CEntryReader::CEntryReader(tal::CURI const& archiveURI, std::string const& password)
    : CEntryReader(archiveURI, password, nullptr) {}

CEntryReader::CEntryReader(tal::CURI const& archiveURI, std::string const& password,
                           std::function<std::string()> askPassword)
    : m_uri(archiveURI), m_password(password), m_askPassword(std::move(askPassword)) {
  tal::P<tal::IFileSystem> fileSystem(tal::newObj<tal::CLocalFileSystem>());
  for (ziputil::EntryLayoutProblem& problem : ziputil::checkArchiveEntries(fileSystem.get(), archiveURI))
    m_problems[static_cast<long long>(problem.number)] = std::move(problem.what);
  open();
}

void CEntryReader::open() {
  tal::P<tal::IFileSystem> fileSystem(tal::newObj<tal::CLocalFileSystem>());
  ziputil::CZipReader::Options checking;
  checking.verifyEntries = true;
  tal::String const text = textFromBytes(m_password);
  m_checked = tal::newObj<ziputil::CZipReader>(fileSystem.get(), m_uri, text, checking);
}

bool CEntryReader::nextFile() {
  bool const moved = m_checked->nextFile();
  if (moved) ++m_position;
  return moved;
}

void CEntryReader::close() { m_checked->close(); }

std::string const* CEntryReader::currentProblem() const {
  auto const found = m_problems.find(m_position);
  return found == m_problems.end() ? nullptr : &found->second;
}

void CEntryReader::copyCurrent(std::function<void(unsigned char const*, std::size_t)> const& sink) {
  if (std::string const* problem = currentProblem())
    throw tal::CError(tal::String::fromUTF8(*problem), tal::String(), -1, tal::uriProps(m_uri), nullptr);
  if (m_password.empty() && m_askPassword && m_checked->isCurrentFileEncrypted()) {
    std::function<std::string()> const ask = std::move(m_askPassword);
    m_askPassword = nullptr; // once per run
    m_password = ask();
    if (!m_password.empty()) { // the same archive again, with the password, at the same entry
      m_checked->close();
      open();
      for (long long i = 0; i < m_position; ++i) m_checked->nextFile();
    }
  }
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
        return "the entry is encrypted: give its password with --password-file, ZIPUTIL_PASSWORD or --password";
      if (result == "-107") {
        int const method = m_checked->getCurrentFileRealMethod();
        std::string const name = ziputil::compressionMethodName(method);
        return "compression method " + std::to_string(method) + (name.empty() ? "" : " (" + name + ")") +
               " is not supported";
      }
    }
  }
  return error.what();
}

} // namespace ziputil_tool
