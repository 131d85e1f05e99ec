// list: one line per entry, in the long form with sizes, times and modes, or
// one JSON object per entry.
#include "CommandHelpers.h"

#include "LocalPaths.h"

#include "ziputil/CZipReader.h"
#include "ziputil/Encryption.h"

#include <cstdio>
#include <sys/stat.h>

namespace ziputil_tool {
namespace {

tal::P<ziputil::CZipReader> openReader(Options const& options, std::string const& archive) {
  return tal::newObj<ziputil::CZipReader>(localFileSystem().get(), archiveURIForReading(archive),
                                          textFromBytes(options.password));
}

std::string formatTime(tal::CTimeFields const& time) {
  if (time.isEmpty()) return "                ";
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d", time.getYear(), time.getMonth(), time.getDay(),
                time.getHour(), time.getMinute());
  return text;
}

/// A decimal number of up to 128 bits.
std::string decimal(unsigned __int128 value) {
  std::string digits;
  do {
    digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(value % 10)));
    value /= 10;
  } while (value != 0);
  return digits;
}

/// How much smaller the compressed bytes are, in whole percent ("-" and more
/// when they grew), as Info-ZIP lists it.
std::string ratio(unsigned __int128 size, unsigned __int128 compressed) {
  if (size == 0) return "0%";
  long double const saved = 100.0L * (static_cast<long double>(size) - static_cast<long double>(compressed)) /
                            static_cast<long double>(size);
  char text[32];
  std::snprintf(text, sizeof text, "%.0Lf%%", saved);
  return text;
}

/// The mode as ls shows it ("-rw-r--r--"), or blanks when the entry has none.
std::string modeText(int mode) {
  if (mode < 0) return "          ";
  char type = '-';
  switch (mode & S_IFMT) {
  case S_IFDIR: type = 'd'; break;
  case S_IFLNK: type = 'l'; break;
  case S_IFIFO: type = 'p'; break;
  case S_IFCHR: type = 'c'; break;
  case S_IFBLK: type = 'b'; break;
  case S_IFSOCK: type = 's'; break;
  default: break;
  }
  std::string text(1, type);
  char const* const letters = "rwxrwxrwx";
  for (int bit = 0; bit < 9; ++bit) text += (mode & (0400 >> bit)) ? letters[bit] : '-';
  if (mode & S_ISUID) text[3] = (mode & S_IXUSR) ? 's' : 'S';
  if (mode & S_ISGID) text[6] = (mode & S_IXGRP) ? 's' : 'S';
  if (mode & S_ISVTX) text[9] = (mode & S_IXOTH) ? 't' : 'T';
  return text;
}

std::string methodName(int method) {
  switch (method) {
  case 0: return "stored";
  case 8: return "deflated";
  case 9: return "deflate64";
  case 12: return "bzip2";
  case 14: return "lzma";
  case 20: return "zstd";
  case 93: return "zstd";
  case 98: return "ppmd";
  case 99: return "aes";
  case 95: return "xz";
  default: return "method " + std::to_string(method);
  }
}

/// `bytes` as a JSON string (quoted): valid UTF-8 kept, each byte that is not
/// part of it U+FFFD, control characters escaped.
std::string jsonString(std::string const& bytes) {
  std::string const text = isValidUTF8(bytes) ? bytes : decodeEntryName(bytes, true);
  std::string out = "\"";
  for (char c : text) {
    unsigned char const u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20 || u == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string hexBytes(std::string const& bytes) {
  std::string out;
  char pair[4];
  for (char c : bytes) {
    std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(c));
    out += pair;
  }
  return out;
}

constexpr std::size_t kLongestListedTarget = 4095;

/// The target of the current entry, a symbolic link, when it can be read
/// (not encrypted without a password, not too long); false otherwise.
bool currentLinkTarget(ziputil::CZipReader& reader, std::string& target) {
  try {
    tal::P<tal::IInStream> in = reader.openCurrentFileStream();
    char buffer[kLongestListedTarget + 1];
    std::size_t have = 0;
    while (have < sizeof buffer) {
      int const n = in->readLax(buffer + have, static_cast<int>(sizeof buffer - have));
      if (n <= 0) break;
      have += static_cast<std::size_t>(n);
    }
    in->close();
    if (have > kLongestListedTarget) return false;
    target.assign(buffer, have);
    return true;
  } catch (std::exception const&) {
    return false;
  }
}

/// One JSON object (one line) describing the current entry.
void printJsonEntry(ziputil::CZipReader& reader) {
  EntryName const entry = currentEntryName(reader);
  tal::CTimeFields const time = reader.getCurrentFileModifiedTimeFields();
  int const mode = reader.getCurrentFileUnixMode();
  int const madeBy = reader.getCurrentFileVersionMadeBy();
  bool const link = reader.isCurrentFileSymbolicLink();
  std::string json = "{\"name\":" + jsonString(entry.path + (entry.isDirectory ? "/" : ""));
  json += ",\"rawName\":" + jsonString(reader.getCurrentFileRawName());
  json += ",\"nameUTF8\":" + std::string(reader.isCurrentFileNameUTF8() ? "true" : "false");
  json += ",\"directory\":" + std::string(entry.isDirectory ? "true" : "false");
  json += ",\"size\":" + decimal(static_cast<unsigned long long>(reader.getCurrentFileUncompressedSize()));
  json += ",\"compressedSize\":" + decimal(static_cast<unsigned long long>(reader.getCurrentFileCompressedSize()));
  json += ",\"method\":" + std::to_string(reader.getCurrentFileMethod());
  json += ",\"methodName\":" + jsonString(methodName(reader.getCurrentFileMethod()));
  json += ",\"realMethod\":" + std::to_string(reader.getCurrentFileRealMethod());
  json += ",\"realMethodName\":" + jsonString(methodName(reader.getCurrentFileRealMethod()));
  char crc[16];
  std::snprintf(crc, sizeof crc, "%08lx", reader.getCurrentFileCRC32());
  json += ",\"crc32\":\"" + std::string(crc) + "\"";
  if (time.isEmpty()) {
    json += ",\"time\":null";
  } else {
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", time.getYear(), time.getMonth(), time.getDay(),
                  time.getHour(), time.getMinute(), time.getSecond());
    json += ",\"time\":\"" + std::string(text) + "\"";
  }
  json += ",\"versionMadeBy\":" + std::to_string(madeBy);
  json += ",\"system\":" + std::to_string(madeBy < 0 ? -1 : madeBy >> 8);
  json += ",\"externalAttributes\":" + std::to_string(reader.getCurrentFileExternalAttributes());
  json += ",\"mode\":" + (mode < 0 ? std::string("null") : std::to_string(mode));
  json += ",\"modeText\":" + (mode < 0 ? std::string("null") : jsonString(modeText(mode)));
  json += ",\"link\":" + std::string(link ? "true" : "false");
  std::string target;
  if (link && currentLinkTarget(reader, target)) json += ",\"target\":" + jsonString(target);
  json += ",\"encrypted\":" + std::string(reader.isCurrentFileEncrypted() ? "true" : "false");
  json += ",\"encryption\":" + jsonString(ziputil::encryptionName(reader.getCurrentFileEncryption()));
  json += ",\"comment\":" + jsonString(reader.getCurrentFileComment());
  json += ",\"extra\":\"" + hexBytes(reader.getCurrentFileExtraField()) + "\"}";
  std::printf("%s\n", json.c_str());
}

char const kListRule[] = "------------ ------------ ----- --------- --------- ---------------- ---------- ----";

/// The long listing's method and encryption columns: the method of the data
/// (inside AES too), and "-" or the encryption's name.
std::string methodColumns(ziputil::CZipReader& reader) {
  ziputil::Encryption const encryption = reader.getCurrentFileEncryption();
  std::string const shown = encryption == ziputil::Encryption::None ? "-" : ziputil::encryptionName(encryption);
  char text[32];
  std::snprintf(text, sizeof text, "%-9s %-9s", methodName(reader.getCurrentFileRealMethod()).c_str(), shown.c_str());
  return text;
}

} // namespace

int listArchive(Options const& options, std::string const& archive) {
  tal::P<ziputil::CZipReader> reader = openReader(options, archive);
  bool const longForm = options.longListing || options.verbose;
  bool const framed = longForm && !options.quiet && !options.json;
  if (framed)
    std::printf("        Size   Compressed Ratio Method    Encrypted Date       Time  Mode       Name\n%s\n", kListRule);
  unsigned __int128 totalSize = 0, totalCompressed = 0;
  unsigned long long count = 0;
  while (reader->nextFile()) {
    ++count;
    if (options.json) {
      printJsonEntry(*reader);
      continue;
    }
    unsigned long long const size = static_cast<unsigned long long>(reader->getCurrentFileUncompressedSize());
    unsigned long long const compressed = static_cast<unsigned long long>(reader->getCurrentFileCompressedSize());
    totalSize += size;
    totalCompressed += compressed;
    if (longForm)
      std::printf("%12s %12s %5s %s %s %s ", decimal(size).c_str(), decimal(compressed).c_str(),
                  ratio(size, compressed).c_str(), methodColumns(*reader).c_str(),
                  formatTime(reader->getCurrentFileModifiedTimeFields()).c_str(),
                  modeText(reader->getCurrentFileUnixMode()).c_str());
    std::printf("%s\n", currentEntryName(*reader).shown().c_str());
  }
  reader->close();
  if (framed)
    std::printf("%s\n%12s %12s %5s %47s %llu %s\n", kListRule, decimal(totalSize).c_str(),
                decimal(totalCompressed).c_str(), ratio(totalSize, totalCompressed).c_str(), "", count,
                count == 1 ? "entry" : "entries");
  return 0;
}

} // namespace ziputil_tool
