#include "ziputil/CMiniZipIO.h"

#include <wx/strconv.h>

namespace ziputil {
namespace {

CMiniZipIO& self(voidpf opaque) { return *static_cast<CMiniZipIO*>(opaque); }

CMiniZipIO::StreamHandle& handleOf(voidpf stream) { return *static_cast<CMiniZipIO::StreamHandle*>(stream); }

tal::CURI uriFromFileName(void const* filename) {
  wxMBConvUTF8 converter;
  wxString const name(static_cast<char const*>(filename), converter);
  return tal::CURI(tal::String(name));
}

} // namespace

CMiniZipIO::CMiniZipIO(tal::IFileSystem* fileSystem) : m_fileSystem(fileSystem), m_funcs() {
  m_funcs.zopen64_file = &CMiniZipIO::open;
  m_funcs.zread_file = &CMiniZipIO::read;
  m_funcs.zwrite_file = &CMiniZipIO::write;
  m_funcs.ztell64_file = &CMiniZipIO::tell;
  m_funcs.zseek64_file = &CMiniZipIO::seek;
  m_funcs.zclose_file = &CMiniZipIO::close;
  m_funcs.zerror_file = &CMiniZipIO::testError;
  m_funcs.opaque = this;
}

CMiniZipIO::~CMiniZipIO() {
  m_lastError = nullptr;
  m_fileSystem = nullptr;
}

zlib_filefunc64_def* CMiniZipIO::getFuncs() { return &m_funcs; }

tal::P<tal::CError> CMiniZipIO::getLastError() const { return m_lastError; }

void CMiniZipIO::recordError(std::exception& e) {
  tal::P<tal::CError> converted = tal::CStdExceptionError::exceptionToError(&e);
  m_lastError = converted->clone();
}

void CMiniZipIO::modeToAccess(int mode, int& access, int& flags) {
  bool const create = (mode & ZLIB_FILEFUNC_MODE_CREATE) != 0;
  if ((mode & ZLIB_FILEFUNC_MODE_READWRITEFILTER) == ZLIB_FILEFUNC_MODE_READ) {
    access = tal::IFileSystem::AccessRead;
    flags = create ? tal::IFileSystem::OpenCreateForRead : tal::IFileSystem::OpenNoFlags;
  } else {
    access = tal::IFileSystem::AccessReadWrite;
    flags = create ? tal::IFileSystem::OpenCreate : tal::IFileSystem::OpenNoFlags;
  }
}

voidpf ZCALLBACK CMiniZipIO::open(voidpf opaque, void const* filename, int mode) {
  try {
    int access = 0;
    int flags = 0;
    modeToAccess(mode, access, flags);
    tal::CURI const uri = uriFromFileName(filename);
    tal::P<tal::IInOutStream> stream = self(opaque).m_fileSystem->openStream(uri, access, flags);
    StreamHandle* handle = new StreamHandle;
    handle->stream = stream;
    self(opaque).m_opened = handle;
    return handle;
  } catch (std::exception& e) {
    self(opaque).recordError(e);
    return nullptr;
  }
}

uLong ZCALLBACK CMiniZipIO::read(voidpf opaque, voidpf stream, void* buf, uLong size) {
  StreamHandle& handle = handleOf(stream);
  try {
    return static_cast<uLong>(static_cast<long>(handle.stream->readLax(buf, static_cast<int>(size))));
  } catch (std::exception& e) {
    handle.error = true;
    self(opaque).recordError(e);
    return 0;
  }
}

uLong ZCALLBACK CMiniZipIO::write(voidpf opaque, voidpf stream, void const* buf, uLong size) {
  StreamHandle& handle = handleOf(stream);
  try {
    handle.stream->write(buf, static_cast<int>(size), nullptr);
    return size;
  } catch (std::exception& e) {
    handle.error = true;
    self(opaque).recordError(e);
    return 0;
  }
}

ZPOS64_T ZCALLBACK CMiniZipIO::tell(voidpf opaque, voidpf stream) {
  try {
    return static_cast<ZPOS64_T>(handleOf(stream).stream->getPosition());
  } catch (std::exception& e) {
    self(opaque).recordError(e);
    return static_cast<ZPOS64_T>(-1);
  }
}

long ZCALLBACK CMiniZipIO::seek(voidpf opaque, voidpf stream, ZPOS64_T offset, int origin) {
  try {
    tal::IInOutStream& s = *handleOf(stream).stream;
    long long target = static_cast<long long>(offset);
    if (origin == ZLIB_FILEFUNC_SEEK_END) {
      long long const length = s.getLength();
      if (length == -1) {
        tal::CProps props;
        props["uri"] = s.getURI().toString(true);
        throw tal::CError(tal::String("Cannot seek from end: stream length is unknown."), tal::String(), -1, props,
                          nullptr);
      }
      target += length;
    } else if (origin == ZLIB_FILEFUNC_SEEK_CUR) {
      target += s.getPosition();
    }
    s.seek(target);
    return 0;
  } catch (std::exception& e) {
    self(opaque).recordError(e);
    return -1;
  }
}

int ZCALLBACK CMiniZipIO::close(voidpf opaque, voidpf stream) {
  StreamHandle* handle = static_cast<StreamHandle*>(stream);
  if (self(opaque).m_opened == handle) self(opaque).m_opened = nullptr;
  int result = 0;
  if (self(opaque).m_syncOnClose) {
    try {
      self(opaque).m_fileSystem->sync(*handle->stream);
    } catch (std::exception& e) {
      self(opaque).recordError(e);
      result = -1;
    }
  }
  try {
    handle->stream->close();
  } catch (std::exception& e) {
    self(opaque).recordError(e);
    result = -1;
  }
  try {
    handle->stream = nullptr;
  } catch (...) {
    // The stream's destructor failed; the handle goes regardless.
  }
  delete handle;
  return result;
}

int ZCALLBACK CMiniZipIO::testError(voidpf, voidpf stream) { return handleOf(stream).error ? 1 : 0; }

} // namespace ziputil
