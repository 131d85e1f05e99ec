// Archives around the 16-bit entry-count limit of the end record.
#include "ziputil/CZipReader.h"

#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "tal/LocalFileSystem.h"

#include <gtest/gtest.h>


using testsupport::entryURI;
using testsupport::utf8;
using ziputil::CZipReader;

namespace {

struct Case {
  long long entries;
  bool zip64EndRecord; ///< false: only the classic end record, holding the count's low 16 bits
};

std::string archiveName(Case const& c) {
  return std::to_string(c.entries) + (c.zip64EndRecord ? "-zip64.zip" : "-classic.zip");
}

class ReaderManyEntriesTest : public ::testing::TestWithParam<Case> {
public:
  /// The archives are made once per build tree (each test runs in its own
  /// process) and kept in the build folder.
  static void SetUpTestSuite() {
    testsupport::runCommand(std::string("mkdir -p ") + testsupport::shellQuote(fixtureFolder()));
    for (Case const& c : kCases) {
      std::string const path = fixtureFolder() + "/" + archiveName(c);
      if (testsupport::runCommand("test -f " + testsupport::shellQuote(path)) == 0) continue;
      testsupport::runPython(R"(
import os, struct, sys, zipfile
final, count, zip64 = sys.argv[1], int(sys.argv[2]), sys.argv[3] == "1"
path = "%s.%d.tmp" % (final, os.getpid())
with zipfile.ZipFile(path, "w", zipfile.ZIP_STORED) as z:
    for i in range(count):
        z.writestr(zipfile.ZipInfo("e%d" % i, date_time=(2020, 1, 1, 0, 0, 0)), b"" if i % 1000 else b"x")
if not zip64:
    data = open(path, "rb").read()
    end = data.rfind(b"PK\x05\x06")
    _, _, _, _, _, size, offset, _ = struct.unpack_from("<IHHHHIIH", data, end)
    if offset == 0xFFFFFFFF or data.rfind(b"PK\x06\x06") >= 0:
        z64 = data.rfind(b"PK\x06\x06")
        size, offset = struct.unpack_from("<QQ", data, z64 + 40)
    cd_end = offset + size
    record = struct.pack("<IHHHHIIH", 0x06054B50, 0, 0, count & 0xFFFF, count & 0xFFFF, size, offset, 0)
    open(path, "wb").write(data[:cd_end] + record)
os.replace(path, final)
)",
                             {path, std::to_string(c.entries), c.zip64EndRecord ? "1" : "0"});
    }
  }

  static constexpr Case kCases[] = {{65534, false}, {65535, false}, {65536, false}, {65536, true},
                                    {100000, false}, {100000, true}, {131071, false}};

protected:
  static std::string fixtureFolder() { return std::string(ZIPUTIL_TEST_BINARY_DIR) + "/fixtures/many-entries"; }

  tal::P<CZipReader> open() {
    tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
    return tal::newObj<CZipReader>(fs.get(), testsupport::fileURI(fixtureFolder() + "/" + archiveName(GetParam())),
                                   tal::String());
  }
};

constexpr Case ReaderManyEntriesTest::kCases[];

TEST_P(ReaderManyEntriesTest, WalksToTheRealEnd) {
  auto reader = open();
  long long count = 0;
  std::string last;
  while (reader->nextFile()) {
    if (count % 1000 == 0) {
      EXPECT_EQ(reader->getCurrentFileUncompressedSize(), 1) << count;
    }
    ++count;
    if (count == GetParam().entries) last = utf8(reader->getCurrentFileRelativeURI().getPath());
  }
  EXPECT_EQ(count, GetParam().entries);
  EXPECT_EQ(last, "e" + std::to_string(GetParam().entries - 1));
  EXPECT_FALSE(reader->nextFile());
}

TEST_P(ReaderManyEntriesTest, LocatesTheLastEntryAndMissesAMissingOne) {
  auto reader = open();
  std::string const lastName = "e" + std::to_string(GetParam().entries - 1);
  ASSERT_TRUE(reader->tryGoToFile(entryURI(lastName)));
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), lastName);
  EXPECT_FALSE(reader->nextFile());
  EXPECT_FALSE(reader->tryGoToFile(entryURI("missing")));
  EXPECT_TRUE(reader->tryGoToFile(entryURI("e0")));
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(utf8(reader->getCurrentFileRelativeURI().getPath()), "e1");
}

INSTANTIATE_TEST_SUITE_P(Counts, ReaderManyEntriesTest, ::testing::ValuesIn(ReaderManyEntriesTest::kCases),
                         [](auto const& info) {
                           return std::to_string(info.param.entries) + (info.param.zip64EndRecord ? "_zip64" : "_classic");
                         });

} // namespace
