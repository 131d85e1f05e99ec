// ziputil_bench: ziputil against its peers and against the limits of the work
// itself, in one run. See usage() below and the README's "Benchmarks" section.
#include "Harness.h"
#include "Workloads.h"
#if ZIPUTIL_BENCH_LIBZIP
#include "LibzipPeer.h"
#endif

#include <zlib.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

void usage(std::FILE* out) {
  std::fprintf(out,
               "usage: ziputil_bench [--quick] [--scale X] [--rounds N] [--target SECONDS]\n"
               "                     [--only LIST] [--skip LIST] [--keep] [--list]\n"
               "\n"
               "  --quick         scale 0.05 and 0.05 s calibrated rounds: under a minute\n"
               "  --scale X       sizes and counts times X (1: the full run, a few minutes)\n"
               "  --rounds N      interleaved rounds, at least 5 (default 5); figures are medians\n"
               "  --target S      seconds one calibrated round of one implementation takes (default 0.2)\n"
               "  --only LIST     workloads to run, comma-separated (--list names them)\n"
               "  --skip LIST     implementations to leave out: a name (minizip, zipfile, ...) or its\n"
               "                  first part (limit, ziputil)\n"
               "  --keep          keep the work folder (under $TMPDIR, else /tmp)\n"
               "\n"
               "Environment: ZIPUTIL_BENCH_QUICK=1, ZIPUTIL_BENCH_SCALE, ZIPUTIL_BENCH_ROUNDS,\n"
               "ZIPUTIL_BENCH_ONLY, ZIPUTIL_BENCH_SKIP stand for the options (which win);\n"
               "ZIPUTIL_BENCH_TOOL is the ziputil program to time (default: the build's own),\n"
               "ZIPUTIL_BENCH_PYTHON the Python interpreter (default: what python3 runs).\n");
}

std::vector<std::string> splitList(std::string const& text) {
  std::vector<std::string> items;
  std::string item;
  for (char c : text + ",") {
    if (c == ',') {
      if (!item.empty()) items.push_back(item);
      item.clear();
    } else if (c != ' ') {
      item += c;
    }
  }
  return items;
}

std::string env(char const* name) {
  char const* value = std::getenv(name);
  return value ? value : "";
}

double parseNumber(std::string const& text, char const* what) {
  char* end = nullptr;
  double const value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value > 0)) throw std::invalid_argument(std::string("bad ") + what + ": " + text);
  return value;
}

bool isExecutable(std::string const& path) { return !path.empty() && access(path.c_str(), X_OK) == 0; }

/// The first line a command prints, or empty.
std::string firstLine(std::string const& command) {
  std::FILE* p = popen((command + " 2>/dev/null").c_str(), "r");
  if (!p) return std::string();
  std::string line;
  int c;
  while ((c = std::fgetc(p)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
  while (c != EOF) c = std::fgetc(p);
  pclose(p);
  return line;
}

} // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  bool quick = env("ZIPUTIL_BENCH_QUICK") == "1";
  std::string scaleText = env("ZIPUTIL_BENCH_SCALE"), roundsText = env("ZIPUTIL_BENCH_ROUNDS"), targetText;
  std::string only = env("ZIPUTIL_BENCH_ONLY"), skip = env("ZIPUTIL_BENCH_SKIP");
  bool keep = false, list = false;
  auto const workloads = bench::allWorkloads();
  try {
    for (int i = 1; i < argc; ++i) {
      std::string const arg = argv[i];
      auto value = [&]() -> std::string {
        if (i + 1 >= argc) throw std::invalid_argument(arg + " needs a value");
        return argv[++i];
      };
      if (arg == "--quick")
        quick = true;
      else if (arg == "--scale")
        scaleText = value();
      else if (arg == "--rounds")
        roundsText = value();
      else if (arg == "--target")
        targetText = value();
      else if (arg == "--only")
        only = value();
      else if (arg == "--skip")
        skip = value();
      else if (arg == "--keep")
        keep = true;
      else if (arg == "--list")
        list = true;
      else if (arg == "--help" || arg == "-h") {
        usage(stdout);
        return 0;
      } else
        throw std::invalid_argument("unknown argument " + arg);
    }
  } catch (std::exception const& e) {
    std::fprintf(stderr, "ziputil_bench: %s\n", e.what());
    usage(stderr);
    return 2;
  }
  if (list) {
    for (auto const& w : workloads) std::printf("%-8s %s\n", w.key, w.summary);
    return 0;
  }

  bench::Context ctx;
  bench::Settings settings;
  std::vector<std::string> selected = splitList(only);
  try {
    ctx.scale = scaleText.empty() ? (quick ? 0.05 : 1.0) : parseNumber(scaleText, "scale");
    settings.target = targetText.empty() ? (quick ? 0.05 : 0.2) : parseNumber(targetText, "target");
    if (!roundsText.empty()) settings.rounds = static_cast<int>(parseNumber(roundsText, "rounds"));
    if (settings.rounds < 5) throw std::invalid_argument("at least 5 rounds are needed for a median");
    for (auto const& key : selected) {
      bool known = false;
      for (auto const& w : workloads) known = known || key == w.key;
      if (!known) throw std::invalid_argument("unknown workload " + key + " (--list names them)");
    }
  } catch (std::exception const& e) {
    std::fprintf(stderr, "ziputil_bench: %s\n", e.what());
    return 2;
  }
  ctx.skip = splitList(skip);

  std::string base = env("TMPDIR");
  if (base.empty()) base = "/tmp";
  std::string pattern = base + "/ziputil-bench-XXXXXX";
  if (!mkdtemp(pattern.data())) {
    std::fprintf(stderr, "ziputil_bench: cannot make a work folder under %s: %s\n", base.c_str(), std::strerror(errno));
    return 1;
  }
  ctx.dir = pattern;

  ctx.tool = env("ZIPUTIL_BENCH_TOOL");
#ifdef ZIPUTIL_BENCH_DEFAULT_TOOL
  if (ctx.tool.empty()) ctx.tool = ZIPUTIL_BENCH_DEFAULT_TOOL;
#endif
  if (!isExecutable(ctx.tool)) ctx.tool.clear();

  std::string pythonNote;
  if (ctx.wants("zipfile")) {
    std::string const python = bench::resolvePython();
    std::string script = env("ZIPUTIL_BENCH_PEER_SCRIPT");
    if (script.empty()) script = ZIPUTIL_BENCH_PEER_SCRIPT;
    if (python.empty()) {
      pythonNote = "none (no python3)";
    } else {
      try {
        ctx.python = std::make_unique<bench::PythonPeer>(python, script);
        pythonNote = ctx.python->version() + " zipfile (" + python + ")";
      } catch (std::exception const& e) {
        pythonNote = std::string("none (") + e.what() + ")";
      }
    }
  }

  std::time_t const now = std::time(nullptr);
  char when[64];
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
  std::printf("ziputil_bench %s: scale %g, %d interleaved rounds (medians), calibrated rounds of %g s, %ld cores\n",
              when, ctx.scale, settings.rounds, settings.target, sysconf(_SC_NPROCESSORS_ONLN));
  std::printf("  work folder %s\n", ctx.dir.c_str());
  std::printf("  zlib %s; stock minizip 1.3.1 from the same zlib source, fopen I/O\n", zlibVersion());
#if ZIPUTIL_BENCH_LIBZIP
  std::printf("  libzip %s\n", bench::libzip::version().c_str());
#else
  std::printf("  libzip: not built in (no pkg-config libzip when configuring)\n");
#endif
  if (ctx.wants("zipfile")) std::printf("  Python: %s\n", pythonNote.c_str());
  std::printf("  ziputil program: %s\n", ctx.tool.empty() ? "none" : ctx.tool.c_str());
  std::string const zipVersion = firstLine("zip -v | sed -n 2p");
  std::printf("  zip: %s\n", zipVersion.empty() ? "none" : zipVersion.c_str());
  std::printf("  Figures are per operation; MB/s are 10^6 bytes of entry data a second.\n");
  std::fflush(stdout);

  int status = 0;
  double const started = bench::wallNow();
  for (auto const& info : workloads) {
    bool chosen = selected.empty();
    for (auto const& key : selected) chosen = chosen || key == info.key;
    if (!chosen) continue;
    try {
      bench::Workload workload = info.make(ctx);
      if (!bench::runWorkload(workload, settings, stdout)) status = 1;
      if (workload.cleanup) workload.cleanup();
    } catch (std::exception const& e) {
      std::printf("\n== %s failed: %s\n", info.key, e.what());
      status = 1;
    }
  }
  std::printf("\ntotal %s\n", bench::formatSeconds(bench::wallNow() - started).c_str());

  ctx.python.reset();
  if (!keep) {
    std::error_code ignored;
    std::filesystem::remove_all(ctx.dir, ignored);
  }
  return status;
}
