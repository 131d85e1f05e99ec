// Writes an archive with one entry through the local file system, reads it
// back and prints the entry's name and contents: proof that the installed
// headers and libraries are complete.
#include "tal/LocalFileSystem.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

#include <cstdio>
#include <string>

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
    return 0;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "consumer: %s\n", e.what());
    return 1;
  }
}
