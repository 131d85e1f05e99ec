// What the writer guarantees about the archive it writes to: entry CRCs that
// survive empty writes, damaged archives refused before anything is written,
// headers other tools accept, a failure anywhere after construction putting
// the file back byte for byte, the atomic replacement through a sibling copy,
// and discard().
#include "ziputil/CZipWriter.h"

#include "support/FaultyFileSystem.h"
#include "support/StreamChecks.h"
#include "support/TempDir.h"
#include "support/TestFileSystems.h"
#include "support/WriterChecks.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

using testsupport::CFaultyFileSystem;
using testsupport::entryURI;
using testsupport::expectSameError;
using testsupport::expectThrowsSame;
using testsupport::utf8;
using ziputil::CZipWriter;

namespace {

// ---- helpers ----------------------------------------------------------------

std::uint64_t little(std::string const& bytes, std::size_t at, int size) {
  if (at + static_cast<std::size_t>(size) > bytes.size()) throw std::runtime_error("read past the end");
  std::uint64_t value = 0;
  for (int i = size - 1; i >= 0; --i) value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

void putLittle(std::string& bytes, std::size_t at, std::uint64_t value, int size) {
  for (int i = 0; i < size; ++i) bytes[at + i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

/// Where the records of an archive without comment and Zip64 end record lie.
struct Records {
  std::size_t end = 0;           // the end record
  std::size_t centralOffset = 0; // the central directory
  std::size_t centralSize = 0;
  std::vector<std::size_t> headers; // each central header
};

Records recordsOf(std::string const& bytes) {
  Records records;
  records.end = bytes.size() - 22;
  if (little(bytes, records.end, 4) != 0x06054b50) throw std::runtime_error("no end record where expected");
  records.centralSize = little(bytes, records.end + 12, 4);
  records.centralOffset = little(bytes, records.end + 16, 4);
  for (std::size_t at = records.centralOffset; at < records.centralOffset + records.centralSize;) {
    records.headers.push_back(at);
    at += 46 + little(bytes, at + 28, 2) + little(bytes, at + 30, 2) + little(bytes, at + 32, 2);
  }
  return records;
}

/// Bytes that deflate cannot shrink.
std::string noise(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(random() & 0xff);
  return data;
}

CZipWriter::Options atomicOptions(bool atomic) {
  CZipWriter::Options options;
  options.atomicReplace = atomic;
  return options;
}

tal::P<CZipWriter> openWriter(tal::IFileSystem* fs, tal::CURI const& uri, bool atomic, char const* password = "",
                              CZipWriter::CompLevel level = CZipWriter::CompFastest) {
  return tal::newObj<CZipWriter>(fs, uri, tal::String(password), level, atomicOptions(atomic));
}

/// Whether `text` is the URI text of a copy the writer makes beside `archive`.
bool isCopyOf(std::string const& text, tal::CURI const& archive) {
  return testsupport::isCopyOf(text, utf8(archive.toString(true)));
}

/// Expects the writer to be closed for good: beginAddFile refuses, close() is quiet.
void expectWriterClosed(CZipWriter& writer, tal::CURI const& archive) {
  testsupport::expectIOError([&] { writer.beginAddFile(entryURI("late"), tal::CTimeFields()); },
                             tal::CIOError::StreamClosed, "ZIP file already closed", archive);
  EXPECT_NO_THROW(writer.close());
}

/// Expects a writer that gave up everything after `failure`: beginAddFile refuses, the first close() throws
/// `failure` again (nothing was committed), later calls are quiet.
void expectGaveUp(CZipWriter& writer, tal::CURI const& archive, tal::CError const& failure) {
  testsupport::expectIOError([&] { writer.beginAddFile(entryURI("late"), tal::CTimeFields()); },
                             tal::CIOError::StreamClosed, "ZIP file already closed", archive);
  expectThrowsSame([&] { writer.close(); }, failure);
  EXPECT_NO_THROW(writer.close());
  EXPECT_NO_THROW(writer.discard());
}

/// Expects a closed entry stream: writing refuses with StreamClosed, close is quiet.
void expectStreamClosed(tal::IOutStream& out) {
  testsupport::expectIOError([&] { out.write("x", 1, nullptr); }, tal::CIOError::StreamClosed,
                             tal::CIOError::getDefaultMessage(tal::CIOError::StreamClosed).toUTF8(), tal::CProps());
  EXPECT_NO_THROW(out.close());
}

/// Expects the entry stream's next write to report the archive closed, and its close then to be quiet.
void expectArchiveClosedOnWrite(tal::IOutStream& out, tal::CURI const& entry) {
  try {
    out.write("x", 1, nullptr);
    ADD_FAILURE() << "the write after the writer closed succeeded";
  } catch (tal::CError const& e) {
    tal::CIOError const cause(tal::CIOError::WriteFailed,
                              tal::String("Cannot write file in ZIP archive - archive has already been closed"),
                              tal::uriProps(entry), nullptr);
    expectSameError(e, tal::CFileSystemError(tal::CFileSystemError::Unspecified, cause));
  }
  EXPECT_NO_THROW(out.close());
}

/// The injected error with the property a failed rollback adds.
testsupport::CInjectedError withRollbackError(testsupport::CInjectedError error, char const* rollbackMessage) {
  error.setProp(tal::String("rollbackError"), tal::String(rollbackMessage));
  return error;
}

// ---- empty writes and argument checks -------------------------------------------

class EntryStreamTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  tal::CURI uri = dir.uri("crc.zip");
};

TEST_F(EntryStreamTest, EmptyWritesBetweenWritesLeaveTheCrcAlone) {
  auto writer = testsupport::newArchiveWriter(fs.get(), uri);
  auto emptyBuffer = tal::newObj<tal::TBuffer<unsigned char>>(8);
  emptyBuffer->setUsed(0);
  char const byte = 'x';
  std::vector<std::pair<std::string, std::function<void(tal::IOutStream&)>>> const nothings = {
      {"null", [](tal::IOutStream& out) { out.write(nullptr, 0, nullptr); }},
      {"slice", [](tal::IOutStream& out) { out.writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(), nullptr); }},
      {"pointer", [&](tal::IOutStream& out) { out.write(&byte, 0, nullptr); }},
      {"buffer",
       [&](tal::IOutStream& out) {
         out.writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(emptyBuffer.get()), nullptr);
       }},
  };
  for (auto const& [name, nothing] : nothings) {
    auto out = writer->beginAddFile(entryURI(name), tal::CTimeFields());
    out->write("234", 3, nullptr);
    nothing(*out);
    EXPECT_EQ(out->getPosition(), 3) << name;
    out->write("!", 1, nullptr);
    nothing(*out);
    EXPECT_EQ(out->getPosition(), 4) << name;
    out->close();
  }
  auto only = writer->beginAddFile(entryURI("nothing"), tal::CTimeFields());
  only->write(nullptr, 0, nullptr);
  only->close();
  writer->close();

  auto const entries = testsupport::parseArchive(testsupport::readFile(dir.file("crc.zip")));
  ASSERT_EQ(entries.size(), 5u);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(entries[i].crc, 0xaa085756u) << entries[i].name; // CRC-32 of "234!"; "!" alone gives 0x9e6bffd3
    EXPECT_EQ(entries[i].uncompressedSize, 4u) << entries[i].name;
  }
  EXPECT_EQ(entries[4].crc, 0u);
  EXPECT_EQ(entries[4].uncompressedSize, 0u);
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("crc.zip")}),
            std::vector<std::string>{"null,slice,pointer,buffer,nothing None"});
  EXPECT_EQ(testsupport::runPython("import sys,zipfile; z=zipfile.ZipFile(sys.argv[1]);"
                                   " print(' '.join(z.read(n).decode() for n in z.namelist()))",
                                   {dir.file("crc.zip")}),
            "234! 234! 234! 234! \n");
}

TEST_F(EntryStreamTest, NegativeSizeAndNullDataAreRefusedAndChangeNothing) {
  auto writer = testsupport::newArchiveWriter(fs.get(), uri);
  auto out = writer->beginAddFile(entryURI("dir/e.txt"), tal::CTimeFields());
  tal::CURI const entry = uri << entryURI("dir/e.txt");
  out->write("ok", 2, nullptr);
  auto expectRefused = [&](std::function<void()> const& call, char const* text) {
    try {
      call();
      ADD_FAILURE() << "accepted: " << text;
    } catch (tal::CError const& e) {
      expectSameError(e, tal::CInvalidArgError(tal::String("CZipWriter::CFileInZipOutStream::write"),
                                               tal::String(text), tal::uriProps(entry)));
      EXPECT_EQ(utf8(e.getMessage()),
                std::string("Invalid argument passed to 'CZipWriter::CFileInZipOutStream::write': ") + text + ".");
    }
  };
  expectRefused([&] { out->write("abc", -1, nullptr); }, "size is negative");
  expectRefused([&] { out->write(nullptr, -5, nullptr); }, "size is negative");
  expectRefused([&] { out->write(nullptr, 3, nullptr); }, "data is null");
  expectRefused([&] { out->writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(nullptr, 0, 4), nullptr); },
                "data is null");
  EXPECT_EQ(out->getPosition(), 2);
  out->write("!", 1, nullptr); // the stream and the writer carry on
  out->close();
  writer->close();
  EXPECT_EQ(testsupport::runPython("import sys,zipfile; z=zipfile.ZipFile(sys.argv[1]);"
                                   " print(z.read('dir/e.txt').decode(), z.testzip())",
                                   {dir.file("crc.zip")}),
            "ok! None\n");
}

// ---- damaged archives ---------------------------------------------------------

/// A damaged archive and what the writer must say about it.
struct Damage {
  std::string name;
  std::string bytes;
  std::string message; // the whole message
  long long offset;    // -1: no "offset" property
  /// Whether minizip itself refuses to open it (zipOpen2_64 returns null).
  bool minizipRefuses = false;
};

class DamagedArchiveTest : public ::testing::Test {
protected:
  DamagedArchiveTest() {
    auto writer = testsupport::newArchiveWriter(fs.get(), dir.uri("valid.zip"));
    testsupport::addEntry(*writer, "a", std::string(20000, 'a'));
    testsupport::addEntry(*writer, "dir/b.txt", "bee");
    writer->close();
    valid = testsupport::readFile(dir.file("valid.zip"));
  }

  /// The valid archive with a Zip64 end record and locator in front of its end record.
  std::string withZip64End() const {
    Records const r = recordsOf(valid);
    std::string end64(56, '\0');
    putLittle(end64, 0, 0x06064b50, 4);
    putLittle(end64, 4, 44, 8);
    putLittle(end64, 12, 45, 2);
    putLittle(end64, 14, 45, 2);
    putLittle(end64, 24, r.headers.size(), 8);
    putLittle(end64, 32, r.headers.size(), 8);
    putLittle(end64, 40, r.centralSize, 8);
    putLittle(end64, 48, r.centralOffset, 8);
    std::string locator(20, '\0');
    putLittle(locator, 0, 0x07064b50, 4);
    putLittle(locator, 8, r.end, 8);
    putLittle(locator, 16, 1, 4);
    return valid.substr(0, r.end) + end64 + locator + valid.substr(r.end);
  }

  std::vector<Damage> damages() const {
    Records const r = recordsOf(valid);
    long long const end = static_cast<long long>(r.end);
    long long const second = static_cast<long long>(r.headers.at(1));
    std::vector<Damage> list;
    auto damaged = [](std::string const& what) { return "Damaged archive: " + what + "."; };
    list.push_back({"endCutBy10", valid.substr(0, valid.size() - 10),
                    damaged("the end-of-central-directory record is cut short"), end});
    list.push_back({"endCutBy14", valid.substr(0, valid.size() - 14),
                    damaged("the end-of-central-directory record is cut short"), end});
    list.push_back({"strayEndSignature", valid + std::string("PK\x05\x06", 4),
                    damaged("the end-of-central-directory record is cut short"),
                    static_cast<long long>(valid.size())});
    std::string badSignature = valid;
    badSignature[r.headers.at(1) + 3] = '\x07';
    list.push_back({"centralSignature", badSignature, damaged("central header 2 has no signature"), second});
    std::string longName = valid;
    putLittle(longName, r.headers.at(1) + 28, 0xffff, 2);
    list.push_back({"nameRunsPastTheDirectory", longName, damaged("central header 2 is cut short"), second});
    std::string count = valid;
    putLittle(count, r.end + 8, 3, 2);
    putLittle(count, r.end + 10, 3, 2);
    list.push_back(
        {"entryCount", count, damaged("the central directory holds 2 entries, the end record says 3"), end});
    std::string comment = valid;
    putLittle(comment, r.end + 20, 10, 2);
    comment += "12345";
    list.push_back({"commentCutShort", comment, damaged("the archive comment is cut short"), end + 22});
    std::string const zip64 = withZip64End();
    std::size_t const locator = zip64.size() - 22 - 20;
    list.push_back({"zip64LocatorCutShort", zip64.substr(0, locator + 10), damaged("the Zip64 end locator is cut short"),
                    static_cast<long long>(locator), true});
    std::string beyond = valid;
    putLittle(beyond, r.end + 16, r.end + 100, 4);
    list.push_back({"centralDirectoryBeyondTheEnd", beyond,
                    damaged("the central directory does not end before the end record"), end, true});
    return list;
  }

  /// Expects opening a writer on `bytes` to throw exactly `message` {"uri", "offset"} (no "offset" when
  /// offset is -1), and the file and its folder to stay as they were.
  void expectRefused(std::string const& bytes, bool atomic, std::string const& message, long long offset) {
    testsupport::writeFile(dir.file("damaged.zip"), bytes);
    tal::CURI const uri = dir.uri("damaged.zip");
    try {
      openWriter(fs.get(), uri, atomic);
      ADD_FAILURE() << "the writer accepted it";
    } catch (tal::CError const& e) {
      tal::CProps props = tal::uriProps(uri);
      if (offset >= 0) props["offset"] = tal::String(std::to_string(offset).c_str());
      expectSameError(e, tal::CError(tal::String::fromUTF8(message), tal::String(), -1, props, nullptr));
    }
    EXPECT_EQ(testsupport::readFile(dir.file("damaged.zip")), bytes);
    EXPECT_EQ(testsupport::listFolder(dir.path()), (std::vector<std::string>{"damaged.zip", "valid.zip"}));
  }

  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  std::string valid;
};

TEST_F(DamagedArchiveTest, TheUndamagedArchivesAreAccepted) {
  // The damaged archives below are these two with one thing changed.
  testsupport::writeFile(dir.file("zip64.zip"), withZip64End());
  for (char const* name : {"valid.zip", "zip64.zip"}) {
    for (bool atomic : {false, true}) {
      SCOPED_TRACE(std::string(name) + (atomic ? " atomic" : " in place"));
      std::string const before = testsupport::readFile(dir.file(name));
      auto writer = openWriter(fs.get(), dir.uri(name), atomic);
      testsupport::addEntry(*writer, atomic ? "atomic" : "inPlace", "new");
      writer->close();
      EXPECT_EQ(testsupport::readFile(dir.file(name)).compare(0, recordsOf(valid).centralOffset, before, 0,
                                                              recordsOf(valid).centralOffset),
                0);
    }
  }
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("valid.zip"), dir.file("zip64.zip")}),
            (std::vector<std::string>{"a,dir/b.txt,inPlace,atomic None", "a,dir/b.txt,inPlace,atomic None"}));
}

TEST_F(DamagedArchiveTest, RefusedInPlace) {
  for (Damage const& damage : damages()) {
    if (damage.minizipRefuses) continue; // below
    SCOPED_TRACE(damage.name);
    expectRefused(damage.bytes, false, damage.message, damage.offset);
  }
}

TEST_F(DamagedArchiveTest, InPlaceWhereMinizipRefusesFirstItsOwnErrorStays) {
  // In place, minizip opens the archive before the writer checks it; a file minizip cannot open at all
  // gives the constructor's documented "zipOpen2_64 failed", untouched (replacing atomically checks first
  // and names the damage, see below).
  int cases = 0;
  for (Damage const& damage : damages()) {
    if (!damage.minizipRefuses) continue;
    ++cases;
    SCOPED_TRACE(damage.name);
    expectRefused(damage.bytes, false, "zipOpen2_64 failed", -1);
  }
  EXPECT_EQ(cases, 2);
}

TEST_F(DamagedArchiveTest, RefusedWhenReplacingAtomically) {
  for (Damage const& damage : damages()) {
    SCOPED_TRACE(damage.name);
    expectRefused(damage.bytes, true, damage.message, damage.offset);
  }
}

TEST_F(DamagedArchiveTest, PythonReadsWhatItReadBefore) {
  // What Python makes of each damaged archive, before and after the writer refused it.
  std::vector<Damage> const list = damages();
  std::vector<std::string> paths;
  for (Damage const& damage : list) {
    paths.push_back(dir.file(damage.name + ".zip"));
    testsupport::writeFile(paths.back(), damage.bytes);
  }
  std::vector<std::string> const before = testsupport::pythonVerdicts(paths);
  for (std::size_t i = 0; i < list.size(); ++i) {
    for (bool atomic : {false, true}) {
      EXPECT_THROW(openWriter(fs.get(), testsupport::fileURI(paths[i]), atomic), tal::CError) << list[i].name;
      EXPECT_EQ(testsupport::readFile(paths[i]), list[i].bytes) << list[i].name;
    }
  }
  EXPECT_EQ(testsupport::pythonVerdicts(paths), before);
  // Python itself reads the archives whose damage lies in what it does not look at.
  ASSERT_EQ(before.size(), list.size());
  for (std::size_t i = 0; i < list.size(); ++i) {
    bool const readable = list[i].name == "nameRunsPastTheDirectory" || list[i].name == "entryCount" ||
                          list[i].name == "commentCutShort";
    EXPECT_EQ(before[i] == "a,dir/b.txt None", readable) << list[i].name << ": " << before[i];
  }
}

TEST_F(DamagedArchiveTest, AFileWithoutEndRecordIsNotAnArchive) {
  std::string const notAnArchive = "Not a ZIP archive: no end-of-central-directory record.";
  // minizip takes 100 zero bytes for an archive (it reads an end record of zeros at offset 0): the check
  // refuses it in both modes.
  expectRefused(std::string(100, '\0'), false, notAnArchive, -1);
  expectRefused(std::string(100, '\0'), true, notAnArchive, -1);
  // Text, and the valid archive without its end record's signature: minizip refuses them itself in place.
  std::string const text = "not an archive at all, just some text that goes on for a while";
  std::string unsigned_ = valid;
  unsigned_[recordsOf(valid).end] = 'Q';
  for (std::string const& bytes : {text, unsigned_}) {
    expectRefused(bytes, false, "zipOpen2_64 failed", -1);
    expectRefused(bytes, true, notAnArchive, -1);
  }
}

// ---- the local header's Zip64 field and 7-Zip -------------------------------------

class HeadersTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();

  /// Writes an archive of several entries with `password` at `level`. Entries need a time: the empty one gives
  /// the DOS date 1980-01-00, whose day 0 7-Zip reports as a header error. With a password and without
  /// Options::interoperableEncryption, every entry's CRC-32 has a high byte of 0: the writer then leaves the
  /// encryption header's check byte 0, and 7-Zip, like other tools, takes a check byte that differs from the
  /// CRC's for a wrong password.
  void writeArchive(std::string const& name, char const* password, int level, bool interoperable = false) {
    ziputil::createEmptyArchive(fs.get(), dir.uri(name));
    CZipWriter::Options options;
    options.interoperableEncryption = interoperable;
    auto writer = tal::newObj<CZipWriter>(fs.get(), dir.uri(name), tal::String(password),
                                          static_cast<CZipWriter::CompLevel>(level), options);
    tal::CTimeFields const time(2024, 2, 29, 23, 59, 58, 0.0, 0, false);
    bool const zeroCheckByte = *password != 0 && !interoperable;
    auto data = [&](std::string bytes) { return zeroCheckByte ? withZeroCheckByte(bytes) : bytes; };
    testsupport::addEntry(*writer, "first.txt", data("The first entry's text, repeated. The first entry's text."),
                          time);
    testsupport::addEntry(*writer, "empty", "", time);
    testsupport::addEntry(*writer, "dir/", "", time);
    testsupport::addEntry(*writer, "dir/noise.bin", data(noise(150000, 7)), time);
    testsupport::addEntry(*writer, "dir/text.txt", data(std::string(100000, 't')), time);
    writer->close();
  }

  /// `bytes` with a few bytes appended, so that the CRC-32's high byte is 0.
  static std::string withZeroCheckByte(std::string bytes) {
    std::size_t const size = bytes.size();
    for (unsigned n = 0;; ++n) {
      bytes.resize(size);
      bytes += std::to_string(n);
      if ((crc32(0, reinterpret_cast<Bytef const*>(bytes.data()), static_cast<uInt>(bytes.size())) >> 24) == 0)
        return bytes;
    }
  }
};

TEST_F(HeadersTest, LocalZip64FieldHoldsTheRealSizes) {
  writeArchive("sizes.zip", "", 6);
  std::string const bytes = testsupport::readFile(dir.file("sizes.zip"));
  Records const r = recordsOf(bytes);
  ASSERT_EQ(r.headers.size(), 5u);
  ASSERT_EQ(little(bytes, r.headers[0] + 42, 4), 0u); // the first local header lies at offset 0
  for (std::size_t header : r.headers) {
    std::uint64_t const compressed = little(bytes, header + 20, 4);
    std::uint64_t const uncompressed = little(bytes, header + 24, 4);
    std::size_t const local = static_cast<std::size_t>(little(bytes, header + 42, 4));
    std::string const name = bytes.substr(header + 46, little(bytes, header + 28, 2));
    SCOPED_TRACE(name);
    ASSERT_EQ(little(bytes, local, 4), 0x04034b50u);
    std::size_t const nameLength = little(bytes, local + 26, 2), extraLength = little(bytes, local + 28, 2);
    std::size_t at = local + 30 + nameLength;
    std::size_t const extraEnd = at + extraLength;
    bool found = false;
    while (at + 4 <= extraEnd) {
      std::size_t const id = little(bytes, at, 2), size = little(bytes, at + 2, 2);
      if (id == 1) {
        found = true;
        ASSERT_GE(size, 16u);
        EXPECT_EQ(little(bytes, at + 4, 8), uncompressed);
        EXPECT_EQ(little(bytes, at + 12, 8), compressed);
      }
      at += 4 + size;
    }
    EXPECT_TRUE(found);
  }
  // The entries above hold data: the sizes are not zeros that happen to match.
  EXPECT_EQ(little(bytes, r.headers[3] + 24, 4), 150000u);
}

TEST_F(HeadersTest, SevenZipTestsWithoutWarnings) {
  struct Case {
    char const* name;
    char const* password;
    int level;
    bool interoperable;
  };
  for (Case const& c : {Case{"plain0.zip", "", 0, false}, Case{"plain6.zip", "", 6, false},
                        Case{"password0.zip", "pw", 0, false}, Case{"password9.zip", "pw", 9, false},
                        Case{"interoperable0.zip", "pw", 0, true}, Case{"interoperable6.zip", "pw", 6, true}}) {
    SCOPED_TRACE(c.name);
    writeArchive(c.name, c.password, c.level, c.interoperable);
    std::string output;
    EXPECT_EQ(testsupport::sevenZipTest(dir.file(c.name), &output, c.password), 0) << output;
    EXPECT_NE(output.find("Everything is Ok"), std::string::npos) << output;
    EXPECT_EQ(output.find("Warning"), std::string::npos) << output;
    EXPECT_EQ(output.find("Headers Error"), std::string::npos) << output;
    EXPECT_NE(output.find("Files: 4"), std::string::npos) << output;
  }
}

// ---- rollback -----------------------------------------------------------------

/// An archive of two entries in memory, a faulty file system over it, and a
/// recording of every file the writer opened (its copy, when replacing atomically).
class RollbackTest : public ::testing::TestWithParam<bool> {
protected:
  RollbackTest() {
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    testsupport::addEntry(*writer, "a", std::string(20000, 'a'));
    testsupport::addEntry(*writer, "b", noise(30000, 2));
    writer->close();
    original = memory->getFile(uri);
  }

  bool atomic() const { return GetParam(); }
  /// The URI of the file minizip writes: the archive, or its copy.
  std::string target() const {
    for (std::string const& text : recording->opened())
      if (text != utf8(uri.toString(true))) return text;
    return utf8(uri.toString(true));
  }
  /// A writer that has added the finished entry "c".
  tal::P<CZipWriter> writerWithOneEntry(tal::IFileSystem* fs, CZipWriter::CompLevel level = CZipWriter::CompFastest) {
    auto writer = openWriter(fs, uri, atomic(), "", level);
    testsupport::addEntry(*writer, "c", noise(70000, 3));
    return writer;
  }
  /// Arms a fault on the next call of `op`.
  void armNext(CFaultyFileSystem::Op op) {
    armedN = faulty->count(op) + 1;
    faulty->failNth(op, armedN);
  }
  /// The error of the armed fault, on the file minizip writes.
  testsupport::CInjectedError injected(CFaultyFileSystem::Op op) const {
    return CFaultyFileSystem::injectedError(op, armedN, tal::CURI(tal::String::fromUTF8(target())));
  }
  /// The names of the entries this reader reads back whole (CRC-32 checked) from `bytes`, comma-separated.
  std::string intactEntryNames(std::string const& bytes) {
    auto scratch = tal::newObj<tal::CMemoryFileSystem>();
    tal::CURI const copy(tal::String("mem:/check.zip"));
    scratch->setFile(copy, bytes);
    ziputil::CZipReader::Options options;
    options.verifyEntries = true;
    std::string names;
    try {
      auto reader = tal::newObj<ziputil::CZipReader>(scratch.get(), copy, tal::String(), options);
      while (reader->nextFile()) {
        auto in = reader->openCurrentFileStream();
        std::string data(static_cast<std::size_t>(reader->getCurrentFileUncompressedSize()) + 1, '\0');
        EXPECT_EQ(in->readLax(&data[0], static_cast<int>(data.size())), static_cast<int>(data.size()) - 1);
        in->close();
        names += (names.empty() ? "" : ",") + utf8(reader->getCurrentFileRelativeURI().getPath());
      }
      reader->close();
    } catch (tal::CError const& e) {
      return names + " error: " + e.what();
    }
    return names;
  }
  /// The archive as it was, and nothing left beside it.
  void expectPutBack() {
    EXPECT_TRUE(faulty->fired());
    EXPECT_TRUE(memory->getFile(uri) == original);
    EXPECT_EQ(recording->existing(), (std::set<std::string>{utf8(uri.toString(true))}));
  }
  /// After an entry failed with `failure` (the writer had finished "c"): in place, the writer is idle and goes
  /// on ("e" is added, and the archive closed holds the old entries, "c" and "e", nothing of the failed
  /// entry); replacing atomically, it gave up everything.
  void expectAfterEntryFailure(CZipWriter& writer, tal::CError const& failure) {
    EXPECT_TRUE(faulty->fired());
    if (atomic()) {
      expectPutBack();
      expectGaveUp(writer, uri, failure);
      return;
    }
    testsupport::addEntry(writer, "e", "after the failure");
    writer.close();
    EXPECT_EQ(intactEntryNames(memory->getFile(uri)), "a,b,c,e");
    EXPECT_EQ(recording->existing(), (std::set<std::string>{utf8(uri.toString(true))}));
  }

  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<testsupport::CRecordingFileSystem> recording = tal::newObj<testsupport::CRecordingFileSystem>(memory.get());
  tal::P<CFaultyFileSystem> faulty = tal::newObj<CFaultyFileSystem>(recording.get());
  tal::CURI uri{tal::String("mem:/rollback.zip")};
  std::string original;
  long long armedN = 0;
};

TEST_P(RollbackTest, FailedBeginAddFile) {
  auto writer = writerWithOneEntry(faulty.get());
  armNext(CFaultyFileSystem::Write); // the new local header
  expectThrowsSame([&] { writer->beginAddFile(entryURI("d"), tal::CTimeFields()); },
                   injected(CFaultyFileSystem::Write)); // unchanged: no property added
  expectAfterEntryFailure(*writer, injected(CFaultyFileSystem::Write));
}

TEST_P(RollbackTest, FailedEntryWrite) {
  auto writer = writerWithOneEntry(faulty.get());
  auto out = writer->beginAddFile(entryURI("d"), tal::CTimeFields());
  out->write("first", 5, nullptr);
  std::string const data = noise(100000, 4); // deflate hands minizip more than its 64 KiB buffer holds
  armNext(CFaultyFileSystem::Write);
  expectThrowsSame([&] { out->write(data.data(), static_cast<int>(data.size()), nullptr); },
                   injected(CFaultyFileSystem::Write));
  if (atomic()) {
    expectArchiveClosedOnWrite(*out, uri << entryURI("d"));
  } else {
    // The stream stays open, where it was; its close takes the entry back and reports the failure.
    EXPECT_EQ(out->getPosition(), 5);
    EXPECT_EQ(out->getLength(), 5);
    expectThrowsSame([&] { out->close(); }, injected(CFaultyFileSystem::Write));
    expectStreamClosed(*out);
  }
  expectAfterEntryFailure(*writer, injected(CFaultyFileSystem::Write));
}

TEST_P(RollbackTest, FailedEntryClose) {
  auto writer = writerWithOneEntry(faulty.get());
  auto out = writer->beginAddFile(entryURI("d"), tal::CTimeFields());
  out->write("small", 5, nullptr);
  armNext(CFaultyFileSystem::Write); // deflate's output, written when the entry is finished
  expectThrowsSame([&] { out->close(); }, injected(CFaultyFileSystem::Write));
  expectStreamClosed(*out);
  expectAfterEntryFailure(*writer, injected(CFaultyFileSystem::Write));
}

TEST_P(RollbackTest, FailedWriterClose) {
  for (CFaultyFileSystem::Op op : {CFaultyFileSystem::Write, CFaultyFileSystem::Close}) {
    SCOPED_TRACE(CFaultyFileSystem::opName(op));
    memory->setFile(uri, original);
    faulty->reset();
    recording->clear();
    auto writer = writerWithOneEntry(faulty.get());
    testsupport::addEntry(*writer, "d", "dee");
    armNext(op); // the central directory's first write; the archive stream's close
    expectThrowsSame([&] { writer->close(); }, injected(op));
    expectPutBack();
    expectWriterClosed(*writer, uri);
  }
}

TEST_P(RollbackTest, FailedWriterCloseWithAnEntryOpen) {
  auto writer = writerWithOneEntry(faulty.get());
  auto out = writer->beginAddFile(entryURI("d"), tal::CTimeFields());
  out->write("open entry", 10, nullptr);
  armNext(CFaultyFileSystem::Write);
  expectThrowsSame([&] { writer->close(); }, injected(CFaultyFileSystem::Write));
  expectPutBack();
  expectArchiveClosedOnWrite(*out, uri << entryURI("d"));
  expectWriterClosed(*writer, uri);
}

TEST_P(RollbackTest, FailedCloseInTheDestructor) {
  auto writer = writerWithOneEntry(faulty.get());
  testsupport::addEntry(*writer, "d", "dee");
  armNext(CFaultyFileSystem::Write);
  auto const reports = testsupport::destructorReportsOf([&] { EXPECT_NO_THROW(writer = nullptr); });
  expectPutBack();
  EXPECT_EQ(reports.classes, "ziputil::CZipWriter;");
  EXPECT_EQ(reports.messages, utf8(injected(CFaultyFileSystem::Write).getMessage()) + ";");
}

TEST_P(RollbackTest, FailedRollbackAddsItsErrorToTheFirstFailure) {
  // Once the first fault has fired, the device keeps failing what putting things back needs.
  int const breaks = atomic() ? testsupport::CBrokenAfterFaultFileSystem::BreakRemove
                              : testsupport::CBrokenAfterFaultFileSystem::BreakWrite;
  char const* const rollbackMessage = atomic() ? "Device gone: remove" : "Device gone: write";
  auto broken = tal::newObj<testsupport::CBrokenAfterFaultFileSystem>(faulty.get(), breaks);
  auto writer = writerWithOneEntry(broken.get());
  testsupport::addEntry(*writer, "d", "dee");
  armNext(CFaultyFileSystem::Write); // the central directory
  expectThrowsSame([&] { writer->close(); }, withRollbackError(injected(CFaultyFileSystem::Write), rollbackMessage));
  EXPECT_EQ(broken->failures(), 1);
  expectWriterClosed(*writer, uri);
  if (atomic()) {
    EXPECT_TRUE(memory->getFile(uri) == original); // never touched; the copy could not be removed
    EXPECT_EQ(recording->existing().size(), 2u);
  } else {
    EXPECT_FALSE(memory->getFile(uri) == original); // what could not be put back
  }
}

TEST_P(RollbackTest, AnEntryFailureAfterWhichTheWriterIsDestroyedKeepsWhatItMust) {
  // The owner lets go of the writer after the failure: in place its destructor commits the other entries;
  // replacing atomically, nothing was committed.
  auto writer = writerWithOneEntry(faulty.get());
  armNext(CFaultyFileSystem::Write);
  EXPECT_THROW(writer->beginAddFile(entryURI("d"), tal::CTimeFields()), testsupport::CInjectedError);
  auto const reports = testsupport::destructorReportsOf([&] { writer = nullptr; });
  EXPECT_EQ(reports.classes, ""); // the failure reached its caller: the destructor has nothing to report
  if (atomic())
    expectPutBack();
  else
    EXPECT_EQ(intactEntryNames(memory->getFile(uri)), "a,b,c");
}

TEST_P(RollbackTest, OpensFailingAfterTheFault) {
  // In place, putting the file back opens it: that fails too. Replacing atomically needs no open.
  auto broken =
      tal::newObj<testsupport::CBrokenAfterFaultFileSystem>(faulty.get(), testsupport::CBrokenAfterFaultFileSystem::BreakOpen);
  auto writer = writerWithOneEntry(broken.get());
  armNext(CFaultyFileSystem::Write);
  try {
    writer->close();
    ADD_FAILURE() << "close succeeded";
  } catch (tal::CError const& e) {
    if (atomic())
      expectSameError(e, injected(CFaultyFileSystem::Write));
    else
      expectSameError(e, withRollbackError(injected(CFaultyFileSystem::Write), "Device gone: open"));
  }
  EXPECT_EQ(broken->failures(), atomic() ? 0 : 1);
  if (atomic()) expectPutBack();
  expectWriterClosed(*writer, uri);
}

TEST_P(RollbackTest, DiscardThatCannotPutBackThrowsAndCloses) {
  auto broken = tal::newObj<testsupport::CBrokenAfterFaultFileSystem>(
      faulty.get(), testsupport::CBrokenAfterFaultFileSystem::BreakWrite | testsupport::CBrokenAfterFaultFileSystem::BreakRemove);
  auto writer = writerWithOneEntry(broken.get());
  // The device breaks behind the writer's back: a call of someone else's meets the fault.
  armNext(CFaultyFileSystem::Open);
  EXPECT_THROW(faulty->openStream(uri, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags),
               testsupport::CInjectedError);
  try {
    writer->discard();
    ADD_FAILURE() << "discard succeeded";
  } catch (tal::CError const& e) {
    tal::CIOError const expected(atomic() ? tal::CIOError::DeleteFailed : tal::CIOError::WriteFailed,
                                 tal::String(atomic() ? "Device gone: remove" : "Device gone: write"),
                                 tal::uriProps(tal::CURI(tal::String::fromUTF8(target()))), nullptr);
    expectSameError(e, expected);
  }
  EXPECT_EQ(broken->failures(), 1);
  expectWriterClosed(*writer, uri);
  EXPECT_NO_THROW(writer->discard());
  if (atomic()) {
    EXPECT_TRUE(memory->getFile(uri) == original);
  }
}

TEST_P(RollbackTest, AnEmptyFileIsPutBackEmpty) {
  // minizip adds to an empty file as to an archive without entries.
  memory->setFile(uri, std::string());
  original.clear();
  auto writer = writerWithOneEntry(faulty.get());
  armNext(CFaultyFileSystem::Write);
  EXPECT_THROW(writer->close(), testsupport::CInjectedError);
  expectPutBack();
  faulty->reset();
  auto again = writerWithOneEntry(faulty.get());
  again->close();
  EXPECT_EQ(intactEntryNames(memory->getFile(uri)), "c");
}

TEST_P(RollbackTest, AStubInFrontOfTheArchiveStaysAndIsPutBack) {
  // A self-extracting stub: the archive's offsets do not count the bytes in front of it.
  original = noise(3000, 11) + original;
  memory->setFile(uri, original);
  auto writer = writerWithOneEntry(faulty.get());
  testsupport::addEntry(*writer, "d", "dee");
  armNext(CFaultyFileSystem::Write);
  EXPECT_THROW(writer->close(), testsupport::CInjectedError);
  expectPutBack();
  faulty->reset();
  auto again = writerWithOneEntry(faulty.get());
  again->close();
  std::string const now = memory->getFile(uri);
  std::size_t const oldCentral = 3000 + recordsOf(original.substr(3000)).centralOffset;
  EXPECT_EQ(now.compare(0, oldCentral, original, 0, oldCentral), 0);
  EXPECT_EQ(intactEntryNames(now), "a,b,c");
}

INSTANTIATE_TEST_SUITE_P(Modes, RollbackTest, ::testing::Values(false, true),
                         [](auto const& info) { return std::string(info.param ? "Atomic" : "InPlace"); });

/// In place, a failed entry is taken back alone: what the writer then does.
class InPlaceFailureTest : public RollbackTest {};

TEST_P(InPlaceFailureTest, TheArchiveIsOpenedOnceForReadingAndWritingWithoutCreate) {
  recording->clear();
  auto writer = writerWithOneEntry(recording.get());
  testsupport::addEntry(*writer, "d", "dee");
  writer->close();
  EXPECT_EQ(recording->openCalls(), std::vector<std::string>{"mem:/rollback.zip access 3 flags 0"});
  EXPECT_EQ(intactEntryNames(memory->getFile(uri)), "a,b,c,d");
}

TEST_P(InPlaceFailureTest, AfterAFailedBeginAddFileAFailedCloseThrowsTheFileSystemsNewError) {
  auto writer = writerWithOneEntry(faulty.get());
  armNext(CFaultyFileSystem::Write);
  EXPECT_THROW(writer->beginAddFile(entryURI("d"), tal::CTimeFields()), testsupport::CInjectedError);
  armNext(CFaultyFileSystem::Write); // the central directory
  expectThrowsSame([&] { writer->close(); }, injected(CFaultyFileSystem::Write)); // the second fault, not the first
  expectPutBack();
  expectWriterClosed(*writer, uri);
}

TEST_P(InPlaceFailureTest, WritesAfterAFailedWriteGoOnButTheEntryIsNotKept) {
  auto writer = writerWithOneEntry(faulty.get());
  auto out = writer->beginAddFile(entryURI("d"), tal::CTimeFields());
  std::string const data = noise(100000, 4);
  armNext(CFaultyFileSystem::Write);
  long long const firstFault = armedN;
  EXPECT_THROW(out->write(data.data(), static_cast<int>(data.size()), nullptr), testsupport::CInjectedError);
  out->write("more", 4, nullptr); // minizip takes it: the position moves on
  EXPECT_EQ(out->getPosition(), 4);
  armedN = firstFault;
  expectThrowsSame([&] { out->close(); }, injected(CFaultyFileSystem::Write)); // the first failure
  expectAfterEntryFailure(*writer, injected(CFaultyFileSystem::Write));
}

TEST_P(InPlaceFailureTest, ClosingTheWriterLeavesOutAnOpenEntryWhoseWriteFailed) {
  auto writer = writerWithOneEntry(faulty.get());
  auto out = writer->beginAddFile(entryURI("d"), tal::CTimeFields());
  std::string const data = noise(100000, 4);
  armNext(CFaultyFileSystem::Write);
  EXPECT_THROW(out->write(data.data(), static_cast<int>(data.size()), nullptr), testsupport::CInjectedError);
  writer->close();
  EXPECT_EQ(intactEntryNames(memory->getFile(uri)), "a,b,c");
  tal::CIOError const cause(tal::CIOError::WriteFailed,
                            tal::String("Cannot close file in ZIP archive - archive has already been closed"),
                            tal::uriProps(uri << entryURI("d")), nullptr);
  expectThrowsSame([&] { out->close(); }, tal::CFileSystemError(tal::CFileSystemError::Unspecified, cause));
}

TEST_P(InPlaceFailureTest, AnEntryThatCannotBeTakenBackPutsTheWholeFileBack) {
  auto writer = writerWithOneEntry(faulty.get());
  auto out = writer->beginAddFile(entryURI("d"), tal::CTimeFields());
  std::string const data = noise(100000, 4);
  armNext(CFaultyFileSystem::Write);
  long long const writeFault = armedN;
  EXPECT_THROW(out->write(data.data(), static_cast<int>(data.size()), nullptr), testsupport::CInjectedError);
  armNext(CFaultyFileSystem::Seek); // the seek back to where the entry began
  try {
    out->close();
    ADD_FAILURE() << "the spoiled entry's close succeeded";
  } catch (tal::CError const& e) {
    armedN = writeFault;
    expectSameError(e, injected(CFaultyFileSystem::Write)); // the entry's own failure, unchanged
  }
  expectPutBack();
  expectGaveUp(*writer, uri, injected(CFaultyFileSystem::Write));
}

TEST_P(InPlaceFailureTest, AFailedCopyOfAnEntryIsTakenBack) {
  // copyFileFrom: the reader fails under the unfinished entry (its archive's file is gone).
  tal::CURI const source(tal::String("mem:/source.zip"));
  auto sourceWriter = testsupport::newArchiveWriter(memory.get(), source);
  testsupport::addEntry(*sourceWriter, "x", noise(200000, 7));
  sourceWriter->close();
  auto sourceFaulty = tal::newObj<CFaultyFileSystem>(memory.get());
  auto reader = tal::newObj<ziputil::CZipReader>(sourceFaulty.get(), source, tal::String());
  ASSERT_TRUE(reader->nextFile());
  auto writer = writerWithOneEntry(faulty.get());
  sourceFaulty->failNth(CFaultyFileSystem::Read, sourceFaulty->count(CFaultyFileSystem::Read) + 3);
  try {
    writer->copyFileFrom(*reader);
    ADD_FAILURE() << "the copy succeeded";
  } catch (tal::CError const& e) {
    EXPECT_EQ(typeid(e), typeid(testsupport::CInjectedError)) << e.what();
  }
  EXPECT_TRUE(sourceFaulty->fired());
  testsupport::addEntry(*writer, "e", "after the failure");
  writer->close();
  EXPECT_EQ(intactEntryNames(memory->getFile(uri)), "a,b,c,e");
}

INSTANTIATE_TEST_SUITE_P(Modes, InPlaceFailureTest, ::testing::Values(false),
                         [](auto const&) { return std::string("InPlace"); });

// ---- a full disk --------------------------------------------------------------

class DiskFullTest : public ::testing::TestWithParam<bool> {
protected:
  DiskFullTest() {
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    testsupport::addEntry(*writer, "a", std::string(20000, 'a'));
    testsupport::addEntry(*writer, "b", noise(30000, 2));
    writer->close();
    original = memory->getFile(uri);
  }

  /// Adds the entry "big" through `fs`; returns the error that stopped it (null when none did), the call that
  /// failed going to `failed`. Afterwards, in place, a failed entry is closed (reporting the same failure) and
  /// the writer closed (which succeeds: nothing of the entry is left to write); replacing atomically, the
  /// writer gave up everything.
  tal::P<tal::CError> addBig(tal::IFileSystem* fs, std::string* failed = nullptr) {
    tal::P<CZipWriter> writer;
    tal::P<tal::IOutStream> out;
    std::string const big = noise(200000, 5);
    int step = 0;
    try {
      writer = openWriter(fs, uri, GetParam());
      step = 1;
      out = writer->beginAddFile(entryURI("big"), tal::CTimeFields());
      step = 2;
      for (std::size_t at = 0; at < big.size(); at += 20000) out->write(big.data() + at, 20000, nullptr);
      step = 3;
      out->close();
      step = 4;
      writer->close();
      return nullptr;
    } catch (tal::CError const& e) {
      if (failed) *failed = std::vector<std::string>{"construct", "begin", "write", "streamClose", "writerClose"}.at(step);
      if (GetParam() && step == 2) expectArchiveClosedOnWrite(*out, uri << entryURI("big"));
      if (!GetParam() && step == 2) {
        try {
          out->close();
          ADD_FAILURE() << "the spoiled entry's close succeeded";
        } catch (tal::CError const& again) {
          expectSameError(again, e);
        }
      }
      if (writer && (step == 4 || GetParam()) && step > 0) {
        if (step == 4)
          expectWriterClosed(*writer, uri);
        else
          expectGaveUp(*writer, uri, e);
      } else if (writer) {
        EXPECT_NO_THROW(writer->close());
      }
      return e.clone();
    }
  }

  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI uri{tal::String("mem:/full.zip")};
  std::string original;
};

TEST_P(DiskFullTest, AnEntryBiggerThanTheRoomLeftChangesNothing) {
  long long const plenty = 1LL << 40;
  auto measuring = tal::newObj<testsupport::CDiskFullFileSystem>(memory.get(), plenty);
  ASSERT_EQ(addBig(measuring.get()), nullptr);
  long long const needed = plenty - measuring->lowestRoom(); // the most the add held at once
  ASSERT_GT(needed, 200000);
  std::string const added = memory->getFile(uri);

  std::vector<long long> rooms{0, 1, 22, 1000, 65536, 65537};
  for (int i = 1; i < 8; ++i) rooms.push_back(needed * i / 8);
  rooms.push_back(needed - 22);
  rooms.push_back(needed - 1);
  std::set<std::string> failedCalls;
  for (long long const room : rooms) {
    SCOPED_TRACE("room " + std::to_string(room) + " of " + std::to_string(needed));
    memory->setFile(uri, original);
    auto disk = tal::newObj<testsupport::CDiskFullFileSystem>(memory.get(), room);
    std::string failed;
    tal::P<tal::CError> const error = addBig(disk.get(), &failed);
    ASSERT_NE(error, nullptr);
    failedCalls.insert(failed);
    EXPECT_EQ(disk->refusals(), 1);
    EXPECT_EQ(utf8(error->getMessage()), "No space left on device");
    EXPECT_EQ(error->getCode(), tal::CIOError::WriteFailed);
    std::string const failedURI = utf8(error->getProps().get("uri"));
    if (GetParam()) {
      EXPECT_TRUE(isCopyOf(failedURI, uri)) << failedURI; // the copy is what fills the disk
      expectSameError(*error, testsupport::CDiskFullFileSystem::diskFullError(tal::CURI(tal::String::fromUTF8(failedURI))));
    } else {
      expectSameError(*error, testsupport::CDiskFullFileSystem::diskFullError(uri));
    }
    EXPECT_TRUE(memory->getFile(uri) == original);
    EXPECT_EQ(disk->room(), room); // everything written was given back
  }
  // The disk fills up at different calls: while the copy is made, while the entry is written, while it is
  // finished, and while the central directory is written.
  std::set<std::string> expected{"write", "streamClose", "writerClose"};
  if (GetParam()) expected.insert("construct");
  EXPECT_EQ(failedCalls, expected);
  memory->setFile(uri, original);
  auto disk = tal::newObj<testsupport::CDiskFullFileSystem>(memory.get(), needed);
  EXPECT_EQ(addBig(disk.get()), nullptr);
  EXPECT_EQ(disk->refusals(), 0);
  EXPECT_TRUE(memory->getFile(uri) == added);
}

INSTANTIATE_TEST_SUITE_P(Modes, DiskFullTest, ::testing::Values(false, true),
                         [](auto const& info) { return std::string(info.param ? "Atomic" : "InPlace"); });

// ---- atomic replacement ---------------------------------------------------------

class AtomicReplaceTest : public ::testing::Test {
protected:
  AtomicReplaceTest() {
    auto writer = testsupport::newArchiveWriter(fs.get(), uri);
    testsupport::addEntry(*writer, "a", std::string(20000, 'a'));
    testsupport::addEntry(*writer, "b", noise(30000, 2));
    writer->close();
    original = read();
  }

  std::string read() const { return testsupport::readFile(dir.file("atomic.zip")); }
  std::vector<std::string> folder() const { return testsupport::listFolder(dir.path()); }
  /// The one copy beside the archive; fails when there is not exactly one.
  std::string copyName() const {
    std::vector<std::string> const names = folder();
    EXPECT_EQ(names.size(), 2u);
    for (std::string const& name : names)
      if (name != "atomic.zip") return name;
    return std::string();
  }

  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  tal::CURI uri = dir.uri("atomic.zip");
  std::string original;
};

TEST_F(AtomicReplaceTest, TheArchiveChangesOnlyAtClose) {
  auto writer = openWriter(fs.get(), uri, true);
  EXPECT_EQ(read(), original);
  std::string const copy = copyName();
  EXPECT_TRUE(isCopyOf(utf8(dir.uri(copy).toString(true)), uri)) << copy;
  auto out = writer->beginAddFile(entryURI("c"), tal::CTimeFields());
  EXPECT_EQ(read(), original);
  std::string const data = noise(300000, 6);
  for (std::size_t at = 0; at < data.size(); at += 50000) {
    out->write(data.data() + at, 50000, nullptr);
    EXPECT_EQ(read(), original);
  }
  out->close();
  EXPECT_EQ(read(), original);
  testsupport::addEntry(*writer, "d", "dee");
  EXPECT_EQ(read(), original);
  EXPECT_EQ(folder(), (std::vector<std::string>{"atomic.zip", copy}));
  writer->close();
  EXPECT_EQ(folder(), std::vector<std::string>{"atomic.zip"});
  std::string const now = read();
  std::size_t const oldCentral = recordsOf(original).centralOffset;
  EXPECT_EQ(now.compare(0, oldCentral, original, 0, oldCentral), 0); // the old entries' bytes, at the same offsets
  EXPECT_EQ(recordsOf(now).headers.size(), 4u);
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("atomic.zip")}), std::vector<std::string>{"a,b,c,d None"});
}

TEST_F(AtomicReplaceTest, InPlaceKeepsTheOldEntriesAtTheirOffsetsToo) {
  auto writer = openWriter(fs.get(), uri, false);
  testsupport::addEntry(*writer, "c", "cee");
  writer->close();
  std::size_t const oldCentral = recordsOf(original).centralOffset;
  EXPECT_EQ(read().compare(0, oldCentral, original, 0, oldCentral), 0);
  EXPECT_EQ(folder(), std::vector<std::string>{"atomic.zip"});
}

TEST_F(AtomicReplaceTest, FailuresLeaveTheArchiveAndNoCopy) {
  // A sample on the local disk; writer_faults_test goes through every call.
  auto faulty = tal::newObj<CFaultyFileSystem>(fs.get());
  struct Fault {
    CFaultyFileSystem::Op op;
    long long n;
  };
  for (Fault const& fault : {Fault{CFaultyFileSystem::Write, 1}, Fault{CFaultyFileSystem::Write, 2},
                             Fault{CFaultyFileSystem::Write, 5}, Fault{CFaultyFileSystem::Read, 3},
                             Fault{CFaultyFileSystem::Close, 1}, Fault{CFaultyFileSystem::Close, 3},
                             Fault{CFaultyFileSystem::Sync, 1}, Fault{CFaultyFileSystem::Move, 1}}) {
    SCOPED_TRACE(std::string(CFaultyFileSystem::opName(fault.op)) + " #" + std::to_string(fault.n));
    faulty->reset();
    faulty->failNth(fault.op, fault.n);
    bool threw = false;
    try {
      auto writer = openWriter(faulty.get(), uri, true);
      testsupport::addEntry(*writer, "c", noise(100000, 8));
      writer->close();
    } catch (testsupport::CInjectedError const& e) {
      threw = true;
      EXPECT_EQ(utf8(e.getMessage()), utf8(CFaultyFileSystem::injectedError(fault.op, fault.n, uri).getMessage()));
    }
    EXPECT_TRUE(faulty->fired());
    EXPECT_TRUE(threw);
    EXPECT_EQ(read(), original);
    EXPECT_EQ(folder(), std::vector<std::string>{"atomic.zip"});
  }
}

TEST_F(AtomicReplaceTest, AFileSystemWithoutSyncOrMove) {
  { // without sync the copy cannot be made durable: refused at construction, before any entry is written
    auto basic = tal::newObj<testsupport::CBasicFileSystem>(fs.get(), false);
    try {
      openWriter(basic.get(), uri, true);
      ADD_FAILURE() << "the writer opened";
    } catch (tal::CFileSystemError const& e) { // about the copy, which is gone again: its name is random
      EXPECT_EQ(typeid(e), typeid(tal::CFileSystemError));
      EXPECT_EQ(utf8(e.getMessage()), "This file system does not support sync.");
      EXPECT_EQ(e.getCode(), -1);
      EXPECT_EQ(e.getProps().size(), 2u);
      EXPECT_EQ(utf8(e.getProps().get("fileSysProblem")), "6");
      std::string const copy = utf8(e.getProps().get("uri"));
      std::string const prefix = utf8(uri.toString(true)) + ".tmp-";
      EXPECT_EQ(copy.substr(0, prefix.size()), prefix);
      EXPECT_EQ(copy.size(), prefix.size() + 16);
    }
    EXPECT_EQ(read(), original);
    EXPECT_EQ(folder(), std::vector<std::string>{"atomic.zip"});
  }
  // without move, close() cannot put the new archive in place
  auto basic = tal::newObj<testsupport::CBasicFileSystem>(fs.get(), true);
  auto writer = openWriter(basic.get(), uri, true);
  testsupport::addEntry(*writer, "c", "cee");
  tal::CURI const copy = dir.uri(copyName());
  try {
    writer->close();
    ADD_FAILURE() << "close succeeded";
  } catch (tal::CError const& e) {
    tal::CError const refusal(tal::String("This file system does not support move."), tal::String(), -1,
                              tal::uriProps(copy), nullptr);
    expectSameError(e, tal::CFileSystemError(tal::CFileSystemError::NotSupported, refusal));
  }
  EXPECT_EQ(read(), original);
  EXPECT_EQ(folder(), std::vector<std::string>{"atomic.zip"});
  expectWriterClosed(*writer, uri);
}

TEST_F(AtomicReplaceTest, CloseCutsOffWhatTheOldDirectoryAndCommentLeftBehind) {
  // A long archive comment: the new entry and directory take less room than the old directory and comment.
  std::string commented = original;
  putLittle(commented, commented.size() - 2, 5000, 2);
  commented += std::string(5000, '#');
  for (bool const atomic : {false, true}) {
    SCOPED_TRACE(atomic ? "atomic" : "in place");
    testsupport::writeFile(dir.file("atomic.zip"), commented);
    auto writer = openWriter(fs.get(), uri, atomic);
    testsupport::addEntry(*writer, "c", "c");
    writer->close();
    std::string const now = read();
    ASSERT_LT(now.size(), commented.size());
    Records const records = recordsOf(now); // the end record, without comment, ends the file
    EXPECT_EQ(little(now, records.end + 20, 2), 0u);
    EXPECT_EQ(records.headers.size(), 3u);
    EXPECT_EQ(records.centralOffset + records.centralSize, records.end);
    std::size_t const oldCentral = recordsOf(original).centralOffset;
    EXPECT_EQ(now.compare(0, oldCentral, original, 0, oldCentral), 0);
    EXPECT_EQ(testsupport::runPython("import sys,zipfile; z=zipfile.ZipFile(sys.argv[1]);"
                                     " print(z.namelist(), z.testzip(), repr(z.comment))",
                                     {dir.file("atomic.zip")}),
              "['a', 'b', 'c'] None b''\n");
  }
}

// ---- discard ------------------------------------------------------------------------

TEST_F(AtomicReplaceTest, DiscardInPlacePutsTheFileBack) {
  auto writer = openWriter(fs.get(), uri, false);
  testsupport::addEntry(*writer, "c", noise(100000, 9));
  auto out = writer->beginAddFile(entryURI("d"), tal::CTimeFields());
  out->write("open", 4, nullptr);
  EXPECT_NE(read(), original);
  writer->discard();
  EXPECT_EQ(read(), original);
  expectArchiveClosedOnWrite(*out, uri << entryURI("d"));
  expectWriterClosed(*writer, uri);
  EXPECT_NO_THROW(writer->discard());
  EXPECT_EQ(read(), original);
  EXPECT_EQ(folder(), std::vector<std::string>{"atomic.zip"});
}

TEST_F(AtomicReplaceTest, DiscardRemovesTheCopy) {
  auto writer = openWriter(fs.get(), uri, true);
  testsupport::addEntry(*writer, "c", "cee");
  auto out = writer->beginAddFile(entryURI("d"), tal::CTimeFields());
  out->write("open", 4, nullptr);
  EXPECT_EQ(folder().size(), 2u);
  writer->discard();
  EXPECT_EQ(folder(), std::vector<std::string>{"atomic.zip"});
  EXPECT_EQ(read(), original);
  expectArchiveClosedOnWrite(*out, uri << entryURI("d"));
  expectWriterClosed(*writer, uri);
  EXPECT_NO_THROW(writer->discard());
  EXPECT_EQ(read(), original);
}

TEST_F(AtomicReplaceTest, DiscardAfterCloseDoesNothing) {
  for (bool const atomic : {false, true}) {
    SCOPED_TRACE(atomic ? "atomic" : "in place");
    auto writer = openWriter(fs.get(), uri, atomic);
    testsupport::addEntry(*writer, atomic ? "atomic" : "inPlace", "new");
    writer->close();
    std::string const closed = read();
    writer->discard();
    writer->discard();
    EXPECT_EQ(read(), closed);
    EXPECT_EQ(folder(), std::vector<std::string>{"atomic.zip"});
  }
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("atomic.zip")}), std::vector<std::string>{"a,b,inPlace,atomic None"});
}

} // namespace
