// The benchmarks' workloads and what they share: sizes, the work folder, the
// archives and data generated into it, and the peers.
#pragma once

#include "Harness.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench {

struct Context {
  /// 1 is the full run; sizes and counts scale with it.
  double scale = 1;
  /// Work folder (removed at the end).
  std::string dir;
  /// The ziputil program; empty when there is none.
  std::string tool;
  /// Python's zipfile; null when no interpreter could be started.
  std::unique_ptr<PythonPeer> python;
  /// Implementations left out: a name, or its first part before "-" ("limit", "ziputil").
  std::vector<std::string> skip;

  bool wants(std::string const& impl) const;
  std::size_t scaled(double full, std::size_t least) const;

  std::size_t manyCount() const { return scaled(100000, 1000); }
  std::size_t readSize() const { return scaled(256.0 * 1024 * 1024, 1 << 20); }
  std::size_t writeSize() const { return scaled(128.0 * 1024 * 1024, 1 << 20); }
  std::size_t smallCount() const { return scaled(10000, 100); }
  std::size_t addFiles() const { return scaled(10000, 100); }

  /// The many-entries archive (written on first use) and its bytes.
  std::string const& manyArchive();
  std::string const& manyBytes();
  /// The data that the write workloads write, in memory and as a file.
  std::string const& writeData();
  std::string const& writeDataPath();

private:
  std::string m_manyPath, m_manyBytes, m_writeData, m_writeDataPath;
};

struct WorkloadInfo {
  char const* key;
  char const* summary;
  std::function<Workload(Context&)> make;
};

/// Every workload, in the order a full run takes them.
std::vector<WorkloadInfo> allWorkloads();

/// The parallel deflater's CPU time against one entry after another (DeflaterWorkload.cpp).
Workload makeDeflater(Context& ctx);

} // namespace bench
