#include "ziputil/format/ArchiveLayout.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <typeinfo>

namespace ziputil {
namespace {

constexpr unsigned long kEndSignature = 0x06054b50;
constexpr unsigned long kZip64EndSignature = 0x06064b50;
constexpr unsigned long kZip64LocatorSignature = 0x07064b50;
constexpr unsigned long kCentralSignature = 0x02014b50;
constexpr long long kEndSize = 22;
constexpr long long kZip64EndSize = 56;
constexpr long long kZip64LocatorSize = 20;
constexpr long long kCentralSize = 46;
constexpr long long kLocalSize = 30;
/// How far from the end minizip looks for the end records.
constexpr long long kSearchBack = 0xffff;

unsigned long long little(unsigned char const* p, int bytes) {
  unsigned long long value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | p[i];
  return value;
}

unsigned long long little(std::string const& data, std::size_t at, int bytes) {
  return little(reinterpret_cast<unsigned char const*>(data.data()) + at, bytes);
}

[[noreturn]] void damaged(tal::CURI const& uri, long long offset, std::string const& what) {
  tal::CProps props = tal::uriProps(uri);
  props["offset"] = tal::String(std::to_string(offset).c_str());
  throw tal::CError(tal::String::fromUTF8("Damaged archive: " + what + "."), tal::String(), -1, props, nullptr);
}

std::string format(char const* pattern, unsigned long long a, unsigned long long b = 0) {
  char text[160];
  std::snprintf(text, sizeof text, pattern, a, b);
  return text;
}

/// Up to `size` bytes from `offset`; fewer only where the stream ends.
std::string readRange(tal::IInStream& stream, long long offset, long long size) {
  std::string data(static_cast<std::size_t>(size), '\0');
  stream.seek(offset);
  std::size_t done = 0;
  while (done < data.size()) {
    int const want = static_cast<int>(std::min<std::size_t>(data.size() - done, 1 << 30));
    int const got = stream.readLax(&data[done], want);
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  data.resize(done);
  return data;
}

/// Offset in `window` of the last occurrence of `signature`, or -1.
long long findLast(std::string const& window, unsigned long signature) {
  char const bytes[4] = {static_cast<char>(signature & 0xff), static_cast<char>((signature >> 8) & 0xff),
                         static_cast<char>((signature >> 16) & 0xff), static_cast<char>((signature >> 24) & 0xff)};
  // Backwards from the last place a signature fits: to each earlier first byte, then the other three.
  std::size_t end = window.size() < sizeof bytes ? 0 : window.size() - sizeof bytes + 1;
  while (end > 0) {
    void const* hit = ::memrchr(window.data(), bytes[0], end);
    if (!hit) return -1;
    std::size_t const at = static_cast<std::size_t>(static_cast<char const*>(hit) - window.data());
    if (std::memcmp(window.data() + at + 1, bytes + 1, sizeof bytes - 1) == 0) return static_cast<long long>(at);
    end = at;
  }
  return -1;
}

constexpr unsigned long long kSaturated = 0xffffffffULL;

/// Where the Zip64 extra field (id 1) of the extra fields in
/// data[from, from + length) begins its values, and how many bytes it holds;
/// false when there is none.
bool findZip64Field(std::string const& data, std::size_t from, std::size_t length, std::size_t& at,
                    std::size_t& size) {
  std::size_t p = from;
  std::size_t const end = from + length;
  while (p + 4 <= end) {
    std::size_t const id = little(data, p, 2);
    std::size_t const fieldSize = little(data, p + 2, 2);
    if (p + 4 + fieldSize > end) return false;
    if (id == 1) {
      at = p + 4;
      size = fieldSize;
      return true;
    }
    p += 4 + fieldSize;
  }
  return false;
}

/// Replaces each saturated 32-bit value by the next 8-byte value of the Zip64
/// extra field, in the order given; false when the field lacks one.
bool applyZip64(std::string const& data, std::size_t from, std::size_t length,
                std::initializer_list<unsigned long long*> values) {
  std::size_t at = 0, size = 0;
  bool const found = findZip64Field(data, from, length, at, size);
  std::size_t used = 0;
  for (unsigned long long* value : values) {
    if (*value != kSaturated) continue;
    if (!found || used + 8 > size) return false;
    *value = little(data, at + used, 8);
    used += 8;
  }
  return true;
}

/// What the central header at `at` says (its name only `withName`); false
/// when its Zip64 field lacks a value that a saturated field needs.
bool readCentralEntry(std::string const& dir, std::size_t at, long long prefix, CentralEntry& entry, bool withName) {
  std::size_t const nameLength = little(dir, at + 28, 2);
  std::size_t const extraLength = little(dir, at + 30, 2);
  entry.flags = static_cast<unsigned>(little(dir, at + 8, 2));
  entry.method = static_cast<unsigned>(little(dir, at + 10, 2));
  entry.crc = static_cast<unsigned long>(little(dir, at + 16, 4));
  entry.compressedSize = little(dir, at + 20, 4);
  entry.uncompressedSize = little(dir, at + 24, 4);
  unsigned long long offset = little(dir, at + 42, 4);
  if (!applyZip64(dir, at + kCentralSize + nameLength, extraLength,
                  {&entry.uncompressedSize, &entry.compressedSize, &offset}))
    return false;
  if (withName) entry.name.assign(dir, at + kCentralSize, nameLength);
  entry.localOffset = static_cast<long long>(offset) + prefix;
  return true;
}

} // namespace

bool isLayoutError(tal::CError const& error) {
  if (typeid(error) != typeid(tal::CError)) return false;
  std::string const message = error.getMessage().toUTF8();
  for (char const* prefix : {"Damaged archive: ", "Not a ZIP archive: ", "Cannot seek from end: "})
    if (message.rfind(prefix, 0) == 0) return true;
  return false;
}

ArchiveLayout readArchiveEnd(tal::IInStream& stream, tal::CURI const& uri, bool commentMayBeCutShort) {
  ArchiveLayout layout;
  long long const length = stream.getLength();
  if (length < 0)
    throw tal::CError(tal::String("Cannot seek from end: stream length is unknown."), tal::String(), -1,
                      tal::uriProps(uri), nullptr);
  layout.fileLength = length;
  if (length == 0) {
    layout.empty = true;
    return layout;
  }

  long long const windowStart = length - std::min(length, kSearchBack);
  std::string const window = readRange(stream, windowStart, length - windowStart);
  if (static_cast<long long>(window.size()) != length - windowStart)
    damaged(uri, windowStart + static_cast<long long>(window.size()), "the file is shorter than its length");

  // The end record that counts: the Zip64 one when its locator leads to it, as in minizip.
  long long centralPos = -1; // where the end record that counts begins
  unsigned long long declaredCount = 0, centralSize = 0, centralOffset = 0;
  long long const locator = findLast(window, kZip64LocatorSignature);
  if (locator >= 0) {
    long long const at = windowStart + locator;
    if (at + kZip64LocatorSize > length) damaged(uri, at, "the Zip64 end locator is cut short");
    std::size_t const w = static_cast<std::size_t>(locator);
    unsigned long long const record = little(window, w + 8, 8);
    bool const singleDisk = little(window, w + 4, 4) == 0 && little(window, w + 16, 4) == 1;
    if (singleDisk && record < static_cast<unsigned long long>(length)) {
      std::string const end = readRange(stream, static_cast<long long>(record), kZip64EndSize);
      if (end.size() >= 4 && little(end, 0, 4) == kZip64EndSignature) {
        if (static_cast<long long>(end.size()) < kZip64EndSize)
          damaged(uri, static_cast<long long>(record), "the Zip64 end record is cut short");
        if (little(end, 16, 4) != 0 || little(end, 20, 4) != 0 || little(end, 24, 8) != little(end, 32, 8))
          damaged(uri, static_cast<long long>(record), "the Zip64 end record describes a split archive");
        layout.zip64 = true;
        centralPos = static_cast<long long>(record);
        declaredCount = little(end, 32, 8);
        centralSize = little(end, 40, 8);
        centralOffset = little(end, 48, 8);
      }
    }
  }
  if (!layout.zip64) {
    long long const found = findLast(window, kEndSignature);
    if (found < 0)
      throw tal::CError(tal::String("Not a ZIP archive: no end-of-central-directory record."), tal::String(), -1,
                        tal::uriProps(uri), nullptr);
    centralPos = windowStart + found;
    if (centralPos + kEndSize > length) damaged(uri, centralPos, "the end-of-central-directory record is cut short");
    std::size_t const w = static_cast<std::size_t>(found);
    if (little(window, w + 4, 2) != 0 || little(window, w + 6, 2) != 0 ||
        little(window, w + 8, 2) != little(window, w + 10, 2))
      damaged(uri, centralPos, "the end-of-central-directory record describes a split archive");
    if (!commentMayBeCutShort && centralPos + kEndSize + static_cast<long long>(little(window, w + 20, 2)) > length)
      damaged(uri, centralPos + kEndSize, "the archive comment is cut short");
    declaredCount = little(window, w + 10, 2);
    centralSize = little(window, w + 12, 4);
    centralOffset = little(window, w + 16, 4);
  }

  if (centralOffset > static_cast<unsigned long long>(centralPos) ||
      centralSize > static_cast<unsigned long long>(centralPos) - centralOffset)
    damaged(uri, centralPos, "the central directory does not end before the end record");
  layout.prefixLength = centralPos - static_cast<long long>(centralOffset + centralSize);
  layout.centralStart = static_cast<long long>(centralOffset) + layout.prefixLength;
  layout.centralSize = static_cast<long long>(centralSize);
  layout.endRecordStart = centralPos;
  layout.declaredCount = declaredCount;
  return layout;
}

std::string readArchiveComment(tal::IInStream& stream, tal::CURI const& uri) {
  long long const length = stream.getLength();
  if (length < 0)
    throw tal::CError(tal::String("Cannot seek from end: stream length is unknown."), tal::String(), -1,
                      tal::uriProps(uri), nullptr);
  long long const windowStart = length - std::min(length, kSearchBack + kEndSize);
  std::string const window = readRange(stream, windowStart, length - windowStart);
  long long const found = findLast(window, kEndSignature);
  if (found < 0 || found + kEndSize > static_cast<long long>(window.size()))
    throw tal::CError(tal::String("Not a ZIP archive: no end-of-central-directory record."), tal::String(), -1,
                      tal::uriProps(uri), nullptr);
  std::size_t const commentStart = static_cast<std::size_t>(found + kEndSize);
  std::size_t const declared = little(window, static_cast<std::size_t>(found) + 20, 2);
  return window.substr(commentStart, std::min(declared, window.size() - commentStart));
}

void readArchiveDirectory(tal::IInStream& stream, tal::CURI const& uri, ArchiveLayout& layout, std::string& tail,
                          std::vector<CentralEntry>* entries) {
  tail.clear();
  if (layout.empty) return;
  long long const length = layout.fileLength;
  tail = readRange(stream, layout.centralStart, length - layout.centralStart);
  if (static_cast<long long>(tail.size()) != length - layout.centralStart)
    damaged(uri, layout.centralStart + static_cast<long long>(tail.size()), "the file is shorter than its length");

  std::size_t at = 0;
  std::size_t const size = static_cast<std::size_t>(layout.centralSize);
  unsigned long long const declaredCount = layout.declaredCount;
  long long const centralPos = layout.endRecordStart;
  unsigned long long count = 0;
  CentralEntry entry; // one for all headers: its name's storage is reused
  while (at < size) {
    long long const where = layout.centralStart + static_cast<long long>(at);
    if (size - at < static_cast<std::size_t>(kCentralSize))
      damaged(uri, where, format("central header %llu is cut short", count + 1));
    if (little(tail, at, 4) != kCentralSignature)
      damaged(uri, where, format("central header %llu has no signature", count + 1));
    std::size_t const headerSize =
        kCentralSize + little(tail, at + 28, 2) + little(tail, at + 30, 2) + little(tail, at + 32, 2);
    if (headerSize > size - at) damaged(uri, where, format("central header %llu is cut short", count + 1));
    if (!readCentralEntry(tail, at, layout.prefixLength, entry, entries != nullptr))
      damaged(uri, where, format("central header %llu lacks a value of its Zip64 field", count + 1));
    if (entry.localOffset < 0 || entry.localOffset > layout.centralStart - kLocalSize)
      damaged(uri, where, format("central header %llu points past the start of the central directory", count + 1));
    if (entries) entries->push_back(entry);
    at += headerSize;
    ++count;
  }
  // Below Zip64, an archive of more than 65,535 entries can only record the count's low 16 bits.
  bool const countMatches = count == declaredCount || (!layout.zip64 && count > 0xffff && (count & 0xffff) == declaredCount);
  if (!countMatches)
    damaged(uri, centralPos,
            format("the central directory holds %llu entries, the end record says %llu", count, declaredCount));
  layout.entryCount = count;
}

ArchiveLayout readArchiveLayout(tal::IInStream& stream, tal::CURI const& uri, std::string& tail,
                                std::vector<CentralEntry>* entries, bool commentMayBeCutShort) {
  tail.clear();
  ArchiveLayout layout = readArchiveEnd(stream, uri, commentMayBeCutShort);
  readArchiveDirectory(stream, uri, layout, tail, entries);
  return layout;
}

namespace {

constexpr unsigned long kLocalSignature = 0x04034b50;
constexpr unsigned long kDescriptorSignature = 0x08074b50;

/// What is wrong with one entry's record: where, and in words for a message
/// about the archive ("the local header of entry 3 is cut short") and about
/// the entry itself ("its local header is cut short").
struct RecordProblem {
  long long offset = -1;
  std::string archiveText;
  std::string entryText;
};

/// Checks the local header of entry `number` against its central header;
/// returns where the entry's record ends, or -1 with `problem` filled in.
long long checkLocalRecord(tal::IInStream& stream, CentralEntry const& entry, unsigned long long number,
                           RecordProblem& problem) {
  long long const at = entry.localOffset;
  auto fail = [&](std::string archiveText, std::string entryText) {
    problem.offset = at;
    problem.archiveText = std::move(archiveText);
    problem.entryText = std::move(entryText);
    return -1LL;
  };
  std::string header = readRange(stream, at, kLocalSize);
  if (header.size() >= 4 && little(header, 0, 4) != kLocalSignature)
    return fail(format("entry %llu has no local header", number), "it has no local header");
  if (static_cast<long long>(header.size()) < kLocalSize)
    return fail(format("the local header of entry %llu is cut short", number), "its local header is cut short");
  std::size_t const nameLength = little(header, 26, 2);
  std::size_t const extraLength = little(header, 28, 2);
  std::string const names = readRange(stream, at + kLocalSize, static_cast<long long>(nameLength + extraLength));
  if (names.size() < nameLength + extraLength)
    return fail(format("the local header of entry %llu is cut short", number), "its local header is cut short");
  auto disagree = [&](char const* field) {
    return fail(format("the local header of entry %llu disagrees with its central header on the ", number) + field,
                std::string("its local header disagrees with its central header on the ") + field);
  };
  if (names.compare(0, nameLength, entry.name) != 0) return disagree("name");
  if (little(header, 8, 2) != entry.method) return disagree("compression method");
  unsigned const flags = static_cast<unsigned>(little(header, 6, 2));
  bool const streamed = (flags & 8) != 0;
  if (!streamed) {
    unsigned long long compressed = little(header, 18, 4);
    unsigned long long uncompressed = little(header, 22, 4);
    if (!applyZip64(names, nameLength, extraLength, {&uncompressed, &compressed}))
      return disagree("sizes (its Zip64 field lacks them)");
    if (little(header, 14, 4) != entry.crc) return disagree("CRC-32");
    if (compressed != entry.compressedSize) return disagree("compressed size");
    if (uncompressed != entry.uncompressedSize) return disagree("uncompressed size");
  }
  long long end = at + kLocalSize + static_cast<long long>(nameLength + extraLength);
  if (entry.compressedSize > static_cast<unsigned long long>(std::numeric_limits<long long>::max() - end))
    return fail(format("the data of entry %llu runs into the central directory", number),
                "its data runs into the central directory");
  end += static_cast<long long>(entry.compressedSize);
  if (streamed) { // a data descriptor follows: optional signature, CRC-32, two sizes of 4 or 8 bytes
    std::size_t zip64At = 0, zip64Size = 0;
    bool const zip64 = findZip64Field(names, nameLength, extraLength, zip64At, zip64Size);
    std::string const signature = readRange(stream, end, 4);
    bool const signed_ = signature.size() == 4 && little(signature, 0, 4) == kDescriptorSignature;
    end += (signed_ ? 4 : 0) + 4 + (zip64 ? 16 : 8);
  }
  return end;
}

/// One entry's record in the file: [start, end), and its place in central-directory order (from 1).
struct Record {
  long long start;
  long long end;
  unsigned long long number;
};

/// The archive's layout and its central entries, for checking the local records; a comment cut short is
/// accepted, as readers accept it.
ArchiveLayout readForRecords(tal::IInStream& stream, tal::CURI const& uri, std::vector<CentralEntry>& entries) {
  std::string tail;
  return readArchiveLayout(stream, uri, tail, &entries, true);
}

} // namespace

void checkArchiveRecords(tal::IInStream& stream, tal::CURI const& uri) {
  std::vector<CentralEntry> entries;
  ArchiveLayout const layout = readForRecords(stream, uri, entries);
  std::vector<Record> records;
  records.reserve(entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    RecordProblem problem;
    long long const end = checkLocalRecord(stream, entries[i], i + 1, problem);
    if (end < 0) damaged(uri, problem.offset, problem.archiveText);
    records.push_back({entries[i].localOffset, end, i + 1});
  }
  std::sort(records.begin(), records.end(), [](Record const& a, Record const& b) { return a.start < b.start; });
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (i + 1 < records.size() && records[i].end > records[i + 1].start) {
      unsigned long long const a = std::min(records[i].number, records[i + 1].number);
      unsigned long long const b = std::max(records[i].number, records[i + 1].number);
      damaged(uri, records[i + 1].start, format("the records of entries %llu and %llu overlap", a, b));
    }
    if (records[i].end > layout.centralStart)
      damaged(uri, records[i].start,
              format("the record of entry %llu runs into the central directory", records[i].number));
  }
}

std::vector<EntryLayoutProblem> findEntryLayoutProblems(tal::IInStream& stream, tal::CURI const& uri) {
  std::vector<CentralEntry> entries;
  ArchiveLayout const layout = readForRecords(stream, uri, entries);
  std::vector<EntryLayoutProblem> problems(entries.size()); // by central-directory order; empty text: none
  std::vector<Record> records;
  records.reserve(entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    RecordProblem problem;
    long long const end = checkLocalRecord(stream, entries[i], i + 1, problem);
    if (end < 0) {
      problems[i] = {i + 1, entries[i].name, problem.offset, problem.entryText};
      continue;
    }
    records.push_back({entries[i].localOffset, end, i + 1});
  }
  // Sorted by start, a record overlaps a later one exactly when it ends after the next one starts, and an
  // earlier one exactly when the furthest end before it lies after its start.
  std::stable_sort(records.begin(), records.end(), [](Record const& a, Record const& b) { return a.start < b.start; });
  auto refuse = [&](Record const& record, std::string what) {
    EntryLayoutProblem& problem = problems[record.number - 1];
    if (!problem.what.empty()) return; // the first problem found is the one told
    problem = {record.number, entries[record.number - 1].name, record.start, std::move(what)};
  };
  std::size_t furthest = 0; // of the records before i, the one that ends last
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (i > 0 && records[furthest].end > records[i].start)
      refuse(records[i], format("its record overlaps that of entry %llu", records[furthest].number));
    if (i + 1 < records.size() && records[i].end > records[i + 1].start)
      refuse(records[i], format("its record overlaps that of entry %llu", records[i + 1].number));
    if (records[i].end > layout.centralStart) refuse(records[i], "its record runs into the central directory");
    if (i == 0 || records[i].end > records[furthest].end) furthest = i;
  }
  problems.erase(std::remove_if(problems.begin(), problems.end(),
                                [](EntryLayoutProblem const& problem) { return problem.what.empty(); }),
                 problems.end());
  return problems;
}

} // namespace ziputil
