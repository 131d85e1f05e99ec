// ziputil: lists, reads, extracts, adds to and tests ZIP archives on local disks.
#include "Commands.h"
#include "Password.h"

#if __has_include("ziputil/Version.h")
#include "ziputil/Version.h"
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

namespace {

using ziputil_tool::Options;
using ziputil_tool::Overwrite;

struct Command {
  char const* name;
  char const* usage;
  char const* help;
};

Command const kCommands[] = {
    {"list", "list [-q|-v] [--password-file FILE|--password P] [--long|--json] ARCHIVE",
     "Prints one line per entry in central-directory order: the entry's path, with \"/\" after a folder\n"
     "entry. --long (-l, or -v) puts the uncompressed size, compressed size, how much smaller it is,\n"
     "the modification time and the Unix mode (when the entry has one) before it, under a header and\n"
     "over a totals line (the entry count, both sizes and the ratio), which -q leaves out.\n"
     "--json prints one JSON object per line for each entry, for scripts, with every field the\n"
     "library reports: name (cleaned, \"/\" after a folder), rawName, nameUTF8, directory, size,\n"
     "compressedSize, method, methodName, realMethod, realMethodName (inside a WinZip AES entry,\n"
     "its data's), crc32 (8 hex digits), time (local, ISO 8601, or null), versionMadeBy, system\n"
     "(3 for Unix), externalAttributes, mode (st_mode, or null), modeText, link, target (a link's\n"
     "target, when it can be read), encrypted, encryption (none, ZipCrypto, AES-128, AES-192,\n"
     "AES-256), comment, extra (the central extra field in hex). Only a link's target is read from\n"
     "the archive's data: test checks it.\n"},
    {"cat", "cat [-q|-v] [--password-file FILE|--password P] ARCHIVE ENTRY",
     "Writes the bytes of the first entry named ENTRY to standard output. ENTRY is matched against\n"
     "the paths as list prints them (without escapes); '#', '?', '%' and blanks are ordinary\n"
     "characters. The archive is refused as test refuses it, and a bad entry is named after the\n"
     "bytes that could be read, with exit status 1.\n"},
    {"extract",
     "extract [-q|-v] [--password-file FILE|--password P] [-n|-o] ARCHIVE [ENTRY|PATTERN...] [-d DIR] "
     "[-x PATTERN...]",
     "Extracts the entries named (all when none is) under DIR (default \".\"). ENTRY and PATTERN are\n"
     "shell patterns (*, ?, [...]; \"*\" also matches \"/\") on the paths as list prints them; a folder\n"
     "entry also matches with its \"/\". -x leaves out the entries that match any PATTERN after it\n"
     "(up to the next option). A pattern that matches no entry is named, and the exit status is 1.\n"
     "A file that already exists is kept and named, and the exit status is then 1; -n keeps it\n"
     "without a word, -o replaces it.\n"
     "Each file is\n"
     "written to a temporary file beside its target and renamed over it only once the entry has been\n"
     "read whole and checked as test checks it: a bad entry (wrong password, unsupported method,\n"
     "damaged data) leaves an existing file as it was, and nothing of the entry behind. Renaming\n"
     "replaces the name, never the file: another hard link to a replaced file keeps its bytes.\n"
     "Refused and named: an entry whose path would land outside DIR (through \"..\" or a symbolic\n"
     "link, also one put in place of a folder while extraction runs), whose target is not a regular\n"
     "file (a folder, symbolic link, FIFO, device or socket, which is never opened), or whose target\n"
     "an earlier entry of the same run has written. The other entries are still extracted, and the\n"
     "exit status is then 1. An archive that test refuses as a whole is refused before anything is\n"
     "written.\n"
     "Entries made on Unix get their permission bits back, never the set-user-id, set-group-id and\n"
     "sticky bits; other files get mode 0666 less the umask. Files, folders and symbolic links get\n"
     "their modification times (folders once everything below them is written). A symbolic link\n"
     "entry becomes a symbolic link when its target stays inside DIR: a target that is empty,\n"
     "absolute, climbs above DIR or has \"..\" after a name is refused by name.\n"},
    {"add",
     "add [-q|-v] [--password-file FILE|--password P] [--encryption E] [--method M] [--level N] [-u] [-j N] "
     "[-@ FILE] ARCHIVE PATH...",
     "Adds files, and folders recursively, creating ARCHIVE when it does not exist. Entry names are\n"
     "the paths as given without leading \"./\" and \"/\"; entry times are the files' modification\n"
     "times in local time. Entries are recorded as made by Unix with their modes; folders become\n"
     "entries ending in \"/\"; symbolic links are stored as links (their targets), never followed.\n"
     "M (--method) is deflate (the default), store, or zstd: smaller and faster than deflate, read\n"
     "by 7-Zip, WinZip and libzip but not by Info-ZIP unzip 6.0 or Python's zipfile before 3.14.\n"
     "N is the deflate level, 1 to 9 (default 6; level 0 stores the bytes as they are), or zstd's,\n"
     "1 to 22 (default 3).\n"
     "With a password, entries are encrypted with AES-256 (WinZip's AES, which 7-Zip, WinZip and\n"
     "bsdtar read). E (--encryption) chooses aes256, aes192, aes128, or zipcrypto: the traditional\n"
     "ZIP encryption, weak, but the only one Info-ZIP unzip 6.0 and Python's zipfile read.\n"
     "-@ FILE (--files-from FILE) adds the paths that FILE lists, one a line (empty lines are passed\n"
     "over; FILE \"-\" is standard input), after the PATHs given; with it, PATH may be left out.\n"
     "The new archive is written beside ARCHIVE and moved over it once complete, so ARCHIVE is\n"
     "always either the old archive or the new one, even if the program is killed or the disk\n"
     "fills up. A file that cannot be read is named and skipped, and the exit status is then 1;\n"
     "any other failure leaves ARCHIVE as it was.\n"
     "An entry of ARCHIVE with the same name as a file added (names compared as lookups compare\n"
     "them) is replaced by the new entry, which goes after the others; the other entries are copied\n"
     "as they are stored. A name given twice is added once. -u (--update) adds only the files that\n"
     "are newer than their entries (modification times compared at the 2-second resolution that\n"
     "entries keep) and the files that have none; -v names each file left unchanged.\n"
     "-j N (--jobs N) compresses N files at once (default: one per processor; 1 compresses one\n"
     "after another); the archive is the same byte for byte whatever N is.\n"},
    {"delete", "delete [-q|-v] ARCHIVE NAME|PATTERN...",
     "Removes the entries named. NAME and PATTERN select entries as extract selects them (shell\n"
     "patterns on the paths as list prints them; a folder entry also matches with its \"/\"; a\n"
     "folder's contents are only removed when matched themselves, such as with \"dir/*\"). A NAME or\n"
     "PATTERN that matches no entry is named, and the exit status is then 1; when nothing matches\n"
     "at all, ARCHIVE is left as it was. The new archive, with every other entry copied as it is\n"
     "stored (never decompressed, encrypted entries without their password), is written beside\n"
     "ARCHIVE and moved over it once complete. ARCHIVE cannot be \"-\". -v names each entry\n"
     "deleted; -q leaves out the count.\n"},
    {"test", "test [-q|-v] [--password-file FILE|--password P] ARCHIVE",
     "Checks the archive's layout first: an entry whose record shares or overlaps another's data\n"
     "(how a small archive inflates to gigabytes), or whose local header disagrees with its central\n"
     "header (other tools would show other names or contents), is bad and not read; damage of the\n"
     "archive as a whole refuses it with one error line. Then reads every other entry and checks its\n"
     "size, the end of its data and its CRC-32; names each bad entry and why (its layout, wrong or\n"
     "missing password, unsupported compression method, damaged data).\n"},
};

void printUsage(FILE* out) {
  std::fprintf(out, "usage: ziputil COMMAND [OPTIONS] ARGUMENTS\n\ncommands:\n");
  for (Command const& command : kCommands) std::fprintf(out, "  ziputil %s\n", command.usage);
  std::fprintf(out,
               "\noptions:\n"
               "  -h, --help                this help; after a command, that command's\n"
               "  --version                 the version of the ziputil library\n"
               "  -q, --quiet               only errors (and the data asked for)\n"
               "  -v, --verbose             a line for each entry (list: the long form)\n"
               "  --password-file FILE      the password is FILE's first line (\"-\": standard input)\n"
               "  -P, --password P          the password is P, visible to other users in the process list\n"
               "  -l, --long                list: sizes, ratio, time and mode, a header and totals\n"
               "  --json                    list: one JSON object per entry\n"
               "  -d, --folder DIR          extract: under DIR (default \".\")\n"
               "  -x, --exclude PATTERN...  extract: leave out the entries that match a PATTERN\n"
               "  -n, --never-overwrite     extract: keep existing files without a word\n"
               "  -o, --overwrite           extract: replace existing files\n"
               "  --level N                 add: deflate level 1 to 9 (default 6), 0 stores; zstd 1 to 22\n"
               "  --method M                add: deflate (default), store or zstd\n"
               "  --encryption E            add: with a password, aes256 (default), aes192, aes128 or zipcrypto\n"
               "  -@, --files-from FILE     add: also the paths FILE lists, one a line (\"-\": standard input)\n"
               "  -u, --update              add: only files newer than their entries, and new files\n"
               "  -j, --jobs N              add: compress N files at once (default: one per processor)\n"
               "  --                        the end of the options\n"
               "\nARCHIVE is a local path or a file: URI. \"ziputil COMMAND --help\" describes a command.\n"
               "ARCHIVE \"-\" is standard input for list, cat, test and extract (copied first into an anonymous\n"
               "temporary file when it is not a regular file), and standard output for add, which then writes\n"
               "a new archive; neither may be a terminal. No command creates a file named \"-\".\n"
               "Entry names are read as UTF-8, or as code page 437 when they are not valid UTF-8 and lack the\n"
               "UTF-8 flag, then cleaned into relative paths (\"\\\" becomes \"/\"; leading and trailing \"/\",\n"
               "colons and surrounding blanks go). Control characters in names are shown escaped: ^J for\n"
               "a newline, ^@ to ^_ for the others below 32, ^? for 127, \\u0080 to \\u009f for C1 controls.\n"
               "Passwords: --password-file FILE reads the first line of FILE (\"-\": standard input); else\n"
               "the environment variable ZIPUTIL_PASSWORD, when set, is the password (add too encrypts\n"
               "with it); else cat, test and extract ask for it on the terminal, without echo, when they\n"
               "meet an encrypted entry and standard input is a terminal. --password P also works, but P\n"
               "is then visible to other users of the machine in the process list (ps).\n"
               "-q prints only errors (and the data asked for); -v prints a line for each entry (list: the\n"
               "long form); they exclude each other. Short flags may be written together (-qo).\n"
               "\"ziputil --version\" prints the version of the ziputil library.\n"
               "\n"
               "Exit status:\n"
               "  0  success: everything asked for was done.\n"
               "  1  failure: the archive could not be read or written, or some entries or inputs failed\n"
               "     (each is named on standard error; the others were still done); also a pattern that\n"
               "     matches no entry, an existing file that extract kept, or an entry that cat did not find.\n"
               "  2  usage error: an unknown command or option, a missing or extra argument.\n"
               "A program killed by a signal has no exit status of its own (shells report 128 plus the\n"
               "signal's number).\n");
}

/// The library's version.
char const* libraryVersion() {
#if __has_include("ziputil/Version.h")
  return ZIPUTIL_VERSION_STRING;
#else
  return ZIPUTIL_PROJECT_VERSION; // the build's project version, when the library does not name one
#endif
}

Command const* findCommand(std::string const& name) {
  for (Command const& command : kCommands)
    if (name == command.name) return &command;
  return nullptr;
}

struct UsageError {
  std::string text;
};

int parseLevel(std::string const& text) {
  bool const digits = !text.empty() && text.size() <= 2 && text.find_first_not_of("0123456789") == std::string::npos;
  int const level = digits ? std::stoi(text) : -1;
  if (level < 0 || level > 22) throw UsageError{"--level takes a number from 0 to 9 (zstd: 1 to 22)"};
  return level;
}

ziputil::Encryption parseEncryption(std::string const& text) {
  if (text == "aes256") return ziputil::Encryption::Aes256;
  if (text == "aes192") return ziputil::Encryption::Aes192;
  if (text == "aes128") return ziputil::Encryption::Aes128;
  if (text == "zipcrypto") return ziputil::Encryption::Traditional;
  throw UsageError{"--encryption takes aes256, aes192, aes128 or zipcrypto"};
}

unsigned parseJobs(std::string const& text) {
  unsigned long jobs = 0;
  bool const digits = !text.empty() && text.size() <= 4 && text.find_first_not_of("0123456789") == std::string::npos;
  if (digits) jobs = std::stoul(text);
  if (jobs < 1 || jobs > 1024) throw UsageError{"--jobs takes a number from 1 to 1024"};
  return static_cast<unsigned>(jobs);
}

bool isOperand(std::string const& arg) { return arg.empty() || arg[0] != '-' || arg == "-"; }

/// Short flags written together ("-qo") as separate arguments.
std::vector<std::string> expandFlags(int argc, char** argv) {
  std::vector<std::string> args;
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    bool const bundle = arg.size() > 2 && arg[0] == '-' && arg[1] != '-' &&
                        arg.find_first_not_of("qvnolu", 1) == std::string::npos;
    if (!bundle) {
      args.push_back(arg);
      continue;
    }
    for (std::size_t at = 1; at < arg.size(); ++at) args.push_back(std::string("-") + arg[at]);
  }
  return args;
}

/// Splits the arguments after the command into options and operands.
std::vector<std::string> parseArguments(Command const& command, int argc, char** argv, Options& options, bool& help) {
  std::vector<std::string> const args = expandFlags(argc, argv);
  std::vector<std::string> operands;
  bool optionsEnded = false;
  bool const extract = std::strcmp(command.name, "extract") == 0;
  bool overwriteChosen = false;
  bool passwordGiven = false;
  std::string passwordFile;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string const& arg = args[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= args.size()) throw UsageError{arg + " needs a value"};
      return args[++i];
    };
    if (optionsEnded || isOperand(arg)) {
      operands.push_back(arg);
    } else if (arg == "--") {
      optionsEnded = true;
    } else if (arg == "--help" || arg == "-h") {
      help = true;
    } else if (arg == "-q" || arg == "--quiet") {
      if (options.verbose) throw UsageError{"-q and -v exclude each other"};
      options.quiet = true;
    } else if (arg == "-v" || arg == "--verbose") {
      if (options.quiet) throw UsageError{"-q and -v exclude each other"};
      options.verbose = true;
    } else if ((arg == "-@" || arg == "--files-from") && std::strcmp(command.name, "add") == 0) {
      options.filesFrom.push_back(value());
    } else if (arg == "--password" || arg == "-P") {
      options.password = value();
      passwordGiven = true;
    } else if (arg == "--password-file") {
      passwordFile = value();
    } else if ((arg == "--long" || arg == "-l") && std::strcmp(command.name, "list") == 0) {
      options.longListing = true;
    } else if (arg == "--json" && std::strcmp(command.name, "list") == 0) {
      options.json = true;
    } else if ((arg == "-u" || arg == "--update") && std::strcmp(command.name, "add") == 0) {
      options.update = true;
    } else if ((arg == "-j" || arg == "--jobs") && std::strcmp(command.name, "add") == 0) {
      options.jobs = parseJobs(value());
    } else if (arg == "--level" && std::strcmp(command.name, "add") == 0) {
      options.level = parseLevel(value());
      options.levelGiven = true;
    } else if (arg == "--method" && std::strcmp(command.name, "add") == 0) {
      options.method = value();
      if (options.method != "deflate" && options.method != "store" && options.method != "zstd")
        throw UsageError{"--method takes deflate, store or zstd"};
    } else if (arg == "--encryption" && std::strcmp(command.name, "add") == 0) {
      options.encryption = parseEncryption(value());
    } else if (extract && (arg == "-d" || arg == "--folder")) {
      options.folder = value();
      if (options.folder.empty()) throw UsageError{arg + " needs a folder"};
      if (options.folder == "-") throw UsageError{"\"-\" is not a folder: write ./- for a folder of that name"};
    } else if (extract && (arg == "-x" || arg == "--exclude")) {
      std::size_t const before = options.excludes.size();
      while (i + 1 < args.size() && isOperand(args[i + 1])) options.excludes.push_back(args[++i]);
      if (options.excludes.size() == before) throw UsageError{arg + " needs a pattern"};
    } else if (extract && (arg == "-n" || arg == "--never-overwrite" || arg == "-o" || arg == "--overwrite")) {
      Overwrite const chosen = arg == "-n" || arg == "--never-overwrite" ? Overwrite::Never : Overwrite::Always;
      if (overwriteChosen && chosen != options.overwrite) throw UsageError{"-n and -o exclude each other"};
      overwriteChosen = true;
      options.overwrite = chosen;
    } else {
      throw UsageError{"unknown option " + arg};
    }
  }
  if (passwordGiven && !passwordFile.empty()) throw UsageError{"--password and --password-file exclude each other"};
  if (options.levelGiven && options.method == "zstd" && options.level == 0)
    throw UsageError{"--level takes a number from 1 to 22 for zstd"};
  if (options.levelGiven && options.method != "zstd" && options.level > 9)
    throw UsageError{"--level takes a number from 0 to 9 (zstd: 1 to 22)"};
  // Standard input serves one purpose at most.
  int readers = passwordFile == "-";
  for (std::string const& list : options.filesFrom) readers += list == "-";
  if (std::strcmp(command.name, "add") != 0 && !operands.empty()) readers += operands[0] == "-";
  if (readers > 1) throw UsageError{"standard input (\"-\") can serve only one purpose"};
  if (!passwordFile.empty())
    options.password = ziputil_tool::readPasswordFile(passwordFile);
  else if (!passwordGiven)
    if (char const* fromEnvironment = std::getenv(ziputil_tool::kPasswordVariable)) options.password = fromEnvironment;
  return operands;
}

void requireOperands(std::vector<std::string> const& operands, std::size_t least, std::size_t most) {
  if (operands.size() < least || operands.size() > most) throw UsageError{"wrong number of arguments"};
}

int runCommand(Command const& command, Options const& options, std::vector<std::string> const& operands) {
  std::string name = command.name;
  if (name == "list") {
    requireOperands(operands, 1, 1);
    return ziputil_tool::listArchive(options, operands[0]);
  }
  if (name == "cat") {
    requireOperands(operands, 2, 2);
    return ziputil_tool::catEntry(options, operands[0], operands[1]);
  }
  if (name == "extract") {
    requireOperands(operands, 1, static_cast<std::size_t>(-1));
    Options selected = options;
    selected.patterns.assign(operands.begin() + 1, operands.end());
    return ziputil_tool::extractArchive(selected, operands[0]);
  }
  if (name == "add") {
    requireOperands(operands, options.filesFrom.empty() ? 2 : 1, static_cast<std::size_t>(-1));
    return ziputil_tool::addToArchive(options, operands[0], {operands.begin() + 1, operands.end()});
  }
  if (name == "delete") {
    requireOperands(operands, 2, static_cast<std::size_t>(-1));
    if (operands[0] == "-") throw UsageError{"delete cannot work on standard input or output (\"-\")"};
    Options selected = options;
    selected.patterns.assign(operands.begin() + 1, operands.end());
    return ziputil_tool::deleteFromArchive(selected, operands[0]);
  }
  requireOperands(operands, 1, 1);
  return ziputil_tool::testArchive(options, operands[0]);
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    printUsage(stderr);
    return 2;
  }
  std::string first = argv[1];
  if (first == "--help" || first == "-h" || first == "help") {
    printUsage(stdout);
    return 0;
  }
  if (first == "--version") {
    std::printf("ziputil %s\n", libraryVersion());
    return 0;
  }
  Command const* command = findCommand(first);
  if (!command) {
    std::fprintf(stderr, "ziputil: unknown command %s\n", first.c_str());
    printUsage(stderr);
    return 2;
  }
  try {
    Options options;
    bool help = false;
    std::vector<std::string> operands = parseArguments(*command, argc, argv, options, help);
    if (help) {
      std::printf("usage: ziputil %s\n\n%s", command->usage, command->help);
      return 0;
    }
    return runCommand(*command, options, operands);
  } catch (UsageError const& e) {
    std::fprintf(stderr, "ziputil %s: %s\nusage: ziputil %s\n", command->name, e.text.c_str(), command->usage);
    return 2;
  } catch (std::exception const& e) {
    ziputil_tool::reportError(e);
    return 1;
  }
}
