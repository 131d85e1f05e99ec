#include "ziputil/CZipWriter.h"

#include "ziputil/MiniZipFailure.h"

#include <wx/strconv.h>
#include <zip.h>

#include <cstring>

namespace ziputil {
namespace {

zip_fileinfo fileInfoFor(tal::CTimeFields const& time) {
  zip_fileinfo info;
  std::memset(&info, 0, sizeof info);
  if (time != tal::CTimeFields()) {
    info.tmz_date.tm_year = static_cast<unsigned>(time.getYear());
    info.tmz_date.tm_mon = static_cast<unsigned>(time.getMonth() - 1);
    info.tmz_date.tm_mday = static_cast<unsigned>(time.getDay());
    info.tmz_date.tm_hour = static_cast<unsigned>(time.getHour());
    info.tmz_date.tm_min = static_cast<unsigned>(time.getMinute());
    info.tmz_date.tm_sec = static_cast<unsigned>(time.getSecond());
  }
  return info;
}

/// The 22-byte end-of-central-directory record of an archive without entries.
constexpr unsigned char kEmptyArchive[22] = {0x50, 0x4b, 0x05, 0x06};

} // namespace

CZipWriter::CZipWriter(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password,
                       CompLevel compressionLevel)
    : m_fileSystem(fileSystem), m_archiveURI(archiveURI), m_password(password), m_hasPassword(password.length() != 0),
      m_level(compressionLevel), m_entryOpen(false) {
  auto state = std::make_unique<ArchiveState>(fileSystem);
  zlib_filefunc64_def* funcs = state->bridge.getFuncs();
  std::string const path = archiveURI.toString(true).toUTF8();
  state->handle = zipOpen2_64(path.c_str(), APPEND_STATUS_ADDINZIP, nullptr, funcs);
  if (!state->handle)
    throwOpenFailure(state->bridge.getLastError(),
                     tal::CError(tal::String("zipOpen2_64 failed"), tal::String(), -1, tal::uriProps(m_archiveURI), nullptr));
  m_state = std::move(state);
}

CZipWriter::~CZipWriter() {
  try {
    close();
  } catch (std::exception& e) {
    tal::onExceptionInDestructorIgnored("ziputil::CZipWriter", e, true);
  } catch (...) {
  }
  m_state.reset();
}

void CZipWriter::checkCanBegin(tal::CURI const& relativeURIInArchive) const {
  if (!m_state)
    throw tal::CIOError(tal::CIOError::StreamClosed, tal::String("ZIP file already closed"),
                        tal::uriProps(m_archiveURI), nullptr);
  if (m_entryOpen)
    throw tal::CError(
        tal::String("Internal error: CZipWriter::beginAddFile called before previous added file was finished."),
        tal::String(), -1, tal::uriProps(m_archiveURI), nullptr);
  if (relativeURIInArchive.isEmpty() || relativeURIInArchive.isAbsolute()) {
    tal::CProps props;
    props["relativeURIInArchive"] = relativeURIInArchive.toString(true);
    throw tal::CInvalidArgError(tal::String("CZipWriter::beginAddFile"), tal::String("relativeURIInArchive is invalid"),
                                props);
  }
}

int CZipWriter::openEntry(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time) {
  std::string const name = relativeURIInArchive.toNormalized().getPath().toUTF8();
  zip_fileinfo const info = fileInfoFor(time);
  std::string const password = m_hasPassword ? m_password.toUTF8() : std::string();
  return zipOpenNewFileInZip4_64(m_state->handle, name.c_str(), &info, nullptr, 0, nullptr, 0, "", Z_DEFLATED,
                                 static_cast<int>(m_level), 0, -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY,
                                 m_hasPassword ? password.c_str() : nullptr, 0, 0, 0x800, 1);
}

tal::P<tal::IOutStream> CZipWriter::beginAddFile(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time) {
  tal::CMutexLock lock(m_mutex);
  checkCanBegin(relativeURIInArchive);
  tal::CURI const entryURI = m_archiveURI << relativeURIInArchive;
  int const result = openEntry(relativeURIInArchive, time);
  if (result != ZIP_OK) {
    tal::CError const fallback(tal::String("zipOpenNewFileInZip4_64 failed"), tal::String(), -1,
                               minizipFailureProps(m_archiveURI, result), nullptr);
    throwMinizipFailure(m_state->bridge.getLastError(), result, fallback);
  }
  tal::P<tal::IOutStream> stream(tal::newObj<CFileInZipOutStream>(this, entryURI));
  m_entryOpen = true;
  return stream;
}

void CZipWriter::close() {
  tal::CMutexLock lock(m_mutex);
  if (!m_state) return;
  int const result = zipClose(m_state->handle, "");
  tal::P<tal::CError> bridgeError = result == ZIP_OK ? tal::P<tal::CError>() : m_state->bridge.getLastError();
  m_state.reset();
  if (result == ZIP_OK) return;
  tal::CError const fallback(tal::String("zipClose failed"), tal::String(), -1,
                             minizipFailureProps(m_archiveURI, result), nullptr);
  throwMinizipFailure(bridgeError, result, fallback);
}

void createEmptyArchive(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI) {
  int const flags = tal::IFileSystem::OpenCreate;
  tal::P<tal::IInOutStream> stream = fileSystem->openStream(archiveURI, tal::IFileSystem::AccessReadWrite, flags);
  stream->setLength(0);
  stream->write(kEmptyArchive, sizeof kEmptyArchive, nullptr);
  stream->close();
}

} // namespace ziputil
