// Packs files into a new archive, with a note written from memory.
#include "ziputil/ZipFile.h"

#include <iostream>
#include <string>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: pack ARCHIVE [FILE...]\n";
    return 2;
  }
  try {
    auto zip = ziputil::CZipFile::open(argv[1], ziputil::ZipFileMode::Create);
    zip->add("notes/read me #1.txt", "Packed by the example.\n");
    for (int i = 2; i < argc; ++i) {
      std::string const path = argv[i];
      zip->addFile(path.substr(path.find_last_of('/') + 1), path); // keeps the file's time and mode
    }
    zip->close();
  } catch (std::exception const& e) {
    std::cerr << "pack: " << e.what() << '\n';
    return 1;
  }
}
