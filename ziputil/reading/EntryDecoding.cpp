#include "ziputil/reading/EntryDecoding.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <utility>

namespace ziputil {

using codecs::DecodeError;

/// The stored bytes as minizip hands them out.
class CEntryDecoding::CRawSource : public codecs::IByteSource {
public:
  explicit CRawSource(RawRead raw) : m_raw(std::move(raw)) {}
  std::size_t read(unsigned char* buffer, std::size_t size) override { return size == 0 ? 0 : m_raw(buffer, size); }

private:
  RawRead m_raw;
};

/// An AES entry's ciphertext, decrypted; the authentication code that follows
/// it is checked in the read that takes the last ciphertext byte, so that no
/// read hands out the end of changed data as a success.
class CEntryDecoding::CAesSource : public codecs::IByteSource {
public:
  CAesSource(codecs::IByteSource& raw, aes::AesField const& field, std::uint64_t storedSize)
      : m_raw(raw), m_field(field), m_storedSize(storedSize) {}

  bool start(std::string_view password) {
    std::size_t const overhead = aes::overheadBytes(m_field.strength);
    if (m_storedSize < overhead)
      throw DecodeError(DecodeError::Kind::Damaged,
                        "the WinZip AES entry is shorter than its salt, verifier and authentication code");
    m_left = m_storedSize - overhead;
    std::array<unsigned char, 16 + aes::kVerifierBytes> header{};
    std::size_t const headerBytes = aes::saltBytes(m_field.strength) + aes::kVerifierBytes;
    readExactly(header.data(), headerBytes, "its password verifier");
    m_decryptor = std::make_unique<aes::CWinZipAesDecryptor>(password, m_field.strength, header.data());
    if (!m_decryptor->verifierMatches(header.data() + headerBytes - aes::kVerifierBytes)) return false;
    if (m_left == 0) checkCode();
    return true;
  }

  std::size_t read(unsigned char* buffer, std::size_t size) override {
    if (m_left == 0 || size == 0) return 0;
    std::size_t const want = static_cast<std::size_t>(std::min<std::uint64_t>(size, m_left));
    std::size_t const got = m_raw.read(buffer, want);
    if (got == 0)
      throw DecodeError(DecodeError::Kind::Damaged, "the WinZip AES entry's data is cut short before its end");
    m_decryptor->decrypt(buffer, got);
    m_left -= got;
    if (m_left == 0) checkCode();
    return got;
  }

  bool checked() const { return m_checked; }

private:
  void readExactly(unsigned char* buffer, std::size_t size, char const* before) {
    std::size_t done = 0;
    while (done < size) {
      std::size_t const got = m_raw.read(buffer + done, size - done);
      if (got == 0)
        throw DecodeError(DecodeError::Kind::Damaged,
                          std::string("the WinZip AES entry's data is cut short before ") + before);
      done += got;
    }
  }

  void checkCode() {
    std::array<unsigned char, aes::kAuthCodeBytes> code{};
    readExactly(code.data(), code.size(), "its authentication code");
    m_checked = true;
    if (!m_decryptor->authenticates(code.data())) throw AuthenticationError();
  }

  codecs::IByteSource& m_raw;
  aes::AesField m_field;
  std::uint64_t m_storedSize;
  std::uint64_t m_left = 0;
  bool m_checked = false;
  std::unique_ptr<aes::CWinZipAesDecryptor> m_decryptor;
};

CEntryDecoding::AuthenticationError::AuthenticationError()
    : DecodeError(Kind::Damaged, "ZIP entry's WinZip AES authentication code does not match: its encrypted data was "
                                 "changed or damaged") {}

bool CEntryDecoding::decodesMethod(int storedMethod) {
  if (storedMethod == aes::kMethod) return true;
  return storedMethod != 0 && storedMethod != Z_DEFLATED && codecs::canDecode(storedMethod);
}

CEntryDecoding::CEntryDecoding(RawRead raw, Entry const& entry, codecs::DecoderLimits const& limits)
    : m_entry(entry), m_limits(limits), m_rawSource(std::make_unique<CRawSource>(std::move(raw))) {}

CEntryDecoding::~CEntryDecoding() = default;

bool CEntryDecoding::start(std::string_view password) {
  codecs::IByteSource* source = m_rawSource.get();
  if (m_entry.aes) {
    m_aesSource = std::make_unique<CAesSource>(*m_rawSource, *m_entry.aes, m_entry.storedSize);
    if (!m_aesSource->start(password)) return false;
    source = m_aesSource.get();
  }
  m_decoder = codecs::makeEntryDecoder(m_entry.method, *source, m_entry.uncompressedSize, m_entry.flags, m_limits);
  return true;
}

std::size_t CEntryDecoding::read(unsigned char* out, std::size_t size) {
  if (m_ended || size == 0) return 0;
  std::size_t const got = m_decoder->read(out, size);
  if (got == 0) m_ended = true;
  return got;
}

bool CEntryDecoding::hasMore() {
  unsigned char beyond = 0;
  return read(&beyond, 1) != 0;
}

std::size_t CEntryDecoding::drain() {
  codecs::IByteSource& source = m_aesSource ? static_cast<codecs::IByteSource&>(*m_aesSource) : *m_rawSource;
  std::array<unsigned char, 16384> scratch{};
  std::size_t left = 0;
  while (std::size_t const got = source.read(scratch.data(), scratch.size())) left += got;
  return left;
}

bool CEntryDecoding::storedDataEndsThere() {
  std::size_t const unused = m_decoder->unusedInput();
  return drain() == 0 && unused == 0;
}

void CEntryDecoding::authenticate() {
  if (m_aesSource && !m_aesSource->checked()) drain();
}

std::string CEntryDecoding::messageFor(codecs::DecodeError const& failure) {
  if (dynamic_cast<AuthenticationError const*>(&failure)) return failure.what();
  return std::string("ZIP entry cannot be read: ") + failure.what();
}

void CEntryDecoding::rethrowBlamingChangedData(codecs::DecodeError const& failure) {
  if (m_aesSource && !m_aesSource->checked() && !dynamic_cast<AuthenticationError const*>(&failure)) {
    try {
      drain();
    } catch (AuthenticationError const&) {
      throw;
    } catch (...) { // the decoder's failure is the one to report
    }
  }
  if (dynamic_cast<AuthenticationError const*>(&failure)) throw AuthenticationError();
  throw codecs::DecodeError(failure.kind(), failure.what());
}

} // namespace ziputil
