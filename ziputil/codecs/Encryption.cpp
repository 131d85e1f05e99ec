#include "ziputil/Encryption.h"

namespace ziputil {

std::string encryptionName(Encryption encryption) {
  switch (encryption) {
  case Encryption::None: return "none";
  case Encryption::Traditional: return "ZipCrypto";
  case Encryption::Aes128: return "AES-128";
  case Encryption::Aes192: return "AES-192";
  case Encryption::Aes256: return "AES-256";
  }
  return "none";
}

} // namespace ziputil
