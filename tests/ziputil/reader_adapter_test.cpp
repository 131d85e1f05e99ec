// The minizip operations the reader relies on beyond stock minizip: positioning
// with the entry information, locate with a name comparer, and the password
// check. Archives are written here with minizip's own zip.c.
#include "ziputil/MiniZipAdapter.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <zip.h>
#include <zlib.h>

#include <string>
#include <utility>
#include <vector>

namespace mz = ziputil::minizip;

namespace {

struct Entry {
  std::string name;
  std::string data;
  char const* password = nullptr;
  bool checkWithCrc = true; ///< false: the encryption header's check byte is 0
};

unsigned long crcOf(std::string const& data) {
  return crc32(0L, reinterpret_cast<Bytef const*>(data.data()), static_cast<uInt>(data.size()));
}

void writeArchive(std::string const& path, std::vector<Entry> const& entries) {
  zipFile zip = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
  ASSERT_NE(zip, nullptr);
  for (Entry const& e : entries) {
    zip_fileinfo info{};
    info.tmz_date.tm_year = 2021;
    info.tmz_date.tm_mon = 4;
    info.tmz_date.tm_mday = 7;
    unsigned long const crcForCrypting = e.password && e.checkWithCrc ? crcOf(e.data) : 0;
    ASSERT_EQ(zipOpenNewFileInZip3_64(zip, e.name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                                      Z_DEFAULT_COMPRESSION, 0, -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY,
                                      e.password, crcForCrypting, 0),
              ZIP_OK);
    if (!e.data.empty()) {
      ASSERT_EQ(zipWriteInFileInZip(zip, e.data.data(), static_cast<unsigned>(e.data.size())), ZIP_OK);
    }
    ASSERT_EQ(zipCloseFileInZip(zip), ZIP_OK);
  }
  ASSERT_EQ(zipClose(zip, nullptr), ZIP_OK);
}

/// The current entry's bytes, or the open call's failure code.
std::pair<int, std::string> readCurrent(unzFile unz, char const* password) {
  int const opened = mz::unzOpenCurrentFilePassword(unz, password);
  if (opened != UNZ_OK) return {opened, ""};
  std::string data;
  char buffer[1024];
  int n = 0;
  while ((n = unzReadCurrentFile(unz, buffer, sizeof buffer)) > 0) data.append(buffer, static_cast<std::size_t>(n));
  int const closed = unzCloseCurrentFile(unz);
  return {n < 0 ? n : closed, data};
}

class ReaderAdapterTest : public ::testing::Test {
protected:
  void TearDown() override {
    if (unz) {
      EXPECT_EQ(unzClose(unz), UNZ_OK);
    }
  }
  void open(std::vector<Entry> const& entries) {
    writeArchive(dir.file("a.zip"), entries);
    unz = unzOpen64(dir.file("a.zip").c_str());
    ASSERT_NE(unz, nullptr);
  }
  std::string currentName() {
    std::vector<char> name(70000, '\0');
    EXPECT_EQ(unzGetCurrentFileInfo64(unz, nullptr, name.data(), static_cast<uLong>(name.size() - 1), nullptr, 0,
                                      nullptr, 0),
              UNZ_OK);
    return name.data();
  }

  testsupport::TempDir dir;
  unzFile unz = nullptr;
};

TEST_F(ReaderAdapterTest, PositioningFillsInformationAndName) {
  open({{"first.txt", "1234"}, {"second", ""}});
  unz_file_info64 info{};
  char name[64] = {};
  ASSERT_EQ(mz::unzGoToFirstFile2(unz, &info, name, sizeof name - 1, nullptr, 0, nullptr, 0), UNZ_OK);
  EXPECT_STREQ(name, "first.txt");
  EXPECT_EQ(info.uncompressed_size, 4u);
  EXPECT_EQ(info.crc, crcOf("1234"));
  EXPECT_EQ(static_cast<int>(info.tmu_date.tm_year), 2021);
  EXPECT_EQ(static_cast<int>(info.tmu_date.tm_mday), 7);
  ASSERT_EQ(mz::unzGoToNextFile2(unz, &info, name, sizeof name - 1, nullptr, 0, nullptr, 0), UNZ_OK);
  EXPECT_STREQ(name, "second");
  EXPECT_EQ(info.uncompressed_size, 0u);
  EXPECT_EQ(mz::unzGoToNextFile2(unz, &info, name, sizeof name - 1, nullptr, 0, nullptr, 0), UNZ_END_OF_LIST_OF_FILE);
  EXPECT_EQ(mz::unzGoToNextFile2(unz, &info, name, sizeof name - 1, nullptr, 0, nullptr, 0), UNZ_END_OF_LIST_OF_FILE);
  EXPECT_EQ(currentName(), "second"); // the end leaves the position at the last entry
}

TEST_F(ReaderAdapterTest, EmptyArchiveHasNoFirstEntry) {
  open({});
  unz_file_info64 info{};
  char name[8] = {};
  EXPECT_EQ(mz::unzGoToFirstFile2(unz, &info, name, sizeof name - 1, nullptr, 0, nullptr, 0), UNZ_END_OF_LIST_OF_FILE);
  EXPECT_EQ(mz::unzLocateFile(unz, "x", [](unzFile, char const*, char const*) { return 0; }),
            UNZ_END_OF_LIST_OF_FILE);
}

std::vector<std::pair<std::string, std::string>> comparedPairs;

int recordingComparer(unzFile, char const* stored, char const* searched) {
  comparedPairs.emplace_back(stored, searched);
  return std::string(stored) == searched ? 0 : 1;
}

TEST_F(ReaderAdapterTest, LocateWalksFromTheFirstEntryWithStoredNameFirst) {
  open({{"a", "1"}, {"b", "2"}, {"c", "3"}, {"b", "4"}});
  ASSERT_EQ(unzGoToFirstFile(unz), UNZ_OK);
  ASSERT_EQ(unzGoToNextFile(unz), UNZ_OK);
  ASSERT_EQ(unzGoToNextFile(unz), UNZ_OK); // at "c": locate still starts from the first entry
  comparedPairs.clear();
  ASSERT_EQ(mz::unzLocateFile(unz, "b", &recordingComparer), UNZ_OK);
  EXPECT_EQ(comparedPairs, (std::vector<std::pair<std::string, std::string>>{{"a", "b"}, {"b", "b"}}));
  EXPECT_EQ(readCurrent(unz, nullptr), std::make_pair(UNZ_OK, std::string("2"))); // the first "b"
}

TEST_F(ReaderAdapterTest, LocateOfAMissingNameRestoresThePosition) {
  open({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  ASSERT_EQ(unzGoToFirstFile(unz), UNZ_OK);
  ASSERT_EQ(unzGoToNextFile(unz), UNZ_OK);
  EXPECT_EQ(mz::unzLocateFile(unz, "zz", &recordingComparer), UNZ_END_OF_LIST_OF_FILE);
  EXPECT_EQ(currentName(), "b");
  // After a walk reached the end, locate still finds every entry.
  ASSERT_EQ(unzGoToNextFile(unz), UNZ_OK);
  ASSERT_EQ(unzGoToNextFile(unz), UNZ_END_OF_LIST_OF_FILE);
  EXPECT_EQ(mz::unzLocateFile(unz, "a", &recordingComparer), UNZ_OK);
  EXPECT_EQ(currentName(), "a");
  EXPECT_EQ(mz::unzLocateFile(unz, "c", &recordingComparer), UNZ_OK);
  EXPECT_EQ(currentName(), "c");
  EXPECT_EQ(mz::unzLocateFile(unz, nullptr, &recordingComparer), UNZ_PARAMERROR);
  EXPECT_EQ(mz::unzLocateFile(unz, "a", nullptr), UNZ_PARAMERROR);
}

TEST_F(ReaderAdapterTest, LocateComparesLongNamesWhole) {
  std::string const longName = std::string(300, 'x') + "-end";
  std::string const longerName = std::string(60000, 'y') + "-end";
  open({{std::string(300, 'x'), "short"}, {longName, "long"}, {longerName, "longer"}});
  ASSERT_EQ(mz::unzLocateFile(unz, longName.c_str(), &recordingComparer), UNZ_OK);
  EXPECT_EQ(readCurrent(unz, nullptr).second, "long");
  ASSERT_EQ(mz::unzLocateFile(unz, longerName.c_str(), &recordingComparer), UNZ_OK);
  EXPECT_EQ(readCurrent(unz, nullptr).second, "longer");
}

/// Wrong passwords: the encryption header checks one byte, so about 1 in 100 gets past the check
/// (and then never reads the entry's bytes). Of three, at least one must be refused exactly.
void expectWrongPasswordsRefused(unzFile unz, std::initializer_list<char const*> wrong, std::string const& plain) {
  int refused = 0;
  for (char const* password : wrong) {
    std::pair<int, std::string> const result = readCurrent(unz, password);
    if (result.first == ZIPUTIL_UNZ_BADPASSWORD) {
      ++refused;
      EXPECT_EQ(result.second, "");
    } else {
      EXPECT_NE(result.second, plain) << password;
    }
  }
  EXPECT_GE(refused, 1);
}

TEST_F(ReaderAdapterTest, PasswordIsCheckedAgainstTheCrcHighByte) {
  open({{"secret.txt", std::string(500, 's'), "right"}});
  ASSERT_EQ(unzGoToFirstFile(unz), UNZ_OK);
  expectWrongPasswordsRefused(unz, {"wrong", "", "Right"}, std::string(500, 's'));
  EXPECT_EQ(readCurrent(unz, "right"), std::make_pair(UNZ_OK, std::string(500, 's')));
  EXPECT_EQ(readCurrent(unz, "right"), std::make_pair(UNZ_OK, std::string(500, 's'))); // and again
}

TEST_F(ReaderAdapterTest, PasswordIsCheckedAgainstAZeroCheckByte) {
  open({{"zero.txt", "data written without a known CRC", "pw", false}});
  ASSERT_EQ(unzGoToFirstFile(unz), UNZ_OK);
  EXPECT_EQ(readCurrent(unz, "pw"), std::make_pair(UNZ_OK, std::string("data written without a known CRC")));
  expectWrongPasswordsRefused(unz, {"px", "PW", "p w"}, "data written without a known CRC");
}

TEST_F(ReaderAdapterTest, EncryptedEntryNeedsAPassword) {
  open({{"e", "encrypted", "pw"}});
  ASSERT_EQ(unzGoToFirstFile(unz), UNZ_OK);
  EXPECT_EQ(mz::unzOpenCurrentFile(unz), UNZ_PARAMERROR);
  EXPECT_EQ(mz::unzOpenCurrentFilePassword(unz, nullptr), UNZ_PARAMERROR);
  EXPECT_EQ(readCurrent(unz, "pw").second, "encrypted");
}

TEST_F(ReaderAdapterTest, PasswordIsIgnoredForUnencryptedEntries) {
  open({{"plain", "plain bytes"}});
  ASSERT_EQ(unzGoToFirstFile(unz), UNZ_OK);
  EXPECT_EQ(readCurrent(unz, "any password"), std::make_pair(UNZ_OK, std::string("plain bytes")));
  ASSERT_EQ(mz::unzOpenCurrentFile(unz), UNZ_OK);
  char buffer[32];
  EXPECT_EQ(unzReadCurrentFile(unz, buffer, sizeof buffer), 11);
  EXPECT_EQ(unzCloseCurrentFile(unz), UNZ_OK);
}

TEST(ReaderAdapterNullTest, NullHandleGivesParamError) {
  unz_file_info64 info{};
  EXPECT_EQ(mz::unzGoToFirstFile2(nullptr, &info, nullptr, 0, nullptr, 0, nullptr, 0), UNZ_PARAMERROR);
  EXPECT_EQ(mz::unzOpenCurrentFilePassword(nullptr, "pw"), UNZ_PARAMERROR);
  EXPECT_EQ(mz::unzOpenCurrentFile(nullptr), UNZ_PARAMERROR);
  EXPECT_EQ(mz::unzLocateFile(nullptr, "a", &recordingComparer), UNZ_PARAMERROR);
}

} // namespace
