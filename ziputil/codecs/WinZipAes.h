// WinZip's AES encryption of ZIP entries (AE-1 and AE-2), on OpenSSL's
// libcrypto: the 0x9901 extra field, key derivation (PBKDF2-HMAC-SHA1, 1000
// iterations), AES in WinZip's counter mode (a little-endian block counter
// from 1) and the 10-byte HMAC-SHA1 authentication code over the encrypted
// data. Internal to the library.
//
// An AES entry's stored data is: salt (8, 12 or 16 bytes for 128, 192 or
// 256-bit keys), a 2-byte password verifier, the encrypted data, the 10-byte
// authentication code. Its method field says 99; the real method is in the
// extra field.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ziputil {
namespace aes {

/// The stored method of every AES entry.
constexpr int kMethod = 99;
/// The extra field's header ID.
constexpr std::uint16_t kExtraId = 0x9901;
/// Bytes of the verifier and of the authentication code.
constexpr std::size_t kVerifierBytes = 2;
constexpr std::size_t kAuthCodeBytes = 10;

/// What the 0x9901 extra field says.
struct AesField {
  int version = 2;  ///< 1 (AE-1: the CRC-32 is stored and checked) or 2 (AE-2: no CRC-32)
  int strength = 3; ///< 1, 2 or 3: 128, 192 or 256-bit keys
  int method = 8;   ///< the real compression method of the data inside
};

/// Key bytes for a strength (16, 24, 32); salt bytes are half as many. Throw
/// std::invalid_argument for a strength other than 1 to 3.
std::size_t keyBytes(int strength);
std::size_t saltBytes(int strength);
/// The data's overhead: salt, verifier and authentication code.
std::size_t overheadBytes(int strength);

/// The 0x9901 field within a (central or local) extra field: empty when there
/// is none; throws std::invalid_argument with a message for one that is there
/// but malformed (wrong size, vendor ID other than "AE", version other than 1
/// or 2, strength other than 1 to 3). Other fields are skipped; a truncated
/// field list ends the search.
std::optional<AesField> findAesField(std::string_view extraField);
/// The whole 11-byte field (header ID, size 7, version, "AE", strength, method), little-endian.
/// Throws std::invalid_argument for a version other than 1 or 2, a strength
/// other than 1 to 3, or a method outside 0 to 65535.
std::string makeAesField(AesField const& field);

/// Decrypts one entry's data. Feed it the ciphertext that follows the salt
/// and verifier, then check the authentication code that ends the entry.
/// The keys are wiped from memory when it is destroyed. One thread at a time.
class CWinZipAesDecryptor {
public:
  /// Derives the keys from `password` (UTF-8 bytes) and `salt`
  /// (saltBytes(strength) bytes): 1000 PBKDF2 iterations per 20 derived
  /// bytes, around a millisecond per entry. Throws std::invalid_argument for
  /// a bad strength, std::runtime_error when libcrypto fails.
  CWinZipAesDecryptor(std::string_view password, int strength, unsigned char const* salt);
  ~CWinZipAesDecryptor();
  CWinZipAesDecryptor(CWinZipAesDecryptor const&) = delete;
  CWinZipAesDecryptor& operator=(CWinZipAesDecryptor const&) = delete;

  /// Whether the stored verifier matches the password's (a wrong password is
  /// refused with a chance of 1 in 65,536 of passing).
  bool verifierMatches(unsigned char const* verifier) const;
  /// Adds `size` encrypted bytes to the authentication code, then decrypts
  /// them in place. Calls may split the data anywhere. Throws
  /// std::logic_error after authenticates() (the data is then left as it
  /// is), std::runtime_error when libcrypto fails.
  void decrypt(unsigned char* data, std::size_t size);
  /// Whether `code` (kAuthCodeBytes) is the authentication code of all the
  /// data given to decrypt(), compared in constant time. Ends the data: later
  /// calls compare with the same code. Throws std::runtime_error when
  /// libcrypto fails.
  bool authenticates(unsigned char const* code);

private:
  struct State;
  std::unique_ptr<State> m_state;
};

/// Encrypts one entry's data with a fresh salt from the system's random
/// source (getrandom), drawn by each encryptor for itself: write header()
/// first, then the data as encrypt() leaves it, then authenticationCode().
class CWinZipAesEncryptor {
public:
  /// Throws std::invalid_argument for a bad strength, std::runtime_error when
  /// the random source or libcrypto fails.
  CWinZipAesEncryptor(std::string_view password, int strength);
  ~CWinZipAesEncryptor();
  CWinZipAesEncryptor(CWinZipAesEncryptor const&) = delete;
  CWinZipAesEncryptor& operator=(CWinZipAesEncryptor const&) = delete;

  /// Salt and verifier: saltBytes(strength) + 2 bytes.
  std::string header() const;
  /// Encrypts `size` bytes in place and adds the result to the authentication
  /// code. Calls may split the data anywhere. Throws std::logic_error after
  /// authenticationCode() (the data is then left as it is),
  /// std::runtime_error when libcrypto fails.
  void encrypt(unsigned char* data, std::size_t size);
  /// The code over everything encrypt() produced, at the end; a later call
  /// gives the same code.
  std::array<unsigned char, kAuthCodeBytes> authenticationCode();

private:
  struct State;
  std::unique_ptr<State> m_state;
};

} // namespace aes
} // namespace ziputil
