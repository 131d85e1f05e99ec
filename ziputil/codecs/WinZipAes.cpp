#include "ziputil/codecs/WinZipAes.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace ziputil {
namespace aes {
namespace {

void checkStrength(int strength) {
  if (strength < 1 || strength > 3)
    throw std::invalid_argument("WinZip AES strength " + std::to_string(strength) + " (1 to 3 are defined)");
}

[[noreturn]] void cryptoFailed(char const* what) { throw std::runtime_error(std::string("libcrypto: ") + what); }

unsigned read16(unsigned char const* at) { return static_cast<unsigned>(at[0] | at[1] << 8); }

/// AES in WinZip's counter mode: the keystream is the AES encryption of a
/// 16-byte little-endian block counter that starts at 1; it is made many
/// blocks at a time, and what a call leaves unused serves the next.
class CCounterMode {
public:
  CCounterMode(unsigned char const* key, std::size_t keyBytes) : m_context(EVP_CIPHER_CTX_new()) {
    if (!m_context) cryptoFailed("EVP_CIPHER_CTX_new");
    EVP_CIPHER const* cipher =
        keyBytes == 16 ? EVP_aes_128_ecb() : keyBytes == 24 ? EVP_aes_192_ecb() : EVP_aes_256_ecb();
    if (EVP_EncryptInit_ex(m_context, cipher, nullptr, key, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(m_context, 0) != 1)
      cryptoFailed("EVP_EncryptInit_ex");
  }
  ~CCounterMode() {
    OPENSSL_cleanse(m_stream, sizeof m_stream);
    EVP_CIPHER_CTX_free(m_context);
  }
  CCounterMode(CCounterMode const&) = delete;
  CCounterMode& operator=(CCounterMode const&) = delete;

  /// XORs the next `size` keystream bytes into `data`.
  void apply(unsigned char* data, std::size_t size) {
    while (size > 0) {
      if (m_used == sizeof m_stream) refill();
      std::size_t const n = std::min(size, sizeof m_stream - m_used);
      unsigned char const* key = m_stream + m_used;
      std::size_t i = 0;
      for (; i + 8 <= n; i += 8) {
        std::uint64_t a, b;
        std::memcpy(&a, data + i, 8);
        std::memcpy(&b, key + i, 8);
        a ^= b;
        std::memcpy(data + i, &a, 8);
      }
      for (; i < n; ++i) data[i] ^= key[i];
      m_used += n;
      data += n;
      size -= n;
    }
  }

private:
  void refill() {
    for (std::size_t at = 0; at < sizeof m_counters; at += 16) {
      ++m_counter;
      std::uint64_t value = m_counter;
      for (int i = 0; i < 8; ++i, value >>= 8) m_counters[at + static_cast<std::size_t>(i)] = value & 0xFF;
      std::memset(m_counters + at + 8, 0, 8); // the high half: 2^64 blocks are never reached
    }
    int written = 0;
    if (EVP_EncryptUpdate(m_context, m_stream, &written, m_counters, static_cast<int>(sizeof m_counters)) != 1 ||
        written != static_cast<int>(sizeof m_stream))
      cryptoFailed("EVP_EncryptUpdate");
    m_used = 0;
  }

  EVP_CIPHER_CTX* m_context;
  std::uint64_t m_counter = 0;
  unsigned char m_counters[8192] = {};
  unsigned char m_stream[8192] = {};
  std::size_t m_used = sizeof m_stream;
};

/// HMAC-SHA1 through OpenSSL 3's EVP_MAC.
class CHmacSha1 {
public:
  CHmacSha1(unsigned char const* key, std::size_t keyBytes) {
    EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    if (!mac) cryptoFailed("EVP_MAC_fetch");
    m_context = EVP_MAC_CTX_new(mac);
    EVP_MAC_free(mac);
    if (!m_context) cryptoFailed("EVP_MAC_CTX_new");
    char digest[] = "SHA1";
    OSSL_PARAM const params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                 OSSL_PARAM_construct_end()};
    if (EVP_MAC_init(m_context, key, keyBytes, params) != 1) cryptoFailed("EVP_MAC_init");
  }
  ~CHmacSha1() { EVP_MAC_CTX_free(m_context); }
  CHmacSha1(CHmacSha1 const&) = delete;
  CHmacSha1& operator=(CHmacSha1 const&) = delete;

  void update(unsigned char const* data, std::size_t size) {
    if (size > 0 && EVP_MAC_update(m_context, data, size) != 1) cryptoFailed("EVP_MAC_update");
  }
  std::array<unsigned char, kAuthCodeBytes> code() {
    unsigned char full[EVP_MAX_MD_SIZE];
    std::size_t length = 0;
    if (EVP_MAC_final(m_context, full, &length, sizeof full) != 1 || length < kAuthCodeBytes)
      cryptoFailed("EVP_MAC_final");
    std::array<unsigned char, kAuthCodeBytes> result{};
    std::memcpy(result.data(), full, kAuthCodeBytes);
    return result;
  }

private:
  EVP_MAC_CTX* m_context = nullptr;
};

/// The keys PBKDF2 derives from a password and a salt: the AES key, the HMAC
/// key and the 2-byte verifier, in that order.
std::vector<unsigned char> deriveKeys(std::string_view password, int strength, unsigned char const* salt) {
  std::size_t const key = keyBytes(strength);
  std::vector<unsigned char> keys(2 * key + kVerifierBytes);
  if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt, static_cast<int>(saltBytes(strength)),
                        1000, EVP_sha1(), static_cast<int>(keys.size()), keys.data()) != 1)
    cryptoFailed("PKCS5_PBKDF2_HMAC");
  return keys;
}

} // namespace

std::size_t keyBytes(int strength) {
  checkStrength(strength);
  return 8 + 8 * static_cast<std::size_t>(strength);
}

std::size_t saltBytes(int strength) { return keyBytes(strength) / 2; }

std::size_t overheadBytes(int strength) { return saltBytes(strength) + kVerifierBytes + kAuthCodeBytes; }

std::optional<AesField> findAesField(std::string_view extra) {
  auto const* bytes = reinterpret_cast<unsigned char const*>(extra.data());
  std::size_t at = 0;
  while (at + 4 <= extra.size()) {
    unsigned const id = read16(bytes + at);
    std::size_t const size = read16(bytes + at + 2);
    if (at + 4 + size > extra.size()) break;
    if (id == kExtraId) {
      unsigned char const* data = bytes + at + 4;
      if (size != 7)
        throw std::invalid_argument("the WinZip AES extra field has " + std::to_string(size) +
                                    " bytes (7 are defined)");
      AesField field;
      field.version = static_cast<int>(read16(data));
      if (field.version != 1 && field.version != 2)
        throw std::invalid_argument("the WinZip AES extra field has version " + std::to_string(field.version) +
                                    " (1 and 2 are defined)");
      if (data[2] != 'A' || data[3] != 'E')
        throw std::invalid_argument("the WinZip AES extra field's vendor is not \"AE\"");
      field.strength = data[4];
      if (field.strength < 1 || field.strength > 3)
        throw std::invalid_argument("the WinZip AES extra field has a strength of " + std::to_string(field.strength) +
                                    " (1 to 3 are defined)");
      field.method = static_cast<int>(read16(data + 5));
      return field;
    }
    at += 4 + size;
  }
  return std::nullopt;
}

std::string makeAesField(AesField const& field) {
  checkStrength(field.strength);
  std::string out;
  auto put16 = [&out](unsigned value) {
    out += static_cast<char>(value & 0xFF);
    out += static_cast<char>((value >> 8) & 0xFF);
  };
  put16(kExtraId);
  put16(7);
  put16(static_cast<unsigned>(field.version));
  out += "AE";
  out += static_cast<char>(field.strength);
  put16(static_cast<unsigned>(field.method));
  return out;
}

struct CWinZipAesDecryptor::State {
  State(std::vector<unsigned char> const& keys, std::size_t key)
      : counter(keys.data(), key), hmac(keys.data() + key, key), verifier{keys[2 * key], keys[2 * key + 1]} {}
  CCounterMode counter;
  CHmacSha1 hmac;
  unsigned char verifier[kVerifierBytes];
};

CWinZipAesDecryptor::CWinZipAesDecryptor(std::string_view password, int strength, unsigned char const* salt) {
  std::vector<unsigned char> keys = deriveKeys(password, strength, salt);
  m_state = std::make_unique<State>(keys, keyBytes(strength));
  OPENSSL_cleanse(keys.data(), keys.size());
}

CWinZipAesDecryptor::~CWinZipAesDecryptor() = default;

bool CWinZipAesDecryptor::verifierMatches(unsigned char const* verifier) const {
  return CRYPTO_memcmp(verifier, m_state->verifier, kVerifierBytes) == 0;
}

void CWinZipAesDecryptor::decrypt(unsigned char* data, std::size_t size) {
  m_state->hmac.update(data, size);
  m_state->counter.apply(data, size);
}

bool CWinZipAesDecryptor::authenticates(unsigned char const* code) {
  std::array<unsigned char, kAuthCodeBytes> const expected = m_state->hmac.code();
  return CRYPTO_memcmp(code, expected.data(), kAuthCodeBytes) == 0;
}

struct CWinZipAesEncryptor::State {
  State(std::vector<unsigned char> const& keys, std::size_t key) : counter(keys.data(), key), hmac(keys.data() + key, key) {}
  CCounterMode counter;
  CHmacSha1 hmac;
  std::string header;
};

CWinZipAesEncryptor::CWinZipAesEncryptor(std::string_view password, int strength) {
  std::size_t const saltSize = saltBytes(strength);
  unsigned char salt[16];
  for (std::size_t got = 0; got < saltSize;) {
    ssize_t const n = getrandom(salt + got, saltSize - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error(std::string("getrandom: ") + std::strerror(errno));
    got += static_cast<std::size_t>(n);
  }
  std::vector<unsigned char> keys = deriveKeys(password, strength, salt);
  std::size_t const key = keyBytes(strength);
  m_state = std::make_unique<State>(keys, key);
  m_state->header.assign(reinterpret_cast<char const*>(salt), saltSize);
  m_state->header.append(reinterpret_cast<char const*>(keys.data() + 2 * key), kVerifierBytes);
  OPENSSL_cleanse(keys.data(), keys.size());
}

CWinZipAesEncryptor::~CWinZipAesEncryptor() = default;

std::string CWinZipAesEncryptor::header() const { return m_state->header; }

void CWinZipAesEncryptor::encrypt(unsigned char* data, std::size_t size) {
  m_state->counter.apply(data, size);
  m_state->hmac.update(data, size);
}

std::array<unsigned char, kAuthCodeBytes> CWinZipAesEncryptor::authenticationCode() { return m_state->hmac.code(); }

} // namespace aes
} // namespace ziputil
