// What several of the program's commands share. Each command is in a file of
// its own beside this one, named after it (ListCommand.cpp, CatCommand.cpp,
// ExtractCommand.cpp, TestCommand.cpp, AddCommand.cpp, DeleteCommand.cpp).
#pragma once

#include "Commands.h"
#include "EntryNames.h"
#include "EntryReader.h"

#include "tal/Stream.h"
#include "tal/String.h"
#include "ziputil/CZipWriter.h"

#include <ctime>
#include <exception>
#include <functional>
#include <string>
#include <vector>

namespace ziputil_tool {

/// The UTF-8 bytes of `text`.
std::string utf8(tal::String const& text);

/// The file system of the local disks, through which archives are read and written.
tal::P<tal::IFileSystem> localFileSystem();

/// What CEntryReader calls to ask for the password of `archive` when an
/// encrypted entry is met: the terminal prompt (promptPassword), or null when
/// a password was given or the archive comes from standard input (which is
/// then no terminal to ask on).
std::function<std::string()> passwordPrompt(Options const& options, std::string const& archive);

/// Reports a bad entry on standard error: one line naming it (`shownName`,
/// already escaped) and what is wrong with it (entries.describeFailure).
void reportBadEntry(CEntryReader const& entries, std::string const& shownName, std::exception const& error);

/// The time_t of the local time `fields`; false when they are empty or name
/// no time mktime can give.
bool timeFromFields(tal::CTimeFields const& fields, time_t& time);

/// Whether `entry` is selected by options.patterns (every entry when there is
/// none) and matches none of options.excludes: shell patterns (fnmatch without
/// flags, so "*" also matches "/") on the cleaned path, which a folder entry
/// also offers with its "/". Sets matched[i] for each pattern i that matches a
/// selected entry; `matched` has one element per pattern.
bool selected(Options const& options, EntryName const& entry, std::vector<bool>& matched);

/// Names on standard error, one line each, the options.patterns that matched
/// no entry (those whose element of `matched` is false, see selected); false
/// when there was one.
bool reportUnmatched(Options const& options, std::vector<bool> const& matched);

/// The writer's options for an archive the program writes: entries recorded
/// as made by Unix (modes and links kept, UTF-8 names read as such by other
/// tools), encryption whose password other tools accept, the archive's comment
/// kept; with `atomic`, the new archive is written beside the old one and
/// moved over it once complete.
ziputil::CZipWriter::Options writerOptionsFor(bool atomic, Options const& options);

} // namespace ziputil_tool
