#include "ziputil/codecs/WinZipAes.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace ziputil {
namespace aes {

namespace {

constexpr int kIterations = 1000;
constexpr std::size_t kBlockBytes = 16;
/// Keystream made by one AES call: 512 blocks, small enough to stay in the first-level cache.
constexpr std::size_t kKeystreamBytes = 8 * 1024;
/// Data authenticated and then decrypted (or encrypted and then authenticated) in one go, so that
/// the second pass finds it still in the cache.
constexpr std::size_t kSliceBytes = 16 * 1024;
constexpr std::size_t kSha1Bytes = 20;

[[noreturn]] void throwCrypto(char const* what) {
  unsigned long const code = ERR_get_error();
  std::string message = std::string("libcrypto failed to ") + what;
  if (code != 0) {
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    message += ": ";
    message += text;
  }
  ERR_clear_error();
  throw std::runtime_error(message);
}

void checkStrength(int strength) {
  if (strength < 1 || strength > 3)
    throw std::invalid_argument("WinZip AES strength " + std::to_string(strength) +
                                " is not defined (1, 2 or 3: 128, 192 or 256-bit keys)");
}

EVP_CIPHER const* ecbCipher(int strength) {
  switch (strength) {
  case 1: return EVP_aes_128_ecb();
  case 2: return EVP_aes_192_ecb();
  default: return EVP_aes_256_ecb();
  }
}

/// `value` with its least significant byte first in memory.
std::uint64_t littleEndian(std::uint64_t value) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  return __builtin_bswap64(value);
#else
  return value;
#endif
}

/// data ^= keystream over `size` bytes, sixteen bytes a step where it can.
void xorInto(unsigned char* data, unsigned char const* keystream, std::size_t size) {
  typedef unsigned long long Wide __attribute__((vector_size(16)));
  std::size_t i = 0;
  for (; i + 2 * sizeof(Wide) <= size; i += 2 * sizeof(Wide)) {
    Wide a, b, k, l;
    std::memcpy(&a, data + i, sizeof a);
    std::memcpy(&b, data + i + sizeof a, sizeof b);
    std::memcpy(&k, keystream + i, sizeof k);
    std::memcpy(&l, keystream + i + sizeof k, sizeof l);
    a ^= k;
    b ^= l;
    std::memcpy(data + i, &a, sizeof a);
    std::memcpy(data + i + sizeof a, &b, sizeof b);
  }
  for (; i < size; ++i) data[i] ^= keystream[i];
}

/// What both directions share: the keys derived from the password and salt,
/// AES in counter mode with its unused keystream, and the running HMAC-SHA1.
class Engine {
public:
  Engine(std::string_view password, int strength, unsigned char const* salt) {
    checkStrength(strength);
    std::size_t const key = keyBytes(strength);
    unsigned char derived[2 * 32 + kVerifierBytes];
    std::size_t const derivedBytes = 2 * key + kVerifierBytes;
    // An empty view may have no address; libcrypto wants one.
    char const* const pass = password.empty() ? "" : password.data();
    if (PKCS5_PBKDF2_HMAC(pass, static_cast<int>(password.size()), salt, static_cast<int>(saltBytes(strength)),
                          kIterations, EVP_sha1(), static_cast<int>(derivedBytes), derived) != 1)
      throwCrypto("derive the WinZip AES keys");
    std::memcpy(m_verifier, derived + 2 * key, kVerifierBytes);
    try {
      m_cipher = EVP_CIPHER_CTX_new();
      if (!m_cipher) throwCrypto("allocate an AES context");
      if (EVP_EncryptInit_ex(m_cipher, ecbCipher(strength), nullptr, derived, nullptr) != 1)
        throwCrypto("set up AES");
      EVP_CIPHER_CTX_set_padding(m_cipher, 0);

      EVP_MAC* const hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
      if (!hmac) throwCrypto("fetch HMAC");
      m_mac = EVP_MAC_CTX_new(hmac);
      EVP_MAC_free(hmac); // the context keeps its own reference
      if (!m_mac) throwCrypto("allocate an HMAC context");
      char digest[] = "SHA1";
      OSSL_PARAM const params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                   OSSL_PARAM_construct_end()};
      if (EVP_MAC_init(m_mac, derived + key, key, params) != 1) throwCrypto("set up HMAC-SHA1");
    } catch (...) {
      OPENSSL_cleanse(derived, sizeof derived);
      release();
      throw;
    }
    OPENSSL_cleanse(derived, sizeof derived);
  }

  ~Engine() { release(); }
  Engine(Engine const&) = delete;
  Engine& operator=(Engine const&) = delete;

  unsigned char const* verifier() const { return m_verifier; }

  /// XORs `size` bytes with the next keystream bytes.
  void crypt(unsigned char* data, std::size_t size) {
    while (size > 0) {
      if (m_used == m_made) refill(size);
      std::size_t const n = std::min(size, m_made - m_used);
      xorInto(data, m_keystream + m_used, n);
      m_used += n;
      data += n;
      size -= n;
    }
  }

  void authenticate(unsigned char const* data, std::size_t size) {
    if (m_finished) throw std::logic_error("WinZip AES: data given after the authentication code was taken");
    if (size > 0 && EVP_MAC_update(m_mac, data, size) != 1) throwCrypto("update HMAC-SHA1");
  }

  /// The authentication code of everything authenticated; later calls give the same code.
  unsigned char const* code() {
    if (!m_finished) {
      std::size_t length = 0;
      if (EVP_MAC_final(m_mac, m_code, &length, sizeof m_code) != 1 || length != kSha1Bytes)
        throwCrypto("finish HMAC-SHA1");
      m_finished = true;
    }
    return m_code;
  }

  bool finished() const { return m_finished; }

private:
  /// Makes keystream for at least min(wanted, kKeystreamBytes) bytes, whole blocks, in one AES call.
  void refill(std::size_t wanted) {
    std::size_t const blocks = std::min(kKeystreamBytes, wanted + kBlockBytes - 1) / kBlockBytes;
    unsigned char* block = m_keystream;
    for (std::size_t b = 0; b < blocks; ++b, block += kBlockBytes) {
      // The counter, least significant byte first.
      if (++m_counterLow == 0) ++m_counterHigh;
      std::uint64_t const low = littleEndian(m_counterLow), high = littleEndian(m_counterHigh);
      std::memcpy(block, &low, sizeof low);
      std::memcpy(block + sizeof low, &high, sizeof high);
    }
    int const bytes = static_cast<int>(blocks * kBlockBytes);
    int written = 0;
    if (EVP_EncryptUpdate(m_cipher, m_keystream, &written, m_keystream, bytes) != 1 || written != bytes)
      throwCrypto("run AES");
    m_made = static_cast<std::size_t>(bytes);
    m_used = 0;
  }

  void release() {
    EVP_CIPHER_CTX_free(m_cipher); // wipes the key schedule
    EVP_MAC_CTX_free(m_mac);       // wipes the HMAC key
    m_cipher = nullptr;
    m_mac = nullptr;
    OPENSSL_cleanse(m_keystream, sizeof m_keystream);
    OPENSSL_cleanse(m_verifier, sizeof m_verifier);
    OPENSSL_cleanse(m_code, sizeof m_code);
  }

  EVP_CIPHER_CTX* m_cipher = nullptr;
  EVP_MAC_CTX* m_mac = nullptr;
  /// The last block counter used (0: none yet); the first block's is 1.
  std::uint64_t m_counterLow = 0;
  std::uint64_t m_counterHigh = 0;
  alignas(16) unsigned char m_keystream[kKeystreamBytes];
  std::size_t m_made = 0; ///< keystream bytes made by the last refill
  std::size_t m_used = 0; ///< of which used
  unsigned char m_verifier[kVerifierBytes] = {};
  unsigned char m_code[kSha1Bytes] = {};
  bool m_finished = false;
};

void fillRandom(unsigned char* out, std::size_t size) {
  while (size > 0) {
    ssize_t const got = getrandom(out, size, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error(std::string("the system's random source failed: ") + std::strerror(errno));
    }
    out += got;
    size -= static_cast<std::size_t>(got);
  }
}

unsigned readU16(std::string_view bytes, std::size_t at) {
  return static_cast<unsigned char>(bytes[at]) | static_cast<unsigned>(static_cast<unsigned char>(bytes[at + 1])) << 8;
}

void appendU16(std::string& out, unsigned value) {
  out += static_cast<char>(value & 0xff);
  out += static_cast<char>((value >> 8) & 0xff);
}

std::string hexBytes(std::string_view bytes) {
  static char const digits[] = "0123456789abcdef";
  std::string text;
  for (unsigned char c : bytes) {
    if (!text.empty()) text += ' ';
    text += digits[c >> 4];
    text += digits[c & 15];
  }
  return text;
}

} // namespace

std::size_t keyBytes(int strength) {
  checkStrength(strength);
  return 8 + 8 * static_cast<std::size_t>(strength);
}

std::size_t saltBytes(int strength) { return keyBytes(strength) / 2; }

std::size_t overheadBytes(int strength) { return saltBytes(strength) + kVerifierBytes + kAuthCodeBytes; }

std::optional<AesField> findAesField(std::string_view extraField) {
  std::size_t at = 0;
  while (at + 4 <= extraField.size()) {
    unsigned const id = readU16(extraField, at);
    std::size_t const size = readU16(extraField, at + 2);
    if (at + 4 + size > extraField.size()) break;
    if (id == kExtraId) {
      std::string_view const data = extraField.substr(at + 4, size);
      if (size != 7)
        throw std::invalid_argument("the WinZip AES extra field has " + std::to_string(size) +
                                    " bytes of data (7 expected)");
      AesField field;
      field.version = static_cast<int>(readU16(data, 0));
      if (data.substr(2, 2) != "AE")
        throw std::invalid_argument("the WinZip AES extra field has the vendor ID " + hexBytes(data.substr(2, 2)) +
                                    " (\"AE\", 41 45, expected)");
      if (field.version != 1 && field.version != 2)
        throw std::invalid_argument("the WinZip AES extra field has version " + std::to_string(field.version) +
                                    " (1 and 2 are defined)");
      field.strength = static_cast<unsigned char>(data[4]);
      if (field.strength < 1 || field.strength > 3)
        throw std::invalid_argument("the WinZip AES extra field has a strength of " + std::to_string(field.strength) +
                                    " (1 to 3 are defined)");
      field.method = static_cast<int>(readU16(data, 5));
      return field;
    }
    at += 4 + size;
  }
  return std::nullopt;
}

std::string makeAesField(AesField const& field) {
  if (field.version != 1 && field.version != 2)
    throw std::invalid_argument("WinZip AES version " + std::to_string(field.version) + " is not defined (1 or 2)");
  checkStrength(field.strength);
  if (field.method < 0 || field.method > 0xffff)
    throw std::invalid_argument("compression method " + std::to_string(field.method) +
                                " does not fit the WinZip AES extra field (0 to 65535)");
  std::string out;
  appendU16(out, kExtraId);
  appendU16(out, 7);
  appendU16(out, static_cast<unsigned>(field.version));
  out += "AE";
  out += static_cast<char>(field.strength);
  appendU16(out, static_cast<unsigned>(field.method));
  return out;
}

// ---- decryption ----

struct CWinZipAesDecryptor::State {
  State(std::string_view password, int strength, unsigned char const* salt) : engine(password, strength, salt) {}
  Engine engine;
};

CWinZipAesDecryptor::CWinZipAesDecryptor(std::string_view password, int strength, unsigned char const* salt)
    : m_state(std::make_unique<State>(password, strength, salt)) {}

CWinZipAesDecryptor::~CWinZipAesDecryptor() = default;

bool CWinZipAesDecryptor::verifierMatches(unsigned char const* verifier) const {
  return CRYPTO_memcmp(verifier, m_state->engine.verifier(), kVerifierBytes) == 0;
}

void CWinZipAesDecryptor::decrypt(unsigned char* data, std::size_t size) {
  Engine& engine = m_state->engine;
  while (size > 0) {
    std::size_t const n = std::min(size, kSliceBytes);
    engine.authenticate(data, n);
    engine.crypt(data, n);
    data += n;
    size -= n;
  }
}

bool CWinZipAesDecryptor::authenticates(unsigned char const* code) {
  return CRYPTO_memcmp(code, m_state->engine.code(), kAuthCodeBytes) == 0;
}

// ---- encryption ----

struct CWinZipAesEncryptor::State {
  State(std::string_view password, int strength, unsigned char const* salt)
      : engine(password, strength, salt), salt(reinterpret_cast<char const*>(salt), saltBytes(strength)) {}
  Engine engine;
  std::string salt;
};

namespace {
/// A fresh salt for one encryptor.
std::string newSalt(int strength) {
  std::string salt(saltBytes(strength), '\0');
  fillRandom(reinterpret_cast<unsigned char*>(&salt[0]), salt.size());
  return salt;
}
} // namespace

CWinZipAesEncryptor::CWinZipAesEncryptor(std::string_view password, int strength) {
  std::string const salt = newSalt(strength);
  m_state = std::make_unique<State>(password, strength, reinterpret_cast<unsigned char const*>(salt.data()));
}

CWinZipAesEncryptor::~CWinZipAesEncryptor() = default;

std::string CWinZipAesEncryptor::header() const {
  return m_state->salt + std::string(reinterpret_cast<char const*>(m_state->engine.verifier()), kVerifierBytes);
}

void CWinZipAesEncryptor::encrypt(unsigned char* data, std::size_t size) {
  Engine& engine = m_state->engine;
  if (engine.finished()) throw std::logic_error("WinZip AES: data given after the authentication code was taken");
  while (size > 0) {
    std::size_t const n = std::min(size, kSliceBytes);
    engine.crypt(data, n);
    engine.authenticate(data, n);
    data += n;
    size -= n;
  }
}

std::array<unsigned char, kAuthCodeBytes> CWinZipAesEncryptor::authenticationCode() {
  std::array<unsigned char, kAuthCodeBytes> code;
  std::memcpy(code.data(), m_state->engine.code(), kAuthCodeBytes);
  return code;
}

} // namespace aes
} // namespace ziputil
