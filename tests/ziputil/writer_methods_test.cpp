// Entries the writer compresses or encrypts itself: WinZip AES (AE-2) and
// zstd, checked by 7-Zip, bsdtar, the zstd tool and the library's reader.
#include "ziputil/CParallelDeflater.h"
#include "ziputil/CZipReader.h"
#include "ziputil/CZipWriter.h"

#include "support/FaultyFileSystem.h"
#include "support/TempDir.h"
#include "ziputil/Encryption.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

using testsupport::shellQuote;
using testsupport::utf8;
using ziputil::CZipReader;
using ziputil::CZipWriter;
using ziputil::Encryption;

namespace {

constexpr char kPassword[] = "s3cret pass";

std::string textData(std::size_t size, unsigned seed) {
  static char const* const words[] = {"alpha ", "beta ", "gamma ", "delta\n", "epsilon ", "zeta ", "eta ", "theta "};
  std::mt19937 random(seed);
  std::string text;
  while (text.size() < size) text += words[random() % 8];
  text.resize(size);
  return text;
}

class WriterMethodsTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
  tal::P<tal::CLocalFileSystem> fs = tal::newObj<tal::CLocalFileSystem>();
  std::vector<std::pair<std::string, std::string>> entries = {
      {"empty.txt", ""}, {"one.txt", "1"}, {"text.txt", textData(400000, 1)}, {"folder/", ""},
      {"folder/more.txt", textData(70000, 2)}};

  tal::P<CZipWriter> newWriter(std::string const& name, char const* password, Encryption encryption) {
    ziputil::createEmptyArchive(fs.get(), dir.uri(name));
    CZipWriter::Options options;
    options.encryption = encryption;
    options.madeByUnix = true;
    return tal::newObj<CZipWriter>(fs.get(), dir.uri(name), tal::String(password), CZipWriter::CompNormal, options);
  }
  void writeAll(CZipWriter& writer, CZipWriter::EntryOptions const& options) {
    for (auto const& [name, data] : entries) {
      auto out = writer.beginAddFile(testsupport::entryURI(name), tal::CTimeFields(2024, 5, 6, 7, 8, 10, 0.0, 0, false),
                                     options);
      // in odd pieces, so that the encoder's and the cipher's blocks are cut anywhere
      for (std::size_t at = 0; at < data.size(); at += 9999)
        out->write(data.data() + at, static_cast<int>(std::min<std::size_t>(9999, data.size() - at)), nullptr);
      out->close();
    }
  }
  /// Every entry read back through the reader, with every check on.
  std::map<std::string, std::string> readBack(std::string const& name, char const* password,
                                              std::map<std::string, int>* methods = nullptr,
                                              std::map<std::string, Encryption>* encryptions = nullptr) {
    CZipReader::Options options;
    options.verifyEntries = true;
    auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri(name), tal::String(password), options);
    std::map<std::string, std::string> read;
    while (reader->nextFile()) {
      std::string const entry = reader->getCurrentFileRawName();
      if (methods) (*methods)[entry] = reader->getCurrentFileMethod() * 1000 + reader->getCurrentFileRealMethod();
      if (encryptions) (*encryptions)[entry] = reader->getCurrentFileEncryption();
      auto in = reader->openCurrentFileStream();
      char buffer[8192];
      std::string data;
      while (int n = in->readLax(buffer, sizeof buffer)) data.append(buffer, static_cast<std::size_t>(n));
      in->close();
      read[entry] = data;
    }
    return read;
  }
  void expectAllRead(std::map<std::string, std::string> const& read) {
    ASSERT_EQ(read.size(), entries.size());
    for (auto const& [name, data] : entries) EXPECT_EQ(read.at(name), data) << name;
  }
  std::string run(std::string const& command, int expected = 0) {
    std::string output;
    EXPECT_EQ(testsupport::runCommand("cd " + shellQuote(dir.path()) + " && " + command + " 2>&1", &output), expected)
        << command << "\n" << output;
    return output;
  }
};

TEST_F(WriterMethodsTest, AesEntriesOfEveryKeySizeAreReadByTheReaderSevenZipAndBsdtar) {
  struct Case {
    Encryption encryption;
    char const* name;
  };
  for (Case const& c : {Case{Encryption::Aes128, "aes128.zip"}, Case{Encryption::Aes192, "aes192.zip"},
                        Case{Encryption::Aes256, "aes256.zip"}}) {
    SCOPED_TRACE(c.name);
    for (CZipWriter::EntryOptions::Method method : {CZipWriter::EntryOptions::WriterDefault,
                                                    CZipWriter::EntryOptions::Stored, CZipWriter::EntryOptions::Zstd}) {
      testsupport::runCommand("rm -f " + shellQuote(dir.file(c.name)));
      auto writer = newWriter(c.name, kPassword, c.encryption);
      CZipWriter::EntryOptions options;
      options.method = method;
      writeAll(*writer, options);
      writer->close();
      std::map<std::string, int> methods;
      std::map<std::string, Encryption> encryptions;
      expectAllRead(readBack(c.name, kPassword, &methods, &encryptions));
      int const inner = method == CZipWriter::EntryOptions::Stored ? 0
                        : method == CZipWriter::EntryOptions::Zstd ? 93
                                                                   : 8;
      EXPECT_EQ(methods["text.txt"], 99 * 1000 + inner);
      EXPECT_EQ(encryptions["text.txt"], c.encryption);
      EXPECT_EQ(encryptions["folder/"], Encryption::None); // folders are not encrypted
      if (method == CZipWriter::EntryOptions::Zstd) continue; // the other tools' zstd support varies
      std::string const tested = run("7z t -p" + shellQuote(kPassword) + " " + c.name);
      EXPECT_NE(tested.find("Everything is Ok"), std::string::npos) << tested;
      EXPECT_EQ(run("7z x -so -p" + shellQuote(kPassword) + " " + c.name + " text.txt"), entries[2].second);
      EXPECT_EQ(run("bsdtar -xOf " + std::string(c.name) + " --passphrase " + shellQuote(kPassword) + " folder/more.txt"),
                entries[4].second);
      std::string const refused = run("7z t -pwrong " + std::string(c.name), 2);
      EXPECT_NE(refused.find("Wrong password"), std::string::npos) << refused;
    }
  }
}

TEST_F(WriterMethodsTest, EveryAesEntryHasItsOwnSalt) {
  std::string const data = "the same bytes, the same password";
  std::vector<std::string> stored;
  for (int i = 0; i < 2; ++i) {
    std::string const name = "salt" + std::to_string(i) + ".zip";
    auto writer = newWriter(name, kPassword, Encryption::Aes256);
    for (char const* entry : {"a.txt", "b.txt"}) {
      auto out = writer->beginAddFile(testsupport::entryURI(entry), tal::CTimeFields(2024, 1, 1, 0, 0, 0, 0.0, 0, false));
      out->write(data.data(), static_cast<int>(data.size()), nullptr);
      out->close();
    }
    writer->close();
    auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri(name), tal::String());
    while (reader->nextFile()) {
      auto raw = reader->openCurrentFileRawStream();
      char buffer[256];
      int const n = raw->readLax(buffer, sizeof buffer);
      raw->close();
      ASSERT_GT(n, 16 + 2 + 10); // salt, verifier, the data deflated, code
      stored.emplace_back(buffer, 16);
    }
  }
  ASSERT_EQ(stored.size(), 4u);
  for (std::size_t i = 0; i < stored.size(); ++i)
    for (std::size_t j = i + 1; j < stored.size(); ++j) EXPECT_NE(stored[i], stored[j]) << i << " " << j;
}

TEST_F(WriterMethodsTest, ZstdEntriesHoldWhatTheZstdToolDecodes) {
  for (int level : {-1, 1, 19}) {
    SCOPED_TRACE(level);
    testsupport::runCommand("rm -f " + shellQuote(dir.file("zstd.zip")));
    auto writer = newWriter("zstd.zip", "", Encryption::Traditional);
    CZipWriter::EntryOptions options;
    options.method = CZipWriter::EntryOptions::Zstd;
    options.level = level;
    writeAll(*writer, options);
    writer->close();
    std::map<std::string, int> methods;
    expectAllRead(readBack("zstd.zip", "", &methods));
    EXPECT_EQ(methods["text.txt"], 93 * 1000 + 93);
    auto reader = tal::newObj<CZipReader>(fs.get(), dir.uri("zstd.zip"), tal::String());
    ASSERT_TRUE(reader->tryGoToFile(testsupport::entryURI("text.txt")));
    EXPECT_LT(reader->getCurrentFileCompressedSize(), reader->getCurrentFileUncompressedSize() / 2);
    auto raw = reader->openCurrentFileRawStream();
    std::string stored;
    char buffer[8192];
    while (int n = raw->readLax(buffer, sizeof buffer)) stored.append(buffer, static_cast<std::size_t>(n));
    raw->close();
    testsupport::writeFile(dir.file("text.zst"), stored);
    EXPECT_EQ(run("zstd -q -d -c text.zst"), entries[2].second);
  }
}

TEST_F(WriterMethodsTest, ZstdLevelsOutsideTheirRangeAreRefused) {
  auto writer = newWriter("bad.zip", "", Encryption::Traditional);
  for (int level : {0, -2, 23}) {
    CZipWriter::EntryOptions options;
    options.method = CZipWriter::EntryOptions::Zstd;
    options.level = level;
    try {
      writer->beginAddFile(testsupport::entryURI("x.txt"), tal::CTimeFields(), options);
      FAIL() << level;
    } catch (tal::CInvalidArgError const& e) {
      EXPECT_EQ(utf8(e.getMessage()), "Invalid argument passed to 'CZipWriter::beginAddFile': level is invalid.");
      EXPECT_EQ(e.getProps(), (tal::CProps{{"level", tal::String(std::to_string(level).c_str())}}));
    }
  }
  testsupport::addEntry(*writer, "ok.txt", "the writer is unharmed");
  writer->close();
  EXPECT_EQ(readBack("bad.zip", "").at("ok.txt"), "the writer is unharmed");
}

TEST_F(WriterMethodsTest, TheParallelDeflaterWritesAesEntries) {
  std::vector<std::string> names;
  for (int i = 0; i < 6; ++i) {
    names.push_back("in" + std::to_string(i) + ".txt");
    testsupport::writeFile(dir.file(names.back()), textData(50000 + 7 * i, 10 + static_cast<unsigned>(i)));
  }
  auto writer = newWriter("parallel.zip", kPassword, Encryption::Aes256);
  std::vector<ziputil::CParallelDeflater::Source> sources;
  for (std::string const& name : names) {
    ziputil::CParallelDeflater::Source source;
    source.relativeURIInArchive = testsupport::entryURI(name);
    source.time = tal::CTimeFields(2024, 1, 1, 0, 0, 0, 0.0, 0, false);
    std::string const path = dir.file(name);
    source.open = [this, path] { return tal::P<tal::IInStream>(fs->openStream(testsupport::fileURI(path), 1, 0)); };
    sources.push_back(source);
  }
  ziputil::CParallelDeflater::Settings settings;
  settings.threads = 2;
  ziputil::CParallelDeflater deflater(settings);
  deflater.addAll(*writer, sources);
  writer->close();
  std::map<std::string, Encryption> encryptions;
  std::map<std::string, std::string> const read = readBack("parallel.zip", kPassword, nullptr, &encryptions);
  ASSERT_EQ(read.size(), names.size());
  for (std::string const& name : names) {
    EXPECT_EQ(read.at(name), testsupport::readFile(dir.file(name))) << name;
    EXPECT_EQ(encryptions.at(name), Encryption::Aes256) << name;
  }
  std::string const tested = run("7z t -p" + shellQuote(kPassword) + " parallel.zip");
  EXPECT_NE(tested.find("Everything is Ok"), std::string::npos) << tested;
}

TEST_F(WriterMethodsTest, TheParallelDeflaterRefusesZstdEntriesBeforeWritingAnything) {
  auto writer = newWriter("pz.zip", "", Encryption::Traditional);
  testsupport::addEntry(*writer, "first.txt", "kept");
  ziputil::CParallelDeflater::Source source;
  source.relativeURIInArchive = testsupport::entryURI("z.txt");
  source.options.method = CZipWriter::EntryOptions::Zstd;
  source.open = [] { return tal::P<tal::IInStream>(); };
  ziputil::CParallelDeflater deflater;
  try {
    deflater.addAll(*writer, {source});
    FAIL();
  } catch (tal::CInvalidArgError const& e) {
    EXPECT_EQ(utf8(e.getMessage()), "Invalid argument passed to 'CParallelDeflater::addAll': zstd entries are "
                                    "written by CZipWriter::beginAddFile, not here.");
    EXPECT_EQ(e.getProps(), (tal::CProps{{"name", "z.txt"}}));
  }
  writer->close();
  EXPECT_EQ(readBack("pz.zip", "").size(), 1u);
}

/// Every I/O call of adding an AES entry of zstd data to an archive in place
/// fails in turn: the call that meets the fault throws the file system's own
/// error unchanged, the entry is taken back (or, when the writer's close
/// failed, the whole file put back), and the old entries read back intact.
TEST_F(WriterMethodsTest, EveryCallOfAnAesZstdEntryFailsInTurn) {
  auto memory = tal::newObj<tal::CMemoryFileSystem>();
  auto faulty = tal::newObj<testsupport::CFaultyFileSystem>(memory.get());
  tal::CURI const uri(tal::String("mem:/aes-faults.zip"));
  {
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    testsupport::addEntry(*writer, "a", std::string(20000, 'a'));
    testsupport::addEntry(*writer, "b", std::string(20000, 'b'));
    writer->close();
  }
  std::string const original = memory->getFile(uri);
  std::string const data = textData(60000, 7);
  int faults = 0;
  for (auto op : {testsupport::CFaultyFileSystem::Write, testsupport::CFaultyFileSystem::Seek,
                  testsupport::CFaultyFileSystem::Tell, testsupport::CFaultyFileSystem::Read}) {
    for (long long n = 1;; ++n) {
      ASSERT_LT(n, 1000);
      memory->setFile(uri, original);
      faulty->reset();
      faulty->failNth(op, n);
      bool threw = false;
      try {
        CZipWriter::Options options;
        options.encryption = Encryption::Aes256;
        auto writer = tal::newObj<CZipWriter>(faulty.get(), uri, tal::String(kPassword), CZipWriter::CompNormal,
                                              options);
        CZipWriter::EntryOptions entry;
        entry.method = CZipWriter::EntryOptions::Zstd;
        tal::P<tal::IOutStream> out;
        bool writing = false;
        try {
          out = writer->beginAddFile(testsupport::entryURI("new"), tal::CTimeFields(2024, 1, 1, 0, 0, 0, 0.0, 0, false),
                                     entry);
          writing = true;
          for (std::size_t at = 0; at < data.size(); at += 6000)
            out->write(data.data() + at, static_cast<int>(std::min<std::size_t>(6000, data.size() - at)), nullptr);
          writing = false;
          out->close();
        } catch (testsupport::CInjectedError const&) {
          threw = true;
          if (writing) { // the spoiled entry says so again
            EXPECT_THROW(out->close(), testsupport::CInjectedError) << n;
          }
        }
        writer->close();
      } catch (testsupport::CInjectedError const&) {
        threw = true;
      }
      bool const fired = faulty->fired();
      faulty->failNth(op, 0);
      EXPECT_EQ(threw, fired) << testsupport::CFaultyFileSystem::opName(op) << " " << n;
      auto reader = tal::newObj<CZipReader>(memory.get(), uri, tal::String(kPassword));
      std::map<std::string, std::string> found;
      while (reader->nextFile()) {
        auto in = reader->openCurrentFileStream();
        std::string bytes(static_cast<std::size_t>(reader->getCurrentFileUncompressedSize()), '\0');
        if (!bytes.empty()) in->read(&bytes[0], static_cast<int>(bytes.size()));
        in->close();
        found[utf8(reader->getCurrentFileRelativeURI().getPath())] = bytes;
      }
      EXPECT_EQ(found["a"], std::string(20000, 'a')) << n;
      EXPECT_EQ(found["b"], std::string(20000, 'b')) << n;
      if (!fired) {
        EXPECT_EQ(found["new"], data);
        break;
      }
      ++faults;
      EXPECT_EQ(found.count("new"), 0u) << testsupport::CFaultyFileSystem::opName(op) << " " << n;
    }
  }
  EXPECT_GT(faults, 10);
}

} // namespace
