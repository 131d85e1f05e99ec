// The list of workloads, in the order a full run takes them; each is made in
// its own file under workloads/.
#include "Workloads.h"

namespace bench {

std::vector<WorkloadInfo> allWorkloads() {
  return {
      {"find", "tryGoToFile of a name near the end of a 100,000-entry archive (per lookup)",
       [](Context& c) { return makeFind(c, true); }},
      {"missing", "the same with a name that is not there", [](Context& c) { return makeFind(c, false); }},
      {"open", "open the 100,000-entry archive plus the first lookup", makeOpen},
      {"walk", "open, list every name and size of 100,000 entries, close", makeWalk},
      {"read", "read one 256 MiB deflated entry (MB/s)", makeRead},
      {"write1", "write one 128 MiB entry at level 1 (MB/s)", [](Context& c) { return makeWrite(c, 1); }},
      {"write6", "write one 128 MiB entry at level 6 (MB/s)", [](Context& c) { return makeWrite(c, 6); }},
      {"small", "write 10,000 small entries at level 6", makeSmall},
      {"readmany", "read every entry of a 10,000-entry archive of small entries", makeReadMany},
      {"add", "`ziputil add` of a folder of 10,000 files, at once and one after another, against `zip -r`", makeAdd},
      {"deflater", "CParallelDeflater against one entry after another: 200 text files, CPU of the process and of "
                   "the calling thread", makeDeflater},
  };
}

} // namespace bench
