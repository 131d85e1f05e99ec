// CTimeFields: the empty value, the field-wise constructor, comparison, and
// the month convention (1-12 here, 0-11 in minizip's broken-down time) as an
// entry's time travels through an archive and back.
#include "tal/MemoryFileSystem.h"
#include "tal/String.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using tal::CTimeFields;

TEST(TimeFieldsTest, DefaultIsTheEmptyValue) {
  CTimeFields empty;
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_TRUE(empty == CTimeFields());
  EXPECT_FALSE(empty != CTimeFields());
  EXPECT_EQ(empty.getYear(), 0);
  EXPECT_EQ(empty.getMonth(), 0);
  EXPECT_EQ(empty.getDay(), 0);
  EXPECT_EQ(empty.getHour(), 0);
  EXPECT_EQ(empty.getMinute(), 0);
  EXPECT_EQ(empty.getSecond(), 0);
  EXPECT_EQ(empty.getFraction(), 0.0);
  EXPECT_EQ(empty.getRefCount(), 1); // a counted object like every other
}

TEST(TimeFieldsTest, ConstructorStoresEveryField) {
  CTimeFields t(2016, 12, 31, 23, 59, 58, 0.25, 60, true);
  EXPECT_FALSE(t.isEmpty());
  EXPECT_EQ(t.getYear(), 2016);
  EXPECT_EQ(t.getMonth(), 12);
  EXPECT_EQ(t.getDay(), 31);
  EXPECT_EQ(t.getHour(), 23);
  EXPECT_EQ(t.getMinute(), 59);
  EXPECT_EQ(t.getSecond(), 58);
  EXPECT_EQ(t.getFraction(), 0.25);
  EXPECT_EQ(t.getUtcOffsetMinutes(), 60);
  EXPECT_TRUE(t.hasUtcOffset());
  EXPECT_EQ(t.getWeekDay(), -1); // the integer between day and hour is never set
}

TEST(TimeFieldsTest, CopiesCompareEqual) {
  CTimeFields t(2015, 3, 7, 14, 5, 9, 0.0, 0, false);
  CTimeFields copy(t);
  EXPECT_TRUE(copy == t);
  EXPECT_FALSE(copy != t);
  EXPECT_EQ(copy.getRefCount(), 1); // a copy is a new object with its own count
  CTimeFields assigned;
  assigned = t;
  EXPECT_TRUE(assigned == t);
  EXPECT_EQ(assigned.getSecond(), 9);
}

TEST(TimeFieldsTest, EveryFieldTakesPartInTheComparison) {
  CTimeFields const base(2015, 3, 7, 14, 5, 9, 0.0, 0, false);
  CTimeFields const variants[] = {
      CTimeFields(2016, 3, 7, 14, 5, 9, 0.0, 0, false), CTimeFields(2015, 4, 7, 14, 5, 9, 0.0, 0, false),
      CTimeFields(2015, 3, 8, 14, 5, 9, 0.0, 0, false), CTimeFields(2015, 3, 7, 15, 5, 9, 0.0, 0, false),
      CTimeFields(2015, 3, 7, 14, 6, 9, 0.0, 0, false), CTimeFields(2015, 3, 7, 14, 5, 10, 0.0, 0, false),
      CTimeFields(2015, 3, 7, 14, 5, 9, 0.5, 0, false), CTimeFields(2015, 3, 7, 14, 5, 9, 0.0, 1, false),
      CTimeFields(2015, 3, 7, 14, 5, 9, 0.0, 0, true),
  };
  for (CTimeFields const& v : variants) {
    EXPECT_TRUE(v != base);
    EXPECT_FALSE(v == base);
  }
  EXPECT_TRUE(base == CTimeFields(2015, 3, 7, 14, 5, 9, 0.0, 0, false));
}

// ---- the month convention, through a real archive ---------------------------

tal::CURI const kArchive(tal::String("mem:/times.zip"));

/// Writes one entry "e.txt" with time `time`, returns the archive's bytes.
std::string writeEntryWithTime(tal::CMemoryFileSystem* fs, CTimeFields const& time) {
  ziputil::createEmptyArchive(fs, kArchive);
  tal::P<ziputil::CZipWriter> writer =
      tal::newObj<ziputil::CZipWriter>(fs, kArchive, tal::String(), ziputil::CZipWriter::CompStore);
  tal::P<tal::IOutStream> out = writer->beginAddFile(tal::CURI(tal::String("e.txt")), time);
  out->write("x", 1, nullptr);
  out->close();
  writer->close();
  return fs->getFile(kArchive);
}

/// The DOS date of the first local header: day | month << 5 | (year - 1980) << 9.
unsigned localHeaderDosDate(std::string const& archive) {
  EXPECT_EQ(archive.compare(0, 4, "PK\x03\x04"), 0);
  return static_cast<unsigned char>(archive[12]) | static_cast<unsigned char>(archive[13]) << 8;
}

CTimeFields readEntryTime(tal::CMemoryFileSystem* fs) {
  tal::P<ziputil::CZipReader> reader = tal::newObj<ziputil::CZipReader>(fs, kArchive, tal::String());
  EXPECT_TRUE(reader->nextFile());
  CTimeFields const time = reader->getCurrentFileModifiedTimeFields();
  reader->close();
  return time;
}

TEST(TimeFieldsTest, MonthOneIsMinizipMonthZeroAndReadsBackAsOne) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  CTimeFields const january(2016, 1, 2, 3, 4, 6, 0.0, 0, false);
  unsigned const date = localHeaderDosDate(writeEntryWithTime(fs.get(), january));
  // minizip stores its month 0 as DOS month 1: the writer subtracted exactly one.
  EXPECT_EQ((date >> 5) & 0xF, 1u);
  EXPECT_EQ(date & 0x1F, 2u);
  EXPECT_EQ(date >> 9, 2016u - 1980u);
  CTimeFields const back = readEntryTime(fs.get());
  EXPECT_EQ(back.getMonth(), 1); // minizip's 0 plus one
  EXPECT_TRUE(back == january);
}

TEST(TimeFieldsTest, MonthTwelveSurvivesTheRoundTrip) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  CTimeFields const december(1999, 12, 31, 23, 59, 58, 0.0, 0, false);
  unsigned const date = localHeaderDosDate(writeEntryWithTime(fs.get(), december));
  EXPECT_EQ((date >> 5) & 0xF, 12u);
  EXPECT_TRUE(readEntryTime(fs.get()) == december);
}

TEST(TimeFieldsTest, TheEmptyValueIsWrittenAsZeroTimeAndReadsBackEmpty) {
  tal::P<tal::CMemoryFileSystem> fs = tal::newObj<tal::CMemoryFileSystem>();
  std::string const archive = writeEntryWithTime(fs.get(), CTimeFields());
  unsigned const date = localHeaderDosDate(archive);
  EXPECT_EQ(date & 0x1F, 0u); // day 0: no real date
  unsigned const dosTime = static_cast<unsigned char>(archive[10]) | static_cast<unsigned char>(archive[11]) << 8;
  EXPECT_EQ(dosTime, 0u);
  EXPECT_TRUE(readEntryTime(fs.get()).isEmpty());
}

} // namespace
