// The add workload: the ziputil program's `add` of a folder of files into a
// new archive, with one worker per processor and with one, against
// `zip -r`, each a child process.
#include "WorkloadSupport.h"

#include <sys/stat.h>

#include <stdexcept>

namespace bench {

Workload makeAdd(Context& ctx) {
  Workload w;
  w.key = "add";
  std::size_t const files = ctx.addFiles();
  std::string const tree = ctx.dir + "/tree";
  std::size_t totalBytes = 0;
  mkdir(tree.c_str(), 0755);
  std::uint32_t state = 777;
  for (std::size_t i = 0; i < files; ++i) {
    std::string const folder = tree + "/s" + std::to_string(i / 100);
    if (i % 100 == 0) mkdir(folder.c_str(), 0755);
    state = state * 1664525u + 1013904223u;
    std::size_t const length = 256 + (state >> 8) % 7937;
    writeFile(folder + "/file" + std::to_string(i) + ".txt", makeText(length, static_cast<std::uint32_t>(i)));
    totalBytes += length;
  }
  w.title = "add a folder of " + withCommas(files) + " files in " + withCommas((files + 99) / 100) + " folders (" +
            formatBytes(static_cast<double>(totalBytes)) + ") at level 6 to a new archive, program against program";
  w.notes.push_back("ziputil-add: `ziputil add --level 6 A.zip tree` (" + (ctx.tool.empty() ? "no program" : ctx.tool) +
                    "), one file per processor at once; ziputil-add-j1: the same with `-j 1`, one file after "
                    "another; zip-r: `zip -r -q -6 A.zip tree`; cpu is the child's user + system time");
  w.notes.push_back("ziputil add writes the new archive beside the old one, syncs it and moves it over; zip -r does "
                    "not sync");
  w.itemsPerOp = static_cast<double>(files);
  w.itemName = "file";
  w.bytesPerOp = static_cast<double>(totalBytes);

  auto program = [dir = ctx.dir](std::string label, std::vector<std::string> argv, std::string out) {
    Impl impl;
    impl.name = label;
    std::string const err = dir + "/" + label + ".err";
    impl.run = [dir, argv, err](long) {
      ProgramRun const run = runProgram(argv, dir, err);
      if (run.status != 0) {
        std::string message;
        try {
          message = readFile(err);
        } catch (std::exception const&) {
        }
        throw std::runtime_error(argv[0] + " exited with " + std::to_string(run.status) + ": " + message);
      }
      return run.times;
    };
    return writesFile(impl, dir + "/" + out);
  };
  if (!ctx.tool.empty() && ctx.wants("ziputil-add"))
    w.impls.push_back(program("ziputil-add", {ctx.tool, "add", "--level", "6", "a-ziputil.zip", "tree"}, "a-ziputil.zip"));
  if (!ctx.tool.empty() && ctx.wants("ziputil-add-j1"))
    w.impls.push_back(program("ziputil-add-j1", {ctx.tool, "add", "--level", "6", "-j", "1", "a-ziputil-j1.zip", "tree"},
                              "a-ziputil-j1.zip"));
  if (ctx.wants("zip-r")) w.impls.push_back(program("zip-r", {"zip", "-r", "-q", "-6", "a-zip.zip", "tree"}, "a-zip.zip"));
  return w;
}

} // namespace bench
