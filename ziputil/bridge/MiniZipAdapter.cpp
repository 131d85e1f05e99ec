#include "ziputil/MiniZipAdapter.h"

#include "ziputil/bridge/MiniZipExtras.h"

#include <zlib.h>

#include <cstdint>
#include <vector>

namespace ziputil {
namespace minizip {
namespace {

constexpr ZPOS64_T kCentralHeaderSize = 46;
constexpr uLong kLongestName = 65535;

int fillInfo(unzFile file, int positioned, unz_file_info64* info, char* fileName, uLong fileNameBufferSize,
             void* extraField, uLong extraFieldBufferSize, char* comment, uLong commentBufferSize) {
  if (positioned != UNZ_OK) return positioned;
  if (extraField == nullptr && comment == nullptr) // what positioning parsed, and the name: one parse per entry
    return ziputil_unzGetCurrentFileInfoName(file, info, fileName, fileNameBufferSize);
  return unzGetCurrentFileInfo64(file, info, fileName, fileNameBufferSize, extraField, extraFieldBufferSize, comment,
                                 commentBufferSize);
}

/// The entry count from the end record, when it may be a truncated 16-bit value.
bool countMayBeTruncated(unzFile file, ZPOS64_T& count) {
  unz_global_info64 global;
  if (unzGetGlobalInfo64(file, &global) != UNZ_OK) return false;
  count = global.number_entry;
  return count <= 0xFFFF;
}

/// Tries the central-directory header right after the current entry's, which
/// stock minizip does not look for once the recorded count is reached.
int probeBeyondCount(unzFile file, unz64_file_pos const& current) {
  unz_file_info64 info;
  int err = unzGetCurrentFileInfo64(file, &info, nullptr, 0, nullptr, 0, nullptr, 0);
  if (err != UNZ_OK) return err;
  unz64_file_pos next;
  next.pos_in_zip_directory =
      current.pos_in_zip_directory + kCentralHeaderSize + info.size_filename + info.size_file_extra + info.size_file_comment;
  next.num_of_file = current.num_of_file + 1;
  err = unzGoToFilePos64(file, &next);
  if (err == UNZ_OK) return UNZ_OK;
  unzGoToFilePos64(file, &current);
  return err == UNZ_BADZIPFILE ? UNZ_END_OF_LIST_OF_FILE : err;
}

/// unzGoToNextFile with the end of the list found as unzGoToNextFile2 describes.
int goToNext(unzFile file) {
  unz64_file_pos current;
  if (unzGetFilePos64(file, &current) != UNZ_OK) return unzGoToNextFile(file);
  int err = unzGoToNextFile(file);
  ZPOS64_T count = 0;
  if (err == UNZ_END_OF_LIST_OF_FILE && countMayBeTruncated(file, count) && current.num_of_file + 1 == count)
    return probeBeyondCount(file, current);
  if (err == UNZ_BADZIPFILE && countMayBeTruncated(file, count) && current.num_of_file + 1 >= count) {
    unzGoToFilePos64(file, &current);
    return UNZ_END_OF_LIST_OF_FILE;
  }
  return err;
}

/// unzGoToFirstFile, with an archive whose count is 0 and whose central
/// directory starts with the end record reported as empty.
int goToFirst(unzFile file) {
  int err = unzGoToFirstFile(file);
  ZPOS64_T count = 0;
  if (err == UNZ_BADZIPFILE && countMayBeTruncated(file, count) && count == 0) return UNZ_END_OF_LIST_OF_FILE;
  return err;
}

// ---- traditional PKWARE encryption, for checking a password ----------------

class CPkwareKeys {
public:
  explicit CPkwareKeys(const char* password) {
    for (const char* p = password; *p; ++p) update(static_cast<unsigned char>(*p));
  }
  unsigned char decrypt(unsigned char c) {
    unsigned const temp = (m_keys[2] & 0xFFFF) | 2;
    unsigned char const plain = static_cast<unsigned char>(c ^ (((temp * (temp ^ 1)) >> 8) & 0xFF));
    update(plain);
    return plain;
  }

private:
  static std::uint32_t crc(std::uint32_t value, unsigned char b) {
    static z_crc_t const* const table = get_crc_table();
    return static_cast<std::uint32_t>(table[(value ^ b) & 0xFF]) ^ (value >> 8);
  }
  void update(unsigned char c) {
    m_keys[0] = crc(m_keys[0], c);
    m_keys[1] = (m_keys[1] + (m_keys[0] & 0xFF)) * 134775813u + 1;
    m_keys[2] = crc(m_keys[2], static_cast<unsigned char>(m_keys[1] >> 24));
  }
  std::uint32_t m_keys[3] = {0x12345678u, 0x23456789u, 0x34567890u};
};

/// Reads the entry's 12-byte encryption header without decrypting it.
int readEncryptionHeader(unzFile file, unsigned char (&header)[12]) {
  int err = unzOpenCurrentFile2(file, nullptr, nullptr, 1);
  if (err != UNZ_OK) return err;
  int const n = unzReadCurrentFile(file, header, sizeof header);
  int const closed = unzCloseCurrentFile(file);
  if (n < 0) return n;
  if (n != static_cast<int>(sizeof header)) return UNZ_BADZIPFILE;
  return closed;
}

bool passwordFits(const char* password, unsigned char const (&header)[12], unz_file_info64 const& info) {
  CPkwareKeys keys(password);
  unsigned char check = 0;
  for (unsigned char c : header) check = keys.decrypt(c);
  return check == ((info.crc >> 24) & 0xFF) || check == ((info.dosDate >> 8) & 0xFF) || check == 0;
}

/// The stored method of a WinZip AES entry, whose encryption minizip knows nothing of.
constexpr uLong kWinZipAesMethod = 99;

bool supportedMethod(unz_file_info64 const& info) {
  return info.compression_method == 0 || info.compression_method == Z_DEFLATED;
}

int currentEntry(unzFile file, unz_file_info64& info) {
  return unzGetCurrentFileInfo64(file, &info, nullptr, 0, nullptr, 0, nullptr, 0);
}

} // namespace

int unzGoToFirstFile2(unzFile file, unz_file_info64* info, char* fileName, uLong fileNameBufferSize, void* extraField,
                      uLong extraFieldBufferSize, char* comment, uLong commentBufferSize) {
  return fillInfo(file, goToFirst(file), info, fileName, fileNameBufferSize, extraField, extraFieldBufferSize, comment,
                  commentBufferSize);
}

int unzGoToNextFile2(unzFile file, unz_file_info64* info, char* fileName, uLong fileNameBufferSize, void* extraField,
                     uLong extraFieldBufferSize, char* comment, uLong commentBufferSize) {
  return fillInfo(file, goToNext(file), info, fileName, fileNameBufferSize, extraField, extraFieldBufferSize, comment,
                  commentBufferSize);
}

int unzLocateFile(unzFile file, const char* fileName, unzFileNameComparer comparer) {
  if (file == nullptr || fileName == nullptr || comparer == nullptr) return UNZ_PARAMERROR;
  unz64_file_pos saved;
  bool const wasPositioned = unzGetFilePos64(file, &saved) == UNZ_OK;
  std::vector<char> name(kLongestName + 2, '\0');
  int err = goToFirst(file);
  while (err == UNZ_OK) {
    err = unzGetCurrentFileInfo64(file, nullptr, name.data(), kLongestName + 1, nullptr, 0, nullptr, 0);
    if (err != UNZ_OK) break;
    if (comparer(file, name.data(), fileName) == 0) return UNZ_OK;
    err = goToNext(file);
  }
  if (wasPositioned) unzGoToFilePos64(file, &saved);
  return err;
}

int unzOpenCurrentFile(unzFile file) {
  unz_file_info64 info;
  int err = currentEntry(file, info);
  if (err != UNZ_OK) return err;
  if (!supportedMethod(info)) return ZIPUTIL_UNZ_BADMETHOD;
  if (info.flag & 1) return UNZ_PARAMERROR;
  return ::unzOpenCurrentFile(file);
}

int unzOpenCurrentFilePassword(unzFile file, const char* password) {
  unz_file_info64 info;
  int err = currentEntry(file, info);
  if (err != UNZ_OK) return err;
  if (!supportedMethod(info)) return ZIPUTIL_UNZ_BADMETHOD;
  if (!(info.flag & 1)) return ::unzOpenCurrentFile(file);
  if (password == nullptr) return UNZ_PARAMERROR;
  unsigned char header[12];
  err = readEncryptionHeader(file, header);
  if (err != UNZ_OK) return err;
  if (!passwordFits(password, header, info)) return ZIPUTIL_UNZ_BADPASSWORD;
  return ::unzOpenCurrentFilePassword(file, password);
}

int unzOpenCurrentFileStored(unzFile file, const char* password) {
  unz_file_info64 info;
  int err = currentEntry(file, info);
  if (err != UNZ_OK) return err;
  if (!(info.flag & 1) || info.compression_method == kWinZipAesMethod)
    return unzOpenCurrentFile2(file, nullptr, nullptr, 1);
  if (password == nullptr) return UNZ_PARAMERROR;
  unsigned char header[12];
  err = readEncryptionHeader(file, header);
  if (err != UNZ_OK) return err;
  if (!passwordFits(password, header, info)) return ZIPUTIL_UNZ_BADPASSWORD;
  return unzOpenCurrentFile3(file, nullptr, nullptr, 1, password);
}

} // namespace minizip
} // namespace ziputil
