// Functions that the build's copies of minizip's zip.c and unzip.c add to
// stock minizip (internal to libziputil; not installed).
#pragma once

#include "ziputil/minizip/unzip.h"
#include "ziputil/minizip/zip.h"

extern "C" {

/// Releases `file` without writing anything more: an open entry is dropped
/// unfinished and no central directory is written. The file stream is closed;
/// returns ZIP_OK, or ZIP_ERRNO when closing it failed, or ZIP_PARAMERROR for a
/// null handle. What was already written stays in the file: the caller puts
/// back what it must.
int ziputil_zipDiscard(zipFile file);

/// The file stream `file` writes through: what the file functions' open
/// returned (for a CMiniZipIO, its StreamHandle). Null for a null handle.
voidpf ziputil_zipFileStream(zipFile file);

/// Reads up to `len` bytes of the open entry's data beyond its stored
/// uncompressed size, once all of that size has been read: 0 when the data
/// ends exactly there (for a deflated entry, its deflate stream ended), the
/// count read when it goes on, or a negative minizip code. UNZ_PARAMERROR when
/// no entry is open or its stored size has not been read whole.
int ziputil_unzReadPastEnd(unzFile file, voidp buf, unsigned len);

/// What unzGetCurrentFileInfo64 gives of the current entry (its information
/// and its name, NUL-terminated when it fits), taken from what positioning has
/// just parsed: only the name is read. UNZ_END_OF_LIST_OF_FILE when not
/// positioned, UNZ_ERRNO when reading the name fails.
int ziputil_unzGetCurrentFileInfoName(unzFile file, unz_file_info64* pfile_info, char* szFileName,
                                      uLong fileNameBufferSize);
}
