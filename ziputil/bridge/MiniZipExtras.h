// Functions that the build's copies of minizip's zip.c and unzip.c add to
// stock minizip (internal to libziputil; not installed).
#pragma once

#include "ziputil/minizip/unzip.h"
#include "ziputil/minizip/zip.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Releases `file` without writing anything more: an open entry is dropped
/// unfinished and no central directory is written. The file stream is closed;
/// returns ZIP_OK, or ZIP_ERRNO when closing it failed, or ZIP_PARAMERROR for a
/// null handle. What was already written stays in the file: the caller puts
/// back what it must.
int ziputil_zipDiscard(zipFile file);

/// Where the next entry of a zipFile begins: what ziputil_zipUndoEntry needs
/// to take the handle back there. Its fields belong to zip.c.
typedef struct {
  ZPOS64_T offset;               /* the file position of the entry's local header */
  ZPOS64_T entries;              /* the entries finished before it */
  void* lastBlock;               /* the central directory's last block then, or null */
  unsigned long lastBlockFilled; /* the bytes that block held then */
} ziputil_zipMark;

/// Records in `mark` where the next entry of `file` begins. Call it with no
/// entry open; ZIP_PARAMERROR otherwise (or for a null argument), ZIP_ERRNO
/// when asking the file stream for its position fails.
int ziputil_zipMarkEntry(zipFile file, ziputil_zipMark* mark);

/// Takes `file` back to `mark`, taken by ziputil_zipMarkEntry before the
/// entries since: an open entry is dropped unfinished, the central headers
/// and the count of entries finished since are forgotten, and the file stream
/// is sought back to the mark's position, where the next entry then begins.
/// The bytes written since stay in the file until something overwrites them.
/// ZIP_ERRNO when the seek fails (the handle is then taken back all the same,
/// but the stream's position is unknown); ZIP_PARAMERROR for a null argument.
int ziputil_zipUndoEntry(zipFile file, const ziputil_zipMark* mark);

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

#ifdef __cplusplus
}
#endif
