#include "EntryReader.h"

#include "LocalPaths.h"

#include "tal/Error.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/ArchiveCheck.h"

#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace ziputil_tool {
namespace {

constexpr int kChunk = 1 << 16;
/// The traditional PKWARE encryption header in front of an encrypted entry's data.
constexpr long long kEncryptionHeader = 12;

[[noreturn]] void throwBadData(std::string const& message) {
  throw tal::CError(tal::String::fromUTF8(message), tal::String(), -1, tal::CProps(), nullptr);
}

} // namespace

CEntryReader::CEntryReader(tal::CURI const& archiveURI, std::string const& password)
    : m_hasPassword(!password.empty()) {
  tal::P<tal::IFileSystem> fileSystem(tal::newObj<tal::CLocalFileSystem>());
  ziputil::checkArchiveLayout(fileSystem.get(), archiveURI);
  ziputil::CZipReader::Options checking;
  checking.verifyEntries = true;
  tal::String const text = textFromBytes(password);
  m_checked = tal::newObj<ziputil::CZipReader>(fileSystem.get(), archiveURI, text, checking);
  if (m_hasPassword) m_plain = tal::newObj<ziputil::CZipReader>(fileSystem.get(), archiveURI, text);
}

bool CEntryReader::nextFile() {
  bool const found = m_checked->nextFile();
  if (m_plain) m_plain->nextFile();
  return found;
}

void CEntryReader::close() {
  m_checked->close();
  if (m_plain) m_plain->close();
}

bool CEntryReader::needsOwnCheck() const {
  // A stored entry under traditional encryption: the library's end check
  // takes what lies past the decrypted data (the 12 bytes that the
  // encryption header added to the stored size) for data running on, and
  // throws on every such entry. Its data is read unchecked and checked here.
  ziputil::CZipReader const& r = *m_checked;
  return m_plain && r.getCurrentFileMethod() == 0 &&
         r.getCurrentFileCompressedSize() == r.getCurrentFileUncompressedSize() + kEncryptionHeader;
}

void CEntryReader::copyCurrent(std::function<void(unsigned char const*, std::size_t)> const& sink) {
  if (needsOwnCheck()) {
    copyWithOwnCheck(sink);
    return;
  }
  tal::P<tal::IInStream> stream = m_checked->openCurrentFileStream();
  std::vector<unsigned char> buffer(kChunk);
  while (int n = stream->readLax(buffer.data(), kChunk)) sink(buffer.data(), static_cast<std::size_t>(n));
  stream->close();
}

void CEntryReader::copyWithOwnCheck(std::function<void(unsigned char const*, std::size_t)> const& sink) {
  tal::P<tal::IInStream> stream = m_plain->openCurrentFileStream();
  std::vector<unsigned char> buffer(kChunk);
  uLong crc = crc32(0L, Z_NULL, 0);
  long long size = 0;
  std::vector<unsigned char> held; // the last chunk goes out only once the entry checks out, as with the library
  while (int n = stream->readLax(buffer.data(), kChunk)) {
    if (!held.empty()) sink(held.data(), held.size());
    held.assign(buffer.begin(), buffer.begin() + n);
    crc = crc32(crc, buffer.data(), static_cast<uInt>(n));
    size += n;
  }
  stream->close();
  long long const stored = m_plain->getCurrentFileUncompressedSize();
  char text[160];
  if (size < stored) {
    std::snprintf(text, sizeof text, "ZIP entry is shorter than its stored size: %lld of %lld bytes", size, stored);
    throwBadData(text);
  }
  unsigned long const storedCRC = m_plain->getCurrentFileCRC32();
  if (crc != storedCRC) {
    std::snprintf(text, sizeof text, "ZIP entry's CRC-32 does not match: computed %08lx, stored %08lx",
                  static_cast<unsigned long>(crc), storedCRC);
    throwBadData(text);
  }
  if (!held.empty()) sink(held.data(), held.size());
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
