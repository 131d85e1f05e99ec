// Context's members (declared in Workloads.h): what the workloads share.
#include "Workloads.h"

#include "ZipData.h"

#include <algorithm>

namespace bench {

namespace {

/// The path of the file `name` in the work folder `dir`, made there by
/// `make(path)` on the first call; `memo` holds the path from then on.
template <class Make>
std::string const& madeOnce(std::string& memo, std::string const& dir, char const* name, Make make) {
  if (memo.empty()) {
    std::string const path = dir + "/" + name;
    make(path);
    memo = path;
  }
  return memo;
}

} // namespace

bool Context::wants(std::string const& impl) const {
  for (auto const& s : skip)
    if (impl == s || impl.rfind(s + "-", 0) == 0) return false;
  return true;
}

std::size_t Context::scaled(double full, std::size_t least) const {
  return std::max(least, static_cast<std::size_t>(full * scale + 0.5));
}

std::string const& Context::manyArchive() {
  return madeOnce(m_manyPath, dir, "many.zip",
                  [this](std::string const& path) { writeManyEntriesArchive(path, manyCount()); });
}

std::string const& Context::manyBytes() {
  if (m_manyBytes.empty()) m_manyBytes = readFile(manyArchive());
  return m_manyBytes;
}

std::string const& Context::writeData() {
  if (m_writeData.empty()) m_writeData = makeText(writeSize(), 11);
  return m_writeData;
}

std::string const& Context::writeDataPath() {
  return madeOnce(m_writeDataPath, dir, "write.txt", [this](std::string const& path) { writeFile(path, writeData()); });
}

} // namespace bench
