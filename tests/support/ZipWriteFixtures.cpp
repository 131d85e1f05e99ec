#include "ZipWriteFixtures.h"

#include "ZipFixtures.h"

#include <stdexcept>

namespace testsupport {

tal::P<ziputil::CZipWriter> newArchiveWriter(tal::IFileSystem* fs, tal::CURI const& uri, char const* password,
                                             int level) {
  ziputil::createEmptyArchive(fs, uri);
  return tal::newObj<ziputil::CZipWriter>(fs, uri, tal::String(password),
                                          static_cast<ziputil::CZipWriter::CompLevel>(level));
}

void addEntry(ziputil::CZipWriter& writer, std::string const& name, std::string const& data,
              tal::CTimeFields const& time) {
  tal::P<tal::IOutStream> out = writer.beginAddFile(entryURI(name), time);
  if (!data.empty()) out->write(data.data(), static_cast<int>(data.size()), nullptr);
  out->close();
}

std::string describeWithPython(std::string const& archivePath) {
  return runPython(R"(
import struct, sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as z:
    raw = open(sys.argv[1], "rb").read()
    for info in z.infolist():
        at = info.header_offset
        name_len, extra_len = struct.unpack_from("<HH", raw, at + 26)
        extra = raw[at + 30 + name_len: at + 30 + name_len + extra_len]
        ids, i = [], 0
        while i + 4 <= len(extra):
            hid, size = struct.unpack_from("<HH", extra, i)
            ids.append("%04x" % hid)
            i += 4 + size
        print("%s|%d|%x|%d|%s|%s|%d|%d" % (info.filename, info.compress_type, info.flag_bits, info.file_size,
              "%04d-%02d-%02d %02d:%02d:%02d" % info.date_time, ",".join(ids), len(info.comment), info.create_system))
)",
                   {archivePath});
}

} // namespace testsupport

namespace testsupport {
namespace {

std::uint64_t little(std::string const& bytes, std::size_t at, int size) {
  if (at + static_cast<std::size_t>(size) > bytes.size()) throw std::runtime_error("archive truncated");
  std::uint64_t value = 0;
  for (int i = size - 1; i >= 0; --i) value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

std::vector<std::uint16_t> extraIds(std::string const& bytes, std::size_t at, std::size_t length) {
  std::vector<std::uint16_t> ids;
  for (std::size_t i = 0; i + 4 <= length;) {
    ids.push_back(static_cast<std::uint16_t>(little(bytes, at + i, 2)));
    i += 4 + little(bytes, at + i + 2, 2);
  }
  return ids;
}

} // namespace

std::vector<RawEntry> parseArchive(std::string const& bytes, std::uint16_t* commentLength) {
  std::size_t end = bytes.size() < 22 ? std::string::npos : bytes.rfind(std::string("PK\x05\x06", 4));
  if (end == std::string::npos) throw std::runtime_error("no end of central directory");
  if (commentLength) *commentLength = static_cast<std::uint16_t>(little(bytes, end + 20, 2));
  std::uint64_t const count = little(bytes, end + 10, 2);
  std::size_t at = static_cast<std::size_t>(little(bytes, end + 16, 4));
  std::vector<RawEntry> entries;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (little(bytes, at, 4) != 0x02014b50) throw std::runtime_error("bad central header");
    RawEntry entry;
    entry.versionMadeBy = static_cast<std::uint16_t>(little(bytes, at + 4, 2));
    entry.centralFlags = static_cast<std::uint16_t>(little(bytes, at + 8, 2));
    entry.centralMethod = static_cast<std::uint16_t>(little(bytes, at + 10, 2));
    entry.centralTime = static_cast<std::uint16_t>(little(bytes, at + 12, 2));
    entry.centralDate = static_cast<std::uint16_t>(little(bytes, at + 14, 2));
    entry.crc = static_cast<std::uint32_t>(little(bytes, at + 16, 4));
    entry.compressedSize = little(bytes, at + 20, 4);
    entry.uncompressedSize = little(bytes, at + 24, 4);
    std::size_t const nameLength = little(bytes, at + 28, 2), extraLength = little(bytes, at + 30, 2);
    entry.commentLength = static_cast<std::uint16_t>(little(bytes, at + 32, 2));
    entry.internalAttributes = static_cast<std::uint16_t>(little(bytes, at + 36, 2));
    entry.externalAttributes = static_cast<std::uint32_t>(little(bytes, at + 38, 4));
    std::size_t const local = static_cast<std::size_t>(little(bytes, at + 42, 4));
    entry.name = bytes.substr(at + 46, nameLength);
    entry.centralExtraIds = extraIds(bytes, at + 46 + nameLength, extraLength);
    at += 46 + nameLength + extraLength + entry.commentLength;

    if (little(bytes, local, 4) != 0x04034b50) throw std::runtime_error("bad local header");
    entry.localFlags = static_cast<std::uint16_t>(little(bytes, local + 6, 2));
    entry.localMethod = static_cast<std::uint16_t>(little(bytes, local + 8, 2));
    entry.localTime = static_cast<std::uint16_t>(little(bytes, local + 10, 2));
    entry.localDate = static_cast<std::uint16_t>(little(bytes, local + 12, 2));
    std::size_t const localName = little(bytes, local + 26, 2), localExtra = little(bytes, local + 28, 2);
    entry.localExtraIds = extraIds(bytes, local + 30 + localName, localExtra);
    std::size_t const data = local + 30 + localName + localExtra;
    if (data + entry.compressedSize > bytes.size()) throw std::runtime_error("entry data truncated");
    entry.data = bytes.substr(data, static_cast<std::size_t>(entry.compressedSize));
    entries.push_back(entry);
  }
  return entries;
}

} // namespace testsupport
