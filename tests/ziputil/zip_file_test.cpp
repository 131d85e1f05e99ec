// CZipFile and the text names: the short path for the common tasks, checked
// against Python's zipfile and Info-ZIP unzip, with its errors exactly.
#include "ziputil/Names.h"
#include "ziputil/ZipFile.h"

#include "support/FaultyFileSystem.h"
#include "support/TestFileSystems.h"
#include "support/TempDir.h"
#include "support/WriterChecks.h"
#include "support/ZipFixtures.h"
#include "tal/LocalFileSystem.h"
#include "tal/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

using testsupport::expectSameError;
using testsupport::makeZip;
using testsupport::readFile;
using testsupport::runCommand;
using testsupport::runPython;
using testsupport::shellQuote;
using testsupport::utf8;
using testsupport::writeFile;
using ziputil::CZipFile;
using ziputil::ZipFileMode;
using ziputil::ZipFileOptions;

namespace {

tal::CProps props(std::initializer_list<std::pair<char const*, std::string>> items) {
  tal::CProps result;
  for (auto const& item : items) result[tal::String(item.first)] = tal::String::fromUTF8(item.second);
  return result;
}

tal::CError plainError(std::string const& message, tal::CProps const& properties) {
  return tal::CError(tal::String::fromUTF8(message), tal::String(), -1, properties, nullptr);
}

/// `error` as CZipFile passes it on: its message followed by " (<place>)".
template <class Error> Error placed(Error error, std::string const& place) {
  error.setMessage(error.getMessage() + tal::String::fromUTF8(" (" + place + ")"));
  return error;
}

/// Runs `call`, expecting a tal error exactly like `expected`.
template <class Error, class Call> void expectError(Call const& call, Error const& expected) {
  try {
    call();
    ADD_FAILURE() << "no error thrown; expected: " << expected.what();
  } catch (tal::CError const& e) {
    SCOPED_TRACE(std::string("actual: ") + e.what() + "\nexpected: " + expected.what());
    expectSameError(e, expected);
  }
}

/// Python's view of an archive: one line per entry, "name|data|mode|system|comment".
std::string pythonListing(std::string const& archive, std::string const& password = std::string()) {
  return runPython(R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as z:
    if sys.argv[2]:
        z.setpassword(sys.argv[2].encode())
    for i in z.infolist():
        print("%s|%s|%o|%d|%s" % (i.filename, z.read(i).decode('utf-8', 'replace'), i.external_attr >> 16,
                                  i.create_system, i.comment.decode()))
    print("comment=" + z.comment.decode())
)",
                   {archive, password});
}

class ZipFileTest : public ::testing::Test {
protected:
  testsupport::TempDir dir;
};

TEST_F(ZipFileTest, EntryNamesAreTextNotUriSyntax) {
  for (char const* name : {"docs/report #1.txt", "docs/100%.txt", "a?b=c", "caf\xC3\xA9 x.txt", "c:odd", " blank "}) {
    tal::CURI const uri = ziputil::entryURI(name);
    EXPECT_EQ(utf8(uri.getPath()), name);
    EXPECT_FALSE(uri.isAbsolute());
    EXPECT_FALSE(uri.hasFragment());
    EXPECT_FALSE(uri.hasQuery());
    EXPECT_EQ(ziputil::entryName(uri), name);
  }
  expectError([] { ziputil::entryURI("bad\xFF"); },
              tal::CInvalidArgError(tal::String("ziputil::entryURI"), tal::String("name is not valid UTF-8"),
                                    props({{"name", "bad\xC3\xBF"}})));
  expectError([] { ziputil::entryURI(""); },
              tal::CInvalidArgError(tal::String("ziputil::entryURI"), tal::String("name is empty"), tal::CProps()));
}

TEST_F(ZipFileTest, LocalPathsBecomeFileUrisWithoutParsing) {
  tal::CURI const absolute = ziputil::localFileURI("/tmp/a b#1%.zip");
  EXPECT_EQ(utf8(absolute.toString(true)), "file:///tmp/a%20b%231%25.zip");
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(utf8(ziputil::localFileURI("x/y.zip").getPath()), std::string(cwd) + "/x/y.zip");
  expectError([] { ziputil::localFileURI(""); },
              tal::CInvalidArgError(tal::String("ziputil::localFileURI"), tal::String("path is empty"), tal::CProps()));
}

TEST_F(ZipFileTest, CreateAddsFromMemoryFilesAndFoldersThatOtherToolsRead) {
  std::string const source = dir.file("source.txt");
  writeFile(source, "from a file\n");
  ASSERT_EQ(chmod(source.c_str(), 0640), 0);
  struct utimbuf times{1600000000, 1600000000};
  ASSERT_EQ(utime(source.c_str(), &times), 0);
  std::string const archive = dir.file("new.zip");
  {
    auto zip = CZipFile::open(archive, ZipFileMode::Create);
    zip->add("notes/caf\xC3\xA9 #1.txt", "hello\n");
    zip->add("100%.txt", "percent");
    zip->addFile("copied.txt", source);
    zip->addDirectory("empty");
    zip->close();
    zip->close(); // a second close does nothing
  }
  EXPECT_EQ(pythonListing(archive), "notes/caf\xC3\xA9 #1.txt|hello\n|100644|3|\n"
                                    "100%.txt|percent|100644|3|\n"
                                    "copied.txt|from a file\n|100640|3|\n"
                                    "empty/||40755|3|\n"
                                    "comment=\n");
  std::string output;
  EXPECT_EQ(runCommand("unzip -t " + shellQuote(archive) + " 2>&1", &output), 0) << output;
  EXPECT_EQ(output.find("mismatching"), std::string::npos) << output;
  // The file's time comes with it.
  auto zip = CZipFile::open(archive);
  tal::CTimeFields const time = zip->info("copied.txt").modified;
  struct tm local;
  time_t const t = 1600000000;
  localtime_r(&t, &local);
  EXPECT_EQ(time, tal::CTimeFields(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                                   local.tm_min, local.tm_sec, 0.0, 0, false));
}

TEST_F(ZipFileTest, ReadsEntriesByNameFromAnArchiveMadeByPython) {
  std::string const archive = dir.file("py.zip");
  makeZip(archive, {{"a.txt", "one\ntwo\n"}, {"dir/b #2.txt", std::string(100000, 'b')}, {"a.txt", "dup"}});
  auto zip = CZipFile::open(archive);
  std::vector<ziputil::EntryInfo> const entries = zip->entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[1].name, "dir/b #2.txt");
  EXPECT_EQ(entries[1].rawName, "dir/b #2.txt");
  EXPECT_EQ(entries[1].size, 100000);
  EXPECT_LT(entries[1].compressedSize, 1000);
  EXPECT_EQ(entries[1].method, 8);
  EXPECT_EQ(entries[1].modified, tal::CTimeFields(2019, 12, 31, 23, 58, 58, 0.0, 0, false));
  EXPECT_FALSE(entries[1].isDirectory);
  EXPECT_FALSE(entries[1].isEncrypted);
  EXPECT_EQ(zip->read("a.txt"), "one\ntwo\n"); // the first entry of a name wins
  EXPECT_EQ(zip->read("dir/b #2.txt"), std::string(100000, 'b'));
  EXPECT_TRUE(zip->contains("dir/b #2.txt"));
  EXPECT_FALSE(zip->contains("dir/b"));
  EXPECT_EQ(zip->info("a.txt").crc32, entries[0].crc32);
  // entries() walks from the start again after lookups.
  EXPECT_EQ(zip->entries().size(), 3u);
  tal::P<tal::IInStream> in = zip->openEntry("a.txt");
  char buffer[16] = {};
  EXPECT_EQ(in->readLax(buffer, sizeof buffer), 8);
  EXPECT_EQ(std::string(buffer, 8), "one\ntwo\n");
  in->close();
  // Errors name the archive's path and the entry.
  tal::CProps missing = props({{"uri", utf8(ziputil::localFileURI(archive).toString(true))}, {"name", "nope #1"}});
  tal::CFileSystemError notFound(tal::CFileSystemError::NotFound,
                                 plainError("No such entry in the ZIP archive. (" + archive + ": nope #1)", missing));
  expectError([&] { zip->read("nope #1"); }, notFound);
  expectError([&] { zip->info("nope #1"); }, notFound);
  expectError([&] { zip->openEntry("nope #1"); }, notFound);
  tal::CProps const where = props({{"uri", utf8(ziputil::localFileURI(archive).toString(true))}});
  expectError([&] { zip->add("x", "y"); }, plainError("The ZIP archive is open for reading. (" + archive + ": x)", where));
  zip->close();
  expectError([&] { zip->entries(); },
              tal::CIOError(tal::CIOError::StreamClosed, tal::String::fromUTF8("ZIP file already closed (" + archive + ")"),
                            where, nullptr));
}

TEST_F(ZipFileTest, ErrorsOfTheClassesUnderneathKeepTheirClassAndGainThePlace) {
  std::string const missing = dir.file("missing.zip");
  try {
    CZipFile::open(missing);
    FAIL() << "opened a missing archive";
  } catch (tal::CIOError const& e) {
    EXPECT_EQ(e.getCode(), tal::CIOError::OpenFailed);
    EXPECT_EQ(std::string(e.what()), "Cannot open file: No such file or directory (" + missing + ")");
    EXPECT_EQ(utf8(e.getProps().get(tal::String("uri"))), utf8(ziputil::localFileURI(missing).toString(true)));
  }
  std::string const notZip = dir.file("not.zip");
  writeFile(notZip, "this is not an archive");
  expectError([&] { CZipFile::open(notZip); },
              plainError("File is not a valid ZIP archive. (" + notZip + ")",
                         props({{"uri", utf8(ziputil::localFileURI(notZip).toString(true))}})));
  // A damaged entry is caught when read (verification is on by default).
  std::string const archive = dir.file("crc.zip");
  makeZip(archive, {{"a.txt", "some text to damage"}}, true);
  std::string bytes = readFile(archive);
  std::size_t const at = bytes.find("some text");
  bytes[at] = 'S';
  writeFile(archive, bytes);
  auto zip = CZipFile::open(archive);
  try {
    zip->read("a.txt");
    FAIL() << "damaged entry read";
  } catch (tal::CFileSystemError const& e) {
    EXPECT_EQ(std::string(e.what()).rfind("ZIP entry's CRC-32 does not match: computed ", 0), 0u) << e.what();
    EXPECT_NE(std::string(e.what()).find("(" + archive + ": a.txt)"), std::string::npos) << e.what();
  }
  ZipFileOptions unchecked;
  unchecked.verifyEntries = false;
  EXPECT_EQ(CZipFile::open(archive, ZipFileMode::Read, unchecked)->read("a.txt"), "Some text to damage");
  ZipFileOptions badLevel;
  badLevel.level = 10;
  expectError([&] { CZipFile::open(dir.file("l.zip"), ZipFileMode::Create, badLevel); },
              placed(tal::CInvalidArgError(tal::String("ziputil::CZipFile::open"), tal::String("level is invalid"),
                                           props({{"level", "10"}})),
                     dir.file("l.zip")));
  EXPECT_FALSE(tal::newObj<tal::CLocalFileSystem>()->exists(ziputil::localFileURI(dir.file("l.zip"))));
}

TEST_F(ZipFileTest, CreateRefusesAnExistingFileAndLeavesItAlone) {
  std::string const archive = dir.file("kept.zip");
  writeFile(archive, "precious");
  tal::CProps const where = props({{"uri", utf8(ziputil::localFileURI(archive).toString(true))}});
  expectError([&] { CZipFile::open(archive, ZipFileMode::Create); },
              tal::CFileSystemError(tal::CFileSystemError::AlreadyExists,
                                    plainError("The ZIP archive already exists. (" + archive + ")", where)));
  EXPECT_EQ(readFile(archive), "precious");
  auto reading = CZipFile::open(dir.file("py.zip"), ZipFileMode::Create);
  reading->add("a", "b");
  reading->close();
  auto zip = CZipFile::open(dir.file("py.zip"));
  expectError([&] { zip->read("a\xFF"); },
              placed(tal::CInvalidArgError(tal::String("ziputil::entryURI"), tal::String("name is not valid UTF-8"),
                                           props({{"name", "a\xC3\xBF"}})),
                     dir.file("py.zip") + ": a\xC3\xBF"));
}

TEST_F(ZipFileTest, ReplaceKeepsTheOldFileUntilTheNewOneIsComplete) {
  std::string const archive = dir.file("r.zip");
  makeZip(archive, {{"old.txt", "old"}});
  std::string const old = readFile(archive);
  {
    auto zip = CZipFile::open(archive, ZipFileMode::Replace);
    zip->add("new.txt", "new");
    EXPECT_EQ(readFile(archive), old);
    EXPECT_EQ(testsupport::listFolder(dir.path()).size(), 2u); // the archive and the new file beside it
    zip->discard();
  }
  EXPECT_EQ(readFile(archive), old);
  EXPECT_EQ(testsupport::listFolder(dir.path()), std::vector<std::string>{"r.zip"});
  ASSERT_EQ(chmod(archive.c_str(), 0600), 0);
  {
    auto zip = CZipFile::open(archive, ZipFileMode::Replace);
    zip->add("new.txt", "new");
    zip->close();
  }
  EXPECT_EQ(pythonListing(archive), "new.txt|new|100644|3|\ncomment=\n");
  EXPECT_EQ(testsupport::listFolder(dir.path()), std::vector<std::string>{"r.zip"});
  struct stat st;
  ASSERT_EQ(stat(archive.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u); // the replaced file's permissions stay
}

TEST_F(ZipFileTest, AppendKeepsEntriesAndCommentAndCreatesAMissingArchive) {
  std::string const archive = dir.file("a.zip");
  runPython(R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1], 'w') as z:
    z.writestr('first.txt', 'first')
    z.comment = b'kept comment'
)",
            {archive});
  {
    auto zip = CZipFile::open(archive, ZipFileMode::Append);
    zip->add("second.txt", "second");
    zip->close();
  }
  EXPECT_EQ(pythonListing(archive), "first.txt|first|600|3|\nsecond.txt|second|100644|3|\ncomment=kept comment\n");
  std::string const fresh = dir.file("fresh.zip");
  {
    auto zip = CZipFile::open(fresh, ZipFileMode::Append);
    zip->add("only.txt", "only");
  } // the destructor closes
  EXPECT_EQ(pythonListing(fresh), "only.txt|only|100644|3|\ncomment=\n");
}

TEST_F(ZipFileTest, AnExceptionLeavingTheScopeGivesUpWhatWasWritten) {
  std::string const created = dir.file("c.zip");
  std::string const appended = dir.file("a.zip");
  makeZip(appended, {{"old.txt", "old"}});
  std::string const old = readFile(appended);
  try {
    auto a = CZipFile::open(created, ZipFileMode::Create);
    auto b = CZipFile::open(appended, ZipFileMode::Append);
    a->add("x", "x");
    b->add("y", "y");
    throw std::runtime_error("the caller's own failure");
  } catch (std::runtime_error const&) {
  }
  EXPECT_EQ(testsupport::listFolder(dir.path()), std::vector<std::string>{"a.zip"});
  EXPECT_EQ(readFile(appended), old);
}

TEST_F(ZipFileTest, EntriesWithAPasswordAreAes256ByDefault) {
  std::string const archive = dir.file("aes.zip");
  ZipFileOptions options;
  options.password = "s3cret";
  {
    auto zip = CZipFile::open(archive, ZipFileMode::Create, options);
    zip->add("hidden.txt", "hidden text");
    zip->close();
  }
  ziputil::EntryInfo const info = CZipFile::open(archive)->info("hidden.txt");
  EXPECT_EQ(info.encryption, ziputil::Encryption::Aes256);
  EXPECT_EQ(info.method, 99);
  EXPECT_EQ(info.realMethod, 8);
  EXPECT_EQ(CZipFile::open(archive, ZipFileMode::Read, options)->read("hidden.txt"), "hidden text");
  std::string output;
  EXPECT_EQ(runCommand("7z x -so -ps3cret " + shellQuote(archive) + " hidden.txt 2>/dev/null", &output), 0);
  EXPECT_EQ(output, "hidden text");
}

TEST_F(ZipFileTest, TraditionalEncryptionOpensInOtherToolsWithThePassword) {
  std::string const archive = dir.file("secret.zip");
  ZipFileOptions options;
  options.password = "s3cret";
  options.encryption = ziputil::Encryption::Traditional;
  {
    auto zip = CZipFile::open(archive, ZipFileMode::Create, options);
    zip->add("hidden.txt", "hidden text");
    zip->close();
  }
  EXPECT_EQ(pythonListing(archive, "s3cret"), "hidden.txt|hidden text|100644|3|\ncomment=\n");
  std::string output;
  EXPECT_EQ(runCommand("unzip -t -P s3cret " + shellQuote(archive) + " 2>&1", &output), 0) << output;
  EXPECT_EQ(CZipFile::open(archive, ZipFileMode::Read, options)->read("hidden.txt"), "hidden text");
  EXPECT_TRUE(CZipFile::open(archive)->info("hidden.txt").isEncrypted);
}

TEST_F(ZipFileTest, AddFileRefusesWhatIsNotAFileAndReportsTheFileSystemsError) {
  std::string const fifo = dir.file("pipe");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string const archive = dir.file("f.zip");
  auto zip = CZipFile::open(archive, ZipFileMode::Create);
  expectError([&] { zip->addFile("pipe", fifo); },
              placed(tal::CInvalidArgError(tal::String("ziputil::CZipFile::addFile"),
                                           tal::String("path is not a regular file or folder"), props({{"path", fifo}})),
                     archive + ": pipe"));
  try {
    zip->addFile("gone", dir.file("gone.txt"));
    FAIL() << "added a missing file";
  } catch (tal::CIOError const& e) {
    EXPECT_EQ(e.getCode(), tal::CIOError::OpenFailed);
    EXPECT_EQ(std::string(e.what()), "Cannot open file: No such file or directory (" + archive + ": gone)");
  }
  zip->add("fine.txt", "fine");
  zip->close();
  EXPECT_EQ(pythonListing(archive), "fine.txt|fine|100644|3|\ncomment=\n");
  // A writer does not read.
  auto writing = CZipFile::open(dir.file("w.zip"), ZipFileMode::Create);
  tal::CProps const where = props({{"uri", utf8(ziputil::localFileURI(dir.file("w.zip")).toString(true))}});
  expectError([&] { writing->read("fine.txt"); },
              plainError("The ZIP archive is open for writing. (" + dir.file("w.zip") + ": fine.txt)", where));
  expectError([&] { writing->entries(); },
              plainError("The ZIP archive is open for writing. (" + dir.file("w.zip") + ")", where));
  writing->discard();
  EXPECT_FALSE(tal::newObj<tal::CLocalFileSystem>()->exists(ziputil::localFileURI(dir.file("w.zip"))));
}

/// A failure at every file-system call while replacing an archive leaves the
/// old archive whole and nothing beside it.
TEST_F(ZipFileTest, AFailedAddGivesUpEverythingAndTheNextCloseSaysSo) {
  // The caller catches the failure and closes anyway: nothing of what it wrote may be committed.
  using testsupport::CFaultyFileSystem;
  for (ZipFileMode const mode : {ZipFileMode::Create, ZipFileMode::Replace, ZipFileMode::Append}) {
    for (bool const throughStream : {false, true}) {
     for (bool const inData : {false, true}) { // the fault hits the entry's local header, or its data
      SCOPED_TRACE(std::to_string(static_cast<int>(mode)) + (throughStream ? " stream " : " add ") + (inData ? "data" : "header"));
      auto memory = tal::newObj<tal::CMemoryFileSystem>();
      tal::CURI const uri(tal::String("mem:/g.zip"));
      std::string old;
      if (mode != ZipFileMode::Create) {
        auto zip = CZipFile::open(memory.get(), uri, ZipFileMode::Create);
        zip->add("old.txt", "old");
        zip->close();
        old = memory->getFile(uri);
      }
      auto recording = tal::newObj<testsupport::CRecordingFileSystem>(memory.get());
      auto faulty = tal::newObj<CFaultyFileSystem>(recording.get());
      ZipFileOptions options;
      options.atomic = false; // Append in place: the writer puts the archive back itself
      auto zip = CZipFile::open(faulty.get(), uri, mode, options);
      std::string big(300000, '\0'); // deflate cannot shrink it: its data is written while it is added
      std::mt19937 random(5);
      for (char& c : big) c = static_cast<char>(random() & 0xff);
      // The first entry, as large, tells how many writes a local header takes.
      long long const before = faulty->count(CFaultyFileSystem::Write);
      auto first = zip->openNewEntry("first.txt");
      long long const headerWrites = faulty->count(CFaultyFileSystem::Write) - before;
      first->write(big.data(), static_cast<int>(big.size()), nullptr);
      first->close();
      faulty->failNth(CFaultyFileSystem::Write, faulty->count(CFaultyFileSystem::Write) + (inData ? headerWrites + 2 : 1));
      tal::P<tal::CError> failure;
      tal::P<tal::IOutStream> out;
      try {
        if (throughStream) {
          out = zip->openNewEntry("second.txt");
          out->write(big.data(), static_cast<int>(big.size()), nullptr);
        } else {
          zip->add("second.txt", big);
        }
        ADD_FAILURE() << "the add succeeded";
      } catch (testsupport::CInjectedError const& e) {
        failure = e.clone();
      }
      ASSERT_TRUE(failure);
      EXPECT_TRUE(faulty->fired());
      auto const& injected = *dynamic_cast<testsupport::CInjectedError*>(failure.get());
      if (throughStream || !inData) {
        // The writer underneath gave up: the stream finds it closed, later adds are refused, and close() reports
        // the failure, placed at the archive.
        if (out) {
          EXPECT_THROW(out->close(), tal::CFileSystemError);
        }
        EXPECT_THROW(zip->add("third.txt", "third"), tal::CIOError);
        std::string const unplaced = utf8(injected.getMessage()).substr(0, utf8(injected.getMessage()).find(" ("));
        testsupport::CInjectedError bare = injected;
        bare.setMessage(tal::String::fromUTF8(unplaced));
        expectError([&] { zip->close(); }, placed(bare, "mem:/g.zip"));
      } else {
        expectError([&] { zip->add("third.txt", "third"); },
                    placed(tal::CIOError(tal::CIOError::StreamClosed, tal::String("ZIP file already closed"),
                                         tal::uriProps(uri), nullptr),
                           "mem:/g.zip: third.txt"));
        expectError([&] { zip->close(); }, *dynamic_cast<testsupport::CInjectedError*>(failure.get()));
      }
      EXPECT_NO_THROW(zip->close());
      if (mode == ZipFileMode::Create)
        EXPECT_FALSE(memory->exists(uri));
      else
        EXPECT_TRUE(memory->getFile(uri) == old);
      // No copy left beside it (Append in place opened the archive itself; Create's file is gone).
      EXPECT_EQ(recording->existing().size(), mode == ZipFileMode::Append ? 1u : 0u);
     }
    }
  }
}

TEST_F(ZipFileTest, AFaultAtEveryCallWhileReplacingKeepsTheOldArchive) {
  auto memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI const uri(tal::String("mem:/r.zip"));
  {
    auto zip = CZipFile::open(memory.get(), uri, ZipFileMode::Create);
    zip->add("old.txt", "old");
    zip->close();
  }
  auto readAll = [&](tal::CURI const& u) {
    auto in = memory->openStream(u, tal::IFileSystem::AccessRead, 0);
    std::string bytes(static_cast<std::size_t>(in->getLength()), '\0');
    in->read(&bytes[0], static_cast<int>(bytes.size()));
    return bytes;
  };
  std::string const old = readAll(uri);
  auto faulty = tal::newObj<testsupport::CFaultyFileSystem>(memory.get());
  int faults = 0;
  for (int op = 0; op < testsupport::CFaultyFileSystem::OpCount; ++op) {
    for (long long n = 1;; ++n) {
      // The old archive, as before every round.
      auto out = memory->openStream(uri, tal::IFileSystem::AccessReadWrite, tal::IFileSystem::OpenCreate);
      out->setLength(0);
      out->write(old.data(), static_cast<int>(old.size()), nullptr);
      out->close();
      faulty->reset();
      faulty->failNth(static_cast<testsupport::CFaultyFileSystem::Op>(op), n);
      bool failed = false;
      try {
        auto zip = CZipFile::open(faulty.get(), uri, ZipFileMode::Replace);
        zip->add("new.txt", std::string(70000, 'n'));
        zip->close();
      } catch (testsupport::CInjectedError const&) {
        failed = true;
      }
      if (!faulty->fired()) break;
      ++faults;
      EXPECT_TRUE(failed) << "op " << op << " call " << n;
      std::string const now = readAll(uri);
      if (failed) {
        EXPECT_EQ(now, old) << "op " << op << " call " << n;
      } else {
        ASSERT_EQ(CZipFile::open(memory.get(), uri)->read("new.txt"), std::string(70000, 'n'));
      }
    }
  }
  EXPECT_GT(faults, 20);
}

} // namespace
