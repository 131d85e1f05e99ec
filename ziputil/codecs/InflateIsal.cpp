// Raw inflate through ISA-L with zlib's observable results; see InflateIsal.h.
#include "ziputil/codecs/InflateIsal.h"

#include <isa-l/crc.h>
#include <isa-l/igzip_lib.h>

#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace {

// unzip.c reads the compressed data in chunks of this size (its UNZ_BUFSIZE).
constexpr unsigned kChunk = 16384;
// ISA-L decodes ahead into a buffer of this size.
constexpr std::size_t kAhead = 256 * 1024;

struct Decoder {
  inflate_state isal;
  std::unique_ptr<unsigned char[]> out; // kAhead bytes decoded by ISA-L; [pos, end) not yet handed out
  std::size_t pos = 0;
  std::size_t end = 0;
  bool finished = false; // ISA-L has decoded the final block's end
  bool isalFailed = false; // ISA-L found damage or the input ended early: zlib decides from here
  unsigned long long delivered = 0; // bytes handed out since init

  // zlib, once it has taken over.
  bool zlibActive = false;
  z_stream z{};
  std::vector<unsigned char> chunk;
  unsigned long long sourcePos = 0;

  ziputil_inflate_source source = nullptr;
  void* sourceOpaque = nullptr;
  unsigned long long sourceSize = 0;
  unsigned char dummyInput = 0;
};

Decoder* decoderOf(z_streamp strm) {
  return strm == nullptr ? nullptr : reinterpret_cast<Decoder*>(strm->state);
}

// Gives zlib the next chunk of the source when it has used up the last one.
// Returns Z_OK, or Z_ERRNO when the source cannot be read.
int feedZlib(Decoder& d) {
  if (d.z.avail_in != 0 || d.sourcePos >= d.sourceSize) return Z_OK;
  unsigned n = d.sourceSize - d.sourcePos < kChunk ? static_cast<unsigned>(d.sourceSize - d.sourcePos) : kChunk;
  if (d.source(d.sourceOpaque, d.sourcePos, d.chunk.data(), n) != 0) return Z_ERRNO;
  d.sourcePos += n;
  d.z.next_in = d.chunk.data();
  d.z.avail_in = n;
  return Z_OK;
}

void stopZlib(Decoder& d) {
  if (d.zlibActive) inflateEnd(&d.z);
  d.zlibActive = false;
}

// zlib inflates the entry again from its start up to the bytes already handed
// out, fed as unzip.c feeds it. Returns Z_OK when zlib stands where the stream
// stands (or has already given its own answer before: damage that ISA-L let
// through, which zlib then keeps reporting), Z_ERRNO when the source failed.
int startZlib(Decoder& d, z_streamp strm) {
  if (d.source == nullptr) {
    strm->msg = const_cast<char*>("compressed data cannot be read again");
    return Z_DATA_ERROR;
  }
  d.z = z_stream{};
  if (inflateInit2(&d.z, -MAX_WBITS) != Z_OK) return Z_MEM_ERROR;
  d.zlibActive = true;
  d.chunk.resize(kChunk);
  d.sourcePos = 0;
  std::vector<unsigned char> scratch(kAhead);
  unsigned long long produced = 0;
  while (produced < d.delivered) {
    if (feedZlib(d) != Z_OK) {
      stopZlib(d);
      return Z_ERRNO;
    }
    unsigned long long want = d.delivered - produced;
    d.z.next_out = scratch.data();
    d.z.avail_out = want < scratch.size() ? static_cast<uInt>(want) : static_cast<uInt>(scratch.size());
    uInt before = d.z.avail_out;
    int r = inflate(&d.z, Z_SYNC_FLUSH);
    produced += before - d.z.avail_out;
    if (r != Z_OK || d.z.msg != nullptr) break; // zlib stops short of what ISA-L handed out
  }
  // From here unzip.c's own input is not used: a nonzero avail_in keeps it from reading more.
  strm->next_in = &d.dummyInput;
  strm->avail_in = 1;
  return Z_OK;
}

// One call answered by zlib, looping as unzip.c's read loop does: a new chunk
// whenever zlib has used up its input and there is room for output.
int inflateWithZlib(Decoder& d, z_streamp strm, bool progress) {
  for (;;) {
    if (feedZlib(d) != Z_OK) return Z_ERRNO;
    d.z.next_out = strm->next_out;
    d.z.avail_out = strm->avail_out;
    int r = inflate(&d.z, Z_SYNC_FLUSH);
    uInt n = strm->avail_out - d.z.avail_out;
    strm->next_out += n;
    strm->avail_out -= n;
    strm->total_out += n;
    d.delivered += n;
    strm->msg = d.z.msg;
    if (n != 0) progress = true;
    if (r == Z_BUF_ERROR && progress) return Z_OK; // as zlib's own call would answer; the next gives Z_BUF_ERROR
    if (r != Z_OK) return r;
    if (strm->avail_out == 0) return Z_OK;
  }
}

int takeOver(Decoder& d, z_streamp strm, bool progress) {
  d.isalFailed = true;
  if (!d.zlibActive) {
    int r = startZlib(d, strm);
    if (r != Z_OK) return r;
  }
  return inflateWithZlib(d, strm, progress);
}

} // namespace

extern "C" {

int ziputil_inflateIsalInit2(z_streamp strm, int windowBits) {
  if (strm == nullptr) return Z_STREAM_ERROR;
  strm->msg = nullptr;
  if (windowBits != -MAX_WBITS) return Z_STREAM_ERROR;
  Decoder* d = new (std::nothrow) Decoder;
  if (d == nullptr) return Z_MEM_ERROR;
  try {
    d->out.reset(new unsigned char[kAhead]); // not cleared: only decoded bytes are ever read from it
  } catch (std::bad_alloc const&) {
    delete d;
    return Z_MEM_ERROR;
  }
  isal_inflate_init(&d->isal);
  d->isal.crc_flag = ISAL_DEFLATE;
  strm->state = reinterpret_cast<internal_state*>(d);
  strm->total_in = 0;
  strm->total_out = 0;
  strm->adler = 0;
  return Z_OK;
}

void ziputil_inflateIsalSetSource(z_streamp strm, ziputil_inflate_source source, void* opaque,
                                  unsigned long long size) {
  Decoder* d = decoderOf(strm);
  if (d == nullptr) return;
  d->source = source;
  d->sourceOpaque = opaque;
  d->sourceSize = size;
}

int ziputil_inflateIsal(z_streamp strm, int /*flush*/) {
  Decoder* d = decoderOf(strm);
  if (d == nullptr || strm->next_out == nullptr) return Z_STREAM_ERROR;
  if (d->isalFailed) return takeOver(*d, strm, false);
  bool progress = false;
  bool calledWithInput = strm->avail_in != 0;
  for (;;) {
    // Hand out what zlib would have given by now: all but the last decoded
    // byte, whose successor ISA-L has not yet shown to be sound.
    std::size_t ready = d->end - d->pos;
    if (!d->finished && ready > 0) --ready;
    if (ready > 0 && strm->avail_out > 0) {
      uInt n = ready < strm->avail_out ? static_cast<uInt>(ready) : strm->avail_out;
      std::memcpy(strm->next_out, d->out.get() + d->pos, n);
      d->pos += n;
      strm->next_out += n;
      strm->avail_out -= n;
      strm->total_out += n;
      d->delivered += n;
      progress = true;
    }
    if (strm->avail_out == 0) return progress ? Z_OK : Z_BUF_ERROR;
    if (d->finished) return Z_STREAM_END;

    if (d->pos > 0) {
      std::memmove(d->out.get(), d->out.get() + d->pos, d->end - d->pos);
      d->end -= d->pos;
      d->pos = 0;
    }
    d->isal.next_in = strm->next_in;
    d->isal.avail_in = strm->avail_in;
    d->isal.next_out = d->out.get() + d->end;
    d->isal.avail_out = static_cast<uint32_t>(kAhead - d->end);
    int r = isal_inflate(&d->isal);
    uInt consumed = strm->avail_in - d->isal.avail_in;
    std::size_t decoded = static_cast<std::size_t>(d->isal.next_out - (d->out.get() + d->end));
    strm->next_in += consumed;
    strm->avail_in -= consumed;
    strm->total_in += consumed;
    d->end += decoded;
    if (consumed != 0) progress = true;
    if (r < 0) return takeOver(*d, strm, progress);
    if (d->isal.block_state == ISAL_BLOCK_FINISH) {
      d->finished = true;
      continue;
    }
    if (decoded == 0 && consumed == 0) {
      // ISA-L needs more input. unzip.c calls with none only when the entry's
      // compressed data is used up: the stream is cut short, and how far zlib
      // gets with the bits at hand is zlib's to say.
      if (!calledWithInput) return takeOver(*d, strm, progress);
      if (strm->avail_in == 0) return Z_OK; // unzip.c reads the next chunk
      return takeOver(*d, strm, progress); // no way forward for ISA-L
    }
  }
}

int ziputil_inflateIsalEnd(z_streamp strm) {
  Decoder* d = decoderOf(strm);
  if (d == nullptr) return Z_STREAM_ERROR;
  stopZlib(*d);
  delete d;
  strm->state = nullptr;
  return Z_OK;
}

uLong ziputil_crc32Isal(uLong crc, const Bytef* buf, uInt len) {
  if (buf == nullptr) return 0;
  return crc32_gzip_refl(static_cast<uint32_t>(crc), buf, len);
}

} // extern "C"
