// tryGoToFile answers from an index of names built once per reader: every
// answer must be the one the linear locate gives (the first entry whose name
// compareFileNames finds equal), and the reader must stand where the linear
// locate leaves it.
#include "ziputil/CZipReader.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"

#include <gtest/gtest.h>

#include <vector>

using testsupport::entryURI;
using testsupport::utf8;
using ziputil::CZipReader;

namespace {

/// Stored names (bytes) of the test archive, in central-directory order. Each
/// entry's contents are its position, so that duplicates can be told apart.
std::vector<std::string> storedNames() {
  return {
      "a.txt",
      "dir/b.txt",
      "/dir/b.txt",    // the same once cleaned: the first one wins
      "dir\\b.txt",    // likewise
      " c.txt ",       // blanks trimmed
      "C:x",           // colon removed
      "Cx",            // the same as the one before once cleaned
      "\xff\xfe",      // not UTF-8: decodes to nothing, cleaned to "_"
      "\xc3",          // likewise
      "_",
      "dup",
      "dup",
      "caf\xC3\xA9",   // UTF-8
      std::string(65535, 'L'),
      "folder/",
      "folder",        // the same as the folder entry once cleaned
      std::string("dup\0tail", 8), // minizip's name ends at the zero byte: "dup" again
      std::string("zero\0", 5),
  };
}

class ReaderIndexTest : public ::testing::Test {
protected:
  void SetUp() override {
    // Placeholder names of the right length, then the real bytes patched in (zipfile would encode them).
    std::vector<std::string> const names = storedNames();
    std::string program = R"(
import sys, zipfile
path, names = sys.argv[1], [bytes.fromhex(h) for h in open(sys.argv[2]).read().split()]
with zipfile.ZipFile(path, "w", zipfile.ZIP_STORED) as z:
    for i, n in enumerate(names):
        z.writestr("%0*d" % (len(n), i) if len(n) > 1 else chr(65 + i), str(i).encode())
data = bytearray(open(path, "rb").read())
at = {b"PK\x03\x04": -1, b"PK\x01\x02": -1}
for i, n in enumerate(names):
    for sig in at:
        at[sig] = data.index(sig, at[sig] + 1)
        offset = at[sig] + (30 if sig == b"PK\x03\x04" else 46)
        data[offset:offset + len(n)] = n
open(path, "wb").write(data)
)";
    std::string hexNames; // one name a line, in hexadecimal
    for (std::string const& name : names) {
      static char const hex[] = "0123456789abcdef";
      for (unsigned char c : name) hexNames += {hex[c >> 4], hex[c & 15]};
      hexNames += '\n';
    }
    testsupport::writeFile(dir.file("names.txt"), hexNames);
    testsupport::runPython(program, {dir.file("index.zip"), dir.file("names.txt")});
  }

  tal::P<CZipReader> open() { return tal::newObj<CZipReader>(fs.get(), dir.uri("index.zip"), tal::String()); }

  /// What the linear locate answers: the position of the first entry whose
  /// stored name compareFileNames finds equal to `searched`, or -1.
  static int expectedPosition(std::string const& searched) {
    std::vector<std::string> const names = storedNames();
    for (std::size_t i = 0; i < names.size(); ++i)
      if (CZipReader::ZipStuff::compareFileNames(nullptr, names[i].c_str(), searched.c_str()) == 0)
        return static_cast<int>(i);
    return -1;
  }

  /// The position of the current entry, read from its contents.
  static int currentPosition(CZipReader& reader) {
    auto in = reader.openCurrentFileStream();
    char text[8] = {};
    int const n = in->readLax(text, sizeof text - 1);
    in->close();
    return std::stoi(std::string(text, static_cast<std::size_t>(n)));
  }

  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
};

TEST_F(ReaderIndexTest, EveryNameGivesTheLinearLocatesAnswer) {
  std::vector<std::string> searched = storedNames();
  for (char const* extra : {"b.txt", "dir/b.txt/", "c.txt", "missing", "", "/", "dup/", "caf\xC3\xA9 ", "folder//"})
    searched.push_back(extra);
  // A searched path holding U+0000 is looked up as the C string before it, as minizip sees it.
  for (std::string extra : {std::string("a.txt\0zzz", 9), std::string("zero\0", 5), std::string("\0a.txt", 6),
                            std::string("caf\xC3\xA9\0\xC3\xA9", 8)})
    searched.push_back(extra);
  auto reader = open();
  int checked = 0;
  for (std::string const& name : searched) {
    SCOPED_TRACE(testing::PrintToString(name.substr(0, 40)));
    int const expected = expectedPosition(name);
    bool const found = reader->tryGoToFile(entryURI(name));
    ASSERT_EQ(found, expected >= 0);
    if (!found) {
      EXPECT_TRUE(reader->getCurrentFileRelativeURI().isEmpty());
      continue;
    }
    EXPECT_EQ(currentPosition(*reader), expected);
    EXPECT_EQ(reader->getCurrentFileRawName(), storedNames()[static_cast<std::size_t>(expected)]);
    // nextFile continues after the located entry
    if (expected + 1 < static_cast<int>(storedNames().size())) {
      ASSERT_TRUE(reader->nextFile());
      EXPECT_EQ(currentPosition(*reader), expected + 1);
    } else {
      EXPECT_FALSE(reader->nextFile());
    }
    ++checked;
  }
  EXPECT_GT(checked, 15);
}

TEST_F(ReaderIndexTest, AFailedLookupLeavesTheWalkWhereItWas) {
  auto reader = open();
  EXPECT_FALSE(reader->tryGoToFile(entryURI("missing"))); // before any positioning
  ASSERT_TRUE(reader->nextFile());                       // the walk starts at the first entry
  EXPECT_EQ(currentPosition(*reader), 0);
  ASSERT_TRUE(reader->nextFile());
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(currentPosition(*reader), 2);
  EXPECT_FALSE(reader->tryGoToFile(entryURI("still missing")));
  EXPECT_TRUE(reader->getCurrentFileRelativeURI().isEmpty());
  ASSERT_TRUE(reader->nextFile()); // and goes on after the entry it stood at
  EXPECT_EQ(currentPosition(*reader), 3);
  ASSERT_TRUE(reader->tryGoToFile(entryURI("a.txt")));
  EXPECT_EQ(currentPosition(*reader), 0);
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(currentPosition(*reader), 1);
}

TEST_F(ReaderIndexTest, LookupsInAnEmptyArchive) {
  ziputil::createEmptyArchive(fs.get(), dir.uri("empty.zip"));
  auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri("empty.zip"), tal::String());
  EXPECT_FALSE(reader->tryGoToFile(entryURI("a")));
  EXPECT_FALSE(reader->tryGoToFile(entryURI("_")));
  EXPECT_FALSE(reader->nextFile());
}

TEST_F(ReaderIndexTest, AnArchiveDamagedBehindTheNameStillFindsIt) {
  // The central directory's last header is damaged: names before it are found
  // as the linear locate finds them, a missing name meets the damage as before.
  std::string data = testsupport::readFile(dir.file("index.zip"));
  std::size_t const last = data.rfind("PK\x01\x02");
  data[last + 3] = 'X';
  testsupport::writeFile(dir.file("index.zip"), data);
  auto reader = open();
  ASSERT_TRUE(reader->tryGoToFile(entryURI("dir/b.txt")));
  EXPECT_EQ(currentPosition(*reader), 1);
  try {
    reader->tryGoToFile(entryURI("missing"));
    FAIL() << "the damage was not met";
  } catch (tal::CError const& e) {
    EXPECT_EQ(utf8(e.getMessage()), "unzLocateFile failed");
  }
}

} // namespace

namespace {

TEST_F(ReaderIndexTest, RewindStartsTheWalkAgainAfterLookupsAndWalks) {
  auto reader = open();
  ASSERT_TRUE(reader->tryGoToFile(entryURI("dup")));
  EXPECT_EQ(currentPosition(*reader), 10);
  reader->rewind();
  EXPECT_TRUE(reader->getCurrentFileRelativeURI().isEmpty());
  EXPECT_EQ(reader->getCurrentFileUncompressedSize(), 0);
  std::size_t walked = 0;
  while (reader->nextFile()) EXPECT_EQ(currentPosition(*reader), static_cast<int>(walked++));
  EXPECT_EQ(walked, storedNames().size());
  reader->rewind(); // also after the end
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(currentPosition(*reader), 0);
  auto in = reader->openCurrentFileStream();
  tal::CProps const where{{tal::String("uri"), dir.uri("index.zip").toString(true)}};
  try {
    reader->rewind();
    ADD_FAILURE() << "rewound with an entry stream open";
  } catch (tal::CError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CError));
    EXPECT_EQ(std::string(e.what()), "CZipReader cannot go back to the first file because the current file is still open.");
    EXPECT_EQ(e.getProps(), where);
  }
  in->close();
  reader->close();
  try {
    reader->rewind();
    ADD_FAILURE() << "rewound a closed reader";
  } catch (tal::CIOError const& e) {
    EXPECT_EQ(e.getCode(), tal::CIOError::StreamClosed);
    EXPECT_EQ(std::string(e.what()), "ZIP file already closed");
    EXPECT_EQ(e.getProps(), where);
  }
}

} // namespace
