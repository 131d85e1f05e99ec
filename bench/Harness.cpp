#include "Harness.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

extern char** environ;

namespace bench {

double wallNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double cpuNow() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

Impl inProcess(std::string name, std::function<void(long n)> fn) {
  Impl impl;
  impl.name = std::move(name);
  impl.run = [fn = std::move(fn)](long n) {
    double const wall0 = wallNow(), cpu0 = cpuNow();
    fn(n);
    double const cpu1 = cpuNow(), wall1 = wallNow();
    return Times{wall1 - wall0, cpu1 - cpu0};
  };
  return impl;
}

std::string formatSeconds(double seconds) {
  static struct {
    double scale;
    char const* unit;
  } const units[] = {{1, "s"}, {1e-3, "ms"}, {1e-6, "us"}, {1e-9, "ns"}};
  for (auto const& u : units) {
    if (seconds >= u.scale || u.scale == 1e-9) {
      double const v = seconds / u.scale;
      char text[32];
      std::snprintf(text, sizeof text, v >= 100 ? "%.0f %s" : v >= 10 ? "%.1f %s" : "%.2f %s", v, u.unit);
      return text;
    }
  }
  return "?";
}

std::string formatBytes(double bytes) {
  char text[32];
  if (bytes >= 1e9)
    std::snprintf(text, sizeof text, "%.2f GB", bytes / 1e9);
  else if (bytes >= 1e6)
    std::snprintf(text, sizeof text, "%.1f MB", bytes / 1e6);
  else if (bytes >= 1e3)
    std::snprintf(text, sizeof text, "%.1f kB", bytes / 1e3);
  else
    std::snprintf(text, sizeof text, "%.0f B", bytes);
  return text;
}

namespace {

struct Result {
  Impl* impl = nullptr;
  long n = 1;
  std::vector<Times> samples;
  std::string error;
};

Times runOnce(Impl& impl, long n) {
  if (impl.prepare) impl.prepare();
  return impl.run(n);
}

/// The n for which one run takes about `target` seconds. A first run of one
/// operation warms the implementation up (an index built at the first lookup,
/// say) and is not counted; the runs made while calibrating warm it further.
long calibrate(Impl& impl, double target) {
  runOnce(impl, 1);
  long n = 1;
  Times t = runOnce(impl, n);
  while (t.wall < target / 20 && n < 1000000000L) {
    n *= 10;
    t = runOnce(impl, n);
  }
  double const perOp = t.wall / static_cast<double>(n);
  return std::max(1L, static_cast<long>(std::llround(target / std::max(perOp, 1e-12))));
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  std::size_t const m = values.size() / 2;
  return values.size() % 2 ? values[m] : (values[m - 1] + values[m]) / 2;
}

/// "1.23", "45.6", "789"; below 0.1 as a fraction, "1/45.6", so that large
/// differences read the same both ways.
std::string formatRatio(double ratio) {
  if (ratio > 0 && ratio < 0.1) return "1/" + formatRatio(1 / ratio);
  char text[32];
  std::snprintf(text, sizeof text, ratio >= 100 ? "%.0f" : ratio >= 10 ? "%.1f" : "%.2f", ratio);
  return text;
}

/// Prints rows of cells: the first column left-aligned, the others right-aligned.
void printTable(std::vector<std::vector<std::string>> const& rows, std::FILE* out) {
  std::vector<std::size_t> widths;
  for (auto const& row : rows)
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (widths.size() <= i) widths.push_back(0);
      widths[i] = std::max(widths[i], row[i].size());
    }
  for (auto const& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      std::string const pad(widths[i] - row[i].size(), ' ');
      if (i == 0)
        line += row[i] + pad;
      else
        line += "  " + pad + row[i];
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    std::fprintf(out, "  %s\n", line.c_str());
  }
}

} // namespace

bool runWorkload(Workload& workload, Settings const& settings, std::FILE* out) {
  std::fprintf(out, "\n== %s: %s\n", workload.key.c_str(), workload.title.c_str());
  for (auto const& note : workload.notes) std::fprintf(out, "   %s\n", note.c_str());
  std::fflush(out);

  std::vector<Result> results(workload.impls.size());
  for (std::size_t i = 0; i < results.size(); ++i) results[i].impl = &workload.impls[i];
  if (workload.calibrate) {
    for (auto& r : results) {
      try {
        r.n = calibrate(*r.impl, settings.target);
      } catch (std::exception const& e) {
        r.error = e.what();
      }
    }
  }
  std::size_t const count = results.size();
  for (int round = 0; round < settings.rounds; ++round) {
    for (std::size_t k = 0; k < count; ++k) {
      Result& r = results[(k + static_cast<std::size_t>(round)) % count];
      if (!r.error.empty()) continue;
      try {
        r.samples.push_back(runOnce(*r.impl, r.n));
      } catch (std::exception const& e) {
        r.error = e.what();
      }
    }
  }

  // Per-operation medians.
  struct Figure {
    std::string name;
    double wall, cpu, low, high;
  };
  std::vector<Figure> figures;
  for (auto& r : results) {
    if (!r.error.empty()) {
      std::fprintf(out, "   %s failed: %s\n", r.impl->name.c_str(), r.error.c_str());
      continue;
    }
    double const n = static_cast<double>(r.n);
    std::vector<double> walls, cpus;
    for (auto const& t : r.samples) {
      walls.push_back(t.wall / n);
      cpus.push_back(t.cpu / n);
    }
    figures.push_back({r.impl->name, median(walls), median(cpus), *std::min_element(walls.begin(), walls.end()),
                       *std::max_element(walls.begin(), walls.end())});
  }
  bool const allRan = figures.size() == results.size();
  if (figures.empty()) return allRan;

  std::vector<std::vector<std::string>> table;
  std::vector<std::string> head = {"", "wall/" + workload.opName, "cpu/" + workload.opName, "wall min..max"};
  bool const perItem = workload.itemsPerOp > 1;
  bool const rate = workload.bytesPerOp > 0;
  if (perItem) head.push_back("wall/" + workload.itemName);
  if (rate) head.push_back("MB/s");
  if (workload.calibrate) head.push_back(workload.opName + "s/round");
  head.push_back("");
  table.push_back(head);
  std::size_t fi = 0;
  for (auto& r : results) {
    if (!r.error.empty()) continue;
    Figure const& f = figures[fi++];
    std::vector<std::string> row = {f.name, formatSeconds(f.wall), formatSeconds(f.cpu),
                                    formatSeconds(f.low) + ".." + formatSeconds(f.high)};
    if (perItem) row.push_back(formatSeconds(f.wall / workload.itemsPerOp));
    if (rate) {
      char text[32];
      std::snprintf(text, sizeof text, "%.0f", workload.bytesPerOp / f.wall / 1e6);
      row.push_back(text);
    }
    if (workload.calibrate) row.push_back(std::to_string(r.n));
    row.push_back(r.impl->detail ? r.impl->detail() : std::string());
    table.push_back(row);
  }
  printTable(table, out);

  if (figures.size() > 1) {
    for (int which = 0; which < 2; ++which) {
      std::fprintf(out, "   %s time ratio, row / column (below 1: the row is faster):\n", which == 0 ? "wall" : "cpu");
      std::vector<std::vector<std::string>> matrix;
      std::vector<std::string> names = {""};
      for (auto const& f : figures) names.push_back(f.name);
      matrix.push_back(names);
      for (auto const& a : figures) {
        std::vector<std::string> row = {a.name};
        for (auto const& b : figures) {
          double const x = which == 0 ? a.wall : a.cpu, y = which == 0 ? b.wall : b.cpu;
          row.push_back(&a == &b ? "-" : y > 0 ? formatRatio(x / y) : "inf");
        }
        matrix.push_back(row);
      }
      printTable(matrix, out);
    }
  }
  std::fflush(out);
  return allRan;
}

namespace {

[[noreturn]] void failErrno(std::string const& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

std::vector<char*> argvPointers(std::vector<std::string> const& argv) {
  std::vector<char*> pointers;
  for (auto const& a : argv) pointers.push_back(const_cast<char*>(a.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

} // namespace

ProgramRun runProgram(std::vector<std::string> const& argv, std::string const& cwd, std::string const& stderrPath) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
  std::vector<char*> args = argvPointers(argv);
  double const wall0 = wallNow();
  pid_t pid = -1;
  int const spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error("cannot run " + argv[0] + ": " + std::strerror(spawned));
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0)
    if (errno != EINTR) failErrno("wait4");
  double const wall1 = wallNow();
  ProgramRun run;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  run.times.wall = wall1 - wall0;
  run.times.cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                  static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
  return run;
}

PythonPeer::PythonPeer(std::string const& python, std::string const& script) {
  int toChild[2], fromChild[2];
  if (pipe2(toChild, O_CLOEXEC) != 0) failErrno("pipe");
  if (pipe2(fromChild, O_CLOEXEC) != 0) {
    close(toChild[0]);
    close(toChild[1]);
    failErrno("pipe");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
  std::vector<std::string> const argv = {python, script};
  std::vector<char*> args = argvPointers(argv);
  pid_t pid = -1;
  int const spawned = posix_spawn(&pid, python.c_str(), &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(toChild[0]);
  close(fromChild[1]);
  if (spawned != 0) {
    close(toChild[1]);
    close(fromChild[0]);
    throw std::runtime_error("cannot run " + python + ": " + std::strerror(spawned));
  }
  m_pid = pid;
  m_to = fdopen(toChild[1], "w");
  m_from = fdopen(fromChild[0], "r");
  std::string const ready = readLine();
  if (ready.rfind("ready ", 0) != 0) throw std::runtime_error("python peer did not start: " + ready);
  m_version = ready.substr(6);
}

PythonPeer::~PythonPeer() {
  if (m_to) std::fclose(m_to);
  if (m_from) std::fclose(m_from);
  if (m_pid > 0) {
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
}

std::string PythonPeer::readLine() {
  std::string line;
  int c;
  while ((c = std::fgetc(m_from)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
  if (c == EOF && line.empty()) throw std::runtime_error("python peer ended");
  return line;
}

Times PythonPeer::call(std::string const& json) {
  if (std::fputs(json.c_str(), m_to) < 0 || std::fputc('\n', m_to) < 0 || std::fflush(m_to) != 0)
    throw std::runtime_error("python peer ended");
  std::string const line = readLine();
  Times t;
  if (std::sscanf(line.c_str(), "ok %lf %lf", &t.wall, &t.cpu) != 2) throw std::runtime_error("python: " + line);
  return t;
}

std::string resolvePython() {
  if (char const* set = std::getenv("ZIPUTIL_BENCH_PYTHON"); set && *set) return set;
  std::FILE* p = popen("python3 -c 'import sys;print(sys.executable)' 2>/dev/null", "r");
  if (!p) return std::string();
  std::string path;
  int c;
  while ((c = std::fgetc(p)) != EOF && c != '\n') path.push_back(static_cast<char>(c));
  int const status = pclose(p);
  return status == 0 ? path : std::string();
}

std::string jsonString(std::string const& text) {
  std::string json = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      json += '\\';
      json += static_cast<char>(c);
    } else if (c < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      json += escape;
    } else {
      json += static_cast<char>(c);
    }
  }
  return json + "\"";
}

} // namespace bench
