// Entries of the methods the library decodes itself (Deflate64, bzip2, LZMA,
// xz, zstd) and WinZip AES entries, written by 7-Zip, Python and by hand from
// the zstd and xz tools' output, read back through the reader.
#include "ziputil/CZipReader.h"
#include "ziputil/ZipFile.h"

#include "support/RawZip.h"
#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "tal/LocalFileSystem.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

using testsupport::rawZip;
using testsupport::RawZipEntry;
using testsupport::shellQuote;
using testsupport::utf8;
using ziputil::CZipReader;
using ziputil::Encryption;

namespace {

constexpr char kPassword[] = "correct horse";

std::string textData(std::size_t size) {
  static char const* const words[] = {"archive ", "entry ", "deflate ", "window ", "the ", "of ", "zstd\n", "block "};
  std::mt19937 random(7);
  std::string text;
  while (text.size() < size) text += words[random() % 8];
  text.resize(size);
  return text;
}

std::string randomData(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(random());
  return data;
}

/// 200 KiB made of a 70 KiB random block repeated: matches further back than
/// deflate's 32 KiB window, which only Deflate64's 64 KiB window... does not
/// reach either, but its long lengths do.
std::string repeatedData() {
  std::string const block = randomData(70 * 1024, 3);
  std::string data;
  while (data.size() < 200 * 1024) data += block;
  return data;
}

struct ReadEntry {
  std::string data;
  int method = -1;
  int realMethod = -1;
  Encryption encryption = Encryption::None;
};

class ReaderMethodsTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  std::map<std::string, std::string> files;

  void SetUp() override {
    files = {{"empty.txt", ""},
             {"one.txt", "x"},
             {"text.txt", textData(300000)},
             {"random.bin", randomData(100000, 1)},
             {"repeated.bin", repeatedData()}};
    testsupport::runCommand("mkdir -p " + shellQuote(dir.file("in")));
    for (auto const& [name, data] : files) testsupport::writeFile(dir.file("in/" + name), data);
  }

  void run(std::string const& command) {
    std::string output;
    ASSERT_EQ(testsupport::runCommand("cd " + shellQuote(dir.path()) + " && " + command + " 2>&1", &output), 0)
        << command << "\n" << output;
  }

  /// Every entry of an archive, read to its end with the entries checked.
  std::map<std::string, ReadEntry> readAll(std::string const& archive, std::string const& password = "") {
    CZipReader::Options options;
    options.verifyEntries = true;
    auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri(archive), tal::String(password.c_str()), options);
    std::map<std::string, ReadEntry> entries;
    while (reader->nextFile()) {
      ReadEntry entry;
      entry.method = reader->getCurrentFileMethod();
      entry.realMethod = reader->getCurrentFileRealMethod();
      entry.encryption = reader->getCurrentFileEncryption();
      auto in = reader->openCurrentFileStream();
      char buffer[7000]; // an odd size, so that reads end anywhere in the decoders' pieces
      while (int n = in->readLax(buffer, sizeof buffer)) entry.data.append(buffer, static_cast<std::size_t>(n));
      EXPECT_TRUE(in->isEndOfStream());
      in->close();
      entries[utf8(reader->getCurrentFileRelativeURI().getPath())] = entry;
    }
    return entries;
  }

  void expectAll(std::map<std::string, ReadEntry> const& entries, int realMethod, Encryption encryption,
                 std::string const& prefix = "in/") {
    ASSERT_EQ(entries.size(), files.size());
    for (auto const& [name, data] : files) {
      auto const it = entries.find(prefix + name);
      ASSERT_NE(it, entries.end()) << name;
      EXPECT_EQ(it->second.data, data) << name;
      EXPECT_EQ(it->second.encryption, encryption) << name;
      // 7-Zip stores what the method does not make smaller; the text it compresses
      if (name == "text.txt") {
        EXPECT_EQ(it->second.realMethod, realMethod) << name;
      } else {
        EXPECT_TRUE(it->second.realMethod == realMethod || it->second.realMethod == 0) << name;
      }
      EXPECT_EQ(it->second.method, encryption >= Encryption::Aes128 ? 99 : it->second.realMethod) << name;
    }
  }
};

struct SevenZipMethod {
  char const* option;
  int method;
};

constexpr SevenZipMethod kSevenZipMethods[] = {{"Deflate64", 9}, {"BZip2", 12}, {"LZMA", 14}};

TEST_F(ReaderMethodsTest, SevenZipMethodsAreReadAtSeveralLevels) {
  for (SevenZipMethod const& m : kSevenZipMethods) {
    for (char const* level : {"1", "5", "9"}) {
      std::string const name = std::string(m.option) + level + ".zip";
      run("7z a -tzip -mm=" + std::string(m.option) + " -mx=" + level + " " + name + " in/* >/dev/null");
      SCOPED_TRACE(name);
      expectAll(readAll(name), m.method, Encryption::None);
    }
  }
}

TEST_F(ReaderMethodsTest, SevenZipAesEntriesOfEveryKeySizeAndMethodAreRead) {
  struct Strength {
    char const* option;
    Encryption encryption;
  };
  Strength const strengths[] = {{"AES128", Encryption::Aes128},
                                {"AES192", Encryption::Aes192},
                                {"AES256", Encryption::Aes256}};
  SevenZipMethod const methods[] = {{"Copy", 0}, {"Deflate", 8}, {"Deflate64", 9}, {"BZip2", 12}, {"LZMA", 14}};
  for (Strength const& s : strengths) {
    for (SevenZipMethod const& m : methods) {
      std::string const name = std::string(s.option) + m.option + ".zip";
      run("7z a -tzip -p" + shellQuote(kPassword) + " -mem=" + s.option + " -mm=" + m.option + " " + name +
          " in/* >/dev/null");
      SCOPED_TRACE(name);
      expectAll(readAll(name, kPassword), m.method, s.encryption);
    }
  }
}

TEST_F(ReaderMethodsTest, PythonBzip2AndLzmaEntriesAreRead) {
  for (char const* method : {"ZIP_BZIP2", "ZIP_LZMA"}) {
    std::string const archive = dir.file(std::string(method) + ".zip");
    testsupport::runPython("import os, sys, zipfile\n"
                           "with zipfile.ZipFile(sys.argv[1], 'w', zipfile." +
                               std::string(method) +
                               ") as z:\n"
                               "    for n in sorted(os.listdir(sys.argv[2])):\n"
                               "        z.write(os.path.join(sys.argv[2], n), 'in/' + n)\n",
                           {archive, dir.file("in")});
    SCOPED_TRACE(method);
    expectAll(readAll(std::string(method) + ".zip"), std::string(method) == "ZIP_BZIP2" ? 12 : 14, Encryption::None);
  }
}

TEST_F(ReaderMethodsTest, ZstdAndXzEntriesBuiltFromTheirToolsOutputAreRead) {
  struct Tool {
    char const* command; // compresses in/<name> to standard output
    int method;
  };
  Tool const tools[] = {{"zstd -q -c -3", 93}, {"zstd -q -c -19", 93}, {"zstd -q -c -1", 20}, {"xz -c -6", 95},
                        {"xz -c -9e", 95}};
  for (Tool const& tool : tools) {
    std::vector<RawZipEntry> entries;
    for (auto const& [name, data] : files) {
      std::string compressed;
      ASSERT_EQ(testsupport::runCommand(std::string(tool.command) + " " + shellQuote(dir.file("in/" + name)),
                                        &compressed),
                0);
      RawZipEntry entry;
      entry.name = "in/" + name;
      entry.method = tool.method;
      entry.crc = testsupport::crc32Of(data);
      entry.data = compressed;
      entry.size = data.size();
      entry.versionNeeded = 63;
      entries.push_back(entry);
    }
    testsupport::writeFile(dir.file("tool.zip"), rawZip(entries));
    SCOPED_TRACE(tool.command);
    expectAll(readAll("tool.zip"), tool.method, Encryption::None);
  }
}

TEST_F(ReaderMethodsTest, TheShortPathReadsAndDescribesAesEntries) {
  run("7z a -tzip -p" + shellQuote(kPassword) + " -mem=AES192 -mm=BZip2 aes.zip in/* >/dev/null");
  ziputil::ZipFileOptions options;
  options.password = kPassword;
  auto zip = ziputil::CZipFile::open(dir.file("aes.zip"), ziputil::ZipFileMode::Read, options);
  EXPECT_EQ(zip->read("in/text.txt"), files["text.txt"]);
  ziputil::EntryInfo const info = zip->info("in/text.txt");
  EXPECT_EQ(info.method, 99);
  EXPECT_EQ(info.realMethod, 12);
  EXPECT_EQ(info.encryption, Encryption::Aes192);
  EXPECT_TRUE(info.isEncrypted);
  EXPECT_EQ(ziputil::encryptionName(info.encryption), "AES-192");
}

// ---- failures -----------------------------------------------------------------------

/// The error of an entry the reader cannot read to its end, or refuses at its open.
void expectEntryError(tal::CFileSystemError const& e, std::string const& message, tal::CURI const& entry) {
  EXPECT_EQ(typeid(e), typeid(tal::CFileSystemError));
  EXPECT_EQ(utf8(e.getMessage()), message);
  EXPECT_EQ(utf8(e.getContext()), "IO");
  EXPECT_EQ(e.getCode(), tal::CIOError::ReadFailed);
  EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", entry.toString(true)}, {"fileSysProblem", "0"}}));
  EXPECT_EQ(e.getCause(), nullptr);
}

/// The error of an open minizip's adapter refused, with its result.
void expectOpenRefused(tal::CFileSystemError const& e, bool withPassword, int result, tal::CURI const& archive) {
  EXPECT_EQ(typeid(e), typeid(tal::CFileSystemError));
  EXPECT_EQ(utf8(e.getMessage()), withPassword ? "unzOpenCurrentFilePassword failed" : "unzOpenCurrentFile failed");
  EXPECT_EQ(e.getCode(), -1);
  EXPECT_EQ(e.getProps(), (tal::CProps{{"uri", archive.toString(true)},
                                       {"result", tal::String(std::to_string(result).c_str())},
                                       {"fileSysProblem", "0"}}));
}

/// What reading the archive's only entry to its end gives: "ok" and the
/// bytes, or "open: <message>" or "read: <message>" (with the error checked).
std::string readOnly(tal::IFileSystem* fs, tal::CURI const& archive, std::string const& password, bool verify,
                     std::string* data = nullptr) {
  CZipReader::Options options;
  options.verifyEntries = verify;
  auto reader = tal::newObj<CZipReader>(fs, archive, tal::String(password.c_str()), options);
  EXPECT_TRUE(reader->nextFile());
  tal::CURI const entry = archive << reader->getCurrentFileRelativeURI();
  tal::P<tal::IInStream> in;
  try {
    in = reader->openCurrentFileStream();
  } catch (tal::CFileSystemError const& e) {
    return "open: " + utf8(e.getMessage()) + " " + utf8(e.getProps().get("result"));
  }
  std::string got;
  char buffer[4096];
  try {
    while (int n = in->readLax(buffer, sizeof buffer)) got.append(buffer, static_cast<std::size_t>(n));
  } catch (tal::CFileSystemError const& e) {
    expectEntryError(e, utf8(e.getMessage()), entry);
    try { // and every later read
      in->readLax(buffer, sizeof buffer);
      ADD_FAILURE() << "a read after the failure did not throw";
    } catch (tal::CFileSystemError const& again) {
      EXPECT_EQ(utf8(again.getMessage()), utf8(e.getMessage()));
    }
    in->close();
    return "read: " + utf8(e.getMessage());
  }
  in->close();
  if (data) *data = got;
  return "ok";
}

std::string const kChanged = "read: ZIP entry's WinZip AES authentication code does not match: its encrypted data "
                             "was changed or damaged";

TEST_F(ReaderMethodsTest, AesEntriesRefuseAMissingOrWrongPasswordAtOpen) {
  run("7z a -tzip -p" + shellQuote(kPassword) + " -mem=AES256 aes.zip in/text.txt >/dev/null");
  tal::CURI const archive = dir.uri("aes.zip");
  for (std::string const& password : {std::string(), std::string("wrong"), std::string("correct horsE")}) {
    auto reader = tal::newObj<CZipReader>(fs.get(), archive, tal::String(password.c_str()));
    ASSERT_TRUE(reader->nextFile());
    try {
      reader->openCurrentFileStream();
      FAIL() << "opened with \"" << password << "\"";
    } catch (tal::CFileSystemError const& e) {
      expectOpenRefused(e, !password.empty(), password.empty() ? -102 : -106, archive);
    }
    EXPECT_FALSE(reader->nextFile()); // the reader moves on
  }
  std::string data;
  EXPECT_EQ(readOnly(fs.get(), archive, kPassword, false, &data), "ok");
  EXPECT_EQ(data, files["text.txt"]);
}

TEST_F(ReaderMethodsTest, AFlippedByteAnywhereInAnAesEntryFailsItsOpenOrItsLastRead) {
  for (char const* method : {"Copy", "Deflate", "BZip2"}) {
    testsupport::runCommand("rm -f " + shellQuote(dir.file("aes.zip")));
    run("7z a -tzip -p" + shellQuote(kPassword) + " -mem=AES256 -mm=" + method + " aes.zip in/text.txt >/dev/null");
    std::string const original = testsupport::readFile(dir.file("aes.zip"));
    // the only entry: its local header at 0, its data after the name and the extra field
    auto le16 = [&](std::size_t at) {
      return static_cast<std::size_t>(static_cast<unsigned char>(original[at])) |
             static_cast<std::size_t>(static_cast<unsigned char>(original[at + 1])) << 8;
    };
    std::size_t const data = 30 + le16(26) + le16(28);
    std::size_t const stored = le16(18) | le16(20) << 16;
    ASSERT_GT(stored, 100u);
    struct Flip {
      char const* where;
      std::size_t at;
    };
    Flip const flips[] = {{"salt", data + 3},           {"verifier", data + 16},          {"first data", data + 18},
                          {"middle", data + stored / 2}, {"last data", data + stored - 11}, {"code", data + stored - 10},
                          {"last code", data + stored - 1}};
    for (Flip const& flip : flips) {
      for (bool verify : {false, true}) {
        SCOPED_TRACE(std::string(method) + " " + flip.where + (verify ? " verified" : ""));
        std::string changed = original;
        changed[flip.at] = static_cast<char>(changed[flip.at] ^ 0x04);
        testsupport::writeFile(dir.file("changed.zip"), changed);
        std::string const verdict = readOnly(fs.get(), dir.uri("changed.zip"), kPassword, verify);
        if (std::string(flip.where) == "verifier") {
          EXPECT_EQ(verdict, "open: unzOpenCurrentFilePassword failed -106");
        } else if (std::string(flip.where) == "salt") { // other keys: the verifier fails, but for 1 in 65,536 salts
          EXPECT_TRUE(verdict == "open: unzOpenCurrentFilePassword failed -106" || verdict == kChanged) << verdict;
        } else {
          EXPECT_EQ(verdict, kChanged);
        }
      }
    }
  }
}

TEST_F(ReaderMethodsTest, UnsupportedMethodsInsideAesAreRefusedAtOpen) {
  run("7z a -tzip -p" + shellQuote(kPassword) + " -mem=AES128 -mm=PPMd ppmd.zip in/text.txt >/dev/null");
  auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri("ppmd.zip"), tal::String(kPassword));
  ASSERT_TRUE(reader->nextFile());
  EXPECT_EQ(reader->getCurrentFileMethod(), 99);
  EXPECT_EQ(reader->getCurrentFileRealMethod(), 98);
  EXPECT_EQ(reader->getCurrentFileEncryption(), Encryption::Aes128);
  try {
    reader->openCurrentFileStream();
    FAIL();
  } catch (tal::CFileSystemError const& e) {
    expectOpenRefused(e, true, -107, dir.uri("ppmd.zip"));
  }
}

/// One entry of `method` holding `stored` for `data`.
std::string oneEntry(int method, std::string const& stored, std::string const& data, int flags = 0) {
  RawZipEntry entry;
  entry.name = "e.bin";
  entry.method = method;
  entry.flags = flags;
  entry.crc = testsupport::crc32Of(data);
  entry.data = stored;
  entry.size = data.size();
  entry.versionNeeded = 63;
  return rawZip({entry});
}

TEST_F(ReaderMethodsTest, DamagedDataOfEveryMethodFailsTheRead) {
  std::string const data = files["text.txt"];
  struct Case {
    char const* command;
    int method;
  };
  for (Case const& c : {Case{"zstd -q -c", 93}, Case{"xz -c", 95}, Case{"bzip2 -c", 12}}) {
    std::string stored;
    ASSERT_EQ(testsupport::runCommand(std::string(c.command) + " " + shellQuote(dir.file("in/text.txt")), &stored), 0);
    for (std::size_t cut : {std::size_t(0), std::size_t(1), stored.size() / 2, stored.size() - 1}) {
      SCOPED_TRACE(std::string(c.command) + " cut at " + std::to_string(cut));
      testsupport::writeFile(dir.file("cut.zip"), oneEntry(c.method, stored.substr(0, cut), data));
      std::string const verdict = readOnly(fs.get(), dir.uri("cut.zip"), "", true);
      // nothing at all may read as no zstd frame at all: then it is short of the stored size
      if (cut == 0 && verdict.rfind("read: ZIP entry is shorter than its stored size: 0 of ", 0) == 0) continue;
      EXPECT_EQ(verdict.substr(0, 32), "read: ZIP entry cannot be read: ") << verdict;
    }
  }
}

TEST_F(ReaderMethodsTest, VerificationFindsDataPastTheMethodsEndAndAWrongCrc) {
  std::string const data = files["text.txt"];
  std::string xz;
  ASSERT_EQ(testsupport::runCommand("xz -c " + shellQuote(dir.file("in/text.txt")), &xz), 0);
  // junk after the xz stream
  testsupport::writeFile(dir.file("x.zip"), oneEntry(95, xz + "junk", data));
  EXPECT_EQ(readOnly(fs.get(), dir.uri("x.zip"), "", false), "ok"); // unchecked: the data is there
  EXPECT_EQ(readOnly(fs.get(), dir.uri("x.zip"), "", true),
            "read: ZIP entry's data does not end at its stored size of " + std::to_string(data.size()) + " bytes");
  // a stored size smaller than the data
  RawZipEntry entry;
  entry.name = "e.bin";
  entry.method = 95;
  entry.crc = testsupport::crc32Of(data.substr(0, 1000));
  entry.data = xz;
  entry.size = 1000;
  testsupport::writeFile(dir.file("x.zip"), rawZip({entry}));
  std::string got;
  EXPECT_EQ(readOnly(fs.get(), dir.uri("x.zip"), "", false, &got), "ok");
  EXPECT_EQ(got, data.substr(0, 1000)); // as minizip does for deflated entries: no more than the stored size
  EXPECT_EQ(readOnly(fs.get(), dir.uri("x.zip"), "", true),
            "read: ZIP entry's data does not end at its stored size of 1000 bytes");
  // a wrong CRC-32
  RawZipEntry lying;
  lying.name = "e.bin";
  lying.method = 95;
  lying.crc = testsupport::crc32Of("other");
  lying.data = xz;
  lying.size = data.size();
  testsupport::writeFile(dir.file("x.zip"), rawZip({lying}));
  std::string const verdict = readOnly(fs.get(), dir.uri("x.zip"), "", true);
  EXPECT_EQ(verdict.substr(0, 41), "read: ZIP entry's CRC-32 does not match: ") << verdict;
}

TEST_F(ReaderMethodsTest, ADictionaryAboveTheLimitIsRefusedAtOpen) {
  std::string xz;
  ASSERT_EQ(testsupport::runCommand("xz -c -9 " + shellQuote(dir.file("in/text.txt")), &xz), 0); // 64 MiB dictionary
  testsupport::writeFile(dir.file("big.zip"), oneEntry(95, xz, files["text.txt"]));
  CZipReader::Options options;
  options.maxDecoderWindow = 1 << 20;
  auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri("big.zip"), tal::String(), options);
  ASSERT_TRUE(reader->nextFile());
  tal::CURI const entry = dir.uri("big.zip") << testsupport::entryURI("e.bin");
  try {
    auto in = reader->openCurrentFileStream();
    char buffer[100];
    in->readLax(buffer, sizeof buffer); // xz's dictionary is known at its first block
    FAIL() << "a 64 MiB dictionary was taken under a 1 MiB limit";
  } catch (tal::CFileSystemError const& e) {
    expectEntryError(e, utf8(e.getMessage()), entry);
    EXPECT_EQ(utf8(e.getMessage()).substr(0, 27), "ZIP entry cannot be read: x") << utf8(e.getMessage());
  }
}

} // namespace
