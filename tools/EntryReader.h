// Reading entry data for test, cat and extract: the archive's layout is
// checked before anything is read, and every entry is checked when its read
// reaches the end.
#pragma once

#include "ziputil/CZipReader.h"

#include <cstddef>
#include <exception>
#include <functional>
#include <map>
#include <string>

namespace ziputil_tool {

class CEntryReader {
public:
  /// Checks the layout of the archive at `archiveURI` (ziputil::checkArchiveEntries:
  /// entries sharing or overlapping data, or local and central headers that
  /// disagree, would show other tools other entries or other contents) and
  /// opens it with every entry checked at its end. Throws the check's error
  /// for damage of the archive as a whole, or the reader's; the entries the
  /// check refuses are refused one by one (see copyCurrent).
  CEntryReader(tal::CURI const& archiveURI, std::string const& password);
  /// As above; when `password` is empty and an entry to be read turns out
  /// encrypted, `askPassword` is called (once per run) and, when it gives a
  /// password, the archive is opened again with it at the same entry.
  CEntryReader(tal::CURI const& archiveURI, std::string const& password,
               std::function<std::string()> askPassword);
  CEntryReader(CEntryReader const&) = delete;
  CEntryReader& operator=(CEntryReader const&) = delete;

  /// The checking reader; move with nextFile() below, not with the reader's own.
  ziputil::CZipReader const& reader() const { return *m_checked; }
  /// Moves to the next entry; false at the end.
  bool nextFile();
  /// What the layout check found wrong with the current entry, or null when
  /// nothing: such an entry is not read.
  std::string const* currentProblem() const;
  /// Streams the current entry through `sink` in chunks. Throws tal::CError
  /// when the entry cannot be read (its layout refused, see currentProblem;
  /// wrong or missing password, unsupported method, damaged data) or does not
  /// match its stored size and CRC-32; the
  /// read that reaches the end throws, so `sink` has then had all but the last
  /// chunk. Errors that `sink` throws pass through.
  void copyCurrent(std::function<void(unsigned char const*, std::size_t)> const& sink);
  /// Closes the archive.
  void close();

  /// What went wrong with reading the current entry, in words: minizip's
  /// refusals to open an entry are explained, anything else is the error's
  /// own message.
  std::string describeFailure(std::exception const& error) const;

private:
  void open();

  tal::CURI m_uri;
  std::string m_password;
  std::function<std::string()> m_askPassword;
  long long m_position = 0; ///< entries moved over with nextFile()
  /// What the layout check refused, by the entry's place in central-directory order (from 1).
  std::map<long long, std::string> m_problems;
  tal::P<ziputil::CZipReader> m_checked;
};

} // namespace ziputil_tool
