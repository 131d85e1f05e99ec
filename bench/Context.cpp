// Context's members (declared in Workloads.h): what the workloads share.
#include "Workloads.h"

#include "ZipData.h"

#include <algorithm>

namespace bench {

bool Context::wants(std::string const& impl) const {
  for (auto const& s : skip)
    if (impl == s || impl.rfind(s + "-", 0) == 0) return false;
  return true;
}

std::size_t Context::scaled(double full, std::size_t least) const {
  return std::max(least, static_cast<std::size_t>(full * scale + 0.5));
}

std::string const& Context::manyArchive() {
  if (m_manyPath.empty()) {
    std::string const path = dir + "/many.zip";
    writeManyEntriesArchive(path, manyCount());
    m_manyPath = path;
  }
  return m_manyPath;
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
  if (m_writeDataPath.empty()) {
    std::string const path = dir + "/write.txt";
    writeFile(path, writeData());
    m_writeDataPath = path;
  }
  return m_writeDataPath;
}

} // namespace bench
