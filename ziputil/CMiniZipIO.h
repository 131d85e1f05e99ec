// ziputil::CMiniZipIO: minizip's table of file functions over a tal::IFileSystem.
#pragma once

#include "tal/Stream.h"

#include "ziputil/minizip/ioapi.h"

namespace ziputil {

/// Fills minizip's zlib_filefunc64_def so that every open, read, write, tell,
/// seek and close minizip makes goes through a tal::IFileSystem and the
/// stream it opens. No exception ever leaves a callback: a std::exception is
/// converted (CStdExceptionError::exceptionToError), cloned and kept as the
/// last error, and the callback returns minizip's failure value. After a
/// minizip call fails, the caller rethrows getLastError() with throwClone().
///
/// One object serves one archive; it has no lock of its own (the archive's
/// owner serialises minizip calls). The table stays valid while the object lives.
class CMiniZipIO : public tal::CBase {
public:
  /// Keeps a counted reference to `fileSystem` (null is kept as null).
  explicit CMiniZipIO(tal::IFileSystem* fileSystem);
  ~CMiniZipIO() override;
  CMiniZipIO(CMiniZipIO const&) = delete;
  CMiniZipIO& operator=(CMiniZipIO const&) = delete;

  /// The table inside this object (the same pointer on every call); its
  /// opaque field is this object.
  zlib_filefunc64_def* getFuncs();
  /// The newest failure a callback recorded (a new reference), or null.
  /// Never cleared by a later success.
  tal::P<tal::CError> getLastError() const;

  /// Addition: with true, `close` first makes what was written through the
  /// stream durable (tal::IFileSystem::sync) and then closes it; a failure of
  /// the sync is the close's failure (recorded, -1), and the stream is closed
  /// all the same. Off by default.
  void setSyncOnClose(bool sync) { m_syncOnClose = sync; }

  /// Addition: the stream the newest `open` opened, while it is open; else
  /// null. For reading the archive's bytes beside minizip through the same
  /// stream (minizip seeks before it reads).
  tal::IInOutStream* getOpenStream() const { return m_opened ? m_opened->stream.get() : nullptr; }
  /// Addition: keeps `e` as the last error, as a failed callback does, for a
  /// failure met reading beside minizip through getOpenStream().
  void recordFailure(std::exception& e) { recordError(e); }

  /// What `open` hands to minizip and minizip hands back to every other callback.
  struct StreamHandle {
    tal::P<tal::IInOutStream> stream;
    /// Set by a failed read or write, never reset.
    bool error = false;
  };

  /// Maps minizip's mode bits to the file system's access and open flags:
  /// read-only is access 1 (flags 4 when creating), anything else access 3
  /// (flags 2 when creating).
  static void modeToAccess(int mode, int& access, int& flags);

  static voidpf ZCALLBACK open(voidpf opaque, void const* filename, int mode);
  static uLong ZCALLBACK read(voidpf opaque, voidpf stream, void* buf, uLong size);
  static uLong ZCALLBACK write(voidpf opaque, voidpf stream, void const* buf, uLong size);
  static ZPOS64_T ZCALLBACK tell(voidpf opaque, voidpf stream);
  static long ZCALLBACK seek(voidpf opaque, voidpf stream, ZPOS64_T offset, int origin);
  static int ZCALLBACK close(voidpf opaque, voidpf stream);
  static int ZCALLBACK testError(voidpf opaque, voidpf stream);

private:
  /// Stores a clone of what exceptionToError makes of `e` as the last error.
  void recordError(std::exception& e);

  tal::P<tal::IFileSystem> m_fileSystem;
  zlib_filefunc64_def m_funcs;
  tal::P<tal::CError> m_lastError;
  bool m_syncOnClose = false;
  StreamHandle* m_opened = nullptr;
};

} // namespace ziputil
