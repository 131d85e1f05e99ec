// Counts the lines of every "*.txt" entry of an archive.
#include "ziputil/ZipFile.h"

#include <algorithm>
#include <iostream>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: count_lines ARCHIVE\n";
    return 2;
  }
  try {
    auto zip = ziputil::CZipFile::open(argv[1]);
    for (ziputil::EntryInfo const& entry : zip->entries()) {
      if (entry.name.size() < 4 || entry.name.compare(entry.name.size() - 4, 4, ".txt") != 0) continue;
      std::string const text = zip->read(entry.name);
      std::cout << entry.name << ": " << std::count(text.begin(), text.end(), '\n') << '\n';
    }
  } catch (std::exception const& e) {
    std::cerr << "count_lines: " << e.what() << '\n';
    return 1;
  }
}
