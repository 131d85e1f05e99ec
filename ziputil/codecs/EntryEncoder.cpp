#include "ziputil/codecs/EntryEncoder.h"

#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace ziputil {
namespace codecs {
namespace {

constexpr std::size_t kPiece = 64 * 1024;

class CStoredEncoder : public IEntryEncoder {
public:
  void write(unsigned char const* data, std::size_t size, EncodedSink const& sink) override {
    if (size > 0) sink(data, size);
  }
  void finish(EncodedSink const&) override {}
};

class CDeflateEncoder : public IEntryEncoder {
public:
  explicit CDeflateEncoder(int level) : m_out(kPiece) {
    if (deflateInit2(&m_stream, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) throw std::bad_alloc();
  }
  ~CDeflateEncoder() override { deflateEnd(&m_stream); }
  CDeflateEncoder(CDeflateEncoder const&) = delete;
  CDeflateEncoder& operator=(CDeflateEncoder const&) = delete;

  void write(unsigned char const* data, std::size_t size, EncodedSink const& sink) override {
    while (size > 0) {
      uInt const piece = static_cast<uInt>(size > (1u << 30) ? (1u << 30) : size);
      m_stream.next_in = const_cast<Bytef*>(data);
      m_stream.avail_in = piece;
      run(Z_NO_FLUSH, sink);
      data += piece;
      size -= piece;
    }
  }
  void finish(EncodedSink const& sink) override { run(Z_FINISH, sink); }

private:
  void run(int flush, EncodedSink const& sink) {
    int result = Z_OK;
    do {
      m_stream.next_out = m_out.data();
      m_stream.avail_out = static_cast<uInt>(m_out.size());
      result = deflate(&m_stream, flush);
      if (result == Z_STREAM_ERROR) throw std::logic_error("deflate: stream error");
      std::size_t const made = m_out.size() - m_stream.avail_out;
      if (made > 0) sink(m_out.data(), made);
    } while (m_stream.avail_in > 0 || m_stream.avail_out == 0 || (flush == Z_FINISH && result != Z_STREAM_END));
  }

  z_stream m_stream{};
  std::vector<unsigned char> m_out;
};

class CZstdEncoder : public IEntryEncoder {
public:
  explicit CZstdEncoder(int level) : m_context(ZSTD_createCCtx()), m_out(ZSTD_CStreamOutSize()) {
    if (!m_context) throw std::bad_alloc();
    std::size_t const set = ZSTD_CCtx_setParameter(m_context, ZSTD_c_compressionLevel, level);
    if (ZSTD_isError(set)) throw std::invalid_argument(std::string("zstd level: ") + ZSTD_getErrorName(set));
    ZSTD_CCtx_setParameter(m_context, ZSTD_c_checksumFlag, 0); // the entry's CRC-32 or AES code checks it
  }
  ~CZstdEncoder() override { ZSTD_freeCCtx(m_context); }
  CZstdEncoder(CZstdEncoder const&) = delete;
  CZstdEncoder& operator=(CZstdEncoder const&) = delete;

  void write(unsigned char const* data, std::size_t size, EncodedSink const& sink) override {
    ZSTD_inBuffer input{data, size, 0};
    while (input.pos < input.size) run(input, ZSTD_e_continue, sink);
  }
  void finish(EncodedSink const& sink) override {
    ZSTD_inBuffer input{nullptr, 0, 0};
    while (run(input, ZSTD_e_end, sink) != 0) {
    }
  }

private:
  std::size_t run(ZSTD_inBuffer& input, ZSTD_EndDirective mode, EncodedSink const& sink) {
    ZSTD_outBuffer output{m_out.data(), m_out.size(), 0};
    std::size_t const left = ZSTD_compressStream2(m_context, &output, &input, mode);
    if (ZSTD_isError(left)) {
      if (ZSTD_getErrorCode(left) == ZSTD_error_memory_allocation) throw std::bad_alloc();
      throw std::runtime_error(std::string("zstd: ") + ZSTD_getErrorName(left));
    }
    if (output.pos > 0) sink(m_out.data(), output.pos);
    return left;
  }

  ZSTD_CCtx* m_context;
  std::vector<unsigned char> m_out;
};

} // namespace

std::unique_ptr<IEntryEncoder> makeEntryEncoder(int method, int level) {
  switch (method) {
  case 0: return std::make_unique<CStoredEncoder>();
  case 8:
    if (level < -1 || level > 9) throw std::invalid_argument("deflate level " + std::to_string(level));
    return std::make_unique<CDeflateEncoder>(level);
  case 93:
    if (level == -1) level = 3;
    if (level < 1 || level > 22) throw std::invalid_argument("zstd level " + std::to_string(level));
    return std::make_unique<CZstdEncoder>(level);
  default: throw std::invalid_argument("no encoder for method " + std::to_string(method));
  }
}

} // namespace codecs
} // namespace ziputil
