// CParallelDeflater: archives byte for byte those of a sequential add through
// beginAddFile, within the memory limit; a failing source or archive leaves
// the archive as it was and reaches the caller unchanged; skipped sources.
#include "ziputil/CParallelDeflater.h"

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

#include <cstring>
#include <random>
#include <set>

using testsupport::entryURI;
using testsupport::utf8;
using ziputil::CParallelDeflater;
using ziputil::CZipReader;
using ziputil::CZipWriter;

namespace {

/// Text of `size` bytes from a few hundred words, lines of varying length.
std::string mixedText(std::size_t size, unsigned seed) {
  static char const* const kWords[] = {"archive", "entry", "deflate", "the", "of", "window", "stream", "zip",
                                       "central", "directory", "header", "a", "lorem", "ipsum", "dolor", "42"};
  std::mt19937 random(seed);
  std::string text;
  text.reserve(size + 16);
  while (text.size() < size) {
    text += kWords[random() % 16];
    text += random() % 11 == 0 ? '\n' : ' ';
    if (random() % 97 == 0) text += std::to_string(random());
  }
  text.resize(size);
  return text;
}

std::string noise(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

struct Input {
  std::string name;
  std::string data;
  CZipWriter::EntryOptions options;
};

/// Sources over files of a memory file system (read through `fs`, which may fail).
std::vector<CParallelDeflater::Source> sourcesFor(std::vector<Input> const& inputs, tal::CMemoryFileSystem* files,
                                                  tal::IFileSystem* fs) {
  std::vector<CParallelDeflater::Source> sources;
  unsigned second = 0;
  for (Input const& input : inputs) {
    tal::CURI const uri(tal::String::fromUTF8(("mem:/in/" + std::to_string(sources.size())).c_str()));
    files->setFile(uri, input.data);
    CParallelDeflater::Source source;
    source.relativeURIInArchive = entryURI(input.name);
    source.time = tal::CTimeFields(2024, 2, 29, 12, 30, static_cast<int>(2 * (++second % 30)), 0.0, 0, false);
    source.options = input.options;
    tal::P<tal::IFileSystem> keep(fs);
    source.open = [keep, uri] {
      return tal::P<tal::IInStream>(keep->openStream(uri, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags));
    };
    sources.push_back(source);
  }
  return sources;
}

/// What a sequential add writes: beginAddFile, then the source's bytes in the pieces readLax gives.
void addSequentially(CZipWriter& writer, std::vector<CParallelDeflater::Source> const& sources) {
  std::vector<char> buffer(CParallelDeflater::kChunkSize);
  for (CParallelDeflater::Source const& source : sources) {
    auto out = writer.beginAddFile(source.relativeURIInArchive, source.time, source.options);
    auto in = source.open();
    while (int const n = in->readLax(buffer.data(), CParallelDeflater::kChunkSize)) out->write(buffer.data(), n, nullptr);
    in->close();
    out->close();
  }
}

/// A varied list: empty, tiny, around zip.c's 64 KiB buffer, text and noise, every method choice.
std::vector<Input> variedInputs() {
  std::vector<Input> inputs;
  std::size_t const sizes[] = {0, 1, 100, 65535, 65536, 65537, 200000, 700000, 1500000};
  unsigned seed = 1;
  for (std::size_t size : sizes) {
    inputs.push_back({"text/" + std::to_string(size) + ".txt", mixedText(size, ++seed), {}});
    inputs.push_back({"noise/" + std::to_string(size) + ".bin", noise(size, ++seed), {}});
  }
  CZipWriter::EntryOptions stored;
  stored.method = CZipWriter::EntryOptions::Stored;
  stored.comment = "kept as it is";
  inputs.push_back({"stored.txt", mixedText(90000, 77), stored});
  CZipWriter::EntryOptions level2;
  level2.method = CZipWriter::EntryOptions::Deflated;
  level2.level = 2;
  level2.unixMode = 0100755;
  inputs.push_back({"level2.txt", mixedText(300000, 78), level2});
  CZipWriter::EntryOptions level9 = level2;
  level9.level = 9;
  inputs.push_back({"level9.txt", mixedText(300000, 79), level9});
  CZipWriter::EntryOptions link;
  link.symbolicLink = true;
  inputs.push_back({"link", "text/100.txt", link});
  inputs.push_back({"folder/", "", {}});
  return inputs;
}

struct Config {
  int level;
  bool madeByUnix;
  unsigned threads;
  std::size_t maxBytesHeld;
};

class ParallelDeflaterIdentityTest : public ::testing::TestWithParam<Config> {};

TEST_P(ParallelDeflaterIdentityTest, ArchiveIsByteForByteASequentialAdd) {
  Config const config = GetParam();
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<Input> const inputs = variedInputs();
  std::vector<CParallelDeflater::Source> const sources = sourcesFor(inputs, memory.get(), memory.get());
  CZipWriter::Options options;
  options.madeByUnix = config.madeByUnix;
  auto const level = static_cast<CZipWriter::CompLevel>(config.level);
  std::string archives[2];
  for (int parallel = 0; parallel < 2; ++parallel) {
    tal::CURI const uri(tal::String(parallel ? "mem:/parallel.zip" : "mem:/sequential.zip"));
    ziputil::createEmptyArchive(memory.get(), uri);
    auto writer = tal::newObj<CZipWriter>(memory.get(), uri, tal::String(), level, options);
    testsupport::addEntry(*writer, "first", "an entry that was there before"); // the list goes after it
    if (parallel) {
      CParallelDeflater::Settings settings;
      settings.threads = config.threads;
      settings.maxBytesHeld = config.maxBytesHeld;
      EXPECT_EQ(CParallelDeflater(settings).addAll(*writer, sources), sources.size());
    } else {
      addSequentially(*writer, sources);
    }
    testsupport::addEntry(*writer, "last", "and one after");
    writer->close();
    archives[parallel] = memory->getFile(uri);
  }
  EXPECT_TRUE(archives[0] == archives[1]) << "the archives differ";
  std::vector<testsupport::RawEntry> const entries = testsupport::parseArchive(archives[1]);
  std::vector<testsupport::RawEntry> const expected = testsupport::parseArchive(archives[0]);
  for (std::size_t i = 0; i < entries.size() && i < expected.size(); ++i) {
    testsupport::RawEntry const &a = expected[i], &b = entries[i];
    EXPECT_TRUE(a.name == b.name && a.versionMadeBy == b.versionMadeBy && a.localFlags == b.localFlags &&
                a.centralFlags == b.centralFlags && a.internalAttributes == b.internalAttributes &&
                a.externalAttributes == b.externalAttributes && a.crc == b.crc &&
                a.compressedSize == b.compressedSize && a.uncompressedSize == b.uncompressedSize && a.data == b.data)
        << "entry " << a.name << ": flags " << a.centralFlags << "/" << b.centralFlags << " internal "
        << a.internalAttributes << "/" << b.internalAttributes << " sizes " << a.compressedSize << "/"
        << b.compressedSize << " data " << (a.data == b.data);
  }
  ASSERT_EQ(entries.size(), inputs.size() + 2);
  // And they hold what was given, as this reader and Python read them.
  CZipReader::Options verify;
  verify.verifyEntries = true;
  auto reader = tal::newObj<CZipReader>(memory.get(), tal::CURI(tal::String("mem:/parallel.zip")), tal::String(), verify);
  ASSERT_TRUE(reader->nextFile());
  for (Input const& input : inputs) {
    ASSERT_TRUE(reader->nextFile());
    EXPECT_EQ(reader->getCurrentFileRawName(), input.name);
    auto in = reader->openCurrentFileStream();
    std::string data(input.data.size(), '\0');
    if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
    EXPECT_EQ(in->readLax(&data[0], 1), 0);
    in->close();
    EXPECT_TRUE(data == input.data) << input.name;
  }
  testsupport::TempDir dir("ziputil-parallel");
  testsupport::writeFile(dir.file("p.zip"), archives[1]);
  std::vector<std::string> const verdicts = testsupport::pythonVerdicts({dir.file("p.zip")});
  ASSERT_EQ(verdicts.size(), 1u);
  EXPECT_EQ(verdicts[0].substr(verdicts[0].size() - 5), " None");
}

INSTANTIATE_TEST_SUITE_P(Levels, ParallelDeflaterIdentityTest,
                         ::testing::Values(Config{6, false, 2, 64 << 20}, Config{1, true, 3, 64 << 20},
                                           Config{9, false, 4, 1 << 20}, Config{0, false, 2, 64 << 20},
                                           Config{-1, true, 1, 3 << 20}, Config{6, true, 8, 300000}),
                         [](::testing::TestParamInfo<Config> const& info) {
                           return "Level" + std::to_string(info.param.level + 1) + "Threads" +
                                  std::to_string(info.param.threads) + "Limit" +
                                  std::to_string(info.param.maxBytesHeld);
                         });

TEST(ParallelDeflaterTest, SourcesOfUnknownLengthAreCompressedByTheCallingThread) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<tal::CMemoryFileSystem> files = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<Input> const inputs = variedInputs();
  std::vector<CParallelDeflater::Source> const sources = sourcesFor(inputs, files.get(), files.get());
  files->setLengthUnknown(true);
  std::string archives[2];
  for (int parallel = 0; parallel < 2; ++parallel) {
    tal::CURI const uri(tal::String(parallel ? "mem:/parallel.zip" : "mem:/sequential.zip"));
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    if (parallel)
      EXPECT_EQ(CParallelDeflater().addAll(*writer, sources), sources.size());
    else
      addSequentially(*writer, sources);
    writer->close();
    archives[parallel] = memory->getFile(uri);
  }
  EXPECT_TRUE(archives[0] == archives[1]);
  EXPECT_EQ(testsupport::parseArchive(archives[1]).size(), inputs.size());
}

TEST(ParallelDeflaterTest, EncryptedEntriesOpenWithThePassword) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<Input> const inputs = variedInputs();
  std::vector<CParallelDeflater::Source> const sources = sourcesFor(inputs, memory.get(), memory.get());
  tal::CURI const uri(tal::String("mem:/sealed.zip"));
  for (bool interoperable : {false, true}) {
    ziputil::createEmptyArchive(memory.get(), uri);
    CZipWriter::Options options;
    options.interoperableEncryption = interoperable;
    auto writer = tal::newObj<CZipWriter>(memory.get(), uri, tal::String("pw"), CZipWriter::CompNormal, options);
    CParallelDeflater::Settings settings;
    settings.maxBytesHeld = 2 << 20; // the largest entries take the sequential path
    CParallelDeflater(settings).addAll(*writer, sources);
    writer->close();
    CZipReader::Options verify;
    verify.verifyEntries = true;
    auto reader = tal::newObj<CZipReader>(memory.get(), uri, tal::String("pw"), verify);
    for (Input const& input : inputs) {
      ASSERT_TRUE(reader->nextFile());
      EXPECT_TRUE(reader->isCurrentFileEncrypted());
      auto in = reader->openCurrentFileStream();
      std::string data(input.data.size(), '\0');
      if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
      EXPECT_EQ(in->readLax(&data[0], 1), 0);
      in->close();
      EXPECT_TRUE(data == input.data) << input.name;
    }
    if (interoperable) {
      testsupport::TempDir dir("ziputil-parallel");
      testsupport::writeFile(dir.file("sealed.zip"), memory->getFile(uri));
      std::string output;
      EXPECT_EQ(testsupport::runCommand("unzip -tq -P pw " + testsupport::shellQuote(dir.file("sealed.zip")) + " 2>&1",
                                        &output),
                0)
          << output;
    }
  }
}

/// An archive of two entries, and sources reading through a file system that fails on request.
class ParallelDeflaterFailureTest : public ::testing::TestWithParam<bool> {
protected:
  ParallelDeflaterFailureTest() {
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    testsupport::addEntry(*writer, "a", std::string(20000, 'a'));
    testsupport::addEntry(*writer, "b", std::string(20000, 'b'));
    writer->close();
    original = memory->getFile(uri);
    std::vector<Input> inputs;
    for (int i = 0; i < 40; ++i) inputs.push_back({"e" + std::to_string(i), mixedText(20000 + 7919 * i, i), {}});
    inputs.push_back({"large", mixedText(1500000, 99), {}}); // beyond the limit below: compressed by the caller
    sources = sourcesFor(inputs, memory.get(), faulty.get());
  }

  tal::P<CZipWriter> openWriter(tal::IFileSystem* fs) {
    CZipWriter::Options options;
    options.atomicReplace = GetParam();
    return tal::newObj<CZipWriter>(fs, uri, tal::String(), CZipWriter::CompNormal, options);
  }

  void expectClosedAndUntouched(CZipWriter& writer) {
    testsupport::expectIOError([&] { writer.beginAddFile(entryURI("late"), tal::CTimeFields()); },
                               tal::CIOError::StreamClosed, "ZIP file already closed", uri);
    EXPECT_TRUE(memory->getFile(uri) == original);
    // Of the files opened, only the archive and the sources may exist: no copy is left.
    for (std::string const& left : recording->existing())
      EXPECT_TRUE(left == "mem:/faults.zip" || left.rfind("mem:/in/", 0) == 0) << left;
  }

  static CParallelDeflater::Settings limited() {
    CParallelDeflater::Settings settings;
    settings.threads = 2;
    settings.maxBytesHeld = 2 << 20;
    return settings;
  }

  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<testsupport::CRecordingFileSystem> recording = tal::newObj<testsupport::CRecordingFileSystem>(memory.get());
  tal::P<testsupport::CFaultyFileSystem> faulty = tal::newObj<testsupport::CFaultyFileSystem>(recording.get());
  tal::CURI uri{tal::String("mem:/faults.zip")};
  std::string original;
  std::vector<CParallelDeflater::Source> sources;
};

TEST_P(ParallelDeflaterFailureTest, ASourceFailureIsThrownUnchangedAndTheArchiveKept) {
  using Op = testsupport::CFaultyFileSystem::Op;
  // Reads of the sources: one early, some in the middle, the large entry's last ones (read by the calling thread).
  for (auto [op, n] : {std::pair<Op, long long>{Op::Open, 1}, {Op::Open, 30}, {Op::Open, 41}, {Op::Read, 1},
                       {Op::Read, 25}, {Op::Read, 60}, {Op::Read, 75}, {Op::Close, 3}, {Op::Close, 41}}) {
    SCOPED_TRACE(std::string(testsupport::CFaultyFileSystem::opName(op)) + " " + std::to_string(n));
    memory->setFile(uri, original);
    faulty->reset();
    faulty->failNth(op, n);
    auto writer = openWriter(recording.get());
    try {
      CParallelDeflater(limited()).addAll(*writer, sources);
      ADD_FAILURE() << "no error";
    } catch (tal::CError const& e) {
      EXPECT_EQ(typeid(e), typeid(testsupport::CInjectedError)) << e.what();
      testsupport::expectSameError(
          e, testsupport::CFaultyFileSystem::injectedError(op, n, tal::CURI(e.getProps().get("uri"))));
    }
    EXPECT_TRUE(faulty->fired());
    expectClosedAndUntouched(*writer);
  }
}

TEST_P(ParallelDeflaterFailureTest, AnArchiveFailureIsTheWritersAndTheArchiveIsKept) {
  using Op = testsupport::CFaultyFileSystem::Op;
  std::vector<CParallelDeflater::Source> const plain = sourcesFor(
      {{"x", mixedText(300000, 5), {}}, {"y", mixedText(3000, 6), {}}, {"z", mixedText(1500000, 7), {}}}, memory.get(),
      memory.get());
  for (long long n : {1, 2, 5, 9, 14}) {
    memory->setFile(uri, original);
    auto writer = openWriter(faulty.get());
    faulty->reset(); // counted from the first write of the entries on
    faulty->failNth(Op::Write, n);
    try {
      CParallelDeflater(limited()).addAll(*writer, plain);
      ADD_FAILURE() << "no error at " << n;
    } catch (tal::CError const& e) {
      EXPECT_EQ(typeid(e), typeid(testsupport::CInjectedError)) << e.what();
      testsupport::expectSameError(
          e, testsupport::CFaultyFileSystem::injectedError(Op::Write, n, tal::CURI(e.getProps().get("uri"))));
    }
    expectClosedAndUntouched(*writer);
  }
}

INSTANTIATE_TEST_SUITE_P(Writers, ParallelDeflaterFailureTest, ::testing::Bool(),
                         [](::testing::TestParamInfo<bool> const& info) {
                           return std::string(info.param ? "Atomic" : "InPlace");
                         });

TEST(ParallelDeflaterTest, SkippedSourcesLeaveNothingAndTheRestArrive) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<Input> inputs;
  for (int i = 0; i < 12; ++i) inputs.push_back({"e" + std::to_string(i), mixedText(50000 * (i + 1), i), {}});
  std::vector<CParallelDeflater::Source> sources = sourcesFor(inputs, memory.get(), memory.get());
  tal::CIOError const refused(tal::CIOError::OpenFailed, tal::String("Permission denied"),
                              tal::CProps{{"uri", tal::String("file:///e3")}}, nullptr);
  sources[3].open = [refused]() -> tal::P<tal::IInStream> { throw refused; };
  sources[11].open = [refused]() -> tal::P<tal::IInStream> { throw std::runtime_error("gone"); }; // a large one
  std::vector<CParallelDeflater::Source> kept = sources;
  kept.erase(kept.begin() + 11);
  kept.erase(kept.begin() + 3);
  CParallelDeflater::Settings settings;
  settings.maxBytesHeld = 1 << 20;
  std::vector<std::pair<std::size_t, std::string>> skipped;
  settings.skipFailedSource = [&](std::size_t index, tal::CError const& error) {
    skipped.emplace_back(index, error.what());
    if (index == 3) testsupport::expectSameError(error, refused);
    return true;
  };
  tal::CURI const uri(tal::String("mem:/skip.zip")), reference(tal::String("mem:/reference.zip"));
  auto writer = testsupport::newArchiveWriter(memory.get(), uri);
  EXPECT_EQ(CParallelDeflater(settings).addAll(*writer, sources), 10u);
  writer->close();
  ASSERT_EQ(skipped.size(), 2u);
  EXPECT_EQ(skipped[0].first, 3u);
  EXPECT_EQ(skipped[1].first, 11u);
  EXPECT_NE(skipped[1].second.find("gone"), std::string::npos) << skipped[1].second;
  auto sequential = testsupport::newArchiveWriter(memory.get(), reference);
  addSequentially(*sequential, kept);
  sequential->close();
  EXPECT_TRUE(memory->getFile(uri) == memory->getFile(reference));
}

TEST(ParallelDeflaterTest, WhatBeginAddFileRefusesIsRefusedBeforeAnythingIsWritten) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::CURI const uri(tal::String("mem:/refused.zip"));
  auto writer = testsupport::newArchiveWriter(memory.get(), uri);
  std::string const before = memory->getFile(uri);
  std::vector<CParallelDeflater::Source> sources =
      sourcesFor({{"a", "aaa", {}}, {"b", "bbb", {}}}, memory.get(), memory.get());
  sources[1].options.method = CZipWriter::EntryOptions::Deflated;
  sources[1].options.level = 10;
  try {
    CParallelDeflater().addAll(*writer, sources);
    ADD_FAILURE() << "no error";
  } catch (tal::CError const& e) {
    testsupport::expectSameError(e, tal::CInvalidArgError(tal::String("CZipWriter::beginAddFile"),
                                                          tal::String("level is invalid"),
                                                          tal::CProps{{"level", tal::String("10")}}));
  }
  sources[1].options.level = 9;
  sources[0].relativeURIInArchive = tal::CURI();
  try {
    CParallelDeflater().addAll(*writer, sources);
    ADD_FAILURE() << "no error";
  } catch (tal::CError const& e) {
    testsupport::expectSameError(e, tal::CInvalidArgError(tal::String("CZipWriter::beginAddFile"),
                                                          tal::String("relativeURIInArchive is invalid"),
                                                          tal::CProps{{"relativeURIInArchive", tal::String()}}));
  }
  EXPECT_EQ(memory->getFile(uri), before);
  sources[0].relativeURIInArchive = entryURI("a");
  EXPECT_EQ(CParallelDeflater().addAll(*writer, sources), 2u); // the writer stayed open
  EXPECT_EQ(CParallelDeflater().addAll(*writer, {}), 0u);
  writer->close();
  testsupport::expectIOError([&] { CParallelDeflater().addAll(*writer, sources); }, tal::CIOError::StreamClosed,
                             "ZIP file already closed", uri);
  EXPECT_EQ(testsupport::parseArchive(memory->getFile(uri)).size(), 2u);
}

/// Many small entries (gathered by the workers into groups), sizes around the read-ahead size (kChunkSize) and
/// around a group's input, every level from -1 to 9 and both methods in one list.
std::vector<Input> smallInputs(int count, unsigned seed) {
  std::vector<Input> inputs;
  std::mt19937 random(seed);
  std::size_t const chunk = CParallelDeflater::kChunkSize;
  std::size_t const edges[] = {0, 1, chunk - 1, chunk, chunk + 1, 4 * chunk - 1, 4 * chunk, 4 * chunk + 1};
  for (int i = 0; i < count; ++i) {
    std::size_t size = random() % 9000;
    if (i % 17 == 0) size = edges[(i / 17) % 8];
    if (i % 29 == 0) size = 30000 + random() % 40000;
    CZipWriter::EntryOptions options;
    if (i % 5 == 0) {
      options.method = CZipWriter::EntryOptions::Deflated;
      options.level = static_cast<int>(i / 5 % 11) - 1;
    } else if (i % 23 == 0) {
      options.method = CZipWriter::EntryOptions::Stored;
    }
    bool const text = i % 7 != 3;
    inputs.push_back({"small/" + std::to_string(i) + (text ? ".txt" : ".bin"),
                      text ? mixedText(size, seed + static_cast<unsigned>(i)) : noise(size, static_cast<unsigned>(i)),
                      options});
  }
  return inputs;
}

/// The archive of `sources` made by a sequential add (parallel false) or by addAll with `settings`.
std::string archiveOf(tal::CMemoryFileSystem* memory, std::vector<CParallelDeflater::Source> const& sources,
                      int level, bool parallel, CParallelDeflater::Settings const& settings = {}) {
  tal::CURI const uri(tal::String(parallel ? "mem:/parallel.zip" : "mem:/sequential.zip"));
  ziputil::createEmptyArchive(memory, uri);
  auto writer = tal::newObj<CZipWriter>(memory, uri, tal::String(), static_cast<CZipWriter::CompLevel>(level),
                                        CZipWriter::Options());
  if (parallel)
    EXPECT_EQ(CParallelDeflater(settings).addAll(*writer, sources), sources.size());
  else
    addSequentially(*writer, sources);
  writer->close();
  return memory->getFile(uri);
}

class ParallelDeflaterGroupTest : public ::testing::TestWithParam<int> {};

TEST_P(ParallelDeflaterGroupTest, ManySmallEntriesMakeTheSequentialArchiveAtEveryLevel) {
  int const level = GetParam();
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<Input> inputs = smallInputs(300, static_cast<unsigned>(level + 100));
  for (Input& input : inputs)
    if (input.options.method == CZipWriter::EntryOptions::Deflated) input.options.level = level; // this level only
  std::vector<CParallelDeflater::Source> const sources = sourcesFor(inputs, memory.get(), memory.get());
  std::string const expected = archiveOf(memory.get(), sources, level, false);
  for (unsigned threads : {1u, 2u, 7u}) {
    for (std::size_t limit : {std::size_t(64) << 20, std::size_t(120000)}) {
      SCOPED_TRACE(std::to_string(threads) + " threads, limit " + std::to_string(limit));
      CParallelDeflater::Settings settings;
      settings.threads = threads;
      settings.maxBytesHeld = limit;
      EXPECT_TRUE(archiveOf(memory.get(), sources, level, true, settings) == expected) << "the archives differ";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, ParallelDeflaterGroupTest, ::testing::Range(-1, 10),
                         [](::testing::TestParamInfo<int> const& info) {
                           return "Level" + std::to_string(info.param + 1);
                         });

TEST(ParallelDeflaterTest, MixedLevelsAndMethodsInOneListMakeTheSequentialArchive) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<CParallelDeflater::Source> const sources = sourcesFor(smallInputs(600, 7), memory.get(), memory.get());
  std::string const expected = archiveOf(memory.get(), sources, 6, false);
  for (unsigned threads : {1u, 3u}) {
    for (std::size_t limit : {std::size_t(64) << 20, std::size_t(1) << 20, std::size_t(40000)}) {
      SCOPED_TRACE(std::to_string(threads) + " threads, limit " + std::to_string(limit));
      CParallelDeflater::Settings settings;
      settings.threads = threads;
      settings.maxBytesHeld = limit;
      EXPECT_TRUE(archiveOf(memory.get(), sources, 6, true, settings) == expected) << "the archives differ";
    }
  }
}

/// The bytes `data`, with a length that may be less than they are.
class CLyingStream : public tal::CBase, public virtual tal::IInStream {
public:
  CLyingStream(std::string data, long long length) : m_data(std::move(data)), m_length(length) {}
  void read(void* buffer, int size) override {
    if (readLax(buffer, size) != size)
      throw tal::CIOError(tal::CIOError::UnexpectedEnd, tal::String(), tal::CProps(), nullptr);
  }
  int readLax(void* buffer, int size) override {
    std::size_t const n = std::min(m_data.size() - m_position, static_cast<std::size_t>(std::max(size, 0)));
    std::memcpy(buffer, m_data.data() + m_position, n);
    m_position += n;
    return static_cast<int>(n);
  }
  int readAvailable(void* buffer, int size) override { return readLax(buffer, size); }
  bool waitReadable(int) const override { return true; }
  bool isEndOfStream() const override { return m_position >= m_data.size(); }
  int isEndOfStream_NonBlocking() const override { return isEndOfStream() ? 1 : 0; }
  long long getLength() const override { return m_length; }
  long long getPosition() const override { return static_cast<long long>(m_position); }
  tal::CURI getURI() const override { return tal::CURI(); }
  void seek(long long) override { throw tal::CIOError(tal::CIOError::SeekFailed, tal::String(), tal::CProps(), nullptr); }
  tal::P<tal::IRangeLock> lockRange(long long, long long, LockType) override { return nullptr; }
  void close() override {}

private:
  std::string m_data;
  long long m_length;
  std::size_t m_position = 0;
};

TEST(ParallelDeflaterTest, SourcesLongerThanTheirLengthAreCompressedByTheCallingThread) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  std::vector<CParallelDeflater::Source> sources = sourcesFor(smallInputs(80, 3), memory.get(), memory.get());
  // Some grow after their length was taken: small ones read ahead in a group, and a large one.
  std::size_t const chunk = CParallelDeflater::kChunkSize;
  std::vector<std::pair<std::size_t, std::string>> const grown{
      {5, mixedText(3000, 1)}, {6, mixedText(chunk + 10, 2)}, {40, mixedText(300000, 3)}, {79, mixedText(100, 4)}};
  for (auto const& [index, data] : grown) {
    long long const length = static_cast<long long>(data.size() > chunk ? data.size() - 5000 : data.size() / 2);
    sources[index].open = [data = data, length] { return tal::P<tal::IInStream>(tal::newObj<CLyingStream>(data, length)); };
  }
  std::string const expected = archiveOf(memory.get(), sources, 6, false);
  for (unsigned threads : {1u, 4u}) {
    CParallelDeflater::Settings settings;
    settings.threads = threads;
    EXPECT_TRUE(archiveOf(memory.get(), sources, 6, true, settings) == expected) << threads << " threads";
  }
}

TEST(ParallelDeflaterTest, FailedSmallSourcesInAGroupAreSkippedInTheListsOrder) {
  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<testsupport::CFaultyFileSystem> faulty = tal::newObj<testsupport::CFaultyFileSystem>(memory.get());
  std::vector<Input> const inputs = smallInputs(200, 11);
  std::vector<CParallelDeflater::Source> sources = sourcesFor(inputs, memory.get(), memory.get());
  std::set<std::size_t> const failing{0, 3, 4, 57, 58, 120, 199};
  for (std::size_t index : failing) {
    if (index % 2) {
      sources[index].open = [index]() -> tal::P<tal::IInStream> {
        throw tal::CIOError(tal::CIOError::OpenFailed, tal::String::fromUTF8(("refused " + std::to_string(index)).c_str()),
                            tal::CProps(), nullptr);
      };
    } else {
      std::string const data = inputs[index].data;
      sources[index].open = [data]() -> tal::P<tal::IInStream> {
        // Opens, then fails on its first read.
        struct CFailing : CLyingStream {
          using CLyingStream::CLyingStream;
          int readLax(void*, int) override { throw std::runtime_error("read failed"); }
        };
        return tal::newObj<CFailing>(data, static_cast<long long>(data.size()));
      };
    }
  }
  std::vector<CParallelDeflater::Source> kept;
  for (std::size_t i = 0; i < sources.size(); ++i)
    if (!failing.count(i)) kept.push_back(sources[i]);
  std::string const expected = archiveOf(memory.get(), kept, 6, false);
  for (unsigned threads : {1u, 2u, 5u}) {
    SCOPED_TRACE(std::to_string(threads) + " threads");
    std::vector<std::size_t> asked;
    CParallelDeflater::Settings settings;
    settings.threads = threads;
    settings.skipFailedSource = [&](std::size_t index, tal::CError const&) {
      asked.push_back(index);
      return true;
    };
    tal::CURI const uri(tal::String("mem:/skipped.zip"));
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    EXPECT_EQ(CParallelDeflater(settings).addAll(*writer, sources), kept.size());
    writer->close();
    EXPECT_TRUE(memory->getFile(uri) == expected);
    EXPECT_EQ(asked, std::vector<std::size_t>(failing.begin(), failing.end()));
    // Not skipped: the first failure in the list's order is thrown.
    settings.skipFailedSource = nullptr;
    auto failed = testsupport::newArchiveWriter(memory.get(), uri);
    std::string const before = memory->getFile(uri);
    try {
      CParallelDeflater(settings).addAll(*failed, sources);
      ADD_FAILURE() << "no error";
    } catch (tal::CError const& e) {
      EXPECT_NE(std::string(e.what()).find("read failed"), std::string::npos) << e.what(); // entry 0's
    }
    EXPECT_TRUE(memory->getFile(uri) == before);
  }
}

} // namespace
