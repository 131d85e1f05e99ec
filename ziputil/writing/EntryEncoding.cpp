#include "ziputil/writing/EntryEncoding.h"

#include <zlib.h>

#include <algorithm>
#include <array>

namespace ziputil {

CEntryEncoding::CEntryEncoding(int method, int level, int aesStrength, std::string_view password, bool precompressed)
    : m_method(method), m_encoder(codecs::makeEntryEncoder(precompressed ? 0 : method, level)),
      m_crc(crc32(0L, Z_NULL, 0)) {
  if (aesStrength != 0) {
    m_aes = std::make_unique<aes::CWinZipAesEncryptor>(password, aesStrength);
    aes::AesField field;
    field.version = 2;
    field.strength = aesStrength;
    field.method = method;
    m_extraField = aes::makeAesField(field);
  }
}

CEntryEncoding::~CEntryEncoding() = default;

int CEntryEncoding::storedMethod() const { return m_aes ? aes::kMethod : m_method; }

unsigned long CEntryEncoding::crcToRecord() const { return m_aes ? 0 : m_crc; }

void CEntryEncoding::pass(unsigned char const* data, std::size_t size, codecs::EncodedSink const& sink) {
  if (!m_aes) {
    sink(data, size);
    return;
  }
  if (!m_headerWritten) {
    std::string const header = m_aes->header();
    sink(reinterpret_cast<unsigned char const*>(header.data()), header.size());
    m_headerWritten = true;
  }
  while (size > 0) {
    std::size_t const piece = std::min<std::size_t>(size, 64 * 1024);
    m_scratch.assign(data, data + piece);
    m_aes->encrypt(m_scratch.data(), piece);
    sink(m_scratch.data(), piece);
    data += piece;
    size -= piece;
  }
}

void CEntryEncoding::write(unsigned char const* data, std::size_t size, codecs::EncodedSink const& sink) {
  for (std::size_t done = 0; done < size;) {
    uInt const piece = static_cast<uInt>(std::min<std::size_t>(size - done, 1u << 30));
    m_crc = crc32(m_crc, data + done, piece);
    done += piece;
  }
  m_size += size;
  m_encoder->write(data, size, [&](unsigned char const* out, std::size_t n) { pass(out, n, sink); });
}

void CEntryEncoding::finish(codecs::EncodedSink const& sink) {
  m_encoder->finish([&](unsigned char const* out, std::size_t n) { pass(out, n, sink); });
  if (m_aes) {
    pass(nullptr, 0, sink); // the salt and verifier of an entry without data
    std::array<unsigned char, aes::kAuthCodeBytes> const code = m_aes->authenticationCode();
    sink(code.data(), code.size());
  }
}

} // namespace ziputil
