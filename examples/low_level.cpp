// The classes underneath CZipFile: CZipWriter adds an entry to an archive in a
// memory file system, CZipReader walks it and reads the entry by name.
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"
#include "ziputil/Names.h"

#include <iostream>
#include <string>

int main() {
  try {
    tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
    tal::CURI archive(tal::String("mem:/out.zip"));
    ziputil::createEmptyArchive(fs.get(), archive); // the writer adds to an existing archive
    tal::P<ziputil::CZipWriter> writer =
        tal::newObj<ziputil::CZipWriter>(fs.get(), archive, tal::String(), ziputil::CZipWriter::CompNormal);
    tal::P<tal::IOutStream> out = writer->beginAddFile(ziputil::entryURI("docs/hello #1.txt"),
                                                       tal::CTimeFields(2024, 5, 1, 12, 0, 0, 0.0, 0, false));
    out->write("hello", 5, nullptr);
    out->close();    // one entry at a time
    writer->close(); // writes the central directory

    tal::P<ziputil::CZipReader> reader = tal::newObj<ziputil::CZipReader>(fs.get(), archive, tal::String());
    while (reader->nextFile()) {
      std::cout << ziputil::entryName(reader->getCurrentFileRelativeURI()) << ' '
                << reader->getCurrentFileUncompressedSize() << '\n';
    }
    if (reader->tryGoToFile(ziputil::entryURI("docs/hello #1.txt"))) {
      tal::P<tal::IInStream> in = reader->openCurrentFileStream();
      char buffer[65536];
      std::string text;
      while (int n = in->readLax(buffer, sizeof buffer)) text.append(buffer, static_cast<std::size_t>(n));
      in->close(); // the reader moves on only after the entry's stream is closed
      std::cout << text << '\n';
    }
    reader->close();
  } catch (std::exception const& e) {
    std::cerr << "low_level: " << e.what() << '\n';
    return 1;
  }
}
