#include "ZipData.h"

#include <zip.h>

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <stdexcept>

namespace bench {

namespace {

char const* const kWords[] = {
    "the",     "archive", "entry",   "of",       "and",      "data",    "stream",   "header",   "central",
    "file",    "system",  "reader",  "writer",   "to",       "in",      "is",       "a",        "with",
    "offset",  "size",    "name",    "level",    "deflate",  "inflate", "checksum", "record",   "local",
    "folder",  "memory",  "buffer",  "error",    "result",   "open",    "close",    "read",     "write",
    "seek",    "length",  "position", "version", "method",   "time",    "date",     "comment",  "extra",
    "field",   "zip64",   "end",     "directory", "signature", "bytes", "value",    "count",    "table",
    "index",   "lookup",  "hash",    "walk",     "list",     "test",    "copy",     "move",     "sync",
    "lock"};
constexpr std::uint32_t kWordCount = sizeof kWords / sizeof kWords[0];

[[noreturn]] void fail(std::string const& what) { throw std::runtime_error(what); }

} // namespace

std::string makeText(std::size_t size, std::uint32_t seed) {
  std::string text;
  text.reserve(size + 32);
  std::uint32_t state = seed * 2654435761u + 1u;
  std::size_t lineLength = 0;
  while (text.size() < size) {
    state = state * 1664525u + 1013904223u;
    std::uint32_t const r = state >> 8;
    if ((r & 15) == 0) {
      char number[16];
      int const n = std::snprintf(number, sizeof number, "%u", (r >> 4) % 100000);
      text.append(number, static_cast<std::size_t>(n));
    } else {
      text.append(kWords[(r >> 4) % kWordCount]);
    }
    if (++lineLength == 12) {
      text.push_back('\n');
      lineLength = 0;
    } else {
      text.push_back(' ');
    }
  }
  text.resize(size);
  return text;
}

std::string manyEntriesName(std::size_t index) {
  char name[64];
  std::snprintf(name, sizeof name, "d%03zu/entry%06zu.txt", index / 1000, index);
  return name;
}

void writeManyEntriesArchive(std::string const& path, std::size_t count) {
  zipFile zip = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
  if (!zip) fail("cannot create " + path);
  std::string const text = makeText(4096, 7);
  for (std::size_t i = 0; i < count; ++i) {
    std::string const name = manyEntriesName(i);
    zip_fileinfo info = {};
    info.tmz_date.tm_year = 2024;
    info.tmz_date.tm_mon = 4;
    info.tmz_date.tm_mday = 1;
    unsigned const length = 16 + static_cast<unsigned>(i % 48);
    if (zipOpenNewFileInZip64(zip, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, 0, 0, 0) != ZIP_OK ||
        zipWriteInFileInZip(zip, text.data() + (i * 61) % 4000, length) != ZIP_OK || zipCloseFileInZip(zip) != ZIP_OK)
      fail("cannot write " + path);
  }
  if (zipClose(zip, nullptr) != ZIP_OK) fail("cannot close " + path);
}

void writeOneEntryArchive(std::string const& path, std::string const& name, std::string const& data, int level) {
  zipFile zip = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
  if (!zip) fail("cannot create " + path);
  zip_fileinfo info = {};
  info.tmz_date.tm_year = 2024;
  info.tmz_date.tm_mon = 4;
  info.tmz_date.tm_mday = 1;
  if (zipOpenNewFileInZip64(zip, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED, level,
                            data.size() >= 0xffffffffu) != ZIP_OK)
    fail("cannot write " + path);
  for (std::size_t done = 0; done < data.size();) {
    unsigned const chunk = static_cast<unsigned>(std::min<std::size_t>(data.size() - done, 1u << 20));
    if (zipWriteInFileInZip(zip, data.data() + done, chunk) != ZIP_OK) fail("cannot write " + path);
    done += chunk;
  }
  if (zipCloseFileInZip(zip) != ZIP_OK || zipClose(zip, nullptr) != ZIP_OK) fail("cannot close " + path);
}

std::string readFile(std::string const& path) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) fail("cannot open " + path);
  std::string bytes;
  char buffer[1 << 16];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.append(buffer, n);
  bool const bad = std::ferror(f) != 0;
  std::fclose(f);
  if (bad) fail("cannot read " + path);
  return bytes;
}

void writeFile(std::string const& path, std::string const& bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) fail("cannot create " + path);
  bool const ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  if (std::fclose(f) != 0 || !ok) fail("cannot write " + path);
}

bool findCentralDirectory(unsigned char const* file, std::size_t size, CentralDirectory& cd) {
  if (size < 22) return false;
  std::size_t const lowest = size > 22 + 65535 ? size - 22 - 65535 : 0;
  for (std::size_t at = size - 22 + 1; at-- > lowest;) {
    unsigned char const* e = file + at;
    if (le32(e) != 0x06054b50u) continue;
    std::uint64_t count = le16(e + 10);
    std::uint64_t cdSize = le32(e + 12);
    std::uint64_t cdOffset = le32(e + 16);
    if ((count == 0xffff || cdSize == 0xffffffffu || cdOffset == 0xffffffffu) && at >= 20 &&
        le32(e - 20) == 0x07064b50u) {
      std::uint64_t const z = le64(e - 20 + 8);
      if (z > size || size - z < 56 || le32(file + z) != 0x06064b50u) return false;
      count = le64(file + z + 32);
      cdSize = le64(file + z + 40);
      cdOffset = le64(file + z + 48);
    }
    if (cdOffset > size || size - cdOffset < cdSize) return false;
    cd.begin = file + cdOffset;
    cd.end = cd.begin + cdSize;
    cd.count = count;
    return true;
  }
  return false;
}

namespace {

/// `size` bytes at `offset` of the open file `fd` into `out`, or a failure.
void readAt(int fd, std::uint64_t offset, std::size_t size, std::string& out, std::string const& path) {
  out.resize(size);
  std::size_t done = 0;
  while (done < size) {
    ssize_t const got = ::pread(fd, &out[done], size - done, static_cast<off_t>(offset + done));
    if (got <= 0) fail("cannot read " + path);
    done += static_cast<std::size_t>(got);
  }
}

} // namespace

namespace {

/// Where the central directory of the open file `fd` (of `size` bytes) lies,
/// from the end record and, when that points to it, the Zip64 end record.
struct DirectoryPlace {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  std::uint64_t count = 0;
};

DirectoryPlace findDirectoryPlace(int fd, std::uint64_t size, std::string const& path) {
  // The end record, the Zip64 locator before it and the Zip64 end record before that.
  std::size_t const tailSize = static_cast<std::size_t>(std::min<std::uint64_t>(size, 22 + 65535 + 20 + 56));
  std::uint64_t const tailStart = size - tailSize;
  std::string tail;
  readAt(fd, tailStart, tailSize, tail, path);
  auto const* bytes = reinterpret_cast<unsigned char const*>(tail.data());
  for (std::size_t at = tailSize >= 22 ? tailSize - 22 + 1 : 0; at-- > 0;) {
    unsigned char const* e = bytes + at;
    if (le32(e) != 0x06054b50u) continue;
    DirectoryPlace place;
    place.count = le16(e + 10);
    place.size = le32(e + 12);
    place.offset = le32(e + 16);
    if ((place.count == 0xffff || place.size == 0xffffffffu || place.offset == 0xffffffffu) && at >= 20 &&
        le32(e - 20) == 0x07064b50u) {
      std::uint64_t const z = le64(e - 20 + 8);
      if (z < tailStart || z - tailStart + 56 > tailSize) fail("the Zip64 end record is not at the end of " + path);
      unsigned char const* z64 = bytes + (z - tailStart);
      if (le32(z64) != 0x06064b50u) fail("no Zip64 end record in " + path);
      place.count = le64(z64 + 32);
      place.size = le64(z64 + 40);
      place.offset = le64(z64 + 48);
    }
    if (place.offset > size || size - place.offset < place.size) fail("the central directory lies outside " + path);
    return place;
  }
  fail("no end record in " + path);
}

std::uint64_t fileSize(int fd, std::string const& path) {
  struct stat info;
  if (::fstat(fd, &info) != 0) fail("cannot stat " + path);
  return static_cast<std::uint64_t>(info.st_size);
}

} // namespace

void readCentralDirectory(std::string const& path, std::string& buffer, CentralDirectory& cd) {
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail("cannot open " + path);
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } const closer{fd};
  DirectoryPlace const place = findDirectoryPlace(fd, fileSize(fd, path), path);
  readAt(fd, place.offset, static_cast<std::size_t>(place.size), buffer, path);
  cd.begin = reinterpret_cast<unsigned char const*>(buffer.data());
  cd.end = cd.begin + buffer.size();
  cd.count = place.count;
}

std::uint64_t listCentralDirectoryWithStdio(std::string const& path, std::uint64_t& total) {
  std::FILE* const f = std::fopen(path.c_str(), "rb");
  if (!f) fail("cannot open " + path);
  struct Closer {
    std::FILE* f;
    ~Closer() { std::fclose(f); }
  } const closer{f};
  int const fd = ::fileno(f);
  DirectoryPlace const place = findDirectoryPlace(fd, fileSize(fd, path), path);
  if (::fseeko(f, static_cast<off_t>(place.offset), SEEK_SET) != 0) fail("cannot seek in " + path);
  // The extra field and the comment are read past rather than sought past:
  // glibc's fseek drops the stream's buffer.
  std::vector<unsigned char> rest(2 * 65535);
  unsigned char header[46];
  std::uint64_t seen = 0;
  for (; seen < place.count; ++seen) {
    if (std::fread(header, 1, sizeof header, f) != sizeof header || le32(header) != 0x02014b50u)
      fail("a malformed central header in " + path);
    CentralEntry e = centralEntryFields(header);
    std::size_t const extraLength = le16(header + 30);
    std::size_t const restLength = extraLength + le16(header + 32);
    std::string name(e.nameLength, '\0');
    if (std::fread(&name[0], 1, e.nameLength, f) != e.nameLength ||
        std::fread(rest.data(), 1, restLength, f) != restLength)
      fail("a central header cut short in " + path);
    applyZip64Extra(e, rest.data(), extraLength);
    total += name.size() + e.uncompressedSize;
  }
  return seen;
}

std::string entryCompressedBytes(std::string const& archive, std::string const& name, CentralEntry& entry) {
  auto const* bytes = reinterpret_cast<unsigned char const*>(archive.data());
  CentralDirectory cd;
  if (!findCentralDirectory(bytes, archive.size(), cd)) fail("no central directory");
  bool found = false;
  walkCentralDirectory(cd, [&](CentralEntry const& e) {
    if (e.nameLength != name.size() || std::memcmp(e.name, name.data(), name.size()) != 0) return true;
    entry = e;
    found = true;
    return false;
  });
  if (!found || entry.localHeaderOffset + 30 > archive.size()) fail("no entry " + name);
  unsigned char const* local = bytes + entry.localHeaderOffset;
  std::uint64_t const start = entry.localHeaderOffset + 30 + le16(local + 26) + le16(local + 28);
  if (start > archive.size() || archive.size() - start < entry.compressedSize) fail("entry " + name + " cut short");
  return archive.substr(start, entry.compressedSize);
}

} // namespace bench
