#include "LibzipPeer.h"

#include <zip.h>

#include <stdexcept>

namespace bench::libzip {

namespace {

[[noreturn]] void fail(std::string const& what, zip_t* zip) {
  std::string message = "libzip: " + what;
  if (zip) message += std::string(": ") + zip_strerror(zip);
  throw std::runtime_error(message);
}

zip_t* openForReading(std::string const& path) {
  int error = 0;
  zip_t* zip = zip_open(path.c_str(), ZIP_RDONLY, &error);
  if (!zip) {
    zip_error_t e;
    zip_error_init_with_code(&e, error);
    std::string const message = "cannot open " + path + ": " + zip_error_strerror(&e);
    zip_error_fini(&e);
    throw std::runtime_error("libzip: " + message);
  }
  return zip;
}

} // namespace

Archive::Archive(std::string const& path) : m_zip(openForReading(path)) {}

Archive::~Archive() { zip_discard(static_cast<zip_t*>(m_zip)); }

bool Archive::locate(std::string const& name) { return zip_name_locate(static_cast<zip_t*>(m_zip), name.c_str(), 0) >= 0; }

std::string version() { return zip_libzip_version(); }

void openAndLocate(std::string const& path, std::string const& name) {
  zip_t* zip = openForReading(path);
  bool const found = zip_name_locate(zip, name.c_str(), 0) >= 0;
  zip_discard(zip);
  if (!found) throw std::runtime_error("libzip: no entry " + name);
}

std::uint64_t walk(std::string const& path) {
  zip_t* zip = openForReading(path);
  zip_int64_t const count = zip_get_num_entries(zip, 0);
  std::uint64_t total = 0;
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_stat_t st;
    if (zip_stat_index(zip, static_cast<zip_uint64_t>(i), 0, &st) != 0) {
      zip_discard(zip);
      fail("cannot stat an entry", nullptr);
    }
    total += std::string(st.name).size() + st.size;
  }
  zip_discard(zip);
  asm volatile("" : : "r,m"(total) : "memory"); // the walk's work is not thrown away
  return static_cast<std::uint64_t>(count);
}

std::uint64_t read(std::string const& path, std::string const& name) {
  zip_t* zip = openForReading(path);
  zip_file_t* file = zip_fopen(zip, name.c_str(), 0);
  if (!file) {
    std::string const message = zip_strerror(zip);
    zip_discard(zip);
    throw std::runtime_error("libzip: cannot open " + name + ": " + message);
  }
  static char buffer[1 << 16];
  std::uint64_t total = 0;
  zip_int64_t n;
  while ((n = zip_fread(file, buffer, sizeof buffer)) > 0) total += static_cast<std::uint64_t>(n);
  int const closed = zip_fclose(file);
  zip_discard(zip);
  if (n < 0 || closed != 0) throw std::runtime_error("libzip: cannot read " + name);
  return total;
}

std::uint64_t readAll(std::string const& path) {
  zip_t* zip = openForReading(path);
  static char buffer[1 << 16];
  std::uint64_t total = 0;
  zip_int64_t const count = zip_get_num_entries(zip, 0);
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_file_t* file = zip_fopen_index(zip, static_cast<zip_uint64_t>(i), 0);
    if (!file) {
      std::string const message = zip_strerror(zip);
      zip_discard(zip);
      throw std::runtime_error("libzip: cannot open entry " + std::to_string(i) + ": " + message);
    }
    zip_int64_t n;
    while ((n = zip_fread(file, buffer, sizeof buffer)) > 0) total += static_cast<std::uint64_t>(n);
    int const closed = zip_fclose(file);
    if (n < 0 || closed != 0) {
      zip_discard(zip);
      throw std::runtime_error("libzip: cannot read entry " + std::to_string(i));
    }
  }
  zip_discard(zip);
  return total;
}

void write(std::string const& path, std::vector<Entry> const& entries, int level) {
  int error = 0;
  zip_t* zip = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (!zip) throw std::runtime_error("libzip: cannot create " + path);
  for (auto const& e : entries) {
    zip_source_t* source = zip_source_buffer(zip, e.data, e.size, 0);
    if (!source) {
      zip_discard(zip);
      fail("cannot make a source", nullptr);
    }
    zip_int64_t const index = zip_file_add(zip, e.name.c_str(), source, ZIP_FL_ENC_UTF_8);
    if (index < 0) {
      zip_source_free(source);
      std::string const message = zip_strerror(zip);
      zip_discard(zip);
      throw std::runtime_error("libzip: cannot add " + e.name + ": " + message);
    }
    if (zip_set_file_compression(zip, static_cast<zip_uint64_t>(index), ZIP_CM_DEFLATE,
                                 static_cast<zip_uint32_t>(level)) != 0) {
      std::string const message = zip_strerror(zip);
      zip_discard(zip);
      throw std::runtime_error("libzip: cannot set compression: " + message);
    }
  }
  if (zip_close(zip) != 0) {
    std::string const message = zip_strerror(zip);
    zip_discard(zip);
    throw std::runtime_error("libzip: cannot write " + path + ": " + message);
  }
}

} // namespace bench::libzip
