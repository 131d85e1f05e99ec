#ifndef ZIPUTIL_INFLATEISAL_H
#define ZIPUTIL_INFLATEISAL_H

/* Internal to the library: not installed.
 *
 * Raw inflate and CRC-32 through Intel's ISA-L for the build's copy of
 * minizip's unzip.c, which calls these in place of zlib's inflateInit2,
 * inflate, inflateEnd and crc32 when the library is built with
 * ZIPUTIL_WITH_ISAL (cmake/Dependencies.cmake).
 *
 * What a caller of unzReadCurrentFile sees is what zlib gives: the same bytes,
 * the same CRC-32, and for damaged data the same result code in the same read,
 * after the same bytes (with the one exception below). The two decoders agree on every byte of valid
 * data, but zlib reports damage at a point of its own: it decodes the next
 * symbol (a block header, a distance) before it stops on a full output buffer,
 * and on input cut short it decodes as far as the bits at hand allow. So:
 *
 * - ISA-L decodes ahead into a buffer of the stream's own, and a byte is handed
 *   out only once ISA-L has decoded the byte after it (or the final block has
 *   ended): zlib, when it stops after that byte, has looked at no more than
 *   ISA-L decoded without complaint.
 * - When ISA-L reports damage, or the input ends before the final block does,
 *   zlib takes over for the rest of the entry: it inflates the entry's
 *   compressed bytes again from their start (read anew through
 *   ziputil_inflateIsalSetSource's function, in the chunks unzip.c reads) up to
 *   the bytes already handed out, and then answers every later call itself,
 *   result codes included.
 *
 * One difference remains, for damaged data only: ISA-L accepts a dynamic
 * block whose Huffman code is incomplete or over-subscribed, which zlib refuses
 * at the block's header ("invalid literal/lengths set", "invalid distances
 * set", "invalid code lengths set"). Until ISA-L itself then stumbles (and
 * zlib takes over as above), such a block's bytes are handed out where zlib
 * would have failed. With CZipReader::Options::verifyEntries the entry still
 * fails its check (its CRC-32 or its size), with a different message.
 *
 * Reading ahead also moves the reads of compressed data: unzip.c reads its
 * 16 KiB chunks somewhat earlier than with zlib, and after damage zlib reads
 * the entry's data again. A file system that fails one of these reads fails
 * the entry read that needed it (UNZ_ERRNO, the file system's error), which
 * may be an earlier or later entry read than with zlib.
 *
 * Only windowBits -MAX_WBITS (raw deflate, as unzip.c asks) is supported;
 * other values give Z_STREAM_ERROR. `flush` is ignored (zlib's inflate treats
 * Z_NO_FLUSH and Z_SYNC_FLUSH alike). The stream's `state` field holds this
 * decoder's state; `zalloc`, `zfree` and `opaque` are not used.
 */

#include <zlib.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reads `len` bytes of the entry's compressed data (decrypted) at `offset`
 * from its start; offsets come in order from 0, in chunks of at most 16384
 * bytes. Returns 0, or nonzero when the bytes cannot be read: the read that
 * needed them then gives Z_ERRNO, and the next read tries again. */
typedef int (*ziputil_inflate_source)(void* opaque, unsigned long long offset, void* buf, unsigned len);

int ziputil_inflateIsalInit2(z_streamp strm, int windowBits);
int ziputil_inflateIsal(z_streamp strm, int flush);
int ziputil_inflateIsalEnd(z_streamp strm);
/* Where zlib reads the compressed data again when it has to take over
 * (`size` bytes in all). Without a source, taking over gives Z_DATA_ERROR. */
void ziputil_inflateIsalSetSource(z_streamp strm, ziputil_inflate_source source, void* opaque,
                                  unsigned long long size);
/* zlib's crc32: the same value for the same bytes (0 for a null buffer). */
uLong ziputil_crc32Isal(uLong crc, const Bytef* buf, uInt len);

#ifdef __cplusplus
}
#endif

#endif
