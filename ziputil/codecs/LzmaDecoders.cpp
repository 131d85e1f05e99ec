// LZMA (method 14: ZIP's own header, then raw LZMA1 data) and xz (method 95: an
// .xz stream), through liblzma.
#include "ziputil/codecs/DecoderInput.h"

#include <lzma.h>

#include <new>

namespace ziputil {
namespace codecs {
namespace {

char const* lzmaErrorName(lzma_ret result) {
  switch (result) {
  case LZMA_DATA_ERROR: return "the data is damaged";
  case LZMA_FORMAT_ERROR: return "the data is not in the format";
  case LZMA_OPTIONS_ERROR: return "its options are not supported";
  case LZMA_BUF_ERROR: return "the data ends before its end";
  default: return "error";
  }
}

/// A liblzma decoder, fed from the entry's source.
class CLzmaStreamDecoder : public IEntryDecoder {
public:
  CLzmaStreamDecoder(CDecoderInput& input, char const* method) : m_input(input), m_method(method) {}
  ~CLzmaStreamDecoder() override { lzma_end(&m_stream); }
  CLzmaStreamDecoder(CLzmaStreamDecoder const&) = delete;
  CLzmaStreamDecoder& operator=(CLzmaStreamDecoder const&) = delete;

  std::size_t read(unsigned char* out, std::size_t size) override {
    if (m_ended || size == 0) return 0;
    m_stream.next_out = out;
    m_stream.avail_out = size;
    while (m_stream.avail_out == size) {
      if (!m_input.fill()) throwCutShort(m_method);
      m_stream.next_in = m_input.data();
      m_stream.avail_in = m_input.available();
      lzma_ret const result = lzma_code(&m_stream, LZMA_RUN);
      m_input.consume(m_input.available() - m_stream.avail_in);
      if (result == LZMA_STREAM_END) {
        m_ended = true;
        break;
      }
      if (result == LZMA_MEM_ERROR) throw std::bad_alloc();
      if (result == LZMA_MEMLIMIT_ERROR)
        throw DecodeError(DecodeError::Kind::TooLarge, std::string(m_method) + " data needs " +
                                                           mebibytes(lzma_memusage(&m_stream)) +
                                                           " MiB of memory, above the limit of " +
                                                           mebibytes(lzma_memlimit_get(&m_stream)) + " MiB");
      if (result != LZMA_OK)
        throw DecodeError(DecodeError::Kind::Damaged,
                          std::string(m_method) + " data cannot be decoded: " + lzmaErrorName(result));
    }
    return size - m_stream.avail_out;
  }
  std::size_t unusedInput() const override { return m_input.available(); }

  lzma_stream m_stream = LZMA_STREAM_INIT;

private:
  CDecoderInput& m_input;
  char const* m_method;
  bool m_ended = false;
};

/// Owns the input its decoder reads.
template <class Decoder> class TWithInput : public IEntryDecoder {
public:
  explicit TWithInput(IByteSource& source) : m_input(source) {}
  std::size_t read(unsigned char* out, std::size_t size) override { return m_decoder->read(out, size); }
  std::size_t unusedInput() const override { return m_decoder->unusedInput(); }

  CDecoderInput m_input;
  std::unique_ptr<Decoder> m_decoder;
};

void checkStart(lzma_ret result, char const* method) {
  if (result == LZMA_MEM_ERROR) throw std::bad_alloc();
  if (result != LZMA_OK)
    throw DecodeError(DecodeError::Kind::Unsupported,
                      std::string(method) + " data cannot be decoded: " + lzmaErrorName(result));
}

} // namespace

std::unique_ptr<IEntryDecoder> makeLzmaDecoder(IByteSource& source, std::uint64_t uncompressedSize, int flags,
                                               DecoderLimits const& limits) {
  auto decoder = std::make_unique<TWithInput<CLzmaStreamDecoder>>(source);
  // ZIP's LZMA header: the LZMA SDK's version (2 bytes), the size of the
  // properties (2 bytes, little-endian: 5), the properties (lc, lp and pb in
  // one byte, the dictionary's size in 4 bytes, little-endian).
  unsigned char header[9];
  for (unsigned char& byte : header)
    if (!decoder->m_input.next(byte)) throwCutShort("LZMA");
  if (header[2] != 5 || header[3] != 0)
    throw DecodeError(DecodeError::Kind::Damaged, "LZMA data has properties of " +
                                                      std::to_string(header[2] | header[3] << 8) +
                                                      " bytes (5 are defined)");
  unsigned const bits = header[4];
  if (bits >= 9 * 5 * 5) throw DecodeError(DecodeError::Kind::Damaged, "LZMA data has invalid properties");
  std::uint64_t const dictionary = static_cast<std::uint64_t>(header[5]) | static_cast<std::uint64_t>(header[6]) << 8 |
                                   static_cast<std::uint64_t>(header[7]) << 16 |
                                   static_cast<std::uint64_t>(header[8]) << 24;
  if (dictionary > limits.maxWindow)
    throw DecodeError(DecodeError::Kind::TooLarge, "the LZMA dictionary of " + mebibytes(dictionary) +
                                                       " MiB is above the limit of " + mebibytes(limits.maxWindow) +
                                                       " MiB");
  lzma_options_lzma options{};
  options.lc = bits % 9;
  options.lp = (bits / 9) % 5;
  options.pb = bits / 45;
  options.dict_size = static_cast<std::uint32_t>(dictionary < LZMA_DICT_SIZE_MIN ? LZMA_DICT_SIZE_MIN : dictionary);
  options.ext_flags = LZMA_LZMA1EXT_ALLOW_EOPM;
  // With the end-marker flag (bit 1) the data ends with the marker; without
  // it, at the entry's size (a marker there is taken too).
  std::uint64_t const size = (flags & 2) ? UINT64_MAX : uncompressedSize;
  options.ext_size_low = static_cast<std::uint32_t>(size);
  options.ext_size_high = static_cast<std::uint32_t>(size >> 32);
  lzma_filter const filters[] = {{LZMA_FILTER_LZMA1EXT, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
  decoder->m_decoder = std::make_unique<CLzmaStreamDecoder>(decoder->m_input, "LZMA");
  checkStart(lzma_raw_decoder(&decoder->m_decoder->m_stream, filters), "LZMA");
  return decoder;
}

std::unique_ptr<IEntryDecoder> makeXzDecoder(IByteSource& source, DecoderLimits const& limits) {
  auto decoder = std::make_unique<TWithInput<CLzmaStreamDecoder>>(source);
  decoder->m_decoder = std::make_unique<CLzmaStreamDecoder>(decoder->m_input, "xz");
  // the dictionary, and what an xz decoder needs beside it
  std::uint64_t const memoryLimit = limits.maxWindow + (std::uint64_t(8) << 20);
  checkStart(lzma_stream_decoder(&decoder->m_decoder->m_stream, memoryLimit, 0), "xz");
  return decoder;
}

} // namespace codecs
} // namespace ziputil
