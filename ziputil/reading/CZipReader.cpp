#include "ziputil/CZipReader.h"

#include "ziputil/format/ArchiveLayout.h"
#include "ziputil/format/CentralDirectory.h"
#include "ziputil/names/NameRules.h"
#include "ziputil/MiniZipAdapter.h"
#include "ziputil/bridge/MiniZipFailure.h"
#include "ziputil/codecs/WinZipAes.h"
#include "ziputil/reading/EntryDecoding.h"

#include <wx/strconv.h>

#include <algorithm>
#include <mutex>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ziputil {
namespace {

constexpr int kNameBufferLength = 65537;

tal::String fromUtf8(const char* text) { return tal::String(wxString::FromUTF8(text)); }

/// Holds a mutex that outlives the scope (the reader's own) for the scope's
/// run: what tal::CMutexLock does, without counting a reference to it, for the
/// moves that are called once per entry.
class CMemberLock {
public:
  explicit CMemberLock(tal::IMutex& mutex) : m_mutex(mutex) { m_mutex.lock(); }
  ~CMemberLock() { m_mutex.unlock(); }
  CMemberLock(CMemberLock const&) = delete;
  CMemberLock& operator=(CMemberLock const&) = delete;

private:
  tal::IMutex& m_mutex;
};

/// Sets `utf8` to the text as UTF-8 (empty when it has no UTF-8 form), as
/// tal::String::toUTF8 gives it, reusing its storage.
/// `text` as UTF-8 in `utf8` (reusing its storage), up to its first zero
/// byte: the C string minizip and the name rules see.
void assignUtf8(tal::String const& text, std::string& utf8) {
  wchar_t const* const wide = text.wc_str();
  std::size_t const length = text.length();
  std::uint32_t seen = 0;
  for (std::size_t i = 0; i < length; ++i) seen |= static_cast<std::uint32_t>(wide[i]);
  if (seen < 0x80) { // ASCII, the common name: each code point is its byte
    utf8.resize(length);
    char* const out = &utf8[0];
    for (std::size_t i = 0; i < length; ++i) {
      if (wide[i] == 0) {
        utf8.resize(i);
        return;
      }
      out[i] = static_cast<char>(wide[i]);
    }
    return;
  }
  utf8 = text.toUTF8();
  std::size_t const zero = utf8.find('\0');
  if (zero != std::string::npos) utf8.resize(zero);
}

} // namespace

struct CZipReader::NameIndex {
  std::unordered_map<std::string, unz64_file_pos> byKey;
  /// Entries whose key could not be made, by their stored bytes.
  std::unordered_map<std::string, unz64_file_pos> byRawName;
  /// Whether the walk reached the end of the central directory.
  bool complete = false;
};

// ---- ZipStuff: entry names ---------------------------------------------------

tal::CURI CZipReader::ZipStuff::pathInArchiveToSafeURI(tal::String const& pathInArchive) {
  return cleanedEntryURI(pathInArchive);
}

int CZipReader::ZipStuff::compareFileNames(void*, const char* name1, const char* name2) {
  return compareStoredNames(name1, name2);
}

// ---- CZipReader ----------------------------------------------------------------

CZipReader::CZipReader(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password)
    : CZipReader(fileSystem, archiveURI, password, Options()) {}

CZipReader::CZipReader(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password,
                       Options const& options)
    : m_options(options), m_fileSystem(fileSystem), m_archiveURI(archiveURI), m_password(password),
      m_hasPassword(!password.empty()), m_atFirst(true), m_streamOpen(false), m_nameUsed(kNameBufferLength) {
  m_nameBuffer.setUsed(kNameBufferLength);
  auto stuff = std::make_unique<ZipStuff>(fileSystem);
  zlib_filefunc64_def* funcs = stuff->io.getFuncs();
  std::string const path = m_archiveURI.toString(true).toUTF8();
  stuff->handle = unzOpen2_64(path.c_str(), funcs);
  if (!stuff->handle)
    throwOpenFailure(stuff->io.getLastError(), tal::CError(tal::String("File is not a valid ZIP archive."), tal::String(),
                                                           -1, tal::uriProps(m_archiveURI), nullptr));
  m_zipStuff = std::move(stuff);
}

CZipReader::~CZipReader() {
  try {
    close();
  } catch (std::exception& e) {
    tal::onExceptionInDestructorIgnored("ziputil::CZipReader", e, true);
  } catch (...) {
    m_zipStuff.reset();
  }
}

void CZipReader::throwFailure(int result, char const* message) const {
  tal::CError const fallback(tal::String(message), tal::String(), -1, minizipFailureProps(m_archiveURI, result),
                             nullptr);
  throwMinizipFailure(m_zipStuff->io.getLastError(), result, fallback);
}

void CZipReader::checkCanMove(char const* stillOpenMessage) const {
  if (!m_zipStuff)
    throw tal::CIOError(tal::CIOError::StreamClosed, tal::String("ZIP file already closed"), tal::uriProps(m_archiveURI), nullptr);
  if (m_streamOpen) throw tal::CError(tal::String(stillOpenMessage), tal::String(), -1, tal::uriProps(m_archiveURI), nullptr);
}

void CZipReader::clearEntry() {
  std::memset(&m_zipStuff->fileInfo, 0, sizeof m_zipStuff->fileInfo);
  std::memset(m_nameBuffer.getData(), 0, m_nameUsed); // the rest is zero already
  m_nameUsed = 0;
}

void CZipReader::noteNameWritten(int result) {
  // minizip writes the name and a terminating zero; after a failure it may have written any part of the buffer.
  std::size_t const written = static_cast<std::size_t>(m_zipStuff->fileInfo.size_filename) + 1;
  m_nameUsed = result == UNZ_OK ? std::min<std::size_t>(written, kNameBufferLength) : kNameBufferLength;
}

void CZipReader::buildIndex() {
  auto index = std::make_unique<NameIndex>();
  unzFile const handle = m_zipStuff->handle;
  unz64_file_pos saved;
  bool const wasPositioned = unzGetFilePos64(handle, &saved) == UNZ_OK;
  std::vector<char> name(kNameBufferLength);
  unz_file_info64 info;
  int err = minizip::unzGoToFirstFile2(handle, &info, name.data(), kNameBufferLength - 1, nullptr, 0, nullptr, 0);
  std::string key;
  while (err == UNZ_OK) {
    unz64_file_pos position;
    err = unzGetFilePos64(handle, &position);
    if (err != UNZ_OK) break;
    if (storedNameKey(name.data(), key))
      index->byKey.emplace(key, position); // the first entry of a name wins, as in the linear locate
    else
      index->byRawName.emplace(name.data(), position);
    err = minizip::unzGoToNextFile2(handle, &info, name.data(), kNameBufferLength - 1, nullptr, 0, nullptr, 0);
  }
  index->complete = err == UNZ_END_OF_LIST_OF_FILE;
  if (wasPositioned) unzGoToFilePos64(handle, &saved); // back where the walk found minizip
  m_index = std::move(index);
}

bool CZipReader::lookUp(std::string const& name, unz64_file_pos const*& found) const {
  found = nullptr;
  std::string key;
  if (!storedNameKey(name.c_str(), key)) return false; // compared as bytes with every entry: the linear locate
  auto const byKey = m_index->byKey.find(key);
  if (byKey != m_index->byKey.end()) found = &byKey->second;
  auto const byRaw = m_index->byRawName.find(std::string(name.c_str()));
  if (byRaw != m_index->byRawName.end() && (!found || byRaw->second.num_of_file < found->num_of_file))
    found = &byRaw->second;
  return found || m_index->complete;
}

/// Makes `uri` the cleaned relative URI of a stored name (its bytes up to the
/// first zero byte count, as minizip hands it out). `spare` is scratch text
/// whose storage the common case reuses from one entry to the next.
static void setURIOfStoredName(tal::CURI& uri, tal::String& spare, std::string_view name) {
  if (!nameNeedsNoCleaning(name)) {
    uri = cleanedEntryURI(fromUtf8(std::string(name).c_str()));
    return;
  }
  // The common name, printable ASCII: no decoding and cleaning to do; each
  // byte is its code point, widened in pieces into the spare text, which then
  // trades places with the URI's previous path.
  spare.clear();
  spare.reserve(name.size());
  wchar_t wide[128];
  for (std::size_t done = 0; done < name.size();) {
    std::size_t const piece = std::min(name.size() - done, sizeof wide / sizeof wide[0]);
    for (std::size_t i = 0; i < piece; ++i) wide[i] = static_cast<wchar_t>(name[done + i]);
    spare.append(wide, piece);
    done += piece;
  }
  uri.assignPath(spare);
}

bool CZipReader::takeCurrentEntry() {
  setURIOfStoredName(m_currentRelativeURI, m_spareURIPath, std::string_view(m_nameBuffer.getData()));
  m_uriPending.store(false, std::memory_order_release);
  m_positioned = true;
  m_atFirst = false;
  return true;
}

void CZipReader::leaveEntry() {
  if (!m_positioned && !m_uriPending.load(std::memory_order_relaxed) && m_currentRelativeURI.isEmpty()) return;
  m_spareURIPath.clear();
  m_currentRelativeURI.assignPath(m_spareURIPath); // the empty URI, in the storage kept for the next one
  m_uriPending.store(false, std::memory_order_release);
  m_positioned = false;
}

tal::CURI const& CZipReader::currentURI() const {
  if (m_uriPending.load(std::memory_order_acquire)) {
    std::lock_guard<std::mutex> lock(m_uriMutex);
    if (m_uriPending.load(std::memory_order_relaxed)) {
      setURIOfStoredName(m_currentRelativeURI, m_spareURIPath, m_directory->storedName(m_ordinal));
      m_uriPending.store(false, std::memory_order_release);
    }
  }
  return m_currentRelativeURI;
}

bool CZipReader::nextFile() {
  CMemberLock lock(m_mutex);
  checkCanMove("CZipReader cannot advance to next file because the current file is still open.");
  if (useDirectory()) {
    std::size_t const next = m_atFirst ? 0 : m_ordinal + 1;
    if (next < m_directory->size()) return takeDirectoryEntry(next);
    clearEntry();
    leaveEntry(); // the end: the current entry stays where it was, as in minizip
    return false;
  }
  clearEntry();
  ZipStuff& stuff = *m_zipStuff;
  auto const position = m_atFirst ? &minizip::unzGoToFirstFile2 : &minizip::unzGoToNextFile2;
  int const result = position(stuff.handle, &stuff.fileInfo, m_nameBuffer.getData(), kNameBufferLength - 1, nullptr,
                              0, nullptr, 0);
  noteNameWritten(result);
  if (result == UNZ_OK) return takeCurrentEntry();
  if (result == UNZ_END_OF_LIST_OF_FILE) {
    leaveEntry();
    return false;
  }
  throwFailure(result, m_atFirst ? "unzGoToFirstFile2 failed" : "unzGoToNextFile2 failed");
}

void CZipReader::rewind() {
  tal::CMutexLock lock(m_mutex);
  checkCanMove("CZipReader cannot go back to the first file because the current file is still open.");
  clearEntry();
  leaveEntry();
  m_atFirst = true;
}

bool CZipReader::useDirectory() {
  if (!m_directoryLoaded) {
    m_directoryLoaded = true;
    if (tal::IInOutStream* stream = m_zipStuff->io.getOpenStream()) {
      tal::P<tal::CError> readFailure;
      m_directory = CentralDirectory::load(*stream, m_archiveURI, m_zipStuff->handle, readFailure);
      // Kept as a failed read of minizip's would be: minizip reads on by itself, but it happened.
      if (readFailure) m_zipStuff->io.recordFailure(*readFailure);
    }
  }
  return m_directory != nullptr;
}

bool CZipReader::takeDirectoryEntry(std::size_t ordinal) {
  // Every field and the name are written, and what the previous name left behind is cleared: the state a
  // full clear and minizip's positioning would leave.
  m_directory->describe(ordinal, m_zipStuff->fileInfo);
  std::string_view const name = m_directory->storedName(ordinal);
  char* const buffer = m_nameBuffer.getData();
  std::memcpy(buffer, name.data(), name.size());
  buffer[name.size()] = '\0';
  if (m_nameUsed > name.size() + 1) std::memset(buffer + name.size() + 1, 0, m_nameUsed - name.size() - 1);
  m_nameUsed = name.size() + 1;
  m_ordinal = ordinal;
  m_minizipBehind = true;
  m_uriPending.store(true, std::memory_order_release); // built from the directory when asked for
  m_positioned = true;
  m_atFirst = false;
  return true;
}

long long CZipReader::findInDirectory(std::string const& name) {
  std::string key;
  bool cleaned = false;
  if (nameComparisonKey(std::string_view(name), key, cleaned))
    return m_directory->find(cleaned ? std::string_view(key) : std::string_view(name), name);
  // A searched name without a key is compared as bytes with every entry, as the linear locate does.
  std::string stored;
  for (std::size_t i = 0; i < m_directory->size(); ++i) {
    stored.assign(m_directory->storedName(i));
    if (ZipStuff::compareFileNames(nullptr, stored.c_str(), name.c_str()) == 0) return static_cast<long long>(i);
  }
  return -1;
}

int CZipReader::catchUpMinizip() const {
  if (!m_minizipBehind) return UNZ_OK;
  unz64_file_pos position = m_directory->position(m_ordinal);
  int const result = unzGoToFilePos64(m_zipStuff->handle, &position);
  if (result == UNZ_OK) m_minizipBehind = false;
  return result;
}

bool CZipReader::tryGoToFile(tal::CURI const& relativeURI) {
  CMemberLock lock(m_mutex);
  checkCanMove("CZipReader cannot advance to another file because the current file is still open.");
  ZipStuff& stuff = *m_zipStuff;
  assignUtf8(relativeURI.getPath(), m_searchedName);
  std::string const& name = m_searchedName;
  if (useDirectory()) {
    long long const found = findInDirectory(name);
    if (found >= 0) return takeDirectoryEntry(static_cast<std::size_t>(found));
    clearEntry();
    leaveEntry(); // absent: the current entry stays where it was, as in minizip
    return false;
  }
  clearEntry();
  if (!m_index) buildIndex();
  unz64_file_pos const* found = nullptr;
  int result = UNZ_OK;
  if (!lookUp(name, found))
    result = minizip::unzLocateFile(stuff.handle, name.c_str(), &ZipStuff::compareFileNames);
  else if (found)
    result = unzGoToFilePos64(stuff.handle, found);
  else
    result = UNZ_END_OF_LIST_OF_FILE; // absent: minizip stays where it was, as after a failed linear locate
  if (result == UNZ_OK) {
    result = unzGetCurrentFileInfo64(stuff.handle, &stuff.fileInfo, m_nameBuffer.getData(), kNameBufferLength - 1,
                                     nullptr, 0, nullptr, 0);
    noteNameWritten(result);
  }
  if (result == UNZ_OK) return takeCurrentEntry();
  if (result == UNZ_END_OF_LIST_OF_FILE) {
    leaveEntry();
    return false;
  }
  throwFailure(result, "unzLocateFile failed");
}

tal::P<tal::IInStream> CZipReader::openCurrentFileStream() {
  if (!isPositioned())
    throw tal::CError(tal::String("CZipReader not positioned at a file. Cannot open stream."), tal::String(), -1,
                      tal::uriProps(m_archiveURI), nullptr);
  if (!m_zipStuff)
    throw tal::CIOError(tal::CIOError::StreamClosed, tal::String("ZIP file already closed"),
                        tal::uriProps(m_archiveURI), nullptr);
  ZipStuff& stuff = *m_zipStuff;
  int result = catchUpMinizip(); // when minizip cannot be brought to the entry, that is the open's failure
  if (result == UNZ_OK && CEntryDecoding::decodesMethod(static_cast<int>(stuff.fileInfo.compression_method)))
    return openDecodedStream();
  if (result == UNZ_OK) {
    result = m_hasPassword ? minizip::unzOpenCurrentFilePassword(stuff.handle, m_password.toUTF8().c_str())
                           : minizip::unzOpenCurrentFile(stuff.handle);
  }
  if (result != UNZ_OK) throwEntryOpenFailure(result);
  long long const size = getCurrentFileUncompressedSize();
  tal::CURI const entryURI = m_archiveURI << currentURI();
  tal::P<CFileInZipInStream> stream(tal::newObj<CFileInZipInStream>(this, entryURI, size));
  if (m_options.verifyEntries) stream->verifyAgainst(getCurrentFileCRC32(), stuff.fileInfo.uncompressed_size);
  m_streamOpen = true;
  return tal::P<tal::IInStream>(stream);
}

void CZipReader::throwEntryOpenFailure(int result) const {
  tal::CError const error(tal::String(m_hasPassword ? "unzOpenCurrentFilePassword failed" : "unzOpenCurrentFile failed"),
                          tal::String(), -1, minizipFailureProps(m_archiveURI, result), nullptr);
  throwMinizipFailure(m_zipStuff->io.getLastError(), result,
                      tal::CFileSystemError(tal::CFileSystemError::Unspecified, error));
}

namespace {

[[noreturn]] void throwEntryRefusal(tal::CURI const& entryURI, std::string const& message) {
  tal::CIOError const error(tal::CIOError::ReadFailed, tal::String(message.c_str()), tal::uriProps(entryURI), nullptr);
  throw tal::CFileSystemError(tal::CFileSystemError::Unspecified, error);
}

/// The reader's current entry's WinZip AES field: none when it is not an AES
/// entry or has no such field; std::invalid_argument for a malformed one.
std::optional<aes::AesField> currentAesField(CZipReader const& reader) {
  if (reader.getCurrentFileMethod() != aes::kMethod) return std::nullopt;
  return aes::findAesField(reader.getCurrentFileExtraField());
}

} // namespace

tal::P<tal::IInStream> CZipReader::openDecodedStream() {
  ZipStuff& stuff = *m_zipStuff;
  unz_file_info64 const& info = stuff.fileInfo;
  tal::CURI const entryURI = m_archiveURI << currentURI();
  CEntryDecoding::Entry entry;
  entry.method = static_cast<int>(info.compression_method);
  entry.flags = static_cast<int>(info.flag);
  entry.storedSize = info.compressed_size;
  entry.uncompressedSize = info.uncompressed_size;
  bool const encrypted = (info.flag & 1) != 0;
  if (entry.method == aes::kMethod) {
    try {
      entry.aes = currentAesField(*this);
    } catch (std::invalid_argument const& e) {
      throwEntryRefusal(entryURI, std::string("ZIP entry cannot be read: ") + e.what());
    }
    if (!entry.aes)
      throwEntryRefusal(entryURI, "ZIP entry cannot be read: its method is WinZip AES (99), but it has no AES extra field");
    entry.method = entry.aes->method;
    if (!codecs::canDecode(entry.method)) throwEntryOpenFailure(ZIPUTIL_UNZ_BADMETHOD);
  }
  if ((encrypted || entry.aes) && !m_hasPassword) throwEntryOpenFailure(UNZ_PARAMERROR);
  std::string const password = m_hasPassword ? m_password.toUTF8() : std::string();
  int const result = minizip::unzOpenCurrentFileStored(stuff.handle, m_hasPassword ? password.c_str() : nullptr);
  if (result != UNZ_OK) throwEntryOpenFailure(result);
  if (encrypted && !entry.aes) entry.storedSize = entry.storedSize >= 12 ? entry.storedSize - 12 : 0;

  CEntryDecoding::RawRead raw = [this, entryURI](unsigned char* buffer, std::size_t size) -> std::size_t {
    unsigned const piece = static_cast<unsigned>(std::min<std::size_t>(size, std::size_t(1) << 30));
    int const got = unzReadCurrentFile(m_zipStuff->handle, buffer, piece);
    if (got < 0) {
      tal::CProps props = tal::uriProps(entryURI);
      props["result"] = tal::toString(got);
      tal::CIOError const error(tal::CIOError::ReadFailed, tal::String("unzReadCurrentFile failed"), props, nullptr);
      throwMinizipFailure(m_zipStuff->io.getLastError(), got,
                          tal::CFileSystemError(tal::CFileSystemError::Unspecified, error));
    }
    return static_cast<std::size_t>(got);
  };
  codecs::DecoderLimits limits;
  limits.maxWindow = m_options.maxDecoderWindow;
  auto decoding = std::make_unique<CEntryDecoding>(std::move(raw), entry, limits);
  bool started = false;
  try {
    started = decoding->start(password);
  } catch (codecs::DecodeError const& failure) {
    std::string message;
    try {
      decoding->rethrowBlamingChangedData(failure);
    } catch (codecs::DecodeError const& blamed) {
      message = CEntryDecoding::messageFor(blamed);
    }
    unzCloseCurrentFile(stuff.handle);
    throwEntryRefusal(entryURI, message);
  } catch (...) {
    unzCloseCurrentFile(stuff.handle);
    throw;
  }
  if (!started) {
    unzCloseCurrentFile(stuff.handle);
    throwEntryOpenFailure(ZIPUTIL_UNZ_BADPASSWORD);
  }
  tal::P<CFileInZipInStream> stream(
      tal::newObj<CFileInZipInStream>(this, entryURI, static_cast<long long>(info.uncompressed_size)));
  stream->decodeWith(std::move(decoding), info.uncompressed_size, !(entry.aes && entry.aes->version == 2));
  if (m_options.verifyEntries) stream->verifyAgainst(getCurrentFileCRC32(), info.uncompressed_size);
  m_streamOpen = true;
  return tal::P<tal::IInStream>(stream);
}

tal::CURI CZipReader::getCurrentFileRelativeURI() const { return tal::CURI(currentURI(), nullptr); }

long long CZipReader::getCurrentFileUncompressedSize() const {
  return hasEntryInfo() ? static_cast<long long>(m_zipStuff->fileInfo.uncompressed_size) : 0;
}

long long CZipReader::getCurrentFileCompressedSize() const {
  return hasEntryInfo() ? static_cast<long long>(m_zipStuff->fileInfo.compressed_size) : 0;
}

tal::CTimeFields CZipReader::getCurrentFileModifiedTimeFields() const {
  if (!hasEntryInfo()) return tal::CTimeFields();
  tm_unz const& date = m_zipStuff->fileInfo.tmu_date;
  if (date.tm_mday < 1 || date.tm_mday > 31) return tal::CTimeFields();
  return tal::CTimeFields(static_cast<int>(date.tm_year), static_cast<int>(date.tm_mon) + 1,
                          static_cast<int>(date.tm_mday), static_cast<int>(date.tm_hour),
                          static_cast<int>(date.tm_min), static_cast<int>(date.tm_sec), 0.0, 0, false);
}

bool CZipReader::isCurrentFileDirectory() const {
  if (!isPositioned()) return false;
  std::size_t const length = std::strlen(m_nameBuffer.getData());
  char const last = length > 0 ? m_nameBuffer.getData()[length - 1] : '\0';
  return last == '/' || last == '\\';
}

unsigned long CZipReader::getCurrentFileCRC32() const {
  return hasEntryInfo() ? static_cast<unsigned long>(m_zipStuff->fileInfo.crc) : 0;
}

int CZipReader::getCurrentFileMethod() const {
  return hasEntryInfo() ? static_cast<int>(m_zipStuff->fileInfo.compression_method) : -1;
}

int CZipReader::getCurrentFileRealMethod() const {
  if (!hasEntryInfo()) return -1;
  try {
    if (std::optional<aes::AesField> const field = currentAesField(*this)) return field->method;
  } catch (std::invalid_argument const&) { // a damaged AES field: the method stays the stored one
  }
  return static_cast<int>(m_zipStuff->fileInfo.compression_method);
}

Encryption CZipReader::getCurrentFileEncryption() const {
  if (!hasEntryInfo() || (m_zipStuff->fileInfo.flag & 1) == 0) return Encryption::None;
  std::optional<aes::AesField> field;
  try {
    field = currentAesField(*this);
  } catch (std::invalid_argument const&) { // a damaged AES field: what the flag says
  }
  if (!field) return Encryption::Traditional;
  return field->strength == 1 ? Encryption::Aes128 : field->strength == 2 ? Encryption::Aes192 : Encryption::Aes256;
}

std::string CZipReader::getCurrentFileRawName() const {
  if (!hasEntryInfo()) return std::string();
  std::size_t const stored = static_cast<std::size_t>(m_zipStuff->fileInfo.size_filename);
  return std::string(m_nameBuffer.getData(), std::min<std::size_t>(stored, kNameBufferLength - 1));
}

bool CZipReader::isCurrentFileNameUTF8() const { return hasEntryInfo() && (m_zipStuff->fileInfo.flag & 0x800) != 0; }

bool CZipReader::isCurrentFileEncrypted() const { return hasEntryInfo() && (m_zipStuff->fileInfo.flag & 1) != 0; }

int CZipReader::getCurrentFileVersionMadeBy() const {
  return hasEntryInfo() ? static_cast<int>(m_zipStuff->fileInfo.version) : -1;
}

unsigned long CZipReader::getCurrentFileExternalAttributes() const {
  return hasEntryInfo() ? static_cast<unsigned long>(m_zipStuff->fileInfo.external_fa) : 0;
}

int CZipReader::getCurrentFileUnixMode() const {
  if (!hasEntryInfo() || (m_zipStuff->fileInfo.version >> 8) != 3) return -1;
  int const mode = static_cast<int>((m_zipStuff->fileInfo.external_fa >> 16) & 0xFFFF);
  return mode != 0 ? mode : -1;
}

bool CZipReader::isCurrentFileSymbolicLink() const {
  int const mode = getCurrentFileUnixMode();
  return mode != -1 && (mode & 0170000) == 0120000;
}

std::string CZipReader::readEntryText(bool comment) const {
  if (!hasEntryInfo()) return std::string();
  tal::CMutexLock lock(m_mutex);
  if (!m_zipStuff) return std::string();
  unz_file_info64 const& info = m_zipStuff->fileInfo;
  std::string text(static_cast<std::size_t>(comment ? info.size_file_comment : info.size_file_extra), '\0');
  if (text.empty()) return text;
  if (m_directory) { // the same bytes minizip would read
    std::string_view const stored = comment ? m_directory->comment(m_ordinal) : m_directory->extraField(m_ordinal);
    return std::string(stored);
  }
  int const result = comment ? unzGetCurrentFileInfo64(m_zipStuff->handle, nullptr, nullptr, 0, nullptr, 0, &text[0],
                                                       static_cast<uLong>(text.size()))
                             : unzGetCurrentFileInfo64(m_zipStuff->handle, nullptr, nullptr, 0, &text[0],
                                                       static_cast<uLong>(text.size()), nullptr, 0);
  if (result != UNZ_OK) throwFailure(result, "unzGetCurrentFileInfo64 failed");
  return text;
}

std::string CZipReader::getCurrentFileComment() const { return readEntryText(true); }

std::string CZipReader::getCurrentFileExtraField() const { return readEntryText(false); }

long long CZipReader::getEntryCount() const {
  tal::CMutexLock lock(m_mutex);
  if (!m_zipStuff) return -1;
  unz_global_info64 global;
  int const result = unzGetGlobalInfo64(m_zipStuff->handle, &global);
  if (result != UNZ_OK) throwFailure(result, "unzGetGlobalInfo64 failed");
  return static_cast<long long>(global.number_entry);
}

std::string CZipReader::getArchiveComment() const {
  tal::CMutexLock lock(m_mutex);
  if (!m_zipStuff) return std::string();
  unz_global_info64 global;
  int result = unzGetGlobalInfo64(m_zipStuff->handle, &global);
  if (result != UNZ_OK) throwFailure(result, "unzGetGlobalInfo64 failed");
  std::string comment(static_cast<std::size_t>(global.size_comment) + 1, '\0');
  tal::P<tal::CError> const before = m_zipStuff->io.getLastError();
  result = unzGetGlobalComment(m_zipStuff->handle, &comment[0], static_cast<uLong>(comment.size()));
  // A comment whose stored length runs past the end of the file: what is there, as other readers take it.
  if (result == UNZ_ERRNO && m_zipStuff->io.getLastError() == before && m_zipStuff->io.getOpenStream())
    return readArchiveComment(*m_zipStuff->io.getOpenStream(), m_archiveURI);
  if (result < 0) throwFailure(result, "unzGetGlobalComment failed");
  comment.resize(static_cast<std::size_t>(result));
  return comment;
}

void CZipReader::close() {
  tal::CMutexLock lock(m_mutex);
  if (!m_zipStuff) return;
  m_index.reset();
  currentURI(); // the current URI stays after close: built while the directory is there
  m_directory.reset();
  int const result = unzClose(m_zipStuff->handle);
  tal::P<tal::CError> bridgeError = result == UNZ_OK ? tal::P<tal::CError>() : m_zipStuff->io.getLastError();
  m_zipStuff.reset();
  if (result == UNZ_OK) return;
  tal::CError const fallback(tal::String("unzClose failed"), tal::String(), -1,
                             minizipFailureProps(m_archiveURI, result), nullptr);
  throwMinizipFailure(bridgeError, result, fallback);
}

// ---- Additions: the current entry as stored ---------------------------------------

tal::P<tal::IInStream> CZipReader::openCurrentFileRawStream() {
  if (!isPositioned())
    throw tal::CError(tal::String("CZipReader not positioned at a file. Cannot open stream."), tal::String(), -1,
                      tal::uriProps(m_archiveURI), nullptr);
  tal::CMutexLock lock(m_mutex);
  if (!m_zipStuff)
    throw tal::CIOError(tal::CIOError::StreamClosed, tal::String("ZIP file already closed"),
                        tal::uriProps(m_archiveURI), nullptr);
  if (m_streamOpen)
    throw tal::CError(tal::String("CZipReader cannot open the current file because its stream is still open."),
                      tal::String(), -1, tal::uriProps(m_archiveURI), nullptr);
  ZipStuff& stuff = *m_zipStuff;
  tal::P<tal::CError> const before = stuff.io.getLastError();
  int method = 0;
  int level = 0;
  int result = catchUpMinizip();
  if (result == UNZ_OK) result = unzOpenCurrentFile2(stuff.handle, &method, &level, 1);
  if (result != UNZ_OK) {
    // minizip answers a failed read of the local header with UNZ_BADZIPFILE: the file system's error wins.
    tal::P<tal::CError> const after = stuff.io.getLastError();
    if (after && after.get() != before.get()) after->throwClone();
    tal::CError const error(tal::String("unzOpenCurrentFile2 failed"), tal::String(), -1,
                            minizipFailureProps(m_archiveURI, result), nullptr);
    throwMinizipFailure(after, result, tal::CFileSystemError(tal::CFileSystemError::Unspecified, error));
  }
  tal::CURI const entryURI = m_archiveURI << currentURI();
  tal::P<CFileInZipInStream> stream(
      tal::newObj<CFileInZipInStream>(this, entryURI, static_cast<long long>(stuff.fileInfo.compressed_size)));
  m_streamOpen = true;
  return tal::P<tal::IInStream>(stream);
}

int CZipReader::getCurrentFileFlags() const {
  return hasEntryInfo() ? static_cast<int>(m_zipStuff->fileInfo.flag) : 0;
}

unsigned long CZipReader::getCurrentFileDosDate() const {
  return hasEntryInfo() ? static_cast<unsigned long>(m_zipStuff->fileInfo.dosDate) : 0;
}

unsigned long CZipReader::getCurrentFileInternalAttributes() const {
  return hasEntryInfo() ? static_cast<unsigned long>(m_zipStuff->fileInfo.internal_fa) : 0;
}

std::string CZipReader::getCurrentFileLocalExtraField() const {
  if (!hasEntryInfo()) return std::string();
  tal::CMutexLock lock(m_mutex);
  if (!m_zipStuff) return std::string();
  unzFile const handle = m_zipStuff->handle;
  // minizip reads the local header of an open entry: the entry is opened raw for it when no stream has it open.
  bool const opened = !m_streamOpen;
  if (opened) {
    tal::P<tal::CError> const before = m_zipStuff->io.getLastError();
    int result = catchUpMinizip();
    if (result == UNZ_OK) result = unzOpenCurrentFile2(handle, nullptr, nullptr, 1);
    if (result != UNZ_OK) {
      // minizip answers a failed read of the local header with UNZ_BADZIPFILE: the file system's error wins.
      tal::P<tal::CError> const after = m_zipStuff->io.getLastError();
      if (after && after.get() != before.get()) after->throwClone();
      throwFailure(result, "unzGetLocalExtrafield failed");
    }
  }
  int size = unzGetLocalExtrafield(handle, nullptr, 0);
  std::string extra(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
  if (size > 0) size = unzGetLocalExtrafield(handle, &extra[0], static_cast<unsigned>(extra.size()));
  if (opened) unzCloseCurrentFile(handle); // raw: nothing is checked
  if (size < 0) throwFailure(size, "unzGetLocalExtrafield failed");
  extra.resize(static_cast<std::size_t>(size));
  return extra;
}

tal::P<tal::CError> CZipReader::getLastIOError() const {
  tal::CMutexLock lock(m_mutex);
  return m_zipStuff ? m_zipStuff->io.getLastError() : tal::P<tal::CError>();
}

} // namespace ziputil
