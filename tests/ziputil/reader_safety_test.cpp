// The reader on hostile and damaged archives, built at test time: methods it
// cannot decompress, entries whose data lies about its size or CRC-32,
// overlapping and disagreeing records, damaged end records, names in legacy
// encodings.
#include "ziputil/ArchiveCheck.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"

#include <gtest/gtest.h>

using testsupport::entryURI;
using testsupport::runPython;
using testsupport::utf8;
using ziputil::CZipReader;

namespace {

/// Python helpers shared by the archive builders below: `patch` edits bytes in
/// place, `central`/`local` find the n-th header of each kind.
char const* const kPythonHelpers = R"(
import io, struct, sys, zipfile
def central(data, n=0):
    at = -1
    for _ in range(n + 1):
        at = data.index(b"PK\x01\x02", at + 1)
    return at
def local(data, n=0):
    at = -1
    for _ in range(n + 1):
        at = data.index(b"PK\x03\x04", at + 1)
    return at
def put(data, at, fmt, value):
    data[at:at + struct.calcsize(fmt)] = struct.pack(fmt, value)
)";

std::string repeat(std::string const& text, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) result += text;
  return result;
}

class ReaderSafetyTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();

  /// Runs `body` (Python, after the helpers) with the archive's path as sys.argv[1].
  tal::CURI build(std::string const& name, std::string const& body) {
    runPython(std::string(kPythonHelpers) + body, {dir.file(name)});
    return dir.uri(name);
  }
  tal::P<CZipReader> open(tal::CURI const& uri, bool verify, char const* password = "") {
    CZipReader::Options options;
    options.verifyEntries = verify;
    return tal::newObj<CZipReader>(fs.get(), uri, tal::String(password), options);
  }
  std::string entryText(tal::CURI const& archive, std::string const& entry) {
    return utf8((archive << entryURI(entry)).toString(true));
  }
  static std::string readAll(tal::IInStream& in, int chunk = 4096) {
    std::string data;
    std::string buffer(static_cast<std::size_t>(chunk), '\0');
    while (int n = in.readLax(&buffer[0], chunk)) data.append(buffer, 0, static_cast<std::size_t>(n));
    return data;
  }
};

/// The error a verifying entry stream raises.
void expectVerifyError(tal::CFileSystemError const& e, std::string const& message, std::string const& uri) {
  EXPECT_EQ(typeid(e), typeid(tal::CFileSystemError));
  EXPECT_EQ(utf8(e.getMessage()), message);
  EXPECT_EQ(utf8(e.getContext()), "IO");
  EXPECT_EQ(e.getCode(), tal::CIOError::ReadFailed);
  EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", tal::String::fromUTF8(uri)}, {"fileSysProblem", "0"}}));
  EXPECT_EQ(e.getCause(), nullptr);
}

/// The error of a damaged archive found by the layout check.
/// checkArchiveEntries' answer, as "<number> <name> @<offset>: <what>" lines.
std::vector<std::string> entryProblems(tal::IFileSystem* fs, tal::CURI const& uri) {
  std::vector<std::string> lines;
  for (ziputil::EntryLayoutProblem const& problem : ziputil::checkArchiveEntries(fs, uri))
    lines.push_back(std::to_string(problem.number) + " " + problem.name + " @" + std::to_string(problem.offset) +
                    ": " + problem.what);
  return lines;
}

void expectDamaged(tal::CError const& e, std::string const& what, long long offset, tal::CURI const& uri) {
  EXPECT_EQ(typeid(e), typeid(tal::CError));
  EXPECT_EQ(utf8(e.getMessage()), "Damaged archive: " + what + ".");
  EXPECT_EQ(utf8(e.getContext()), "");
  EXPECT_EQ(e.getCode(), -1);
  EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", uri.toString(true)},
                                       {"offset", tal::String(std::to_string(offset).c_str())}}));
}

// ---- methods the reader cannot decompress ----------------------------------------

TEST_F(ReaderSafetyTest, PpmdAndImplodedEntriesAreRefusedNotHandedOutRaw) {
  tal::CURI const uri = build("methods.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_STORED) as z:
    z.writestr("p.txt", b"ppmd " * 100)
    z.writestr("i.txt", b"implode " * 100)
    z.writestr("d.txt", b"deflate " * 100, zipfile.ZIP_DEFLATED)
data = bytearray(open(sys.argv[1], "rb").read())
for n, method in ((0, 98), (1, 6)):
    put(data, local(data, n) + 8, "<H", method)
    put(data, central(data, n) + 10, "<H", method)
open(sys.argv[1], "wb").write(data)
)");
  for (char const* password : {"", "pw"}) {
    auto reader = open(uri, false, password);
    for (int expectedMethod : {98, 6}) {
      ASSERT_TRUE(reader->nextFile());
      EXPECT_EQ(reader->getCurrentFileMethod(), expectedMethod);
      try {
        reader->openCurrentFileStream();
        FAIL() << "an entry of method " << expectedMethod << " opened";
      } catch (tal::CFileSystemError const& e) {
        EXPECT_EQ(typeid(e), typeid(tal::CFileSystemError));
        EXPECT_EQ(utf8(e.getMessage()),
                  *password ? "unzOpenCurrentFilePassword failed" : "unzOpenCurrentFile failed");
        EXPECT_EQ(e.getCode(), -1);
        EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", uri.toString(true)}, {"result", "-107"}, {"fileSysProblem", "0"}}));
      }
    }
    ASSERT_TRUE(reader->nextFile()); // the reader moves on, and reads what it can
    EXPECT_EQ(reader->getCurrentFileMethod(), 8);
    auto in = reader->openCurrentFileStream();
    EXPECT_EQ(readAll(*in), repeat("deflate ", 100));
    in->close();
    EXPECT_FALSE(reader->nextFile());
    EXPECT_EQ(reader->getCurrentFileMethod(), -1);
    reader->close();
  }
}

// ---- entries whose data lies -----------------------------------------------------

TEST_F(ReaderSafetyTest, VerificationRaisesACrcMismatchAtTheEnd) {
  tal::CURI const uri = build("crc.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_STORED) as z:
    z.writestr("s.txt", b"stored bytes here")
data = bytearray(open(sys.argv[1], "rb").read())
data[local(data) + 30 + 5] ^= 0x20            # "stored" becomes "Stored"
open(sys.argv[1], "wb").write(data)
)");
  {
    auto reader = open(uri, false); // the default reads what is there, unchecked
    ASSERT_TRUE(reader->nextFile());
    auto in = reader->openCurrentFileStream();
    EXPECT_EQ(readAll(*in), "Stored bytes here");
    in->close();
  }
  auto reader = open(uri, true);
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  char buffer[64];
  EXPECT_EQ(in->readLax(buffer, 5), 5); // not yet at the end
  try {
    in->readLax(buffer, 64);
    FAIL() << "the read that reached the end did not throw";
  } catch (tal::CFileSystemError const& e) {
    expectVerifyError(e, "ZIP entry's CRC-32 does not match: computed " + runPython(R"(
import zlib; print("%08x, stored %08x" % (zlib.crc32(b"Stored bytes here"), zlib.crc32(b"stored bytes here")), end="")
)") , entryText(uri, "s.txt"));
  }
  try { // and every later read
    in->readLax(buffer, 64);
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(utf8(e.getMessage()).substr(0, 35), "ZIP entry's CRC-32 does not match: ");
  }
  in->close();
  EXPECT_FALSE(reader->nextFile());
}

TEST_F(ReaderSafetyTest, VerificationFindsDataGoingOnPastTheStoredSize) {
  // Declares 10 bytes, inflates to 10 MiB: the stream hands out 10 bytes, then raises.
  tal::CURI const uri = build("lying.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED) as z:
    z.writestr("bomb.bin", bytes(10 << 20))
data = bytearray(open(sys.argv[1], "rb").read())
put(data, local(data) + 22, "<I", 10)
put(data, central(data) + 24, "<I", 10)
open(sys.argv[1], "wb").write(data)
)");
  {
    auto reader = open(uri, false);
    ASSERT_TRUE(reader->nextFile());
    auto in = reader->openCurrentFileStream();
    EXPECT_EQ(readAll(*in), std::string(10, '\0'));
    in->close();
  }
  auto reader = open(uri, true);
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileUncompressedSize(), 10);
  auto in = reader->openCurrentFileStream();
  char buffer[10];
  try {
    in->read(buffer, 10); // the read that returns the last stored byte checks the end
    FAIL() << "no error";
  } catch (tal::CFileSystemError const& e) {
    expectVerifyError(e, "ZIP entry's data does not end at its stored size of 10 bytes", entryText(uri, "bomb.bin"));
  }
  in->close();
}

TEST_F(ReaderSafetyTest, VerificationFindsAnEntryShorterThanItsStoredSize) {
  tal::CURI const uri = build("short.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED) as z:
    z.writestr("s.txt", b"0123456789")
data = bytearray(open(sys.argv[1], "rb").read())
put(data, local(data) + 22, "<I", 15)
put(data, central(data) + 24, "<I", 15)
open(sys.argv[1], "wb").write(data)
)");
  auto reader = open(uri, true);
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  try {
    readAll(*in, 4);
    FAIL() << "no error";
  } catch (tal::CFileSystemError const& e) {
    expectVerifyError(e, "ZIP entry is shorter than its stored size: 10 of 15 bytes", entryText(uri, "s.txt"));
  }
  EXPECT_EQ(in->getPosition(), 10);
  in->close();
}

TEST_F(ReaderSafetyTest, VerificationPassesGoodEntriesOfEveryKind) {
  tal::CURI const uri = build("good.zip", R"(
import os
raw = io.BytesIO()
class Unseekable(io.RawIOBase):           # makes zipfile stream its entries (data descriptors)
    def writable(self): return True
    def write(self, b): return raw.write(b)
with zipfile.ZipFile(Unseekable(), "w", zipfile.ZIP_DEFLATED) as z:
    z.writestr("streamed.bin", os.urandom(70000))
    z.writestr("empty.txt", b"")
    z.writestr("folder/", b"")
open(sys.argv[1], "wb").write(raw.getvalue())
)");
  auto reader = open(uri, true);
  int entries = 0;
  while (reader->nextFile()) {
    auto in = reader->openCurrentFileStream();
    EXPECT_EQ(static_cast<long long>(readAll(*in, 1000).size()), reader->getCurrentFileUncompressedSize());
    in->close();
    ++entries;
  }
  EXPECT_EQ(entries, 3);
  EXPECT_NO_THROW(ziputil::checkArchiveLayout(fs.get(), uri));

  // And what the project's own writer makes, with and without a password.
  for (char const* password : {"", "secret"}) {
    tal::CURI const own = dir.uri(std::string("own") + (*password ? "-pw" : "") + ".zip");
    auto writer = testsupport::newArchiveWriter(fs.get(), own, password, 6);
    testsupport::addEntry(*writer, "a.txt", repeat("alpha ", 5000));
    testsupport::addEntry(*writer, "b.txt", "");
    writer->close();
    auto check = open(own, true, password);
    while (check->nextFile()) {
      auto in = check->openCurrentFileStream();
      EXPECT_NO_THROW(readAll(*in));
      in->close();
    }
    EXPECT_NO_THROW(ziputil::checkArchiveLayout(fs.get(), own));
  }
}

TEST_F(ReaderSafetyTest, VerificationPassesStoredEncryptedEntries) {
  // The 12-byte encryption header counts against the entry's compressed bytes: nothing lies past its end.
  testsupport::writeFile(dir.file("plain.txt"), "stored and encrypted");
  std::string output;
  ASSERT_EQ(testsupport::runCommand("cd " + testsupport::shellQuote(dir.path()) +
                                        " && zip -q -0 -P secret stored-secret.zip plain.txt plain.txt",
                                    &output),
            0)
      << output;
  auto reader = open(dir.uri("stored-secret.zip"), true, "secret");
  ASSERT_TRUE(reader->nextFile());
  EXPECT_TRUE(reader->isCurrentFileEncrypted());
  EXPECT_EQ(reader->getCurrentFileMethod(), 0);
  auto in = reader->openCurrentFileStream();
  EXPECT_EQ(readAll(*in, 7), "stored and encrypted");
  in->close();
}

TEST_F(ReaderSafetyTest, VerificationTellsSizesOf2To63AndMoreUnsigned) {
  // Written by hand: a stored entry of 3 bytes whose Zip64 field states 2^63 bytes.
  tal::CURI const uri = build("huge.zip", R"(
import zlib
name, data = b"huge.bin", b"abc"
crc = zlib.crc32(data)
extra = struct.pack("<HHQ", 1, 8, 1 << 63)           # Zip64: the uncompressed size alone
local = struct.pack("<IHHHHHIIIHH", 0x04034b50, 45, 0, 0, 0, 0x21, crc, 3, 0xffffffff, len(name), len(extra))
central = struct.pack("<IHHHHHHIIIHHHHHII", 0x02014b50, 45, 45, 0, 0, 0, 0x21, crc, 3, 0xffffffff, len(name),
                      len(extra), 0, 0, 0, 0, 0)
body = local + name + extra + data
directory = central + name + extra
end = struct.pack("<IHHHHIIH", 0x06054b50, 0, 0, 1, 1, len(directory), len(body), 0)
open(sys.argv[1], "wb").write(body + directory + end)
)");
  auto reader = open(uri, true);
  ASSERT_TRUE(reader->nextFile());
  auto in = reader->openCurrentFileStream();
  try {
    readAll(*in);
    FAIL() << "no error";
  } catch (tal::CFileSystemError const& e) {
    expectVerifyError(e, "ZIP entry is shorter than its stored size: 3 of 9223372036854775808 bytes",
                      entryText(uri, "huge.bin"));
  }
  in->close();
}

// ---- the layout check ---------------------------------------------------------------

TEST_F(ReaderSafetyTest, LayoutCheckFindsEntriesSharingLocalData) {
  // The zip-bomb construction: several central entries point at one local record.
  tal::CURI const uri = build("overlap.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED) as z:
    z.writestr("k", bytes(100000))
data = bytearray(open(sys.argv[1], "rb").read())
c = central(data)
end = data.index(b"PK\x05\x06")
header = bytes(data[c:end])
data[c:end] = header * 3
put(data, c + 3 * len(header) + 8, "<H", 3)
put(data, c + 3 * len(header) + 10, "<H", 3)
put(data, c + 3 * len(header) + 12, "<I", 3 * len(header))
open(sys.argv[1], "wb").write(data)
)");
  {
    auto reader = open(uri, false); // the reader itself walks three entries
    int entries = 0;
    while (reader->nextFile()) ++entries;
    EXPECT_EQ(entries, 3);
  }
  try {
    ziputil::checkArchiveLayout(fs.get(), uri);
    FAIL() << "overlap not found";
  } catch (tal::CError const& e) {
    expectDamaged(e, "the records of entries 1 and 2 overlap", 0, uri);
  }
  // Entry by entry, every one of them is refused: none can be told from the others.
  EXPECT_EQ(entryProblems(fs.get(), uri), (std::vector<std::string>{"1 k @0: its record overlaps that of entry 2",
                                                                     "2 k @0: its record overlaps that of entry 1",
                                                                     "3 k @0: its record overlaps that of entry 1"}));
}

TEST_F(ReaderSafetyTest, LayoutCheckFindsLocalHeadersThatDisagree) {
  struct Case {
    char const* what;
    char const* edit; // on `data`, with `second` the offset of the second entry's local header
    std::string message;
    std::string entryMessage; // checkArchiveEntries' words for the entry
  };
  std::string const disagrees = "the local header of entry 2 disagrees with its central header on the ";
  std::string const itsDisagrees = "its local header disagrees with its central header on the ";
  Case const cases[] = {
      {"name", "data[second + 30] = ord('X')", disagrees + "name", itsDisagrees + "name"},
      {"method", "put(data, second + 8, '<H', 0)", disagrees + "compression method", itsDisagrees + "compression method"},
      {"crc", "put(data, second + 14, '<I', 1)", disagrees + "CRC-32", itsDisagrees + "CRC-32"},
      {"compressed", "put(data, second + 18, '<I', 1)", disagrees + "compressed size", itsDisagrees + "compressed size"},
      {"uncompressed", "put(data, second + 22, '<I', 1)", disagrees + "uncompressed size",
       itsDisagrees + "uncompressed size"},
      {"signature", "data[second] = ord('X')", "entry 2 has no local header", "it has no local header"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    std::string const name = std::string("disagree-") + c.what + ".zip";
    std::string const offset = runPython(std::string(kPythonHelpers) + R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED) as z:
    z.writestr("first.txt", b"first entry")
    z.writestr("second.txt", b"second entry " * 10)
data = bytearray(open(sys.argv[1], "rb").read())
second = local(data, 1)
)" + c.edit + R"(
open(sys.argv[1], "wb").write(data)
print(second, end="")
)",
                                         {dir.file(name)});
    tal::CURI const uri = dir.uri(name);
    try {
      ziputil::checkArchiveLayout(fs.get(), uri);
      FAIL() << "not found";
    } catch (tal::CError const& e) {
      expectDamaged(e, c.message, std::stoll(offset), uri);
    }
    // Entry by entry, only the second is refused.
    EXPECT_EQ(entryProblems(fs.get(), uri), std::vector<std::string>{"2 second.txt @" + offset + ": " + c.entryMessage});
  }
}

TEST_F(ReaderSafetyTest, LayoutCheckFindsARecordRunningIntoTheCentralDirectory) {
  tal::CURI const uri = build("long.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_STORED) as z:
    z.writestr("a.txt", b"a" * 100)
data = bytearray(open(sys.argv[1], "rb").read())
put(data, local(data) + 18, "<I", 200)
put(data, central(data) + 20, "<I", 200)
open(sys.argv[1], "wb").write(data)
)");
  try {
    ziputil::checkArchiveLayout(fs.get(), uri);
    FAIL() << "not found";
  } catch (tal::CError const& e) {
    expectDamaged(e, "the record of entry 1 runs into the central directory", 0, uri);
  }
  EXPECT_EQ(entryProblems(fs.get(), uri), std::vector<std::string>{"1 a.txt @0: its record runs into the central directory"});
}

TEST_F(ReaderSafetyTest, EntryCheckRefusesOnlyTheDamagedEntries) {
  // Five entries: the second's local header names another file; the third's data, as both its headers say,
  // runs into the fourth's local header. The first and the last are whole and stay out of it.
  tal::CURI const uri = build("mixed.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_STORED) as z:
    for name in ("a.txt", "b.txt", "c.txt", "d.txt", "e.txt"):
        z.writestr(name, name.encode() * 20)
data = bytearray(open(sys.argv[1], "rb").read())
data[local(data, 1) + 30] = ord("X")
put(data, local(data, 2) + 18, "<I", 120)
put(data, central(data, 2) + 20, "<I", 120)
open(sys.argv[1], "wb").write(data)
print(local(data, 1), local(data, 2), local(data, 3))
)");
  std::vector<std::string> const problems = entryProblems(fs.get(), uri);
  ASSERT_EQ(problems.size(), 3u);
  auto withoutOffset = [](std::string const& line) {
    return line.substr(0, line.find(" @")) + line.substr(line.find(": "));
  };
  EXPECT_EQ(withoutOffset(problems[0]), "2 b.txt: its local header disagrees with its central header on the name");
  EXPECT_EQ(withoutOffset(problems[1]), "3 c.txt: its record overlaps that of entry 4");
  EXPECT_EQ(withoutOffset(problems[2]), "4 d.txt: its record overlaps that of entry 3");
  // The offsets: each entry's local header (entries of 30 + 5 + 100 bytes).
  EXPECT_EQ(problems[0].substr(problems[0].find(" @")), " @135: its local header disagrees with its central header on the name");
  EXPECT_EQ(problems[1].substr(problems[1].find(" @"), 5), " @270");
  EXPECT_EQ(problems[2].substr(problems[2].find(" @"), 5), " @405");
}

TEST_F(ReaderSafetyTest, AnArchiveCommentCutShortIsReadAsFarAsItGoes) {
  // Its stored length runs past the end of the file: readers take what is there, as Info-ZIP unzip and Python do.
  tal::CURI const uri = build("comment.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED) as z:
    z.writestr("a.txt", b"alpha")
    z.writestr("b.txt", b"bravo")
    z.comment = b"the whole comment"
data = open(sys.argv[1], "rb").read()
open(sys.argv[1], "wb").write(data[:-5])
)");
  EXPECT_NO_THROW(ziputil::checkArchiveLayout(fs.get(), uri));
  EXPECT_EQ(entryProblems(fs.get(), uri), std::vector<std::string>());
  auto reader = open(uri, true);
  EXPECT_EQ(reader->getArchiveComment(), "the whole co");
  std::vector<std::string> read;
  while (reader->nextFile()) {
    auto in = reader->openCurrentFileStream();
    read.push_back(readAll(*in));
    in->close();
  }
  EXPECT_EQ(read, (std::vector<std::string>{"alpha", "bravo"}));
  reader->close();
  // An archive to add to is held to the whole of it: the writer refuses it untouched.
  std::string const before = testsupport::readFile(dir.file("comment.zip"));
  try {
    tal::newObj<ziputil::CZipWriter>(fs.get(), uri, tal::String(), ziputil::CZipWriter::CompNormal);
    FAIL() << "the writer took it";
  } catch (tal::CError const& e) {
    EXPECT_EQ(utf8(e.getMessage()), "Damaged archive: the archive comment is cut short.");
  }
  EXPECT_EQ(testsupport::readFile(dir.file("comment.zip")), before);
}

TEST_F(ReaderSafetyTest, LayoutCheckPassesZip64AndEmptyArchives) {
  tal::CURI const uri = build("zip64.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED) as z:
    with z.open("big.bin", "w", force_zip64=True) as f:
        f.write(b"z" * 1000)
    z.writestr("after.txt", b"after")
)");
  EXPECT_NO_THROW(ziputil::checkArchiveLayout(fs.get(), uri));
  EXPECT_EQ(entryProblems(fs.get(), uri), std::vector<std::string>());
  testsupport::writeFile(dir.file("empty-file.zip"), "");
  EXPECT_EQ(entryProblems(fs.get(), dir.uri("empty-file.zip")), std::vector<std::string>());
  EXPECT_NO_THROW(ziputil::checkArchiveLayout(fs.get(), dir.uri("empty-file.zip")));
  ziputil::createEmptyArchive(fs.get(), dir.uri("no-entries.zip"));
  EXPECT_NO_THROW(ziputil::checkArchiveLayout(fs.get(), dir.uri("no-entries.zip")));
  testsupport::writeFile(dir.file("text.zip"), "just text");
  for (bool const perEntry : {false, true}) { // the archive as a whole: the same error either way
    try {
      if (perEntry)
        ziputil::checkArchiveEntries(fs.get(), dir.uri("text.zip"));
      else
        ziputil::checkArchiveLayout(fs.get(), dir.uri("text.zip"));
      FAIL();
    } catch (tal::CError const& e) {
      EXPECT_EQ(utf8(e.getMessage()), "Not a ZIP archive: no end-of-central-directory record.");
      EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", dir.uri("text.zip").toString(true)}}));
    }
  }
  // Files shorter than a signature, one of them its first three bytes.
  for (std::string const& tiny : {std::string("P"), std::string("PK\x05"), std::string("\x06")}) {
    testsupport::writeFile(dir.file("tiny.zip"), tiny);
    try {
      ziputil::checkArchiveLayout(fs.get(), dir.uri("tiny.zip"));
      FAIL() << tiny.size();
    } catch (tal::CError const& e) {
      EXPECT_EQ(utf8(e.getMessage()), "Not a ZIP archive: no end-of-central-directory record.");
    }
  }
  try { // the file system's own error comes back unchanged
    ziputil::checkArchiveLayout(fs.get(), dir.uri("missing.zip"));
    FAIL();
  } catch (tal::CIOError const& e) {
    EXPECT_EQ(e.getCode(), tal::CIOError::OpenFailed);
  }
}

// ---- damaged end records --------------------------------------------------------------

TEST_F(ReaderSafetyTest, DamagedEndRecordsAreNotReadAsAnEmptyArchive) {
  struct Case {
    char const* what;
    char const* edit;
  };
  Case const cases[] = {
      {"stray end signature", "data += b'PK\\x05\\x06'"},
      {"end record cut short by 10", "data = data[:-10]"},
      {"end record cut short by 14", "data = data[:-14]"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    tal::CURI const uri = build(std::string(c.what) + ".zip", std::string(R"(
with zipfile.ZipFile(sys.argv[1], "w") as z:
    z.writestr("a.txt", b"a")
    z.writestr("b.txt", b"b")
data = bytearray(open(sys.argv[1], "rb").read())
)") + c.edit + R"(
open(sys.argv[1], "wb").write(data)
)");
    try {
      auto reader = open(uri, false);
      int entries = 0;
      while (reader->nextFile()) ++entries;
      FAIL() << "read as an archive of " << entries << " entries";
    } catch (tal::CError const& e) {
      EXPECT_EQ(typeid(e), typeid(tal::CError));
      EXPECT_EQ(utf8(e.getMessage()), "File is not a valid ZIP archive.");
      EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", uri.toString(true)}}));
    }
  }
}

TEST_F(ReaderSafetyTest, AnEndRecordWithATooShortCommentLengthStillListsEveryEntry) {
  tal::CURI const uri = build("comment.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w") as z:
    z.writestr("a.txt", b"a")
    z.writestr("b.txt", b"b")
    z.comment = b"a comment of some length"
data = bytearray(open(sys.argv[1], "rb").read())
put(data, data.rindex(b"PK\x05\x06") + 20, "<H", 5)
open(sys.argv[1], "wb").write(data)
)");
  auto reader = open(uri, true);
  std::vector<std::string> names;
  while (reader->nextFile()) names.push_back(utf8(reader->getCurrentFileRelativeURI().getPath()));
  EXPECT_EQ(names, (std::vector<std::string>{"a.txt", "b.txt"}));
}

// ---- names in legacy encodings ------------------------------------------------------

TEST_F(ReaderSafetyTest, RawNamesAndTheirUtf8Flag) {
  tal::CURI const uri = build("names.zip", R"(
with zipfile.ZipFile(sys.argv[1], "w") as z:
    z.writestr("café.txt", b"utf-8 name")      # zipfile sets the UTF-8 flag
    z.writestr("XXXX.txt", b"legacy name")
data = bytearray(open(sys.argv[1], "rb").read())
for at in (local(data, 1) + 30, central(data, 1) + 46):
    data[at:at + 4] = "café".encode("cp437")   # code page 437, flag clear
open(sys.argv[1], "wb").write(data)
)");
  auto reader = open(uri, false);
  EXPECT_EQ(reader->getCurrentFileRawName(), "");
  EXPECT_FALSE(reader->isCurrentFileNameUTF8());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileRawName(), "caf\xC3\xA9.txt");
  EXPECT_TRUE(reader->isCurrentFileNameUTF8());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileRawName(), "caf\x82.txt");
  EXPECT_FALSE(reader->isCurrentFileNameUTF8());
  EXPECT_FALSE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileRawName(), "");
  EXPECT_FALSE(reader->isCurrentFileNameUTF8());
}

} // namespace
