#include "ziputil/CZipWriter.h"

#include "ziputil/format/ArchiveLayout.h"
#include "ziputil/CZipReader.h"
#include "ziputil/bridge/MiniZipExtras.h"
#include "ziputil/bridge/MiniZipFailure.h"
#include "ziputil/writing/EntryEncoding.h"
#include "ziputil/writing/SiblingFiles.h"
#include "ziputil/writing/WriterState.h"

#include <wx/strconv.h>
#include <zip.h>

#include <algorithm>
#include <cstring>
#include <vector>

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

/// Version made by Unix, format 3.0, as Info-ZIP writes it.
constexpr uLong kMadeByUnix = 0x031E;
/// zstd's method number.
constexpr int kZstdMethod = 93;

/// The DOS date and time minizip derives from `date` (zip.c's conversion).
uLong dosDateOf(tm_zip const& date) {
  uLong year = date.tm_year;
  if (year >= 1980)
    year -= 1980;
  else if (year >= 80)
    year -= 80;
  return ((date.tm_mday + 32 * (date.tm_mon + 1) + 512 * year) << 16) |
         (date.tm_sec / 2 + 32 * date.tm_min + 2048 * date.tm_hour);
}

/// The Unix mode recorded for an entry named `name` (UTF-8, as stored).
int unixModeFor(std::string const& name, CZipWriter::EntryOptions const* options) {
  if (options && options->unixMode >= 0) return options->unixMode;
  if (options && options->symbolicLink) return 0120777;
  if (!name.empty() && name.back() == '/') return 040755;
  return 0100644;
}

/// Writes all of `data`, in pieces a stream's int size can carry.
void writeAll(tal::IOutStream& out, std::string const& data) {
  constexpr std::size_t kPiece = 1 << 30;
  for (std::size_t done = 0; done < data.size(); done += kPiece)
    out.write(data.data() + done, static_cast<int>(std::min(kPiece, data.size() - done)), nullptr);
}

void copyStream(tal::IInStream& in, tal::IOutStream& out) {
  std::vector<char> buffer(1 << 20);
  in.seek(0);
  while (int const n = in.readLax(buffer.data(), static_cast<int>(buffer.size()))) out.write(buffer.data(), n, nullptr);
}

/// The 22-byte end-of-central-directory record of an archive without entries.
constexpr unsigned char kEmptyArchive[22] = {0x50, 0x4b, 0x05, 0x06};

} // namespace

CZipWriter::CZipWriter(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password,
                       CompLevel compressionLevel)
    : CZipWriter(fileSystem, archiveURI, password, compressionLevel, Options()) {}

CZipWriter::CZipWriter(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, tal::String const& password,
                       CompLevel compressionLevel, Options const& options)
    : m_fileSystem(fileSystem), m_archiveURI(archiveURI), m_password(password), m_hasPassword(password.length() != 0),
      m_level(compressionLevel), m_entryOpen(false) {
  open(options);
}

void CZipWriter::open(Options const& options) {
  m_options = options;
  auto state = std::make_unique<ArchiveState>(m_fileSystem.get());
  state->atomic = options.atomicReplace || options.omitEntry;
  m_allOrNothing = state->atomic || options.allOrNothing;
  if (options.omitEntry) {
    openRebuilt(std::move(state)); // sets m_state itself: the copying goes through this writer
    return;
  }
  if (state->atomic)
    openCopy(*state);
  else
    openInPlace(*state);
  m_state = std::move(state);
}

void CZipWriter::openMinizip(ArchiveState& state) {
  zlib_filefunc64_def* funcs = state.bridge.getFuncs();
  std::string const path = state.target.toString(true).toUTF8();
  state.handle = zipOpen2_64(path.c_str(), APPEND_STATUS_ADDINZIP, nullptr, funcs);
  if (!state.handle)
    throwOpenFailure(state.bridge.getLastError(),
                     tal::CError(tal::String("zipOpen2_64 failed"), tal::String(), -1, tal::uriProps(m_archiveURI), nullptr));
  // minizip passes over some failures while it looks for the end records;
  // what it then found cannot be trusted.
  if (tal::P<tal::CError> absorbed = state.bridge.getLastError()) {
    ziputil_zipDiscard(state.handle);
    state.handle = nullptr;
    absorbed->throwClone();
  }
}

void CZipWriter::openInPlace(ArchiveState& state) {
  state.target = m_archiveURI;
  openMinizip(state);
  try {
    // What minizip found is checked whole before anything is written, and the
    // part it will overwrite is kept for putting it back. Both are read
    // through the stream minizip opened (the file is opened once), which then
    // goes back to where minizip left it.
    tal::IInOutStream& stream = *state.bridge.getOpenStream();
    long long const position = stream.getPosition();
    ArchiveLayout const layout = readArchiveLayout(stream, m_archiveURI, state.tail);
    stream.seek(position);
    state.oldLength = layout.fileLength;
    state.tailOffset = layout.centralStart;
  } catch (...) {
    ziputil_zipDiscard(state.handle);
    state.handle = nullptr;
    throw;
  }
}

void CZipWriter::openCopy(ArchiveState& state) {
  tal::P<tal::IInOutStream> in =
      m_fileSystem->openStream(m_archiveURI, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags);
  std::string tail;
  readArchiveLayout(*in, m_archiveURI, tail);
  state.target = freshSibling(m_fileSystem.get(), m_archiveURI);
  try {
    tal::P<tal::IInOutStream> out =
        m_fileSystem->openStream(state.target, tal::IFileSystem::AccessReadWrite, tal::IFileSystem::OpenCreate);
    copyStream(*in, *out);
    m_fileSystem->sync(*out); // the copy's old part is as durable as what minizip adds to it
    out->close();
    in->close();
    openMinizip(state);
  } catch (...) {
    removeQuietly(m_fileSystem.get(), state.target);
    throw;
  }
}

void CZipWriter::openRebuilt(std::unique_ptr<ArchiveState> state) {
  unsigned long long listed = 0;
  {
    // Checked as an archive to add to is checked, before anything is written.
    tal::P<tal::IInOutStream> in =
        m_fileSystem->openStream(m_archiveURI, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags);
    std::string tail;
    listed = readArchiveLayout(*in, m_archiveURI, tail).entryCount;
    in->close();
  }
  state->target = freshSibling(m_fileSystem.get(), m_archiveURI);
  try {
    tal::P<tal::IInOutStream> out =
        m_fileSystem->openStream(state->target, tal::IFileSystem::AccessReadWrite, tal::IFileSystem::OpenCreate);
    out->write(kEmptyArchive, sizeof kEmptyArchive, nullptr);
    out->close();
    openMinizip(*state);
  } catch (...) {
    removeQuietly(m_fileSystem.get(), state->target);
    throw;
  }
  m_state = std::move(state);
  try {
    tal::P<CZipReader> reader = tal::newObj<CZipReader>(m_fileSystem.get(), m_archiveURI, tal::String());
    if (m_options.keepArchiveComment) {
      m_options.archiveComment = reader->getArchiveComment();
      m_options.keepArchiveComment = false; // the copy began without it
    }
    unsigned long long walked = 0;
    for (; reader->nextFile(); ++walked)
      if (!m_options.omitEntry(*reader)) copyFileFrom(*reader);
    // A failure minizip passed over is a failure all the same, as for the archive a writer adds to.
    if (tal::P<tal::CError> const passedOver = reader->getLastIOError()) passedOver->throwClone();
    reader->close();
    if (walked != listed) // every entry is copied or left out on purpose, never lost on the way
      throw tal::CError(tal::String::fromUTF8(("Damaged archive: the central directory lists " + std::to_string(listed) +
                                               " entries, but " + std::to_string(walked) + " could be read.")
                                                  .c_str()),
                        tal::String(), -1, tal::uriProps(m_archiveURI), nullptr);
  } catch (...) {
    // A failure of this writer has rolled it back already; any other leaves the copy to remove.
    std::unique_ptr<ArchiveState> left = std::move(m_state);
    if (left) {
      try {
        undoChanges(*left);
      } catch (std::exception&) {
        // the copy could not be removed: the archive itself is untouched all the same
      }
    }
    throw;
  }
}

CZipWriter::~CZipWriter() {
  m_gaveUpFor = nullptr; // the failure that made the writer give up reached its caller already
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

void CZipWriter::undoChanges(ArchiveState& state) {
  if (state.handle) {
    ziputil_zipDiscard(state.handle); // closing minizip's stream may fail: what it wrote is undone below
    state.handle = nullptr;
  }
  if (state.atomic) {
    m_fileSystem->remove(state.target);
    return;
  }
  tal::P<tal::IInOutStream> out =
      m_fileSystem->openStream(state.target, tal::IFileSystem::AccessReadWrite, tal::IFileSystem::OpenNoFlags);
  out->seek(state.tailOffset);
  writeAll(*out, state.tail);
  out->setLength(state.oldLength);
  out->close();
}

void CZipWriter::rollBackAndThrow(tal::P<tal::CError> const& error, bool closing) {
  std::unique_ptr<ArchiveState> state = std::move(m_state); // the writer is closed from here on
  try {
    undoChanges(*state);
  } catch (std::exception& e) {
    error->setProp(tal::String("rollbackError"), tal::String::fromUTF8(e.what()));
  }
  state.reset();
  if (!closing) m_gaveUpFor = error; // the next close() tells that nothing was committed
  error->throwClone();
  __builtin_unreachable(); // throwClone never returns; virtual calls lose the attribute
}

bool CZipWriter::succeeded(int result, tal::P<tal::CError> const& before) const {
  return result == ZIP_OK && m_state->bridge.getLastError() == before;
}

tal::P<tal::CError> CZipWriter::failureOf(int result, tal::P<tal::CError> const& before,
                                          tal::CError const& fallback) const {
  return writeFailure(before, m_state->bridge.getLastError(), result, fallback);
}

void CZipWriter::markEntry() {
  tal::P<tal::CError> const before = m_state->bridge.getLastError();
  int const result = ziputil_zipMarkEntry(m_state->handle, &m_state->entryMark);
  if (succeeded(result, before)) return;
  tal::P<tal::CError> const failure =
      failureOf(result, before,
                tal::CError(tal::String("zipOpenNewFileInZip4_64 failed"), tal::String(), -1,
                            minizipFailureProps(m_archiveURI, result), nullptr));
  if (m_allOrNothing) rollBackAndThrow(failure);
  failure->throwClone(); // nothing of the entry was written
}

bool CZipWriter::undoEntry() noexcept {
  m_state->entryFailure = nullptr;
  tal::P<tal::CError> const before = m_state->bridge.getLastError();
  int const result = ziputil_zipUndoEntry(m_state->handle, &m_state->entryMark);
  return result == ZIP_OK && m_state->bridge.getLastError() == before;
}

void CZipWriter::failEntry(tal::P<tal::CError> const& error) {
  // An entry that cannot be taken back (the seek back failed) leaves minizip
  // writing at an unknown place: the archive is then put back whole instead.
  if (m_allOrNothing || !undoEntry()) rollBackAndThrow(error);
  error->throwClone();
  __builtin_unreachable(); // throwClone never returns; virtual calls lose the attribute
}

void CZipWriter::cutOldTail() {
  tal::IInOutStream* const stream = m_state->bridge.getOpenStream();
  try {
    stream->setLength(stream->getPosition());
  } catch (std::exception& e) {
    rollBackAndThrow(tal::CStdExceptionError::exceptionToError(&e)->clone(), true);
  }
}

void CZipWriter::entryMethod(EntryOptions const* options, int& method, int& level) const {
  method = Z_DEFLATED;
  level = static_cast<int>(m_level);
  if (options && options->method == EntryOptions::Stored) {
    method = 0;
    level = 0;
  } else if (options && options->method == EntryOptions::Deflated) {
    level = options->level;
  }
}

std::unique_ptr<CEntryEncoding> CZipWriter::encodingFor(std::string const& name, EntryOptions const* options,
                                                        RawClose const* raw) const {
  bool const folder = !name.empty() && name.back() == '/';
  int strength = 0;
  if (m_hasPassword && !folder) {
    switch (m_options.encryption) {
    case Encryption::Aes128: strength = 1; break;
    case Encryption::Aes192: strength = 2; break;
    case Encryption::Aes256: strength = 3; break;
    default: break;
    }
  }
  // data written raw comes deflated or stored by CParallelDeflater, which takes no zstd entries
  bool const zstd = !raw && options && options->method == EntryOptions::Zstd;
  if (strength == 0 && !zstd) return nullptr;
  int method = kZstdMethod;
  int level = zstd ? options->level : 0;
  if (!zstd) entryMethod(options, method, level);
  try {
    // an entry written raw comes compressed already: it is only encrypted
    return std::make_unique<CEntryEncoding>(method, level, strength, m_password.toUTF8(), raw != nullptr);
  } catch (std::exception const& e) {
    throw tal::CError(tal::String(e.what()), tal::String(), -1, tal::uriProps(m_archiveURI), nullptr);
  }
}

int CZipWriter::openEntry(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time,
                          EntryOptions const* options, RawClose const* raw, CEntryEncoding const* encoding) {
  std::string const name = relativeURIInArchive.toNormalized().getPath().toUTF8();
  zip_fileinfo info = fileInfoFor(time);
  std::string const password = m_hasPassword ? m_password.toUTF8() : std::string();
  int method = Z_DEFLATED;
  int level = 0;
  entryMethod(options, method, level);
  // minizip marks a deflated entry as text in its internal attributes when deflate took the data for text;
  // in raw mode it cannot see that, so the attributes come with the data.
  if (raw) info.internal_fa = raw->internalAttributes;
  uLong versionMadeBy = 0;
  if (m_options.madeByUnix) {
    versionMadeBy = kMadeByUnix;
    info.external_fa = static_cast<uLong>(unixModeFor(name, options)) << 16;
    if (!name.empty() && name.back() == '/') info.external_fa |= 0x10; // the MS-DOS folder bit, as other tools set it
  }
  int flags = 0x800;
  uLong crcForCrypting = 0;
  char const* comment = options ? options->comment.c_str() : "";
  if (encoding) { // compressed and encrypted here: minizip stores the bytes raw
    std::string const& extra = encoding->extraField();
    uInt const extraSize = static_cast<uInt>(extra.size());
    return zipOpenNewFileInZip4_64(m_state->handle, name.c_str(), &info, extra.data(), extraSize, extra.data(),
                                   extraSize, comment, encoding->storedMethod(), level, 1, -MAX_WBITS, DEF_MEM_LEVEL,
                                   Z_DEFAULT_STRATEGY, nullptr, 0, versionMadeBy,
                                   static_cast<uLong>(flags | encoding->flags()), 1);
  }
  if (m_options.interoperableEncryption) {
    flags |= 8; // streamed: the check byte comes from the time, and a data descriptor follows the data
    crcForCrypting = (dosDateOf(info.tmz_date) & 0xFFFF) << 16;
  }
  // with AES the entries that come here, folders, are not encrypted
  bool const traditional = m_hasPassword && m_options.encryption != Encryption::Aes128 &&
                           m_options.encryption != Encryption::Aes192 && m_options.encryption != Encryption::Aes256;
  return zipOpenNewFileInZip4_64(m_state->handle, name.c_str(), &info, nullptr, 0, nullptr, 0, comment, method, level,
                                 raw ? 1 : 0,
                                 -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY,
                                 traditional ? password.c_str() : nullptr, crcForCrypting, versionMadeBy, flags, 1);
}

tal::P<tal::IOutStream> CZipWriter::beginAddFile(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time) {
  return beginEntry(relativeURIInArchive, time, nullptr);
}

tal::P<tal::IOutStream> CZipWriter::beginAddFile(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time,
                                                 EntryOptions const& options) {
  return beginEntry(relativeURIInArchive, time, &options);
}

tal::P<tal::IOutStream> CZipWriter::beginEntry(tal::CURI const& relativeURIInArchive, tal::CTimeFields const& time,
                                               EntryOptions const* options, RawClose const* raw) {
  tal::CMutexLock lock(m_mutex);
  checkCanBegin(relativeURIInArchive);
  bool const badZstdLevel = options && options->method == EntryOptions::Zstd && options->level != -1 &&
                            (options->level < 1 || options->level > 22);
  if (badZstdLevel ||
      (options && options->method == EntryOptions::Deflated && (options->level < -1 || options->level > 9))) {
    tal::CProps props;
    props["level"] = tal::toString(options->level);
    throw tal::CInvalidArgError(tal::String("CZipWriter::beginAddFile"), tal::String("level is invalid"), props);
  }
  tal::CURI const entryURI = m_archiveURI << relativeURIInArchive;
  std::unique_ptr<CEntryEncoding> encoding =
      encodingFor(relativeURIInArchive.toNormalized().getPath().toUTF8(), options, raw);
  markEntry();
  tal::P<tal::CError> const before = m_state->bridge.getLastError();
  int const result = openEntry(relativeURIInArchive, time, options, raw, encoding.get());
  if (!succeeded(result, before))
    failEntry(failureOf(result, before,
                        tal::CError(tal::String("zipOpenNewFileInZip4_64 failed"), tal::String(), -1,
                                    minizipFailureProps(m_archiveURI, result), nullptr)));
  tal::P<CFileInZipOutStream> stream(tal::newObj<CFileInZipOutStream>(this, entryURI));
  if (raw) {
    stream->m_raw = true;
    stream->m_rawCRC = raw->crc32;
    stream->m_rawSize = raw->uncompressedSize;
  }
  stream->m_encoding = std::move(encoding);
  m_entryOpen = true;
  return tal::P<tal::IOutStream>(stream);
}

// ---- Additions: entries written as stored ------------------------------------------

namespace {

/// `extra` without its Zip64 records (header ID 1); a record that runs past
/// the end is kept as it is, with what follows.
std::string withoutZip64(std::string const& extra) {
  std::string kept;
  std::size_t at = 0;
  while (at + 4 <= extra.size()) {
    unsigned const id = static_cast<unsigned char>(extra[at]) | static_cast<unsigned char>(extra[at + 1]) << 8;
    std::size_t const size = static_cast<unsigned char>(extra[at + 2]) | static_cast<unsigned char>(extra[at + 3]) << 8;
    if (at + 4 + size > extra.size()) break;
    if (id != 1) kept.append(extra, at, 4 + size);
    at += 4 + size;
  }
  kept.append(extra, at, std::string::npos);
  return kept;
}

[[noreturn]] void throwRawArgument(char const* detail, tal::CProps const& props) {
  throw tal::CInvalidArgError(tal::String("CZipWriter::beginAddRawFile"), tal::String(detail), props);
}

/// The general-purpose flags a raw entry keeps.
constexpr int kRawFlags = 0x1 | 0x6 | 0x8 | 0x800;
/// Room minizip's Zip64 record takes in a local extra field.
constexpr std::size_t kZip64LocalRecord = 20;

} // namespace

tal::P<tal::IOutStream> CZipWriter::beginAddRawFile(RawEntry const& entry) {
  return tal::P<tal::IOutStream>(beginRaw(entry));
}

tal::P<CZipWriter::CFileInZipOutStream> CZipWriter::beginRaw(RawEntry const& entry) {
  tal::CMutexLock lock(m_mutex);
  checkCanBegin(tal::CURI(tal::String("-"))); // closed, entry open: the name is checked below
  if (entry.name.empty() || entry.name.size() > 0xFFFF || entry.name.find('\0') != std::string::npos) {
    tal::CProps props;
    props["name"] = tal::String::fromUTF8(entry.name.c_str());
    throwRawArgument("name is invalid", props);
  }
  if (entry.method < 0 || entry.method > 0xFFFF) {
    tal::CProps props;
    props["method"] = tal::toString(entry.method);
    throwRawArgument("method is invalid", props);
  }
  if (entry.comment.size() > 0xFFFF || entry.comment.find('\0') != std::string::npos) {
    tal::CProps props;
    props["comment"] = tal::String::fromUTF8(entry.comment.c_str());
    throwRawArgument("comment is invalid", props);
  }
  std::string const local = withoutZip64(entry.localExtraField);
  std::string const central = withoutZip64(entry.centralExtraField);
  if (local.size() > 0xFFFF - kZip64LocalRecord || central.size() > 0xFFFF)
    throwRawArgument("extra field is invalid", tal::CProps());
  zip_fileinfo info = fileInfoFor(entry.time);
  info.dosDate = entry.dosDate;
  info.internal_fa = entry.internalAttributes;
  info.external_fa = entry.externalAttributes;
  tal::CURI const entryURI =
      m_archiveURI << tal::CURI(tal::String(), tal::String::fromUTF8(entry.name.c_str()), nullptr, nullptr, nullptr, -1,
                                nullptr, nullptr);
  markEntry();
  tal::P<tal::CError> const before = m_state->bridge.getLastError();
  // The level only sets deflate's option bits, which come with the flags here: 6 sets none.
  int const result = zipOpenNewFileInZip4_64(
      m_state->handle, entry.name.c_str(), &info, local.empty() ? nullptr : local.data(),
      static_cast<uInt>(local.size()), central.empty() ? nullptr : central.data(), static_cast<uInt>(central.size()),
      entry.comment.c_str(), entry.method, 6, 1, -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY, nullptr, 0,
      static_cast<uLong>(entry.versionMadeBy) & 0xFFFF, static_cast<uLong>(entry.flags & kRawFlags), 1);
  if (!succeeded(result, before))
    failEntry(failureOf(result, before,
                        tal::CError(tal::String("zipOpenNewFileInZip4_64 failed"), tal::String(), -1,
                                    minizipFailureProps(m_archiveURI, result), nullptr)));
  tal::P<CFileInZipOutStream> stream(tal::newObj<CFileInZipOutStream>(this, entryURI));
  stream->m_raw = true;
  stream->m_rawCRC = entry.crc32;
  stream->m_rawSize = entry.uncompressedSize;
  m_entryOpen = true;
  return stream;
}

void CZipWriter::copyFileFrom(CZipReader& reader) {
  RawEntry entry;
  entry.name = reader.getCurrentFileRawName();
  entry.dosDate = reader.getCurrentFileDosDate();
  entry.method = reader.getCurrentFileMethod();
  entry.flags = reader.getCurrentFileFlags();
  entry.crc32 = reader.getCurrentFileCRC32();
  entry.uncompressedSize = static_cast<unsigned long long>(reader.getCurrentFileUncompressedSize());
  entry.internalAttributes = reader.getCurrentFileInternalAttributes();
  entry.externalAttributes = reader.getCurrentFileExternalAttributes();
  entry.versionMadeBy = reader.getCurrentFileVersionMadeBy();
  entry.comment = reader.getCurrentFileComment();
  entry.centralExtraField = reader.getCurrentFileExtraField();
  entry.localExtraField = reader.getCurrentFileLocalExtraField();
  tal::P<tal::IInStream> in = reader.openCurrentFileRawStream();
  tal::P<CFileInZipOutStream> out;
  try {
    out = beginRaw(entry);
    std::vector<char> buffer(1 << 16);
    while (int const n = in->readLax(buffer.data(), static_cast<int>(buffer.size()))) out->write(buffer.data(), n, nullptr);
    out->close();
  } catch (std::exception& e) {
    tal::P<tal::CError> const error = tal::CStdExceptionError::exceptionToError(&e)->clone();
    try {
      in->close();
    } catch (std::exception&) {
      // the first failure is the one reported
    }
    if (out) {
      tal::CMutexLock lock(m_mutex);
      bool const unfinished = out->m_open;
      if (unfinished) out->detach();
      // The entry was left unfinished (by the reader's failure, or by the writer's own in a write): it is taken
      // back as after the writer's own failures. (A failed close has taken it back already.)
      if (unfinished && m_state) failEntry(error);
    }
    throw;
  }
  in->close();
}

void CZipWriter::abandonEntry(tal::P<tal::IOutStream>& stream) {
  if (!stream) return;
  {
    tal::CMutexLock lock(m_mutex);
    auto* entry = dynamic_cast<CFileInZipOutStream*>(stream.get());
    if (entry && entry->m_owner == this && entry->m_open) entry->detach();
  }
  stream = nullptr;
}

std::function<bool(CZipReader& reader)> CZipWriter::omitNamed(std::vector<tal::CURI> const& names,
                                                              std::shared_ptr<std::vector<std::string>> omitted) {
  auto keys = std::make_shared<std::vector<tal::String>>();
  for (tal::CURI const& name : names)
    keys->push_back(CZipReader::ZipStuff::pathInArchiveToSafeURI(name.getPath()).getPath());
  return [keys, omitted](CZipReader& reader) {
    tal::String const path = reader.getCurrentFileRelativeURI().getPath();
    for (tal::String const& key : *keys) {
      if (key == path) {
        if (omitted) omitted->push_back(reader.getCurrentFileRawName());
        return true;
      }
    }
    return false;
  };
}

void CZipWriter::close() {
  tal::CMutexLock lock(m_mutex);
  if (!m_state) {
    // A writer that gave up after a failure committed nothing: the first close says so.
    tal::P<tal::CError> const gaveUpFor = std::move(m_gaveUpFor);
    if (gaveUpFor) gaveUpFor->throwClone();
    return;
  }
  // An entry whose write failed is not finished into the archive: it is taken back first.
  if (tal::P<tal::CError> const failed = m_state->entryFailure; failed && !undoEntry()) rollBackAndThrow(failed, true);
  cutOldTail();
  m_state->bridge.setSyncOnClose(m_state->atomic);
  tal::P<tal::CError> const before = m_state->bridge.getLastError();
  // zipClose writes the comment it read at open when given none.
  int const result =
      zipClose(m_state->handle, m_options.keepArchiveComment ? nullptr : m_options.archiveComment.c_str());
  m_state->handle = nullptr; // zipClose lets go of it, also when it fails
  if (!succeeded(result, before))
    rollBackAndThrow(failureOf(result, before,
                               tal::CError(tal::String("zipClose failed"), tal::String(), -1,
                                           minizipFailureProps(m_archiveURI, result), nullptr)),
                     true);
  if (m_state->atomic) {
    try {
      m_fileSystem->move(m_state->target, m_archiveURI);
    } catch (std::exception& e) {
      rollBackAndThrow(tal::CStdExceptionError::exceptionToError(&e)->clone(), true);
    }
  }
  m_state.reset();
}

void CZipWriter::discard() {
  tal::CMutexLock lock(m_mutex);
  m_gaveUpFor = nullptr; // given up on request: nothing more to tell
  if (!m_state) return;
  std::unique_ptr<ArchiveState> state = std::move(m_state);
  undoChanges(*state);
}

void createEmptyArchive(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI) {
  int const flags = tal::IFileSystem::OpenCreate;
  tal::P<tal::IInOutStream> stream = fileSystem->openStream(archiveURI, tal::IFileSystem::AccessReadWrite, flags);
  stream->setLength(0);
  stream->write(kEmptyArchive, sizeof kEmptyArchive, nullptr);
  stream->close();
}

} // namespace ziputil
