// WinZip AES: key derivation checked against Python's PBKDF2 and HMAC, the
// keystream against AES run directly; entries that 7-Zip and bsdtar encrypt,
// read as stored through the reader and decrypted in odd pieces; damage to any
// part of the stored data; the encryptor's salts and round trips; and archives
// built here by hand from the encryptor's output, which 7-Zip and bsdtar must
// accept with the password and refuse without it.
#include "ziputil/codecs/WinZipAes.h"

#include "support/TempDir.h"
#include "support/WriterChecks.h"
#include "support/ZipFixtures.h"
#include "tal/LocalFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <cstring>
#include <map>
#include <random>
#include <stdexcept>
#include <vector>

using testsupport::shellQuote;
using ziputil::CZipReader;
namespace aes = ziputil::aes;

namespace {

unsigned char* bytes(std::string& text) { return reinterpret_cast<unsigned char*>(&text[0]); }
unsigned char const* bytes(std::string const& text) { return reinterpret_cast<unsigned char const*>(text.data()); }

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string out(size, '\0');
  for (char& c : out) c = static_cast<char>(random() & 0xff);
  return out;
}

std::string toHex(std::string const& text) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : text) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

std::string fromHex(std::string const& hex) {
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

std::uint32_t crcOf(std::string const& data) {
  return static_cast<std::uint32_t>(crc32(0, bytes(data), static_cast<uInt>(data.size())));
}

/// The keystream AES-ECB with `key` makes of the little-endian block counters 1, 2, ...: `size` bytes.
std::string keystream(std::string const& key, std::size_t size) {
  std::size_t const blocks = (size + 15) / 16;
  std::string counters(blocks * 16, '\0');
  for (std::size_t b = 0; b < blocks; ++b) {
    std::uint64_t const counter = b + 1;
    for (int i = 0; i < 8; ++i) counters[b * 16 + i] = static_cast<char>(counter >> (8 * i));
  }
  EVP_CIPHER const* cipher = key.size() == 16 ? EVP_aes_128_ecb() : key.size() == 24 ? EVP_aes_192_ecb()
                                                                                       : EVP_aes_256_ecb();
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  std::string out(counters.size() + 16, '\0');
  int written = 0;
  bool const ok = ctx && EVP_EncryptInit_ex(ctx, cipher, nullptr, bytes(key), nullptr) == 1 &&
                  EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
                  EVP_EncryptUpdate(ctx, bytes(out), &written, bytes(counters), static_cast<int>(counters.size())) == 1;
  EVP_CIPHER_CTX_free(ctx);
  if (!ok || written != static_cast<int>(counters.size())) throw std::runtime_error("AES-ECB failed");
  return out.substr(0, size);
}

std::string xorOf(std::string a, std::string const& b) {
  for (std::size_t i = 0; i < a.size(); ++i) a[i] = static_cast<char>(a[i] ^ b[i]);
  return a;
}

/// Decrypts `ciphertext` in pieces whose sizes cycle through `pieces`; returns whether `code` authenticates it.
bool decryptInPieces(aes::CWinZipAesDecryptor& decryptor, std::string& ciphertext, std::string const& code,
                     std::vector<std::size_t> const& pieces) {
  std::size_t at = 0;
  for (std::size_t i = 0; at < ciphertext.size(); ++i) {
    std::size_t const n = std::min(pieces[i % pieces.size()], ciphertext.size() - at);
    decryptor.decrypt(bytes(ciphertext) + at, n);
    at += n;
  }
  return decryptor.authenticates(bytes(code));
}

std::vector<std::size_t> const kOddPieces{1, 7, 13, 4099, 65537, 3, 8191, 16, 30000};

/// One entry's stored data, split into its parts.
struct StoredEntry {
  std::string name;
  int flags = 0;
  unsigned long crc = 0;
  long long size = 0;
  aes::AesField central, local;
  std::string salt, verifier, ciphertext, code;
};

/// Every AES entry of an archive, read through the reader as stored; other entries are skipped.
std::vector<StoredEntry> readAesEntries(std::string const& path) {
  auto fs = tal::newObj<tal::CLocalFileSystem>();
  auto reader = tal::newObj<CZipReader>(fs.get(), testsupport::fileURI(path), tal::String());
  std::vector<StoredEntry> entries;
  while (reader->nextFile()) {
    if (reader->getCurrentFileMethod() != aes::kMethod) continue;
    StoredEntry entry;
    entry.name = reader->getCurrentFileRawName();
    entry.flags = reader->getCurrentFileFlags();
    entry.crc = reader->getCurrentFileCRC32();
    entry.size = reader->getCurrentFileUncompressedSize();
    std::optional<aes::AesField> const central = aes::findAesField(reader->getCurrentFileExtraField());
    std::optional<aes::AesField> const local = aes::findAesField(reader->getCurrentFileLocalExtraField());
    EXPECT_TRUE(central && local) << entry.name;
    if (central) entry.central = *central;
    if (local) entry.local = *local;
    auto in = reader->openCurrentFileRawStream();
    std::string data(static_cast<std::size_t>(in->getLength()), '\0');
    if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
    in->close();
    std::size_t const salt = aes::saltBytes(entry.central.strength);
    EXPECT_EQ(data.size(), static_cast<std::size_t>(entry.size) + aes::overheadBytes(entry.central.strength));
    if (data.size() < aes::overheadBytes(entry.central.strength)) {
      ADD_FAILURE() << entry.name << " is too short for its salt, verifier and code";
      continue;
    }
    entry.salt = data.substr(0, salt);
    entry.verifier = data.substr(salt, aes::kVerifierBytes);
    std::size_t const overhead = aes::overheadBytes(entry.central.strength);
    entry.ciphertext = data.substr(salt + aes::kVerifierBytes, data.size() - overhead);
    entry.code = data.substr(data.size() - aes::kAuthCodeBytes);
    entries.push_back(entry);
  }
  return entries;
}

/// The inputs every tool is given: their names and contents.
std::map<std::string, std::string> inputs() {
  return {{"empty", std::string()},
          {"one", "x"},
          {"fifteen", randomBytes(15, 1)},
          {"sixteen", randomBytes(16, 2)},
          {"seventeen", randomBytes(17, 3)},
          {"sixty-four-k-and-3", randomBytes(64 * 1024 + 3, 4)},
          {"three-mib", randomBytes(3 * 1024 * 1024 + 5, 5)}};
}

/// Writes the inputs into the folder "in" of `dir`.
void writeInputs(testsupport::TempDir const& dir, std::map<std::string, std::string> const& files) {
  ASSERT_EQ(testsupport::runCommand("mkdir -p " + shellQuote(dir.file("in"))), 0);
  for (auto const& file : files) testsupport::writeFile(dir.file("in/" + file.first), file.second);
}

/// Checks every stored AES entry against the inputs: the fields, the CRC-32 for AE-1, decryption in odd
/// pieces and the code; and that wrong passwords are refused. Returns how many entries were AE-1.
int checkEntries(std::vector<StoredEntry> const& entries, std::map<std::string, std::string> const& originals,
                 std::string const& password, int strength, int method) {
  int ae1 = 0;
  for (StoredEntry const& stored : entries) {
    SCOPED_TRACE(stored.name);
    auto const original = originals.find(stored.name);
    if (original == originals.end()) {
      ADD_FAILURE() << "unexpected entry";
      continue;
    }
    EXPECT_EQ(stored.flags & 1, 1);
    EXPECT_EQ(stored.central.strength, strength);
    EXPECT_EQ(stored.central.method, method);
    EXPECT_EQ(stored.local.version, stored.central.version);
    EXPECT_EQ(stored.local.strength, stored.central.strength);
    EXPECT_EQ(stored.local.method, stored.central.method);
    EXPECT_EQ(stored.size, static_cast<long long>(original->second.size()));
    if (stored.central.version == 1) {
      ++ae1;
      EXPECT_EQ(stored.crc, crcOf(original->second));
    } else {
      EXPECT_EQ(stored.central.version, 2);
      EXPECT_EQ(stored.crc, 0u);
    }

    aes::CWinZipAesDecryptor decryptor(password, strength, bytes(stored.salt));
    EXPECT_TRUE(decryptor.verifierMatches(bytes(stored.verifier)));
    std::string data = stored.ciphertext;
    EXPECT_TRUE(decryptInPieces(decryptor, data, stored.code, kOddPieces));
    EXPECT_TRUE(data == original->second);

    // A wrong password passes the verifier once in 65,536 salts, and then still fails the code.
    int verifierRefusals = 0;
    for (std::string const& wrong : {password + "!", std::string("Password"), std::string("hunter2")}) {
      aes::CWinZipAesDecryptor other(wrong, strength, bytes(stored.salt));
      bool const verifierOk = other.verifierMatches(bytes(stored.verifier));
      verifierRefusals += verifierOk ? 0 : 1;
      std::string garbled = stored.ciphertext;
      bool const codeOk = decryptInPieces(other, garbled, stored.code, {4096});
      EXPECT_FALSE(verifierOk && codeOk) << wrong;
      EXPECT_FALSE(codeOk) << wrong;
    }
    EXPECT_GT(verifierRefusals, 0);
  }
  return ae1;
}

class WinZipAesTest : public ::testing::Test {
protected:
  testsupport::TempDir dir{"ziputil-aes"};
};

// ---- the extra field ----

TEST(WinZipAesField, IsBuiltAndFoundAmongOtherFields) {
  aes::AesField field;
  field.version = 1;
  field.strength = 2;
  field.method = 8;
  std::string const built = aes::makeAesField(field);
  EXPECT_EQ(built, std::string("\x01\x99\x07\x00\x01\x00" "AE\x02\x08\x00", 11));

  std::string const before("\x55\x54\x05\x00\x01\x02\x03\x04\x05", 9);
  std::string const after("\x75\x78\x00\x00", 4);
  for (std::string const& extra : {built, before + built, built + after, before + built + after}) {
    std::optional<aes::AesField> const found = aes::findAesField(extra);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->version, 1);
    EXPECT_EQ(found->strength, 2);
    EXPECT_EQ(found->method, 8);
  }
  field.version = 2;
  field.strength = 3;
  field.method = 0xfffe;
  std::optional<aes::AesField> const found = aes::findAesField(aes::makeAesField(field));
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(found->version, 2);
  EXPECT_EQ(found->strength, 3);
  EXPECT_EQ(found->method, 0xfffe);

  EXPECT_FALSE(aes::findAesField(std::string()).has_value());
  EXPECT_FALSE(aes::findAesField(before + after).has_value());
  // A field list cut short ends the search: in another field's data, or in the AES field itself.
  EXPECT_FALSE(aes::findAesField(before.substr(0, 7) + built).has_value());
  EXPECT_FALSE(aes::findAesField(before + built.substr(0, 9)).has_value());
  EXPECT_FALSE(aes::findAesField(before + built.substr(0, 3)).has_value());
  // An ID of 0x9901 in another field's data is not a field.
  EXPECT_FALSE(aes::findAesField(std::string("\x55\x54\x04\x00\x01\x99\x07\x00", 8)).has_value());
}

TEST(WinZipAesField, MalformedFieldsAreRefusedWithTheirFault) {
  auto expectRefused = [](std::string const& extra, std::string const& message) {
    try {
      aes::findAesField(extra);
      ADD_FAILURE() << "accepted; expected: " << message;
    } catch (std::invalid_argument const& e) {
      EXPECT_EQ(std::string(e.what()), message);
    }
  };
  expectRefused(std::string("\x01\x99\x06\x00\x02\x00" "AE\x03\x08", 10),
                "the WinZip AES extra field has 6 bytes of data (7 expected)");
  expectRefused(std::string("\x01\x99\x08\x00\x02\x00" "AE\x03\x08\x00\x00", 12),
                "the WinZip AES extra field has 8 bytes of data (7 expected)");
  expectRefused(std::string("\x01\x99\x07\x00\x02\x00" "AF\x03\x08\x00", 11),
                "the WinZip AES extra field has the vendor ID 41 46 (\"AE\", 41 45, expected)");
  expectRefused(std::string("\x01\x99\x07\x00\x03\x00" "AE\x03\x08\x00", 11),
                "the WinZip AES extra field has version 3 (1 and 2 are defined)");
  expectRefused(std::string("\x01\x99\x07\x00\x00\x00" "AE\x03\x08\x00", 11),
                "the WinZip AES extra field has version 0 (1 and 2 are defined)");
  expectRefused(std::string("\x01\x99\x07\x00\x02\x00" "AE\x04\x08\x00", 11),
                "the WinZip AES extra field has a strength of 4 (1 to 3 are defined)");
  expectRefused(std::string("\x01\x99\x07\x00\x02\x00" "AE\x00\x08\x00", 11),
                "the WinZip AES extra field has a strength of 0 (1 to 3 are defined)");

  aes::AesField field;
  field.strength = 4;
  EXPECT_THROW(aes::makeAesField(field), std::invalid_argument);
  field.strength = 1;
  field.version = 3;
  EXPECT_THROW(aes::makeAesField(field), std::invalid_argument);
  field.version = 1;
  field.method = 0x10000;
  EXPECT_THROW(aes::makeAesField(field), std::invalid_argument);
  field.method = -1;
  EXPECT_THROW(aes::makeAesField(field), std::invalid_argument);
}

TEST(WinZipAesSizes, FollowTheStrength) {
  EXPECT_EQ(aes::keyBytes(1), 16u);
  EXPECT_EQ(aes::keyBytes(2), 24u);
  EXPECT_EQ(aes::keyBytes(3), 32u);
  EXPECT_EQ(aes::saltBytes(1), 8u);
  EXPECT_EQ(aes::saltBytes(2), 12u);
  EXPECT_EQ(aes::saltBytes(3), 16u);
  EXPECT_EQ(aes::overheadBytes(1), 20u);
  EXPECT_EQ(aes::overheadBytes(2), 24u);
  EXPECT_EQ(aes::overheadBytes(3), 28u);
  unsigned char const salt[16] = {};
  for (int bad : {0, 4, -1}) {
    EXPECT_THROW(aes::keyBytes(bad), std::invalid_argument);
    EXPECT_THROW(aes::saltBytes(bad), std::invalid_argument);
    EXPECT_THROW(aes::overheadBytes(bad), std::invalid_argument);
    EXPECT_THROW(aes::CWinZipAesDecryptor("pw", bad, salt), std::invalid_argument);
    EXPECT_THROW(aes::CWinZipAesEncryptor("pw", bad), std::invalid_argument);
  }
  for (int strength = 1; strength <= 3; ++strength) {
    aes::CWinZipAesEncryptor encryptor("pw", strength);
    EXPECT_EQ(encryptor.header().size(), aes::saltBytes(strength) + aes::kVerifierBytes);
  }
}

// ---- keys, keystream and code against independent computations ----

TEST_F(WinZipAesTest, DerivationKeystreamAndCodeMatchPythonAndPlainAes) {
  std::string const plain = randomBytes(20000, 11);
  for (int strength = 1; strength <= 3; ++strength) {
    for (std::string const& password :
         {std::string("secret"), std::string(), std::string("p\xc3\xa4ssw\xc3\xb6rd \xe2\x82\xac"),
          std::string(100, 'k')}) {
      SCOPED_TRACE(std::to_string(strength) + " '" + password + "'");
      aes::CWinZipAesEncryptor encryptor(password, strength);
      std::string const header = encryptor.header();
      std::string const salt = header.substr(0, aes::saltBytes(strength));
      std::string ciphertext = plain;
      std::size_t const split = 4096 * static_cast<std::size_t>(strength) + 5;
      encryptor.encrypt(bytes(ciphertext), split);
      encryptor.encrypt(bytes(ciphertext) + split, ciphertext.size() - split);
      std::array<unsigned char, aes::kAuthCodeBytes> const code = encryptor.authenticationCode();

      std::size_t const key = aes::keyBytes(strength);
      testsupport::writeFile(dir.file("ciphertext"), ciphertext);
      std::string const out = testsupport::runPython(R"(
import sys, hashlib, hmac
password, salt, size, ciphertext = (bytes.fromhex(sys.argv[1]), bytes.fromhex(sys.argv[2]), int(sys.argv[3]),
                                    open(sys.argv[4], "rb").read())
derived = hashlib.pbkdf2_hmac("sha1", password, salt, 1000, 2 * size + 2)
print(derived.hex())
print(hmac.new(derived[size:2 * size], ciphertext, hashlib.sha1).hexdigest())
)",
                                                     {toHex(password), toHex(salt), std::to_string(key),
                                                      dir.file("ciphertext")});
      std::size_t const newline = out.find('\n');
      ASSERT_NE(newline, std::string::npos);
      std::string const derived = fromHex(out.substr(0, newline));
      std::string const hmac = fromHex(out.substr(newline + 1, 40));
      ASSERT_EQ(derived.size(), 2 * key + 2);
      ASSERT_EQ(hmac.size(), 20u);

      EXPECT_EQ(toHex(header.substr(salt.size())), toHex(derived.substr(2 * key)));
      EXPECT_EQ(toHex(std::string(reinterpret_cast<char const*>(code.data()), code.size())), toHex(hmac.substr(0, 10)));
      EXPECT_TRUE(ciphertext == xorOf(plain, keystream(derived.substr(0, key), plain.size())));

      aes::CWinZipAesDecryptor decryptor(password, strength, bytes(salt));
      EXPECT_TRUE(decryptor.verifierMatches(bytes(derived) + 2 * key));
    }
  }
}

// ---- entries encrypted by other tools ----

TEST_F(WinZipAesTest, SevenZipEntriesDecryptInOddPiecesAndAuthenticate) {
  std::map<std::string, std::string> const files = inputs();
  writeInputs(dir, files);
  std::string names;
  for (auto const& file : files) names += " " + shellQuote(file.first);
  std::string const password = "Tr0ub4dor&3";
  int const strengths[] = {1, 2, 3};
  char const* const options[] = {"AES128", "AES192", "AES256"};
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(options[i]);
    std::string const archive = dir.file(std::string("7z-") + options[i] + ".zip");
    std::string output;
    ASSERT_EQ(testsupport::runCommand("cd " + shellQuote(dir.file("in")) + " && /usr/bin/7z a -tzip -p" +
                                          shellQuote(password) + " -mem=" + options[i] + " -mm=Copy " +
                                          shellQuote(archive) + names + " </dev/null 2>&1",
                                      &output),
              0)
        << output;
    std::vector<StoredEntry> const entries = readAesEntries(archive);
    EXPECT_EQ(entries.size(), files.size());
    checkEntries(entries, files, password, strengths[i], 0);
  }
}

TEST_F(WinZipAesTest, BsdtarEntriesWithTheirCrcDecryptAndAuthenticate) {
  // bsdtar writes AE-1, with the CRC-32, for all but the shortest entries (and leaves empty ones unencrypted).
  std::map<std::string, std::string> const files = inputs();
  writeInputs(dir, files);
  std::string names;
  for (auto const& file : files) names += " " + shellQuote(file.first);
  std::string const password = "bsd pass phrase";
  std::string const archive = dir.file("bsdtar.zip");
  std::string output;
  ASSERT_EQ(testsupport::runCommand("cd " + shellQuote(dir.file("in")) +
                                        " && bsdtar --format zip --options zip:encryption=aes128,zip:compression=store"
                                        " --passphrase " +
                                        shellQuote(password) + " -cf " + shellQuote(archive) + names +
                                        " </dev/null 2>&1",
                                    &output),
            0)
      << output;
  std::vector<StoredEntry> const entries = readAesEntries(archive);
  EXPECT_GE(entries.size(), files.size() - 1);
  EXPECT_GE(checkEntries(entries, files, password, 1, 0), 2);
}

// ---- damage ----

TEST_F(WinZipAesTest, AnyChangedByteIsCaught) {
  std::map<std::string, std::string> files{{"seventeen", randomBytes(17, 21)}, {"big", randomBytes(70000, 22)}};
  writeInputs(dir, files);
  std::string const password = "damage";
  std::string const archive = dir.file("damage.zip");
  ASSERT_EQ(testsupport::runCommand("cd " + shellQuote(dir.file("in")) + " && /usr/bin/7z a -tzip -p" +
                                    shellQuote(password) + " -mem=AES256 -mm=Copy " + shellQuote(archive) +
                                    " seventeen big </dev/null >/dev/null 2>&1"),
            0);
  std::vector<StoredEntry> const entries = readAesEntries(archive);
  ASSERT_EQ(entries.size(), 2u);
  for (StoredEntry const& entry : entries) {
    SCOPED_TRACE(entry.name);
    std::string const& original = files.at(entry.name);
    // Whether the entry as given decrypts to the original: the verifier, the code, the data.
    auto accepted = [&](StoredEntry const& e) {
      aes::CWinZipAesDecryptor decryptor(password, 3, bytes(e.salt));
      if (!decryptor.verifierMatches(bytes(e.verifier))) return false;
      std::string data = e.ciphertext;
      return decryptInPieces(decryptor, data, e.code, {5, 4096}) && data == original;
    };
    ASSERT_TRUE(accepted(entry));
    std::size_t const size = entry.ciphertext.size();
    for (std::size_t at : {std::size_t(0), std::size_t(1), std::size_t(15), std::size_t(16), size / 2, size - 1}) {
      StoredEntry changed = entry;
      changed.ciphertext[at] = static_cast<char>(changed.ciphertext[at] ^ 0x01);
      aes::CWinZipAesDecryptor decryptor(password, 3, bytes(changed.salt));
      EXPECT_TRUE(decryptor.verifierMatches(bytes(changed.verifier)));
      EXPECT_FALSE(decryptInPieces(decryptor, changed.ciphertext, changed.code, {7, 8192})) << "ciphertext byte " << at;
    }
    for (std::size_t at = 0; at < aes::kAuthCodeBytes; ++at) {
      StoredEntry changed = entry;
      changed.code[at] = static_cast<char>(changed.code[at] ^ 0x80);
      EXPECT_FALSE(accepted(changed)) << "code byte " << at;
    }
    for (std::size_t at = 0; at < entry.salt.size(); at += 5) {
      StoredEntry changed = entry;
      changed.salt[at] = static_cast<char>(changed.salt[at] ^ 0x10);
      EXPECT_FALSE(accepted(changed)) << "salt byte " << at;
    }
    for (std::size_t at = 0; at < aes::kVerifierBytes; ++at) {
      StoredEntry changed = entry;
      changed.verifier[at] = static_cast<char>(changed.verifier[at] ^ 0x04);
      aes::CWinZipAesDecryptor decryptor(password, 3, bytes(changed.salt));
      EXPECT_FALSE(decryptor.verifierMatches(bytes(changed.verifier))) << "verifier byte " << at;
    }
  }
}

// ---- the encryptor ----

TEST(WinZipAesEncryptor, EachEncryptorDrawsItsOwnSalt) {
  for (int strength = 1; strength <= 3; ++strength) {
    aes::CWinZipAesEncryptor first("same password", strength);
    aes::CWinZipAesEncryptor second("same password", strength);
    std::size_t const salt = aes::saltBytes(strength);
    EXPECT_NE(first.header().substr(0, salt), second.header().substr(0, salt));
    std::string a(64, 'z'), b(64, 'z');
    first.encrypt(bytes(a), a.size());
    second.encrypt(bytes(b), b.size());
    EXPECT_NE(a, b);
    EXPECT_NE(a, std::string(64, 'z'));
  }
}

TEST(WinZipAesEncryptor, RoundTripsWhereverTheDataIsSplit) {
  std::string const plain = randomBytes(40000, 31);
  std::vector<std::size_t> const splits{0,     1,     15,    16,    17,    4095,  8191, 8192,
                                        8193,  16383, 16384, 16385, 24577, 39999, 40000};
  for (int strength = 1; strength <= 3; ++strength) {
    SCOPED_TRACE(strength);
    for (std::size_t encryptSplit : {std::size_t(0), std::size_t(8193), std::size_t(16385)}) {
      aes::CWinZipAesEncryptor encryptor("round trip", strength);
      std::string const header = encryptor.header();
      std::string ciphertext = plain;
      encryptor.encrypt(bytes(ciphertext), encryptSplit);
      encryptor.encrypt(bytes(ciphertext) + encryptSplit, 0);
      encryptor.encrypt(bytes(ciphertext) + encryptSplit, ciphertext.size() - encryptSplit);
      std::array<unsigned char, aes::kAuthCodeBytes> const code = encryptor.authenticationCode();
      EXPECT_EQ(encryptor.authenticationCode(), code);
      EXPECT_THROW(encryptor.encrypt(bytes(ciphertext), 1), std::logic_error);
      std::string const codeText(reinterpret_cast<char const*>(code.data()), code.size());
      EXPECT_NE(ciphertext, plain);
      for (std::size_t split : splits) {
        aes::CWinZipAesDecryptor decryptor("round trip", strength, bytes(header));
        ASSERT_TRUE(decryptor.verifierMatches(bytes(header) + aes::saltBytes(strength)));
        std::string data = ciphertext;
        decryptor.decrypt(bytes(data), split);
        decryptor.decrypt(bytes(data) + split, data.size() - split);
        EXPECT_TRUE(decryptor.authenticates(bytes(codeText))) << split;
        EXPECT_TRUE(decryptor.authenticates(bytes(codeText))) << split;
        EXPECT_TRUE(data == plain) << split;
        EXPECT_THROW(decryptor.decrypt(bytes(data), 1), std::logic_error);
        EXPECT_TRUE(data == plain);
      }
      // Pieces of every size from 1 up, in turn.
      aes::CWinZipAesDecryptor decryptor("round trip", strength, bytes(header));
      std::string data = ciphertext;
      std::size_t at = 0;
      for (std::size_t n = 1; at < data.size(); ++n) {
        std::size_t const piece = std::min(n, data.size() - at);
        decryptor.decrypt(bytes(data) + at, piece);
        at += piece;
      }
      EXPECT_TRUE(decryptor.authenticates(bytes(codeText)));
      EXPECT_TRUE(data == plain);
    }
  }
}

/// One entry of a hand-built archive.
struct HandEntry {
  std::string name, plain;
  int strength = 3;
};

void putU16(std::string& out, unsigned value) {
  out += static_cast<char>(value & 0xff);
  out += static_cast<char>((value >> 8) & 0xff);
}

void putU32(std::string& out, std::uint32_t value) {
  putU16(out, value & 0xffff);
  putU16(out, value >> 16);
}

/// A ZIP archive of stored AE-2 entries encrypted by CWinZipAesEncryptor with `password`, built byte by byte.
std::string buildArchive(std::vector<HandEntry> const& entries, std::string const& password) {
  std::string archive, central;
  unsigned const time = 10 << 11 | 30 << 5;     // 10:30:00
  unsigned const date = 44 << 9 | 5 << 5 | 6;   // 2024-05-06
  for (HandEntry const& entry : entries) {
    aes::CWinZipAesEncryptor encryptor(password, entry.strength);
    std::string data = entry.plain;
    encryptor.encrypt(bytes(data), data.size());
    std::array<unsigned char, aes::kAuthCodeBytes> const code = encryptor.authenticationCode();
    std::string const stored = encryptor.header() + data + std::string(code.begin(), code.end());
    aes::AesField field;
    field.version = 2;
    field.strength = entry.strength;
    field.method = 0;
    std::string const extra = aes::makeAesField(field);
    std::uint32_t const offset = static_cast<std::uint32_t>(archive.size());
    auto common = [&](std::string& out) {
      putU16(out, 51);           // version needed
      putU16(out, 1);            // encrypted
      putU16(out, aes::kMethod);
      putU16(out, time);
      putU16(out, date);
      putU32(out, 0);            // AE-2: no CRC-32
      putU32(out, static_cast<std::uint32_t>(stored.size()));
      putU32(out, static_cast<std::uint32_t>(entry.plain.size()));
      putU16(out, static_cast<unsigned>(entry.name.size()));
      putU16(out, static_cast<unsigned>(extra.size()));
    };
    putU32(archive, 0x04034b50);
    common(archive);
    archive += entry.name + extra + stored;

    putU32(central, 0x02014b50);
    putU16(central, 3 << 8 | 51); // made by Unix
    common(central);
    putU16(central, 0);           // comment
    putU16(central, 0);           // disk
    putU16(central, 0);           // internal attributes
    putU32(central, 0100644u << 16);
    putU32(central, offset);
    central += entry.name + extra;
  }
  std::uint32_t const centralOffset = static_cast<std::uint32_t>(archive.size());
  archive += central;
  putU32(archive, 0x06054b50);
  putU16(archive, 0);
  putU16(archive, 0);
  putU16(archive, static_cast<unsigned>(entries.size()));
  putU16(archive, static_cast<unsigned>(entries.size()));
  putU32(archive, static_cast<std::uint32_t>(central.size()));
  putU32(archive, centralOffset);
  putU16(archive, 0);
  return archive;
}

TEST_F(WinZipAesTest, HandBuiltArchivesAreReadBySevenZipAndBsdtar) {
  std::string text;
  for (int i = 0; i < 20000; ++i) text += "line " + std::to_string(i) + "\n";
  std::vector<HandEntry> entries;
  std::map<std::string, std::string> originals;
  for (int strength = 1; strength <= 3; ++strength) {
    std::string const prefix = "s" + std::to_string(strength) + "-";
    for (HandEntry const& entry : {HandEntry{prefix + "empty", std::string(), strength},
                            HandEntry{prefix + "seventeen", randomBytes(17, 41), strength},
                            HandEntry{prefix + "random", randomBytes(64 * 1024 + 3, 42), strength},
                            HandEntry{prefix + "text", text, strength}}) {
      entries.push_back(entry);
      originals[entry.name] = entry.plain;
    }
  }
  std::string const password = "hand made";
  std::string const path = dir.file("hand.zip");
  testsupport::writeFile(path, buildArchive(entries, password));

  std::string output;
  EXPECT_EQ(testsupport::sevenZipTest(path, &output, password), 0) << output;
  EXPECT_NE(testsupport::sevenZipTest(path, &output, "hand mad"), 0) << output;
  for (HandEntry const& entry : entries) {
    SCOPED_TRACE(entry.name);
    std::string extracted;
    EXPECT_EQ(testsupport::runCommand("/usr/bin/7z x -so -p" + shellQuote(password) + " " + shellQuote(path) + " " +
                                          shellQuote(entry.name) + " </dev/null 2>/dev/null",
                                      &extracted),
              0);
    EXPECT_TRUE(extracted == entry.plain) << extracted.size() << " bytes";
    extracted.clear();
    EXPECT_EQ(testsupport::runCommand("bsdtar -xOf " + shellQuote(path) + " --passphrase " + shellQuote(password) +
                                          " " + shellQuote(entry.name) + " </dev/null 2>/dev/null",
                                      &extracted),
              0);
    EXPECT_TRUE(extracted == entry.plain) << extracted.size() << " bytes";
    if (!entry.plain.empty()) {
      extracted.clear();
      EXPECT_NE(testsupport::runCommand("bsdtar -xOf " + shellQuote(path) + " --passphrase 'not it' " +
                                            shellQuote(entry.name) + " </dev/null 2>/dev/null",
                                        &extracted),
                0);
      EXPECT_TRUE(extracted != entry.plain);
    }
  }

  // And the library reads them back as it reads the other tools' entries.
  std::vector<StoredEntry> const stored = readAesEntries(path);
  EXPECT_EQ(stored.size(), entries.size());
  for (int strength = 1; strength <= 3; ++strength) {
    std::vector<StoredEntry> ofStrength;
    for (StoredEntry const& e : stored)
      if (e.central.strength == strength) ofStrength.push_back(e);
    EXPECT_EQ(ofStrength.size(), 4u);
    EXPECT_EQ(checkEntries(ofStrength, originals, password, strength, 0), 0);
  }
}

} // namespace
