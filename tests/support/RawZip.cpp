#include "support/RawZip.h"

#include <zlib.h>

namespace testsupport {
namespace {

void put16(std::string& out, unsigned long value) {
  out += static_cast<char>(value & 0xFF);
  out += static_cast<char>((value >> 8) & 0xFF);
}

void put32(std::string& out, unsigned long value) {
  put16(out, value & 0xFFFF);
  put16(out, (value >> 16) & 0xFFFF);
}

constexpr unsigned long kDosTime = (3 << 11) | (4 << 5) | 3;
constexpr unsigned long kDosDate = ((2020 - 1980) << 9) | (1 << 5) | 2;

/// The fields a local and a central header share, from "version needed" to the extra field's length.
void putCommon(std::string& out, RawZipEntry const& entry) {
  put16(out, static_cast<unsigned long>(entry.versionNeeded));
  put16(out, static_cast<unsigned long>(entry.flags));
  put16(out, static_cast<unsigned long>(entry.method));
  put16(out, kDosTime);
  put16(out, kDosDate);
  put32(out, entry.crc);
  put32(out, static_cast<unsigned long>(entry.data.size()));
  put32(out, static_cast<unsigned long>(entry.size));
  put16(out, entry.name.size());
  put16(out, entry.extra.size());
}

} // namespace

std::string rawZip(std::vector<RawZipEntry> const& entries) {
  std::string out;
  std::string central;
  for (RawZipEntry const& entry : entries) {
    unsigned long const offset = static_cast<unsigned long>(out.size());
    put32(out, 0x04034b50);
    putCommon(out, entry);
    out += entry.name + entry.extra + entry.data;
    put32(central, 0x02014b50);
    put16(central, 0x031E);
    putCommon(central, entry);
    put16(central, 0); // comment
    put16(central, 0); // disk
    put16(central, 0); // internal attributes
    put32(central, 0100644UL << 16);
    put32(central, offset);
    central += entry.name + entry.extra;
  }
  unsigned long const directoryOffset = static_cast<unsigned long>(out.size());
  out += central;
  put32(out, 0x06054b50);
  put16(out, 0);
  put16(out, 0);
  put16(out, entries.size());
  put16(out, entries.size());
  put32(out, static_cast<unsigned long>(central.size()));
  put32(out, directoryOffset);
  put16(out, 0);
  return out;
}

unsigned long crc32Of(std::string const& bytes) {
  return crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<Bytef const*>(bytes.data()), static_cast<uInt>(bytes.size()));
}

} // namespace testsupport
