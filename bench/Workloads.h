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

// The workloads, one a file under workloads/ (allWorkloads() says what each
// measures).

/// find (`present`) or missing: lookups of a name in the many-entries archive.
Workload makeFind(Context& ctx, bool present);
/// open: open the many-entries archive, look up a name, close.
Workload makeOpen(Context& ctx);
/// walk: open the many-entries archive, list every name and size, close.
Workload makeWalk(Context& ctx);
/// read: read one big deflated entry.
Workload makeRead(Context& ctx);
/// write1, write6: write one big entry at `level`.
Workload makeWrite(Context& ctx, int level);
/// small: write many small entries.
Workload makeSmall(Context& ctx);
/// readmany: read every entry of an archive of many small entries.
Workload makeReadMany(Context& ctx);
/// add: the ziputil program's `add` of a folder against `zip -r`.
Workload makeAdd(Context& ctx);
/// deflater: the parallel deflater's CPU time against one entry after another.
Workload makeDeflater(Context& ctx);

} // namespace bench
