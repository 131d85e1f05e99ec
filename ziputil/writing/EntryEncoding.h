// The writing of an entry that the writer encodes itself instead of minizip,
// which then stores the result raw: zstd entries and WinZip AES entries
// (AE-2, around stored, deflated or zstd data). Internal to the writer.
#pragma once

#include "ziputil/codecs/EntryEncoder.h"
#include "ziputil/codecs/WinZipAes.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ziputil {

class CEntryEncoding {
public:
  /// The data compressed with `method` (0, 8 or 93) at `level`, and, with
  /// `aesStrength` 1 to 3, encrypted with `password` (UTF-8; a fresh salt);
  /// 0 for no encryption. With `precompressed`, the bytes written come
  /// compressed with `method` already and are only encrypted (the CRC-32 and
  /// size this class counts are then meaningless). Throws as
  /// codecs::makeEntryEncoder and aes::CWinZipAesEncryptor do.
  CEntryEncoding(int method, int level, int aesStrength, std::string_view password, bool precompressed);
  ~CEntryEncoding();

  /// The method recorded in the entry's headers: 99 for AES, else `method`.
  int storedMethod() const;
  /// The extra field the entry's local and central headers carry (the AES
  /// field), or empty.
  std::string const& extraField() const { return m_extraField; }
  /// The entry's flags besides the writer's own: bit 0 for AES.
  int flags() const { return m_aes ? 1 : 0; }

  /// Encodes `size` bytes; the stored bytes ready so far go to `sink`.
  void write(unsigned char const* data, std::size_t size, codecs::EncodedSink const& sink);
  /// Ends the data: the rest of the stored bytes go to `sink` (with AES, the
  /// authentication code last).
  void finish(codecs::EncodedSink const& sink);

  /// The CRC-32 to record: the data's, or 0 for AES (AE-2 records none).
  unsigned long crcToRecord() const;
  /// The bytes written so far (the uncompressed size).
  std::uint64_t size() const { return m_size; }

private:
  /// Encrypts `data` (a copy) when the entry is AES, and passes it on.
  void pass(unsigned char const* data, std::size_t size, codecs::EncodedSink const& sink);

  int m_method;
  std::unique_ptr<codecs::IEntryEncoder> m_encoder;
  std::unique_ptr<aes::CWinZipAesEncryptor> m_aes;
  std::string m_extraField;
  bool m_headerWritten = false;
  std::vector<unsigned char> m_scratch;
  unsigned long m_crc;
  std::uint64_t m_size = 0;
};

} // namespace ziputil
