// The reading of an entry that the reader decodes itself instead of minizip:
// methods other than stored and deflated, and WinZip AES entries. minizip
// hands out the entry's stored bytes (raw, with traditional encryption already
// taken off); this class decrypts AES, decodes and checks what only it can:
// the authentication code, and whether the compressed data ends where the
// method's data ends. Internal to the reader.
#pragma once

#include "ziputil/codecs/EntryDecoder.h"
#include "ziputil/codecs/WinZipAes.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace ziputil {

class CEntryDecoding {
public:
  /// Reads up to `size` stored bytes; 0 only at the end of the stored data.
  /// Throws the archive's failure (the file system's error, or minizip's).
  using RawRead = std::function<std::size_t(unsigned char* buffer, std::size_t size)>;

  /// An AES entry's authentication code does not match; what() is the whole
  /// message the entry's stream gives.
  class AuthenticationError : public codecs::DecodeError {
  public:
    AuthenticationError();
  };

  struct Entry {
    int method = 0;                      ///< the method of the data (inside AES: the field's)
    int flags = 0;                       ///< general-purpose flags
    std::uint64_t storedSize = 0;        ///< bytes `raw` gives (with AES's salt, verifier and code)
    std::uint64_t uncompressedSize = 0;
    std::optional<aes::AesField> aes;    ///< set for a WinZip AES entry
  };

  /// Whether the reader decodes an entry of stored method `method` itself
  /// (a method minizip does not decompress that a decoder takes, or AES).
  static bool decodesMethod(int storedMethod);

  CEntryDecoding(RawRead raw, Entry const& entry, codecs::DecoderLimits const& limits);
  ~CEntryDecoding();

  /// Makes the decoder. For an AES entry first reads the salt and the
  /// verifier and derives the keys from `password` (UTF-8): false when the
  /// verifier says the password is wrong. Throws codecs::DecodeError for data
  /// cut short before the verifier, or a method header it cannot take.
  bool start(std::string_view password);
  /// Up to `size` decoded bytes; 0 at the method's end. Throws
  /// codecs::DecodeError for damaged data (and, for AES, an authentication
  /// code that does not match, met when the stored data runs out).
  std::size_t read(unsigned char* out, std::size_t size);
  /// Whether more decoded data follows: reads one byte past what was handed
  /// out (it is lost).
  bool hasMore();
  /// After the method's end: whether the stored data ends exactly there. Reads
  /// what is left of it, which checks an AES entry's authentication code
  /// (throwing when it does not match).
  bool storedDataEndsThere();
  /// For an AES entry: reads the rest of the stored data to check its
  /// authentication code; throws codecs::DecodeError when it does not match.
  /// Nothing for other entries, and nothing once checked.
  void authenticate();
  /// Throws `failure`, a decoder's, unless the entry is an AES entry whose
  /// authentication code, checked now (reading the rest of its stored data),
  /// does not match: then that is the failure thrown, since the data was
  /// changed. A failure met while reading the rest is passed over.
  [[noreturn]] void rethrowBlamingChangedData(codecs::DecodeError const& failure);
  /// The entry stream's message for `failure`: an AuthenticationError's as it
  /// is, any other "ZIP entry cannot be read: <what the decoder found>".
  static std::string messageFor(codecs::DecodeError const& failure);

private:
  class CAesSource;
  class CRawSource;

  std::size_t drain();

  Entry m_entry;
  codecs::DecoderLimits m_limits;
  std::unique_ptr<codecs::IByteSource> m_rawSource;
  std::unique_ptr<CAesSource> m_aesSource;
  std::unique_ptr<codecs::IEntryDecoder> m_decoder;
  bool m_ended = false;
};

} // namespace ziputil
