// Writes an archive with one entry through the local file system, reads it
// back with ziputil and with libzip, and prints the entry's name and contents
// and the versions: proof that the installed headers and libraries are
// complete, and that libzip's <zip.h> is still the one a program includes.
#include "tal/LocalFileSystem.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"
#include "ziputil/Version.h"

#include <zip.h>  // libzip's, not minizip's

#include <cstdio>
#include <cstring>
#include <string>

namespace {

// The entry as libzip reads it, or a message on stderr and "".
std::string readWithLibzip(char const* path, char const* name) {
  int error = 0;
  zip_t* archive = zip_open(path, ZIP_RDONLY, &error);
  if (archive == nullptr) {
    std::fprintf(stderr, "consumer: libzip cannot open %s (error %d)\n", path, error);
    return "";
  }
  std::string text;
  if (zip_file_t* file = zip_fopen(archive, name, 0)) {
    char buffer[64];
    zip_int64_t n;
    while ((n = zip_fread(file, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
    zip_fclose(file);
  }
  zip_close(archive);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  tal::P<tal::IFileSystem> fs(tal::newObj<tal::CLocalFileSystem>());
  tal::CURI archive(tal::String("file"), tal::String::fromUTF8(argv[1]), nullptr, nullptr, tal::String(), -1, nullptr,
                    nullptr);
  try {
    ziputil::createEmptyArchive(fs.get(), archive);
    tal::P<ziputil::CZipWriter> writer = tal::newObj<ziputil::CZipWriter>(
        fs.get(), archive, tal::String(), static_cast<ziputil::CZipWriter::CompLevel>(9));
    tal::P<tal::IOutStream> out = writer->beginAddFile(tal::CURI(tal::String("hello.txt")), tal::CTimeFields());
    out->write("installed package works", 23, nullptr);
    out->close();
    writer->close();

    tal::P<ziputil::CZipReader> reader = tal::newObj<ziputil::CZipReader>(fs.get(), archive, tal::String());
    if (!reader->nextFile()) return 1;
    char text[64] = {};
    tal::P<tal::IInStream> in = reader->openCurrentFileStream();
    int n = in->readLax(text, sizeof text - 1);
    in->close();
    std::printf("%s: %.*s\n", reader->getCurrentFileRelativeURI().getPath().toUTF8().c_str(), n, text);
    reader->close();
  } catch (std::exception const& e) {
    std::fprintf(stderr, "consumer: %s\n", e.what());
    return 1;
  }
  std::printf("libzip %s reads hello.txt: %s\n", zip_libzip_version(), readWithLibzip(argv[1], "hello.txt").c_str());
  std::printf("ziputil %s, headers %s\n", ziputil::versionString(), ZIPUTIL_VERSION_STRING);
  return std::strcmp(ziputil::versionString(), ZIPUTIL_VERSION_STRING) == 0 ? 0 : 1;
}
