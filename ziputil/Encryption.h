// ziputil::Encryption: how an entry's data is encrypted.
#pragma once

#include <string>

namespace ziputil {

/// Addition: the encryption of an entry's data.
enum class Encryption {
  None,        ///< not encrypted
  Traditional, ///< PKWARE's traditional cipher ("ZipCrypto"): weak, readable by every tool
  Aes128,      ///< WinZip AES with a 128-bit key
  Aes192,      ///< WinZip AES with a 192-bit key
  Aes256,      ///< WinZip AES with a 256-bit key
};

/// "none", "ZipCrypto", "AES-128", "AES-192" or "AES-256".
std::string encryptionName(Encryption encryption);

} // namespace ziputil
