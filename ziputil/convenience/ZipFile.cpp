#include "ziputil/ZipFile.h"

#include "tal/Error.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/Names.h"
#include "ziputil/writing/SiblingFiles.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <vector>

#include <sys/stat.h>

namespace ziputil {
namespace {

constexpr int kChunk = 64 * 1024;
/// read() reserves at most this much ahead of the bytes it has: a damaged size
/// field must not make it allocate what the entry does not hold.
constexpr long long kMaxReserve = 64LL << 20;

tal::CTimeFields timeFieldsOf(std::time_t seconds) {
  struct tm local;
  if (!localtime_r(&seconds, &local)) return tal::CTimeFields();
  return tal::CTimeFields(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                          local.tm_sec, 0.0, 0, false);
}

tal::CTimeFields orNow(tal::CTimeFields const& time) {
  return time.isEmpty() ? timeFieldsOf(std::time(nullptr)) : time;
}

void writeAll(tal::IOutStream& out, std::string_view data) {
  while (!data.empty()) {
    int const n = static_cast<int>(std::min<std::size_t>(data.size(), 1u << 30));
    out.write(data.data(), n, nullptr);
    data.remove_prefix(static_cast<std::size_t>(n));
  }
}

/// The entry name of a folder: `name` ending in "/".
std::string folderName(std::string_view name) {
  std::string folder(name);
  if (folder.empty() || folder.back() != '/') folder += '/';
  return folder;
}

/// Makes the file at `uri` durable.
void syncFile(tal::IFileSystem& fileSystem, tal::CURI const& uri) {
  tal::P<tal::IInOutStream> stream = fileSystem.openStream(uri, tal::IFileSystem::AccessReadWrite, 0);
  try {
    fileSystem.sync(*stream);
  } catch (...) {
    try {
      stream->close();
    } catch (...) {
      // the sync's failure is the one to report
    }
    throw;
  }
  stream->close();
}

} // namespace

tal::P<CZipFile> CZipFile::open(std::string_view localPath, ZipFileMode mode, ZipFileOptions const& options) {
  tal::P<tal::IFileSystem> fileSystem = tal::newObj<tal::CLocalFileSystem>();
  return open(fileSystem.get(), localFileURI(localPath), mode, options);
}

tal::P<CZipFile> CZipFile::open(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, ZipFileMode mode,
                                ZipFileOptions const& options) {
  return tal::newObj<CZipFile>(fileSystem, archiveURI, mode, options);
}

CZipFile::CZipFile(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI, ZipFileMode mode,
                   ZipFileOptions const& options)
    : m_fileSystem(fileSystem), m_uri(archiveURI), m_target(archiveURI), m_uncaughtAtOpen(std::uncaught_exceptions()) {
  try {
    if (options.level < -1 || options.level > 9) {
      tal::CProps props;
      props[tal::String("level")] = tal::toString(options.level);
      throw tal::CInvalidArgError(tal::String("ziputil::CZipFile::open"), tal::String("level is invalid"), props);
    }
    tal::String const password = tal::String::fromUTF8(options.password);
    if (mode == ZipFileMode::Read) {
      CZipReader::Options readerOptions;
      readerOptions.verifyEntries = options.verifyEntries;
      m_reader = tal::newObj<CZipReader>(fileSystem, archiveURI, password, readerOptions);
    } else {
      openWriter(mode, options);
    }
  } catch (...) {
    rethrowWithPlace(std::string_view());
  }
}

void CZipFile::openWriter(ZipFileMode mode, ZipFileOptions const& options) {
  tal::IFileSystem& fileSystem = *m_fileSystem;
  bool const exists = fileSystem.exists(m_uri);
  if (mode == ZipFileMode::Create && exists) {
    tal::CError const error(tal::String("The ZIP archive already exists."), tal::String(), -1, tal::uriProps(m_uri), nullptr);
    throw tal::CFileSystemError(tal::CFileSystemError::AlreadyExists, error);
  }
  CZipWriter::Options writerOptions;
  writerOptions.madeByUnix = true;
  writerOptions.allOrNothing = true; // a failed entry gives up everything this object wrote
  writerOptions.interoperableEncryption = !options.password.empty();
  writerOptions.encryption = options.encryption;
  bool const adding = mode == ZipFileMode::Append && exists;
  if (adding) {
    writerOptions.atomicReplace = options.atomic;
    writerOptions.keepArchiveComment = true;
  } else {
    // A new archive: written in place when nothing is there, else beside the
    // old file, which it replaces at close.
    if (exists) {
      m_target = freshSibling(&fileSystem, m_uri);
      m_moveTargetAtClose = true;
    }
    createEmptyArchive(&fileSystem, m_target);
    m_removeTargetOnFailure = true;
  }
  try {
    m_writer = tal::newObj<CZipWriter>(&fileSystem, m_target, tal::String::fromUTF8(options.password),
                                       static_cast<CZipWriter::CompLevel>(options.level), writerOptions);
  } catch (...) {
    if (m_removeTargetOnFailure) removeQuietly(&fileSystem, m_target);
    m_removeTargetOnFailure = false;
    throw;
  }
}

CZipFile::~CZipFile() {
  m_gaveUpFor = nullptr; // that failure reached its caller already
  try {
    if (std::uncaught_exceptions() > m_uncaughtAtOpen)
      discard();
    else
      close();
  } catch (std::exception& e) {
    tal::onExceptionInDestructorIgnored("ziputil::CZipFile", e, true);
  }
}

void CZipFile::checkOpen(Kind kind) const {
  if (!m_reader && !m_writer) throw tal::CIOError(tal::CIOError::StreamClosed, tal::String("ZIP file already closed"), tal::uriProps(m_uri), nullptr);
  if (kind == Kind::Reading && !m_reader)
    throw tal::CError(tal::String("The ZIP archive is open for writing."), tal::String(), -1, tal::uriProps(m_uri), nullptr);
  if (kind == Kind::Writing && !m_writer)
    throw tal::CError(tal::String("The ZIP archive is open for reading."), tal::String(), -1, tal::uriProps(m_uri), nullptr);
}

void CZipFile::goTo(std::string_view name) {
  if (m_reader->tryGoToFile(entryURI(name))) return;
  tal::CProps props = tal::uriProps(m_uri);
  props[tal::String("name")] = tal::String::fromUTF8(name.data(), name.size());
  tal::CError const error(tal::String("No such entry in the ZIP archive."), tal::String(), -1, props, nullptr);
  throw tal::CFileSystemError(tal::CFileSystemError::NotFound, error);
}

std::vector<EntryInfo> CZipFile::entries() {
  tal::CMutexLock lock(m_mutex);
  try {
    checkOpen(Kind::Reading);
    std::vector<EntryInfo> result;
    m_reader->rewind();
    while (m_reader->nextFile()) result.push_back(describeCurrentEntry(*m_reader));
    return result;
  } catch (...) {
    rethrowWithPlace(std::string_view());
  }
}

bool CZipFile::contains(std::string_view name) {
  tal::CMutexLock lock(m_mutex);
  try {
    checkOpen(Kind::Reading);
    return m_reader->tryGoToFile(entryURI(name));
  } catch (...) {
    rethrowWithPlace(name);
  }
}

EntryInfo CZipFile::info(std::string_view name) {
  tal::CMutexLock lock(m_mutex);
  try {
    checkOpen(Kind::Reading);
    goTo(name);
    return describeCurrentEntry(*m_reader);
  } catch (...) {
    rethrowWithPlace(name);
  }
}

std::string CZipFile::read(std::string_view name) {
  tal::CMutexLock lock(m_mutex);
  try {
    checkOpen(Kind::Reading);
    goTo(name);
    std::string data;
    data.reserve(static_cast<std::size_t>(std::clamp(m_reader->getCurrentFileUncompressedSize(), 0LL, kMaxReserve)));
    tal::P<tal::IInStream> in = m_reader->openCurrentFileStream();
    std::vector<char> buffer(kChunk);
    while (int const n = in->readLax(buffer.data(), kChunk)) data.append(buffer.data(), static_cast<std::size_t>(n));
    in->close();
    return data;
  } catch (...) {
    rethrowWithPlace(name);
  }
}

tal::P<tal::IInStream> CZipFile::openEntry(std::string_view name) {
  tal::CMutexLock lock(m_mutex);
  try {
    checkOpen(Kind::Reading);
    goTo(name);
    return m_reader->openCurrentFileStream();
  } catch (...) {
    rethrowWithPlace(name);
  }
}

tal::P<tal::IOutStream> CZipFile::beginEntry(std::string_view name, CZipWriter::EntryOptions const& options,
                                             tal::CTimeFields const& time) {
  checkOpen(Kind::Writing);
  return m_writer->beginAddFile(entryURI(name), orNow(time), options);
}

void CZipFile::add(std::string_view name, std::string_view data, CZipWriter::EntryOptions const& options,
                   tal::CTimeFields const& time) {
  tal::CMutexLock lock(m_mutex);
  tal::P<tal::IOutStream> out;
  try {
    out = beginEntry(name, options, time);
    writeAll(*out, data);
    out->close();
  } catch (...) {
    failWriting(name, out);
  }
}

void CZipFile::addDirectory(std::string_view name) {
  tal::CMutexLock lock(m_mutex);
  tal::P<tal::IOutStream> out;
  try {
    out = beginEntry(folderName(name), CZipWriter::EntryOptions(), tal::CTimeFields());
    out->close();
  } catch (...) {
    failWriting(name, out);
  }
}

void CZipFile::addFile(std::string_view name, std::string_view localPath) {
  tal::CMutexLock lock(m_mutex);
  tal::P<tal::IOutStream> out;
  try {
    checkOpen(Kind::Writing);
    tal::CURI const uri = localFileURI(localPath);
    std::string const path = tal::CLocalFileSystem::localPath(uri);
    tal::P<tal::IFileSystem> const local = tal::newObj<tal::CLocalFileSystem>();
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
      // Opening gives the operating system's reason in the file system's own error.
      local->openStream(uri, tal::IFileSystem::AccessRead, 0);
    }
    CZipWriter::EntryOptions options;
    options.unixMode = static_cast<int>(st.st_mode & 0177777);
    tal::CTimeFields const time = timeFieldsOf(st.st_mtime);
    if (S_ISDIR(st.st_mode)) {
      out = beginEntry(folderName(name), options, time);
      out->close();
      return;
    }
    if (!S_ISREG(st.st_mode)) {
      tal::CProps props;
      props[tal::String("path")] = uri.getPath();
      throw tal::CInvalidArgError(tal::String("ziputil::CZipFile::addFile"),
                                  tal::String("path is not a regular file or folder"), props);
    }
    tal::P<tal::IInOutStream> in = local->openStream(uri, tal::IFileSystem::AccessRead, 0);
    out = beginEntry(name, options, time);
    std::vector<char> buffer(kChunk);
    while (int const n = in->readLax(buffer.data(), kChunk)) out->write(buffer.data(), n, nullptr);
    out->close();
    out = nullptr;
    in->close();
  } catch (...) {
    failWriting(name, out);
  }
}

tal::P<tal::IOutStream> CZipFile::openNewEntry(std::string_view name, CZipWriter::EntryOptions const& options,
                                               tal::CTimeFields const& time) {
  tal::CMutexLock lock(m_mutex);
  try {
    return beginEntry(name, options, time);
  } catch (...) {
    rethrowWithPlace(name);
  }
}

void CZipFile::finishWriting() {
  tal::P<CZipWriter> writer = std::move(m_writer);
  try {
    writer->close();
    if (m_moveTargetAtClose) {
      syncFile(*m_fileSystem, m_target);
      m_fileSystem->move(m_target, m_uri);
    }
  } catch (...) {
    if (m_removeTargetOnFailure) removeQuietly(m_fileSystem.get(), m_target);
    throw;
  }
}

void CZipFile::failWriting(std::string_view name, tal::P<tal::IOutStream>& out) {
  if (out) {
    // The failure came after the entry was begun (its source or its bytes): nothing of this object's writing is
    // kept. The entry's stream then finds the archive closed.
    giveUpWriting();
    try {
      out->close();
    } catch (...) {
      // the archive was given up: the failure above is the one to report
    }
    out = nullptr;
    try {
      rethrowWithPlace(name);
    } catch (...) {
      m_gaveUpFor = std::current_exception();
      throw;
    }
  }
  rethrowWithPlace(name);
}

void CZipFile::giveUpWriting() noexcept {
  tal::P<CZipWriter> writer = std::move(m_writer);
  try {
    writer->discard();
  } catch (...) {
    // the file is removed below, or was put back as well as the writer could
  }
  if (m_removeTargetOnFailure) removeQuietly(m_fileSystem.get(), m_target);
}

void CZipFile::close() { end(true); }

void CZipFile::discard() { end(false); }

void CZipFile::end(bool commit) {
  tal::CMutexLock lock(m_mutex);
  // After a failure gave up what was written, the first close() says that nothing was committed.
  std::exception_ptr const gaveUpFor = std::move(m_gaveUpFor);
  m_gaveUpFor = nullptr;
  if (gaveUpFor && commit) std::rethrow_exception(gaveUpFor);
  try {
    if (m_reader) {
      tal::P<CZipReader> reader = std::move(m_reader);
      reader->close();
    } else if (m_writer && commit) {
      finishWriting();
    } else if (m_writer) {
      giveUpWriting();
    }
  } catch (...) {
    rethrowWithPlace(std::string_view());
  }
}

void CZipFile::rethrowWithPlace(std::string_view name) const {
  std::exception_ptr const current = std::current_exception();
  try {
    std::rethrow_exception(current);
  } catch (tal::CError const& error) {
    std::string place;
    try {
      place = m_uri.getScheme() == tal::String("file") ? tal::CLocalFileSystem::localPath(m_uri)
                                                       : m_uri.toString(false).toUTF8();
    } catch (...) {
      place = m_uri.toString(false).toUTF8();
    }
    tal::String where = tal::String::fromUTF8(place);
    if (!name.empty()) where += tal::String(": ") + textFromBytes(name);
    tal::P<tal::CError> copy = error.clone();
    copy->setMessage(error.getMessage() + tal::String(" (") + where + tal::String(")"));
    copy->throwClone();
  }
  std::rethrow_exception(current); // not reached: the try block throws
}

} // namespace ziputil
