// Reading and writing an archive through tal::CLocalFileSystem and
// tal::CMemoryFileSystem, against stock minizip reading and writing the same
// archive through its own fopen-based I/O. Compare the times of one row with
// the "Stock" rows: the difference is the cost of the bridge and the streams.
#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

#include <benchmark/benchmark.h>
#include <unzip.h>
#include <zip.h>

#include <cstdio>
#include <unistd.h>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int kEntries = 200;
constexpr int kEntrySize = 64 * 1024;

std::string const& archivePath() {
  static std::string const path = [] {
    char const* base = std::getenv("TMPDIR");
    return std::string(base && *base ? base : "/tmp") + "/ziputil-bench-" + std::to_string(getpid()) + ".zip";
  }();
  return path;
}

tal::CURI archiveURI() {
  return tal::CURI(tal::String("file"), tal::String::fromUTF8(archivePath()), nullptr, nullptr, tal::String(), -1,
                   nullptr, nullptr);
}

std::vector<char> entryData() {
  std::vector<char> data(kEntrySize);
  unsigned state = 1;
  for (char& c : data) {
    state = state * 1103515245u + 12345u;
    c = static_cast<char>("abcdefgh"[(state >> 16) & 7]); // compressible, not trivially
  }
  return data;
}

void writeWithLibrary(tal::IFileSystem* fs, tal::CURI const& uri, int level) {
  static std::vector<char> const data = entryData();
  ziputil::createEmptyArchive(fs, uri);
  auto writer = tal::newObj<ziputil::CZipWriter>(fs, uri, tal::String(), static_cast<ziputil::CZipWriter::CompLevel>(level));
  for (int i = 0; i < kEntries; ++i) {
    auto out = writer->beginAddFile(tal::CURI(tal::String("e") + tal::toString(i)), tal::CTimeFields());
    out->write(data.data(), kEntrySize, nullptr);
    out->close();
  }
  writer->close();
}

void writeWithStock(int level) {
  static std::vector<char> const data = entryData();
  zipFile zip = zipOpen64(archivePath().c_str(), APPEND_STATUS_CREATE);
  for (int i = 0; i < kEntries; ++i) {
    zip_fileinfo info = {};
    std::string name = "e" + std::to_string(i);
    zipOpenNewFileInZip4_64(zip, name.c_str(), &info, nullptr, 0, nullptr, 0, "", Z_DEFLATED, level, 0, -MAX_WBITS,
                            DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY, nullptr, 0, 0, 0x800, 1);
    zipWriteInFileInZip(zip, data.data(), kEntrySize);
    zipCloseFileInZip(zip);
  }
  zipClose(zip, "");
}

long long readWithLibrary(tal::IFileSystem* fs, tal::CURI const& uri) {
  auto reader = tal::newObj<ziputil::CZipReader>(fs, uri, tal::String());
  std::vector<char> buffer(16384);
  long long total = 0;
  while (reader->nextFile()) {
    auto in = reader->openCurrentFileStream();
    while (int n = in->readLax(buffer.data(), static_cast<int>(buffer.size()))) total += n;
    in->close();
  }
  reader->close();
  return total;
}

long long readWithStock() {
  unzFile unz = unzOpen64(archivePath().c_str());
  std::vector<char> buffer(16384);
  long long total = 0;
  for (int err = unzGoToFirstFile(unz); err == UNZ_OK; err = unzGoToNextFile(unz)) {
    unzOpenCurrentFile(unz);
    while (int n = unzReadCurrentFile(unz, buffer.data(), static_cast<unsigned>(buffer.size()))) total += n;
    unzCloseCurrentFile(unz);
  }
  unzClose(unz);
  return total;
}

void setBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kEntries * kEntrySize);
}

void BM_ReadLocalFileSystem(benchmark::State& state) {
  auto fs = tal::newObj<tal::CLocalFileSystem>();
  writeWithStock(6);
  for (auto _ : state) benchmark::DoNotOptimize(readWithLibrary(fs.get(), archiveURI()));
  setBytes(state);
  std::remove(archivePath().c_str());
}

void BM_ReadMemoryFileSystem(benchmark::State& state) {
  auto fs = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri(tal::String("mem:/bench.zip"));
  writeWithLibrary(fs.get(), uri, 6);
  for (auto _ : state) benchmark::DoNotOptimize(readWithLibrary(fs.get(), uri));
  setBytes(state);
}

void BM_ReadStockMinizip(benchmark::State& state) {
  writeWithStock(6);
  for (auto _ : state) benchmark::DoNotOptimize(readWithStock());
  setBytes(state);
  std::remove(archivePath().c_str());
}

void BM_WriteLocalFileSystem(benchmark::State& state) {
  auto fs = tal::newObj<tal::CLocalFileSystem>();
  for (auto _ : state) writeWithLibrary(fs.get(), archiveURI(), static_cast<int>(state.range(0)));
  setBytes(state);
  std::remove(archivePath().c_str());
}

void BM_WriteStockMinizip(benchmark::State& state) {
  for (auto _ : state) writeWithStock(static_cast<int>(state.range(0)));
  setBytes(state);
  std::remove(archivePath().c_str());
}

} // namespace

BENCHMARK(BM_ReadLocalFileSystem)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadMemoryFileSystem)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadStockMinizip)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteLocalFileSystem)->Arg(0)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteStockMinizip)->Arg(0)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond);
