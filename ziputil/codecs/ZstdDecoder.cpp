// zstd (methods 93 and the older 20) through libzstd: one frame or more, to
// the end of the entry's data.
#include "ziputil/codecs/DecoderInput.h"

#include <zstd.h>
#include <zstd_errors.h>

#include <new>

namespace ziputil {
namespace codecs {
namespace {

/// log2 of the largest power of two not above `bytes`, within zstd's bounds.
int windowLog(std::uint64_t bytes) {
  int log = 0;
  while (log < 63 && (std::uint64_t(2) << log) <= bytes) ++log;
  if (log < 10) log = 10; // zstd's smallest window
  if (log > 31) log = 31; // and its largest on 64-bit systems
  return log;
}

class CZstdDecoder : public IEntryDecoder {
public:
  CZstdDecoder(IByteSource& source, DecoderLimits const& limits)
      : m_input(source), m_context(ZSTD_createDCtx()), m_limit(limits.maxWindow) {
    if (!m_context) throw std::bad_alloc();
    ZSTD_DCtx_setParameter(m_context, ZSTD_d_windowLogMax, windowLog(limits.maxWindow));
  }
  ~CZstdDecoder() override { ZSTD_freeDCtx(m_context); }
  CZstdDecoder(CZstdDecoder const&) = delete;
  CZstdDecoder& operator=(CZstdDecoder const&) = delete;

  std::size_t read(unsigned char* out, std::size_t size) override {
    if (m_ended || size == 0) return 0;
    ZSTD_outBuffer output{out, size, 0};
    while (output.pos == 0) {
      if (!m_input.fill()) {
        if (m_inFrame) throwCutShort("zstd");
        m_ended = true; // the data ends between frames
        break;
      }
      ZSTD_inBuffer input{m_input.data(), m_input.available(), 0};
      std::size_t const result = ZSTD_decompressStream(m_context, &output, &input);
      m_input.consume(input.pos);
      if (ZSTD_isError(result)) {
        if (ZSTD_getErrorCode(result) == ZSTD_error_frameParameter_windowTooLarge)
          throw DecodeError(DecodeError::Kind::TooLarge,
                            "zstd data needs a window above the limit of " + mebibytes(m_limit) + " MiB");
        if (ZSTD_getErrorCode(result) == ZSTD_error_memory_allocation) throw std::bad_alloc();
        throw DecodeError(DecodeError::Kind::Damaged,
                          std::string("zstd data is damaged: ") + ZSTD_getErrorName(result));
      }
      // 0: a frame has ended and everything it holds is out
      m_inFrame = result != 0;
    }
    return output.pos;
  }
  std::size_t unusedInput() const override { return 0; }

private:
  CDecoderInput m_input;
  ZSTD_DCtx* m_context;
  std::uint64_t m_limit;
  bool m_inFrame = false;
  bool m_ended = false;
};

} // namespace

std::unique_ptr<IEntryDecoder> makeZstdDecoder(IByteSource& source, DecoderLimits const& limits) {
  return std::make_unique<CZstdDecoder>(source, limits);
}

} // namespace codecs
} // namespace ziputil
