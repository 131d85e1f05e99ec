#include "ziputil/codecs/EntryDecoder.h"

#include "ziputil/codecs/DecoderInput.h"

#include <zlib.h>

#include <cstring>
#include <new>

namespace ziputil {
namespace codecs {
namespace {

/// Stored data: the source's bytes as they are.
class CStoredDecoder : public IEntryDecoder {
public:
  explicit CStoredDecoder(IByteSource& source) : m_source(source) {}
  std::size_t read(unsigned char* out, std::size_t size) override {
    if (m_ended || size == 0) return 0;
    std::size_t const got = m_source.read(out, size);
    if (got == 0) m_ended = true;
    return got;
  }
  std::size_t unusedInput() const override { return 0; }

private:
  IByteSource& m_source;
  bool m_ended = false;
};

/// Deflated data (inside WinZip AES entries), through zlib's inflate.
class CInflateDecoder : public IEntryDecoder {
public:
  explicit CInflateDecoder(IByteSource& source) : m_input(source) {
    if (inflateInit2(&m_stream, -MAX_WBITS) != Z_OK) throw std::bad_alloc();
  }
  ~CInflateDecoder() override { inflateEnd(&m_stream); }
  CInflateDecoder(CInflateDecoder const&) = delete;
  CInflateDecoder& operator=(CInflateDecoder const&) = delete;

  std::size_t read(unsigned char* out, std::size_t size) override {
    if (m_ended || size == 0) return 0;
    m_stream.next_out = out;
    m_stream.avail_out = static_cast<uInt>(size > (1u << 30) ? (1u << 30) : size);
    uInt const room = m_stream.avail_out;
    while (m_stream.avail_out == room) {
      if (!m_input.fill()) throwCutShort("deflate");
      m_stream.next_in = const_cast<Bytef*>(m_input.data());
      m_stream.avail_in = static_cast<uInt>(m_input.available());
      int const result = inflate(&m_stream, Z_NO_FLUSH);
      m_input.consume(m_input.available() - m_stream.avail_in);
      if (result == Z_STREAM_END) {
        m_ended = true;
        break;
      }
      if (result == Z_MEM_ERROR) throw std::bad_alloc();
      if (result != Z_OK && result != Z_BUF_ERROR)
        throw DecodeError(DecodeError::Kind::Damaged,
                          std::string("deflate data is damaged: ") + (m_stream.msg ? m_stream.msg : "error"));
    }
    return room - m_stream.avail_out;
  }
  std::size_t unusedInput() const override { return m_input.available(); }

private:
  CDecoderInput m_input;
  z_stream m_stream{};
  bool m_ended = false;
};

} // namespace

std::unique_ptr<IEntryDecoder> makeInflateDecoder(IByteSource& source) {
  return std::make_unique<CInflateDecoder>(source);
}

bool canDecode(int method) {
  switch (method) {
  case 0:
  case 8:
  case 9:
  case 12:
  case 14:
  case 20:
  case 93:
  case 95: return true;
  default: return false;
  }
}

std::string methodName(int method) {
  switch (method) {
  case 0: return "stored";
  case 1: return "Shrunk";
  case 2:
  case 3:
  case 4:
  case 5: return "Reduced";
  case 6: return "Imploded";
  case 8: return "deflated";
  case 9: return "Deflate64";
  case 10: return "PKWARE DCL Imploded";
  case 12: return "bzip2";
  case 14: return "LZMA";
  case 16: return "IBM z/OS CMPSC";
  case 18: return "IBM TERSE";
  case 19: return "IBM LZ77";
  case 20: return "zstd";
  case 93: return "zstd";
  case 94: return "MP3";
  case 95: return "xz";
  case 96: return "JPEG";
  case 97: return "WavPack";
  case 98: return "PPMd";
  case 99: return "WinZip AES";
  default: return std::string();
  }
}

std::unique_ptr<IEntryDecoder> makeEntryDecoder(int method, IByteSource& source, std::uint64_t uncompressedSize,
                                                int flags, DecoderLimits const& limits) {
  switch (method) {
  case 0: return std::make_unique<CStoredDecoder>(source);
  case 8: return makeInflateDecoder(source);
  case 9: return makeInflate64Decoder(source);
  case 12: return makeBzip2Decoder(source);
  case 14: return makeLzmaDecoder(source, uncompressedSize, flags, limits);
  case 20:
  case 93: return makeZstdDecoder(source, limits);
  case 95: return makeXzDecoder(source, limits);
  default: {
    std::string const name = methodName(method);
    throw DecodeError(DecodeError::Kind::Unsupported, "compression method " + std::to_string(method) +
                                                          (name.empty() ? "" : " (" + name + ")") +
                                                          " is not supported");
  }
  }
}

} // namespace codecs
} // namespace ziputil
