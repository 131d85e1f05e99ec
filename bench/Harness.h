// The benchmark harness: implementations of one workload run in interleaved
// rounds, each timed in wall and CPU time; the report gives medians and the
// ratio of every implementation to every other.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench {

/// Seconds.
struct Times {
  double wall = 0;
  double cpu = 0;
};

/// Wall clock (steady) and this process's CPU time, in seconds.
double wallNow();
double cpuNow();

/// One implementation of a workload.
struct Impl {
  std::string name;
  /// Runs the workload `n` times (n is 1 unless the workload calibrates) and
  /// returns the time taken; throws on failure.
  std::function<Times(long n)> run;
  /// Called, untimed, before every run (removing an earlier run's output, say).
  std::function<void()> prepare;
  /// Said after the rounds beside the implementation (the size it wrote, say).
  std::function<std::string()> detail;
};

/// An implementation running in this process: `fn(n)` is timed around the call.
Impl inProcess(std::string name, std::function<void(long n)> fn);

struct Workload {
  std::string key;
  std::string title;
  /// Lines printed under the title.
  std::vector<std::string> notes;
  /// True: each implementation runs n operations per round, n chosen once so
  /// that a round takes about Settings::target; figures are per operation.
  bool calibrate = false;
  /// What one operation is ("lookup", "walk", "run").
  std::string opName = "run";
  /// Per operation: items (entries, files) for a per-item figure when above 1,
  /// and bytes for a MB/s figure when above 0.
  double itemsPerOp = 1;
  std::string itemName = "entry";
  double bytesPerOp = 0;
  std::vector<Impl> impls;
  /// Called once the report is printed (removing the workload's files, say).
  std::function<void()> cleanup;
};

struct Settings {
  int rounds = 5;
  /// Seconds one round of one implementation should take when calibrating.
  double target = 0.2;
};

/// Runs the workload's implementations in `settings.rounds` rounds (each round
/// runs every implementation once, starting one further along each time) and
/// prints the report to `out`. False when an implementation failed.
bool runWorkload(Workload& workload, Settings const& settings, std::FILE* out);

/// "1.23 ms", "456 ns", "2.50 s".
std::string formatSeconds(double seconds);
/// "123 MB", "1.50 GB" (decimal units).
std::string formatBytes(double bytes);

/// A program run to its end: its exit status (or -signal) and the wall and CPU
/// time it took (CPU from wait4's usage of the child).
struct ProgramRun {
  int status = 0;
  Times times;
};
/// Runs `argv` (argv[0] searched on PATH) in folder `cwd`, standard input from
/// /dev/null, standard output to /dev/null, standard error to `stderrPath`.
ProgramRun runProgram(std::vector<std::string> const& argv, std::string const& cwd, std::string const& stderrPath);

/// Python's zipfile, in a python3 child that stays up for the whole run: each
/// call sends one command line and reads back the times the child measured
/// around its own work (time.perf_counter and time.process_time).
class PythonPeer {
public:
  /// Starts `python` on `script`; throws when it cannot.
  PythonPeer(std::string const& python, std::string const& script);
  ~PythonPeer();
  PythonPeer(PythonPeer const&) = delete;
  PythonPeer& operator=(PythonPeer const&) = delete;

  /// Sends a JSON command; returns the child's times or throws its error.
  Times call(std::string const& json);
  std::string const& version() const { return m_version; }

private:
  std::string readLine();

  int m_pid = -1;
  std::FILE* m_to = nullptr;
  std::FILE* m_from = nullptr;
  std::string m_version;
};

/// The interpreter that `python3` on PATH really runs (a version manager's
/// shim would cost a second per start): ZIPUTIL_BENCH_PYTHON when set, else
/// sys.executable as python3 reports it; empty when there is none.
std::string resolvePython();

/// A JSON string literal.
std::string jsonString(std::string const& text);

} // namespace bench
