// bzip2 (method 12) through libbz2: one bzip2 stream per entry.
#include "ziputil/codecs/DecoderInput.h"

#include <bzlib.h>

#include <new>

namespace ziputil {
namespace codecs {
namespace {

char const* bzip2ErrorName(int result) {
  switch (result) {
  case BZ_DATA_ERROR: return "BZ_DATA_ERROR";
  case BZ_DATA_ERROR_MAGIC: return "BZ_DATA_ERROR_MAGIC";
  case BZ_PARAM_ERROR: return "BZ_PARAM_ERROR";
  case BZ_SEQUENCE_ERROR: return "BZ_SEQUENCE_ERROR";
  default: return "error";
  }
}

class CBzip2Decoder : public IEntryDecoder {
public:
  explicit CBzip2Decoder(IByteSource& source) : m_input(source) {
    int const result = BZ2_bzDecompressInit(&m_stream, 0, 0);
    if (result == BZ_MEM_ERROR) throw std::bad_alloc();
    if (result != BZ_OK) throw DecodeError(DecodeError::Kind::Unsupported, "bzip2 cannot start");
  }
  ~CBzip2Decoder() override { BZ2_bzDecompressEnd(&m_stream); }
  CBzip2Decoder(CBzip2Decoder const&) = delete;
  CBzip2Decoder& operator=(CBzip2Decoder const&) = delete;

  std::size_t read(unsigned char* out, std::size_t size) override {
    if (m_ended || size == 0) return 0;
    unsigned const room = static_cast<unsigned>(size > (1u << 30) ? (1u << 30) : size);
    m_stream.next_out = reinterpret_cast<char*>(out);
    m_stream.avail_out = room;
    while (m_stream.avail_out == room) {
      if (!m_input.fill()) throwCutShort("bzip2");
      m_stream.next_in = const_cast<char*>(reinterpret_cast<char const*>(m_input.data()));
      m_stream.avail_in = static_cast<unsigned>(m_input.available());
      int const result = BZ2_bzDecompress(&m_stream);
      m_input.consume(m_input.available() - m_stream.avail_in);
      if (result == BZ_STREAM_END) {
        m_ended = true;
        break;
      }
      if (result == BZ_MEM_ERROR) throw std::bad_alloc();
      if (result != BZ_OK)
        throw DecodeError(DecodeError::Kind::Damaged, std::string("bzip2 data is damaged (") + bzip2ErrorName(result) +
                                                          ")");
    }
    return room - m_stream.avail_out;
  }
  std::size_t unusedInput() const override { return m_input.available(); }

private:
  CDecoderInput m_input;
  bz_stream m_stream{};
  bool m_ended = false;
};

} // namespace

std::unique_ptr<IEntryDecoder> makeBzip2Decoder(IByteSource& source) { return std::make_unique<CBzip2Decoder>(source); }

} // namespace codecs
} // namespace ziputil
