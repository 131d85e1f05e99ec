// ziputil::parallel::CDeflater: zlib's raw deflate driven as minizip's zip.c
// drives it, its output appended to a byte vector (internal to libziputil; not
// installed). The parallel deflater's workers make the bytes a sequential add
// would make with it.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <memory>
#include <vector>

namespace ziputil {
namespace parallel {

/// minizip's output buffer (zip.c's Z_BUFSIZE): deflate is fed as zip.c feeds it.
constexpr unsigned kOutputBuffer = 64 * 1024;

/// zlib's deflate as zip.c drives it, its output appended to a byte vector. One per worker, reset from entry to
/// entry: deflateReset gives the state deflateInit2 gives.
class CDeflater {
public:
  CDeflater() : m_stream(), m_buffer(new unsigned char[kOutputBuffer]) {}
  ~CDeflater() {
    if (m_ready) deflateEnd(&m_stream);
  }
  CDeflater(CDeflater const&) = delete;
  CDeflater& operator=(CDeflater const&) = delete;

  bool ready() const { return m_ready; }

  /// A fresh stream at `level`, as zipOpenNewFileInZip leaves it; zlib's result.
  int start(int level) {
    int result = Z_OK;
    if (m_ready && level == m_level) {
      result = deflateReset(&m_stream);
    } else {
      if (m_ready) deflateEnd(&m_stream);
      m_ready = false;
      m_stream = z_stream();
      result = deflateInit2(&m_stream, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
      m_ready = result == Z_OK;
      m_level = level;
    }
    m_stream.next_out = m_buffer.get();
    m_stream.avail_out = kOutputBuffer;
    return result;
  }

  /// zlib's bound for the compressed size of `length` bytes; with these window and memory settings it does not
  /// depend on the level. The stream must be ready.
  std::size_t bound(unsigned long long length) {
    return static_cast<std::size_t>(deflateBound(&m_stream, static_cast<uLong>(length)));
  }

  /// zipWriteInFileInZip's loop; zlib's result.
  int write(unsigned char const* data, unsigned size, std::vector<unsigned char>& out) {
    m_stream.next_in = const_cast<Bytef*>(data);
    m_stream.avail_in = size;
    while (m_stream.avail_in > 0) {
      if (m_stream.avail_out == 0) flush(out);
      int const result = deflate(&m_stream, Z_NO_FLUSH);
      if (result != Z_OK) return result;
    }
    return Z_OK;
  }

  /// zipCloseFileInZipRaw64's loop; zlib's result (Z_STREAM_END when done). `text`: deflate took the data for text.
  int finish(std::vector<unsigned char>& out, bool& text) {
    m_stream.avail_in = 0;
    int result = Z_OK;
    while (result == Z_OK) {
      if (m_stream.avail_out == 0) flush(out);
      result = deflate(&m_stream, Z_FINISH);
    }
    flush(out);
    text = m_stream.data_type == Z_TEXT;
    return result;
  }

private:
  void flush(std::vector<unsigned char>& out) {
    out.insert(out.end(), m_buffer.get(), m_buffer.get() + (kOutputBuffer - m_stream.avail_out));
    m_stream.next_out = m_buffer.get();
    m_stream.avail_out = kOutputBuffer;
  }

  z_stream m_stream;
  std::unique_ptr<unsigned char[]> m_buffer;
  bool m_ready = false;
  int m_level = 0;
};

} // namespace parallel
} // namespace ziputil
