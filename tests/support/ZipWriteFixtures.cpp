#include "ZipWriteFixtures.h"

#include "ZipFixtures.h"

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
