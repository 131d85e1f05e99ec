#include "SmallEntries.h"

#include "WorkloadSupport.h"

#include <cstdint>
#include <cstdio>

namespace bench {

SmallEntries smallEntries(std::size_t count) {
  SmallEntries small;
  small.text = std::make_shared<std::string>(makeText(1 << 20, 5));
  small.entries = std::make_shared<std::vector<std::tuple<std::string, std::size_t, std::size_t>>>();
  std::uint32_t state = 12345;
  for (std::size_t i = 0; i < count; ++i) {
    state = state * 1664525u + 1013904223u;
    std::size_t const length = 256 + (state >> 8) % 3841;
    std::size_t const offset = (i * 7919) % (small.text->size() - 4097);
    char name[64];
    std::snprintf(name, sizeof name, "d%02zu/f%05zu.txt", i / 500, i);
    small.entries->emplace_back(name, offset, length);
    small.manifest += std::to_string(offset) + " " + std::to_string(length) + " " + name + "\n";
    small.totalBytes += length;
  }
  return small;
}

void writeSmallWithStockMinizip(std::string const& path, SmallEntries const& small) {
  zipFile zip = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
  expect(zip != nullptr, "minizip cannot create " + path);
  for (auto const& [name, offset, length] : *small.entries) {
    openStockEntry(zip, name, kSmallLevel);
    expect(zipWriteInFileInZip(zip, small.text->data() + offset, static_cast<unsigned>(length)) == ZIP_OK &&
               zipCloseFileInZip(zip) == ZIP_OK,
           "minizip cannot write " + name);
  }
  expect(zipClose(zip, nullptr) == ZIP_OK, "minizip cannot close " + path);
}

} // namespace bench
